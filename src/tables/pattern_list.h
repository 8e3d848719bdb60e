// What the global access lists and the DKIM sign whitelist share: a small SQLite file of numbered
// patterns, connected on first use, whose changes are spread to the cluster once, when the owning
// object goes. Internal to the tables; one object per request and thread.
#ifndef MAILSERVER_TABLES_PATTERN_LIST_H_
#define MAILSERVER_TABLES_PATTERN_LIST_H_

#include <sqlite3.h>

#include <functional>
#include <memory>
#include <string>

#include "foundation/db_handler.h"

class PatternListDB {
 public:
  // `syncKey` names the file to the cluster.
  PatternListDB(const char *path, const char *schema, const char *syncKey);
  // Disconnects; spreads the file when `sync` and something changed.
  ~PatternListDB();
  PatternListDB(const PatternListDB &) = delete;
  PatternListDB &operator=(const PatternListDB &) = delete;

  int ConnectDB();
  // Runs one statement that changes the file. 0 or -1 (logged).
  int Change(const std::string &statement);
  // The text as a quoted SQL literal of at most 255 bytes; false (logged) for a longer one, which
  // cut short would end its quote early.
  static bool Quoted(const std::string &text, std::string *quoted);
  // `keyword` as the quoted LIKE pattern '%keyword%', under the same limit.
  static bool LikePattern(const std::string &keyword, std::string *pattern);
  // Runs `rows` handing each row to `onRow`, then `count` for the total, which is the result;
  // -1 on failure.
  int Search(const std::string &rows, const std::string &count,
             const std::function<void(sqlite3_stmt *)> &onRow);
  // Column `i` of a row as text; NULL reads as empty.
  static std::string Text(sqlite3_stmt *row, int i);

  bool sync = false;
  bool changed = false;

 private:
  std::string path_;
  std::string schema_;
  const char *syncKey_;
  std::unique_ptr<DBHandler> db_;
};

#endif  // MAILSERVER_TABLES_PATTERN_LIST_H_
