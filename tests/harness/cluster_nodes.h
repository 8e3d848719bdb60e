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

class ClusterNodes {
 public:
  // Starts the nodes and publishes the cluster's keys from node 1; returns once every node's
  // watcher has mirrored them. Throws std::runtime_error on failure.
  ClusterNodes(int count, const std::string &password);
  ~ClusterNodes();
  ClusterNodes(const ClusterNodes &) = delete;
  ClusterNodes &operator=(const ClusterNodes &) = delete;

  static std::string Id(int node) { return "mailserver_id-" + std::to_string(node); }

  // `path` as node `node` sees it, reachable from the test's own namespace.
  std::string Path(int node, const std::string &path) const;
  // Runs argv[0] with its arguments inside node `node`'s namespace; the exit status.
  int Run(int node, const std::vector<std::string> &argv) const;

  // Stops or starts the node's key watcher (the package's ClusterDaemon.sh starts it).
  void StopWatcher(int node);
  void StartWatcher(int node);

 private:
  std::vector<pid_t> pids_;  // [0] is node 1
};

// A command against the test's key store on 8500, through redis-cli; its output without the
// final newline.
std::string StoreCommand(const std::string &password, const std::vector<std::string> &args);

}  // namespace qsvtest

#endif  // MAILSERVER_TESTS_HARNESS_CLUSTER_NODES_H_
