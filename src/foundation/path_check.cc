#include "foundation/path_check.h"

#include <climits>
#include <cstdlib>
#include <cstring>

#include "foundation/privilege.h"

const char *szgAllowPrefix[] = {
    "/usr/kolt/etc/packages/Quillon-Server",
    "/var/packages/Quillon-Server/target/etc",
    "/var/packages/Penholder/target/etc",
    "/var/packages/Penholder/etc",
    "/var/spool/mail",
    nullptr,
};

const char *szgAllowScriptPrefix[] = {
    "/var/packages/Quillon-Server/target/backend_hook/scripts",
    "/var/packages/Penholder/target/scripts",
    nullptr,
};

bool checkPathValid(const char **prefixes, const char *path) {
  if (path == nullptr || prefixes == nullptr || prefixes[0] == nullptr) return false;
  for (const char **prefix = prefixes; *prefix != nullptr; ++prefix) {
    char resolved[PATH_MAX] = {0};
    bool exists = false;
    // The package's directories aren't all readable by the caller's effective user.
    IF_RUN_AS(0, 0) { exists = realpath(*prefix, resolved) != nullptr; }
    if (!exists) continue;
    size_t length = strlen(resolved);
    if (strncmp(path, resolved, length) != 0) continue;
    if (length > 0 && resolved[length - 1] == '/') --length;  // the prefix "/"
    if (path[length] == '\0' || path[length] == '/') return true;
  }
  return false;
}
