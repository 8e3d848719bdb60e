// The node's daemons and firewall, run through the package's scripts with root rights.
#include "cluster/mailserver_cluster.h"
#include "core/key_tree_store.h"
#include "foundation/log.h"
#include "foundation/privilege.h"
#include "kolt/exec.h"

namespace KOLT {
namespace QUILLON_SERVER {

const char *szgMailFWServices[] = {
    "mail_haproxy_smtp", "mail_haproxy_smtp_ssl", "mail_haproxy_smtp_tls", "mail_smtp",
    "mail_smtps",        "mail_smtp_tls",         "mail_pop3",             "mail_pop3s",
    "mail_imap",         "mail_imaps",            nullptr,
};

namespace {

const char kClusterDaemon[] = "/var/packages/Quillon-Server/target/scripts/ClusterDaemon.sh";
const char kFirewall[] = "/var/packages/Quillon-Server/target/scripts/firewall.sh";
constexpr int kQuietWait = 187;

// Runs ClusterDaemon.sh with one or two words as root; false and a log line on a non-zero exit.
bool RunDaemonScript(const char *word, const char *extra = nullptr) {
  int rc;
  ENTERCriticalSection;
  rc = KLIBCExecl(kClusterDaemon, kQuietWait, word, extra, static_cast<char *>(nullptr));
  LEAVECriticalSection;
  if (rc != 0) {
    maillog(3, "%s:%d Failed to %s %s, err: %d", QSV_FILE, __LINE__, kClusterDaemon, word, rc);
    return false;
  }
  return true;
}

}  // namespace

bool KOLTMailNodeCluster::setRoleServSync(NodeRole role, const std::string &nodeId, bool done) {
  std::vector<std::string> services;
  KeyTreeStore *store = KeyTreeStore::instance();
  store->roleToServ(role, services);
  for (const std::string &service : services) {
    if (!setServiceSync(service, nodeId, done, 30, store->getServScript(service))) {
      maillog(3, "%s:%d Failed to setServiceSync of %s, but continue", QSV_FILE, __LINE__,
              service.c_str());
    }
  }
  return true;
}

bool KOLTMailNodeCluster::deregisterServ(const std::string &service, const std::string &serverId) {
  return KLIBCExecl(kBackendTool, kQuietWait, "quillon_server_command", "--deregister",
                    "--service_name", service.c_str(), "--server_id", serverId.c_str(),
                    static_cast<char *>(nullptr)) == 0;
}

bool KOLTMailNodeCluster::deregisterNodeServ(const std::string &nodeId) {
  std::vector<std::string> services;
  for (int role = NODE_ROLE_MAILER; role <= NODE_ROLE_BALANCER; ++role) {
    KeyTreeStore::instance()->roleToServ(role, services);
  }
  for (const std::string &service : services) {
    if (!deregisterServ(service, nodeId)) {
      maillog(3, "%s:%d Failed to deregister service [%s] server id [%s]", QSV_FILE, __LINE__,
              service.c_str(), nodeId.c_str());
    }
  }
  return true;
}

bool KOLTMailNodeCluster::refreshFirewall(const std::vector<std::string> &ips) {
  if (ips.empty()) {
    maillog(3, "%s:%d There are no ip!!!!!", QSV_FILE, __LINE__);
    return true;
  }
  std::string list;
  for (const std::string &ip : ips) list += (list.empty() ? "" : " ") + ip;
  int rc;
  ENTERCriticalSection;
  rc = KLIBCExecl(kFirewall, kQuietWait, "start", list.c_str(), static_cast<char *>(nullptr));
  LEAVECriticalSection;
  if (rc == 0) return true;
  maillog(3, "%s:%d Failed to %s start [%s]", QSV_FILE, __LINE__, kFirewall, list.c_str());
  // A half-applied rule set is worse than none.
  {
    ENTERCriticalSection;
    KLIBCExecl(kFirewall, kQuietWait, "stop", static_cast<char *>(nullptr));
    LEAVECriticalSection;
  }
  return false;
}

bool KOLTMailNodeCluster::start(const std::map<std::string, std::vector<std::string>> &nodeIps) {
  std::vector<std::string> ips;
  for (const auto &node : nodeIps) ips.insert(ips.end(), node.second.begin(), node.second.end());
  if (!refreshFirewall(ips)) {
    std::string list;
    for (const std::string &ip : ips) list += (list.empty() ? "" : " ") + ip;
    maillog(3, "%s:%d Failed to refresh firewall [%s]", QSV_FILE, __LINE__, list.c_str());
    return false;
  }
  return RunDaemonScript("start");
}

bool KOLTMailNodeCluster::stop() { return RunDaemonScript("stop"); }

bool KOLTMailNodeCluster::watchRestart(bool restore) {
  return RunDaemonScript("watch_restart", restore ? nullptr : "--no_restore");
}

bool KOLTMailNodeCluster::backendRestart() { return RunDaemonScript("backend_restart"); }

}  // namespace QUILLON_SERVER
}  // namespace KOLT
