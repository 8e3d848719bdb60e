#include "foundation/log_paths.h"

#include <unistd.h>

#include <cerrno>
#include <climits>
#include <cstring>

#include "foundation/log.h"
#include "kolt/fs.h"

namespace {

const char kPackageTarget[] = "/var/packages/Quillon-Server/target";

}  // namespace

std::string GetQuillonServerLogDirPath() {
  char target[PATH_MAX] = {0};
  const ssize_t length = readlink(kPackageTarget, target, sizeof(target) - 1);
  if (length < 0) {
    maillog(3, "%s:%d Failed to readlink %s error [%s]", QSV_FILE, __LINE__, kPackageTarget,
            strerror(errno));
    return "";
  }
  target[length] = '\0';
  const int volume = KOLTVolIDParse(target);
  if (volume < 0) {
    // The parser leaves errno alone: say what it refused.
    maillog(3, "%s:%d Failed to KOLTVolIDParse %s error [%s]", QSV_FILE, __LINE__, target,
            "not a volume path");
    return "";
  }
  return "/volume" + std::to_string(volume) + "/@maillog";
}

std::string GetPostfixLogPath() {
  const std::string dir = GetQuillonServerLogDirPath();
  return dir.empty() ? dir : dir + "/maillog";
}
