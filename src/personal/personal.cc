// A user's forward settings: reading them from .forward, writing and publishing it, and the keys
// under which the user's files travel.
#include "personal/personal.h"

#include <sys/stat.h>

#include <cerrno>
#include <cstring>

#include "cluster/mailserver_cluster.h"
#include "config/accounts.h"
#include "foundation/log.h"
#include "foundation/mail_dir_path.h"
#include "foundation/privilege.h"
#include "foundation/user_names.h"
#include "kolt/user.h"
#include "personal/file_texts.h"
#include "personal/user_dir.h"

using KOLT::QUILLON_SERVER::KOLTMailNodeCluster;
using KOLT::QUILLON_SERVER::QuillonServerBACKENDWrap;
using personal::ForwardSettings;
using personal::UserDir;

namespace {

const char kForwardFile[] = ".forward";
const char kKeyPrefix[] = "personal-";
// As long as a caller of setFile waits for a key's upload lock.
constexpr int kLockTries = 5;

struct Ids {
  uid_t uid;
  gid_t gid;
};

}  // namespace

Personal::Personal(const std::string &user) : user_(user) {
  if (user.empty()) {
    maillog(3, "%s:%d Bad parameter", QSV_FILE, __LINE__);
    valid_ = false;
    return;
  }
  if (userTypeCheck(user) < 0) {
    errKey_ = "acc_type_unsupport";
    valid_ = false;
    return;
  }
  if (KOLTUserGetUGID(user.c_str(), &uid_, &gid_) < 0) {
    maillog(3, "%s:%d get %s uid, gid fail", QSV_FILE, __LINE__, user.c_str());
    valid_ = false;
    return;
  }
  if (mailDirPathGet(user, mailDir_) < 0) {
    maillog(3, "%s:%d %s cannot get mailDirPath", QSV_FILE, __LINE__, user.c_str());
    errKey_ = "no_user_home";
    valid_ = false;
    return;
  }
  struct stat st;
  if (stat(mailDir_.c_str(), &st) != 0 && mailDirPathCreate(uid_, gid_) < 0) {
    maillog(3, "%s:%d Cannot create maildir", QSV_FILE, __LINE__);
    maillog(3, "%s:%d %s cannot create mailDirPath %s", QSV_FILE, __LINE__, user.c_str(),
            mailDir_.c_str());
    errKey_ = "no_user_home";
    valid_ = false;
    return;
  }
  if (ReadSettings() < 0) {
    maillog(3, "%s:%d GetForwardAddress() failed", QSV_FILE, __LINE__);
    errKey_ = "no_user_home";
    valid_ = false;
  }
}

Personal::~Personal() = default;

// A .forward that isn't there is no forward and no reply. One that is a link or no plain file was
// put there by hand: it isn't read, the settings read as off, and the next save replaces it.
int Personal::ReadSettings() {
  const Ids ids{uid_, gid_};
  UserDir dir(uid_, gid_);
  std::string content;
  int rc;
  int error;
  {
    InUserRegion(ids);
    rc = dir.Open(mailDir_);
    if (rc == 0) rc = dir.Read(kForwardFile, content);
    error = errno;
    OutUserRegion;
  }
  if (rc < 0 && (error == ELOOP || error == EINVAL || error == EMLINK)) return 0;
  if (rc < 0) {
    maillog(3, "%s:%d Can not open Forward file.", QSV_FILE, __LINE__);
    return -1;
  }
  ForwardSettings settings;
  personal::ParseForward(content, settings);
  forwardEnabled_ = settings.forward;
  keepCopy_ = settings.keepCopy;
  forwardAddr_ = settings.address;
  replyEnabled_ = settings.reply;
  replyBegin_ = settings.begin;
  replyEnd_ = settings.end;
  return 0;
}

std::string Personal::ForwardContent() const {
  ForwardSettings settings;
  settings.forward = forwardEnabled_;
  settings.keepCopy = keepCopy_;
  settings.address = forwardAddr_;
  settings.reply = replyEnabled_;
  settings.begin = replyBegin_;
  settings.end = replyEnd_;
  return personal::ComposeForward(settings, TrimDomainName(user_));
}

int Personal::save() {
  const std::string path = mailDir_ + "/" + kForwardFile;
  if (forwardEnabled_ || replyEnabled_) return writeToFWD(path);

  const Ids ids{uid_, gid_};
  UserDir dir(uid_, gid_);
  int rc;
  int error;
  {
    InUserRegion(ids);
    rc = dir.Open(mailDir_);
    if (rc == 0) rc = dir.Remove(kForwardFile);
    error = errno;
    OutUserRegion;
  }
  if (rc < 0) {
    maillog(3, "%s:%d Failed to remove %s: %s", QSV_FILE, __LINE__, path.c_str(),
            strerror(error));
    return -1;
  }
  return RemoveBackendKey("forward");
}

int Personal::writeToFWD(const std::string &path) {
  if (forwardEnabled_ && !personal::ForwardAddressAcceptable(forwardAddr_)) {
    maillog(3, "%s:%d Refused the forward address [%s] of %s: not one plain address", QSV_FILE,
            __LINE__, forwardAddr_.c_str(), user_.c_str());
    return -1;
  }
  const std::string content = ForwardContent();
  const Ids ids{uid_, gid_};
  UserDir dir(uid_, gid_);
  int rc;
  {
    InUserRegion(ids);
    rc = dir.Open(mailDir_);
    if (rc == 0) rc = dir.Write(kForwardFile, content);
    OutUserRegion;
  }
  if (rc < 0) {
    maillog(3, "%s:%d Can not write to Forward file.", QSV_FILE, __LINE__);
    return -1;
  }
  return SyncFile("forward", path);
}

std::string Personal::ComposeBackendKey(const std::string &type) const {
  return kKeyPrefix + std::to_string(uid_) + "-" + type;
}

int Personal::SyncFile(const std::string &type, const std::string &path) {
  const std::string key = ComposeBackendKey(type);
  KOLTMailNodeCluster cluster;
  if (!cluster.setFile(key, path, nullptr)) {
    maillog(3, "%s:%d Failed to setfile key '%s'", QSV_FILE, __LINE__, key.c_str());
    return -1;
  }
  return 0;
}

int Personal::RemoveBackendKey(const std::string &type) {
  const std::string key = ComposeBackendKey(type);
  const std::string uploadKey = KOLT::QUILLON_SERVER::FileUploadKey(key);
  QuillonServerBACKENDWrap store;
  // A cycle of this file still under way would bring the file back: its sender would write the
  // key again and its receivers would land the file. It goes first, under the cycle's own lock.
  if (store.exist(uploadKey)) {
    const std::string hostId = KOLTMailNodeCluster().getHostID();
    if (hostId.empty() || !store.getUploadKeyLock(uploadKey, kLockTries)) {
      maillog(3, "%s:%d Failed to got lock of key %s", QSV_FILE, __LINE__, uploadKey.c_str());
      return -1;
    }
    const bool cleared = store.taskRemove(hostId, uploadKey, true, false);
    store.releaseLock(uploadKey);
    if (!cleared) {
      maillog(3, "%s:%d Failed to taskRemove([%s], [%s])", QSV_FILE, __LINE__, hostId.c_str(),
              uploadKey.c_str());
      return -1;
    }
  }
  if (!store.removeKey(key)) {
    maillog(3, "%s:%d Failed to remove key '%s'", QSV_FILE, __LINE__, key.c_str());
    return -1;
  }
  return 0;
}
