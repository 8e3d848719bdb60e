#include "logs/log_db_export.h"

#include <cctype>
#include <cstdio>
#include <ctime>
#include <iomanip>
#include <sstream>

#include "dtk/localized_string_parser.h"

namespace log_db_export {

namespace {

const char kPackageTexts[] = "/var/packages/Quillon-Server/target/app/texts/";
const char kPlatformTexts[] = "/usr/kolt/koltman/webman/texts/";

// A heading's section and key.
struct Heading {
  const char *section;
  const char *key;
};

const Heading kMailHeadings[] = {
    {"maillog", "message_id"}, {"maillog", "date"},    {"maillog", "time"},
    {"maillog", "mail_from"},  {"maillog", "mail_to"}, {"maillog", "ori_recipient"},
    {"mcp", "mcp_rule_target_title"}, {"maillog", "mail_size"}, {"common", "server_name"},
    {"maillog", "mail_status"},
};

const Heading kSecurityHeadings[] = {
    {"maillog", "date"},    {"maillog", "time"},   {"maillog", "source"},
    {"maillog", "mail_from"}, {"maillog", "mail_to"}, {"mcp", "mcp_rule_target_title"},
    {"log", "log_type"},    {"common", "server_name"}, {"log", "log_action"},
};

// A language is a word: a name with a slash or dots would read texts from another folder.
bool LanguageAcceptable(const std::string &language) {
  if (language.empty()) return false;
  for (const char c : language) {
    if (!isalnum(static_cast<unsigned char>(c)) && c != '_' && c != '-') return false;
  }
  return true;
}

void LoadTexts(const char *dir, const std::string &language, Json::Value &texts) {
  if (LanguageAcceptable(language)) {
    KOLT::DTK::LocalizedStringParser::ParseTexts(dir + language, texts);
  }
}

// A missing text prints empty.
std::string TextOf(const Json::Value &texts, const char *section, const char *key) {
  const Json::Value &value = texts[section][key];
  return value.isString() ? value.asString() : "";
}

void Begin(const Json::Value &texts, const char *fileName, const char *titleKey,
           const Heading *headings, size_t count) {
  const std::string title = HtmlEscape(TextOf(texts, "maillog", "maillog"));
  const std::string heading = HtmlEscape(TextOf(texts, "maillog", titleKey));
  printf("Content-Type:application/octet-stream\n");
  printf("Content-Disposition:attachment; filename=\"%s\"\n\n", fileName);
  printf("<html><head>\n");
  printf("<meta http-equiv=\"Content-Type\" content=\"text/html; charset=utf-8;\">\n");
  printf("<title>%s</title>\n", title.c_str());
  printf("</head>\n");
  printf("<body>\n");
  printf("<center><h2> %s </h2></center>\n", heading.c_str());
  printf("<table border=1 width=95%%>\n");
  printf("<tr>\n");
  for (size_t i = 0; i < count; ++i) {
    printf("<th>%s</th>", HtmlEscape(TextOf(texts, headings[i].section, headings[i].key)).c_str());
  }
  printf("</tr>\n");
  fflush(stdout);
}

// One row of cells. Every value is escaped: subjects and addresses are chosen by whoever sends
// mail, and as markup they would run as script in the browser of the administrator who opens the
// export.
void Row(const std::vector<std::string> &cells) {
  printf("<tr>\n");
  for (size_t i = 0; i < cells.size(); ++i) {
    printf("<td align=\"center\">%s</td>%s", HtmlEscape(cells[i]).c_str(),
           i + 1 == cells.size() ? "\n" : "");
  }
  printf("</tr>\n");
}

std::string Formatted(const struct tm &time, const char *format) {
  char buffer[64];
  const size_t n = strftime(buffer, sizeof(buffer), format, &time);
  return std::string(buffer, n);
}

void End() {
  printf("</table></body></html>\n");
  fflush(stdout);
}

}  // namespace

std::string HtmlEscape(const std::string &text) {
  std::string out;
  out.reserve(text.size());
  for (const char c : text) {
    switch (c) {
      case '&': out += "&amp;"; break;
      case '<': out += "&lt;"; break;
      case '>': out += "&gt;"; break;
      case '"': out += "&quot;"; break;
      case '\'': out += "&#39;"; break;
      default: out += c;
    }
  }
  return out;
}

std::string statusInt2Str(int status) {
  switch (status) {
    case 0: return "send";
    case 1: return "receive";
    case 2: return "bounce";
    case 3: return "resend";
    default: return "unknow";
  }
}

std::string convertMailSize(int bytes) {
  const float kilobytes = bytes * (1.0f / 1024);
  std::ostringstream stream;
  stream << kilobytes;
  std::string text = stream.str();
  // From a million kilobytes on, the default form is an exponent ("1.95312e+06"), which cut one
  // digit after its point would read as 1.9KB: such sizes are written out in full.
  if (text.find('e') != std::string::npos) {
    std::ostringstream fixed;
    fixed << std::fixed << std::setprecision(1) << kilobytes;
    text = fixed.str();
  }
  const size_t point = text.find('.');
  if (point == std::string::npos) return text + "KB";
  return text.substr(0, point + 2) + "KB";
}

MaillogExportHandler::MaillogExportHandler(const std::string &language) {
  LoadTexts(kPackageTexts, language, texts_);
}

void MaillogExportHandler::ExportBegin() {
  Begin(texts_, "koltmaillog.html", "mail_log", kMailHeadings,
        sizeof(kMailHeadings) / sizeof(kMailHeadings[0]));
}

void MaillogExportHandler::ExportBody(const std::vector<mail_log::MailLogInfo> &rows) {
  for (const mail_log::MailLogInfo &row : rows) {
    Row({row.messageId, Formatted(row.dateTm, "%Y-%m-%d"), Formatted(row.dateTm, "%X"),
         row.mailFrom, row.mailTo, row.oriMailTo, row.subject, convertMailSize(static_cast<int>(row.size)),
         row.host, statusInt2Str(row.status)});
  }
  fflush(stdout);
}

void MaillogExportHandler::ExportEnd() { End(); }

SecurityLogExportHandler::SecurityLogExportHandler(const std::string &language) {
  LoadTexts(kPackageTexts, language, texts_);
  LoadTexts(kPlatformTexts, language, texts_);
}

void SecurityLogExportHandler::ExportBegin() {
  Begin(texts_, "koltsecuritylog.html", "security_log", kSecurityHeadings,
        sizeof(kSecurityHeadings) / sizeof(kSecurityHeadings[0]));
}

void SecurityLogExportHandler::ExportBody(const std::vector<security_log::SecurityLogInfo> &rows) {
  for (const security_log::SecurityLogInfo &row : rows) {
    Row({Formatted(row.dateTm, "%Y-%m-%d"), Formatted(row.dateTm, "%X"), row.src, row.sender,
         row.recipient, row.subject, row.type, row.host, row.event});
  }
  fflush(stdout);
}

void SecurityLogExportHandler::ExportEnd() { End(); }

}  // namespace log_db_export
