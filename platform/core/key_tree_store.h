// The description of the cluster's key tree: in which tree each configuration key lies, its full
// name in the store, which services depend on it, and which services each node role runs.
//
// A short key ("smtp_port") becomes a full name by its tree's prefix ("mailserver/conf/smtp_port").
// Keys of the bookkeeping trees that are walked by prefix ("service_change/...", "task_queue/...")
// are their own full names. Some trees keep the mirrors of all their keys in one file: the node
// ids of the mapping table, the service sync flags. The whole description is one static table in
// key_tree_store.cc.
//
// The singleton is built on first use and never changes: it may be shared between threads.
#ifndef MAILSERVER_CORE_KEY_TREE_STORE_H_
#define MAILSERVER_CORE_KEY_TREE_STORE_H_

#include <string>
#include <vector>

namespace KOLT {
namespace QUILLON_SERVER {

class KeyTreeStore {
 public:
  static KeyTreeStore *instance();

  // The full name of `key`. A full name comes back unchanged, so completing twice is harmless.
  std::string keyComplete(const std::string &key) const;

  // The short name of `key`: a full name without its tree's prefix; a short name unchanged.
  std::string keyShort(const std::string &key) const;

  // The name of the tree in which `key` lies.
  std::string treeGet(const std::string &key) const;

  // The file that holds the local mirrors of all keys of `key`'s tree, or "" when the key has a
  // mirror file of its own.
  std::string sharedFileGet(const std::string &key) const;

  // The services whose configuration depends on `key`; empty for most keys.
  std::vector<std::string> getKeyServ(const std::string &key) const;

  // The tag under which a service is synchronised ("dsync" for mailbox replication), or "".
  std::string getServScript(const std::string &service) const;

  // The role key ("mailer", "storager", "balancer") of the nodes that run `service`, or "".
  std::string roleGet(const std::string &service) const;

  // The services of a role: 0 mailer, 1 storager, 2 balancer. False for another number.
  bool roleToServ(int role, std::vector<std::string> &services) const;

 private:
  KeyTreeStore() = default;
};

}  // namespace QUILLON_SERVER
}  // namespace KOLT

#endif  // MAILSERVER_CORE_KEY_TREE_STORE_H_
