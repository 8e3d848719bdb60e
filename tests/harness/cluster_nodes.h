// Several nodes of one cluster inside the test's sandbox: each node is a process in a mount
// namespace of its own (tests/harness/cluster_node) with its own package etc, mail spool and
// key watcher, all sharing the test's key store on 8500 and file buffer on 8502 over loopback.
// Node i (from 1) has the id "mailserver_id-<i>" and the address 127.0.0.<i>; node 1 is the
// master balancer.
//
//   auto redis = ServerProcess::Redis(8500, "pw", {"--notify-keyspace-events", "KA"});
//   auto buffer = ServerProcess::Memcached(8502);
//   ClusterNodes nodes(3, "pw");        // keys published, mirrors on every node
//   nodes.Run(1, {mailserverctl, "file", "set", ...});
//   ReadFile(nodes.Path(2, "/var/packages/..."));
//
// The object owns the node processes and their watchers: destroying it kills them.
#ifndef MAILSERVER_TESTS_HARNESS_CLUSTER_NODES_H_
#define MAILSERVER_TESTS_HARNESS_CLUSTER_NODES_H_

#include <sys/types.h>

#include <string>
#include <vector>

namespace qsvtest {

// Node processes, each in namespaces of its own; what both kinds of test cluster share.
class NodeProcesses {
 public:
  NodeProcesses() = default;
  NodeProcesses(const NodeProcesses &) = delete;
  NodeProcesses &operator=(const NodeProcesses &) = delete;

  // `path` as node `node` (from 1) sees it, reachable from the test's own namespace.
  std::string Path(int node, const std::string &path) const;
  // Runs argv[0] with its arguments inside node `node`'s namespaces; the exit status.
  int Run(int node, const std::vector<std::string> &argv) const;
  // The same, with standard output captured (without its final newline).
  int Run(int node, const std::vector<std::string> &argv, std::string &out) const;

 protected:
  // Kills the node processes.
  void KillAll();
  std::vector<pid_t> pids_;  // [0] is node 1
  bool ownNetwork_ = false;  // nodes have network namespaces of their own
};

class ClusterNodes : public NodeProcesses {
 public:
  // Starts the nodes and publishes the cluster's keys from node 1; returns once every node's
  // watcher has mirrored them. Throws std::runtime_error on failure.
  ClusterNodes(int count, const std::string &password);
  ~ClusterNodes();

  static std::string Id(int node) { return "mailserver_id-" + std::to_string(node); }

  // Stops or starts the node's key watcher (the package's ClusterDaemon.sh starts it).
  void StopWatcher(int node);
  void StartWatcher(int node);
};

// Fresh machines on a network of their own: node i has the address 10.77.0.i on a veth joined to
// a bridge in the test's namespace (which has 10.77.0.254), its own loopback, and nothing of a
// cluster until mailserverctl makes it a node. Each runs its own key store on 8500 once set up.
//
//   NetworkNodes nodes(3);
//   nodes.Run(1, {mailserverctl, "setup", "--address", NetworkNodes::Address(1)});
class NetworkNodes : public NodeProcesses {
 public:
  // Throws std::runtime_error when a node or its network can't be made.
  explicit NetworkNodes(int count);
  ~NetworkNodes();

  static std::string Address(int node) { return "10.77.0." + std::to_string(node); }
};

// A command against the test's key store on 8500, through redis-cli; its output without the
// final newline.
std::string StoreCommand(const std::string &password, const std::vector<std::string> &args);

}  // namespace qsvtest

#endif  // MAILSERVER_TESTS_HARNESS_CLUSTER_NODES_H_
