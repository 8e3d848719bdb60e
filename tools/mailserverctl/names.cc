#include "mailserverctl/names.h"

#include "eai/punycode.h"
#include "foundation/utf8.h"

namespace mailserverctl {
namespace {

constexpr size_t kMaxDomain = 253;
constexpr size_t kMaxLabel = 63;
// No UTF-8 spelling of a domain of 253 ASCII bytes comes near this; longer input isn't converted.
constexpr size_t kMaxInput = 1024;

bool ValidLabel(const std::string &label) {
  if (label.empty() || label.size() > kMaxLabel || label.front() == '-' || label.back() == '-') {
    return false;
  }
  return label.find_first_not_of("abcdefghijklmnopqrstuvwxyz0123456789-") == std::string::npos;
}

}  // namespace

bool ValidDomainName(const std::string &name, std::string *ascii) {
  if (name.empty() || name.size() > kMaxInput || !checkValidUtf8(name)) return false;
  std::string converted;
  std::string back;
  // The conversion keeps what stands before an '@' or a leading "*." as written: the label check
  // below refuses it. An "xn--" label must decode, or it names nothing.
  if (KOLT::QUILLON_SERVER::ConvertToPunycode(name, converted) != 0 ||
      KOLT::QUILLON_SERVER::ConvertToUTF8(converted, back) != 0 || converted.size() > kMaxDomain) {
    return false;
  }
  for (size_t start = 0;;) {
    const size_t dot = converted.find('.', start);
    if (!ValidLabel(converted.substr(start, dot - start))) return false;
    if (dot == std::string::npos) break;
    start = dot + 1;
  }
  if (ascii != nullptr) *ascii = converted;
  return true;
}

bool ParsePort(const std::string &text, int &port) {
  if (text.empty() || text.size() > 5 ||
      text.find_first_not_of("0123456789") != std::string::npos) {
    return false;
  }
  const int number = std::stoi(text);
  if (number < 1 || number > 65535) return false;
  port = number;
  return true;
}

}  // namespace mailserverctl
