// A migration task at rest: its files, owners and modes, passwords that never appear in clear and
// read back only as the package user, the user list import, and the states read from a task's
// files and schedule.
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <ctime>
#include <string>

#include <gtest/gtest.h>

#include "harness/mailserverctl_run.h"
#include "harness/one_node_cluster.h"
#include "harness/recording_script.h"
#include "harness/run_as.h"
#include "harness/syslog_capture.h"
#include "kolt/sched.h"
#include "migration/migration.h"

using namespace KOLT::QUILLON_SERVER;

namespace {

const std::string kData = "/var/packages/Quillon-Server/target/var/migration_data/";

void ExpectPrivate(const std::string &path) {
  struct stat st;
  ASSERT_EQ(stat(path.c_str(), &st), 0) << path;
  EXPECT_EQ(st.st_mode & 07777, 0600u) << path;
  EXPECT_EQ(st.st_uid, qsvtest::UidOf("Quillon-Server")) << path;
}

// The schedule entry of a task, or "" when it has none.
std::string ScheduledCommand(const std::string &task, time_t *start = nullptr) {
  KOLTSCHEDTASKLIST *list = nullptr;
  std::string command;
  if (KOLTSchedTaskListGet(&list, nullptr, nullptr) < 0) return command;
  for (KOLTSCHEDTASK *t = KOLTSchedTaskNext(list, nullptr); t != nullptr;
       t = KOLTSchedTaskNext(list, t)) {
    if (std::string(KOLTSchedTaskGetName(t)) == "MailMigration." + task) {
      command = KOLTSchedTaskGetCommand(t);
      if (start != nullptr) KOLTSchedTaskGetStart(t, start);
    }
  }
  KOLTSchedTaskListFree(list);
  return command;
}

class MigrationSettingsTest : public testing::Test {
 protected:
  static void SetUpTestSuite() { cluster_ = new qsvtest::OneNodeCluster(); }
  static void TearDownTestSuite() {
    delete cluster_;
    cluster_ = nullptr;
  }
  static qsvtest::OneNodeCluster *cluster_;
};
qsvtest::OneNodeCluster *MigrationSettingsTest::cluster_ = nullptr;

TEST_F(MigrationSettingsTest, PasswordsStayEncipheredAndReadBackOnlyAsThePackageUser) {
  MigrationTask fresh("fresh");
  ServerSetting server;
  server.addr = "imap.example.test";
  ASSERT_EQ(fresh.setServer(server), 0);
  ASSERT_EQ(fresh.saveConfigToFile(), 0);
  EXPECT_EQ(qsvtest::ReadFile(kData + "fresh/config").find("master_passwd"), std::string::npos)
      << "an empty master password on a fresh document stores no key";

  MigrationTask task("office");
  GeneralSetting general;
  general.taskName = "office";
  general.maxCcrtUser = 3;
  general.serverSetting.addr = "imap.example.test";
  general.serverSetting.port = 993;
  general.serverSetting.enableMasterUser = true;
  general.serverSetting.masterAcnt = "admin";
  general.serverSetting.masterPasswd = "Master-Secret-1";
  ASSERT_EQ(task.saveGeneral(general), 0);
  ASSERT_EQ(task.saveUser({{"alice@old", "Alice-Secret-2", "alice", 0, 0},
                           {"bob@old", "", "bob", 7, 0}}),
            0);
  const std::string config = qsvtest::ReadFile(kData + "office/config");
  const std::string users = qsvtest::ReadFile(kData + "office/user_list");
  EXPECT_EQ(config.find("Master-Secret-1"), std::string::npos);
  EXPECT_NE(config.find("\"master_passwd\""), std::string::npos);
  EXPECT_EQ(users.find("Alice-Secret-2"), std::string::npos);
  EXPECT_NE(users.find("\"src_passwd\":\"\""), std::string::npos) << "empty stays empty";
  ExpectPrivate(kData + "office/config");
  ExpectPrivate(kData + "office/user_list");

  // A second save with the password field empty keeps the stored one.
  general.serverSetting.masterPasswd.clear();
  general.maxCcrtConn = 4;
  ASSERT_EQ(MigrationTask("office").saveGeneral(general), 0);

  {
    qsvtest::SyslogCapture log;
    std::list<UserInfo> read;
    EXPECT_EQ(MigrationTask("office").loadUser(read, ""), -1) << "root may not decipher";
    EXPECT_EQ(log.Matching("You must call this function with identity \"Quillon-Server\"").size(),
              1u);
  }
  const int asPackageUser = qsvtest::RunWithEffectiveIds(
      qsvtest::UidOf("Quillon-Server"), qsvtest::GidOf("Quillon-Server"), [] {
        MigrationTask task("office");
        std::list<UserInfo> read;
        ServerSetting server;
        GeneralSetting general;
        if (task.loadUser(read, "") != 0 || read.size() != 2) return 1;
        if (read.front().srcPasswd != "Alice-Secret-2" || read.back().srcPasswd != "") return 2;
        if (read.back().status != 7 || read.front().checkResult != 0) return 3;
        if (task.getServer(server) != 0 || server.masterPasswd != "Master-Secret-1") return 4;
        if (task.loadGeneral(general) != 0 || general.maxCcrtConn != 4 ||
            general.maxCcrtUser != 3 || server.port != 993) {
          return 5;
        }
        return 0;
      });
  EXPECT_EQ(asPackageUser, 0);
}

TEST_F(MigrationSettingsTest, FiltersKeywordsImportAndStatesReadAsStored) {
  MigrationTask task("filters");
  FilterSetting filter;
  filter.keywordList = {"Archive", "Old", "Archive"};
  filter.exceptionList = {"Keep"};
  ASSERT_EQ(task.saveKeyword(filter, true), 0);
  ASSERT_EQ(task.saveKeyword(filter, false), 0);
  filter.ignoreTrash = true;
  filter.sizeLimit = 25;
  ASSERT_EQ(task.saveFilter(filter), 0) << "keeps the lists it doesn't own";
  FilterSetting back;
  ASSERT_EQ(MigrationTask("filters").loadFilter(back), 0);
  EXPECT_EQ(back.keywordList, (std::set<std::string>{"Archive", "Old"}));
  EXPECT_EQ(back.exceptionList, (std::set<std::string>{"Keep"}));
  EXPECT_TRUE(back.ignoreTrash);
  EXPECT_EQ(back.sizeLimit, 25);

  // An uploaded list: checked, then put in the task enciphered.
  qsvtest::WriteFile("/tmp/users.csv", "# source, password, destination\nann@old,\"pa,ss\",ann\ncid@old,x\n");
  qsvtest::WriteFile("/tmp/bad.csv", "ann@old\n");
  EXPECT_EQ(MigrationTask::checkUserListFile("/tmp/users.csv"), 0);
  EXPECT_EQ(MigrationTask::checkUserListFile("/tmp/bad.csv"), -1);
  EXPECT_EQ(MigrationTask::checkUserListFile("/tmp/missing.csv"), -1);
  ASSERT_EQ(task.convertUserListFile("/tmp/users.csv"), 0);
  const std::string users = qsvtest::ReadFile(kData + "filters/user_list");
  EXPECT_EQ(users.find("pa,ss"), std::string::npos);
  EXPECT_NE(users.find("\"dest_acnt\":\"cid@old\""), std::string::npos);
  ExpectPrivate(kData + "filters/user_list");

  // Run outcomes, as the exit file reads.
  EXPECT_EQ(task.getTaskStatus(), 0) << "never run";
  mkdir((kData + "filters/offlineimap_data").c_str(), 0755);
  for (const auto &[content, state] :
       std::vector<std::pair<std::string, int>>{{"0\n", 5}, {"1\n", 4}, {"143\n", 6}, {"x", 5}}) {
    qsvtest::WriteFile(kData + "filters/offlineimap_data/exit_status", content);
    EXPECT_EQ(task.getTaskStatus(), state) << content;
  }
  // A pid file of a process that is gone reads as not running.
  qsvtest::WriteFile(kData + "filters/offlineimap_data/pid", "999999\n");
  EXPECT_EQ(MigrationTask::isTaskRunning("filters"), 0);

  // Schedules: a time to come waits; a past one never run reads as never run; off removes it.
  const std::string name = "q'$HOME`id`";
  GeneralSetting general;
  general.taskName = name;
  general.enableScheduleTask = true;
  general.scheduleStartTime = time(nullptr) + 3600;
  ASSERT_EQ(MigrationTask(name).saveGeneral(general), 0);
  EXPECT_EQ(MigrationTask(name).getTaskStatus(), 1);
  const std::string command = ScheduledCommand(name);
  char buffer[1024];
  const char *words[8];
  ASSERT_EQ(KOLTSchedCommandSplit(command.c_str(), buffer, sizeof(buffer), words, 8), 3);
  EXPECT_STREQ(words[0], "/var/packages/Quillon-Server/target/bin/kolt_migration_task_util");
  EXPECT_STREQ(words[2], name.c_str()) << "the name reaches the tool as it is";
  general.scheduleStartTime = time(nullptr) - 3600;
  ASSERT_EQ(MigrationTask(name).saveGeneral(general), 0);
  EXPECT_EQ(MigrationTask(name).getTaskStatus(), 0);
  general.enableScheduleTask = false;
  ASSERT_EQ(MigrationTask(name).saveGeneral(general), 0);
  EXPECT_EQ(ScheduledCommand(name), "");

  // Names that would leave the data folder are refused before anything is written.
  for (const std::string bad : {"../etc", "a\"b", "..", "c:d"}) {
    general.taskName = bad;
    EXPECT_EQ(MigrationTask(bad).saveGeneral(general), -1) << bad;
  }
  EXPECT_EQ(MigrationMgr::deleteTask(""), -1);
  std::list<std::string> tasks;
  ASSERT_EQ(MigrationMgr::listAllTask(tasks, "filt"), 0);
  EXPECT_EQ(tasks, std::list<std::string>{"filters"});
  ASSERT_EQ(MigrationMgr::deleteTask("filters"), 0);
  EXPECT_FALSE(MigrationTask::taskDirExist(kData + "filters"));
}

TEST_F(MigrationSettingsTest, MailserverctlRefusesBadInputAndChangesNothing) {
  for (const std::vector<std::string> &bad :
       {std::vector<std::string>{"migration", "add", "../x", "--server", "h.test"},
        {"migration", "add", "ctl"},
        {"migration", "add", "ctl", "--server", "h.test", "--port", "70000"},
        {"migration", "add", "ctl", "--server", "bad host;"},
        {"migration", "start", "ctl"},
        {"migration", "schedule", "ctl", "tomorrow"}}) {
    const qsvtest::CtlResult result = qsvtest::RunCtl(bad);
    EXPECT_EQ(result.status, 1) << bad[2] << ": " << result.output;
    EXPECT_EQ(std::count(result.output.begin(), result.output.end(), '\n'), 1) << result.output;
  }
  EXPECT_FALSE(MigrationTask::taskDirExist(kData + "ctl"));

  ASSERT_EQ(qsvtest::RunCtl({"migration", "add", "ctl", "--server", "imap.old.test"}).status, 0);
  qsvtest::WriteFile("/tmp/ctl.csv", "ann@old,Ann-Secret,ann\n");
  const qsvtest::CtlResult users =
      qsvtest::RunCtl({"migration", "users", "ctl", "--file", "/tmp/ctl.csv"});
  EXPECT_EQ(users.status, 0) << users.output;
  EXPECT_NE(users.output.find("ann@old"), std::string::npos) << users.output;
  EXPECT_EQ(users.output.find("Ann-Secret"), std::string::npos);
  EXPECT_EQ(qsvtest::RunCtl({"migration", "add", "ctl", "--server", "x.test"}).status, 1);
  const qsvtest::CtlResult status = qsvtest::RunCtl({"migration", "status", "ctl"});
  EXPECT_EQ(status.output, "\"ctl\": never run\n");
  EXPECT_EQ(qsvtest::RunCtl({"migration", "log", "ctl"}).output, "0 rows\n");
  EXPECT_EQ(qsvtest::RunCtl({"migration", "remove", "ctl"}).status, 0);
  EXPECT_FALSE(MigrationTask::taskDirExist(kData + "ctl"));
}

}  // namespace
