#include "config/version.h"

#include "cluster/mailserver_cluster.h"
#include "foundation/log.h"

using KOLT::QUILLON_SERVER::KOLTMailNodeCluster;

const std::vector<QuillonServerVersion::VersionType> QuillonServerVersion::gVersionList = {
    {"cluster", "version_cluster-", "3"},
};

int QuillonServerVersion::SetQuillonServerVersion() {
  KOLTMailNodeCluster cluster;
  if (!cluster.isClusterInited()) {
    maillog(3, "%s:%d Cluster isn't init", QSV_FILE, __LINE__);
    return -1;
  }
  const std::string hostId = cluster.getHostID();
  for (const VersionType &row : gVersionList) {
    const std::string key = row.keyPrefix + hostId;
    if (!cluster.setKey(key, row.version, 0)) {
      maillog(3, "%s:%d Failed to set key '%s'", QSV_FILE, __LINE__, key.c_str());
      return -1;
    }
  }
  return 0;
}

int QuillonServerVersion::CheckQuillonServerVersion() {
  KOLTMailNodeCluster cluster;
  if (!cluster.isClusterInited()) {
    maillog(3, "%s:%d Cluster isn't init", QSV_FILE, __LINE__);
    return -1;
  }
  std::vector<std::string> peers;
  if (!cluster.listPeers(peers)) {
    maillog(3, "%s:%d list peers fail", QSV_FILE, __LINE__);
    return -1;
  }
  const std::string hostId = cluster.getHostID();
  for (const VersionType &row : gVersionList) {
    if (!cluster.exist(row.keyPrefix + hostId) && SetQuillonServerVersion() != 0) {
      maillog(3, "%s:%d Cannot SetQuillonServerVersion", QSV_FILE, __LINE__);
      return -1;
    }
  }
  for (const std::string &peer : peers) {
    for (const VersionType &row : gVersionList) {
      const std::string key = row.keyPrefix + peer;
      // A peer that never published is behind, not broken: the caller should wait for it.
      if (!cluster.exist(key)) {
        maillog(3, "%s:%d no key '%s'", QSV_FILE, __LINE__, key.c_str());
        return 1;
      }
      std::string value;
      if (!cluster.getKey(key, value, false)) {
        maillog(3, "%s:%d Failed to get key '%s'", QSV_FILE, __LINE__, key.c_str());
        return -1;
      }
      if (value != row.version) {
        maillog(3, "%s:%d %s: version %s != version %s", QSV_FILE, __LINE__, peer.c_str(),
                value.c_str(), row.version.c_str());
        return 1;
      }
    }
  }
  return 0;
}
