// The index of the mails the content policy holds back: one row per quarantined mail in
// "mcp_quarantine.db", with the path of the mail itself, for the paged table of the web interface.
// Senders and recipients are stored in their UTF-8 form, so a punycode address finds its row.
//
// There is no key: the same record inserted twice is two rows. Deleting a row leaves the mail's
// file where it is. The order column and direction of a filter go into the statement as they
// stand: they must come from the program's own vocabulary, never from a mail or a request.
//
// A handler owns its connection from construction to destruction and belongs to one thread;
// other handlers and processes may use the file at the same time.
#ifndef MAILSERVER_SECURITY_MCPDBHANDLER_H_
#define MAILSERVER_SECURITY_MCPDBHANDLER_H_

#include <cstdint>
#include <memory>
#include <string>
#include <vector>

#include "foundation/db_handler.h"
#include "foundation/export.h"

struct MCPRecord {
  std::string message_id;
  std::string sender;
  std::string receivers;  // separated by one blank
  std::string dateNum;
  int64_t receivedTime;
  std::string subject;
  std::string report;
  std::string path;
  int32_t score;
  std::string actions;
  uint64_t mailSize;
};

// With searchMode false the string fields compare whole ("=", percent signs included) and the
// bounds narrow; with searchMode true only searchText counts, as a substring of sender,
// receivers, subject or report. Off: "" for strings, -1 for times, 0 for scores and sizes.
struct MCPDBFilter {
  int32_t offset;
  int32_t limit;
  std::string columns;  // "*" for rows, "count(*)" for a count
  std::string sender;
  std::string receivers;
  std::string subject;
  std::string actions;
  std::string report;
  std::string searchText;
  int64_t receivedTimeFrom;
  int64_t receivedTimeTo;
  uint32_t scoreFrom;
  uint32_t scoreTo;
  uint64_t mailSizeFrom;
  uint64_t mailSizeTo;
  bool searchMode;
  std::string orderColumn;
  std::string orderDirection;
};

class QSV_EXPORT MCPDBHandler {
 public:
  MCPDBHandler();
  ~MCPDBHandler();
  MCPDBHandler(const MCPDBHandler &) = delete;
  MCPDBHandler &operator=(const MCPDBHandler &) = delete;

  // All records or none. 0 or -1.
  int Insert(const MCPRecord &record);
  int Insert(const std::vector<MCPRecord> &records);
  // By message id and path. 0 or -1.
  int Delete(const MCPRecord &record);
  int Delete(const std::vector<MCPRecord> &records);
  // Appends the page to `out`. REQUIRES: filter.columns is "*". 0 or -1.
  int Retrieve(const MCPDBFilter &filter, std::vector<MCPRecord> &out);
  // The number of records the filter finds, whatever its page and order; negative on failure.
  int GetRecordNum(const MCPDBFilter &filter);

  // -1 until connected, 0 when well, 1 to 4 after a failure (database, insert, delete, retrieve).
  int getErrCode();
  int HandleError();
  // A damaged file is thrown away and started anew (the mails stay on disk, unindexed): the
  // result of that; any other code is given back.
  int HandleDBError(DBHandler &db, int code);

 private:
  bool Run(const std::vector<MCPRecord> &records, bool insert);
  std::string FilterText(const MCPDBFilter &filter);

  std::unique_ptr<DBHandler> db_;
  int state_ = -1;
};

#endif  // MAILSERVER_SECURITY_MCPDBHANDLER_H_
