#include "kolt/exec.h"

#include <fcntl.h>
#include <spawn.h>
#include <sys/wait.h>
#include <time.h>
#include <unistd.h>

#include <string>

#include <gtest/gtest.h>

#include "kolt/err.h"
#include "test_util.h"

extern char **environ;

namespace {

double Now() {
  struct timespec ts;
  clock_gettime(CLOCK_MONOTONIC, &ts);
  return ts.tv_sec + ts.tv_nsec / 1e9;
}

std::string ReadAll(FILE *fp) {
  std::string text;
  for (int c; (c = fgetc(fp)) != EOF;) text += static_cast<char>(c);
  return text;
}

// 'S' sleeping, 'Z' zombie, ...; 0 once the pid is gone.
char ProcState(pid_t pid) {
  std::string stat = ReadFile("/proc/" + std::to_string(pid) + "/stat");
  size_t paren = stat.rfind(')');
  return paren == std::string::npos || paren + 2 >= stat.size() ? 0 : stat[paren + 2];
}

TEST(ExecTest, WaitingRunsReturnTheExitCodeQuietOnesGetDevNullAndASession) {
  EXPECT_EQ(0, KLIBCExec("/bin/true", nullptr, "after the first null", nullptr, 0));
  EXPECT_EQ(3, KLIBCExecl("/bin/sh", 1, "-c", "exit $#", "x", "a", "b", "c", nullptr));
  KLIBSZLIST *args = nullptr;
  KLIBCSzListPush(&args, "-c");
  KLIBCSzListPush(&args, "exit 9");
  EXPECT_EQ(9, KLIBCExecv("/bin/sh", args, KLIBC_EXEC_QUIET_WAIT));
  KLIBCSzListFree(args);

  EXPECT_EQ(-1, KLIBCExec("/no/such/program", nullptr, nullptr, nullptr, KLIBC_EXEC_QUIET_WAIT));
  EXPECT_EQ(KLIBC_ERR_SYS(ENOENT), KLIBCErrGet());
  EXPECT_EQ(-1, KLIBCExec("/no/such/program", nullptr, nullptr, nullptr, KLIBC_EXEC_QUIET_BACKGROUND));
  EXPECT_EQ(-1, KLIBCExec("/bin/sh", "-c", "kill -KILL $$", nullptr, KLIBC_EXEC_QUIET_WAIT));
  EXPECT_EQ(KLIBC_ERR_CHILD_KILLED, KLIBCErrGet());

  const char *check =
      "for fd in 0 1 2; do test \"$(readlink /proc/$$/fd/$fd)\" = /dev/null || exit 10; done;"
      "set -- $(cut -d')' -f2 /proc/$$/stat); test \"$4\" = $$ || exit 11";
  EXPECT_EQ(0, KLIBCExec("/bin/sh", "-c", check, nullptr, KLIBC_EXEC_QUIET_WAIT));
  EXPECT_EQ(11, KLIBCExec("/bin/sh", "-c", check, nullptr, KLIBC_EXEC_QUIET_WAIT & ~KLIBC_EXEC_SETSID));
}

TEST(ExecTest, PopenReadsOutputAndFeedsInputWithoutAShell) {
  FILE *fp = KLIBCPopen("/usr/bin/printf", "r", "%s|", "a b", "$HOME", "'q';`x`", "*", nullptr);
  ASSERT_NE(nullptr, fp);
  EXPECT_EQ("a b|$HOME|'q';`x`|*|", ReadAll(fp));
  EXPECT_EQ(0, KLIBCPclose(fp));

  ScratchDir dir;
  std::string out = dir / "fed";
  const char *const argv[] = {"sh", "-c", "cat > \"$0\"; read -r x < \"$0\"; exit $x", out.c_str(), nullptr};
  fp = KLIBCPopenv("/bin/sh", "w", argv);
  ASSERT_NE(nullptr, fp);
  fputs("5\nsecond line\n", fp);
  EXPECT_EQ(5, KLIBCPclose(fp));
  EXPECT_EQ("5\nsecond line\n", ReadFile(out));

  FILE *plain = fopen("/dev/null", "re");
  EXPECT_EQ(-1, KLIBCPclose(plain));
  EXPECT_EQ(0, fclose(plain));  // still open, still ours
}

TEST(ExecTest, ChildrenSeeOnlyStdio) {
  int fd = open("/dev/null", O_RDONLY);
  ASSERT_EQ(42, dup2(fd, 42));  // dup2 leaves 42 inheritable
  close(fd);
  // A plain spawn does pass 42 on, and the probe sees it.
  const char *const probe[] = {"sh", "-c", "test -e /proc/$$/fd/42", nullptr};
  pid_t pid;
  int status = 0;
  ASSERT_EQ(0, posix_spawn(&pid, "/bin/sh", nullptr, nullptr, const_cast<char *const *>(probe), environ));
  ASSERT_EQ(pid, waitpid(pid, &status, 0));
  EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0);

  EXPECT_EQ(1, KLIBCExecv("/bin/sh", probe, 0));
  EXPECT_EQ(1, KLIBCExecv("/bin/sh", probe, KLIBC_EXEC_QUIET_WAIT));
  FILE *fp = KLIBCPopen("/bin/sh", "r", "-c", "ls /proc/$$/fd; true", nullptr);
  ASSERT_NE(nullptr, fp);
  EXPECT_EQ("0\n1\n2\n", ReadAll(fp));
  EXPECT_EQ(0, KLIBCPclose(fp));
  close(42);
}

TEST(ExecTest, BackgroundRunsReturnAtOnceAndAreReapedLater) {
  ScratchDir dir;
  std::string pidFile = dir / "pid";
  double start = Now();
  ASSERT_EQ(0, KLIBCExec("/bin/sh", "-c", ("echo $$ > " + pidFile + "; exec sleep 2").c_str(), nullptr,
                         KLIBC_EXEC_QUIET_BACKGROUND));
  EXPECT_LT(Now() - start, 0.5);
  while (ReadFile(pidFile).find('\n') == std::string::npos && Now() - start < 5) usleep(10000);
  pid_t pid = std::stoi(ReadFile(pidFile));
  EXPECT_NE(0, ProcState(pid));
  // Once it ends it waits as a zombie until the next run collects it.
  while (ProcState(pid) != 'Z' && Now() - start < 8) usleep(10000);
  ASSERT_EQ('Z', ProcState(pid));
  EXPECT_EQ(0, KLIBCExec("/bin/true", nullptr, nullptr, nullptr, 0));
  EXPECT_EQ(0, ProcState(pid));
  EXPECT_EQ(-1, waitpid(pid, nullptr, WNOHANG));
}

}  // namespace
