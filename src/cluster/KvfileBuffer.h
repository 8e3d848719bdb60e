// Moves a file's content in and out of the cluster's file buffer, one memcached server beside the
// master balancer. A whole file is one value, base64-encoded, stored without expiry until the
// last node that needs it has taken it.
//
// An object belongs to one caller at a time and connects at its first operation; it owns its
// memcached handle and server list. Make a new one per operation: nothing is cached.
#ifndef MAILSERVER_CLUSTER_KVFILEBUFFER_H_
#define MAILSERVER_CLUSTER_KVFILEBUFFER_H_

#include <libmemcached/memcached.h>

#include <map>
#include <string>

#include "cluster/file_key_val.h"
#include "foundation/export.h"

namespace KOLT {
namespace QUILLON_SERVER {

class QSV_EXPORT FileBuffer {
 public:
  FileBuffer(const std::string &server, int port);
  ~FileBuffer();
  FileBuffer(const FileBuffer &) = delete;
  FileBuffer &operator=(const FileBuffer &) = delete;

  // Idempotent; true once a handle with the server pushed exists.
  bool connectToServer();

  // Stores the content of the file at `path` under `key`; an empty file is the empty value.
  bool setFileContentToBuffer(const std::string &key, const std::string &path);
  // The same, and `digest` becomes the SHA-256 (hex) of the bytes stored. The buffer takes writes
  // from anyone: whoever sends keeps the digest where only cluster members can write.
  bool setFileContentToBuffer(const std::string &key, const std::string &path,
                              std::string *digest);
  bool checkBufferKeyExist(const std::string &key);
  // A key that isn't there is a success.
  bool removeFileContentFromBuffer(const std::string &key);
  // Writes the content of `key` to `path`: missing directories above it are made with the owner
  // and mode that `pathInfo` records, the file goes through `path`.tmp and gets its recorded owner
  // and mode before it replaces the old one.
  // REQUIRES: root, for the owners (callers run it inside the critical section).
  bool dumpFileContentFromBuffer(const std::string &key, const std::string &path,
                                 const std::map<std::string, FilePathInfo> &pathInfo);
  // The same, but content whose SHA-256 (hex) differs from `digest` is refused before anything
  // is written, and contentRefused() tells so afterwards.
  bool dumpFileContentFromBuffer(const std::string &key, const std::string &path,
                                 const std::map<std::string, FilePathInfo> &pathInfo,
                                 const std::string &digest);
  bool contentRefused() const { return contentRefused_; }

 private:
  bool createPath(const std::string &path, const std::map<std::string, FilePathInfo> &pathInfo);

  std::string server_;
  int port_;
  memcached_st *memc_ = nullptr;
  memcached_return_t status_ = MEMCACHED_SUCCESS;
  memcached_server_st *servers_ = nullptr;
  bool contentRefused_ = false;
};

}  // namespace QUILLON_SERVER
}  // namespace KOLT

#endif  // MAILSERVER_CLUSTER_KVFILEBUFFER_H_
