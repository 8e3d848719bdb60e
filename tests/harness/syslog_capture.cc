#include "harness/syslog_capture.h"

#include <syslog.h>
#include <unistd.h>

#include <chrono>
#include <cstdlib>
#include <fstream>
#include <stdexcept>
#include <thread>

namespace qsvtest {
namespace {

std::string LogPath() {
  const char *path = getenv("QSV_SANDBOX_SYSLOG");
  if (path == nullptr) throw std::runtime_error("not inside the test sandbox: no syslog file");
  return path;
}

long FileSize(const std::string &path) {
  std::ifstream in(path, std::ios::binary | std::ios::ate);
  return in ? static_cast<long>(in.tellg()) : 0;
}

// "<11>Nov 22 22:04:43 tag: message" as written by the C library's syslog().
SyslogLine Parse(const std::string &raw) {
  SyslogLine line;
  const size_t close = raw.find('>');
  if (raw.empty() || raw[0] != '<' || close == std::string::npos) {
    line.message = raw;
    return line;
  }
  line.priority = atoi(raw.substr(1, close - 1).c_str());
  const size_t afterStamp = close + 1 + 16;  // "Mmm dd hh:mm:ss "
  const size_t colon = raw.find(": ", afterStamp);
  if (afterStamp > raw.size() || colon == std::string::npos) {
    line.message = raw.substr(close + 1);
    return line;
  }
  line.tag = raw.substr(afterStamp, colon - afterStamp);
  line.message = raw.substr(colon + 2);
  return line;
}

}  // namespace

SyslogCapture::SyslogCapture() : offset_(FileSize(LogPath())) {}

std::vector<SyslogLine> SyslogCapture::Lines() {
  static int counter = 0;
  const std::string marker =
      "qsvtest-syslog-marker-" + std::to_string(getpid()) + "-" + std::to_string(++counter);
  syslog(LOG_DEBUG, "%s", marker.c_str());

  const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(10);
  for (;;) {
    std::ifstream in(LogPath(), std::ios::binary);
    in.seekg(offset_);
    std::vector<SyslogLine> lines;
    std::string raw;
    while (std::getline(in, raw)) {
      SyslogLine line = Parse(raw);
      if (line.message == marker) return lines;
      if (line.message.rfind("qsvtest-syslog-marker-", 0) == 0) continue;
      lines.push_back(std::move(line));
    }
    if (std::chrono::steady_clock::now() > deadline) {
      throw std::runtime_error("the syslog marker never arrived");
    }
    std::this_thread::sleep_for(std::chrono::milliseconds(2));
  }
}

std::vector<SyslogLine> SyslogCapture::Matching(const std::string &needle) {
  std::vector<SyslogLine> found;
  for (auto &line : Lines()) {
    if (line.message.find(needle) != std::string::npos) found.push_back(std::move(line));
  }
  return found;
}

}  // namespace qsvtest
