// Users and groups as the system's name service (NSS) knows them. Lookups use
// the reentrant calls and may run on any thread; enumeration is serialised
// inside, since getpwent keeps one cursor per process. A KOLTGROUP belongs
// to the caller and is released with KOLTGroupFree.

#ifndef KOLT_USER_H_
#define KOLT_USER_H_

#include <sys/types.h>

#include <cstdint>
#include <string>
#include <vector>

#include "kolt/szlist.h"

struct KOLTUSER {
  char name[256];
  uid_t uid;
  gid_t gid;
  char home[1024];
  char shell[256];
};

struct KOLTGROUP {
  char name[256];
  gid_t gid;
  char **members;  // null-terminated; only the names the group lists, not
                   // the users whose primary group it is
};

enum AUTH_TYPE {
  AUTH_LOCAL = 1,
  AUTH_WIN = 2,
  AUTH_LDAP = 8,
};

// 0, or -1 with KLIBC_ERR_NOT_FOUND in the error slot when there is no such
// user or group, another code when the lookup itself failed.
int KOLTUserGet(const char *name, KOLTUSER *user);
int KOLTUserGetByUID(uid_t uid, KOLTUSER *user);
int KOLTUserGetUGID(const char *name, uid_t *uid, gid_t *gid);  // either may be null
int KOLTGroupGet(const char *name, KOLTGROUP **group);
int KOLTGroupGetByGID(gid_t gid, KOLTGROUP **group);
void KOLTGroupFree(KOLTGROUP *group);

// Finds the user whose name matches name ignoring ASCII case and writes the
// name as the system stores it. 0, or -1 when none matches or buf is too small.
int KLIBUserRealNameGet(const char *name, char *buf, int size, int flags);

// KLIBUserRealNameGet for many names at once. Each lookup by name costs a walk of the name
// service (every module of nsswitch.conf in turn, often a file read from the start), and a name
// that no user has exactly costs a second walk over all users for the case-blind match. This walks
// the users once, at the first Get, and answers every name from that list: a user that the name
// service adds later, or that a module finds by name but doesn't list, is not seen. One object
// belongs to one thread; make one per batch of names.
class KOLTUserRealNames {
 public:
  // As KLIBUserRealNameGet: 0 and the name as the system stores it (an exact match wins over one
  // that differs only in case), or -1 with the error slot set.
  int Get(const std::string &name, std::string &real);

 private:
  int Load();
  // The slot that holds, or would hold, the users whose names fold to the same as `name`.
  size_t SlotOf(const char *name, size_t size) const;
  const char *NameAt(uint32_t user) const { return names_.data() + starts_[user]; }
  size_t SizeOf(uint32_t user) const { return starts_[user + 1] - starts_[user] - 1; }

  static constexpr uint32_t kNone = 0xffffffffu;

  // A map asks for thousands of names: the list is kept flat, every name in one buffer and the
  // table of them by index, so a lookup allocates nothing and touches a few cache lines.
  int loaded_ = 0;                   // 0 not yet, 1 listed, -1 the listing failed
  std::string names_;                // every listed name, each ended by a NUL, in listing order
  std::vector<uint32_t> starts_;     // where each user's name starts, and one past the last
  std::vector<uint32_t> sameFold_;   // the next user listed whose name folds alike, or kNone
  std::vector<uint32_t> slots_;      // by folded name, open addressed: the first such user
};

// Appends the sorted names of the users of authType (a mask of AUTH_TYPE
// bits) to *list (a null *list gets a new one). Local users are the NAS's
// ordinary accounts: uid 1000 up to, not including, 65534 ("nobody"); system
// and service accounts sit below 1000. This machine joins no Windows domain
// or LDAP directory, so those contribute no names. Returns the count
// appended, or -1 (also for a mask with no known bit).
int KLIBUserEnum(KLIBSZLIST **list, int authType, const char *domain);

#endif  // KOLT_USER_H_
