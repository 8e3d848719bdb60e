// Service sync flags: a key per node and service under "service_change/" that lives while the
// service on that node has yet to take up a changed setting.
#include <unistd.h>

#include <cstdlib>
#include <cstring>

#include "cluster/mailserver_cluster.h"
#include "config/mail_conf.h"
#include "core/key_tree_store.h"
#include "core/mail_conf.h"
#include "foundation/log.h"

namespace KOLT {
namespace QUILLON_SERVER {
namespace {

const char kServiceStatusDir[] = "/tmp/quillon_server/service_status/";

std::string SyncKey(const std::string &service, const std::string &nodeId,
                    const std::string &tag) {
  return "service_change/serv_status-" + nodeId + "|" + service + "|" + tag;
}

}  // namespace

bool KOLTMailNodeCluster::setServiceSync(const std::string &service, const std::string &nodeId,
                                         bool done, int ttl, const std::string &tag) {
  const std::string key = SyncKey(service, nodeId, tag);
  if (!done) {
    if (!isClusterHealth(true)) {
      maillog(7, "%s:%d Failed to setServiceSync() serv[%s] due to cluster unhealth", QSV_FILE,
              __LINE__, service.c_str());
      return false;
    }
    if (mailConfSet(key, service, true, ttl) < 0) {
      maillog(3, "%s:%d Failed to set serv syncing key[%s]", QSV_FILE, __LINE__, key.c_str());
      return false;
    }
    return true;
  }

  const bool healthy = isClusterHealth(true);
  if (healthy && exist(key)) {
    // A service in error gets a few seconds to recover before its flag is lowered anyway.
    for (int round = 0; round < 6; ++round) {
      std::map<std::string, ServStatus> status;
      if (!getService(service, status)) {
        maillog(3, "%s:%d Failed to get service [%s] status", QSV_FILE, __LINE__,
                service.c_str());
      }
      const auto node = status.find(idToIP(nodeId));
      if (node == status.end() || node->second != SERV_STATUS_ERROR) break;
      sleep(1);
    }
  }
  // The store's key goes under the mirror's lock, as it came: lowered outside it, a raise of the
  // same flag in between (the next change of a writer here) would lose its mirror member, and the
  // watcher would take this node's own flag for a peer's.
  bool removed = false;
  dumpMailConfToFile(toLeagalFileName(key), key, "", true, true, kMailConfDir, 0, false,
                     [this, &removed](const std::string &flag, const std::string &,
                                      const std::string &, bool, int, bool) {
                       removed = removeStoreKey(flag);
                       return 1;
                     });
  // A damaged mirror stops the write before that: the flag must go all the same, or membership
  // changes would wait for it forever.
  if (!removed) removeStoreKey(key);
  if (!healthy) {
    maillog(3,
            "%s:%d Failed to setServiceSync() serv[%s] Done due to cluster unhealth but remove "
            "local cached",
            QSV_FILE, __LINE__, service.c_str());
    return false;
  }
  return true;
}

bool KOLTMailNodeCluster::isServiceSync(const std::string &service, const std::string &nodeId,
                                        const std::string &tag) {
  const std::string fileName = toLeagalFileName("service_change");
  Json::Value mirror;
  if (loadMailJsonFromFile(fileName, mirror, kMailConfDir) != 0 || !mirror.isObject()) {
    maillog(3, "%s:%d Failed to loadMailConfFromFile fileName:[%s]", QSV_FILE, __LINE__,
            fileName.c_str());
    return false;
  }
  const std::string key = SyncKey(service, nodeId, tag);
  bool mirrored = false;
  for (const std::string &member : mirror.getMemberNames()) {
    if (strncmp(member.c_str(), key.c_str(), member.size()) == 0) {
      mirrored = true;
      break;
    }
  }
  if (!mirrored) return false;
  if (exist(key)) return true;
  // The flag is gone from the store: the mirror is stale.
  if (!setServiceSync(service, nodeId, true, 0, tag)) {
    maillog(3, "%s:%d Failed to setServiceSync done of [servName:%s nodeID:%s tag:%s]", QSV_FILE,
            __LINE__, service.c_str(), nodeId.c_str(), tag.c_str());
  }
  return false;
}

bool KOLTMailNodeCluster::getService(const std::string &service,
                                     std::map<std::string, ServStatus> &status) {
  std::vector<std::string> ids;
  listKeySplitByToken(KeyTreeStore::instance()->roleGet(service), ids, " ");
  const std::string path = kServiceStatusDir + service;
  if (access(path.c_str(), F_OK) != 0) {
    for (const std::string &id : ids) status[idToIP(id)] = SERV_STATUS_RUNNING;
    return true;
  }
  Json::Value json;
  if (loadMailJsonFromFile(service, json, kServiceStatusDir) != 0 || !json.isObject()) {
    maillog(3, "%s:%d Failed to load config [%s]", QSV_FILE, __LINE__, path.c_str());
    return false;
  }
  for (const std::string &id : ids) {
    ServStatus state = SERV_STATUS_RUNNING;
    const Json::Value &entry = json[id];
    if (isServiceSync(service, id, "") || isServiceSync(service, id, "dsync")) {
      state = SERV_STATUS_SYNCING;
    } else if (entry.isConvertibleTo(Json::stringValue) && !entry.asString().empty()) {
      const int number = atoi(entry.asString().c_str());
      state = number == 0 ? SERV_STATUS_STOPPED
                          : number == 1 ? SERV_STATUS_RUNNING : SERV_STATUS_ERROR;
    }
    status[idToIP(id)] = state;
  }
  return true;
}

}  // namespace QUILLON_SERVER
}  // namespace KOLT
