// The backend wrapper against a real Redis through the real key store tool, and the node's view of
// the cluster.
#include <unistd.h>

#include <chrono>
#include <string>

#include <gtest/gtest.h>
#include <hiredis/hiredis.h>

#include "cluster/mailserver_cluster.h"
#include "config/mail_conf.h"
#include "core/mail_conf.h"
#include "harness/one_node_cluster.h"
#include "harness/recording_script.h"
#include "harness/syslog_capture.h"

namespace {

using KOLT::QUILLON_SERVER::ClusterStatus;
using KOLT::QUILLON_SERVER::KOLTMailNodeCluster;
using KOLT::QUILLON_SERVER::QuillonServerBACKENDWrap;
using KOLT::QUILLON_SERVER::Role;
using Clock = std::chrono::steady_clock;

const char kTool[] = "/var/packages/Quillon-Server/target/usr/bin/kolt-quillon-server-go-utils";
const char kRealTool[] = "/var/packages/Quillon-Server/target/usr/bin/real-go-utils";
const char kHealthCache[] = "/tmp/quillon_server/service_status/cluster_health";

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
  static void Redis(const char *command, const std::string &a, const std::string &b = "") {
    freeReplyObject(redisCommand(redis_, command, a.c_str(), b.c_str()));
  }
  static qsvtest::OneNodeCluster *cluster_;
  static redisContext *redis_;
};
qsvtest::OneNodeCluster *BackendTest::cluster_ = nullptr;
redisContext *BackendTest::redis_ = nullptr;

TEST_F(BackendTest, KeysValuesAndTrees) {
  QuillonServerBACKENDWrap backend;
  const std::string big(100 * 1024, 'v');
  ASSERT_TRUE(backend.setKey("big_value", big + " with\nlines", 0));
  std::string value;
  ASSERT_TRUE(backend.getKey("big_value", value, false));
  EXPECT_EQ(value, big + " with\nlines");
  ASSERT_TRUE(backend.getKey("big_value", value, true));
  EXPECT_FALSE(backend.getKey("never_set", value, false));
  EXPECT_EQ(value, "");
  EXPECT_FALSE(backend.exist("never_set"));

  Json::Value tree(Json::objectValue);
  EXPECT_TRUE(backend.getTree("no_such_tree", tree));
  EXPECT_TRUE(tree.empty());
  // The heartbeats of the nodes' callbacks, one child each.
  const std::string dir = "health_check_heartbeat_dir";
  Redis("SET %s %s", dir + "/one", "1");
  Redis("SET %s %s", dir + "/two", "2");
  Redis("HSET %s f %s", dir + "/hash", "x");  // GET of it fails: the child can't be read
  std::vector<std::string> children;
  ASSERT_TRUE(backend.ls(dir, children));
  EXPECT_EQ(children, (std::vector<std::string>{"hash", "one", "two"}));
  ASSERT_TRUE(backend.getTree(dir, tree));
  EXPECT_EQ(tree.getMemberNames(), (std::vector<std::string>{"one", "two"}));
  EXPECT_EQ(tree["two"].asString(), "2");

  ASSERT_TRUE(backend.taskAdd("mailserver_id-5", "17", "some_key", 7, "conf"));
  ASSERT_TRUE(backend.getKey("task_queue/mailserver_id-5/17", value, false));
  EXPECT_EQ(value, "|conf|some_key");
  EXPECT_TRUE(backend.taskExist("mailserver_id-5", "17"));
  EXPECT_TRUE(backend.removeDir("task_queue"));
  EXPECT_FALSE(backend.taskExist("mailserver_id-5", "17"));
}

TEST_F(BackendTest, ClusterLocks) {
  QuillonServerBACKENDWrap backend;
  ASSERT_TRUE(backend.acquireLock("upload", 1));
  EXPECT_FALSE(backend.acquireLock("upload", 1));
  EXPECT_EQ(mailClusterLockAcquire_c("upload", 60), -1);
  usleep(1500 * 1000);
  EXPECT_TRUE(backend.acquireLock("upload", 60)) << "the lock lapses with its time to live";
  EXPECT_TRUE(backend.releaseLock("upload"));
  EXPECT_EQ(mailClusterLockAcquire_c("upload", 60), 0);

  auto start = Clock::now();
  EXPECT_FALSE(backend.getUploadKeyLock("upload", 0));
  EXPECT_LT(SecondsSince(start), 0.5);
  start = Clock::now();
  EXPECT_FALSE(backend.getUploadKeyLock("upload", 5));
  EXPECT_GT(SecondsSince(start), 4.0);
  EXPECT_LT(SecondsSince(start), 8.0);
  EXPECT_EQ(mailClusterLockRelease_c("upload"), 0);
  EXPECT_TRUE(backend.getUploadKeyLock("upload", 5));
}

TEST_F(BackendTest, RedisMasterIsThisNodeByExactAddress) {
  QuillonServerBACKENDWrap backend;
  EXPECT_TRUE(backend.isRedisMaster());
  rename(kTool, kRealTool);
  {
    qsvtest::RecordingScript tool(kTool, 0, "127.0.0.1\n");
    EXPECT_FALSE(backend.isRedisMaster()) << "a line end makes another address";
  }
  rename(kRealTool, kTool);
}

TEST_F(BackendTest, NodeIdentityRolesAndHealth) {
  KOLTMailNodeCluster node;
  EXPECT_TRUE(node.isClusterInited());
  EXPECT_EQ(node.getHostID(), cluster_->hostId());
  EXPECT_EQ(node.getHostIP(), "127.0.0.1");
  EXPECT_EQ(node.getHostIF(), "lo");
  Role role;
  ASSERT_TRUE(node.nodeRoleGet(role));
  EXPECT_TRUE(role.mailer && role.storager && role.balancer && role.balancerMaster);
  EXPECT_EQ(node.getPeersNum(), 1);
  EXPECT_EQ(node.idToIP("mailserver_id-unknown"), "");
  {
    qsvtest::SyslogCapture log;
    EXPECT_EQ(node.ipToID("10.9.8.7"), "");
    EXPECT_EQ(log.Matching("Failed to find ID of ip:[10.9.8.7]").size(), 1u);
  }
  EXPECT_EQ(node.ipToID("127.0.0.1"), cluster_->hostId());

  {
    qsvtest::SyslogCapture log;
    auto start = Clock::now();
    EXPECT_FALSE(node.waitClusterHealth(0));
    EXPECT_LT(SecondsSince(start), 1.0);
    EXPECT_EQ(log.Matching("cannot be health in time [0]").size(), 1u);
  }
  unlink(kHealthCache);
  {
    qsvtest::SyslogCapture log;
    EXPECT_FALSE(node.isClusterHealth(true)) << "no cache, no answer, even when healthy";
    EXPECT_EQ(log.Matching("Failed to load file").size(), 1u);
  }
  EXPECT_TRUE(node.isClusterHealth(false));
  EXPECT_TRUE(node.isClusterHealth(true));

  EXPECT_EQ(node.getClusterStatus(), ClusterStatus(1));
  node.setClusterStatus(ClusterStatus(1));  // no key: harmless
  node.setClusterStatus(ClusterStatus(5));
  EXPECT_EQ(node.getClusterStatus(), ClusterStatus(5));
  node.setClusterStatus(ClusterStatus(1));
  EXPECT_EQ(node.getClusterStatus(), ClusterStatus(1));

  EXPECT_FALSE(node.isSuspendMailEventDispatcher());
  node.suspendMailEventDispatcher();
  EXPECT_TRUE(node.isSuspendMailEventDispatcher());
  node.unSuspendMailEventDispatcher();
  EXPECT_FALSE(node.isSuspendMailEventDispatcher());
}

TEST_F(BackendTest, AStoppedStoreLooksLikeAMissingKeyAndAnUnhealthyCluster) {
  QuillonServerBACKENDWrap backend;
  ASSERT_TRUE(backend.setKey("present", "1", 0));
  ASSERT_EQ(qsvtest::RunProgram("/var/packages/Quillon-Server/target/scripts/ClusterDaemon.sh",
                                "stop"),
            0);
  EXPECT_FALSE(backend.exist("present"));
  KOLTMailNodeCluster node;
  EXPECT_EQ(node.getClusterStatus(), ClusterStatus(2));
  EXPECT_TRUE(node.isClusterInited());
  ASSERT_EQ(qsvtest::RunProgram("/var/packages/Quillon-Server/target/scripts/ClusterDaemon.sh",
                                "start"),
            0);
  EXPECT_TRUE(node.isClusterHealth(false));
  EXPECT_TRUE(backend.exist("present"));
}

TEST(UninitialisedNodeTest, ReadsNothingAndComplainsAtNoErrorLevel) {
  // A node that never joined has neither the Redis configuration nor an id.
  const std::string conf = "/var/packages/Quillon-Server/etc/redis/redis.conf";
  const std::string id = std::string(kMailConfDir) + "local_id_file";
  rename(conf.c_str(), (conf + ".away").c_str());
  rename(id.c_str(), (id + ".away").c_str());
  qsvtest::SyslogCapture log;
  {
    KOLTMailNodeCluster node;
    EXPECT_FALSE(node.isClusterInited());
    EXPECT_EQ(node.getHostIP(), "");
    EXPECT_EQ(node.getErrorCode(), 8);
  }
  for (const auto &line : log.Lines()) EXPECT_NE(line.priority & 7, 3) << line.message;
  rename((conf + ".away").c_str(), conf.c_str());
  rename((id + ".away").c_str(), id.c_str());
}

}  // namespace
