#include "config/imap_pop3.h"

#include "foundation/log.h"
#include "foundation/privilege.h"
#include "kolt/exec.h"

namespace {

constexpr char kDaemonScript[] = "/var/packages/Quillon-Server/target/scripts/daemon/dovecot.sh";

}  // namespace

ImapPop3::ImapPop3() {
  keys.push_back(Key<bool>("imap_enabled", false));
  keys.push_back(Key<bool>("imaps_enabled", false));
  keys.push_back(Key<bool>("pop3_enabled", false));
  keys.push_back(Key<bool>("pop3s_enabled", false));
  keys.push_back(Key<bool>("imap_pop3_security_auth", true));
  keys.push_back(Key<bool>("enable_dovecot_auth_deny", false));
  keys.push_back(Key<bool>("enable_dovecot_auth_local", false));
  keys.push_back(Key<bool>("fts_enabled", true));
  keys.push_back(Key<bool>("jieba_enabled", false));
  keys.push_back(Key<bool>("fts_member_limit", false));
  keys.push_back(Key<bool>("fts_member_default_allowed", true));
  keys.push_back(Key<std::string>("fts_allowed_user", ""));
  keys.push_back(Key<std::string>("fts_allowed_group", ""));
  keys.push_back(Key<std::string>("fts_forbidden_user", ""));
  keys.push_back(Key<std::string>("fts_forbidden_group", ""));
  keys.push_back(Key<int>("max_userip_conn", 30));
}

int ImapPop3::LoadSettings() { return Load(); }

int ImapPop3::SaveSettings(const std::list<Callback> &callbacks) {
  if (Save() < 0) {
    maillog(3, "%s:%d save config fail", QSV_FILE, __LINE__);
    return -1;
  }
  for (const Callback &callback : callbacks) {
    if (callback.func(callback.arg) < 0) {
      maillog(3, "%s:%d %s exec fail", QSV_FILE, __LINE__, callback.name.c_str());
      return -1;
    }
  }
  return 0;
}

int ImapPop3::Service(const std::string &action) {
  int rc;
  ENTERCriticalSection;
  rc = KLIBCExec(kDaemonScript, action.c_str(), nullptr, nullptr, 0);
  LEAVECriticalSection;
  return rc;
}
