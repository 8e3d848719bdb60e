// The one road to the suite's SQLite files: a handle that opens a database, creates it with its
// schema the first time (owned by the package user, mode 0644), runs statements alone or in one
// transaction, answers a few questions about tables, and throws a damaged file away to start anew.
//
// A DBHandler owns its connection and belongs to one thread; other processes may use the same file
// at the same time, which is what the busy time-out is for. Nothing here throws.
#ifndef MAILSERVER_FOUNDATION_DB_HANDLER_H_
#define MAILSERVER_FOUNDATION_DB_HANDLER_H_

#include <sqlite3.h>

#include <cstddef>
#include <functional>
#include <list>
#include <set>
#include <string>
#include <vector>

#include "foundation/export.h"

// Statements in the order they are to run. Compose each with sqlite3_snprintf or sqlite3_mprintf
// and %q beforehand: the list takes them as they stand.
class QSV_EXPORT SQLCmd : public std::list<std::string> {
 public:
  SQLCmd &operator+=(const char *statement) {
    push_back(statement);
    return *this;
  }
};

// Owns the connection to `path` while connected; dropping the object commits an open transaction
// and closes it. `schema` creates every table and index of an empty file and runs only when
// connect finds no file.
class QSV_EXPORT DBHandler {
 public:
  DBHandler(const std::string &path, const std::string &schema);
  ~DBHandler();
  DBHandler(const DBHandler &) = delete;
  DBHandler &operator=(const DBHandler &) = delete;

  // 0 when connected (or already so); otherwise the SQLite result and no connection.
  int connect();
  // 0, or the result of the close, in which case the connection is kept.
  int disconnect();
  bool isConnect() const { return db_ != nullptr; }
  bool isInTran() const { return inTran_; }

  // Creates the file, gives it to the package user with mode 0644 and runs the schema.
  // 0, or the failing result (-1 when the owner can't be set); on failure nothing stays connected.
  int createDB();
  // Deletes the file. Connected: connects again at once, to an empty database with the schema, and
  // gives that result. Closed: 0, and the next connect creates the file.
  int regenDB();

  int beginTransaction();
  int commitTransaction();
  // Runs `commands` in order and stops at the first failure. With `transaction`, all of them or
  // none stay; without, those before a failure stay. The last SQLite result.
  int exeCmds(const SQLCmd &commands, bool transaction);
  int ExecCmd(const std::string &statement);
  // As exeCmds.
  int ExecCmdList(const std::list<std::string> &statements, bool transaction);
  // Runs each group all or none, as exeCmds with a transaction would, but all groups in one
  // transaction: a failing group is undone back to where it began and the next one goes on.
  // `results` gets each group's last SQLite result. The result is that of the whole: SQLITE_OK
  // when the transaction committed; otherwise nothing stays.
  int exeGroups(const std::vector<std::list<std::string>> &groups, std::vector<int> &results);
  // Runs one statement `count` times in one transaction, compiled once: `bind` gives it the values
  // of row i (0 to count-1) with the sqlite3_bind_* calls. All rows or none stay; the last result.
  // Many rows of one shape are much cheaper so than as statement texts compiled one by one.
  int exeEach(const char *statement, size_t count,
              const std::function<void(sqlite3_stmt *, size_t)> &bind);

  sqlite3 *getDB() const { return db_; }
  const std::string &getDBPath() const { return path_; }
  // The last result of SQLite; -1 before the first call.
  int getErrCode() const { return errCode_; }

  // -1 when not connected.
  int setBusyTimeout(int milliseconds);

  // These connect for the question and close again when the handle was closed. Table names come
  // from the program and go into the statement unquoted. A failure reads as 0, false or empty.
  int GetTableDataCount(const std::string &table);
  bool IsTableExist(const std::string &table);
  bool IsColumnExists(const std::string &table, const std::string &column);
  std::set<std::string> getColumnList(const std::string &table);

 private:
  int Exec(const char *statement);
  int RunList(const std::list<std::string> &statements, bool transaction, bool logRollback);
  void Rollback(bool logFailure);
  template <typename RowFn>
  bool Query(const char *statement, RowFn onRow);

  int errCode_;
  sqlite3 *db_;
  bool inTran_;
  std::string path_;
  std::string schema_;
};

#endif  // MAILSERVER_FOUNDATION_DB_HANDLER_H_
