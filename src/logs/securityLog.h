// The security log's read side: the refused and filtered mail (rejects, spam, content), counted,
// paged, searched and exported like the mail log, over the live file and its archive attached as
// DB0. A SecurityLog is built on a path, used and dropped by one thread.
//
// Sort columns and directions go into statements as they stand: they must come from the caller's
// own fixed list, never from a request.
#ifndef MAILSERVER_LOGS_SECURITYLOG_H_
#define MAILSERVER_LOGS_SECURITYLOG_H_

#include <cstdint>
#include <ctime>
#include <memory>
#include <sstream>
#include <string>
#include <vector>

#include "foundation/db_handler.h"
#include "foundation/export.h"

namespace security_log {

constexpr char kSecurityLogDBPath[] =
    "/var/packages/Quillon-Server/target/var/aggr_log/aggr_security_log.db";
constexpr char kSecurityLogArchivePath[] =
    "/var/packages/Quillon-Server/target/var/aggr_log//aggr_security_log_main.db";
constexpr char kSecurityLogTable[] = "security_log_table";
extern const char kSecurityLogSchema[];

struct SecurityLogInfo {
  int64_t date = 0;
  struct tm dateTm = {};  // `date` in the machine's local time
  std::string src;
  std::string type;  // "reject", "spam", "content", ...
  std::string event;
  std::string host;
  std::string sender;
  std::string recipient;
  std::string subject;
};

// Unset fields: empty strings, -1 for limit, 0 for dates.
struct SecurityLogFilter {
  std::string columns;  // "*" for rows, "COUNT(*) AS cnt" for a count
  int32_t offset = 0;
  int32_t limit = -1;  // -1: no LIMIT and OFFSET
  std::string sortOrder;
  std::string sortColumn;
  std::string src;
  std::string type;
  int64_t dateFrom = 0;  // inclusive
  int64_t dateTo = 0;    // inclusive
  std::string sender;
  std::string recipient;
  std::string subject;
};

class QSV_EXPORT SecurityLog {
 public:
  // Makes the log folder and connects; error() is 0 when connected and -1 otherwise.
  explicit SecurityLog(const std::string &dbPath);
  ~SecurityLog();
  SecurityLog(const SecurityLog &) = delete;
  SecurityLog &operator=(const SecurityLog &) = delete;

  int error();
  int HandleDBError(DBHandler &db, int rc);
  int HandleError();
  // Empties the live table; the archive keeps its rows.
  int clear();
  // 1 attached, 0 nothing to attach, -1 failure.
  int attachAllDBs();

  int getLogNum();
  // Rows whose source, event, sender or recipient (or subject) hold the keyword.
  int getLogNum(std::string &keyword);
  int getLogNum(const SecurityLogFilter &filter);
  int load(int limit, int offset, const std::string &sortColumn, const std::string &sortOrder,
           std::vector<SecurityLogInfo> &out);
  // REQUIRES: filter.columns is "*".
  int load(const SecurityLogFilter &filter, std::vector<SecurityLogInfo> &out);
  int search(int limit, int offset, const std::string &sortColumn, const std::string &sortOrder,
             const std::string &keyword, std::vector<SecurityLogInfo> &out);
  // Looks for the keyword in the source and the event only (and the subject), unlike search.
  int ExportLog(int limit, int offset, const std::string &sortColumn, const std::string &sortOrder,
                const std::string &keyword, const std::string &title);
  int ExportLog(const SecurityLogFilter &filter, const std::string &title);

  std::string composeCmd(const SecurityLogFilter &filter);
  // The SELECT of one database. False when a term would not fit.
  bool genCommonQuery(std::stringstream &out, const std::string &schema,
                      const SecurityLogFilter &filter);

 private:
  int Attached();
  int OnError(int rc);
  std::string KeywordSelects(const char *format, const char *subjectTerm,
                             const std::string &pattern, bool *ok);
  int Export(const std::string &statement, const std::string &title);

  bool attached;
  int attachResult;
  std::unique_ptr<DBHandler> db;
  int err;
  std::string dbPath;
};

}  // namespace security_log

#endif  // MAILSERVER_LOGS_SECURITYLOG_H_
