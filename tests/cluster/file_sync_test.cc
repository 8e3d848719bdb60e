// Files spread between three nodes, each in its own mount namespace with its own key watcher,
// through one shared key store and one shared file buffer, as a small real cluster would.
#include <grp.h>
#include <sqlite3.h>
#include <pwd.h>
#include <sys/stat.h>
#include <unistd.h>

#include <chrono>
#include <cstdlib>
#include <memory>
#include <random>
#include <string>
#include <thread>

#include <gtest/gtest.h>

#include "harness/cluster_nodes.h"
#include "harness/recording_script.h"
#include "harness/servers.h"

namespace {

using qsvtest::ClusterNodes;
using qsvtest::ReadFile;
using qsvtest::ServerProcess;
using qsvtest::StoreCommand;

const char kPassword[] = "cluster-secret";
const char kEtc[] = "/var/packages/Quillon-Server/etc";
const char kScriptDir[] = "/var/packages/Quillon-Server/target/backend_hook/scripts";
const char kTool[] = "/var/packages/Quillon-Server/target/usr/bin/kolt-quillon-server-go-utils";

// A record as a cluster member would write it, with node 1 as sender.
std::string Record(const std::string &key, const std::string &dst, const std::string &script) {
  const std::string task = "1_" + key;
  return "{\"senderID\":\"mailserver_id-1\",\"srcFilePath\":\"" + dst + "\",\"dstFilePath\":\"" +
         dst + "\",\"timestamp\":\"1\",\"oriBackendKey\":\"" + key +
         "\",\"uploadKey\":\"kv_file_upload/file_upload_hook-" + key +
         "\",\"fileContentKey\":\"file_content_tree/" + task + "\",\"taskQueueKey\":\"" + task +
         "\",\"scriptPath\":\"" + script + "\",\"isDelete\":false,\"scriptArgs\":[],"
         "\"pathInfo\":{\"" + dst + "\":{\"mode\":36333,\"uid\":0,\"gid\":0,\"isDir\":false}},"
         "\"randNum\":1}";
}

std::string RandomBytes(size_t size, unsigned seed) {
  std::mt19937 gen(seed);
  std::string bytes(size, '\0');
  for (char &c : bytes) c = static_cast<char>(gen());
  return bytes;
}

template <typename Ready>
bool Eventually(Ready ready, int seconds = 30) {
  const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(seconds);
  while (!ready()) {
    if (std::chrono::steady_clock::now() > deadline) return false;
    std::this_thread::sleep_for(std::chrono::milliseconds(50));
  }
  return true;
}

struct Owner {
  uid_t uid;
  gid_t gid;
  mode_t mode;
  bool operator==(const Owner &o) const {
    return uid == o.uid && gid == o.gid && mode == o.mode;
  }
};

Owner OwnerOf(const std::string &path) {
  struct stat st {};
  if (lstat(path.c_str(), &st) != 0) return {0, 0, 0};
  return {st.st_uid, st.st_gid, st.st_mode};
}

bool Exists(const std::string &path) { return access(path.c_str(), F_OK) == 0; }

// Items held by the file buffer.
int BufferItems() {
  const std::string stats = qsvtest::TcpExchange(8502, "stats\r\n");
  const size_t at = stats.find("STAT curr_items ");
  return at == std::string::npos ? -1 : atoi(stats.c_str() + at + 16);
}

class FileSyncCluster : public ::testing::Test {
 protected:
  static void SetUpTestSuite() {
    redis_ = ServerProcess::Redis(8500, kPassword, {"--notify-keyspace-events", "KA"}).release();
    buffer_ = ServerProcess::Memcached(8502).release();
    nodes_ = new ClusterNodes(3, kPassword);
  }
  static void TearDownTestSuite() {
    delete nodes_;
    delete buffer_;
    delete redis_;
  }

  // mailserverctl on node `node`.
  static int Ctl(int node, std::vector<std::string> args) {
    args.insert(args.begin(), std::string(getenv("QSV_BUILD_DIR")) + "/tools/mailserverctl");
    return nodes_->Run(node, args);
  }
  static std::string On(int node, const std::string &path) { return nodes_->Path(node, path); }

  // A cycle is over when no upload key, no task and no buffered content is left.
  static bool CyclesDone() {
    return StoreCommand(kPassword, {"KEYS", "kv_file_upload/*"}).empty() &&
           StoreCommand(kPassword, {"KEYS", "task_queue/*"}).empty() && BufferItems() == 0;
  }
  static bool Landed(int node, const std::string &path, const std::string &content) {
    return Exists(On(node, path)) && ReadFile(On(node, path)) == content;
  }

  static ServerProcess *redis_;
  static ServerProcess *buffer_;
  static ClusterNodes *nodes_;
};

ServerProcess *FileSyncCluster::redis_;
ServerProcess *FileSyncCluster::buffer_;
ClusterNodes *FileSyncCluster::nodes_;

// Rows of `table` whose pattern is `pattern` in the database at `path`; -1 when it can't be read.
// SQLite resolves the links of a path, and a node's /proc/PID/root would lead it back into the
// test's own namespace: it reads a copy.
int PatternRows(const std::string &path, const char *table, const std::string &pattern) {
  if (!Exists(path)) return -1;
  const std::string copy = "/tmp/pattern-rows.db";
  qsvtest::WriteFile(copy, ReadFile(path));
  sqlite3 *db = nullptr;
  int count = -1;
  if (sqlite3_open_v2(copy.c_str(), &db, SQLITE_OPEN_READONLY, nullptr) == SQLITE_OK) {
    sqlite3_stmt *query = nullptr;
    const std::string sql = std::string("SELECT COUNT(*) FROM ") + table + " WHERE pattern = ?1";
    if (sqlite3_prepare_v2(db, sql.c_str(), -1, &query, nullptr) == SQLITE_OK) {
      sqlite3_bind_text(query, 1, pattern.c_str(), -1, SQLITE_TRANSIENT);
      if (sqlite3_step(query) == SQLITE_ROW) count = sqlite3_column_int(query, 0);
    }
    sqlite3_finalize(query);
  }
  sqlite3_close(db);
  return count;
}

// The global lists and the DKIM whitelist changed on one node reach the others' files.
TEST_F(FileSyncCluster, GlobalListsChangedOnOneNodeReachTheOthers) {
  ASSERT_EQ(Ctl(1, {"global", "add", "white", "sender", "boss@example.com"}), 0);
  ASSERT_EQ(Ctl(1, {"dkim", "add", "203.0.113.0/24"}), 0);
  for (int node : {2, 3}) {
    EXPECT_TRUE(Eventually([&] {
      return PatternRows(On(node, "/var/packages/Quillon-Server/etc/global_access_list.db"),
                         "whitelist", "boss@example.com") == 1 &&
             PatternRows(On(node, "/var/packages/Quillon-Server/etc/dkim_sign_whitelist.db"),
                         "whitelist", "203.0.113.0/24") == 1;
    })) << node;
  }
  EXPECT_TRUE(Eventually(CyclesDone));
}

TEST_F(FileSyncCluster, FilesLandWithContentOwnerModeAndDirectoriesThenTheCycleClearsUp) {
  const uid_t nobody = getpwnam("nobody")->pw_uid;
  const gid_t package = getgrnam("Quillon-Server")->gr_gid;
  const std::string dir = std::string(kEtc) + "/sync";
  ASSERT_EQ(mkdir(On(1, dir).c_str(), 0750), 0);
  ASSERT_EQ(mkdir(On(1, dir + "/deep").c_str(), 0700), 0);
  ASSERT_EQ(chown(On(1, dir + "/deep").c_str(), nobody, package), 0);
  chmod(On(1, dir).c_str(), 0750);
  chmod(On(1, dir + "/deep").c_str(), 0710);

  // A large file, one of exactly one encoding piece, and an empty one.
  const std::string big = RandomBytes(5 << 20, 1);
  const std::string seam = RandomBytes(12288, 2);
  const std::string bigPath = dir + "/deep/spam.db";
  const std::string seamPath = dir + "/deep/seam.bin";
  const std::string emptyPath = std::string(kEtc) + "/empty.conf";
  qsvtest::WriteFile(On(1, bigPath), big, 0640);
  ASSERT_EQ(chown(On(1, bigPath).c_str(), nobody, package), 0);
  qsvtest::WriteFile(On(1, seamPath), seam, 0604);
  qsvtest::WriteFile(On(1, emptyPath), "", 0600);

  ASSERT_EQ(Ctl(1, {"file", "set", "sync_big", bigPath}), 0);
  ASSERT_EQ(Ctl(1, {"file", "set", "sync_seam", seamPath}), 0);
  ASSERT_EQ(Ctl(1, {"file", "set", "sync_empty", emptyPath}), 0);

  for (int node : {2, 3}) {
    SCOPED_TRACE("node " + std::to_string(node));
    ASSERT_TRUE(Eventually([&] {
      return Landed(node, bigPath, big) && Landed(node, seamPath, seam) &&
             Landed(node, emptyPath, "");
    }));
    for (const std::string &path : {dir, dir + "/deep", bigPath, seamPath}) {
      EXPECT_EQ(OwnerOf(On(node, path)), OwnerOf(On(1, path))) << path;
    }
  }
  EXPECT_TRUE(Eventually(CyclesDone)) << StoreCommand(kPassword, {"KEYS", "*"});
  // The record stays in the named key: it is what a later delete finds.
  EXPECT_EQ(StoreCommand(kPassword, {"EXISTS", "mailserver/conf/sync_big"}), "1");
}

TEST_F(FileSyncCluster, ScriptRunsOnEachReceiverWithItsArguments) {
  const std::string script = std::string(kScriptDir) + "/record.sh";
  qsvtest::WriteFile(script, "#!/bin/sh\necho \"$*\" >> /var/packages/Quillon-Server/etc/ran\n",
                     0755);
  const std::string path = std::string(kEtc) + "/with_script.conf";
  qsvtest::WriteFile(On(1, path), "x = 1\n");
  ASSERT_EQ(Ctl(1, {"file", "set", "sync_script", path, script, "one", "two words"}), 0);
  const std::string ran = std::string(kEtc) + "/ran";
  for (int node : {2, 3}) {
    EXPECT_TRUE(Eventually([&] { return Exists(On(node, ran)); })) << node;
    EXPECT_EQ(ReadFile(On(node, ran)), "one two words\n") << node;
  }
  EXPECT_TRUE(Eventually(CyclesDone));
  EXPECT_FALSE(Exists(On(1, ran)));
}

TEST_F(FileSyncCluster, NodeThatWasAwayCatchesUpEvenWhenTheBufferLostTheContent) {
  const std::string path = std::string(kEtc) + "/late.conf";
  const std::string content = RandomBytes(100000, 3);
  qsvtest::WriteFile(On(1, path), content);
  nodes_->StopWatcher(3);
  ASSERT_EQ(Ctl(1, {"file", "set", "sync_late", path}), 0);
  ASSERT_TRUE(Eventually([&] { return Landed(2, path, content); }));
  // Node 3's task waits in its queue, and with it the content.
  EXPECT_NE(StoreCommand(kPassword, {"KEYS", "task_queue/mailserver_id-3/*"}), "");
  EXPECT_EQ(BufferItems(), 1);
  EXPECT_FALSE(Exists(On(3, path)));

  // The buffer loses everything (a restart of memcached): the late receiver must wake the sender
  // to upload again.
  EXPECT_NE(qsvtest::TcpExchange(8502, "flush_all\r\n").find("OK"), std::string::npos);
  nodes_->StartWatcher(3);
  // Well before the watchers' periodic retry (30 s): the receiver's own wake-up call did it.
  EXPECT_TRUE(Eventually([&] { return Landed(3, path, content); }, 10));
  EXPECT_TRUE(Eventually(CyclesDone));
}

TEST_F(FileSyncCluster, DeleteRemovesTheFileEverywhereAndTheNamedKey) {
  const std::string path = std::string(kEtc) + "/doomed.conf";
  qsvtest::WriteFile(On(1, path), "doomed\n");
  ASSERT_EQ(Ctl(1, {"file", "set", "sync_doomed", path}), 0);
  ASSERT_TRUE(Eventually([&] { return Landed(2, path, "doomed\n") && Landed(3, path, "doomed\n"); }));
  ASSERT_TRUE(Eventually(CyclesDone));

  ASSERT_EQ(Ctl(2, {"file", "delete", "sync_doomed"}), 0);
  for (int node : {1, 2, 3}) {
    EXPECT_TRUE(Eventually([&] { return !Exists(On(node, path)); })) << node;
  }
  EXPECT_TRUE(Eventually([] {
    return StoreCommand(kPassword, {"EXISTS", "mailserver/conf/sync_doomed"}) == "0";
  }));
  EXPECT_TRUE(Eventually(CyclesDone));
  // Nothing left to delete by key: a second delete without a path is refused.
  EXPECT_NE(Ctl(2, {"file", "delete", "sync_doomed"}), 0);
}

TEST_F(FileSyncCluster, PathsOutsideTheAllowedPlacesAreRefusedBeforeAnyKeyIsWritten) {
  const std::string outside = "/var/packages/Quillon-Server/home/secret";
  qsvtest::WriteFile(On(1, outside), "secret\n");
  const std::string link = std::string(kEtc) + "/innocent.conf";
  ASSERT_EQ(symlink(outside.c_str(), On(1, link).c_str()), 0);
  const std::string script = std::string(kEtc) + "/not_a_hook.sh";
  qsvtest::WriteFile(On(1, script), "#!/bin/sh\n", 0755);
  const std::string allowed = std::string(kEtc) + "/fine.conf";
  qsvtest::WriteFile(On(1, allowed), "fine\n");

  EXPECT_NE(Ctl(1, {"file", "set", "sync_refused", outside}), 0);
  EXPECT_NE(Ctl(1, {"file", "set", "sync_refused", link}), 0);
  EXPECT_NE(Ctl(1, {"file", "set", "sync_refused", kEtc}), 0);  // a directory
  EXPECT_NE(Ctl(1, {"file", "set", "sync_refused", allowed, script}), 0);
  // A relative path would name another file on each node, from each one's working directory.
  const std::string ctl = std::string(getenv("QSV_BUILD_DIR")) + "/tools/mailserverctl";
  for (const std::string &words : {"file set sync_refused etc/fine.conf",
                                   "file delete sync_refused etc/fine.conf"}) {
    EXPECT_NE(nodes_->Run(1, {"/bin/sh", "-c", "cd /var/packages/Quillon-Server && " + ctl + " " +
                                                   words}),
              0);
  }
  EXPECT_TRUE(Exists(On(1, allowed)));
  EXPECT_EQ(StoreCommand(kPassword, {"KEYS", "*refused*"}), "");
  EXPECT_EQ(StoreCommand(kPassword, {"KEYS", "task_queue/*"}), "");
}

// The buffer takes writes from anyone and the store from members only: content someone else put
// in the buffer never lands, and a record written to the store (here with the password, as an
// intruder who had it would) still can't place a file or run a program outside the allowed places.
TEST_F(FileSyncCluster, TamperedContentAndForgedRecordsAreRefusedByEveryReceiver) {
  const std::string path = std::string(kEtc) + "/tampered.conf";
  const std::string content = RandomBytes(30000, 4);
  qsvtest::WriteFile(On(1, path), content);
  nodes_->StopWatcher(3);
  ASSERT_EQ(Ctl(1, {"file", "set", "sync_tampered", path}), 0);
  ASSERT_TRUE(Eventually([&] { return Landed(2, path, content); }));
  const std::string task = StoreCommand(kPassword, {"KEYS", "task_queue/mailserver_id-3/*"});
  ASSERT_NE(task, "");
  const std::string item = "file_content_tree/" + task.substr(task.rfind('/') + 1);
  EXPECT_EQ(qsvtest::TcpExchange(8502, "set " + item + " 0 0 8\r\nZXZpbAo=\r\n"), "STORED\r\n");
  nodes_->StartWatcher(3);
  // Refused, dropped from the buffer, uploaded again by the sender: node 3 gets the real bytes.
  EXPECT_TRUE(Eventually([&] { return Landed(3, path, content); }, 15));
  EXPECT_TRUE(Eventually(CyclesDone));

  const std::string outside = "/var/packages/Quillon-Server/home/owned";
  const std::string escape = std::string(kEtc) + "/../home/owned";
  const std::string allowed = std::string(kEtc) + "/forged.conf";
  const std::string evil = std::string(kEtc) + "/evil.sh";
  const std::string marker = std::string(kEtc) + "/evil_ran";
  for (int node : {2, 3}) {
    qsvtest::WriteFile(On(node, evil), "#!/bin/sh\ntouch " + marker + "\n", 0755);
  }
  const std::pair<std::string, std::string> forged[] = {
      {outside, ""}, {escape, ""}, {allowed, evil}};
  int n = 0;
  for (const auto &target : forged) {
    const std::string key = "forged" + std::to_string(++n);
    const std::string record = Record(key, target.first, target.second);
    qsvtest::TcpExchange(8502, "set file_content_tree/1_" + key + " 0 0 8\r\nZXZpbAo=\r\n");
    StoreCommand(kPassword, {"SET", "file_content_digest/1_" + key,
                             "886b67480dbe73b406ad83a1dd6d9596f93089d90c220ccfc91944c95f1c68c4"});  // of "evil\n"
    StoreCommand(kPassword, {"SET", "kv_file_upload/file_upload_hook-" + key, record});
    StoreCommand(kPassword, {"SET", "mailserver/conf/" + key, record});
  }
  std::this_thread::sleep_for(std::chrono::seconds(3));
  for (int node : {2, 3}) {
    EXPECT_FALSE(Exists(On(node, outside))) << node;
    EXPECT_FALSE(Exists(On(node, allowed))) << node;
    EXPECT_FALSE(Exists(On(node, marker))) << node;
  }
  for (const std::string &key : {"forged1", "forged2", "forged3"}) {
    StoreCommand(kPassword, {"DEL", std::string("kv_file_upload/file_upload_hook-") + key});
  }
}

// A lock lives a day so that a slow holder never loses it; one whose holder has gone is broken at
// once, and one still held never keeps other settings and files from reaching the other nodes.
TEST_F(FileSyncCluster, LocksOfGoneHoldersAreBrokenAndAHeldOneHoldsUpNothingElse) {
  const std::string lockOf = "quillon_server_lock/kv_file_upload/file_upload_hook-";
  const std::string create =
      std::string(kTool) + " backend-command --command create --value locked --ttl 86400 --key ";
  const std::string orphan = std::string(kEtc) + "/orphan.conf";
  qsvtest::WriteFile(On(1, orphan), "orphan\n");
  ASSERT_EQ(nodes_->Run(1, {"/bin/sh", "-c", create + lockOf + "sync_orphan"}), 0);
  ASSERT_EQ(Ctl(1, {"file", "set", "sync_orphan", orphan}), 0);
  EXPECT_TRUE(Eventually([&] { return Landed(3, orphan, "orphan\n"); }, 15));

  // A live holder on node 1, and a record of that key that wakes every receiver.
  ASSERT_EQ(nodes_->Run(1, {"/bin/sh", "-c", "setsid /bin/sh -c '" + create + lockOf +
                                                 "sync_held; exec sleep 120' </dev/null "
                                                 ">/dev/null 2>&1 &"}),
            0);
  ASSERT_TRUE(Eventually([&] {
    return StoreCommand(kPassword, {"EXISTS", lockOf + "sync_held"}) == "1";
  }));
  const std::string held = std::string(kEtc) + "/held.conf";
  StoreCommand(kPassword, {"SET", "mailserver/conf/sync_held", Record("sync_held", held, "")});
  StoreCommand(kPassword, {"SET", "kv_file_upload/file_upload_hook-sync_held",
                           Record("sync_held", held, "")});
  const std::string other = std::string(kEtc) + "/other.conf";
  qsvtest::WriteFile(On(1, other), "other\n");
  ASSERT_EQ(Ctl(1, {"conf", "set", "smtp_banner", "after the stuck lock"}), 0);
  ASSERT_EQ(Ctl(1, {"file", "set", "sync_other", other}), 0);
  const std::string banner = "/var/packages/Quillon-Server/etc/mailconf.d/smtp_banner";
  for (int node : {2, 3}) {
    EXPECT_TRUE(Eventually([&] {
      return ReadFile(On(node, banner)).find("after the stuck lock") != std::string::npos &&
             Landed(node, other, "other\n");
    }, 20)) << node;
  }
  EXPECT_EQ(StoreCommand(kPassword, {"EXISTS", lockOf + "sync_held"}), "1");
  StoreCommand(kPassword, {"DEL", lockOf + "sync_held", "kv_file_upload/file_upload_hook-sync_held"});
}

}  // namespace
