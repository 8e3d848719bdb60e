// The IMAP and POP3 settings over a one-node cluster's store, and the real Dovecot that the daemon
// script runs from them: logins of a system user over loopback, listeners that follow the
// switches, and stored values that try to smuggle a directive into the configuration.
#include <arpa/inet.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "config/imap_pop3.h"
#include "config/mail_conf.h"
#include "core/mail_conf.h"
#include "foundation/mail_dir_path.h"
#include "harness/mailserverctl_run.h"
#include "harness/one_node_cluster.h"
#include "harness/recording_script.h"
#include "harness/run_as.h"
#include "harness/syslog_capture.h"
#include "kolt/exec.h"

namespace {

const char kConf[] = "/var/packages/Quillon-Server/target/etc/dovecot/dovecot.conf";
const char kDoveconf[] = "/var/packages/Quillon-Server/target/bin/doveconf";
const char kUser[] = "qsvimapuser";
const char kPassword[] = "Mail-Pass 42";

template <typename T>
T ValueOf(Config &config, const std::string &name) {
  return boost::any_cast<Value<T>>(config.Get(name)).value;
}

// One line-based conversation with a server on a loopback port.
class Conversation {
 public:
  explicit Conversation(int port) : fd_(socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0)) {
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_port = htons(static_cast<uint16_t>(port));
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    timeval patience{10, 0};
    setsockopt(fd_, SOL_SOCKET, SO_RCVTIMEO, &patience, sizeof(patience));
    connected_ = connect(fd_, reinterpret_cast<sockaddr *>(&address), sizeof(address)) == 0;
  }
  ~Conversation() { close(fd_); }

  bool connected() const { return connected_; }

  // The next line without its CRLF, or "" when none came.
  std::string Line() {
    std::string line;
    char c;
    while (read(fd_, &c, 1) == 1) {
      if (c == '\n') break;
      if (c != '\r') line += c;
    }
    return line;
  }

  // Sends `command` and gives the first line of the answer that starts with `tag`.
  std::string Ask(const std::string &command, const std::string &tag) {
    const std::string line = command + "\r\n";
    if (write(fd_, line.data(), line.size()) != static_cast<ssize_t>(line.size())) return "";
    for (std::string answer = Line(); !answer.empty(); answer = Line()) {
      if (answer.compare(0, tag.size(), tag) == 0) return answer;
    }
    return "";
  }

 private:
  int fd_;
  bool connected_ = false;
};

bool PortOpen(int port) { return Conversation(port).connected(); }

bool StartsWith(const std::string &text, const std::string &start) {
  return text.compare(0, start.size(), start) == 0;
}

class ImapPop3Test : public qsvtest::OneNodeClusterTest {
 protected:
  static void SetUpTestSuite() {
    OneNodeClusterTest::SetUpTestSuite();
    // A user of the system, with a password of the system and the mail directory the suite
    // makes for each user.
    ASSERT_EQ(qsvtest::RunProgram("/usr/sbin/useradd", "-M", kUser), 0);
    FILE *chpasswd = KLIBCPopen("/usr/sbin/chpasswd", "w", nullptr);
    ASSERT_NE(chpasswd, nullptr);
    fprintf(chpasswd, "%s:%s\n", kUser, kPassword);
    ASSERT_EQ(KLIBCPclose(chpasswd), 0);
    ASSERT_EQ(mailDirPathCreate(qsvtest::UidOf(kUser), qsvtest::GidOf(kUser)), 0);
  }
  void TearDown() override { ImapPop3::Service("stop"); }

  // Turns on the switches named, and every other one of Dovecot's off, through the settings
  // object, as the management front ends do.
  static void Save(const std::vector<std::string> &on, int maxConn = 30) {
    ImapPop3 settings;
    ASSERT_EQ(settings.LoadSettings(), 0);
    for (const char *name : {"imap_enabled", "imaps_enabled", "pop3_enabled", "pop3s_enabled",
                             "enable_dovecot_auth_deny", "enable_dovecot_auth_local",
                             "jieba_enabled"}) {
      const bool value = std::find(on.begin(), on.end(), name) != on.end();
      settings.Set(name, boost::any(Value<bool>(value)));
    }
    settings.Set("max_userip_conn", boost::any(Value<int>(maxConn)));
    ASSERT_EQ(settings.SaveSettings({}), 0);
  }
};

int FailingStep(const std::string &) { return -1; }

TEST_F(ImapPop3Test, EmptyStoreGivesTheDefaultsAndSaveKeepsKeysPastAFailedCallback) {
  ImapPop3 settings;
  std::vector<std::string> names;
  for (const boost::any &key : settings.GetKeyList()) names.push_back(settings.GetKeyName(key));
  EXPECT_EQ(names, (std::vector<std::string>{
                       "imap_enabled", "imaps_enabled", "pop3_enabled", "pop3s_enabled",
                       "imap_pop3_security_auth", "enable_dovecot_auth_deny",
                       "enable_dovecot_auth_local", "fts_enabled", "jieba_enabled",
                       "fts_member_limit", "fts_member_default_allowed", "fts_allowed_user",
                       "fts_allowed_group", "fts_forbidden_user", "fts_forbidden_group",
                       "max_userip_conn"}));
  for (const std::string &name : names) {
    unlink((std::string(kMailConfDir) + toLeagalFileName(name)).c_str());
  }
  ASSERT_EQ(settings.LoadSettings(), 0);
  for (const char *off : {"imap_enabled", "imaps_enabled", "pop3_enabled", "pop3s_enabled",
                          "enable_dovecot_auth_deny", "enable_dovecot_auth_local", "jieba_enabled",
                          "fts_member_limit"}) {
    EXPECT_FALSE(ValueOf<bool>(settings, off)) << off;
  }
  for (const char *on : {"imap_pop3_security_auth", "fts_enabled", "fts_member_default_allowed"}) {
    EXPECT_TRUE(ValueOf<bool>(settings, on)) << on;
  }
  EXPECT_EQ(ValueOf<int>(settings, "max_userip_conn"), 30);
  EXPECT_EQ(ValueOf<std::string>(settings, "fts_forbidden_group"), "");

  settings.Set("pop3_enabled", boost::any(Value<bool>(true)));
  settings.Set("max_userip_conn", boost::any(Value<int>(8)));
  qsvtest::SyslogCapture log;
  EXPECT_EQ(settings.SaveSettings({{"the failing step", FailingStep, ""}}), -1);
  EXPECT_EQ(log.Matching("the failing step exec fail").size(), 1u);
  ImapPop3 reread;
  ASSERT_EQ(reread.LoadSettings(), 0);
  EXPECT_TRUE(ValueOf<bool>(reread, "pop3_enabled")) << "the keys stay saved";
  EXPECT_EQ(ValueOf<int>(reread, "max_userip_conn"), 8);
}

TEST_F(ImapPop3Test, EveryListenerAndSwitchOnGivesAConfigurationDoveconfAccepts) {
  Save({"imap_enabled", "imaps_enabled", "pop3_enabled", "pop3s_enabled",
        "enable_dovecot_auth_deny", "enable_dovecot_auth_local", "jieba_enabled"},
       7);
  ASSERT_EQ(ImapPop3::Service("start"), 0);
  EXPECT_EQ(ImapPop3::Service("status"), 0);
  EXPECT_EQ(KLIBCExecl(kDoveconf, KLIBC_EXEC_QUIET_WAIT, "-c", kConf, "-n", nullptr), 0);
  const std::string conf = qsvtest::ReadFile(kConf);
  for (const char *line : {"\nprotocols = imap pop3\n", "\nmail_max_userip_connections = 7\n",
                           "\nbase_dir = /var/run/quillon_server/dovecot\n", "\nssl = yes\n"}) {
    EXPECT_NE(conf.find(line), std::string::npos) << line;
  }
  for (const char *machines : {" /etc/", "</etc/"}) {
    EXPECT_EQ(conf.find(machines), std::string::npos) << "never the machine's own files";
  }
  for (const int port : {143, 993, 110, 995}) EXPECT_TRUE(PortOpen(port)) << port;
}

TEST_F(ImapPop3Test, ImapOnTakesALoginAndEachSwitchOpensOrClosesItsPort) {
  Save({"imap_enabled"});
  ASSERT_EQ(ImapPop3::Service("start"), 0);
  {
    Conversation imap(143);
    ASSERT_TRUE(imap.connected());
    EXPECT_TRUE(StartsWith(imap.Line(), "* OK"));
    EXPECT_TRUE(StartsWith(
        imap.Ask(std::string("b LOGIN ") + kUser + " \"" + kPassword + "\"", "b "), "b OK"));
    const std::string selected = imap.Ask("c SELECT INBOX", "c ");
    EXPECT_TRUE(StartsWith(selected, "c OK")) << selected;
  }
  EXPECT_FALSE(PortOpen(110));
  EXPECT_FALSE(PortOpen(993));

  // IMAP off, POP3 on: the running Dovecot follows on a reload.
  Save({"pop3_enabled"});
  ASSERT_EQ(ImapPop3::Service("reload"), 0);
  EXPECT_FALSE(PortOpen(143));
  {
    Conversation pop3(110);
    ASSERT_TRUE(pop3.connected());
    EXPECT_TRUE(StartsWith(pop3.Line(), "+OK"));
    EXPECT_TRUE(StartsWith(pop3.Ask(std::string("USER ") + kUser, ""), "+OK"));
    EXPECT_TRUE(StartsWith(pop3.Ask(std::string("PASS ") + kPassword, ""), "+OK"));
  }

  // Nothing left to serve: Dovecot goes, and a start doesn't bring it back.
  Save({});
  ASSERT_EQ(ImapPop3::Service("reload"), 0);
  EXPECT_NE(ImapPop3::Service("status"), 0);
  EXPECT_FALSE(PortOpen(110));
  EXPECT_EQ(ImapPop3::Service("start"), 0);
  EXPECT_NE(ImapPop3::Service("status"), 0);
}

TEST_F(ImapPop3Test, StoredValueThatWouldAddADirectiveIsRefusedAndTheOldConfigurationStays) {
  Save({"imap_enabled"});
  ASSERT_EQ(ImapPop3::Service("start"), 0);
  const std::string before = qsvtest::ReadFile(kConf);
  // Each is what a user who can write the store's files might try; doveconf itself would take
  // the first, since the second line is a directive of its own.
  const std::pair<const char *, const char *> attempts[] = {
      {"max_userip_conn", "30\nauth_debug_passwords=yes"},
      {"imap_enabled", "yes\n!include /etc/shadow"},
      {"fts_allowed_user", "1000,\nlisten = *"},
      {"max_userip_conn", "99999999999"},
  };
  for (const auto &attempt : attempts) {
    ASSERT_EQ(mailConfSet(attempt.first, attempt.second, true, 0), 0);
    qsvtest::SyslogCapture log;
    EXPECT_NE(ImapPop3::Service("reload"), 0) << attempt.first;
    EXPECT_EQ(log.Matching(std::string(attempt.first) + " holds").size(), 1u) << attempt.first;
    EXPECT_EQ(qsvtest::ReadFile(kConf), before) << attempt.first;
    ASSERT_EQ(mailConfSet(attempt.first, attempt.first == std::string("imap_enabled") ? "yes" : "",
                          true, 0),
              0);
  }
  // The running Dovecot kept its configuration: it takes the system's password and no other.
  // (Last, since Dovecot slows down every login from an address after a failed one.)
  EXPECT_EQ(ImapPop3::Service("status"), 0);
  {
    Conversation imap(143);
    imap.Line();
    EXPECT_TRUE(StartsWith(
        imap.Ask(std::string("a LOGIN ") + kUser + " \"" + kPassword + "\"", "a "), "a OK"));
    Conversation wrong(143);
    wrong.Line();
    EXPECT_TRUE(StartsWith(wrong.Ask(std::string("a LOGIN ") + kUser + " wrong", "a "), "a NO"));
  }

  // A stopped Dovecot doesn't start on such a value.
  ASSERT_EQ(ImapPop3::Service("stop"), 0);
  ASSERT_EQ(mailConfSet("max_userip_conn", "30\nlisten = *", true, 0), 0);
  EXPECT_NE(ImapPop3::Service("start"), 0);
  EXPECT_FALSE(PortOpen(143));
  EXPECT_EQ(qsvtest::ReadFile(kConf), before);
  ASSERT_EQ(mailConfSet("max_userip_conn", "", true, 0), 0);
}

TEST_F(ImapPop3Test, CommandLineSetsTheSettingsOfEachKindAndARunningDovecotFollows) {
  Save({"imap_enabled"});
  ASSERT_EQ(ImapPop3::Service("start"), 0);
  const std::string conf = qsvtest::ReadFile(kConf);
  const std::string keyFile = std::string(kMailConfDir) + toLeagalFileName("max_userip_conn");
  const std::string stored = qsvtest::ReadFile(keyFile);
  const std::pair<std::vector<std::string>, const char *> refused[] = {
      {{"max_userip_conn", "0"}, "takes 1 to 65535"},
      {{"max_userip_conn", "30\nauth_debug=yes"}, "takes a whole number"},
      {{"fts_allowed_user", "1,,2"}, "ids joined by"},
      {{"imap_enabled", "on"}, "takes yes or no"},
      {{"imap_port", "143"}, "no IMAP and POP3 setting is called"},
      {{"max_userip_conn", "12", "max_userip_conn", "13"}, "given twice"},
  };
  for (const auto &[pairs, why] : refused) {
    std::vector<std::string> args = {"settings", "set", "--of", "imap"};
    args.insert(args.end(), pairs.begin(), pairs.end());
    const qsvtest::CtlResult result = qsvtest::RunCtl(args);
    EXPECT_EQ(result.status, 1) << pairs[0] << ": " << result.output;
    EXPECT_NE(result.output.find(why), std::string::npos) << result.output;
    EXPECT_EQ(qsvtest::ReadFile(keyFile), stored);
  }
  EXPECT_EQ(qsvtest::ReadFile(kConf), conf);

  // A set reaches the running Dovecot at once.
  EXPECT_EQ(qsvtest::RunCtl({"settings", "set", "--of", "imap", "max_userip_conn", "12",
                             "fts_forbidden_group", "100,1001"}).status, 0);
  EXPECT_NE(qsvtest::ReadFile(kConf).find("\nmail_max_userip_connections = 12\n"),
            std::string::npos);
  const std::string shown = qsvtest::RunCtl({"settings", "show", "--of", "imap"}).output;
  EXPECT_NE(shown.find("fts_forbidden_group"), std::string::npos) << shown;
  EXPECT_NE(shown.find(" 100,1001\n"), std::string::npos) << shown;
  EXPECT_NE(shown.find(" yes  (default)\n"), std::string::npos) << shown;
  EXPECT_EQ(qsvtest::RunCtl({"settings", "service", "--of", "imap", "status"}).output,
            "running\n");
  EXPECT_EQ(qsvtest::RunCtl({"settings", "set", "--of", "imap", "imap_enabled", "no"}).status, 0);
  EXPECT_FALSE(PortOpen(143));
  EXPECT_EQ(qsvtest::RunCtl({"settings", "service", "--of", "imap", "status"}).status, 1);

  // The other kinds go through the same words; without --of it is the SMTP settings.
  EXPECT_NE(qsvtest::RunCtl({"settings", "show"}).output.find("\nsmtp_port "), std::string::npos);
  EXPECT_NE(qsvtest::RunCtl({"settings", "show", "--of", "scanner"}).output.find("spam_enable "),
            std::string::npos);
  for (const std::vector<std::string> &bad : std::vector<std::vector<std::string>>{
           {"report_time_hour", "24"}, {"report_time_min", "-1"},
           {"report_rcpt_1", "two words@example.test"}, {"report_enable_report", "1"},
           {"report_sender", "x@example.test"}}) {
    std::vector<std::string> args = {"settings", "set", "--of", "report"};
    args.insert(args.end(), bad.begin(), bad.end());
    EXPECT_EQ(qsvtest::RunCtl(args).status, 1) << bad[0] << " " << bad[1];
  }
  EXPECT_EQ(qsvtest::RunCtl({"settings", "set", "--of", "report", "report_enable_report", "yes",
                             "report_rcpt_2", "boss@example.test", "report_time_hour", "23",
                             "report_time_min", "5"}).status, 0);
  const std::string report = qsvtest::RunCtl({"settings", "show", "--of", "report"}).output;
  for (const char *line : {"report_enable_report", "boss@example.test\n", " 23\n", " 5\n",
                           "Quillon <reporter@localdomain>\n", "localhost:25\n"}) {
    EXPECT_NE(report.find(line), std::string::npos) << line << " in\n" << report;
  }
  // The report's other tests expect a store without its keys.
  for (const char *key : {"report_enable_report", "report_rcpt_2", "report_time_hour",
                          "report_time_min"}) {
    ASSERT_EQ(mailConfSet(key, "", true, 0), 0);
  }
}

}  // namespace
