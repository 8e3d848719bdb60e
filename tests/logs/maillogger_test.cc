// The aggregation job over real log files made by the traffic generator: its counters and top
// lists against the test's own counts of the generated rows, across a change to summer time and
// into a new year; the archive's part and its lock; the threat tables with cities from a city
// database written for the test; what the job does by the clock (run under libfaketime); and the
// archive watch over a one-node cluster.
#include "logs/maillogger.h"

#include <GeoIPCity.h>
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
#include <set>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

#include "config/mail_conf.h"
#include "core/key_tree_store.h"
#include "core/mail_conf.h"
#include "harness/one_node_cluster.h"
#include "harness/syslog_capture.h"
#include "kolt/notify.h"
#include "logs/geoip_city_db.h"
#include "logs/log_db.h"
#include "logs/log_tools.h"
#include "logs/securityLog.h"

namespace {

using mail_log::MailStatus;
using statistic_log::StatisticCount;

const std::string kMail = mail_log::kMailLogDBPath;
const std::string kMailArchive = mail_log::kMailLogArchivePath;
const std::string kSecurity = security_log::kSecurityLogDBPath;
const std::string kSecurityArchive = security_log::kSecurityLogArchivePath;
const std::string kStatistic = statistic_log::kStatisticDBPath;
const std::string kThreats = kSecurityStatisticDBPath;
const char kFakeTime[] = "/usr/lib/x86_64-linux-gnu/faketime/libfaketime.so.1";

int Generate(const std::string &args) {
  return system((std::string(getenv("QSV_BUILD_DIR")) + "/tools/qsv-log-gen " + args +
                 " --domains example.com >/dev/null")
                    .c_str());
}

void SetLocalDomains(const std::string &value) {
  const std::string key = "virtual_multiple_domain";
  mkdir(kMailConfDir, 0755);
  std::ofstream(std::string(kMailConfDir) + toLeagalFileName(key))
      << "{\"" << KOLT::QUILLON_SERVER::KeyTreeStore::instance()->keyComplete(key) << "\":\""
      << value << "\"}\n";
}

void Exec(const std::string &path, const std::string &sql) {
  sqlite3 *db = nullptr;
  ASSERT_EQ(sqlite3_open(path.c_str(), &db), SQLITE_OK);
  EXPECT_EQ(sqlite3_exec(db, sql.c_str(), nullptr, nullptr, nullptr), SQLITE_OK) << sql;
  sqlite3_close(db);
}

// Rows of `sql` over the logs and statistics of the job, each file that exists attached under a
// short name (mail, sec, stat, threat), as qsvtest::Query gives them.
std::string Ask(const std::string &sql) {
  sqlite3 *db = nullptr;
  sqlite3_open(":memory:", &db);
  const std::pair<const char *, std::string> files[] = {
      {"mail", kMail}, {"sec", kSecurity}, {"stat", kStatistic}, {"threat", kThreats}};
  for (const auto &file : files) {
    if (access(file.second.c_str(), F_OK) != 0) continue;
    const std::string attach = "ATTACH '" + file.second + "' AS " + file.first;
    sqlite3_exec(db, attach.c_str(), nullptr, nullptr, nullptr);
  }
  std::string text;
  sqlite3_stmt *query = nullptr;
  if (sqlite3_prepare_v2(db, sql.c_str(), -1, &query, nullptr) != SQLITE_OK) {
    text = std::string("error: ") + sqlite3_errmsg(db);
  }
  while (query != nullptr && sqlite3_step(query) == SQLITE_ROW) {
    for (int i = 0; i < sqlite3_column_count(query); ++i) {
      const unsigned char *value = sqlite3_column_text(query, i);
      text += (i == 0 ? "" : "|") + std::string(value ? reinterpret_cast<const char *>(value) : "");
    }
    text += "\n";
  }
  sqlite3_finalize(query);
  sqlite3_close(db);
  return text;
}

long Number(const std::string &sql) { return atol(Ask(sql).c_str()); }

long Local(int year, int month, int day, int hour = 0) {
  struct tm tm = {};
  tm.tm_year = year - 1900, tm.tm_mon = month - 1, tm.tm_mday = day, tm.tm_hour = hour;
  tm.tm_isdst = -1;
  return static_cast<long>(mktime(&tm));
}

// The five counts of [from, to) by the test's own reading of the logs, as the counter tables
// hold them: sent, received, bounced, resent, rejected.
std::string RawCounts(long from, long to) {
  const std::string span = " date >= " + std::to_string(from) + " AND date < " + std::to_string(to);
  std::string counts;
  for (int status = 0; status < 4; ++status) {
    counts += std::to_string(Number("SELECT COUNT(*) FROM mail.mail_log_table WHERE status = " +
                                    std::to_string(status) + " AND" + span)) +
              "|";
  }
  return counts +
         std::to_string(Number(
             "SELECT COUNT(*) FROM sec.security_log_table WHERE type = 'reject' AND" + span));
}

std::string Stored(const char *table, long time) {
  const std::string row =
      Ask(std::string("SELECT sentCnt, receiveCnt, bounceCnt, resentCnt, rejectCnt FROM stat.") +
          table + " WHERE time = " + std::to_string(time));
  return row.empty() ? "none" : row.substr(0, row.size() - 1);
}

// What the job does each hour, for every hour of [from, to).
void CountHours(MailLogger &job, long from, long to) {
  for (long hour = from; hour < to; hour += 3600) {
    StatisticCount count;
    count.time = hour;
    for (int status = 0; status <= 4; ++status) {
      count.count(status) = job.getLogNumPerHour(hour, static_cast<MailStatus>(status));
      ASSERT_GE(count.count(status), 0) << hour;
    }
    ASSERT_EQ(job.getTop5Lists(hour, count), 0) << hour;
    ASSERT_EQ(job.saveStatistic(hour, count), 0) << hour;
  }
}

// The stored top list of a period against the ranking of the same rows by plain SQL: five ranks,
// each name with its own count, the counts the five highest, and ("", 0) where names run out.
void ExpectTopList(long time, int scale, int type, long from, long to) {
  const std::string column = type == 4 ? "src" : type == 0 || type == 3 ? "mail_from" : "mail_to";
  const std::string source = type == 4
                                 ? "sec.security_log_table WHERE type = 'reject'"
                                 : "mail.mail_log_table WHERE status = " + std::to_string(type);
  std::istringstream raw(Ask("SELECT " + column + ", COUNT(*) FROM " + source +
                             " AND date >= " + std::to_string(from) + " AND date < " +
                             std::to_string(to) + " GROUP BY 1 ORDER BY 2 DESC"));
  std::map<std::string, int> counts;
  std::vector<int> highest;
  for (std::string line; std::getline(raw, line);) {
    const size_t bar = line.rfind('|');
    counts[line.substr(0, bar)] = std::stoi(line.substr(bar + 1));
    highest.push_back(std::stoi(line.substr(bar + 1)));
  }
  std::istringstream stored(Ask("SELECT name, num FROM stat.log_statistic_top5 WHERE time = " +
                                std::to_string(time) + " AND scale = " + std::to_string(scale) +
                                " AND type = " + std::to_string(type) + " ORDER BY rank"));
  int rank = 0;
  for (std::string line; std::getline(stored, line); ++rank) {
    const size_t bar = line.rfind('|');
    const std::string name = line.substr(0, bar);
    const int num = std::stoi(line.substr(bar + 1));
    const std::string where = std::to_string(time) + " scale " + std::to_string(scale) + " type " +
                              std::to_string(type) + " rank " + std::to_string(rank);
    if (static_cast<size_t>(rank) < highest.size()) {
      EXPECT_EQ(num, highest[rank]) << where;
      EXPECT_EQ(counts[name], num) << where << " " << name;
    } else {
      EXPECT_EQ(line, "|0") << where;
    }
  }
  EXPECT_EQ(rank, 5) << time << " scale " << scale << " type " << type;
}

class MailLoggerTest : public testing::Test {
 protected:
  void SetUp() override {
    log_db::PrepareLogDir();
    for (const std::string &path :
         {kMail, kMailArchive, kSecurity, kSecurityArchive, kStatistic, kThreats}) {
      for (const char *suffix : {"", "-journal", "-wal", "-shm"}) unlink((path + suffix).c_str());
    }
    SetLocalDomains("1/example.com");
    PinZone("Europe/Berlin");
  }
  void TearDown() override {
    unsetenv("TZ");
    tzset();
  }
  static void PinZone(const char *zone) {
    setenv("TZ", zone, 1);
    tzset();
  }
};

TEST_F(MailLoggerTest, CountersEqualTheRawCountsAcrossTheChangeToSummerTime) {
  // Summer time begins on Sunday 28 March 2027 at 02:00: that day has 23 hours.
  ASSERT_EQ(Generate("--mail-db " + kMail + " --security-db " + kSecurity +
                     " --from 2027-03-28 --days 7 --rows 1500 --seed 11"),
            0);
  MailLogger job(3600);
  const long week = Local(2027, 3, 28), nextWeek = Local(2027, 4, 4);
  CountHours(job, week, nextWeek);
  for (long hour = week; hour < nextWeek; hour += 3600) {
    EXPECT_EQ(Stored("log_statistic_hour", hour), RawCounts(hour, hour + 3600)) << hour;
  }
  EXPECT_EQ(Number("SELECT COUNT(*) FROM stat.log_statistic_hour"), 7 * 24 - 1);
  for (int day = 28; day < 35; ++day) {
    const long start = Local(2027, 3, day), end = Local(2027, 3, day + 1);
    EXPECT_EQ(Stored("log_statistic_day", start), RawCounts(start, end)) << "day " << day;
  }
  // The week starts at local midnight of the Sunday, an hour earlier in UTC than the next one.
  EXPECT_EQ(Ask("SELECT time FROM stat.log_statistic_week"), std::to_string(week) + "\n");
  EXPECT_EQ(nextWeek - week, 7 * 86400 - 3600);
  EXPECT_EQ(Stored("log_statistic_week", week), RawCounts(week, nextWeek));
  EXPECT_EQ(Stored("log_statistic_month", Local(2027, 3, 1)), RawCounts(week, Local(2027, 4, 1)));
  EXPECT_EQ(Stored("log_statistic_month", Local(2027, 4, 1)),
            RawCounts(Local(2027, 4, 1), nextWeek));
  // Every hour's lists, ranked from the hour's rows.
  for (long hour = week; hour < nextWeek; hour += 3600) {
    for (int type = 0; type <= 4; ++type) ExpectTopList(hour, 25, type, hour, hour + 3600);
  }
}

TEST_F(MailLoggerTest, WeeksAndMonthsRunIntoTheNewYearWithTheirTopLists) {
  // Sunday 26 December 2027 to Saturday 1 January 2028: one week, two months, two years.
  ASSERT_EQ(Generate("--mail-db " + kMail + " --security-db " + kSecurity +
                     " --from 2027-12-26 --days 7 --rows 1500 --seed 12"),
            0);
  MailLogger job(3600);
  const long week = Local(2027, 12, 26), january = Local(2028, 1, 1), nextWeek = Local(2028, 1, 2);
  CountHours(job, week, nextWeek);
  EXPECT_EQ(Stored("log_statistic_week", week), RawCounts(week, nextWeek));
  EXPECT_EQ(Stored("log_statistic_month", Local(2027, 12, 1)), RawCounts(week, january));
  EXPECT_EQ(Stored("log_statistic_month", january), RawCounts(january, nextWeek));
  EXPECT_EQ(Ask("SELECT COUNT(*) FROM stat.log_statistic_month"), "2\n");
  for (int type = 0; type <= 4; ++type) {
    for (long day = week; day < nextWeek; day += 86400) {
      ExpectTopList(day, 8, type, day, day + 86400);
    }
    ExpectTopList(week, 9, type, week, nextWeek);
    ExpectTopList(Local(2027, 12, 1), 7, type, week, january);
    ExpectTopList(january, 7, type, january, nextWeek);
  }
  // Resent mail is rare: some hours have fewer than five senders, and the missing ranks are rows.
  EXPECT_GT(Number("SELECT COUNT(*) FROM stat.log_statistic_top5 WHERE scale = 25 AND type = 3 "
                   "AND name = '' AND num = 0"),
            0);
  EXPECT_EQ(Number("SELECT COUNT(*) FROM stat.log_statistic_top5 WHERE scale = 25"), 7 * 24 * 25);
  // ...and so are the pairs the caller gets.
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
  ASSERT_EQ(Generate("--mail-db " + kMail + " --security-db " + kSecurity +
                     " --from 2027-05-10 --rows 400 --seed 21"),
            0);
  ASSERT_EQ(Generate("--mail-db " + kMailArchive + " --security-db " + kSecurityArchive +
                     " --from 2027-05-10 --rows 300 --seed 22"),
            0);
  const long hour = Local(2027, 5, 10, 14);
  auto touch = [](long when) {
    for (const std::string &path : {kMailArchive, kSecurityArchive}) {
      const struct timespec times[2] = {{when, 0}, {when, 0}};
      utimensat(AT_FDCWD, path.c_str(), times, 0);
    }
  };
  auto both = [hour](const std::string &table, const std::string &where) {
    const std::string span = where + " AND date >= " + std::to_string(hour) + " AND date < " +
                             std::to_string(hour + 3600);
    long total = 0;
    for (const std::string &path : table == "mail_log_table"
                                       ? std::vector<std::string>{kMail, kMailArchive}
                                       : std::vector<std::string>{kSecurity, kSecurityArchive}) {
      total +=
          atol(qsvtest::Query(path, "SELECT COUNT(*) FROM " + table + " WHERE " + span).c_str());
    }
    return total;
  };
  MailLogger job(3600);
  // Last touched before the job's day: the archive can hold none of its rows.
  touch(time(nullptr) - 3 * 86400);
  EXPECT_EQ(job.getLogNumPerHour(hour, mail_log::MAIL_STATUS_RECEIVE),
            Number("SELECT COUNT(*) FROM mail.mail_log_table WHERE status = 1 AND date >= " +
                   std::to_string(hour) + " AND date < " + std::to_string(hour + 3600)));
  touch(time(nullptr) + 3 * 86400);
  EXPECT_EQ(job.getLogNumPerHour(hour, mail_log::MAIL_STATUS_RECEIVE),
            both("mail_log_table", "status = 1"));
  EXPECT_EQ(job.getLogNumPerHour(hour, mail_log::MAIL_STATUS_REJECT),
            both("security_log_table", "type = 'reject'"));
  ASSERT_EQ(job.countDailyUsage(hour, mail_log::MAIL_STATUS_REJECT), 0);
  long daily = Number("SELECT SUM(num) FROM stat.log_statistic_daily_usage WHERE type = 4");
  long expected = 0;
  for (const std::string &path : {kSecurity, kSecurityArchive}) {
    expected += atol(qsvtest::Query(path,
                                    "SELECT COUNT(*) FROM security_log_table WHERE type = "
                                    "'reject'")
                         .c_str());
  }
  EXPECT_EQ(daily, expected);

  // A rotation holding the mail log's lock holds the count until it lets go.
  const int lock = open("/var/lock/quillon_server/mail_log_db.file", O_RDWR | O_CREAT, 0644);
  ASSERT_EQ(flock(lock, LOCK_EX), 0);
  std::atomic<int> counted{-2};
  std::thread count([&] { counted = job.getLogNumPerHour(hour, mail_log::MAIL_STATUS_SEND); });
  std::this_thread::sleep_for(std::chrono::milliseconds(300));
  EXPECT_EQ(counted, -2);
  flock(lock, LOCK_UN);
  count.join();
  EXPECT_EQ(counted, both("mail_log_table", "status = 0"));
  // ...and the job let go of it again.
  EXPECT_EQ(flock(lock, LOCK_EX | LOCK_NB), 0);
  close(lock);
}

TEST_F(MailLoggerTest, ThreatTablesFollowTheDirectionOfMailAndTheCitiesGeoIPKnows) {
  ASSERT_EQ(Generate("--security-db " + kSecurity +
                     " --from 2027-02-01 --days 2 --rows 600 "
                     "--seed 31"),
            0);
  // Sent mail refused and filtered, one mail between two local addresses, and values that
  // would break a statement put together carelessly.
  const long at = Local(2027, 2, 1, 9) + 600;
  const std::string t = std::to_string(at);
  Exec(kSecurity,
       "INSERT INTO security_log_table(date, src, type, event, host, sender, recipient, subject) "
       "VALUES (" +
           t +
           ", '10.1.1.1', 'reject', 'e', 'h', 'amy@example.com', 'x@partner.example.net', ''),"
           "(" +
           t +
           ", '10.1.1.1', 'reject', 'e', 'h', 'amy@example.com', 'y@partner.example.net', ''),"
           "(" +
           t +
           ", '10.1.1.1', 'spam', 'e', 'h', 'amy@example.com', 'x@partner.example.net', ''),"
           "(" +
           t +
           ", '10.1.1.1', 'content', 'e', 'h', 'bob@example.com', 'x@partner.example.net', ''),"
           "(" +
           t +
           ", '10.1.1.1', 'reject', 'e', 'h', 'amy@example.com', 'bob@example.com', ''),"
           "(" +
           t +
           ", '192.0.2.9''); DROP TABLE threat_origin_hour; --', 'reject', 'e', 'h', "
           "'o''hara@partner.example.net', 'amy@example.com', '')");
  const std::string dir = "/var/packages/Quillon-Server/target/etc/geoip";
  ASSERT_EQ(system(("mkdir -p " + dir).c_str()), 0);
  unlink(kGeoIPCityV6DBPath);
  ASSERT_TRUE(qsvtest::WriteGeoCityDb(
      kGeoIPCityDBPath, false,
      {{"192.0.2.0/25", "DE", "16", "Berlin", "10115", 52.52, 13.405},
       {"192.0.2.128/25", "DE", "02", "M\xfcnchen", "80331", 48.1374, 11.5755},
       {"198.51.100.0/24", "US", "NY", "New York", "10001", 40.7128, -74.006, 501, 212}}));

  // No local domain: no mail is inbound or outbound, and nothing is written.
  SetLocalDomains("");
  MailLogger job(3600);
  ASSERT_EQ(job.securityStatistic(), 0);
  const char *const tables[] = {"threat_overview_hour", "threat_overview_day",
                                "blocked_address_hour", "blocked_address_day",
                                "threat_origin_hour",   "threat_origin_day"};
  for (const char *table : tables) {
    EXPECT_EQ(Number(std::string("SELECT COUNT(*) FROM threat.") + table), 0) << table;
  }

  SetLocalDomains("1/example.com");
  qsvtest::SyslogCapture log;
  ASSERT_EQ(job.securityStatistic(), 0);
  EXPECT_EQ(log.Matching("Failed to open GeoIPv6 db").size(), 1u);
  const std::string inbound =
      " FROM sec.security_log_table WHERE sender NOT LIKE '%@example.com' AND recipient LIKE "
      "'%@example.com'";
  EXPECT_EQ(Ask("SELECT time, threat_type, count FROM threat.threat_overview_hour WHERE mail_type "
                "= 'inbound' ORDER BY 1, 2"),
            Ask("SELECT date - date % 3600 AS hour, type, COUNT(*)" + inbound +
                " GROUP BY 1, 2 ORDER BY 1, 2"));
  const long hour = at - at % 3600;
  EXPECT_EQ(Ask("SELECT time, threat_type, count FROM threat.threat_overview_hour WHERE mail_type "
                "= 'outbound'"),
            std::to_string(hour) + "|content|1\n" + std::to_string(hour) + "|reject|2\n" +
                std::to_string(hour) + "|spam|1\n");
  // Local days, whatever UTC hours they are made of.
  EXPECT_EQ(Ask("SELECT date(time, 'unixepoch', 'localtime'), SUM(count) FROM "
                "threat.threat_overview_day WHERE mail_type = 'inbound' GROUP BY 1"),
            Ask("SELECT date(date, 'unixepoch', 'localtime'), COUNT(*)" + inbound + " GROUP BY 1"));
  EXPECT_EQ(Ask("SELECT address_type, address, SUM(count) FROM threat.blocked_address_hour WHERE "
                "mail_type = 'outbound' GROUP BY 1, 2"),
            "recipient|x@partner.example.net|1\nrecipient|y@partner.example.net|1\n"
            "sender|amy@example.com|2\n");
  EXPECT_EQ(Ask("SELECT SUM(count) FROM threat.blocked_address_day WHERE mail_type = 'inbound' "
                "AND address_type = 'sender' AND address = 'o''hara@partner.example.net'"),
            "1\n");

  // Origins: each hour and city holds the count of the last address looked up there.
  auto origins = [&](bool v6) {
    std::istringstream rows(
        Ask("SELECT date - date % 3600, src, COUNT(*)" + inbound + " GROUP BY 1, 2 ORDER BY 1, 2"));
    std::map<std::string, std::string> last;  // hour and city -> count
    for (std::string line; std::getline(rows, line);) {
      std::istringstream fields(line);
      std::string time, src, count;
      std::getline(fields, time, '|'), std::getline(fields, src, '|'), std::getline(fields, count);
      std::string city;
      if (src.rfind("192.0.2.", 0) == 0 && src.find('\'') == std::string::npos) {
        city = atoi(src.c_str() + 8) < 128 ? "DE|Germany|Berlin" : "DE|Germany|M\xc3\xbcnchen";
      } else if (src.rfind("198.51.100.", 0) == 0) {
        city = "US|United States|New York";
      } else if (v6 && src.rfind("2001:db8::", 0) == 0) {
        city = "IN|India|Kolkata";
      }
      if (!city.empty()) last[time + "|" + city] = count;
    }
    std::string expected;
    for (const auto &entry : last) expected += entry.first + "|" + entry.second + "\n";
    return expected;
  };
  const std::string stored =
      "SELECT time, country_code, country, city, count FROM threat.threat_origin_hour ORDER BY "
      "time, country_code, country, city";
  EXPECT_EQ(Ask(stored), origins(false));
  EXPECT_EQ(Ask("SELECT ABS(latitude - 40.7128) < 1e-4 AND ABS(longitude + 74.006) < 1e-4 FROM "
                "threat.threat_origin_day WHERE city = 'New York' LIMIT 1"),
            "1\n");
  // The overview holds every source, the origins only those with a city.
  EXPECT_EQ(Number("SELECT SUM(count) FROM threat.threat_overview_hour WHERE mail_type = "
                   "'inbound'"),
            Number("SELECT COUNT(*)" + inbound));
  EXPECT_GT(Number("SELECT COUNT(*)" + inbound + " AND src LIKE '203.0.113.%'"), 0);

  // With the IPv6 database the next pass adds its city; a pass changes nothing it wrote before.
  ASSERT_TRUE(qsvtest::WriteGeoCityDb(
      kGeoIPCityV6DBPath, true,
      {{"2001:db8::/32", "IN", "28", "Kolkata", "700001", 22.5726, 88.3639}}));
  ASSERT_EQ(job.securityStatistic(), 0);
  EXPECT_EQ(Ask(stored), origins(true));
  EXPECT_EQ(Ask("SELECT date(time, 'unixepoch', 'localtime'), city, SUM(count) FROM "
                "threat.threat_origin_hour GROUP BY 1, 2"),
            Ask("SELECT date(time, 'unixepoch', 'localtime'), city, count FROM "
                "threat.threat_origin_day ORDER BY 1, 2"));
  EXPECT_EQ(Ask("SELECT COUNT(*) FROM threat.threat_overview_hour WHERE mail_type = 'outbound'"),
            "3\n");
}

// Runs the job's steps under a frozen clock in the given zone; what the job printed.
std::string Clocked(const char *zone, const std::vector<std::string> &steps) {
  EXPECT_EQ(access(kFakeTime, R_OK), 0) << "install the faketime package";
  std::vector<std::string> argv = {
      "/usr/bin/env", std::string("LD_PRELOAD=") + kFakeTime,
      "FAKETIME_TIMESTAMP_FILE=/tmp/maillogger.faketime", "FAKETIME_FMT=%s", "FAKETIME_NO_CACHE=1",
      "NO_FAKE_STAT=1", std::string("TZ=") + zone,
      // The sanitizer's runtime wants to come first; here the clock has to.
      std::string("ASAN_OPTIONS=verify_asan_link_order=0:") +
          (getenv("ASAN_OPTIONS") != nullptr ? getenv("ASAN_OPTIONS") : ""),
      std::string(getenv("QSV_BUILD_DIR")) + "/tests/maillogger_clock"};
  argv.insert(argv.end(), steps.begin(), steps.end());
  const qsvtest::ProgramRun run = qsvtest::RunProgram(argv);
  EXPECT_EQ(run.status, 0) << run.err;
  return run.out;
}

std::string At(long t, const char *action) { return std::to_string(t) + ":" + action; }

std::string LastCountTime() {
  std::string value;
  mailConfGet("log_last_count_time", value);
  return value;
}

TEST_F(MailLoggerTest, ByTheClockAPassCountsFromItsLastHourAndGivesUpHoursPastTwelve) {
  ASSERT_EQ(Generate("--mail-db " + kMail + " --security-db " + kSecurity +
                     " --from 2027-06-15 --days 3 --rows 3000 --seed 41"),
            0);
  const long first = qsvtest::Utc(2027, 6, 15, 8, 20, 0);
  // Right after construction the present hour is counted.
  EXPECT_EQ(Clocked("Europe/Berlin", {At(first, "new"), At(first, "statistic")}),
            std::to_string(first) + " new 0\n" + std::to_string(first) + " statistic 0\n");
  EXPECT_EQ(Ask("SELECT time FROM stat.log_statistic_hour"), std::to_string(first - 1200) + "\n");
  EXPECT_EQ(Stored("log_statistic_hour", first - 1200), RawCounts(first - 1200, first + 2400));
  EXPECT_EQ(LastCountTime(), std::to_string(first));

  // Exactly on the hour, in the second of construction: nothing to count, but the mark is set.
  const long onTheHour = qsvtest::Utc(2027, 6, 15, 11, 0, 0);
  Clocked("Europe/Berlin", {At(onTheHour, "new"), At(onTheHour, "statistic")});
  EXPECT_EQ(Number("SELECT COUNT(*) FROM stat.log_statistic_hour"), 1);
  EXPECT_EQ(LastCountTime(), std::to_string(onTheHour));

  // 13 hours and a second later: 14 hours are due, the two oldest are given up.
  const long midnight = qsvtest::Utc(2027, 6, 16, 0, 0, 0);
  Clocked("Europe/Berlin", {At(midnight, "new"), At(midnight + 13 * 3600 + 1, "statistic")});
  EXPECT_EQ(
      Ask("SELECT MIN(time), MAX(time), COUNT(*) FROM stat.log_statistic_hour WHERE time >= " +
          std::to_string(midnight)),
      std::to_string(midnight + 2 * 3600) + "|" + std::to_string(midnight + 13 * 3600) + "|12\n");
  // 12 hours and a second: 13 due, one given up.
  const long next = midnight + 86400;
  Clocked("Europe/Berlin", {At(next, "new"), At(next + 12 * 3600 + 1, "statistic")});
  EXPECT_EQ(Ask("SELECT MIN(time), COUNT(*) FROM stat.log_statistic_hour WHERE time >= " +
                std::to_string(next)),
            std::to_string(next + 3600) + "|12\n");
  for (long hour = next + 3600; hour <= next + 12 * 3600; hour += 3600) {
    EXPECT_EQ(Stored("log_statistic_hour", hour), RawCounts(hour, hour + 3600));
  }
  EXPECT_EQ(LastCountTime(), std::to_string(next + 12 * 3600 + 1));
}

TEST_F(MailLoggerTest, OldCountersGoOnlyInTheHourOfLocalMidnight) {
  DBHandler made(kStatistic, statistic_log::kStatisticSchema);
  ASSERT_EQ(made.connect(), 0);
  made.disconnect();
  // 00:10 in Berlin (summer time) on 15 June 2027.
  const long now = qsvtest::Utc(2027, 6, 14, 22, 10, 0);
  struct Age {
    const char *table;
    long seconds;
    const char *columns;
  };
  const Age ages[] = {{"log_statistic_hour", 604800, "(time)"},
                      {"log_statistic_day", 5184000, "(time)"},
                      {"log_statistic_week", 7776000, "(time)"},
                      {"log_statistic_month", 31104000, "(time)"},
                      {"log_statistic_daily_usage", 3024000, "(time, type, name)"}};
  const int scales[] = {25, 8, 9, 7};
  for (int i = 0; i < 5; ++i) {
    // One row a day too old, one an hour short of the limit.
    for (long time : {now - ages[i].seconds - 86400, now - ages[i].seconds + 3600}) {
      const std::string t = std::to_string(time);
      Exec(kStatistic, std::string("INSERT INTO ") + ages[i].table + ages[i].columns + " VALUES (" +
                           t + (i == 4 ? ", 1, 'a')" : ")"));
      if (i < 4) {
        Exec(kStatistic, "INSERT INTO log_statistic_top5 VALUES (" + t + ", " +
                             std::to_string(scales[i]) + ", 0, 0, 'a', 1)");
      }
    }
  }
  const std::string all =
      "SELECT (SELECT COUNT(*) FROM stat.log_statistic_hour), (SELECT COUNT(*) FROM "
      "stat.log_statistic_day), (SELECT COUNT(*) FROM stat.log_statistic_week), (SELECT COUNT(*) "
      "FROM stat.log_statistic_month), (SELECT COUNT(*) FROM stat.log_statistic_daily_usage), "
      "(SELECT COUNT(*) FROM stat.log_statistic_top5)";
  ASSERT_EQ(Ask(all), "2|2|2|2|2|8\n");
  // Half an hour off UTC, local midnight never begins a UTC hour: nothing ever goes.
  const long kolkataMidnight = qsvtest::Utc(2027, 6, 14, 18, 40, 0);
  Clocked("Asia/Kolkata", {At(kolkataMidnight, "new"), At(kolkataMidnight, "remove")});
  // An hour after Berlin's midnight: not yet the time either.
  Clocked("Europe/Berlin", {At(now + 3600, "new"), At(now + 3600, "remove")});
  EXPECT_EQ(Ask(all), "2|2|2|2|2|8\n");
  EXPECT_EQ(Clocked("Europe/Berlin", {At(now, "new"), At(now, "remove")}),
            std::to_string(now) + " new 0\n" + std::to_string(now) + " remove 0\n");
  EXPECT_EQ(Ask(all), "1|1|1|1|1|4\n");
  EXPECT_EQ(Number("SELECT MIN(time) FROM stat.log_statistic_top5 WHERE scale = 8"),
            now - 5184000 + 3600);
}

TEST_F(MailLoggerTest, ADamagedCounterFileIsMadeAnewAndTheNextHourLands) {
  DBHandler made(kStatistic, statistic_log::kStatisticSchema);
  ASSERT_EQ(made.connect(), 0);
  made.disconnect();
  Exec(kStatistic, "INSERT INTO log_statistic_hour VALUES (1, 1, 1, 1, 1, 1)");
  {
    // Every page after the first (the schema) overwritten.
    std::fstream file(kStatistic, std::ios::in | std::ios::out | std::ios::binary);
    file.seekp(4096);
    const std::string garbage(16 * 4096, '\xa5');
    file.write(garbage.data(), static_cast<std::streamsize>(garbage.size()));
  }
  MailLogger job(3600);
  StatisticCount count;
  count.sentCnt = 7;
  const long hour = Local(2027, 8, 1, 10);
  qsvtest::SyslogCapture log;
  EXPECT_EQ(job.saveStatistic(hour, count), -1);
  EXPECT_EQ(log.Matching("corrupt, need regen").size(), 1u);
  EXPECT_EQ(job.error(), 3);
  EXPECT_EQ(job.error(), 0);
  ASSERT_EQ(job.saveStatistic(hour, count), 0);
  EXPECT_EQ(Ask("SELECT time, sentCnt FROM stat.log_statistic_hour"),
            std::to_string(hour) + "|7\n");
}

// The archive watch needs the cluster's health, roles and store: one cluster for this suite.
class MailLoggerArchiveWatchTest : public testing::Test {
 protected:
  static void SetUpTestSuite() { cluster_ = new qsvtest::OneNodeCluster(); }
  static void TearDownTestSuite() {
    delete cluster_;
    cluster_ = nullptr;
  }
  static qsvtest::OneNodeCluster *cluster_;
};
qsvtest::OneNodeCluster *MailLoggerArchiveWatchTest::cluster_ = nullptr;

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
  job.checkArchiveSetting();
  std::ifstream in(kKoltNotificationLog);
  const std::string text((std::istreambuf_iterator<char>(in)), std::istreambuf_iterator<char>());
  EXPECT_EQ(text,
            "{\"filter\":\"/var/packages/Quillon-Server/target/etc/notify.filter\",\"tag\":"
            "\"QUILLON_SERVER_ARCHIVE_SHARE_REMOVE\",\"texts\":\"/var/packages/Quillon-Server/"
            "target/app/texts/\",\"values\":{\"%SHARED_FOLDER%\":\"/volume1/mail archive's\"}}\n");
}

}  // namespace
