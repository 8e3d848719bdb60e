#include "foundation/account_db_paths.h"

#include "core/mail_dir.h"
#include "foundation/log.h"

namespace {

const char kEtcDir[] = "/var/packages/Quillon-Server/etc/";

int AccountDbPath(const char *suffix, std::string &path) {
  std::string domain;
  if (smtpAccountDomainGet(domain) != 0) {
    maillog(3, "%s:%d smtpAccountDomainGet fail", QSV_FILE, __LINE__);
    return -1;
  }
  path = kEtcDir + domain + suffix;
  return 0;
}

}  // namespace

int GetUserGrouPolicyConfigPath(std::string &path) { return AccountDbPath(".ugp.db", path); }

int GetUserGroupDelegationConfigPath(std::string &path) {
  return AccountDbPath(".delegation.db", path);
}
