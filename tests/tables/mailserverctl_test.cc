// What an administrator meets at the command line: a refused input says why, exits 1 and leaves
// the settings and the tables exactly as they were; a damaged stored value is named, not a crash.
#include <dirent.h>
#include <fcntl.h>
#include <pwd.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdlib>
#include <map>
#include <string>
#include <vector>

#include "config/mail_conf.h"
#include "core/mail_conf.h"
#include "harness/mailserverctl_run.h"
#include "harness/syslog_capture.h"
#include "tables/tables_fixture.h"

namespace {

const std::string kConfDir = "/var/packages/Quillon-Server/etc/mailconf.d/";
const std::string kTransport = "/var/packages/Quillon-Server/target/etc/relay_transport";

using Result = qsvtest::CtlResult;

Result Ctl(const std::vector<std::string> &args) { return qsvtest::RunCtl(args); }

// Every key file, and everything the commands below could change, as the tool itself lists it.
std::string State() {
  std::map<std::string, std::string> files;
  DIR *dir = opendir(kConfDir.c_str());
  while (const dirent *entry = dir != nullptr ? readdir(dir) : nullptr) {
    // The cluster's flags of changed services come and go on their own.
    if (std::string(entry->d_name).find("service_change") != std::string::npos) continue;
    files[entry->d_name] = qsvtest::ReadFile(kConfDir + entry->d_name);
  }
  if (dir != nullptr) closedir(dir);
  std::string state;
  for (const auto &file : files) state += file.first + "=" + file.second;
  for (const std::vector<std::string> &list :
       std::vector<std::vector<std::string>>{{"quota", "list"},
                                             {"attachment", "list"},
                                             {"alias", "members", "example.test", "team"},
                                             {"relay", "host", "list"},
                                             {"relay", "client", "list"},
                                             {"domain", "list"}}) {
    state += Ctl(list).output + "\n--\n";
  }
  return state + qsvtest::ReadFile(kTransport);
}

class MailserverctlTest : public qsvtest::TablesTest {
 protected:
  static void SetUpTestSuite() {
    qsvtest::TablesTest::SetUpTestSuite();
    if (getpwnam("alice") == nullptr) {
      ASSERT_EQ(system("useradd -M alice"), 0);
    }
    Ctl({"domain", "add", "example.test"});  // earlier suites may have added it
  }
};

TEST_F(MailserverctlTest, RefusedInputSaysWhyAndChangesNothing) {
  const Result added = Ctl({"alias", "add", "example.test", "team", "alice"});
  ASSERT_EQ(added.status, 0) << added.output;
  ASSERT_EQ(Ctl({"quota", "set", "alice", "10"}).status, 0);
  ASSERT_EQ(Ctl({"relay", "client", "add", "network", "10.1.0.0/16"}).status, 0);
  ASSERT_EQ(mailConfSet("smtp_relay_client_single", "{}", true, 0), 0);
  ASSERT_EQ(Ctl({"relay", "host", "mode", "single"}).status, 0);
  qsvtest::WriteFile("/tmp/not-aliases", "this is no alias map\n");
  qsvtest::WriteFile("/tmp/long-aliases", "team: alice\nbig: " + std::string(70000, 'b') + "\n");
  const std::string notADomain = "domain name is made of labels";
  const std::string notAPort = "takes a port, a number from 1 to 65535";
  qsvtest::ExpectRefused({
      {{"quota", "set", "alice", "100000"}, "a quota is a whole number"},
      {{"quota", "set", std::string(3000, 's'), "10"}, "at most 254 bytes"},
      {{"attachment", "add", "e\"xe"}, "refused attachment type"},
      {{"alias", "add", "nowhere.test", "team", "alice"}, "is not a domain of this server"},
      {{"alias", "add", "example.test", "team", "nosuchuser"}, "there is no user"},
      {{"alias", "add", "example.test", "postmaster", "alice"}, "reserved"},
      {{"alias", "import", "example.test", "/tmp/not-aliases"}, "no \"name: members\" line"},
      {{"alias", "import", "example.test", "/tmp/long-aliases"}, "line is longer than 65536"},
      {{"alias", "import", "example.test", "/tmp"}, "is no regular file"},
      {{"alias", "import", "example.test", "/dev/null"}, "is no regular file"},
      {{"alias", "export", "example.test", "/dev/null"}, "is no regular file"},
      {{"alias", "export", "example.test", "aliases"}, "is no absolute path"},
      {{"relay", "host", "add", "sender", "relay.example.net", "65536", "example.test"}, "port"},
      {{"relay", "host", "add", "sender", "bad host!", "25", "example.test"}, "a host is"},
      {{"relay", "client", "add", "network", "300.1.1.0/24"}, "a network is"},
      {{"relay", "export"}, "no relay host is set"},
      {{"conf", "set", "", "x"}, "the key is empty"},
      {{"conf", "set", std::string(300, 'k'), "x"}, "the key is too long"},
      {{"conf", "set", "quillon_server_lock/kv_file_upload/file_upload_hook-mailserver_alias_db",
        "1"},
       "store's own \"quillon_server_lock\" tree"},
      {{"conf", "set", "task_queue/mailserver_id-1/x", "1"}, "\"task_queue\" tree"},
      {{"conf", "set", "service_change", "1"}, "\"service_change\" tree"},
      {{"conf", "set", "id", "1"}, "\"node_local\" tree"},
      {{"conf", "set", "mailserver_alias_db", "{}"}, "\"file\" tree"},
      {{"conf", "set", "no/such/tree", "1"}, "\"no\" tree"},
      {{"conf", "set", "smtp_banner", "\xc3\""}, "not valid UTF-8"},
      {{"settings", "set", "smtpd_banner", "\xc3\""}, "not valid UTF-8"},
      {{"conf", "set", "smtp_port", "99999999999999999999"}, notAPort},
      {{"conf", "set", "message_limit", "12x"}, "takes a whole number"},
      {{"conf", "set", "smtp_relay_password", "clear text"}, "cipher"},
      {{"conf", "set", "smtp_tls_port", "588", "virtual_multiple_domain", "abc/example.com"},
       "\"abc/example.com\" has no number"},
      {{"settings", "set", "virtual_multiple_domain", "abc/example.com"}, "has no number"},
      {{"settings", "set", "smtp_port", "-1"}, notAPort},
      {{"settings", "set", "smtp_port", "0"}, notAPort},
      {{"settings", "set", "smtps_port", "65536"}, notAPort},
      {{"settings", "set", "smtp_port", " 25"}, notAPort},
      {{"domain", "add", "x.example, y.example"}, notADomain},
      {{"domain", "add", "../../etc"}, notADomain},
      {{"domain", "add", "a\nb.example"}, notADomain},
      {{"domain", "add", "\xff.example"}, notADomain},
      {{"domain", "add", std::string(100000, 'a') + ".example"}, notADomain},
      {{"domain", "add", std::string(64, 'a') + ".example"}, notADomain},
      {{"domain", "add", "-a.example"}, notADomain},
      {{"domain", "add", "EXAMPLE.test"}, "is already a domain"},
  }, State);

  // The checks let good values through.
  EXPECT_EQ(Ctl({"domain", "add", "bücher.example"}).status, 0);
  EXPECT_EQ(Ctl({"domain", "del", "bücher.example"}).status, 0);
  EXPECT_EQ(Ctl({"settings", "set", "smtp_tls_port", "588"}).status, 0);
  EXPECT_EQ(Ctl({"conf", "set", "smtp_tls_port", "587", "smtpd_banner", "Grüß dich"}).status, 0);
  EXPECT_EQ(Ctl({"conf", "get", "smtp_tls_port"}).output, "587\n");
  EXPECT_EQ(Ctl({"conf", "get", "mailserver/conf/smtpd_banner"}).output, "Grüß dich\n");
}

TEST_F(MailserverctlTest, DamagedStoredValueIsNamedByEveryCommandThatReadsIt) {
  std::string domains;
  ASSERT_EQ(mailConfGet("virtual_multiple_domain", domains), 0);
  ASSERT_EQ(mailConfSet("virtual_multiple_domain", "1/example.test, abc/example.com", true, 0), 0);
  for (const std::vector<std::string> &args : std::vector<std::vector<std::string>>{
           {"settings", "show"},
           {"domain", "list"},
           {"quota", "export"},
           {"relay", "export"},
           {"relay", "host", "list"},
           {"alias", "members", "example.test", "team"}}) {
    const Result result = Ctl(args);
    EXPECT_EQ(result.status, 1) << qsvtest::CtlLine(args) << "\n" << result.output;
    EXPECT_NE(result.output.find("virtual_multiple_domain holds \"1/example.test, abc/"),
              std::string::npos)
        << qsvtest::CtlLine(args) << "\n" << result.output;
  }
  ASSERT_EQ(mailConfSet("virtual_multiple_domain", domains, true, 0), 0);

  // A number too large for its key reads as another number: no command shows it as it is.
  ASSERT_EQ(mailConfSet("smtp_port", "99999999999999999999", true, 0), 0);
  const Result shown = Ctl({"settings", "show"});
  ASSERT_EQ(mailConfSet("smtp_port", "25", true, 0), 0);
  EXPECT_EQ(shown.status, 1) << shown.output;
  EXPECT_NE(shown.output.find("smtp_port holds \"99999999999999999999\""), std::string::npos)
      << shown.output;
}

TEST_F(MailserverctlTest, ChangeThatStaysOnThisNodeSaysSo) {
  qsvtest::SyslogCapture log;
  {
    qsvtest::FailingStoreTool broken;
    for (const std::vector<std::string> &args : std::vector<std::vector<std::string>>{
             {"quota", "set", "kept@example.test", "3"}, {"attachment", "add", "scr"}}) {
      const Result result = Ctl(args);
      EXPECT_EQ(result.status, 1) << qsvtest::CtlLine(args);
      EXPECT_NE(result.output.find("is saved on this node, but did not reach the other nodes"),
                std::string::npos)
          << qsvtest::CtlLine(args) << "\n" << result.output;
    }
  }
  EXPECT_NE(Ctl({"quota", "list", "kept"}).output.find("kept@example.test"), std::string::npos);
  EXPECT_EQ(Ctl({"attachment", "list", "scr"}).output, "scr\n");
  for (const char *db : {"mailserver.db", "attachment_filter.db"}) {
    EXPECT_EQ(log.Matching(std::string("Fail to set file /var/packages/Quillon-Server/etc/") + db)
                  .size(),
              1u)
        << db;
  }
}

}  // namespace
