// A one-node cluster for a whole test suite, a connection of the test's own to its store, and
// scripts that stand in for the companions the library runs, each put back however a test ends.
#ifndef MAILSERVER_TESTS_CLUSTER_STORE_FIXTURE_H_
#define MAILSERVER_TESTS_CLUSTER_STORE_FIXTURE_H_

#include <cstdio>
#include <string>

#include <gtest/gtest.h>
#include <hiredis/hiredis.h>

#include "harness/one_node_cluster.h"
#include "harness/recording_script.h"

namespace qsvtest {

const std::string kTool = "/var/packages/Quillon-Server/target/usr/bin/kolt-quillon-server-go-utils";
const std::string kClusterDaemon = "/var/packages/Quillon-Server/target/scripts/ClusterDaemon.sh";

// Moves a file aside for the life of the object.
struct Aside {
  explicit Aside(const std::string &file) : path(file), away(file + ".aside") {
    rename(path.c_str(), away.c_str());
  }
  ~Aside() { rename(away.c_str(), path.c_str()); }
  const std::string path, away;
};

// The real key store tool behind a wrapper that first runs the shell `hook` on the tool's
// arguments, "$@".
struct WrappedTool {
  explicit WrappedTool(const std::string &hook) {
    WriteFile(kTool, "#!/bin/sh\n" + hook + "\nexec " + real.away + " \"$@\"\n", 0755);
  }
  Aside real{kTool};
};

// A ClusterDaemon.sh whose status says that the cluster is broken.
struct BrokenCluster {
  Aside real{kClusterDaemon};
  RecordingScript script{kClusterDaemon, 1};
};

class StoreTest : public testing::Test {
 protected:
  static void SetUpTestSuite() {
    cluster_ = new OneNodeCluster();
    Connect();
  }
  static void TearDownTestSuite() {
    redisFree(redis_);
    delete cluster_;
  }
  static void Connect() {
    redis_ = redisConnect("127.0.0.1", 8500);
    Redis("AUTH %s", cluster_->password());
  }
  // A command to the store with up to two arguments; a text or number reply as text, else "(nil)".
  static std::string Redis(const char *command, const std::string &a, const std::string &b = "") {
    auto *reply = static_cast<redisReply *>(redisCommand(redis_, command, a.c_str(), b.c_str()));
    if (reply == nullptr) return "(no answer)";
    std::string text = reply->type == REDIS_REPLY_STRING ? std::string(reply->str, reply->len)
                       : reply->type == REDIS_REPLY_INTEGER ? std::to_string(reply->integer)
                                                            : "(nil)";
    freeReplyObject(reply);
    return text;
  }
  static const std::string &self() { return cluster_->hostId(); }

  static inline OneNodeCluster *cluster_ = nullptr;
  static inline redisContext *redis_ = nullptr;
};

}  // namespace qsvtest

#endif  // MAILSERVER_TESTS_CLUSTER_STORE_FIXTURE_H_
