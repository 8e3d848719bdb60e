#include "foundation/service_alive.h"

#include <map>
#include <vector>

#include "cluster/mailserver_cluster.h"
#include "foundation/log.h"

using KOLT::QUILLON_SERVER::KOLTMailNodeCluster;
using KOLT::QUILLON_SERVER::ServStatus;

int aliveServiceGet(const std::string &service, std::string &value) {
  KOLTMailNodeCluster cluster;
  std::map<std::string, ServStatus> status;
  if (!cluster.getService(service, status)) {
    maillog(3, "%s:%d Failed to getService [%s]", QSV_FILE, __LINE__, service.c_str());
    return -1;
  }
  value.clear();
  for (const auto &node : status) {
    if (node.second != 0) continue;
    if (!value.empty()) value += " ";
    value += node.first;
  }
  return 0;
}

int checkAAStructure() {
  KOLTMailNodeCluster cluster;
  std::vector<std::string> ips;
  if (!cluster.listPeersIP(ips)) {
    maillog(3, "%s:%d Failed to list peers so not update firewall", QSV_FILE, __LINE__);
    return -1;
  }
  size_t count = 0;
  for (const std::string &ip : ips) count += ip.empty() ? 0 : 1;
  if (count == 0) {
    maillog(3, "%s:%d Wrong id size %zu", QSV_FILE, __LINE__, count);
    return -1;
  }
  return count == 1 ? 0 : 1;
}
