// Lines from a descriptor: a log file, or a pipe that the system logger keeps writing to. It can
// say when it is about to wait for more input, so that rows already made are committed instead of
// waiting with it. A reader belongs to one thread.
#ifndef MAILSERVER_TOOLS_LOG_WRITER_LINE_READER_H_
#define MAILSERVER_TOOLS_LOG_WRITER_LINE_READER_H_

#include <csignal>
#include <functional>
#include <string>

namespace qsvlog {

class LineReader {
 public:
  enum Result { kLine, kEnd, kFailed, kStopped };

  // No log line comes near this; a longer one is garbage and is skipped whole, so that a stream
  // without newlines can't make the buffer grow without end.
  static constexpr size_t kMaxLine = 64 * 1024;

  // `stop` is a flag a signal handler sets; the reader returns kStopped once it is set.
  LineReader(int fd, const volatile sig_atomic_t *stop) : fd_(fd), stop_(stop) {}

  // The next line without its "\n" or "\r\n"; kFailed with errno set when reading fails or `idle`
  // does. `idle`, when given, runs before a read that would wait.
  Result Next(std::string *line, const std::function<bool()> &idle);

 private:
  int fd_;
  const volatile sig_atomic_t *stop_;
  std::string buffer_;
  size_t start_ = 0;    // where the unread part of buffer_ begins
  size_t scanned_ = 0;  // how far past start_ holds no newline
  bool skipping_ = false;
  bool end_ = false;
};

}  // namespace qsvlog

#endif  // MAILSERVER_TOOLS_LOG_WRITER_LINE_READER_H_
