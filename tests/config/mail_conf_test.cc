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

#include <gtest/gtest.h>
#include <hiredis/hiredis.h>
#include <json/json.h>

#include "cluster/mailserver_cluster.h"
#include "config/mail_conf.h"
#include "core/mail_conf.h"
#include "harness/one_node_cluster.h"
#include "harness/recording_script.h"
#include "harness/run_as.h"
#include "harness/syslog_capture.h"

namespace {

using KOLT::QUILLON_SERVER::KOLTMailNodeCluster;

const std::string kTool = "/var/packages/Quillon-Server/target/usr/bin/kolt-quillon-server-go-utils";
const std::string kClusterDaemon = "/var/packages/Quillon-Server/target/scripts/ClusterDaemon.sh";

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
  Json::CharReaderBuilder builder;
  std::string errors;
  EXPECT_TRUE(Json::parseFromStream(builder, in, &json, &errors)) << text;
  return json;
}

// Moves a companion aside while a test puts a script at its path, and brings it back however the
// test ends.
class Aside {
 public:
  explicit Aside(const std::string &path) : path_(path), away_(path + ".aside") {
    rename(path_.c_str(), away_.c_str());
  }
  ~Aside() { rename(away_.c_str(), path_.c_str()); }
  const std::string &away() const { return away_; }

 private:
  std::string path_, away_;
};

// The real key store tool behind a shell wrapper that first runs `hook`, with the tool's
// arguments in "$@".
class WrappedTool {
 public:
  explicit WrappedTool(const std::string &hook) : real_(kTool) {
    qsvtest::WriteFile(kTool, "#!/bin/sh\n" + hook + "\nexec " + real_.away() + " \"$@\"\n", 0755);
  }

 private:
  Aside real_;
};

redisContext *Connect(const std::string &password) {
  redisContext *redis = redisConnect("127.0.0.1", 8500);
  freeReplyObject(redisCommand(redis, "AUTH %s", password.c_str()));
  return redis;
}

class MailConfTest : public testing::Test {
 protected:
  static void SetUpTestSuite() {
    cluster_ = new qsvtest::OneNodeCluster();
    redis_ = Connect(cluster_->password());
  }
  static void TearDownTestSuite() {
    redisFree(redis_);
    delete cluster_;
  }

  // The store's value of a full key name, or "(nil)".
  static std::string Get(const std::string &fullKey) {
    auto *reply = static_cast<redisReply *>(redisCommand(redis_, "GET %s", fullKey.c_str()));
    const std::string value =
        reply->type == REDIS_REPLY_STRING ? std::string(reply->str, reply->len) : "(nil)";
    freeReplyObject(reply);
    return value;
  }
  static std::string InStore(const std::string &key) { return Get("mailserver/conf/" + key); }
  static long long Ttl(const std::string &fullKey) {
    auto *reply = static_cast<redisReply *>(redisCommand(redis_, "TTL %s", fullKey.c_str()));
    const long long ttl = reply->integer;
    freeReplyObject(reply);
    return ttl;
  }
  static void Set(const std::string &fullKey, const std::string &value) {
    freeReplyObject(redisCommand(redis_, "SET %s %s", fullKey.c_str(), value.c_str()));
  }

  static qsvtest::OneNodeCluster *cluster_;
  static redisContext *redis_;
};
qsvtest::OneNodeCluster *MailConfTest::cluster_ = nullptr;
redisContext *MailConfTest::redis_ = nullptr;

TEST_F(MailConfTest, AChangedKeyReachesTheStoreBeforeItsFile) {
  const std::string key = "smtp_banner";
  const std::string first = "{\"mailserver/conf/smtp_banner\":\"first\"}\n";
  ASSERT_EQ(mailConfSet(key, "first", true, 0), 0);
  EXPECT_EQ(qsvtest::ReadFile(FileOf(key)), first);
  EXPECT_EQ(InStore(key), "first");
  // The postfix of this node is told to take the change up, for 30 seconds at most.
  const std::string flag =
      "service_change/serv_status-" + cluster_->hostId() + "|mailserver_service_postfix|";
  EXPECT_EQ(Get(flag), "mailserver_service_postfix");
  EXPECT_GT(Ttl(flag), 0);
  EXPECT_LE(Ttl(flag), 30);

  // The wrapper copies the key file at the moment the new value is handed to the store.
  const std::string value = "say \"hi\"\n\xc3\xbc" "ber";
  {
    WrappedTool tool("case \"$*\" in *'--command set --key mailserver/conf/smtp_banner '*) cat " +
                     FileOf(key) + " > /tmp/file-at-set;; esac");
    ASSERT_EQ(mailConfSet(key, value, true, 30), 0);
  }
  EXPECT_EQ(qsvtest::ReadFile("/tmp/file-at-set"), first);
  EXPECT_EQ(Mirror(key), value);
  EXPECT_EQ(InStore(key), value);
  EXPECT_GT(Ttl("mailserver/conf/smtp_banner"), 0);
}

TEST_F(MailConfTest, AnUnchangedKeyIsNeitherPublishedNorRewritten) {
  ASSERT_EQ(mailConfSet("smtp_hostname", "mx.example", true, 0), 0);
  Set("mailserver/conf/smtp_hostname", "changed-elsewhere");
  const struct stat before = Stat(FileOf("smtp_hostname"));
  usleep(20 * 1000);
  EXPECT_EQ(mailConfSet("smtp_hostname", "mx.example", true, 0), 0);
  const struct stat after = Stat(FileOf("smtp_hostname"));
  EXPECT_EQ(after.st_ino, before.st_ino);
  EXPECT_EQ(after.st_mtim.tv_sec, before.st_mtim.tv_sec);
  EXPECT_EQ(after.st_mtim.tv_nsec, before.st_mtim.tv_nsec);
  EXPECT_EQ(InStore("smtp_hostname"), "changed-elsewhere");
}

TEST_F(MailConfTest, TheMasterBalancerKeyIsAlwaysWrittenAndAnnounced) {
  const std::string key = "balancer_master_node", full = "mailserver/cluster/balancer_master_node";
  const std::string self = cluster_->hostId();
  redisContext *events = Connect(cluster_->password());
  freeReplyObject(redisCommand(events, "SUBSCRIBE mail_event_dispatcher"));
  redisSetTimeout(events, timeval{3, 0});
  // The next announcement on the channel, or "" when none comes.
  auto next = [&]() -> Json::Value {
    redisReply *reply = nullptr;
    if (redisGetReply(events, reinterpret_cast<void **>(&reply)) != REDIS_OK) return "";
    Json::Value event = ParseJson(std::string(reply->element[2]->str, reply->element[2]->len));
    freeReplyObject(reply);
    return event;
  };
  Json::Value announced;
  announced["type"] = "TREE";
  announced["tree"] = "cluster";
  announced["key"] = key;

  // The file already says this node: the store is written and the file rewritten all the same.
  ASSERT_EQ(Mirror(key), self);
  Set(full, "stale");
  const ino_t before = Stat(FileOf(key)).st_ino;
  EXPECT_EQ(mailConfSet(key, self, true, 0), 0);
  EXPECT_EQ(Get(full), self);
  EXPECT_NE(Stat(FileOf(key)).st_ino, before);
  EXPECT_EQ(next(), announced);

  ASSERT_EQ(mailConfSet("smtp_helo_name", "mx.example", true, 0), 0);
  {
    WrappedTool tool("case \"$*\" in *'--command set '*) exit 2;; esac");  // the store refuses
    EXPECT_EQ(mailConfSet(key, "mailserver_id-77", true, 0), 0);
    EXPECT_EQ(Mirror(key), "mailserver_id-77");
    EXPECT_EQ(Get(full), self);
    EXPECT_EQ(next(), announced);
    // An ordinary key the store refused is not written anywhere.
    EXPECT_EQ(mailConfSet("smtp_helo_name", "other.example", true, 0), -1);
    EXPECT_EQ(Mirror("smtp_helo_name"), "mx.example");
  }
  redisFree(events);
  EXPECT_EQ(mailConfSet(key, self, true, 0), 0);
}

TEST_F(MailConfTest, AnUnhealthyNodeRefusesSynchronisedWritesOnly) {
  ASSERT_EQ(mailConfSet("imap_port", "143", true, 0), 0);
  // A stale "no" in the cache is overruled by the status script.
  qsvtest::WriteFile("/tmp/quillon_server/service_status/cluster_health",
                     "{\"cluster_health\":\"no\"}\n");
  EXPECT_EQ(mailConfSet("imap_port", "144", true, 0), 0);
  EXPECT_EQ(InStore("imap_port"), "144");
  {
    Aside daemon(kClusterDaemon);
    qsvtest::RecordingScript status(kClusterDaemon, 1);
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
  qsvtest::SyslogCapture log;
  EXPECT_EQ(mailConfSet("smtp_main_domain", "example.org", true, 0), -1);
  EXPECT_EQ(log.Matching("Failed to parse Json value of").size(), 1u);
  EXPECT_EQ(qsvtest::ReadFile(FileOf("smtp_main_domain")), damaged);
  EXPECT_EQ(InStore("smtp_main_domain"), "(nil)");
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
    if (!damaged) {
      EXPECT_EQ(Mirror(pair.first), pair.second);
    }
  }
  EXPECT_EQ(qsvtest::ReadFile(FileOf("batch_key_42")), "[");
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
  const Json::Value json = ParseJson(qsvtest::ReadFile(FileOf("race_key")));
  ASSERT_EQ(json.size(), 1u);
  // Whoever wrote last wrote its last value.
  const std::string value = json["mailserver/conf/race_key"].asString();
  EXPECT_EQ(value.size(), 6u) << value;
  EXPECT_EQ(value.substr(2), "-199") << value;
  EXPECT_NE(access((FileOf("race_key") + ".tmp").c_str(), F_OK), 0);
  EXPECT_EQ(ParseJson(qsvtest::ReadFile(std::string(kMailConfDir) + "race_members")).size(), 400u);
}

TEST_F(MailConfTest, AKeyFileKeepsItsOtherMembersAndItsOwner) {
  const std::string name = toLeagalFileName("archive_note"), path = kMailConfDir + name;
  qsvtest::WriteFile(path, "{\"kept\":\"yes\"}\n", 0600);
  ASSERT_EQ(mailConfSet("archive_note", "v", false, 0), 0);
  EXPECT_EQ(ParseJson(qsvtest::ReadFile(path)),
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
  EXPECT_EQ(qsvtest::ReadFile(path), "{\"mailserver/conf/archive_note\":\"v\"}\n");
}

TEST_F(MailConfTest, RuleListsKeepTheirForms) {
  const std::string self = std::to_string(qsvtest::UidOf("Quillon-Server"));
  const std::string nobody = std::to_string(qsvtest::UidOf("nobody"));
  std::map<std::string, bool> rules = {
      {"Quillon-Server", true}, {"nobody", false}, {"no-such-user-here", true}};
  ASSERT_EQ(ftsRuleMapSet(FTS_RULE_USER, rules), 0);
  EXPECT_EQ(Mirror("fts_allowed_user"), self);
  EXPECT_EQ(Mirror("fts_forbidden_user"), nobody);
  EXPECT_EQ(InStore("fts_allowed_user"), self);
  std::map<std::string, bool> groups = {{"Quillon-Server", true}};
  ASSERT_EQ(ftsRuleMapSet(FTS_RULE_GROUP, groups), 0);
  EXPECT_EQ(Mirror("fts_allowed_group"), std::to_string(qsvtest::GidOf("Quillon-Server")));

  // A name on both lists is forbidden; names come back in lower case, ids as stored.
  ASSERT_EQ(mailConfSet("fts_forbidden_user", nobody + "," + self, true, 0), 0);
  std::map<std::string, bool> read;
  ASSERT_EQ(ftsRuleMapGet(FTS_RULE_USER, read, true), 0);
  EXPECT_EQ(read, (std::map<std::string, bool>{{"quillon-server", false}, {"nobody", false}}));
  read.clear();
  ASSERT_EQ(ftsRuleMapGet(FTS_RULE_USER, read, false), 0);
  EXPECT_EQ(read, (std::map<std::string, bool>{{self, false}, {nobody, false}}));

  ASSERT_EQ(mailConfSet("mcp_rules", "{\"not\":\"an array\"}", true, 0), 0);
  Json::Value mcp(Json::objectValue);
  EXPECT_EQ(LoadMCPRules(mcp), 0);
  EXPECT_TRUE(mcp.isArray() && mcp.empty());
  Json::Value list(Json::arrayValue);
  list.append("rule \"one\"");
  ASSERT_EQ(SaveMCPRules(list), 0);
  ASSERT_EQ(LoadMCPRules(mcp), 0);
  EXPECT_EQ(mcp, list);
}

}  // namespace
