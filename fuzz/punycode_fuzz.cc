// Domains and addresses come from administrators, imported files and mail logs: no input may crash
// the conversions, and a domain that converts to punycode must convert back to the same ASCII form.
#include <cstdint>
#include <cstdlib>
#include <string>

#include "eai/punycode.h"

using KOLT::QUILLON_SERVER::ConvertToPunycode;
using KOLT::QUILLON_SERVER::ConvertToPunycodeOrUTF8;
using KOLT::QUILLON_SERVER::ConvertToUTF8;

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
  const std::string in(reinterpret_cast<const char *>(data), size);
  std::string ascii, unicode, back, other;
  ConvertToPunycodeOrUTF8(in, other);
  if (ConvertToPunycode(in, ascii) != 0) return 0;
  if (ConvertToUTF8(ascii, unicode) != 0) return 0;
  if (ConvertToPunycode(unicode, back) == 0 && back != ascii) abort();
  return 0;
}
