// Files spread between three nodes, each in its own mount namespace with its own key watcher,
// through one shared key store and one shared file buffer, as a small real cluster would.
#include <grp.h>
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
  EXPECT_EQ(StoreCommand(kPassword, {"KEYS", "*refused*"}), "");
  EXPECT_EQ(StoreCommand(kPassword, {"KEYS", "task_queue/*"}), "");
}

}  // namespace
