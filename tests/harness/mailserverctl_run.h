// Runs the mailserverctl of the build under test, as an administrator would, and gives back its
// exit status and everything it printed; and checks the way it refuses input.
//
//   const qsvtest::CtlResult result = qsvtest::RunCtl({"spam", "show"});
//
// REQUIRES: the sandbox (it sets QSV_BUILD_DIR).
#ifndef MAILSERVER_TESTS_HARNESS_MAILSERVERCTL_RUN_H_
#define MAILSERVER_TESTS_HARNESS_MAILSERVERCTL_RUN_H_

#include <fcntl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cstdlib>
#include <functional>
#include <string>
#include <utility>
#include <vector>

#include <gtest/gtest.h>

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

// The command line, each word cut to 60 bytes, for a failure message.
inline std::string CtlLine(const std::vector<std::string> &args) {
  std::string line;
  for (const std::string &arg : args) line += arg.substr(0, 60) + " ";
  return line;
}

// Each command of `cases` is refused: exit 1, one line that starts "mailserverctl: " and holds
// the case's reason, and `state()` as it was before.
inline void ExpectRefused(const std::vector<std::pair<std::vector<std::string>, std::string>> &cases,
                          const std::function<std::string()> &state) {
  const std::string before = state();
  for (const auto &[args, why] : cases) {
    const CtlResult result = RunCtl(args);
    const std::string shown = CtlLine(args) + "\n" + result.output;
    EXPECT_EQ(result.status, 1) << shown;
    EXPECT_EQ(result.output.rfind("mailserverctl: ", 0), 0u) << shown;
    EXPECT_EQ(std::count(result.output.begin(), result.output.end(), '\n'), 1) << shown;
    EXPECT_NE(result.output.find(why), std::string::npos) << shown;
    EXPECT_EQ(state(), before) << CtlLine(args);
  }
}

}  // namespace qsvtest

#endif  // MAILSERVER_TESTS_HARNESS_MAILSERVERCTL_RUN_H_
