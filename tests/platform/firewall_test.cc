// The platform firewall's service state as written to its file, and the package's firewall script
// that records the cluster's node addresses.
#include "kolt/firewall.h"

#include <dirent.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <json/json.h>

#include <cstdio>
#include <sstream>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "kolt/exec.h"
#include "test_util.h"

namespace {

const char kState[] = "/usr/kolt/etc/firewall/state.json";
const char kCluster[] = "/usr/kolt/etc/firewall/cluster.json";
const char kScript[] = "/var/packages/Quillon-Server/target/scripts/firewall.sh";

Json::Value ReadJson(const std::string &path) {
  Json::Value json;
  std::istringstream in(ReadFile(path));
  std::string errors;
  if (!Json::parseFromStream(Json::CharReaderBuilder(), in, &json, &errors)) return Json::nullValue;
  return json;
}

std::vector<std::string> Strings(const Json::Value &list) {
  std::vector<std::string> out;
  for (const Json::Value &item : list) out.push_back(item.asString());
  return out;
}

using Names = std::vector<std::string>;

class FirewallStateTest : public ::testing::Test {
 protected:
  void SetUp() override { unlink(kState); }
};

TEST_F(FirewallStateTest, AllowedServicesRoundTripThroughTheFile) {
  EXPECT_EQ(KOLTFwPortsCheckAllowByAdapter(0, "mail_smtp"), 0) << "a fresh machine allows nothing";
  EXPECT_NE(access(kState, F_OK), 0) << "asking must not write";

  ASSERT_EQ(KOLTFwServiceAllow("mail_smtp", 1), 0);
  ASSERT_EQ(KOLTFwServiceAllow("mail_smtp", 1), 0);
  ASSERT_EQ(KOLTFwServiceAllow("mail_imap", 1), 0);
  EXPECT_EQ(KOLTFwPortsCheckAllowByAdapter(0, "mail_smtp"), 1);
  EXPECT_EQ(KOLTFwPortsCheckAllowByAdapter(1, "mail_imap"), 1);
  EXPECT_EQ(KOLTFwPortsCheckAllowByAdapter(0, "mail_pop3"), 0);
  EXPECT_EQ(Strings(ReadJson(kState)["allowed"]), (Names{"mail_smtp", "mail_imap"}));
  struct stat st;
  ASSERT_EQ(stat(kState, &st), 0);
  EXPECT_EQ(st.st_mode & 07777, 0644u);

  ASSERT_EQ(KOLTFwServiceAllow("mail_smtp", 0), 0);
  ASSERT_EQ(KOLTFwServiceAllow("mail_pop3", 0), 0);
  EXPECT_EQ(KOLTFwPortsCheckAllowByAdapter(0, "mail_smtp"), 0);
  EXPECT_EQ(Strings(ReadJson(kState)["allowed"]), (Names{"mail_imap"}));
}

TEST_F(FirewallStateTest, BadInputAndADamagedFileChangeNothing) {
  ASSERT_EQ(KOLTFwServiceAllow("mail_imap", 1), 0);
  const std::string before = ReadFile(kState);
  EXPECT_EQ(KOLTFwPortsCheckAllowByAdapter(-1, "mail_imap"), -1);
  EXPECT_EQ(KOLTFwPortsCheckAllowByAdapter(0, nullptr), -1);
  EXPECT_EQ(KOLTFwPortsCheckAllowByAdapter(0, ""), -1);
  EXPECT_EQ(KOLTFwServiceAllow("mail imap", 1), -1);
  EXPECT_EQ(KOLTFwServiceAllow(nullptr, 1), -1);
  EXPECT_FALSE(KLIBFwRuleReserveServInsert("mail_smtp,bad/name", 1, 1));
  EXPECT_FALSE(KLIBFwRuleReserveServInsert(nullptr, 1, 1));
  EXPECT_EQ(ReadFile(kState), before);

  WriteFile(kState, "{\"allowed\": [\"mail_imap\"");
  EXPECT_EQ(KOLTFwPortsCheckAllowByAdapter(0, "mail_imap"), -1);
  EXPECT_EQ(KOLTFwServiceAllow("mail_smtp", 1), -1);
  EXPECT_FALSE(KLIBFwRuleReserveServInsert("mail_smtp", 1, 1));
  EXPECT_EQ(ReadFile(kState), "{\"allowed\": [\"mail_imap\"");
}

int Script(const char *word, const char *list = nullptr) {
  return KLIBCExecl(kScript, KLIBC_EXEC_QUIET_WAIT, word, list, static_cast<char *>(nullptr));
}

TEST(FirewallScriptTest, StartRecordsTheNodeAddressesAndStopClosesThem) {
  ASSERT_EQ(Script("start", "127.0.0.1  10.0.0.2 fe80::1 2001:db8::8:800:200c:417a ::ffff:1.2.3.4"),
            0);
  Json::Value cluster = ReadJson(kCluster);
  EXPECT_TRUE(cluster["running"].asBool());
  EXPECT_EQ(Strings(cluster["addresses"]),
            (Names{"127.0.0.1", "10.0.0.2", "fe80::1", "2001:db8::8:800:200c:417a",
                   "::ffff:1.2.3.4"}));

  FILE *status = KLIBCPopen(kScript, "r", "status", static_cast<char *>(nullptr));
  ASSERT_NE(status, nullptr);
  std::string printed;
  char buffer[512];
  while (fgets(buffer, sizeof(buffer), status) != nullptr) printed += buffer;
  EXPECT_EQ(KLIBCPclose(status), 0);
  EXPECT_EQ(printed, ReadFile(kCluster));

  ASSERT_EQ(Script("stop"), 0);
  cluster = ReadJson(kCluster);
  EXPECT_FALSE(cluster["running"].asBool());
  EXPECT_TRUE(cluster["addresses"].empty());
}

TEST(FirewallScriptTest, ABadAddressFailsAndLeavesTheRecordAlone) {
  ASSERT_EQ(Script("start", "10.0.0.1 10.0.0.2"), 0);
  const std::string before = ReadFile(kCluster);
  for (const char *list : {"10.0.0.1 300.1.1.1", "10.0.0.1 1.2.3", "mail.example.com", "1::2::3",
                           "10.0.0.01", "1:2:3:4:5:6:7:8:9", "10.0.0.1;reboot", "$(id)", "\"x\""}) {
    EXPECT_EQ(Script("start", list), 1) << list;
    EXPECT_EQ(ReadFile(kCluster), before) << list;
  }
  EXPECT_NE(Script("restart"), 0);
  EXPECT_EQ(ReadFile(kCluster), before);
}

}  // namespace
