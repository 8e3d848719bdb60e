// The master balancer: the one node that holds the balancer address and serves the file buffer.
#include <algorithm>

#include "cluster/mailserver_cluster.h"
#include "config/mail_conf.h"
#include "core/mail_conf.h"
#include "foundation/log.h"
#include "foundation/strings.h"
#include "foundation/service_alive.h"
#include "kolt/netif.h"

namespace KOLT {
namespace QUILLON_SERVER {

bool KOLTMailNodeCluster::calMasterBalancer(bool) {
  if (hostID_.empty()) {
    maillog(3, "%s:%d Failed to get hostID()", QSV_FILE, __LINE__);
    return false;
  }
  std::vector<std::string> balancers;
  listKeySplitByToken("balancer", balancers, " ");
  std::string aliveText;
  if (aliveServiceGet("mailserver_service_balancer", aliveText) < 0) {
    maillog(3, "%s:%d Failed to get serv %s", QSV_FILE, __LINE__, "mailserver_service_balancer");
    return false;
  }
  std::vector<std::string> alive;
  stringSplit(alive, aliveText, " ");

  std::string master;
  const bool amBalancer = std::find(balancers.begin(), balancers.end(), hostID_) != balancers.end();
  if (!isClusterHealth(false) && amBalancer) {
    // In a broken cluster a balancer trusts only itself.
    master = hostID_;
  } else {
    for (const std::string &id : balancers) {
      if (std::find(alive.begin(), alive.end(), idToIP(id)) != alive.end()) {
        master = id;
        break;
      }
    }
  }
  if (mailConfSet("balancer_master_node", master, true, 0) < 0) {
    maillog(3, "%s:%d Failed to set new master balancer ID to [%s]", QSV_FILE, __LINE__,
            master.c_str());
    return false;
  }
  for (const std::string &id : balancers) {
    if (!setServiceSync("mailserver_service_haproxy", id, true, 0, "")) {
      maillog(3, "%s:%d Failed to set %s sync done", QSV_FILE, __LINE__,
              "mailserver_service_haproxy");
    }
  }
  return true;
}

bool KOLTMailNodeCluster::getBalancerInfo(BalancerInfo &info) {
  std::string enable;
  if (mailConfGet("enable_balancer_address", enable) < 0) {
    maillog(3, "%s:%d Failed to get enable_balancer_address", QSV_FILE, __LINE__);
    return false;
  }
  info.enable = enable == "yes";
  if (!info.enable) return true;
  if (mailConfGet("balancer_address", info.address) < 0) {
    maillog(3, "%s:%d Failed to get balancer_address", QSV_FILE, __LINE__);
    return false;
  }
  if (mailConfGet("balancer_netmask", info.netmask) < 0) {
    maillog(3, "%s:%d Failed to get balancer_netmask", QSV_FILE, __LINE__);
    return false;
  }
  return true;
}

bool KOLTMailNodeCluster::setBalancerInfo(const BalancerInfo &info) {
  std::string current;
  if (mailConfGet("balancer_address", current) < 0) {
    maillog(3, "%s:%d Failed to get balancer IP", QSV_FILE, __LINE__);
    return false;
  }
  if (info.address != current && isConflicWithExistIP(info.address, true)) {
    errorCode_ = ERR_ADDRESS_CONFLICT;
    return false;
  }
  const std::map<std::string, std::string> keys = {
      {"enable_balancer_address", info.enable ? "yes" : "no"},
      {"balancer_address", info.address},
      {"balancer_netmask", info.netmask},
  };
  if (mailConfSet(keys) < 0) {
    maillog(3, "%s:%d Failed to set key balancer info", QSV_FILE, __LINE__);
    return false;
  }
  return true;
}

bool KOLTMailNodeCluster::isBalancerAddrInSameSubnet(const std::string &ip,
                                                     const std::string &netmask,
                                                     const std::string &ifName) {
  KOLTNETIF info;
  if (KOLTNetIFGetInfoEx(ifName.c_str(), &info) < 0) {
    maillog(3, "%s:%d failed to get info of network interface[%s]", QSV_FILE, __LINE__,
            ifName.c_str());
    return false;
  }
  if (!BlKLIBIsValidIpMask(info.ip, info.mask)) {
    maillog(3, "%s:%d network interface[%s] setting: ip[%s] netmask[%s] is not valid", QSV_FILE,
            __LINE__, ifName.c_str(), info.ip, info.mask);
    return false;
  }
  if (!BlKLIBIsValidIpMask(ip.c_str(), netmask.c_str())) {
    maillog(3, "%s:%d balancer setting: ip[%s] netmask[%s] is not valid", QSV_FILE, __LINE__,
            ip.c_str(), netmask.c_str());
    return false;
  }
  if (netmask != info.mask) {
    maillog(3, "%s:%d netmask [%s] and [%s] are not the same", QSV_FILE, __LINE__,
            netmask.c_str(), info.mask);
    return false;
  }
  return KOLTNetIsSameSubnet(ip.c_str(), info.ip, info.mask) == 1;
}

bool KOLTMailNodeCluster::isConflicWithExistIP(const std::string &ip, bool checkOwn) {
  std::vector<std::string> peers;
  listPeers(peers);
  for (const std::string &id : peers) {
    std::vector<std::string> addresses;
    listKeySplitByToken("node_ip_list-" + id, addresses, " ");
    if (std::find(addresses.begin(), addresses.end(), ip) != addresses.end()) return true;
  }
  if (checkOwn) {
    std::vector<std::string> own;
    if (!getNodeIPList(own)) {
      maillog(3, "%s:%d Failed to get node IP list", QSV_FILE, __LINE__);
    } else if (std::find(own.begin(), own.end(), ip) != own.end()) {
      return true;
    }
  }
  return false;
}

}  // namespace QUILLON_SERVER
}  // namespace KOLT
