// Per-domain usage limits in the main database and the store of a one-node cluster, and the
// policy daemons' daily counters in a real memcached on 11211, written as a daemon writes them.
#include <arpa/inet.h>
#include <netinet/in.h>
#include <sqlite3.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cstdlib>
#include <list>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "domain/daily_quota_util.h"
#include "domain/domain_usage_setting.h"
#include "foundation/mailserver_db_schema.h"
#include "harness/cluster_nodes.h"
#include "harness/mailserverctl_run.h"
#include "harness/syslog_capture.h"
#include "tables/tables_fixture.h"

namespace {

using MultipleDomain::DomainSetting;

const char kMemcachedScript[] = "/var/packages/Quillon-Server/target/scripts/daemon/memcached.sh";

std::string StorePassword() {
  Json::Value conf;
  std::ifstream("/var/packages/Quillon-Server/etc/backend.conf") >> conf;
  return conf.get("password", "").asString();
}

std::string Stored(const std::string &key) {
  return qsvtest::StoreCommand(StorePassword(), {"GET", "virtual_domain/" + key});
}

class DomainSettingTest : public qsvtest::TablesTest {
 protected:
  void SetUp() override {
    // The settings live in the main database, which another part of the suite creates.
    sqlite3 *db = nullptr;
    ASSERT_EQ(sqlite3_open(kMailServerDBPath, &db), SQLITE_OK);
    sqlite3_exec(db, kMailServerDBSchema, nullptr, nullptr, nullptr);
    sqlite3_exec(db, "DELETE FROM multi_domain_enable_table; DELETE FROM multi_domain_rate_table;",
                 nullptr, nullptr, nullptr);
    sqlite3_close(db);
  }
};

TEST_F(DomainSettingTest, ARowIsMadeOnFirstReadAndPublishedWhenTheObjectGoes) {
  qsvtest::SyslogCapture log;
  {
    DomainSetting settings(kMailServerDBPath);
    ASSERT_EQ(settings.GetError(), 0);
    std::map<MultipleDomain::EN_KEYSET, bool> enables;
    ASSERT_EQ(settings.GetEnableSettings(7, enables), 0);
    EXPECT_TRUE(enables.empty()) << "the first read finds no row and makes one";
    EXPECT_EQ(log.Matching("Get domain[7] info fail").size(), 1u);
    ASSERT_EQ(settings.GetEnableSettings(7, enables), 0);
    EXPECT_EQ(enables, (std::map<MultipleDomain::EN_KEYSET, bool>{{MultipleDomain::EN_ATTACH, false},
                                                                  {MultipleDomain::EN_QUOTA, false},
                                                                  {MultipleDomain::EN_FLOW, false},
                                                                  {MultipleDomain::EN_FORWARD, true},
                                                                  {MultipleDomain::EN_CATCH_ALL, false}}));
    ASSERT_EQ(settings.UpdateEnableSettings(7, {{MultipleDomain::EN_QUOTA, true}}), 0);
    ASSERT_EQ(settings.UpdateRateSettings(7, {{MultipleDomain::RT_QUOTA, 250}}), 0);
    // A second create keeps the row that is there.
    ASSERT_EQ(settings.CreateSettings(7), 0);
    std::map<MultipleDomain::RT_KEYSET, int> rates;
    ASSERT_EQ(settings.GetRateSettings(7, rates), 0);
    EXPECT_EQ(rates[MultipleDomain::RT_QUOTA], 250);
    EXPECT_EQ(rates[MultipleDomain::RT_CATCH_ALL], -1);
    EXPECT_EQ(rates[MultipleDomain::RT_FLOW], 2000);
    // An empty change is a malformed statement: it marks the object, and the next call heals it.
    EXPECT_EQ(settings.UpdateEnableSettings(7, {}), -1);
    EXPECT_EQ(settings.GetError(), -2);
    ASSERT_EQ(settings.GetRateSettings(7, rates), 0);
    EXPECT_EQ(settings.GetError(), 0);
    EXPECT_EQ(Stored("enable_daily_quota-7"), "") << "nothing is published before the end";
  }
  EXPECT_EQ(Stored("enable_daily_quota-7"), "yes");
  EXPECT_EQ(Stored("enable_auto_forward-7"), "yes");
  EXPECT_EQ(Stored("enable_attachment-7"), "no");
  EXPECT_EQ(Stored("daily_quota_limit-7"), "250");
  EXPECT_EQ(Stored("catch_all-7"), "-1");
  qsvtest::WaitForQuietStore();

  // Deleted and made again in one object: the keys go, then come back with the defaults.
  {
    DomainSetting settings(kMailServerDBPath);
    ASSERT_EQ(settings.DelSettings(7), 0);
    ASSERT_EQ(settings.CreateSettings(7), 0);
  }
  EXPECT_EQ(Stored("enable_daily_quota-7"), "no");
  EXPECT_EQ(Stored("daily_quota_limit-7"), "500");
  qsvtest::WaitForQuietStore();
  {
    DomainSetting settings(kMailServerDBPath);
    ASSERT_EQ(settings.CleanupRedisKey(), 0);
  }
  EXPECT_EQ(qsvtest::StoreCommand(StorePassword(), {"KEYS", "virtual_domain/*"}), "");
  qsvtest::WaitForQuietStore();
}

// The administrator's front end: every pair checked before anything is written.
TEST_F(DomainSettingTest, TheToolWritesCheckedSettingsOfAMappedDomainOnly) {
  ASSERT_EQ(qsvtest::RunCtl({"conf", "set", "virtual_multiple_domain",
                             "1/example.com, 2/b\xc3\xbc" "cher.example"}).status,
            0);
  for (const std::vector<std::string> &refused : std::vector<std::vector<std::string>>{
           {"domain-usage", "set", "example.com", "en_quota", "maybe"},
           {"domain-usage", "set", "example.com", "rt_quota", "-5"},
           {"domain-usage", "set", "example.com", "rt_quota", "5", "bogus", "1"},
           {"domain-usage", "set", "example.com", "rt_quota", "5", "rt_quota", "6"},
           {"domain-usage", "set", "other.example", "rt_quota", "5"},
           {"domain-usage", "counters", "example.com", "--delete", "all", "bob"}}) {
    const qsvtest::CtlResult result = qsvtest::RunCtl(refused);
    EXPECT_EQ(result.status, 1) << result.output;
  }
  EXPECT_EQ(Stored("daily_quota_limit-1"), "") << "a refused pair wrote nothing";
  // The punycode form names the same domain.
  ASSERT_EQ(qsvtest::RunCtl({"domain-usage", "set", "xn--bcher-kva.example", "catch_all", "-1",
                             "en_catch_all", "yes"}).status,
            0);
  EXPECT_EQ(Stored("enable_catch_all-2"), "yes");
  EXPECT_EQ(Stored("catch_all-2"), "-1");
  const qsvtest::CtlResult shown = qsvtest::RunCtl({"domain-usage", "show", "example.com"});
  EXPECT_NE(shown.output.find("en_forward     yes"), std::string::npos) << shown.output;
  qsvtest::WaitForQuietStore();
}

// A daemon's write through memcached's text protocol.
bool DaemonSet(const std::string &key, const std::string &value) {
  const int fd = socket(AF_INET, SOCK_STREAM, 0);
  sockaddr_in address{};
  address.sin_family = AF_INET;
  address.sin_port = htons(11211);
  address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  if (connect(fd, reinterpret_cast<sockaddr *>(&address), sizeof(address)) != 0) {
    close(fd);
    return false;
  }
  const std::string command =
      "set " + key + " 0 0 " + std::to_string(value.size()) + "\r\n" + value + "\r\n";
  char reply[64] = {};
  const bool ok = write(fd, command.data(), command.size()) == static_cast<ssize_t>(command.size()) &&
                  read(fd, reply, sizeof(reply) - 1) > 0 && std::string(reply) == "STORED\r\n";
  close(fd);
  return ok;
}

std::string Names(const std::vector<Json::Value> &rows) {
  std::string out;
  for (const Json::Value &row : rows) {
    out += row["name"].asString() + "=" + std::to_string(row["sender_limit"].asInt()) + "/" +
           std::to_string(row["flow_limit"].asInt()) + " ";
  }
  return out;
}

TEST(UsageMemcachedTest, CountersAreReadRenamedAndRemovedAndNothingWithoutTheServer) {
  ASSERT_EQ(system((std::string(kMemcachedScript) + " start").c_str()), 0);
  ASSERT_EQ(system((std::string(kMemcachedScript) + " status").c_str()), 0);
  ASSERT_TRUE(DaemonSet("example.com[senderQuota]bob", "12"));
  ASSERT_TRUE(DaemonSet("example.com[senderFlow]bob", "3400"));
  ASSERT_TRUE(DaemonSet("example.com[senderQuota]bobby", "5"));
  ASSERT_TRUE(DaemonSet("example.com[senderQuota]alice", "7"));
  ASSERT_TRUE(DaemonSet("example.com[senderQuota]mallory", "lots"));
  ASSERT_TRUE(DaemonSet("xn--bcher-kva.example[senderFlow]carol", "99"));

  KOLT::QUILLON_SERVER::UsageMemcached usage;
  std::vector<Json::Value> rows;
  qsvtest::SyslogCapture log;
  ASSERT_EQ(usage.GetDomainUsageData("example.com", {"alice", "bob", "", "bobby", "dave", "mallory"},
                                     rows, ""),
            0);
  // Users without a counter today don't show; a counter that isn't a number is none.
  EXPECT_EQ(Names(rows), "alice=7/-1 bob=12/3400 bobby=5/-1 ");
  EXPECT_EQ(log.Matching("invalid counter in key[example.com[senderQuota]mallory]").size(), 1u);
  rows.clear();
  ASSERT_EQ(usage.GetDomainUsageData("example.com", {"alice", "bob", "bobby"}, rows, "bob"), 0);
  EXPECT_EQ(Names(rows), "bob=12/3400 bobby=5/-1 ");
  // The Unicode name and its punycode reach the same keys.
  rows.clear();
  ASSERT_EQ(usage.GetDomainUsageData("b\xc3\xbc" "cher.example", {"carol"}, rows, ""), 0);
  EXPECT_EQ(Names(rows), "carol=-1/99 ");

  // Asking whether a key exists must not make it.
  ASSERT_EQ(usage.DeleteDomainUsageData("example.com", {"nobody"}, 3), 0);
  rows.clear();
  ASSERT_EQ(usage.GetDomainUsageData("example.com", {"nobody"}, rows, ""), 0);
  EXPECT_TRUE(rows.empty());

  ASSERT_EQ(usage.UpdateDomainUser({"example.com"}, "bob", "robert"), 0);
  rows.clear();
  ASSERT_EQ(usage.GetDomainUsageData("example.com", {"bob", "robert"}, rows, ""), 0);
  EXPECT_EQ(Names(rows), "robert=12/3400 ");
  ASSERT_EQ(usage.DeleteDomainUsageData("example.com", {"robert"}, 1), 0);
  rows.clear();
  ASSERT_EQ(usage.GetDomainUsageData("example.com", {"robert"}, rows, ""), 0);
  EXPECT_EQ(Names(rows), "robert=-1/3400 ") << "only the quota counter was asked to go";

  ASSERT_EQ(system((std::string(kMemcachedScript) + " stop").c_str()), 0);
  KOLT::QUILLON_SERVER::UsageMemcached stopped;
  rows.clear();
  EXPECT_EQ(stopped.GetDomainUsageData("example.com", {"alice"}, rows, ""), 0);
  EXPECT_TRUE(rows.empty());
  EXPECT_EQ(stopped.DeleteDomainUsageData("example.com", {"alice"}, 3), 0);
  EXPECT_EQ(stopped.UpdateDomainUser({"example.com"}, "alice", "alicia"), 0);
}

}  // namespace
