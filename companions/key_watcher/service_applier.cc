#include "service_applier.h"

#include <syslog.h>

#include <vector>

#include "cluster/mailserver_cluster.h"
#include "config/imap_pop3.h"
#include "config/mailscanner.h"
#include "config/postfix.h"
#include "core/key_tree_store.h"
#include "core/mail_conf.h"
#include "kolt/exec.h"

using KOLT::QUILLON_SERVER::KeyTreeStore;
using KOLT::QUILLON_SERVER::KOLTMailNodeCluster;

namespace keywatcher {

const char kServiceFlagPrefix[] = "service_change/serv_status-";

namespace {

// The reload of `service` on this node: its exit status, or -1 for a service this package doesn't
// run (the proxy and the balancer address live outside it: nothing here has to take them up).
int Reload(const std::string &service, bool *known) {
  *known = true;
  if (service == "mailserver_service_postfix") return Postfix::Service("reload");
  if (service == "mailserver_service_dovecot") return ImapPop3::Service("reload");
  if (service == "mailserver_service_spam") {
    return KLIBCExec("/var/packages/Quillon-Server/target/scripts/SpamDaemon.sh", "reload",
                     nullptr, nullptr, KLIBC_EXEC_QUIET_WAIT);
  }
  if (service == "mailserver_service_antivirus") return MailScanner::AntiVirusService("reload");
  *known = false;
  return -1;
}

// Whether this node's own writer raised `key`: a writer applies its change to its own services
// itself (the callbacks of its save), and a second reload from here would race with it. The
// writer keeps the lock of the flags' mirror from the store's write to the mirror's, so under
// that lock the mirror already holds every flag this node has published.
bool RaisedHere(const std::string &key) {
  const std::string fileName = toLeagalFileName("service_change");
  int fd = -1;
  mailConfigLockGet(fileName, 0, fd);
  Json::Value mirror;
  const bool here = loadMailJsonFromFile(fileName, mirror, kMailConfDir) == 0 &&
                    mirror.isObject() && mirror.isMember(key);
  mailConfigLockRelease(fd);
  return here;
}

// Whether this node holds the role whose nodes run `service`.
bool RunsHere(const std::string &service, const std::string &hostId) {
  std::vector<std::string> ids;
  KOLTMailNodeCluster().listKeySplitByToken(KeyTreeStore::instance()->roleGet(service), ids, " ");
  for (const std::string &id : ids) {
    if (id == hostId) return true;
  }
  return false;
}

}  // namespace

void TakeUpServiceFlag(Reader *reader, const std::string &key, const std::string &hostId) {
  // ID|SERVICE|TAG, read back from the store: each part is checked against what this node would
  // have written itself before anything is run for it.
  const std::string rest = key.substr(0, sizeof(kServiceFlagPrefix) - 1) == kServiceFlagPrefix
                               ? key.substr(sizeof(kServiceFlagPrefix) - 1)
                               : std::string();
  const size_t first = rest.find('|');
  const size_t second = first == std::string::npos ? first : rest.find('|', first + 1);
  if (second == std::string::npos || hostId.empty() || rest.compare(0, first, hostId) != 0 ||
      first != hostId.size()) {
    return;
  }
  const std::string service = rest.substr(first + 1, second - first - 1);
  const std::string tag = rest.substr(second + 1);
  KeyTreeStore *tree = KeyTreeStore::instance();
  // A changed setting raises the flag without a tag, a role change with the service's own.
  if (tree->roleGet(service).empty() || (!tag.empty() && tag != tree->getServScript(service))) {
    syslog(LOG_ERR, "ignored the sync flag %s: no service of this package", key.c_str());
    return;
  }
  std::string value;
  if (!reader->Get(key, &value)) return;  // lowered meanwhile, or run out
  bool known = false;
  if (RaisedHere(key)) {
    syslog(LOG_INFO, "lowered %s: raised by this node, whose writer applies it", key.c_str());
  } else if (RunsHere(service, hostId)) {
    const int rc = Reload(service, &known);
    if (!known) {
      syslog(LOG_INFO, "lowered %s: no daemon of this package to reload", key.c_str());
    } else if (rc != 0) {
      syslog(LOG_ERR, "reload of %s failed (%d)", service.c_str(), rc);
    } else {
      syslog(LOG_INFO, "reloaded %s for %s", service.c_str(), key.c_str());
    }
  }
  // A service whose reload failed has its flag lowered too: the flag only says that a change is
  // pending, and the service's own status tells the failure.
  KOLTMailNodeCluster().setServiceSync(service, hostId, true, 0, tag);
}

void CatchUpServiceFlags(Reader *reader, const std::string &hostId) {
  if (hostId.empty()) return;
  std::vector<std::string> keys;
  if (!reader->Keys(std::string(kServiceFlagPrefix) + hostId + "|*", &keys)) return;
  for (const std::string &key : keys) TakeUpServiceFlag(reader, key, hostId);
}

}  // namespace keywatcher
