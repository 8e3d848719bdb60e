// The aggregation job over real log files made by the traffic generator: its counters and top
// lists against the test's own counts of the generated rows, across a change to summer time and
// into a new year; the archive's part and its lock; the threat tables with cities from a city
// database written for the test; what the job does by the clock (run under libfaketime); and the
// archive watch over a one-node cluster.
#include "logs/maillogger.h"

#include <gtest/gtest.h>
#include <sqlite3.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <cstdlib>
#include <ctime>
#include <fstream>
#include <map>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

#include "config/mail_conf.h"
#include "core/mail_conf.h"
#include "harness/one_node_cluster.h"
#include "harness/syslog_capture.h"
#include "kolt/notify.h"
#include "log_files/geoip_city_db.h"
#include "logs/log_db.h"
#include "logs/log_tools.h"
#include "logs/securityLog.h"

namespace {

using mail_log::MailStatus;
using statistic_log::StatisticCount;
using qsvtest::LocalTime;
using qsvtest::SetLocalDomains;

const std::pair<const char *, std::string> kFiles[] = {
    {"mail", mail_log::kMailLogDBPath},        {"mailA", mail_log::kMailLogArchivePath},
    {"sec", security_log::kSecurityLogDBPath}, {"secA", security_log::kSecurityLogArchivePath},
    {"stat", statistic_log::kStatisticDBPath}, {"threat", kSecurityStatisticDBPath}};
const std::string kLogs = std::string(" --mail-db ") + mail_log::kMailLogDBPath +
                          " --security-db " + security_log::kSecurityLogDBPath;
const char kFakeTime[] = "/usr/lib/x86_64-linux-gnu/faketime/libfaketime.so.1";

int Generate(const std::string &args) { return qsvtest::GenerateLogs(args + " --domains example.com"); }

// The rows of `sql` (columns joined by '|', each row ended by '\n') with every file of the job
// that exists attached under its short name above; "error: ..." when it fails.
std::string Ask(const std::string &sql) {
  sqlite3 *db = nullptr;
  sqlite3_open(":memory:", &db);
  for (const auto &file : kFiles) {
    if (access(file.second.c_str(), F_OK) != 0) continue;
    const std::string attach = "ATTACH '" + file.second + "' AS " + file.first;
    sqlite3_exec(db, attach.c_str(), nullptr, nullptr, nullptr);
  }
  std::string text;
  sqlite3_stmt *query = nullptr;
  int rc = sqlite3_prepare_v2(db, sql.c_str(), -1, &query, nullptr);
  while (rc == SQLITE_OK && (rc = sqlite3_step(query)) == SQLITE_ROW) {
    for (int i = 0; i < sqlite3_column_count(query); ++i) {
      const unsigned char *value = sqlite3_column_text(query, i);
      text += (i == 0 ? "" : "|") + std::string(value ? reinterpret_cast<const char *>(value) : "");
    }
    text += "\n";
    rc = SQLITE_OK;
  }
  if (rc != SQLITE_DONE) text = std::string("error: ") + sqlite3_errmsg(db);
  sqlite3_finalize(query);
  sqlite3_close(db);
  return text;
}

long Number(const std::string &sql) { return atol(Ask(sql).c_str()); }
std::string Str(long value) { return std::to_string(value); }

// Days from today on (local midnights), and the date of `t` as the generator takes it. The counting
// tests keep their rows in the future: the retention, which acts by the real clock when a test
// happens to run at local midnight, must never find them old.
long Today(int days) {
  const time_t now = time(nullptr);
  struct tm today;
  localtime_r(&now, &today);
  return LocalTime(today.tm_year + 1900, today.tm_mon + 1, today.tm_mday + days);
}
std::string Day(long t) {
  const time_t time = t;
  struct tm day;
  char text[16];
  strftime(text, sizeof(text), "%Y-%m-%d", localtime_r(&time, &day));
  return text;
}
int WeekDay(long t) {
  const time_t time = t;
  struct tm day;
  return localtime_r(&time, &day)->tm_wday;
}

// Sent, received, bounced, resent and rejected mail of [from, to), by the test's own reading.
std::string RawCounts(long from, long to) {
  const std::string span = " date >= " + Str(from) + " AND date < " + Str(to);
  std::string sql = "SELECT ";
  for (int status = 0; status < 4; ++status) {
    sql += "(SELECT COUNT(*) FROM mail.mail_log_table WHERE status = " + Str(status) + " AND" +
           span + "), ";
  }
  return Ask(sql + "(SELECT COUNT(*) FROM sec.security_log_table WHERE type = 'reject' AND" + span +
             ")");
}

std::string Stored(const std::string &table, long time) {
  return Ask("SELECT sentCnt, receiveCnt, bounceCnt, resentCnt, rejectCnt FROM stat." + table +
             " WHERE time = " + Str(time));
}

// The job's work of each hour of [from, to).
void CountHours(MailLogger &job, long from, long to) {
  for (long hour = from; hour < to; hour += 3600) {
    StatisticCount count;
    for (int status = 0; status <= 4; ++status) {
      count.count(status) = job.getLogNumPerHour(hour, static_cast<MailStatus>(status));
      ASSERT_GE(count.count(status), 0) << hour;
    }
    ASSERT_EQ(job.getTop5Lists(hour, count), 0) << hour;
    ASSERT_EQ(job.saveStatistic(hour, count), 0) << hour;
  }
}

// The stored top list of a period against plain SQL's ranking of its rows: five ranks, each name
// with its own count, the counts the five highest, and ("", 0) where the names run out.
void ExpectTopList(long time, int scale, int type, long from, long to) {
  const std::string where = Str(time) + " scale " + Str(scale) + " type " + Str(type);
  const std::string column = type == 4 ? "src" : type == 0 || type == 3 ? "mail_from" : "mail_to";
  const std::string rows = type == 4 ? "sec.security_log_table WHERE type = 'reject'"
                                     : "mail.mail_log_table WHERE status = " + Str(type);
  std::istringstream raw(Ask("SELECT " + column + ", COUNT(*) FROM " + rows + " AND date >= " +
                             Str(from) + " AND date < " + Str(to) + " GROUP BY 1 ORDER BY 2 DESC"));
  std::map<std::string, std::string> counts;
  std::vector<std::string> highest;
  for (std::string line; std::getline(raw, line);) {
    const size_t bar = line.rfind('|');
    highest.push_back(counts[line.substr(0, bar)] = line.substr(bar + 1));
  }
  std::istringstream stored(
      Ask("SELECT name, num FROM stat.log_statistic_top5 WHERE time = " + Str(time) +
          " AND scale = " + Str(scale) + " AND type = " + Str(type) + " ORDER BY rank"));
  size_t rank = 0;
  for (std::string line; std::getline(stored, line); ++rank) {
    const size_t bar = line.rfind('|');
    if (rank >= highest.size()) {
      EXPECT_EQ(line, "|0") << where;
      continue;
    }
    EXPECT_EQ(line.substr(bar + 1), highest[rank]) << where << " rank " << rank;
    EXPECT_EQ(counts[line.substr(0, bar)], highest[rank]) << where << " " << line;
  }
  EXPECT_EQ(rank, 5u) << where;
}

class MailLoggerTest : public testing::Test {
 protected:
  void SetUp() override {
    log_db::PrepareLogDir();
    for (const auto &file : kFiles) {
      for (const char *suffix : {"", "-journal", "-wal", "-shm"}) {
        unlink((file.second + suffix).c_str());
      }
    }
    SetLocalDomains("1/example.com");
    setenv("TZ", "Europe/Berlin", 1);
    tzset();
  }
  void TearDown() override {
    unsetenv("TZ");
    tzset();
  }
};

TEST_F(MailLoggerTest, CountersEqualTheRawCountsAcrossTheChangeToSummerTime) {
  // Summer time begins on the last Sunday of March at 02:00: that day has 23 hours.
  const int year = atoi(Day(Today(0)).c_str()) + 1;
  const int sunday = 31 - WeekDay(LocalTime(year, 3, 31));
  const long week = LocalTime(year, 3, sunday), april = LocalTime(year, 4, 1);
  const long nextWeek = LocalTime(year, 3, sunday + 7);
  ASSERT_EQ(Generate(kLogs + " --from " + Day(week) + " --days 7 --rows 1500 --seed 11"), 0);
  MailLogger job(3600);
  CountHours(job, week, nextWeek);
  EXPECT_EQ(Number("SELECT COUNT(*) FROM stat.log_statistic_hour"), 7 * 24 - 1);
  for (long hour = week; hour < nextWeek; hour += 3600) {
    EXPECT_EQ(Stored("log_statistic_hour", hour), RawCounts(hour, hour + 3600)) << hour;
    for (int type = 0; type <= 4; ++type) ExpectTopList(hour, 25, type, hour, hour + 3600);
  }
  for (int day = sunday; day < sunday + 7; ++day) {
    const long start = LocalTime(year, 3, day), end = LocalTime(year, 3, day + 1);
    EXPECT_EQ(Stored("log_statistic_day", start), RawCounts(start, end)) << "day " << day;
  }
  // One week row, at local midnight of the Sunday, over the week of 167 hours.
  EXPECT_EQ(Ask("SELECT time FROM stat.log_statistic_week"), Str(week) + "\n");
  EXPECT_EQ(Stored("log_statistic_week", week), RawCounts(week, nextWeek));
  EXPECT_EQ(Stored("log_statistic_month", LocalTime(year, 3, 1)), RawCounts(week, april));
  EXPECT_EQ(Stored("log_statistic_month", april), RawCounts(april, nextWeek));
}

TEST_F(MailLoggerTest, WeeksAndMonthsRunIntoTheNewYearWithTheirTopLists) {
  // The week of a New Year's Eve that isn't a Saturday: one week, two months, two years.
  int year = atoi(Day(Today(0)).c_str()) + 1;
  while (WeekDay(LocalTime(year, 12, 31)) == 6) ++year;
  const long week = LocalTime(year, 12, 31 - WeekDay(LocalTime(year, 12, 31))),
             december = LocalTime(year, 12, 1);
  const long january = LocalTime(year + 1, 1, 1), nextWeek = LocalTime(year, 12, 38 - WeekDay(january - 1));
  ASSERT_EQ(Generate(kLogs + " --from " + Day(week) + " --days 7 --rows 1500 --seed 12"), 0);
  MailLogger job(3600);
  CountHours(job, week, nextWeek);
  EXPECT_EQ(Stored("log_statistic_week", week), RawCounts(week, nextWeek));
  EXPECT_EQ(Stored("log_statistic_month", december), RawCounts(week, january));
  EXPECT_EQ(Stored("log_statistic_month", january), RawCounts(january, nextWeek));
  for (int type = 0; type <= 4; ++type) {
    for (long day = week; day < nextWeek; day += 86400)
      ExpectTopList(day, 8, type, day, day + 86400);
    ExpectTopList(week, 9, type, week, nextWeek);
    ExpectTopList(december, 7, type, week, january);
    ExpectTopList(january, 7, type, january, nextWeek);
  }
  // Resent mail is rare: an hour with fewer than five senders still gives five pairs.
  const long quiet = Number(
      "SELECT date - date % 3600 FROM mail.mail_log_table WHERE status = 3 GROUP BY 1 HAVING "
      "COUNT(DISTINCT mail_from) BETWEEN 1 AND 4 LIMIT 1");
  std::vector<std::pair<std::string, int>> top;
  ASSERT_EQ(job.getTop5NumPerHour(quiet, mail_log::MAIL_STATUS_RESEND, top), 0);
  ASSERT_EQ(top.size(), 5u);
  EXPECT_NE(top[0].first, "");
  EXPECT_EQ(top[4], std::make_pair(std::string(), 0));
}

TEST_F(MailLoggerTest, AnArchiveCountsOnlyWhenTouchedOnOrAfterTheJobsDayAndUnderItsLock) {
  ASSERT_EQ(Generate(kLogs + " --from 2027-05-10 --rows 400 --seed 21"), 0);
  ASSERT_EQ(
      Generate(std::string(" --mail-db ") + mail_log::kMailLogArchivePath + " --security-db " +
               security_log::kSecurityLogArchivePath + " --from 2027-05-10 --rows 300 --seed 22"),
      0);
  const long hour = LocalTime(2027, 5, 10, 14);
  const std::string span = " AND date >= " + Str(hour) + " AND date < " + Str(hour + 3600);
  auto raw = [&span](const char *table, const std::string &where, bool archive) {
    const std::string live =
        std::string("SELECT COUNT(*) FROM ") + table + " WHERE " + where + span;
    std::string archived = live;
    archived.replace(archived.find('.'), 0, "A");
    return Number(archive ? "SELECT (" + live + ") + (" + archived + ")" : live);
  };
  auto touch = [](long when) {
    const struct timespec times[2] = {{when, 0}, {when, 0}};
    for (const char *path :
         {mail_log::kMailLogArchivePath, security_log::kSecurityLogArchivePath}) {
      utimensat(AT_FDCWD, path, times, 0);
    }
  };
  MailLogger job(3600);
  touch(time(nullptr) - 3 * 86400);  // before the job's day: it can hold none of its rows
  EXPECT_EQ(job.getLogNumPerHour(hour, mail_log::MAIL_STATUS_RECEIVE),
            raw("mail.mail_log_table", "status = 1", false));
  touch(time(nullptr) + 3 * 86400);
  EXPECT_EQ(job.getLogNumPerHour(hour, mail_log::MAIL_STATUS_RECEIVE),
            raw("mail.mail_log_table", "status = 1", true));
  EXPECT_EQ(job.getLogNumPerHour(hour, mail_log::MAIL_STATUS_REJECT),
            raw("sec.security_log_table", "type = 'reject'", true));
  ASSERT_EQ(job.countDailyUsage(hour, mail_log::MAIL_STATUS_REJECT), 0);
  EXPECT_EQ(Number("SELECT SUM(num) FROM stat.log_statistic_daily_usage WHERE type = 4"),
            Number("SELECT (SELECT COUNT(*) FROM sec.security_log_table WHERE type = 'reject') + "
                   "(SELECT COUNT(*) FROM secA.security_log_table WHERE type = 'reject')"));

  // A rotation holding the mail log's lock holds the count until it lets go.
  const int lock = open("/var/lock/quillon_server/mail_log_db.file", O_RDWR | O_CREAT, 0644);
  ASSERT_EQ(flock(lock, LOCK_EX), 0);
  std::atomic<int> counted{-2};
  std::thread count([&] { counted = job.getLogNumPerHour(hour, mail_log::MAIL_STATUS_SEND); });
  std::this_thread::sleep_for(std::chrono::milliseconds(300));
  EXPECT_EQ(counted, -2);
  flock(lock, LOCK_UN);
  count.join();
  EXPECT_EQ(counted, raw("mail.mail_log_table", "status = 0", true));
  EXPECT_EQ(flock(lock, LOCK_EX | LOCK_NB), 0) << "the job let go of it again";
  close(lock);
}

// Each hour and city of the inbound threats holds the count of the last address looked up there
// (the greatest, in the order of the grouping): the test's own reading of its city databases.
std::string ExpectedOrigins(const std::string &inbound, bool v6) {
  std::istringstream rows(
      Ask("SELECT date - date % 3600, src, COUNT(*)" + inbound + " GROUP BY 1, 2 ORDER BY 1, 2"));
  std::map<std::string, std::string> last;
  for (std::string line; std::getline(rows, line);) {
    const size_t first = line.find('|'), second = line.rfind('|');
    const std::string src = line.substr(first + 1, second - first - 1);
    std::string city;
    if (src.rfind("192.0.2.", 0) == 0 && src.find('\'') == std::string::npos) {
      city = atoi(src.c_str() + 8) < 128 ? "DE|Germany|Berlin" : "DE|Germany|M\xc3\xbcnchen";
    } else if (src.rfind("198.51.100.", 0) == 0) {
      city = "US|United States|New York";
    } else if (v6 && src.rfind("2001:db8::", 0) == 0) {
      city = "IN|India|Kolkata";
    }
    if (!city.empty()) last[line.substr(0, first) + "|" + city] = line.substr(second + 1);
  }
  std::string expected;
  for (const auto &entry : last) expected += entry.first + "|" + entry.second + "\n";
  return expected;
}

TEST_F(MailLoggerTest, ThreatTablesFollowTheDirectionOfMailAndTheCitiesGeoIPKnows) {
  ASSERT_EQ(Generate(" --security-db " + std::string(security_log::kSecurityLogDBPath) +
                     " --from " + Day(Today(1)) + " --days 2 --rows 600 --seed 31"),
            0);
  // Sent mail refused and filtered, a mail between two local addresses, and values that would
  // break a statement put together carelessly.
  const long at = Today(1) + 9 * 3600 + 600, hour = at - at % 3600;
  std::string insert = "INSERT INTO sec.security_log_table VALUES ";
  for (const char *row :
       {"'10.1.1.1', 'reject', '', '', 'amy@example.com', 'x@partner.example.net'",
        "'10.1.1.1', 'reject', '', '', 'amy@example.com', 'y@partner.example.net'",
        "'10.1.1.1', 'spam', '', '', 'amy@example.com', 'x@partner.example.net'",
        "'10.1.1.1', 'content', '', '', 'bob@example.com', 'x@partner.example.net'",
        "'10.1.1.1', 'reject', '', '', 'amy@example.com', 'bob@example.com'",
        "'192.0.2.9''); DROP TABLE threat_origin_hour; --', 'reject', '', '', "
        "'o''hara@partner.example.net', 'amy@example.com'"}) {
    insert += std::string(insert.back() == ' ' ? "" : ", ") + "(" + Str(at) + ", " + row + ", '')";
  }
  ASSERT_EQ(Ask(insert), "");
  ASSERT_EQ(system("mkdir -p /var/packages/Quillon-Server/target/etc/geoip"), 0);
  ASSERT_TRUE(qsvlog::WriteGeoCityDb(
      kGeoIPCityDBPath, false,
      {{"192.0.2.0/25", "DE", "16", "Berlin", "10115", 52.52, 13.405},
       {"192.0.2.128/25", "DE", "02", "M\xfcnchen", "80331", 48.1374, 11.5755},
       {"198.51.100.0/24", "US", "NY", "New York", "10001", 40.7128, -74.006, 501, 212}}));

  // No local domain: no mail is inbound or outbound, and nothing is written.
  SetLocalDomains("");
  MailLogger job(3600);
  ASSERT_EQ(job.securityStatistic(), 0);
  EXPECT_EQ(Ask("SELECT (SELECT COUNT(*) FROM threat_overview_hour) + (SELECT COUNT(*) FROM "
                "threat_overview_day) + (SELECT COUNT(*) FROM blocked_address_hour) + (SELECT "
                "COUNT(*) FROM blocked_address_day) + (SELECT COUNT(*) FROM threat_origin_hour) + "
                "(SELECT COUNT(*) FROM threat_origin_day)"),
            "0\n");

  SetLocalDomains("1/example.com");
  qsvtest::SyslogCapture log;
  ASSERT_EQ(job.securityStatistic(), 0);
  EXPECT_EQ(log.Matching("Failed to open GeoIPv6 db").size(), 1u) << "once a pass, not a row";
  const std::string inbound =
      " FROM sec.security_log_table WHERE sender NOT LIKE '%@example.com' AND recipient LIKE "
      "'%@example.com'";
  EXPECT_EQ(Ask("SELECT time, threat_type, count FROM threat_overview_hour WHERE mail_type = "
                "'inbound' ORDER BY 1, 2"),
            Ask("SELECT date - date % 3600, type, COUNT(*)" + inbound + " GROUP BY 1, 2"));
  EXPECT_EQ(Ask("SELECT time, threat_type, count FROM threat_overview_hour WHERE mail_type = "
                "'outbound'"),
            Str(hour) + "|content|1\n" + Str(hour) + "|reject|2\n" + Str(hour) + "|spam|1\n");
  // Local days, whatever UTC hours they are made of.
  EXPECT_EQ(Ask("SELECT date(time, 'unixepoch', 'localtime'), SUM(count) FROM threat_overview_day "
                "WHERE mail_type = 'inbound' GROUP BY 1"),
            Ask("SELECT date(date, 'unixepoch', 'localtime'), COUNT(*)" + inbound + " GROUP BY 1"));
  // Content checks of sent mail say nothing against the sender.
  EXPECT_EQ(Ask("SELECT address_type, address, SUM(count) FROM blocked_address_hour WHERE "
                "mail_type = 'outbound' GROUP BY 1, 2"),
            "recipient|x@partner.example.net|1\nrecipient|y@partner.example.net|1\n"
            "sender|amy@example.com|2\n");
  EXPECT_EQ(Ask("SELECT count FROM blocked_address_day WHERE mail_type = 'inbound' AND "
                "address_type = 'sender' AND address = 'o''hara@partner.example.net'"),
            "1\n");

  // The overview holds every source, the origins only those with a city; names in UTF-8.
  const std::string origins =
      "SELECT time, country_code, country, city, count FROM threat_origin_hour ORDER BY 1, 2, 3, 4";
  EXPECT_EQ(Ask(origins), ExpectedOrigins(inbound, false));
  EXPECT_EQ(Number("SELECT SUM(count) FROM threat_overview_hour WHERE mail_type = 'inbound'"),
            Number("SELECT COUNT(*)" + inbound));
  EXPECT_GT(Number("SELECT COUNT(*)" + inbound + " AND src LIKE '203.0.113.%'"), 0);
  EXPECT_EQ(Ask("SELECT DISTINCT ABS(latitude - 40.7128) < 1e-4 AND ABS(longitude + 74.006) < "
                "1e-4 FROM threat_origin_day WHERE city = 'New York'"),
            "1\n");

  // With the IPv6 database the next pass adds its city and leaves the rest as it was.
  ASSERT_TRUE(qsvlog::WriteGeoCityDb(
      kGeoIPCityV6DBPath, true, {{"2001:db8::/32", "IN", "28", "Kolkata", "", 22.5726, 88.3639}}));
  ASSERT_EQ(job.securityStatistic(), 0);
  EXPECT_EQ(Ask(origins), ExpectedOrigins(inbound, true));
  EXPECT_EQ(Ask("SELECT date(time, 'unixepoch', 'localtime'), city, SUM(count) FROM "
                "threat_origin_hour GROUP BY 1, 2"),
            Ask("SELECT date(time, 'unixepoch', 'localtime'), city, count FROM threat_origin_day "
                "ORDER BY 1, 2"));
  EXPECT_EQ(Number("SELECT COUNT(*) FROM threat_overview_hour WHERE mail_type = 'outbound'"), 3);
}

// Runs the job's steps (EPOCH:new, EPOCH:statistic, EPOCH:remove) under a frozen clock in the
// given zone; what the job printed.
std::string Clocked(const char *zone, const std::vector<std::string> &steps) {
  EXPECT_EQ(access(kFakeTime, R_OK), 0) << "install the faketime package";
  const char *asan = getenv("ASAN_OPTIONS");
  std::vector<std::string> argv = {
      "/usr/bin/env", std::string("LD_PRELOAD=") + kFakeTime,
      "FAKETIME_TIMESTAMP_FILE=/tmp/maillogger.faketime", "FAKETIME_FMT=%s", "FAKETIME_NO_CACHE=1",
      "NO_FAKE_STAT=1", std::string("TZ=") + zone,
      // The sanitizer's runtime wants to come first; here the clock has to.
      std::string("ASAN_OPTIONS=verify_asan_link_order=0:") + (asan != nullptr ? asan : ""),
      std::string(getenv("QSV_BUILD_DIR")) + "/tests/maillogger_clock"};
  argv.insert(argv.end(), steps.begin(), steps.end());
  const qsvtest::ProgramRun run = qsvtest::RunProgram(argv);
  EXPECT_EQ(run.status, 0) << run.err;
  return run.out;
}

std::string At(long t, const char *action) { return Str(t) + ":" + action; }

std::string LastCountTime() {
  std::string value;
  mailConfGet("log_last_count_time", value);
  return value;
}

TEST_F(MailLoggerTest, ByTheClockAPassCountsFromItsLastHourAndGivesUpHoursPastTwelve) {
  ASSERT_EQ(Generate(kLogs + " --from 2027-06-15 --days 3 --rows 3000 --seed 41"), 0);
  // Right after construction the present hour is counted.
  const long first = qsvtest::Utc(2027, 6, 15, 8, 20, 0), hour = first - 1200;
  EXPECT_EQ(Clocked("Europe/Berlin", {At(first, "new"), At(first, "statistic")}),
            Str(first) + " new 0\n" + Str(first) + " statistic 0\n");
  EXPECT_EQ(Ask("SELECT time FROM stat.log_statistic_hour"), Str(hour) + "\n");
  EXPECT_EQ(Stored("log_statistic_hour", hour), RawCounts(hour, hour + 3600));
  EXPECT_EQ(LastCountTime(), Str(first));

  // Exactly on the hour, in the second of construction: nothing to count, but the mark is set.
  const long onTheHour = qsvtest::Utc(2027, 6, 15, 11, 0, 0);
  Clocked("Europe/Berlin", {At(onTheHour, "new"), At(onTheHour, "statistic")});
  EXPECT_EQ(Number("SELECT COUNT(*) FROM stat.log_statistic_hour"), 1);
  EXPECT_EQ(LastCountTime(), Str(onTheHour));

  // 13 hours and a second later 14 hours are due: the two oldest are given up.
  const long day = qsvtest::Utc(2027, 6, 16, 0, 0, 0);
  Clocked("Europe/Berlin", {At(day, "new"), At(day + 13 * 3600 + 1, "statistic")});
  EXPECT_EQ(
      Ask("SELECT MIN(time), MAX(time), COUNT(*) FROM stat.log_statistic_hour WHERE time >= " +
          Str(day)),
      Str(day + 2 * 3600) + "|" + Str(day + 13 * 3600) + "|12\n");
  // 12 hours and a second: 13 due, one given up.
  const long next = day + 86400;
  Clocked("Europe/Berlin", {At(next, "new"), At(next + 12 * 3600 + 1, "statistic")});
  EXPECT_EQ(
      Ask("SELECT MIN(time), COUNT(*) FROM stat.log_statistic_hour WHERE time >= " + Str(next)),
      Str(next + 3600) + "|12\n");
  for (long h = next + 3600; h <= next + 12 * 3600; h += 3600) {
    EXPECT_EQ(Stored("log_statistic_hour", h), RawCounts(h, h + 3600));
  }
  EXPECT_EQ(LastCountTime(), Str(next + 12 * 3600 + 1));
}

TEST_F(MailLoggerTest, OldCountersGoOnlyInTheHourOfLocalMidnight) {
  DBHandler made(statistic_log::kStatisticDBPath, statistic_log::kStatisticSchema);
  ASSERT_EQ(made.connect(), 0);
  made.disconnect();
  const long now = qsvtest::Utc(2027, 6, 14, 22, 10, 0);  // 00:10 in Berlin, in summer time
  // For each table a row a day too old and one an hour short of its limit; top lists alike.
  const std::pair<const char *, long> ages[] = {{"log_statistic_hour", 604800},
                                                {"log_statistic_day", 5184000},
                                                {"log_statistic_week", 7776000},
                                                {"log_statistic_month", 31104000},
                                                {"log_statistic_daily_usage", 3024000}};
  const int scales[] = {25, 8, 9, 7};
  for (int i = 0; i < 5; ++i) {
    for (long time : {now - ages[i].second - 86400, now - ages[i].second + 3600}) {
      const std::string table = std::string("stat.") + ages[i].first;
      ASSERT_EQ(Ask("INSERT INTO " + table +
                    (i < 4 ? "(time) VALUES (" + Str(time) + ")"
                           : " VALUES (" + Str(time) + ", 1, 'a', 1)")),
                "");
      if (i < 4) {
        ASSERT_EQ(Ask("INSERT INTO stat.log_statistic_top5 VALUES (" + Str(time) + ", " +
                      Str(scales[i]) + ", 0, 0, 'a', 1)"),
                  "");
      }
    }
  }
  std::string all = "SELECT 0";
  for (const auto &age : ages) all += std::string(", (SELECT COUNT(*) FROM ") + age.first + ")";
  all += ", (SELECT COUNT(*) FROM log_statistic_top5)";
  ASSERT_EQ(Ask(all), "0|2|2|2|2|2|8\n");
  // Half an hour off UTC, local midnight never begins a UTC hour: nothing ever goes.
  const long kolkata = qsvtest::Utc(2027, 6, 14, 18, 40, 0);
  Clocked("Asia/Kolkata", {At(kolkata, "new"), At(kolkata, "remove")});
  // An hour after Berlin's midnight it isn't the time either.
  Clocked("Europe/Berlin", {At(now + 3600, "new"), At(now + 3600, "remove")});
  EXPECT_EQ(Ask(all), "0|2|2|2|2|2|8\n");
  EXPECT_EQ(Clocked("Europe/Berlin", {At(now, "new"), At(now, "remove")}),
            Str(now) + " new 0\n" + Str(now) + " remove 0\n");
  EXPECT_EQ(Ask(all), "0|1|1|1|1|1|4\n");
  EXPECT_EQ(Number("SELECT MIN(time) FROM log_statistic_top5 WHERE scale = 8"),
            now - 5184000 + 3600);
}

TEST_F(MailLoggerTest, ADamagedCounterFileIsMadeAnewAndTheNextHourLands) {
  DBHandler made(statistic_log::kStatisticDBPath, statistic_log::kStatisticSchema);
  ASSERT_EQ(made.connect(), 0);
  made.disconnect();
  ASSERT_EQ(Ask("INSERT INTO stat.log_statistic_hour(time) VALUES (1)"), "");
  {
    // Every page after the first, the schema's, overwritten.
    std::fstream file(statistic_log::kStatisticDBPath,
                      std::ios::in | std::ios::out | std::ios::binary);
    file.seekp(4096);
    const std::string garbage(16 * 4096, '\xa5');
    file.write(garbage.data(), static_cast<std::streamsize>(garbage.size()));
  }
  MailLogger job(3600);
  StatisticCount count;
  count.sentCnt = 7;
  const long hour = Today(30);
  qsvtest::SyslogCapture log;
  EXPECT_EQ(job.saveStatistic(hour, count), -1);
  EXPECT_EQ(log.Matching("corrupt, need regen").size(), 1u);
  EXPECT_EQ(job.error(), 3);
  EXPECT_EQ(job.error(), 0);
  ASSERT_EQ(job.saveStatistic(hour, count), 0);
  EXPECT_EQ(Ask("SELECT time, sentCnt FROM stat.log_statistic_hour"), Str(hour) + "|7\n");
}

// The archive watch needs the cluster's health, roles and store: one cluster for this suite.
using MailLoggerArchiveWatchTest = qsvtest::OneNodeClusterTest;

TEST_F(MailLoggerArchiveWatchTest, TheScheduleGoesOffWithANotificationWhenItsFolderIsGone) {
  unlink(kKoltNotificationLog);
  const std::string folder = "/volume1/mail archive's";
  ASSERT_EQ(mkdir(folder.c_str(), 0755), 0);
  ASSERT_EQ(mailConfSet("archive_enable_schedule", "yes", true, 0), 0);
  ASSERT_EQ(mailConfSet("archive_destination", folder, true, 0), 0);
  MailLogger job(3600);
  job.checkArchiveSetting();
  EXPECT_TRUE(mailConfCheckKeyValue("archive_enable_schedule", "yes"));
  EXPECT_NE(access(kKoltNotificationLog, F_OK), 0);

  ASSERT_EQ(rmdir(folder.c_str()), 0);
  job.checkArchiveSetting();
  EXPECT_TRUE(mailConfCheckKeyValue("archive_enable_schedule", "no"));
  job.checkArchiveSetting();  // off now: no second notification
  std::ifstream in(kKoltNotificationLog);
  EXPECT_EQ(std::string((std::istreambuf_iterator<char>(in)), std::istreambuf_iterator<char>()),
            "{\"filter\":\"/var/packages/Quillon-Server/target/etc/notify.filter\",\"tag\":"
            "\"QUILLON_SERVER_ARCHIVE_SHARE_REMOVE\",\"texts\":\"/var/packages/Quillon-Server/"
            "target/app/texts/\",\"values\":{\"%SHARED_FOLDER%\":\"/volume1/mail archive's\"}}\n");
}

}  // namespace
