#include "watcher.h"

#include <syslog.h>
#include <unistd.h>

#include <chrono>
#include <memory>

#include "cluster/backendWrapper.h"
#include "cluster/file_key_val.h"
#include "cluster/mailserver_cluster.h"
#include "config/mail_conf.h"
#include "core/key_tree_store.h"
#include "personal/personal.h"
#include "service_applier.h"

using KOLT::QUILLON_SERVER::FileKeyVal;
using KOLT::QUILLON_SERVER::FileUploadKey;
using KOLT::QUILLON_SERVER::KeyTreeStore;
using KOLT::QUILLON_SERVER::KOLTMailNodeCluster;
using KOLT::QUILLON_SERVER::QuillonServerBACKENDWrap;

namespace keywatcher {
namespace {

const char kUploadPrefix[] = "kv_file_upload/";
const char kFilePrefix[] = "mailserver/file/";
const char kHealthTrigger[] = "mailserver/cluster/health_check_trigger";
const char kPersonalPrefix[] = "personal/";
const char kPersonalShortPrefix[] = "personal-";
const char *const kMirroredPrefixes[] = {"mailserver/conf/", "mailserver/cluster/",
                                         "mapping_table/"};

bool StartsWith(const std::string &text, const std::string &prefix) {
  return text.compare(0, prefix.size(), prefix) == 0;
}

bool IsMirrored(const std::string &key) {
  for (const char *prefix : kMirroredPrefixes) {
    if (StartsWith(key, prefix)) return true;
  }
  return false;
}

bool IsPersonal(const std::string &shortKey) { return StartsWith(shortKey, kPersonalShortPrefix); }

bool IsFileRecord(const std::string &value) {
  return StartsWith(value, "{\"senderID\":") && value.find("\"fileContentKey\":") != std::string::npos;
}

std::string HostId() { return KOLTMailNodeCluster().getHostID(); }

const char kHolderPrefix[] = "quillon_server_lock_holder/";

// How often a waiting watcher reads the store again, and after how many reads it asks whether a
// lock's holder is gone.
constexpr useconds_t kPollMicros = 500;
constexpr int kJudgeHolderAfter = 100;

bool ParseRecord(const std::string &value, FileKeyVal &record) {
  Json::Value json;
  Json::CharReaderBuilder builder;
  std::unique_ptr<Json::CharReader> reader(builder.newCharReader());
  return reader->parse(value.data(), value.data() + value.size(), &json, nullptr) &&
         record.fromJson(json);
}

// Whether the cluster has a node other than `id`.
bool HasPeers(const std::string &id) {
  std::vector<std::string> peers;
  KOLTMailNodeCluster().listBackendPeers(peers);
  for (const std::string &peer : peers) {
    if (peer != id) return true;
  }
  return false;
}

}  // namespace

std::vector<std::string> FollowedPatterns() {
  std::vector<std::string> patterns = {std::string(kUploadPrefix) + "*",
                                       std::string(kFilePrefix) + "*",
                                       std::string(kPersonalPrefix) + "*",
                                       std::string(kServiceFlagPrefix) + "*"};
  for (const char *prefix : kMirroredPrefixes) patterns.push_back(std::string(prefix) + "*");
  return patterns;
}

void Watcher::Handle(const std::string &key, const std::string &event) {
  const bool written = event == "set";
  const bool removed = event == "del" || event == "expired";
  if (!written && !removed) return;
  std::string value;
  if (StartsWith(key, kUploadPrefix)) {
    if (written && reader_->Get(key, &value)) Offered(key, value);
    return;
  }
  if (StartsWith(key, kFilePrefix)) {
    if (written && reader_->Get(key, &value)) Arrived(key, value);
    return;
  }
  if (StartsWith(key, kServiceFlagPrefix)) {
    if (written) TakeUpServiceFlag(reader_, key, HostId());
    return;
  }
  if (StartsWith(key, kPersonalPrefix)) {
    // A user's file lands by the file sync and is then given to its user; a key that went takes
    // its file along. The hook asks the store itself whether the key is still there.
    if (written && reader_->Get(key, &value) && IsFileRecord(value) && !Arrived(key, value)) return;
    Personal::UpdateFile(KeyTreeStore::instance()->keyShort(key));
    return;
  }
  if (!IsMirrored(key)) return;
  // A caller may name a file by any key; its value, the cycle's record, is no setting to mirror.
  // The value read here is the newest, whatever the event said: a key gone meanwhile is removed.
  const bool present = written && reader_->Get(key, &value);
  if (present && IsFileRecord(value)) {
    Arrived(key, value);
    return;
  }
  Mirror(key);
  if (written && key == kHealthTrigger) {
    const std::string id = HostId();
    if (!id.empty()) {
      QuillonServerBACKENDWrap().setKey("health_check_heartbeat_dir/" + id, "alive", 0);
    }
  }
}

// The library's upload lock is tried once a second: a call made while another node holds it
// loses a second. Most of that is avoidable, since the watcher can see who needs to act and
// when the lock is free; the lock itself still decides.

void Watcher::Offered(const std::string &uploadKey, const std::string &value) {
  FileKeyVal record;
  // Only the sender uploads; a delete is carried out everywhere.
  const bool parsed = ParseRecord(value, record);
  const std::string id = HostId();
  if (parsed && !record.isDelete && record.senderID != id) return;
  if (parsed && record.isDelete) WaitForEarlierReceivers(record, id);
  if (!WaitForUnlocked(uploadKey)) return;
  QuillonServerBACKENDWrap().setFileSender(uploadKey);
}

bool Watcher::Arrived(const std::string &namedKey, const std::string &value) {
  FileKeyVal record;
  const std::string id = HostId();
  // The sender's own call only tidies up, which the last receiver does anyway; alone in the
  // cluster it is the one that must.
  const bool parsed = ParseRecord(value, record);
  if (parsed && record.senderID == id && HasPeers(id)) return true;
  if (parsed) WaitForEarlierReceivers(record, id);
  const std::string key = KeyTreeStore::instance()->keyShort(namedKey);
  if (!WaitForUnlocked(FileUploadKey(key))) return false;
  return Receive(key);
}

bool Watcher::Receive(const std::string &key) {
  if (IsPersonal(key)) {
    // The record of a user's file may only place that very file of that user's directory; the
    // file sync alone would let it write anywhere under the mail spool.
    std::string value;
    FileKeyVal record;
    std::string path;
    if (reader_->Get(FileUploadKey(key), &value) && ParseRecord(value, record) &&
        (Personal::LocalFilePath(key, path) < 0 || record.dstFilePath != path)) {
      syslog(LOG_ERR, "refused the record of %s: it places [%s], not this user's file [%s]",
             key.c_str(), record.dstFilePath.c_str(), path.c_str());
      return false;
    }
  }
  return QuillonServerBACKENDWrap().setFileReceiver(key);
}

// Receivers that woke together would meet at the lock, and all but one would lose a second.
// Each lets the receivers listed before it go first, but waits no longer than that second: a
// node that is away keeps its task, and the others must not wait for it.
void Watcher::WaitForEarlierReceivers(const FileKeyVal &record, const std::string &id) {
  std::vector<std::string> peers;
  KOLTMailNodeCluster().listBackendPeers(peers);
  const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(1);
  for (const std::string &peer : peers) {
    if (peer == id) return;
    if (peer == record.senderID && !record.isDelete) continue;  // a delete has a task there too
    const std::string task =
        QuillonServerBACKENDWrap::composeFullQueueKeyPrefix(peer) + "/" + record.taskQueueKey;
    std::string pending;
    while (reader_->Get(task, &pending)) {
      if (std::chrono::steady_clock::now() > deadline) return;
      usleep(kPollMicros);
    }
  }
}

// The library waits up to two minutes for a lock; the watcher must not, or one stuck key would
// hold up every setting and file behind it. A lock still held after a short wait is broken when
// its holder is provably gone (this watcher itself counts as gone: between events it holds
// nothing), else the key is left to the periodic catch-up.
bool Watcher::WaitForUnlocked(const std::string &uploadKey) {
  const std::string lock = "quillon_server_lock/" + uploadKey;
  std::string holder;
  // Most waits are for a holder that is just finishing (the caller of setFile releases right
  // after its last write, which is what woke us): a read of the store every half millisecond
  // costs little, and a gone holder, which takes a run of the key store tool to judge, is
  // looked for only once the wait has lasted.
  for (int i = 0; i < 10000; ++i) {
    if (!reader_->Get(lock, &holder)) return true;
    if (i == kJudgeHolderAfter &&
        QuillonServerBACKENDWrap().breakLockOfGoneHolder(uploadKey, getpid())) {
      return true;
    }
    usleep(kPollMicros);
  }
  syslog(LOG_INFO, "%s is locked by a live holder; left to the next catch-up", uploadKey.c_str());
  return false;
}

void Watcher::Mirror(const std::string &key) {
  // The value is read under the key file's lock, from the replication master: a local write that
  // finished before can't be overwritten by what the store held before it.
  bool answered = true;
  const int rc = mailConfMirrorRead(key, [&](std::string &value) {
    const int found = QuillonServerBACKENDWrap().readKey(key, value, true);
    answered = found >= 0;
    return found > 0 && IsFileRecord(value) ? 0 : found;
  });
  // No answer is no removal: the mirror stays as it was until a read is answered.
  if (!answered) {
    syslog(LOG_WARNING, "the store did not answer for %s; its mirror is left as it was",
           key.c_str());
    unanswered_.insert(key);
    return;
  }
  unanswered_.erase(key);
  if (rc < 0) syslog(LOG_ERR, "failed to update the mirror of %s", key.c_str());
}

void Watcher::BreakLocksOfGoneHolders() {
  std::vector<std::string> holders;
  if (!reader_->Keys(std::string(kHolderPrefix) + "*", &holders)) return;
  for (const std::string &holder : holders) {
    QuillonServerBACKENDWrap().breakLockOfGoneHolder(holder.substr(sizeof(kHolderPrefix) - 1),
                                                     getpid());
  }
}

bool Watcher::Locked(const std::string &uploadKey) {
  std::string holder;
  return reader_->Get("quillon_server_lock/" + uploadKey, &holder);
}

void Watcher::CatchUpMirrors() {
  for (const char *prefix : kMirroredPrefixes) {
    std::vector<std::string> keys;
    if (!reader_->Keys(std::string(prefix) + "*", &keys)) return;
    for (const std::string &key : keys) {
      std::string value;
      if (reader_->Get(key, &value) && !IsFileRecord(value)) Mirror(key);
    }
  }
  // The services read the mirrors just brought up to date.
  CatchUpServiceFlags(reader_, HostId());
}

void Watcher::RetryMirrors() {
  const std::set<std::string> keys = unanswered_;
  for (const std::string &key : keys) Mirror(key);
}

void Watcher::CatchUpFiles() {
  const std::string hostId = HostId();
  if (hostId.empty()) return;
  BreakLocksOfGoneHolders();
  // Uploads first: a cycle that this node started while its watcher was away waits for it to
  // fill the buffer. The others' cycles cost a lock and a read each.
  std::vector<std::string> uploads;
  if (reader_->Keys(std::string(kUploadPrefix) + "*", &uploads)) {
    for (const std::string &upload : uploads) {
      if (!Locked(upload)) QuillonServerBACKENDWrap().setFileSender(upload);
    }
  }
  std::vector<std::string> tasks;
  const std::string queue = QuillonServerBACKENDWrap::composeFullQueueKeyPrefix(hostId) + "/";
  if (!reader_->Keys(queue + "*", &tasks)) return;
  for (const std::string &task : tasks) WorkOffTask(task);
}

void Watcher::WorkOffTask(const std::string &taskKey) {
  std::string value;
  if (!reader_->Get(taskKey, &value)) return;
  // kind|tree|key
  const size_t first = value.find('|');
  const size_t second = first == std::string::npos ? first : value.find('|', first + 1);
  if (second == std::string::npos || value.compare(0, first, "FILE") != 0) return;
  const std::string key = value.substr(second + 1);
  if (Locked(FileUploadKey(key))) return;  // its holder is at work, or will be found gone later
  QuillonServerBACKENDWrap store;
  // A delete is carried out by the sender step on every node; an upload by the receiver step.
  store.setFileSender(FileUploadKey(key));
  if (reader_->Get(taskKey, &value) && Receive(key) && IsPersonal(key)) Personal::UpdateFile(key);
}

}  // namespace keywatcher
