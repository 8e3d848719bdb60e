// The backend wrapper against a real Redis through the real key store tool: values, trees, tasks,
// the cluster-wide locks, and which node is the replication master.
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <chrono>
#include <string>
#include <vector>

#include "cluster/backendWrapper.h"
#include "cluster/store_fixture.h"
#include "config/mail_conf.h"
#include "harness/run_as.h"

namespace {

using KOLT::QUILLON_SERVER::QuillonServerBACKENDWrap;
using Clock = std::chrono::steady_clock;

double SecondsSince(Clock::time_point start) {
  return std::chrono::duration<double>(Clock::now() - start).count();
}

class BackendTest : public qsvtest::StoreTest {
 protected:
  QuillonServerBACKENDWrap backend_;
};

TEST_F(BackendTest, ValuesTravelWhole) {
  const std::string big = std::string(100 * 1024, 'v') + " with \"quotes\"\nand lines\n";
  ASSERT_TRUE(backend_.setKey("big_value", big, 0));
  EXPECT_EQ(Redis("GET %s", "mailserver/conf/big_value"), big);
  for (bool linear : {false, true}) {
    std::string value;
    ASSERT_TRUE(backend_.getKey("big_value", value, linear));
    EXPECT_EQ(value, big);
  }
  EXPECT_TRUE(backend_.exist("big_value"));
  std::string value = "left over";
  EXPECT_FALSE(backend_.getKey("never_set", value, false));
  EXPECT_EQ(value, "");
  EXPECT_FALSE(backend_.exist("never_set"));
}

TEST_F(BackendTest, TreesAndTasks) {
  Json::Value tree(Json::objectValue);
  EXPECT_TRUE(backend_.getTree("no_such_tree", tree));
  EXPECT_TRUE(tree.empty());

  const std::string dir = "health_check_heartbeat_dir";
  Redis("SET %s %s", dir + "/one", "1");
  Redis("SET %s %s", dir + "/two", "2");
  Redis("HSET %s f %s", dir + "/hash", "x");  // GET of it fails: the child can't be read
  std::vector<std::string> children;
  ASSERT_TRUE(backend_.ls(dir, children));
  EXPECT_EQ(children, (std::vector<std::string>{"hash", "one", "two"}));
  ASSERT_TRUE(backend_.getTree(dir, tree));
  EXPECT_EQ(tree.getMemberNames(), (std::vector<std::string>{"one", "two"}));
  EXPECT_EQ(tree["two"].asString(), "2");
  EXPECT_TRUE(backend_.removeDir(dir));
  EXPECT_EQ(Redis("EXISTS %s", dir + "/hash"), "0");

  // A task of a kind without a word keeps the form of the value all the same.
  ASSERT_TRUE(backend_.taskAdd("mailserver_id-5", "17", "some_key", 7, "conf"));
  EXPECT_EQ(Redis("GET %s", "task_queue/mailserver_id-5/17"), "|conf|some_key");
  EXPECT_TRUE(backend_.taskExist("mailserver_id-5", "17"));
  EXPECT_FALSE(backend_.taskExist("mailserver_id-6", "17"));
}

TEST_F(BackendTest, ALockHasOneHolderUntilReleasedOrLapsed) {
  ASSERT_TRUE(backend_.acquireLock("upload", 1));
  EXPECT_FALSE(backend_.acquireLock("upload", 1));
  EXPECT_EQ(mailClusterLockAcquire_c("upload", 60), -1);
  usleep(1500 * 1000);
  EXPECT_TRUE(backend_.acquireLock("upload", 60));
  EXPECT_FALSE(backend_.acquireLock("upload", 60));
  EXPECT_TRUE(backend_.releaseLock("upload"));

  // No tries: no lock, at once.
  auto start = Clock::now();
  EXPECT_FALSE(backend_.getUploadKeyLock("upload", 0));
  EXPECT_LT(SecondsSince(start), 0.5);
  EXPECT_EQ(Redis("EXISTS %s", "quillon_server_lock/upload"), "0");

  ASSERT_EQ(mailClusterLockAcquire_c("upload", 60), 0);
  start = Clock::now();
  EXPECT_FALSE(backend_.getUploadKeyLock("upload", 5));
  EXPECT_GT(SecondsSince(start), 4.0);
  EXPECT_LT(SecondsSince(start), 8.0);
  ASSERT_EQ(mailClusterLockRelease_c("upload"), 0);
  EXPECT_TRUE(backend_.getUploadKeyLock("upload", 5));
  // A holder that dies leaves the lock behind for a day.
  EXPECT_GT(std::stoi(Redis("TTL %s", "quillon_server_lock/upload")), 86000);
  EXPECT_TRUE(backend_.releaseLock("upload"));
}

TEST_F(BackendTest, TheMasterIsThisNodeByItsExactAddress) {
  EXPECT_TRUE(backend_.isRedisMaster());
  qsvtest::Aside real(qsvtest::kTool);
  qsvtest::RecordingScript tool(qsvtest::kTool, 0, "127.0.0.1\n");
  EXPECT_FALSE(backend_.isRedisMaster());
}

// Whoever reads the backend password can write the store, and the root watcher carries out what
// the store says: no other local user may read it, also after the store rewrote its configuration.
TEST_F(BackendTest, ThePasswordFilesAreClosedToOtherUsers) {
  const char *const files[] = {"/var/packages/Quillon-Server/etc/backend.conf",
                               "/var/packages/Quillon-Server/etc/redis/redis.conf"};
  ASSERT_TRUE(backend_.becomeRedisMaster());
  for (const char *file : files) {
    struct stat st;
    ASSERT_EQ(stat(file, &st), 0) << file;
    EXPECT_EQ(st.st_mode & 077, 0u) << file;
    EXPECT_EQ(qsvtest::RunAsUnprivileged("nobody", [&] { return open(file, O_RDONLY) < 0 ? 0 : 1; }),
              0) << file << " opened by nobody";
  }
}

TEST_F(BackendTest, AStoppedStoreLooksLikeAMissingKey) {
  ASSERT_TRUE(backend_.setKey("present", "1", 0));
  ASSERT_EQ(qsvtest::RunProgram(qsvtest::kClusterDaemon, "stop"), 0);
  EXPECT_FALSE(backend_.exist("present"));
  EXPECT_FALSE(backend_.setKey("present", "2", 0));
  ASSERT_EQ(qsvtest::RunProgram(qsvtest::kClusterDaemon, "start"), 0);
  redisFree(redis_);
  Connect();
}

}  // namespace
