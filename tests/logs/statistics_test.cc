// The read side of the statistics (chart points, their top lists, the older sums that fail on the
// present layout) over a statistics file written row by row, and the rankings over generated
// logs.
#include <sqlite3.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cstdlib>
#include <ctime>
#include <fstream>
#include <map>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "core/mail_conf.h"
#include "foundation/round_time.h"
#include "harness/mailserverctl_run.h"
#include "harness/syslog_capture.h"
#include "logs/analysisLog.h"
#include "logs/log_db.h"
#include "logs/log_tools.h"
#include "logs/securityLog.h"
#include "logs/statisticLog.h"

namespace {

using statistic_log::StatisticCount;
using statistic_log::StatisticLog;
using qsvtest::Exec;
using qsvtest::LocalTime;
using qsvtest::QueryNumber;
using qsvtest::SetLocalDomains;

// The width and height a PNG file's header gives; zeros when it is none.
std::pair<unsigned, unsigned> PngSize(const std::string &path) {
  std::ifstream in(path, std::ios::binary);
  unsigned char header[24] = {};
  in.read(reinterpret_cast<char *>(header), sizeof(header));
  if (!in || header[1] != 'P' || header[2] != 'N' || header[3] != 'G') return {0, 0};
  auto word = [&header](int at) {
    return (unsigned{header[at]} << 24) | (unsigned{header[at + 1]} << 16) |
           (unsigned{header[at + 2]} << 8) | header[at + 3];
  };
  return {word(16), word(20)};
}

void PinZone(const char *zone) {
  setenv("TZ", zone, 1);
  tzset();
}

class StatisticLogTest : public testing::Test {
 protected:
  void SetUp() override {
    PinZone("Europe/Berlin");
    log_db::PrepareLogDir();
    unlink(statistic_log::kStatisticDBPath);
  }
  void TearDown() override { PinZone("UTC"); }
};

TEST_F(StatisticLogTest, MonthChartsStartSixMonthsBackAcrossTheYear) {
  StatisticLog log;
  ASSERT_EQ(log.error(), 0);
  // March: the year goes back and the chart starts in September.
  EXPECT_EQ(log.getStartTime(LocalTime(2026, 3, 17, 15), statistic_log::TIME_SCALE_MONTH),
            LocalTime(2025, 9, 1));
  // July: January of the same year.
  EXPECT_EQ(log.getStartTime(LocalTime(2026, 7, 4, 9), statistic_log::TIME_SCALE_MONTH),
            LocalTime(2026, 1, 1));
  const long t = LocalTime(2026, 10, 20, 12);
  EXPECT_EQ(log.getStartTime(t, statistic_log::TIME_SCALE_HOUR), t - 86400);
  EXPECT_EQ(log.getStartTime(t, statistic_log::TIME_SCALE_DAY), t - 604800);
  EXPECT_EQ(log.getStartTime(t, statistic_log::TIME_SCALE_WEEK), t - 56 * 86400);

  // An empty file: no point, and success.
  std::vector<StatisticCount> points;
  EXPECT_EQ(log.getStatistic(points, t, statistic_log::TIME_SCALE_DAY), 0);
  EXPECT_TRUE(points.empty());
  EXPECT_EQ(log.getStatistic(points, t, static_cast<statistic_log::TimeScale>(3)), -1);
}

TEST_F(StatisticLogTest, ChartsHoldTheirPointsWithListsPaddedToFive) {
  { StatisticLog create; }
  const long t = LocalTime(2026, 10, 20, 12);
  const std::string path = statistic_log::kStatisticDBPath;
  // Every hour of the last two days, every day of two weeks, ten weeks and eight months, each
  // with counts made from its time so that a wrong row shows.
  std::string sql = "BEGIN;";
  for (long hour = getRoundTime(t, COUNT_INTERVAL_HOUR) - 47 * 3600; hour <= t; hour += 3600) {
    sql += "INSERT INTO log_statistic_hour VALUES(" + std::to_string(hour) + ", " +
           std::to_string(hour % 97) + ", 2, 3, 4, 5);";
  }
  for (int i = 0; i < 14; ++i) {
    sql += "INSERT INTO log_statistic_day VALUES(" + std::to_string(LocalTime(2026, 10, 20 - i)) +
           ", " + std::to_string(100 + i) + ", 1, 1, 1, 1);";
  }
  for (int i = 0; i < 10; ++i) {
    const long week = getRoundTime(t - i * 604800L, COUNT_INTERVAL_WEEK);
    sql += "INSERT INTO log_statistic_week VALUES(" + std::to_string(week) + ", " +
           std::to_string(200 + i) + ", 1, 1, 1, 1);";
  }
  for (int month = 3; month <= 10; ++month) {
    sql += "INSERT INTO log_statistic_month VALUES(" + std::to_string(LocalTime(2026, month, 1)) +
           ", " + std::to_string(month) + ", 1, 1, 1, 1);";
  }
  // Two names for the receivers of the newest hour; every other list is empty.
  const long newest = getRoundTime(t, COUNT_INTERVAL_HOUR);
  sql += "INSERT INTO log_statistic_top5 VALUES(" + std::to_string(newest) +
         ", 25, 1, 1, 'b@example.com', 3);";
  sql += "INSERT INTO log_statistic_top5 VALUES(" + std::to_string(newest) +
         ", 25, 1, 0, 'a@example.com', 7);";
  Exec(path, sql + "COMMIT;");

  StatisticLog log;
  const std::pair<statistic_log::TimeScale, size_t> scales[] = {
      {statistic_log::TIME_SCALE_HOUR, 25},
      {statistic_log::TIME_SCALE_DAY, 8},
      {statistic_log::TIME_SCALE_WEEK, 9},
      {statistic_log::TIME_SCALE_MONTH, 7}};
  for (const auto &scale : scales) {
    std::vector<StatisticCount> points;
    ASSERT_EQ(log.getStatistic(points, t, scale.first), 0);
    EXPECT_EQ(points.size(), scale.second) << scale.first;
    for (size_t i = 1; i < points.size(); ++i) EXPECT_LT(points[i - 1].time, points[i].time);
    for (const StatisticCount &point : points) {
      for (const auto &list : const_cast<StatisticCount &>(point).list(scale.first).lists) {
        EXPECT_EQ(list.size(), 5u);
      }
    }
  }
  std::vector<StatisticCount> hours;
  ASSERT_EQ(log.getStatistic(hours, t, statistic_log::TIME_SCALE_HOUR), 0);
  EXPECT_EQ(hours.back().time, newest);
  EXPECT_EQ(hours.back().sentCnt, newest % 97);
  EXPECT_EQ(hours.back().rejectCnt, 5);
  const auto &received = hours.back().hourList.lists[1];
  EXPECT_EQ(received[0], std::make_pair(std::string("a@example.com"), 7));
  EXPECT_EQ(received[1], std::make_pair(std::string("b@example.com"), 3));
  EXPECT_EQ(received[4], std::make_pair(std::string(""), 0));
  std::vector<StatisticCount> months;
  ASSERT_EQ(log.getStatistic(months, t, statistic_log::TIME_SCALE_MONTH), 0);
  EXPECT_EQ(months.front().time, LocalTime(2026, 4, 1));
  EXPECT_EQ(months.back().sentCnt, 10);

  StatisticCount one;
  ASSERT_EQ(log.getExportedDate(one, t + 600, statistic_log::TIME_SCALE_DAY), 0);
  EXPECT_EQ(one.time, LocalTime(2026, 10, 20));
  EXPECT_EQ(one.sentCnt, 100);
  EXPECT_EQ(one.dayList.lists[0].size(), 5u);

  // The same points drawn by the administrator's tool: a PNG of the size it asks gnuplot for.
  const std::string at = std::to_string(t);
  const qsvtest::CtlResult shown = qsvtest::RunCtl({"stats", "show", "day", "--at", at});
  EXPECT_EQ(shown.status, 0) << shown.output;
  EXPECT_EQ(std::count(shown.output.begin(), shown.output.end(), '\n'), 1 + 8 + 5);
  for (const char *scale : {"hour", "day", "week", "month"}) {
    const std::string png = std::string("/tmp/chart-") + scale + ".png";
    const qsvtest::CtlResult drawn =
        qsvtest::RunCtl({"stats", "chart", scale, "--png", png, "--at", at});
    ASSERT_EQ(drawn.status, 0) << drawn.output;
    EXPECT_EQ(PngSize(png), std::make_pair(1200u, 800u)) << scale;
  }
  for (const std::vector<std::string> &refused : std::vector<std::vector<std::string>>{
           {"stats", "chart", "year", "--png", "/tmp/x.png"},
           {"stats", "chart", "day", "--png", "x.png"},
           {"stats", "chart", "day", "--png", "/tmp/x'; system('id').png"},
           {"stats", "chart", "day"},
           {"stats", "show", "day", "--at", "soon"}}) {
    const qsvtest::CtlResult result = qsvtest::RunCtl(refused);
    EXPECT_EQ(result.status, 1) << result.output;
  }

  // The older sums name tables this layout doesn't have: a clean failure.
  qsvtest::SyslogCapture capture;
  statistic_log::Statistic older;
  EXPECT_EQ(log.getBandwidthStatistic(older, t, statistic_log::TIME_SCALE_DAY), -1);
  EXPECT_EQ(log.getQuantityStatistic(older, t, statistic_log::TIME_SCALE_MONTH), -1);
  EXPECT_EQ(capture.Matching("sqlite3_prepare_v2: [1]").size(), 2u);
}

// The month counted by the administrator's tool as the job counts it: each chart's points carry
// the counts of the generated rows.
TEST_F(StatisticLogTest, AMonthCountedHourByHourGivesChartsOfTheTrafficsOwnCounts) {
  // A zone without a clock change in the month: across one, a day of 25 hours loses its last
  // hour to the day's fixed length, which the job's own tests show.
  PinZone("UTC");
  const std::string live = mail_log::kMailLogDBPath;
  const std::string security = security_log::kSecurityLogDBPath;
  for (const std::string &path : {live, security}) unlink(path.c_str());
  ASSERT_EQ(qsvtest::GenerateLogs("--mail-db " + live + " --security-db " + security +
                                  " --rows 3000 --seed 31 --from 2026-10-01 --days 31"),
            0);
  const qsvtest::CtlResult counted =
      qsvtest::RunCtl({"stats", "count", "--from", "2026-10-24", "--to", "2026-10-31"});
  ASSERT_EQ(counted.status, 0) << counted.output;
  EXPECT_EQ(counted.output.rfind("192 hours counted", 0), 0u) << counted.output;

  StatisticLog log;
  const long t = LocalTime(2026, 10, 31, 23);
  const std::pair<statistic_log::TimeScale, size_t> scales[] = {
      {statistic_log::TIME_SCALE_HOUR, 25},
      {statistic_log::TIME_SCALE_DAY, 8},
      {statistic_log::TIME_SCALE_WEEK, 2},  // the weeks of Sunday 18 and 25 October
      {statistic_log::TIME_SCALE_MONTH, 1}};
  for (const auto &scale : scales) {
    std::vector<StatisticCount> points;
    ASSERT_EQ(log.getStatistic(points, t, scale.first), 0);
    EXPECT_EQ(points.size(), scale.second) << scale.first;
  }
  std::vector<StatisticCount> days;
  ASSERT_EQ(log.getStatistic(days, t, statistic_log::TIME_SCALE_DAY), 0);
  for (const StatisticCount &day : days) {
    const std::string span = " date >= " + std::to_string(day.time) + " and date < " +
                             std::to_string(day.time + 86400);
    EXPECT_EQ(day.sentCnt, QueryNumber(live, "select count(*) from mail_log_table where status=0 and" + span));
    EXPECT_EQ(day.bounceCnt, QueryNumber(live, "select count(*) from mail_log_table where status=2 and" + span));
    EXPECT_EQ(day.rejectCnt, QueryNumber(security, "select count(*) from security_log_table where "
                                                "type='reject' and" + span));
  }
  std::vector<StatisticCount> month;
  ASSERT_EQ(log.getStatistic(month, t, statistic_log::TIME_SCALE_MONTH), 0);
  ASSERT_EQ(month.size(), 1u);
  EXPECT_EQ(month[0].receiveCnt,
            QueryNumber(live, "select count(*) from mail_log_table where status=1 and date >= " +
                               std::to_string(LocalTime(2026, 10, 24))));
}

TEST(AnalysisLogTest, RankingsOfAddressesAndDomainsOverBothFiles) {
  log_db::PrepareLogDir();
  const std::string live = mail_log::kMailLogDBPath;
  const std::string archive = mail_log::kMailLogArchivePath;
  for (const std::string &path : {live, archive}) unlink(path.c_str());
  ASSERT_EQ(qsvtest::GenerateLogs("--mail-db " + live + " --rows 3000 --seed 21 --from 2026-10-01 "
                                  "--days 30 --domains example.com"),
            0);
  ASSERT_EQ(qsvtest::GenerateLogs("--mail-db " + archive + " --rows 2000 --seed 22 --from "
                                  "2026-09-01 --days 30 --domains example.com"),
            0);
  SetLocalDomains("1/example.com");
  const long from = LocalTime(2026, 9, 24);
  const long to = LocalTime(2026, 10, 1) - 1 + 7 * 86400;
  const std::string span = " and date >= " + std::to_string(from) + " and date <= " +
                           std::to_string(to);

  analysis_log::AnalysisLog analysis;
  analysis_log::analysisFilter filter;
  filter.status = mail_log::MAIL_STATUS_SEND;
  filter.nameKind = 3;  // recipient domains
  filter.limit = 3;
  filter.dateFrom = from;
  filter.dateTo = to;
  std::vector<analysis_log::AnalysisCount> top;
  ASSERT_EQ(analysis.getAnalysis(top, filter), 0);
  ASSERT_EQ(top.size(), 3u);
  // The domain's count is every address of it in both files, and nothing is counted twice.
  for (const auto &row : top) {
    const std::string where = "where status=0 and mail_to like '%@" + row.name + "'" + span;
    EXPECT_EQ(row.count, QueryNumber(live, "select count(*) from mail_log_table " + where) +
                             QueryNumber(archive, "select count(*) from mail_log_table " + where))
        << row.name;
  }
  EXPECT_GE(top[0].count, top[1].count);
  filter.isCount = true;
  int domains = -1;
  ASSERT_EQ(analysis.getAnalysisNum(domains, filter), 0);
  EXPECT_GE(domains, 3);

  // Mail received from the local domain; with no local domain, all received mail.
  analysis_log::analysisFilter local;
  local.isCount = true;
  local.status = mail_log::MAIL_STATUS_LOCAL_RECEIVE;
  local.nameKind = 1;
  int senders = -1;
  ASSERT_EQ(analysis.getAnalysisNum(senders, local), 0);
  EXPECT_EQ(senders, 1) << "only example.com sends it";
  SetLocalDomains("");
  ASSERT_EQ(analysis.getAnalysisNum(senders, local), 0);
  EXPECT_GT(senders, 1);

  // A piece of the name narrows the ranking.
  analysis_log::analysisFilter piece;
  piece.status = mail_log::MAIL_STATUS_RECEIVE;
  piece.nameKind = 2;
  piece.name = "alice@";
  std::vector<analysis_log::AnalysisCount> alice;
  ASSERT_EQ(analysis.getAnalysis(alice, piece), 0);
  EXPECT_FALSE(alice.empty());
  for (const auto &row : alice) EXPECT_EQ(row.name.rfind("alice@", 0), 0u) << row.name;
}

}  // namespace
