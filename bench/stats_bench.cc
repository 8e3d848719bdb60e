// The aggregation job and the domain ranking over the logs of log_bench (a live mail log of
// 1,000,000 rows in October, its archive of 1,000,000 more in September) and a live security log of
// 200,000 rows over the same October, each against its floor: the same statements run by raw
// SQLite on the same files, with a connection opened, attached and closed wherever the library
// opens, attaches and closes one:
// - a catch-up of twelve hours of counters, what statistic() does for each hour it owes (the five
//   counts, the top lists with the day's usage, the save in one transaction), driven through the
//   per-hour members, since statistic() itself counts up to the present hour;
// - a threat pass over 20,000 inbound refusals and filtered mails from 5,000 addresses in an hour
//   still to come (the pass starts at the job's position, the present hour), every address in a
//   city database of 250 cities written for the run; the floor looks the same addresses up with
//   the GeoIP library and writes the same INSERTs in the same batches of a hundred;
// - AnalysisLog's ranking of the recipient domains of sent mail over seven days across both files.
// The floors' statements are not written out here: each library pass runs once on traced
// connections (opens, statements, closes) after a first pass has made the job's own files, and
// the floor replays that trace; the floor is traced too, and both traces must agree event for event
// before anything is timed.
//
// Planner statistics: the job ends each log connection with PRAGMA main.optimize, which analyzes
// the live log once its queries would profit, but never the archive. The set-up analyzes the three
// log files once, archive included, before any pass, so that both sides plan with the same
// sqlite_stat1 from the first iteration and the job's optimize (replayed by the floor as well)
// finds nothing to do. Without statistics the archive's half of each hourly count takes the status
// index instead of the date index, for both sides alike.
//
// The job attaches an archive only when it was written on or after the day of its position: the
// set-up dates the archive a day ahead, as a rotation during the catch-up would, so the hourly
// statements read both files.
#include <GeoIP.h>
#include <GeoIPCity.h>
#include <fcntl.h>
#include <limits.h>
#include <spawn.h>
#include <sqlite3.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cstdint>
#include <cstdio>
#include <ctime>
#include <fstream>
#include <map>
#include <memory>
#include <string>
#include <vector>

#include <benchmark/benchmark.h>

#include "core/key_tree_store.h"
#include "core/mail_conf.h"
#include "logs/analysisLog.h"
#include "log_files/geoip_city_db.h"
#include "logs/log_db.h"
#include "logs/maillog.h"
#include "logs/maillogger.h"
#include "logs/securityLog.h"
#include "logs/statisticLog.h"
#include "ratio_reporter.h"

extern char **environ;

namespace {

using analysis_log::AnalysisCount;
using analysis_log::AnalysisLog;
using analysis_log::analysisFilter;
using mail_log::MailStatus;
using statistic_log::StatisticCount;

const char *const kLive = mail_log::kMailLogDBPath;
const char *const kArchive = mail_log::kMailLogArchivePath;
const char *const kSecurity = security_log::kSecurityLogDBPath;
const char kGeoIPDir[] = "/var/packages/Quillon-Server/target/etc/geoip";
constexpr long long kRowsPerFile = 1000000;
constexpr long long kSecurityRows = 200000;
constexpr int kHours = 12;
constexpr int kStatuses = 5;
constexpr int kCities = 250;
constexpr int kOrigins = 5000;
constexpr int kRowsPerOrigin = 4;
constexpr size_t kOriginBatch = 100;
constexpr int kRankingLimit = 10;
// The job's statement for the origins, and its last one, which sums their days.
const char kOriginsSelect[] = "SELECT time, src, SUM(cnt) AS count FROM (";
const char kOriginsDay[] = "INSERT OR REPLACE INTO main.threat_origin_day ";
const char kBegin[] = "BEGIN TRANSACTION;";
const char kCommit[] = "COMMIT TRANSACTION;";

time_t LocalTime(int year, int month, int day, int hour = 0) {
  struct tm tm = {};
  tm.tm_year = year - 1900;
  tm.tm_mon = month - 1;
  tm.tm_mday = day;
  tm.tm_hour = hour;
  tm.tm_isdst = -1;
  return mktime(&tm);
}

// The twelve hours owed, from 08:00 on 14 October; the ranking's seven days, 27 September to 3
// October, four in the archive and three in the live file.
long FirstHour() { return static_cast<long>(LocalTime(2026, 10, 14, 8)); }
analysisFilter RankingFilter() {
  analysisFilter filter;
  filter.nameKind = 3;
  filter.status = mail_log::MAIL_STATUS_SEND;
  filter.limit = kRankingLimit;
  filter.dateFrom = LocalTime(2026, 9, 27);
  filter.dateTo = LocalTime(2026, 10, 4) - 1;
  return filter;
}

// ---------------------------------------------------------------------------------------------
// Traces and their replay

// What a traced connection did: its opening (the file), each statement as it began to run, its
// closing. Connections are numbered in the order they were opened.
struct Event {
  enum Kind { kOpen, kRun, kClose } kind;
  int connection;
  std::string text;
  bool operator==(const Event &other) const {
    return kind == other.kind && connection == other.connection && text == other.text;
  }
};

struct Script {
  std::vector<Event> events;
  // The threat pass's origins: the SELECT, its last statement and the commit after that; the floor
  // makes what lies between from the rows and the city database. Past the end when absent.
  size_t originsAt = SIZE_MAX, originsDay = SIZE_MAX, originsEnd = SIZE_MAX;
};

std::vector<Event> *recording = nullptr;
std::map<sqlite3 *, int> numbers;
int opened = 0;

int TraceEvent(unsigned type, void *, void *p, void *) {
  if (recording == nullptr) return 0;
  if (type == SQLITE_TRACE_STMT) {
    auto *statement = static_cast<sqlite3_stmt *>(p);
    const char *sql = sqlite3_sql(statement);
    const auto found = numbers.find(sqlite3_db_handle(statement));
    if (sql != nullptr && found != numbers.end()) {
      recording->push_back({Event::kRun, found->second, sql});
    }
  } else if (type == SQLITE_TRACE_CLOSE) {
    const auto found = numbers.find(static_cast<sqlite3 *>(p));
    if (found != numbers.end()) {
      recording->push_back({Event::kClose, found->second, ""});
      numbers.erase(found);
    }
  }
  return 0;
}

int TraceConnection(sqlite3 *db, char **, const void *) {
  if (recording == nullptr) return SQLITE_OK;
  const char *file = sqlite3_db_filename(db, "main");
  numbers[db] = opened;
  recording->push_back({Event::kOpen, opened++, file != nullptr ? file : ""});
  sqlite3_trace_v2(db, SQLITE_TRACE_STMT | SQLITE_TRACE_CLOSE, TraceEvent, nullptr);
  return SQLITE_OK;
}

// Every connection `work` opens, and what it runs, while it runs.
template <typename Work>
std::vector<Event> Traced(Work work) {
  std::vector<Event> events;
  numbers.clear();
  opened = 0;
  recording = &events;
  const auto hook = reinterpret_cast<void (*)()>(TraceConnection);
  sqlite3_auto_extension(hook);
  work();
  sqlite3_cancel_auto_extension(hook);
  recording = nullptr;
  return events;
}

// The floor of a statement: prepare, step every row reading each value in its own type, finalize.
// The first column of the first row goes to `first` (-1 for no row).
bool RawRun(sqlite3 *db, const std::string &sql, long long *first) {
  sqlite3_stmt *query = nullptr;
  *first = -1;
  if (sqlite3_prepare_v2(db, sql.c_str(), -1, &query, nullptr) != SQLITE_OK) {
    sqlite3_finalize(query);
    return false;
  }
  const int columns = sqlite3_column_count(query);
  bool firstRow = true;
  int rc;
  while ((rc = sqlite3_step(query)) == SQLITE_ROW) {
    for (int i = 0; i < columns; ++i) {
      switch (sqlite3_column_type(query, i)) {
        case SQLITE_INTEGER: benchmark::DoNotOptimize(sqlite3_column_int64(query, i)); break;
        case SQLITE_FLOAT: benchmark::DoNotOptimize(sqlite3_column_double(query, i)); break;
        case SQLITE_NULL: break;
        default: benchmark::DoNotOptimize(sqlite3_column_text(query, i));
      }
    }
    if (firstRow && columns > 0) *first = sqlite3_column_int64(query, 0);
    firstRow = false;
  }
  return sqlite3_finalize(query) == SQLITE_OK && rc == SQLITE_DONE;
}

// A list of statements in one transaction, as the job's handle runs it.
bool RawTransaction(sqlite3 *db, const std::vector<std::string> &statements) {
  bool ok = sqlite3_exec(db, kBegin, nullptr, nullptr, nullptr) == SQLITE_OK;
  for (size_t i = 0; ok && i < statements.size(); ++i) {
    ok = sqlite3_exec(db, statements[i].c_str(), nullptr, nullptr, nullptr) == SQLITE_OK;
  }
  if (ok) ok = sqlite3_exec(db, kCommit, nullptr, nullptr, nullptr) == SQLITE_OK;
  if (!ok) sqlite3_exec(db, "rollback", nullptr, nullptr, nullptr);
  return ok;
}

// The floor of the origins: the job's SELECT stepped, each address looked up in the city database
// (opened at the first row, as the job does) and its row written with the same INSERT, a hundred
// to a transaction, then `day` with the last of them. The addresses found go to `found`.
bool RawOrigins(sqlite3 *db, const std::string &select, const std::string &day, long long *found) {
  sqlite3_stmt *query = nullptr;
  if (sqlite3_prepare_v2(db, select.c_str(), -1, &query, nullptr) != SQLITE_OK) {
    sqlite3_finalize(query);
    return false;
  }
  GeoIP *geoIP = nullptr;
  std::vector<std::string> batch;
  bool ok = true;
  int rc = SQLITE_ERROR;
  while (ok && (rc = sqlite3_step(query)) == SQLITE_ROW) {
    const int64_t hour = sqlite3_column_int64(query, 0);
    const auto *src = reinterpret_cast<const char *>(sqlite3_column_text(query, 1));
    const int count = sqlite3_column_int(query, 2);
    if (geoIP == nullptr) {
      geoIP = GeoIP_open(kGeoIPCityDBPath, GEOIP_INDEX_CACHE);
      if (geoIP == nullptr) {
        ok = false;
        break;
      }
      GeoIP_set_charset(geoIP, GEOIP_CHARSET_UTF8);
    }
    GeoIPRecord *record = GeoIP_record_by_name(geoIP, src != nullptr ? src : "");
    if (record == nullptr) continue;
    ++*found;
    char *insert = sqlite3_mprintf(
        "INSERT OR REPLACE INTO main.threat_origin_hour(time, country_code, country, city, "
        "latitude, longitude, count) VALUES(%d, '%q', '%q', '%q', %f, %f, %d)",
        static_cast<int>(hour), record->country_code != nullptr ? record->country_code : "",
        record->country_name != nullptr ? record->country_name : "",
        record->city != nullptr ? record->city : "", static_cast<double>(record->latitude),
        static_cast<double>(record->longitude), count);
    GeoIPRecord_delete(record);
    if (insert == nullptr) {
      ok = false;
      break;
    }
    batch.emplace_back(insert);
    sqlite3_free(insert);
    if (batch.size() >= kOriginBatch) {
      ok = RawTransaction(db, batch);
      batch.clear();
    }
  }
  if (ok) ok = rc == SQLITE_DONE;
  ok = sqlite3_finalize(query) == SQLITE_OK && ok;
  if (ok) {
    batch.push_back(day);
    ok = RawTransaction(db, batch);
  }
  if (geoIP != nullptr) GeoIP_delete(geoIP);
  return ok;
}

struct Replayed {
  std::vector<long long> firsts;  // per event, the first value a statement gave
  long long found = 0;            // addresses found in the city database
};

// Runs a script on raw connections: each open a sqlite3_open of the same file with the job's busy
// time-out, each statement RawRun, each close a sqlite3_close; the origins by RawOrigins.
bool Replay(const Script &script, Replayed *out) {
  std::map<int, sqlite3 *> connections;
  out->firsts.assign(script.events.size(), -1);
  out->found = 0;
  bool ok = true;
  for (size_t i = 0; ok && i < script.events.size(); ++i) {
    const Event &event = script.events[i];
    switch (event.kind) {
      case Event::kOpen: {
        sqlite3 *db = nullptr;
        ok = sqlite3_open(event.text.c_str(), &db) == SQLITE_OK;
        connections[event.connection] = db;
        if (ok) sqlite3_busy_timeout(db, 60000);
        break;
      }
      case Event::kRun:
        if (i == script.originsAt) {
          ok = RawOrigins(connections[event.connection], event.text,
                          script.events[script.originsDay].text, &out->found);
          i = script.originsEnd;
        } else {
          ok = RawRun(connections[event.connection], event.text, &out->firsts[i]);
        }
        break;
      case Event::kClose:
        ok = sqlite3_close(connections[event.connection]) == SQLITE_OK;
        connections.erase(event.connection);
        break;
    }
  }
  for (const auto &connection : connections) sqlite3_close(connection.second);
  return ok;
}

// Marks the origins of a threat pass's script: the SELECT, the day's INSERT after it on the same
// connection and the commit of that. False when the pass has none.
bool FindOrigins(Script &script) {
  const auto &events = script.events;
  for (size_t i = 0; i < events.size(); ++i) {
    if (events[i].kind != Event::kRun || events[i].text.rfind(kOriginsSelect, 0) != 0) continue;
    for (size_t j = i + 1; j < events.size(); ++j) {
      if (events[j].connection != events[i].connection || events[j].kind != Event::kRun ||
          events[j].text.rfind(kOriginsDay, 0) != 0) {
        continue;
      }
      if (j + 1 < events.size() && events[j + 1].connection == events[i].connection &&
          events[j + 1].text == kCommit) {
        script.originsAt = i, script.originsDay = j, script.originsEnd = j + 1;
        return true;
      }
      return false;
    }
    return false;
  }
  return false;
}

// Where two traces part, on stderr; true when they don't.
bool SameTrace(const char *what, const std::vector<Event> &library,
               const std::vector<Event> &floor) {
  const size_t n = std::min(library.size(), floor.size());
  size_t i = 0;
  while (i < n && library[i] == floor[i]) ++i;
  if (i == n && library.size() == floor.size()) return true;
  static const char *const kKinds[] = {"open", "run", "close"};
  fprintf(stderr, "%s: the floor's trace leaves the library's at event %zu of %zu/%zu\n", what, i,
          library.size(), floor.size());
  for (const auto *side : {&library, &floor}) {
    if (i < side->size()) {
      const Event &event = (*side)[i];
      fprintf(stderr, "  %s: %s #%d %.300s\n", side == &library ? "library" : "floor",
              kKinds[event.kind], event.connection, event.text.c_str());
    }
  }
  return false;
}

// ---------------------------------------------------------------------------------------------
// What the set-up learnt

struct Known {
  long long counts[kHours][kStatuses] = {};  // by statements of this program's own
  // The count statements of the catch-up, by their place in its script, with their counts.
  std::vector<std::pair<size_t, long long>> countEvents;
  long threatHour = 0;
  long long rankedDomains = -1;  // the names a ranking page holds
  long long topDomainCount = -1;
  bool catchUpMatches = false;
  bool threatMatches = false;
  bool rankingMatches = false;
};
Known known;
Script catchUp;
Script threatPass;
std::string rankingSql;
std::string rankingAttach;
std::unique_ptr<MailLogger> job;

// ---------------------------------------------------------------------------------------------
// The library

// The job's work for each of the twelve hours; false at the first count that isn't the known one
// or the first failure.
bool CatchUpOnce(MailLogger &logger) {
  for (int h = 0; h < kHours; ++h) {
    const long hour = FirstHour() + h * 3600L;
    StatisticCount count;
    count.time = hour;
    for (int status = 0; status < kStatuses; ++status) {
      count.count(status) = logger.getLogNumPerHour(hour, static_cast<MailStatus>(status));
      if (count.count(status) != known.counts[h][status]) return false;
    }
    if (logger.getTop5Lists(hour, count) != 0 || logger.saveStatistic(hour, count) != 0) {
      return false;
    }
  }
  return true;
}

void LibraryCatchUp(benchmark::State &state) {
  if (!known.catchUpMatches) {
    state.SkipWithError("the floor's catch-up differs from the library's");
    return;
  }
  for (auto _ : state) {
    if (!CatchUpOnce(*job)) {
      state.SkipWithError("catch-up");
      break;
    }
  }
}

void LibraryThreatPass(benchmark::State &state) {
  if (!known.threatMatches) {
    state.SkipWithError("the floor's threat pass differs from the library's");
    return;
  }
  for (auto _ : state) {
    if (job->securityStatistic() != 0) {
      state.SkipWithError("threat pass");
      break;
    }
  }
}

bool RankingAsKnown(const std::vector<AnalysisCount> &rows) {
  return static_cast<long long>(rows.size()) == known.rankedDomains &&
         rows[0].count == known.topDomainCount;
}

void LibraryRanking(benchmark::State &state) {
  if (!known.rankingMatches) {
    state.SkipWithError("the floor's ranking differs from the library's");
    return;
  }
  AnalysisLog analysis;
  const analysisFilter filter = RankingFilter();
  for (auto _ : state) {
    std::vector<AnalysisCount> rows;
    if (analysis.getAnalysis(rows, filter) != 0 || !RankingAsKnown(rows)) {
      state.SkipWithError("ranking");
      break;
    }
  }
}

// ---------------------------------------------------------------------------------------------
// The floors

bool RawCatchUpOnce() {
  Replayed replayed;
  if (!Replay(catchUp, &replayed)) return false;
  for (const auto &count : known.countEvents) {
    if (replayed.firsts[count.first] != count.second) return false;
  }
  return true;
}

void RawCatchUp(benchmark::State &state) {
  if (!known.catchUpMatches) {
    state.SkipWithError("the floor's catch-up differs from the library's");
    return;
  }
  for (auto _ : state) {
    if (!RawCatchUpOnce()) {
      state.SkipWithError("raw catch-up");
      break;
    }
  }
}

bool RawThreatPassOnce() {
  Replayed replayed;
  return Replay(threatPass, &replayed) && replayed.found == kOrigins;
}

void RawThreatPass(benchmark::State &state) {
  if (!known.threatMatches) {
    state.SkipWithError("the floor's threat pass differs from the library's");
    return;
  }
  for (auto _ : state) {
    if (!RawThreatPassOnce()) {
      state.SkipWithError("raw threat pass");
      break;
    }
  }
}

// The floor of a ranking page: a connection to the live file with the archive attached by the
// library's own statement, the page read into AnalysisCounts, the connection closed.
bool RawRankingOnce(std::vector<AnalysisCount> &rows) {
  sqlite3 *db = nullptr;
  bool ok = sqlite3_open(kLive, &db) == SQLITE_OK;
  if (ok) {
    sqlite3_busy_timeout(db, 60000);
    ok = sqlite3_exec(db, rankingAttach.c_str(), nullptr, nullptr, nullptr) == SQLITE_OK;
  }
  sqlite3_stmt *query = nullptr;
  if (ok) ok = sqlite3_prepare_v2(db, rankingSql.c_str(), -1, &query, nullptr) == SQLITE_OK;
  int rc = SQLITE_ERROR;
  while (ok && (rc = sqlite3_step(query)) == SQLITE_ROW) {
    const auto *name = reinterpret_cast<const char *>(sqlite3_column_text(query, 0));
    rows.push_back({name != nullptr ? name : "", sqlite3_column_int64(query, 1)});
  }
  ok = ok && rc == SQLITE_DONE;
  ok = sqlite3_finalize(query) == SQLITE_OK && ok;
  sqlite3_close(db);
  return ok;
}

void RawRanking(benchmark::State &state) {
  if (!known.rankingMatches) {
    state.SkipWithError("the floor's ranking differs from the library's");
    return;
  }
  for (auto _ : state) {
    std::vector<AnalysisCount> rows;
    if (!RawRankingOnce(rows) || !RankingAsKnown(rows)) {
      state.SkipWithError("raw ranking");
      break;
    }
  }
}

// Five repetitions: the median holds when another build shares the machine for a moment.
#define QSV_BENCH(fn) \
  BENCHMARK(fn)->UseRealTime()->Repetitions(5)->ReportAggregatesOnly(true)->Unit(benchmark::kMillisecond)->MinTime(0.5)
QSV_BENCH(LibraryCatchUp);
QSV_BENCH(RawCatchUp);
QSV_BENCH(LibraryThreatPass);
QSV_BENCH(RawThreatPass);
QSV_BENCH(LibraryRanking);
QSV_BENCH(RawRanking);

// ---------------------------------------------------------------------------------------------
// Set-up

long long RawCountOf(sqlite3 *db, const std::string &sql) {
  long long count = -1;
  return RawRun(db, sql, &count) ? count : -1;
}

long long RowsIn(const char *path, const char *table) {
  sqlite3 *db = nullptr;
  long long rows = -1;
  if (sqlite3_open_v2(path, &db, SQLITE_OPEN_READONLY, nullptr) == SQLITE_OK) {
    rows = RawCountOf(db, std::string("SELECT COUNT(*) FROM ") + table + ";");
  }
  sqlite3_close(db);
  return rows;
}

bool Exec(const char *path, const char *sql) {
  sqlite3 *db = nullptr;
  bool ok = sqlite3_open(path, &db) == SQLITE_OK;
  if (ok) {
    sqlite3_busy_timeout(db, 60000);
    ok = sqlite3_exec(db, sql, nullptr, nullptr, nullptr) == SQLITE_OK;
  }
  sqlite3_close(db);
  return ok;
}

// Runs the generator with `args`, no shell between; true when it wrote its rows.
bool Generate(const std::string &generator, const std::vector<std::string> &args) {
  std::vector<char *> argv;
  argv.push_back(const_cast<char *>(generator.c_str()));
  for (const std::string &arg : args) argv.push_back(const_cast<char *>(arg.c_str()));
  argv.push_back(nullptr);
  pid_t pid;
  if (posix_spawn(&pid, generator.c_str(), nullptr, nullptr, argv.data(), environ) != 0) {
    return false;
  }
  int status = 0;
  return waitpid(pid, &status, 0) == pid && WIFEXITED(status) && WEXITSTATUS(status) == 0;
}

void Unlink(const char *path) {
  for (const char *suffix : {"", "-journal", "-wal", "-shm"}) {
    unlink((std::string(path) + suffix).c_str());
  }
}

// The local domains the threat pass reads, as the store's mirror file holds them: the live mail
// log's two.
bool SetLocalDomains() {
  const std::string key = "virtual_multiple_domain";
  mkdir(kMailConfDir, 0755);
  std::ofstream out(std::string(kMailConfDir) + toLeagalFileName(key));
  out << "{\"" << KOLT::QUILLON_SERVER::KeyTreeStore::instance()->keyComplete(key)
      << "\":\"1/example.com, 2/xn--bcher-kva.example\"}\n";
  return static_cast<bool>(out.flush());
}

// City c holds 100.64.c.0/24; origin i is the address 1 + i / kCities in city i % kCities, so
// every address is known and each city is looked up kOrigins / kCities times.
std::string OriginAddress(int i) {
  return "100.64." + std::to_string(i % kCities) + "." + std::to_string(1 + i / kCities);
}

bool WriteCities() {
  static const char *const kCountries[] = {"DE", "FR", "US", "JP", "BR", "IN", "NG", "AU", "CA",
                                           "GB"};
  std::vector<qsvlog::GeoCity> cities;
  for (int c = 0; c < kCities; ++c) {
    qsvlog::GeoCity city;
    city.network = "100.64." + std::to_string(c) + ".0/24";
    city.countryCode = kCountries[c % 10];
    city.region = "01";
    city.cityLatin1 = "Town " + std::to_string(c);
    city.postalCode = std::to_string(10000 + c);
    // Distinct places: the origins' key is the hour and the place.
    city.latitude = -60 + c * 0.48;
    city.longitude = -170 + c * 1.36;
    city.metroCode = 501;
    city.areaCode = 212;
    cities.push_back(city);
  }
  mkdir(kGeoIPDir, 0755);
  unlink(kGeoIPCityV6DBPath);
  return qsvlog::WriteGeoCityDb(kGeoIPCityDBPath, false, cities);
}

// kRowsPerOrigin inbound rows from each origin in the hour `hour`: remote senders, recipients in
// example.com, refused, spam and content alike. Values bound, in one transaction.
bool AddThreats(long hour) {
  static const char *const kTypes[] = {"reject", "spam", "content", "reject"};
  static const char *const kRecipients[] = {"alice@example.com", "bob@example.com",
                                            "sales@example.com", "info@example.com"};
  sqlite3 *db = nullptr;
  sqlite3_stmt *insert = nullptr;
  bool ok = sqlite3_open(kSecurity, &db) == SQLITE_OK &&
            sqlite3_exec(db, kBegin, nullptr, nullptr, nullptr) == SQLITE_OK &&
            sqlite3_prepare_v2(db,
                               "INSERT INTO security_log_table(date, src, type, event, host, "
                               "sender, recipient, subject) VALUES (?, ?, ?, ?, ?, ?, ?, ?);",
                               -1, &insert, nullptr) == SQLITE_OK;
  for (int i = 0; ok && i < kOrigins; ++i) {
    const std::string src = OriginAddress(i);
    const std::string sender = "user" + std::to_string(i % 500) + "@partner.example.net";
    for (int k = 0; ok && k < kRowsPerOrigin; ++k) {
      sqlite3_bind_int64(insert, 1, hour + (i * kRowsPerOrigin + k) % 3600);
      sqlite3_bind_text(insert, 2, src.c_str(), -1, SQLITE_TRANSIENT);
      sqlite3_bind_text(insert, 3, kTypes[k], -1, SQLITE_STATIC);
      sqlite3_bind_text(insert, 4, "Relay access denied", -1, SQLITE_STATIC);
      sqlite3_bind_text(insert, 5, "mail", -1, SQLITE_STATIC);
      sqlite3_bind_text(insert, 6, sender.c_str(), -1, SQLITE_TRANSIENT);
      sqlite3_bind_text(insert, 7, kRecipients[(i + k) % 4], -1, SQLITE_STATIC);
      sqlite3_bind_text(insert, 8, "You have won!", -1, SQLITE_STATIC);
      ok = sqlite3_step(insert) == SQLITE_DONE && sqlite3_reset(insert) == SQLITE_OK;
    }
  }
  sqlite3_finalize(insert);
  ok = ok && sqlite3_exec(db, kCommit, nullptr, nullptr, nullptr) == SQLITE_OK;
  sqlite3_close(db);
  return ok;
}

// The live file with the archive attached, for the set-up's own questions.
sqlite3 *OpenBoth() {
  sqlite3 *db = nullptr;
  if (sqlite3_open(kLive, &db) != SQLITE_OK) {
    sqlite3_close(db);
    return nullptr;
  }
  char *attach = sqlite3_mprintf("ATTACH DATABASE '%q' AS DB0; ATTACH DATABASE '%q' AS sec;",
                                 kArchive, kSecurity);
  const int rc = sqlite3_exec(db, attach, nullptr, nullptr, nullptr);
  sqlite3_free(attach);
  if (rc != SQLITE_OK) {
    sqlite3_close(db);
    return nullptr;
  }
  return db;
}

// The counts of the twelve hours and the ranking's answer, by other statements than the measured.
bool LearnAnswers() {
  sqlite3 *db = OpenBoth();
  if (db == nullptr) return false;
  bool ok = true;
  for (int h = 0; ok && h < kHours; ++h) {
    const long hour = FirstHour() + h * 3600L;
    for (int status = 0; ok && status < kStatuses; ++status) {
      char *sql =
          status == mail_log::MAIL_STATUS_REJECT
              ? sqlite3_mprintf("SELECT COUNT(*) FROM sec.security_log_table WHERE type = 'reject' "
                                "AND date BETWEEN %ld AND %ld;",
                                hour, hour + 3599)
              : sqlite3_mprintf("SELECT (SELECT COUNT(*) FROM main.mail_log_table WHERE status = "
                                "%d AND date BETWEEN %ld AND %ld) + (SELECT COUNT(*) FROM "
                                "DB0.mail_log_table WHERE status = %d AND date BETWEEN %ld AND "
                                "%ld);",
                                status, hour, hour + 3599, status, hour, hour + 3599);
      known.counts[h][status] = RawCountOf(db, sql);
      sqlite3_free(sql);
      ok = known.counts[h][status] > 0;
    }
  }
  const analysisFilter filter = RankingFilter();
  char *domains = sqlite3_mprintf(
      "SELECT COUNT(*) FROM (SELECT SUBSTR(mail_to, INSTR(mail_to, '@') + 1) AS domain FROM (SELECT "
      "mail_to FROM main.mail_log_table WHERE status = 0 AND date BETWEEN %lld AND %lld UNION ALL "
      "SELECT mail_to FROM DB0.mail_log_table WHERE status = 0 AND date BETWEEN %lld AND %lld) "
      "GROUP BY domain);",
      static_cast<long long>(filter.dateFrom), static_cast<long long>(filter.dateTo),
      static_cast<long long>(filter.dateFrom), static_cast<long long>(filter.dateTo));
  char *top = sqlite3_mprintf(
      "SELECT COUNT(*) AS n FROM (SELECT mail_to FROM main.mail_log_table WHERE status = 0 AND date "
      "BETWEEN %lld AND %lld UNION ALL SELECT mail_to FROM DB0.mail_log_table WHERE status = 0 AND "
      "date BETWEEN %lld AND %lld) GROUP BY SUBSTR(mail_to, INSTR(mail_to, '@') + 1) ORDER BY n "
      "DESC LIMIT 1;",
      static_cast<long long>(filter.dateFrom), static_cast<long long>(filter.dateTo),
      static_cast<long long>(filter.dateFrom), static_cast<long long>(filter.dateTo));
  known.rankedDomains = std::min<long long>(RawCountOf(db, domains), kRankingLimit);
  known.topDomainCount = RawCountOf(db, top);
  sqlite3_free(domains);
  sqlite3_free(top);
  sqlite3_close(db);
  return ok && known.rankedDomains > 0 && known.topDomainCount > 0;
}

// The hourly count statements the job is to run, in its order: the floor's counts are checked at
// their places in the script.
bool FindCountStatements() {
  known.countEvents.clear();
  size_t from = 0;
  for (int h = 0; h < kHours; ++h) {
    const long hour = FirstHour() + h * 3600L, end = hour + 3600;
    for (int status = 0; status < kStatuses; ++status) {
      char *sql =
          status == mail_log::MAIL_STATUS_REJECT
              ? sqlite3_mprintf("SELECT COUNT(*) as cnt FROM main.security_log_table WHERE "
                                "type='reject' AND date >= %ld AND date < %ld;",
                                hour, end)
              : sqlite3_mprintf("SELECT SUM(cnt) FROM (SELECT COUNT(*) as cnt FROM "
                                "main.mail_log_table WHERE status=%d AND date>=%ld AND date<%ld "
                                "UNION ALL SELECT COUNT(*) as cnt FROM DB0.mail_log_table WHERE "
                                "status=%d AND date>=%ld AND date<%ld);",
                                status, hour, end, status, hour, end);
      const std::string expected = sql;
      sqlite3_free(sql);
      size_t at = from;
      while (at < catchUp.events.size() &&
             (catchUp.events[at].kind != Event::kRun || catchUp.events[at].text != expected)) {
        ++at;
      }
      if (at == catchUp.events.size()) {
        fprintf(stderr, "the library did not run: %s\n", expected.c_str());
        return false;
      }
      if (h == 0 && status == 0) printf("hourly count statement: %s\n", expected.c_str());
      known.countEvents.emplace_back(at, known.counts[h][status]);
      from = at + 1;
    }
  }
  return true;
}

size_t Connections(const Script &script) {
  return static_cast<size_t>(std::count_if(script.events.begin(), script.events.end(),
                                           [](const Event &e) { return e.kind == Event::kOpen; }));
}

// Each library pass once more on traced connections after a first one has made the job's files,
// its replay traced too, and the stored results read back.
void CheckAgainstLibrary() {
  // The catch-up.
  if (!CatchUpOnce(*job)) {
    fprintf(stderr, "the first catch-up failed or counted otherwise\n");
    return;
  }
  bool passed = true;
  catchUp.events = Traced([&passed] { passed = CatchUpOnce(*job); });
  std::vector<Event> floor = Traced([] { RawCatchUpOnce(); });
  known.catchUpMatches = passed && FindCountStatements() && RawCatchUpOnce() &&
                         SameTrace("catch-up", catchUp.events, floor);
  printf("catch-up of %d hours: %zu connections, %zu statements\n", kHours, Connections(catchUp),
         catchUp.events.size() - 2 * Connections(catchUp));

  // The threat pass.
  if (job->securityStatistic() != 0) {
    fprintf(stderr, "the first threat pass failed\n");
    return;
  }
  threatPass.events = Traced([&passed] { passed = job->securityStatistic() == 0; });
  if (!passed || !FindOrigins(threatPass)) {
    fprintf(stderr, "the threat pass failed or ran no origins\n");
    return;
  }
  floor = Traced([] { RawThreatPassOnce(); });
  sqlite3 *db = nullptr;
  long long cities = -1, inbound = -1;
  if (sqlite3_open_v2(kSecurityStatisticDBPath, &db, SQLITE_OPEN_READONLY, nullptr) == SQLITE_OK) {
    cities = RawCountOf(db, "SELECT COUNT(*) FROM threat_origin_hour WHERE time = " +
                                std::to_string(known.threatHour) + ";");
    inbound = RawCountOf(db,
                         "SELECT SUM(count) FROM threat_overview_hour WHERE mail_type = 'inbound' "
                         "AND time = " + std::to_string(known.threatHour) + ";");
  }
  sqlite3_close(db);
  if (cities != kCities || inbound != kOrigins * kRowsPerOrigin) {
    fprintf(stderr, "threat tables: %lld places, %lld inbound threats in the hour\n", cities,
            inbound);
  }
  known.threatMatches = cities == kCities && inbound == kOrigins * kRowsPerOrigin &&
                        RawThreatPassOnce() && SameTrace("threat pass", threatPass.events, floor);
  printf("threat pass: %zu connections, %zu statements\n", Connections(threatPass),
         threatPass.events.size() - 2 * Connections(threatPass));
  printf("origins statement: %.400s...\n", threatPass.events[threatPass.originsAt].text.c_str());

  // The ranking: its statement is composed after a query has attached the archive.
  AnalysisLog analysis;
  std::vector<AnalysisCount> library;
  const std::vector<Event> ranking =
      Traced([&] { passed = analysis.getAnalysis(library, RankingFilter()) == 0; });
  rankingSql = analysis.composeCmd(RankingFilter());
  for (const Event &event : ranking) {
    if (event.kind == Event::kRun && event.text.rfind("ATTACH DATABASE", 0) == 0) {
      rankingAttach = event.text;
    }
  }
  std::vector<AnalysisCount> raw;
  floor = Traced([&raw] { RawRankingOnce(raw); });
  bool same = passed && raw.size() == library.size() && RankingAsKnown(library);
  for (size_t i = 0; same && i < raw.size(); ++i) {
    same = raw[i].name == library[i].name && raw[i].count == library[i].count;
  }
  known.rankingMatches = same && SameTrace("ranking", ranking, floor);
  printf("ranking statement: %s\n", rankingSql.c_str());
}

// The two mail files unless both already hold their million; the security log, its threats and the
// city database always, since the threats' hour lies ahead of the clock; then statistics for all
// three logs, the archive's date and the answers.
bool SetUp(const char *self) {
  log_db::PrepareLogDir();
  char resolved[PATH_MAX];
  if (realpath(self, resolved) == nullptr) return false;
  // The generator of this build: <build>/bench/stats_bench gives <build>/tools/qsv-log-gen.
  std::string build = resolved;
  for (int up = 0; up < 2; ++up) build.erase(build.rfind('/'));
  const std::string generator = build + "/tools/qsv-log-gen";
  const std::string rows = std::to_string(kRowsPerFile);
  if (RowsIn(kLive, mail_log::kMailLogTable) != kRowsPerFile ||
      RowsIn(kArchive, mail_log::kMailLogTable) != kRowsPerFile) {
    Unlink(kLive);
    Unlink(kArchive);
    if (!Generate(generator, {"--mail-db", kLive, "--from", "2026-10-01", "--days", "30", "--rows",
                              rows, "--seed", "1", "--domains",
                              "example.com,b\xc3\xbc" "cher.example"}) ||
        !Generate(generator, {"--mail-db", kArchive, "--from", "2026-09-01", "--days", "30",
                              "--rows", rows, "--seed", "2"}) ||
        RowsIn(kLive, mail_log::kMailLogTable) != kRowsPerFile ||
        RowsIn(kArchive, mail_log::kMailLogTable) != kRowsPerFile) {
      return false;
    }
  }
  Unlink(kSecurity);
  known.threatHour = static_cast<long>(time(nullptr) / 3600 * 3600 + 86400);
  if (!Generate(generator, {"--security-db", kSecurity, "--from", "2026-10-01", "--days", "30",
                            "--rows", std::to_string(kSecurityRows), "--seed", "3", "--domains",
                            "example.com,b\xc3\xbc" "cher.example"}) ||
      !AddThreats(known.threatHour) ||
      RowsIn(kSecurity, security_log::kSecurityLogTable) !=
          kSecurityRows + kOrigins * kRowsPerOrigin ||
      !WriteCities() || !SetLocalDomains()) {
    return false;
  }
  for (const char *path : {kLive, kArchive, kSecurity}) {
    if (!Exec(path, "ANALYZE;")) return false;
  }
  // Written "tomorrow": a rotation after the job's position.
  const struct timespec tomorrow[2] = {{time(nullptr) + 86400, 0}, {time(nullptr) + 86400, 0}};
  if (utimensat(AT_FDCWD, kArchive, tomorrow, 0) != 0 || !LearnAnswers()) return false;
  // The job's own files start empty.
  Unlink(statistic_log::kStatisticDBPath);
  Unlink(kSecurityStatisticDBPath);
  job = std::make_unique<MailLogger>(3600);
  CheckAgainstLibrary();
  return known.catchUpMatches && known.threatMatches && known.rankingMatches;
}

// The ratio and both times of a pair, in milliseconds.
void PrintPair(const RatioReporter &reporter, const char *what, const char *measured,
               const char *floor, const char *goal) {
  reporter.PrintRatio(what, measured, floor, goal);
  printf("  %-56s %10.4f ms, floor %10.4f ms\n", measured, reporter.Time(measured),
         reporter.Time(floor));
}

}  // namespace

int main(int argc, char **argv) {
  benchmark::Initialize(&argc, argv);
  if (!SetUp(argv[0])) {
    fprintf(stderr, "set-up failed: run me in the sandbox\n");
    return 1;
  }
  RatioReporter reporter;
  benchmark::RunSpecifiedBenchmarks(&reporter);
  printf("\n");
  PrintPair(reporter, "catch-up, 12 hours of counters / same statements raw", "LibraryCatchUp",
            "RawCatchUp", "goal <= 1.2");
  PrintPair(reporter, "securityStatistic, 5,000 origins / same SQL raw, GeoIP",
            "LibraryThreatPass", "RawThreatPass", "goal <= 1.2");
  PrintPair(reporter, "getAnalysis, recipient domains of 7 days / same SQL raw", "LibraryRanking",
            "RawRanking", "goal <= 1.1");
  job.reset();
  benchmark::Shutdown();
  return 0;
}
