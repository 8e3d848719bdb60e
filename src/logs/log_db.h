// What the mail log and the security log share: the folder of their files, opening a live file,
// attaching its archive under the name DB0, and running their counts and row queries with the
// same failure handling. Each log class keeps its own state and calls these with it.
//
// Nothing here keeps state; a DBHandler passed in belongs to the caller's thread.
#ifndef MAILSERVER_LOGS_LOG_DB_H_
#define MAILSERVER_LOGS_LOG_DB_H_

#include <sqlite3.h>

#include <cstdarg>
#include <functional>
#include <string>
#include <vector>

#include "foundation/db_handler.h"
#include "foundation/log.h"

namespace log_db {

constexpr char kLogDir[] = "/var/packages/Quillon-Server/target/var/aggr_log/";
// Statements are composed in buffers of this size.
constexpr size_t kStatementSize = 2048;
// Patterns of filter terms are composed in buffers of this size.
constexpr size_t kPatternSize = 1024;

// Makes the log folder (mode 0755) and gives it to the package user.
void PrepareLogDir();

// A handler for `path` with `schema`, connected inside the critical section and waiting up to
// 60000 ms on a busy file. `connected` tells whether the connect worked.
DBHandler *OpenLogDB(const std::string &path, const std::string &schema, bool *connected);

// Attaches `archivePath` as DB0 when `dbPath` is `livePath` and the archive exists: 1 attached,
// 0 nothing to attach, -1 failure (logged).
int AttachArchive(DBHandler &db, const std::string &dbPath, const char *livePath,
                  const char *archivePath);

// The corruption rule: a damaged live file is made anew, anything else is given back.
int HandleDBError(DBHandler &db, int rc, const std::string &dbPath, const char *livePath);

// `format` with its arguments appended to `out`; false, with a log line, when the text would not
// fit `size` bytes. A statement cut short could still be valid SQL and ask for something else, so
// a long one is refused whole.
// (No printf format check: %q is SQLite's own.)
bool Append(std::string &out, size_t size, const char *format, ...);

// Runs a count statement and gives the value of its last row. On a failure the handler's error
// goes through `onError` (the corruption rule); a damaged file made anew counts as empty, 0.
int Count(DBHandler &db, const std::string &statement, const std::function<int(int)> &onError);

// Prepares `statement` inside the critical section and hands each row, with the result's column
// count, to `onRow`; `onPrepared`, when given, runs once the statement is ready, before the first
// row. 0, or -1 after the failure was logged and given to `onError`.
int Rows(DBHandler &db, const std::string &statement,
         const std::function<void(sqlite3_stmt *, int)> &onRow,
         const std::function<int(int)> &onError,
         const std::function<void()> &onPrepared = nullptr);

// Column `i` as text; NULL reads as empty.
std::string Text(sqlite3_stmt *row, int i);

// Drops `table`, vacuums and makes it anew with `schema`, inside the critical section. The
// SQLite result.
int ClearTable(DBHandler &db, const char *table, const char *schema);

// The statements both logs share, appended to `sql`; false (logged) when one would not fit.
// The number of rows of both files:
bool AppendTotalCount(std::string &sql, const char *table, bool archive);
// A page of all rows of both files:
bool AppendPage(std::string &sql, const char *table, bool archive, const std::string &sortColumn,
                const std::string &sortOrder, int limit, int offset);
// The order and page after a keyword SELECT; with `allWhenNoLimit`, a limit of -1 means no page.
bool AppendOrder(std::string &sql, const std::string &sortColumn, const std::string &sortOrder,
                 int limit, int offset, bool allWhenNoLimit);

// Writes the rows of `statement` through an export handler: ExportBegin once it is prepared, the
// rows in batches of a thousand, the rest, ExportEnd. `rowInfo` turns a row into what the
// handler takes. 0, or -1 when the statement failed (the document is then unfinished).
template <typename Info, typename Handler, typename RowInfo>
int ExportRows(DBHandler &db, const std::string &statement, Handler &handler, RowInfo rowInfo,
               const std::function<int(int)> &onError) {
  constexpr size_t kBatch = 1000;
  std::vector<Info> rows;
  const int rc = Rows(
      db, statement,
      [&](sqlite3_stmt *row, int columns) {
        rows.push_back(rowInfo(row, columns));
        if (rows.size() == kBatch) {
          handler.ExportBody(rows);
          rows.clear();
        }
      },
      onError, [&handler] { handler.ExportBegin(); });
  if (rc != 0) return -1;
  if (!rows.empty()) {
    maillog(7, "%s:%d write left body", QSV_FILE, __LINE__);
    handler.ExportBody(rows);
  }
  handler.ExportEnd();
  return 0;
}

}  // namespace log_db

#endif  // MAILSERVER_LOGS_LOG_DB_H_
