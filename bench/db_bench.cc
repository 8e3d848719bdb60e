// DBHandler::exeCmds against its floor: 10,000 inserts in one transaction through the handle,
// and the same statements through raw sqlite3_exec between BEGIN and COMMIT on a connection of
// its own. Both files are made by DBHandler with the same schema, beside the suite's databases,
// and the statements replace the same keys on every run, so both tables stay at 10,000 rows.
#include <unistd.h>

#include <cstdio>
#include <string>

#include <benchmark/benchmark.h>
#include <sqlite3.h>

#include "foundation/db_handler.h"
#include "ratio_reporter.h"

namespace {

const char kHandlerPath[] = "/var/packages/Quillon-Server/etc/bench_handler.db";
const char kRawPath[] = "/var/packages/Quillon-Server/etc/bench_raw.db";
const char kSchema[] =
    "create table sender_quota_table(sender TEXT, quota INTEGER);"
    "create unique index sender_quota_index on sender_quota_table(sender);";
constexpr int kRows = 10000;

SQLCmd statements;

void ExeCmdsInOneTransaction(benchmark::State &state) {
  DBHandler db(kHandlerPath, kSchema);
  if (db.connect() != 0 || db.setBusyTimeout(60000) != 0) {
    state.SkipWithError("connect failed");
    return;
  }
  for (auto _ : state) {
    if (db.exeCmds(statements, true) != 0) {
      state.SkipWithError("exeCmds failed");
      break;
    }
  }
  state.SetItemsProcessed(state.iterations() * kRows);
}

void RawExecInOneTransaction(benchmark::State &state) {
  sqlite3 *db = nullptr;
  if (sqlite3_open(kRawPath, &db) != SQLITE_OK) {
    state.SkipWithError("open failed");
    sqlite3_close(db);
    return;
  }
  sqlite3_busy_timeout(db, 60000);
  for (auto _ : state) {
    int rc = sqlite3_exec(db, "BEGIN TRANSACTION;", nullptr, nullptr, nullptr);
    for (const std::string &statement : statements) {
      if (rc != SQLITE_OK) break;
      rc = sqlite3_exec(db, statement.c_str(), nullptr, nullptr, nullptr);
    }
    if (rc == SQLITE_OK) rc = sqlite3_exec(db, "COMMIT TRANSACTION;", nullptr, nullptr, nullptr);
    if (rc != SQLITE_OK) {
      state.SkipWithError("raw insert failed");
      break;
    }
  }
  state.SetItemsProcessed(state.iterations() * kRows);
  sqlite3_close(db);
}

// A run is tens of milliseconds: a second per repetition evens out what else the machine does.
#define QSV_BENCH(fn) \
  BENCHMARK(fn)->UseRealTime()->MinTime(1.0)->Repetitions(5)->ReportAggregatesOnly(true)
QSV_BENCH(ExeCmdsInOneTransaction)->Unit(benchmark::kMillisecond);
QSV_BENCH(RawExecInOneTransaction)->Unit(benchmark::kMillisecond);

bool SetUp() {
  for (int i = 0; i < kRows; ++i) {
    char statement[1024];
    sqlite3_snprintf(sizeof(statement), statement,
                     "insert or replace into sender_quota_table (sender, quota) values ('%q', "
                     "'%d');",
                     ("user" + std::to_string(i) + "@example.test").c_str(), i % 100000);
    statements += statement;
  }
  // Both files come into being the same way, so they differ in nothing but the road to them.
  for (const char *path : {kHandlerPath, kRawPath}) {
    unlink(path);
    DBHandler db(path, kSchema);
    if (db.connect() != 0) return false;
  }
  return true;
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
  reporter.PrintRatio("exeCmds, 10000 inserts / raw sqlite3_exec in BEGIN..COMMIT",
                      "ExeCmdsInOneTransaction", "RawExecInOneTransaction", "(goal <= 1.1)");
  benchmark::Shutdown();
  for (const char *path : {kHandlerPath, kRawPath}) unlink(path);
  return 0;
}
