#include "cluster/backendWrapper.h"

#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <sstream>
#include <cstring>
#include <fstream>

#include "cluster/mailserver_cluster.h"
#include "config/mail_conf.h"
#include "core/key_tree_store.h"
#include "core/mail_conf.h"
#include "foundation/log.h"
#include "foundation/strings.h"
#include "kolt/exec.h"
#include "kolt/proc_identity.h"

namespace KOLT {
namespace QUILLON_SERVER {

const char kBackendTool[] = "/var/packages/Quillon-Server/target/usr/bin/kolt-quillon-server-go-utils";

namespace {

constexpr int kQuietWait = 187;  // wait for the exit, stdio to /dev/null
constexpr int kToolSaysNo = 1;   // the tool's status when the store answered "no such key"
const char kLockPrefix[] = "quillon_server_lock/";
// Beside each lock the key store tool records who took it: "NODE PID START".
const char kHolderPrefix[] = "quillon_server_lock_holder/";
const char kQueuePrefix[] = "task_queue/";
const char kBackendConf[] = "/var/packages/Quillon-Server/etc/backend.conf";
const char kRedisCli[] = "/var/packages/Quillon-Server/target/usr/bin/redis-cli";

std::string Complete(const std::string &key) {
  return KeyTreeStore::instance()->keyComplete(key);
}

// Runs the tool with a command word and a key, plus the given arguments; the exit status.
int RunTool(const char *word, const std::string &key, const char *name1 = nullptr,
            const char *value1 = nullptr, const char *name2 = nullptr,
            const char *value2 = nullptr) {
  return KLIBCExecl(kBackendTool, kQuietWait, "backend-command", "--command", word, "--key",
                    key.c_str(), name1, value1, name2, value2, static_cast<char *>(nullptr));
}

// Runs the tool with a command word and a key and collects its whole output, byte for byte.
// False when it could not be started; else `status` is what KLIBCPclose gave.
bool ReadTool(const char *word, const std::string &key, std::string &out, int &status) {
  FILE *pipe = KLIBCPopen(kBackendTool, "r", "backend-command", "--command", word, "--key",
                          key.c_str(), static_cast<char *>(nullptr));
  if (pipe == nullptr) return false;
  out.clear();
  char piece[512];
  size_t n;
  while ((n = fread(piece, 1, sizeof(piece), pipe)) > 0) out.append(piece, n);
  status = KLIBCPclose(pipe);
  return true;
}

}  // namespace

QuillonServerBACKENDWrap::QuillonServerBACKENDWrap() = default;
QuillonServerBACKENDWrap::QuillonServerBACKENDWrap(const std::string &, const std::string &) {}
QuillonServerBACKENDWrap::~QuillonServerBACKENDWrap() = default;

bool QuillonServerBACKENDWrap::setKey(const std::string &key, const std::string &value, int ttl) {
  const std::string ttlText = std::to_string(ttl);
  return RunTool("set", Complete(key), "--value", value.c_str(), "--ttl", ttlText.c_str()) == 0;
}

bool QuillonServerBACKENDWrap::getKey(const std::string &key, std::string &value, bool linear) {
  return readKey(key, value, linear) == 1;
}

int QuillonServerBACKENDWrap::readKey(const std::string &key, std::string &value, bool linear) {
  std::string output;
  int status = -1;
  if (!ReadTool(linear ? "linear_get" : "get", Complete(key), output, status)) return -1;
  if (status != 0) {
    value.clear();
    return status == kToolSaysNo ? 0 : -1;
  }
  value = output;
  return 1;
}

bool QuillonServerBACKENDWrap::exist(const std::string &key) {
  return RunTool("exist", Complete(key)) == 0;
}

bool QuillonServerBACKENDWrap::removeKey(const std::string &key) {
  // The local mirror goes first; the store's answer alone decides the result.
  dumpMailConfToFile(toLeagalFileName(key), key, "", true, true, kMailConfDir, 0, false, nullptr);
  return removeStoreKey(key);
}

bool QuillonServerBACKENDWrap::removeStoreKey(const std::string &key) {
  return RunTool("del", Complete(key)) == 0;
}

bool QuillonServerBACKENDWrap::removeDir(const std::string &key) {
  const std::string path = kMailConfDir + toLeagalFileName(key);
  if (access(path.c_str(), F_OK) == 0 && remove(path.c_str()) != 0) {
    maillog(3, "%s:%d Failed to remove file [%s] error [%s]", QSV_FILE, __LINE__, path.c_str(),
            strerror(errno));
  }
  return RunTool("del_dir", key) == 0;
}

bool QuillonServerBACKENDWrap::ls(const std::string &key, std::vector<std::string> &children) {
  std::string output;
  int status = -1;
  if (!ReadTool("list", Complete(key), output, status)) return false;
  std::vector<std::string> pieces;
  stringSplit(pieces, output, " ");
  // The tool prints full names; the child is what follows the key and its slash.
  const size_t cut = key.size() + 1;
  for (const std::string &piece : pieces) {
    if (piece.size() > cut) children.push_back(piece.substr(cut));
  }
  if (status < 0) {
    children.clear();
    return false;
  }
  return true;
}

bool QuillonServerBACKENDWrap::getTree(const std::string &key, Json::Value &out) {
  if (!exist(key)) return true;
  std::vector<std::string> children;
  if (!ls(key, children)) {
    maillog(3, "%s:%d Failed to list tree %s", QSV_FILE, __LINE__, key.c_str());
    return false;
  }
  for (const std::string &child : children) {
    const std::string childKey = key + "/" + child;
    std::string value;
    if (!getKey(childKey, value, false)) {
      maillog(3, "%s:%d Failed to get key %s", QSV_FILE, __LINE__, childKey.c_str());
      continue;
    }
    out[child] = value;
  }
  return true;
}

bool QuillonServerBACKENDWrap::acquireLock(const std::string &name, unsigned long ttl) {
  const std::string ttlText = std::to_string(ttl);
  return RunTool("create", kLockPrefix + name, "--value", "locked", "--ttl", ttlText.c_str()) == 0;
}

bool QuillonServerBACKENDWrap::releaseLock(const std::string &name) {
  return RunTool("del", kLockPrefix + name) == 0;
}

bool QuillonServerBACKENDWrap::getUploadKeyLock(const std::string &name, int tries) {
  if (tries < 1) return false;
  // The lock lives a day, so that a slow holder never loses it; one whose holder is provably
  // gone (a store that restarted under it swallowed the release) is broken at the first miss.
  bool holderChecked = false;
  for (int failed = 0;;) {
    if (acquireLock(name, 86400)) return true;
    if (!holderChecked) {
      holderChecked = true;
      if (breakLockOfGoneHolder(name, 0)) continue;
    }
    ++failed;
    sleep(1);
    if (failed >= tries) return false;
  }
}

bool QuillonServerBACKENDWrap::breakLockOfGoneHolder(const std::string &name, pid_t idlePid) {
  std::string holder;
  if (!getKey(kHolderPrefix + name, holder, true) || holder.empty()) return false;
  std::string node, start;
  long pid = 0;
  {
    std::istringstream fields(holder);
    if (!(fields >> node >> pid >> start) || pid <= 0) return false;
  }
  KOLTMailNodeCluster cluster;
  bool gone;
  if (node == cluster.getHostID()) {
    gone = pid == idlePid || KLIBCProcStartTime(static_cast<pid_t>(pid)) != start;
  } else {
    // Another node's process can't be seen from here; a node that has left the cluster holds
    // nothing any more. A member that is down breaks its own stale locks when its watcher starts.
    std::vector<std::string> peers;
    gone = cluster.listBackendPeers(peers) && !peers.empty() &&
           std::find(peers.begin(), peers.end(), node) == peers.end();
  }
  if (!gone) return false;
  if (RunTool("break_lock", kLockPrefix + name, "--value", holder.c_str()) != 0) return false;
  maillog(3, "%s:%d Broke the lock [%s] left behind by [%s], a holder that is gone", QSV_FILE,
          __LINE__, name.c_str(), holder.c_str());
  return true;
}

std::string QuillonServerBACKENDWrap::composeFullQueueKeyPrefix(const std::string &server) {
  return kQueuePrefix + server;
}

bool QuillonServerBACKENDWrap::taskAdd(const std::string &server, const std::string &taskId,
                                       const std::string &key, int kind,
                                       const std::string &tree) {
  static const char *const kKindWords[] = {"TREE", "KEY", "SERVICE", "FILE"};
  const std::string word = kind >= 0 && kind <= 3 ? kKindWords[kind] : "";
  const std::string taskKey = composeFullQueueKeyPrefix(server) + "/" + taskId;
  if (!setKey(taskKey, word + "|" + tree + "|" + key, 0)) {
    maillog(3, "%s:%d Failed to set key %s", QSV_FILE, __LINE__, taskKey.c_str());
    return false;
  }
  return true;
}

bool QuillonServerBACKENDWrap::taskExist(const std::string &server, const std::string &taskId) {
  return exist(composeFullQueueKeyPrefix(server) + "/" + taskId);
}

bool QuillonServerBACKENDWrap::isRedisMaster() {
  KOLTMailNodeCluster cluster;
  std::string master;
  int status = -1;
  if (!ReadTool("get_redis_master_ip", "", master, status)) return false;
  return master == cluster.getHostIP();
}

bool QuillonServerBACKENDWrap::becomeRedisMaster() {
  std::ifstream in(kBackendConf);
  if (!in) {
    maillog(3, "%s:%d Failed to open %s error: %s", QSV_FILE, __LINE__, kBackendConf,
            strerror(errno));
    return false;
  }
  Json::Value conf;
  Json::CharReaderBuilder builder;
  std::string errors;
  if (!Json::parseFromStream(builder, in, &conf, &errors) || !conf.isObject()) {
    maillog(3, "%s:%d Failed to load json %s", QSV_FILE, __LINE__, kBackendConf);
    return false;
  }
  const std::string password = conf["password"].asString();
  if (KLIBCExecl(kRedisCli, kQuietWait, "-p", "8500", "-a", password.c_str(), "SLAVEOF", "NO",
                 "ONE", static_cast<char *>(nullptr)) != 0) {
    maillog(3, "%s:%d Failed to set slaveof no one", QSV_FILE, __LINE__);
    return false;
  }
  if (KLIBCExecl(kRedisCli, kQuietWait, "-p", "8500", "-a", password.c_str(), "CONFIG",
                 "rewrite", static_cast<char *>(nullptr)) != 0) {
    maillog(3, "%s:%d Failed to config rewrite", QSV_FILE, __LINE__);
    return false;
  }
  return true;
}

}  // namespace QUILLON_SERVER
}  // namespace KOLT
