// The black and white list's hot paths against their floors on the same database of 100,000 rows:
// - getBlackWhiteList of a page of 100 rows deep in the table (side and verdict filtered), against
//   the same statement run on a raw connection into the same rows;
// - countQueryData of the names that contain a piece, and of every row, against the same count
//   statements run raw;
// - importBlackWhite of a document of 10,000 names, against reading and parsing the same document
//   and inserting the same rows in one raw transaction through one prepared statement (the
//   floor), and through a statement text for each row, compiled one by one, as the import does.
#include <sqlite3.h>
#include <unistd.h>

#include <cstdio>
#include <fstream>
#include <list>
#include <memory>
#include <string>

#include <benchmark/benchmark.h>
#include <json/json.h>

#include "ratio_reporter.h"
#include "security/spam.h"

namespace {

const char kDb[] = "/var/packages/Quillon-Server/etc/bench_blackwhite.db";
const char kDocument[] = "/var/packages/Quillon-Server/etc/bench_blackwhite.json";
constexpr int kRows = 100000;
constexpr int kImported = 10000;
constexpr int kPage = 100;
constexpr int kPageOffset = 20000;

const BlackWhiteFilter kPageFilter{kPageOffset,           kPage, TYPE_FROM, NAME_TYPE_ALL,
                                   BLACK_WHITE_BLACKLIST, "*",   ""};
const BlackWhiteFilter kPieceFilter{0, 0, TYPE_ALL, NAME_TYPE_ALL, BLACK_WHITE_KNOWN, "*", "ple7"};
const BlackWhiteFilter kAllFilter{0, 0, TYPE_ALL, NAME_TYPE_ALL, BLACK_WHITE_KNOWN, "*", ""};
// The statements the filters above stand for.
const char kPageSql[] =
    "select * from blackwhite_table where type=0 and blackwhite=1 limit 100 offset 20000;";
const char kPieceSql[] = "select count(*) from blackwhite_table where name LIKE '%ple7%';";
const char kAllSql[] = "select count(*) from blackwhite_table ;";

bool Exec(sqlite3 *db, const std::string &sql) {
  return sqlite3_exec(db, sql.c_str(), nullptr, nullptr, nullptr) == SQLITE_OK;
}

Spam *Instance() { return Spam::getInstance(kDb); }

void Page(benchmark::State &state) {
  Spam *spam = Instance();
  for (auto _ : state) {
    const std::list<BlackWhite> rows = spam->getBlackWhiteList(kPageFilter);
    if (rows.size() != kPage) state.SkipWithError("short page");
  }
}

void RawPage(benchmark::State &state) {
  sqlite3 *db = nullptr;
  sqlite3_open(kDb, &db);
  for (auto _ : state) {
    std::list<BlackWhite> rows;
    sqlite3_stmt *query = nullptr;
    sqlite3_prepare_v2(db, kPageSql, -1, &query, nullptr);
    while (sqlite3_step(query) == SQLITE_ROW) {
      rows.push_back({reinterpret_cast<const char *>(sqlite3_column_text(query, 1)),
                      static_cast<BlackWhiteType>(sqlite3_column_int(query, 3)),
                      static_cast<Type>(sqlite3_column_int(query, 2)),
                      static_cast<NameType>(sqlite3_column_int(query, 0))});
    }
    sqlite3_finalize(query);
    if (rows.size() != kPage) state.SkipWithError("short raw page");
  }
  sqlite3_close(db);
}

void Count(benchmark::State &state, const BlackWhiteFilter &filter) {
  Spam *spam = Instance();
  for (auto _ : state) {
    if (spam->countQueryData(filter) <= 0) state.SkipWithError("count failed");
  }
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
    if (count <= 0) state.SkipWithError("raw count failed");
  }
  sqlite3_close(db);
}

void CountPiece(benchmark::State &state) { Count(state, kPieceFilter); }
void RawCountPiece(benchmark::State &state) { RawCount(state, kPieceSql); }
void CountAll(benchmark::State &state) { Count(state, kAllFilter); }
void RawCountAll(benchmark::State &state) { RawCount(state, kAllSql); }

// The imported names all begin with "imported-" and lie on the recipients' side, which the
// 100,000 rows leave empty.
void ClearImported(sqlite3 *db) { Exec(db, "DELETE FROM blackwhite_table WHERE type=1;"); }

void Import(benchmark::State &state) {
  Spam *spam = Instance();
  sqlite3 *db = nullptr;
  sqlite3_open(kDb, &db);
  for (auto _ : state) {
    state.PauseTiming();
    ClearImported(db);
    state.ResumeTiming();
    if (spam->importBlackWhite(kDocument) != 0) state.SkipWithError("import failed");
  }
  sqlite3_close(db);
}

// The document as the import reads it: the whole file, parsed.
Json::Value ReadDocument() {
  std::string document;
  FILE *in = fopen(kDocument, "re");
  char buffer[65536];
  for (size_t got; in != nullptr && (got = fread(buffer, 1, sizeof(buffer), in)) > 0;) {
    document.append(buffer, got);
  }
  if (in != nullptr) fclose(in);
  Json::CharReaderBuilder builder;
  std::unique_ptr<Json::CharReader> reader(builder.newCharReader());
  Json::Value doc;
  reader->parse(document.data(), document.data() + document.size(), &doc, nullptr);
  return doc;
}

// The floor: one statement compiled once, each row bound to it.
void RawImport(benchmark::State &state) {
  sqlite3 *db = nullptr;
  sqlite3_open(kDb, &db);
  for (auto _ : state) {
    state.PauseTiming();
    ClearImported(db);
    state.ResumeTiming();
    const Json::Value doc = ReadDocument();
    Exec(db, "BEGIN TRANSACTION;");
    sqlite3_stmt *insert = nullptr;
    sqlite3_prepare_v2(db,
                       "insert or replace into blackwhite_table (name_type, name, type, "
                       "blackwhite) values (1, ?, 1, 1);",
                       -1, &insert, nullptr);
    for (const Json::Value &name : doc["blacklist"]["to"]["address"]) {
      sqlite3_bind_text(insert, 1, name.asCString(), -1, SQLITE_STATIC);
      sqlite3_step(insert);
      sqlite3_reset(insert);
    }
    sqlite3_finalize(insert);
    Exec(db, "COMMIT TRANSACTION;");
  }
  sqlite3_close(db);
}

// Five repetitions: the median holds when another build shares the machine for a moment.
#define QSV_BENCH(fn) BENCHMARK(fn)->UseRealTime()->Repetitions(5)->ReportAggregatesOnly(true)
QSV_BENCH(Page)->Unit(benchmark::kMicrosecond)->MinTime(0.5);
QSV_BENCH(RawPage)->Unit(benchmark::kMicrosecond)->MinTime(0.5);
QSV_BENCH(CountPiece)->Unit(benchmark::kMicrosecond)->MinTime(0.5);
QSV_BENCH(RawCountPiece)->Unit(benchmark::kMicrosecond)->MinTime(0.5);
QSV_BENCH(CountAll)->Unit(benchmark::kMicrosecond)->MinTime(0.5);
QSV_BENCH(RawCountAll)->Unit(benchmark::kMicrosecond)->MinTime(0.5);
QSV_BENCH(Import)->Unit(benchmark::kMillisecond)->Iterations(5);
QSV_BENCH(RawImport)->Unit(benchmark::kMillisecond)->Iterations(5);

// 100,000 rows of senders and clients, both verdicts, all kinds, through one raw transaction;
// and a document of 10,000 recipients' addresses.
bool SetUp() {
  unlink(kDb);
  if (Instance() == nullptr) return false;
  sqlite3 *db = nullptr;
  if (sqlite3_open(kDb, &db) != SQLITE_OK) return false;
  bool ok = Exec(db, "BEGIN TRANSACTION;");
  for (int i = 0; i < kRows && ok; ++i) {
    char *sql = sqlite3_mprintf(
        "INSERT INTO blackwhite_table VALUES (%d, 'user%d@example%d.test', %d, %d);", i % 3, i,
        i % 1000, i % 2 == 0 ? TYPE_FROM : TYPE_CLIENT, i % 4 < 2 ? 1 : 2);
    ok = Exec(db, sql);
    sqlite3_free(sql);
  }
  ok = ok && Exec(db, "COMMIT TRANSACTION;");
  sqlite3_close(db);
  Json::Value doc;
  Json::Value &names = doc["blacklist"]["to"]["address"];
  for (int i = 0; i < kImported; ++i) {
    names.append("imported-" + std::to_string(i) + "@example.test");
  }
  std::ofstream(kDocument) << Json::StyledWriter().write(doc);
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
  reporter.PrintRatio("getBlackWhiteList, page of 100 at 20000 / same SQL raw", "Page", "RawPage",
                      "goal <= 1.2");
  reporter.PrintRatio("countQueryData, name piece over 100000 rows / same SQL raw", "CountPiece",
                      "RawCountPiece", "goal <= 1.2");
  reporter.PrintRatio("countQueryData, all 100000 rows / same SQL raw", "CountAll", "RawCountAll",
                      "goal <= 1.2");
  reporter.PrintRatio("importBlackWhite, 10000 names / one raw transaction, one prepared insert",
                      "Import", "RawImport", "goal <= 1.5");
  benchmark::Shutdown();
  for (const char *path : {kDb, kDocument}) unlink(path);
  return 0;
}
