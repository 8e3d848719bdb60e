// File sync through the store: the cycle of one file from the node that has a new version to all
// the others. The record and the queue travel in the store; the content in the file buffer.
#include <sys/stat.h>
#include <syslog.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <climits>
#include <cstdlib>
#include <cstring>
#include <ctime>

#include "cluster/backendWrapper.h"
#include "cluster/KvfileBuffer.h"
#include "cluster/mailserver_cluster.h"
#include "core/key_tree_store.h"
#include "foundation/log.h"
#include "foundation/path_check.h"
#include "foundation/privilege.h"
#include "kolt/exec.h"
#include "kolt/file.h"

namespace KOLT {
namespace QUILLON_SERVER {
namespace {

constexpr int kBufferPort = 8502;
constexpr int kCallerLockTries = 5;
constexpr int kWatcherLockTries = 120;
constexpr int kHookTries = 10;
const char kContentPrefix[] = "file_content_tree/";
const char kQueuePrefix[] = "task_queue/";
// The SHA-256 of a cycle's content, beside its record: the buffer takes writes from anyone, the
// store only from cluster members.
const char kDigestPrefix[] = "file_content_digest/";

std::string DigestKey(const FileKeyVal &record) { return kDigestPrefix + record.taskQueueKey; }

// Releases the upload lock of a key when the operation ends, on every path after the acquire.
class UploadLock {
 public:
  explicit UploadLock(const std::string &uploadKey) : uploadKey_(uploadKey) {}
  ~UploadLock() {
    if (!held_) return;
    // A store that restarts under us swallows the release; a few seconds usually see it back,
    // after that the lock waits for someone to find its holder gone.
    for (int attempt = 0; !QuillonServerBACKENDWrap().releaseLock(uploadKey_) && attempt < 3;
         ++attempt) {
      sleep(1);
    }
  }
  bool Acquire(int tries) {
    held_ = QuillonServerBACKENDWrap().getUploadKeyLock(uploadKey_, tries);
    if (!held_) {
      maillog(3, "%s:%d Failed to got lock of key %s", QSV_FILE, __LINE__, uploadKey_.c_str());
    }
    return held_;
  }

 private:
  std::string uploadKey_;
  bool held_ = false;
};

// realpath of `path`, which must then lie under `prefixes`; logs the refusal with `wrongFormat`.
bool ResolveAllowed(const std::string &path, const char **prefixes, const char *wrongFormat,
                    int line) {
  char real[PATH_MAX];
  if (realpath(path.c_str(), real) == nullptr) {
    maillog(3, "%s:%d Failed to get realpath of %s error: %s", QSV_FILE, line, path.c_str(),
            strerror(errno));
    return false;
  }
  if (!checkPathValid(prefixes, real)) {
    maillog(3, wrongFormat, QSV_FILE, line, real);
    return false;
  }
  return true;
}

// Paths travel in records and each node uses them from its own working directory: only an
// absolute path means the same file everywhere.
bool Absolute(const std::string &path, int line) {
  if (!path.empty() && path[0] == '/') return true;
  maillog(3, "%s:%d The path is not absolute [%s]", QSV_FILE, line, path.c_str());
  return false;
}

// Whether a record read from the store may write or delete `path`: absolute, no "." or ".."
// step, and under an allowed place once the links of the directories that exist are resolved.
// The record is checked again here because the sender's checks ran on another node.
bool DestinationAllowed(const std::string &path) {
  bool allowed = !path.empty() && path[0] == '/' && path.back() != '/' &&
                 ("/" + path + "/").find("/./") == std::string::npos &&
                 ("/" + path + "/").find("/../") == std::string::npos;
  if (allowed) {
    // The deepest directory above the file that exists already decides where it really lands;
    // what is missing below it is made by the receiver, as plain directories.
    size_t cut = path.rfind('/');
    std::string dir = path.substr(0, cut);
    struct stat st;
    while (!dir.empty() && lstat(dir.c_str(), &st) != 0) {
      cut = dir.rfind('/');
      dir = dir.substr(0, cut);
    }
    char real[PATH_MAX];
    allowed = !dir.empty() && realpath(dir.c_str(), real) != nullptr &&
              checkPathValid(szgAllowPrefix, (real + path.substr(cut)).c_str());
  }
  if (!allowed) {
    maillog(3, "%s:%d Refused a file record: destination [%s] is not an allowed place", QSV_FILE,
            __LINE__, path.c_str());
  }
  return allowed;
}

// Whether a record read from the store may run `script` (one that exists): under a script place
// once resolved.
bool ScriptAllowed(const std::string &script) {
  char real[PATH_MAX];
  if (!script.empty() && script[0] == '/' && realpath(script.c_str(), real) != nullptr &&
      checkPathValid(szgAllowScriptPrefix, real)) {
    return true;
  }
  maillog(3, "%s:%d Refused a file record: script [%s] is not an allowed script", QSV_FILE,
          __LINE__, script.c_str());
  return false;
}

std::string HostId() {
  KOLTMailNodeCluster cluster;
  const std::string id = cluster.getHostID();
  if (id.empty()) maillog(3, "%s:%d Failed to getHostID()", QSV_FILE, __LINE__);
  return id;
}

bool MasterBalancer(std::string &ip) {
  KOLTMailNodeCluster cluster;
  if (!cluster.getMasterBalancer(ip)) {
    maillog(3, "%s:%d Failed to get balancer node ip", QSV_FILE, __LINE__);
    return false;
  }
  return true;
}

}  // namespace

bool QuillonServerBACKENDWrap::setFile(const std::string &key, const std::string &path,
                                       const char **scriptAndArgs) {
  KOLTMailNodeCluster cluster;
  if (!cluster.isClusterHealth(true)) {
    maillog(3, "%s:%d The cluster is unhealth so cannot sync file", QSV_FILE, __LINE__);
    return false;
  }
  if (!Absolute(path, __LINE__)) return false;
  if (scriptAndArgs != nullptr && scriptAndArgs[0] != nullptr &&
      !Absolute(scriptAndArgs[0], __LINE__)) {
    return false;
  }
  struct stat st;
  if (stat(path.c_str(), &st) != 0) {
    maillog(3, "%s:%d File [%s] is not exist so would no sync error [%s]", QSV_FILE, __LINE__,
            path.c_str(), strerror(errno));
    return false;
  }
  if (!S_ISREG(st.st_mode)) {
    maillog(3, "%s:%d File [%s] is not not regular file", QSV_FILE, __LINE__, path.c_str());
    return false;
  }
  std::string script;
  std::vector<std::string> args;
  if (scriptAndArgs != nullptr && scriptAndArgs[0] != nullptr) {
    script = scriptAndArgs[0];
    for (const char **arg = scriptAndArgs + 1; *arg != nullptr; ++arg) args.push_back(*arg);
  }
  syslog(LOG_DEBUG, "%s:%d Into setFile key[%s]", QSV_FILE, __LINE__, key.c_str());
  if (!ResolveAllowed(path, szgAllowPrefix, "%s:%d The path is wrong %s", __LINE__)) return false;
  if (!script.empty() &&
      !ResolveAllowed(script, szgAllowScriptPrefix, "%s:%d The script path is wrong %s",
                      __LINE__)) {
    return false;
  }

  const std::string uploadKey = FileUploadKey(key);
  UploadLock lock(uploadKey);
  if (!lock.Acquire(kCallerLockTries)) return false;
  const std::string timestamp = std::to_string(time(nullptr));
  const std::string hostId = cluster.getHostID();
  if (hostId.empty()) {
    maillog(3, "%s:%d Failed to getHostID()", QSV_FILE, __LINE__);
    return false;
  }
  const std::string taskKey = timestamp + "_" + key;
  FileKeyVal record;
  if (!record.create(hostId, path, path, timestamp, key, uploadKey, kContentPrefix + taskKey,
                     taskKey, script, args)) {
    maillog(3, "%s:%d Failed to get src path info", QSV_FILE, __LINE__);
    return false;
  }
  return startNewTask(hostId, key, record, false);
}

bool QuillonServerBACKENDWrap::startNewTask(const std::string &hostId, const std::string &key,
                                            FileKeyVal &record, bool isDelete) {
  // Whatever an earlier cycle of this key left behind goes first: one cycle per key at a time.
  taskRemove(hostId, record.uploadKey, true, false);
  KOLTMailNodeCluster cluster;
  std::vector<std::string> peers;
  if (!cluster.listBackendPeers(peers)) {
    maillog(3, "%s:%d Failed to listBackendPeers()", QSV_FILE, __LINE__);
    return false;
  }
  const std::string tree = KeyTreeStore::instance()->treeGet(key);
  for (const std::string &peer : peers) {
    // The sender has the file already; a delete is carried out on the sender too.
    if (!isDelete && peer == hostId) continue;
    if (!taskAdd(peer, record.taskQueueKey, key, TASK_FILE, tree)) {
      maillog(3, "%s:%d Fialed to taskAdd() server:%s key:%s", QSV_FILE, __LINE__, peer.c_str(),
              key.c_str());
      return false;
    }
  }
  syslog(LOG_DEBUG, "%s:%d Create task[%s]", QSV_FILE, __LINE__, record.taskQueueKey.c_str());
  if (!hookKey(record, record.uploadKey, true)) {
    maillog(3, "%s:%d Failed to hookKey() key:[%s]", QSV_FILE, __LINE__,
            record.uploadKey.c_str());
    return false;
  }
  return true;
}

bool QuillonServerBACKENDWrap::hookKey(FileKeyVal &record, const std::string &key, bool direct) {
  const std::string fullKey = KeyTreeStore::instance()->keyComplete(key);
  if (direct) {
    if (!setKey(fullKey, record.serialize(record.randNum + 1), 0)) {
      maillog(3, "%s:%d Failed to setKey(%s)", QSV_FILE, __LINE__, fullKey.c_str());
      return false;
    }
    return true;
  }
  for (int attempt = 0; attempt < kHookTries; ++attempt) {
    std::string value;
    if (exist(record.uploadKey)) {
      // A newer cycle may have replaced the record meanwhile: wake the watchers with what is
      // stored, never with the caller's older copy.
      FileKeyVal stored;
      if (!fetchFileKeyVal(record.uploadKey, stored)) continue;
      value = stored.serialize(stored.randNum + 1);
    } else {
      value = record.serialize(record.randNum + 1);
    }
    if (setKey(fullKey, value, 0)) return true;
    maillog(3, "%s:%d Failed to hook key[%s] due to preVal != val, but would retry", QSV_FILE,
            __LINE__, fullKey.c_str());
  }
  maillog(3, "%s:%d Failed to hookKey[%s]", QSV_FILE, __LINE__, fullKey.c_str());
  return false;
}

bool QuillonServerBACKENDWrap::fetchFileKeyVal(const std::string &key, FileKeyVal &record) {
  std::string value;
  if (!getKey(key, value, true)) {
    syslog(LOG_DEBUG,
           "%s:%d Cannot get upload key:%s so failed to upload file, but task already created",
           QSV_FILE, __LINE__, key.c_str());
    return false;
  }
  Json::Value json;
  Json::CharReaderBuilder builder;
  std::unique_ptr<Json::CharReader> reader(builder.newCharReader());
  std::string errors;
  if (!reader->parse(value.data(), value.data() + value.size(), &json, &errors)) {
    maillog(3, "%s:%d Failed to parse upload key %s, val: %s", QSV_FILE, __LINE__, key.c_str(),
            value.c_str());
    return false;
  }
  if (!record.fromJson(json)) {
    maillog(3, "%s:%d Wrong json value: %s", QSV_FILE, __LINE__, value.c_str());
    return false;
  }
  return true;
}

bool QuillonServerBACKENDWrap::setFileSender(const std::string &uploadKey) {
  UploadLock lock(uploadKey);
  if (!lock.Acquire(kWatcherLockTries)) return false;
  if (!exist(uploadKey)) return true;
  FileKeyVal record;
  if (!fetchFileKeyVal(uploadKey, record)) {
    maillog(3, "%s:%d Failed to fetchFileKeyVal() %s", QSV_FILE, __LINE__, uploadKey.c_str());
    return false;
  }
  if (record.isDelete) {
    syslog(LOG_DEBUG, "%s:%d is deleting %s", QSV_FILE, __LINE__, uploadKey.c_str());
    return deleteLocalFile(record);
  }
  syslog(LOG_DEBUG, "%s:%d is dumpping %s", QSV_FILE, __LINE__, uploadKey.c_str());
  return dumpFileToBuffer(record);
}

bool QuillonServerBACKENDWrap::dumpFileToBuffer(FileKeyVal &record) {
  const std::string hostId = HostId();
  if (hostId.empty()) return false;
  std::string master;
  if (!MasterBalancer(master)) return false;
  if (hostId != record.senderID) return true;
  syslog(LOG_DEBUG, "%s:%d I am Sender(key[%s]): upload from [%s] to fileKey[%s] task:[%s]",
         QSV_FILE, __LINE__, record.oriBackendKey.c_str(), record.srcFilePath.c_str(),
         record.fileContentKey.c_str(), record.taskQueueKey.c_str());
  FileBuffer buffer(master, kBufferPort);
  // A receiver that found nothing wakes the sender again; when the content is there after all,
  // there is nothing to redo.
  if (buffer.checkBufferKeyExist(record.fileContentKey) && exist(DigestKey(record))) {
    maillog(1, "%s:%d The key [%s] has already exist, no need to update again", QSV_FILE,
            __LINE__, record.fileContentKey.c_str());
    return true;
  }
  std::string digest;
  ENTERCriticalSection;
  bool stored = buffer.setFileContentToBuffer(record.fileContentKey, record.srcFilePath, &digest);
  LEAVECriticalSection;
  if (!stored) {
    maillog(3, "%s:%d Failed to buffer.setFileContentToBuffer(%s, %s)", QSV_FILE, __LINE__,
            record.fileContentKey.c_str(), record.srcFilePath.c_str());
    return false;
  }
  if (!setKey(DigestKey(record), digest, 0)) {
    maillog(3, "%s:%d Failed to setKey(%s)", QSV_FILE, __LINE__, DigestKey(record).c_str());
    return false;
  }
  // The named key is the receivers' signal that the content waits for them.
  if (!hookKey(record, record.oriBackendKey, true)) {
    maillog(3, "%s:%d Failed to setKey(%s)", QSV_FILE, __LINE__,
            KeyTreeStore::instance()->keyComplete(record.oriBackendKey).c_str());
    return false;
  }
  return true;
}

bool QuillonServerBACKENDWrap::setFileReceiver(const std::string &key) {
  const std::string hostId = HostId();
  if (hostId.empty()) return false;
  const std::string uploadKey = FileUploadKey(key);
  UploadLock lock(uploadKey);
  if (!lock.Acquire(kWatcherLockTries)) return false;
  if (!exist(uploadKey)) return true;
  FileKeyVal record;
  if (!fetchFileKeyVal(uploadKey, record)) {
    maillog(3, "%s:%d Receiver Failed to fetchFileKeyVal", QSV_FILE, __LINE__);
    return false;
  }
  if (hostId != record.senderID) {
    syslog(LOG_DEBUG,
           "%s:%d I am Receviver(key[%s]): download from fileKey[%s] to path[%s] task[%s]",
           QSV_FILE, __LINE__, key.c_str(), record.fileContentKey.c_str(),
           record.dstFilePath.c_str(), record.taskQueueKey.c_str());
    if (!DestinationAllowed(record.dstFilePath)) return false;
    if (!record.scriptPath.empty() && access(record.scriptPath.c_str(), F_OK) == 0 &&
        !ScriptAllowed(record.scriptPath)) {
      return false;
    }
    std::string master;
    if (!MasterBalancer(master)) return false;
    FileBuffer buffer(master, kBufferPort);
    std::string digest;
    if (!buffer.checkBufferKeyExist(record.fileContentKey) ||
        !getKey(DigestKey(record), digest, true)) {
      // The sender hasn't uploaded yet, or the buffer lost the content: wake it again and keep
      // the task for the next signal.
      if (!hookKey(record, record.uploadKey, false)) {
        maillog(3, "%s:%d Failed to hookKey() key:[%s]", QSV_FILE, __LINE__, uploadKey.c_str());
      }
      syslog(LOG_DEBUG, "%s:%d Receiver: buffer not have key[%s] so rehook", QSV_FILE, __LINE__,
             record.fileContentKey.c_str());
      return false;
    }
    ENTERCriticalSection;
    bool landed = buffer.dumpFileContentFromBuffer(record.fileContentKey, record.dstFilePath,
                                                   record.pathInfo, digest);
    LEAVECriticalSection;
    if (buffer.contentRefused()) {
      // Someone other than the sender wrote the buffer: drop that content and have the sender
      // upload its own again.
      buffer.removeFileContentFromBuffer(record.fileContentKey);
      hookKey(record, record.uploadKey, false);
      return false;
    }
    if (!landed) {
      maillog(3, "%s:%d Failed to dumpFileContentFromBuffer() key:[%s], dst path:[%s]", QSV_FILE,
              __LINE__, record.fileContentKey.c_str(), record.dstFilePath.c_str());
      return false;
    }
    // A script that has gone since the sender named it is no reason to fetch the file again.
    if (!record.scriptPath.empty() && access(record.scriptPath.c_str(), F_OK) == 0) {
      std::vector<const char *> argv;
      argv.push_back(record.scriptPath.c_str());
      for (const std::string &arg : record.scriptArgs) argv.push_back(arg.c_str());
      argv.push_back(nullptr);
      int rc;
      ENTERCriticalSection;
      rc = KLIBCExecv(record.scriptPath.c_str(), argv.data(), 1);
      LEAVECriticalSection;
      if (rc != 0) {
        maillog(3, "%s:%d Failed to exec callback %s", QSV_FILE, __LINE__,
                record.scriptPath.c_str());
        return false;
      }
    }
    syslog(LOG_DEBUG, "%s:%d Receiver(key[%s]) got file [%s]", QSV_FILE, __LINE__, key.c_str(),
           record.dstFilePath.c_str());
  }
  if (!taskRemove(hostId, uploadKey, false, false)) {
    maillog(3, "%s:%d Failed to taskRemove([%s], [%s])", QSV_FILE, __LINE__, hostId.c_str(),
            uploadKey.c_str());
    return false;
  }
  return true;
}

bool QuillonServerBACKENDWrap::deleteFile(const std::string &key, const std::string &path) {
  KOLTMailNodeCluster cluster;
  if (!cluster.isClusterHealth(true)) {
    maillog(3, "%s:%d The cluster is unhealth so cannot sync file", QSV_FILE, __LINE__);
    return false;
  }
  if (!path.empty() && !Absolute(path, __LINE__)) return false;
  const std::string hostId = HostId();
  if (hostId.empty()) return false;
  UploadLock lock(FileUploadKey(key));
  if (!lock.Acquire(kCallerLockTries)) return false;
  if (exist(key)) {
    FileKeyVal record;
    if (!fetchFileKeyVal(key, record)) {
      maillog(3, "%s:%d Failed to fetchFileKeyVal()", QSV_FILE, __LINE__);
      return false;
    }
    record.scriptPath.clear();
    record.scriptArgs.clear();
    record.isDelete = true;
    return startNewTask(hostId, key, record, true);
  }
  if (path.empty()) {
    maillog(3, "%s:%d file [%s] has not been synced yet", QSV_FILE, __LINE__, key.c_str());
    return false;
  }
  if (access(path.c_str(), F_OK) != 0) return true;
  if (!ResolveAllowed(path, szgAllowPrefix, "%s:%d The path is wrong %s", __LINE__)) return false;
  return unlink(path.c_str()) == 0;
}

bool QuillonServerBACKENDWrap::deleteLocalFile(const FileKeyVal &record) {
  const std::string hostId = HostId();
  if (hostId.empty()) return false;
  if (!DestinationAllowed(record.dstFilePath)) return false;
  int rc = 0;
  int error = 0;
  ENTERCriticalSection;
  if (KLIBCFileExist(record.dstFilePath.c_str()) == 1) {
    rc = unlink(record.dstFilePath.c_str());
    error = errno;
  }
  LEAVECriticalSection;
  if (rc != 0) {
    maillog(3, "%s:%d Failed to deleteLocalFile() key:[%s], dst path:[%s] error[%s]", QSV_FILE,
            __LINE__, record.oriBackendKey.c_str(), record.dstFilePath.c_str(), strerror(error));
    return false;
  }
  if (!taskRemove(hostId, record.uploadKey, false, true)) {
    maillog(3, "%s:%d Failed to taskRemove([%s], [%s])", QSV_FILE, __LINE__, hostId.c_str(),
            record.uploadKey.c_str());
    return false;
  }
  return true;
}

bool QuillonServerBACKENDWrap::lastTaskCheck(FileKeyVal &record, bool &isLast, bool removeAll) {
  KOLTMailNodeCluster cluster;
  std::vector<std::string> peers;
  if (!cluster.listBackendPeers(peers)) {
    maillog(3, "%s:%d Failed to listBackendPeers()", QSV_FILE, __LINE__);
    return false;
  }
  isLast = true;
  for (const std::string &peer : peers) {
    const std::string queue = kQueuePrefix + peer;
    if (!exist(queue)) continue;
    std::vector<std::string> children;
    if (!ls(queue, children)) {
      maillog(3, "%s:%d Failed to list tree %s", QSV_FILE, __LINE__, queue.c_str());
      return false;
    }
    for (const std::string &child : children) {
      if (child.find(record.taskQueueKey) == std::string::npos) continue;
      isLast = false;
      if (!removeAll) return true;
      const std::string task = queue + "/" + child;
      if (!removeKey(task)) {
        maillog(3, "%s:%d Failed to remove queue task key %s, but still continue", QSV_FILE,
                __LINE__, task.c_str());
      }
    }
  }
  return true;
}

bool QuillonServerBACKENDWrap::taskRemove(const std::string &hostId, const std::string &uploadKey,
                                          bool force, bool removeNamedKey) {
  if (!exist(uploadKey)) return true;
  FileKeyVal record;
  if (!fetchFileKeyVal(uploadKey, record)) {
    syslog(LOG_DEBUG, "%s:%d fetchFileKeyVal() key:%s is not exist may clear by others", QSV_FILE,
           __LINE__, uploadKey.c_str());
    return true;
  }
  if (taskExist(hostId, record.taskQueueKey)) {
    const std::string task = composeFullQueueKeyPrefix(hostId) + "/" + record.taskQueueKey;
    if (!removeKey(task)) {
      maillog(3, "%s:%d Failed to remove key %s", QSV_FILE, __LINE__, task.c_str());
      return false;
    }
  }
  if (record.fileContentKey.empty()) return true;
  bool isLast = false;
  if (!lastTaskCheck(record, isLast, force)) {
    maillog(3, "%s:%d Failed to check if the task is last", QSV_FILE, __LINE__);
    return false;
  }
  if (!force && !isLast) return true;  // other nodes are still at work
  if (removeNamedKey) {
    if (exist(record.oriBackendKey) && !removeKey(record.oriBackendKey)) {
      maillog(3, "%s:%d Failed to remove key [%s]", QSV_FILE, __LINE__,
              record.oriBackendKey.c_str());
    }
  } else {
    std::string master;
    if (!MasterBalancer(master)) return false;
    FileBuffer(master, kBufferPort).removeFileContentFromBuffer(record.fileContentKey);
    removeKey(DigestKey(record));
    syslog(LOG_DEBUG, "%s:%d Receiever[%s]: Remove file content: %s", QSV_FILE, __LINE__,
           hostId.c_str(), record.fileContentKey.c_str());
  }
  if (exist(uploadKey) && !removeKey(uploadKey)) {
    maillog(3, "%s:%d Failed to remove key [%s]", QSV_FILE, __LINE__, uploadKey.c_str());
  }
  return true;
}

}  // namespace QUILLON_SERVER
}  // namespace KOLT
