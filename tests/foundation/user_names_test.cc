// The naming rules of the three account sources, and names as the system stores them.
#include <string>

#include <gtest/gtest.h>

#include "foundation/user_names.h"
#include "harness/run_as.h"
#include "harness/syslog_capture.h"

namespace {

TEST(UserNamesTest, BareAndShortNamesOfEachSource) {
  EXPECT_EQ(TrimDomainName("CORP\\SUB\\alice"), "alice");  // after the last backslash
  EXPECT_EQ(TrimDomainName("alice@a@b"), "alice");         // before the first "@"
  EXPECT_EQ(TrimDomainName("CORP\\alice@example.com"), "alice@example.com");
  EXPECT_EQ(TrimDomainName("@alice"), "@alice");  // a leading separator isn't a domain
  EXPECT_EQ(ParseShortUsername("alice@example.com", AUTH_LDAP), "alice");
  EXPECT_EQ(ParseShortUsername("CORP\\SUB\\alice", AUTH_WIN), "SUB\\alice");  // the first one
  EXPECT_EQ(ParseShortUsername("alice@example.com", AUTH_WIN), "alice@example.com");
  EXPECT_EQ(ParseShortUsername("CORP\\alice", AUTH_LOCAL), "CORP\\alice");
  EXPECT_EQ(ParseShortUsername("CORP\\alice", std::string("win")), "alice");
  EXPECT_EQ(ParseShortUsername("alice@example.com", std::string("ldap")), "alice");
  EXPECT_EQ(ParseShortUsername("alice@example.com", std::string("local")), "alice@example.com");
}

TEST(UserNamesTest, RealNameOfAUidOrTheFailureLogged) {
  std::string name;
  ASSERT_EQ(getRealUserName(qsvtest::UidOf("Quillon-Server"), name), 0);
  EXPECT_EQ(name, "Quillon-Server");
  qsvtest::SyslogCapture log;
  EXPECT_EQ(getRealUserName(3999999u, name), -1);
  EXPECT_EQ(name, "Quillon-Server");
  EXPECT_EQ(log.Matching(" Get user name by uid fail: 3999999").size(), 1u);
}

}  // namespace
