// The login map of the mail daemons, which the package's generator program writes from the user
// accounts. Safe from any thread; concurrent runs are ordered by the generator itself.
#ifndef MAILSERVER_FOUNDATION_LOGIN_MAP_H_
#define MAILSERVER_FOUNDATION_LOGIN_MAP_H_

#include <string>

#include "foundation/export.h"

// Runs /var/packages/Quillon-Server/target/bin/kolt_gen_login_map and waits for it, with
// `argument` as its one argument (none when empty). 0 when it exits 0, else -1.
QSV_EXPORT int GenLoginMap(const std::string &argument);

#endif  // MAILSERVER_FOUNDATION_LOGIN_MAP_H_
