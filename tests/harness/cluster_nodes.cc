#include "harness/cluster_nodes.h"

#include <signal.h>
#include <spawn.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <sstream>
#include <stdexcept>
#include <thread>

extern char **environ;

namespace qsvtest {
namespace {

const char kNodeScript[] = QSV_HARNESS_DIR "/cluster_node";
const char kNetworkNodeScript[] = QSV_HARNESS_DIR "/network_node";
const char kClusterDaemon[] = "/var/packages/Quillon-Server/target/scripts/ClusterDaemon.sh";
const char kDovecotDaemon[] = "/var/packages/Quillon-Server/target/scripts/daemon/dovecot.sh";
const char kWatcherPid[] = "/run/quillon_server/key_watcher.pid";
const char kMirrors[] = "/var/packages/Quillon-Server/etc/mailconf.d/";

pid_t Spawn(const std::vector<std::string> &args) {
  std::vector<char *> argv;
  for (const auto &a : args) argv.push_back(const_cast<char *>(a.c_str()));
  argv.push_back(nullptr);
  pid_t pid = -1;
  if (posix_spawnp(&pid, argv[0], nullptr, nullptr, argv.data(), environ) != 0) {
    throw std::runtime_error("cannot start " + args[0]);
  }
  return pid;
}

std::string Slurp(const std::string &path) {
  std::ifstream in(path, std::ios::binary);
  std::ostringstream text;
  text << in.rdbuf();
  return text.str();
}

bool Gone(pid_t pid) {
  const std::string stat = Slurp("/proc/" + std::to_string(pid) + "/stat");
  const size_t paren = stat.rfind(')');
  return stat.empty() || (paren != std::string::npos && stat.compare(paren + 2, 1, "Z") == 0);
}

template <typename Ready>
void WaitFor(const std::string &what, Ready ready) {
  const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(30);
  while (!ready()) {
    if (std::chrono::steady_clock::now() > deadline) throw std::runtime_error(what);
    std::this_thread::sleep_for(std::chrono::milliseconds(20));
  }
}

std::string Quote(const std::string &arg) {
  std::string quoted = "'";
  for (char c : arg) quoted += c == '\'' ? std::string("'\\''") : std::string(1, c);
  return quoted + "'";
}

}  // namespace

ClusterNodes::ClusterNodes(int count, const std::string &password) {
  for (int node = 1; node <= count; ++node) {
    pids_.push_back(Spawn({"unshare", "--mount", "--propagation", "private", "--", kNodeScript,
                           Id(node), password}));
  }
  for (int node = 1; node <= count; ++node) {
    WaitFor("node " + std::to_string(node) + " did not start its watcher",
            [&] { return access(Path(node, kWatcherPid).c_str(), F_OK) == 0; });
  }
  // Every node asks the cached health before it syncs; /tmp is shared by all nodes.
  mkdir("/tmp/quillon_server", 0755);
  mkdir("/tmp/quillon_server/service_status", 0755);
  std::ofstream("/tmp/quillon_server/service_status/cluster_health") << "{\"cluster_health\":\"yes\"}\n";

  std::string ids;
  std::vector<std::string> set = {std::string(getenv("QSV_BUILD_DIR")) + "/tools/mailserverctl",
                                  "conf", "set"};
  for (int node = 1; node <= count; ++node) {
    ids += (node > 1 ? " " : "") + Id(node);
    set.push_back(Id(node));
    set.push_back("127.0.0." + std::to_string(node));
  }
  for (const char *key : {"cluster_peers", "consul_peers", "mailer", "storager", "balancer"}) {
    set.push_back(key);
    set.push_back(ids);
  }
  set.push_back("balancer_master_node");
  set.push_back(Id(1));
  if (Run(1, set) != 0) throw std::runtime_error("cannot publish the cluster's keys");
  for (int node = 1; node <= count; ++node) {
    WaitFor("node " + std::to_string(node) + " did not mirror the cluster's keys", [&] {
      const std::string table = Slurp(Path(node, std::string(kMirrors) + "mapping_table"));
      for (int other = 1; other <= count; ++other) {
        if (table.find(Id(other)) == std::string::npos) return false;
      }
      return access(Path(node, std::string(kMirrors) + "balancer_master_node").c_str(), F_OK) ==
                 0 &&
             access(Path(node, std::string(kMirrors) + "consul_peers").c_str(), F_OK) == 0;
    });
  }
}

ClusterNodes::~ClusterNodes() {
  for (size_t i = 0; i < pids_.size(); ++i) StopWatcher(static_cast<int>(i) + 1);
  KillAll();
}

void NodeProcesses::KillAll() {
  for (pid_t pid : pids_) {
    kill(pid, SIGKILL);
    waitpid(pid, nullptr, 0);
  }
  pids_.clear();
}

NetworkNodes::NetworkNodes(int count) {
  ownNetwork_ = true;
  auto run = [](const std::vector<std::string> &args) {
    int status = 0;
    if (waitpid(Spawn(args), &status, 0) < 0 || !WIFEXITED(status) || WEXITSTATUS(status) != 0) {
      std::string line;
      for (const auto &a : args) line += " " + a;
      throw std::runtime_error("failed:" + line);
    }
  };
  run({"ip", "link", "add", "qsvbr0", "type", "bridge"});
  run({"ip", "addr", "add", "10.77.0.254/24", "dev", "qsvbr0"});
  run({"ip", "link", "set", "qsvbr0", "up"});
  for (int node = 1; node <= count; ++node) {
    const pid_t pid = Spawn({"unshare", "--mount", "--net", "--propagation", "private", "--",
                             kNetworkNodeScript, Address(node)});
    pids_.push_back(pid);
    const std::string veth = "qsvveth" + std::to_string(node);
    const std::string netns = "--net=/proc/" + std::to_string(pid) + "/ns/net";
    // The veth must go into the node's own namespace, not into ours before unshare made it.
    auto netnsOf = [](const std::string &proc) {
      char target[256] = {0};
      return readlink((proc + "/ns/net").c_str(), target, sizeof(target) - 1) > 0
                 ? std::string(target)
                 : std::string();
    };
    const std::string ours = netnsOf("/proc/self");
    WaitFor("node " + std::to_string(node) + " did not start", [&] {
      const std::string theirs = netnsOf("/proc/" + std::to_string(pid));
      return !theirs.empty() && theirs != ours;
    });
    run({"ip", "link", "add", veth, "type", "veth", "peer", "name", "eth0", "netns",
         std::to_string(pid)});
    run({"ip", "link", "set", veth, "master", "qsvbr0", "up"});
    run({"nsenter", netns, "--", "ip", "link", "set", "lo", "up"});
    run({"nsenter", netns, "--", "ip", "addr", "add", Address(node) + "/24", "dev", "eth0"});
    run({"nsenter", netns, "--", "ip", "link", "set", "eth0", "up"});
  }
  for (int node = 1; node <= count; ++node) {
    WaitFor("node " + std::to_string(node) + " did not see its address",
            [&] { return access(Path(node, "/run/network_node.ready").c_str(), F_OK) == 0; });
  }
}

NetworkNodes::~NetworkNodes() {
  // A member's watcher starts Dovecot for the mailbox sync; it leaves the namespaces only
  // through its own stop.
  for (size_t i = 0; i < pids_.size(); ++i) {
    Run(static_cast<int>(i) + 1, {kDovecotDaemon, "stop"});
    Run(static_cast<int>(i) + 1, {kClusterDaemon, "stop"});
  }
  const size_t count = pids_.size();
  KillAll();
  int status = 0;
  // The kernel tears a dead namespace down in the background, its end of a veth with it: our
  // ends go now, so that the next test's nodes can have the same names at once.
  for (size_t node = 1; node <= count; ++node) {
    waitpid(Spawn({"ip", "link", "del", "qsvveth" + std::to_string(node)}), &status, 0);
  }
  waitpid(Spawn({"ip", "link", "del", "qsvbr0"}), &status, 0);
}

std::string NodeProcesses::Path(int node, const std::string &path) const {
  // An absolute link met below /proc/PID/root is resolved against our own root, not the node's:
  // the links of the directories above the last part are followed here, by hand.
  const std::string root = "/proc/" + std::to_string(pids_.at(node - 1)) + "/root";
  std::string done;
  std::string rest = path;
  for (int hops = 0; hops < 40;) {
    while (!rest.empty() && rest[0] == '/') rest.erase(0, 1);
    const size_t slash = rest.find('/');
    if (slash == std::string::npos) break;  // the last part is the caller's business
    const std::string part = rest.substr(0, slash);
    rest.erase(0, slash + 1);
    char target[4096];
    const ssize_t n = readlink((root + done + "/" + part).c_str(), target, sizeof(target) - 1);
    if (n <= 0) {
      done += "/" + part;
      continue;
    }
    ++hops;
    target[n] = '\0';
    if (target[0] == '/') {
      rest = std::string(target) + "/" + rest;
      done.clear();
    } else {
      rest = std::string(target) + "/" + rest;
    }
  }
  return root + done + "/" + rest;
}

int NodeProcesses::Run(int node, const std::vector<std::string> &argv) const {
  std::string out;
  return Run(node, argv, out);
}

int NodeProcesses::Run(int node, const std::vector<std::string> &argv, std::string &out) const {
  const std::string proc = "/proc/" + std::to_string(pids_.at(node - 1));
  std::vector<std::string> args = {"nsenter", "--mount=" + proc + "/ns/mnt"};
  if (ownNetwork_) args.push_back("--net=" + proc + "/ns/net");
  args.push_back("--");
  args.insert(args.end(), argv.begin(), argv.end());
  int pipeFds[2];
  if (pipe2(pipeFds, O_CLOEXEC) != 0) return -1;
  posix_spawn_file_actions_t actions;
  posix_spawn_file_actions_init(&actions);
  posix_spawn_file_actions_adddup2(&actions, pipeFds[1], 1);
  std::vector<char *> cargs;
  for (const auto &a : args) cargs.push_back(const_cast<char *>(a.c_str()));
  cargs.push_back(nullptr);
  pid_t pid = -1;
  const int spawned = posix_spawnp(&pid, cargs[0], &actions, nullptr, cargs.data(), environ);
  posix_spawn_file_actions_destroy(&actions);
  close(pipeFds[1]);
  out.clear();
  char piece[4096];
  ssize_t n;
  while (spawned == 0 && (n = read(pipeFds[0], piece, sizeof(piece))) > 0) out.append(piece, n);
  close(pipeFds[0]);
  while (!out.empty() && out.back() == '\n') out.pop_back();
  int status = 0;
  if (spawned != 0 || waitpid(pid, &status, 0) < 0 || !WIFEXITED(status)) return -1;
  return WEXITSTATUS(status);
}

void ClusterNodes::StopWatcher(int node) {
  const pid_t pid = atoi(Slurp(Path(node, kWatcherPid)).c_str());
  if (pid <= 0) return;
  kill(pid, SIGTERM);
  WaitFor("the watcher of node " + std::to_string(node) + " did not stop",
          [&] { return Gone(pid); });
  unlink(Path(node, kWatcherPid).c_str());
}

void ClusterNodes::StartWatcher(int node) {
  if (Run(node, {kClusterDaemon, "start"}) != 0) {
    throw std::runtime_error("ClusterDaemon.sh start failed on node " + std::to_string(node));
  }
}

std::string StoreCommand(const std::string &password, const std::vector<std::string> &args) {
  std::string command = "REDISCLI_AUTH=" + Quote(password) + " redis-cli -p 8500";
  for (const std::string &arg : args) command += " " + Quote(arg);
  FILE *pipe = popen(command.c_str(), "r");
  if (pipe == nullptr) return "";
  std::string out;
  char piece[4096];
  size_t n;
  while ((n = fread(piece, 1, sizeof(piece), pipe)) > 0) out.append(piece, n);
  pclose(pipe);
  while (!out.empty() && out.back() == '\n') out.pop_back();
  return out;
}

}  // namespace qsvtest
