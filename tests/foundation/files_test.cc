// File helpers on real files: temporary names, moving a finished file into place, copying a
// program's output, and the log directory found through the package's target link.
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstdio>
#include <cstring>
#include <string>

#include <gtest/gtest.h>

#include "foundation/files.h"
#include "foundation/log_paths.h"
#include "harness/recording_script.h"
#include "harness/syslog_capture.h"
#include "kolt/exec.h"

namespace {

using qsvtest::ReadFile;
using qsvtest::WriteFile;

mode_t ModeOf(const std::string &path) {
  struct stat st;
  return stat(path.c_str(), &st) == 0 ? st.st_mode & 07777 : 0;
}

TEST(MkstempTest, MakesAClosedFileOrElseANameFromThePid) {
  mkdir("/tmp/files-test", 0755);
  char name[] = "/tmp/files-test/mailXXXXXX";
  const int next = open("/dev/null", O_RDONLY | O_CLOEXEC);  // the lowest free descriptor
  close(next);
  ASSERT_EQ(qsvMkstemp(name), 0);
  EXPECT_EQ(fcntl(next, F_GETFD), -1) << "descriptor left open";
  EXPECT_EQ(ModeOf(name), 0600u);

  char failing[] = "/tmp/files-test-missing/mailXXXXXX";
  ASSERT_EQ(qsvMkstemp(failing), 0);
  char pid[16];
  snprintf(pid, sizeof(pid), "%06d", static_cast<int>(getpid() % 1000000));
  EXPECT_EQ(std::string(failing), std::string("/tmp/files-test-missing/mail") + pid);
  char six[] = "XXXXXX";
  EXPECT_EQ(qsvMkstemp(six), -1);
}

TEST(RenameTmpFileTest, FinishedFileGetsMode0644AndItsPlace) {
  WriteFile("/tmp/files-test/map.tmp", "relay.example OK\n", 0600);
  WriteFile("/tmp/files-test/map", "old\n", 0600);
  ASSERT_EQ(renameTmpFileAndChmod("/tmp/files-test/map.tmp", "/tmp/files-test/map"), 0);
  EXPECT_EQ(ReadFile("/tmp/files-test/map"), "relay.example OK\n");
  EXPECT_EQ(ModeOf("/tmp/files-test/map"), 0644u);
  EXPECT_NE(access("/tmp/files-test/map.tmp", F_OK), 0);
}

TEST(PopenToFileTest, CopiesAProgramsWholeOutput) {
  FILE *out = KLIBCPopen("/usr/bin/seq", "r", "1", "3000", nullptr);
  ASSERT_NE(out, nullptr);
  ASSERT_EQ(PopenToFile(out, "/tmp/files-test/seq", "w"), 0);
  KLIBCPclose(out);
  std::string expected;
  for (int i = 1; i <= 3000; ++i) expected += std::to_string(i) + "\n";
  EXPECT_EQ(ReadFile("/tmp/files-test/seq"), expected);
  EXPECT_EQ(PopenToFile(stdin, "/tmp/files-test-missing/x", "w"), -1);
  EXPECT_EQ(PopenToFile(nullptr, "/tmp/files-test/x", "w"), -1);
}

TEST(LogPathsTest, TheLogDirectoryIsOnTheVolumeOfThePackage) {
  EXPECT_EQ(GetPostfixLogPath(), "/volume1/@maillog/maillog");
  const char target[] = "/var/packages/Quillon-Server/target";
  char saved[4096] = {0};
  ASSERT_GT(readlink(target, saved, sizeof(saved) - 1), 0);
  qsvtest::SyslogCapture log;
  unlink(target);
  ASSERT_EQ(symlink("/volume12/@appstore/Quillon-Server", target), 0);
  EXPECT_EQ(GetQuillonServerLogDirPath(), "/volume12/@maillog");
  unlink(target);
  ASSERT_EQ(symlink("/opt/Quillon-Server", target), 0);
  EXPECT_EQ(GetPostfixLogPath(), "");
  unlink(target);
  ASSERT_EQ(symlink(saved, target), 0);
  EXPECT_EQ(log.Matching("Failed to KOLTVolIDParse /opt/Quillon-Server error [").size(), 1u);
}

}  // namespace
