// What the log tests share: the tools of the build under test run as programs, a folder of
// their own for each test, a fixed time zone, the written rows read back with plain SQLite, and
// the local domains as the store's mirror holds them.
//
// REQUIRES: the sandbox (it sets QSV_BUILD_DIR).
#ifndef MAILSERVER_TESTS_LOGS_LOG_TOOLS_H_
#define MAILSERVER_TESTS_LOGS_LOG_TOOLS_H_

#include <gtest/gtest.h>
#include <sqlite3.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstdlib>
#include <ctime>
#include <string>
#include <vector>

#include "companions/program_run.h"
#include "harness/key_file.h"

namespace qsvtest {

// Central European time, written out so that no zone database is needed: UTC+1, and UTC+2 from
// the last Sunday of March to the last Sunday of October.
inline constexpr char kTestZone[] = "CET-1CEST,M3.5.0,M10.5.0/3";

inline ProgramRun RunLogTool(const char *tool, const std::vector<std::string> &args) {
  std::vector<std::string> argv = {std::string(getenv("QSV_BUILD_DIR")) + "/tools/" + tool};
  argv.insert(argv.end(), args.begin(), args.end());
  return RunProgram(argv);
}

// Every row of `sql`, columns joined by '|', rows ended by '\n'; NULL reads "NULL". An error
// reads "error: ..." so that it shows in the comparison that meets it.
inline std::string Query(const std::string &path, const std::string &sql) {
  sqlite3 *db = nullptr;
  if (sqlite3_open_v2(path.c_str(), &db, SQLITE_OPEN_READONLY, nullptr) != SQLITE_OK) {
    sqlite3_close(db);
    return "error: cannot open " + path;
  }
  std::string text;
  sqlite3_stmt *statement = nullptr;
  int rc = sqlite3_prepare_v2(db, sql.c_str(), -1, &statement, nullptr);
  while (rc == SQLITE_OK && sqlite3_step(statement) == SQLITE_ROW) {
    for (int i = 0; i < sqlite3_column_count(statement); ++i) {
      const unsigned char *value = sqlite3_column_text(statement, i);
      text +=
          (i == 0 ? "" : "|") + std::string(value ? reinterpret_cast<const char *>(value) : "NULL");
    }
    text += "\n";
  }
  if (rc != SQLITE_OK) text = std::string("error: ") + sqlite3_errmsg(db);
  sqlite3_finalize(statement);
  sqlite3_close(db);
  return text;
}

// The first number `sql` gives on the file at `path`; -1 when it fails.
inline long long QueryNumber(const std::string &path, const std::string &sql) {
  const std::string text = Query(path, sql);
  return text.rfind("error: ", 0) == 0 ? -1 : atoll(text.c_str());
}

// Runs `sql` on the file at `path` with a connection of the test's own.
inline void Exec(const std::string &path, const std::string &sql) {
  sqlite3 *db = nullptr;
  ASSERT_EQ(sqlite3_open(path.c_str(), &db), SQLITE_OK);
  char *message = nullptr;
  EXPECT_EQ(sqlite3_exec(db, sql.c_str(), nullptr, nullptr, &message), SQLITE_OK)
      << (message != nullptr ? message : "") << ": " << sql;
  sqlite3_free(message);
  sqlite3_close(db);
}

// The traffic generator of the build with these arguments, its output dropped; its exit status.
inline int GenerateLogs(const std::string &args) {
  return system(
      (std::string(getenv("QSV_BUILD_DIR")) + "/tools/qsv-log-gen " + args + " >/dev/null").c_str());
}

// The local domains the queries and the job read.
inline void SetLocalDomains(const std::string &value) {
  PutKeyFile("virtual_multiple_domain", value);
}

// A local day and hour in the zone the test set.
inline long LocalTime(int year, int month, int day, int hour = 0) {
  struct tm tm = {};
  tm.tm_year = year - 1900, tm.tm_mon = month - 1, tm.tm_mday = day, tm.tm_hour = hour;
  tm.tm_isdst = -1;
  return static_cast<long>(mktime(&tm));
}

inline time_t Utc(int year, int month, int day, int hour, int minute, int second) {
  struct tm tm = {};
  tm.tm_year = year - 1900, tm.tm_mon = month - 1, tm.tm_mday = day;
  tm.tm_hour = hour, tm.tm_min = minute, tm.tm_sec = second;
  return timegm(&tm);
}

// A fresh folder per test, and the test zone for the tools and for the test's own reckoning.
class LogToolTest : public testing::Test {
 protected:
  void SetUp() override {
    dir_ = std::string("/tmp/logs-test-") +
           testing::UnitTest::GetInstance()->current_test_info()->name();
    ASSERT_EQ(system(("rm -rf '" + dir_ + "'").c_str()), 0);
    ASSERT_EQ(mkdir(dir_.c_str(), 0755), 0);
    const char *zone = getenv("TZ");
    savedZone_ = zone != nullptr ? zone : "";
    hadZone_ = zone != nullptr;
    setenv("TZ", kTestZone, 1);
    tzset();
  }
  void TearDown() override {
    if (hadZone_) {
      setenv("TZ", savedZone_.c_str(), 1);
    } else {
      unsetenv("TZ");
    }
    tzset();
  }
  std::string Path(const std::string &name) const { return dir_ + "/" + name; }
  bool Exists(const std::string &name) const { return access(Path(name).c_str(), F_OK) == 0; }

  std::string dir_;

 private:
  std::string savedZone_;
  bool hadZone_ = false;
};

}  // namespace qsvtest

#endif  // MAILSERVER_TESTS_LOGS_LOG_TOOLS_H_
