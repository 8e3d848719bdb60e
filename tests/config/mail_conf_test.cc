// Writes of the configuration store on a one-node cluster with a real Redis and the real key
// store tool: what reaches the store, what reaches the file, in which order, and what is refused.
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <set>
#include <string>
#include <thread>

#include <gtest/gtest.h>
#include <hiredis/hiredis.h>
#include <json/json.h>

#include "config/mail_conf.h"
#include "core/mail_conf.h"
#include "harness/one_node_cluster.h"
#include "harness/recording_script.h"
#include "harness/run_as.h"
#include "harness/syslog_capture.h"

namespace {

const char kTool[] = "/var/packages/Quillon-Server/target/usr/bin/kolt-quillon-server-go-utils";
const char kRealTool[] = "/var/packages/Quillon-Server/target/usr/bin/real-go-utils";
const char kClusterDaemon[] = "/var/packages/Quillon-Server/target/scripts/ClusterDaemon.sh";

std::string FilePath(const std::string &key) { return kMailConfDir + toLeagalFileName(key); }

std::string Stored(const std::string &key) {
  std::string value;
  EXPECT_EQ(mailConfGet(key, value), 0) << key;
  return value;
}

// Moves the real key store tool aside for the life of the object, so that a test can put a
// script in its place, and puts it back.
class ToolAside {
 public:
  ToolAside() { rename(kTool, kRealTool); }
  ~ToolAside() { rename(kRealTool, kTool); }
};

struct timespec Mtime(const std::string &path) {
  struct stat st{};
  stat(path.c_str(), &st);
  return st.st_mtim;
}

class MailConfTest : public testing::Test {
 protected:
  static void SetUpTestSuite() {
    cluster_ = new qsvtest::OneNodeCluster();
    redis_ = redisConnect("127.0.0.1", 8500);
    freeReplyObject(redisCommand(redis_, "AUTH %s", cluster_->password().c_str()));
  }
  static void TearDownTestSuite() {
    redisFree(redis_);
    delete cluster_;
  }

  // The store's value of a short settings key, or "(nil)".
  static std::string InStore(const std::string &key) {
    redisReply *reply =
        static_cast<redisReply *>(redisCommand(redis_, "GET mailserver/conf/%s", key.c_str()));
    std::string value = reply->type == REDIS_REPLY_STRING ? reply->str : "(nil)";
    freeReplyObject(reply);
    return value;
  }
  static void PutInStore(const std::string &key, const std::string &value) {
    freeReplyObject(redisCommand(redis_, "SET mailserver/conf/%s %s", key.c_str(), value.c_str()));
  }

  static qsvtest::OneNodeCluster *cluster_;
  static redisContext *redis_;
};
qsvtest::OneNodeCluster *MailConfTest::cluster_ = nullptr;
redisContext *MailConfTest::redis_ = nullptr;

TEST_F(MailConfTest, AChangedKeyGoesToTheStoreThenTheFile) {
  ASSERT_EQ(mailConfSet("smtp_banner", "first", true, 0), 0);
  EXPECT_EQ(InStore("smtp_banner"), "first");
  EXPECT_EQ(qsvtest::ReadFile(FilePath("smtp_banner")),
            "{\"mailserver/conf/smtp_banner\":\"first\"}\n");
  struct stat st{};
  ASSERT_EQ(stat(FilePath("smtp_banner").c_str(), &st), 0);
  EXPECT_EQ(st.st_mode & 07777, 0644u);
  EXPECT_EQ(st.st_uid, qsvtest::UidOf("Quillon-Server"));

  // The tool, wrapped, notes the file as it was when the key reached the store.
  int rc;
  {
    ToolAside aside;
    qsvtest::WriteFile(kTool,
                       std::string("#!/bin/sh\ncase \"$*\" in *\"--key mailserver/conf/smtp_banner \"*)\n") +
                           "  cat " + FilePath("smtp_banner") + " >> /tmp/file-at-set;;\nesac\n" +
                           "exec " + kRealTool + " \"$@\"\n",
                       0755);
    rc = mailConfSet("smtp_banner", "second", true, 0);
  }
  EXPECT_EQ(rc, 0);
  EXPECT_EQ(qsvtest::ReadFile("/tmp/file-at-set"), "{\"mailserver/conf/smtp_banner\":\"first\"}\n");
  EXPECT_EQ(Stored("smtp_banner"), "second");
  EXPECT_EQ(InStore("smtp_banner"), "second");
}

TEST_F(MailConfTest, AnUnchangedKeyIsNeitherPublishedNorRewritten) {
  ASSERT_EQ(mailConfSet("smtp_hostname", "mx.example", true, 0), 0);
  PutInStore("smtp_hostname", "changed-elsewhere");
  const struct timespec before = Mtime(FilePath("smtp_hostname"));
  std::this_thread::sleep_for(std::chrono::milliseconds(20));
  EXPECT_EQ(mailConfSet("smtp_hostname", "mx.example", true, 0), 0);
  const struct timespec after = Mtime(FilePath("smtp_hostname"));
  EXPECT_EQ(before.tv_sec, after.tv_sec);
  EXPECT_EQ(before.tv_nsec, after.tv_nsec);
  EXPECT_EQ(InStore("smtp_hostname"), "changed-elsewhere");
}

TEST_F(MailConfTest, TheMasterBalancerKeyIsAlwaysWrittenAndAnnounced) {
  ToolAside aside;
  qsvtest::RecordingScript tool(kTool, 0);
  const std::vector<std::string> event = {"sendDisaptcherEvent", "-type", "TREE", "-tree",
                                          "cluster", "-key", "balancer_master_node"};
  // The calls that wrote the key to the store, and the announcements.
  auto count = [&](bool announcements) {
    int n = 0;
    for (const auto &call : tool.Calls()) {
      const bool isEvent = call == event;
      const bool isSet = call.size() > 4 && call[2] == "set" &&
                         call[4] == "mailserver/cluster/balancer_master_node";
      n += announcements ? isEvent : isSet;
    }
    return n;
  };
  const std::string self = cluster_->hostId();
  // Unchanged, but written to the store and announced all the same.
  EXPECT_EQ(mailConfSet("balancer_master_node", self, true, 0), 0);
  EXPECT_EQ(count(false), 1);
  EXPECT_EQ(count(true), 1);
  // The backend refuses: the file still gets the value and the caller sees success.
  tool.SetExitCode(2);
  EXPECT_EQ(mailConfSet("balancer_master_node", "mailserver_id-77", true, 0), 0);
  EXPECT_EQ(Stored("balancer_master_node"), "mailserver_id-77");
  EXPECT_EQ(count(false), 2);
  EXPECT_EQ(count(true), 2);
  tool.SetExitCode(0);
  EXPECT_EQ(mailConfSet("balancer_master_node", self, true, 0), 0);
}

TEST_F(MailConfTest, AnUnhealthyNodeRefusesSynchronisedWrites) {
  ASSERT_EQ(mailConfSet("imap_port", "143", true, 0), 0);
  const std::string build = getenv("QSV_BUILD_DIR");
  {
    qsvtest::RecordingScript daemon(kClusterDaemon, 1);  // status fails
    qsvtest::WriteFile("/tmp/quillon_server/service_status/cluster_health",
                       "{\"cluster_health\":\"no\"}\n");
    qsvtest::SyslogCapture log;
    EXPECT_EQ(mailConfSet("imap_port", "1143", true, 0), -1);
    EXPECT_EQ(Stored("imap_port"), "143");
    EXPECT_EQ(InStore("imap_port"), "143");
    EXPECT_EQ(log.Matching("cluster not health 0").size(), 1u);
    // A local write is never refused.
    EXPECT_EQ(mailConfSet("imap_port", "1144", false, 0), 0);
    EXPECT_EQ(Stored("imap_port"), "1144");
    EXPECT_EQ(InStore("imap_port"), "143");
  }
  ASSERT_EQ(qsvtest::RunProgram("/bin/cp", build + "/package-root/scripts/ClusterDaemon.sh",
                                kClusterDaemon),
            0);
}

TEST_F(MailConfTest, ADamagedKeyFileBlocksThatKeyOnly) {
  qsvtest::WriteFile(FilePath("smtp_main_domain"), "{\"mailserver/conf/smtp_main_domain\":");
  qsvtest::SyslogCapture log;
  EXPECT_EQ(mailConfSet("smtp_main_domain", "example.org", true, 0), -1);
  EXPECT_EQ(log.Matching("Failed to parse Json value of").size(), 1u);
  EXPECT_EQ(qsvtest::ReadFile(FilePath("smtp_main_domain")),
            "{\"mailserver/conf/smtp_main_domain\":");
  EXPECT_EQ(mailConfSet("smtp_tls_port", "5870", true, 0), 0);

  // In a batch it fails the batch, while the other keys are written.
  std::map<std::string, std::string> batch;
  for (int i = 0; i < 100; ++i) batch["batch_key_" + std::to_string(i)] = "v" + std::to_string(i);
  batch["smtp_main_domain"] = "example.org";
  EXPECT_EQ(mailConfSet(batch), -1);
  batch.erase("smtp_main_domain");
  for (const auto &pair : batch) {
    EXPECT_EQ(Stored(pair.first), pair.second);
    EXPECT_EQ(InStore(pair.first), pair.second);
  }
  unlink(FilePath("smtp_main_domain").c_str());
  EXPECT_EQ(mailConfSet(std::map<std::string, std::string>()), 0);
}

TEST_F(MailConfTest, ConcurrentWritersLeaveOneWholeValue) {
  std::vector<pid_t> writers;
  for (int w = 0; w < 8; ++w) {
    const pid_t pid = fork();
    if (pid == 0) {
      for (int i = 0; i < 200; ++i) {
        mailConfSet("race_key", "w" + std::to_string(w) + "-" + std::to_string(i), false, 0);
      }
      _exit(0);
    }
    writers.push_back(pid);
  }
  for (pid_t pid : writers) waitpid(pid, nullptr, 0);
  Json::Value json;
  ASSERT_EQ(loadMailJsonFromFile(toLeagalFileName("race_key"), json, kMailConfDir), 0);
  const std::string value = json["mailserver/conf/race_key"].asString();
  EXPECT_EQ(value.rfind("-199"), value.size() - 4) << value;
  EXPECT_EQ(json.size(), 1u);
}

TEST_F(MailConfTest, FileMembersAreKeptAndRemovedOneByOne) {
  const std::string dir = "/tmp/members/";
  mkdir(dir.c_str(), 0755);
  EXPECT_EQ(dumpMailConfToFile("f", "a", "1", false, false, dir, 0, false, nullptr), 1);
  EXPECT_EQ(dumpMailConfToFile("f", "b", "2", false, false, dir, 0, false, nullptr), 1);
  EXPECT_EQ(dumpMailConfToFile("f", "a", "", true, false, dir, 0, false, nullptr), 1);
  const std::string left = qsvtest::ReadFile(dir + "f");
  EXPECT_EQ(left, "{\"b\":\"2\"}\n");
  EXPECT_EQ(dumpMailConfToFile("f", "a", "", true, false, dir, 0, false, nullptr), 0);
  EXPECT_EQ(qsvtest::ReadFile(dir + "f"), left);
}

TEST_F(MailConfTest, RuleListsKeepTheirForms) {
  std::map<std::string, bool> rules = {{"Quillon-Server", true}, {"nobody", false},
                                       {"no-such-user-here", true}};
  ASSERT_EQ(ftsRuleMapSet(FTS_RULE_USER, rules), 0);
  EXPECT_EQ(Stored("fts_allowed_user"), std::to_string(qsvtest::UidOf("Quillon-Server")));
  EXPECT_EQ(Stored("fts_forbidden_user"), std::to_string(qsvtest::UidOf("nobody")));
  ASSERT_EQ(mailConfSet("fts_forbidden_user",
                        std::to_string(qsvtest::UidOf("nobody")) + "," +
                            std::to_string(qsvtest::UidOf("Quillon-Server")),
                        true, 0),
            0);
  std::map<std::string, bool> read;
  ASSERT_EQ(ftsRuleMapGet(FTS_RULE_USER, read, true), 0);
  EXPECT_EQ(read, (std::map<std::string, bool>{{"quillon-server", false}, {"nobody", false}}));

  ASSERT_EQ(mailConfSet("mcp_rules", "{\"not\":\"an array\"}", true, 0), 0);
  Json::Value mcp(Json::objectValue);
  EXPECT_EQ(LoadMCPRules(mcp), 0);
  EXPECT_TRUE(mcp.isArray() && mcp.empty());
  Json::Value list(Json::arrayValue);
  list.append("rule");
  ASSERT_EQ(SaveMCPRules(list), 0);
  ASSERT_EQ(LoadMCPRules(mcp), 0);
  EXPECT_EQ(mcp, list);
}

}  // namespace
