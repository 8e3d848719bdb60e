// Typed settings and the SMTP settings object over a one-node cluster's store.
#include <sys/stat.h>

#include <fstream>
#include <sstream>
#include <stdexcept>
#include <string>

#include <gtest/gtest.h>

#include "config/accounts.h"
#include "config/basic_config.h"
#include "config/mail_conf.h"
#include "config/mailscanner.h"
#include "config/postfix.h"
#include "config/reporter.h"
#include "core/key_tree_store.h"
#include "core/mail_conf.h"
#include "harness/cluster_nodes.h"
#include "harness/key_file.h"
#include "harness/one_node_cluster.h"
#include "harness/recording_script.h"
#include "harness/run_as.h"
#include "kolt/crypt.h"

namespace {

using qsvtest::PutKeyFile;

std::string Stored(const std::string &key) {
  std::string value;
  EXPECT_EQ(mailConfGet(key, value), 0);
  return value;
}

template <typename T>
T ValueOf(Config &config, const std::string &name) {
  return boost::any_cast<Value<T>>(config.Get(name)).value;
}

using TypedSettingsTest = qsvtest::OneNodeClusterTest;

class Sample : public Config {
 public:
  Sample() {
    keys.push_back(Key<bool>("sample_flag", true));
    keys.push_back(Key<int>("sample_count", 7));
    keys.push_back(Key<double>("sample_ratio", 1.5));
    keys.push_back(Key<std::string>("sample_name", "none"));
  }
};

TEST_F(TypedSettingsTest, ValuesReadByTheirDeclaredType) {
  Sample sample;
  EXPECT_THROW(
      {
        try {
          sample.Get("sample_flag");
        } catch (const std::invalid_argument &e) {
          EXPECT_STREQ(e.what(), "sample_flag: key not valid");
          throw;
        }
      },
      std::invalid_argument);

  PutKeyFile("sample_flag", "YES");
  PutKeyFile("sample_count", "12abc");
  PutKeyFile("sample_ratio", "");
  PutKeyFile("sample_name", "");
  ASSERT_EQ(sample.Load(), 0);
  EXPECT_FALSE(ValueOf<bool>(sample, "sample_flag"));  // only "yes" is true
  EXPECT_EQ(ValueOf<int>(sample, "sample_count"), 12);
  EXPECT_EQ(ValueOf<double>(sample, "sample_ratio"), 1.5);  // empty reads the default
  EXPECT_EQ(ValueOf<std::string>(sample, "sample_name"), "none");
  EXPECT_THROW(ValueOf<int>(sample, "sample_flag"), boost::bad_any_cast);

  PutKeyFile("sample_flag", "");
  ASSERT_EQ(sample.Load(), 0);
  EXPECT_TRUE(ValueOf<bool>(sample, "sample_flag")) << "an empty bool reads its default";
}

TEST_F(TypedSettingsTest, SaveWritesEveryKeyInItsTextForm) {
  Sample sample;
  ASSERT_EQ(sample.Load(), 0);
  sample.Set("sample_ratio", boost::any(Value<double>(5)));
  sample.Set("sample_flag", boost::any(Value<bool>(false)));
  sample.Set("sample_count", boost::any(Value<int>(-3)));
  ASSERT_EQ(sample.Save(), 0);
  EXPECT_EQ(Stored("sample_ratio"), "5.000000");
  EXPECT_EQ(Stored("sample_flag"), "no");
  EXPECT_EQ(Stored("sample_count"), "-3");

  // A value of the wrong type is accepted by Set and breaks only at Save.
  sample.Set("sample_count", boost::any(Value<std::string>("x")));
  EXPECT_THROW(sample.Save(), boost::bad_any_cast);
  EXPECT_THROW(sample.Set("no_such_key", boost::any(Value<int>(1))), std::invalid_argument);
}

TEST_F(TypedSettingsTest, FreshStoreGivesTheSmtpDefaults) {
  for (const char *key : {"smtp_port", "smtps_port", "smtp_tls_port", "smtp_main_domain",
                          "enable_postmaster", "smtp_security_auth", "greylist_period",
                          "greylist_default_action", "smtp_relay_password", "canonical_domain"}) {
    unlink((std::string(kMailConfDir) + toLeagalFileName(key)).c_str());
  }
  Postfix postfix;
  ASSERT_EQ(postfix.LoadSettings(), 0);
  EXPECT_EQ(ValueOf<int>(postfix, "smtp_port"), 25);
  EXPECT_EQ(ValueOf<int>(postfix, "smtps_port"), 465);
  EXPECT_EQ(ValueOf<int>(postfix, "smtp_tls_port"), 587);
  EXPECT_EQ(ValueOf<std::string>(postfix, "smtp_main_domain"), "localdomain");
  EXPECT_TRUE(ValueOf<bool>(postfix, "enable_postmaster"));
  EXPECT_TRUE(ValueOf<bool>(postfix, "smtp_security_auth"));
  EXPECT_EQ(ValueOf<int>(postfix, "greylist_period"), 30);
  EXPECT_EQ(ValueOf<std::string>(postfix, "greylist_default_action"), "greylist");
  EXPECT_EQ(ValueOf<std::string>(postfix, "smtp_relay_client_host_type"),
            "{\"host_type\":\"none\"}");
  EXPECT_EQ(ValueOf<std::string>(postfix, "smtp_relay_password"), "");
  EXPECT_TRUE(postfix.GetCanonicalDomain().empty());
}

TEST_F(TypedSettingsTest, RelayPasswordIsStoredEncipheredAndEachSaveEnciphersAgain) {
  Postfix postfix;
  ASSERT_EQ(postfix.LoadSettings(), 0);
  postfix.Set("smtp_relay_password", boost::any(Value<std::string>("s3cret")));
  ASSERT_EQ(postfix.SaveSettings({}), 0);
  const std::string once = Stored("smtp_relay_password");
  EXPECT_NE(once, "s3cret");
  Postfix reader;
  ASSERT_EQ(reader.LoadSettings(), 0);
  EXPECT_EQ(ValueOf<std::string>(reader, "smtp_relay_password"), "s3cret");

  ASSERT_EQ(postfix.SaveSettings({}), 0);  // the object now holds the enciphered text
  const std::string twice = Stored("smtp_relay_password");
  char inner[345] = {0};
  ASSERT_TRUE(KLIBCCryptSzDecrypt(twice.c_str(), inner, sizeof(inner)));
  char plain[345] = {0};
  ASSERT_TRUE(KLIBCCryptSzDecrypt(inner, plain, sizeof(plain)));
  EXPECT_STREQ(plain, "s3cret");
}

TEST_F(TypedSettingsTest, CallbacksRunAfterTheSaveAndTheFirstFailureStops) {
  qsvtest::RecordingScript daemon("/var/packages/Quillon-Server/target/scripts/PostfixCollection.sh",
                                  0);
  Postfix postfix;
  ASSERT_EQ(postfix.LoadSettings(), 0);
  postfix.Set("smtp_port", boost::any(Value<int>(2525)));
  static int ran = 0;
  ran = 0;
  const std::list<Callback> callbacks = {
      {"reload", Postfix::Service, "reload"},
      {"fails", [](const std::string &) { return -1; }, ""},
      {"never", [](const std::string &) { return ++ran; }, ""},
  };
  EXPECT_EQ(postfix.SaveSettings(callbacks), -1);
  EXPECT_EQ(Stored("smtp_port"), "2525") << "the keys stay saved";
  EXPECT_EQ(daemon.Calls(), (std::vector<std::vector<std::string>>{{"reload"}}));
  EXPECT_EQ(ran, 0);
}

TEST_F(TypedSettingsTest, MultiDomainMapAndLocalDomains) {
  PutKeyFile("virtual_multiple_domain", "1/example.com, broken, 2/b\xc3\xbc" "cher.example");
  PutKeyFile("additional_domain-1", "alias.example, xn--mnchen-3ya.example");
  Postfix postfix;
  ASSERT_EQ(postfix.LoadSettings(), 0);
  EXPECT_EQ(postfix.GetMultiDomainMap(),
            (std::map<int, std::string>{{1, "example.com"}, {2, "b\xc3\xbc" "cher.example"}}));
  int id = 0;
  EXPECT_TRUE(postfix.GetDomainId("example.com", id));
  EXPECT_EQ(id, 1);
  EXPECT_TRUE(postfix.IsLocalDomain("xn--bcher-kva.example"));
  EXPECT_TRUE(postfix.IsLocalDomain("b\xc3\xbc" "cher.example"));
  EXPECT_TRUE(postfix.IsLocalDomain("m\xc3\xbcnchen.example")) << "a further name, Unicode form";
  EXPECT_TRUE(postfix.IsLocalDomain("alias.example"));
  EXPECT_FALSE(postfix.IsLocalDomain("other.example"));

  PutKeyFile("virtual_multiple_domain", "1/example.com, x1/bad.example");
  Postfix damaged;
  EXPECT_THROW(damaged.LoadSettings(), std::invalid_argument);
  PutKeyFile("virtual_multiple_domain", "");
}

TEST_F(TypedSettingsTest, GreylistAndDnsblListsKeepTheFirstOfEachName) {
  Postfix postfix;
  ASSERT_EQ(postfix.LoadSettings(), 0);
  postfix.ClearGreylistRule();
  postfix.AddGreylistRule("sender", "*@spam.example", "greylist");
  postfix.AddGreylistRule("sender", "*@spam.example", "reject");
  postfix.AddGreylistRule("client", "10.0.0.0/8", "pass");
  postfix.ClearPostScreenDNSBL();
  postfix.AddPostScreenDNSBL("zen.example.org", 2);
  postfix.AddPostScreenDNSBL("  zen.example.org ", 5);
  postfix.AddPostScreenDNSBL("bl.example.net", 1);
  ASSERT_EQ(postfix.SaveGreylistRuleList(), 0);
  ASSERT_EQ(postfix.SavePostScreenDNSBLList(), 0);
  EXPECT_EQ(Stored("greylist_rule_list"),
            "sender|*@spam.example|greylist, client|10.0.0.0/8|pass");
  EXPECT_EQ(Stored("postscreen_dnsbl_server"), "zen.example.org|2, bl.example.net|1");

  Postfix reader;
  ASSERT_EQ(reader.LoadSettings(), 0);
  ASSERT_EQ(reader.GetGreylistRuleList().size(), 2u);
  EXPECT_EQ(reader.GetGreylistRuleList().front().action, "greylist");
  ASSERT_EQ(reader.GetPostScreenDNSBLList().size(), 2u);
  EXPECT_EQ(reader.GetPostScreenDNSBLList().back().weight, 1);
}

TEST_F(TypedSettingsTest, AnalyzerReportsWhatAppliesAndOnlyAppends) {
  CheckItem items[] = {
      {"check_a", "no", nullptr, [](const std::string &v) { return v == "yes"; }},
      {"check_b", "no", "check_dep_no", [](const std::string &v) { return v == "yes"; }},
      {"check_c", "no", "check_dep_empty", [](const std::string &v) { return v != "yes"; }},
      {nullptr, nullptr, nullptr, nullptr},
  };
  PutKeyFile("check_a", "yes");
  PutKeyFile("check_dep_no", "no");
  PutKeyFile("check_dep_empty", "");
  PutKeyFile("check_c", "yes");
  std::list<Analyzer::Result> results = {{"good", "earlier"}};
  Analyzer analyzer("", items);
  EXPECT_EQ(analyzer.Analyze(results), 0);
  ASSERT_EQ(results.size(), 3u);
  auto it = std::next(results.begin());
  EXPECT_EQ(it->key, "check_a");
  EXPECT_EQ(it->level, "good");
  ++it;
  EXPECT_EQ(it->key, "check_c") << "an empty dependency counts as met; \"no\" skips";
  EXPECT_EQ(it->level, "warning");
}

TEST_F(TypedSettingsTest, AccountSourceDecidesNamesDirectoriesAndDomains) {
  PutKeyFile("account_type", "local");
  EXPECT_EQ(userTypeCheck("alice"), 0);
  EXPECT_EQ(userTypeCheck("CORP\\alice"), -2);
  std::string path;
  ASSERT_EQ(mailDirPathGet("Quillon-Server", path), 0);
  EXPECT_EQ(path, "/var/spool/mail/local/" + std::to_string(qsvtest::UidOf("Quillon-Server")));
  EXPECT_EQ(mailDirPathGet("CORP\\alice", path), -1);

  PutKeyFile("account_type", "ldap");
  PutKeyFile("acc_domain_name", "example.com");
  Postfix postfix;
  ASSERT_EQ(postfix.LoadSettings(), 0);
  EXPECT_EQ(getFullUsername(postfix, "alice", false), "alice@example.com");
  EXPECT_EQ(getFullUsername(postfix, "bob@other.org", false), "bob@other.org");
  EXPECT_EQ(userTypeCheck("alice@example.com"), 0);
  PutKeyFile("account_type", "local");

  PutKeyFile("virtual_multiple_domain", "1/xn--bcher-kva.example, 2/plain.example");
  PutKeyFile("additional_domain-1", "");
  PutKeyFile("additional_domain-2", "xn--mnchen-3ya.example");
  std::list<std::string> domains;
  ASSERT_EQ(loadAllUtf8DomainList(domains), 0);
  EXPECT_EQ(domains, (std::list<std::string>{"b\xc3\xbc" "cher.example", "plain.example",
                                             "m\xc3\xbcnchen.example"}));
  PutKeyFile("virtual_multiple_domain", "");
}

TEST_F(TypedSettingsTest, ScannerDefaultsFormatsAndItsEngineScript) {
  MailScanner scanner;
  ASSERT_EQ(scanner.LoadSettings(), 0);
  EXPECT_EQ(ValueOf<int>(scanner, "spam_report_machanism"), 0);
  EXPECT_EQ(ValueOf<double>(scanner, "spam_learn_threshold_non_spam"), -1.0);
  EXPECT_TRUE(ValueOf<bool>(scanner, "reject_partial_message"));
  EXPECT_EQ(ValueOf<std::string>(scanner, "mcp_bounce_content").substr(0, 14), "Dear Sender,\n\n");
  // The allow_* keys are words, not switches.
  EXPECT_THROW(ValueOf<bool>(scanner, "allow_iframe_tags"), boost::bad_any_cast);

  scanner.Set("allow_iframe_tags", boost::any(Value<std::string>("no")));
  scanner.Set("spam_required_score", boost::any(Value<double>(6.5)));
  ASSERT_EQ(scanner.SaveSettings({}), 0);
  EXPECT_EQ(Stored("spam_required_score"), "6.500000");
  EXPECT_EQ(Stored("spam_learn_threshold_spam"), "12.000000");
  EXPECT_EQ(Stored("allow_iframe_tags"), "no");

  // A second save publishes only what changed. A time to live given behind the node's back
  // (which the key watcher leaves alone) goes only with a new write of the key.
  const std::string &password = cluster_->password();
  for (const char *key : {"mailserver/conf/mcp_threshold", "mailserver/conf/anti_virus_action"}) {
    qsvtest::StoreCommand(password, {"EXPIRE", key, "1000"});
  }
  scanner.Set("anti_virus_action", boost::any(Value<std::string>("quarantine")));
  ASSERT_EQ(scanner.SaveSettings({}), 0);
  EXPECT_EQ(qsvtest::StoreCommand(password, {"GET", "mailserver/conf/anti_virus_action"}),
            "quarantine");
  EXPECT_EQ(qsvtest::StoreCommand(password, {"TTL", "mailserver/conf/anti_virus_action"}), "-1");
  EXPECT_GT(std::stoi(qsvtest::StoreCommand(password, {"TTL", "mailserver/conf/mcp_threshold"})),
            0);

  // An empty store names clamav; another engine word runs nothing.
  mkdir("/var/packages/Quillon-Server/target/scripts/daemon", 0755);
  qsvtest::RecordingScript clamav("/var/packages/Quillon-Server/target/scripts/daemon/clamav.sh", 3);
  EXPECT_EQ(MailScanner::AntiVirusService("start"), 3);
  ASSERT_EQ(mailConfSet("anti_virus_engine", "other", true, 0), 0);
  EXPECT_EQ(MailScanner::AntiVirusService("stop"), -1);
  EXPECT_EQ(clamav.Calls(), (std::vector<std::vector<std::string>>{{"start"}}));
  ASSERT_EQ(mailConfSet("anti_virus_engine", "clamav", true, 0), 0);
}

TEST_F(TypedSettingsTest, ReportSettingsFollowTheSmtpSettingsAndADamagedKeyThrows) {
  // No report key written yet; the server and the sender follow the SMTP settings of the suite.
  Postfix postfix;
  ASSERT_EQ(postfix.LoadSettings(), 0);
  Reporter empty = Reporter::LoadSetting();
  EXPECT_FALSE(empty.IsEnabled());
  EXPECT_EQ(empty.GetReportTime().hour, 0u);
  EXPECT_EQ(empty.GetReportTime().minute, 0u);
  EXPECT_EQ(empty.GetSMTP().host, "localhost");
  EXPECT_EQ(empty.GetSMTP().port, ValueOf<int>(postfix, "smtp_port"));
  EXPECT_EQ(empty.GetSender().address,
            "reporter@" + ValueOf<std::string>(postfix, "smtp_main_domain"));

  Reporter report;
  report.SetEnable(true);
  report.SetRcpt("admin@example.com", false);
  report.SetRcpt("boss@example.com", true);
  report.SetTime({7, 45});
  report.SaveSetting();
  ASSERT_EQ(mailConfSet("smtp_main_domain", "example.com", true, 0), 0);
  const Reporter loaded = Reporter::LoadSetting();
  EXPECT_TRUE(loaded.IsEnabled());
  EXPECT_EQ(loaded.GetRcpt(true), "boss@example.com");
  EXPECT_EQ(loaded.GetReportTime().minute, 45u);
  EXPECT_EQ(loaded.GetSender().address, "reporter@example.com");
  EXPECT_EQ(Stored("report_time_hour"), "7");

  qsvtest::WriteFile(std::string(kMailConfDir) + toLeagalFileName("report_time_min"), "{\"broken");
  EXPECT_THROW(Reporter::LoadSetting(), std::runtime_error);
  ASSERT_EQ(mailConfSet("smtp_main_domain", "localdomain", true, 0), 0);
  PutKeyFile("report_time_min", "0");
}

}  // namespace
