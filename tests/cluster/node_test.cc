// One node's view of the cluster on a one-node cluster set up by mailserverctl: identity, roles,
// health and the cluster-wide state keys, with the real ClusterDaemon.sh answering for health
// unless a test breaks it.
#include <unistd.h>

#include <chrono>
#include <string>

#include "cluster/mailserver_cluster.h"
#include "cluster/store_fixture.h"
#include "config/mail_conf.h"
#include "core/mail_conf.h"
#include "harness/syslog_capture.h"

namespace {

using KOLT::QUILLON_SERVER::ClusterStatus;
using KOLT::QUILLON_SERVER::KOLTMailNodeCluster;
using KOLT::QUILLON_SERVER::Role;

class NodeTest : public qsvtest::StoreTest {};

TEST_F(NodeTest, ANodeThatNeverJoinedKnowsNothingAndSaysSoQuietly) {
  qsvtest::Aside conf("/var/packages/Quillon-Server/etc/redis/redis.conf");
  qsvtest::SyslogCapture log;
  {
    // The id is still on disk, but the constructor must not read it: no interface comes of it.
    KOLTMailNodeCluster node;
    EXPECT_FALSE(node.isClusterInited());
    EXPECT_EQ(node.getErrorCode(), 8);
    EXPECT_EQ(node.getHostIF(), "");
  }
  {
    qsvtest::Aside id(std::string(kMailConfDir) + "local_id_file");
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

  // An id that merely begins with this node's id is another node's.
  ASSERT_EQ(mailConfSet("storager", self() + "0 mailserver_id-9", true, 0), 0);
  ASSERT_EQ(mailConfSet("balancer_master_node", self() + "0", true, 0), 0);
  ASSERT_TRUE(KOLTMailNodeCluster().nodeRoleGet(role));
  EXPECT_TRUE(role.mailer && role.balancer);
  EXPECT_FALSE(role.storager || role.balancerMaster);
  ASSERT_EQ(mailConfSet("storager", self(), true, 0), 0);
  ASSERT_EQ(mailConfSet("balancer_master_node", self(), true, 0), 0);
}

TEST_F(NodeTest, HealthComesFromTheScriptOrItsCache) {
  KOLTMailNodeCluster node;
  {
    qsvtest::SyslogCapture log;
    const auto start = std::chrono::steady_clock::now();
    EXPECT_FALSE(node.waitClusterHealth(0));
    EXPECT_LT(std::chrono::steady_clock::now() - start, std::chrono::seconds(1));
    EXPECT_EQ(log.Matching("cannot be health in time [0]").size(), 1u);
  }
  unlink("/tmp/quillon_server/service_status/cluster_health");
  {
    qsvtest::SyslogCapture log;
    EXPECT_FALSE(node.isClusterHealth(true));
    EXPECT_EQ(log.Matching("Failed to load file").size(), 1u);
  }
  EXPECT_TRUE(node.isClusterHealth(false));
  EXPECT_TRUE(node.isClusterHealth(true));
}

TEST_F(NodeTest, TheClusterStatusIsTwoWhileUnhealthyWhateverTheKeySays) {
  KOLTMailNodeCluster node;
  ASSERT_EQ(node.getClusterStatus(), ClusterStatus(1));
  node.setClusterStatus(ClusterStatus(1));  // no key to remove
  EXPECT_EQ(node.getClusterStatus(), ClusterStatus(1));
  node.setClusterStatus(ClusterStatus(5));
  EXPECT_EQ(node.getClusterStatus(), ClusterStatus(5));
  {
    qsvtest::BrokenCluster broken;
    EXPECT_EQ(node.getClusterStatus(), ClusterStatus(2));
  }
  EXPECT_EQ(node.getClusterStatus(), ClusterStatus(5));
  node.setClusterStatus(ClusterStatus(1));
  EXPECT_EQ(node.getClusterStatus(), ClusterStatus(1));
  EXPECT_EQ(Redis("EXISTS %s", "mailserver/cluster/quillon_server_cluster_status"), "0");
}

TEST_F(NodeTest, SyncFlagsAndTheDispatcherSuspensionComeAndGo) {
  KOLTMailNodeCluster node;
  node.removeDir("service_change");
  EXPECT_FALSE(node.isClusterSyncing());
  {
    qsvtest::WatcherPaused paused;  // else it lowers the flag before we look
    ASSERT_TRUE(node.setServiceSync("mailserver_service_postfix", self(), false, 30, ""));
    EXPECT_TRUE(node.isClusterSyncing());
    ASSERT_TRUE(node.setServiceSync("mailserver_service_postfix", self(), true, 0, ""));
    EXPECT_FALSE(node.isClusterSyncing());
  }

  EXPECT_FALSE(node.isSuspendMailEventDispatcher());
  node.suspendMailEventDispatcher();
  EXPECT_TRUE(node.isSuspendMailEventDispatcher());
  EXPECT_EQ(Redis("GET %s", "suspend/MailEventDispatcherSuspend"), "yes");
  node.unSuspendMailEventDispatcher();
  EXPECT_FALSE(node.isSuspendMailEventDispatcher());
}

}  // namespace
