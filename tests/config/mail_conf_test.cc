// Writes of the configuration store as a caller sees them on a one-node cluster with a real Redis
// and the real key store tool: what reaches the store, what reaches the key file, in which order,
// and what is refused.
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <map>
#include <sstream>
#include <string>
#include <vector>

#include <json/json.h>

#include "cluster/mailserver_cluster.h"
#include "cluster/store_fixture.h"
#include "config/mail_conf.h"
#include "core/mail_conf.h"
#include "harness/eventually.h"
#include "harness/run_as.h"
#include "harness/syslog_capture.h"
#include "tables/tables_fixture.h"

namespace {

using KOLT::QUILLON_SERVER::KOLTMailNodeCluster;
using qsvtest::ReadFile;

std::string FileOf(const std::string &key) { return kMailConfDir + toLeagalFileName(key); }

std::string Mirror(const std::string &key) {
  std::string value;
  EXPECT_EQ(mailConfGet(key, value), 0) << key;
  return value;
}

struct stat Stat(const std::string &path) {
  struct stat st{};
  EXPECT_EQ(stat(path.c_str(), &st), 0) << path;
  return st;
}

Json::Value ParseJson(const std::string &text) {
  Json::Value json;
  std::istringstream in(text);
  std::string errors;
  EXPECT_TRUE(Json::parseFromStream(Json::CharReaderBuilder(), in, &json, &errors)) << text;
  return json;
}

class MailConfTest : public qsvtest::StoreTest {
 protected:
  static std::string InStore(const std::string &key) {
    return Redis("GET %s", "mailserver/conf/" + key);
  }
};

TEST_F(MailConfTest, AChangedKeyReachesTheStoreBeforeItsFile) {
  KOLTMailNodeCluster().removeDir("service_change");  // no sync flag left by earlier writes
  const std::string first = "{\"mailserver/conf/smtp_banner\":\"first\"}\n";
  const std::string flag = "service_change/serv_status-" + self() + "|mailserver_service_postfix|";
  {
    qsvtest::WatcherPaused paused;  // else it may take the flag up before we look
    ASSERT_EQ(mailConfSet("smtp_banner", "first", true, 0), 0);
    EXPECT_EQ(ReadFile(FileOf("smtp_banner")), first);
    EXPECT_EQ(InStore("smtp_banner"), "first");
    // This node's postfix is told to take the change up, within 30 seconds.
    EXPECT_EQ(Redis("GET %s", flag), "mailserver_service_postfix");
    const int ttl = std::stoi(Redis("TTL %s", flag));
    EXPECT_TRUE(ttl > 0 && ttl <= 30) << ttl;
  }

  // The wrapper copies the key file at the moment the new value is handed to the store.
  const std::string value = "say \"hi\"\n\xc3\xbc" "ber";
  {
    qsvtest::WrappedTool tool("case \"$*\" in *'--command set --key mailserver/conf/smtp_banner '*) "
                              "cat " + FileOf("smtp_banner") + " > /tmp/file-at-set;; esac");
    ASSERT_EQ(mailConfSet("smtp_banner", value, true, 30), 0);
  }
  EXPECT_EQ(ReadFile("/tmp/file-at-set"), first);
  EXPECT_EQ(Mirror("smtp_banner"), value);
  EXPECT_EQ(InStore("smtp_banner"), value);
}

TEST_F(MailConfTest, AnUnchangedKeyIsNeitherPublishedNorRewritten) {
  ASSERT_EQ(mailConfSet("smtp_hostname", "mx.example", true, 0), 0);
  const struct stat before = Stat(FileOf("smtp_hostname"));
  usleep(20 * 1000);
  {
    qsvtest::WrappedTool tool("echo \"$*\" >> /tmp/unchanged-calls");
    EXPECT_EQ(mailConfSet("smtp_hostname", "mx.example", true, 0), 0);
  }
  const struct stat after = Stat(FileOf("smtp_hostname"));
  EXPECT_EQ(after.st_ino, before.st_ino);
  EXPECT_EQ(after.st_mtim.tv_nsec, before.st_mtim.tv_nsec);
  EXPECT_EQ(ReadFile("/tmp/unchanged-calls").find("--command set"), std::string::npos);
}

// What a node can't keep as a file is refused before the store hears of it: an empty key, a key
// too long for a file name, bytes that would come back changed from the key file.
TEST_F(MailConfTest, WhatTheNodeCannotStoreIsNeverPublished) {
  unlink("/tmp/refused-calls");
  qsvtest::WrappedTool tool("echo \"$*\" >> /tmp/refused-calls");
  qsvtest::SyslogCapture log;
  EXPECT_EQ(mailConfSet("", "x", true, 0), -1);
  EXPECT_EQ(mailConfSet(std::string(300, 'k'), "x", true, 0), -1);
  EXPECT_EQ(mailConfSet("smtp_banner", "\xc3\"", true, 0), -1);
  EXPECT_EQ(log.Matching("Refused to set key").size(), 3u);
  // The key watcher may still be reading what earlier tests wrote; none of these keys reached it.
  const std::string calls = ReadFile("/tmp/refused-calls");
  for (const std::string &trace : {std::string("--command set"), std::string("smtp_banner"), std::string("kkkk")}) {
    EXPECT_EQ(calls.find(trace), std::string::npos) << calls;
  }
  EXPECT_NE(access((std::string(kMailConfDir) + "%").c_str(), F_OK), 0);
  EXPECT_EQ(mailConfSet(std::string(240, 'k'), "fits", true, 0), 0);
}

TEST_F(MailConfTest, TheMasterBalancerKeyIsAlwaysWrittenAndAnnounced) {
  const std::string key = "balancer_master_node", full = "mailserver/cluster/" + key;
  // Runs of the tool are noted; with /tmp/refuse present, the store refuses every write.
  unlink("/tmp/runs");
  qsvtest::WrappedTool tool("echo \"$*\" >> /tmp/runs\n[ -e /tmp/refuse ] && "
                            "case \"$*\" in *'--command set '*) exit 2;; esac");
  auto announcements = [] {
    std::istringstream runs(ReadFile("/tmp/runs"));
    int n = 0;
    for (std::string run; std::getline(runs, run);) {
      n += run == "sendDisaptcherEvent -type TREE -tree cluster -key balancer_master_node";
    }
    return n;
  };

  // The file already names this node: the store is written and the file rewritten all the same.
  ASSERT_EQ(Mirror(key), self());
  Redis("SET %s %s", full, "stale");
  // Let the key watcher mirror that first, so that it doesn't do so in the middle of what follows.
  for (int i = 0; i < 200 && Mirror(key) != "stale"; ++i) usleep(10 * 1000);
  const ino_t before = Stat(FileOf(key)).st_ino;
  EXPECT_EQ(mailConfSet(key, self(), true, 0), 0);
  EXPECT_EQ(Redis("GET %s", full), self());
  EXPECT_NE(Stat(FileOf(key)).st_ino, before);
  EXPECT_EQ(announcements(), 1);

  ASSERT_EQ(mailConfSet("smtp_helo_name", "mx.example", true, 0), 0);
  qsvtest::WriteFile("/tmp/refuse", "");
  EXPECT_EQ(mailConfSet(key, "mailserver_id-77", true, 0), 0);
  EXPECT_EQ(Mirror(key), "mailserver_id-77");
  EXPECT_EQ(Redis("GET %s", full), self());
  EXPECT_EQ(announcements(), 2);
  // An ordinary key that the store refused is written nowhere.
  EXPECT_EQ(mailConfSet("smtp_helo_name", "other.example", true, 0), -1);
  EXPECT_EQ(Mirror("smtp_helo_name"), "mx.example");
  unlink("/tmp/refuse");
  EXPECT_EQ(mailConfSet(key, self(), true, 0), 0);
}

// A store that can't answer is no removal: the key watcher leaves the mirror as it was (it used to
// empty it, and a node lost its settings while its store restarted), and takes the value up once
// the store answers again.
TEST_F(MailConfTest, AStoreWithoutAnswerLeavesTheMirrorAsItWas) {
  ASSERT_EQ(mailConfSet("smtp_banner", "kept", true, 0), 0);
  {
    qsvtest::SyslogCapture log;
    qsvtest::FailingStoreTool unanswered(2);
    Redis("SET %s %s", "mailserver/conf/smtp_banner", "changed");
    EXPECT_TRUE(qsvtest::Eventually(
        [&log] { return !log.Matching("smtp_banner; its mirror is left as it was").empty(); }));
    EXPECT_EQ(Mirror("smtp_banner"), "kept");
  }
  Redis("SET %s %s", "mailserver/conf/smtp_banner", "changed");
  EXPECT_TRUE(qsvtest::Eventually([] { return Mirror("smtp_banner") == "changed"; }));
}

TEST_F(MailConfTest, AnUnhealthyNodeRefusesSynchronisedWritesOnly) {
  ASSERT_EQ(mailConfSet("imap_port", "143", true, 0), 0);
  // A stale "no" in the cache is overruled by the status script.
  qsvtest::WriteFile("/tmp/quillon_server/service_status/cluster_health",
                     "{\"cluster_health\":\"no\"}\n");
  EXPECT_EQ(mailConfSet("imap_port", "144", true, 0), 0);
  EXPECT_EQ(InStore("imap_port"), "144");
  {
    qsvtest::BrokenCluster broken;
    ASSERT_FALSE(KOLTMailNodeCluster().isClusterHealth(false));  // the cache learns it too
    qsvtest::SyslogCapture log;
    EXPECT_EQ(mailConfSet("imap_port", "993", true, 0), -1);
    EXPECT_EQ(log.Matching("cluster not health 0").size(), 1u);
    EXPECT_EQ(Mirror("imap_port"), "144");
    EXPECT_EQ(InStore("imap_port"), "144");
    EXPECT_EQ(mailConfSet("imap_port", "993", false, 0), 0);
    EXPECT_EQ(Mirror("imap_port"), "993");
    EXPECT_EQ(InStore("imap_port"), "144");
  }
  EXPECT_TRUE(KOLTMailNodeCluster().isClusterHealth(false));
}

TEST_F(MailConfTest, ADamagedKeyFileBlocksWritesToThatKeyOnly) {
  const std::string damaged = "{\"mailserver/conf/smtp_main_domain\":";
  qsvtest::WriteFile(FileOf("smtp_main_domain"), damaged);
  Redis("SET %s %s", "mailserver/conf/smtp_main_domain", "before");
  qsvtest::SyslogCapture log;
  EXPECT_EQ(mailConfSet("smtp_main_domain", "example.org", true, 0), -1);
  // The key watcher, seeing the store's value, finds the same damage; only our own line counts.
  size_t ours = 0;
  for (const auto &line : log.Matching("Failed to parse Json value of")) {
    ours += line.tag.find("key-watcher") == std::string::npos ? 1 : 0;
  }
  EXPECT_EQ(ours, 1u);
  EXPECT_EQ(ReadFile(FileOf("smtp_main_domain")), damaged);
  EXPECT_EQ(InStore("smtp_main_domain"), "before");
  EXPECT_EQ(mailConfSet("smtp_tls_port", "465", true, 0), 0);
  EXPECT_EQ(Mirror("smtp_tls_port"), "465");
  unlink(FileOf("smtp_main_domain").c_str());
}

TEST_F(MailConfTest, ABatchWritesEveryKeyItCan) {
  const mode_t mask = umask(022);
  std::map<std::string, std::string> batch;
  for (int i = 0; i < 100; ++i) batch["batch_key_" + std::to_string(i)] = "a" + std::to_string(i);
  EXPECT_EQ(mailConfSet(batch), 0);
  for (const auto &pair : batch) {
    EXPECT_EQ(Mirror(pair.first), pair.second);
    EXPECT_EQ(InStore(pair.first), pair.second);
  }
  // One damaged key file fails the batch; the 99 other keys are written all the same.
  qsvtest::WriteFile(FileOf("batch_key_42"), "[");
  for (auto &pair : batch) pair.second[0] = 'b';
  EXPECT_EQ(mailConfSet(batch), -1);
  for (const auto &pair : batch) {
    const bool damaged = pair.first == "batch_key_42";
    EXPECT_EQ(InStore(pair.first), damaged ? "a42" : pair.second);
    EXPECT_EQ(damaged ? ReadFile(FileOf(pair.first)) : Mirror(pair.first),
              damaged ? "[" : pair.second);
  }
  EXPECT_EQ(mailConfSet(std::map<std::string, std::string>()), 0);
  // The writers' threads leave the process's file mode mask as they found it.
  EXPECT_EQ(umask(mask), 022u);
}

TEST_F(MailConfTest, ConcurrentWritersLeaveOneWholeValueAndLoseNoMember) {
  std::vector<pid_t> writers;
  for (int w = 0; w < 8; ++w) {
    const pid_t pid = fork();
    if (pid == 0) {
      for (int i = 0; i < 200; ++i) {
        const std::string value = "w" + std::to_string(w) + "-" + std::to_string(i);
        mailConfSet("race_key", value, false, 0);
        // Writers of different members of one file must not drop each other's.
        if (i % 4 == 0) {
          dumpMailConfToFile("race_members", value, "x", false, false, kMailConfDir, 0, false,
                             nullptr);
        }
      }
      _exit(0);
    }
    writers.push_back(pid);
  }
  for (pid_t pid : writers) waitpid(pid, nullptr, 0);
  const Json::Value json = ParseJson(ReadFile(FileOf("race_key")));
  ASSERT_EQ(json.size(), 1u);
  // Whoever wrote last wrote its last value.
  const std::string value = json["mailserver/conf/race_key"].asString();
  EXPECT_EQ(value.size(), 6u) << value;
  EXPECT_EQ(value.substr(2), "-199") << value;
  EXPECT_EQ(ParseJson(ReadFile(std::string(kMailConfDir) + "race_members")).size(), 400u);
}

TEST_F(MailConfTest, AKeyFileKeepsItsOtherMembersAndItsOwner) {
  const std::string name = toLeagalFileName("archive_note"), path = kMailConfDir + name;
  qsvtest::WriteFile(path, "{\"kept\":\"yes\"}\n", 0600);
  ASSERT_EQ(mailConfSet("archive_note", "v", false, 0), 0);
  EXPECT_EQ(ParseJson(ReadFile(path)),
            ParseJson("{\"kept\":\"yes\",\"mailserver/conf/archive_note\":\"v\"}"));
  const struct stat st = Stat(path);
  EXPECT_EQ(st.st_mode & 07777, 0644u);
  EXPECT_EQ(st.st_uid, qsvtest::UidOf("Quillon-Server"));
  EXPECT_EQ(st.st_gid, qsvtest::GidOf("Quillon-Server"));

  // Removing a member that isn't there is nothing to do, even when the check lets it through.
  const MailConfUpdateCheck letThrough = [](const std::string &, const std::string &,
                                            const std::string &, bool, int, bool) { return 1; };
  for (const MailConfUpdateCheck &check : {letThrough, MailConfUpdateCheck()}) {
    EXPECT_EQ(dumpMailConfToFile(name, "absent", "", true, false, kMailConfDir, 0, false, check), 0);
    EXPECT_EQ(Stat(path).st_ino, st.st_ino);
    EXPECT_EQ(dumpMailConfToFile("no_file", "k", "", true, false, kMailConfDir, 0, false, check), 0);
    EXPECT_NE(access((std::string(kMailConfDir) + "no_file").c_str(), F_OK), 0);
  }
  EXPECT_EQ(dumpMailConfToFile(name, "kept", "", true, false, kMailConfDir, 0, false, nullptr), 1);
  EXPECT_EQ(ReadFile(path), "{\"mailserver/conf/archive_note\":\"v\"}\n");
}

TEST_F(MailConfTest, RuleListsKeepTheirForms) {
  const std::string pkg = std::to_string(qsvtest::UidOf("Quillon-Server"));
  const std::string nobody = std::to_string(qsvtest::UidOf("nobody"));
  std::map<std::string, bool> rules = {
      {"Quillon-Server", true}, {"nobody", false}, {"no-such-user-here", true}};
  ASSERT_EQ(ftsRuleMapSet(FTS_RULE_USER, rules), 0);
  EXPECT_EQ(Mirror("fts_allowed_user"), pkg);
  EXPECT_EQ(Mirror("fts_forbidden_user"), nobody);
  EXPECT_EQ(InStore("fts_allowed_user"), pkg);

  // A name on both lists is forbidden; names come back in lower case.
  ASSERT_EQ(mailConfSet("fts_forbidden_user", nobody + "," + pkg, true, 0), 0);
  std::map<std::string, bool> read;
  ASSERT_EQ(ftsRuleMapGet(FTS_RULE_USER, read, true), 0);
  EXPECT_EQ(read, (std::map<std::string, bool>{{"quillon-server", false}, {"nobody", false}}));

  ASSERT_EQ(mailConfSet("mcp_rules", "{\"not\":\"an array\"}", true, 0), 0);
  Json::Value mcp(Json::objectValue);
  EXPECT_EQ(LoadMCPRules(mcp), 0);
  EXPECT_EQ(mcp, Json::Value(Json::arrayValue));
}

}  // namespace
