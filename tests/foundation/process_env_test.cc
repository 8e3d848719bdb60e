#include "foundation/process_env.h"

#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <string>
#include <thread>

#include <gtest/gtest.h>

#include "harness/recording_script.h"
#include "harness/run_as.h"

namespace {

using Clock = std::chrono::steady_clock;

double SecondsSince(Clock::time_point start) {
  return std::chrono::duration<double>(Clock::now() - start).count();
}

int PidIn(const std::string &path) { return atoi(qsvtest::ReadFile(path).c_str()); }

TEST(ProcessEnvInitTest, DisplacesTheDaemonNamedByThePidFile) {
  const pid_t old = fork();
  if (old == 0) {
    execl("/bin/sleep", "sleep", "30", static_cast<char *>(nullptr));
    _exit(127);
  }
  const std::string pidFile = "/tmp/displace.pid";
  qsvtest::WriteFile(pidFile, std::to_string(old) + "\n");

  const auto start = Clock::now();
  EXPECT_EQ(ProcessEnvInit(pidFile.c_str(), true, true), 0);
  EXPECT_GE(SecondsSince(start), 1.9) << "the old daemon was not given its two seconds";

  int status = 0;
  ASSERT_EQ(waitpid(old, &status, 0), old);
  EXPECT_TRUE(WIFSIGNALED(status) && WTERMSIG(status) == SIGTERM);
  EXPECT_EQ(PidIn(pidFile), getpid());
}

TEST(ProcessEnvInitTest, MissingOrZeroPidFileSignalsNobodyAndAnUnwritableOneFails) {
  const std::string pidFile = "/tmp/fresh.pid";
  unlink(pidFile.c_str());
  auto start = Clock::now();
  EXPECT_EQ(ProcessEnvInit(pidFile.c_str(), true, true), 0);
  EXPECT_LT(SecondsSince(start), 1.0);
  EXPECT_EQ(PidIn(pidFile), getpid());

  // A pid of 0 must not become kill(0, ...), which would hit this whole process group.
  qsvtest::WriteFile(pidFile, "0\n");
  start = Clock::now();
  EXPECT_EQ(ProcessEnvInit(pidFile.c_str(), true, true), 0);
  EXPECT_LT(SecondsSince(start), 1.0);
  EXPECT_EQ(PidIn(pidFile), getpid());
  EXPECT_EQ(ProcessEnvInit("/tmp/no-such-dir/x.pid", true, true), -1);
}

TEST(ProcessEnvInitTest, DetachesAndWritesTheDaemonsPid) {
  const std::string pidFile = "/tmp/detached.pid";
  unlink(pidFile.c_str());
  const int rc = qsvtest::RunInChild([&] {
    if (ProcessEnvInit(pidFile.c_str(), false, false) != 0) return 1;
    // Only the detached process gets here; the first child has already exited with 0.
    sleep(3);
    return 0;
  });
  EXPECT_EQ(rc, 0);

  int daemonPid = 0;
  for (int i = 0; i < 200 && daemonPid <= 0; ++i) {
    std::this_thread::sleep_for(std::chrono::milliseconds(10));
    daemonPid = PidIn(pidFile);
  }
  ASSERT_GT(daemonPid, 0);
  char cwd[256] = {0};
  ASSERT_GT(readlink(("/proc/" + std::to_string(daemonPid) + "/cwd").c_str(), cwd, sizeof(cwd) - 1),
            0);
  EXPECT_STREQ(cwd, "/");
  char in[256] = {0};
  ASSERT_GT(readlink(("/proc/" + std::to_string(daemonPid) + "/fd/0").c_str(), in, sizeof(in) - 1),
            0);
  EXPECT_STREQ(in, "/dev/null");
  EXPECT_NE(getsid(daemonPid), getsid(0)) << "the daemon kept the test's session";
  kill(daemonPid, SIGKILL);
}

}  // namespace
