// One line of the system log as Postfix's daemons leave it: the time stamp (the traditional
// "Nov 23 07:10:01" or ISO "2026-11-23T07:10:01.123456+00:00"), the host, the daemon and its
// message. A StampClock belongs to one reader: it carries the year of traditional stamps, which
// have none, from line to line.
#ifndef MAILSERVER_TOOLS_LOG_WRITER_LOG_LINE_H_
#define MAILSERVER_TOOLS_LOG_WRITER_LOG_LINE_H_

#include <ctime>
#include <string>

namespace qsvlog {

struct LogLine {
  time_t when = 0;
  std::string host;
  std::string daemon;   // "smtpd" of "postfix/smtpd[123]", "smtp" of "postfix/relay/smtp[9]"
  std::string message;  // what follows "postfix/smtpd[123]: "
};

class StampClock {
 public:
  // `year` 0: the year of `now`, or the one before for a stamp that would lie more than a day
  // ahead of `now` (a log of late December read in January). Otherwise `year` is that of the
  // first stamp, and a step from late in one year to early in the next (December to January)
  // moves on to the next year.
  StampClock(int year, time_t now) : year_(year), now_(now) {}

  // Seconds since the epoch of the local time year-month-day hour:minute:second, per the TZ of
  // the process; -1 for a day the month doesn't have.
  time_t Traditional(int month, int day, int hour, int minute, int second);

 private:
  int year_;
  time_t now_;
  int lastMonth_ = 0;
};

// Whether `line` is a Postfix daemon's line; `out` is set only then. Stamps with a zone offset
// ("Z", "+01:00") are exact; ISO stamps without one are local time, as traditional ones are.
bool ParseLogLine(const std::string &line, StampClock &clock, LogLine *out);

}  // namespace qsvlog

#endif  // MAILSERVER_TOOLS_LOG_WRITER_LOG_LINE_H_
