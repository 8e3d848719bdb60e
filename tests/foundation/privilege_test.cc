#include "foundation/privilege.h"

#include <fcntl.h>
#include <unistd.h>

#include <cerrno>
#include <string>

#include <gtest/gtest.h>

#include "harness/run_as.h"
#include "harness/syslog_capture.h"

namespace {

using qsvtest::SyslogCapture;

constexpr int kAuthErr = 35;   // LOG_AUTH | LOG_ERR
constexpr int kAuthCrit = 34;  // LOG_AUTH | LOG_CRIT

// A child's checks are reported through its exit status: 0 is success, anything else names the
// first check that failed.
#define CHILD_CHECK(cond, code) \
  if (!(cond)) return (code)

struct User {
  uid_t uid;
  gid_t gid;
};

User PackageUser() { return {qsvtest::UidOf("Quillon-Server"), qsvtest::GidOf("Quillon-Server")}; }

int RenameRaised(const char *from, const char *to) {
  ENTERCriticalSection;
  int rc = rename(from, to);
  LEAVECriticalSection;
  return rc;
}

int LeaveEarly(bool early) {
  ENTERCriticalSection;
  if (early) {
    LEAVECriticalSection;
    return geteuid() == 0 ? -1 : 1;
  }
  const bool raised = geteuid() == 0;
  LEAVECriticalSection;
  return raised ? 2 : -2;
}

TEST(CriticalSectionTest, BracketsRaiseAndRestoreWhatEachLevelFoundAndClearErrno) {
  SyslogCapture log;
  errno = EBADF;
  int insideEuid = -1;
  ENTERCriticalSection;
  EXPECT_EQ(errno, 0);
  insideEuid = static_cast<int>(geteuid());
  errno = ENOENT;
  LEAVECriticalSection;
  EXPECT_EQ(errno, 0);
  EXPECT_EQ(insideEuid, 0);
  EXPECT_TRUE(geteuid() == 0 && getegid() == 0) << "a root process is left alone";

  const User u = PackageUser();
  const uid_t nobody = qsvtest::UidOf("nobody");
  const gid_t nogroup = qsvtest::GidOf("nobody");
  const int rc = qsvtest::RunWithEffectiveIds(u.uid, u.gid, [&] {
    ENTERCriticalSection;
    CHILD_CHECK(errno == 0 && geteuid() == 0 && getegid() == 0, 1);
    IF_RUN_AS(nobody, nogroup) {
      CHILD_CHECK(geteuid() == nobody && getegid() == nogroup, 2);
      ENTERCriticalSection;
      {
        ENTERCriticalSection;
        CHILD_CHECK(geteuid() == 0 && getegid() == 0, 4);
        LEAVECriticalSection;
      }
      CHILD_CHECK(geteuid() == 0 && getegid() == 0, 5);
      LEAVECriticalSection;
      CHILD_CHECK(geteuid() == nobody && getegid() == nogroup, 6);
      // The forms callers write: a result declared inside and used after, a leave per way out.
      CHILD_CHECK(RenameRaised("/nonexistent/a", "/nonexistent/b") == -1, 9);
      CHILD_CHECK(geteuid() == nobody && LeaveEarly(true) == 1 && geteuid() == nobody, 10);
      CHILD_CHECK(LeaveEarly(false) == 2 && geteuid() == nobody, 11);
    }
    CHILD_CHECK(geteuid() == 0 && getegid() == 0, 7);
    LEAVECriticalSection;
    CHILD_CHECK(errno == 0 && geteuid() == u.uid && getegid() == u.gid, 8);
    return 0;
  });
  EXPECT_EQ(rc, 0);
  EXPECT_TRUE(log.Lines().empty());
}

// Each failed raise is logged once, with the line of the statement, and what it guards runs anyway.
TEST(CriticalSectionTest, FailedRaisesAreLoggedAndTheStatementStillRuns) {
  SyslogCapture log;
  const std::string marker = "/tmp/critical-section-ran";
  unlink(marker.c_str());
  const int enterLine = __LINE__ + 3, runAsLine = enterLine + 7;  // where the child's macros stand
  const int rc = qsvtest::RunAsUnprivileged("Quillon-Server", [&] {
    int fd = -1;
    ENTERCriticalSection;
    CHILD_CHECK(errno == 1, 1);
    fd = open(marker.c_str(), O_CREAT | O_WRONLY | O_CLOEXEC, 0644);
    LEAVECriticalSection;
    CHILD_CHECK(errno == 0 && fd >= 0, 2);
    close(fd);
    bool ran = false;
    IF_RUN_AS(0, 0) { ran = true; }
    return ran ? 0 : 3;
  });
  EXPECT_EQ(rc, 0);
  EXPECT_EQ(access(marker.c_str(), F_OK), 0) << "the statement inside did not run";
  const auto lines = log.Lines();
  ASSERT_EQ(lines.size(), 2u);
  EXPECT_EQ(lines[0].message, "privilege_test.cc:" + std::to_string(enterLine) + " ERROR: ENTERCriticalSection");
  EXPECT_EQ(lines[1].message, "privilege_test.cc:" + std::to_string(runAsLine) + " ERROR: IF_RUN_AS(0, 0)");
  EXPECT_TRUE(lines[0].priority == kAuthErr && lines[1].priority == kAuthErr);
}

TEST(CriticalSectionTest, GroupIsRaisedBeforeUser) {
  // Saved user id root but every group id the user's: raising the user first would work, raising the
  // group first can't. The bracket raises the group first, so it fails and leaves the user alone.
  SyslogCapture log;
  const User u = PackageUser();
  const int rc = qsvtest::RunInChild([&] {
    CHILD_CHECK(setresgid(u.gid, u.gid, u.gid) == 0 && setresuid(-1, u.uid, -1) == 0, 10);
    ENTERCriticalSection;
    CHILD_CHECK(errno == 1 && geteuid() == u.uid, 1);
    LEAVECriticalSection;
    return 0;
  });
  EXPECT_EQ(rc, 0);
  EXPECT_EQ(log.Matching("ERROR: ENTERCriticalSection").size(), 1u);
}

TEST(CriticalSectionTest, LeaveThatCannotRestoreLogsAndSetsErrno) {
  SyslogCapture log;
  const User u = PackageUser();
  const int rc = qsvtest::RunWithEffectiveIds(u.uid, u.gid, [&] {
    ENTERCriticalSection;
    // Something inside gives up root for good: the way back is gone.
    CHILD_CHECK(setresgid(u.gid, u.gid, u.gid) == 0 && setresuid(1, 1, 1) == 0, 10);
    LEAVECriticalSection;
    CHILD_CHECK(errno == 1, 1);
    return 0;
  });
  EXPECT_EQ(rc, 0);
  const auto lines = log.Matching("ERROR: LEAVECriticalSection");
  ASSERT_EQ(lines.size(), 1u);
  EXPECT_EQ(lines[0].priority, kAuthErr);
}

TEST(RunAsScopeTest, RunsTheBlockAsTheTargetAndComesBackARestoreThatFailsIsCritical) {
  SyslogCapture log;
  const User u = PackageUser();
  const int rc = qsvtest::RunInChild([&] {
    IF_RUN_AS(u.uid, u.gid) {
      CHILD_CHECK(geteuid() == u.uid && getegid() == u.gid, 1);
      // The way back stays open: only the effective ids moved.
      CHILD_CHECK(getuid() == 0, 2);
    }
    CHILD_CHECK(geteuid() == 0 && getegid() == 0, 3);
    IF_RUN_AS(0, 0) {
      CHILD_CHECK(setresgid(u.gid, u.gid, u.gid) == 0 && setresuid(u.uid, u.uid, u.uid) == 0, 4);
    }
    return 0;
  });
  EXPECT_EQ(rc, 0);
  const auto lines = log.Lines();
  ASSERT_EQ(lines.size(), 1u) << "only the failed restore is logged";
  EXPECT_NE(lines[0].message.find("ERROR: ~IF_RUN_AS(0, 0)"), std::string::npos);
  EXPECT_EQ(lines[0].priority, kAuthCrit);
}

TEST(UserRegionTest, ARootProcessDoesTheUsersWorkAsRoot) {
  SyslogCapture log;
  const User u = PackageUser();
  const uid_t nobody = qsvtest::UidOf("nobody");
  const gid_t nogroup = qsvtest::GidOf("nobody");
  // Lowered to nobody but able to raise: the region raises to root instead of taking the user's ids.
  const int rc = qsvtest::RunWithEffectiveIds(nobody, nogroup, [&] {
    InUserRegion(u);
    CHILD_CHECK(geteuid() == 0 && getegid() == 0, 1);
    OutUserRegion;
    return 0;
  });
  EXPECT_EQ(rc, 0);
  const auto lines = log.Lines();
  ASSERT_EQ(lines.size(), 3u) << "a root process says what it did instead";
  EXPECT_NE(lines[0].message.find(" InUserRegion gid"), std::string::npos);
  EXPECT_NE(lines[1].message.find(" InUserRegion uid"), std::string::npos);
  EXPECT_NE(lines[2].message.find(" OutUserRegion"), std::string::npos);
  EXPECT_EQ(lines[0].priority & 7, 1);
}

TEST(UserRegionTest, WithoutRootTheUsersIdsAreTriedAndAFailureSaysWhy) {
  SyslogCapture log;
  const User self = PackageUser();
  const User other = {qsvtest::UidOf("nobody"), qsvtest::GidOf("nobody")};
  const int line = __LINE__ + 7;
  const int rc = qsvtest::RunAsUnprivileged("Quillon-Server", [&] {
    {
      InUserRegion(self);  // the user's own ids: allowed
      CHILD_CHECK(geteuid() == self.uid, 1);
      OutUserRegion;
    }
    InUserRegion(other);
    OutUserRegion;
    return 0;
  });
  EXPECT_EQ(rc, 0);
  const std::string ids = "uid:" + std::to_string(self.uid) + " gid:" + std::to_string(self.gid) +
                          " euid:" + std::to_string(self.uid) + " egid:" + std::to_string(self.gid);
  const auto gidErrors = log.Matching(" input gid:"), uidErrors = log.Matching(" UID ERROR: InUserRegion");
  ASSERT_EQ(gidErrors.size(), 1u);
  EXPECT_EQ(gidErrors[0].message, "privilege_test.cc:" + std::to_string(line) + " ERROR: InUserRegion " + ids +
                                      " input gid:" + std::to_string(other.gid) + " [Operation not permitted]");
  EXPECT_EQ(gidErrors[0].priority & 7, 3);
  ASSERT_EQ(uidErrors.size(), 1u);
  EXPECT_NE(uidErrors[0].message.find(" input uid: " + std::to_string(other.uid) + " [Operation not permitted]"),
            std::string::npos);
}

}  // namespace
