#include "kolt/exec.h"

#include <errno.h>
#include <fcntl.h>
#include <signal.h>
#include <spawn.h>
#include <stdarg.h>
#include <string.h>
#include <sys/wait.h>
#include <unistd.h>

#include <map>
#include <mutex>
#include <new>
#include <set>
#include <vector>

#include "kolt/err.h"

extern char **environ;

namespace {

std::mutex g_background_mu;
std::set<pid_t> g_background;  // started without waiting, not yet collected

std::mutex g_popen_mu;
std::map<FILE *, pid_t> g_popen;  // stream -> its child

void ReapBackground() {
  std::lock_guard<std::mutex> lock(g_background_mu);
  for (auto it = g_background.begin(); it != g_background.end();) {
    pid_t r = waitpid(*it, nullptr, WNOHANG);
    // ECHILD: someone else collected it; either way it is gone.
    if (r == *it || (r < 0 && errno == ECHILD)) {
      it = g_background.erase(it);
    } else {
      ++it;
    }
  }
}

// The exit code of a finished child, -1 for a signal death or a lost child.
int WaitChild(pid_t pid) {
  int status = 0;
  pid_t r;
  do {
    r = waitpid(pid, &status, 0);
  } while (r < 0 && errno == EINTR);
  if (r < 0) {
    KLIBC_ERR_SET(KLIBC_ERR_SYS(errno));
    return -1;
  }
  if (WIFEXITED(status)) return WEXITSTATUS(status);
  KLIBC_ERR_SET(KLIBC_ERR_CHILD_KILLED);
  return -1;
}

// Starts path with argv. pipeFd, when not -1, becomes the child's
// descriptor pipeTarget. Returns the pid, or -1 with errno set.
pid_t Spawn(const char *path, const char *const argv[], int flags, int pipeFd, int pipeTarget) {
  ReapBackground();

  posix_spawn_file_actions_t fa;
  posix_spawnattr_t attr;
  int err = posix_spawn_file_actions_init(&fa);
  if (err != 0) {
    errno = err;
    return -1;
  }
  err = posix_spawnattr_init(&attr);
  if (err != 0) {
    posix_spawn_file_actions_destroy(&fa);
    errno = err;
    return -1;
  }

  if (pipeFd >= 0) err = posix_spawn_file_actions_adddup2(&fa, pipeFd, pipeTarget);
  if (err == 0 && (flags & KLIBC_EXEC_STDIN_NULL))
    err = posix_spawn_file_actions_addopen(&fa, 0, "/dev/null", O_RDONLY, 0);
  if (err == 0 && (flags & KLIBC_EXEC_STDOUT_NULL))
    err = posix_spawn_file_actions_addopen(&fa, 1, "/dev/null", O_WRONLY, 0);
  if (err == 0 && (flags & KLIBC_EXEC_STDERR_NULL))
    err = posix_spawn_file_actions_addopen(&fa, 2, "/dev/null", O_WRONLY, 0);
  if (err == 0) err = posix_spawn_file_actions_addclosefrom_np(&fa, 3);

  // A daemon that ignores SIGPIPE or blocks signals must not pass that on:
  // tools like postmap expect the defaults.
  sigset_t all, none;
  sigfillset(&all);
  sigemptyset(&none);
  short spawnFlags = POSIX_SPAWN_SETSIGDEF | POSIX_SPAWN_SETSIGMASK;
  if (flags & KLIBC_EXEC_SETSID) spawnFlags |= POSIX_SPAWN_SETSID;
  if (err == 0) err = posix_spawnattr_setsigdefault(&attr, &all);
  if (err == 0) err = posix_spawnattr_setsigmask(&attr, &none);
  if (err == 0) err = posix_spawnattr_setflags(&attr, spawnFlags);

  pid_t pid = -1;
  if (err == 0) {
    char *const *av = const_cast<char *const *>(argv);
    if (strchr(path, '/') != nullptr) {
      err = posix_spawn(&pid, path, &fa, &attr, av, environ);
    } else {
      err = posix_spawnp(&pid, path, &fa, &attr, av, environ);
    }
  }
  posix_spawnattr_destroy(&attr);
  posix_spawn_file_actions_destroy(&fa);
  if (err != 0) {
    errno = err;
    return -1;
  }
  return pid;
}

int Run(const char *path, const char *const argv[], int flags) {
  pid_t pid = Spawn(path, argv, flags, -1, -1);
  if (pid < 0) {
    KLIBC_ERR_SET(KLIBC_ERR_SYS(errno));
    return -1;
  }
  if (!(flags & KLIBC_EXEC_BACKGROUND)) return WaitChild(pid);
  try {
    std::lock_guard<std::mutex> lock(g_background_mu);
    g_background.insert(pid);
  } catch (const std::bad_alloc &) {
    // Cannot track it: better a zombie than a lie about the start.
  }
  return 0;
}

// path followed by the list's items and a null; empty when memory runs out.
std::vector<const char *> ArgvOf(const char *path, const KLIBSZLIST *args) {
  std::vector<const char *> argv;
  try {
    argv.push_back(path);
    for (int i = 0; args != nullptr && i < args->nItem; i++) argv.push_back(args->pszItem[i]);
    argv.push_back(nullptr);
  } catch (const std::bad_alloc &) {
    argv.clear();
  }
  return argv;
}

std::vector<const char *> ArgvOf(const char *path, va_list ap) {
  std::vector<const char *> argv;
  try {
    argv.push_back(path);
    const char *arg;
    while ((arg = va_arg(ap, const char *)) != nullptr) argv.push_back(arg);
    argv.push_back(nullptr);
  } catch (const std::bad_alloc &) {
    argv.clear();
  }
  return argv;
}

FILE *Open(const char *path, const char *mode, const char *const argv[]) {
  if (path == nullptr || mode == nullptr || argv == nullptr || argv[0] == nullptr ||
      (mode[0] != 'r' && mode[0] != 'w')) {
    KLIBC_ERR_SET(KLIBC_ERR_BAD_PARAM);
    return nullptr;
  }
  bool reading = mode[0] == 'r';
  int fds[2];
  if (pipe2(fds, O_CLOEXEC) != 0) {
    KLIBC_ERR_SET(KLIBC_ERR_SYS(errno));
    return nullptr;
  }
  int ours = reading ? fds[0] : fds[1];
  int theirs = reading ? fds[1] : fds[0];
  pid_t pid = Spawn(path, argv, 0, theirs, reading ? 1 : 0);
  int saved = errno;
  close(theirs);
  if (pid < 0) {
    close(ours);
    KLIBC_ERR_SET(KLIBC_ERR_SYS(saved));
    return nullptr;
  }
  FILE *stream = fdopen(ours, reading ? "r" : "w");
  if (stream == nullptr) {
    KLIBC_ERR_SET(KLIBC_ERR_SYS(errno));
    close(ours);
    WaitChild(pid);  // its end of the pipe is gone, so it ends soon
    return nullptr;
  }
  try {
    std::lock_guard<std::mutex> lock(g_popen_mu);
    g_popen[stream] = pid;
  } catch (const std::bad_alloc &) {
    KLIBC_ERR_SET(KLIBC_ERR_OUT_OF_MEMORY);
    fclose(stream);
    WaitChild(pid);
    return nullptr;
  }
  return stream;
}

}  // namespace

int KLIBCExec(const char *path, const char *arg1, const char *arg2, const char *arg3, int flags) {
  if (path == nullptr) {
    KLIBC_ERR_SET(KLIBC_ERR_BAD_PARAM);
    return -1;
  }
  const char *argv[5] = {path, arg1, nullptr, nullptr, nullptr};
  if (arg1 != nullptr) {
    argv[2] = arg2;
    if (arg2 != nullptr) argv[3] = arg3;
  }
  return Run(path, argv, flags);
}

int KLIBCExecl(const char *path, int flags, ...) {
  if (path == nullptr) {
    KLIBC_ERR_SET(KLIBC_ERR_BAD_PARAM);
    return -1;
  }
  va_list ap;
  va_start(ap, flags);
  std::vector<const char *> argv = ArgvOf(path, ap);
  va_end(ap);
  if (argv.empty()) {
    KLIBC_ERR_SET(KLIBC_ERR_OUT_OF_MEMORY);
    return -1;
  }
  return Run(path, argv.data(), flags);
}

int KLIBCExecv(const char *path, const char *const argv[], int flags) {
  if (path == nullptr || argv == nullptr || argv[0] == nullptr) {
    KLIBC_ERR_SET(KLIBC_ERR_BAD_PARAM);
    return -1;
  }
  return Run(path, argv, flags);
}

int KLIBCExecv(const char *path, const KLIBSZLIST *args, int flags) {
  if (path == nullptr) {
    KLIBC_ERR_SET(KLIBC_ERR_BAD_PARAM);
    return -1;
  }
  std::vector<const char *> argv = ArgvOf(path, args);
  if (argv.empty()) {
    KLIBC_ERR_SET(KLIBC_ERR_OUT_OF_MEMORY);
    return -1;
  }
  return Run(path, argv.data(), flags);
}

FILE *KLIBCPopen(const char *path, const char *mode, ...) {
  if (path == nullptr) {
    KLIBC_ERR_SET(KLIBC_ERR_BAD_PARAM);
    return nullptr;
  }
  va_list ap;
  va_start(ap, mode);
  std::vector<const char *> argv = ArgvOf(path, ap);
  va_end(ap);
  if (argv.empty()) {
    KLIBC_ERR_SET(KLIBC_ERR_OUT_OF_MEMORY);
    return nullptr;
  }
  return Open(path, mode, argv.data());
}

FILE *KLIBCPopenv(const char *path, const char *mode, const char *const argv[]) {
  return Open(path, mode, argv);
}

FILE *KLIBCPopenv(const char *path, const char *mode, const KLIBSZLIST *args) {
  if (path == nullptr) {
    KLIBC_ERR_SET(KLIBC_ERR_BAD_PARAM);
    return nullptr;
  }
  std::vector<const char *> argv = ArgvOf(path, args);
  if (argv.empty()) {
    KLIBC_ERR_SET(KLIBC_ERR_OUT_OF_MEMORY);
    return nullptr;
  }
  return Open(path, mode, argv.data());
}

int KLIBCPclose(FILE *stream) {
  pid_t pid = -1;
  {
    std::lock_guard<std::mutex> lock(g_popen_mu);
    auto it = g_popen.find(stream);
    if (it != g_popen.end()) {
      pid = it->second;
      g_popen.erase(it);
    }
  }
  if (pid < 0) {
    KLIBC_ERR_SET(KLIBC_ERR_BAD_PARAM);
    return -1;
  }
  fclose(stream);
  return WaitChild(pid);
}
