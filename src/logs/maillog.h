// The mail log's read side: counts, pages, keyword searches and exports over the rows the log
// daemon writes, one per delivered, received, bounced or resent mail, and the emptying of the
// live table.
//
// The rows live in two files: the live one (`main`) and an archive a rotation fills, attached
// once per object under the name DB0 the first time a query needs it. Every query runs over both.
// A MailLog is built on a path, used and dropped by one thread.
//
// Sort columns and directions go into statements as they stand: they must come from the caller's
// own fixed list, never from a request.
#ifndef MAILSERVER_LOGS_MAILLOG_H_
#define MAILSERVER_LOGS_MAILLOG_H_

#include <cstdint>
#include <ctime>
#include <list>
#include <memory>
#include <sstream>
#include <string>
#include <vector>

#include "foundation/db_handler.h"
#include "foundation/export.h"

namespace mail_log {

// The live file and its archive. The archive's path is written with a double slash, and compared
// so.
constexpr char kMailLogDBPath[] = "/var/packages/Quillon-Server/target/var/aggr_log/aggr_mail_log.db";
constexpr char kMailLogArchivePath[] =
    "/var/packages/Quillon-Server/target/var/aggr_log//aggr_mail_log_main.db";
constexpr char kMailLogTable[] = "mail_log_table";
extern const char kMailLogSchema[];

enum MailStatus {
  MAIL_STATUS_SEND = 0,
  MAIL_STATUS_RECEIVE = 1,
  MAIL_STATUS_BOUNCE = 2,
  MAIL_STATUS_RESEND = 3,
  // Refused mail; counted from the security log, never a row here.
  MAIL_STATUS_REJECT = 4,
  // Only in a filter: mail received from one of the server's own domains.
  MAIL_STATUS_LOCAL_RECEIVE = 5,
};

struct MailLogInfo {
  std::string messageId;
  std::string queueId;  // never read: stays empty
  int64_t date = 0;
  struct tm dateTm = {};  // `date` in the machine's local time
  int64_t size = 0;
  int32_t status = 0;
  std::string mailTo;
  std::string mailFrom;
  std::string host;
  std::string subject;    // empty where the file has no such column
  std::string oriMailTo;  // "-" when unknown
};

// Unset fields: empty strings, -1 for limit, sizes and status, 0 for dates.
struct MailLogFilter {
  std::string columns;  // "*" for rows, "COUNT(*) AS cnt" for a count
  int32_t offset = 0;
  int32_t limit = -1;  // -1: no LIMIT and OFFSET
  std::string sortOrder;
  std::string sortColumn;
  std::string messageId;
  std::string mailTo;
  std::string mailFrom;
  std::string subject;
  std::string oriMailTo;
  int64_t sizeFrom = -1;  // inclusive
  int64_t sizeTo = -1;    // exclusive
  int32_t status = -1;
  int64_t dateFrom = 0;  // inclusive
  int64_t dateTo = 0;    // inclusive
};

class QSV_EXPORT MailLog {
 public:
  // Makes the log folder and connects; error() is 0 when connected and -1 otherwise.
  explicit MailLog(const std::string &dbPath);
  ~MailLog();
  MailLog(const MailLog &) = delete;
  MailLog &operator=(const MailLog &) = delete;

  int error();
  int HandleDBError(DBHandler &db, int rc);
  int HandleError();
  // Empties the live table; the archive keeps its rows.
  int clear();
  // 1 attached, 0 nothing to attach (no archive, or another file than the live one), -1 failure.
  int attachAllDBs();

  int getLogNum();
  // Rows whose message id, sender or recipient (or subject and original recipient, where the
  // live file has them) hold the keyword. The keyword is not changed.
  int getLogNum(std::string &keyword);
  // REQUIRES: nothing; the filter is copied and counted whatever its columns.
  int getLogNum(const MailLogFilter &filter);
  int load(int limit, int offset, const std::string &sortColumn, const std::string &sortOrder,
           std::vector<MailLogInfo> &out);
  // REQUIRES: filter.columns is "*".
  int load(const MailLogFilter &filter, std::vector<MailLogInfo> &out);
  int search(int limit, int offset, const std::string &sortColumn, const std::string &sortOrder,
             const std::string &keyword, std::vector<MailLogInfo> &out);
  // Writes the rows as an HTML document to standard output; `title` names the language of its
  // texts.
  int ExportLog(int limit, int offset, const std::string &sortColumn, const std::string &sortOrder,
                const std::string &keyword, const std::string &title);
  int ExportLog(const MailLogFilter &filter, const std::string &title);

  // The whole statement of a filter; empty on failure.
  std::string composeCmd(const MailLogFilter &filter);
  // The SELECT of one database (`schema` is "main" or "DB0"). False when a term would not fit.
  bool genCommonQuery(std::stringstream &out, const std::string &schema,
                      const MailLogFilter &filter, const std::list<std::string> &domains);

 private:
  int Attached();
  int OnError(int rc);
  std::string KeywordSelects(const char *format, const std::string &fromTo,
                             const std::string &plain, bool *ok);
  int Export(const std::string &statement, const std::string &title);

  bool attached;
  int attachResult;
  std::unique_ptr<DBHandler> db;
  int err;
  std::string dbPath;
};

}  // namespace mail_log

#endif  // MAILSERVER_LOGS_MAILLOG_H_
