// Reads back what reached the sandbox's system log since a point in time.
//
//   SyslogCapture log;               // from here on
//   ... code that logs ...
//   auto lines = log.Lines();        // every line sent before this call, by any process
//
// Lines() first sends a marker of its own through syslog(3) and waits until the listener has written
// it: the listener's socket keeps the order of arrival, so every line sent before the marker, by this
// process or another one that has already sent it, is then in the file. Not thread-safe.
#ifndef MAILSERVER_TESTS_HARNESS_SYSLOG_CAPTURE_H_
#define MAILSERVER_TESTS_HARNESS_SYSLOG_CAPTURE_H_

#include <string>
#include <vector>

namespace qsvtest {

struct SyslogLine {
  int priority = -1;     // facility | level, as sent
  std::string tag;       // the sender's identity, usually its program name
  std::string message;   // the text after "tag: ", with newlines as "\n"
};

class SyslogCapture {
 public:
  SyslogCapture();

  std::vector<SyslogLine> Lines();

  // The lines whose message contains `needle`.
  std::vector<SyslogLine> Matching(const std::string &needle);

 private:
  long offset_;
};

}  // namespace qsvtest

#endif  // MAILSERVER_TESTS_HARNESS_SYSLOG_CAPTURE_H_
