// The file types that the server refuses as attachments. Each entry is a piece of a regular
// expression matched against the end of an attachment's name (so "vb[es]" stands for two types),
// kept in "attachment_filter.db" and handed to Postfix as one PCRE rule, "attachment_filter.pcre",
// which GenerateConfig writes. A new database starts with the types that are dangerous on the
// desktop; once it exists, what an administrator deletes stays deleted. Every change spreads the
// database file to the other nodes of the cluster.
//
// All members are static and open their own handle for the one call: safe from any thread and
// process.
#ifndef MAILSERVER_TABLES_ATTACHMENT_FILTER_H_
#define MAILSERVER_TABLES_ATTACHMENT_FILTER_H_

#include <list>
#include <string>

#include "foundation/export.h"

class QSV_EXPORT AttachmentFilter {
 public:
  // Appends the types that contain `search` (empty: all) to `out`. `search` goes into the query
  // as it stands, so a quote in it fails the call. 0, or -1.
  static int GetList(std::list<std::string> &out, const std::string &search);
  // All or none. 0, or -1 (also when the change stays on this node because the spread failed).
  static int Add(const std::list<std::string> &types);
  static int Delete(const std::list<std::string> &types);
  // Writes the rule from every type in the table. 0, or -1 with the old rule left in place.
  static int GenerateConfig();
};

#endif  // MAILSERVER_TABLES_ATTACHMENT_FILTER_H_
