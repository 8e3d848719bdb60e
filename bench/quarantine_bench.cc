// The quarantine index's reads on 100,000 records against the same statements run on a raw
// connection into the same rows (the floor: SQLite's own work):
// - a page of 50 found by the free text search, newest first;
// - a page of 50 deep in the rows a score and time window selects;
// - the counts of both, which the web table asks for beside each page.
#include <sqlite3.h>
#include <unistd.h>

#include <cstdio>
#include <string>
#include <vector>

#include <benchmark/benchmark.h>

#include "ratio_reporter.h"
#include "security/MCPDBHandler.h"

namespace {

const char kDb[] = "/var/packages/Quillon-Server/etc/mcp_quarantine.db";
constexpr int kRecords = 100000;
constexpr int64_t kFirstTime = 1790000000;

MCPDBFilter SearchFilter(const char *columns) {
  MCPDBFilter filter{0, 50, columns, "", "", "", "", "", "user17", -1, -1, 0, 0, 0, 0,
                     true, "receivedTime", "desc"};
  return filter;
}

MCPDBFilter FieldFilter(const char *columns) {
  MCPDBFilter filter{2000, 50, columns, "", "", "", "", "", "", kFirstTime + 10000,
                     kFirstTime + 90000 * 60, 5, 20, 0, 0, false, "receivedTime", "desc"};
  return filter;
}

// The statements the filters above stand for.
const char kSearchSql[] =
    " SELECT * FROM mcp_quarantine_table  WHERE sender LIKE '%user17%' OR receivers LIKE "
    "'%user17%' OR subject LIKE '%user17%' OR report LIKE '%user17%'  ORDER BY receivedTime desc "
    "LIMIT 50 OFFSET 0;";
const char kSearchCountSql[] =
    " SELECT count(*) FROM mcp_quarantine_table  WHERE sender LIKE '%user17%' OR receivers LIKE "
    "'%user17%' OR subject LIKE '%user17%' OR report LIKE '%user17%' ;";
const char kFieldSql[] =
    "select * from mcp_quarantine_table where  receivedTime >= 1790010000 and  receivedTime <= "
    "1795400000 and  score >= 5 and  score <= 20 order by receivedTime desc limit 50 offset 2000;";
const char kFieldCountSql[] =
    "select count(*) from mcp_quarantine_table where  receivedTime >= 1790010000 and  "
    "receivedTime <= 1795400000 and  score >= 5 and  score <= 20;";

void Page(benchmark::State &state, const MCPDBFilter &filter) {
  MCPDBHandler handler;
  for (auto _ : state) {
    std::vector<MCPRecord> rows;
    if (handler.Retrieve(filter, rows) != 0 || rows.size() != 50) state.SkipWithError("page");
  }
}

void Count(benchmark::State &state, const MCPDBFilter &filter) {
  MCPDBHandler handler;
  for (auto _ : state) {
    if (handler.GetRecordNum(filter) <= 0) state.SkipWithError("count");
  }
}

std::string Text(sqlite3_stmt *query, int i) {
  const auto *value = reinterpret_cast<const char *>(sqlite3_column_text(query, i));
  return value != nullptr ? value : "";
}

void RawPage(benchmark::State &state, const char *sql) {
  sqlite3 *db = nullptr;
  sqlite3_open(kDb, &db);
  for (auto _ : state) {
    std::vector<MCPRecord> rows;
    sqlite3_stmt *query = nullptr;
    sqlite3_prepare_v2(db, sql, -1, &query, nullptr);
    while (sqlite3_step(query) == SQLITE_ROW) {
      rows.push_back({Text(query, 0), Text(query, 1), Text(query, 2), Text(query, 3),
                      sqlite3_column_int64(query, 4), Text(query, 5), Text(query, 6),
                      Text(query, 7), sqlite3_column_int(query, 8), Text(query, 9),
                      static_cast<uint64_t>(sqlite3_column_int64(query, 10))});
    }
    sqlite3_finalize(query);
    if (rows.size() != 50) state.SkipWithError("raw page");
  }
  sqlite3_close(db);
}

void RawCount(benchmark::State &state, const char *sql) {
  sqlite3 *db = nullptr;
  sqlite3_open(kDb, &db);
  for (auto _ : state) {
    sqlite3_stmt *query = nullptr;
    sqlite3_prepare_v2(db, sql, -1, &query, nullptr);
    int count = -1;
    if (sqlite3_step(query) == SQLITE_ROW) count = sqlite3_column_int(query, 0);
    sqlite3_finalize(query);
    if (count <= 0) state.SkipWithError("raw count");
  }
  sqlite3_close(db);
}

void SearchPage(benchmark::State &state) { Page(state, SearchFilter("*")); }
void RawSearchPage(benchmark::State &state) { RawPage(state, kSearchSql); }
void SearchCount(benchmark::State &state) { Count(state, SearchFilter("count(*)")); }
void RawSearchCount(benchmark::State &state) { RawCount(state, kSearchCountSql); }
void FieldPage(benchmark::State &state) { Page(state, FieldFilter("*")); }
void RawFieldPage(benchmark::State &state) { RawPage(state, kFieldSql); }
void FieldCount(benchmark::State &state) { Count(state, FieldFilter("count(*)")); }
void RawFieldCount(benchmark::State &state) { RawCount(state, kFieldCountSql); }

// Five repetitions: the median holds when another build shares the machine for a moment.
#define QSV_BENCH(fn) \
  BENCHMARK(fn)->UseRealTime()->Repetitions(5)->ReportAggregatesOnly(true)->Unit(benchmark::kMillisecond)->MinTime(0.5)
QSV_BENCH(SearchPage);
QSV_BENCH(RawSearchPage);
QSV_BENCH(SearchCount);
QSV_BENCH(RawSearchCount);
QSV_BENCH(FieldPage);
QSV_BENCH(RawFieldPage);
QSV_BENCH(FieldCount);
QSV_BENCH(RawFieldCount);

// 100,000 records a minute apart, from 1,000 senders to 700 recipients, scores 0 to 29.
bool SetUp() {
  unlink(kDb);
  { MCPDBHandler create; if (create.getErrCode() != 0) return false; }
  sqlite3 *db = nullptr;
  if (sqlite3_open(kDb, &db) != SQLITE_OK) return false;
  bool ok = sqlite3_exec(db, "BEGIN TRANSACTION;", nullptr, nullptr, nullptr) == SQLITE_OK;
  sqlite3_stmt *insert = nullptr;
  ok = ok && sqlite3_prepare_v2(db,
                                "insert into mcp_quarantine_table values (?1, ?2, ?3, '20261123', "
                                "?4, ?5, 'Policy rule matched', ?6, ?7, 'quarantine', ?8);",
                                -1, &insert, nullptr) == SQLITE_OK;
  for (int i = 0; i < kRecords && ok; ++i) {
    const std::string id = "<" + std::to_string(i) + "@mail.example.test>";
    const std::string sender = "user" + std::to_string(i % 1000) + "@sender.example";
    const std::string receivers = "rcpt" + std::to_string(i % 700) + "@example.test";
    const std::string subject = "Invoice " + std::to_string(i);
    const std::string path = "/var/spool/mcp/" + std::to_string(i) + ".eml";
    sqlite3_bind_text(insert, 1, id.c_str(), -1, SQLITE_TRANSIENT);
    sqlite3_bind_text(insert, 2, sender.c_str(), -1, SQLITE_TRANSIENT);
    sqlite3_bind_text(insert, 3, receivers.c_str(), -1, SQLITE_TRANSIENT);
    sqlite3_bind_int64(insert, 4, kFirstTime + static_cast<int64_t>(i) * 60);
    sqlite3_bind_text(insert, 5, subject.c_str(), -1, SQLITE_TRANSIENT);
    sqlite3_bind_text(insert, 6, path.c_str(), -1, SQLITE_TRANSIENT);
    sqlite3_bind_int(insert, 7, i % 30);
    sqlite3_bind_int64(insert, 8, 1000 + i % 50000);
    ok = sqlite3_step(insert) == SQLITE_DONE && sqlite3_reset(insert) == SQLITE_OK;
  }
  sqlite3_finalize(insert);
  ok = ok && sqlite3_exec(db, "COMMIT TRANSACTION;", nullptr, nullptr, nullptr) == SQLITE_OK;
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
  reporter.PrintRatio("Retrieve, text search page of 50 / same SQL raw", "SearchPage",
                      "RawSearchPage", "goal <= 1.2");
  reporter.PrintRatio("GetRecordNum, text search / same SQL raw", "SearchCount", "RawSearchCount",
                      "goal <= 1.2");
  reporter.PrintRatio("Retrieve, score and time page of 50 at 2000 / same SQL raw", "FieldPage",
                      "RawFieldPage", "goal <= 1.2");
  reporter.PrintRatio("GetRecordNum, score and time / same SQL raw", "FieldCount",
                      "RawFieldCount", "goal <= 1.2");
  benchmark::Shutdown();
  unlink(kDb);
  return 0;
}
