#include "personal/ActiveDBHandler.h"

#include <sqlite3.h>

#include <cstring>

#include "foundation/log.h"
#include "kolt/err.h"
#include "kolt/user.h"
#include "personal/activate_hook.h"

namespace {

constexpr char kPath[] = "/var/packages/Quillon-Server/etc/active_list.db";
constexpr char kSchema[] =
    "CREATE TABLE active_member_table(ugid TEXT, name TEXT, type TEXT, active TEXT);"
    "CREATE UNIQUE INDEX member_index ON active_member_table (ugid, type);";
constexpr char kTable[] = "active_member_table";
constexpr int kBusyTimeoutMs = 60000;
constexpr size_t kStatementSize = 2048;

// `format` filled in as it would stand in the statement buffer, or false when it doesn't fit
// there: a cut statement must never reach the database.
template <typename... Args>
bool Format(std::string &out, const char *format, Args... args) {
  char *text = sqlite3_mprintf(format, args...);
  const bool fits = text != nullptr && strlen(text) < kStatementSize;
  if (fits) {
    out = text;
  } else {
    maillog(3, "%s:%d statement longer than %zu bytes refused", QSV_FILE, __LINE__,
            kStatementSize - 1);
  }
  sqlite3_free(text);
  return fits;
}

bool IsNumber(const std::string &text) {
  return !text.empty() && text.size() < 11 && text.find_first_not_of("0123456789") == std::string::npos;
}

// The number the system gives the record's name as its type, in decimal; empty when it has none.
std::string NumberOf(const ActiveRecord &record) {
  if (record.type == "user") {
    KOLTUSER user;
    if (KOLTUserGet(record.name.c_str(), &user) != 0) {
      maillog(3, "%s:%d Failed to get user '%s'", QSV_FILE, __LINE__, record.name.c_str());
      return "";
    }
    return std::to_string(user.uid);
  }
  if (record.type == "group") {
    KOLTGROUP *group = nullptr;
    if (KOLTGroupGet(record.name.c_str(), &group) != 0) {
      maillog(3, "%s:%d Failed to get group '%s'", QSV_FILE, __LINE__, record.name.c_str());
      return "";
    }
    const std::string number = std::to_string(group->gid);
    KOLTGroupFree(group);
    return number;
  }
  maillog(3, "%s:%d unknown member type '%s'", QSV_FILE, __LINE__, record.type.c_str());
  return "";
}

// The name the system has now for the number of a row, as it spells it; empty when it has none.
std::string CurrentName(unsigned long number, const std::string &type) {
  if (type == "user") {
    KOLTUSER user;
    if (KOLTUserGetByUID(static_cast<uid_t>(number), &user) != 0) {
      maillog(3, "%s:%d KOLTUserGetByUID(%u) failed [0x%04X %s:%d]", QSV_FILE, __LINE__,
              static_cast<unsigned>(number), KLIBCErrGet(), KLIBCErrorGetFile(),
              KLIBCErrorGetLine());
      return "";
    }
    char real[512];
    if (KLIBUserRealNameGet(user.name, real, sizeof(real), 0) != 0) {
      maillog(3, "%s:%d %s cannot get the realname", QSV_FILE, __LINE__, user.name);
      return "";
    }
    return real;
  }
  KOLTGROUP *group = nullptr;
  if (type != "group" || KOLTGroupGetByGID(static_cast<gid_t>(number), &group) != 0) {
    maillog(3, "%s:%d KOLTGroupGetByGID(%u) failed [0x%04X %s:%d]", QSV_FILE, __LINE__,
            static_cast<unsigned>(number), KLIBCErrGet(), KLIBCErrorGetFile(), KLIBCErrorGetLine());
    return "";
  }
  const std::string name = group->name;
  KOLTGroupFree(group);
  return name;
}

std::string Column(sqlite3_stmt *row, int i) {
  const auto *text = reinterpret_cast<const char *>(sqlite3_column_text(row, i));
  return text != nullptr ? text : "";
}

}  // namespace

ActiveDBHandler::ActiveDBHandler() : db_(new DBHandler(kPath, kSchema)), state_(-1) {
  if (db_->connect() != 0) {
    maillog(3, "%s:%d active db error", QSV_FILE, __LINE__);
    return;
  }
  db_->setBusyTimeout(kBusyTimeoutMs);
  state_ = 0;
}

ActiveDBHandler::~ActiveDBHandler() { delete db_; }

// A damaged file is made anew at once, so that the next call works on an empty list; any other
// failure waits for the caller's HandleError.
void ActiveDBHandler::Failed(int code) {
  if (code != SQLITE_CORRUPT) {
    state_ = 1;
    return;
  }
  state_ = HandleDBError(*db_, code) == 0 ? 0 : -1;
  if (state_ == 0) db_->setBusyTimeout(kBusyTimeoutMs);
}

int ActiveDBHandler::Change(const std::vector<ActiveRecord> &records, bool insert) {
  if (state_ < 0) return -1;
  SQLCmd commands;
  for (const ActiveRecord &record : records) {
    std::string number = NumberOf(record);
    // A user or group removed from the system has no number by name any more; its row can still
    // be removed by the number it was stored with.
    if (number.empty() && !insert && IsNumber(record.ugid)) number = record.ugid;
    if (number.empty()) continue;
    std::string statement;
    const bool fits =
        insert ? Format(statement,
                        "insert or replace into  %q (ugid, name, type, active) values ('%q', "
                        "'%q', '%q', '%q');",
                        kTable, number.c_str(), record.name.c_str(), record.type.c_str(),
                        record.active.c_str())
               : Format(statement, "delete from %q where ugid='%q' and type='%q';", kTable,
                        number.c_str(), record.type.c_str());
    if (!fits) return -1;
    commands += statement.c_str();
  }
  if (db_->exeCmds(commands, true) != SQLITE_OK) {
    Failed(db_->getErrCode());
    return -1;
  }
  return 0;
}

int ActiveDBHandler::Insert(const std::vector<ActiveRecord> &records) {
  if (Change(records, true) != 0) {
    maillog(3, "%s:%d fail to insert active record to active_member_table", QSV_FILE, __LINE__);
    return -1;
  }
  return 0;
}

int ActiveDBHandler::Insert(const ActiveRecord &record) {
  return Insert(std::vector<ActiveRecord>{record});
}

int ActiveDBHandler::Delete(const std::vector<ActiveRecord> &records) {
  if (Change(records, false) != 0) {
    maillog(3, "%s:%d fail to delete active record from active_member_table", QSV_FILE, __LINE__);
    return -1;
  }
  return 0;
}

int ActiveDBHandler::Delete(const ActiveRecord &record) {
  return Delete(std::vector<ActiveRecord>{record});
}

bool ActiveDBHandler::Select(const ActiveDBFilter &filter, std::string &statement) {
  if (filter.column != "*" && filter.column != "count(*)") {
    maillog(3, "%s:%d column text '%s' refused", QSV_FILE, __LINE__, filter.column.c_str());
    return false;
  }
  std::string where;
  auto add = [&where](const std::string &condition) {
    where += where.empty() ? condition : " and " + condition;
  };
  std::string value;
  if (!filter.name.empty()) {
    if (!Format(value, filter.exactName ? "%q" : "%%%q%%", filter.name.c_str())) return false;
    add((filter.exactName ? " name = '" : " name LIKE '") + value + "'");
  }
  if (!filter.type.empty()) {
    if (!Format(value, "%q", filter.type.c_str())) return false;
    add(" type = '" + value + "'");
  }
  if (!filter.active.empty()) {
    if (!Format(value, "%q", filter.active.c_str())) return false;
    add(" active = '" + value + "'");
  }
  statement = "select " + filter.column + " from " + kTable;
  if (!where.empty()) statement += " where " + where;
  if (filter.column != "count(*)") {
    // SQLite takes an offset only after a limit; -1 is no limit.
    if (filter.limit >= 0 || filter.offset >= 0) {
      statement += " limit " + std::to_string(filter.limit >= 0 ? filter.limit : -1);
    }
    if (filter.offset >= 0) statement += " offset " + std::to_string(filter.offset);
  }
  return true;
}

int ActiveDBHandler::Retrieve(const ActiveDBFilter &filter, std::vector<ActiveRecord> &records) {
  std::string statement;
  if (state_ < 0 || !Select(filter, statement)) return -1;
  sqlite3_stmt *query = nullptr;
  int rc = sqlite3_prepare_v2(db_->getDB(), statement.c_str(), -1, &query, nullptr);
  if (rc != SQLITE_OK) {
    maillog(3, "%s:%d prepare error: [%d]", QSV_FILE, __LINE__, rc);
    sqlite3_finalize(query);
    Failed(rc);
    return -1;
  }
  std::vector<ActiveRecord> rows;
  while ((rc = sqlite3_step(query)) == SQLITE_ROW) {
    rows.push_back({Column(query, 0), Column(query, 1), Column(query, 2), Column(query, 3)});
  }
  if (rc != SQLITE_DONE) {
    maillog(3, "%s:%d sqlite3_step: [%d] %s\n", QSV_FILE, __LINE__, rc,
            sqlite3_errmsg(db_->getDB()));
  }
  sqlite3_finalize(query);
  if (rc != SQLITE_DONE) {
    Failed(rc);
    return -1;
  }
  records.swap(rows);
  return static_cast<int>(records.size());
}

int ActiveDBHandler::GetRecordNum(const ActiveDBFilter &filter) {
  ActiveDBFilter count = filter;
  count.column = "count(*)";
  std::vector<ActiveRecord> rows;
  if (Retrieve(count, rows) != 1) return -1;
  return std::stoi(rows[0].ugid);
}

int ActiveDBHandler::RefreshUserGroupName() {
  ActiveDBFilter all;
  std::vector<ActiveRecord> rows;
  if (Retrieve(all, rows) < 0) return -1;
  SQLCmd commands;
  for (const ActiveRecord &row : rows) {
    // Only this file's writers put numbers there, but the file may have been changed by hand.
    const unsigned long number = IsNumber(row.ugid) ? std::stoul(row.ugid) : ~0UL;
    if (number > 0xFFFFFFFEUL) {
      maillog(3, "%s:%d bad number '%s' in active_member_table", QSV_FILE, __LINE__,
              row.ugid.c_str());
      continue;
    }
    const std::string name = CurrentName(number, row.type);
    if (name.empty()) continue;
    std::string statement;
    if (!Format(statement, "UPDATE %q SET name='%q' WHERE ugid='%q' and type='%q';", kTable,
                name.c_str(), row.ugid.c_str(), row.type.c_str())) {
      continue;
    }
    commands += statement.c_str();
  }
  if (db_->exeCmds(commands, true) != SQLITE_OK) {
    maillog(3, "%s:%d fail to update names in active_member_table", QSV_FILE, __LINE__);
    Failed(db_->getErrCode());
    return -1;
  }
  return 0;
}

int ActiveDBHandler::ActiveUserListHookAction() { return ::ActiveUserListHookAction(); }

int ActiveDBHandler::HandleDBError(DBHandler &db, int code) {
  if (code != SQLITE_CORRUPT) return code;
  maillog(3, "%s:%d db corrupt, need regen", QSV_FILE, __LINE__);
  return db.regenDB();
}

int ActiveDBHandler::HandleError() {
  if (state_ != 1) {
    state_ = -1;
    return state_;
  }
  state_ = HandleDBError(*db_, db_->getErrCode()) == 0 ? 0 : -1;
  if (state_ == 0) db_->setBusyTimeout(kBusyTimeoutMs);
  return state_;
}
