#include "log_writer/line_reader.h"

#include <poll.h>
#include <unistd.h>

#include <cerrno>

namespace qsvlog {

LineReader::Result LineReader::Next(std::string *line, const std::function<bool()> &idle) {
  for (;;) {
    const size_t newline = buffer_.find('\n', start_ + scanned_);
    if (newline != std::string::npos) {
      const bool skipped = skipping_;
      skipping_ = false;
      if (!skipped) {
        line->assign(buffer_, start_, newline - start_);
        if (!line->empty() && line->back() == '\r') line->pop_back();
      }
      start_ = newline + 1;
      scanned_ = 0;
      if (skipped) continue;
      return kLine;
    }
    scanned_ = buffer_.size() - start_;
    if (scanned_ > kMaxLine) {
      buffer_.clear();
      start_ = scanned_ = 0;
      skipping_ = true;
    }
    if (end_) {
      if (scanned_ == 0 || skipping_) return kEnd;
      line->assign(buffer_, start_, std::string::npos);
      buffer_.clear();
      start_ = scanned_ = 0;
      return kLine;
    }
    if (*stop_) return kStopped;
    if (idle) {
      pollfd ready = {fd_, POLLIN, 0};
      if (poll(&ready, 1, 0) == 0 && !idle()) return kFailed;
    }
    char chunk[65536];
    const ssize_t got = read(fd_, chunk, sizeof(chunk));
    if (got < 0) {
      if (errno == EINTR) continue;
      return kFailed;
    }
    if (got == 0) {
      end_ = true;
      continue;
    }
    buffer_.erase(0, start_);
    start_ = 0;
    buffer_.append(chunk, static_cast<size_t>(got));
  }
}

}  // namespace qsvlog
