#include "personal/activate_hook.h"

#include "foundation/hook_dir.h"
#include "foundation/log.h"
#include "kolt/exec.h"

namespace {

constexpr char kHookDir[] = "/var/packages/Quillon-Server/target/hook/penholder_active_user_list_hook/";
constexpr char kGroupCache[] = "/var/packages/Quillon-Server/target/bin/kolt_gen_dovecot_group_cache";

}  // namespace

int ActiveUserListHookAction() {
  int result = 0;
  if (ExecHookInDir(kHookDir) != 0) {
    maillog(3, "%s:%d cannot execute list hook over", QSV_FILE, __LINE__);
    result = -1;
  }
  // The cache tool says itself, in the system log, why it could not write the cache.
  const int rc = KLIBCExec(kGroupCache, "generate", nullptr, nullptr, 0);
  if (rc < 0) {
    maillog(3, "%s:%d failed to execute [%s]", QSV_FILE, __LINE__, kGroupCache);
  }
  return rc == 0 ? result : -1;
}
