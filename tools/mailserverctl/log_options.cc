#include "mailserverctl/log_options.h"

#include <cstdio>
#include <cstdlib>
#include <ctime>

#include "mailserverctl/error.h"

namespace mailserverctl {

namespace {

constexpr size_t kMaxText = 200;

}  // namespace

// The options after the command word, each "--name value" but `flags`, which stand alone.
// Refuses an unknown, repeated or valueless option with a message; true when all are good.
bool ReadOptions(const std::vector<std::string> &words, const std::set<std::string> &known,
                 const std::set<std::string> &flags, std::map<std::string, std::string> &out,
                 int *status) {
  for (size_t i = 0; i < words.size(); ++i) {
    const std::string &name = words[i];
    if (known.count(name) == 0 && flags.count(name) == 0) {
      *status = Error("unknown option " + Quoted(name));
      return false;
    }
    if (out.count(name) > 0) {
      *status = Error("option " + name + " is given twice");
      return false;
    }
    if (flags.count(name) > 0) {
      out[name] = "";
      continue;
    }
    if (i + 1 == words.size()) {
      *status = Error("option " + name + " needs a value");
      return false;
    }
    out[name] = words[++i];
  }
  return true;
}

// A text a term or keyword may hold: short, without control characters.
bool TextAcceptable(const std::string &name, const std::string &text, int *status) {
  if (text.empty() || text.size() > kMaxText) {
    *status = Error(name + " takes a text of 1 to 200 bytes");
    return false;
  }
  for (const char c : text) {
    if (static_cast<unsigned char>(c) < 0x20 || c == 0x7f) {
      *status = Error(name + " " + Quoted(text) + " holds a control character");
      return false;
    }
  }
  return true;
}

bool Number(const std::string &text, long long max, long long *value) {
  if (text.empty() || text.size() > 18) return false;
  for (const char c : text) {
    if (c < '0' || c > '9') return false;
  }
  *value = std::stoll(text);
  return *value <= max;
}

// A moment in local time: "YYYY-MM-DD", "YYYY-MM-DDTHH:MM:SS" or seconds since 1970. A bare day
// means its first second, or its last when `endOfDay`.
bool Moment(const std::string &text, bool endOfDay, long long *when) {
  if (Number(text, 253402300799LL, when)) return *when > 0;
  struct tm tm = {};
  const char *end = strptime(text.c_str(), "%Y-%m-%d", &tm);
  if (end == nullptr) return false;
  bool day = *end == '\0';
  if (!day) {
    end = strptime(end, "T%H:%M:%S", &tm);
    if (end == nullptr || *end != '\0') return false;
  }
  tm.tm_isdst = -1;
  if (day && endOfDay) {
    tm.tm_hour = 23;
    tm.tm_min = 59;
    tm.tm_sec = 59;
  }
  const time_t t = mktime(&tm);
  if (t <= 0) return false;
  *when = t;
  return true;
}

// A value from a log as one field of a line: control characters escaped, tabs too.
std::string Field(const std::string &text) {
  std::string out;
  for (const char c : text) {
    const unsigned char u = static_cast<unsigned char>(c);
    if (u < 0x20 || u == 0x7f || c == '\\') {
      char escaped[8];
      snprintf(escaped, sizeof(escaped), "\\x%02x", u);
      out += escaped;
    } else {
      out += c;
    }
  }
  return out;
}

std::string When(const struct tm &tm) {
  char text[32];
  strftime(text, sizeof(text), "%Y-%m-%d %H:%M:%S", &tm);
  return text;
}

}  // namespace mailserverctl
