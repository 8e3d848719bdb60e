// What follows a change of the active member list: the package's hooks for it, then the group
// cache of the IMAP server. Safe from any thread; the programs it runs order themselves.
#ifndef MAILSERVER_PERSONAL_ACTIVATE_HOOK_H_
#define MAILSERVER_PERSONAL_ACTIVATE_HOOK_H_

#include "foundation/export.h"

// Runs the hooks of "/var/packages/Quillon-Server/target/hook/penholder_active_user_list_hook/"
// (see ExecHookInDir), then "/var/packages/Quillon-Server/target/bin/kolt_gen_dovecot_group_cache
// generate", whatever the hooks did. 0 when all of it went well, else -1.
QSV_EXPORT int ActiveUserListHookAction();

#endif  // MAILSERVER_PERSONAL_ACTIVATE_HOOK_H_
