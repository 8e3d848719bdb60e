// The log exports: a page of mail or security log rows written to standard output as a download,
// the reply's headers first and then an HTML table, by the web handler whose output goes to the
// browser. Headings come from the package's texts in the caller's language.
//
// Call ExportBegin once, ExportBody for each batch of rows, ExportEnd once. A handler belongs to
// one thread; two handlers must not write to the same output at once.
#ifndef MAILSERVER_LOGS_LOG_DB_EXPORT_H_
#define MAILSERVER_LOGS_LOG_DB_EXPORT_H_

#include <json/json.h>

#include <string>
#include <vector>

#include "foundation/export.h"
#include "logs/maillog.h"
#include "logs/securityLog.h"

namespace log_db_export {

class QSV_EXPORT MaillogExportHandler {
 public:
  explicit MaillogExportHandler(const std::string &language);
  void ExportBegin();
  void ExportBody(const std::vector<mail_log::MailLogInfo> &rows);
  void ExportEnd();

 private:
  Json::Value texts_;
};

class QSV_EXPORT SecurityLogExportHandler {
 public:
  explicit SecurityLogExportHandler(const std::string &language);
  void ExportBegin();
  void ExportBody(const std::vector<security_log::SecurityLogInfo> &rows);
  void ExportEnd();

 private:
  Json::Value texts_;
};

// 0 "send", 1 "receive", 2 "bounce", 3 "resend", anything else "unknow".
QSV_EXPORT std::string statusInt2Str(int status);
// Kilobytes with at most one decimal, cut and not rounded: 1536 gives "1.5KB", 2048 "2KB".
QSV_EXPORT std::string convertMailSize(int bytes);
// The text with the five characters that carry meaning in HTML written as entities.
QSV_EXPORT std::string HtmlEscape(const std::string &text);

}  // namespace log_db_export

#endif  // MAILSERVER_LOGS_LOG_DB_EXPORT_H_
