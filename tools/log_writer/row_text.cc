#include "log_writer/row_text.h"

#include <iconv.h>
#include <strings.h>

#include <algorithm>
#include <cctype>
#include <cerrno>

#include "eai/punycode.h"
#include "kolt/base64.h"

namespace qsvlog {

namespace {

// The length of the well-formed UTF-8 sequence at `pos` and its code point, or 0.
size_t Utf8Sequence(const std::string &text, size_t pos, unsigned *codePoint) {
  const unsigned char lead = static_cast<unsigned char>(text[pos]);
  size_t length;
  unsigned cp, minimum;
  if (lead < 0x80) {
    *codePoint = lead;
    return 1;
  } else if ((lead & 0xe0) == 0xc0) {
    length = 2, cp = lead & 0x1f, minimum = 0x80;
  } else if ((lead & 0xf0) == 0xe0) {
    length = 3, cp = lead & 0x0f, minimum = 0x800;
  } else if ((lead & 0xf8) == 0xf0) {
    length = 4, cp = lead & 0x07, minimum = 0x10000;
  } else {
    return 0;
  }
  if (pos + length > text.size()) return 0;
  for (size_t i = 1; i < length; ++i) {
    const unsigned char next = static_cast<unsigned char>(text[pos + i]);
    if ((next & 0xc0) != 0x80) return 0;
    cp = (cp << 6) | (next & 0x3f);
  }
  if (cp < minimum || cp > 0x10ffff || (cp >= 0xd800 && cp <= 0xdfff)) return 0;
  *codePoint = cp;
  return length;
}

int HexValue(char c) {
  if (c >= '0' && c <= '9') return c - '0';
  if (c >= 'A' && c <= 'F') return c - 'A' + 10;
  if (c >= 'a' && c <= 'f') return c - 'a' + 10;
  return -1;
}

struct EncodedWord {
  std::string charset;  // lower case, without a language ("utf-8" of "UTF-8*en")
  std::string bytes;    // the decoded bytes, still in `charset`
  size_t end = 0;       // after the closing "?="
};

// "=?charset?B|Q?text?=" at `pos`.
bool ParseEncodedWord(const std::string &text, size_t pos, EncodedWord *word) {
  const size_t charsetEnd = text.find('?', pos + 2);
  if (charsetEnd == std::string::npos || charsetEnd == pos + 2 || charsetEnd + 3 > text.size() ||
      text[charsetEnd + 2] != '?') {
    return false;
  }
  const char encoding = text[charsetEnd + 1];
  const size_t dataStart = charsetEnd + 3;
  const size_t dataEnd = text.find("?=", dataStart);
  if (dataEnd == std::string::npos) return false;
  word->charset = text.substr(pos + 2, charsetEnd - pos - 2);
  std::string data = text.substr(dataStart, dataEnd - dataStart);
  if (word->charset.find_first_of(" \t") != std::string::npos ||
      data.find_first_of(" \t?") != std::string::npos) {
    return false;
  }
  word->charset.erase(std::min(word->charset.find('*'), word->charset.size()));
  for (char &c : word->charset) c = static_cast<char>(tolower(static_cast<unsigned char>(c)));
  word->bytes.clear();
  if (encoding == 'B' || encoding == 'b') {
    // Some mailers leave the padding off.
    while (data.size() % 4 != 0) data += '=';
    std::string decoded(data.size() / 4 * 3 + 1, '\0');
    const int length = KLIBCBase64Decode(data.data(), data.size(), &decoded[0], decoded.size());
    if (length < 0) return false;
    word->bytes.assign(decoded, 0, static_cast<size_t>(length));
  } else if (encoding == 'Q' || encoding == 'q') {
    for (size_t i = 0; i < data.size(); ++i) {
      if (data[i] == '_') {
        word->bytes += ' ';
      } else if (data[i] != '=') {
        word->bytes += data[i];
      } else if (i + 2 < data.size() && HexValue(data[i + 1]) >= 0 && HexValue(data[i + 2]) >= 0) {
        word->bytes += static_cast<char>(HexValue(data[i + 1]) * 16 + HexValue(data[i + 2]));
        i += 2;
      } else {
        return false;
      }
    }
  } else {
    return false;
  }
  word->end = dataEnd + 2;
  return true;
}

// `bytes` of `charset` in UTF-8; false when iconv doesn't know the charset.
bool ToUtf8(const std::string &charset, const std::string &bytes, std::string *out) {
  if (charset == "utf-8" || charset == "utf8" || charset == "us-ascii") {
    *out += bytes;
    return true;
  }
  iconv_t conversion = iconv_open("UTF-8", charset.c_str());
  if (conversion == reinterpret_cast<iconv_t>(-1)) return false;
  std::string input = bytes;
  char *in = &input[0];
  size_t inLeft = input.size();
  char buffer[1024];
  while (inLeft > 0) {
    char *outPos = buffer;
    size_t outLeft = sizeof(buffer);
    const size_t rc = iconv(conversion, &in, &inLeft, &outPos, &outLeft);
    out->append(buffer, static_cast<size_t>(outPos - buffer));
    if (rc == static_cast<size_t>(-1) && errno != E2BIG) {
      // A byte the charset doesn't have, or one cut short at the end: drop it and go on.
      ++in;
      --inLeft;
    }
  }
  iconv_close(conversion);
  return true;
}

}  // namespace

std::string RowText(const std::string &text) {
  std::string out;
  out.reserve(text.size());
  for (size_t pos = 0; pos < text.size();) {
    unsigned cp = 0;
    size_t length = Utf8Sequence(text, pos, &cp);
    std::string piece = text.substr(pos, length);
    if (length == 0) {
      cp = static_cast<unsigned char>(text[pos]);
      piece = {static_cast<char>(0xc0 | (cp >> 6)), static_cast<char>(0x80 | (cp & 0x3f))};
      length = 1;
    }
    pos += length;
    if (cp == '\t') {
      out += ' ';
    } else if (cp >= 0x20 && cp != 0x7f && (cp < 0x80 || cp > 0x9f)) {
      out += piece;
    }
  }
  return out;
}

std::string RowAddress(const std::string &address) {
  std::string utf8;
  if (KOLT::QUILLON_SERVER::ConvertToUTF8(address, utf8) != 0) utf8 = address;
  return RowText(utf8);
}

std::string RowSubject(const std::string &header) {
  std::string out, gap, pendingRaw, pendingBytes, pendingCharset;
  // Adjacent words of one charset are decoded together: mailers split a character's bytes
  // across two words often enough.
  auto flush = [&]() {
    if (!pendingRaw.empty() && !ToUtf8(pendingCharset, pendingBytes, &out)) out += pendingRaw;
    pendingRaw.clear();
    pendingBytes.clear();
    pendingCharset.clear();
  };
  for (size_t pos = 0; pos < header.size();) {
    EncodedWord word;
    if (header.compare(pos, 2, "=?") == 0 && ParseEncodedWord(header, pos, &word)) {
      // Blanks between two encoded words are folding, not text.
      gap.clear();
      if (word.charset != pendingCharset) flush();
      pendingCharset = word.charset;
      pendingBytes += word.bytes;
      pendingRaw += header.substr(pos, word.end - pos);
      pos = word.end;
      continue;
    }
    const char c = header[pos++];
    if (!pendingRaw.empty() && (c == ' ' || c == '\t')) {
      gap += c;
      continue;
    }
    flush();
    out += gap;
    gap.clear();
    out += c;
  }
  flush();
  out += gap;
  return RowText(out);
}

}  // namespace qsvlog
