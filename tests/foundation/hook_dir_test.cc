// The hooks of a folder run in name order, a failing one doesn't stop the rest, and only what root
// alone could have put there runs.
#include <sys/stat.h>
#include <unistd.h>

#include <string>

#include <gtest/gtest.h>

#include "foundation/hook_dir.h"
#include "harness/recording_script.h"
#include "harness/run_as.h"
#include "harness/syslog_capture.h"

namespace {

using qsvtest::ReadFile;
using qsvtest::WriteFile;

const char kDir[] = "/tmp/qsv-hooks";
const char kOrder[] = "/tmp/qsv-hook-order";

void Hook(const std::string &name, const std::string &body, int mode = 0755) {
  WriteFile(std::string(kDir) + "/" + name, "#!/bin/sh\n" + body + "\n", mode);
}

TEST(HookDirTest, RunsRootsHooksInOrderPastFailuresAndRefusesTheRest) {
  ASSERT_EQ(mkdir(kDir, 0755), 0);
  Hook("30-last", "echo last >>" + std::string(kOrder));
  Hook("10-first", "echo first >>" + std::string(kOrder));
  Hook("20-fails", "echo fails >>" + std::string(kOrder) + "; exit 3");
  Hook("40-open", "echo open >>" + std::string(kOrder), 0777);
  Hook("50-theirs", "echo theirs >>" + std::string(kOrder));
  ASSERT_EQ(chown((std::string(kDir) + "/50-theirs").c_str(), qsvtest::UidOf("Quillon-Server"), 0), 0);
  Hook("sub/60-below", "echo below >>" + std::string(kOrder));
  ASSERT_EQ(symlink("10-first", (std::string(kDir) + "/70-link").c_str()), 0);

  qsvtest::SyslogCapture log;
  EXPECT_EQ(ExecHookInDir(std::string(kDir) + "/"), -1);
  EXPECT_EQ(ReadFile(kOrder), "first\nfails\nlast\n");
  EXPECT_EQ(log.Matching(" failed to execute hook [/tmp/qsv-hooks/20-fails]").size(), 1u);
  EXPECT_EQ(log.Matching(" hook [/tmp/qsv-hooks/40-open] may be changed by others").size(), 1u);
  EXPECT_EQ(log.Matching(" hook [/tmp/qsv-hooks/50-theirs] may be changed by others").size(), 1u);

  unlink(kOrder);
  for (const char *name : {"20-fails", "40-open", "50-theirs"}) {
    unlink((std::string(kDir) + "/" + name).c_str());
  }
  EXPECT_EQ(ExecHookInDir(kDir), 0);
  EXPECT_EQ(ReadFile(kOrder), "first\nlast\n");

  // A folder others may write to runs nothing; a missing one is a failure of its own.
  unlink(kOrder);
  ASSERT_EQ(chmod(kDir, 0777), 0);
  EXPECT_EQ(ExecHookInDir(kDir), -1);
  EXPECT_NE(access(kOrder, F_OK), 0);
  EXPECT_EQ(ExecHookInDir("/tmp/qsv-no-hooks"), -1);
  EXPECT_EQ(log.Matching(" failed to enumerate directory [/tmp/qsv-no-hooks]").size(), 1u);
}

}  // namespace
