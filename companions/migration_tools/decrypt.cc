// kolt_migration_decrypt: reads one enciphered password of a migration task on standard input and
// writes it in clear on standard output, for the offlineimap run that needs it. It works only for
// the package user (who alone can read the machine's key), and the secret never appears on a
// command line.
#include <stdio.h>
#include <string.h>

#include "migration/migration.h"

int main() {
  char cipher[2048] = {0};
  if (fgets(cipher, sizeof(cipher), stdin) == nullptr) return 1;
  cipher[strcspn(cipher, "\r\n")] = '\0';
  char plain[1024] = {0};
  if (!migrationDecrypt(cipher, plain, sizeof(plain))) {
    fprintf(stderr, "kolt_migration_decrypt: the password can't be read here\n");
    return 1;
  }
  fputs(plain, stdout);
  fputc('\n', stdout);
  explicit_bzero(plain, sizeof(plain));
  return fflush(stdout) == 0 ? 0 : 1;
}
