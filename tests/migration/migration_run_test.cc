// Migration runs between two real Dovecots on loopback: a source with its own users and Maildirs,
// and this server's own Dovecot, entered through the task's master user. offlineimap3 does the
// copying behind the package's wrapper.
#include <signal.h>
#include <sys/stat.h>
#include <unistd.h>

#include <chrono>
#include <ctime>
#include <memory>
#include <string>

#include <gtest/gtest.h>

#include "config/imap_pop3.h"
#include "core/mail_dir.h"
#include "foundation/mail_dir_path.h"
#include "harness/one_node_cluster.h"
#include "harness/recording_script.h"
#include "harness/run_as.h"
#include "kolt/exec.h"
#include "kolt/sched.h"
#include "migration/imap_source.h"
#include "migration/migration.h"

using namespace KOLT::QUILLON_SERVER;

namespace {

const int kSourcePort = 10143;
const std::string kData = "/var/packages/Quillon-Server/target/var/migration_data/";
const std::string kMasterUsers =
    "/var/packages/Quillon-Server/target/etc/dovecot/conf.d/master-users";

void AddSystemUser(const std::string &name) {
  ASSERT_EQ(qsvtest::RunProgram("/usr/sbin/useradd", "-M", name), 0);
  ASSERT_EQ(mailDirPathCreate(qsvtest::UidOf(name), qsvtest::GidOf(name)), 0);
}

std::string LocalMaildir(const std::string &user) {
  std::string dir;
  mailDirGet(qsvtest::UidOf(user), dir);
  return dir + "/Maildir";
}

// Waits until the task's run or test is over; false after `seconds`.
bool WaitIdle(const std::string &task, int seconds) {
  for (int i = 0; i < seconds * 10; i++) {
    if (MigrationTask::isTaskRunning(task) == 0) return true;
    usleep(100000);
  }
  return false;
}

// A task over the source with the given users (source, password, destination).
void MakeTask(const std::string &name, const std::list<UserInfo> &users, int port = kSourcePort) {
  GeneralSetting general;
  general.taskName = name;
  general.maxCcrtUser = 2;
  general.serverSetting.addr = "127.0.0.1";
  general.serverSetting.port = port;
  MigrationTask task(name);
  ASSERT_EQ(task.saveGeneral(general), 0);
  ASSERT_EQ(task.saveUser(users), 0);
}

class MigrationRunTest : public testing::Test {
 protected:
  static void SetUpTestSuite() {
    cluster_ = new qsvtest::OneNodeCluster();
    for (const char *user : {"qsvmig1", "qsvmig2", "qsvmig3"}) AddSystemUser(user);
    ImapPop3 settings;
    ASSERT_EQ(settings.LoadSettings(), 0);
    settings.Set("imap_enabled", boost::any(Value<bool>(true)));
    ASSERT_EQ(settings.SaveSettings({}), 0);
    ASSERT_EQ(ImapPop3::Service("start"), 0);
    source_ = new qsvtest::ImapSource(kSourcePort);
    source_->AddUser("alice", "Alice-Pass");
    source_->AddUser("bob", "Bob-Pass");
    source_->AddUser("carol", "Carol-Pass");
    source_->AddMessages("alice", "INBOX", 120, "alice-inbox");
    source_->AddMessages("alice", "Work", 80, "alice-work");
    source_->AddMessages("bob", "INBOX", 60, "bob-inbox");
    source_->AddMessages("carol", "INBOX", 4000, "carol-inbox", 20000);
  }
  static void TearDownTestSuite() {
    delete source_;
    ImapPop3::Service("stop");
    delete cluster_;
  }
  static qsvtest::OneNodeCluster *cluster_;
  static qsvtest::ImapSource *source_;
};
qsvtest::OneNodeCluster *MigrationRunTest::cluster_ = nullptr;
qsvtest::ImapSource *MigrationRunTest::source_ = nullptr;

TEST_F(MigrationRunTest, ConnectionAndLoginTestsTellRightFromWrong) {
  std::string result;
  ASSERT_EQ(MigrationTask::connTest(result, "127.0.0.1", kSourcePort, false), 0);
  EXPECT_EQ(result, "success");
  ASSERT_EQ(MigrationTask::connTest(result, "127.0.0.1", kSourcePort + 1, false), 0);
  EXPECT_EQ(result, "failure");
  EXPECT_EQ(qsvtest::RunProgram("/bin/sh", "-c", "ls /tmp/quillon_server | grep -q conn_test"), 1)
      << "the tests leave nothing behind";

  MakeTask("logins", {{"alice", "Alice-Pass", "qsvmig1", 0, 0},
                      {"bob", "wrong", "qsvmig2", 0, 0},
                      {"carol", "Carol-Pass", "nosuchuser", 0, 0}});
  MigrationTask task("logins");
  ASSERT_EQ(task.userTest(), 0);
  ASSERT_TRUE(WaitIdle("logins", 60));
  const int checked = qsvtest::RunWithEffectiveIds(
      qsvtest::UidOf("Quillon-Server"), qsvtest::GidOf("Quillon-Server"), [] {
        std::list<UserInfo> users;
        if (MigrationTask("logins").loadUser(users, "") != 0 || users.size() != 3) return 10;
        int codes = 0;
        for (const UserInfo &user : users) codes = codes * 10 + user.checkResult;
        return codes == 234 ? 0 : codes % 250;
      });
  EXPECT_EQ(checked, 0) << "success, failure, success without a local account";
}

TEST_F(MigrationRunTest, AScheduledRunCopiesEveryMessageAndClosesTheMasterUser) {
  // The name would do harm in a shell; the scheduler hands it over as one word.
  const std::string name = "move 'em $HOME `id`";
  MakeTask(name, {{"alice", "Alice-Pass", "qsvmig1", 0, 0}, {"bob", "Bob-Pass", "qsvmig2", 0, 0}});
  ASSERT_EQ(MigrationMgr::addMigrationSchedule(name, time(nullptr) - 60), 0);
  ASSERT_EQ(KOLTSchedRunDue(time(nullptr)), 1);
  // The scheduled start takes a moment to appear; then the run goes to its end.
  for (int i = 0; i < 100 && !MigrationTask::taskDirExist(kData + name + "/offlineimap_data"); i++)
    usleep(100000);
  for (int i = 0; i < 1200; i++) {
    if (MigrationTask(name).getTaskStatus() >= 4) break;
    usleep(100000);
  }
  EXPECT_EQ(MigrationTask(name).getTaskStatus(), 5) << qsvtest::ReadFile(kData + name + "/offlineimap_data/exit_status");

  EXPECT_EQ(qsvtest::MessageIds(LocalMaildir("qsvmig1"), "INBOX"),
            qsvtest::MessageIds(source_->MaildirOf("alice"), "INBOX"));
  EXPECT_EQ(qsvtest::MessageIds(LocalMaildir("qsvmig1"), "Work"),
            qsvtest::MessageIds(source_->MaildirOf("alice"), "Work"));
  EXPECT_EQ(qsvtest::MessageIds(LocalMaildir("qsvmig2"), "INBOX").size(), 60u);
  EXPECT_EQ(qsvtest::MessageIds(LocalMaildir("qsvmig1"), "Work").size(), 80u);
  EXPECT_EQ(qsvtest::ReadFile(kMasterUsers), "") << "the run's master user is gone with it";

  std::list<UserInfo> processing, done, failed;
  ASSERT_EQ(MigrationTask(name).getProcessingStatus(processing, done, failed), 0);
  EXPECT_EQ(processing.size(), 0u);
  EXPECT_EQ(done.size(), 2u);
  EXPECT_EQ(failed.size(), 0u);

  MigrationTask task(name);
  std::list<MigrationLog> rows;
  ASSERT_EQ(task.listTaskLog(rows, -1, 100, 0, "alice->qsvmig1", false, true), 0);
  ASSERT_EQ(rows.size(), 2u);
  EXPECT_EQ(rows.front().event, "Start Syncing account alice->qsvmig1");
  EXPECT_EQ(rows.back().event, "Finished Syncing account alice->qsvmig1");
  EXPECT_EQ(rows.back().severity, 6);
  const int all = task.getTaskLogNum(-1, "", false);
  EXPECT_GT(all, task.getTaskLogNum(-1, "", true)) << "folder rows are not for the user";
  ASSERT_EQ(task.listTaskLog(rows, -1, 3, 2, "", true, false), 0);
  EXPECT_EQ(rows.size(), 3u);
  EXPECT_EQ(task.getTaskLogNum(3, "", false), 0);
}

TEST_F(MigrationRunTest, AStopEndsALongRunPromptlyAndAWrongPasswordEndsWithExitCodeOne) {
  MakeTask("big", {{"carol", "Carol-Pass", "qsvmig3", 0, 0}});
  ASSERT_EQ(MigrationMgr::startTask("big"), 0);
  EXPECT_EQ(MigrationTask::isTaskRunning("big"), 1);
  EXPECT_EQ(MigrationMgr::startTask("big"), 1) << "already running";
  std::list<std::string> running;
  EXPECT_EQ(MigrationMgr::numOfRunningTask(running), 1);
  const std::string master = qsvtest::ReadFile(kMasterUsers);
  EXPECT_NE(master.find(":{SHA512-CRYPT}$6$"), std::string::npos) << master;
  EXPECT_NE(master.find("::::::allow_nets=127.0.0.1/32,::1/128\n"), std::string::npos);
  struct stat st;
  ASSERT_EQ(stat(kMasterUsers.c_str(), &st), 0);
  EXPECT_EQ(st.st_mode & 07777, 0640u);

  // Let it copy for a while, then stop it.
  std::list<UserInfo> processing, done, failed;
  for (int i = 0; i < 100 && processing.empty(); i++) {
    usleep(100000);
    MigrationTask("big").getProcessingStatus(processing, done, failed);
  }
  EXPECT_EQ(processing.size(), 1u);
  sleep(2);
  const auto before = std::chrono::steady_clock::now();
  ASSERT_EQ(MigrationMgr::stopTask("big"), 0);
  const auto took = std::chrono::steady_clock::now() - before;
  EXPECT_LT(took, std::chrono::seconds(3));
  EXPECT_EQ(MigrationTask("big").getTaskStatus(), 6);
  EXPECT_LT(qsvtest::MessageIds(LocalMaildir("qsvmig3"), "INBOX").size(), 4000u)
      << "stopped before the end";
  EXPECT_EQ(access(kMasterUsers.c_str(), F_OK), -1) << "the last task out removes the file";
  EXPECT_EQ(qsvtest::ReadFile("/var/packages/Quillon-Server/target/etc/dovecot/conf.d/auth-master.conf.ext"), "");

  MakeTask("badpass", {{"bob", "not-bobs", "qsvmig2", 0, 0}});
  const time_t started = time(nullptr);
  ASSERT_EQ(MigrationMgr::startTask("badpass"), 0);
  ASSERT_TRUE(WaitIdle("badpass", 60));
  MigrationTask task("badpass");
  EXPECT_EQ(task.getTaskStatus(), 4);
  std::list<UserInfo> errors;
  ASSERT_EQ(task.getErrorUserList(started, errors), 0);
  ASSERT_EQ(errors.size(), 1u);
  EXPECT_EQ(errors.front().srcAcnt, "bob");
  EXPECT_EQ(errors.front().destAcnt, "qsvmig2");
  std::list<MigrationLog> rows;
  ASSERT_EQ(task.listTaskLog(rows, 3, 10, 0, "bob", true, true), 0);
  ASSERT_FALSE(rows.empty());
  EXPECT_EQ(MigrationLog::convertToSeverityStr(rows.front().severity), "Error");
  EXPECT_EQ(MigrationMgr::stopAllTask(), 0);
}

}  // namespace
