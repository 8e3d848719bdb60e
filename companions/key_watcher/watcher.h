// What the watcher does with the keys it follows:
//
//   kv_file_upload/*        a file cycle started or a receiver asks again: setFileSender
//   mailserver/file/*       a file's content waits in the buffer: setFileReceiver
//   personal/*              a user's forward or vacation file changed or went: the file is
//                           received as above, then Personal::UpdateFile gives it to its user or
//                           takes it away
//   mailserver/conf/*, mailserver/cluster/*, mapping_table/*
//                           a setting changed elsewhere: this node's mirror file follows
//   mailserver/cluster/health_check_trigger
//                           a liveness probe: this node answers in health_check_heartbeat_dir
//   service_change/*        a service of this node must take up a change: reloaded, its flag
//                           lowered (service_applier.h)
//
// and, at start and every so often, what a node that was away must catch up on: the uploads it
// sent, the tasks in its queue, the current value of every mirrored setting.
#ifndef QSV_COMPANIONS_KEY_WATCHER_WATCHER_H_
#define QSV_COMPANIONS_KEY_WATCHER_WATCHER_H_

#include <set>
#include <string>
#include <vector>

#include "cluster/file_key_val.h"
#include "store_link.h"

namespace keywatcher {

// The key patterns to subscribe to.
std::vector<std::string> FollowedPatterns();

class Watcher {
 public:
  explicit Watcher(Reader *reader) : reader_(reader) {}

  // One keyspace event.
  void Handle(const std::string &key, const std::string &event);
  // Sends what this node should have sent and fetches what it should have fetched.
  void CatchUpFiles();
  // Rewrites every mirror whose value differs from the store's, then takes up this node's
  // pending service flags.
  void CatchUpMirrors();
  // Mirrors again the keys whose reads the store left unanswered.
  void RetryMirrors();

 private:
  // An upload key or a named key was written with `value`. Arrived is true when the file is in
  // place on this node (received here, or this node sent it).
  void Offered(const std::string &uploadKey, const std::string &value);
  bool Arrived(const std::string &namedKey, const std::string &value);
  // setFileReceiver of the short key `key`, after checking where a user's file would land.
  bool Receive(const std::string &key);
  void WaitForEarlierReceivers(const KOLT::QUILLON_SERVER::FileKeyVal &record,
                               const std::string &id);
  // True once nobody holds the upload lock of `uploadKey`; false when a live holder still has it
  // after a few seconds.
  bool WaitForUnlocked(const std::string &uploadKey);
  bool Locked(const std::string &uploadKey);
  // Breaks the upload locks whose holders are gone (a process that ended, this watcher).
  void BreakLocksOfGoneHolders();
  // Brings this node's mirror of `key` to the store's current value, or drops it.
  void Mirror(const std::string &key);
  // The file cycle of the task `taskKey` of this node's queue, if it is one.
  void WorkOffTask(const std::string &taskKey);

  Reader *reader_;
  std::set<std::string> unanswered_;  // keys whose mirrors wait for the store to answer
};

}  // namespace keywatcher

#endif  // QSV_COMPANIONS_KEY_WATCHER_WATCHER_H_
