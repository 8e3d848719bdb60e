#include "kolt/pidfile.h"

#include <signal.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <string>

#include <gtest/gtest.h>

#include "test_util.h"

namespace {

TEST(PidFileTest, CreateWritesOurPidOnceAndOnlyAWholeNumberIsAPid) {
  ScratchDir dir;
  std::string path = dir / "daemon.pid";
  mode_t old = umask(077);
  ASSERT_EQ(0, KLIBCProcPidFileCreate(path.c_str()));
  umask(old);
  EXPECT_EQ(std::to_string(getpid()) + "\n", ReadFile(path));
  struct stat st;
  ASSERT_EQ(0, stat(path.c_str(), &st));
  EXPECT_EQ(0644u, st.st_mode & 07777);

  EXPECT_EQ(1, KLIBCProcAliveByPidFile(path.c_str()));
  EXPECT_EQ(-1, KLIBCProcPidFileCreate(path.c_str()));  // someone already runs
  EXPECT_EQ(std::to_string(getpid()) + "\n", ReadFile(path));

  struct Case {
    const char *content;
    int pid;
  } cases[] = {
      {"123\n", 123}, {"123", 123},  {"77 \n", 77}, {"0\n", 0},  {"", -1},
      {"abc\n", -1},  {"12abc", -1}, {"-5\n", -1},  {" 5", -1}, {"99999999999\n", -1},
  };
  for (const Case &c : cases) {
    WriteFile(path, c.content);
    EXPECT_EQ(c.pid, KLIBCReadPidFile(path.c_str())) << "content: " << c.content;
  }
  EXPECT_EQ(-1, KLIBCReadPidFile((dir / "missing").c_str()));
  // A 0 must not mean "our own process group".
  WriteFile(path, "0\n");
  EXPECT_EQ(0, KLIBCProcAliveByPidFile(path.c_str()));
  EXPECT_EQ(-1, KLIBCProcSignalByPidFile(path.c_str(), 0));
  WriteFile(path, "garbage\n");
  EXPECT_EQ(-1, KLIBCProcAliveByPidFile(path.c_str()));
  EXPECT_EQ(-1, KLIBCProcSignalByPidFile(path.c_str(), 0));
}

TEST(PidFileTest, SignalsReachTheNamedProcess) {
  ScratchDir dir;
  // A copy of sleep under a name no other process has.
  std::string name = "sleeper" + std::to_string(getpid());
  std::string sleeper = dir / name;
  ASSERT_EQ(0, system(("cp /bin/sleep " + sleeper).c_str()));
  pid_t pid = fork();
  if (pid == 0) {
    execl(sleeper.c_str(), name.c_str(), "30", (char *)nullptr);
    _exit(127);
  }
  ASSERT_GT(pid, 0);
  std::string path = dir / "sleeper.pid";
  WriteFile(path, std::to_string(pid) + "\n");
  // Give exec a moment to rename the process.
  for (int i = 0; i < 200 && !KLIBCIsProcAlive(name.c_str()); i++) usleep(10000);

  EXPECT_EQ(1, KLIBCIsProcAlive(name.c_str()));
  EXPECT_EQ(0, KLIBCIsProcAlive(name.substr(1).c_str()));
  EXPECT_EQ(1, KLIBCProcAliveByPidFile(path.c_str()));
  EXPECT_EQ(0, KLIBCProcSignalByPidFile(path.c_str(), SIGTERM));
  // Dead but not reaped: kill() still reaches it, yet it runs nothing.
  siginfo_t info{};
  ASSERT_EQ(0, waitid(P_PID, pid, &info, WEXITED | WNOWAIT));
  EXPECT_EQ(0, KLIBCProcAliveByPidFile(path.c_str()));
  int status = 0;
  ASSERT_EQ(pid, waitpid(pid, &status, 0));
  EXPECT_TRUE(WIFSIGNALED(status) && WTERMSIG(status) == SIGTERM);

  EXPECT_EQ(0, KLIBCProcAliveByPidFile(path.c_str()));
  EXPECT_EQ(-1, KLIBCProcSignalByPidFile(path.c_str(), SIGTERM));
  EXPECT_EQ(0, KLIBCIsProcAlive(name.c_str()));
}

}  // namespace
