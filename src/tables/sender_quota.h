// Daily quotas of mails per sender. The quotas live in the main settings database and reach
// Postfix as the hash map "sender_quota_map", keyed by the full user name, which GenerateConfig
// writes. Every change spreads the database file to the other nodes of the cluster; the map is
// made on each node from its own copy.
//
// All members are static and open their own handle for the one call: safe from any thread and
// process, with SQLite's busy wait between writers.
#ifndef MAILSERVER_TABLES_SENDER_QUOTA_H_
#define MAILSERVER_TABLES_SENDER_QUOTA_H_

#include <list>
#include <string>

#include "foundation/export.h"

class QSV_EXPORT SenderQuota {
 public:
  struct Setting {
    std::string sender;
    unsigned int quota;
  };

  // Sets the quota of one sender, at most 99999. 0, or -1 (also when the change stays on this node
  // because the spread failed). A sender whose statement would not fit its buffer of 2048 bytes
  // (about 1950 bytes of name, fewer with quotes) fails all three calls before anything is written.
  static int Set(const std::string &sender, unsigned int quota);
  // Sets several at once, all or none, with no upper bound. 0, or -1 as Set.
  static int SetList(const std::list<Setting> &settings);
  static int DeleteList(const std::list<std::string> &senders);
  // Appends a page of quotas, by sender in descending order, to `out`: `limit` rows (-1: all)
  // after `offset`, of senders that contain `search` (empty: all). The result is the number of
  // quotas in the whole table, whatever the search, or -1.
  static int GetSettingList(std::list<Setting> &out, unsigned int offset, int limit,
                            const std::string &search);
  // Writes the map and runs postmap on it. 0, or -1 with the old map left in place when the
  // writing failed.
  static int GenerateConfig();
};

#endif  // MAILSERVER_TABLES_SENDER_QUOTA_H_
