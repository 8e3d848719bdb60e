#include "foundation/privilege.h"

#include <cerrno>
#include <cstring>
#include <syslog.h>

namespace {

// A failed step of a bracket is an authorization error. A run-as guard that can't put the ids back
// leaves the process with ids nobody asked for, which is worse.
constexpr int kBracketFailedPriority = LOG_AUTH | LOG_ERR;    // 35
constexpr int kRestoreFailedPriority = LOG_AUTH | LOG_CRIT;   // 34

constexpr uid_t kNoUid = static_cast<uid_t>(-1);
constexpr gid_t kNoGid = static_cast<gid_t>(-1);

}  // namespace

void qsvEnterCriticalSection(uid_t savedEuid, gid_t savedEgid, const char *file, int line) {
  // Group first: once the user id is no longer 0 the group can no longer be changed freely.
  bool ok = true;
  if (savedEgid != 0 && setresgid(kNoGid, 0, kNoGid) != 0) {
    ok = false;
  } else if (savedEuid != 0 && setresuid(kNoUid, 0, kNoUid) != 0) {
    ok = false;
  }
  if (ok) {
    errno = 0;
    return;
  }
  errno = 1;
  syslog(kBracketFailedPriority, "%s:%d ERROR: ENTERCriticalSection", file, line);
}

void qsvLeaveCriticalSection(uid_t savedEuid, gid_t savedEgid, const char *file, int line) {
  const uid_t euid = geteuid();
  const gid_t egid = getegid();
  bool ok = true;
  if (euid != savedEuid) {
    // Become root again first: only root may set the group back before dropping the user.
    if (setresuid(kNoUid, 0, kNoUid) != 0) {
      ok = false;
    } else if (egid != savedEgid && setresgid(kNoGid, savedEgid, kNoGid) != 0) {
      ok = false;
    } else if (setresuid(kNoUid, savedEuid, kNoUid) != 0) {
      ok = false;
    }
  } else if (egid != savedEgid && setresgid(kNoGid, savedEgid, kNoGid) != 0) {
    ok = false;
  }
  if (ok) {
    errno = 0;
    return;
  }
  errno = 1;
  syslog(kBracketFailedPriority, "%s:%d ERROR: LEAVECriticalSection", file, line);
}

RunAsScope::RunAsScope(uid_t uid, gid_t gid, const char *file, int line)
    : savedEuid_(geteuid()), savedEgid_(getegid()), file_(file), line_(line), name_("IF_RUN_AS") {
  if (savedEuid_ == uid && savedEgid_ == gid) return;
  // User first here: root is needed for both changes that follow.
  bool ok = true;
  if (geteuid() != 0 && setresuid(kNoUid, 0, kNoUid) != 0) ok = false;
  if (ok && getegid() != gid && setresgid(kNoGid, gid, kNoGid) != 0) ok = false;
  if (ok && geteuid() != uid && setresuid(kNoUid, uid, kNoUid) != 0) ok = false;
  if (!ok) {
    syslog(kBracketFailedPriority, "%s:%d ERROR: %s(%d, %d)", file_, line_, name_,
           static_cast<int>(uid), static_cast<int>(gid));
  }
}

RunAsScope::~RunAsScope() {
  if (geteuid() == savedEuid_ && getegid() == savedEgid_) return;
  bool ok = true;
  if (geteuid() != 0 && geteuid() != savedEuid_ && setresuid(kNoUid, 0, kNoUid) != 0) ok = false;
  if (ok && getegid() != savedEgid_ && savedEgid_ != kNoGid &&
      setresgid(kNoGid, savedEgid_, kNoGid) != 0) {
    ok = false;
  }
  if (ok && geteuid() != savedEuid_ && savedEuid_ != kNoUid &&
      setresuid(kNoUid, savedEuid_, kNoUid) != 0) {
    ok = false;
  }
  if (!ok) {
    syslog(kRestoreFailedPriority, "%s:%d ERROR: ~%s(%d, %d)", file_, line_, name_,
           static_cast<int>(savedEuid_), static_cast<int>(savedEgid_));
  }
}

void qsvInUserRegion(uid_t uid, gid_t gid, const char *file, int line) {
  // Root is tried first and the user's own ids only where root can't be had: a process that is or
  // can become root does the user's work as root, and the user's files get their owner afterwards.
  bool groupOk = true;
  if (getegid() != 0 && setresgid(kNoGid, 0, kNoGid) != 0 &&
      setresgid(kNoGid, gid, kNoGid) != 0) {
    groupOk = false;
    maillog(3, "%s:%d ERROR: InUserRegion uid:%d gid:%d euid:%d egid:%d input gid:%d [%s]", file,
            line, static_cast<int>(getuid()), static_cast<int>(getgid()),
            static_cast<int>(geteuid()), static_cast<int>(getegid()), static_cast<int>(gid),
            strerror(errno));
  }
  if (groupOk) maillog(1, "%s:%d InUserRegion gid", file, line);

  bool userOk = true;
  if (geteuid() != 0 && setresuid(kNoUid, 0, kNoUid) != 0 &&
      setresuid(kNoUid, uid, kNoUid) != 0) {
    userOk = false;
    maillog(3, "%s:%d UID ERROR: InUserRegion uid:%d gid:%d euid:%d egid:%d input uid: %d [%s]",
            file, line, static_cast<int>(getuid()), static_cast<int>(getgid()),
            static_cast<int>(geteuid()), static_cast<int>(getegid()), static_cast<int>(uid),
            strerror(errno));
  }
  if (userOk) maillog(1, "%s:%d InUserRegion uid", file, line);
}

void qsvOutUserRegion(uid_t savedEuid, gid_t savedEgid, const char *file, int line) {
  // Mirrors the way in: root first, the saved ids only where root can't be had.
  bool ok = true;
  if (getegid() != savedEgid && setresgid(kNoGid, 0, kNoGid) != 0 &&
      setresgid(kNoGid, savedEgid, kNoGid) != 0) {
    ok = false;
  }
  if (ok && geteuid() != savedEuid && setresuid(kNoUid, 0, kNoUid) != 0 &&
      setresuid(kNoUid, savedEuid, kNoUid) != 0) {
    ok = false;
  }
  if (ok) {
    maillog(1, "%s:%d OutUserRegion", file, line);
    return;
  }
  maillog(3, "%s:%d ERROR: OutUserRegion uid:%d gid:%d euid:%d egid:%d", file, line,
          static_cast<int>(getuid()), static_cast<int>(getgid()), static_cast<int>(geteuid()),
          static_cast<int>(getegid()));
}
