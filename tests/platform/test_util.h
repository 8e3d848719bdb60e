// Helpers shared by the platform tests: a scratch directory that cleans up
// after itself, and a way to run code in a forked child with its own mount
// namespace, so a test may put its own /etc/passwd or /dev/log in place
// without touching the machine. Single-threaded test use only.

#ifndef TESTS_PLATFORM_TEST_UTIL_H_
#define TESTS_PLATFORM_TEST_UTIL_H_

#include <fcntl.h>
#include <sched.h>
#include <stdlib.h>
#include <sys/mount.h>
#include <sys/wait.h>
#include <unistd.h>

#include <fstream>
#include <functional>
#include <sstream>
#include <string>

class ScratchDir {
 public:
  ScratchDir() {
    char templ[] = "/tmp/kolt_test_XXXXXX";
    path_ = mkdtemp(templ) != nullptr ? templ : "";
  }
  ~ScratchDir() {
    if (!path_.empty()) system(("rm -rf '" + path_ + "'").c_str());
  }
  ScratchDir(const ScratchDir &) = delete;
  ScratchDir &operator=(const ScratchDir &) = delete;

  const std::string &path() const { return path_; }
  std::string operator/(const std::string &name) const { return path_ + "/" + name; }

 private:
  std::string path_;
};

inline void WriteFile(const std::string &path, const std::string &content) {
  std::ofstream(path, std::ios::binary) << content;
}

inline std::string ReadFile(const std::string &path) {
  std::ifstream in(path, std::ios::binary);
  std::stringstream ss;
  ss << in.rdbuf();
  return ss.str();
}

// Runs fn in a forked child inside a private mount namespace and returns
// true with what fn returned in *out. False when the namespace cannot be
// made here (no privilege); the caller should skip.
inline bool RunWithPrivateMounts(const std::function<std::string()> &fn, std::string *out) {
  int fds[2];
  if (pipe2(fds, O_CLOEXEC) != 0) return false;
  pid_t pid = fork();
  if (pid == 0) {
    close(fds[0]);
    if (unshare(CLONE_NEWNS) != 0 || mount(nullptr, "/", nullptr, MS_REC | MS_PRIVATE, nullptr) != 0) _exit(77);
    std::string result = fn();
    size_t done = 0;
    while (done < result.size()) {
      ssize_t n = write(fds[1], result.data() + done, result.size() - done);
      if (n <= 0) _exit(1);
      done += n;
    }
    _exit(0);  // no atexit handlers, no leak report from a copy of the parent
  }
  close(fds[1]);
  out->clear();
  char buf[4096];
  ssize_t n;
  while ((n = read(fds[0], buf, sizeof(buf))) > 0) out->append(buf, n);
  close(fds[0]);
  int status = 0;
  waitpid(pid, &status, 0);
  return !(WIFEXITED(status) && WEXITSTATUS(status) == 77);
}

// Binds file over target inside the caller's mount namespace.
inline bool BindFile(const std::string &file, const char *target) {
  return mount(file.c_str(), target, nullptr, MS_BIND, nullptr) == 0;
}

#endif  // TESTS_PLATFORM_TEST_UTIL_H_
