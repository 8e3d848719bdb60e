// The two policy maps Postfix reads, each made from its table against the floor of writing the
// same bytes beside the map, fsync, rename (and for the hash map, one run of postmap on it):
// - SenderQuota::GenerateConfig of 10,000 senders, all system users, every tenth written in
//   another case than the user's own (a sender that no user has costs a log line, which the
//   floor doesn't have); a second floor adds what no map can be written without, the raw read of
//   the table and one walk of the name service's users;
// - AttachmentFilter::GenerateConfig of the default types and 2,000 more; its floor also reads
//   the rows, raw, since no rule can be written without them.
#include <fcntl.h>
#include <pwd.h>
#include <spawn.h>
#include <sqlite3.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cctype>
#include <cstdio>
#include <fstream>
#include <sstream>
#include <string>

#include <benchmark/benchmark.h>

#include "foundation/db_handler.h"
#include "foundation/mailserver_db_schema.h"
#include "ratio_reporter.h"
#include "tables/attachment_filter.h"
#include "tables/sender_quota.h"

extern char **environ;

namespace {

const char kQuotaMap[] = "/var/packages/Quillon-Server/target/etc/sender_quota_map";
const char kRule[] = "/var/packages/Quillon-Server/target/etc/attachment_filter.pcre";
const char kFilterDb[] = "/var/packages/Quillon-Server/etc/attachment_filter.db";
const char kPostmap[] = "/var/packages/Quillon-Server/target/sbin/postmap";
constexpr int kUsers = 10000;
constexpr int kExtraTypes = 2000;

std::string quotaText;  // what the sender quota map must hold
std::string ruleText;   // the rule as the first GenerateConfig wrote it

std::string Slurp(const char *path) {
  std::ifstream in(path, std::ios::binary);
  std::ostringstream text;
  text << in.rdbuf();
  return text.str();
}

bool WriteBeside(const char *path, const std::string &text) {
  const std::string tmp = std::string(path) + ".floor";
  const int fd = open(tmp.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0644);
  if (fd < 0) return false;
  const bool ok = write(fd, text.data(), text.size()) == static_cast<ssize_t>(text.size()) &&
                  fsync(fd) == 0;
  close(fd);
  return ok && rename(tmp.c_str(), path) == 0;
}

bool RunPostmap(const char *map) {
  const char *argv[] = {kPostmap, map, nullptr};
  pid_t pid;
  if (posix_spawn(&pid, kPostmap, nullptr, nullptr, const_cast<char **>(argv), environ) != 0) {
    return false;
  }
  int status = 0;
  return waitpid(pid, &status, 0) == pid && WIFEXITED(status) && WEXITSTATUS(status) == 0;
}

void QuotaMap(benchmark::State &state) {
  for (auto _ : state) {
    if (SenderQuota::GenerateConfig() != 0) state.SkipWithError("GenerateConfig failed");
  }
  if (Slurp(kQuotaMap) != quotaText) state.SkipWithError("the map is not the expected text");
}

void QuotaMapFloor(benchmark::State &state) {
  for (auto _ : state) {
    if (!WriteBeside(kQuotaMap, quotaText) || !RunPostmap(kQuotaMap)) {
      state.SkipWithError("floor failed");
    }
  }
}

// The rows of `table` in `db`, raw: one read-only connection, one statement, into one string.
bool ReadRowsRaw(const char *path, const char *statement, std::string &rows) {
  sqlite3 *db = nullptr;
  sqlite3_stmt *step = nullptr;
  bool ok = sqlite3_open_v2(path, &db, SQLITE_OPEN_READONLY, nullptr) == SQLITE_OK &&
            sqlite3_prepare_v2(db, statement, -1, &step, nullptr) == SQLITE_OK;
  int rc = SQLITE_DONE;
  while (ok && (rc = sqlite3_step(step)) == SQLITE_ROW) {
    for (int column = 0; column < sqlite3_column_count(step); ++column) {
      rows.append(reinterpret_cast<const char *>(sqlite3_column_text(step, column)),
                  static_cast<size_t>(sqlite3_column_bytes(step, column)));
      rows += '|';
    }
  }
  sqlite3_finalize(step);
  sqlite3_close(db);
  return ok && rc == SQLITE_DONE;
}

void QuotaMapWorkFloor(benchmark::State &state) {
  for (auto _ : state) {
    std::string rows;
    size_t users = 0;
    setpwent();
    for (struct passwd *user; (user = getpwent()) != nullptr;) users += user->pw_name[0] != 0;
    endpwent();
    if (!ReadRowsRaw(kMailServerDBPath, "select * from sender_quota_table", rows) ||
        users < kUsers || !WriteBeside(kQuotaMap, quotaText) || !RunPostmap(kQuotaMap)) {
      state.SkipWithError("floor failed");
    }
    benchmark::DoNotOptimize(rows);
  }
}

void FilterRule(benchmark::State &state) {
  for (auto _ : state) {
    if (AttachmentFilter::GenerateConfig() != 0) state.SkipWithError("GenerateConfig failed");
  }
  if (Slurp(kRule) != ruleText) state.SkipWithError("the rule changed between runs");
}

void FilterRuleFloor(benchmark::State &state) {
  for (auto _ : state) {
    std::string types;
    // The call can't make its rule without reading the table: the floor reads the same rows raw.
    if (!ReadRowsRaw(kFilterDb, "select file_type from attachment_filter_table;", types) ||
        !WriteBeside(kRule, ruleText)) {
      state.SkipWithError("floor failed");
    }
    benchmark::DoNotOptimize(types);
  }
}

#define QSV_BENCH(fn) BENCHMARK(fn)->UseRealTime()->Repetitions(3)->ReportAggregatesOnly(true)
QSV_BENCH(QuotaMap)->Unit(benchmark::kMillisecond)->MinTime(1.0);
QSV_BENCH(QuotaMapFloor)->Unit(benchmark::kMillisecond)->MinTime(1.0);
QSV_BENCH(QuotaMapWorkFloor)->Unit(benchmark::kMillisecond)->MinTime(1.0);
QSV_BENCH(FilterRule)->Unit(benchmark::kMicrosecond)->MinTime(0.5);
QSV_BENCH(FilterRuleFloor)->Unit(benchmark::kMicrosecond)->MinTime(0.5);

bool Exec(sqlite3 *db, const std::string &sql) {
  return sqlite3_exec(db, sql.c_str(), nullptr, nullptr, nullptr) == SQLITE_OK;
}

// Users u0.. in the sandbox's own /etc, the senders' rows in one raw transaction, the filter's
// extra types likewise; then the text the quota map must hold.
bool SetUp() {
  {
    std::ofstream passwd("/etc/passwd", std::ios::app);
    for (int i = 0; i < kUsers; ++i) {
      passwd << "u" << i << ":x:" << 20000 + i << ":100::/nonexistent:/usr/sbin/nologin\n";
    }
    if (!passwd) return false;
  }
  {
    DBHandler created(kMailServerDBPath, kMailServerDBSchema);
    if (created.connect() != 0) return false;
  }
  sqlite3 *db = nullptr;
  if (sqlite3_open(kMailServerDBPath, &db) != SQLITE_OK) return false;
  bool ok = Exec(db, "BEGIN;");
  for (int i = 0; i < kUsers && ok; ++i) {
    const std::string name = "u" + std::to_string(i);
    std::string sender = name;
    if (i % 10 == 0) sender[0] = 'U';
    const int quota = 100 + i % 900;
    ok = Exec(db, "INSERT INTO sender_quota_table (sender, quota) VALUES ('" + sender + "', " +
                      std::to_string(quota) + ");");
    quotaText += name + " " + std::to_string(quota) + "\n";
  }
  ok = ok && Exec(db, "COMMIT;");
  sqlite3_close(db);

  std::list<std::string> none;
  if (!ok || AttachmentFilter::GetList(none, "") != 0) return false;  // makes its database
  ok = sqlite3_open(kFilterDb, &db) == SQLITE_OK && Exec(db, "BEGIN;");
  for (int i = 0; i < kExtraTypes && ok; ++i) {
    ok = Exec(db, "INSERT INTO attachment_filter_table VALUES ('x" + std::to_string(i) + "');");
  }
  ok = ok && Exec(db, "COMMIT;");
  sqlite3_close(db);
  // The first map on a node waits in postmap while it makes the .db (nearly two seconds of its
  // own sleeps). Made here, it doesn't leave the timed runs one iteration each, a median of one.
  if (!ok || SenderQuota::GenerateConfig() != 0 || Slurp(kQuotaMap) != quotaText) return false;
  if (AttachmentFilter::GenerateConfig() != 0) return false;
  ruleText = Slurp(kRule);
  return ruleText.find("x1999") != std::string::npos;
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
  reporter.PrintRatio("SenderQuota::GenerateConfig, 10000 senders / write + postmap", "QuotaMap",
                      "QuotaMapFloor", "(goal <= 1.3)");
  reporter.PrintRatio("SenderQuota::GenerateConfig / that + raw table read + one walk of the users",
                      "QuotaMap", "QuotaMapWorkFloor", "(no goal)");
  reporter.PrintRatio("AttachmentFilter::GenerateConfig, 2035 types / raw read + write", "FilterRule",
                      "FilterRuleFloor", "(goal <= 1.3)");
  benchmark::Shutdown();
  return 0;
}
