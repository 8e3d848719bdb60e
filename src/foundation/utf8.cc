#include "foundation/utf8.h"

#include <locale.h>
#include <wctype.h>

namespace {

bool IsContinuation(unsigned char c) { return (c & 0xC0) == 0x80; }

// Decodes one well-formed character at `at`. Returns its length (1 to 4) and the code point, or 0
// when the bytes there are not a well-formed character. Bytes past `end` are never read, and the
// NUL that ends a C string is no continuation byte, so a cut sequence is refused.
size_t Decode(const unsigned char *at, const unsigned char *end, char32_t &cp) {
  const unsigned char lead = at[0];
  size_t length;
  char32_t min;
  if (lead < 0x80) {
    cp = lead;
    return 1;
  } else if (lead >= 0xC2 && lead <= 0xDF) {  // 0xC0 and 0xC1 could only be overlong
    length = 2;
    cp = lead & 0x1F;
    min = 0x80;
  } else if (lead >= 0xE0 && lead <= 0xEF) {
    length = 3;
    cp = lead & 0x0F;
    min = 0x800;
  } else if (lead >= 0xF0 && lead <= 0xF4) {
    length = 4;
    cp = lead & 0x07;
    min = 0x10000;
  } else {
    return 0;
  }
  if (static_cast<size_t>(end - at) < length) return 0;
  for (size_t i = 1; i < length; ++i) {
    if (!IsContinuation(at[i])) return 0;
    cp = (cp << 6) | (at[i] & 0x3F);
  }
  if (cp < min || cp > 0x10FFFF || (cp >= 0xD800 && cp <= 0xDFFF)) return 0;
  return length;
}

void Encode(char32_t cp, std::string &out) {
  if (cp < 0x80) {
    out += static_cast<char>(cp);
  } else if (cp < 0x800) {
    out += static_cast<char>(0xC0 | (cp >> 6));
    out += static_cast<char>(0x80 | (cp & 0x3F));
  } else if (cp < 0x10000) {
    out += static_cast<char>(0xE0 | (cp >> 12));
    out += static_cast<char>(0x80 | ((cp >> 6) & 0x3F));
    out += static_cast<char>(0x80 | (cp & 0x3F));
  } else {
    out += static_cast<char>(0xF0 | (cp >> 18));
    out += static_cast<char>(0x80 | ((cp >> 12) & 0x3F));
    out += static_cast<char>(0x80 | ((cp >> 6) & 0x3F));
    out += static_cast<char>(0x80 | (cp & 0x3F));
  }
}

// The case tables of a UTF-8 locale, independent of whatever locale the calling program has set.
// Built once; a locale object is only read afterwards, so threads may share it.
locale_t Utf8Locale() {
  static const locale_t locale = newlocale(LC_CTYPE_MASK, "C.UTF-8", static_cast<locale_t>(0));
  return locale;
}

}  // namespace

bool checkValidUtf8(const std::string &text) {
  const auto *at = reinterpret_cast<const unsigned char *>(text.data());
  const auto *end = at + text.size();
  while (at < end && *at != 0) {
    char32_t cp;
    const size_t length = Decode(at, end, cp);
    if (length == 0) return false;
    at += length;
  }
  return true;
}

std::string UnicodeUtf8UpperCase(const std::string &text) {
  const locale_t locale = Utf8Locale();
  std::string upper;
  upper.reserve(text.size());
  const auto *at = reinterpret_cast<const unsigned char *>(text.data());
  const auto *end = at + text.size();
  while (at < end) {
    char32_t cp;
    const size_t length = Decode(at, end, cp);
    if (length == 0) {
      upper += static_cast<char>(*at++);
      continue;
    }
    if (cp < 0x80) {
      upper += static_cast<char>(cp >= 'a' && cp <= 'z' ? cp - 'a' + 'A' : cp);
    } else if (locale != static_cast<locale_t>(0)) {
      Encode(static_cast<char32_t>(towupper_l(static_cast<wint_t>(cp), locale)), upper);
    } else {
      upper.append(reinterpret_cast<const char *>(at), length);
    }
    at += length;
  }
  return upper;
}
