// A user's forward and vacation files on three nodes, each in its own mount namespace with its
// own key watcher, through one key store and one file buffer.
#include <pwd.h>
#include <sys/stat.h>
#include <unistd.h>

#include <chrono>
#include <cstdlib>
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

const char kPassword[] = "personal-secret";

template <typename Ready>
bool Eventually(Ready ready, int seconds = 30) {
  const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(seconds);
  while (!ready()) {
    if (std::chrono::steady_clock::now() > deadline) return false;
    std::this_thread::sleep_for(std::chrono::milliseconds(50));
  }
  return true;
}

bool Exists(const std::string &path) {
  struct stat st;
  return lstat(path.c_str(), &st) == 0;
}

// Whether `path` holds `content` and belongs to `user` with mode 0644.
bool UsersFile(const std::string &path, const std::string &content, const passwd &user) {
  struct stat st;
  return lstat(path.c_str(), &st) == 0 && st.st_uid == user.pw_uid && st.st_gid == user.pw_gid &&
         st.st_mode == (S_IFREG | 0644) && ReadFile(path) == content;
}

// A file record as node 1 would write it for `key`, landing "evil\n" at `dst` as root's, 0600.
std::string Record(const std::string &key, const std::string &dst) {
  const std::string task = "1_" + key;
  return "{\"senderID\":\"mailserver_id-1\",\"srcFilePath\":\"" + dst + "\",\"dstFilePath\":\"" +
         dst + "\",\"timestamp\":\"1\",\"oriBackendKey\":\"" + key +
         "\",\"uploadKey\":\"kv_file_upload/file_upload_hook-" + key +
         "\",\"fileContentKey\":\"file_content_tree/" + task + "\",\"taskQueueKey\":\"" + task +
         "\",\"scriptPath\":\"\",\"isDelete\":false,\"scriptArgs\":[],"
         "\"pathInfo\":{\"" + dst + "\":{\"mode\":33152,\"uid\":0,\"gid\":0,\"isDir\":false}},"
         "\"randNum\":1}";
}

class PersonalCluster : public testing::Test {
 protected:
  static void SetUpTestSuite() {
    // /etc is one overlay for the whole sandbox: every node knows the users.
    ASSERT_EQ(system("useradd -M bob && useradd -M carol"), 0);
    redis_ = ServerProcess::Redis(8500, kPassword, {"--notify-keyspace-events", "KA"}).release();
    buffer_ = ServerProcess::Memcached(8502).release();
    nodes_ = new ClusterNodes(3, kPassword);
  }
  static void TearDownTestSuite() {
    delete nodes_;
    delete buffer_;
    delete redis_;
  }

  static int Ctl(int node, std::vector<std::string> args) {
    args.insert(args.begin(), std::string(getenv("QSV_BUILD_DIR")) + "/tools/mailserverctl");
    args.insert(args.begin() + 1, "personal");
    return nodes_->Run(node, args);
  }
  static std::string On(int node, const std::string &path) { return nodes_->Path(node, path); }
  static std::string Dir(const passwd &user) {
    return "/var/spool/mail/local/" + std::to_string(user.pw_uid);
  }

  static inline ServerProcess *redis_ = nullptr;
  static inline ServerProcess *buffer_ = nullptr;
  static inline ClusterNodes *nodes_ = nullptr;
};

TEST_F(PersonalCluster, ForwardAndReplyFromAnyNodeReachTheOthersAndOffRemovesForwardEverywhere) {
  const passwd bob = *getpwnam("bob");
  const std::string forward = Dir(bob) + "/.forward";
  const std::string reply = Dir(bob) + "/.vacation.msg";
  const std::string memory = Dir(bob) + "/.vacation.db";

  ASSERT_EQ(Ctl(1, {"forward", "bob", "alice@example.com"}), 0);
  const std::string first = ReadFile(On(1, forward));
  ASSERT_EQ(first, "alice@example.com\n");
  for (int node : {2, 3}) {
    EXPECT_TRUE(Eventually([&] { return UsersFile(On(node, forward), first, bob); })) << node;
  }

  // A reply set on node 2 reaches the others, and each one's vacation program answers everyone
  // again.
  for (int node : {1, 3}) qsvtest::WriteFile(On(node, memory), "answered: carol", 0600);
  ASSERT_EQ(Ctl(2, {"vacation", "bob", "--subject", "Away", "--body", "Back on Monday.",
                    "--begin", "2030-01-01", "--end", "2030-01-10"}),
            0);
  const std::string message = ReadFile(On(2, reply));
  const std::string both = ReadFile(On(2, forward));
  EXPECT_EQ(message, "From:bob\nSubject:Away\nBack on Monday.\n");
  EXPECT_NE(both.find(" -b 2030/01/01-00:00:00 -e 2030/01/10-23:59:59\"\nalice@example.com\n"),
            std::string::npos)
      << both;
  for (int node : {1, 3}) {
    EXPECT_TRUE(Eventually([&] {
      return UsersFile(On(node, reply), message, bob) && UsersFile(On(node, forward), both, bob) &&
             !Exists(On(node, memory));
    })) << node;
  }

  ASSERT_EQ(Ctl(3, {"off", "bob"}), 0);
  for (int node : {1, 2, 3}) {
    EXPECT_TRUE(Eventually([&] { return !Exists(On(node, forward)); })) << node;
    EXPECT_TRUE(UsersFile(On(node, reply), message, bob)) << node;
  }
  EXPECT_EQ(StoreCommand(kPassword, {"EXISTS", "personal/personal-" +
                                                   std::to_string(bob.pw_uid) + "-forward"}),
            "0");
}

// A member's record of bob's key may only place bob's file, whatever its destination says.
TEST_F(PersonalCluster, ARecordThatPlacesAnotherUsersFileIsRefusedByEveryReceiver) {
  const passwd bob = *getpwnam("bob");
  const passwd carol = *getpwnam("carol");
  for (int node : {1, 2, 3}) {
    for (const char *owner : {"bob", "carol"}) {
      ASSERT_EQ(nodes_->Run(node, {"install", "-d", "-o", owner, "-g", owner, "-m", "770",
                                   Dir(*getpwnam(owner))}),
                0);
    }
  }
  const std::string uid = std::to_string(bob.pw_uid);
  const std::pair<std::string, std::string> records[] = {
      {"personal-" + uid + "-forward", Dir(carol) + "/.forward"},        // forged
      {"personal-" + uid + "-vacation_msg", Dir(bob) + "/.vacation.msg"},  // bob's own
  };
  for (const auto &record : records) {
    const std::string task = "1_" + record.first;
    qsvtest::TcpExchange(8502, "set file_content_tree/" + task + " 0 0 8\r\nZXZpbAo=\r\n");
    StoreCommand(kPassword, {"SET", "file_content_digest/" + task,
                             "886b67480dbe73b406ad83a1dd6d9596f93089d90c220ccfc91944c95f1c68c4"});
    for (int node : {2, 3}) {
      StoreCommand(kPassword, {"SET", "task_queue/" + ClusterNodes::Id(node) + "/" + task,
                               "FILE|personal|" + record.first});
    }
    StoreCommand(kPassword, {"SET", "kv_file_upload/file_upload_hook-" + record.first,
                             Record(record.first, record.second)});
    StoreCommand(kPassword, {"SET", "personal/" + record.first, Record(record.first, record.second)});
  }
  // Each watcher takes the events in order: once bob's own record has landed (and been given to
  // bob), the forged one has been judged.
  for (int node : {2, 3}) {
    EXPECT_TRUE(Eventually([&] {
      return UsersFile(On(node, Dir(bob) + "/.vacation.msg"), "evil\n", bob);
    })) << node;
    EXPECT_FALSE(Exists(On(node, Dir(carol) + "/.forward"))) << node;
  }
  for (const auto &record : records) {
    StoreCommand(kPassword, {"DEL", "kv_file_upload/file_upload_hook-" + record.first,
                             "personal/" + record.first,
                             "task_queue/mailserver_id-2/1_" + record.first,
                             "task_queue/mailserver_id-3/1_" + record.first});
  }
}

}  // namespace
