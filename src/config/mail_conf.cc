#include "config/mail_conf.h"

#include <curl/curl.h>
#include <dlfcn.h>
#include <fcntl.h>
#include <limits.h>
#include <pwd.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <memory>
#include <mutex>
#include <sstream>
#include <system_error>
#include <thread>
#include <utility>
#include <vector>

#include "cluster/mailserver_cluster.h"
#include "core/key_tree_store.h"
#include "core/mail_conf.h"
#include "foundation/log.h"
#include "foundation/privilege.h"
#include "foundation/strings.h"
#include "foundation/utf8.h"
#include "kolt/exec.h"
#include "kolt/user.h"

using KOLT::QUILLON_SERVER::KeyTreeStore;
using KOLT::QUILLON_SERVER::KOLTMailNodeCluster;
using KOLT::QUILLON_SERVER::kBackendTool;

const char *grgClusterFailedMaySetKeyList[] = {"balancer_master_node", nullptr};

namespace {

const char kPackageUser[] = "Quillon-Server";

// libcurl is wanted only around a batch write, but every program of the suite links this library,
// and linking libcurl made each of them load some twenty-five more libraries at its start, most
// of its start-up time. It is loaded at the first batch, once per process, and kept.
struct CurlGlobal {
  CURLcode (*init)(long) = nullptr;
  void (*cleanup)() = nullptr;
};

const CurlGlobal &Curl() {
  static const CurlGlobal curl = [] {
    CurlGlobal found;
    void *library = dlopen("libcurl.so.4", RTLD_NOW | RTLD_LOCAL);
    if (library == nullptr) return found;
    found.init = reinterpret_cast<CURLcode (*)(long)>(dlsym(library, "curl_global_init"));
    found.cleanup = reinterpret_cast<void (*)()>(dlsym(library, "curl_global_cleanup"));
    if (found.init == nullptr || found.cleanup == nullptr) found = CurlGlobal();
    return found;
  }();
  return curl;
}

bool MayFailKey(const std::string &key) {
  for (const char *const *k = grgClusterFailedMaySetKeyList; *k != nullptr; ++k) {
    if (key == *k) return true;
  }
  return false;
}

// Holds a key file's lock for the life of the object, whatever way the function leaves.
class ConfigFileLock {
 public:
  explicit ConfigFileLock(const std::string &fileName) { mailConfigLockGet(fileName, 1, fd_); }
  ~ConfigFileLock() { mailConfigLockRelease(fd_); }
  ConfigFileLock(const ConfigFileLock &) = delete;
  ConfigFileLock &operator=(const ConfigFileLock &) = delete;

 private:
  int fd_ = -1;
};

bool PackageUserIds(uid_t &uid, gid_t &gid) {
  passwd entry;
  passwd *found = nullptr;
  char buffer[4096];
  if (getpwnam_r(kPackageUser, &entry, buffer, sizeof(buffer), &found) != 0 || found == nullptr) {
    return false;
  }
  uid = found->pw_uid;
  gid = found->pw_gid;
  return true;
}

// mailConfSet's update check: an unchanged key goes nowhere; a changed one is published to the
// backend before the caller writes the file.
int UpdateCheck(const std::string &key, const std::string &oldValue, const std::string &newValue,
                bool remove, int ttl, bool sync) {
  const bool mayFail = MayFailKey(key);
  if (oldValue == newValue && !mayFail) return 0;
  if (!sync) return 1;

  KOLTMailNodeCluster cluster;
  if (cluster.isClusterHealth(true)) {
    bool published;
    if (remove) {
      published = cluster.removeKey(key);
      if (!published) {
        maillog(3, "%s:%d Update conf remove key from backed failed [%s]", QSV_FILE, __LINE__,
                key.c_str());
      }
    } else {
      published = cluster.setKey(key, newValue, ttl);
      if (!published) {
        maillog(3, "%s:%d Update conf set key to backed failed [%s]", QSV_FILE, __LINE__,
                key.c_str());
      }
    }
    if (!published && !mayFail) return -1;
  }

  if (mayFail) {
    // The other nodes must hear of this key even when the backend refused it.
    const std::string tree = KeyTreeStore::instance()->treeGet(key);
    int rc;
    ENTERCriticalSection;
    rc = KLIBCExecl(kBackendTool, 187, "sendDisaptcherEvent", "-type", "TREE", "-tree",
                    tree.c_str(), "-key", key.c_str(), static_cast<char *>(nullptr));
    LEAVECriticalSection;
    if (rc != 0) {
      maillog(3, "%s:%d Failed to send notify [%s] [%s] [%s] ret:[%d]", QSV_FILE, __LINE__,
              "TREE", tree.c_str(), key.c_str(), rc);
    }
  }
  return 1;
}

}  // namespace

namespace {

// So that a crash after the rename never leaves other daemons an empty or partial key file.
bool SyncToDisk(const std::string &path) {
  const int fd = open(path.c_str(), O_RDONLY | O_CLOEXEC);
  if (fd < 0) return false;
  const bool synced = fsync(fd) == 0;
  close(fd);
  return synced;
}

// dumpMailConfToFile up to the rename: the file alone, no flags. REQUIRES: the file's lock held.
int WriteConfFile(const std::string &fileName, const std::string &key, const std::string &value,
                  bool remove, bool completeKey, const std::string &dir, int ttl, bool sync,
                  const MailConfUpdateCheck &check) {
  const std::string path = dir + fileName;
  const std::string member = completeKey ? KeyTreeStore::instance()->keyComplete(key) : key;

  Json::Value json(Json::objectValue);
  if (access(path.c_str(), F_OK) == 0) {
    std::ifstream in(path, std::ios::binary);
    if (!in) {
      maillog(3, "%s:%d Failed to open json file %s", QSV_FILE, __LINE__, path.c_str());
      return -1;
    }
    Json::CharReaderBuilder builder;
    std::string errors;
    // A damaged file is left as it is: overwriting it would lose its other members.
    if (!Json::parseFromStream(builder, in, &json, &errors) || !json.isObject()) {
      maillog(3, "%s:%d Failed to parse Json value of %s", QSV_FILE, __LINE__, path.c_str());
      return -1;
    }
  }

  if (check) {
    // Read without adding the member: a missing one must stay missing for the remove below.
    const Json::Value &old = std::as_const(json)[member];
    const std::string oldValue = old.isConvertibleTo(Json::stringValue) ? old.asString() : "";
    const int verdict = check(key, oldValue, value, remove, ttl, sync);
    if (verdict < 0) return -1;
    if (verdict == 0) return 0;
  }

  if (remove) {
    if (!json.isMember(member)) return 0;
    json.removeMember(member);
  } else {
    json[member] = value;
  }
  Json::FastWriter writer;
  const std::string text = writer.write(json);

  const std::string tmp = path + ".tmp";
  {
    std::ofstream out(tmp, std::ios::binary | std::ios::trunc);
    if (!out) {
      maillog(3, "%s:%d Failed to open %s, errno: %s", QSV_FILE, __LINE__, tmp.c_str(),
              strerror(errno));
      return -1;
    }
    out.write(text.data(), static_cast<std::streamsize>(text.size()));
    out.flush();
    out.close();
    if (!out || !SyncToDisk(tmp)) {
      maillog(3, "%s:%d Failed to write to file %s", QSV_FILE, __LINE__, tmp.c_str());
      unlink(tmp.c_str());
      return -1;
    }
  }

  // The mask belongs to the process: the threads of a batch must not interleave their brackets,
  // or the last one to leave puts back another's 0.
  static std::mutex maskMutex;
  std::unique_lock<std::mutex> maskLock(maskMutex);
  const mode_t oldMask = umask(0);
  chmod(tmp.c_str(), 0644);
  uid_t uid;
  gid_t gid;
  if (PackageUserIds(uid, gid) && chown(tmp.c_str(), uid, gid) != 0) {
    // Not tested: a writer that is the package user itself can't chown, and needn't.
  }
  umask(oldMask);
  maskLock.unlock();

  if (rename(tmp.c_str(), path.c_str()) != 0) {
    maillog(3, "%s:%d Failed to move file from :%s, to :%s, error: %s", QSV_FILE, __LINE__,
            tmp.c_str(), path.c_str(), strerror(errno));
    return -1;
  }
  return 1;
}

}  // namespace

int dumpMailConfToFile(const std::string &fileName, const std::string &key,
                       const std::string &value, bool remove, bool completeKey,
                       const std::string &dir, int ttl, bool sync,
                       const MailConfUpdateCheck &check) {
  // Held to the end, flags included: a writer that comes after sees them raised.
  ConfigFileLock lock(fileName);
  const int written =
      WriteConfFile(fileName, key, value, remove, completeKey, dir, ttl, sync, check);
  if (written <= 0) return written;

  const std::vector<std::string> services = KeyTreeStore::instance()->getKeyServ(key);
  if (services.empty()) return 1;
  KOLTMailNodeCluster cluster;
  std::vector<std::string> peers;
  cluster.listPeers(peers);
  for (const std::string &peer : peers) {
    for (const std::string &service : services) {
      cluster.setServiceSync(service, peer, false, 30, "");
    }
  }
  return 1;
}

std::string mailConfRefusal(const std::string &key, const std::string &value) {
  if (key.empty()) return "the key is empty";
  // The mirror file is written as NAME.tmp and locked through NAME.lock.
  constexpr size_t kLongestName = NAME_MAX - sizeof(".lock") + 1;
  if (toLeagalFileName(key).size() > kLongestName) {
    return "the key is too long: its file name on this node would exceed " +
           std::to_string(kLongestName) + " bytes";
  }
  if (!checkValidUtf8(value)) return "the value is not valid UTF-8";
  return "";
}

int mailConfSet(const std::string &key, const std::string &value, bool sync, int ttl) {
  const std::string refusal = mailConfRefusal(key, value);
  if (!refusal.empty()) {
    maillog(3, "%s:%d Refused to set key [%s]: %s", QSV_FILE, __LINE__, key.c_str(),
            refusal.c_str());
    return -1;
  }
  const std::string fileName = toLeagalFileName(key);
  if (!MayFailKey(key) && sync) {
    KOLTMailNodeCluster cluster;
    if (!cluster.isClusterHealth(true) && !cluster.isClusterHealth(false)) {
      maillog(3, "%s:%d cluster not health %d", QSV_FILE, __LINE__,
              cluster.isClusterHealth(true) ? 1 : 0);
      return -1;
    }
  }
  if (dumpMailConfToFile(fileName, key, value, false, true, kMailConfDir, ttl, sync, UpdateCheck) <
      0) {
    maillog(3, "%s:%d Failed to dumpMailConfToFile fileName: %s", QSV_FILE, __LINE__,
            fileName.c_str());
    return -1;
  }
  return 0;
}

int mailConfSet(const std::map<std::string, std::string> &pairs) {
  const CurlGlobal &curl = Curl();
  if (curl.init == nullptr || curl.init(CURL_GLOBAL_ALL) != CURLE_OK) {
    maillog(3, "%s:%d Failed to init global curl", QSV_FILE, __LINE__);
    return -1;
  }
  struct Record {
    const std::string *key;
    const std::string *value;
    int result = -1;
    std::thread thread;
  };
  // Every key gets its own thread, all at once: each write mostly waits for its run of the tool.
  std::vector<std::unique_ptr<Record>> records;
  for (const auto &pair : pairs) {
    auto record = std::make_unique<Record>();
    record->key = &pair.first;
    record->value = &pair.second;
    Record *r = record.get();
    try {
      r->thread = std::thread([r] { r->result = mailConfSet(*r->key, *r->value, true, 0); });
    } catch (const std::system_error &e) {
      // Such a key is simply not written; the batch doesn't count it as failed.
      maillog(3, "%s:%d Failed to create thread (err=%d)", QSV_FILE, __LINE__, e.code().value());
      continue;
    }
    records.push_back(std::move(record));
  }
  int result = 0;
  for (auto &record : records) {
    record->thread.join();
    if (record->result < 0) {
      maillog(3, "%s:%d Failed to set key %s, val: %s", QSV_FILE, __LINE__, record->key->c_str(),
              record->value->c_str());
      result = -1;
    }
  }
  curl.cleanup();
  return result;
}

int mailConfSet_c(const char *key, const char *value) {
  if (key == nullptr || value == nullptr) return -1;
  return mailConfSet(key, value, true, 0);
}

bool mailConfCheckKeyValue(const char *key, const char *value) {
  if (key == nullptr || value == nullptr) return false;
  std::string current;
  if (mailConfGet(key, current) < 0) {
    maillog(3, "%s:%d Failed to mailConfGet() key '%s'", QSV_FILE, __LINE__, key);
    return false;
  }
  return current == value;
}

int mailClusterLockAcquire_c(const char *name, unsigned long timeout) {
  if (name == nullptr) return -1;
  KOLTMailNodeCluster cluster;
  return cluster.acquireLock(name, timeout) ? 0 : -1;
}

int mailClusterLockRelease_c(const char *name) {
  if (name == nullptr) return -1;
  KOLTMailNodeCluster cluster;
  return cluster.releaseLock(name) ? 0 : -1;
}

int SaveMCPRules(const Json::Value &rules) {
  Json::FastWriter writer;
  if (mailConfSet("mcp_rules", writer.write(rules), true, 0) < 0) {
    maillog(3, "%s:%d Failed to mailConfSet", QSV_FILE, __LINE__);
    return -1;
  }
  return 0;
}

int LoadMCPRules(Json::Value &rules) {
  std::string text;
  if (mailConfGet("mcp_rules", text) < 0) {
    maillog(3, "%s:%d Failed to mailConfGet", QSV_FILE, __LINE__);
    return -1;
  }
  Json::Value parsed;
  Json::CharReaderBuilder builder;
  std::string errors;
  std::istringstream in(text);
  if (Json::parseFromStream(builder, in, &parsed, &errors) && parsed.isArray()) {
    rules = parsed;
  } else {
    rules = Json::Value(Json::arrayValue);
  }
  return 0;
}

namespace {

struct FtsKeys {
  const char *allowed;
  const char *forbidden;
};

FtsKeys FtsKeysOf(FTS_RULE_TYPE type) {
  if (type == FTS_RULE_GROUP) return {"fts_allowed_group", "fts_forbidden_group"};
  return {"fts_allowed_user", "fts_forbidden_user"};
}

// The names (or, without `resolve`, the ids) listed under one fts key. False when the key can't
// be read.
bool ReadFtsList(FTS_RULE_TYPE type, const char *key, bool resolve,
                 std::vector<std::string> &names) {
  std::string value;
  if (mailConfGet(key, value) < 0) {
    maillog(3, "%s:%d Failed to mailConfGet", QSV_FILE, __LINE__);
    return false;
  }
  std::vector<std::string> ids;
  stringSplit(ids, value, ",");
  for (const std::string &id : ids) {
    if (!resolve) {
      names.push_back(id);
      continue;
    }
    const unsigned number = static_cast<unsigned>(strtol(id.c_str(), nullptr, 10));
    std::string name;
    if (type == FTS_RULE_USER) {
      KOLTUSER user;
      if (KOLTUserGetByUID(number, &user) < 0) {
        maillog(3, "%s:%d Failed to get user '%u'", QSV_FILE, __LINE__, number);
        continue;
      }
      name = user.name;
    } else {
      KOLTGROUP *group = nullptr;
      if (KOLTGroupGetByGID(number, &group) < 0) {
        maillog(3, "%s:%d Failed to get group '%u'", QSV_FILE, __LINE__, number);
        continue;
      }
      name = group->name;
      KOLTGroupFree(group);
    }
    for (char &c : name) c = static_cast<char>(tolower(static_cast<unsigned char>(c)));
    names.push_back(name);
  }
  return true;
}

}  // namespace

int ftsRuleMapSet(FTS_RULE_TYPE type, std::map<std::string, bool> &rules) {
  std::list<std::string> allowed, forbidden;
  for (const auto &rule : rules) {
    std::string id;
    if (type == FTS_RULE_USER) {
      KOLTUSER user;
      if (KOLTUserGet(rule.first.c_str(), &user) < 0) {
        maillog(3, "%s:%d Failed to get user '%s'", QSV_FILE, __LINE__, rule.first.c_str());
        continue;
      }
      id = std::to_string(user.uid);
    } else {
      KOLTGROUP *group = nullptr;
      if (KOLTGroupGet(rule.first.c_str(), &group) < 0) {
        maillog(3, "%s:%d Failed to get group '%s'", QSV_FILE, __LINE__, rule.first.c_str());
        continue;
      }
      id = std::to_string(group->gid);
      KOLTGroupFree(group);
    }
    (rule.second ? allowed : forbidden).push_back(id);
  }
  const FtsKeys keys = FtsKeysOf(type);
  if (mailConfSet(keys.allowed, StringJoin(allowed, ","), true, 0) < 0 ||
      mailConfSet(keys.forbidden, StringJoin(forbidden, ","), true, 0) < 0) {
    maillog(3, "%s:%d Failed to mailConfSet", QSV_FILE, __LINE__);
    return -1;
  }
  return 0;
}

int ftsRuleMapGet(FTS_RULE_TYPE type, std::map<std::string, bool> &rules, bool resolve) {
  const FtsKeys keys = FtsKeysOf(type);
  std::vector<std::string> allowed, forbidden;
  if (!ReadFtsList(type, keys.allowed, resolve, allowed) ||
      !ReadFtsList(type, keys.forbidden, resolve, forbidden)) {
    maillog(3, "%s:%d failed to get fts rule map key", QSV_FILE, __LINE__);
    return -1;
  }
  for (const std::string &name : allowed) rules[name] = true;
  for (const std::string &name : forbidden) rules[name] = false;
  return 0;
}

int mailConfMirror(const std::string &key, const MailConfCurrentValue &current) {
  return mailConfMirrorRead(key, [&current](std::string &value) { return current(value) ? 1 : 0; });
}

int mailConfMirrorRead(const std::string &key, const MailConfStoreRead &read) {
  const std::string fileName = toLeagalFileName(key);
  ConfigFileLock lock(fileName);
  // Read under the lock that local writers hold from their publication to their rename: what
  // comes back is never older than a write that has finished here.
  std::string value;
  const int found = read(value);
  if (found < 0) return -1;
  const bool present = found > 0;
  if (present && !mailConfRefusal(key, value).empty()) {
    maillog(3, "%s:%d Refused to mirror key [%s]: %s", QSV_FILE, __LINE__, key.c_str(),
            mailConfRefusal(key, value).c_str());
    return -1;
  }
  const MailConfUpdateCheck changedOnly = [](const std::string &, const std::string &oldValue,
                                             const std::string &newValue, bool,
                                             int, bool) { return oldValue == newValue ? 0 : 1; };
  // A removal always goes through: "" reads the same as a missing member.
  return WriteConfFile(fileName, key, value, !present, true, kMailConfDir, 0, false,
                       present ? changedOnly : MailConfUpdateCheck());
}

int mailConfMirror(const std::string &key, const std::string &value, bool remove) {
  return mailConfMirror(key, [&](std::string &current) {
    current = value;
    return !remove;
  });
}
