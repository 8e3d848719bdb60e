// The backend wrapper against a real Redis through the real key store tool: values, trees, tasks,
// the cluster-wide locks, and the question of which node is the replication master.
#include <unistd.h>

#include <chrono>
#include <string>
#include <vector>

#include <gtest/gtest.h>
#include <hiredis/hiredis.h>

#include "cluster/backendWrapper.h"
#include "config/mail_conf.h"
#include "harness/one_node_cluster.h"
#include "harness/recording_script.h"

namespace {

using KOLT::QUILLON_SERVER::QuillonServerBACKENDWrap;
using Clock = std::chrono::steady_clock;

const std::string kTool = "/var/packages/Quillon-Server/target/usr/bin/kolt-quillon-server-go-utils";
const std::string kClusterDaemon = "/var/packages/Quillon-Server/target/scripts/ClusterDaemon.sh";

double SecondsSince(Clock::time_point start) {
  return std::chrono::duration<double>(Clock::now() - start).count();
}

class BackendTest : public testing::Test {
 protected:
  static void SetUpTestSuite() {
    cluster_ = new qsvtest::OneNodeCluster();
    redis_ = redisConnect("127.0.0.1", 8500);
    freeReplyObject(redisCommand(redis_, "AUTH %s", cluster_->password().c_str()));
  }
  static void TearDownTestSuite() {
    redisFree(redis_);
    delete cluster_;
  }
  // Runs a command with up to two string arguments; the reply as text, "(nil)" for no value.
  static std::string Redis(const char *command, const std::string &a, const std::string &b = "") {
    auto *reply = static_cast<redisReply *>(redisCommand(redis_, command, a.c_str(), b.c_str()));
    std::string text = reply->type == REDIS_REPLY_STRING    ? std::string(reply->str, reply->len)
                       : reply->type == REDIS_REPLY_INTEGER ? std::to_string(reply->integer)
                                                            : "(nil)";
    freeReplyObject(reply);
    return text;
  }

  QuillonServerBACKENDWrap backend_;
  static qsvtest::OneNodeCluster *cluster_;
  static redisContext *redis_;
};
qsvtest::OneNodeCluster *BackendTest::cluster_ = nullptr;
redisContext *BackendTest::redis_ = nullptr;

TEST_F(BackendTest, ValuesTravelWhole) {
  const std::string big = std::string(100 * 1024, 'v') + " with \"quotes\"\nand lines\n";
  ASSERT_TRUE(backend_.setKey("big_value", big, 0));
  EXPECT_EQ(Redis("GET %s", "mailserver/conf/big_value"), big);
  std::string value;
  ASSERT_TRUE(backend_.getKey("big_value", value, false));
  EXPECT_EQ(value, big);
  value.clear();
  ASSERT_TRUE(backend_.getKey("big_value", value, true));
  EXPECT_EQ(value, big);
  EXPECT_TRUE(backend_.exist("big_value"));

  value = "left over";
  EXPECT_FALSE(backend_.getKey("never_set", value, false));
  EXPECT_EQ(value, "");
  EXPECT_FALSE(backend_.exist("never_set"));
}

TEST_F(BackendTest, TreesListTheirChildrenAndSkipUnreadableOnes) {
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
  EXPECT_FALSE(backend_.exist(dir + "/one"));
  EXPECT_EQ(Redis("EXISTS %s", dir + "/hash"), "0");
}

TEST_F(BackendTest, TasksOfAnUnknownKindKeepTheirForm) {
  ASSERT_TRUE(backend_.taskAdd("mailserver_id-5", "17", "some_key", 7, "conf"));
  EXPECT_EQ(Redis("GET %s", "task_queue/mailserver_id-5/17"), "|conf|some_key");
  ASSERT_TRUE(backend_.taskAdd("mailserver_id-5", "18", "a_file", 3, "file"));
  EXPECT_EQ(Redis("GET %s", "task_queue/mailserver_id-5/18"), "FILE|file|a_file");
  EXPECT_TRUE(backend_.taskExist("mailserver_id-5", "17"));
  EXPECT_FALSE(backend_.taskExist("mailserver_id-6", "17"));
  EXPECT_TRUE(backend_.removeDir("task_queue/mailserver_id-5"));
  EXPECT_FALSE(backend_.taskExist("mailserver_id-5", "17"));
}

TEST_F(BackendTest, ALockHasOneHolderUntilReleasedOrLapsed) {
  ASSERT_TRUE(backend_.acquireLock("upload", 1));
  EXPECT_FALSE(backend_.acquireLock("upload", 1));
  EXPECT_EQ(mailClusterLockAcquire_c("upload", 60), -1);
  usleep(1500 * 1000);
  EXPECT_TRUE(backend_.acquireLock("upload", 60));
  EXPECT_FALSE(backend_.acquireLock("upload", 60));
  EXPECT_TRUE(backend_.releaseLock("upload"));
  EXPECT_TRUE(backend_.acquireLock("upload", 60));
  EXPECT_EQ(mailClusterLockRelease_c("upload"), 0);

  // No tries: no answer and no lock, at once.
  auto start = Clock::now();
  EXPECT_FALSE(backend_.getUploadKeyLock("upload", 0));
  EXPECT_LT(SecondsSince(start), 0.5);
  EXPECT_EQ(Redis("EXISTS %s", "quillon_server_lock/upload"), "0");

  ASSERT_EQ(mailClusterLockAcquire_c("upload", 60), 0);
  start = Clock::now();
  EXPECT_FALSE(backend_.getUploadKeyLock("upload", 5));
  EXPECT_GT(SecondsSince(start), 4.0);
  EXPECT_LT(SecondsSince(start), 8.0);
  ASSERT_TRUE(backend_.releaseLock("upload"));
  EXPECT_TRUE(backend_.getUploadKeyLock("upload", 5));
  // A holder that dies leaves the lock for a day.
  EXPECT_GT(std::stoll(Redis("TTL %s", "quillon_server_lock/upload")), 86000);
  EXPECT_TRUE(backend_.releaseLock("upload"));
}

TEST_F(BackendTest, TheMasterIsThisNodeByItsExactAddress) {
  EXPECT_TRUE(backend_.isRedisMaster());
  const std::string away = kTool + ".aside";
  ASSERT_EQ(rename(kTool.c_str(), away.c_str()), 0);
  {
    qsvtest::RecordingScript tool(kTool, 0, "127.0.0.1\n");
    EXPECT_FALSE(backend_.isRedisMaster());
  }
  ASSERT_EQ(rename(away.c_str(), kTool.c_str()), 0);
}

TEST_F(BackendTest, AStoppedStoreLooksLikeAMissingKey) {
  ASSERT_TRUE(backend_.setKey("present", "1", 0));
  ASSERT_EQ(qsvtest::RunProgram(kClusterDaemon, "stop"), 0);
  EXPECT_FALSE(backend_.exist("present"));
  EXPECT_FALSE(backend_.setKey("present", "2", 0));
  ASSERT_EQ(qsvtest::RunProgram(kClusterDaemon, "start"), 0);
  redisReconnect(redis_);
  freeReplyObject(redisCommand(redis_, "AUTH %s", cluster_->password().c_str()));
}

}  // namespace
