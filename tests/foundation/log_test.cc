#include "foundation/log.h"

#include <gtest/gtest.h>

#include <string>

#include "harness/syslog_capture.h"

namespace {

constexpr int kUser = 1 << 3;  // LOG_USER: the facility of lines sent without one

TEST(MaillogTest, LineCarriesShortFileNameLineAndLevel) {
  qsvtest::SyslogCapture log;
  const int line = __LINE__ + 1;
  maillog(3, "%s:%d Failed to open %s", QSV_FILE, __LINE__, "/nowhere");
  maillog(7, "%s:%d progress", QSV_FILE, __LINE__);
  maillog(1, "%s:%d trace", QSV_FILE, __LINE__);

  const auto lines = log.Lines();
  ASSERT_EQ(lines.size(), 3u);
  EXPECT_EQ(lines[0].message, "log_test.cc:" + std::to_string(line) + " Failed to open /nowhere");
  EXPECT_EQ(lines[0].priority, kUser | 3);
  EXPECT_EQ(lines[1].priority, kUser | 7);
  EXPECT_EQ(lines[2].priority, kUser | 1);
}

TEST(MaillogTest, LongLinesAreCutAt2047BytesAndStillSent) {
  qsvtest::SyslogCapture log;
  const std::string longText(3000, 'x');
  maillog(3, "%s", longText.c_str());
  const std::string exact(2047, 'y');
  maillog(3, "%s", exact.c_str());
  const std::string oneOver(2048, 'z');
  maillog(3, "%s", oneOver.c_str());

  const auto lines = log.Lines();
  ASSERT_EQ(lines.size(), 3u);
  EXPECT_EQ(lines[0].message, std::string(2047, 'x'));
  EXPECT_EQ(lines[1].message, exact);
  EXPECT_EQ(lines[2].message, std::string(2047, 'z'));
}

}  // namespace
