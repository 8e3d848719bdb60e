#include "logs/securityLog.h"

#include <list>
#include <set>

#include "eai/punycode.h"
#include "foundation/log.h"
#include "foundation/privilege.h"
#include "logs/log_db.h"
#include "logs/log_db_export.h"

namespace security_log {

const char kSecurityLogSchema[] =
    "BEGIN TRANSACTION;create table security_log_table(date INTEGER, src TEXT, type TEXT, event "
    "TEXT, host TEXT, sender TEXT, recipient TEXT, subject TEXT);CREATE INDEX IF NOT EXISTS "
    "security_log_table_date_idx ON security_log_table (date);CREATE INDEX IF NOT EXISTS "
    "security_log_table_src_idx ON security_log_table (src);CREATE INDEX IF NOT EXISTS "
    "security_log_table_type_idx ON security_log_table (type);CREATE INDEX IF NOT EXISTS "
    "security_log_table_sender_idx ON security_log_table (sender);CREATE INDEX IF NOT EXISTS "
    "security_log_table_recipient_idx ON security_log_table (recipient);CREATE INDEX IF NOT "
    "EXISTS security_log_table_subject_idx ON security_log_table (subject);COMMIT TRANSACTION;";

namespace {

const char kCountColumns[] = "COUNT(*) AS cnt";

std::string Utf8Form(const std::string &text) {
  std::string utf8;
  return KOLT::QUILLON_SERVER::ConvertToUTF8(text, utf8) == 0 ? utf8 : text;
}

SecurityLogInfo RowInfo(sqlite3_stmt *row, int) {
  SecurityLogInfo info;
  info.date = sqlite3_column_int64(row, 0);
  const time_t date = static_cast<time_t>(info.date);
  localtime_r(&date, &info.dateTm);
  info.src = log_db::Text(row, 1);
  info.type = log_db::Text(row, 2);
  info.event = log_db::Text(row, 3);
  info.host = log_db::Text(row, 4);
  info.sender = log_db::Text(row, 5);
  info.recipient = log_db::Text(row, 6);
  info.subject = log_db::Text(row, 7);
  return info;
}

}  // namespace

SecurityLog::SecurityLog(const std::string &path)
    : attached(false), attachResult(0), err(-1), dbPath(path) {
  bool connected = false;
  db.reset(log_db::OpenLogDB(dbPath, kSecurityLogSchema, &connected));
  if (connected) err = 0;
}

SecurityLog::~SecurityLog() { db->disconnect(); }

int SecurityLog::error() { return err; }

int SecurityLog::HandleDBError(DBHandler &handler, int rc) {
  return log_db::HandleDBError(handler, rc, dbPath, kSecurityLogDBPath);
}

int SecurityLog::HandleError() {
  if (err != 1) {
    err = -1;
    return -1;
  }
  err = HandleDBError(*db, db->getErrCode()) == 0 ? 0 : -1;
  return err;
}

int SecurityLog::OnError(int rc) { return HandleDBError(*db, rc); }

int SecurityLog::attachAllDBs() {
  return log_db::AttachArchive(*db, dbPath, kSecurityLogDBPath, kSecurityLogArchivePath);
}

int SecurityLog::Attached() {
  if (!attached) {
    attachResult = attachAllDBs();
    attached = true;
  }
  return attachResult;
}

int SecurityLog::clear() {
  if (log_db::ClearTable(*db, kSecurityLogTable, kSecurityLogSchema) == SQLITE_OK) return 0;
  err = 1;
  return HandleError();
}

int SecurityLog::getLogNum() {
  const int archive = Attached();
  std::string sql;
  if (archive < 0 || !log_db::AppendTotalCount(sql, kSecurityLogTable, archive > 0)) return -1;
  return log_db::Count(*db, sql, [this](int rc) { return OnError(rc); });
}

// The keyword SELECT of each database joined by UNION ALL; `format` takes the schema, the table
// and up to four patterns. The subject term follows where the live file has the column.
std::string SecurityLog::KeywordSelects(const char *format, const char *subjectTerm,
                                        const std::string &pattern, bool *ok) {
  const std::set<std::string> columns = db->getColumnList(kSecurityLogTable);
  std::string sql;
  *ok = true;
  for (const char *schema : {"DB0", "main"}) {
    if (std::string(schema) == "DB0" && attachResult <= 0) continue;
    if (!sql.empty()) sql += " UNION ALL ";
    const char *p = pattern.c_str();
    *ok = *ok && log_db::Append(sql, log_db::kStatementSize, format, schema, kSecurityLogTable, p,
                                p, p, p);
    if (columns.count("subject") > 0) {
      *ok = *ok && log_db::Append(sql, log_db::kStatementSize, subjectTerm, p);
    }
  }
  return sql;
}

int SecurityLog::getLogNum(std::string &keyword) {
  if (Attached() < 0) return -1;
  bool ok;
  const std::string selects = KeywordSelects(
      "SELECT COUNT(*) AS cnt FROM %s.%q WHERE src LIKE '%q' OR event LIKE '%q' OR sender LIKE "
      "'%q' OR recipient LIKE '%q'",
      " OR subject LIKE '%q'", "%" + keyword + "%", &ok);
  std::string sql = "SELECT SUM(cnt) from ( ";
  if (!ok || !log_db::Append(sql, log_db::kStatementSize, "%s );", selects.c_str())) return -1;
  return log_db::Count(*db, sql, [this](int rc) { return OnError(rc); });
}

int SecurityLog::getLogNum(const SecurityLogFilter &filter) {
  SecurityLogFilter count = filter;
  count.columns = kCountColumns;
  const std::string sql = composeCmd(count);
  if (sql.empty()) return -1;
  return log_db::Count(*db, sql, [this](int rc) { return OnError(rc); });
}

int SecurityLog::load(int limit, int offset, const std::string &sortColumn,
                  const std::string &sortOrder, std::vector<SecurityLogInfo> &out) {
  const int archive = Attached();
  std::string sql;
  if (archive < 0 ||
      !log_db::AppendPage(sql, kSecurityLogTable, archive > 0, sortColumn, sortOrder, limit, offset)) {
    return -1;
  }
  return log_db::Rows(
      *db, sql, [&out](sqlite3_stmt *row, int columns) { out.push_back(RowInfo(row, columns)); },
      [this](int rc) { return OnError(rc); });
}

int SecurityLog::load(const SecurityLogFilter &filter, std::vector<SecurityLogInfo> &out) {
  const std::string sql = composeCmd(filter);
  if (sql.empty()) return -1;
  return log_db::Rows(
      *db, sql, [&out](sqlite3_stmt *row, int columns) { out.push_back(RowInfo(row, columns)); },
      [this](int rc) { return OnError(rc); });
}

int SecurityLog::search(int limit, int offset, const std::string &sortColumn,
                        const std::string &sortOrder, const std::string &keyword,
                        std::vector<SecurityLogInfo> &out) {
  if (Attached() < 0) return -1;
  bool ok;
  std::string sql = KeywordSelects(
      "SELECT * FROM %s.%q WHERE src LIKE '%q' OR event LIKE '%q' OR sender LIKE '%q' OR "
      "recipient LIKE '%q'",
      " OR subject LIKE '%q'", "%" + keyword + "%", &ok);
  if (!ok || !log_db::AppendOrder(sql, sortColumn, sortOrder, limit, offset, false)) return -1;
  return log_db::Rows(
      *db, sql, [&out](sqlite3_stmt *row, int columns) { out.push_back(RowInfo(row, columns)); },
      [this](int rc) { return OnError(rc); });
}

int SecurityLog::ExportLog(int limit, int offset, const std::string &sortColumn,
                           const std::string &sortOrder, const std::string &keyword,
                           const std::string &title) {
  if (Attached() < 0) return -1;
  bool ok;
  // Two columns here against four in the page: the export of a search is the wider net's
  // narrower cousin, and stays so.
  std::string sql =
      KeywordSelects("SELECT * FROM %s.%q WHERE src LIKE '%q' or event LIKE '%q'",
                     " or subject LIKE '%q'", "%" + keyword + "%", &ok);
  if (!ok || !log_db::AppendOrder(sql, sortColumn, sortOrder, limit, offset, true)) return -1;
  return Export(sql, title);
}

int SecurityLog::ExportLog(const SecurityLogFilter &filter, const std::string &title) {
  const std::string sql = composeCmd(filter);
  if (sql.empty()) return -1;
  return Export(sql, title);
}

int SecurityLog::Export(const std::string &statement, const std::string &title) {
  log_db_export::SecurityLogExportHandler handler(title);
  return log_db::ExportRows<SecurityLogInfo>(*db, statement, handler, RowInfo,
                                   [this](int code) { return OnError(code); });
}

std::string SecurityLog::composeCmd(const SecurityLogFilter &filter) {
  const int archive = Attached();
  if (archive < 0) return "";
  const bool count = filter.columns == kCountColumns;
  std::stringstream sql;
  if (count) sql << "SELECT SUM(cnt) from ( ";
  if (archive > 0) {
    if (!genCommonQuery(sql, "DB0", filter)) return "";
    sql << " UNION ALL ";
  }
  if (!genCommonQuery(sql, "main", filter)) return "";
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

bool SecurityLog::genCommonQuery(std::stringstream &out, const std::string &schema,
                                 const SecurityLogFilter &filter) {
  const std::set<std::string> columns = db->getColumnList(kSecurityLogTable);
  std::list<std::string> terms;
  bool ok = true;
  auto like = [&terms, &ok](const char *column, const std::string &text) {
    std::string pattern;
    ok = ok && log_db::Append(pattern, log_db::kPatternSize, "%%%q%%", text.c_str());
    terms.push_back(std::string(column) + " LIKE '" + pattern + "'");
  };
  if (filter.dateFrom != 0) terms.push_back(std::to_string(filter.dateFrom) + " <= date");
  if (filter.dateTo != 0) terms.push_back("date <= " + std::to_string(filter.dateTo));
  if (!filter.src.empty()) like("src", filter.src);
  if (!filter.type.empty()) like("type", filter.type);
  if (!filter.sender.empty()) like("sender", Utf8Form(filter.sender));
  if (!filter.recipient.empty()) like("recipient", Utf8Form(filter.recipient));
  if (!filter.subject.empty() && columns.count("subject") > 0) like("subject", filter.subject);

  out << "SELECT " << filter.columns << " FROM " << schema << "." << kSecurityLogTable;
  if (!terms.empty()) out << " WHERE ";
  bool first = true;
  for (const std::string &term : terms) {
    if (!first) out << " AND ";
    first = false;
    out << term;
  }
  return ok;
}

}  // namespace security_log
