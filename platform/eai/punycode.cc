#include "eai/punycode.h"

#include <idn2.h>

namespace KOLT {
namespace QUILLON_SERVER {

namespace {

bool IsAscii(const std::string &s) {
  for (unsigned char c : s) {
    if (c >= 0x80) return false;
  }
  return true;
}

std::string AsciiLower(std::string s) {
  for (char &c : s) {
    if (c >= 'A' && c <= 'Z') c = static_cast<char>(c - 'A' + 'a');
  }
  return s;
}

bool HasAceLabel(const std::string &domain) {
  std::string lower = AsciiLower(domain);
  for (size_t pos = 0;; pos++) {
    if (lower.compare(pos, 4, "xn--") == 0) return true;
    pos = lower.find_first_of(".@", pos);
    if (pos == std::string::npos) return false;
  }
}

// Splits in into what stays as written (a local part with its '@', a
// leading "*." or ".") and the domain to convert.
void Split(const std::string &in, std::string *kept, std::string *domain) {
  size_t at = in.rfind('@');
  size_t start = at == std::string::npos ? 0 : at + 1;
  if (in.compare(start, 2, "*.") == 0) {
    start += 2;
  } else if (in.compare(start, 1, ".") == 0) {
    start += 1;
  }
  *kept = in.substr(0, start);
  *domain = in.substr(start);
}

int ToAscii(const std::string &domain, std::string *out) {
  if (domain.find('\0') != std::string::npos) return IDN2_ENCODING_ERROR;
  if (IsAscii(domain)) {
    *out = AsciiLower(domain);
    return 0;
  }
  // IDNA2008 first; the older rules still admit names (symbols, emoji) that
  // were registered under them and that people keep using.
  char *ascii = nullptr;
  int rc = idn2_to_ascii_8z(domain.c_str(), &ascii, IDN2_NONTRANSITIONAL | IDN2_NFC_INPUT);
  if (rc != IDN2_OK) rc = idn2_to_ascii_8z(domain.c_str(), &ascii, IDN2_TRANSITIONAL | IDN2_NFC_INPUT);
  if (rc != IDN2_OK) return rc;
  *out = ascii;
  idn2_free(ascii);
  return 0;
}

int ToUnicode(const std::string &domain, std::string *out) {
  if (domain.find('\0') != std::string::npos) return IDN2_ENCODING_ERROR;
  if (!HasAceLabel(domain)) {
    *out = domain;
    return 0;
  }
  // Punycode keeps the case of ASCII letters inside a label ("XN--BCHER-KVA"
  // would come out as "BüCHER"), so decode the lower-case form.
  std::string lower = AsciiLower(domain);
  char *utf8 = nullptr;
  int rc = idn2_to_unicode_8z8z(lower.c_str(), &utf8, 0);
  if (rc != IDN2_OK) return rc;
  std::string decoded = utf8;
  idn2_free(utf8);
  // The decoder accepts some labels no encoder makes ("xn--a" becomes an
  // empty label); only a label that encodes back to itself is real.
  std::string back;
  if (ToAscii(decoded, &back) != 0 || back != lower) return IDN2_PUNYCODE_BAD_INPUT;
  *out = decoded;
  return 0;
}

}  // namespace

int ConvertToPunycode(const std::string &in, std::string &out) {
  std::string kept, domain, converted;
  Split(in, &kept, &domain);
  int rc = ToAscii(domain, &converted);
  if (rc != 0) return rc;
  out = kept + converted;
  return 0;
}

int ConvertToUTF8(const std::string &in, std::string &out) {
  std::string kept, domain, converted;
  Split(in, &kept, &domain);
  int rc = ToUnicode(domain, &converted);
  if (rc != 0) return rc;
  out = kept + converted;
  return 0;
}

bool ConvertToPunycodeOrUTF8(const std::string &in, std::string &out) {
  std::string converted;
  int rc;
  if (!IsAscii(in)) {
    rc = ConvertToPunycode(in, converted);
  } else if (HasAceLabel(in)) {
    rc = ConvertToUTF8(in, converted);
  } else {
    return false;
  }
  if (rc != 0 || converted == in) return false;
  out = converted;
  return true;
}

}  // namespace QUILLON_SERVER
}  // namespace KOLT
