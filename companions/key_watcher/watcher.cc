#include "watcher.h"

#include <syslog.h>

#include "cluster/backendWrapper.h"
#include "cluster/file_key_val.h"
#include "cluster/mailserver_cluster.h"
#include "config/mail_conf.h"
#include "core/key_tree_store.h"

using KOLT::QUILLON_SERVER::FileUploadKey;
using KOLT::QUILLON_SERVER::KeyTreeStore;
using KOLT::QUILLON_SERVER::KOLTMailNodeCluster;
using KOLT::QUILLON_SERVER::QuillonServerBACKENDWrap;

namespace keywatcher {
namespace {

const char kUploadPrefix[] = "kv_file_upload/";
const char kFilePrefix[] = "mailserver/file/";
const char kHealthTrigger[] = "mailserver/cluster/health_check_trigger";
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

bool IsFileRecord(const std::string &value) {
  return StartsWith(value, "{\"senderID\":") && value.find("\"fileContentKey\":") != std::string::npos;
}

std::string HostId() { return KOLTMailNodeCluster().getHostID(); }

}  // namespace

std::vector<std::string> FollowedPatterns() {
  std::vector<std::string> patterns = {std::string(kUploadPrefix) + "*",
                                       std::string(kFilePrefix) + "*"};
  for (const char *prefix : kMirroredPrefixes) patterns.push_back(std::string(prefix) + "*");
  return patterns;
}

void Watcher::Handle(const std::string &key, const std::string &event) {
  const bool written = event == "set";
  const bool removed = event == "del" || event == "expired";
  if (!written && !removed) return;
  if (StartsWith(key, kUploadPrefix)) {
    if (written) QuillonServerBACKENDWrap().setFileSender(key);
    return;
  }
  if (StartsWith(key, kFilePrefix)) {
    if (written) QuillonServerBACKENDWrap().setFileReceiver(KeyTreeStore::instance()->keyShort(key));
    return;
  }
  if (!IsMirrored(key)) return;
  std::string value;
  // A caller may name a file by any key; its value, the cycle's record, is no setting to mirror.
  if (written && reader_->Get(key, &value) && IsFileRecord(value)) {
    QuillonServerBACKENDWrap().setFileReceiver(KeyTreeStore::instance()->keyShort(key));
    return;
  }
  Mirror(key, removed);
  if (written && key == kHealthTrigger) {
    const std::string id = HostId();
    if (!id.empty()) {
      QuillonServerBACKENDWrap().setKey("health_check_heartbeat_dir/" + id, "alive", 0);
    }
  }
}

void Watcher::Mirror(const std::string &key, bool removed) {
  std::string value;
  // A value read back may already be newer than the event: the mirror takes the newest.
  if (!removed && !reader_->Get(key, &value)) removed = true;
  if (mailConfMirror(key, value, removed) < 0) {
    syslog(LOG_ERR, "failed to update the mirror of %s", key.c_str());
  }
}

void Watcher::CatchUpMirrors() {
  for (const char *prefix : kMirroredPrefixes) {
    std::vector<std::string> keys;
    if (!reader_->Keys(std::string(prefix) + "*", &keys)) return;
    for (const std::string &key : keys) {
      std::string value;
      if (reader_->Get(key, &value) && !IsFileRecord(value)) Mirror(key, false);
    }
  }
}

void Watcher::CatchUpFiles() {
  const std::string hostId = HostId();
  if (hostId.empty()) return;
  // Uploads first: a cycle that this node started while its watcher was away waits for it to
  // fill the buffer. The others' cycles cost a lock and a read each.
  std::vector<std::string> uploads;
  if (reader_->Keys(std::string(kUploadPrefix) + "*", &uploads)) {
    for (const std::string &upload : uploads) QuillonServerBACKENDWrap().setFileSender(upload);
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
  QuillonServerBACKENDWrap store;
  // A delete is carried out by the sender step on every node; an upload by the receiver step.
  store.setFileSender(FileUploadKey(key));
  if (reader_->Get(taskKey, &value)) store.setFileReceiver(key);
}

}  // namespace keywatcher
