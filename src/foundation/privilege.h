// Brackets that raise a few statements to root and put the caller's effective ids back.
//
// Effective ids belong to the whole process: a raise in one thread is seen by all. The brackets take
// no lock and keep no count; nesting works because each level saves and restores what it found.
//
// The critical section. The usual pattern keeps the result of the one call inside, leaves, and only
// then tests it, because both brackets overwrite errno:
//
//   int rc;
//   ENTERCriticalSection;
//   rc = rename(tmp, path);
//   LEAVECriticalSection;
//   if (rc != 0) ...
//
// The two are plain statements: ENTERCriticalSection declares the saved ids as two locals of the
// enclosing block, and every LEAVECriticalSection in that block (one per way out, early returns
// included) puts them back. So the section's result may be declared inside it and used after, and
// a second section in the same block needs a block of its own. A failed raise is logged at priority
// LOG_AUTH|LOG_ERR and the statements inside still run: they fail by themselves if they really
// needed root.
//
// IF_RUN_AS(uid, gid) { ... } runs its block with the given effective ids and puts the old ones back
// when the block ends, however it ends.
//
// InUserRegion(user) ... OutUserRegion brackets the per-user work of forward and vacation; `user` is
// anything with `.uid` and `.gid` members.
#ifndef MAILSERVER_FOUNDATION_PRIVILEGE_H_
#define MAILSERVER_FOUNDATION_PRIVILEGE_H_

#include <sys/types.h>
#include <unistd.h>

#include "foundation/export.h"
#include "foundation/log.h"

// Sets errno to 0 when the raise worked and to 1 (EPERM) when it did not.
QSV_EXPORT void qsvEnterCriticalSection(uid_t savedEuid, gid_t savedEgid, const char *file,
                                        int line);
// Puts back the ids saved at entry. Sets errno to 0 or, on failure, to 1.
QSV_EXPORT void qsvLeaveCriticalSection(uid_t savedEuid, gid_t savedEgid, const char *file,
                                        int line);

#define ENTERCriticalSection                     \
  const uid_t qsvCriticalSavedEuid_ = geteuid(); \
  const gid_t qsvCriticalSavedEgid_ = getegid(); \
  qsvEnterCriticalSection(qsvCriticalSavedEuid_, qsvCriticalSavedEgid_, QSV_FILE, __LINE__)

#define LEAVECriticalSection \
  qsvLeaveCriticalSection(qsvCriticalSavedEuid_, qsvCriticalSavedEgid_, QSV_FILE, __LINE__)

class QSV_EXPORT RunAsScope {
 public:
  RunAsScope(uid_t uid, gid_t gid, const char *file, int line);
  ~RunAsScope();

  RunAsScope(const RunAsScope &) = delete;
  RunAsScope &operator=(const RunAsScope &) = delete;

 private:
  uid_t savedEuid_;
  gid_t savedEgid_;
  const char *file_;
  int line_;
  const char *name_;
};

#define IF_RUN_AS(uid, gid) if (RunAsScope qsvRunAs_((uid), (gid), QSV_FILE, __LINE__); true)

QSV_EXPORT void qsvInUserRegion(uid_t uid, gid_t gid, const char *file, int line);
QSV_EXPORT void qsvOutUserRegion(uid_t savedEuid, gid_t savedEgid, const char *file, int line);

// Statements like the critical section's.
#define InUserRegion(user)                            \
  const uid_t qsvUserRegionSavedEuid_ = geteuid();  \
  const gid_t qsvUserRegionSavedEgid_ = getegid();  \
  qsvInUserRegion((user).uid, (user).gid, QSV_FILE, __LINE__)

#define OutUserRegion \
  qsvOutUserRegion(qsvUserRegionSavedEuid_, qsvUserRegionSavedEgid_, QSV_FILE, __LINE__)

#endif  // MAILSERVER_FOUNDATION_PRIVILEGE_H_
