#include "kolt/file.h"

#include <errno.h>
#include <fcntl.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <time.h>
#include <unistd.h>

#include <string>

#include <gtest/gtest.h>

#include "kolt/err.h"
#include "test_util.h"

namespace {

double Now() {
  struct timespec ts;
  clock_gettime(CLOCK_MONOTONIC, &ts);
  return ts.tv_sec + ts.tv_nsec / 1e9;
}

// Another process holding an flock on a file, until destroyed or for holdMs.
class LockHolder {
 public:
  LockHolder(const std::string &path, int op, int holdMs = -1) {
    int ready[2];
    if (pipe2(ready, O_CLOEXEC) != 0 || pipe2(release_, O_CLOEXEC) != 0) return;
    pid_ = fork();
    if (pid_ == 0) {
      close(release_[1]);
      int fd = open(path.c_str(), O_RDWR | O_CREAT | O_CLOEXEC, 0644);
      char c;
      if (fd < 0 || flock(fd, op) != 0 || write(ready[1], "x", 1) != 1) _exit(1);
      if (holdMs >= 0) usleep(holdMs * 1000);
      if (holdMs < 0 && read(release_[0], &c, 1) < 0) _exit(1);  // until the parent closes its end
      _exit(0);
    }
    close(ready[1]);
    close(release_[0]);
    char c;
    locked_ = read(ready[0], &c, 1) == 1;
    close(ready[0]);
  }
  ~LockHolder() {
    close(release_[1]);
    if (pid_ > 0) waitpid(pid_, nullptr, 0);
  }
  bool locked() const { return locked_; }

 private:
  pid_t pid_ = -1;
  int release_[2] = {-1, -1};
  bool locked_ = false;
};

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
  errno = 0;
  EXPECT_EQ(-1, KLIBCFileEnumDir((dir / "missing").c_str(), 0, &list, 0));
  EXPECT_EQ(ENOENT, errno);
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

TEST(FileLockTest, TimesOutWhileAnotherProcessHoldsIt) {
  ScratchDir dir;
  std::string path = dir / "lock";
  int fd = 123;
  {
    LockHolder holder(path, LOCK_EX);
    ASSERT_TRUE(holder.locked());
    double start = Now();
    EXPECT_EQ(0, KLIBCFileLockTimeByFile(path.c_str(), 1, 1, &fd));
    double waited = Now() - start;
    EXPECT_EQ(ETIMEDOUT, errno);
    EXPECT_EQ(-1, fd);
    EXPECT_GE(waited, 0.95);
    EXPECT_LT(waited, 2.5);
    start = Now();
    EXPECT_EQ(0, KLIBCFileLockTimeByFile(path.c_str(), 0, 0, &fd));
    EXPECT_EQ(EWOULDBLOCK, errno);
    EXPECT_LT(Now() - start, 0.2);
  }
  double start = Now();
  ASSERT_EQ(1, KLIBCFileLockTimeByFile(path.c_str(), 1, 1, &fd));
  EXPECT_LT(Now() - start, 0.2);
  EXPECT_EQ(FD_CLOEXEC, fcntl(fd, F_GETFD) & FD_CLOEXEC);
  // A second descriptor, even in this process, must wait too.
  int second;
  EXPECT_EQ(0, KLIBCFileLockTimeByFile(path.c_str(), 1, 0, &second));
  EXPECT_EQ(1, KLIBCFileUnlockByFile(fd));
  EXPECT_EQ(-1, fcntl(fd, F_GETFD));  // closed
  EXPECT_EQ(0, KLIBCFileUnlockByFile(-1));
}

TEST(FileLockTest, WaitEndsWhenTheHolderLetsGo) {
  ScratchDir dir;
  std::string path = dir / "lock";
  int fd;
  for (int seconds : {5, -1}) {  // -1: no limit
    LockHolder holder(path, LOCK_EX, 500);
    ASSERT_TRUE(holder.locked());
    double start = Now();
    ASSERT_EQ(1, KLIBCFileLockTimeByFile(path.c_str(), 1, seconds, &fd));
    EXPECT_GE(Now() - start, 0.3);
    EXPECT_LT(Now() - start, 3.0);
    EXPECT_EQ(1, KLIBCFileUnlockByFile(fd));
  }
  EXPECT_EQ(-1, KLIBCFileLockTimeByFile((dir / "no/dir/lock").c_str(), 1, 0, &fd));
}

}  // namespace
