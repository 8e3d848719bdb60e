// An alias map to import comes from whoever hands the file over: no text may crash the reader,
// and whatever it stores must be UTF-8 and must not take one of the reserved names.
#include <sqlite3.h>
#include <strings.h>
#include <unistd.h>

#include <cstdint>
#include <cstdio>
#include <cstdlib>

#include "foundation/utf8.h"
#include "tables/alias.h"

namespace {

const char kDb[] = "/tmp/alias_import_fuzz.db";
const char kMap[] = "/tmp/alias_import_fuzz.map";

bool Reserved(const char *name) {
  return strcasecmp(name, "root") == 0 || strcasecmp(name, "postmaster") == 0 ||
         strcasecmp(name, "mailer-daemon") == 0;
}

// Checks every row of the domain and empties it for the next input.
void CheckAndClear() {
  sqlite3 *db = nullptr;
  if (sqlite3_open(kDb, &db) != SQLITE_OK) abort();
  sqlite3_stmt *rows = nullptr;
  sqlite3_prepare_v2(db, "SELECT alias, member FROM alias_info_table WHERE domain_idx=1", -1,
                     &rows, nullptr);
  while (sqlite3_step(rows) == SQLITE_ROW) {
    const auto *alias = reinterpret_cast<const char *>(sqlite3_column_text(rows, 0));
    const auto *member = reinterpret_cast<const char *>(sqlite3_column_text(rows, 1));
    if (alias == nullptr || member == nullptr || Reserved(alias) || !checkValidUtf8(alias) ||
        !checkValidUtf8(member)) {
      abort();
    }
  }
  sqlite3_finalize(rows);
  if (sqlite3_exec(db, "DELETE FROM alias_info_table WHERE domain_idx=1", nullptr, nullptr,
                   nullptr) != SQLITE_OK) {
    abort();
  }
  sqlite3_close(db);
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
  FILE *out = fopen(kMap, "we");
  if (out == nullptr) abort();
  fwrite(data, 1, size, out);
  fclose(out);
  {
    Alias table(kDb);
    if (table.load() != 0 || table.ImportAlias(kMap, 1) != 0) abort();
  }
  CheckAndClear();
  return 0;
}
