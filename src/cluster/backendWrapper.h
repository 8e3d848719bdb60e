// The cluster's key store, the backend, as this library uses it: every operation runs the suite's
// key store tool once as a child process and reads its exit status or its output. The wrapper
// holds no state and no connection, so it can be built on the stack anywhere, for one call, and
// used from any thread.
//
// Keys are completed (KeyTreeStore::keyComplete) before they reach the tool, except where an
// operation says otherwise.
#ifndef MAILSERVER_CLUSTER_BACKENDWRAPPER_H_
#define MAILSERVER_CLUSTER_BACKENDWRAPPER_H_

#include <json/json.h>
#include <sys/types.h>

#include <map>
#include <string>
#include <vector>

#include "cluster/file_key_val.h"
#include "foundation/export.h"

namespace KOLT {
namespace QUILLON_SERVER {

// The tool that is the only road to the store.
extern const char kBackendTool[];

class QSV_EXPORT QuillonServerBACKENDWrap {
 public:
  // Task kinds of taskAdd.
  enum TaskKind { TASK_TREE = 0, TASK_KEY = 1, TASK_SERVICE = 2, TASK_FILE = 3 };

  QuillonServerBACKENDWrap();
  QuillonServerBACKENDWrap(const std::string &server, const std::string &port);
  virtual ~QuillonServerBACKENDWrap();

  bool setKey(const std::string &key, const std::string &value, int ttl);
  // The value is the tool's output byte for byte; on failure it is cleared (or, when the tool
  // can't even start, left as it was).
  bool getKey(const std::string &key, std::string &value, bool linear);
  // As getKey, telling a "no" apart from no answer: 1 and the value; 0 when the store says the key
  // is absent; -1 when the store could not answer (or the tool did not run), which a caller that
  // mirrors the store must not take for a removal.
  int readKey(const std::string &key, std::string &value, bool linear);
  bool exist(const std::string &key);
  // Drops the local mirror of the key first, then the key in the store.
  bool removeKey(const std::string &key);
  // The key in the store alone: for a caller that changes the mirror itself, under its lock.
  bool removeStoreKey(const std::string &key);
  // Removes the key and everything below it; the key is passed as given, not completed.
  bool removeDir(const std::string &key);
  // The names of the children of `key`, relative to it.
  bool ls(const std::string &key, std::vector<std::string> &children);
  // One member per child of `key` with its value; a missing key is an empty success and an
  // unreadable child is skipped.
  bool getTree(const std::string &key, Json::Value &out);

  // Cluster-wide named locks, held for `ttl` seconds at most.
  bool acquireLock(const std::string &name, unsigned long ttl);
  bool releaseLock(const std::string &name);
  // acquireLock once a second, `tries` times at most. A lock whose holder is gone is broken at
  // the first miss (see breakLockOfGoneHolder).
  bool getUploadKeyLock(const std::string &name, int tries);
  // Removes the lock `name` when its holder is provably gone: a process of this node that no
  // longer exists (or is `idlePid`, a caller that knows it holds nothing now), or a node that is
  // no longer a member. Logs the break. True when the lock was broken.
  bool breakLockOfGoneHolder(const std::string &name, pid_t idlePid);

  bool taskAdd(const std::string &server, const std::string &taskId, const std::string &key,
               int kind, const std::string &tree);
  bool taskExist(const std::string &server, const std::string &taskId);
  static std::string composeFullQueueKeyPrefix(const std::string &server);

  // File sync. A file travels as a whole: its content through the file buffer on the master
  // balancer, its record (FileKeyVal) and the queue of nodes still to fetch it through the store.
  // setFile and deleteFile are the callers' entries; the key watcher calls setFileSender when an
  // upload key changes and setFileReceiver when a named key changes. All answer true on success
  // and log what failed.
  //
  // Files must lie under szgAllowPrefix (foundation/path_check.h). `scriptAndArgs` may be null;
  // else a null-terminated array: a script under szgAllowScriptPrefix, then its arguments, run on each receiver after the file has landed.
  bool setFile(const std::string &key, const std::string &path, const char **scriptAndArgs);
  bool deleteFile(const std::string &key, const std::string &path);
  bool setFileSender(const std::string &uploadKey);
  bool setFileReceiver(const std::string &key);
  bool fetchFileKeyVal(const std::string &key, FileKeyVal &record);
  bool hookKey(FileKeyVal &record, const std::string &key, bool direct);
  bool dumpFileToBuffer(FileKeyVal &record);
  bool deleteLocalFile(const FileKeyVal &record);
  bool startNewTask(const std::string &hostId, const std::string &key, FileKeyVal &record,
                    bool isDelete);
  bool taskRemove(const std::string &hostId, const std::string &uploadKey, bool force,
                  bool removeNamedKey);
  bool lastTaskCheck(FileKeyVal &record, bool &isLast, bool removeAll);

  // Whether this node's address is the replication master's.
  bool isRedisMaster();
  // Makes this node's Redis the replication master and saves that in its configuration.
  bool becomeRedisMaster();
};

}  // namespace QUILLON_SERVER
}  // namespace KOLT

#endif  // MAILSERVER_CLUSTER_BACKENDWRAPPER_H_
