#include "kolt/file.h"

#include <errno.h>
#include <fcntl.h>
#include <sys/file.h>
#include <time.h>
#include <unistd.h>

#include <string>
#include <thread>

#include <gtest/gtest.h>

#include "kolt/err.h"
#include "test_util.h"

namespace {

double Now() {
  struct timespec ts;
  clock_gettime(CLOCK_MONOTONIC, &ts);
  return ts.tv_sec + ts.tv_nsec / 1e9;
}

TEST(FileTest, ExistEnumAndGetLine) {
  ScratchDir dir;
  for (const char *name : {"c", "a", ".hidden", "B"}) WriteFile(dir / name, "");
  ASSERT_EQ(0, symlink((dir / "gone").c_str(), (dir / "dangling").c_str()));
  EXPECT_EQ(TRUE, KLIBCFileExist((dir / "a").c_str()));
  EXPECT_EQ(TRUE, KLIBCFileExist(dir.path().c_str()));
  EXPECT_EQ(FALSE, KLIBCFileExist((dir / "dangling").c_str()));

  KLIBSZLIST *list = nullptr;
  ASSERT_EQ(5, KLIBCFileEnumDir(dir.path().c_str(), 0, &list, 0));
  std::string all;
  for (int i = 0; i < KLIBCSzListCount(list); i++) all += std::string(KLIBCSzListGet(list, i)) + ",";
  EXPECT_EQ(".hidden,B,a,c,dangling,", all);
  KLIBCSzListRemoveAll(list);
  ASSERT_EQ(2, KLIBCFileEnumDir(dir.path().c_str(), 0, &list, 2));
  EXPECT_STREQ("B", KLIBCSzListGet(list, 1));
  EXPECT_EQ(-1, KLIBCFileEnumDir((dir / "missing").c_str(), 0, &list, 0));
  KLIBCSzListFree(list);

  std::string path = dir / "main.cf";
  WriteFile(path, "# comment\r\nmyhostname = mx.example\r\nmydomain = example\nrelayhost = [smtp]:587");
  char buf[64];
  EXPECT_EQ(1, KLIBCFileGetLine(path.c_str(), "host", buf, sizeof(buf), 0));
  EXPECT_STREQ("myhostname = mx.example", buf);
  EXPECT_EQ(1, KLIBCFileGetLine(path.c_str(), "relay", buf, sizeof(buf), 0));
  EXPECT_STREQ("relayhost = [smtp]:587", buf);
  EXPECT_EQ(0, KLIBCFileGetLine(path.c_str(), "inet_interfaces", buf, sizeof(buf), 0));
  EXPECT_EQ(1, KLIBCFileGetLine(path.c_str(), "mydomain", buf, 19, 0));  // just fits
  EXPECT_EQ(-1, KLIBCFileGetLine(path.c_str(), "mydomain", buf, 18, 0));
  EXPECT_EQ(-1, KLIBCFileGetLine((dir / "none").c_str(), "x", buf, sizeof(buf), 0));
  EXPECT_EQ(KLIBC_ERR_SYS(ENOENT), KLIBCErrGet());
}

// flock belongs to the open file, so a second open in this process competes like another process.
TEST(FileLockTest, WaitsForTheHolderUntilItLetsGoOrTheTimeRunsOut) {
  ScratchDir dir;
  std::string path = dir / "lock";
  int held = open(path.c_str(), O_RDWR | O_CREAT | O_CLOEXEC, 0644), fd = 123;
  ASSERT_EQ(0, flock(held, LOCK_EX));
  double start = Now();
  EXPECT_EQ(0, KLIBCFileLockTimeByFile(path.c_str(), 1, 1, &fd));
  EXPECT_EQ(ETIMEDOUT, errno);
  EXPECT_EQ(-1, fd);
  EXPECT_GE(Now() - start, 0.95);
  EXPECT_LT(Now() - start, 2.5);
  start = Now();
  EXPECT_EQ(0, KLIBCFileLockTimeByFile(path.c_str(), 0, 0, &fd));
  EXPECT_EQ(EWOULDBLOCK, errno);
  EXPECT_LT(Now() - start, 0.2);

  for (int seconds : {5, -1}) {  // -1: no limit
    std::thread release([&] { usleep(500000); flock(held, LOCK_UN); });
    start = Now();
    EXPECT_EQ(1, KLIBCFileLockTimeByFile(path.c_str(), 1, seconds, &fd));
    release.join();
    EXPECT_GE(Now() - start, 0.3);
    EXPECT_LT(Now() - start, 3.0);
    EXPECT_EQ(FD_CLOEXEC, fcntl(fd, F_GETFD) & FD_CLOEXEC);
    EXPECT_NE(0, flock(held, LOCK_EX | LOCK_NB)) << "the lock is really taken";
    EXPECT_EQ(1, KLIBCFileUnlockByFile(fd));
    EXPECT_EQ(-1, fcntl(fd, F_GETFD));  // closed
    ASSERT_EQ(0, flock(held, LOCK_EX));
  }
  close(held);
  EXPECT_EQ(0, KLIBCFileUnlockByFile(-1));
  EXPECT_EQ(-1, KLIBCFileLockTimeByFile((dir / "no/dir/lock").c_str(), 1, 0, &fd));
}

}  // namespace
