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

// Appends `text` with the five characters that carry meaning in HTML written as entities.
void AppendEscaped(std::string &out, const char *text, size_t size) {
  for (size_t i = 0; i < size; ++i) {
    switch (text[i]) {
      case '&': out += "&amp;"; break;
      case '<': out += "&lt;"; break;
      case '>': out += "&gt;"; break;
      case '"': out += "&quot;"; break;
      case '\'': out += "&#39;"; break;
      default: out += text[i];
    }
  }
}

// Builds one row of cells and writes it whole. Every value is escaped: subjects and addresses
// are chosen by whoever sends mail, and as markup they would run as script in the browser of the
// administrator who opens the export.
class RowWriter {
 public:
  void Begin() { line_.assign("<tr>\n"); }
  void Cell(const std::string &value) { Cell(value.data(), value.size()); }
  void Cell(const char *value, size_t size) {
    if (!first_) line_ += "</td>";
    first_ = false;
    line_ += "<td align=\"center\">";
    AppendEscaped(line_, value, size);
  }
  void End() {
    line_ += "</td>\n</tr>\n";
    fwrite(line_.data(), 1, line_.size(), stdout);
    first_ = true;
  }

 private:
  std::string line_;
  bool first_ = true;
};

// A cell of the row's local time in `format`.
void TimeCell(RowWriter &row, const struct tm &time, const char *format) {
  char buffer[64];
  const size_t n = strftime(buffer, sizeof(buffer), format, &time);
  row.Cell(buffer, n);
}

void End() {
  printf("</table></body></html>\n");
  fflush(stdout);
}

}  // namespace

std::string HtmlEscape(const std::string &text) {
  std::string out;
  out.reserve(text.size());
  AppendEscaped(out, text.data(), text.size());
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
  // What a stream's default form gives, without building a stream for every row of an export.
  char buffer[64];
  snprintf(buffer, sizeof(buffer), "%g", static_cast<double>(kilobytes));
  std::string text = buffer;
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
  RowWriter line;
  for (const mail_log::MailLogInfo &row : rows) {
    line.Begin();
    line.Cell(row.messageId);
    TimeCell(line, row.dateTm, "%Y-%m-%d");
    TimeCell(line, row.dateTm, "%X");
    line.Cell(row.mailFrom);
    line.Cell(row.mailTo);
    line.Cell(row.oriMailTo);
    line.Cell(row.subject);
    line.Cell(convertMailSize(static_cast<int>(row.size)));
    line.Cell(row.host);
    line.Cell(statusInt2Str(row.status));
    line.End();
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
  RowWriter line;
  for (const security_log::SecurityLogInfo &row : rows) {
    line.Begin();
    TimeCell(line, row.dateTm, "%Y-%m-%d");
    TimeCell(line, row.dateTm, "%X");
    for (const std::string *cell : {&row.src, &row.sender, &row.recipient, &row.subject,
                                    &row.type, &row.host, &row.event}) {
      line.Cell(*cell);
    }
    line.End();
  }
  fflush(stdout);
}

void SecurityLogExportHandler::ExportEnd() { End(); }

}  // namespace log_db_export
