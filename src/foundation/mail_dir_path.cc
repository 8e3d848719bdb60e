#include "foundation/mail_dir_path.h"

#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <string>

#include "core/mail_dir.h"
#include "foundation/log.h"
#include "foundation/privilege.h"
#include "kolt/fs.h"

namespace {

// Mail is the user's and the mail daemons' (group) business only.
constexpr mode_t kMailDirMode = 0770;

}  // namespace

int mailDirPathCreate(unsigned int uid, unsigned int gid) {
  std::string path;
  if (mailDirGet(uid, path) != 0) {
    maillog(3, "%s:%d Failed to get mailDir of uid [%d]", QSV_FILE, __LINE__,
            static_cast<int>(uid));
    return -1;
  }
  int rc;
  int error;
  ENTERCriticalSection;
  rc = KOLTFSMkdirP(path.c_str(), 0, 1, 0, 0, kMailDirMode);
  error = errno;
  LEAVECriticalSection;
  if (rc != 0) {
    maillog(3, "%s:%d Failed to create path:[%s] error:[%s]", QSV_FILE, __LINE__, path.c_str(),
            strerror(error));
    return -1;
  }
  {
    ENTERCriticalSection;
    rc = chown(path.c_str(), uid, gid);
    error = errno;
    LEAVECriticalSection;
  }
  if (rc != 0) {
    maillog(3, "%s:%d Failed to chown [%s] error [%s]", QSV_FILE, __LINE__, path.c_str(),
            strerror(error));
    return -1;
  }
  return 0;
}
