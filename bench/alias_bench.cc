// The alias table's hot paths against their floors on the same file:
// - ExportAlias of a domain of 10,000 aliases of 5 members, against one raw SQLite query of the
//   same rows written as the same text;
// - getWithoutAliasList of an alias nested 10 deep with 100 members on each level, against one
//   recursive raw query that gives the same set;
// - ImportAlias of a 10,000-line map, against reading the same lines and inserting the same rows
//   in one raw transaction.
#include <sqlite3.h>
#include <unistd.h>

#include <cstdio>
#include <fstream>
#include <list>
#include <set>
#include <string>

#include <benchmark/benchmark.h>

#include "ratio_reporter.h"
#include "tables/alias.h"

namespace {

const char kDb[] = "/var/packages/Quillon-Server/etc/bench_alias.db";
const char kMap[] = "/var/packages/Quillon-Server/target/etc/bench_aliases";
const char kImportMap[] = "/var/packages/Quillon-Server/target/etc/bench_aliases_in";
constexpr int kAliases = 10000;
constexpr int kMembers = 5;
constexpr int kDepth = 10;
constexpr int kWidth = 100;
constexpr int kExportDomain = 1;
constexpr int kNestDomain = 2;
constexpr int kImportDomain = 3;

bool Exec(sqlite3 *db, const std::string &sql) {
  return sqlite3_exec(db, sql.c_str(), nullptr, nullptr, nullptr) == SQLITE_OK;
}

void Export(benchmark::State &state) {
  Alias table(kDb);
  if (table.load() != 0) state.SkipWithError("load failed");
  for (auto _ : state) {
    if (table.ExportAlias(kMap, kExportDomain) != 0) state.SkipWithError("export failed");
  }
}

void RawExport(benchmark::State &state) {
  sqlite3 *db = nullptr;
  sqlite3_open(kDb, &db);
  for (auto _ : state) {
    FILE *out = fopen(kMap, "we");
    fputs("MAILER-DAEMON: postmaster\npostmaster: root\n", out);
    sqlite3_stmt *rows = nullptr;
    sqlite3_prepare_v2(db,
                       "SELECT alias, member FROM alias_info_table WHERE domain_idx=1 "
                       "ORDER BY alias, member;",
                       -1, &rows, nullptr);
    std::string current, line;
    while (sqlite3_step(rows) == SQLITE_ROW) {
      const std::string alias = reinterpret_cast<const char *>(sqlite3_column_text(rows, 0));
      const char *member = reinterpret_cast<const char *>(sqlite3_column_text(rows, 1));
      if (alias != current) {
        if (!line.empty()) fprintf(out, "%s\n", line.c_str());
        current = alias;
        line = alias + ": " + member;
      } else {
        line += std::string(", ") + member;
      }
    }
    if (!line.empty()) fprintf(out, "%s\n", line.c_str());
    sqlite3_finalize(rows);
    fclose(out);
  }
  sqlite3_close(db);
}

void Expand(benchmark::State &state) {
  Alias table(kDb);
  std::list<std::string> names;
  for (auto _ : state) {
    if (table.getWithoutAliasList({kNestDomain, "n0"}, names) != 0 ||
        names.size() != kDepth * kWidth) {
      state.SkipWithError("expansion failed");
    }
  }
}

void RawExpand(benchmark::State &state) {
  sqlite3 *db = nullptr;
  sqlite3_open(kDb, &db);
  const char *sql =
      "WITH RECURSIVE walk(name) AS (SELECT 'n0' UNION SELECT member FROM alias_info_table, walk "
      "WHERE alias=walk.name AND domain_idx=2 AND type=2) SELECT DISTINCT member FROM "
      "alias_info_table WHERE domain_idx=2 AND type<>2 AND alias IN (SELECT name FROM walk) "
      "ORDER BY member;";
  std::list<std::string> names;
  for (auto _ : state) {
    names.clear();
    sqlite3_stmt *rows = nullptr;
    sqlite3_prepare_v2(db, sql, -1, &rows, nullptr);
    while (sqlite3_step(rows) == SQLITE_ROW) {
      names.push_back(reinterpret_cast<const char *>(sqlite3_column_text(rows, 0)));
    }
    sqlite3_finalize(rows);
    if (names.size() != kDepth * kWidth) state.SkipWithError("raw expansion failed");
  }
  sqlite3_close(db);
}

void ClearImportDomain() {
  sqlite3 *db = nullptr;
  sqlite3_open(kDb, &db);
  Exec(db, "DELETE FROM alias_info_table WHERE domain_idx=3;");
  sqlite3_close(db);
}

void Import(benchmark::State &state) {
  for (auto _ : state) {
    state.PauseTiming();
    ClearImportDomain();
    state.ResumeTiming();
    Alias table(kDb);
    if (table.load() != 0 || table.ImportAlias(kImportMap, kImportDomain) != 0) {
      state.SkipWithError("import failed");
    }
  }
}

void RawImport(benchmark::State &state) {
  sqlite3 *db = nullptr;
  sqlite3_open(kDb, &db);
  for (auto _ : state) {
    state.PauseTiming();
    ClearImportDomain();
    state.ResumeTiming();
    std::ifstream in(kImportMap);
    Exec(db, "BEGIN TRANSACTION;");
    for (std::string line; std::getline(in, line);) {
      const size_t colon = line.find(':');
      const std::string alias = line.substr(0, colon);
      size_t at = colon + 2;
      while (at < line.size()) {
        size_t end = line.find(", ", at);
        if (end == std::string::npos) end = line.size();
        char *sql = sqlite3_mprintf(
            "INSERT INTO alias_info_table (alias,member,type,domain_idx) VALUES "
            "('%q','%q','3','3');",
            alias.c_str(), line.substr(at, end - at).c_str());
        Exec(db, sql);
        sqlite3_free(sql);
        at = end + 2;
      }
    }
    Exec(db, "COMMIT TRANSACTION;");
  }
  sqlite3_close(db);
}

#define QSV_BENCH(fn) \
  BENCHMARK(fn)->UseRealTime()->Repetitions(3)->ReportAggregatesOnly(true)
QSV_BENCH(Export)->Unit(benchmark::kMillisecond)->Iterations(2);
QSV_BENCH(RawExport)->Unit(benchmark::kMillisecond)->Iterations(10);
QSV_BENCH(Expand)->Unit(benchmark::kMicrosecond)->MinTime(0.5);
QSV_BENCH(RawExpand)->Unit(benchmark::kMicrosecond)->MinTime(0.5);
QSV_BENCH(Import)->Unit(benchmark::kMillisecond)->Iterations(1);
QSV_BENCH(RawImport)->Unit(benchmark::kMillisecond)->Iterations(3);

// Domain 1 for the export, 2 for the nesting, the import's map for domain 3; all rows go in
// through one raw transaction, as the table would hold them after many single adds.
bool SetUp() {
  unlink(kDb);
  {
    Alias table(kDb);
    if (table.load() != 0) return false;
  }
  sqlite3 *db = nullptr;
  if (sqlite3_open(kDb, &db) != SQLITE_OK) return false;
  bool ok = Exec(db, "BEGIN TRANSACTION;");
  std::ofstream map(kImportMap);
  for (int a = 0; a < kAliases && ok; ++a) {
    const std::string alias = "list" + std::to_string(a);
    map << alias << ": ";
    for (int m = 0; m < kMembers && ok; ++m) {
      const std::string member = "m" + std::to_string(m) + "-" + alias + "@example.test";
      ok = Exec(db, "INSERT INTO alias_info_table VALUES ('" + alias + "', '" + member +
                        "', 3, 1);");
      map << member << (m + 1 < kMembers ? ", " : "\n");
    }
  }
  for (int level = 0; level < kDepth && ok; ++level) {
    const std::string alias = "n" + std::to_string(level);
    for (int m = 0; m < kWidth && ok; ++m) {
      ok = Exec(db, "INSERT INTO alias_info_table VALUES ('" + alias + "', 'd" +
                        std::to_string(level) + "-" + std::to_string(m) + "@example.test', 3, 2);");
    }
    if (level + 1 < kDepth) {
      ok = ok && Exec(db, "INSERT INTO alias_info_table VALUES ('" + alias + "', 'n" +
                              std::to_string(level + 1) + "', 2, 2);");
    }
  }
  ok = ok && Exec(db, "COMMIT TRANSACTION;");
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
  reporter.PrintRatio("ExportAlias, 10000 aliases x 5 / one raw query and the same text",
                      "Export", "RawExport");
  reporter.PrintRatio("getWithoutAliasList, 10 deep x 100 / one recursive raw query", "Expand",
                      "RawExpand");
  reporter.PrintRatio("ImportAlias, 10000 lines / the same rows in one raw transaction", "Import",
                      "RawImport");
  benchmark::Shutdown();
  for (const char *path : {kDb, kMap, kImportMap}) unlink(path);
  return 0;
}
