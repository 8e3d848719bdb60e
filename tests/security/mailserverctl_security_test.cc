// The content security commands of mailserverctl as an administrator meets them (spam filter,
// access table, scanner settings, antivirus databases, quarantine index): a refused input says
// why, exits 1 and leaves the store, the folders and the tables exactly as they were; what is
// accepted goes round through the real databases, the store, the signature folders and postmap.
#include <dirent.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cstdio>
#include <functional>
#include <map>
#include <memory>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "config/mail_conf.h"
#include "core/mail_conf.h"
#include "harness/mailserverctl_run.h"
#include "harness/recording_script.h"
#include "security/MCPDBHandler.h"
#include "security/security_fixture.h"
#include "tables/tables_fixture.h"

namespace {

using qsvtest::MainDBExec;
using qsvtest::ReadFile;
using qsvtest::RunCtl;
using qsvtest::WriteFile;

const std::string kConfDir = "/var/packages/Quillon-Server/etc/mailconf.d/";
const std::string kRules = "/var/packages/Quillon-Server/etc/rules/";
const char kWriter[] = "/var/packages/Quillon-Server/target/bin/kolt_set_config";
const std::string kClamav = "/var/packages/Quillon-Server/target/share/clamav";
const char kAntiVirusStatus[] = "/tmp/QuillonServer.antivirus.status";
const char kQuarantine[] = "/var/packages/Quillon-Server/etc/mcp_quarantine.db";

std::string Line(const std::vector<std::string> &args) {
  std::string line;
  for (const std::string &arg : args) line += arg.substr(0, 60) + " ";
  return line;
}

// Every file of a folder with its content.
std::string Folder(const std::string &dir) {
  std::map<std::string, std::string> files;
  DIR *handle = opendir(dir.c_str());
  while (const dirent *entry = handle != nullptr ? readdir(handle) : nullptr) {
    // The cluster's flags of changed services come and go on their own.
    if (std::string(entry->d_name).find("service_change") != std::string::npos) continue;
    files[entry->d_name] = ReadFile(dir + entry->d_name);
  }
  if (handle != nullptr) closedir(handle);
  std::string text;
  for (const auto &file : files) text += file.first + "=" + file.second + "\n";
  return text;
}

// What these commands can change: the key files, the rules folder and both tables.
std::string State() {
  return Folder(kConfDir) + "--\n" + Folder(kRules) + "--\n" +
         RunCtl({"spam", "blackwhite", "list"}).output + RunCtl({"access", "list"}).output;
}

// The configuration writer, replaced for the life of the object by a script that exits with the
// code the test chooses; the real one, when the build has it, comes back afterwards.
struct WriterStandIn {
  explicit WriterStandIn(int exitCode) : script(kWriter, exitCode) {}
  struct Aside {
    Aside() { rename(kWriter, away.c_str()); }
    ~Aside() { rename(away.c_str(), kWriter); }
    const std::string away = std::string(kWriter) + ".aside";
  } real;
  qsvtest::RecordingScript script;
};

// The lines of `spam rule list` of the rules this test makes: other suites may leave theirs.
std::string OwnRules() {
  const std::string listed = RunCtl({"spam", "rule", "list"}).output;
  std::string own;
  for (size_t start = 0; start < listed.size();) {
    const size_t end = listed.find('\n', start) + 1;
    const std::string line = listed.substr(start, end - start);
    if (line.rfind("local_x.cf ", 0) == 0 || line.rfind("refused_by_writer.cf ", 0) == 0)
      own += line;
    start = end;
  }
  return own;
}

std::string Flag(const std::string &rule) {
  std::string value;
  mailConfGet("mailserver_rule_status-" + rule, value);
  return value;
}

class MailserverctlSecurityTest : public qsvtest::SecurityTest {
 protected:
  void SetUp() override {
    ASSERT_NE(qsvtest::SpamInstance(), nullptr);  // the database with its tables
    MainDBExec("delete from blackwhite_table; delete from access_table;");
    mkdir(kRules.c_str(), 0755);
  }
};

TEST_F(MailserverctlSecurityTest, RefusedInputSaysWhyAndChangesNothing) {
  WriterStandIn writer(0);
  WriteFile("/tmp/kept.cf", "header KEPT Subject =~ /kept/\n");
  ASSERT_EQ(RunCtl({"spam", "rule", "import", "/tmp/kept.cf"}).status, 0);
  ASSERT_EQ(RunCtl({"spam", "rule", "enable", "kept.cf"}).status, 0);
  ASSERT_EQ(RunCtl({"spam", "set", "spam_required_score", "4.5"}).status, 0);
  ASSERT_EQ(
      RunCtl({"spam", "blackwhite", "add", "black", "from", "address", "kept@example.com"}).status,
      0);
  ASSERT_EQ(RunCtl({"access", "add", "from", "kept.example", "REJECT"}).status, 0);
  WriteFile("/tmp/control.cf", std::string("score X 1\n\x01\n"));
  WriteFile("/tmp/latin1.cf", "# caf\xe9\n");
  WriteFile("/tmp/secret.cf", "score X 1\n", 0600);
  symlink("/tmp/kept.cf", "/tmp/link.cf");
  WriteFile("/tmp/bad.json", "{\"blacklist\": ");
  WriteFile("/tmp/shape.json", "{\"blacklist\": []}");
  WriteFile("/tmp/blank.json",
            "{\"whitelist\": {\"from\": {\"domain\": [\"ok.example\", \"two words.example\"]}}}");
  WriteFile("/tmp/kind.json", "{\"whitelist\": {\"to\": {\"domain\": [\"a@b.example\"]}}}");
  WriteFile("/tmp/paren.map", "/ok\\.example/ OK\n/a(b/ REJECT\n");
  WriteFile("/tmp/long.map", "/x/ OK\n" + std::string(70000, 'y') + " OK\n");
  const std::string before = State();

  const std::string absolute = "is no absolute path";
  const std::vector<std::pair<std::vector<std::string>, std::string>> refused = {
      {{"spam", "set", "spam_enable", "maybe"}, "spam_enable takes yes or no"},
      {{"spam", "set", "spam_required_score", "5.125"}, "at most two decimals"},
      {{"spam", "set", "spam_learn_threshold_spam", "1e3"}, "from -1000 to 1000"},
      {{"spam", "set", "spam_learn_threshold_spam", "1001"}, "from -1000 to 1000"},
      {{"spam", "set", "spam_report_machanism", "3"}, "takes 0, 1 or 2"},
      {{"spam", "set", "spam_rewrite_subject", "[SPAM]\nX-Header: 1"}, "control character"},
      {{"spam", "set", "spam_rewrite_subject", ""}, "1 to 255 bytes"},
      {{"spam", "set", "spam_auto_learn", "yes", "spam_nonsense", "1"},
       "no spam setting is called"},
      {{"spam", "set", "spam_enable", "yes", "spam_enable", "no"}, "given twice"},
      {{"spam", "colour"}, "unknown word \"colour\""},
      {{"spam", "rule", "import", "rules/x.cf"}, absolute},
      {{"spam", "rule", "import", "/tmp"}, "is no regular file"},
      {{"spam", "rule", "import", "/tmp/link.cf"}, "is no regular file"},
      {{"spam", "rule", "import", "/tmp/control.cf"}, "line 2: a control character"},
      {{"spam", "rule", "import", "/tmp/latin1.cf"}, "line 1: not UTF-8 text"},
      {{"spam", "rule", "import", "/tmp/secret.cf"}, "not readable by everyone"},
      {{"spam", "rule", "import", "/tmp/missing.cf"}, "No such file"},
      {{"spam", "rule", "enable", "../rules/kept.cf"}, "plain file name"},
      {{"spam", "rule", "enable", ".."}, "plain file name"},
      {{"spam", "rule", "disable", "a\x1b[2Jb"}, "no control characters"},
      {{"spam", "rule", "enable", "missing.cf"}, "there is no such file"},
      {{"spam", "rule", "delete", "missing.cf"}, "there is no such rule"},
      {{"spam", "rule", "rename", "kept.cf"}, "unknown word"},
      {{"spam", "blackwhite", "add", "grey", "from", "address", "a@example.com"}, "black or white"},
      {{"spam", "blackwhite", "add", "black", "cc", "address", "a@example.com"},
       "from, to or client"},
      {{"spam", "blackwhite", "add", "black", "from", "person", "a@example.com"},
       "account, address or domain"},
      {{"spam", "blackwhite", "add", "black", "from", "address", "a b@example.com"}, "no blanks"},
      {{"spam", "blackwhite", "add", "black", "from", "address", "x@y\nwhitelist_from *"},
       "control"},
      {{"spam", "blackwhite", "add", "black", "from", "address", "\xc3(@example.com"}, "UTF-8"},
      {{"spam", "blackwhite", "add", "black", "from", "address", std::string(300, 'a') + "@x"},
       "255 bytes"},
      {{"spam", "blackwhite", "add", "black", "from", "address", "nobody"}, "NAME@DOMAIN"},
      {{"spam", "blackwhite", "add", "white", "client", "domain", "a@b.example"}, "can't hold"},
      {{"spam", "blackwhite", "del", "white", "from", "address", "kept@example.com"},
       "is not on the white list"},
      {{"spam", "blackwhite", "list", "--offset", "-1"}, "whole number from 0"},
      {{"spam", "blackwhite", "list", "--limit", "0"}, "whole number from 1"},
      {{"spam", "blackwhite", "list", "--limit", "99999999999"}, "whole number from 1"},
      {{"spam", "blackwhite", "list", "--kind", "address"}, "unknown word"},
      {{"spam", "blackwhite", "list", "--name", "a\tb"}, "control character"},
      {{"spam", "blackwhite", "import", "--json", "lists.json"}, absolute},
      {{"spam", "blackwhite", "import", "--json", "/tmp/bad.json"}, "is no JSON document"},
      {{"spam", "blackwhite", "import", "--json", "/tmp/shape.json"}, "is not of the form"},
      {{"spam", "blackwhite", "import", "--json", "/tmp/blank.json"}, "no blanks"},
      {{"spam", "blackwhite", "import", "--json", "/tmp/kind.json"}, "can't hold an \"@\""},
      {{"spam", "blackwhite", "import", "--old", "grey", "/tmp/bad.json"}, "black or white"},
      {{"spam", "blackwhite", "import", "--old", "black", "/dev/null"}, "is no regular file"},
      {{"spam", "blackwhite", "export", "lists.json"}, absolute},
      {{"spam", "blackwhite", "export", "/tmp/no-such-folder/lists.json"}, "there is no folder"},
      {{"spam", "blackwhite", "export", "/dev/null"}, "is no regular file"},
      {{"access", "add", "from", "a@example.com", "MAYBE"}, "a status is OK, REJECT or DISCARD"},
      {{"access", "add", "sender", "a@example.com", "OK"}, "from, to or client"},
      {{"access", "add", "from", "a+b@example.com", "REJECT"}, "regular expressions"},
      {{"access", "add", "from", "account", "x@example.com", "OK"}, "can't hold"},
      {{"access", "add", "from", "bad name", "OK"}, "no blanks"},
      {{"access", "del", "from", "nothere.example"}, "there is no domain"},
      {{"access", "del", "to", "kept.example"}, "there is no domain"},
      {{"access", "list", "everyone"}, "unknown word"},
      {{"access", "list", "all", "x", "--offset", "1", "--offset", "2"}, "given twice"},
      {{"access", "import", "from", "/tmp/paren.map"},
       "line 2: \"/a(b/\" is no regular expression"},
      {{"access", "import", "from", "/tmp/long.map"}, "line 2: longer than"},
      {{"access", "import", "from", "/tmp"}, "is no regular file"},
      {{"access", "export", "to", "sender_access"}, absolute},
      {{"access", "grant", "from", "x"}, "unknown word"},
  };
  for (const auto &[args, why] : refused) {
    const qsvtest::CtlResult result = RunCtl(args);
    EXPECT_EQ(result.status, 1) << Line(args) << "\n" << result.output;
    EXPECT_EQ(result.output.rfind("mailserverctl: ", 0), 0u) << Line(args) << "\n" << result.output;
    EXPECT_NE(result.output.find(why), std::string::npos) << Line(args) << "\n" << result.output;
    EXPECT_EQ(State(), before) << Line(args);
  }
  // Nothing refused reached the writer: only the enable and the set above ran it.
  EXPECT_EQ(writer.script.Calls().size(), 2u);
  ASSERT_EQ(RunCtl({"spam", "rule", "delete", "kept.cf"}).status, 0);
}

TEST_F(MailserverctlSecurityTest, SettingsAreShownAsStoredAndAFailedWriterIsReported) {
  const std::vector<std::string> keys = {"spam_required_score",  "spam_enable_rewrite",
                                         "spam_rewrite_subject", "spam_report_machanism",
                                         "spam_auto_learn",      "spam_auto_whitelist"};
  std::map<std::string, std::string> before;
  for (const std::string &key : keys) ASSERT_EQ(mailConfGet(key, before[key]), 0) << key;
  {
    WriterStandIn writer(0);
    const qsvtest::CtlResult set =
        RunCtl({"spam", "set", "spam_required_score", "6.5", "spam_enable_rewrite", "yes",
                "spam_rewrite_subject", "[SPAM] ünd", "spam_report_machanism", "0"});
    ASSERT_EQ(set.status, 0) << set.output;
    EXPECT_EQ(writer.script.Calls(), (std::vector<std::vector<std::string>>{{"spam"}}));
    const std::string shown = RunCtl({"spam", "show"}).output;
    EXPECT_EQ(std::count(shown.begin(), shown.end(), '\n'), 9) << shown;
    for (const auto &[key, value] :
         std::vector<std::pair<std::string, std::string>>{{"spam_required_score", "6.50"},
                                                          {"spam_enable_rewrite", "yes"},
                                                          {"spam_rewrite_subject", "[SPAM] ünd"},
                                                          {"spam_report_machanism", "0"}}) {
      const std::string line = key + std::string(32 - key.size(), ' ') + value + "\n";
      EXPECT_NE(shown.find(line), std::string::npos) << line << shown;
    }
    std::string stored;
    ASSERT_EQ(mailConfGet("spam_rewrite_subject", stored), 0);
    EXPECT_EQ(stored, "[SPAM] ünd");

    writer.script.SetExitCode(1);
    const qsvtest::CtlResult failed = RunCtl({"spam", "set", "spam_auto_learn", "yes"});
    EXPECT_EQ(failed.status, 1);
    EXPECT_NE(failed.output.find("the settings are saved, but the spam filter's configuration "
                                 "writer failed"),
              std::string::npos)
        << failed.output;
    ASSERT_EQ(mailConfGet("spam_auto_learn", stored), 0);
    EXPECT_EQ(stored, "yes");
    EXPECT_EQ(RunCtl({"spam", "apply"}).status, 1);
    writer.script.SetExitCode(0);
    EXPECT_EQ(RunCtl({"spam", "apply"}).status, 0);
  }
  {
    // A store that takes nothing: the settings are not saved, and the tool says so.
    qsvtest::FailingStoreTool broken;
    WriterStandIn writer(0);
    const qsvtest::CtlResult lost = RunCtl({"spam", "set", "spam_auto_whitelist",
                                            before["spam_auto_whitelist"] == "yes" ? "no" : "yes"});
    EXPECT_EQ(lost.status, 1);
    EXPECT_NE(lost.output.find("the settings were not all saved"), std::string::npos)
        << lost.output;
  }
  for (const auto &[key, value] : before) EXPECT_EQ(mailConfSet(key, value, true, 0), 0) << key;
}

TEST_F(MailserverctlSecurityTest, RuleGoesInIsEnabledOnlyIfTheWriterTakesItAndGoesOut) {
  WriterStandIn writer(0);
  const std::string text = "header LOCAL_X Subject =~ /viagra/i\nscore LOCAL_X 3.0\n";
  WriteFile("/tmp/in/local_x.cf", text);
  ASSERT_EQ(RunCtl({"spam", "rule", "import", "/tmp/in/local_x.cf"}).status, 0);
  EXPECT_EQ(ReadFile(kRules + "local_x.cf"), text);
  EXPECT_EQ(OwnRules(), "local_x.cf" + std::string(31, ' ') + "disabled\n");

  ASSERT_EQ(RunCtl({"spam", "rule", "enable", "local_x.cf"}).status, 0);
  EXPECT_EQ(Flag("local_x.cf"), "yes");
  ASSERT_EQ(RunCtl({"spam", "rule", "disable", "local_x.cf"}).status, 0);
  EXPECT_EQ(Flag("local_x.cf"), "no");
  EXPECT_EQ(writer.script.Calls().size(), 2u);

  // A rule the writer refuses goes back to what it was: disabled, or without a flag at all.
  writer.script.SetExitCode(1);
  WriteFile("/tmp/in/refused_by_writer.cf", "loadplugin Evil /tmp/evil.pm\n");
  ASSERT_EQ(RunCtl({"spam", "rule", "import", "/tmp/in/refused_by_writer.cf"}).status, 0);
  for (const char *rule : {"local_x.cf", "refused_by_writer.cf"}) {
    const std::string flag = Flag(rule);
    const qsvtest::CtlResult enable = RunCtl({"spam", "rule", "enable", rule});
    EXPECT_EQ(enable.status, 1) << rule;
    EXPECT_NE(enable.output.find("it stays disabled"), std::string::npos) << enable.output;
    EXPECT_EQ(Flag(rule), flag) << rule;
  }
  EXPECT_EQ(OwnRules(), "local_x.cf" + std::string(31, ' ') + "disabled\nrefused_by_writer.cf" +
                            std::string(21, ' ') + "disabled\n");

  writer.script.SetExitCode(0);
  for (const char *rule : {"local_x.cf", "refused_by_writer.cf"}) {
    ASSERT_EQ(RunCtl({"spam", "rule", "delete", rule}).status, 0) << rule;
    EXPECT_NE(access((kRules + rule).c_str(), F_OK), 0) << rule;
    EXPECT_EQ(Flag(rule), "") << rule;
  }
  EXPECT_EQ(OwnRules(), "");
}

TEST_F(MailserverctlSecurityTest, BlackWhiteListGoesRoundThroughBothFileForms) {
  for (const std::vector<std::string> &row :
       std::vector<std::vector<std::string>>{{"black", "from", "address", "spam@example.com"},
                                             {"white", "to", "account", "boss"},
                                             {"white", "client", "address", "192.0.2.7"},
                                             {"white", "from", "domain", "*.bücher.example"}}) {
    std::vector<std::string> args = {"spam", "blackwhite", "add"};
    args.insert(args.end(), row.begin(), row.end());
    ASSERT_EQ(RunCtl(args).status, 0) << Line(args);
  }
  const qsvtest::CtlResult moved =
      RunCtl({"spam", "blackwhite", "add", "white", "from", "address", "spam@example.com"});
  EXPECT_EQ(moved.output, "spam@example.com moved from the black list to the white list\n");
  const std::string all = RunCtl({"spam", "blackwhite", "list"}).output;
  EXPECT_EQ(all,
            "white to     account boss\n"
            "white client address 192.0.2.7\n"
            "white from   domain  *.bücher.example\n"
            "white from   address spam@example.com\n"  // replaced, so last
            "total: 4\n");
  EXPECT_EQ(RunCtl({"spam", "blackwhite", "list", "--type", "from", "--name", "example", "--offset",
                    "1", "--limit", "1"})
                .output,
            "white from   address spam@example.com\ntotal: 2\n");

  ASSERT_EQ(RunCtl({"spam", "blackwhite", "export", "/tmp/lists.json"}).status, 0);
  ASSERT_EQ(RunCtl({"spam", "blackwhite", "export", "/tmp/regexp.json", "--regexp"}).status, 0);
  EXPECT_NE(ReadFile("/tmp/regexp.json").find("xn--bcher-kva"), std::string::npos);
  MainDBExec("delete from blackwhite_table;");
  const qsvtest::CtlResult imported =
      RunCtl({"spam", "blackwhite", "import", "--json", "/tmp/lists.json"});
  EXPECT_EQ(imported.output, "imported 4 names\n");
  // The document has no client side: a client comes back as a recipient.
  EXPECT_EQ(RunCtl({"spam", "blackwhite", "list", "--verdict", "white", "--type", "to"}).output,
            "white to     account boss\nwhite to     address 192.0.2.7\ntotal: 2\n");

  WriteFile("/tmp/old.txt",
            "from: old@example.com yes\nto: example.net YES\nfrom: no@example.com no\n");
  ASSERT_EQ(RunCtl({"spam", "blackwhite", "import", "--old", "black", "/tmp/old.txt"}).status, 0);
  EXPECT_EQ(RunCtl({"spam", "blackwhite", "list", "--verdict", "black"}).output,
            "black from   address old@example.com\nblack to     domain  example.net\ntotal: 2\n");
  ASSERT_EQ(RunCtl({"spam", "blackwhite", "del", "black", "to", "domain", "example.net"}).status,
            0);
  EXPECT_EQ(RunCtl({"spam", "blackwhite", "list", "--name", "example.net"}).output, "total: 0\n");
}

TEST_F(MailserverctlSecurityTest, AccessRowsAnswerThroughPostmapAndImportBack) {
  for (const std::vector<std::string> &args :
       std::vector<std::vector<std::string>>{{"access", "add", "from", "*.spam.example", "reject"},
                                             {"access", "add", "from", "boss@example.com", "OK"},
                                             {"access", "add", "from", "account", "bob", "DISCARD"},
                                             {"access", "add", "client", "192.0.2.9", "REJECT"}}) {
    ASSERT_EQ(RunCtl(args).status, 0) << Line(args);
  }
  EXPECT_EQ(RunCtl({"access", "add", "from", "boss@example.com", "permit"}).output, "");
  EXPECT_EQ(RunCtl({"access", "add", "from", "boss@example.com", "REJECT"}).output,
            "boss@example.com: REJECT, was OK\n");
  // A side without a pattern lists that side only, and counts it.
  EXPECT_EQ(RunCtl({"access", "list", "client"}).output,
            "client    domain  REJECT  192.0.2.9\ntotal: 1\n");
  EXPECT_EQ(RunCtl({"access", "list", "sender", "example", "--limit", "1"}).output,
            "sender    domain  REJECT  *.spam.example\ntotal: 2\n");

  ASSERT_EQ(RunCtl({"access", "export", "from", "/tmp/sender_access"}).status, 0);
  const std::string map = "regexp:/tmp/sender_access";
  EXPECT_EQ(qsvtest::PostmapQuery("host.spam.example", map), "REJECT");
  EXPECT_EQ(qsvtest::PostmapQuery("boss@example.com", map), "REJECT");
  EXPECT_EQ(qsvtest::PostmapQuery("bob@anywhere.example", map), "DISCARD");
  EXPECT_EQ(qsvtest::PostmapQuery("192.0.2.9", map), "");

  MainDBExec("delete from access_table;");
  ASSERT_EQ(RunCtl({"access", "import", "from", "/tmp/sender_access"}).status, 0);
  // The map can't tell an account from an address pattern.
  EXPECT_EQ(RunCtl({"access", "list"}).output,
            "sender    address REJECT  boss@example.com\n"
            "sender    address DISCARD bob@*\n"
            "sender    domain  REJECT  *.spam.example\n"
            "total: 3\n");
  ASSERT_EQ(RunCtl({"access", "del", "from", "bob@*"}).status, 0);
  EXPECT_EQ(RunCtl({"access", "list", "all", "bob"}).output, "total: 0\n");
}

// The refusals of `cases`, each a command and a piece of its message: exit 1, one line that says
// why, and `state` as it was.
void ExpectRefused(const std::vector<std::pair<std::vector<std::string>, std::string>> &cases,
                   const std::function<std::string()> &state) {
  const std::string before = state();
  for (const auto &[args, why] : cases) {
    const qsvtest::CtlResult result = RunCtl(args);
    EXPECT_EQ(result.status, 1) << Line(args) << "\n" << result.output;
    EXPECT_EQ(result.output.rfind("mailserverctl: ", 0), 0u) << Line(args) << "\n" << result.output;
    EXPECT_EQ(std::count(result.output.begin(), result.output.end(), '\n'), 1) << result.output;
    EXPECT_NE(result.output.find(why), std::string::npos) << Line(args) << "\n" << result.output;
    EXPECT_EQ(state(), before) << Line(args);
  }
}

TEST_F(MailserverctlSecurityTest, ScannerSettingsGoRoundAndARefusedValueWritesNothing) {
  const std::vector<std::string> keys = {"spam_required_score", "mcp_threshold",
                                         "allow_iframe_tags",   "anti_virus_enable",
                                         "anti_virus_delete_template", "mcp_add_header_name"};
  std::map<std::string, std::string> before;
  for (const std::string &key : keys) ASSERT_EQ(mailConfGet(key, before[key]), 0) << key;
  const qsvtest::CtlResult set =
      RunCtl({"scanner", "set", "spam_required_score", "6.5", "mcp_threshold", "40",
              "allow_iframe_tags", "no", "anti_virus_enable", "yes", "anti_virus_delete_template",
              "Deleted.\nBye", "mcp_add_header_name", "X-Held"});
  ASSERT_EQ(set.status, 0) << set.output;
  std::string stored;
  ASSERT_EQ(mailConfGet("spam_required_score", stored), 0);
  EXPECT_EQ(stored, "6.500000");
  ASSERT_EQ(mailConfGet("anti_virus_delete_template", stored), 0);
  EXPECT_EQ(stored, "Deleted.\nBye");
  // Every key on a line of its own: a text with line ends is shown quoted.
  const std::string shown = RunCtl({"scanner", "show"}).output;
  EXPECT_EQ(std::count(shown.begin(), shown.end(), '\n'), 52) << shown;
  for (const auto &[key, value] : std::vector<std::pair<std::string, std::string>>{
           {"spam_required_score", "6.500000"},
           {"mcp_threshold", "40"},
           {"allow_iframe_tags", "no"},
           {"anti_virus_enable", "yes"},
           {"anti_virus_delete_template", "\"Deleted.\\x0aBye\""},
           {"anti_virus_engine", "clamav  (default)"}}) {
    const std::string line = key + std::string(43 - key.size(), ' ') + value + "\n";
    EXPECT_NE(shown.find(line), std::string::npos) << line << shown;
  }

  ExpectRefused(
      {
          {{"scanner", "set", "mcp_threshold", "41", "no_such_key", "1"},
           "no scanner setting is called \"no_such_key\""},
          {{"scanner", "set", "anti_virus_enable", "true"}, "anti_virus_enable takes yes or no"},
          {{"scanner", "set", "mcp_threshold", "41", "allow_form_tags", "maybe"},
           "allow_form_tags takes yes or no"},
          {{"scanner", "set", "mcp_threshold", "4x"}, "takes a whole number"},
          {{"scanner", "set", "mcp_threshold", "-1"}, "takes 0 or more"},
          {{"scanner", "set", "spam_rule_update_hour", "24"}, "takes 0 to 23"},
          {{"scanner", "set", "spam_learn_threshold_spam", "nan"}, "takes a number"},
          {{"scanner", "set", "spam_required_score", "5.125"}, "at most two decimals"},
          {{"scanner", "set", "anti_virus_engine", "/bin/sh"}, "clamav or koltav-mcafee"},
          {{"scanner", "set", "mcp_add_header_value", "x\r\nBcc: all@example.com"},
           "one line of text"},
          {{"scanner", "set", "mcp_add_header_name", "X Held:"}, "a header name"},
          {{"scanner", "set", "mcp_forward_to", "nobody"}, "NAME@DOMAIN"},
          {{"scanner", "set", "mcp_threshold", "42", "mcp_threshold", "43"}, "given twice"},
          {{"scanner", "reset"}, "unknown word"},
      },
      [] { return Folder(kConfDir); });

  // A stored value that would load as another is named, not shown.
  ASSERT_EQ(mailConfSet("mcp_threshold", "12x", true, 0), 0);
  const qsvtest::CtlResult damaged = RunCtl({"scanner", "show"});
  EXPECT_EQ(damaged.status, 1);
  EXPECT_NE(damaged.output.find("mcp_threshold holds \"12x\""), std::string::npos)
      << damaged.output;
  for (const auto &[key, value] : before) EXPECT_EQ(mailConfSet(key, value, true, 0), 0) << key;
}

TEST_F(MailserverctlSecurityTest, AntiVirusStatusCountAndExtraSignaturesOnRealFiles) {
  const std::string extra = kClamav + "/extrasigs";
  // The antivirus suite leaves its sets behind.
  for (const std::string &dir : {extra, kClamav}) {
    DIR *handle = opendir(dir.c_str());
    while (const dirent *entry = handle != nullptr ? readdir(handle) : nullptr) {
      unlink((dir + "/" + entry->d_name).c_str());
    }
    if (handle != nullptr) closedir(handle);
  }
  WriteFile(extra + "/local.hdb", "aa:1:Sig.A\nbb:2:Sig.B\n");
  WriteFile(extra + "/local.ndb", "Sig.C:0:*:414243\n");
  unlink(kAntiVirusStatus);
  // The package's own clamdscan steps aside for the recording one, and comes back at the end.
  const std::string realClamdscan = "/var/packages/Quillon-Server/target/bin/clamdscan";
  rename(realClamdscan.c_str(), (realClamdscan + ".real").c_str());
  auto clamdscan = std::make_unique<qsvtest::RecordingScript>(realClamdscan, 0);

  EXPECT_EQ(RunCtl({"av", "status"}).output, "1\n");
  EXPECT_EQ(RunCtl({"av", "count"}).output, "0\n");
  ASSERT_EQ(RunCtl({"av", "extra-load"}).status, 0);
  EXPECT_EQ(ReadFile(kClamav + "/local.hdb"), "aa:1:Sig.A\nbb:2:Sig.B\n");
  EXPECT_EQ(RunCtl({"av", "count"}).output, "3\n");
  ASSERT_EQ(RunCtl({"av", "extra-unload"}).status, 0);
  EXPECT_EQ(ReadFile(extra + "/local.ndb"), "Sig.C:0:*:414243\n");
  EXPECT_EQ(RunCtl({"av", "count"}).output, "0\n");
  // No daemon runs: a reload has nothing to do, and runs nothing.
  EXPECT_EQ(RunCtl({"av", "reload"}).status, 0);
  EXPECT_TRUE(clamdscan->Calls().empty());
  clamdscan.reset();
  rename((realClamdscan + ".real").c_str(), realClamdscan.c_str());
  unlink((extra + "/local.hdb").c_str());
  unlink((extra + "/local.ndb").c_str());
  const qsvtest::CtlResult none = RunCtl({"av", "extra-load"});
  EXPECT_EQ(none.status, 1);
  EXPECT_NE(none.output.find("extrasigs holds none"), std::string::npos) << none.output;

  WriteFile(kAntiVirusStatus, "{\"status\":4}\n");
  ExpectRefused({{{"av", "clear", "0"}, "a status is a number from 1 to 5"},
                 {{"av", "clear", "6"}, "a status is a number from 1 to 5"},
                 {{"av", "clear", "2x"}, "a status is a number from 1 to 5"},
                 {{"av", "clear", "-2"}, "a status is a number from 1 to 5"},
                 {{"av", "purge"}, "unknown word \"purge\""},
                 {{"av", "service", "fly"}, "unknown action \"fly\""}},
                [] { return ReadFile(kAntiVirusStatus); });
  ASSERT_EQ(RunCtl({"av", "clear", "3"}).status, 0);  // 3 doesn't end 4
  EXPECT_EQ(RunCtl({"av", "status"}).output, "4\n");
  ASSERT_EQ(RunCtl({"av", "clear", "2"}).status, 0);
  EXPECT_NE(access(kAntiVirusStatus, F_OK), 0);
  EXPECT_EQ(RunCtl({"av", "status"}).output, "1\n");
  WriteFile(kAntiVirusStatus, "{\"status\":");
  const qsvtest::CtlResult broken = RunCtl({"av", "status"});
  EXPECT_EQ(broken.status, 1);
  EXPECT_NE(broken.output.find("cannot read the antivirus status file"), std::string::npos);
  unlink(kAntiVirusStatus);
}

MCPRecord Held(const std::string &id, const std::string &sender, const std::string &receivers,
               int64_t time, const std::string &subject, int score, uint64_t size) {
  return {id, sender, receivers, "20261123", time, subject, "card number", "/q/" + id, score,
          "store", size};
}

TEST_F(MailserverctlSecurityTest, QuarantineIsSearchedAndDeletedByIdsThatStay) {
  unlink(kQuarantine);
  {
    MCPDBHandler index;
    const MCPRecord twice =
        Held("m2", "B@example.com", "x@example.com", 200, "hello world", 120, 5000);
    ASSERT_EQ(index.Insert({Held("m1", "a@xn--bcher-kva.example",
                                "x@example.com y@xn--bcher-kva.example", 100, "invoice", 50, 1000),
                            twice,
                            Held("m3", "c@example.com", "z@example.com", 300, "report", 90, 200)}),
              0);
    ASSERT_EQ(index.Insert(twice), 0);  // the same mail indexed twice
  }
  // ID, message id, time, score, size, sender, recipients, subject, path; the second row of m2
  // shows the ID of its first.
  std::map<std::string, std::string> row = {
      {"m1",
       "1\tm1\t100\t50\t1000\ta@bücher.example\tx@example.com y@bücher.example\tinvoice\t/q/m1\n"},
      {"m2", "2\tm2\t200\t120\t5000\tB@example.com\tx@example.com\thello world\t/q/m2\n"},
      {"m3", "3\tm3\t300\t90\t200\tc@example.com\tz@example.com\treport\t/q/m3\n"}};
  const std::vector<std::pair<std::vector<std::string>, std::string>> found = {
      {{"list"}, row["m1"] + row["m2"] + row["m2"] + row["m3"] + "total: 4\n"},
      {{"list", "--offset", "1", "--limit", "2"}, row["m2"] + row["m2"] + "total: 4\n"},
      {{"search", "--sender", "b@EXAMPLE.com"}, row["m2"] + row["m2"] + "total: 2\n"},
      {{"search", "--sender", "example.com"}, "total: 0\n"},
      {{"search", "--receiver", "y@xn--bcher-kva.example"}, row["m1"] + "total: 1\n"},
      {{"search", "--receiver", "x@example.com", "--direction", "desc", "--offset", "1"},
       row["m2"] + row["m1"] + "total: 3\n"},
      {{"search", "--subject", "hello world"}, row["m2"] + row["m2"] + "total: 2\n"},
      {{"search", "--score-from", "60", "--score-to", "100"}, row["m3"] + "total: 1\n"},
      {{"search", "--received-from", "150", "--size-to", "4000"}, row["m3"] + "total: 1\n"},
      {{"search", "--text", "bücher"}, row["m1"] + "total: 1\n"},
      {{"search", "--order", "score", "--direction", "desc", "--limit", "1"},
       row["m2"] + "total: 4\n"},
  };
  for (const auto &[args, output] : found) {
    std::vector<std::string> command = {"quarantine"};
    command.insert(command.end(), args.begin(), args.end());
    const qsvtest::CtlResult result = RunCtl(command);
    EXPECT_EQ(result.status, 0) << Line(command) << "\n" << result.output;
    EXPECT_EQ(result.output, output) << Line(command);
  }

  ExpectRefused(
      {
          {{"quarantine", "search", "--order", "score; delete from mcp_quarantine_table"},
           "a column is one of"},
          {{"quarantine", "search", "--order", "rowid"}, "a column is one of"},
          {{"quarantine", "search", "--direction", "desc, sender"}, "a direction is asc or desc"},
          {{"quarantine", "search", "--score-to", "0"}, "from 1 to 4294967295"},
          {{"quarantine", "search", "--size-from", "-5"}, "a whole number from 1"},
          {{"quarantine", "search", "--received-from", "1e3"}, "a whole number from 0"},
          {{"quarantine", "search", "--text", "x", "--score-from", "1"}, "--text searches alone"},
          {{"quarantine", "search", "--score-from", "100", "--score-to", "50"}, "is above"},
          {{"quarantine", "search", "--sender", "a\x1b[2J@example.com"}, "control character"},
          {{"quarantine", "search", "--sender", "x", "--sender", "y"}, "given twice"},
          {{"quarantine", "search", "--colour", "red"}, "unknown word"},
          {{"quarantine", "list", "--sender", "x"}, "takes --offset and --limit"},
          {{"quarantine", "delete", "2", "x2"}, "refused ID \"x2\""},
          {{"quarantine", "delete", "-1"}, "refused ID \"-1\""},
          {{"quarantine", "delete", "99999999999999999999"}, "refused ID"},
          {{"quarantine", "delete", "2", "99"}, "no quarantined mail with ID 99"},
      },
      [] { return RunCtl({"quarantine", "list"}).output; });

  // Both rows of the mail go; the others keep their IDs.
  ASSERT_EQ(RunCtl({"quarantine", "delete", "2"}).status, 0);
  EXPECT_EQ(RunCtl({"quarantine", "list"}).output, row["m1"] + row["m3"] + "total: 2\n");
  ASSERT_EQ(RunCtl({"quarantine", "delete", "3", "1"}).status, 0);
  EXPECT_EQ(RunCtl({"quarantine", "list"}).output, "total: 0\n");
}

}  // namespace
