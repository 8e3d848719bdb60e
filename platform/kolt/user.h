// Users and groups as the system's name service (NSS) knows them. Lookups use
// the reentrant calls and may run on any thread; enumeration is serialised
// inside, since getpwent keeps one cursor per process. A KOLTGROUP belongs
// to the caller and is released with KOLTGroupFree.

#ifndef KOLT_USER_H_
#define KOLT_USER_H_

#include <sys/types.h>

#include <string>
#include <unordered_map>
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

  // The users whose names are the same in lower case: the first listed, then any others.
  struct Spellings {
    std::string first;
    std::vector<std::string> more;
  };

  int loaded_ = 0;  // 0 not yet, 1 listed, -1 the listing failed
  std::unordered_map<std::string, Spellings> byFolded_;
};

// Appends the sorted names of the users of authType (a mask of AUTH_TYPE
// bits) to *list (a null *list gets a new one). Local users are the NAS's
// ordinary accounts: uid 1000 up to, not including, 65534 ("nobody"); system
// and service accounts sit below 1000. This machine joins no Windows domain
// or LDAP directory, so those contribute no names. Returns the count
// appended, or -1 (also for a mask with no known bit).
int KLIBUserEnum(KLIBSZLIST **list, int authType, const char *domain);

#endif  // KOLT_USER_H_
