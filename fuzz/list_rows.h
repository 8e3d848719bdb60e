// What the list import targets read back from their own database: every row of a list table as a
// set of (name_type, name, type) keys with the fourth column, and the check every stored name
// must pass. Not thread-safe; one fuzzer process at a time per database.
#ifndef MAILSERVER_FUZZ_LIST_ROWS_H_
#define MAILSERVER_FUZZ_LIST_ROWS_H_

#include <sqlite3.h>

#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <map>
#include <string>
#include <tuple>

#include "foundation/utf8.h"

namespace fuzzlist {

using Key = std::tuple<int, std::string, int>;  // name_type, name, type

// The rows of `table` in `db` by key, with the verdict or status; the table is emptied after.
inline std::map<Key, int> TakeRows(const char *db, const char *table) {
  sqlite3 *handle = nullptr;
  if (sqlite3_open(db, &handle) != SQLITE_OK) abort();
  std::map<Key, int> rows;
  sqlite3_stmt *query = nullptr;
  const std::string select = std::string("SELECT * FROM ") + table;
  if (sqlite3_prepare_v2(handle, select.c_str(), -1, &query, nullptr) != SQLITE_OK) abort();
  while (sqlite3_step(query) == SQLITE_ROW) {
    const auto *name = reinterpret_cast<const char *>(sqlite3_column_text(query, 1));
    // A name is stored as text, whole: a NUL inside would mean it was cut somewhere.
    if (name == nullptr || static_cast<size_t>(sqlite3_column_bytes(query, 1)) != strlen(name)) {
      abort();
    }
    const Key key{sqlite3_column_int(query, 0), name, sqlite3_column_int(query, 2)};
    // The unique index keeps one row per key.
    if (!rows.emplace(key, sqlite3_column_int(query, 3)).second) abort();
  }
  sqlite3_finalize(query);
  const std::string clear = std::string("DELETE FROM ") + table;
  if (sqlite3_exec(handle, clear.c_str(), nullptr, nullptr, nullptr) != SQLITE_OK) abort();
  sqlite3_close(handle);
  return rows;
}

// A name the lists may hold: not empty, UTF-8, no control characters.
inline bool Acceptable(const std::string &name) {
  if (name.empty() || !checkValidUtf8(name)) return false;
  for (unsigned char c : name) {
    if (c < 0x20 || c == 0x7f) return false;
  }
  return true;
}

inline void WriteInput(const char *path, const uint8_t *data, size_t size) {
  FILE *out = fopen(path, "we");
  if (out == nullptr) abort();
  if (size > 0 && fwrite(data, 1, size, out) != size) abort();
  fclose(out);
}

}  // namespace fuzzlist

#endif  // MAILSERVER_FUZZ_LIST_ROWS_H_
