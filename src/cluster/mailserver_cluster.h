// One node's view of the cluster: who it is, which address and interface it uses, who its peers
// are, which roles it holds, whether the cluster is healthy, and the service sync flags by which
// a changed setting reaches the services of the other nodes.
//
// Built on the stack wherever it is needed: the constructor and most questions read local files
// only (the key mirrors under mailconf.d and the cached health). An object is not shared between
// threads; it caches the id to address map it first read.
#ifndef MAILSERVER_CLUSTER_MAILSERVER_CLUSTER_H_
#define MAILSERVER_CLUSTER_MAILSERVER_CLUSTER_H_

#include <cstdint>
#include <map>
#include <string>
#include <vector>

#include "cluster/backendWrapper.h"
#include "foundation/export.h"

namespace KOLT {
namespace QUILLON_SERVER {

enum NodeRole { NODE_ROLE_MAILER = 0, NODE_ROLE_STORAGER = 1, NODE_ROLE_BALANCER = 2 };

struct Role {
  bool mailer = false;
  bool storager = false;
  bool balancer = false;
  bool balancerMaster = false;
};

// 1 is the normal state (no key in the store); 2 is what an unhealthy cluster answers.
enum ClusterStatus : int { CLUSTER_STATUS_NORMAL = 1, CLUSTER_STATUS_UNHEALTHY = 2 };

// The state of one service on one node.
enum ServStatus : int {
  SERV_STATUS_STOPPED = 0,
  SERV_STATUS_RUNNING = 1,
  SERV_STATUS_ERROR = 2,
  SERV_STATUS_SYNCING = 4,
};

struct BalancerInfo {
  bool enable = false;
  std::string address;
  std::string netmask;
};

// One member as the membership operations write it to the store.
struct MemberConfig {
  std::string id;
  std::string hostname;       // "peer_info_hostname-" + id
  std::string storageMapping;  // "storage_static_mapping-" + id
  std::string storageVolume;  // "general_storage_volume-" + id
  std::string mac;            // "peer_info_mac-" + id
  std::string serialNumber;   // "peer_info_serial_num-" + id
  std::vector<std::string> ipList;  // "node_ip_list-" + id, joined with one blank
  uint32_t weight = 1;        // as a mailer; 0 counts as 1
  bool backend = false;       // runs a key store: its id belongs in "consul_peers"
  bool mailer = false;
  bool storager = false;
  bool balancer = false;
};

// `length` characters of digits, upper-case and lower-case letters: the backend password.
QSV_EXPORT std::string genRandomString(int length);

// The ten firewall services of the mail suite; null-terminated.
QSV_EXPORT extern const char *szgMailFWServices[];

class QSV_EXPORT KOLTMailNodeCluster : public QuillonServerBACKENDWrap {
 public:
  // Error codes: nothing known yet, the cluster is changing, an address conflict.
  enum { ERR_INIT = 8, ERR_CHANGING = 9, ERR_ADDRESS_CONFLICT = 10 };

  KOLTMailNodeCluster();

  // Identity.
  bool isClusterInited();
  std::string getHostID();
  std::string getHostIP();
  std::string getHostIF();
  std::string getBalancerIF();
  bool isIFStatic(const std::string &ifName);
  int getErrorCode();

  // Peers and addresses.
  void listKeySplitByToken(const std::string &key, std::vector<std::string> &out,
                           const std::string &token);
  bool listPeers(std::vector<std::string> &ids);
  bool listBackendPeers(std::vector<std::string> &ids);
  int getPeersNum();
  bool listPeersIP(std::vector<std::string> &ips);
  void loadIdIpMap();
  std::string idToIP(const std::string &id);
  std::string ipToID(const std::string &ip);
  bool getNodeIPIFMap(std::map<std::string, std::string> &ipToIf);
  bool getNodeIPList(std::vector<std::string> &ips);
  std::string searchHostIP(const std::vector<std::string> &ips);

  // Roles.
  bool nodeRoleGet(Role &role);
  bool getMasterBalancer(std::string &ip);
  bool isBlancerMaster();

  // Health and state. With `useCache` the answer comes from the file the last check wrote; without
  // it ClusterDaemon.sh is asked, and its answer is written to that file.
  bool isClusterHealth(bool useCache);
  bool waitClusterHealth(int tries);
  bool waitCallbackReady(int seconds, unsigned long expected);
  // Throws boost::bad_lexical_cast when the stored status isn't a number.
  ClusterStatus getClusterStatus();
  void setClusterStatus(ClusterStatus status);
  bool isClusterSyncing();

  void suspendMailEventDispatcher();
  void unSuspendMailEventDispatcher();
  bool isSuspendMailEventDispatcher();

  // Service sync. Raising (done false) sets the flag key with `ttl`; lowering waits a little for a
  // service in error, then removes the key and its local mirror.
  bool setServiceSync(const std::string &service, const std::string &nodeId, bool done, int ttl,
                      const std::string &tag);
  bool isServiceSync(const std::string &service, const std::string &nodeId,
                     const std::string &tag);
  // The state of `service` on each node of its role, by node address.
  bool getService(const std::string &service, std::map<std::string, ServStatus> &status);
  // Raises or lowers the flags of every service of `role` on `nodeId`; goes on past failures.
  bool setRoleServSync(NodeRole role, const std::string &nodeId, bool done);
  bool deregisterServ(const std::string &service, const std::string &serverId);
  bool deregisterNodeServ(const std::string &nodeId);

  // Balancer. calMasterBalancer picks the master among the live balancers (the first in the
  // sorted "balancer" list), or this node when the cluster is broken and it is a balancer, and
  // writes "balancer_master_node"; the argument has no effect.
  bool calMasterBalancer(bool);
  bool getBalancerInfo(BalancerInfo &info);
  bool setBalancerInfo(const BalancerInfo &info);
  bool isBalancerAddrInSameSubnet(const std::string &ip, const std::string &netmask,
                                  const std::string &ifName);
  // Whether `ip` is an address of a peer (or, with `checkOwn`, of this node).
  bool isConflicWithExistIP(const std::string &ip, bool checkOwn);

  // Membership: making this node a cluster node and wiping it again. setupEnv runs as root
  // (REQUIRES) and leaves the daemons stopped: the caller starts them.
  bool setupEnv(const std::map<std::string, std::string> &idIpMap,
                const std::vector<std::string> &hostIps, const std::vector<std::string> &masterIds,
                const std::string &password);
  bool genBackendConf(const std::string &password);
  // Writes etc/redis/redis.conf from the template: a replica of the first of `masterIps` unless
  // that is `hostIp`.
  bool setupBackendEnv(const std::vector<std::string> &masterIps, const std::string &hostIp);
  bool clusterCleanup();
  bool localIdIpMapUpdate(const std::map<std::string, std::string> &idIpMap,
                          const std::string &localId, bool sync);
  bool newIdIpMapGen(const std::vector<std::string> &ips,
                     std::map<std::string, std::string> &idIpMap, bool reuse);

  // Checks before a change; false with a log line (and an error code) when it must not happen.
  bool memberAddCheck(const std::map<std::string, std::string> &ifIpMap, const std::string &key,
                      const std::string &a, const std::string &b);
  bool memberDelCheck(const std::string &id);
  bool isRoleRemovable(const std::string &role, const std::string &id);

  // Adding: memberAddCheck, memberAddPrepare, addRemoveNodeConfig(config, true), and on a failure
  // memberAddRestore. Removing: memberDelCheck, memberDel, addRemoveNodeConfig(config, false).
  bool memberAddPrepare(const std::map<std::string, std::string> &idIpMap, const std::string &id,
                        const Role &role,
                        const std::map<std::string, std::vector<std::string>> &nodeIps);
  bool memberAdd(const std::string &, const std::string &);
  bool memberDel(const std::string &id);
  bool memberAddRestore(const std::map<std::string, std::string> &idIpMap, const std::string &id,
                        const Role &role, bool configDone, const MemberConfig &config);
  bool addRemoveNodeConfig(const MemberConfig &config, bool add);
  bool assignRole(NodeRole role, const std::vector<std::string> &ids);
  // The new content of the blank-separated list `key` with `id` added or taken out.
  std::vector<std::string> addDelKeyNewVal(const std::string &key, const std::string &id,
                                           bool add);
  bool removeHostID(const std::string &id, bool removeBackendKey);
  bool removeBackendNodeKey(const std::string &id);
  // This node's address changed to `newIp`: the map, the key store's configuration and the
  // watcher follow, and the other nodes are woken.
  bool idIpMapRegen(const std::string &newIp);

  // Bringing a new member up to date.
  bool syncMail(const std::string &ip);
  bool syncSpamConfig(const std::string &ip, const std::string &, const std::string &,
                      const std::string &, int);
  bool syncConfig(const std::string &ip, const std::string &, const std::string &,
                  const std::string &, int);

  // The node's daemons through ClusterDaemon.sh.
  bool refreshFirewall(const std::vector<std::string> &ips);
  bool start(const std::map<std::string, std::vector<std::string>> &nodeIps);
  bool stop();
  bool watchRestart(bool restore);
  bool backendRestart();

 private:
  std::string hostIP_;
  std::string hostID_;
  std::map<std::string, std::string> idIpMap_;
  int errorCode_;
};

}  // namespace QUILLON_SERVER
}  // namespace KOLT

#endif  // MAILSERVER_CLUSTER_MAILSERVER_CLUSTER_H_
