// Passwords of migration tasks: the platform's cipher over a prefix of the machine's serial and ten
// random digits, so that the same password gives a new text each time and none reads elsewhere.
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <time.h>
#include <unistd.h>

#include "foundation/log.h"
#include "kolt/crypt.h"
#include "kolt/serial.h"
#include "migration/migration.h"
#include "migration/migration_files.h"

int migrationEncrypt(const char *plain, char *out, int outLen) {
  if (plain == nullptr || out == nullptr) return 0;
  srand(time(nullptr));
  char serial[1024] = {0};
  if (KLIBGetSerialNumber(serial, sizeof(serial)) < 0) return 0;
  if (strlen(serial) + strlen(plain) + 10 > 1023) return 0;
  char buffer[1024];
  snprintf(buffer, sizeof(buffer), "%s%010d%s", serial, rand(), plain);
  const int ok = KLIBCCryptSzEncrypt(buffer, out, outLen);
  explicit_bzero(buffer, sizeof(buffer));
  return ok ? 1 : 0;
}

int migrationDecrypt(const char *cipher, char *out, int outLen) {
  if (cipher == nullptr || out == nullptr || outLen <= 0) return 0;
  uid_t uid = 0;
  gid_t gid = 0;
  if (qsvmigration::PackageIds(uid, gid) != 0 || geteuid() != uid) {
    maillog(3, "%s:%d You must call this function with identity \"Quillon-Server\"", QSV_FILE,
            __LINE__);
    return 0;
  }
  char serial[1024] = {0};
  if (KLIBGetSerialNumber(serial, sizeof(serial)) < 0) return 0;
  if (!KLIBCCryptSzDecrypt(cipher, out, outLen)) return 0;
  const size_t len = strlen(out);
  const size_t n = strlen(serial);
  if (len > 1023) return 1;
  if (n + 9 < len && len - n < 1034) {
    memmove(out, out + n + 10, len - n - 10 + 1);
  }
  return 1;
}
