// The spam filter a node really runs: the settings, rule files and lists of the anti-spam object
// written by the package's configuration writer, checked by SpamAssassin's own lint, and applied
// by spamd as SpamDaemon.sh runs it, to messages handed over by spamc.
#include <dirent.h>
#include <fcntl.h>
#include <spawn.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdio>
#include <fstream>
#include <map>
#include <set>
#include <sstream>
#include <string>

#include <gtest/gtest.h>

#include "harness/syslog_capture.h"
#include "kolt/exec.h"
#include "security/security_fixture.h"

extern char **environ;

namespace {

using qsvtest::MainDBExec;

const std::string kTarget = "/var/packages/Quillon-Server/target";
const std::string kSite = kTarget + "/etc/spamassassin";
const std::string kRules = "/var/packages/Quillon-Server/etc/rules/";
const std::string kSpamAssassin = kTarget + "/bin/spamassassin";

std::string ReadText(const std::string &path) {
  std::ifstream in(path);
  std::stringstream text;
  text << in.rdbuf();
  return text.str();
}

void WriteText(const std::string &path, const std::string &text) {
  std::ofstream(path, std::ios::trunc) << text;
}

// Every file of the live configuration, by name.
std::map<std::string, std::string> SiteFiles() {
  std::map<std::string, std::string> files;
  for (const char *name : {"init.pre", "local.cf", "blackwhite.cf"}) {
    files[name] = ReadText(kSite + "/" + name);
  }
  return files;
}

// Folders of writers beside the live configuration.
int LeftoverFolders() {
  int count = 0;
  DIR *dir = opendir((kTarget + "/etc").c_str());
  while (const struct dirent *entry = dir != nullptr ? readdir(dir) : nullptr) {
    count += std::string(entry->d_name).rfind("spamassassin.", 0) == 0;
  }
  if (dir != nullptr) closedir(dir);
  return count;
}

int Lint() {
  const std::string site = "--siteconfigpath=" + kSite;
  return KLIBCExecl(kSpamAssassin.c_str(), KLIBC_EXEC_QUIET_WAIT, "--lint", "-L", "-x", "-p",
                    "/dev/null", site.c_str(), nullptr);
}

// The message as the running spamd gives it back, headers marked and subject rewritten.
std::string Filter(const std::string &from, const std::string &to) {
  const std::string path = "/tmp/spam_filter_message";
  WriteText(path, "From: " + from + "\nTo: " + to +
                      "\nSubject: quarterly figures\nMessage-ID: <figures-1@example.net>\n"
                      "Date: Sun, 23 Nov 2025 05:00:00 +0000\n\nThe figures are attached.\n");
  int out[2];
  if (pipe(out) != 0) return "";
  posix_spawn_file_actions_t actions;
  posix_spawn_file_actions_init(&actions);
  posix_spawn_file_actions_addopen(&actions, 0, path.c_str(), O_RDONLY, 0);
  posix_spawn_file_actions_adddup2(&actions, out[1], 1);
  posix_spawn_file_actions_addclosefrom_np(&actions, 3);
  const std::string spamc = kTarget + "/bin/spamc";
  const char *argv[] = {spamc.c_str(), "-d", "127.0.0.1", "-p", "8783", nullptr};
  pid_t pid;
  const int rc = posix_spawn(&pid, spamc.c_str(), &actions, nullptr,
                             const_cast<char *const *>(argv), environ);
  posix_spawn_file_actions_destroy(&actions);
  close(out[1]);
  std::string text;
  char buffer[4096];
  ssize_t got;
  while (rc == 0 && (got = read(out[0], buffer, sizeof(buffer))) > 0) text.append(buffer, got);
  close(out[0]);
  if (rc == 0) waitpid(pid, nullptr, 0);
  return text;
}

// The header `name` of a filtered message, folded lines joined with a blank.
std::string Header(const std::string &message, const std::string &name) {
  const std::string head = message.substr(0, message.find("\n\n") + 1);
  size_t at = head.rfind(name + ": ", 0) == 0 ? 0 : head.find("\n" + name + ": ");
  if (at == std::string::npos) return "";
  at = head.find(": ", at) + 2;
  std::string value;
  for (size_t end; (end = head.find('\n', at)) != std::string::npos; at = end + 1) {
    value += head.substr(at, end - at);
    if (end + 1 >= head.size() || (head[end + 1] != ' ' && head[end + 1] != '\t')) break;
  }
  return value;
}

// The names of the rules that hit, from "tests=A,B,C" of the status header.
std::set<std::string> RulesHit(const std::string &message) {
  std::string status = Header(message, "X-Spam-Status");
  std::set<std::string> rules;
  const size_t at = status.find("tests=");
  if (at == std::string::npos) return rules;
  std::string list;
  for (const char c : status.substr(at + 6)) {
    if (c == '\t' || c == ' ') {
      if (!list.empty() && list.back() != ',') break;
      continue;
    }
    list += c;
  }
  std::istringstream names(list);
  for (std::string name; std::getline(names, name, ',');) rules.insert(name);
  return rules;
}

bool Blocked(const std::string &message) {
  const std::set<std::string> hit = RulesHit(message);
  return hit.count("USER_IN_BLOCKLIST") + hit.count("USER_IN_BLACKLIST") > 0;
}

// The rule files the tests write; each test removes them and every rule flag when it ends.
const char *const kTestRules[] = {"good.cf", "broken.cf", "plugin.cf", "link.cf", "folder.cf"};

// The anti-spam object's nine settings, so that a test gives back the ones it found.
struct SpamSettings {
  bool enable, rewrite;
  std::string tag;
  float score;
  int mechanism;
  bool learn;
  float spamThreshold, nonSpamThreshold;
  bool autoWhitelist;
};

class SpamFilterTest : public qsvtest::SecurityTest {
 protected:
  static void TearDownTestSuite() {
    if (Spam *spam = qsvtest::SpamInstance()) spam->Service("stop");
    qsvtest::SecurityTest::TearDownTestSuite();
  }

  void SetUp() override {
    spam_ = qsvtest::SpamInstance();
    ASSERT_NE(spam_, nullptr);
    found_ = {spam_->isEnableSpamassassin(), spam_->isEnableRewrite(), spam_->getRewriteSubject(),
              spam_->getRequiredScore(),     spam_->getReportMachanism(), spam_->isUseAutoLearn(),
              spam_->getSpamLearnThreshold(), spam_->getNonSpamLearnThreshold(),
              spam_->isUseAutoWhiteList()};
    Tidy();
    spam_->setEnableSpamassassin(true);
    spam_->setRequiredScore(5.0f);
    spam_->setEnableRewrite(true);
    spam_->setRewriteSubject("[SPAM #quillon]");
    spam_->setReportMachanism(0);
    spam_->setUseAutoLearn(true);
    spam_->setSpamLearnThreshold(12.0f);
    spam_->setNonSpamLearnThreshold(0.1f);
    spam_->setUseAutoWhiteList(true);
  }

  // The settings go back into the object and the store as they were found; the live filter
  // configuration stays as the test left it.
  void TearDown() override {
    if (spam_ == nullptr) return;
    Tidy();
    const SpamSettings &s = found_;
    spam_->setEnableSpamassassin(s.enable);
    spam_->setEnableRewrite(s.rewrite);
    spam_->setRewriteSubject(s.tag);
    spam_->setRequiredScore(s.score);
    spam_->setReportMachanism(s.mechanism);
    spam_->setUseAutoLearn(s.learn);
    spam_->setSpamLearnThreshold(s.spamThreshold);
    spam_->setNonSpamLearnThreshold(s.nonSpamThreshold);
    spam_->setUseAutoWhiteList(s.autoWhitelist);
    const auto yesNo = [](bool on) { return std::string(on ? "yes" : "no"); };
    const auto score = [](float value) {
      char text[64];
      snprintf(text, sizeof(text), "%.2f", static_cast<double>(value));
      return std::string(text);
    };
    EXPECT_EQ(mailConfSet(std::map<std::string, std::string>{
                  {"spam_enable", yesNo(s.enable)},
                  {"spam_enable_rewrite", yesNo(s.rewrite)},
                  {"spam_rewrite_subject", s.tag},
                  {"spam_required_score", score(s.score)},
                  {"spam_report_machanism", std::to_string(s.mechanism)},
                  {"spam_auto_learn", yesNo(s.learn)},
                  {"spam_learn_threshold_spam", score(s.spamThreshold)},
                  {"spam_learn_threshold_non_spam", score(s.nonSpamThreshold)},
                  {"spam_auto_whitelist", yesNo(s.autoWhitelist)}}),
              0);
  }

  void Tidy() {
    MainDBExec("delete from blackwhite_table;");
    for (const auto &rule : spam_->getSpamRules()) spam_->deleteRule(rule.first);
    for (const char *name : kTestRules) {
      unlink((kRules + name).c_str());
      rmdir((kRules + name).c_str());
    }
  }

  Spam *spam_ = nullptr;
  SpamSettings found_{};
};

TEST_F(SpamFilterTest, ListedSendersAndRecipientsAreScoredByTheRunningFilter) {
  WriteText("/tmp/lists.json", R"({
    "blacklist": {"from": {"address": ["spammer@evil.example"], "account": ["mallory"]},
                  "to": {"domain": ["bücher.example"]}},
    "whitelist": {"from": {"domain": ["friend.example"]}}
  })");
  ASSERT_EQ(spam_->importBlackWhite("/tmp/lists.json"), 0);
  ASSERT_EQ(spam_->applySettings(), 0);
  EXPECT_EQ(Lint(), 0);

  // Until spamd runs, status says it doesn't; without spamd on the node nothing starts.
  EXPECT_NE(spam_->Service("status"), 0);
  const std::string spamd = kTarget + "/sbin/spamd";
  ASSERT_EQ(rename(spamd.c_str(), (spamd + ".aside").c_str()), 0);
  EXPECT_NE(spam_->Service("start"), 0);
  ASSERT_EQ(rename((spamd + ".aside").c_str(), spamd.c_str()), 0);
  ASSERT_EQ(spam_->Service("start"), 0);
  EXPECT_EQ(spam_->Service("status"), 0);

  std::string message = Filter("Spammer <spammer@evil.example>", "bob@example.com");
  EXPECT_TRUE(Blocked(message)) << message;
  EXPECT_EQ(Header(message, "Subject"), "[SPAM #quillon] quarterly figures") << message;
  message = Filter("mallory@anywhere.example", "bob@example.com");
  EXPECT_TRUE(Blocked(message)) << message;
  // A Unicode domain is matched in its punycode spelling too.
  message = Filter("carol@example.net", "dieter@xn--bcher-kva.example");
  EXPECT_EQ(RulesHit(message).count("USER_IN_BLOCKLIST_TO"), 1u) << message;

  message = Filter("Friend <ann@friend.example>", "bob@example.com");
  EXPECT_EQ(Header(message, "X-Spam-Status").rfind("No,", 0), 0u) << message;
  EXPECT_EQ(RulesHit(message).count("USER_IN_WELCOMELIST"), 1u) << message;
  EXPECT_EQ(Header(message, "Subject"), "quarterly figures");

  // A change reaches the running filter without a restart.
  ASSERT_EQ(spam_->deleteBlackWhite({"spammer@evil.example", BLACK_WHITE_BLACKLIST, TYPE_FROM,
                                     NAME_TYPE_ADDRESS}),
            0);
  ASSERT_EQ(spam_->applySettings(), 0);
  message = Filter("spammer@evil.example", "bob@example.com");
  EXPECT_FALSE(Blocked(message)) << message;
  EXPECT_EQ(Header(message, "Subject"), "quarterly figures");

  // Stopped, so that the other tests' writes have no filter to reload.
  EXPECT_EQ(spam_->Service("stop"), 0);
  EXPECT_NE(spam_->Service("status"), 0);
}

TEST_F(SpamFilterTest, RefusedRuleFileLeavesTheLiveConfigurationAsItWas) {
  mkdir(kRules.c_str(), 0755);
  WriteText(kRules + "good.cf", "body QSV_MARKER /qsv-marker/\nscore QSV_MARKER 2.5\n");
  ASSERT_EQ(spam_->enableRule("good.cf"), 0);
  ASSERT_EQ(spam_->applySettings(), 0);
  EXPECT_EQ(ReadText(kSite + "/custom_good.cf"), ReadText(kRules + "good.cf"));
  const std::map<std::string, std::string> live = SiteFiles();

  // One that SpamAssassin can't read, and one that loads code of its own (which the lint would
  // run), each enabled: neither the new score nor the rule gets in, the code never runs, and no
  // folder is left behind.
  WriteText("/tmp/evil.pm",
            "package Evil::Plugin;\n"
            "use Mail::SpamAssassin::Plugin;\n"
            "our @ISA = qw(Mail::SpamAssassin::Plugin);\n"
            "open(my $mark, '>', '/tmp/evil-ran');\n"
            "sub new { my ($class, $main) = @_; return bless $class->SUPER::new($main), $class; }\n"
            "1;\n");
  const std::string refused[][2] = {
      {"broken.cf", "body QSV_BROKEN /unclosed(/\n"},
      {"plugin.cf", "if version > 1\n  LoadPlugin Evil::Plugin /tmp/evil.pm\nendif\n"},
  };
  spam_->setRequiredScore(9.0f);
  for (const auto &rule : refused) {
    WriteText(kRules + rule[0], rule[1]);
    ASSERT_EQ(spam_->enableRule(rule[0]), 0);
    EXPECT_EQ(rule[0] == "broken.cf" ? spam_->applySettings() : spam_->GenerateConfig(), -1)
        << rule[0];
    EXPECT_EQ(SiteFiles(), live) << rule[0];
    EXPECT_NE(access((kSite + "/custom_" + rule[0]).c_str(), F_OK), 0);
    ASSERT_EQ(spam_->disableRule(rule[0]), 0);
  }
  EXPECT_NE(access("/tmp/evil-ran", F_OK), 0);
  EXPECT_EQ(LeftoverFolders(), 0);
  EXPECT_EQ(Lint(), 0);

  // What isn't a plain file of the rules folder is passed over, and the rest is written.
  ASSERT_EQ(symlink("/etc/passwd", (kRules + "link.cf").c_str()), 0);
  mkdir((kRules + "folder.cf").c_str(), 0755);
  for (const char *name : {"link.cf", "folder.cf", "missing.cf"}) {
    ASSERT_EQ(spam_->enableRule(name), 0);
  }
  qsvtest::SyslogCapture log;
  ASSERT_EQ(spam_->applySettings(), 0);
  EXPECT_NE(ReadText(kSite + "/local.cf").find("required_score 9.00\n"), std::string::npos);
  EXPECT_EQ(log.Matching("skipped").size(), 3u);
  for (const char *name : {"link.cf", "folder.cf", "missing.cf"}) {
    EXPECT_NE(access((kSite + "/custom_" + name).c_str(), F_OK), 0) << name;
  }
  EXPECT_EQ(ReadText(kSite + "/custom_good.cf"), ReadText(kRules + "good.cf"));
  EXPECT_EQ(Lint(), 0);
}

TEST_F(SpamFilterTest, NamesAndSettingsThatWouldAddLinesNeverReachTheConfiguration) {
  spam_->setReportMachanism(7);
  spam_->setRewriteSubject("   ");
  MainDBExec(
      "insert into blackwhite_table values (1, 'ok@example.com', 0, 1);"
      "insert into blackwhite_table values (1, 'x@example.com\nrequired_score -100', 0, 1);"
      "insert into blackwhite_table values (2, 'two words.example', 1, 2);"
      "insert into blackwhite_table values (1, 'tab\tx@example.com', 0, 2);"
      "insert into blackwhite_table values (1, 'hash#x@example.com', 0, 1);"
      "insert into blackwhite_table values (1, 'nbsp' || char(160) || 'x@example.com', 0, 1);"
      "insert into blackwhite_table values (2, 'nobody@example.com', 0, 1);");  // a domain with @
  qsvtest::SyslogCapture log;
  ASSERT_EQ(spam_->applySettings(), 0);
  EXPECT_EQ(log.Matching("skipped").size(), 6u);
  EXPECT_EQ(log.Matching("report mechanism 7").size(), 1u);
  EXPECT_EQ(Lint(), 0);

  std::istringstream lines(ReadText(kSite + "/blackwhite.cf"));
  std::string entries;
  for (std::string line; std::getline(lines, line);) {
    if (line.empty() || line[0] == '#') continue;
    entries += line + "\n";
  }
  EXPECT_EQ(entries, "blocklist_from ok@example.com\n");
  const std::string settings = ReadText(kSite + "/local.cf");
  EXPECT_NE(settings.find("report_safe 1\n"), std::string::npos);
  EXPECT_EQ(settings.find("rewrite_header"), std::string::npos);  // rewriting on, tag empty

  // A subject tag that would end its line is refused whole.
  const std::map<std::string, std::string> live = SiteFiles();
  spam_->setRewriteSubject("[SPAM]\nrequired_score -100");
  EXPECT_EQ(spam_->applySettings(), -1);
  EXPECT_EQ(SiteFiles(), live);

  EXPECT_EQ(qsvtest::RunProgram(kTarget + "/bin/kolt_set_config"), 1);
  EXPECT_EQ(qsvtest::RunProgram(kTarget + "/bin/kolt_set_config", "spam", "extra"), 1);
  EXPECT_EQ(qsvtest::RunProgram(kTarget + "/bin/kolt_set_config", "postfix"), 1);
  EXPECT_EQ(SiteFiles(), live);
}

}  // namespace
