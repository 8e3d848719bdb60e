#include "foundation/text.h"

namespace {

bool Unsupported(unsigned char c) { return c < 33 || c == 127; }

}  // namespace

bool IsUnsupportedChar(const char *c) {
  return c == nullptr || Unsupported(static_cast<unsigned char>(*c));
}

bool checkUnsupportedUser(const char *name) {
  if (name == nullptr) return true;
  for (const char *p = name; *p != '\0'; ++p) {
    if (Unsupported(static_cast<unsigned char>(*p))) return true;
  }
  return false;
}

std::string StripUnsupportedChars(const std::string &text) {
  std::string kept;
  kept.reserve(text.size());
  for (char c : text) {
    if (!Unsupported(static_cast<unsigned char>(c))) kept += c;
  }
  return kept;
}
