#include "cluster/mailserver_cluster.h"

#include <unistd.h>

#include <boost/lexical_cast.hpp>
#include <memory>

#include "config/mail_conf.h"
#include "core/mail_conf.h"
#include "foundation/log.h"
#include "foundation/strings.h"
#include "kolt/exec.h"
#include "kolt/netif.h"

namespace KOLT {
namespace QUILLON_SERVER {
namespace {

const char kRedisConf[] = "/var/packages/Quillon-Server/etc/redis/redis.conf";
const char kClusterDaemon[] = "/var/packages/Quillon-Server/target/scripts/ClusterDaemon.sh";
const char kServiceStatusDir[] = "/tmp/quillon_server/service_status/";
const char kHealthFile[] = "cluster_health";
const char kClusterStatusKey[] = "quillon_server_cluster_status";
const char kSuspendKey[] = "suspend/MailEventDispatcherSuspend";
const char kHeartbeatDir[] = "health_check_heartbeat_dir";
const int kMaxInterfaces = 256;

}  // namespace

KOLTMailNodeCluster::KOLTMailNodeCluster() : errorCode_(ERR_INIT) {
  if (isClusterInited()) {
    hostIP_ = getHostIP();
    hostID_ = getHostID();
  }
}

bool KOLTMailNodeCluster::isClusterInited() { return access(kRedisConf, F_OK) == 0; }

std::string KOLTMailNodeCluster::getHostID() {
  Json::Value json;
  if (loadMailJsonFromFile("local_id_file", json, kMailConfDir) != 0 || !json.isObject()) {
    return "";
  }
  const Json::Value &id = json["id"];
  return id.isString() ? id.asString() : "";
}

std::string KOLTMailNodeCluster::getHostIP() {
  const std::string id = getHostID();
  if (id.empty()) {
    maillog(7, "%s:%d Failed to get HostIP()", QSV_FILE, __LINE__);
    return "";
  }
  return idToIP(id);
}

std::string KOLTMailNodeCluster::getHostIF() {
  std::string ifName;
  if (mailConfGet("node_bind_if-" + hostID_, ifName) >= 0 && !ifName.empty()) return ifName;
  std::map<std::string, std::string> ipToIf;
  getNodeIPIFMap(ipToIf);
  if (hostIP_.empty()) {
    maillog(7, "%s:%d There are no host IP so cannot get host interface", QSV_FILE, __LINE__);
    return "";
  }
  const auto found = ipToIf.find(hostIP_);
  return found == ipToIf.end() ? "" : found->second;
}

std::string KOLTMailNodeCluster::getBalancerIF() {
  const std::string ifName = getHostIF();
  return ifName.empty() ? "" : ifName + ":QSV";
}

bool KOLTMailNodeCluster::isIFStatic(const std::string &ifName) {
  return KOLTNetIfIsStaticIP(ifName.c_str()) == 1;
}

int KOLTMailNodeCluster::getErrorCode() { return errorCode_; }

void KOLTMailNodeCluster::listKeySplitByToken(const std::string &key,
                                              std::vector<std::string> &out,
                                              const std::string &token) {
  std::string value;
  if (mailConfGet(key, value) < 0) {
    maillog(3, "%s:%d Failed to load key %s", QSV_FILE, __LINE__, key.c_str());
    out.clear();
    return;
  }
  stringSplit(out, value, token);
}

bool KOLTMailNodeCluster::listPeers(std::vector<std::string> &ids) {
  listKeySplitByToken("cluster_peers", ids, " ");
  return true;
}

bool KOLTMailNodeCluster::listBackendPeers(std::vector<std::string> &ids) {
  listKeySplitByToken("consul_peers", ids, " ");
  return true;
}

int KOLTMailNodeCluster::getPeersNum() {
  std::vector<std::string> ids;
  listPeers(ids);
  return static_cast<int>(ids.size());
}

bool KOLTMailNodeCluster::listPeersIP(std::vector<std::string> &ips) {
  std::vector<std::string> ids;
  if (!listPeers(ids)) {
    maillog(3, "%s:%d Failed to list peer ip list", QSV_FILE, __LINE__);
    return false;
  }
  for (const std::string &id : ids) ips.push_back(idToIP(id));
  return true;
}

void KOLTMailNodeCluster::loadIdIpMap() {
  if (access((std::string(kMailConfDir) + "mapping_table").c_str(), F_OK) != 0) return;
  Json::Value json;
  if (loadMailJsonFromFile("mapping_table", json, kMailConfDir) != 0 || !json.isObject()) {
    maillog(3, "%s:%d Failed load idIp mapping config [%s]", QSV_FILE, __LINE__, "mapping_table");
    return;
  }
  for (const std::string &name : json.getMemberNames()) {
    const size_t slash = name.find('/');
    const std::string id = slash == std::string::npos ? name : name.substr(slash + 1);
    const Json::Value &ip = json[name];
    idIpMap_[id] = ip.isConvertibleTo(Json::stringValue) ? ip.asString() : "";
  }
}

std::string KOLTMailNodeCluster::idToIP(const std::string &id) {
  if (idIpMap_.empty()) loadIdIpMap();
  return idIpMap_[id];
}

std::string KOLTMailNodeCluster::ipToID(const std::string &ip) {
  if (idIpMap_.empty()) loadIdIpMap();
  for (const auto &entry : idIpMap_) {
    if (entry.second == ip) return entry.first;
  }
  maillog(3, "%s:%d Failed to find ID of ip:[%s]", QSV_FILE, __LINE__, ip.c_str());
  return "";
}

bool KOLTMailNodeCluster::getNodeIPIFMap(std::map<std::string, std::string> &ipToIf) {
  std::unique_ptr<KOLTNETIF[]> entries(new (std::nothrow) KOLTNETIF[kMaxInterfaces]);
  if (!entries) {
    maillog(3, "%s:%d %s", QSV_FILE, __LINE__, "malloc fail");
    return false;
  }
  const int count = KOLTNetIFEnum(entries.get(), kMaxInterfaces);
  if (count < 0) {
    maillog(3, "%s:%d %s", QSV_FILE, __LINE__, "Get interface info fail.");
    return false;
  }
  if (count == 0) {
    maillog(3, "%s:%d %s", QSV_FILE, __LINE__, "No interface.");
    return false;
  }
  for (int i = 0; i < count && i < kMaxInterfaces; ++i) ipToIf[entries[i].ip] = entries[i].name;
  return true;
}

bool KOLTMailNodeCluster::getNodeIPList(std::vector<std::string> &ips) {
  std::map<std::string, std::string> ipToIf;
  if (!getNodeIPIFMap(ipToIf)) return false;
  for (const auto &entry : ipToIf) ips.push_back(entry.first);
  return true;
}

std::string KOLTMailNodeCluster::searchHostIP(const std::vector<std::string> &ips) {
  std::map<std::string, std::string> own;
  getNodeIPIFMap(own);
  for (const std::string &ip : ips) {
    if (own.count(ip) != 0) return ip;
  }
  return "";
}

bool KOLTMailNodeCluster::nodeRoleGet(Role &role) {
  bool *const flags[] = {&role.mailer, &role.storager, &role.balancer};
  const char *const keys[] = {"mailer", "storager", "balancer"};
  for (int i = 0; i < 3; ++i) {
    std::string list;
    *flags[i] = mailConfGet(keys[i], list) >= 0 && isContainID(list, hostID_);
  }
  role.balancerMaster = isBlancerMaster();
  return true;
}

bool KOLTMailNodeCluster::getMasterBalancer(std::string &ip) {
  std::string id;
  if (mailConfGet("balancer_master_node", id) < 0) {
    maillog(3, "%s:%d Failed to get key[%s]", QSV_FILE, __LINE__, "balancer_master_node");
    return false;
  }
  ip = idToIP(id);
  return true;
}

bool KOLTMailNodeCluster::isBlancerMaster() {
  std::string ip;
  return getMasterBalancer(ip) && ip == hostIP_;
}

bool KOLTMailNodeCluster::isClusterHealth(bool useCache) {
  if (!useCache) {
    const bool healthy = KLIBCExec(kClusterDaemon, "status", nullptr, nullptr, 0) == 0;
    dumpMailConfToFile(kHealthFile, kHealthFile, healthy ? "yes" : "no", false, false,
                       kServiceStatusDir, 0, false, nullptr);
    return healthy;
  }
  Json::Value json;
  if (loadMailJsonFromFile(kHealthFile, json, kServiceStatusDir) != 0 || !json.isObject()) {
    maillog(3, "%s:%d Failed to load file [%s]", QSV_FILE, __LINE__,
            (std::string(kServiceStatusDir) + kHealthFile).c_str());
    return false;
  }
  const Json::Value &health = json[kHealthFile];
  return health.isString() && health.asString() == "yes";
}

bool KOLTMailNodeCluster::waitClusterHealth(int tries) {
  for (int attempt = 1; attempt <= tries; ++attempt) {
    if (isClusterHealth(false)) return true;
    maillog(3, "%s:%d Wait for cluster health [%d]...", QSV_FILE, __LINE__, attempt);
    sleep(3);
  }
  maillog(3, "%s:%d Failed to create cluster due to it cannot be health in time [%d]", QSV_FILE,
          __LINE__, tries);
  return false;
}

bool KOLTMailNodeCluster::waitCallbackReady(int seconds, unsigned long expected) {
  if (expected == 0) expected = static_cast<unsigned long>(getPeersNum());
  removeDir(kHeartbeatDir);
  // The budget goes in slices: each slice asks the callbacks once and then watches for 6 seconds.
  for (int spent = 0; spent < seconds;) {
    if (!setKey("health_check_trigger", "test", 0)) {
      maillog(3, "%s:%d Failed to set callback check key", QSV_FILE, __LINE__);
      return false;
    }
    for (int i = 0; i < 6; ++i, ++spent) {
      sleep(1);
      std::vector<std::string> children;
      ls(kHeartbeatDir, children);
      if (children.size() == expected) return true;
    }
  }
  maillog(3, "%s:%d Callback is not ready in timeout [%d]", QSV_FILE, __LINE__, seconds);
  return false;
}

ClusterStatus KOLTMailNodeCluster::getClusterStatus() {
  if (!isClusterHealth(false)) return CLUSTER_STATUS_UNHEALTHY;
  if (!exist(kClusterStatusKey)) return CLUSTER_STATUS_NORMAL;
  std::string value;
  if (!getKey(kClusterStatusKey, value, true)) {
    maillog(3, "%s:%d Failed to get cluster staus key so though cluster is unhealth!!!!", QSV_FILE,
            __LINE__);
    return CLUSTER_STATUS_UNHEALTHY;
  }
  return static_cast<ClusterStatus>(boost::lexical_cast<int>(value));
}

void KOLTMailNodeCluster::setClusterStatus(ClusterStatus status) {
  if (status == CLUSTER_STATUS_NORMAL) {
    removeKey(kClusterStatusKey);
    return;
  }
  mailConfSet(kClusterStatusKey, std::to_string(static_cast<int>(status)), true, 0);
}

bool KOLTMailNodeCluster::isClusterSyncing() {
  if (!exist("service_change")) return false;
  std::vector<std::string> children;
  if (!ls("service_change", children)) {
    maillog(3, "%s:%d Failed to Ls(%s)", QSV_FILE, __LINE__, "service_change");
    return false;
  }
  return !children.empty();
}

void KOLTMailNodeCluster::suspendMailEventDispatcher() {
  if (!setKey(kSuspendKey, "yes", 0)) {
    maillog(3, "%s:%d Failed to set key [%s] to suspendMailEventDispatcher", QSV_FILE, __LINE__,
            kSuspendKey);
  }
}

void KOLTMailNodeCluster::unSuspendMailEventDispatcher() {
  if (!removeKey(kSuspendKey)) {
    maillog(3, "%s:%d Failed to rm key [%s] to unSuspendMailEventDispatcher", QSV_FILE, __LINE__,
            kSuspendKey);
  }
}

bool KOLTMailNodeCluster::isSuspendMailEventDispatcher() { return exist(kSuspendKey); }

}  // namespace QUILLON_SERVER
}  // namespace KOLT
