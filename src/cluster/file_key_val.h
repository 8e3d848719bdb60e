// The record of one file sync cycle, as it travels in the upload key and the file's named key:
// who sent which file, where the content waits in the file buffer, which queue entries belong to
// the cycle, and the owner and mode of the file and of every directory above it, so that a
// receiver can rebuild the path as the sender has it.
//
// Plain values; copy them freely.
#ifndef MAILSERVER_CLUSTER_FILE_KEY_VAL_H_
#define MAILSERVER_CLUSTER_FILE_KEY_VAL_H_

#include <cstdint>
#include <map>
#include <string>
#include <vector>

#include <json/json.h>

#include "foundation/export.h"

namespace KOLT {
namespace QUILLON_SERVER {

struct FilePathInfo {
  uint32_t mode = 0;  // the whole st_mode, type bits included
  uint32_t uid = 0;
  uint32_t gid = 0;
  bool isDir = false;
};

struct QSV_EXPORT FileKeyVal {
  std::string senderID;
  std::string srcFilePath;
  std::string dstFilePath;
  std::string timestamp;
  std::string oriBackendKey;
  std::string uploadKey;
  std::string fileContentKey;
  std::string taskQueueKey;
  std::string scriptPath;
  bool isDelete = false;
  std::vector<std::string> scriptArgs;
  std::map<std::string, FilePathInfo> pathInfo;
  int randNum = 0;

  // Fills the record from its nine strings in member order and the script's arguments, and
  // records owner and mode of every path from the first directory under the root down to
  // `srcFilePath` (lstat, so links are recorded as links). False, logged, when one can't be read.
  bool create(const std::string &senderID, const std::string &srcFilePath,
              const std::string &dstFilePath, const std::string &timestamp,
              const std::string &oriBackendKey, const std::string &uploadKey,
              const std::string &fileContentKey, const std::string &taskQueueKey,
              const std::string &scriptPath, const std::vector<std::string> &scriptArgs);

  // The record as one line of JSON, in member order, with `counter` as "randNum".
  std::string serialize(int counter) const;
  // Fills the record from `json`. False when a required member is missing.
  bool fromJson(const Json::Value &json);
};

// The upload key of the file cycles of `key`.
QSV_EXPORT std::string FileUploadKey(const std::string &key);

}  // namespace QUILLON_SERVER
}  // namespace KOLT

#endif  // MAILSERVER_CLUSTER_FILE_KEY_VAL_H_
