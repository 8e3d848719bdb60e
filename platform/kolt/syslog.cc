#include "kolt/syslog.h"

#include <syslog.h>

#include "kolt/err.h"

int KOLTSyslogSend(int category, int level, const char *text) {
  if (category < 0 || category > 31 || text == nullptr) {
    KLIBC_ERR_SET(KLIBC_ERR_BAD_PARAM);
    return -1;
  }
  syslog(level, "%s", text);
  return 0;
}
