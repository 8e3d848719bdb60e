#include "foundation/db_handler.h"

#include <pwd.h>
#include <strings.h>
#include <syslog.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>

#include "foundation/log.h"
#include "kolt/file.h"
#include "kolt/fs.h"

namespace {

constexpr char kPackageUser[] = "Quillon-Server";
constexpr size_t kQueryBufferSize = 1024;

}  // namespace

DBHandler::DBHandler(const std::string &path, const std::string &schema)
    : errCode_(-1), db_(nullptr), inTran_(false), path_(path), schema_(schema) {}

DBHandler::~DBHandler() {
  // disconnect reports through its result and the log; there is nothing here that could throw.
  disconnect();
}

int DBHandler::connect() {
  if (db_ != nullptr) return 0;
  if (KLIBCFileExist(path_.c_str())) {
    errCode_ = sqlite3_open(path_.c_str(), &db_);
    if (errCode_ != SQLITE_OK) {
      maillog(3, "%s:%d Open database fail. dbpath = [%s], err=[%d]", QSV_FILE, __LINE__,
              path_.c_str(), errCode_);
      // A failed open may still have allocated a handle, which only close gives back.
      sqlite3_close(db_);
      db_ = nullptr;
    }
    return errCode_;
  }
  syslog(LOG_DEBUG, "%s:%d %s isn't exist, create DB", QSV_FILE, __LINE__, path_.c_str());
  const int rc = createDB();
  if (rc != 0) maillog(3, "%s:%d Create DB fail;", QSV_FILE, __LINE__);
  return rc;
}

int DBHandler::createDB() {
  if (db_ == nullptr) {
    errCode_ = sqlite3_open(path_.c_str(), &db_);
    if (errCode_ != SQLITE_OK) {
      maillog(3, "%s:%d Open database fail. dbpath = [%s]", QSV_FILE, __LINE__, path_.c_str());
      sqlite3_close(db_);
      db_ = nullptr;
      return errCode_;
    }
  }

  // The daemons that read these files run as the package user, whoever created them.
  struct passwd entry;
  struct passwd *found = nullptr;
  char buffer[1024];
  uid_t uid = static_cast<uid_t>(-1);
  gid_t gid = static_cast<gid_t>(-1);
  int rc = getpwnam_r(kPackageUser, &entry, buffer, sizeof(buffer), &found);
  if (rc == 0 && found != nullptr) {
    uid = found->pw_uid;
    gid = found->pw_gid;
    rc = chown(path_.c_str(), uid, gid) == 0 ? 0 : errno;
  } else if (rc == 0) {
    rc = ENOENT;
  }
  if (rc != 0) {
    maillog(3, "%s:%d Failed to chown dbpath = [%s] to uid[%d] gid[%d], error[%s]", QSV_FILE,
            __LINE__, path_.c_str(), static_cast<int>(uid), static_cast<int>(gid), strerror(rc));
    sqlite3_close(db_);
    db_ = nullptr;
    return -1;
  }
  if (KOLTFSAclChmod(path_.c_str(), -1, 0644) != 0) {
    maillog(3, "%s:%d Failed to chmod dbpath = [%s], error[%s]", QSV_FILE, __LINE__,
            path_.c_str(), strerror(errno));
  }

  char *message = nullptr;
  errCode_ = sqlite3_exec(db_, schema_.c_str(), nullptr, nullptr, &message);
  if (errCode_ != SQLITE_OK) {
    maillog(3, "%s:%d exec db schema fail, err=[%d], %s", QSV_FILE, __LINE__, errCode_,
            message != nullptr ? message : "");
    sqlite3_free(message);
    sqlite3_close(db_);
    db_ = nullptr;
  }
  return errCode_;
}

int DBHandler::disconnect() {
  if (db_ == nullptr) return 0;
  if (inTran_) {
    syslog(LOG_DEBUG, "%s:%d Still in transaction, try to commit", QSV_FILE, __LINE__);
    commitTransaction();
  }
  while (sqlite3_stmt *statement = sqlite3_next_stmt(db_, nullptr)) sqlite3_finalize(statement);
  errCode_ = sqlite3_close(db_);
  if (errCode_ != SQLITE_OK) {
    maillog(3, "%s:%d Failed to close sqlite3, dbpath = [%s] ret = [%d]", QSV_FILE, __LINE__,
            path_.c_str(), errCode_);
    return errCode_;
  }
  db_ = nullptr;
  // A commit that failed above leaves SQLite to roll back at close: nothing is open any more.
  inTran_ = false;
  return 0;
}

int DBHandler::regenDB() {
  syslog(LOG_DEBUG, "%s:%d regen db : %s", QSV_FILE, __LINE__, path_.c_str());
  const bool wasConnected = db_ != nullptr;
  if (wasConnected && disconnect() != 0) return errCode_;
  // A journal or write-ahead log of the damaged file would otherwise be replayed into the new one.
  for (const char *suffix : {"", "-journal", "-wal", "-shm"}) unlink((path_ + suffix).c_str());
  errCode_ = 0;
  if (!wasConnected) return 0;
  errCode_ = connect();
  return errCode_;
}

int DBHandler::Exec(const char *statement) {
  if (db_ == nullptr) {
    errCode_ = SQLITE_MISUSE;
    maillog(3, "%s:%d sqlite3_exec fail, err=[%d], %s", QSV_FILE, __LINE__, errCode_,
            "database not connected");
    return errCode_;
  }
  char *message = nullptr;
  errCode_ = sqlite3_exec(db_, statement, nullptr, nullptr, &message);
  if (errCode_ != SQLITE_OK) {
    maillog(3, "%s:%d sqlite3_exec fail, err=[%d], %s", QSV_FILE, __LINE__, errCode_,
            message != nullptr ? message : sqlite3_errstr(errCode_));
  }
  sqlite3_free(message);
  return errCode_;
}

int DBHandler::beginTransaction() {
  if (db_ == nullptr) {
    errCode_ = SQLITE_MISUSE;
    maillog(3, "%s:%d begin Transaction fail, err=[%d], %s", QSV_FILE, __LINE__, errCode_,
            "database not connected");
    return errCode_;
  }
  errCode_ = sqlite3_exec(db_, "BEGIN TRANSACTION;", nullptr, nullptr, nullptr);
  if (errCode_ != SQLITE_OK) {
    maillog(3, "%s:%d begin Transaction fail, err=[%d], %s", QSV_FILE, __LINE__, errCode_,
            sqlite3_errmsg(db_));
  } else {
    inTran_ = true;
  }
  return errCode_;
}

int DBHandler::commitTransaction() {
  if (db_ == nullptr) {
    errCode_ = SQLITE_MISUSE;
    maillog(3, "%s:%d commitTransaction fail, err=[%d], %s", QSV_FILE, __LINE__, errCode_,
            "database not connected");
    return errCode_;
  }
  errCode_ = sqlite3_exec(db_, "COMMIT TRANSACTION;", nullptr, nullptr, nullptr);
  if (errCode_ != SQLITE_OK) {
    maillog(3, "%s:%d commitTransaction fail, err=[%d], %s", QSV_FILE, __LINE__, errCode_,
            sqlite3_errmsg(db_));
  } else {
    inTran_ = false;
  }
  return errCode_;
}

void DBHandler::Rollback(bool logFailure) {
  inTran_ = false;
  // The error code keeps the failure that led here, not the rollback's result.
  const int rc = db_ == nullptr ? SQLITE_MISUSE
                                : sqlite3_exec(db_, "rollback", nullptr, nullptr, nullptr);
  if (rc != SQLITE_OK && logFailure) maillog(3, "%s:%d rollback fail", QSV_FILE, __LINE__);
}

int DBHandler::RunList(const std::list<std::string> &statements, bool transaction,
                       bool logRollback) {
  if (transaction) {
    if (beginTransaction() != SQLITE_OK) {
      Rollback(logRollback);
      return errCode_;
    }
  } else if (statements.empty()) {
    return errCode_;
  }
  for (const std::string &statement : statements) {
    if (Exec(statement.c_str()) != SQLITE_OK) break;
  }
  if (!transaction) return errCode_;
  if (errCode_ == SQLITE_OK && commitTransaction() == SQLITE_OK) return errCode_;
  Rollback(logRollback);
  return errCode_;
}

int DBHandler::exeCmds(const SQLCmd &commands, bool transaction) {
  return RunList(commands, transaction, true);
}

int DBHandler::ExecCmd(const std::string &statement) { return Exec(statement.c_str()); }

int DBHandler::ExecCmdList(const std::list<std::string> &statements, bool transaction) {
  return RunList(statements, transaction, false);
}

int DBHandler::exeGroups(const std::vector<std::list<std::string>> &groups,
                         std::vector<int> &results) {
  results.assign(groups.size(), SQLITE_OK);
  if (beginTransaction() != SQLITE_OK) {
    Rollback(true);
    return errCode_;
  }
  // As a rule no group fails: everything is tried once in the one transaction, quietly. A
  // savepoint per group costs a journal of its own, spilled to disk as it grows.
  bool clean = true;
  for (const auto &group : groups) {
    for (const std::string &statement : group) {
      errCode_ = sqlite3_exec(db_, statement.c_str(), nullptr, nullptr, nullptr);
      if (errCode_ != SQLITE_OK) break;
    }
    if (errCode_ != SQLITE_OK) {
      clean = false;
      break;
    }
  }
  if (clean) {
    if (commitTransaction() == SQLITE_OK) return SQLITE_OK;
    Rollback(true);
    return errCode_;
  }
  Rollback(false);

  // Some group fails: again from the start, each group behind a savepoint, so that only the
  // failing ones are undone.
  if (beginTransaction() != SQLITE_OK) {
    Rollback(true);
    return errCode_;
  }
  int last = SQLITE_OK;
  for (size_t i = 0; i < groups.size(); ++i) {
    if ((errCode_ = sqlite3_exec(db_, "SAVEPOINT qsv_group;", nullptr, nullptr, nullptr)) !=
        SQLITE_OK) {
      break;
    }
    for (const std::string &statement : groups[i]) {
      if (Exec(statement.c_str()) != SQLITE_OK) break;
    }
    results[i] = errCode_;
    if (errCode_ != SQLITE_OK) {
      last = errCode_;
      // A damaged file is no place to go on writing: the caller makes it anew.
      if (errCode_ == SQLITE_CORRUPT || errCode_ == SQLITE_NOTADB) break;
      errCode_ = sqlite3_exec(db_, "ROLLBACK TO qsv_group;", nullptr, nullptr, nullptr);
    }
    if (errCode_ == SQLITE_OK) {
      errCode_ = sqlite3_exec(db_, "RELEASE qsv_group;", nullptr, nullptr, nullptr);
    }
    if (errCode_ != SQLITE_OK) break;
  }
  if (errCode_ == SQLITE_OK && commitTransaction() == SQLITE_OK) {
    // The outcome of the last failed group, as a run of each group alone would leave it.
    errCode_ = last;
    return SQLITE_OK;
  }
  Rollback(true);
  return errCode_;
}

int DBHandler::exeEach(const char *statement, size_t count,
                       const std::function<void(sqlite3_stmt *, size_t)> &bind) {
  if (beginTransaction() != SQLITE_OK) {
    Rollback(true);
    return errCode_;
  }
  sqlite3_stmt *prepared = nullptr;
  errCode_ = sqlite3_prepare_v2(db_, statement, -1, &prepared, nullptr);
  for (size_t row = 0; errCode_ == SQLITE_OK && row < count; ++row) {
    bind(prepared, row);
    errCode_ = sqlite3_step(prepared);
    if (errCode_ == SQLITE_DONE) errCode_ = sqlite3_reset(prepared);
  }
  if (errCode_ != SQLITE_OK) {
    maillog(3, "%s:%d sqlite3_exec fail, err=[%d], %s", QSV_FILE, __LINE__, errCode_,
            sqlite3_errmsg(db_));
  }
  sqlite3_finalize(prepared);
  if (errCode_ == SQLITE_OK && commitTransaction() == SQLITE_OK) return errCode_;
  Rollback(true);
  return errCode_;
}

int DBHandler::setBusyTimeout(int milliseconds) {
  if (db_ == nullptr) return -1;
  errCode_ = sqlite3_busy_timeout(db_, milliseconds);
  return errCode_;
}

// Runs one query and hands each row to `onRow`. A closed handle is opened for the query and
// closed again. False when the query could not be run to its end.
template <typename RowFn>
bool DBHandler::Query(const char *statement, RowFn onRow) {
  const bool wasConnected = db_ != nullptr;
  if (!wasConnected && connect() != 0) return false;
  sqlite3_stmt *prepared = nullptr;
  bool ok = false;
  errCode_ = sqlite3_prepare_v2(db_, statement, -1, &prepared, nullptr);
  if (errCode_ != SQLITE_OK) {
    maillog(3, "%s:%d sqlite3_step error, %s\n", QSV_FILE, __LINE__, sqlite3_errmsg(db_));
  } else {
    while ((errCode_ = sqlite3_step(prepared)) == SQLITE_ROW) onRow(prepared);
    ok = errCode_ == SQLITE_DONE;
    if (ok) {
      errCode_ = SQLITE_OK;
    } else {
      maillog(3, "%s:%d sqlite3_step: [%d] %s\n", QSV_FILE, __LINE__, errCode_,
              sqlite3_errmsg(db_));
    }
  }
  sqlite3_finalize(prepared);
  if (!wasConnected) {
    const int queryResult = errCode_;
    disconnect();
    errCode_ = queryResult;
  }
  return ok;
}

int DBHandler::GetTableDataCount(const std::string &table) {
  char statement[kQueryBufferSize];
  sqlite3_snprintf(sizeof(statement), statement, "select count(*) from %s;", table.c_str());
  int count = 0;
  const bool ok =
      Query(statement, [&count](sqlite3_stmt *row) { count = sqlite3_column_int(row, 0); });
  return ok ? count : 0;
}

bool DBHandler::IsTableExist(const std::string &table) {
  char statement[kQueryBufferSize];
  sqlite3_snprintf(sizeof(statement), statement,
                   "select count(*) from sqlite_master where type='table' and name='%s';",
                   table.c_str());
  bool exists = false;
  const bool ok = Query(
      statement, [&exists](sqlite3_stmt *row) { exists = sqlite3_column_int(row, 0) != 0; });
  return ok && exists;
}

bool DBHandler::IsColumnExists(const std::string &table, const std::string &column) {
  char statement[kQueryBufferSize];
  sqlite3_snprintf(sizeof(statement), statement, "PRAGMA table_info(%s);", table.c_str());
  bool exists = false;
  const bool ok = Query(statement, [&](sqlite3_stmt *row) {
    const auto *name = reinterpret_cast<const char *>(sqlite3_column_text(row, 1));
    if (name != nullptr && strcasecmp(name, column.c_str()) == 0) exists = true;
  });
  return ok && exists;
}

std::set<std::string> DBHandler::getColumnList(const std::string &table) {
  char statement[kQueryBufferSize];
  sqlite3_snprintf(sizeof(statement), statement, "PRAGMA table_info(%s);", table.c_str());
  std::set<std::string> columns;
  const bool ok = Query(statement, [&columns](sqlite3_stmt *row) {
    const auto *name = reinterpret_cast<const char *>(sqlite3_column_text(row, 1));
    if (name != nullptr) columns.insert(name);
  });
  if (!ok) columns.clear();
  return columns;
}
