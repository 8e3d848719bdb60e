// The key store tool against real Redis servers. The library sees only its output and exit
// status, so that is what is checked, together with the store itself, read directly.
#include <unistd.h>

#include <chrono>
#include <memory>
#include <thread>

#include <gtest/gtest.h>
#include <json/json.h>

#include "companions/program_run.h"
#include "harness/recording_script.h"
#include "harness/servers.h"

// The event readers were written against this compact writer; the test compares with it.
#pragma GCC diagnostic ignored "-Wdeprecated-declarations"

namespace qsvtest {
namespace {

const char kPassword[] = "kv pass\"word";
const char kPasswordJson[] = "{\"password\":\"kv pass\\\"word\"}";

void Sleep(int ms) { std::this_thread::sleep_for(std::chrono::milliseconds(ms)); }

class KeyStoreToolTest : public testing::Test {
 protected:
  void SetUp() override {
    WriteFile(kBackendConf, kPasswordJson);
    redis_ = ServerProcess::Redis(8500, kPassword);
    store_.reset(new DirectRedis(8500, kPassword));
  }

  std::unique_ptr<ServerProcess> redis_;
  std::unique_ptr<DirectRedis> store_;
};

TEST_F(KeyStoreToolTest, SetGetExistDelCreateAndTtl) {
  EXPECT_EQ(Backend("set", "conf/a", {"--value", "one"}).status, 0);
  EXPECT_EQ(store_->Command({"GET", "conf/a"}), "one");
  EXPECT_EQ(Backend("exist", "conf/a").status, 0);
  EXPECT_EQ(Backend("del", "conf/a").status, 0);
  EXPECT_EQ(Backend("exist", "conf/a").status, 1);
  EXPECT_EQ(Backend("del", "conf/a").status, 0) << "deleting twice is no error";
  for (const char *word : {"get", "linear_get"}) {
    ProgramRun got = Backend(word, "conf/a");
    EXPECT_EQ(got.status, 1) << word;
    EXPECT_EQ(got.out, "") << word;
  }

  EXPECT_EQ(Backend("create", "lock/job", {"--value", "first"}).status, 0);
  EXPECT_EQ(Backend("create", "lock/job", {"--value", "second"}).status, 1);
  EXPECT_EQ(store_->Command({"GET", "lock/job"}), "first");
  ASSERT_EQ(Backend("create", "lock/lease", {"--value", "a", "--ttl", "1"}).status, 0);
  ASSERT_EQ(Backend("set", "lease", {"--value", "v", "--ttl", "1"}).status, 0);
  ASSERT_EQ(Backend("set", "keep0", {"--value", "v", "--ttl", "0"}).status, 0);
  ASSERT_EQ(Backend("set", "keepneg", {"--ttl", "-3", "--value", "v"}).status, 0);
  EXPECT_EQ(Backend("get", "lease").out, "v");
  EXPECT_EQ(store_->Command({"TTL", "keep0"}), "-1") << "zero means forever";
  EXPECT_EQ(store_->Command({"TTL", "keepneg"}), "-1");
  Sleep(1500);
  EXPECT_EQ(Backend("get", "lease").status, 1);
  EXPECT_EQ(Backend("create", "lock/lease", {"--value", "c", "--ttl", "1"}).status, 0);
  EXPECT_EQ(store_->Command({"GET", "lock/lease"}), "c");
}

TEST_F(KeyStoreToolTest, ValuesPassThroughArgvByteForByte) {
  std::string big;
  for (int i = 0; big.size() < 100 * 1024; ++i) big += "line " + std::to_string(i) + " \t\"x\"\n";
  int n = 0;
  for (const std::string &value : {std::string("with spaces  and\nnew\nlines\n"), std::string("--ttl"),
                                   std::string("-5"), std::string(""), std::string("caf\xc3\xa9 \xf0\x9f\x93\xa7"), big}) {
    const std::string key = "odd key [" + std::to_string(n++) + "]*?";
    ASSERT_EQ(Backend("set", key, {"--value", value}).status, 0) << key;
    EXPECT_EQ(store_->Command({"GET", key}), value) << key;
    ProgramRun got = Backend("get", key);
    EXPECT_EQ(got.status, 0) << key;
    EXPECT_TRUE(got.out == value) << key << ": " << got.out.size() << " bytes back";
  }
}

TEST_F(KeyStoreToolTest, ListExistAndDelDirSeeTheKeyTree) {
  for (const char *key : {"d", "d/x", "d/y/1", "d/y/2", "d/z/q/r", "dd/x", "other/d/x", "g[1]/a", "g1/b", "g*/c"}) {
    store_->Command({"SET", key, "v"});
  }
  ProgramRun listed = Backend("list", "d");
  EXPECT_EQ(listed.status, 0);
  EXPECT_EQ(listed.out, "d/x d/y d/z");
  EXPECT_EQ(Backend("list", "d/y").out, "d/y/1 d/y/2");
  listed = Backend("list", "nothing/here");
  EXPECT_EQ(listed.status, 0);
  EXPECT_EQ(listed.out, "");
  // Glob characters in a name are taken literally.
  EXPECT_EQ(Backend("list", "g[1]").out, "g[1]/a");
  EXPECT_EQ(Backend("list", "g*").out, "g*/c");
  // A directory exists while something is under it.
  for (const char *key : {"d/z", "d/z/q"}) EXPECT_EQ(Backend("exist", key).status, 0) << key;
  for (const char *key : {"d/z/q/r/s", "d/z/", "d/", "g?"}) EXPECT_EQ(Backend("exist", key).status, 1) << key;

  store_->Command({"FLUSHALL"});
  for (const char *key : {"a", "a/b", "a/b/c", "a/b/c/d", "a/bc", "a/bc/x", "a/c"}) store_->Command({"SET", key, "v"});
  // Enough keys that the scan takes several rounds.
  for (int i = 0; i < 3000; ++i) store_->Command({"SET", "a/b/many/" + std::to_string(i), "v"});
  EXPECT_EQ(Backend("del_dir", "a/b").status, 0);
  EXPECT_EQ(store_->Command({"EXISTS", "a", "a/bc", "a/bc/x", "a/c"}), "4");
  EXPECT_EQ(store_->Command({"DBSIZE"}), "4");
  EXPECT_EQ(Backend("del_dir", "a/b").status, 0) << "an absent directory is no error";
}

TEST_F(KeyStoreToolTest, ServiceVerbsPublishEventsAndDeregister) {
  DirectRedis subscriber(8500, kPassword);
  subscriber.Command({"SUBSCRIBE", "mail_event_dispatcher"});
  Json::Value expected;
  expected["type"] = "update";
  expected["tree"] = "mail/\"alias\"\\x";
  expected["key"] = "caf\xc3\xa9\t\x01/\xf0\x9f\x93\xa7";
  ProgramRun sent = RunTool({"sendDisaptcherEvent", "-type", expected["type"].asString(), "-tree",
                             expected["tree"].asString(), "-key", expected["key"].asString()});
  EXPECT_EQ(sent.status, 0) << sent.err;
  Json::FastWriter writer;
  writer.omitEndingLineFeed();
  EXPECT_EQ(subscriber.NextMessage(), writer.write(expected));

  store_->Command({"SET", "service_catalog/smtp/node1", "up"});
  store_->Command({"SET", "service_catalog/smtp/node10", "up"});
  const std::vector<std::string> deregister = {"quillon_server_command", "--deregister",
                                               "--service_name", "smtp", "--server_id", "node1"};
  EXPECT_EQ(RunTool(deregister).status, 0);
  EXPECT_EQ(store_->Command({"EXISTS", "service_catalog/smtp/node1"}), "0");
  EXPECT_EQ(store_->Command({"EXISTS", "service_catalog/smtp/node10"}), "1") << "a prefix is not a match";
  EXPECT_EQ(RunTool(deregister).status, 0) << "already gone is fine";

  ProgramRun ip = RunTool({"backend-command", "--command", "get_redis_master_ip", "--key", ""});
  EXPECT_EQ(ip.status, 0);
  EXPECT_EQ(ip.out, "127.0.0.1") << "a master names its first bound address";
}

TEST_F(KeyStoreToolTest, FailuresExitTwoWithAMessageAndBadUsage64) {
  WriteFile(kBackendConf, "{\"password\":\"wrong\"}");
  ProgramRun run = Backend("get", "k");
  EXPECT_EQ(run.status, 2);
  EXPECT_NE(run.err.find("password"), std::string::npos) << run.err;
  unlink(kBackendConf);
  EXPECT_EQ(Backend("set", "k", {"--value", "v"}).status, 2);

  for (const std::vector<std::string> &bad : std::vector<std::vector<std::string>>{
           {},
           {"backend-command", "--command", "frobnicate", "--key", "k"},
           {"backend-command", "--command", "get"},
           {"backend-command", "--command", "set", "--key", "k", "--ttl", "soon"},
           {"backend-command", "--command", "set", "--key", "k", "--value"},
           {"quillon_server_command", "--service_name", "s", "--server_id", "1"},
           {"sendDisaptcherEvent", "-type", "t"}}) {
    EXPECT_EQ(RunTool(bad).status, 64) << (bad.empty() ? "" : bad.back());
  }

  WriteFile(kBackendConf, kPasswordJson);
  ASSERT_EQ(Backend("exist", "k").status, 1) << "the right password works again";
  EXPECT_EQ(store_->Command({"DBSIZE"}), "0") << "refused calls wrote nothing";
  redis_->Stop();
  for (const char *word : {"get", "exist", "set", "list", "del_dir"}) {
    run = Backend(word, "k", {"--value", "v"});
    EXPECT_EQ(run.status, 2) << word;
    EXPECT_NE(run.err.find("8500"), std::string::npos) << word << ": " << run.err;
  }
}

// The server on 8500 replicates from a master on 8600, as on every node but the master. Writes
// go to the master, get reads the replica and linear_get the master.
TEST(ReplicaNodeTest, WritesAndLinearReadsGoToTheMasterPlainReadsStayLocal) {
  WriteFile(kBackendConf, kPasswordJson);
  // Without the delay a replica's first sync starts at once instead of after 5 s.
  auto master = ServerProcess::Redis(8600, kPassword, {"--repl-diskless-sync-delay", "0"});
  auto replica = ServerProcess::Redis(8500, kPassword, {"--replicaof", "127.0.0.1", "8600", "--masterauth", kPassword});
  DirectRedis onMaster(8600, kPassword), onReplica(8500, kPassword);
  // The replica catches up asynchronously.
  auto replicaSees = [&](const std::string &key, const std::string &value) {
    for (int i = 0; i < 1000 && onReplica.Command({"GET", key}) != value; ++i) Sleep(10);
    return onReplica.Command({"GET", key}) == value;
  };
  ASSERT_EQ(Backend("set", "conf/x", {"--value", "1"}).status, 0);
  EXPECT_EQ(onMaster.Command({"GET", "conf/x"}), "1");
  EXPECT_TRUE(replicaSees("conf/x", "1"));
  EXPECT_EQ(Backend("create", "lock/a", {"--value", "me"}).status, 0);
  EXPECT_EQ(Backend("create", "lock/a", {"--value", "me"}).status, 1);
  onMaster.Command({"SET", "dir/a", "v"});
  onMaster.Command({"SET", "dir/b/c", "v"});
  onMaster.Command({"SET", "service_catalog/imap/n2", "up"});
  EXPECT_EQ(Backend("del_dir", "dir").status, 0);
  EXPECT_EQ(Backend("del", "conf/x").status, 0);
  EXPECT_EQ(RunTool({"quillon_server_command", "--deregister", "--service_name", "imap", "--server_id", "n2"}).status, 0);
  EXPECT_EQ(onMaster.Command({"EXISTS", "dir/a", "dir/b/c", "conf/x", "service_catalog/imap/n2"}), "0");
  EXPECT_EQ(onMaster.Command({"GET", "lock/a"}), "me");

  DirectRedis subscriber(8600, kPassword);
  subscriber.Command({"SUBSCRIBE", "mail_event_dispatcher"});
  EXPECT_EQ(RunTool({"sendDisaptcherEvent", "-tree", "t", "-key", "k", "-type", "y"}).status, 0);
  EXPECT_EQ(subscriber.NextMessage(), "{\"key\":\"k\",\"tree\":\"t\",\"type\":\"y\"}");

  // A value that only the replica holds tells the two reads apart.
  onMaster.Command({"SET", "fresh", "new"});
  ASSERT_TRUE(replicaSees("fresh", "new"));
  onReplica.Command({"CONFIG", "SET", "replica-read-only", "no"});
  onReplica.Command({"SET", "fresh", "stale"});
  EXPECT_EQ(Backend("get", "fresh").out, "stale");
  EXPECT_EQ(Backend("linear_get", "fresh").out, "new");
  EXPECT_EQ(RunTool({"backend-command", "--command", "get_redis_master_ip", "--key", ""}).out, "127.0.0.1");

  master->Stop();
  ProgramRun run = Backend("set", "k", {"--value", "v"});
  EXPECT_EQ(run.status, 2);
  EXPECT_NE(run.err.find("8600"), std::string::npos) << run.err;
  EXPECT_EQ(Backend("get", "fresh").out, "stale") << "reads stay local without the master";
}

// The package's shell scripts read the key mirror files through the tool.
TEST(ConfValueTest, PrintsTheMemberOrTheFirstOneAsWritten) {
  const std::string file = "/tmp/conf-value-test";
  WriteFile(file, "{\"zeta\":\"z \\\"q\\\" \\u00e9\\ud83d\\udce7\", \"alpha\":\"a\", \"n\":42, "
                  "\"nested\":{\"x\":[1,{\"y\":null}]}, \"on\":true}\n");
  ProgramRun run = RunTool({"conf-value", "--file", file});
  EXPECT_EQ(run.status, 0);
  EXPECT_EQ(run.out, "z \"q\" \xc3\xa9\xf0\x9f\x93\xa7");
  EXPECT_EQ(RunTool({"conf-value", "--file", file, "--member", "alpha"}).out, "a");
  EXPECT_EQ(RunTool({"conf-value", "--file", file, "--member", "n"}).out, "42");
  EXPECT_EQ(RunTool({"conf-value", "--member", "on", "--file", file}).out, "true");
  for (const char *member : {"absent", "nested"}) {
    EXPECT_EQ(RunTool({"conf-value", "--file", file, "--member", member}).status, 1) << member;
  }
  EXPECT_EQ(RunTool({"conf-value", "--file", "/tmp/no-such-file"}).status, 1);

  for (const char *broken : {"", "{", "{}", "{\"a\":}", "{\"a\":1,}", "[\"a\"]",
                             "{\"a\":\"x\"} {}", "{\"a\":\"\\ud800\"}", "{\"a\":01}"}) {
    WriteFile(file, broken);
    run = RunTool({"conf-value", "--file", file});
    EXPECT_EQ(run.status, 1) << broken;
    EXPECT_EQ(run.out, "") << broken;
  }
}

}  // namespace
}  // namespace qsvtest
