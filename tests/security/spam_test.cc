// The anti-spam object against the real main database and a one-node cluster: its settings in the
// store, the rule flags of the "rule" tree, the black and white list and its two import forms.
#include <sys/stat.h>
#include <unistd.h>

#include <fstream>
#include <string>

#include <gtest/gtest.h>
#include <json/json.h>

#include "cluster/mailserver_cluster.h"
#include "core/mail_conf.h"
#include "harness/eventually.h"
#include "harness/syslog_capture.h"
#include "security/security_fixture.h"

namespace {

using qsvtest::MainDBExec;
using qsvtest::SpamInstance;

const std::string kRules = "/var/packages/Quillon-Server/etc/rules/";

void WriteText(const std::string &path, const std::string &text) {
  std::ofstream(path, std::ios::trunc) << text;
}

// Each row as "verdict/type/nameType/name", in table order.
std::string Rows(Spam *spam, BlackWhiteFilter filter) {
  std::string text;
  for (const BlackWhite &row : spam->getBlackWhiteList(filter)) {
    text += std::to_string(row.blackWhiteType) + "/" + std::to_string(row.type) + "/" +
            std::to_string(row.nameType) + "/" + row.name + " ";
  }
  return text;
}

const BlackWhiteFilter kAll{0, 100, TYPE_ALL, NAME_TYPE_ALL, BLACK_WHITE_KNOWN, "*", ""};

class SpamTest : public qsvtest::SecurityTest {
 protected:
  void SetUp() override {
    spam_ = SpamInstance();
    ASSERT_NE(spam_, nullptr);
    MainDBExec("delete from blackwhite_table;");
  }
  Spam *spam_ = nullptr;
};

TEST_F(SpamTest, FirstInstanceKeepsItsPathAndMissingOrEmptySettingsKeepDefaults) {
  qsvtest::SpamAtBirth birth;
  SpamInstance(&birth);
  EXPECT_FLOAT_EQ(birth.requiredScore, 7.5f);
  EXPECT_TRUE(birth.enable);
  EXPECT_EQ(birth.rewriteSubject, "*****SPAM*****");  // stored empty
  EXPECT_EQ(birth.reportMechanism, 1);                // missing
  EXPECT_FLOAT_EQ(birth.nonSpamLearnThreshold, 0.1f);

  EXPECT_EQ(Spam::getInstance("/tmp/another.db"), spam_);
  EXPECT_NE(access("/tmp/another.db", F_OK), 0);
  ASSERT_EQ(spam_->addBlackWhite({"a@example.com", BLACK_WHITE_BLACKLIST, TYPE_FROM, NAME_TYPE_ADDRESS}), 0);
  sqlite3 *db = nullptr;
  ASSERT_EQ(sqlite3_open(kMailServerDBPath, &db), SQLITE_OK);
  sqlite3_stmt *query = nullptr;
  sqlite3_prepare_v2(db, "select name from blackwhite_table", -1, &query, nullptr);
  ASSERT_EQ(sqlite3_step(query), SQLITE_ROW);
  EXPECT_STREQ(reinterpret_cast<const char *>(sqlite3_column_text(query, 0)), "a@example.com");
  sqlite3_finalize(query);
  sqlite3_close(db);
}

TEST_F(SpamTest, SettingsArePublishedInTheirTextFormsAndReadBack) {
  spam_->setRequiredScore(6.25f);
  spam_->setReportMachanism(2);
  spam_->setNonSpamLearnThreshold(-1.5f);
  spam_->setUseAutoLearn(true);
  spam_->setEnableRewrite(true);
  spam_->setRewriteSubject("[SPAM]");
  spam_->applySettings();  // the settings stay published whatever the writer says
  const char *expected[][2] = {{"spam_required_score", "6.25"},
                               {"spam_report_machanism", "2"},
                               {"spam_learn_threshold_non_spam", "-1.50"},
                               {"spam_learn_threshold_spam", "12.00"},
                               {"spam_auto_learn", "yes"},
                               {"spam_auto_whitelist", "no"},
                               {"spam_rewrite_subject", "[SPAM]"}};
  for (auto &pair : expected) {
    std::string value;
    EXPECT_EQ(mailConfGet(pair[0], value), 0);
    EXPECT_EQ(value, pair[1]) << pair[0];
  }
  ASSERT_EQ(mailConfSet("spam_required_score", "3.5", true, 0), 0);
  spam_->setUseAutoLearn(false);
  EXPECT_EQ(spam_->LoadConfig(), 0);
  EXPECT_FLOAT_EQ(spam_->getRequiredScore(), 3.5f);
  EXPECT_TRUE(spam_->isUseAutoLearn());
}

TEST_F(SpamTest, RuleFlagsLiveInTheRuleTreeAndRaiseTheSpamFlag) {
  mkdir(kRules.c_str(), 0755);
  for (const char *file : {"b_rules.cf", "a_rules.cf"}) WriteText(kRules + file, "# empty\n");
  EXPECT_EQ(spam_->getSpamRuleFiles(), (std::list<std::string>{"a_rules.cf", "b_rules.cf"}));
  EXPECT_EQ(spam_->GetImportRulePath("a_rules.cf"), kRules + "a_rules.cf");
  for (const char *name : {"missing.cf", "../rules/a_rules.cf", "..", ""}) {
    EXPECT_EQ(spam_->GetImportRulePath(name), "") << name;
  }

  KOLT::QUILLON_SERVER::KOLTMailNodeCluster cluster;
  cluster.removeDir("service_change");
  auto spamFlagRaised = [&] {
    std::vector<std::string> flags;
    cluster.ls("service_change", flags);
    for (const std::string &flag : flags) {
      if (flag.find("|mailserver_service_spam|") != std::string::npos) return true;
    }
    return false;
  };
  using Rules = std::list<std::pair<std::string, bool>>;
  {
    qsvtest::WatcherPaused paused;  // else it may take the flag up before we look
    ASSERT_EQ(spam_->enableRule("b_rules.cf"), 0);
    ASSERT_EQ(spam_->disableRule("a_rules.cf"), 0);
    ASSERT_EQ(spam_->enableRule("c-x.cf"), 0);  // only the first dash separates the name
    EXPECT_EQ(spam_->getSpamRules(),
              (Rules{{"a_rules.cf", false}, {"b_rules.cf", true}, {"c-x.cf", true}}));
    std::string value;
    ASSERT_TRUE(cluster.getKey("rule/mailserver_rule_status-b_rules.cf", value, true));
    EXPECT_EQ(value, "yes");
    EXPECT_TRUE(spamFlagRaised());
  }
  // The node's watcher takes the change up and lowers the flag.
  EXPECT_TRUE(qsvtest::Eventually([&] { return !spamFlagRaised(); }, 10));

  ASSERT_EQ(spam_->deleteRule("b_rules.cf"), 0);
  ASSERT_EQ(spam_->deleteRule("c-x.cf"), 0);
  EXPECT_EQ(spam_->getSpamRules(), (Rules{{"a_rules.cf", false}}));
  EXPECT_EQ(access((kRules + "b_rules.cf").c_str(), F_OK), 0);  // the caller's to remove
}

TEST_F(SpamTest, RowsAreKeyedWithoutTheirVerdictAndFiltersPageAndCount) {
  ASSERT_EQ(spam_->addBlackWhiteList({{"spam@example.com", BLACK_WHITE_BLACKLIST, TYPE_FROM, NAME_TYPE_ADDRESS},
                                      {"example.net", BLACK_WHITE_BLACKLIST, TYPE_TO, NAME_TYPE_DOMAIN},
                                      {"o'brien", BLACK_WHITE_WHITELIST, TYPE_FROM, NAME_TYPE_ACCOUNT}}),
            0);
  // The same key with the other verdict replaces the row.
  ASSERT_EQ(spam_->addBlackWhite({"spam@example.com", BLACK_WHITE_WHITELIST, TYPE_FROM, NAME_TYPE_ADDRESS}), 0);
  EXPECT_EQ(spam_->countQueryData(kAll), 3);
  BlackWhiteFilter white = kAll;
  white.blackWhiteType = BLACK_WHITE_WHITELIST;
  EXPECT_EQ(Rows(spam_, white), "2/0/0/o'brien 2/0/1/spam@example.com ");
  white.name = "'bri";
  EXPECT_EQ(Rows(spam_, white), "2/0/0/o'brien ");
  BlackWhiteFilter page = kAll;
  page.offset = 1;
  page.limit = 1;
  EXPECT_EQ(spam_->getBlackWhiteList(page).size(), 1u);
  EXPECT_EQ(spam_->countQueryData(page), 3);  // a count has no page

  // A name type filter names a column the table lacks: nothing comes back, and that is logged.
  qsvtest::SyslogCapture log;
  BlackWhiteFilter byKind = kAll;
  byKind.nameType = NAME_TYPE_ADDRESS;
  EXPECT_TRUE(spam_->getBlackWhiteList(byKind).empty());
  EXPECT_EQ(spam_->countQueryData(byKind), -1);
  EXPECT_FALSE(log.Matching("query black white data fail").empty());

  // Deleting finds the row whatever verdict the caller names.
  ASSERT_EQ(spam_->deleteBlackWhite({"spam@example.com", BLACK_WHITE_BLACKLIST, TYPE_FROM, NAME_TYPE_ADDRESS}), 0);
  EXPECT_EQ(Rows(spam_, white), "2/0/0/o'brien ");

  // A name that would add a line of its own to a configuration, or a verdict without a word, is
  // refused with everything else of the call.
  EXPECT_EQ(spam_->addBlackWhiteList({{"fine.example", BLACK_WHITE_BLACKLIST, TYPE_TO, NAME_TYPE_DOMAIN},
                                      {"x@y\nwhitelist_from *", BLACK_WHITE_BLACKLIST, TYPE_FROM, NAME_TYPE_ADDRESS}}),
            -1);
  EXPECT_EQ(spam_->addBlackWhite({"z.example", static_cast<BlackWhiteType>(7), TYPE_TO, NAME_TYPE_DOMAIN}), -1);
  EXPECT_EQ(spam_->countQueryData(kAll), 2);
}

TEST_F(SpamTest, ExportHasEveryArrayAndImportGivesTheRowsBack) {
  Json::Value out;
  ASSERT_EQ(spam_->exportBlackWhite(out, false), 0);
  int arrays = 0;
  for (const char *verdict : {"blacklist", "whitelist"}) {
    for (const char *side : {"from", "to"}) {
      for (const char *kind : {"account", "address", "domain"}) {
        arrays += out[verdict][side][kind].isArray() && out[verdict][side][kind].empty();
      }
    }
  }
  EXPECT_EQ(arrays, 12);

  ASSERT_EQ(spam_->addBlackWhiteList({{"*.bücher.example", BLACK_WHITE_BLACKLIST, TYPE_FROM, NAME_TYPE_DOMAIN},
                                      {"10.0.0.1", BLACK_WHITE_WHITELIST, TYPE_CLIENT, NAME_TYPE_ADDRESS},
                                      {"boss", BLACK_WHITE_WHITELIST, TYPE_TO, NAME_TYPE_ACCOUNT}}),
            0);
  ASSERT_EQ(spam_->exportBlackWhite(out, true), 0);
  // A client row counts as a recipient's; a Unicode name comes in both spellings.
  EXPECT_EQ(out["whitelist"]["to"]["address"][0].asString(), "/^10\\.0\\.0\\.1$/");
  EXPECT_EQ(out["blacklist"]["from"]["domain"].size(), 2u);
  EXPECT_EQ(out["blacklist"]["from"]["domain"][1].asString(), "/^[^@]*\\.xn--bcher-kva\\.example$/");

  const std::string file = "/tmp/lists.json";
  ASSERT_EQ(spam_->exportBlackWhite(file), 0);
  MainDBExec("delete from blackwhite_table;");
  ASSERT_EQ(spam_->importBlackWhite(file), 0);
  // Imported from the document, the client row is a recipient's.
  EXPECT_EQ(Rows(spam_, kAll), "1/0/2/*.bücher.example 2/1/0/boss 2/1/1/10.0.0.1 ");

  // Damaged documents change nothing: not JSON, a cell of the wrong shape, a name with a newline.
  MainDBExec("delete from blackwhite_table;");
  for (const char *text : {"{\"blacklist\": ", "{\"blacklist\": {\"from\": {\"address\": \"a@b\"}}}",
                           "{\"blacklist\": {\"from\": {\"address\": [\"a@b\", {}]}}}",
                           "{\"whitelist\": [1]}",
                           "{\"blacklist\": {\"to\": {\"domain\": [\"ok.example\", \"x\\ny\"]}}}"}) {
    WriteText(file, text);
    EXPECT_EQ(spam_->importBlackWhite(file), -1) << text;
  }
  EXPECT_EQ(spam_->importBlackWhite("/tmp"), -1);
  EXPECT_EQ(spam_->countQueryData(kAll), 0);
  // A document that isn't an object holds nothing.
  WriteText(file, "[\"a@b\"]");
  EXPECT_EQ(spam_->importBlackWhite(file), 0);
  EXPECT_EQ(spam_->countQueryData(kAll), 0);
}

TEST_F(SpamTest, OldLineFormTakesOnlyTheLinesThatSayYes) {
  const std::string file = "/tmp/old_list.txt";
  WriteText(file,
            "from: spam@example.com yes\n"
            "To:\texample.net YES\n"
            "from: kept-out@example.com no\n"
            "bcc: other@example.com yes\n"
            "from: two-words\n"
            "from: a b yes\n"
            "\n");
  qsvtest::SyslogCapture log;
  ASSERT_EQ(spam_->importOldBlackWhite(BLACK_WHITE_WHITELIST, file), 0);
  EXPECT_EQ(Rows(spam_, kAll), "2/0/1/spam@example.com 2/1/2/example.net ");
  EXPECT_FALSE(log.Matching("skip: bcc: other@example.com yes").empty());
  EXPECT_EQ(spam_->importOldBlackWhite(BLACK_WHITE_BLACKLIST, "/tmp/no-such-list"), -1);
}

}  // namespace
