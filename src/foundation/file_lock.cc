#include "foundation/file_lock.h"

#include <fcntl.h>
#include <sys/file.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>

#include "foundation/log.h"
#include "kolt/err.h"
#include "kolt/user.h"

namespace {

// The codes the callers print with "[0x%04X %s:%d]".
constexpr int kErrBadParam = 0xD00;
constexpr int kErrOpen = 0x900;
constexpr int kErrLock = 0x400;
constexpr int kErrUnlock = 0x500;
constexpr int kErrClose = 0xE300;

const char kPackageUser[] = "Quillon-Server";

}  // namespace

BOOL qvsFileLockByFile(const char *path, BOOL exclusive, int *fd) {
  if (path == nullptr || fd == nullptr) {
    KLIBC_ERR_SET(kErrBadParam);
    return FALSE;
  }
  // O_NONBLOCK only keeps the open from hanging on a FIFO put in the lock's place; flock below
  // waits all the same.
  *fd = open(path, O_RDWR | O_CREAT | O_NONBLOCK | O_CLOEXEC, 0666);
  if (*fd < 0) {
    KLIBC_ERR_SET(kErrOpen);
    *fd = -1;
    return FALSE;
  }
  int rc;
  do {
    rc = flock(*fd, exclusive ? LOCK_EX : LOCK_SH);
  } while (rc != 0 && errno == EINTR);
  if (rc != 0) {
    KLIBC_ERR_SET(kErrLock);
    close(*fd);
    *fd = -1;
    return FALSE;
  }
  uid_t uid;
  gid_t gid;
  if (KOLTUserGetUGID(kPackageUser, &uid, &gid) != 0) {
    maillog(3, "%s:%d Failed to chown [%s] error [%s]", QSV_FILE, __LINE__, path,
            "no such user");
  } else if (fchown(*fd, uid, gid) != 0) {
    maillog(3, "%s:%d Failed to chown [%s] error [%s]", QSV_FILE, __LINE__, path, strerror(errno));
  }
  return TRUE;
}

BOOL qvsFileUnlockByFile(int fd) {
  if (fd < 0) {
    KLIBC_ERR_SET(kErrBadParam);
    return FALSE;
  }
  if (flock(fd, LOCK_UN) != 0) {
    KLIBC_ERR_SET(kErrUnlock);
    close(fd);  // the descriptor is the caller's last hold on it either way
    return FALSE;
  }
  if (close(fd) != 0) {
    KLIBC_ERR_SET(kErrClose);
    return FALSE;
  }
  return TRUE;
}
