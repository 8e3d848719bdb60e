// Who belongs to the cluster: the checks before a member is added or removed, the keys that say
// who holds which role, the removal of a node's keys, and the mapping table after an address
// change. Every fact ends as a mail configuration key, so that the ordinary key distribution
// carries it to every node.
#include <unistd.h>

#include <algorithm>

#include "cluster/mailserver_cluster.h"
#include "config/mail_conf.h"
#include "core/mail_conf.h"
#include "foundation/log.h"
#include "foundation/strings.h"

namespace KOLT {
namespace QUILLON_SERVER {
namespace {

const char kCertDir[] = "/var/packages/Quillon-Server/etc/internal-ca-ssl/";
const char *const kRoleKeys[] = {"mailer", "storager", "balancer"};
const char kRegen[] = "[Quillon Server] [Mapping table Regen] - ";

std::string Join(const std::vector<std::string> &items) {
  std::string text;
  for (const std::string &item : items) text += (text.empty() ? "" : " ") + item;
  return text;
}

}  // namespace

bool KOLTMailNodeCluster::isRoleRemovable(const std::string &role, const std::string &id) {
  std::string value;
  if (mailConfGet(role, value) < 0) {
    maillog(3, "%s:%d Failed to get key %s", QSV_FILE, __LINE__, role.c_str());
    return false;
  }
  std::vector<std::string> ids;
  stringSplit(ids, value, " ");
  ids.erase(std::remove(ids.begin(), ids.end(), id), ids.end());
  return !ids.empty();
}

bool KOLTMailNodeCluster::memberDelCheck(const std::string &id) {
  if (id == hostID_) {
    maillog(3, "%s:%d it cannot remove itself", QSV_FILE, __LINE__);
    return false;
  }
  // An unhealthy cluster passes on purpose: a dead node could never be removed otherwise.
  if (isClusterSyncing() && isClusterHealth(false)) {
    errorCode_ = ERR_CHANGING;
    maillog(3, "%s:%d Failed to do command due to cluster is changing", QSV_FILE, __LINE__);
    return false;
  }
  std::vector<std::string> peers;
  if (!listPeers(peers)) {
    maillog(3, "%s:%d Failed to listBackendPeers", QSV_FILE, __LINE__);
    return false;
  }
  if (std::find(peers.begin(), peers.end(), id) == peers.end()) {
    maillog(3, "%s:%d The server:%s is not in cluster", QSV_FILE, __LINE__, id.c_str());
    return false;
  }
  for (const char *role : kRoleKeys) {
    if (!isRoleRemovable(role, id)) {
      maillog(3, "%s:%d Failed to remove member it would cause role %s less than 1", QSV_FILE,
              __LINE__, role);
      return false;
    }
  }
  return true;
}

bool KOLTMailNodeCluster::memberAddCheck(const std::map<std::string, std::string> &ifIpMap,
                                         const std::string &key, const std::string &,
                                         const std::string &) {
  if (isClusterSyncing()) {
    errorCode_ = ERR_CHANGING;
    maillog(3, "%s:%d Failed to do command due to cluster is changing", QSV_FILE, __LINE__);
    return false;
  }
  const std::string &ip = ifIpMap.at(key);
  if (isConflicWithExistIP(ip, true)) {
    errorCode_ = ERR_ADDRESS_CONFLICT;
    maillog(3, "%s:%d The ip [%s] is confict", QSV_FILE, __LINE__, ip.c_str());
    return false;
  }
  return true;
}

bool KOLTMailNodeCluster::memberAddPrepare(
    const std::map<std::string, std::string> &idIpMap, const std::string &, const Role &,
    const std::map<std::string, std::vector<std::string>> &nodeIps) {
  if (!localIdIpMapUpdate(idIpMap, "", false)) {
    maillog(3, "%s:%d Failed to update local idIPMap", QSV_FILE, __LINE__);
    return false;
  }
  std::vector<std::string> ips;
  for (const auto &node : nodeIps) ips.insert(ips.end(), node.second.begin(), node.second.end());
  return refreshFirewall(ips);
}

bool KOLTMailNodeCluster::memberAdd(const std::string &, const std::string &) { return true; }

bool KOLTMailNodeCluster::memberDel(const std::string &) {
  // The node that carries out a removal holds the store's master role, so that the removed node
  // can't be the one that holds it.
  if (!becomeRedisMaster()) {
    maillog(3, "%s:%d Failed to become redis master", QSV_FILE, __LINE__);
    return false;
  }
  return true;
}

bool KOLTMailNodeCluster::memberAddRestore(const std::map<std::string, std::string> &,
                                           const std::string &id, const Role &, bool configDone,
                                           const MemberConfig &config) {
  if (!removeHostID(id, false)) {
    maillog(3, "%s:%d Failed to remove hostID [%s]", QSV_FILE, __LINE__, id.c_str());
  }
  std::vector<std::string> peers;
  listPeers(peers);
  std::vector<std::string> ips;
  for (const std::string &peer : peers) {
    if (peer == id) continue;
    std::vector<std::string> addresses;
    listKeySplitByToken("node_ip_list-" + peer, addresses, " ");
    ips.insert(ips.end(), addresses.begin(), addresses.end());
  }
  if (!refreshFirewall(ips)) {
    maillog(3, "%s:%d Failed to refresh fireall when restoring", QSV_FILE, __LINE__);
  }
  if (configDone) addRemoveNodeConfig(config, false);
  return true;
}

std::vector<std::string> KOLTMailNodeCluster::addDelKeyNewVal(const std::string &key,
                                                              const std::string &id, bool add) {
  std::vector<std::string> list;
  listKeySplitByToken(key, list, " ");
  const auto found = std::find(list.begin(), list.end(), id);
  if (add && found == list.end()) list.push_back(id);
  if (!add) list.erase(std::remove(list.begin(), list.end(), id), list.end());
  return list;
}

bool KOLTMailNodeCluster::addRemoveNodeConfig(const MemberConfig &config, bool add) {
  const std::string &id = config.id;
  std::map<std::string, std::string> keys;
  keys["cluster_peers"] = Join(addDelKeyNewVal("cluster_peers", id, add));
  if (config.backend) keys["consul_peers"] = Join(addDelKeyNewVal("consul_peers", id, add));
  const std::vector<std::string> mailers = addDelKeyNewVal("mailer", id, add);
  const std::vector<std::string> storagers = addDelKeyNewVal("storager", id, add);
  const std::vector<std::string> balancers = addDelKeyNewVal("balancer", id, add);
  if (config.mailer && !assignRole(NODE_ROLE_MAILER, mailers)) {
    maillog(3, "%s:%d Failed to assign role mailer but not revert", QSV_FILE, __LINE__);
  }
  if (config.storager && !assignRole(NODE_ROLE_STORAGER, storagers)) {
    maillog(3, "%s:%d Failed to assign role storager but not revert", QSV_FILE, __LINE__);
  }
  if (config.balancer) {
    if (!assignRole(NODE_ROLE_BALANCER, balancers)) {
      maillog(3, "%s:%d Failed to assign role balancer but not revert", QSV_FILE, __LINE__);
    }
    const std::string master = balancers.empty() ? "" : balancers.front();
    if (mailConfSet("balancer_master_node", master, true, 0) != 0) {
      maillog(3, "%s:%d Failed to set new master balancer ID to [%s]", QSV_FILE, __LINE__,
              master.c_str());
      return false;
    }
  }
  const std::string weight = id + ":" + std::to_string(config.weight == 0 ? 1 : config.weight);
  keys["mailer_weight_list"] = Join(addDelKeyNewVal("mailer_weight_list", weight, add));
  if (add) {
    keys["storage_static_mapping-" + id] = config.storageMapping;
    keys["general_storage_volume-" + id] = config.storageVolume;
    keys["peer_info_hostname-" + id] = config.hostname;
    keys["node_ip_list-" + id] = Join(config.ipList);
    keys["peer_info_mac-" + id] = config.mac;
    keys["peer_info_serial_num-" + id] = config.serialNumber;
  } else {
    removeBackendNodeKey(id);
  }
  if (mailConfSet(keys) != 0) {
    maillog(3, "%s:%d Failed to set key", QSV_FILE, __LINE__);
    return false;
  }
  return true;
}

bool KOLTMailNodeCluster::assignRole(NodeRole role, const std::vector<std::string> &ids) {
  std::vector<std::string> sorted = ids;
  std::sort(sorted.begin(), sorted.end());
  sorted.erase(std::unique(sorted.begin(), sorted.end()), sorted.end());
  std::map<std::string, std::string> keys;
  for (int other = NODE_ROLE_MAILER; other <= NODE_ROLE_BALANCER; ++other) {
    if (other == role) continue;
    mailConfGet(kRoleKeys[other], keys[kRoleKeys[other]]);
  }
  keys[kRoleKeys[role]] = Join(sorted);
  if (mailConfSet(keys) != 0) {
    maillog(3, "%s:%d Failed to set role", QSV_FILE, __LINE__);
    return false;
  }
  if (role == NODE_ROLE_BALANCER && !calMasterBalancer(true)) {
    maillog(3, "%s:%d Failed calMasterBalancer()", QSV_FILE, __LINE__);
    return false;
  }
  return true;
}

bool KOLTMailNodeCluster::removeBackendNodeKey(const std::string &id) {
  removeDir("resource_info-" + id);
  deregisterNodeServ(id);
  for (const char *prefix :
       {"resource_info-", "node_ip_list-", "storage_static_mapping-", "general_storage_volume-",
        "peer_info_hostname-", "peer_info_mac-", "peer_info_serial_num-", "node_bind_if-"}) {
    removeKey(prefix + id);
  }
  for (NodeRole role : {NODE_ROLE_MAILER, NODE_ROLE_BALANCER, NODE_ROLE_STORAGER}) {
    setRoleServSync(role, id, true);
  }
  if (!removeHostID(id, true)) {
    maillog(3, "%s:%d Failed to remove hostID [%s]", QSV_FILE, __LINE__, id.c_str());
  }
  return true;
}

bool KOLTMailNodeCluster::removeHostID(const std::string &id, bool removeBackendKey) {
  bool ok = true;
  if (dumpMailConfToFile("mapping_table", id, "", true, true, kMailConfDir, 0, false, nullptr) <
      0) {
    maillog(3, "%s:%d Failed to remove key[%s] from %s", QSV_FILE, __LINE__, id.c_str(),
            "mapping_table");
    ok = false;
  }
  if (removeBackendKey && exist(id) && !removeKey(id)) {
    maillog(3, "%s:%d Failed to remove backend key [%s]", QSV_FILE, __LINE__, id.c_str());
    ok = false;
  }
  // Ids are made by this library, but the argument may come from anywhere: a path part only.
  if (!id.empty() && id.find('/') == std::string::npos && id != "." && id != "..") {
    unlink((kCertDir + id + ".crt").c_str());
  }
  idIpMap_.erase(id);
  return ok;
}

bool KOLTMailNodeCluster::idIpMapRegen(const std::string &newIp) {
  maillog(6, "%sInto mapping table regen.... newIP: %s", kRegen, newIp.c_str());
  const std::string id = getHostID();
  std::vector<std::string> peers;
  listPeers(peers);
  std::map<std::string, std::string> idIpMap;
  for (const std::string &peer : peers) idIpMap[peer] = idToIP(peer);
  idIpMap[id] = newIp;
  if (!localIdIpMapUpdate(idIpMap, id, false)) {
    maillog(3, "%sFailed to update local idIPMap!! Please run mappingRegen [%s] again", kRegen,
            newIp.c_str());
    return false;
  }
  std::vector<std::string> masterIps;
  std::string master;
  if (getMasterBalancer(master) && !master.empty()) masterIps.push_back(master);
  if (!setupBackendEnv(masterIps, newIp)) {
    maillog(3, "%sFailed to setupBackendEnv()!! Please run mappingRegen [%s] again", kRegen,
            newIp.c_str());
    return false;
  }
  if (!watchRestart(false)) maillog(3, "%s:%d Failed to watchRestart()", QSV_FILE, __LINE__);
  maillog(6, "%sStart to wait cluster health", kRegen);
  if (!waitClusterHealth(60)) {
    maillog(3, "%sFailed to wait cluster become health!! Please run mappingRegen [%s] again",
            kRegen, newIp.c_str());
    return false;
  }
  maillog(6, "%sStart to wait callback ready", kRegen);
  if (!waitCallbackReady(120, 0)) {
    maillog(3, "%sFailed to wait callback ready!! Please run mappingRegen [%s] again", kRegen,
            newIp.c_str());
    return false;
  }
  for (const auto &entry : idIpMap) {
    if (!setKey(entry.first, entry.second, 0)) {
      maillog(3,
              "%sFailed to trigger mapping regen key:[%s] val:[%s] \t\t\t\t\t!! Please run "
              "mappingRegen [%s] again",
              kRegen, entry.first.c_str(), entry.second.c_str(), newIp.c_str());
      return false;
    }
  }
  maillog(6, "%sSuccess mapping table regen", kRegen);
  return true;
}

}  // namespace QUILLON_SERVER
}  // namespace KOLT
