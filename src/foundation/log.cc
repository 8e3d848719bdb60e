#include "foundation/log.h"

#include <cstdarg>
#include <cstdio>

#include "kolt/syslog.h"

namespace {

// The category under which the platform files the mail server's lines.
constexpr int kMailServerLogCategory = 14;
constexpr size_t kLineSize = 2048;

}  // namespace

int maillog(int level, const char *format, ...) {
  // A longer line is cut at kLineSize - 1 bytes, without a mark, and still sent.
  char line[kLineSize] = {0};
  va_list args;
  va_start(args, format);
  vsnprintf(line, sizeof(line), format, args);
  va_end(args);
  return KOLTSyslogSend(kMailServerLogCategory, level, line);
}
