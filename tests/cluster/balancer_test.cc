// The master balancer election and the service sync flags, on a one-node cluster whose lists name
// further nodes that exist only as entries of the mapping table.
#include <unistd.h>

#include <string>

#include <gtest/gtest.h>

#include "cluster/mailserver_cluster.h"
#include "config/mail_conf.h"
#include "core/mail_conf.h"
#include "harness/one_node_cluster.h"
#include "harness/recording_script.h"

namespace {

using KOLT::QUILLON_SERVER::KOLTMailNodeCluster;
using KOLT::QUILLON_SERVER::ServStatus;

const char kStatusDir[] = "/tmp/quillon_server/service_status/";
const char kClusterDaemon[] = "/var/packages/Quillon-Server/target/scripts/ClusterDaemon.sh";

std::string Stored(const std::string &key) {
  std::string value;
  mailConfGet(key, value);
  return value;
}

class BalancerTest : public qsvtest::OneNodeClusterTest {
 protected:
  void SetUp() override {
    self_ = cluster_->hostId();
    // Three balancers: a (this node), b and c, in the sorted order the membership keeps.
    a_ = self_;
    b_ = "mailserver_id-9000000001";
    c_ = "mailserver_id-9000000002";
    ASSERT_EQ(mailConfSet(b_, "127.0.0.2", false, 0), 0);
    ASSERT_EQ(mailConfSet(c_, "127.0.0.3", false, 0), 0);
    ASSERT_EQ(mailConfSet("balancer", a_ + " " + b_ + " " + c_, true, 0), 0);
  }

  void TearDown() override {
    unlink((std::string(kStatusDir) + "mailserver_service_balancer").c_str());
    mailConfSet("balancer", self_, true, 0);
    mailConfSet("balancer_master_node", self_, true, 0);
  }

  // The balancer service's states by node id, as the cluster daemons write them.
  void WriteStatus(const std::string &json) {
    qsvtest::WriteFile(std::string(kStatusDir) + "mailserver_service_balancer", json);
  }

  std::string self_, a_, b_, c_;
};

TEST_F(BalancerTest, TheFirstLiveBalancerOfTheListIsMaster) {
  WriteStatus("{\"" + a_ + "\":\"2\",\"" + b_ + "\":\"0\",\"" + c_ + "\":\"0\"}");
  KOLTMailNodeCluster node;
  ASSERT_TRUE(node.calMasterBalancer(true));
  EXPECT_EQ(Stored("balancer_master_node"), b_);
  std::string ip;
  ASSERT_TRUE(node.getMasterBalancer(ip));
  EXPECT_EQ(ip, "127.0.0.2");
  EXPECT_FALSE(node.isBlancerMaster());
}

TEST_F(BalancerTest, NoLiveBalancerWritesAnEmptyMaster) {
  WriteStatus("{\"" + a_ + "\":\"1\",\"" + b_ + "\":\"2\",\"" + c_ + "\":\"1\"}");
  KOLTMailNodeCluster node;
  ASSERT_TRUE(node.calMasterBalancer(true));
  EXPECT_EQ(Stored("balancer_master_node"), "");
}

TEST_F(BalancerTest, ABrokenClusterMakesThisBalancerMaster) {
  WriteStatus("{\"" + b_ + "\":\"0\"}");
  {
    // ClusterDaemon.sh status fails from here on: the cluster is unhealthy.
    qsvtest::RecordingScript daemon(kClusterDaemon, 1);
    KOLTMailNodeCluster node;
    ASSERT_TRUE(node.calMasterBalancer(true));
    EXPECT_EQ(Stored("balancer_master_node"), a_);

    // This node no longer a balancer: the live list decides again.
    ASSERT_EQ(mailConfSet("balancer", b_ + " " + c_, false, 0), 0);
    KOLTMailNodeCluster other;
    ASSERT_TRUE(other.calMasterBalancer(true));
    EXPECT_EQ(Stored("balancer_master_node"), b_);
  }
  // The recording script replaced the real one; put the package's back.
  const std::string build = getenv("QSV_BUILD_DIR");
  ASSERT_EQ(qsvtest::RunProgram("/bin/cp", build + "/package-root/scripts/ClusterDaemon.sh",
                                kClusterDaemon),
            0);
  KOLTMailNodeCluster healed;
  EXPECT_TRUE(healed.isClusterHealth(false));
}

TEST_F(BalancerTest, ServiceStatesWithAndWithoutAStatusFile) {
  KOLTMailNodeCluster node;
  // The settings written so far raised flags that no watcher lowers here.
  ASSERT_TRUE(node.removeDir("service_change"));
  EXPECT_FALSE(node.isClusterSyncing());
  std::map<std::string, ServStatus> status;
  ASSERT_TRUE(node.getService("mailserver_service_balancer", status));
  EXPECT_EQ(status, (std::map<std::string, ServStatus>{{"127.0.0.1", ServStatus(1)},
                                                       {"127.0.0.2", ServStatus(1)},
                                                       {"127.0.0.3", ServStatus(1)}}));

  WriteStatus("{\"" + a_ + "\":\"0\",\"" + b_ + "\":\"7\"}");
  status.clear();
  ASSERT_TRUE(node.getService("mailserver_service_balancer", status));
  EXPECT_EQ(status["127.0.0.1"], ServStatus(0));
  EXPECT_EQ(status["127.0.0.2"], ServStatus(2));
  EXPECT_EQ(status["127.0.0.3"], ServStatus(1)) << "no entry reads as running";

  // A sync under way shows as 4 until it is lowered.
  ASSERT_TRUE(node.setServiceSync("mailserver_service_balancer", b_, false, 30, ""));
  EXPECT_TRUE(node.isClusterSyncing());
  status.clear();
  ASSERT_TRUE(node.getService("mailserver_service_balancer", status));
  EXPECT_EQ(status["127.0.0.2"], ServStatus(4));
  ASSERT_TRUE(node.setServiceSync("mailserver_service_balancer", b_, true, 0, ""));
  EXPECT_FALSE(node.isServiceSync("mailserver_service_balancer", b_, ""));
  EXPECT_FALSE(node.isClusterSyncing());
}

TEST_F(BalancerTest, AStaleSyncMirrorIsClearedByTheFirstQuestion) {
  // The flag's mirror says a sync is pending; the store no longer has the key (it expired).
  const std::string key = "service_change/serv_status-" + b_ + "|mailserver_service_haproxy|";
  ASSERT_EQ(dumpMailConfToFile(toLeagalFileName(key), key, "mailserver_service_haproxy", false,
                               true, kMailConfDir, 0, false, nullptr),
            1);
  KOLTMailNodeCluster node;
  EXPECT_FALSE(node.isServiceSync("mailserver_service_haproxy", b_, ""));
  Json::Value mirror;
  ASSERT_EQ(loadMailJsonFromFile("service_change", mirror, kMailConfDir), 0);
  EXPECT_FALSE(mirror.isMember(key));
}

TEST_F(BalancerTest, FirewallAndDaemonScriptsGetTheirWords) {
  qsvtest::RecordingScript firewall("/var/packages/Quillon-Server/target/scripts/firewall.sh", 0);
  KOLTMailNodeCluster node;
  EXPECT_TRUE(node.refreshFirewall({}));
  EXPECT_TRUE(firewall.Calls().empty()) << "no address, no run";
  EXPECT_TRUE(node.refreshFirewall({"127.0.0.1", "127.0.0.2"}));
  firewall.SetExitCode(1);
  EXPECT_FALSE(node.refreshFirewall({"127.0.0.9"}));
  EXPECT_EQ(firewall.Calls(), (std::vector<std::vector<std::string>>{
                                  {"start", "127.0.0.1 127.0.0.2"},
                                  {"start", "127.0.0.9"},
                                  {"stop"}}));
}

}  // namespace
