// Statistics slots under fixed time zones. The expected instants come from the zone rules, worked
// out apart from the code: Berlin went to summer time on 2025-03-30 at 02:00 and back on
// 2025-10-26 at 03:00.
#include <cstdlib>
#include <ctime>
#include <string>

#include <gtest/gtest.h>

#include "foundation/round_time.h"

namespace {

class RoundTimeTest : public testing::Test {
 protected:
  void SetUp() override {
    const char *tz = getenv("TZ");
    savedTz_ = tz != nullptr ? tz : "";
    UseZone("Europe/Berlin");
  }
  void TearDown() override {
    if (savedTz_.empty()) unsetenv("TZ");
    UseZone(savedTz_.empty() ? nullptr : savedTz_.c_str());
  }
  static void UseZone(const char *zone) {
    if (zone != nullptr) setenv("TZ", zone, 1);
    tzset();
  }
  std::string savedTz_;
};

// Berlin, 2025.
constexpr long kSun0615_184510 = 1750005910;
constexpr long kSun0615_0000 = 1749938400;
constexpr long kSun0330_0000 = 1743289200;  // winter time
constexpr long kSun0330_1200 = 1743328800;  // summer time
constexpr long kSun1026_0000 = 1761429600;  // summer time
constexpr long kSun1026_1200 = 1761476400;  // winter time

TEST_F(RoundTimeTest, HourRoundsInUtcAndDayToLocalMidnightOnClockChanges) {
  EXPECT_EQ(getRoundTime(kSun0615_184510, COUNT_INTERVAL_HOUR), 1750003200);
  EXPECT_EQ(getRoundTime(kSun0615_184510, COUNT_INTERVAL_DAY), kSun0615_0000);
  EXPECT_EQ(getRoundTime(kSun0330_1200, COUNT_INTERVAL_DAY), kSun0330_0000);
  EXPECT_EQ(getRoundTime(kSun1026_1200, COUNT_INTERVAL_DAY), kSun1026_0000);
  // India is UTC+5:30: 15:47 local rounds to 15:30 local.
  UseZone("Asia/Kolkata");
  EXPECT_EQ(getRoundTime(1749982620, COUNT_INTERVAL_HOUR), 1749981600);
}

TEST_F(RoundTimeTest, WeekStartsAtSundayMidnightAlsoAcrossAClockChange) {
  EXPECT_EQ(getRoundTime(kSun0615_184510, COUNT_INTERVAL_WEEK), kSun0615_0000);
  EXPECT_EQ(getRoundTime(kSun0615_0000, COUNT_INTERVAL_WEEK), kSun0615_0000);
  EXPECT_EQ(getRoundTime(kSun0615_0000 - 1, COUNT_INTERVAL_WEEK), kSun0615_0000 - 7 * 86400);
  // Across a clock change a week keeps one start. Sunday 01:30 before the change, Wednesday 10:00 and Saturday 23:59:59 after it.
  for (long t : {1743294600L, 1743580800L, 1743890399L}) {
    EXPECT_EQ(getRoundTime(t, COUNT_INTERVAL_WEEK), kSun0330_0000) << t;
  }
  EXPECT_EQ(getRoundTime(1761987600, COUNT_INTERVAL_WEEK), kSun1026_0000);  // Sat 1 Nov 10:00
}

TEST_F(RoundTimeTest, MonthStartAndNextMonthAcrossTheYear) {
  // 31 March 12:00 is summer time, 1 March winter time.
  EXPECT_EQ(getRoundTime(1743415200, COUNT_INTERVAL_MONTH), 1740783600);
  EXPECT_EQ(getNextMonthStartTime(1766228400), 1767222000);  // 2025-12-20 to 2026-01-01
  EXPECT_EQ(getNextMonthStartTime(1767221999), 1767222000);  // 2025-12-31 23:59:59
  EXPECT_EQ(getNextMonthStartTime(1741590000), 1743458400);  // 10 March to 1 April
  EXPECT_EQ(getRoundTime(1000, static_cast<CountInterval>(300)), 900);
  EXPECT_EQ(getRoundTime(1000, static_cast<CountInterval>(0)), -1);
}

}  // namespace
