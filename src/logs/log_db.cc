#include "logs/log_db.h"

#include <pwd.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstdio>
#include <cstring>

#include "foundation/log.h"
#include "foundation/privilege.h"
#include "kolt/file.h"

namespace log_db {

namespace {

constexpr int kBusyTimeoutMs = 60000;
constexpr int kCorrupt = SQLITE_CORRUPT;

}  // namespace

void PrepareLogDir() {
  // The package's var folder may not be there yet on a node that never logged.
  mkdir("/var/packages/Quillon-Server/target/var", 0755);
  mkdir(kLogDir, 0755);
  struct passwd entry;
  struct passwd *found = nullptr;
  char buffer[1024];
  if (getpwnam_r("Quillon-Server", &entry, buffer, sizeof(buffer), &found) == 0 &&
      found != nullptr && chown(kLogDir, found->pw_uid, found->pw_gid) != 0) {
    maillog(3, "%s:%d Failed to chown %s, errno: %s", QSV_FILE, __LINE__, kLogDir,
            strerror(errno));
  }
}

DBHandler *OpenLogDB(const std::string &path, const std::string &schema, bool *connected) {
  PrepareLogDir();
  DBHandler *db = new DBHandler(path, schema);
  int rc;
  ENTERCriticalSection;
  rc = db->connect();
  LEAVECriticalSection;
  *connected = rc == 0;
  if (*connected) db->setBusyTimeout(kBusyTimeoutMs);
  return db;
}

int AttachArchive(DBHandler &db, const std::string &dbPath, const char *livePath,
                  const char *archivePath) {
  if (dbPath != livePath || !KLIBCFileExist(archivePath)) return 0;
  db.setBusyTimeout(kBusyTimeoutMs);
  char statement[kStatementSize];
  sqlite3_snprintf(sizeof(statement), statement, "ATTACH DATABASE \"%s\" AS DB0;", archivePath);
  SQLCmd commands;
  commands += statement;
  int rc;
  ENTERCriticalSection;
  rc = db.exeCmds(commands, false);
  LEAVECriticalSection;
  if (rc != SQLITE_OK) {
    maillog(3, "%s:%d Encounter error when attach all databases", QSV_FILE, __LINE__);
    return -1;
  }
  return 1;
}

int HandleDBError(DBHandler &db, int rc, const std::string &dbPath, const char *livePath) {
  if (rc != kCorrupt || dbPath != livePath) return rc;
  maillog(3, "%s:%d db[%s] corrupt, need regen", QSV_FILE, __LINE__, db.getDBPath().c_str());
  return db.regenDB();
}

bool Append(std::string &out, size_t size, const char *format, ...) {
  va_list args;
  va_start(args, format);
  char *text = sqlite3_vmprintf(format, args);
  va_end(args);
  const bool fits = text != nullptr && out.size() + strlen(text) < size;
  if (fits) {
    out += text;
  } else {
    maillog(3, "%s:%d invalid input: a statement longer than %zu bytes", QSV_FILE, __LINE__,
            size - 1);
  }
  sqlite3_free(text);
  return fits;
}

// The prepare or step failure of `statement`: logged, finalized, handed to the corruption rule.
// The rule's result.
static int Failed(DBHandler &db, sqlite3_stmt *query, int rc, bool prepare,
                  const std::function<int(int)> &onError) {
  if (prepare) {
    maillog(3, "%s:%d sqlite3_prepare_v2: [%d] %s\n", QSV_FILE, __LINE__, rc,
            sqlite3_errmsg(db.getDB()));
  } else {
    maillog(3, "%s:%d sqlite3_step: [%d] %s\n", QSV_FILE, __LINE__, rc,
            sqlite3_errmsg(db.getDB()));
  }
  sqlite3_finalize(query);
  return onError(rc);
}

int Count(DBHandler &db, const std::string &statement, const std::function<int(int)> &onError) {
  if (!db.isConnect()) return -1;
  sqlite3_stmt *query = nullptr;
  int rc = sqlite3_prepare_v2(db.getDB(), statement.c_str(), -1, &query, nullptr);
  if (rc != SQLITE_OK) {
    const bool regenerated = Failed(db, query, rc, true, onError) == 0 && rc == kCorrupt;
    return regenerated ? 0 : -1;
  }
  long long total = 0;
  while ((rc = sqlite3_step(query)) == SQLITE_ROW) total = sqlite3_column_int64(query, 0);
  if (rc != SQLITE_DONE) {
    const bool regenerated = Failed(db, query, rc, false, onError) == 0 && rc == kCorrupt;
    return regenerated ? 0 : -1;
  }
  sqlite3_finalize(query);
  return static_cast<int>(total);
}

int Rows(DBHandler &db, const std::string &statement,
         const std::function<void(sqlite3_stmt *, int)> &onRow,
         const std::function<int(int)> &onError, const std::function<void()> &onPrepared) {
  if (!db.isConnect()) return -1;
  sqlite3_stmt *query = nullptr;
  int rc;
  ENTERCriticalSection;
  rc = sqlite3_prepare_v2(db.getDB(), statement.c_str(), -1, &query, nullptr);
  LEAVECriticalSection;
  if (rc != SQLITE_OK) {
    Failed(db, query, rc, true, onError);
    return -1;
  }
  if (onPrepared) onPrepared();
  const int columns = sqlite3_column_count(query);
  while ((rc = sqlite3_step(query)) == SQLITE_ROW) onRow(query, columns);
  if (rc != SQLITE_DONE) {
    Failed(db, query, rc, false, onError);
    return -1;
  }
  sqlite3_finalize(query);
  return 0;
}

std::string Text(sqlite3_stmt *row, int i) {
  const auto *value = reinterpret_cast<const char *>(sqlite3_column_text(row, i));
  return value != nullptr ? value : "";
}

int ClearTable(DBHandler &db, const char *table, const char *schema) {
  char drop[kStatementSize];
  sqlite3_snprintf(sizeof(drop), drop, "DROP TABLE %q;", table);
  SQLCmd commands;
  commands += drop;
  commands += "VACUUM;";
  commands += schema;
  int rc;
  ENTERCriticalSection;
  rc = db.exeCmds(commands, false);
  LEAVECriticalSection;
  return rc;
}

bool AppendTotalCount(std::string &sql, const char *table, bool archive) {
  sql += "SELECT SUM(cnt) from ( ";
  if (archive && !Append(sql, kStatementSize, "SELECT COUNT(*) AS cnt FROM DB0.%q UNION ALL ", table)) {
    return false;
  }
  return Append(sql, kStatementSize, "SELECT COUNT(*) as cnt FROM main.%q );", table);
}

bool AppendPage(std::string &sql, const char *table, bool archive, const std::string &sortColumn,
                const std::string &sortOrder, int limit, int offset) {
  if (archive && !Append(sql, kStatementSize, "SELECT * FROM DB0.%q UNION ALL ", table)) {
    return false;
  }
  return Append(sql, kStatementSize, "SELECT * FROM main.%q ORDER BY %s %s LIMIT '%d' OFFSET '%d';",
                table, sortColumn.c_str(), sortOrder.c_str(), limit, offset);
}

bool AppendOrder(std::string &sql, const std::string &sortColumn, const std::string &sortOrder,
                 int limit, int offset, bool allWhenNoLimit) {
  if (allWhenNoLimit && limit == -1) {
    return Append(sql, kStatementSize, " ORDER BY %s %s;", sortColumn.c_str(), sortOrder.c_str());
  }
  return Append(sql, kStatementSize, " ORDER BY %s %s LIMIT '%d' OFFSET '%d';", sortColumn.c_str(),
                sortOrder.c_str(), limit, offset);
}

}  // namespace log_db
