#include "kolt/str.h"

#include <ctype.h>
#include <string.h>

#include "kolt/err.h"

int KLIBCStrTrimSpace(char *text, int /*flags*/) {
  if (text == nullptr) {
    KLIBC_ERR_SET(KLIBC_ERR_BAD_PARAM);
    return -1;
  }
  // isspace() on a plain char is undefined for bytes above 0x7F.
  const unsigned char *begin = reinterpret_cast<unsigned char *>(text);
  while (*begin != '\0' && isspace(*begin)) begin++;
  size_t len = strlen(reinterpret_cast<const char *>(begin));
  while (len > 0 && isspace(begin[len - 1])) len--;
  memmove(text, begin, len);
  text[len] = '\0';
  return static_cast<int>(len);
}
