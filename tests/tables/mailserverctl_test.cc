// What an administrator meets at the command line: a refused input says why, exits non-zero and
// leaves the tables exactly as they were.
#include <pwd.h>

#include <cstdio>
#include <cstdlib>
#include <string>
#include <vector>

#include "tables/tables_fixture.h"

namespace {

struct Result {
  int status;
  std::string output;  // stdout and stderr together
};

Result Ctl(const std::vector<std::string> &args) {
  std::string command = std::string(getenv("QSV_BUILD_DIR")) + "/tools/mailserverctl";
  for (const std::string &arg : args) command += " '" + arg + "'";
  FILE *pipe = popen((command + " 2>&1 </dev/null").c_str(), "r");
  Result result{-1, ""};
  if (pipe == nullptr) return result;
  char piece[4096];
  size_t n;
  while ((n = fread(piece, 1, sizeof(piece), pipe)) > 0) result.output.append(piece, n);
  const int status = pclose(pipe);
  result.status = WIFEXITED(status) ? WEXITSTATUS(status) : -1;
  return result;
}

// Everything the commands below could change, as the tool itself lists it.
std::string State() {
  std::string state;
  for (const std::vector<std::string> &list :
       std::vector<std::vector<std::string>>{{"quota", "list"},
                                             {"attachment", "list"},
                                             {"alias", "members", "example.test", "team"},
                                             {"relay", "host", "list"},
                                             {"relay", "client", "list"}}) {
    state += Ctl(list).output + "\n--\n";
  }
  return state;
}

class MailserverctlTest : public qsvtest::TablesTest {};

TEST_F(MailserverctlTest, RefusedInputSaysWhyAndChangesNothing) {
  if (getpwnam("alice") == nullptr) ASSERT_EQ(system("useradd -M alice"), 0);
  Ctl({"domain", "add", "example.test"});  // earlier suites may have added it
  const Result added = Ctl({"alias", "add", "example.test", "team", "alice"});
  ASSERT_EQ(added.status, 0) << added.output;
  ASSERT_EQ(Ctl({"quota", "set", "alice", "10"}).status, 0);
  ASSERT_EQ(Ctl({"relay", "host", "mode", "multiple"}).status, 0);
  ASSERT_EQ(Ctl({"relay", "client", "add", "network", "10.1.0.0/16"}).status, 0);
  qsvtest::WriteFile("/tmp/not-aliases", "this is no alias map\n");
  const std::string before = State();

  const std::vector<std::vector<std::string>> refused = {
      {"quota", "set", "alice", "100000"},
      {"quota", "set", "alice", "12x"},
      {"attachment", "add", "e\"xe"},
      {"alias", "add", "nowhere.test", "team", "alice"},
      {"alias", "add", "example.test", "team", "nosuchuser"},
      {"alias", "add", "example.test", "postmaster", "alice"},
      {"alias", "import", "example.test", "/tmp/not-aliases"},
      {"relay", "host", "add", "sender", "relay.example.net", "65536", "example.test"},
      {"relay", "host", "add", "sender", "bad host!", "25", "example.test"},
      {"relay", "client", "add", "network", "300.1.1.0/24"},
  };
  for (const std::vector<std::string> &args : refused) {
    std::string line;
    for (const std::string &arg : args) line += arg + " ";
    const Result result = Ctl(args);
    EXPECT_EQ(result.status, 1) << line << "\n" << result.output;
    EXPECT_NE(result.output.find("mailserverctl: "), std::string::npos) << line;
    EXPECT_EQ(State(), before) << line;
  }
}

}  // namespace
