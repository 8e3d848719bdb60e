// The library's log function. Every message begins with "%s:%d " and the caller passes the short
// name of its source file and its line, which QSV_FILE and __LINE__ give:
//
//   maillog(3, "%s:%d Failed to open %s", QSV_FILE, __LINE__, path);
//
// maillog keeps its buffer on the caller's stack: it is safe from any thread.
#ifndef MAILSERVER_FOUNDATION_LOG_H_
#define MAILSERVER_FOUNDATION_LOG_H_

#include "foundation/export.h"

// Level 3 is every failure; 1 and 7 are trace and progress notes.
QSV_EXPORT int maillog(int level, const char *format, ...) __attribute__((format(printf, 2, 3)));

namespace qsv {

// The part of a path after its last '/', computed at compile time for __FILE__.
constexpr const char *ShortFileName(const char *path) {
  const char *name = path;
  for (const char *p = path; *p != '\0'; ++p) {
    if (*p == '/') name = p + 1;
  }
  return name;
}

}  // namespace qsv

#define QSV_FILE (::qsv::ShortFileName(__FILE__))

#endif  // MAILSERVER_FOUNDATION_LOG_H_
