// Runs a companion program the way the library does (explicit argv, no shell) and keeps what it
// printed; and talks to a Redis server of the test directly, beside the program under test.
#ifndef MAILSERVER_TESTS_COMPANIONS_PROGRAM_RUN_H_
#define MAILSERVER_TESTS_COMPANIONS_PROGRAM_RUN_H_

#include <string>
#include <vector>

struct redisContext;

namespace qsvtest {

extern const char kBackendConf[];  // where the key store tool finds the store's password

struct ProgramRun {
  int status = -1;  // exit status; -1 when killed by a signal or not started
  std::string out;
  std::string err;
};

// Waits for the program and for the end of its output: a daemon it started that kept the
// output open would hang a caller reading it, and hangs this too.
ProgramRun RunProgram(const std::vector<std::string> &argv);

// The key store tool of the package with these arguments.
ProgramRun RunTool(const std::vector<std::string> &args);

// "backend-command --command WORD --key KEY" followed by `more`.
ProgramRun Backend(const std::string &word, const std::string &key,
                   const std::vector<std::string> &more = {});

// A plain authenticated connection. Throws when the server cannot be reached.
class DirectRedis {
 public:
  DirectRedis(int port, const std::string &password);
  ~DirectRedis();
  DirectRedis(const DirectRedis &) = delete;
  DirectRedis &operator=(const DirectRedis &) = delete;

  // The reply as text: strings and statuses as they are, integers in decimal, "(nil)", or
  // "(error) ..." for an error reply.
  std::string Command(const std::vector<std::string> &args);

  // The payload of the next message pushed to this SUBSCRIBEd connection, or "(none)" after
  // five seconds.
  std::string NextMessage();

 private:
  redisContext *context_;
};

}  // namespace qsvtest

#endif  // MAILSERVER_TESTS_COMPANIONS_PROGRAM_RUN_H_
