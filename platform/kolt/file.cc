#include "kolt/file.h"

#include <dirent.h>
#include <errno.h>
#include <fcntl.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <time.h>
#include <unistd.h>

#include <algorithm>
#include <new>
#include <string>
#include <vector>

#include "kolt/err.h"

namespace {

double Now() {
  struct timespec ts;
  clock_gettime(CLOCK_MONOTONIC, &ts);
  return ts.tv_sec + ts.tv_nsec / 1e9;
}

}  // namespace

BOOL KLIBCFileExist(const char *path) {
  struct stat st;
  return path != nullptr && stat(path, &st) == 0 ? TRUE : FALSE;
}

int KLIBCFileEnumDir(const char *dir, int /*flags*/, KLIBSZLIST **list, int maxEntries) {
  if (dir == nullptr || list == nullptr || maxEntries < 0) {
    KLIBC_ERR_SET(KLIBC_ERR_BAD_PARAM);
    errno = EINVAL;
    return -1;
  }
  DIR *d = opendir(dir);
  if (d == nullptr) {
    KLIBC_ERR_SET(KLIBC_ERR_SYS(errno));
    return -1;
  }
  std::vector<std::string> names;
  try {
    struct dirent *entry;
    while ((entry = readdir(d)) != nullptr) {
      if (strcmp(entry->d_name, ".") == 0 || strcmp(entry->d_name, "..") == 0) continue;
      names.emplace_back(entry->d_name);
    }
  } catch (const std::bad_alloc &) {
    closedir(d);
    KLIBC_ERR_SET(KLIBC_ERR_OUT_OF_MEMORY);
    errno = ENOMEM;
    return -1;
  }
  closedir(d);
  std::sort(names.begin(), names.end());
  if (maxEntries > 0 && names.size() > static_cast<size_t>(maxEntries)) names.resize(maxEntries);
  for (const auto &name : names) {
    if (KLIBCSzListPush(list, name.c_str()) < 0) {
      errno = ENOMEM;
      return -1;
    }
  }
  return static_cast<int>(names.size());
}

int KLIBCFileLockTimeByFile(const char *path, int exclusive, int seconds, int *fd) {
  if (path == nullptr || fd == nullptr) {
    KLIBC_ERR_SET(KLIBC_ERR_BAD_PARAM);
    errno = EINVAL;
    return -1;
  }
  *fd = -1;
  int lockFd = open(path, O_RDWR | O_CREAT | O_CLOEXEC, 0644);
  if (lockFd < 0 && (errno == EACCES || errno == EROFS)) {
    lockFd = open(path, O_RDONLY | O_CLOEXEC);  // a lock needs no write access
  }
  if (lockFd < 0) {
    KLIBC_ERR_SET(KLIBC_ERR_SYS(errno));
    return -1;
  }
  int op = exclusive == 1 ? LOCK_EX : LOCK_SH;
  if (seconds < 0) {
    int r;
    do {
      r = flock(lockFd, op);
    } while (r != 0 && errno == EINTR);
    if (r != 0) {
      KLIBC_ERR_SET(KLIBC_ERR_SYS(errno));
      close(lockFd);
      return -1;
    }
    *fd = lockFd;
    return 1;
  }
  // flock cannot time out by itself; poll, starting fast so that a short
  // hold costs little, and backing off to keep an idle wait cheap.
  double deadline = Now() + seconds;
  useconds_t pause = 1000;
  for (;;) {
    if (flock(lockFd, op | LOCK_NB) == 0) {
      *fd = lockFd;
      return 1;
    }
    if (errno != EWOULDBLOCK && errno != EINTR) {
      KLIBC_ERR_SET(KLIBC_ERR_SYS(errno));
      close(lockFd);
      return -1;
    }
    double left = deadline - Now();
    if (left <= 0) break;
    useconds_t nap = std::min<double>(pause, left * 1e6);
    usleep(nap);
    pause = std::min<useconds_t>(pause * 2, 50000);
  }
  close(lockFd);
  KLIBC_ERR_SET(KLIBC_ERR_TIMEOUT);
  errno = seconds == 0 ? EWOULDBLOCK : ETIMEDOUT;
  return 0;
}

int KLIBCFileUnlockByFile(int fd) {
  if (fd < 0) {
    KLIBC_ERR_SET(KLIBC_ERR_BAD_PARAM);
    return 0;
  }
  int ok = flock(fd, LOCK_UN) == 0;
  if (!ok) KLIBC_ERR_SET(KLIBC_ERR_SYS(errno));
  if (close(fd) != 0 && ok) {
    KLIBC_ERR_SET(KLIBC_ERR_SYS(errno));
    ok = 0;
  }
  return ok;
}

int KLIBCFileGetLine(const char *path, const char *needle, char *buf, int size, int /*flags*/) {
  if (path == nullptr || needle == nullptr || buf == nullptr || size <= 0) {
    KLIBC_ERR_SET(KLIBC_ERR_BAD_PARAM);
    return -1;
  }
  FILE *fp = fopen(path, "re");
  if (fp == nullptr) {
    KLIBC_ERR_SET(KLIBC_ERR_SYS(errno));
    return -1;
  }
  char *line = nullptr;
  size_t cap = 0;
  ssize_t len;
  int result = 0;
  while ((len = getline(&line, &cap, fp)) >= 0) {
    while (len > 0 && (line[len - 1] == '\n' || line[len - 1] == '\r')) line[--len] = '\0';
    if (strstr(line, needle) == nullptr) continue;
    if (len >= size) {
      KLIBC_ERR_SET(KLIBC_ERR_BUFFER_TOO_SMALL);
      result = -1;
    } else {
      memcpy(buf, line, len + 1);
      result = 1;
    }
    break;
  }
  if (result == 0 && ferror(fp)) {
    KLIBC_ERR_SET(KLIBC_ERR_SYS(errno));
    result = -1;
  }
  free(line);
  fclose(fp);
  return result;
}
