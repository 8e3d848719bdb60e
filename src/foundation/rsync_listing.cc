#include "foundation/rsync_listing.h"

#include <ctime>

namespace {

// The next run of non-blank characters from `pos`, which moves past it.
std::string Word(const std::string &line, size_t &pos) {
  while (pos < line.size() && line[pos] == ' ') ++pos;
  const size_t start = pos;
  while (pos < line.size() && line[pos] != ' ') ++pos;
  return line.substr(start, pos - start);
}

bool Digits(const std::string &text, size_t from, size_t count) {
  for (size_t i = from; i < from + count; ++i) {
    if (i >= text.size() || text[i] < '0' || text[i] > '9') return false;
  }
  return true;
}

// "1,234,567": digits with separators between groups; rsync groups by three.
bool Size(const std::string &text, long long &size) {
  if (text.empty() || text.size() > 26) return false;
  size = 0;
  int digits = 0;
  for (const char c : text) {
    if (c == ',' || c == '.') continue;
    if (c < '0' || c > '9' || ++digits > 18) return false;
    size = size * 10 + (c - '0');
  }
  return digits > 0 && text.front() != ',' && text.front() != '.' && text.back() != ',' &&
         text.back() != '.';
}

bool When(const std::string &day, const std::string &clock, time_t &when) {
  // YYYY/MM/DD HH:MM:SS
  if (day.size() != 10 || clock.size() != 8 || day[4] != '/' || day[7] != '/' || clock[2] != ':' ||
      clock[5] != ':' || !Digits(day, 0, 4) || !Digits(day, 5, 2) || !Digits(day, 8, 2) ||
      !Digits(clock, 0, 2) || !Digits(clock, 3, 2) || !Digits(clock, 6, 2)) {
    return false;
  }
  struct tm tm = {};
  tm.tm_year = std::stoi(day.substr(0, 4)) - 1900;
  tm.tm_mon = std::stoi(day.substr(5, 2)) - 1;
  tm.tm_mday = std::stoi(day.substr(8, 2));
  tm.tm_hour = std::stoi(clock.substr(0, 2));
  tm.tm_min = std::stoi(clock.substr(3, 2));
  tm.tm_sec = std::stoi(clock.substr(6, 2));
  tm.tm_isdst = -1;
  if (tm.tm_mon > 11 || tm.tm_mday < 1 || tm.tm_mday > 31 || tm.tm_hour > 23 || tm.tm_min > 59 ||
      tm.tm_sec > 60) {
    return false;
  }
  when = mktime(&tm);
  return true;
}

// rsync writes a byte it won't print as "\#" and three octal digits, and a backslash that would
// look like the start of one as "\#134".
bool Unescape(const std::string &text, std::string &name) {
  name.clear();
  for (size_t i = 0; i < text.size(); ++i) {
    if (text[i] == '\\' && i + 1 < text.size() && text[i + 1] == '#') {
      int value = 0;
      for (size_t k = i + 2; k < i + 5; ++k) {
        if (k >= text.size() || text[k] < '0' || text[k] > '7') return false;
        value = value * 8 + (text[k] - '0');
      }
      // No name holds a NUL byte.
      if (value == 0 || value > 255) return false;
      name += static_cast<char>(value);
      i += 4;
      continue;
    }
    if (text[i] == '\0') return false;
    name += text[i];
  }
  return true;
}

// What rsync lists below a folder never climbs out of it; a peer that says otherwise is not
// believed, since callers build local paths from these names.
bool Relative(const std::string &name) {
  if (name.empty() || name[0] == '/') return false;
  size_t start = 0;
  for (;;) {
    const size_t slash = name.find('/', start);
    if (name.compare(start, slash == std::string::npos ? std::string::npos : slash - start, "..") == 0) {
      return false;
    }
    if (slash == std::string::npos) return true;
    start = slash + 1;
  }
}

}  // namespace

bool ParseRsyncListLine(const std::string &line, RsyncListEntry &entry) {
  if (line.empty() || std::string("-dlpscb").find(line[0]) == std::string::npos) return false;
  size_t pos = 0;
  const std::string mode = Word(line, pos);
  if (mode.size() != 10) return false;
  const std::string size = Word(line, pos);
  const std::string day = Word(line, pos);
  const std::string clock = Word(line, pos);
  // Exactly one blank stands between the time and the name; what follows it is the name.
  if (pos + 1 >= line.size() || line[pos] != ' ') return false;
  RsyncListEntry read;
  read.mode = mode;
  if (!Size(size, read.size) || !When(day, clock, read.mtime) ||
      !Unescape(line.substr(pos + 1), read.name) || !Relative(read.name)) {
    return false;
  }
  entry = read;
  return true;
}
