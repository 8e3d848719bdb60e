// The networks and domains this server relays for, in the real settings store, and the two
// tables Postfix reads, tried with the real postmap; the defaults come from the real postconf.
#include "tables/relay_host.h"

#include <dirent.h>
#include <gtest/gtest.h>
#include <json/json.h>

#include <cstdlib>
#include <string>
#include <vector>

#include "config/mail_conf.h"
#include "harness/recording_script.h"
#include "tables/tables_fixture.h"

namespace {

const std::string kEtc = "/var/packages/Quillon-Server/target/etc/";
const std::string kNetworks = kEtc + "trust_network";
const std::string kDomains = kEtc + "relay_domains";

Json::Value Entries(std::initializer_list<std::pair<std::string, bool>> entries) {
  Json::Value list(Json::arrayValue);
  for (const auto &entry : entries) {
    Json::Value item;
    item["pattern"] = entry.first;
    item["enable"] = entry.second;
    item["description"] = "";
    list.append(item);
  }
  return list;
}

int SetLists(const Json::Value &networks, const Json::Value &domains) {
  if (RelayClient().setRelayClient("network", networks) != 0) return -1;
  return RelayClient().setRelayClient("domain", domains);
}

std::string Trusted(const std::string &address) {
  return qsvtest::PostmapQuery(address, "cidr:" + kNetworks);
}

std::string Relayed(const std::string &domain) {
  return qsvtest::PostmapQuery(domain, "hash:" + kDomains);
}

// Names in the etc directory that start with `prefix`: leftovers of a failed export show here.
int Count(const std::string &prefix) {
  int count = 0;
  DIR *dir = opendir(kEtc.c_str());
  while (const dirent *entry = dir != nullptr ? readdir(dir) : nullptr) {
    if (std::string(entry->d_name).rfind(prefix, 0) == 0) ++count;
  }
  if (dir != nullptr) closedir(dir);
  return count;
}

class RelayClientTest : public qsvtest::TablesTest {
 protected:
  void SetUp() override { ASSERT_EQ(mailConfSet("smtp_ignore_lan_auth", "no", true, 0), 0); }
};

TEST_F(RelayClientTest, EnabledEntriesReachBothTables) {
  ASSERT_EQ(SetLists(Entries({}), Entries({})), 0);
  ASSERT_EQ(RelayClient().exportRelayMap(), 0);
  EXPECT_EQ(qsvtest::ReadFile(kNetworks), "127.0.0.0/8 OK\n[::1]/128 OK\n");
  EXPECT_EQ(qsvtest::ReadFile(kDomains), "");

  ASSERT_EQ(SetLists(Entries({{"192.168.1.77/255.255.255.0", true},
                              {"not a network", false},
                              {"2001:db8::1/32", true},
                              {"10.9.9.9", false}}),
                     Entries({{"bücher.test", true}, {"partner.test", true}, {"off.test", false}})),
            0);
  ASSERT_EQ(RelayClient().exportRelayMap(), 0);
  EXPECT_EQ(qsvtest::ReadFile(kNetworks),
            "127.0.0.0/8 OK\n[::1]/128 OK\n192.168.1.0/24 OK\n2001:db8::/32 OK\n");
  EXPECT_EQ(qsvtest::ReadFile(kDomains),
            "xn--bcher-kva.test OK\nbücher.test OK\npartner.test OK\n");
  EXPECT_EQ(Trusted("127.0.0.1"), "OK");
  EXPECT_EQ(Trusted("::1"), "OK");
  EXPECT_EQ(Trusted("192.168.1.200"), "OK");
  EXPECT_EQ(Trusted("2001:db8:ffff::5"), "OK");
  EXPECT_EQ(Trusted("192.168.2.1"), "");
  EXPECT_EQ(Trusted("10.9.9.9"), "") << "a disabled network is trusted";
  EXPECT_EQ(Relayed("bücher.test"), "OK");
  EXPECT_EQ(Relayed("xn--bcher-kva.test"), "OK");
  EXPECT_EQ(Relayed("off.test"), "");

  // Trusting the LAN trusts the networks Postfix itself would trust: here that of an address of
  // this node's own, put on loopback in the sandbox's network namespace.
  ASSERT_EQ(system("ip addr replace 192.0.2.7/24 dev lo"), 0);
  std::vector<std::string> defaults;
  ASSERT_EQ(RelayClient::getDefaultMynetworks(defaults), 0);
  ASSERT_FALSE(defaults.empty());
  EXPECT_EQ(defaults.front(), "127.0.0.0/8");
  ASSERT_EQ(mailConfSet("smtp_ignore_lan_auth", "yes", true, 0), 0);
  ASSERT_EQ(SetLists(Entries({{"198.51.100.0/24", true}}), Entries({})), 0);
  ASSERT_EQ(RelayClient().exportRelayMap(), 0);
  std::string expected;
  for (const std::string &network : defaults) expected += network + " OK\n";
  EXPECT_EQ(qsvtest::ReadFile(kNetworks), expected + "198.51.100.0/24 OK\n");
  EXPECT_EQ(Trusted("192.0.2.200"), "OK");
}

TEST_F(RelayClientTest, MalformedEnabledNetworkKeepsBothOldTables) {
  ASSERT_EQ(SetLists(Entries({{"203.0.113.0/24", true}}), Entries({{"old.test", true}})), 0);
  ASSERT_EQ(RelayClient().exportRelayMap(), 0);
  const std::string networks = qsvtest::ReadFile(kNetworks);
  const std::string domains = qsvtest::ReadFile(kDomains);

  for (const char *bad : {"300.1.1.1", "10.0.0.0/255.0.255.0"}) {
    ASSERT_EQ(SetLists(Entries({{bad, true}}), Entries({{"new.test", true}})), 0);
    EXPECT_EQ(RelayClient().exportRelayMap(), 1) << bad;
    EXPECT_EQ(qsvtest::ReadFile(kNetworks), networks) << bad;
    EXPECT_EQ(qsvtest::ReadFile(kDomains), domains) << bad;
  }
  EXPECT_EQ(Relayed("old.test"), "OK");
  EXPECT_EQ(Relayed("new.test"), "");
  EXPECT_EQ(Count("trust_network"), 1) << "a temporary file was left behind";
  EXPECT_EQ(Count("relay_domains"), 2) << "the table and its .db only";
}

}  // namespace
