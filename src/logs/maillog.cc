#include "logs/maillog.h"

#include <set>

#include "config/accounts.h"
#include "eai/punycode.h"
#include "foundation/log.h"
#include "foundation/privilege.h"
#include "logs/log_db.h"
#include "logs/log_db_export.h"

namespace mail_log {

const char kMailLogSchema[] =
    "BEGIN TRANSACTION;create table mail_log_table(message_id TEXT, queue_id TEXT, date INTEGER, "
    "mail_from TEXT, mail_to TEXT, size INTEGER, status INTEGER, host TEXT, subject TEXT, "
    "ori_mail_to TEXT);CREATE INDEX IF NOT EXISTS mail_log_table_message_id_idx ON mail_log_table "
    "(message_id);CREATE INDEX IF NOT EXISTS mail_log_table_date_idx ON mail_log_table "
    "(date);CREATE INDEX IF NOT EXISTS mail_log_table_mail_from_idx ON mail_log_table "
    "(mail_from);CREATE INDEX IF NOT EXISTS mail_log_table_mail_to_idx ON mail_log_table "
    "(mail_to);CREATE INDEX IF NOT EXISTS mail_log_table_size_idx ON mail_log_table "
    "(size);CREATE INDEX IF NOT EXISTS mail_log_table_status_idx ON mail_log_table "
    "(status);CREATE INDEX IF NOT EXISTS mail_log_table_subject_idx ON mail_log_table "
    "(subject);CREATE INDEX IF NOT EXISTS mail_log_table_ori_mail_to_idx ON mail_log_table "
    "(ori_mail_to);COMMIT TRANSACTION;";

namespace {

const char kCountColumns[] = "COUNT(*) AS cnt";

// The UTF-8 form of a text with an encoded domain, so that it compares with what is stored.
std::string Utf8Form(const std::string &text) {
  std::string utf8;
  return KOLT::QUILLON_SERVER::ConvertToUTF8(text, utf8) == 0 ? utf8 : text;
}

MailLogInfo RowInfo(sqlite3_stmt *row, int columns) {
  MailLogInfo info;
  info.messageId = log_db::Text(row, 0);
  info.date = sqlite3_column_int64(row, 2);
  const time_t date = static_cast<time_t>(info.date);
  localtime_r(&date, &info.dateTm);
  info.mailFrom = log_db::Text(row, 3);
  info.mailTo = log_db::Text(row, 4);
  info.size = sqlite3_column_int64(row, 5);
  info.status = sqlite3_column_int(row, 6);
  info.host = log_db::Text(row, 7);
  // An archive of the older layout has eight columns.
  if (columns > 8) info.subject = log_db::Text(row, 8);
  info.oriMailTo = columns > 9 ? log_db::Text(row, 9) : "";
  if (info.oriMailTo.empty()) info.oriMailTo = "-";
  return info;
}

}  // namespace

MailLog::MailLog(const std::string &path)
    : attached(false), attachResult(0), err(-1), dbPath(path) {
  bool connected = false;
  db.reset(log_db::OpenLogDB(dbPath, kMailLogSchema, &connected));
  if (connected) err = 0;
}

MailLog::~MailLog() { db->disconnect(); }

int MailLog::error() { return err; }

int MailLog::HandleDBError(DBHandler &handler, int rc) {
  return log_db::HandleDBError(handler, rc, dbPath, kMailLogDBPath);
}

int MailLog::HandleError() {
  if (err != 1) {
    err = -1;
    return -1;
  }
  err = HandleDBError(*db, db->getErrCode()) == 0 ? 0 : -1;
  return err;
}

int MailLog::OnError(int rc) { return HandleDBError(*db, rc); }

int MailLog::attachAllDBs() {
  return log_db::AttachArchive(*db, dbPath, kMailLogDBPath, kMailLogArchivePath);
}

// The attachment is tried once per object: a failed one fails every later query at once.
int MailLog::Attached() {
  if (!attached) {
    attachResult = attachAllDBs();
    attached = true;
  }
  return attachResult;
}

int MailLog::clear() {
  if (log_db::ClearTable(*db, kMailLogTable, kMailLogSchema) == SQLITE_OK) return 0;
  err = 1;
  return HandleError();
}

int MailLog::getLogNum() {
  const int archive = Attached();
  std::string sql;
  if (archive < 0 || !log_db::AppendTotalCount(sql, kMailLogTable, archive > 0)) return -1;
  return log_db::Count(*db, sql, [this](int rc) { return OnError(rc); });
}

// The keyword SELECT of each database joined by UNION ALL. `format` takes the table and three
// patterns; the subject and original recipient terms follow where the live file has them (its
// answer stands for the archive too).
std::string MailLog::KeywordSelects(const char *format, const std::string &first,
                                    const std::string &plain, bool *ok) {
  const std::set<std::string> columns = db->getColumnList(kMailLogTable);
  const bool archive = attachResult > 0;
  std::string sql;
  *ok = true;
  for (const char *schema : {"DB0", "main"}) {
    if (std::string(schema) == "DB0" && !archive) continue;
    if (!sql.empty()) sql += " UNION ALL ";
    std::string select = "SELECT ";
    select += format;
    *ok = *ok && log_db::Append(sql, log_db::kStatementSize, select.c_str(), schema,
                                kMailLogTable, first.c_str(), first.c_str(), plain.c_str());
    if (columns.count("subject") > 0) {
      *ok = *ok && log_db::Append(sql, log_db::kStatementSize, " or subject LIKE '%q'",
                                  plain.c_str());
    }
    if (columns.count("ori_mail_to") > 0) {
      *ok = *ok && log_db::Append(sql, log_db::kStatementSize, " or ori_mail_to LIKE '%q'",
                                  plain.c_str());
    }
  }
  return sql;
}

int MailLog::getLogNum(std::string &keyword) {
  if (Attached() < 0) return -1;
  const std::string pattern = "%" + keyword + "%";
  bool ok;
  // The count looks for the plain keyword in all three columns, message id first.
  std::string selects = KeywordSelects(
      "COUNT(*) AS cnt FROM %s.%q WHERE message_id LIKE '%q' or mail_from LIKE '%q' or mail_to "
      "LIKE '%q'",
      pattern, pattern, &ok);
  std::string sql = "SELECT SUM(cnt) from ( ";
  if (!ok || !log_db::Append(sql, log_db::kStatementSize, "%s );", selects.c_str())) return -1;
  return log_db::Count(*db, sql, [this](int rc) { return OnError(rc); });
}

int MailLog::getLogNum(const MailLogFilter &filter) {
  MailLogFilter count = filter;
  count.columns = kCountColumns;
  const std::string sql = composeCmd(count);
  if (sql.empty()) return -1;
  return log_db::Count(*db, sql, [this](int rc) { return OnError(rc); });
}

int MailLog::load(int limit, int offset, const std::string &sortColumn,
                  const std::string &sortOrder, std::vector<MailLogInfo> &out) {
  const int archive = Attached();
  std::string sql;
  if (archive < 0 ||
      !log_db::AppendPage(sql, kMailLogTable, archive > 0, sortColumn, sortOrder, limit, offset)) {
    return -1;
  }
  return log_db::Rows(
      *db, sql, [&out](sqlite3_stmt *row, int columns) { out.push_back(RowInfo(row, columns)); },
      [this](int rc) { return OnError(rc); });
}

int MailLog::load(const MailLogFilter &filter, std::vector<MailLogInfo> &out) {
  const std::string sql = composeCmd(filter);
  if (sql.empty()) return -1;
  return log_db::Rows(
      *db, sql, [&out](sqlite3_stmt *row, int columns) { out.push_back(RowInfo(row, columns)); },
      [this](int rc) { return OnError(rc); });
}

int MailLog::search(int limit, int offset, const std::string &sortColumn,
                    const std::string &sortOrder, const std::string &keyword,
                    std::vector<MailLogInfo> &out) {
  if (Attached() < 0) return -1;
  // Addresses are stored in their UTF-8 form; a message id is matched as typed.
  const std::string pattern = "%" + keyword + "%";
  const std::string converted = "%" + Utf8Form(keyword) + "%";
  bool ok;
  std::string sql = KeywordSelects(
      "* FROM %s.%q WHERE mail_from LIKE '%q' or mail_to LIKE '%q' or message_id LIKE '%q'",
      converted, pattern, &ok);
  if (!ok || !log_db::AppendOrder(sql, sortColumn, sortOrder, limit, offset, false)) return -1;
  return log_db::Rows(
      *db, sql, [&out](sqlite3_stmt *row, int columns) { out.push_back(RowInfo(row, columns)); },
      [this](int rc) { return OnError(rc); });
}

int MailLog::ExportLog(int limit, int offset, const std::string &sortColumn,
                       const std::string &sortOrder, const std::string &keyword,
                       const std::string &title) {
  if (Attached() < 0) return -1;
  // The export looks for the keyword as typed, in all three columns.
  const std::string pattern = "%" + keyword + "%";
  bool ok;
  std::string sql = KeywordSelects(
      "* FROM %s.%q WHERE mail_from LIKE '%q' or mail_to LIKE '%q' or message_id LIKE '%q'",
      pattern, pattern, &ok);
  if (!ok || !log_db::AppendOrder(sql, sortColumn, sortOrder, limit, offset, true)) return -1;
  return Export(sql, title);
}

int MailLog::ExportLog(const MailLogFilter &filter, const std::string &title) {
  const std::string sql = composeCmd(filter);
  if (sql.empty()) return -1;
  return Export(sql, title);
}

int MailLog::Export(const std::string &statement, const std::string &title) {
  log_db_export::MaillogExportHandler handler(title);
  return log_db::ExportRows<MailLogInfo>(*db, statement, handler, RowInfo,
                                   [this](int code) { return OnError(code); });
}

std::string MailLog::composeCmd(const MailLogFilter &filter) {
  const int archive = Attached();
  if (archive < 0) return "";
  std::list<std::string> domains;
  if (loadAllUtf8DomainList(domains) < 0) return "";
  const bool count = filter.columns == kCountColumns;
  std::stringstream sql;
  if (count) sql << "SELECT SUM(cnt) from ( ";
  if (archive > 0) {
    if (!genCommonQuery(sql, "DB0", filter, domains)) return "";
    sql << " UNION ALL ";
  }
  if (!genCommonQuery(sql, "main", filter, domains)) return "";
  if (count) {
    sql << ");";
  } else {
    sql << " ORDER BY " << filter.sortColumn << " " << filter.sortOrder;
    if (filter.limit != -1) sql << " LIMIT " << filter.limit << " OFFSET " << filter.offset;
    sql << ";";
  }
  const std::string text = sql.str();
  if (text.size() >= log_db::kStatementSize) {
    maillog(3, "%s:%d invalid input: a statement longer than %zu bytes", QSV_FILE, __LINE__,
            log_db::kStatementSize - 1);
    return "";
  }
  return text;
}

bool MailLog::genCommonQuery(std::stringstream &out, const std::string &schema,
                             const MailLogFilter &filter, const std::list<std::string> &domains) {
  const std::set<std::string> columns = db->getColumnList(kMailLogTable);
  std::list<std::string> terms;
  bool ok = true;
  // A LIKE term on `column` with the text as a piece of the value.
  auto like = [&terms, &ok](const char *column, const std::string &text) {
    std::string pattern;
    ok = ok && log_db::Append(pattern, log_db::kPatternSize, "%%%q%%", text.c_str());
    terms.push_back(std::string(column) + " LIKE '" + pattern + "'");
  };
  if (!filter.subject.empty() && columns.count("subject") > 0) like("subject", filter.subject);
  if (!filter.oriMailTo.empty() && columns.count("ori_mail_to") > 0) {
    like("ori_mail_to", Utf8Form(filter.oriMailTo));
  }
  if (!filter.messageId.empty()) like("message_id", filter.messageId);
  if (!filter.mailTo.empty()) like("mail_to", Utf8Form(filter.mailTo));
  if (!filter.mailFrom.empty()) like("mail_from", Utf8Form(filter.mailFrom));
  if (filter.sizeFrom != -1) terms.push_back(std::to_string(filter.sizeFrom) + " <= size");
  if (filter.sizeTo != -1) terms.push_back("size < " + std::to_string(filter.sizeTo));
  if (filter.status == MAIL_STATUS_LOCAL_RECEIVE) {
    std::string term = "status=" + std::to_string(MAIL_STATUS_RECEIVE);
    if (!domains.empty()) {
      term += " AND (";
      bool first = true;
      for (const std::string &domain : domains) {
        if (!first) term += " OR ";
        first = false;
        std::string pattern;
        ok = ok && log_db::Append(pattern, log_db::kPatternSize, "%%@%q", domain.c_str());
        term += "mail_from LIKE '" + pattern + "'";
      }
      term += ")";
    }
    terms.push_back(term);
  } else if (filter.status != -1) {
    terms.push_back("status=" + std::to_string(filter.status));
  }
  if (filter.dateFrom != 0) terms.push_back(std::to_string(filter.dateFrom) + " <= date");
  if (filter.dateTo != 0) terms.push_back("date <= " + std::to_string(filter.dateTo));

  out << "SELECT " << filter.columns << " FROM " << schema << "." << kMailLogTable;
  if (!terms.empty()) out << " WHERE ";
  bool first = true;
  for (const std::string &term : terms) {
    if (!first) out << " AND ";
    first = false;
    out << term;
  }
  return ok;
}

}  // namespace mail_log
