// The databases of user group policies and of delegated administration, one of each per account
// domain of the server, so that a server moved to another directory starts with its own. Reads
// the settings afresh on every call: safe from any thread.
#ifndef MAILSERVER_FOUNDATION_ACCOUNT_DB_PATHS_H_
#define MAILSERVER_FOUNDATION_ACCOUNT_DB_PATHS_H_

#include <string>

#include "foundation/export.h"

// "/var/packages/Quillon-Server/etc/" + the account domain + ".ugp.db". 0, or -1 with `path` left
// alone.
QSV_EXPORT int GetUserGrouPolicyConfigPath(std::string &path);

// The same with ".delegation.db".
QSV_EXPORT int GetUserGroupDelegationConfigPath(std::string &path);

#endif  // MAILSERVER_FOUNDATION_ACCOUNT_DB_PATHS_H_
