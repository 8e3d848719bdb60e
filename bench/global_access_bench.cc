// The global whitelist's page and its total over 100,000 rows: SearchWhitelist of a page of 50 deep
// in the rows a keyword and a type mask select, against the same two statements run on a raw
// connection into the same rows (the floor: SQLite's own work).
#include <sqlite3.h>
#include <unistd.h>

#include <cstdio>
#include <string>
#include <vector>

#include <benchmark/benchmark.h>

#include "ratio_reporter.h"
#include "tables/global_access.h"

namespace {

const char kDb[] = "/var/packages/Quillon-Server/etc/global_access_list.db";
constexpr int kRows = 100000;
const auto kMask = static_cast<GlobalAccessType>(GLOBAL_ACCESS_SENDER | GLOBAL_ACCESS_NETWORK);
// The statements the search stands for.
const char kRowsSql[] =
    "SELECT * FROM whitelist WHERE 1 AND (enabled = 1) AND (0 OR type = 1 OR type = 2 ) AND "
    "(pattern LIKE '%example7%' OR description LIKE '%example7%' ) LIMIT '50' OFFSET '1000' ";
const char kCountSql[] =
    "SELECT COUNT(*) FROM whitelist WHERE 1 AND (enabled = 1) AND (0 OR type = 1 OR type = 2 ) AND "
    "(pattern LIKE '%example7%' OR description LIKE '%example7%' ) ";

void Library(benchmark::State &state) {
  GlobalAccess lists;
  for (auto _ : state) {
    std::vector<GlobalAccessItem> page;
    if (lists.SearchWhitelist(1000, 50, 1, kMask, "example7", page, false, false) <= 0 ||
        page.size() != 50) {
      state.SkipWithError("library search failed");
    }
  }
}

std::string Text(sqlite3_stmt *row, int i) {
  const auto *text = reinterpret_cast<const char *>(sqlite3_column_text(row, i));
  return text != nullptr ? text : "";
}

void Raw(benchmark::State &state) {
  sqlite3 *db = nullptr;
  sqlite3_open(kDb, &db);
  for (auto _ : state) {
    std::vector<GlobalAccessItem> page;
    sqlite3_stmt *query = nullptr;
    sqlite3_prepare_v2(db, kRowsSql, -1, &query, nullptr);
    while (sqlite3_step(query) == SQLITE_ROW) {
      GlobalAccessItem item;
      item.id = sqlite3_column_int(query, 0);
      item.enabled = sqlite3_column_int(query, 1) != 0;
      item.type = static_cast<GlobalAccessType>(sqlite3_column_int(query, 2));
      item.description = Text(query, 3);
      item.pattern = Text(query, 4);
      item.action = sqlite3_column_int(query, 5);
      page.push_back(item);
    }
    sqlite3_finalize(query);
    int total = -1;
    sqlite3_prepare_v2(db, kCountSql, -1, &query, nullptr);
    if (sqlite3_step(query) == SQLITE_ROW) total = sqlite3_column_int(query, 0);
    sqlite3_finalize(query);
    if (total <= 0 || page.size() != 50) state.SkipWithError("raw search failed");
  }
  sqlite3_close(db);
}

#define QSV_BENCH(fn) \
  BENCHMARK(fn)->UseRealTime()->Repetitions(5)->ReportAggregatesOnly(true)->Unit(benchmark::kMillisecond)->MinTime(0.5)
QSV_BENCH(Library);
QSV_BENCH(Raw);

// 100,000 rows of the five types, enabled and not, through one raw transaction.
bool SetUp() {
  unlink(kDb);
  { GlobalAccess create; if (create.ConnectDB() != 0) return false; }
  sqlite3 *db = nullptr;
  if (sqlite3_open(kDb, &db) != SQLITE_OK) return false;
  bool ok = sqlite3_exec(db, "BEGIN;", nullptr, nullptr, nullptr) == SQLITE_OK;
  for (int i = 1; i <= kRows && ok; ++i) {
    char *sql = sqlite3_mprintf(
        "INSERT INTO whitelist VALUES (%d, %d, %d, 'entry %d', 'user%d@example%d.test', 0);", i,
        i % 5 != 0, 1 << (i % 5), i, i, i % 100);
    ok = sqlite3_exec(db, sql, nullptr, nullptr, nullptr) == SQLITE_OK;
    sqlite3_free(sql);
  }
  ok = ok && sqlite3_exec(db, "COMMIT;", nullptr, nullptr, nullptr) == SQLITE_OK;
  sqlite3_close(db);
  return ok;
}

}  // namespace

int main(int argc, char **argv) {
  benchmark::Initialize(&argc, argv);
  if (!SetUp()) {
    fprintf(stderr, "set-up failed: run me in the sandbox\n");
    return 1;
  }
  RatioReporter reporter;
  benchmark::RunSpecifiedBenchmarks(&reporter);
  printf("\n");
  reporter.PrintRatio("SearchWhitelist, page of 50 at 1000 and its total / same SQL raw",
                      "Library", "Raw", "goal <= 1.2");
  benchmark::Shutdown();
  unlink(kDb);
  return 0;
}
