// The platform firewall's service state as written to its file, and the package's firewall script
// that records the cluster's node addresses.
#include "kolt/firewall.h"

#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <json/json.h>

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

using Names = std::vector<std::string>;

Json::Value ReadJson(const std::string &path) {
  Json::Value json;
  std::istringstream in(ReadFile(path));
  std::string errors;
  return Json::parseFromStream(Json::CharReaderBuilder(), in, &json, &errors) ? json : Json::nullValue;
}

Names Strings(const Json::Value &list) {
  Names out;
  for (const Json::Value &item : list) out.push_back(item.asString());
  return out;
}

TEST(FirewallStateTest, AllowedServicesRoundTripThroughTheFile) {
  unlink(kState);
  EXPECT_EQ(KOLTFwPortsCheckAllowByAdapter(0, "mail_smtp"), 0) << "a fresh machine allows nothing";
  EXPECT_NE(access(kState, F_OK), 0) << "asking must not write";

  for (const char *name : {"mail_smtp", "mail_smtp", "mail_imap"}) ASSERT_EQ(KOLTFwServiceAllow(name, 1), 0);
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

TEST(FirewallStateTest, ConcurrentWritersLoseNoChange) {
  unlink(kState);
  std::vector<pid_t> children;
  for (int p = 0; p < 8; ++p) {
    if (pid_t pid = fork(); pid == 0) {
      for (int i = 0; i < 10; ++i) {
        if (KOLTFwServiceAllow(("svc_" + std::to_string(p) + "_" + std::to_string(i)).c_str(), 1) != 0) _exit(1);
      }
      _exit(0);
    } else {
      children.push_back(pid);
    }
  }
  for (pid_t pid : children) {
    int status = -1;
    waitpid(pid, &status, 0);
    EXPECT_EQ(status, 0);
  }
  EXPECT_EQ(ReadJson(kState)["allowed"].size(), 80u);
}

TEST(FirewallStateTest, BadInputAndADamagedFileChangeNothing) {
  unlink(kState);
  ASSERT_EQ(KOLTFwServiceAllow("mail_imap", 1), 0);
  const std::string before = ReadFile(kState);
  EXPECT_EQ(KOLTFwPortsCheckAllowByAdapter(-1, "mail_imap"), -1);
  EXPECT_EQ(KOLTFwPortsCheckAllowByAdapter(0, ""), -1);
  EXPECT_EQ(KOLTFwServiceAllow("mail imap", 1), -1);
  EXPECT_EQ(KOLTFwServiceAllow(nullptr, 1), -1);
  EXPECT_FALSE(KLIBFwRuleReserveServInsert("mail_smtp,bad/name", 1, 1));
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

TEST(FirewallScriptTest, StartRecordsGoodAddressesOnlyAndStopClosesThem) {
  ASSERT_EQ(Script("start", "127.0.0.1  10.0.0.2 fe80::1 2001:db8::8:800:200c:417a ::ffff:1.2.3.4"), 0);
  Json::Value cluster = ReadJson(kCluster);
  EXPECT_TRUE(cluster["running"].asBool());
  EXPECT_EQ(Strings(cluster["addresses"]),
            (Names{"127.0.0.1", "10.0.0.2", "fe80::1", "2001:db8::8:800:200c:417a", "::ffff:1.2.3.4"}));
  FILE *status = KLIBCPopen(kScript, "r", "status", static_cast<char *>(nullptr));
  ASSERT_NE(status, nullptr);
  std::string printed;
  for (int c; (c = fgetc(status)) != EOF;) printed += static_cast<char>(c);
  EXPECT_EQ(KLIBCPclose(status), 0);
  EXPECT_EQ(printed, ReadFile(kCluster));

  const std::string before = ReadFile(kCluster);
  for (const char *list : {"10.0.0.1 300.1.1.1", "10.0.0.1 1.2.3", "mail.example.com", "1::2::3",
                           "10.0.0.01", "1:2:3:4:5:6:7:8:9", "10.0.0.1;reboot", "$(id)", "\"x\""}) {
    EXPECT_EQ(Script("start", list), 1) << list;
    EXPECT_EQ(ReadFile(kCluster), before) << list;
  }
  EXPECT_NE(Script("restart"), 0);
  EXPECT_EQ(ReadFile(kCluster), before);

  ASSERT_EQ(Script("stop"), 0);
  cluster = ReadJson(kCluster);
  EXPECT_FALSE(cluster["running"].asBool());
  EXPECT_TRUE(cluster["addresses"].empty());
}

}  // namespace
