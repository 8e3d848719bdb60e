// Which nodes run a service that is up, and whether the node stands alone, read from the key
// mirrors and status files a node keeps, without a running cluster.
#include <unistd.h>

#include <string>

#include <gtest/gtest.h>

#include "core/key_tree_store.h"
#include "core/mail_conf.h"
#include "foundation/service_alive.h"
#include "harness/key_file.h"
#include "harness/recording_script.h"
#include "harness/syslog_capture.h"

namespace {

using KOLT::QUILLON_SERVER::KeyTreeStore;
using qsvtest::PutKeyFile;

const char kStatusFile[] = "/tmp/quillon_server/service_status/mailserver_service_balancer";

std::string Member(const std::string &key, const std::string &value) {
  return "\"" + KeyTreeStore::instance()->keyComplete(key) + "\":\"" + value + "\"";
}

class ServiceAliveTest : public testing::Test {
 protected:
  void SetUp() override {
    // The id to address table; node 4 has no address.
    qsvtest::WriteFile(std::string(kMailConfDir) + toLeagalFileName("mailserver_id-1"),
                       "{" + Member("mailserver_id-1", "10.0.0.3") + "," +
                           Member("mailserver_id-2", "10.0.0.1") + "," +
                           Member("mailserver_id-3", "10.0.0.2") + "," +
                           Member("mailserver_id-4", "") + "}");
  }
  void TearDown() override { unlink(kStatusFile); }
};

TEST_F(ServiceAliveTest, AddressesOfTheNodesInStateZeroInAddressOrder) {
  PutKeyFile("balancer", "mailserver_id-1 mailserver_id-2 mailserver_id-3");
  qsvtest::WriteFile(kStatusFile,
                     "{\"mailserver_id-1\":\"0\",\"mailserver_id-2\":\"2\",\"mailserver_id-3\":\"0\"}");
  std::string alive = "stale";
  ASSERT_EQ(aliveServiceGet("mailserver_service_balancer", alive), 0);
  EXPECT_EQ(alive, "10.0.0.2 10.0.0.3");

  qsvtest::WriteFile(kStatusFile, "{broken");
  qsvtest::SyslogCapture log;
  EXPECT_EQ(aliveServiceGet("mailserver_service_balancer", alive), -1);
  EXPECT_EQ(alive, "10.0.0.2 10.0.0.3");
  EXPECT_EQ(log.Matching(" Failed to getService [mailserver_service_balancer]").size(), 1u);
}

TEST_F(ServiceAliveTest, PeersWithAddressesTellSingleNodeFromCluster) {
  PutKeyFile("cluster_peers", "mailserver_id-1 mailserver_id-4");
  EXPECT_EQ(checkAAStructure(), 0);
  PutKeyFile("cluster_peers", "mailserver_id-1 mailserver_id-2 mailserver_id-4");
  EXPECT_EQ(checkAAStructure(), 1);
  PutKeyFile("cluster_peers", "mailserver_id-4 mailserver_id-9");
  qsvtest::SyslogCapture log;
  EXPECT_EQ(checkAAStructure(), -1);
  EXPECT_EQ(log.Matching(" Wrong id size 0").size(), 1u);
}

}  // namespace
