#include "harness/one_node_cluster.h"

#include <spawn.h>
#include <sys/wait.h>

#include <fcntl.h>
#include <signal.h>

#include <cstdlib>
#include <sstream>
#include <stdexcept>
#include <vector>

#include <json/json.h>

#include "harness/eventually.h"
#include "harness/recording_script.h"

extern char **environ;

namespace qsvtest {
namespace {

const char kClusterDaemon[] = "/var/packages/Quillon-Server/target/scripts/ClusterDaemon.sh";

std::string Member(const std::string &path, const char *name) {
  Json::Value json;
  std::istringstream in(ReadFile(path));
  Json::CharReaderBuilder builder;
  std::string errors;
  if (!Json::parseFromStream(builder, in, &json, &errors) || !json.isObject()) return "";
  return json[name].asString();
}

}  // namespace

int RunProgram(const std::string &path, const std::string &arg1, const std::string &arg2) {
  std::vector<char *> argv = {const_cast<char *>(path.c_str())};
  if (!arg1.empty()) argv.push_back(const_cast<char *>(arg1.c_str()));
  if (!arg2.empty()) argv.push_back(const_cast<char *>(arg2.c_str()));
  argv.push_back(nullptr);
  posix_spawn_file_actions_t actions;
  posix_spawn_file_actions_init(&actions);
  posix_spawn_file_actions_addopen(&actions, 1, "/dev/null", O_WRONLY, 0);
  posix_spawn_file_actions_addclosefrom_np(&actions, 3);
  pid_t pid;
  const int rc = posix_spawn(&pid, path.c_str(), &actions, nullptr, argv.data(), environ);
  posix_spawn_file_actions_destroy(&actions);
  if (rc != 0) return -1;
  int status = 0;
  waitpid(pid, &status, 0);
  return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
}

OneNodeCluster::OneNodeCluster() {
  const char *build = getenv("QSV_BUILD_DIR");
  if (build == nullptr) throw std::runtime_error("QSV_BUILD_DIR is not set: not in the sandbox");
  if (RunProgram(std::string(build) + "/tools/mailserverctl", "setup") != 0) {
    throw std::runtime_error("mailserverctl setup failed");
  }
  hostId_ = Member("/var/packages/Quillon-Server/etc/mailconf.d/local_id_file", "id");
  password_ = Member("/var/packages/Quillon-Server/etc/backend.conf", "password");
  // A node set up by an earlier suite is only started again, and its watcher may still be
  // rewriting the membership mirrors then; a suite that snapshots the settings must not race it.
  const bool member = Eventually([this] {
    return Member("/var/packages/Quillon-Server/etc/mailconf.d/cluster_peers",
                  "mailserver/cluster/cluster_peers").find(hostId_) != std::string::npos;
  });
  if (hostId_.empty() || !member) throw std::runtime_error("the node's membership is not mirrored");
}

OneNodeCluster::~OneNodeCluster() { RunProgram(kClusterDaemon, "stop"); }

WatcherPaused::WatcherPaused() {
  const std::string text = ReadFile("/var/run/quillon_server/key_watcher.pid");
  pid_ = atoi(text.c_str());
  if (pid_ <= 0 || kill(pid_, SIGSTOP) != 0) {
    throw std::runtime_error("the key watcher is not running: [" + text + "]");
  }
}

WatcherPaused::~WatcherPaused() { kill(pid_, SIGCONT); }

}  // namespace qsvtest
