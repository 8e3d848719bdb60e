// How every mailserverctl command reports a failure: one line on stderr, exit status 1; and how
// it shows what it was given.
#ifndef MAILSERVER_TOOLS_MAILSERVERCTL_ERROR_H_
#define MAILSERVER_TOOLS_MAILSERVERCTL_ERROR_H_

#include <cstdio>
#include <string>

#include "foundation/utf8.h"

namespace mailserverctl {

inline int Error(const std::string &message) {
  fprintf(stderr, "mailserverctl: %s\n", message.c_str());
  return 1;
}

// Input as a message may show it: in double quotes, cut after 100 bytes, with control characters,
// '"', '\\' and (in text that is not UTF-8) every byte above ASCII escaped as \xNN, so that nothing
// typed or stored can play tricks on the terminal.
inline std::string Quoted(const std::string &text) {
  constexpr size_t kShown = 100;
  const bool utf8 = checkValidUtf8(text);
  std::string out = "\"";
  for (size_t i = 0; i < text.size() && i < kShown; ++i) {
    const unsigned char c = static_cast<unsigned char>(text[i]);
    const unsigned char next = i + 1 < text.size() ? static_cast<unsigned char>(text[i + 1]) : 0;
    const bool c1Control = c == 0xc2 && next >= 0x80 && next < 0xa0;
    if (c < 0x20 || c == 0x7f || c == '"' || c == '\\' || (c >= 0x80 && (!utf8 || c1Control))) {
      char escaped[8];
      snprintf(escaped, sizeof(escaped), "\\x%02x", c);
      out += escaped;
      if (c1Control) {
        snprintf(escaped, sizeof(escaped), "\\x%02x", next);
        out += escaped;
        ++i;
      }
    } else {
      out += static_cast<char>(c);
    }
  }
  return out + (text.size() > kShown ? "\"..." : "\"");
}

// The value of `key` as a message may show it: a password never, whatever it holds.
inline std::string QuotedValue(const std::string &key, const std::string &value) {
  return key.find("password") != std::string::npos ? "(a password)" : Quoted(value);
}

}  // namespace mailserverctl

#endif  // MAILSERVER_TOOLS_MAILSERVERCTL_ERROR_H_
