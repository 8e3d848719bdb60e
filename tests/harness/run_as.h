// Runs a piece of a test in a child process with other ids, so that the test process keeps root.
// The function's result is the child's exit status; an exception or a crash in the child is
// reported as a failure (status -1). Output of the child goes where the test's output goes.
#ifndef MAILSERVER_TESTS_HARNESS_RUN_AS_H_
#define MAILSERVER_TESTS_HARNESS_RUN_AS_H_

#include <sys/types.h>

#include <functional>
#include <string>

namespace qsvtest {

// Runs `body` in a forked child and returns its result (0..255), or -1 if the child died.
int RunInChild(const std::function<int()> &body);

// As RunInChild, with every id (real, effective, saved) of `user` and its group: the child can
// never become root again.
int RunAsUnprivileged(const std::string &user, const std::function<int()> &body);

// As RunInChild, with only the effective ids changed: the saved ids stay root, as in a daemon that
// lowered itself and raises again where it must.
int RunWithEffectiveIds(uid_t euid, gid_t egid, const std::function<int()> &body);

// The ids of a user of the sandbox (Quillon-Server is always there).
uid_t UidOf(const std::string &user);
gid_t GidOf(const std::string &user);

}  // namespace qsvtest

#endif  // MAILSERVER_TESTS_HARNESS_RUN_AS_H_
