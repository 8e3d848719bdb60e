// Locks between processes on real lock files.
#include <fcntl.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <string>

#include <gtest/gtest.h>

#include "foundation/file_lock.h"
#include "harness/run_as.h"
#include "harness/syslog_capture.h"
#include "kolt/err.h"

namespace {

const char kLock[] = "/tmp/file-lock-test.lock";

// 0 when another process gets the lock at once, 1 when it would have to wait.
int TryLockInChild(const char *path, int operation) {
  return qsvtest::RunInChild([&] {
    const int fd = open(path, O_RDWR | O_CLOEXEC);
    if (fd < 0) return 10;
    if (flock(fd, operation | LOCK_NB) == 0) return 0;
    return errno == EWOULDBLOCK ? 1 : 11;
  });
}

TEST(FileLockTest, ExclusiveExcludesOthersSharedAdmitsReaders) {
  int fd = -1;
  ASSERT_TRUE(qvsFileLockByFile(kLock, TRUE, &fd));
  EXPECT_EQ(TryLockInChild(kLock, LOCK_SH), 1);
  ASSERT_TRUE(qvsFileUnlockByFile(fd));
  EXPECT_EQ(fcntl(fd, F_GETFD), -1) << "unlock must close the descriptor";
  ASSERT_TRUE(qvsFileLockByFile(kLock, FALSE, &fd));
  EXPECT_EQ(TryLockInChild(kLock, LOCK_SH), 0);
  EXPECT_EQ(TryLockInChild(kLock, LOCK_EX), 1);
  ASSERT_TRUE(qvsFileUnlockByFile(fd));
  EXPECT_EQ(TryLockInChild(kLock, LOCK_EX), 0);
}

TEST(FileLockTest, TheLockFileIsGivenToThePackageUserOrTheFailureLogged) {
  const std::string path = "/tmp/file-lock-test-owner.lock";
  int fd = -1;
  ASSERT_TRUE(qvsFileLockByFile(path.c_str(), TRUE, &fd));
  struct stat st;
  ASSERT_EQ(stat(path.c_str(), &st), 0);
  EXPECT_EQ(st.st_uid, qsvtest::UidOf("Quillon-Server"));
  EXPECT_EQ(st.st_gid, qsvtest::GidOf("Quillon-Server"));
  EXPECT_TRUE(qvsFileUnlockByFile(fd));

  // "nobody" may not give a file away; the lock holds all the same.
  qsvtest::SyslogCapture log;
  const std::string nobodys = "/tmp/file-lock-test-nobody.lock";
  const int rc = qsvtest::RunAsUnprivileged("nobody", [&] {
    int held = -1;
    if (!qvsFileLockByFile(nobodys.c_str(), TRUE, &held)) return 1;
    return TryLockInChild(nobodys.c_str(), LOCK_EX) == 1 ? 0 : 2;
  });
  EXPECT_EQ(rc, 0);
  EXPECT_EQ(log.Matching("Failed to chown [" + nobodys + "] error [Operation not permitted]").size(),
            1u);
}

}  // namespace
