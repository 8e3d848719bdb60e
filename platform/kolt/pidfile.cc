#include "kolt/pidfile.h"

#include <ctype.h>
#include <dirent.h>
#include <errno.h>
#include <fcntl.h>
#include <signal.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/stat.h>
#include <unistd.h>

#include "kolt/err.h"

namespace {

// Reads at most size-1 bytes of path into buf; the count or -1.
ssize_t ReadSmallFile(const char *path, char *buf, size_t size) {
  int fd = open(path, O_RDONLY | O_CLOEXEC);
  if (fd < 0) return -1;
  ssize_t n;
  do {
    n = read(fd, buf, size - 1);
  } while (n < 0 && errno == EINTR);
  int saved = errno;
  close(fd);
  errno = saved;
  if (n < 0) return -1;
  buf[n] = '\0';
  return n;
}

}  // namespace

int KLIBCReadPidFile(const char *path) {
  if (path == nullptr) {
    KLIBC_ERR_SET(KLIBC_ERR_BAD_PARAM);
    return -1;
  }
  char buf[64];
  if (ReadSmallFile(path, buf, sizeof(buf)) < 0) {
    KLIBC_ERR_SET(KLIBC_ERR_SYS(errno));
    return -1;
  }
  if (!isdigit(static_cast<unsigned char>(buf[0]))) {
    KLIBC_ERR_SET(KLIBC_ERR_BAD_FORMAT);
    return -1;
  }
  char *end;
  errno = 0;
  long pid = strtol(buf, &end, 10);
  while (isspace(static_cast<unsigned char>(*end))) end++;
  if (errno != 0 || *end != '\0' || pid > 0x7FFFFFFF) {
    KLIBC_ERR_SET(KLIBC_ERR_BAD_FORMAT);
    return -1;
  }
  return static_cast<int>(pid);
}

int KLIBCProcPidFileCreate(const char *path) {
  if (path == nullptr) {
    KLIBC_ERR_SET(KLIBC_ERR_BAD_PARAM);
    return -1;
  }
  int fd = open(path, O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC, 0644);
  if (fd < 0) {
    KLIBC_ERR_SET(KLIBC_ERR_SYS(errno));
    return -1;
  }
  char buf[32];
  int len = snprintf(buf, sizeof(buf), "%d\n", static_cast<int>(getpid()));
  // The umask must not hide the pid from the tools that read it.
  if (write(fd, buf, len) != len || fchmod(fd, 0644) != 0) {
    int saved = errno != 0 ? errno : EIO;
    close(fd);
    unlink(path);
    KLIBC_ERR_SET(KLIBC_ERR_SYS(saved));
    return -1;
  }
  if (close(fd) != 0) {
    KLIBC_ERR_SET(KLIBC_ERR_SYS(errno));
    unlink(path);
    return -1;
  }
  return 0;
}

int KLIBCProcAliveByPidFile(const char *path) {
  int pid = KLIBCReadPidFile(path);
  if (pid < 0) return -1;
  // kill(0, ...) would mean our own process group, not "no process".
  if (pid == 0) return 0;
  if (kill(pid, 0) != 0 && errno != EPERM) return 0;
  // kill() still reaches a child that has exited but not yet been reaped; such a process runs
  // nothing any more, and a watcher that waits for it to go must not wait on its parent's reaping.
  char statPath[64];
  char stat[512];
  snprintf(statPath, sizeof(statPath), "/proc/%d/stat", pid);
  if (ReadSmallFile(statPath, stat, sizeof(stat)) > 0) {
    const char *end = strrchr(stat, ')');
    if (end != nullptr && end[1] == ' ' && (end[2] == 'Z' || end[2] == 'X')) return 0;
  }
  return 1;
}

int KLIBCIsProcAlive(const char *name) {
  if (name == nullptr || name[0] == '\0') {
    KLIBC_ERR_SET(KLIBC_ERR_BAD_PARAM);
    return 0;
  }
  DIR *dir = opendir("/proc");
  if (dir == nullptr) {
    KLIBC_ERR_SET(KLIBC_ERR_SYS(errno));
    return 0;
  }
  size_t nameLen = strnlen(name, 15);
  int found = 0;
  struct dirent *entry;
  while (!found && (entry = readdir(dir)) != nullptr) {
    if (!isdigit(static_cast<unsigned char>(entry->d_name[0]))) continue;
    char path[sizeof(entry->d_name) + 16];
    char comm[64];
    snprintf(path, sizeof(path), "/proc/%s/comm", entry->d_name);
    ssize_t n = ReadSmallFile(path, comm, sizeof(comm));
    if (n <= 0) continue;  // it ended while we looked
    if (comm[n - 1] == '\n') comm[--n] = '\0';
    found = static_cast<size_t>(n) == nameLen && memcmp(comm, name, nameLen) == 0;
  }
  closedir(dir);
  return found;
}

int KLIBCProcSignalByPidFile(const char *path, int sig) {
  int pid = KLIBCReadPidFile(path);
  if (pid <= 0) {
    if (pid == 0) KLIBC_ERR_SET(KLIBC_ERR_NOT_FOUND);
    return -1;
  }
  if (kill(pid, sig) != 0) {
    KLIBC_ERR_SET(KLIBC_ERR_SYS(errno));
    return -1;
  }
  return 0;
}
