#include "harness/run_as.h"

#include <grp.h>
#include <pwd.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdio>
#include <stdexcept>

namespace qsvtest {

uid_t UidOf(const std::string &user) {
  const passwd *pw = getpwnam(user.c_str());
  if (pw == nullptr) throw std::runtime_error("no such user: " + user);
  return pw->pw_uid;
}

gid_t GidOf(const std::string &user) {
  const passwd *pw = getpwnam(user.c_str());
  if (pw == nullptr) throw std::runtime_error("no such user: " + user);
  return pw->pw_gid;
}

int RunInChild(const std::function<int()> &body) {
  fflush(nullptr);
  const pid_t pid = fork();
  if (pid < 0) return -1;
  if (pid == 0) {
    int rc = 255;
    try {
      rc = body();
    } catch (...) {
      rc = 255;
    }
    fflush(nullptr);
    _exit(rc);
  }
  int status = 0;
  while (waitpid(pid, &status, 0) < 0) {
  }
  return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
}

int RunAsUnprivileged(const std::string &user, const std::function<int()> &body) {
  const uid_t uid = UidOf(user);
  const gid_t gid = GidOf(user);
  return RunInChild([&] {
    if (setgroups(0, nullptr) != 0 || setresgid(gid, gid, gid) != 0 ||
        setresuid(uid, uid, uid) != 0) {
      return 254;
    }
    return body();
  });
}

int RunWithEffectiveIds(uid_t euid, gid_t egid, const std::function<int()> &body) {
  return RunInChild([&] {
    if (setresgid(-1, egid, -1) != 0 || setresuid(-1, euid, -1) != 0) return 254;
    return body();
  });
}

}  // namespace qsvtest
