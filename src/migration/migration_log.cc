// A task's log: the rows its runs wrote to task_log.db, read in pages, counted, and the users
// whose copying went wrong.
#include <sqlite3.h>

#include <vector>

#include "foundation/log.h"
#include "foundation/privilege.h"
#include "migration/migration.h"

namespace KOLT {
namespace QUILLON_SERVER {

namespace {

const char kSchema[] =
    "BEGIN TRANSACTION;create table log_table(time INTEGER default NULL, severity INTEGER default "
    "NULL, identity TEXT default NULL, should_show INTEGER default 0, event TEXT default "
    "NULL);CREATE INDEX IF NOT EXISTS log_table_time_idx ON log_table (time);CREATE INDEX IF NOT "
    "EXISTS log_table_should_show_idx ON log_table (should_show);CREATE INDEX IF NOT EXISTS "
    "log_table_event_idx ON log_table (event);COMMIT TRANSACTION;";

// The WHERE part shared by the page and the count.
std::string Condition(int severity, const std::string &keyword, bool userOnly) {
  std::string where;
  if (severity >= 0) where = " WHERE severity == " + std::to_string(severity);
  if (userOnly) where += where.empty() ? " WHERE SHOULD_SHOW == 1" : " AND SHOULD_SHOW == 1";
  if (!keyword.empty()) {
    char *part = sqlite3_mprintf("(identity LIKE '%%%q%%' OR event LIKE '%%%q%%')",
                                 keyword.c_str(), keyword.c_str());
    if (part != nullptr) {
      where += (where.empty() ? " WHERE " : " AND ") + std::string(part);
      sqlite3_free(part);
    }
  }
  return where;
}

std::string Column(sqlite3_stmt *statement, int i) {
  const unsigned char *text = sqlite3_column_text(statement, i);
  return text == nullptr ? std::string() : reinterpret_cast<const char *>(text);
}

// Runs `sql` and hands each row to `row`: 0, or -1 with the failing step logged.
template <typename RowFn>
int EachRow(sqlite3 *db, const char *sql, RowFn row) {
  sqlite3_stmt *statement = nullptr;
  int rc = sqlite3_prepare_v2(db, sql, -1, &statement, nullptr);
  if (rc != SQLITE_OK) {
    maillog(3, "%s:%d sqlite3_prepare_v2: [%d] %s\n", QSV_FILE, __LINE__, rc, sqlite3_errmsg(db));
    return -1;
  }
  while ((rc = sqlite3_step(statement)) == SQLITE_ROW) row(statement);
  sqlite3_finalize(statement);
  if (rc != SQLITE_DONE) {
    maillog(3, "%s:%d sqlite3_step: [%d] %s\n", QSV_FILE, __LINE__, rc, sqlite3_errmsg(db));
    return -1;
  }
  return 0;
}

}  // namespace

std::string MigrationLog::convertToSeverityStr(int severity) {
  static const char *const kNames[] = {"Emergency", "Alert",  "Critical", "Error",
                                       "Warning",   "Notice", "Info",     "Debug"};
  return severity >= 0 && severity <= 7 ? kNames[severity] : "Unknown";
}

int MigrationTask::openLogDB() {
  closeLogDB();
  if (checkTaskName(taskName) != 0) return -1;
  logDB = new DBHandler(taskDir + "/task_log.db", kSchema);
  int rc;
  ENTERCriticalSection;
  rc = logDB->connect();
  LEAVECriticalSection;
  if (rc != 0) {
    maillog(3, "%s:%d connect error: [%d] %s\n", QSV_FILE, __LINE__, rc, sqlite3_errstr(rc));
    closeLogDB();
    return -1;
  }
  logDB->setBusyTimeout(60000);
  return 0;
}

void MigrationTask::closeLogDB() {
  delete logDB;
  logDB = nullptr;
}

int MigrationTask::listTaskLog(std::list<MigrationLog> &logs, int severity, int limit,
                               int offset, const std::string &keyword, bool desc,
                               bool userOnly) {
  logs.clear();
  if (openLogDB() != 0) return -1;
  char *sql = sqlite3_mprintf("SELECT * FROM main.%q %s ORDER BY time %s LIMIT %d OFFSET %d;",
                              "log_table", Condition(severity, keyword, userOnly).c_str(),
                              desc ? "DESC" : "ASC", limit, offset);
  const int rc = EachRow(logDB->getDB(), sql, [&logs](sqlite3_stmt *row) {
    MigrationLog log;
    const time_t when = static_cast<time_t>(sqlite3_column_int64(row, 0));
    localtime_r(&when, &log.time);
    log.severity = sqlite3_column_int(row, 1);
    log.identity = Column(row, 2);
    log.event = Column(row, 4);
    if (log.event.find("Start Syncing account ") != std::string::npos ||
        log.event.find("Finished Syncing account ") != std::string::npos) {
      log.severity = 6;
    }
    logs.push_back(std::move(log));
  });
  sqlite3_free(sql);
  closeLogDB();
  return rc;
}

int MigrationTask::getTaskLogNum(int severity, const std::string &keyword, bool userOnly) {
  if (openLogDB() != 0) return -1;
  char *sql = sqlite3_mprintf("SELECT count(*) FROM main.%q %s;", "log_table",
                              Condition(severity, keyword, userOnly).c_str());
  int count = 0;
  const int rc = EachRow(logDB->getDB(), sql,
                         [&count](sqlite3_stmt *row) { count = sqlite3_column_int(row, 0); });
  sqlite3_free(sql);
  closeLogDB();
  return rc == 0 ? count : -1;
}

int MigrationTask::getErrorUserList(long since, std::list<UserInfo> &users) {
  users.clear();
  if (openLogDB() != 0) return -1;
  char *sql = sqlite3_mprintf(
      "SELECT DISTINCT identity FROM main.%q WHERE identity != 'General' and time >= %ld AND "
      "severity == %d;",
      "log_table", since, 3);
  const int rc = EachRow(logDB->getDB(), sql, [&users](sqlite3_stmt *row) {
    const std::string identity = Column(row, 0);
    const size_t arrow = identity.find("->");
    if (arrow == std::string::npos) return;
    UserInfo user;
    user.srcAcnt = identity.substr(0, arrow);
    user.destAcnt = identity.substr(arrow + 2);
    users.push_back(user);
  });
  sqlite3_free(sql);
  closeLogDB();
  return rc;
}

}  // namespace QUILLON_SERVER
}  // namespace KOLT
