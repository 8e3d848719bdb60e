// Puts a script at a companion's path that records each run's arguments and exits with a chosen
// code, so that a test can check what the library ran without running the real companion.
//
//   qsvtest::RecordingScript tool("/var/packages/Quillon-Server/target/scripts/x.sh", 0);
//   ... library code runs x.sh ...
//   EXPECT_EQ(tool.Calls(), (std::vector<std::vector<std::string>>{{"start"}}));
//
// The object owns the script and its record; destroying it removes both.
#ifndef MAILSERVER_TESTS_HARNESS_RECORDING_SCRIPT_H_
#define MAILSERVER_TESTS_HARNESS_RECORDING_SCRIPT_H_

#include <string>
#include <vector>

namespace qsvtest {

class RecordingScript {
 public:
  // `output` is printed on the script's standard output on every run.
  RecordingScript(const std::string &path, int exitCode, const std::string &output = "");
  ~RecordingScript();
  RecordingScript(const RecordingScript &) = delete;
  RecordingScript &operator=(const RecordingScript &) = delete;

  // One entry per run, in order: the arguments after the program name.
  std::vector<std::vector<std::string>> Calls() const;

  // Changes the exit code of later runs.
  void SetExitCode(int exitCode);

  const std::string &path() const { return path_; }

 private:
  void Write();

  std::string path_;
  std::string record_;
  std::string output_;
  int exitCode_;
};

// Writes `content` to `path` (creating parent directories) with the given mode.
void WriteFile(const std::string &path, const std::string &content, int mode = 0644);
std::string ReadFile(const std::string &path);

}  // namespace qsvtest

#endif  // MAILSERVER_TESTS_HARNESS_RECORDING_SCRIPT_H_
