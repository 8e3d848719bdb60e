#include "harness/recording_script.h"

#include <sys/stat.h>
#include <unistd.h>

#include <fstream>
#include <sstream>
#include <stdexcept>

namespace qsvtest {
namespace {

void MakeParents(const std::string &path) {
  for (size_t slash = path.find('/', 1); slash != std::string::npos;
       slash = path.find('/', slash + 1)) {
    mkdir(path.substr(0, slash).c_str(), 0755);
  }
}

// Single quotes for the shell, with embedded quotes closed and reopened.
std::string Quote(const std::string &text) {
  std::string quoted = "'";
  for (char c : text) {
    if (c == '\'') {
      quoted += "'\\''";
    } else {
      quoted += c;
    }
  }
  return quoted + "'";
}

}  // namespace

void WriteFile(const std::string &path, const std::string &content, int mode) {
  MakeParents(path);
  std::ofstream out(path, std::ios::binary | std::ios::trunc);
  out << content;
  out.close();
  if (!out || chmod(path.c_str(), static_cast<mode_t>(mode)) != 0) {
    throw std::runtime_error("cannot write " + path);
  }
}

std::string ReadFile(const std::string &path) {
  std::ifstream in(path, std::ios::binary);
  std::ostringstream content;
  content << in.rdbuf();
  return content.str();
}

RecordingScript::RecordingScript(const std::string &path, int exitCode, const std::string &output)
    : path_(path), record_(path + ".calls"), output_(output), exitCode_(exitCode) {
  Write();
  unlink(record_.c_str());
}

RecordingScript::~RecordingScript() {
  unlink(path_.c_str());
  unlink(record_.c_str());
}

void RecordingScript::SetExitCode(int exitCode) {
  exitCode_ = exitCode;
  Write();
}

void RecordingScript::Write() {
  // Arguments are separated by the unit separator and runs by a newline; the record is opened by
  // whoever runs the script, so it is left writable for all.
  std::string script = "#!/bin/sh\n";
  script += "{ for a in \"$@\"; do printf '%s\\037' \"$a\"; done; printf '\\n'; } >> " +
            Quote(record_) + "\n";
  script += "chmod 666 " + Quote(record_) + " 2>/dev/null\n";
  if (!output_.empty()) script += "printf '%s' " + Quote(output_) + "\n";
  script += "exit " + std::to_string(exitCode_) + "\n";
  const std::string tmp = path_ + ".new";
  WriteFile(tmp, script, 0755);
  if (rename(tmp.c_str(), path_.c_str()) != 0) throw std::runtime_error("cannot place " + path_);
}

std::vector<std::vector<std::string>> RecordingScript::Calls() const {
  std::vector<std::vector<std::string>> calls;
  std::istringstream in(ReadFile(record_));
  std::string line;
  while (std::getline(in, line)) {
    std::vector<std::string> args;
    std::string arg;
    for (char c : line) {
      if (c == '\037') {
        args.push_back(arg);
        arg.clear();
      } else {
        arg += c;
      }
    }
    calls.push_back(args);
  }
  return calls;
}

}  // namespace qsvtest
