// The file buffer decodes whatever another node left in memcached: no input may crash the decoder
// or make it write past its buffer, and what it accepts must encode back to the same bytes.
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

#include "kolt/base64.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
  const std::string text(reinterpret_cast<const char *>(data), size);
  std::vector<unsigned char> decoded(size + 3);
  const int n = KLIBCBase64Decode(text.c_str(), text.size(), decoded.data(), decoded.size());
  if (n < 0) return 0;
  std::vector<char> encoded(4 * ((static_cast<size_t>(n) + 2) / 3) + 1);
  if (KLIBCBase64SzEncodeFull(decoded.data(), static_cast<size_t>(n), encoded.data(),
                              encoded.size()) < 0) {
    abort();
  }
  std::vector<unsigned char> again(size + 3);
  const int m = KLIBCBase64Decode(encoded.data(), strlen(encoded.data()), again.data(), again.size());
  if (m != n || memcmp(again.data(), decoded.data(), static_cast<size_t>(n)) != 0) abort();
  return 0;
}
