// Bringing a new member up to date: its mailboxes, the anti-spam databases this node has
// learnt, and the files whose sync it may have missed.
#include <unistd.h>

#include <json/json.h>

#include "cluster/mailserver_cluster.h"
#include "config/postfix.h"
#include "config/mail_conf.h"
#include "core/mail_conf.h"
#include "foundation/log.h"
#include "foundation/privilege.h"
#include "kolt/exec.h"
#include "webapi/web_api_request.h"

namespace KOLT {
namespace QUILLON_SERVER {
namespace {

const char kMailSync[] = "/var/packages/Quillon-Server/target/backend_hook/scripts/mailSync.py";
const char kResync[] =
    "/var/packages/Quillon-Server/target/backend_hook/scripts/reSyncfileFromLog.py";
const char kSpamDestDir[] = "/var/spool/mail/spamassassin/";
const char kSpamLogDir[] = "/var/spool/@Quillon-Server/MailScanner/spamassassin/";
const char kMethod[] = "sync_conf_file";
constexpr int kQuietWait = 187;

// Sends one file to the request service of the node at `ip`.
bool SyncConfFile(const std::string &ip, const std::string &path, const std::string &destDir,
                  const std::string &owner, const std::string &group, const std::string &perm) {
  Json::Value request(Json::objectValue);
  request["api"] = "KOLT.QuillonServer.Cluster";
  request["version"] = 1;
  request["method"] = kMethod;
  request["params"]["dest_dir"] = destDir;
  request["params"]["file_onwer"] = owner;
  request["params"]["file_group"] = group;
  request["params"]["file_perm"] = perm;
  request["file"]["file_key"] = "file";
  request["file"]["file_path"] = path;
  Json::Value response;
  bool sent = false;
  IF_RUN_AS(0, 0) {
    if (geteuid() != 0 || getegid() != 0) {
      maillog(3, "%s:%d Failed to run as root uid:%d gid:%d euid:%d egid:%d", QSV_FILE, __LINE__,
              getuid(), getgid(), geteuid(), getegid());
      return false;
    }
    sent = WebAPIRequest(ip, request, response);
  }
  if (!sent) {
    maillog(3, "%s:%d WebAPIRequest fail for %s, method = %s", QSV_FILE, __LINE__, ip.c_str(),
            kMethod);
    return false;
  }
  if (!response["success"].asBool()) {
    maillog(3, "%s:%d WebAPIRequest fail for %s, method = %s, errCode = %d", QSV_FILE, __LINE__,
            ip.c_str(), kMethod, response["error"]["code"].asInt());
    return false;
  }
  return true;
}

}  // namespace

bool KOLTMailNodeCluster::syncMail(const std::string &ip) {
  ipToID(ip);
  while (!isClusterHealth(false)) {
    maillog(7, "%s:%d Wait cluster become health and then start syncing mail...", QSV_FILE,
            __LINE__);
    sleep(3);
  }
  Postfix postfix;
  std::string domain;
  try {
    if (postfix.LoadSettings() >= 0) {
      domain = boost::any_cast<Value<std::string>>(postfix.Get("smtp_main_domain")).value;
    }
  } catch (const boost::bad_any_cast &) {
    domain.clear();
  }
  if (domain.empty()) {
    maillog(3, "%s:%d Failed to get smtp domain name", QSV_FILE, __LINE__);
    return false;
  }
  int rc;
  ENTERCriticalSection;
  rc = KLIBCExecl(kMailSync, kQuietWait, "-d", domain.c_str(), "-s", ip.c_str(), "-p", "24245",
                  static_cast<char *>(nullptr));
  LEAVECriticalSection;
  if (rc != 0) {
    maillog(3, "%s:%d Failed to sync mail", QSV_FILE, __LINE__);
    return false;
  }
  return true;
}

bool KOLTMailNodeCluster::syncSpamConfig(const std::string &ip, const std::string &,
                                         const std::string &, const std::string &, int) {
  std::string volume;
  if (mailConfGet("general_storage_volume-" + hostID_, volume) < 0 || volume.empty()) {
    maillog(3, "%s:%d Failed to get volume path", QSV_FILE, __LINE__);
    return false;
  }
  std::string peerVolume;
  if (mailConfGet("general_storage_volume-" + ipToID(ip), peerVolume) < 0 || peerVolume.empty()) {
    maillog(3, "%s:%d Failed to get volume path", QSV_FILE, __LINE__);
    return false;
  }
  // The volume name is read back from the store: a plain name, or the path goes elsewhere.
  if (volume.find('/') != std::string::npos || volume == "." || volume == "..") {
    maillog(3, "%s:%d Failed to get volume path", QSV_FILE, __LINE__);
    return false;
  }
  const std::string source = "/" + volume + "/Quillon/spamassassin/";
  for (const char *name : {"bayes_toks", "bayes_seen", "tx-reputation"}) {
    // The databases are private to the filter: the peer's owner and group, not everyone.
    if (!SyncConfFile(ip, source + name, kSpamDestDir, "postfix", "root", "0640")) {
      maillog(3, "%s:%d Failed to sync file %s", QSV_FILE, __LINE__,
              (std::string(kSpamLogDir) + name).c_str());
      return false;
    }
  }
  if (mailConfSet("sync_spam_db", std::to_string(time(nullptr)), true, 0) != 0) {
    maillog(3, "%s:%d Failed to trigger event to chown spamassassin DB", QSV_FILE, __LINE__);
  }
  return true;
}

bool KOLTMailNodeCluster::syncConfig(const std::string &ip, const std::string &a,
                                     const std::string &b, const std::string &c, int d) {
  const bool spamSynced = syncSpamConfig(ip, a, b, c, d);
  if (!spamSynced) maillog(3, "%s:%d Failed to sync spam config", QSV_FILE, __LINE__);
  int rc;
  ENTERCriticalSection;
  rc = KLIBCExecl(kResync, kQuietWait, static_cast<char *>(nullptr));
  LEAVECriticalSection;
  return spamSynced && rc == 0;
}

}  // namespace QUILLON_SERVER
}  // namespace KOLT
