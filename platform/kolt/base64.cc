#include "kolt/base64.h"

#include <limits.h>
#include <stdint.h>

#include "kolt/err.h"

namespace {

constexpr char kAlphabet[] = "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789+/";

// The value of each character, -1 for those outside the alphabet (padding included).
struct SextetTable {
  signed char of[256];
  constexpr SextetTable() : of() {
    for (int c = 0; c < 256; ++c) of[c] = -1;
    for (int i = 0; i < 64; ++i) {
      of[static_cast<unsigned char>(kAlphabet[i])] = static_cast<signed char>(i);
    }
  }
};
constexpr SextetTable kSextets;

}  // namespace

int KLIBCBase64SzEncodeFull(const void *in, size_t len, char *out, size_t outSize) {
  if (out == nullptr || (in == nullptr && len > 0) || len > (size_t)INT_MAX / 4 * 3) {
    KLIBC_ERR_SET(KLIBC_ERR_BAD_PARAM);
    return -1;
  }
  size_t need = (len + 2) / 3 * 4;
  if (outSize < need + 1) {
    KLIBC_ERR_SET(KLIBC_ERR_BUFFER_TOO_SMALL);
    return -1;
  }
  const unsigned char *p = static_cast<const unsigned char *>(in);
  char *o = out;
  size_t i = 0;
  for (; i + 3 <= len; i += 3) {
    uint32_t v = (uint32_t)p[i] << 16 | (uint32_t)p[i + 1] << 8 | p[i + 2];
    *o++ = kAlphabet[v >> 18];
    *o++ = kAlphabet[(v >> 12) & 63];
    *o++ = kAlphabet[(v >> 6) & 63];
    *o++ = kAlphabet[v & 63];
  }
  if (i < len) {
    uint32_t v = (uint32_t)p[i] << 16;
    if (i + 1 < len) v |= (uint32_t)p[i + 1] << 8;
    *o++ = kAlphabet[v >> 18];
    *o++ = kAlphabet[(v >> 12) & 63];
    *o++ = i + 1 < len ? kAlphabet[(v >> 6) & 63] : '=';
    *o++ = '=';
  }
  *o = '\0';
  return static_cast<int>(o - out);
}

int KLIBCBase64Decode(const char *in, size_t inLen, void *out, size_t outSize) {
  if ((in == nullptr && inLen > 0) || (out == nullptr && outSize > 0)) {
    KLIBC_ERR_SET(KLIBC_ERR_BAD_PARAM);
    return -1;
  }
  unsigned char *o = static_cast<unsigned char *>(out);
  size_t written = 0;
  int quad[4];
  int filled = 0;
  int pads = 0;  // '=' seen; only the end of the last quad may hold them
  for (size_t i = 0; i < inLen; i++) {
    // Files travel as megabytes of unwrapped text: whole quads of plain characters go four at a
    // time, and whatever else (a line end, padding, a bad character) by the careful path below.
    if (filled == 0 && pads == 0) {
      while (i + 4 <= inLen && written + 3 <= outSize) {
        const unsigned char *q = reinterpret_cast<const unsigned char *>(in + i);
        const int a = kSextets.of[q[0]], b = kSextets.of[q[1]], c = kSextets.of[q[2]],
                  d = kSextets.of[q[3]];
        if ((a | b | c | d) < 0) break;
        const uint32_t v = (uint32_t)a << 18 | (uint32_t)b << 12 | (uint32_t)c << 6 | (uint32_t)d;
        o[written] = v >> 16;
        o[written + 1] = (v >> 8) & 0xFF;
        o[written + 2] = v & 0xFF;
        written += 3;
        i += 4;
      }
      if (i >= inLen) break;
    }
    unsigned char c = static_cast<unsigned char>(in[i]);
    if (c == '\r' || c == '\n') continue;
    if (pads > 0 && filled == 0) goto bad;  // text after a padded quad
    if (c == '=') {
      if (filled < 2) goto bad;
      pads++;
      quad[filled++] = 0;
    } else {
      int s = kSextets.of[c];
      if (s < 0 || pads > 0) goto bad;
      quad[filled++] = s;
    }
    if (filled < 4) continue;
    uint32_t v = (uint32_t)quad[0] << 18 | (uint32_t)quad[1] << 12 | (uint32_t)quad[2] << 6 | quad[3];
    size_t n = 3 - pads;
    if (written + n > outSize) {
      KLIBC_ERR_SET(KLIBC_ERR_BUFFER_TOO_SMALL);
      return -1;
    }
    o[written++] = v >> 16;
    if (n > 1) o[written++] = (v >> 8) & 0xFF;
    if (n > 2) o[written++] = v & 0xFF;
    filled = 0;
  }
  if (filled != 0 || written > (size_t)INT_MAX) goto bad;
  return static_cast<int>(written);
bad:
  KLIBC_ERR_SET(KLIBC_ERR_BAD_FORMAT);
  return -1;
}
