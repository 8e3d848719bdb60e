// Runs the mailserverctl of the build under test, as an administrator would, and gives back its
// exit status and everything it printed.
//
//   const qsvtest::CtlResult result = qsvtest::RunCtl({"spam", "show"});
//
// REQUIRES: the sandbox (it sets QSV_BUILD_DIR).
#ifndef MAILSERVER_TESTS_HARNESS_MAILSERVERCTL_RUN_H_
#define MAILSERVER_TESTS_HARNESS_MAILSERVERCTL_RUN_H_

#include <fcntl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdlib>
#include <string>
#include <vector>

namespace qsvtest {

struct CtlResult {
  int status;          // the exit status, or -1 when the tool did not exit
  std::string output;  // stdout and stderr together
};

// `args` go to the tool as they are, any bytes in them; its stdin is /dev/null.
inline CtlResult RunCtl(const std::vector<std::string> &args) {
  std::string tool = std::string(getenv("QSV_BUILD_DIR")) + "/tools/mailserverctl";
  std::vector<std::string> words(args);
  std::vector<char *> argv{&tool[0]};
  for (std::string &word : words) argv.push_back(&word[0]);
  argv.push_back(nullptr);
  int out[2];
  if (pipe2(out, O_CLOEXEC) != 0) return {-1, ""};
  const pid_t child = fork();
  if (child == 0) {
    const int null = open("/dev/null", O_RDONLY);
    dup2(null, 0);
    dup2(out[1], 1);
    dup2(out[1], 2);
    execv(argv[0], argv.data());
    _exit(127);
  }
  close(out[1]);
  CtlResult result{-1, ""};
  char piece[4096];
  ssize_t n;
  while ((n = read(out[0], piece, sizeof(piece))) > 0) result.output.append(piece, n);
  close(out[0]);
  int status = 0;
  waitpid(child, &status, 0);
  result.status = WIFEXITED(status) ? WEXITSTATUS(status) : -1;
  return result;
}

}  // namespace qsvtest

#endif  // MAILSERVER_TESTS_HARNESS_MAILSERVERCTL_RUN_H_
