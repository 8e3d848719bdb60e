#include "kolt/user.h"

#include <errno.h>
#include <grp.h>
#include <pwd.h>
#include <stdio.h>
#include <stdlib.h>
#include <stdint.h>
#include <string.h>
#include <strings.h>
#include <unistd.h>

#include <algorithm>
#include <mutex>
#include <new>
#include <string>
#include <vector>

#include "kolt/err.h"

namespace {

std::mutex g_pwent_mu;  // getpwent's cursor is per process

// Runs a *_r lookup, growing the buffer while it reports ERANGE.
// Returns 0 found, -1 with the error slot set otherwise.
template <typename Entry, typename Lookup>
int LookUp(Lookup lookup, Entry *entry, std::vector<char> *buf) {
  long hint = sysconf(_SC_GETPW_R_SIZE_MAX);
  size_t size = hint > 0 ? static_cast<size_t>(hint) : 16384;
  for (;;) {
    try {
      buf->resize(size);
    } catch (const std::bad_alloc &) {
      KLIBC_ERR_SET(KLIBC_ERR_OUT_OF_MEMORY);
      return -1;
    }
    Entry *result = nullptr;
    int err = lookup(entry, buf->data(), buf->size(), &result);
    if (err == ERANGE && size < (1u << 24)) {
      size *= 2;
      continue;
    }
    if (err == 0 && result != nullptr) return 0;
    // Not-found comes back as 0 or as one of these, depending on the module.
    if (err == 0 || err == ENOENT || err == ESRCH || err == EBADF || err == EPERM) {
      KLIBC_ERR_SET(KLIBC_ERR_NOT_FOUND);
      errno = ENOENT;
    } else {
      KLIBC_ERR_SET(KLIBC_ERR_SYS(err));
      errno = err;
    }
    return -1;
  }
}

// Calls fn with each user the name service lists, until fn returns false.
// -1 when fn ran out of memory.
template <typename Fn>
int ForEachUser(Fn fn) {
  std::lock_guard<std::mutex> lock(g_pwent_mu);
  int rc = 0;
  setpwent();
  try {
    struct passwd *pw;
    while ((pw = getpwent()) != nullptr && fn(*pw)) {
    }
  } catch (const std::bad_alloc &) {
    KLIBC_ERR_SET(KLIBC_ERR_OUT_OF_MEMORY);
    rc = -1;
  }
  endpwent();
  return rc;
}

int CopyField(char *dst, size_t size, const char *src) {
  if (src == nullptr) src = "";
  if (strlen(src) >= size) {
    KLIBC_ERR_SET(KLIBC_ERR_BUFFER_TOO_SMALL);
    return -1;
  }
  strcpy(dst, src);
  return 0;
}

int FillUser(const struct passwd &pw, KOLTUSER *user) {
  if (CopyField(user->name, sizeof(user->name), pw.pw_name) != 0 ||
      CopyField(user->home, sizeof(user->home), pw.pw_dir) != 0 ||
      CopyField(user->shell, sizeof(user->shell), pw.pw_shell) != 0) {
    return -1;
  }
  user->uid = pw.pw_uid;
  user->gid = pw.pw_gid;
  return 0;
}

int MakeGroup(const struct group &gr, KOLTGROUP **out) {
  size_t count = 0;
  while (gr.gr_mem != nullptr && gr.gr_mem[count] != nullptr) count++;
  KOLTGROUP *group = static_cast<KOLTGROUP *>(calloc(1, sizeof(KOLTGROUP)));
  if (group == nullptr || (group->members = static_cast<char **>(calloc(count + 1, sizeof(char *)))) == nullptr) {
    free(group);
    KLIBC_ERR_SET(KLIBC_ERR_OUT_OF_MEMORY);
    return -1;
  }
  group->gid = gr.gr_gid;
  if (CopyField(group->name, sizeof(group->name), gr.gr_name) != 0) {
    KOLTGroupFree(group);
    return -1;
  }
  for (size_t i = 0; i < count; i++) {
    if ((group->members[i] = strdup(gr.gr_mem[i])) == nullptr) {
      KOLTGroupFree(group);
      KLIBC_ERR_SET(KLIBC_ERR_OUT_OF_MEMORY);
      return -1;
    }
  }
  *out = group;
  return 0;
}

}  // namespace

int KOLTUserGet(const char *name, KOLTUSER *user) {
  if (name == nullptr || user == nullptr) {
    KLIBC_ERR_SET(KLIBC_ERR_BAD_PARAM);
    return -1;
  }
  struct passwd pw;
  std::vector<char> buf;
  auto lookup = [name](struct passwd *e, char *b, size_t n, struct passwd **r) { return getpwnam_r(name, e, b, n, r); };
  if (LookUp(lookup, &pw, &buf) != 0) return -1;
  return FillUser(pw, user);
}

int KOLTUserGetByUID(uid_t uid, KOLTUSER *user) {
  if (user == nullptr) {
    KLIBC_ERR_SET(KLIBC_ERR_BAD_PARAM);
    return -1;
  }
  struct passwd pw;
  std::vector<char> buf;
  auto lookup = [uid](struct passwd *e, char *b, size_t n, struct passwd **r) { return getpwuid_r(uid, e, b, n, r); };
  if (LookUp(lookup, &pw, &buf) != 0) return -1;
  return FillUser(pw, user);
}

int KOLTUserGetUGID(const char *name, uid_t *uid, gid_t *gid) {
  if (name == nullptr) {
    KLIBC_ERR_SET(KLIBC_ERR_BAD_PARAM);
    return -1;
  }
  struct passwd pw;
  std::vector<char> buf;
  auto lookup = [name](struct passwd *e, char *b, size_t n, struct passwd **r) { return getpwnam_r(name, e, b, n, r); };
  if (LookUp(lookup, &pw, &buf) != 0) return -1;
  if (uid != nullptr) *uid = pw.pw_uid;
  if (gid != nullptr) *gid = pw.pw_gid;
  return 0;
}

int KOLTGroupGet(const char *name, KOLTGROUP **group) {
  if (name == nullptr || group == nullptr) {
    KLIBC_ERR_SET(KLIBC_ERR_BAD_PARAM);
    return -1;
  }
  struct group gr;
  std::vector<char> buf;
  auto lookup = [name](struct group *e, char *b, size_t n, struct group **r) { return getgrnam_r(name, e, b, n, r); };
  if (LookUp(lookup, &gr, &buf) != 0) return -1;
  return MakeGroup(gr, group);
}

int KOLTGroupGetByGID(gid_t gid, KOLTGROUP **group) {
  if (group == nullptr) {
    KLIBC_ERR_SET(KLIBC_ERR_BAD_PARAM);
    return -1;
  }
  struct group gr;
  std::vector<char> buf;
  auto lookup = [gid](struct group *e, char *b, size_t n, struct group **r) { return getgrgid_r(gid, e, b, n, r); };
  if (LookUp(lookup, &gr, &buf) != 0) return -1;
  return MakeGroup(gr, group);
}

void KOLTGroupFree(KOLTGROUP *group) {
  if (group == nullptr) return;
  for (size_t i = 0; group->members != nullptr && group->members[i] != nullptr; i++) free(group->members[i]);
  free(group->members);
  free(group);
}

int KLIBUserRealNameGet(const char *name, char *buf, int size, int /*flags*/) {
  if (name == nullptr || buf == nullptr || size <= 0) {
    KLIBC_ERR_SET(KLIBC_ERR_BAD_PARAM);
    return -1;
  }
  std::string found;
  KOLTUSER exact;
  // An exact match wins over a user whose name differs only in case.
  if (KOLTUserGet(name, &exact) == 0) {
    found = exact.name;
  } else {
    auto match = [&found, name](const struct passwd &pw) {
      if (strcasecmp(pw.pw_name, name) != 0) return true;
      found = pw.pw_name;
      return false;
    };
    if (ForEachUser(match) != 0) return -1;
  }
  if (found.empty()) {
    KLIBC_ERR_SET(KLIBC_ERR_NOT_FOUND);
    return -1;
  }
  if (found.size() >= static_cast<size_t>(size)) {
    KLIBC_ERR_SET(KLIBC_ERR_BUFFER_TOO_SMALL);
    return -1;
  }
  memcpy(buf, found.c_str(), found.size() + 1);
  return 0;
}

namespace {

char Fold(char c) { return c >= 'A' && c <= 'Z' ? static_cast<char>(c - 'A' + 'a') : c; }

// FNV-1a of the name in ASCII lower case, as the walk of KLIBUserRealNameGet compares.
size_t FoldedHash(const char *name, size_t size) {
  uint64_t hash = 14695981039346656037ull;
  for (size_t i = 0; i < size; ++i) {
    hash = (hash ^ static_cast<unsigned char>(Fold(name[i]))) * 1099511628211ull;
  }
  return static_cast<size_t>(hash ^ (hash >> 29));
}

bool FoldedEqual(const char *a, size_t aSize, const char *b, size_t bSize) {
  if (aSize != bSize) return false;
  for (size_t i = 0; i < aSize; ++i) {
    if (Fold(a[i]) != Fold(b[i])) return false;
  }
  return true;
}

}  // namespace

size_t KOLTUserRealNames::SlotOf(const char *name, size_t size) const {
  const size_t mask = slots_.size() - 1;
  for (size_t slot = FoldedHash(name, size) & mask;; slot = (slot + 1) & mask) {
    const uint32_t user = slots_[slot];
    if (user == kNone || FoldedEqual(NameAt(user), SizeOf(user), name, size)) return slot;
  }
}

int KOLTUserRealNames::Load() {
  auto collect = [this](const struct passwd &pw) {
    starts_.push_back(static_cast<uint32_t>(names_.size()));
    names_.append(pw.pw_name);
    names_.push_back('\0');
    return true;
  };
  loaded_ = -1;
  if (ForEachUser(collect) != 0) return loaded_;
  try {
    const uint32_t count = static_cast<uint32_t>(starts_.size());
    starts_.push_back(static_cast<uint32_t>(names_.size()));
    sameFold_.assign(count, kNone);
    // At most half full: a probe then ends after a slot or two.
    size_t slots = 16;
    while (slots < 2 * static_cast<size_t>(count)) slots *= 2;
    slots_.assign(slots, kNone);
    for (uint32_t user = 0; user < count; ++user) {
      uint32_t &first = slots_[SlotOf(NameAt(user), SizeOf(user))];
      if (first == kNone) {
        first = user;
        continue;
      }
      // Later spellings go behind the first in listing order; one listed twice (by two modules
      // of the name service) is kept once.
      uint32_t last = first;
      bool seen = false;
      for (uint32_t other = first; other != kNone; other = sameFold_[other]) {
        seen = seen || strcmp(NameAt(other), NameAt(user)) == 0;
        last = other;
      }
      if (!seen) sameFold_[last] = user;
    }
  } catch (const std::bad_alloc &) {
    KLIBC_ERR_SET(KLIBC_ERR_OUT_OF_MEMORY);
    return loaded_;
  }
  loaded_ = 1;
  return loaded_;
}

int KOLTUserRealNames::Get(const std::string &name, std::string &real) {
  if (loaded_ == 0) Load();
  if (loaded_ < 0) {
    KLIBC_ERR_SET(KLIBC_ERR_OUT_OF_MEMORY);
    return -1;
  }
  const uint32_t first = name.empty() ? kNone : slots_[SlotOf(name.data(), name.size())];
  if (first == kNone) {
    KLIBC_ERR_SET(KLIBC_ERR_NOT_FOUND);
    return -1;
  }
  // An exact match wins; otherwise the first user that differs only in case, as in the walk.
  for (uint32_t user = first; user != kNone; user = sameFold_[user]) {
    if (SizeOf(user) == name.size() && memcmp(NameAt(user), name.data(), name.size()) == 0) {
      real = name;
      return 0;
    }
  }
  real.assign(NameAt(first), SizeOf(first));
  return 0;
}

int KLIBUserEnum(KLIBSZLIST **list, int authType, const char * /*domain*/) {
  if (list == nullptr || (authType & (AUTH_LOCAL | AUTH_WIN | AUTH_LDAP)) == 0) {
    KLIBC_ERR_SET(KLIBC_ERR_BAD_PARAM);
    return -1;
  }
  std::vector<std::string> names;
  if (authType & AUTH_LOCAL) {
    auto collect = [&names](const struct passwd &pw) {
      if (pw.pw_uid >= 1000 && pw.pw_uid < 65534) names.emplace_back(pw.pw_name);
      return true;
    };
    if (ForEachUser(collect) != 0) return -1;
  }
  // Two name services may both know a user.
  std::sort(names.begin(), names.end());
  names.erase(std::unique(names.begin(), names.end()), names.end());
  if (*list == nullptr && (*list = KLIBCSzListAlloc(static_cast<int>(names.size()))) == nullptr) return -1;
  for (const auto &name : names) {
    if (KLIBCSzListPush(list, name.c_str()) < 0) return -1;
  }
  return static_cast<int>(names.size());
}
