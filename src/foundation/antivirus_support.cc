#include "foundation/antivirus_support.h"

#include <sys/sysinfo.h>

#include <cerrno>
#include <cstring>

#include "foundation/log.h"

namespace {

constexpr unsigned long long kMinimumRam = 0x17FFFFFFULL;  // more than this: 384 MiB and up

}  // namespace

bool IsSupportAntiVirus() {
  struct sysinfo info;
  if (sysinfo(&info) != 0) {
    maillog(3, "%s:%d get sysinfo fail, %s", QSV_FILE, __LINE__, strerror(errno));
    return false;
  }
  return static_cast<unsigned long long>(info.totalram) * info.mem_unit > kMinimumRam;
}
