#include "foundation/files.h"

#include <dirent.h>
#include <fcntl.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <cstring>

#include "foundation/log.h"

namespace {

constexpr size_t kTemplateSuffix = 6;  // "XXXXXX"
constexpr size_t kCopyBlock = 1024;

// What mkstemp puts in place of the X's.
bool IsTemplateCharacter(char c) {
  return (c >= 'A' && c <= 'Z') || (c >= 'a' && c <= 'z') || (c >= '0' && c <= '9');
}

bool IsTemporaryOf(const std::string &name, const std::string &base) {
  if (name.size() != base.size() + kTemplateSuffix || name.compare(0, base.size(), base) != 0) {
    return false;
  }
  for (size_t i = base.size(); i < name.size(); ++i) {
    if (!IsTemplateCharacter(name[i])) return false;
  }
  return true;
}

bool SameFile(const struct stat &a, const struct stat &b) {
  return a.st_dev == b.st_dev && a.st_ino == b.st_ino;
}

// Removes `name` from `dir` if it is still the regular file `seen` and nobody holds its lock.
bool RemoveIfStale(int dir, const char *name, const struct stat &seen) {
  const int fd = openat(dir, name, O_RDONLY | O_NOFOLLOW | O_NONBLOCK | O_CLOEXEC);
  if (fd < 0) return false;
  struct stat opened;
  struct stat named;
  bool removed = false;
  // A live writer keeps its temporary locked until the rename; a killed one's lock died with it.
  if (fstat(fd, &opened) == 0 && SameFile(opened, seen) && flock(fd, LOCK_EX | LOCK_NB) == 0 &&
      fstatat(dir, name, &named, AT_SYMLINK_NOFOLLOW) == 0 && SameFile(named, seen)) {
    removed = unlinkat(dir, name, 0) == 0;
    if (!removed) {
      maillog(3, "%s:%d remove stale %s fail, %s", QSV_FILE, __LINE__, name, strerror(errno));
    }
  }
  close(fd);
  return removed;
}

}  // namespace

int qsvMkstemp(char *tmpl) {
  if (tmpl == nullptr) return -1;
  const size_t length = strlen(tmpl);
  if (length <= kTemplateSuffix) return -1;
  const int fd = mkostemp(tmpl, O_CLOEXEC);
  if (fd >= 0) {
    close(fd);
    return 0;
  }
  char pid[16];
  snprintf(pid, sizeof(pid), "%06d", static_cast<int>(getpid() % 1000000));
  memcpy(tmpl + length - kTemplateSuffix, pid, kTemplateSuffix);
  return 0;
}

bool qsvDirectoryExist(const std::string &path) {
  struct stat st;
  return stat(path.c_str(), &st) == 0 && S_ISDIR(st.st_mode);
}

long qsvGetFileMtime(const std::string &path) {
  struct stat st;
  if (stat(path.c_str(), &st) != 0) return 0;
  return static_cast<long>(st.st_mtime);
}

int PopenToFile(FILE *stream, const char *path, const char *mode) {
  if (stream == nullptr || path == nullptr || mode == nullptr) return -1;
  const std::string closeOnExec = std::string(mode) + "e";
  FILE *out = fopen(path, closeOnExec.c_str());
  if (out == nullptr) {
    maillog(3, "%s:%d Open %s fail", QSV_FILE, __LINE__, path);
    return -1;
  }
  char block[kCopyBlock];
  int result = 0;
  size_t got;
  while ((got = fread(block, 1, sizeof(block), stream)) > 0) {
    if (fwrite(block, 1, got, out) != got) {
      result = -1;
      break;
    }
  }
  if (fclose(out) != 0) result = -1;
  if (result != 0) maillog(3, "%s:%d write %s fail, %s", QSV_FILE, __LINE__, path, strerror(errno));
  return result;
}

int renameTmpFileAndChmod(const char *tmp, const char *path) {
  if (tmp == nullptr || path == nullptr) {
    maillog(3, "%s:%d Bad Parameter", QSV_FILE, __LINE__);
    return -1;
  }
  if (chmod(tmp, 0644) != 0) {
    maillog(3, "%s:%d chmod %s fail, %s", QSV_FILE, __LINE__, tmp, strerror(errno));
  }
  if (rename(tmp, path) != 0) {
    maillog(3, "%s:%d rename %s fail, %s", QSV_FILE, __LINE__, tmp, strerror(errno));
    return -1;
  }
  return 0;
}

int mkTemporaryBeside(const std::string &target, std::string &tmp) {
  tmp = target + "XXXXXX";
  const int fd = mkostemp(&tmp[0], O_CLOEXEC);
  if (fd < 0) return -1;
  // Until this lock is taken a cleaner may see the file as stale; the writer then loses its rename
  // and says so, and nothing half-written is put in place.
  if (flock(fd, LOCK_EX) != 0) {
    const int error = errno;
    close(fd);
    unlink(tmp.c_str());
    errno = error;
    return -1;
  }
  return fd;
}

int removeStaleTemporaries(const std::string &target) {
  const size_t slash = target.rfind('/');
  if (target.empty() || target[0] != '/' || slash + 1 == target.size()) {
    maillog(3, "%s:%d Bad Parameter %s", QSV_FILE, __LINE__, target.c_str());
    return -1;
  }
  const std::string dirPath = slash == 0 ? "/" : target.substr(0, slash);
  const std::string base = target.substr(slash + 1);
  // Names are looked at and removed relative to the directory opened once, so that a directory
  // swapped in under the path meanwhile is not the one cleared.
  const int dirFd = open(dirPath.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
  const int listFd = dirFd < 0 ? -1 : fcntl(dirFd, F_DUPFD_CLOEXEC, 0);
  DIR *entries = listFd < 0 ? nullptr : fdopendir(listFd);
  if (entries == nullptr) {
    maillog(3, "%s:%d open dir %s fail, %s", QSV_FILE, __LINE__, dirPath.c_str(), strerror(errno));
    if (listFd >= 0) close(listFd);
    if (dirFd >= 0) close(dirFd);
    return -1;
  }
  int removed = 0;
  while (const dirent *entry = readdir(entries)) {
    if (!IsTemporaryOf(entry->d_name, base)) continue;
    struct stat st;
    if (fstatat(dirFd, entry->d_name, &st, AT_SYMLINK_NOFOLLOW) != 0 || !S_ISREG(st.st_mode)) {
      continue;
    }
    if (RemoveIfStale(dirFd, entry->d_name, st)) ++removed;
  }
  closedir(entries);
  close(dirFd);
  return removed;
}

FILE *OpenRegularFile(const std::string &path) {
  const int fd = open(path.c_str(), O_RDONLY | O_CLOEXEC | O_NONBLOCK | O_NOCTTY);
  if (fd < 0) return nullptr;
  struct stat st;
  if (fstat(fd, &st) != 0 || !S_ISREG(st.st_mode)) {
    maillog(3, "%s:%d %s is not a regular file", QSV_FILE, __LINE__, path.c_str());
    close(fd);
    errno = EINVAL;
    return nullptr;
  }
  FILE *in = fdopen(fd, "r");
  if (in == nullptr) close(fd);
  return in;
}

int ReadBoundedLine(FILE *in, std::string &line, size_t limit) {
  line.clear();
  int c;
  while ((c = getc_unlocked(in)) != EOF) {
    if (line.size() == limit) return -1;
    line.push_back(static_cast<char>(c));
    if (c == '\n') return 1;
  }
  return line.empty() ? 0 : 1;
}

int WriteWholeFile(const std::string &path, const std::string &text, mode_t mode) {
  if (path.empty() || path[0] != '/') {
    errno = EINVAL;
    return -1;
  }
  std::string tmp;
  const int fd = mkTemporaryBeside(path, tmp);
  if (fd < 0) return -1;
  if (mode != 0644 && fchmod(fd, mode) != 0) {
    const int saved = errno;
    unlink(tmp.c_str());
    close(fd);
    errno = saved;
    return -1;
  }
  size_t done = 0;
  while (done < text.size()) {
    const ssize_t wrote = write(fd, text.data() + done, text.size() - done);
    if (wrote < 0 && errno == EINTR) continue;
    if (wrote <= 0) break;
    done += static_cast<size_t>(wrote);
  }
  int rc = -1;
  if (done == text.size() && fsync(fd) == 0) {
    rc = mode == 0644 ? renameTmpFileAndChmod(tmp.c_str(), path.c_str())
                      : rename(tmp.c_str(), path.c_str());
  }
  const int saved = errno;
  if (rc != 0) unlink(tmp.c_str());
  // The lock of the temporary is held until it is in place.
  close(fd);
  errno = saved;
  return rc;
}
