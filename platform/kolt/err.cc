#include "kolt/err.h"

#include <errno.h>
#include <string.h>

namespace {

thread_local int t_code;
thread_local int t_line;
thread_local char t_file[64];

}  // namespace

int KLIBCErrGet(void) { return t_code; }

const char *KLIBCErrorGetFile(void) { return t_file; }

int KLIBCErrorGetLine(void) { return t_line; }

void KLIBCErrSet(int code, const char *file, int line) {
  int saved = errno;
  t_code = code;
  t_line = line;
  t_file[0] = '\0';
  if (file != nullptr) {
    const char *slash = strrchr(file, '/');
    const char *base = slash != nullptr ? slash + 1 : file;
    strncpy(t_file, base, sizeof(t_file) - 1);
    t_file[sizeof(t_file) - 1] = '\0';
  }
  errno = saved;
}
