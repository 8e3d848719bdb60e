#include "kolt/fs.h"

#include <errno.h>
#include <fcntl.h>
#include <limits.h>
#include <stdio.h>
#include <string.h>
#include <sys/stat.h>
#include <unistd.h>

#include <new>
#include <string>

#include "kolt/err.h"

namespace {

int Fail(int err) {
  KLIBC_ERR_SET(KLIBC_ERR_SYS(err));
  errno = err;
  return -1;
}

int WriteAll(int fd, const char *p, size_t n) {
  while (n > 0) {
    ssize_t w = write(fd, p, n);
    if (w < 0) {
      if (errno == EINTR) continue;
      return -1;
    }
    p += w;
    n -= w;
  }
  return 0;
}

}  // namespace

int KOLTFSMkdirP(const char *path, int /*flags*/, int inheritOwner, uid_t uid, gid_t gid, mode_t mode) {
  if (path == nullptr || path[0] == '\0') {
    KLIBC_ERR_SET(KLIBC_ERR_BAD_PARAM);
    errno = EINVAL;
    return -1;
  }
  std::string prefix;
  struct stat parent;
  try {
    prefix = path[0] == '/' ? "/" : "";
    if (stat(prefix.empty() ? "." : prefix.c_str(), &parent) != 0) return Fail(errno);
    const char *p = path;
    while (*p != '\0') {
      while (*p == '/') p++;
      if (*p == '\0') break;
      const char *end = strchrnul(p, '/');
      if (!prefix.empty() && prefix.back() != '/') prefix += '/';
      prefix.append(p, end - p);
      p = end;

      struct stat st;
      if (stat(prefix.c_str(), &st) == 0) {
        if (!S_ISDIR(st.st_mode)) return Fail(ENOTDIR);
        parent = st;
        continue;
      }
      if (errno != ENOENT) return Fail(errno);
      if (mkdir(prefix.c_str(), mode) != 0 && errno != EEXIST) return Fail(errno);
      if (stat(prefix.c_str(), &st) != 0) return Fail(errno);
      if (!S_ISDIR(st.st_mode)) return Fail(ENOTDIR);
      // The umask trimmed what mkdir set.
      if ((st.st_mode & 07777) != (mode & 07777) && chmod(prefix.c_str(), mode) != 0) return Fail(errno);
      uid_t u = inheritOwner == 1 ? parent.st_uid : uid;
      gid_t g = inheritOwner == 1 ? parent.st_gid : gid;
      if ((st.st_uid != u || st.st_gid != g) && chown(prefix.c_str(), u, g) != 0) return Fail(errno);
      // chown may clear set-id bits; put the mode back.
      if ((mode & 06000) && chmod(prefix.c_str(), mode) != 0) return Fail(errno);
      if (stat(prefix.c_str(), &parent) != 0) return Fail(errno);
    }
  } catch (const std::bad_alloc &) {
    KLIBC_ERR_SET(KLIBC_ERR_OUT_OF_MEMORY);
    errno = ENOMEM;
    return -1;
  }
  return 0;
}

int KOLTFSAclChmod(const char *path, int /*aclFlags*/, mode_t mode) {
  if (path == nullptr) {
    KLIBC_ERR_SET(KLIBC_ERR_BAD_PARAM);
    errno = EINVAL;
    return -1;
  }
  if (chmod(path, mode) != 0) return Fail(errno);
  return 0;
}

int KOLTCopyFileI(const char *src, const char *dst, int overwrite, int keepOwnerMode) {
  if (src == nullptr || dst == nullptr) {
    KLIBC_ERR_SET(KLIBC_ERR_BAD_PARAM);
    errno = EINVAL;
    return -1;
  }
  struct stat st;
  if (!overwrite && lstat(dst, &st) == 0) return Fail(EEXIST);

  int in = open(src, O_RDONLY | O_CLOEXEC);
  if (in < 0) return Fail(errno);
  if (fstat(in, &st) != 0) {
    int err = errno;
    close(in);
    return Fail(err);
  }
  if (!S_ISREG(st.st_mode)) {
    close(in);
    return Fail(EINVAL);
  }
  char tmp[PATH_MAX];
  if (snprintf(tmp, sizeof(tmp), "%s.kolt_copy_XXXXXX", dst) >= (int)sizeof(tmp)) {
    close(in);
    return Fail(ENAMETOOLONG);
  }
  int out = mkostemp(tmp, O_CLOEXEC);
  if (out < 0) {
    int err = errno;
    close(in);
    return Fail(err);
  }

  int err = 0;
  char buf[65536];
  for (;;) {
    ssize_t n = read(in, buf, sizeof(buf));
    if (n < 0 && errno == EINTR) continue;
    if (n < 0) err = errno;
    if (n <= 0) break;
    if (WriteAll(out, buf, n) != 0) {
      err = errno;
      break;
    }
  }
  if (err == 0 && keepOwnerMode) {
    if (fchown(out, st.st_uid, st.st_gid) != 0 || fchmod(out, st.st_mode & 07777) != 0) err = errno;
  } else if (err == 0 && fchmod(out, 0644) != 0) {
    err = errno;
  }
  if (err == 0 && fsync(out) != 0) err = errno;
  if (close(out) != 0 && err == 0) err = errno;
  close(in);
  if (err == 0) {
    if (overwrite) {
      if (rename(tmp, dst) != 0) err = errno;
    } else if (link(tmp, dst) != 0) {
      // link, unlike rename, refuses a dst that appeared since we looked.
      err = errno;
    }
  }
  // After a rename tmp is already gone; after a link or a failure it must go.
  if (!(err == 0 && overwrite)) unlink(tmp);
  if (err != 0) return Fail(err);
  return 0;
}

int KOLTVolIDParse(const char *path) {
  static const char kPrefix[] = "/volume";
  if (path == nullptr || strncmp(path, kPrefix, sizeof(kPrefix) - 1) != 0) return -1;
  const char *p = path + sizeof(kPrefix) - 1;
  long n = 0;
  int digits = 0;
  for (; *p >= '0' && *p <= '9'; p++, digits++) {
    n = n * 10 + (*p - '0');
    if (n > INT_MAX) return -1;
  }
  if (digits == 0 || n < 1 || (*p != '\0' && *p != '/')) return -1;
  return static_cast<int>(n);
}
