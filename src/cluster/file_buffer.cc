#include "cluster/KvfileBuffer.h"

#include <fcntl.h>
#include <openssl/evp.h>
#include <sys/stat.h>
#include <syslog.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <memory>

#include "foundation/log.h"
#include "kolt/base64.h"
#include "kolt/err.h"
#include "kolt/fs.h"

namespace KOLT {
namespace QUILLON_SERVER {
namespace {

// A multiple of three, so that every piece but the last encodes without padding and the pieces'
// texts can simply be joined.
constexpr size_t kPieceSize = 12288;
constexpr size_t kEncodedPieceSize = 24576;

struct FreeDeleter {
  void operator()(void *p) const { free(p); }
};

// SHA-256 of a stream of pieces, as lower-case hex.
class Sha256 {
 public:
  Sha256() : context_(EVP_MD_CTX_new()) {
    if (context_ != nullptr) EVP_DigestInit_ex(context_, EVP_sha256(), nullptr);
  }
  ~Sha256() { EVP_MD_CTX_free(context_); }
  void Add(const void *data, size_t size) {
    if (context_ != nullptr) EVP_DigestUpdate(context_, data, size);
  }
  std::string Hex() {
    unsigned char sum[EVP_MAX_MD_SIZE];
    unsigned int size = 0;
    if (context_ == nullptr || EVP_DigestFinal_ex(context_, sum, &size) != 1) return "";
    static const char kHex[] = "0123456789abcdef";
    std::string hex;
    for (unsigned int i = 0; i < size; ++i) {
      hex += kHex[sum[i] >> 4];
      hex += kHex[sum[i] & 15];
    }
    return hex;
  }

 private:
  EVP_MD_CTX *context_;
};

bool DigestMatches(const std::string &key, const char *data, size_t size,
                   const std::string &digest) {
  Sha256 sum;
  sum.Add(data, size);
  if (sum.Hex() == digest) return true;
  maillog(3, "%s:%d Refused the content of key[%s]: it does not match the digest in the store",
          QSV_FILE, __LINE__, key.c_str());
  return false;
}

// Opens `path` as a new file: whatever stood there is removed first, and a link put there in the
// meantime is not followed. The target's directory may be writable by others (mail spools are).
FILE *CreateFresh(const std::string &path) {
  unlink(path.c_str());
  const int fd = open(path.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_NOFOLLOW | O_CLOEXEC, 0600);
  if (fd < 0) return nullptr;
  FILE *out = fdopen(fd, "wb");
  if (out == nullptr) close(fd);
  return out;
}

}  // namespace

FileBuffer::FileBuffer(const std::string &server, int port) : server_(server), port_(port) {}

FileBuffer::~FileBuffer() {
  if (servers_ != nullptr) memcached_server_list_free(servers_);
  if (memc_ != nullptr) memcached_free(memc_);
}

bool FileBuffer::connectToServer() {
  if (memc_ != nullptr) return true;
  memc_ = memcached_create(nullptr);
  if (memc_ == nullptr) {
    status_ = MEMCACHED_MEMORY_ALLOCATION_FAILURE;
  } else {
    // A file goes out in many full segments and one short last one. With Nagle's rule that last
    // one waits for the server's delayed acknowledgement, 40 ms on Linux, longer than the whole
    // transfer of a megabyte.
    memcached_behavior_set(memc_, MEMCACHED_BEHAVIOR_TCP_NODELAY, 1);
    servers_ = memcached_server_list_append(servers_, server_.c_str(),
                                           static_cast<in_port_t>(port_), &status_);
    if (servers_ != nullptr) status_ = memcached_server_push(memc_, servers_);
  }
  if (memc_ == nullptr || servers_ == nullptr || status_ != MEMCACHED_SUCCESS) {
    maillog(3, "%s:%d Failed to connect to memcached server: %s, pid:%d", QSV_FILE, __LINE__,
            memc_ != nullptr ? memcached_strerror(memc_, status_) : "out of memory", getpid());
    if (servers_ != nullptr) memcached_server_list_free(servers_);
    if (memc_ != nullptr) memcached_free(memc_);
    servers_ = nullptr;
    memc_ = nullptr;
    return false;
  }
  return true;
}

bool FileBuffer::setFileContentToBuffer(const std::string &key, const std::string &path) {
  return setFileContentToBuffer(key, path, nullptr);
}

bool FileBuffer::setFileContentToBuffer(const std::string &key, const std::string &path,
                                        std::string *digest) {
  if (!connectToServer()) return false;
  Sha256 sum;
  // The file is read as root, possibly long after its writer checked it, from a directory its
  // user may own (forward and vacation files): a link or a FIFO put there since is not followed.
  const int fd = open(path.c_str(), O_RDONLY | O_NOFOLLOW | O_NONBLOCK | O_CLOEXEC);
  std::unique_ptr<FILE, int (*)(FILE *)> in(fd >= 0 ? fdopen(fd, "rb") : nullptr, fclose);
  struct stat st;
  if (!in || fstat(fileno(in.get()), &st) != 0 || !S_ISREG(st.st_mode)) {
    if (fd >= 0 && !in) close(fd);
    maillog(3, "%s:%d Failed to open %s", QSV_FILE, __LINE__, path.c_str());
    return false;
  }
  std::string text;
  if (st.st_size > 0) text.reserve((static_cast<size_t>(st.st_size) + 2) / 3 * 4);
  unsigned char piece[kPieceSize];
  char encoded[kEncodedPieceSize];
  size_t n;
  while ((n = fread(piece, 1, sizeof(piece), in.get())) > 0) {
    if (digest != nullptr) sum.Add(piece, n);
    const int length = KLIBCBase64SzEncodeFull(piece, n, encoded, sizeof(encoded));
    if (length < 0) {
      maillog(3, "%s:%d Failed to KLIBCBase64SzEncodeFull()", QSV_FILE, __LINE__);
      return false;
    }
    text.append(encoded, static_cast<size_t>(length));
  }
  if (ferror(in.get())) {
    maillog(3, "%s:%d Failed to open %s", QSV_FILE, __LINE__, path.c_str());
    return false;
  }
  status_ = memcached_set(memc_, key.data(), key.size(), text.data(), text.size(), 0, 0);
  if (status_ != MEMCACHED_SUCCESS) {
    maillog(3, "%s:%d Failed to memcached_set() [key: %s]", QSV_FILE, __LINE__, key.c_str());
    return false;
  }
  if (digest != nullptr) *digest = sum.Hex();
  return true;
}

bool FileBuffer::checkBufferKeyExist(const std::string &key) {
  if (!connectToServer()) return false;
  status_ = memcached_exist(memc_, key.data(), key.size());
  return status_ == MEMCACHED_SUCCESS;
}

bool FileBuffer::removeFileContentFromBuffer(const std::string &key) {
  if (!checkBufferKeyExist(key)) return true;
  status_ = memcached_delete(memc_, key.data(), key.size(), 0);
  if (status_ != MEMCACHED_SUCCESS) {
    maillog(3, "%s:%d Failed to rmeove key[%s] form buffer", QSV_FILE, __LINE__, key.c_str());
    return false;
  }
  return true;
}

bool FileBuffer::createPath(const std::string &path,
                            const std::map<std::string, FilePathInfo> &pathInfo) {
  std::string prefix;
  size_t start = 0;
  while (start <= path.size()) {
    size_t slash = path.find('/', start);
    if (slash == std::string::npos) slash = path.size();
    const std::string part = path.substr(start, slash - start);
    start = slash + 1;
    if (part.empty()) continue;
    prefix += "/" + part;
    struct stat st;
    if (lstat(prefix.c_str(), &st) == 0) continue;
    if (errno != ENOENT) {
      maillog(3, "%s:%d Failed to lstat path[%s] errno[%s]", QSV_FILE, __LINE__, prefix.c_str(),
              strerror(errno));
      return false;
    }
    const auto found = pathInfo.find(prefix);
    if (found == pathInfo.end()) {
      maillog(3, "%s:%d Cannot find path %s in map", QSV_FILE, __LINE__, prefix.c_str());
      return false;
    }
    const FilePathInfo &info = found->second;
    if (!info.isDir) continue;  // the file itself: written below
    if (S_ISLNK(info.mode)) {
      maillog(3, "%s:%d Due to path[%s] is link so we would not auto create", QSV_FILE, __LINE__,
              prefix.c_str());
      return false;
    }
    if (mkdir(prefix.c_str(), info.mode & 07777) != 0) {
      maillog(3, "%s:%d Failed to mkdir path[%s] errno[%s]", QSV_FILE, __LINE__, prefix.c_str(),
              strerror(errno));
      return false;
    }
    if (chown(prefix.c_str(), info.uid, info.gid) != 0) {
      maillog(3, "%s:%d Failed to chown path[%s] errno[%s]", QSV_FILE, __LINE__, prefix.c_str(),
              strerror(errno));
      return false;
    }
    if (KOLTFSAclChmod(prefix.c_str(), -1, info.mode) != 0) {
      maillog(3, "%s:%d Failed to KOLTFSAclChmod path[%s]", QSV_FILE, __LINE__, prefix.c_str());
      return false;
    }
  }
  return true;
}

bool FileBuffer::dumpFileContentFromBuffer(const std::string &key, const std::string &path,
                                           const std::map<std::string, FilePathInfo> &pathInfo) {
  return dumpFileContentFromBuffer(key, path, pathInfo, "");
}

bool FileBuffer::dumpFileContentFromBuffer(const std::string &key, const std::string &path,
                                           const std::map<std::string, FilePathInfo> &pathInfo,
                                           const std::string &digest) {
  contentRefused_ = false;
  if (!connectToServer()) return false;
  size_t length = 0;
  uint32_t flags = 0;
  std::unique_ptr<char, FreeDeleter> value(
      memcached_get(memc_, key.data(), key.size(), &length, &flags, &status_));
  if (status_ != MEMCACHED_SUCCESS) {
    maillog(3, "%s:%d Failed to memcached_get() [key: %s]", QSV_FILE, __LINE__, key.c_str());
    return false;
  }
  if (!digest.empty() && length == 0 && !DigestMatches(key, "", 0, digest)) {
    contentRefused_ = true;
    return false;
  }
  if (length == 0) {
    FILE *empty = CreateFresh(path);
    if (empty == nullptr) {
      maillog(3, "%s:%d Failed to open %s, errno: %s", QSV_FILE, __LINE__, path.c_str(),
              strerror(errno));
      return false;
    }
    fclose(empty);
    return true;
  }
  std::unique_ptr<char, FreeDeleter> decoded(static_cast<char *>(calloc(length + 1, 1)));
  if (!decoded) {
    KLIBC_ERR_SET(512);
    maillog(3, "%s:%d There are not enough memory to alloc %zu", QSV_FILE, __LINE__, length + 1);
    return false;
  }
  const int size = KLIBCBase64Decode(value.get(), length, decoded.get(), length + 1);
  if (size < 0) {
    maillog(3, "%s:%d Failed to base64 decode of key[%s]", QSV_FILE, __LINE__, key.c_str());
    return false;
  }
  value.reset();
  if (!digest.empty() && !DigestMatches(key, decoded.get(), static_cast<size_t>(size), digest)) {
    contentRefused_ = true;
    return false;
  }

  if (!createPath(path, pathInfo)) {
    maillog(3, "%s:%d Failed to createPath()", QSV_FILE, __LINE__);
    return false;
  }
  const std::string tmp = path + ".tmp";
  FILE *out = CreateFresh(tmp);
  if (out == nullptr) {
    maillog(3, "%s:%d Failed to open %s, errno: %s", QSV_FILE, __LINE__, tmp.c_str(),
            strerror(errno));
    return false;
  }
  const bool written = fwrite(decoded.get(), 1, static_cast<size_t>(size), out) ==
                           static_cast<size_t>(size) &&
                       fflush(out) == 0 && fsync(fileno(out)) == 0;
  if (fclose(out) != 0 || !written) {
    maillog(3, "%s:%d Failed to open %s, errno: %s", QSV_FILE, __LINE__, tmp.c_str(),
            strerror(errno));
    return false;
  }
  const auto found = pathInfo.find(path);
  if (found == pathInfo.end()) {
    maillog(3, "%s:%d Failed: Cannot find path info of [%s] in map so would not chmod file",
            QSV_FILE, __LINE__, path.c_str());
    return false;
  }
  if (chown(tmp.c_str(), found->second.uid, found->second.gid) != 0) {
    maillog(3, "%s:%d Failed to chown path[%s] errno[%s]", QSV_FILE, __LINE__, tmp.c_str(),
            strerror(errno));
    return false;
  }
  // Set-id bits never travel: a file that lands as root's must not run as root for whoever can
  // read it. Nothing the cluster syncs is a program.
  const mode_t mode = found->second.mode & ~static_cast<mode_t>(S_ISUID | S_ISGID);
  if (KOLTFSAclChmod(tmp.c_str(), -1, mode) != 0) {
    maillog(3, "%s:%d Failed to KOLTFSAclChmod path[%s]", QSV_FILE, __LINE__, tmp.c_str());
    return false;
  }
  syslog(LOG_DEBUG, "%s:%d Sync file Create file %s", QSV_FILE, __LINE__, path.c_str());
  unlink(path.c_str());
  if (rename(tmp.c_str(), path.c_str()) != 0) {
    maillog(3, "%s:%d Failed to move backend env file from :%s, to :%s, error: %s", QSV_FILE,
            __LINE__, tmp.c_str(), path.c_str(), strerror(errno));
    return false;
  }
  return true;
}

}  // namespace QUILLON_SERVER
}  // namespace KOLT
