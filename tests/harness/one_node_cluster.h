// A one-node cluster for the duration of the object: `mailserverctl setup` of the build under
// test (Redis on 8500 with a password, the file buffer on 8502, the node's keys, health "yes"),
// stopped again by ClusterDaemon.sh when the object goes. Throws std::runtime_error when the setup
// fails. One at a time per sandbox.
#ifndef MAILSERVER_TESTS_HARNESS_ONE_NODE_CLUSTER_H_
#define MAILSERVER_TESTS_HARNESS_ONE_NODE_CLUSTER_H_

#include <string>

#include <gtest/gtest.h>

namespace qsvtest {

class OneNodeCluster {
 public:
  OneNodeCluster();
  ~OneNodeCluster();
  OneNodeCluster(const OneNodeCluster &) = delete;
  OneNodeCluster &operator=(const OneNodeCluster &) = delete;

  const std::string &hostId() const { return hostId_; }
  const std::string &password() const { return password_; }

 private:
  std::string hostId_;
  std::string password_;
};

// The node's key watcher held still (SIGSTOP) for the object's life, so that a test can see
// what a write raised before the watcher takes it up; it goes on when the object goes.
class WatcherPaused {
 public:
  WatcherPaused();
  ~WatcherPaused();
  WatcherPaused(const WatcherPaused &) = delete;
  WatcherPaused &operator=(const WatcherPaused &) = delete;

 private:
  int pid_ = -1;
};

// Suites that share one cluster: it comes up before a suite's first test and goes after its last.
class OneNodeClusterTest : public testing::Test {
 protected:
  static void SetUpTestSuite() { cluster_ = new OneNodeCluster(); }
  static void TearDownTestSuite() {
    delete cluster_;
    cluster_ = nullptr;
  }
  static inline OneNodeCluster *cluster_ = nullptr;
};

// Runs a program of the package or the build with its arguments and returns its exit status.
int RunProgram(const std::string &path, const std::string &arg1 = "", const std::string &arg2 = "");

}  // namespace qsvtest

#endif  // MAILSERVER_TESTS_HARNESS_ONE_NODE_CLUSTER_H_
