#include "security/MCPDBHandler.h"

#include <sqlite3.h>

#include <cstring>
#include <list>

#include "eai/punycode.h"
#include "foundation/log.h"
#include "foundation/strings.h"

namespace {

constexpr char kPath[] = "/var/packages/Quillon-Server/etc/mcp_quarantine.db";
constexpr char kSchema[] =
    "BEGIN TRANSACTION;CREATE TABLE mcp_quarantine_table(message_id TEXT, sender TEXT, receivers "
    "TEXT, dateNum TEXT, receivedTime INTEGER, subject TEXT, report TEXT, path TEXT, score "
    "INTEGER, actions TEXT, mailSize INTEGER);COMMIT TRANSACTION;";
constexpr char kTable[] = "mcp_quarantine_table";
constexpr size_t kStatementSize = 2048;
constexpr int kBusyTimeoutMs = 60000;

enum State { kDatabaseFailed = 1, kInsertFailed = 2, kDeleteFailed = 3, kRetrieveFailed = 4 };

// The UTF-8 form of an address or a domain, or the text itself when it has no other.
std::string Utf8Form(const std::string &text) {
  std::string utf8;
  if (KOLT::QUILLON_SERVER::ConvertToUTF8(text, utf8) == 0 && utf8 != text) return utf8;
  return text;
}

std::string ReceiversUtf8(const std::string &receivers) {
  std::list<std::string> parts = StringSplit(receivers.c_str(), " ");
  for (std::string &part : parts) part = Utf8Form(part);
  return StringJoin(parts, " ");
}

// `format` with its arguments, or false when the text would not fit `kStatementSize` bytes: a cut
// statement would fail for a reason nobody could see, or search for something else than asked.
template <typename... Args>
bool Format(std::string &out, const char *format, Args... args) {
  char *text = sqlite3_mprintf(format, args...);
  const bool fits = text != nullptr && strlen(text) < kStatementSize;
  if (fits) {
    out = text;
  } else {
    maillog(3, "%s:%d invalid input: a statement longer than %zu bytes", QSV_FILE, __LINE__,
            kStatementSize - 1);
  }
  sqlite3_free(text);
  return fits;
}

// The search mode's text, or "" when the search text is too long.
std::string SearchText(const MCPDBFilter &filter) {
  std::string sql = std::string(" SELECT ") + filter.columns + " FROM " + kTable + " ";
  if (!filter.searchText.empty()) {
    const std::string text = Utf8Form(filter.searchText);
    std::string where;
    if (!Format(where,
                " WHERE sender LIKE '%%%q%%' OR receivers LIKE '%%%q%%' OR subject LIKE '%%%q%%' "
                "OR report LIKE '%%%q%%' ",
                text.c_str(), text.c_str(), text.c_str(), text.c_str())) {
      return "";
    }
    sql += where;
  }
  if (filter.columns != "count(*)") {
    sql += " ORDER BY " + filter.orderColumn + " " + filter.orderDirection + " LIMIT " +
           std::to_string(filter.limit) + " OFFSET " + std::to_string(filter.offset);
  }
  return sql + ";";
}

}  // namespace

MCPDBHandler::MCPDBHandler() : db_(new DBHandler(kPath, kSchema)) {
  if (db_->connect() != 0) {
    maillog(3, "%s:%d mcp db error", QSV_FILE, __LINE__);
    return;
  }
  db_->setBusyTimeout(kBusyTimeoutMs);
  state_ = 0;
}

MCPDBHandler::~MCPDBHandler() { db_->disconnect(); }

bool MCPDBHandler::Run(const std::vector<MCPRecord> &records, bool insert) {
  SQLCmd statements;
  for (const MCPRecord &record : records) {
    std::string statement;
    const bool fits =
        insert ? Format(statement,
                        "insert or replace into mcp_quarantine_table (message_id, sender, "
                        "receivers, dateNum, receivedTime, subject, report, path, score, actions, "
                        "mailSize) values ('%q', '%q', '%q', '%q', '%lld', '%q', '%q', '%q', '%d', "
                        "'%q', '%llu');",
                        record.message_id.c_str(), Utf8Form(record.sender).c_str(),
                        ReceiversUtf8(record.receivers).c_str(), record.dateNum.c_str(),
                        static_cast<long long>(record.receivedTime), record.subject.c_str(),
                        record.report.c_str(), record.path.c_str(), static_cast<int>(record.score),
                        record.actions.c_str(), static_cast<unsigned long long>(record.mailSize))
               : Format(statement,
                        "delete from mcp_quarantine_table where  message_id='%q' and path='%q';",
                        record.message_id.c_str(), record.path.c_str());
    if (!fits) return false;
    statements.push_back(statement);
  }
  return state_ >= 0 && db_->exeCmds(statements, true) == 0;
}

int MCPDBHandler::Insert(const MCPRecord &record) { return Insert(std::vector<MCPRecord>{record}); }

int MCPDBHandler::Insert(const std::vector<MCPRecord> &records) {
  if (!Run(records, true)) {
    maillog(3, "%s:%d fail to insert mcp record to mcp_quarantine_table", QSV_FILE, __LINE__);
    state_ = kInsertFailed;
    return -1;
  }
  return 0;
}

int MCPDBHandler::Delete(const MCPRecord &record) { return Delete(std::vector<MCPRecord>{record}); }

int MCPDBHandler::Delete(const std::vector<MCPRecord> &records) {
  if (!Run(records, false)) {
    maillog(3, "%s:%d fail to delete mcp record from mcp_quarantine_table", QSV_FILE, __LINE__);
    state_ = kDeleteFailed;
    return -1;
  }
  return 0;
}

std::string MCPDBHandler::FilterText(const MCPDBFilter &filter) {
  if (filter.searchMode) return SearchText(filter);
  std::string sql = "select " + filter.columns + " from " + kTable;
  std::string terms;
  auto join = [&terms](const std::string &term) {
    if (!terms.empty()) terms += " and ";
    terms += term;
  };
  // Compared with "=", the percent signs stay part of the text: only the search mode matches
  // freely.
  const std::pair<const char *, std::string> texts[] = {
      {" subject = '", filter.subject},
      {" actions = '", filter.actions},
      {" sender = '", Utf8Form(filter.sender)},
      {" receivers = '", Utf8Form(filter.receivers)},
      {" report = '", filter.report},
  };
  for (const auto &text : texts) {
    if (text.second.empty()) continue;
    std::string value;
    if (!Format(value, "%%%q%%", text.second.c_str())) return "";
    join(text.first + value + "'");
  }
  if (filter.receivedTimeFrom != -1) join(" receivedTime >= " + std::to_string(filter.receivedTimeFrom));
  if (filter.receivedTimeTo != -1) join(" receivedTime <= " + std::to_string(filter.receivedTimeTo));
  if (filter.scoreFrom != 0) join(" score >= " + std::to_string(filter.scoreFrom));
  if (filter.scoreTo != 0) join(" score <= " + std::to_string(filter.scoreTo));
  if (filter.mailSizeFrom != 0) join(" mailSize >= " + std::to_string(filter.mailSizeFrom));
  if (filter.mailSizeTo != 0) join(" mailSize <= " + std::to_string(filter.mailSizeTo));
  if (!terms.empty()) sql += " where " + terms;
  if (filter.columns != "count(*)") {
    sql += " order by " + filter.orderColumn + " " + filter.orderDirection + " limit " +
           std::to_string(filter.limit) + " offset " + std::to_string(filter.offset);
  }
  return sql + ";";
}

int MCPDBHandler::Retrieve(const MCPDBFilter &filter, std::vector<MCPRecord> &out) {
  const std::string text = FilterText(filter);
  if (state_ < 0 || text.empty()) {
    state_ = state_ < 0 ? state_ : kRetrieveFailed;
    return -1;
  }
  sqlite3_stmt *query = nullptr;
  int rc = sqlite3_prepare_v2(db_->getDB(), text.c_str(), -1, &query, nullptr);
  if (rc != SQLITE_OK) {
    maillog(3, "%s:%d prepare error: [%d]", QSV_FILE, __LINE__, rc);
    sqlite3_finalize(query);
    HandleDBError(*db_, rc);
    state_ = kRetrieveFailed;
    return -1;
  }
  auto column = [query](int i) {
    const auto *value = reinterpret_cast<const char *>(sqlite3_column_text(query, i));
    return std::string(value != nullptr ? value : "");
  };
  while ((rc = sqlite3_step(query)) == SQLITE_ROW) {
    out.push_back({column(0), column(1), column(2), column(3), sqlite3_column_int64(query, 4),
                   column(5), column(6), column(7), sqlite3_column_int(query, 8), column(9),
                   static_cast<uint64_t>(sqlite3_column_int64(query, 10))});
  }
  if (rc != SQLITE_DONE) {
    maillog(3, "%s:%d sqlite3_step: [%d] %s\n", QSV_FILE, __LINE__, rc, sqlite3_errmsg(db_->getDB()));
  }
  sqlite3_finalize(query);
  if (rc != SQLITE_DONE) {
    state_ = kRetrieveFailed;
    return -1;
  }
  return 0;
}

int MCPDBHandler::GetRecordNum(const MCPDBFilter &filter) {
  MCPDBFilter count = filter;
  count.columns = "count(*)";
  const std::string text = FilterText(count);
  if (state_ < 0 || text.empty()) return -1;
  sqlite3_stmt *query = nullptr;
  int rc = sqlite3_prepare_v2(db_->getDB(), text.c_str(), -1, &query, nullptr);
  if (rc != SQLITE_OK) {
    maillog(3, "%s:%d prepare error: [%d]", QSV_FILE, __LINE__, rc);
    sqlite3_finalize(query);
    HandleDBError(*db_, rc);
    return -1;
  }
  int total = -1;
  rc = sqlite3_step(query);
  if (rc == SQLITE_ROW) {
    total = sqlite3_column_int(query, 0);
    rc = sqlite3_step(query);
  }
  if (rc != SQLITE_DONE) {
    maillog(3, "%s:%d sqlite3_step: [%d] %s\n", QSV_FILE, __LINE__, rc, sqlite3_errmsg(db_->getDB()));
    total = -1;
  }
  sqlite3_finalize(query);
  return total;
}

int MCPDBHandler::getErrCode() { return state_; }

int MCPDBHandler::HandleDBError(DBHandler &db, int code) {
  if (code == SQLITE_CORRUPT) {
    maillog(3, "%s:%d db corrupt, need regen", QSV_FILE, __LINE__);
    return db.regenDB();
  }
  return code;
}

int MCPDBHandler::HandleError() {
  switch (state_) {
    case kDatabaseFailed:
      state_ = HandleDBError(*db_, db_->getErrCode()) == 0 ? 0 : -1;
      return state_;
    case kInsertFailed:
      maillog(3, "%s:%d fail to insert mcp record to mcp_quarantine_table", QSV_FILE, __LINE__);
      return state_;
    case kDeleteFailed:
      maillog(3, "%s:%d fail to delete mcp record from mcp_quarantine_table", QSV_FILE, __LINE__);
      return state_;
    case kRetrieveFailed:
      maillog(3, "%s:%d fail to retrieve mcp record from mcp_quarantine_table", QSV_FILE, __LINE__);
      return state_;
    default:
      state_ = -1;
      return state_;
  }
}
