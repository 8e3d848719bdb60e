#include "kolt/serial.h"

#include <ctype.h>
#include <errno.h>
#include <fcntl.h>
#include <string.h>
#include <unistd.h>

#include "kolt/err.h"

namespace {

const char kMachineId[] = "/etc/machine-id";
const char kPrefix[] = "QSV";
const int kDigits = 12;

}  // namespace

int KLIBGetSerialNumber(char *buf, int size) {
  int length = static_cast<int>(sizeof(kPrefix) - 1) + kDigits;
  if (buf == nullptr || size <= length) {
    KLIBC_ERR_SET(buf == nullptr ? KLIBC_ERR_BAD_PARAM : KLIBC_ERR_BUFFER_TOO_SMALL);
    return -1;
  }
  char id[kDigits];
  int fd = open(kMachineId, O_RDONLY | O_CLOEXEC);
  if (fd < 0) {
    KLIBC_ERR_SET(KLIBC_ERR_SYS(errno));
    return -1;
  }
  ssize_t n = read(fd, id, sizeof(id));
  close(fd);
  if (n != kDigits) {
    KLIBC_ERR_SET(KLIBC_ERR_BAD_FORMAT);
    return -1;
  }
  for (int i = 0; i < kDigits; i++) {
    if (!isxdigit(static_cast<unsigned char>(id[i]))) {
      KLIBC_ERR_SET(KLIBC_ERR_BAD_FORMAT);
      return -1;
    }
  }
  memcpy(buf, kPrefix, sizeof(kPrefix) - 1);
  for (int i = 0; i < kDigits; i++) {
    buf[sizeof(kPrefix) - 1 + i] = static_cast<char>(toupper(static_cast<unsigned char>(id[i])));
  }
  buf[length] = '\0';
  return length;
}
