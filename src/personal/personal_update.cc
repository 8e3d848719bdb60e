// The receiving side of a user's files: what a "personal-" key names on this node, and bringing
// the file in line with the key after the file sync has fetched it or the key has gone.
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <climits>
#include <cstdlib>
#include <cstring>

#include "cluster/backendWrapper.h"
#include "config/accounts.h"
#include "core/key_tree_store.h"
#include "foundation/log.h"
#include "foundation/mail_dir_path.h"
#include "foundation/privilege.h"
#include "kolt/user.h"
#include "personal/personal.h"
#include "personal/user_dir.h"

using KOLT::QUILLON_SERVER::KeyTreeStore;
using KOLT::QUILLON_SERVER::QuillonServerBACKENDWrap;
using personal::UserDir;

namespace {

const char kKeyPrefix[] = "personal-";
const char kSenderType[] = "sender-";
const char kVacationDB[] = ".vacation.db";
constexpr mode_t kFileMode = 0644;

struct Ids {
  uid_t uid;
  gid_t gid;
};

// The user of `uid` and the mail directory, made when it is missing. 0, or -1 (logged).
int UserAndDirectory(uid_t uid, KOLTUSER &user, std::string &dir) {
  if (KOLTUserGetByUID(uid, &user) < 0) {
    maillog(3, "%s:%d uid %i cannot get the user", QSV_FILE, __LINE__, static_cast<int>(uid));
    return -1;
  }
  if (mailDirPathGet(user.name, dir) < 0) {
    maillog(3, "%s:%d %s cannot get mailDirPath", QSV_FILE, __LINE__, user.name);
    return -1;
  }
  return 0;
}

}  // namespace

int Personal::SplitBackendKey(const std::string &backendKey, KeyParts &parts) {
  const std::string key = KeyTreeStore::instance()->keyShort(backendKey);
  const size_t first = key.find('-');
  const size_t second = first == std::string::npos ? first : key.find('-', first + 1);
  if (second == std::string::npos) {
    maillog(3, "%s:%d Error: splitList size < 3, %s", QSV_FILE, __LINE__, key.c_str());
    return -1;
  }
  // The key comes from the store, written by any member: it is read as strictly as a form.
  const std::string number = key.substr(first + 1, second - first - 1);
  const unsigned long long uid =
      number.size() <= 10 && !number.empty() &&
              number.find_first_not_of("0123456789") == std::string::npos
          ? strtoull(number.c_str(), nullptr, 10)
          : ULLONG_MAX;
  if (key.compare(0, first + 1, kKeyPrefix) != 0 || uid >= static_cast<uid_t>(-1)) {
    maillog(3, "%s:%d Refused the key %s: not personal-UID-TYPE", QSV_FILE, __LINE__, key.c_str());
    return -1;
  }
  parts.uid = static_cast<uid_t>(uid);
  parts.type = key.substr(second + 1);
  parts.sender.clear();
  if (parts.type.compare(0, strlen(kSenderType), kSenderType) == 0) {
    parts.sender = parts.type.substr(strlen(kSenderType));
    parts.type = "sender";
    if (ReplyFileName(parts.sender.c_str()).empty() ||
        parts.sender.find('\0') != std::string::npos) {
      return -1;
    }
  } else if (parts.type != "forward" && parts.type != "vacation_msg") {
    maillog(3, "%s:%d Type is not fit... %s", QSV_FILE, __LINE__, key.c_str());
    return -1;
  }
  return 0;
}

std::string Personal::FileName(const KeyParts &parts) {
  if (parts.type == "forward") return ".forward";
  return ReplyFileName(parts.type == "sender" ? parts.sender.c_str() : nullptr);
}

int Personal::LocalFilePath(const std::string &backendKey, std::string &path) {
  KeyParts parts;
  if (SplitBackendKey(backendKey, parts) < 0) {
    maillog(3, "%s:%d Cannot SplitBackendKey %s", QSV_FILE, __LINE__, backendKey.c_str());
    return -1;
  }
  KOLTUSER user;
  std::string dir;
  if (UserAndDirectory(parts.uid, user, dir) < 0) return -1;
  path = dir + "/" + FileName(parts);
  return 0;
}

int Personal::UpdateFile(const std::string &backendKey) {
  KeyParts parts;
  if (SplitBackendKey(backendKey, parts) < 0) {
    maillog(3, "%s:%d Cannot SplitBackendKey %s", QSV_FILE, __LINE__, backendKey.c_str());
    return -1;
  }
  KOLTUSER user;
  std::string dir;
  if (UserAndDirectory(parts.uid, user, dir) < 0) return -1;
  struct stat st;
  if (stat(dir.c_str(), &st) != 0 && mailDirPathCreate(user.uid, user.gid) < 0) {
    maillog(3, "%s:%d %s cannot create mailDirPath %s", QSV_FILE, __LINE__, user.name,
            dir.c_str());
    return -1;
  }
  const std::string name = FileName(parts);
  const std::string path = dir + "/" + name;
  // The key decides, not the event that woke the caller: a key written again since it was
  // removed keeps its file.
  const bool present = QuillonServerBACKENDWrap().exist(backendKey);

  const Ids ids{user.uid, user.gid};
  UserDir files(user.uid, user.gid);
  int opened;
  int fd = -1;
  int chowned = 0;
  int chmodded = 0;
  int removed = 0;
  int error = 0;
  {
    InUserRegion(ids);
    opened = files.Open(dir);
    if (opened == 0 && present) {
      // SetFilePrivilege: the file the sync put there, and only if it is a plain file.
      fd = files.OpenPlainFile(name);
      if (fd >= 0) {
        chowned = fchown(fd, user.uid, user.gid);
        if (chowned != 0) error = errno;
        chmodded = fchmod(fd, kFileMode);
        if (chmodded != 0 && error == 0) error = errno;
        close(fd);
      } else {
        error = errno;
      }
    } else if (opened == 0) {
      removed = files.Remove(name);
      if (removed != 0) error = errno;
    }
    OutUserRegion;
  }
  if (opened < 0) return -1;
  if (present && (fd < 0 || chowned != 0 || chmodded != 0)) {
    if (chowned != 0) maillog(3, "%s:%d chown fail: %s", QSV_FILE, __LINE__, path.c_str());
    if (chmodded != 0) maillog(3, "%s:%d chmod fail: %s", QSV_FILE, __LINE__, path.c_str());
    maillog(3, "%s:%d SetFilePrivilege fail... %s [%s]", QSV_FILE, __LINE__, path.c_str(),
            strerror(error));
    return -1;
  }
  if (removed != 0) {
    maillog(3, "%s:%d Failed to remove %s: %s", QSV_FILE, __LINE__, path.c_str(),
            strerror(error));
    return -1;
  }
  if (parts.type == "forward") return 0;

  // ResetVacationDB: a changed reply is news to everyone again.
  int reset;
  {
    InUserRegion(ids);
    reset = files.Remove(kVacationDB);
    error = errno;
    OutUserRegion;
  }
  if (reset != 0) {
    maillog(3, "%s:%d Failed to remove %s/%s: %s", QSV_FILE, __LINE__, dir.c_str(), kVacationDB,
            strerror(error));
    return -1;
  }
  return 0;
}
