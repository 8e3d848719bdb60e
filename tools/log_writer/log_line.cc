#include "log_writer/log_line.h"

#include <cstring>

namespace qsvlog {

namespace {

constexpr time_t kDay = 24 * 60 * 60;

// Reads exactly `width` decimal digits at `pos` and moves past them.
bool Digits(const std::string &text, size_t &pos, size_t width, int *value) {
  if (pos + width > text.size()) return false;
  int v = 0;
  for (size_t i = 0; i < width; ++i) {
    const char c = text[pos + i];
    if (c < '0' || c > '9') return false;
    v = v * 10 + (c - '0');
  }
  *value = v;
  pos += width;
  return true;
}

bool Expect(const std::string &text, size_t &pos, char c) {
  if (pos >= text.size() || text[pos] != c) return false;
  ++pos;
  return true;
}

bool ValidClock(int hour, int minute, int second) {
  return hour <= 23 && minute <= 59 && second <= 60;
}

// mktime and timegm move a day the month doesn't have into the next month; such a stamp is no
// stamp.
time_t Make(struct tm tm, bool local, int month, int day) {
  tm.tm_isdst = -1;
  const time_t t = local ? mktime(&tm) : timegm(&tm);
  if (t == -1 || tm.tm_mon != month - 1 || tm.tm_mday != day) return -1;
  return t;
}

struct tm Fields(int year, int month, int day, int hour, int minute, int second) {
  struct tm tm;
  memset(&tm, 0, sizeof(tm));
  tm.tm_year = year - 1900;
  tm.tm_mon = month - 1;
  tm.tm_mday = day;
  tm.tm_hour = hour;
  tm.tm_min = minute;
  tm.tm_sec = second;
  return tm;
}

// "2026-11-23T07:10:01[.123456][Z|+01:00|+0100]" at the start of `text`; `pos` ends after it.
time_t IsoStamp(const std::string &text, size_t &pos) {
  int year, month, day, hour, minute, second;
  if (!Digits(text, pos, 4, &year) || !Expect(text, pos, '-') || !Digits(text, pos, 2, &month) ||
      !Expect(text, pos, '-') || !Digits(text, pos, 2, &day) || !Expect(text, pos, 'T') ||
      !Digits(text, pos, 2, &hour) || !Expect(text, pos, ':') || !Digits(text, pos, 2, &minute) ||
      !Expect(text, pos, ':') || !Digits(text, pos, 2, &second)) {
    return -1;
  }
  if (year < 1970 || month < 1 || month > 12 || day < 1 || !ValidClock(hour, minute, second)) {
    return -1;
  }
  if (pos < text.size() && text[pos] == '.') {
    ++pos;
    const size_t start = pos;
    while (pos < text.size() && text[pos] >= '0' && text[pos] <= '9') ++pos;
    if (pos == start) return -1;
  }
  const struct tm tm = Fields(year, month, day, hour, minute, second);
  if (pos < text.size() && text[pos] == 'Z') {
    ++pos;
    return Make(tm, false, month, day);
  }
  if (pos < text.size() && (text[pos] == '+' || text[pos] == '-')) {
    const int sign = text[pos++] == '-' ? -1 : 1;
    int offsetHours, offsetMinutes;
    if (!Digits(text, pos, 2, &offsetHours)) return -1;
    if (pos < text.size() && text[pos] == ':') ++pos;
    if (!Digits(text, pos, 2, &offsetMinutes) || offsetHours > 23 || offsetMinutes > 59) return -1;
    const time_t utc = Make(tm, false, month, day);
    return utc == -1 ? -1 : utc - sign * (offsetHours * 3600 + offsetMinutes * 60);
  }
  return Make(tm, true, month, day);
}

// "Nov 23 07:10:01" or "Nov  3 07:10:01" at the start of `text`.
time_t TraditionalStamp(const std::string &text, size_t &pos, StampClock &clock) {
  static const char kMonths[] = "JanFebMarAprMayJunJulAugSepOctNovDec";
  if (text.size() < 15) return -1;
  int month = 0;
  for (int m = 0; m < 12; ++m) {
    if (text.compare(0, 3, kMonths + 3 * m, 3) == 0) month = m + 1;
  }
  pos = 3;
  if (month == 0 || !Expect(text, pos, ' ')) return -1;
  if (text[pos] == ' ') ++pos;
  int day, hour, minute, second;
  const size_t width = pos + 1 < text.size() && text[pos + 1] != ' ' ? 2 : 1;
  if (!Digits(text, pos, width, &day) || !Expect(text, pos, ' ') || !Digits(text, pos, 2, &hour) ||
      !Expect(text, pos, ':') || !Digits(text, pos, 2, &minute) || !Expect(text, pos, ':') ||
      !Digits(text, pos, 2, &second)) {
    return -1;
  }
  if (day < 1 || !ValidClock(hour, minute, second)) return -1;
  return clock.Traditional(month, day, hour, minute, second);
}

}  // namespace

time_t StampClock::Traditional(int month, int day, int hour, int minute, int second) {
  if (year_ == 0) {
    struct tm now;
    localtime_r(&now_, &now);
    const int year = now.tm_year + 1900;
    const time_t t = Make(Fields(year, month, day, hour, minute, second), true, month, day);
    if (t == -1 || t <= now_ + kDay) return t;
    return Make(Fields(year - 1, month, day, hour, minute, second), true, month, day);
  }
  // Half a year back means a new year began; smaller steps back are lines a little out of order.
  if (lastMonth_ != 0 && month + 6 < lastMonth_) ++year_;
  lastMonth_ = month;
  return Make(Fields(year_, month, day, hour, minute, second), true, month, day);
}

bool ParseLogLine(const std::string &line, StampClock &clock, LogLine *out) {
  size_t pos = 0;
  const bool iso = !line.empty() && line[0] >= '0' && line[0] <= '9';
  const time_t when = iso ? IsoStamp(line, pos) : TraditionalStamp(line, pos, clock);
  if (when == -1 || !Expect(line, pos, ' ')) return false;

  const size_t hostEnd = line.find(' ', pos);
  if (hostEnd == std::string::npos || hostEnd == pos) return false;
  const size_t programEnd = line.find(": ", hostEnd + 1);
  if (programEnd == std::string::npos) return false;
  std::string program = line.substr(hostEnd + 1, programEnd - hostEnd - 1);
  if (!program.empty() && program.back() == ']') {
    const size_t bracket = program.rfind('[');
    if (bracket == std::string::npos) return false;
    program.erase(bracket);
  }
  // "postfix/smtpd", a second instance's "postfix-out/smtp", or a service with a syslog name of
  // its own, "postfix/submission/smtpd": the daemon is the last part.
  const size_t slash = program.rfind('/');
  if (program.compare(0, 7, "postfix") != 0 || slash == std::string::npos ||
      slash + 1 == program.size() || program.find(' ') != std::string::npos) {
    return false;
  }
  out->when = when;
  out->host = line.substr(pos, hostEnd - pos);
  out->daemon = program.substr(slash + 1);
  out->message = line.substr(programEnd + 2);
  return true;
}

}  // namespace qsvlog
