// One node's view of the cluster on a one-node cluster set up by mailserverctl: identity, roles,
// health and the cluster-wide state keys, with the real ClusterDaemon.sh answering for health
// unless a test puts a failing one in its place.
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
using KOLT::QUILLON_SERVER::Role;
using Clock = std::chrono::steady_clock;

const std::string kClusterDaemon = "/var/packages/Quillon-Server/target/scripts/ClusterDaemon.sh";
const std::string kRedisConf = "/var/packages/Quillon-Server/etc/redis/redis.conf";
const std::string kHealthCache = "/tmp/quillon_server/service_status/cluster_health";

// Moves a file aside for the life of the object.
class Aside {
 public:
  explicit Aside(const std::string &path) : path_(path), away_(path + ".aside") {
    rename(path_.c_str(), away_.c_str());
  }
  ~Aside() { rename(away_.c_str(), path_.c_str()); }

 private:
  std::string path_, away_;
};

// A ClusterDaemon.sh whose status says the cluster is broken, in place of the real one.
class BrokenCluster {
 public:
  BrokenCluster() : real_(kClusterDaemon), script_(kClusterDaemon, 1) {}

 private:
  Aside real_;
  qsvtest::RecordingScript script_;
};

class NodeTest : public testing::Test {
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
  static bool InStore(const std::string &fullKey) {
    auto *reply = static_cast<redisReply *>(redisCommand(redis_, "EXISTS %s", fullKey.c_str()));
    const bool found = reply->integer == 1;
    freeReplyObject(reply);
    return found;
  }
  const std::string &self() const { return cluster_->hostId(); }

  static qsvtest::OneNodeCluster *cluster_;
  static redisContext *redis_;
};
qsvtest::OneNodeCluster *NodeTest::cluster_ = nullptr;
redisContext *NodeTest::redis_ = nullptr;

TEST_F(NodeTest, ANodeThatNeverJoinedKnowsNothingAndSaysSoQuietly) {
  Aside conf(kRedisConf);
  qsvtest::SyslogCapture log;
  {
    // The id is on disk, but the constructor must not have read it: no interface comes of it.
    KOLTMailNodeCluster node;
    EXPECT_FALSE(node.isClusterInited());
    EXPECT_EQ(node.getErrorCode(), 8);
    EXPECT_EQ(node.getHostIF(), "");
  }
  {
    Aside id(std::string(kMailConfDir) + "local_id_file");
    KOLTMailNodeCluster node;
    EXPECT_EQ(node.getHostID(), "");
    EXPECT_EQ(node.getHostIP(), "");
  }
  for (const auto &line : log.Lines()) EXPECT_GT(line.priority & 7, 3) << line.message;
}

TEST_F(NodeTest, IdentityAndAddressesComeFromTheMappingTable) {
  KOLTMailNodeCluster node;
  EXPECT_TRUE(node.isClusterInited());
  EXPECT_EQ(node.getHostID(), self());
  EXPECT_EQ(node.getHostIP(), "127.0.0.1");
  EXPECT_EQ(node.getHostIF(), "lo");
  EXPECT_EQ(node.getBalancerIF(), "lo:QSV");
  EXPECT_EQ(node.ipToID("127.0.0.1"), self());
  EXPECT_EQ(node.getPeersNum(), 1);

  qsvtest::SyslogCapture log;
  EXPECT_EQ(node.idToIP("mailserver_id-1"), "");
  EXPECT_EQ(node.ipToID("10.9.8.7"), "");
  const auto lines = log.Lines();
  ASSERT_EQ(lines.size(), 1u);
  EXPECT_NE(lines[0].message.find("Failed to find ID of ip:[10.9.8.7]"), std::string::npos);
}

TEST_F(NodeTest, RolesAreHeldByExactId) {
  Role role;
  ASSERT_TRUE(KOLTMailNodeCluster().nodeRoleGet(role));
  EXPECT_TRUE(role.mailer && role.storager && role.balancer && role.balancerMaster);

  // An id that merely begins with this node's id is another node.
  ASSERT_EQ(mailConfSet("storager", self() + "0 mailserver_id-9", true, 0), 0);
  ASSERT_EQ(mailConfSet("balancer_master_node", self() + "0", true, 0), 0);
  ASSERT_TRUE(KOLTMailNodeCluster().nodeRoleGet(role));
  EXPECT_TRUE(role.mailer && role.balancer);
  EXPECT_FALSE(role.storager);
  EXPECT_FALSE(role.balancerMaster);
  ASSERT_EQ(mailConfSet("storager", self(), true, 0), 0);
  ASSERT_EQ(mailConfSet("balancer_master_node", self(), true, 0), 0);
}

TEST_F(NodeTest, HealthComesFromTheScriptOrItsCache) {
  KOLTMailNodeCluster node;
  {
    qsvtest::SyslogCapture log;
    const auto start = Clock::now();
    EXPECT_FALSE(node.waitClusterHealth(0));
    EXPECT_LT(std::chrono::duration<double>(Clock::now() - start).count(), 1.0);
    EXPECT_EQ(log.Matching("cannot be health in time [0]").size(), 1u);
  }
  unlink(kHealthCache.c_str());
  {
    qsvtest::SyslogCapture log;
    EXPECT_FALSE(node.isClusterHealth(true));
    EXPECT_EQ(log.Matching("Failed to load file").size(), 1u);
  }
  EXPECT_TRUE(node.isClusterHealth(false));
  EXPECT_TRUE(node.isClusterHealth(true));
  {
    BrokenCluster broken;
    EXPECT_FALSE(node.isClusterHealth(false));
    EXPECT_FALSE(node.isClusterHealth(true));
  }
  EXPECT_TRUE(node.isClusterHealth(false));
}

TEST_F(NodeTest, TheClusterStatusIsTwoWhileUnhealthyWhateverTheKeySays) {
  KOLTMailNodeCluster node;
  ASSERT_EQ(node.getClusterStatus(), ClusterStatus(1));
  node.setClusterStatus(ClusterStatus(1));  // no key to remove
  EXPECT_EQ(node.getClusterStatus(), ClusterStatus(1));
  node.setClusterStatus(ClusterStatus(5));
  EXPECT_EQ(node.getClusterStatus(), ClusterStatus(5));
  {
    BrokenCluster broken;
    EXPECT_EQ(node.getClusterStatus(), ClusterStatus(2));
  }
  EXPECT_EQ(node.getClusterStatus(), ClusterStatus(5));
  node.setClusterStatus(ClusterStatus(1));
  EXPECT_EQ(node.getClusterStatus(), ClusterStatus(1));
  EXPECT_FALSE(InStore("mailserver/cluster/quillon_server_cluster_status"));
}

TEST_F(NodeTest, SyncFlagsAndTheDispatcherSuspensionRoundTrip) {
  KOLTMailNodeCluster node;
  node.removeDir("service_change");
  EXPECT_FALSE(node.isClusterSyncing());
  ASSERT_TRUE(node.setServiceSync("mailserver_service_postfix", self(), false, 30, ""));
  EXPECT_TRUE(node.isClusterSyncing());
  ASSERT_TRUE(node.setServiceSync("mailserver_service_postfix", self(), true, 0, ""));
  EXPECT_FALSE(node.isClusterSyncing());

  EXPECT_FALSE(node.isSuspendMailEventDispatcher());
  node.suspendMailEventDispatcher();
  EXPECT_TRUE(node.isSuspendMailEventDispatcher());
  EXPECT_TRUE(InStore("suspend/MailEventDispatcherSuspend"));
  node.unSuspendMailEventDispatcher();
  EXPECT_FALSE(node.isSuspendMailEventDispatcher());
}

}  // namespace
