#include "foundation/round_time.h"

#include <ctime>

#include "foundation/log.h"

namespace {

// Local midnight of the day `dayOffset` days from the day of `time`, and `monthOffset` months on
// when `firstOfMonth`. Calendar arithmetic, not multiples of 86400: a day or a week across a
// change to or from summer time is 23 or 25 hours long. tm_isdst is left to mktime, since midnight
// may lie on the other side of the change from `time`.
long LocalMidnight(long time, int dayOffset, bool firstOfMonth, int monthOffset) {
  const time_t t = static_cast<time_t>(time);
  struct tm local;
  if (localtime_r(&t, &local) == nullptr) return -1;
  local.tm_sec = 0;
  local.tm_min = 0;
  local.tm_hour = 0;
  if (firstOfMonth) local.tm_mday = 1;
  local.tm_mday += dayOffset;
  local.tm_mon += monthOffset;  // mktime carries December + 1 into January of the next year
  local.tm_isdst = -1;
  return static_cast<long>(timelocal(&local));
}

}  // namespace

long getRoundTime(long time, CountInterval interval) {
  switch (interval) {
    case COUNT_INTERVAL_HOUR:
      return time - time % COUNT_INTERVAL_HOUR;
    case COUNT_INTERVAL_DAY:
      return LocalMidnight(time, 0, false, 0);
    case COUNT_INTERVAL_WEEK: {
      const time_t t = static_cast<time_t>(time);
      struct tm local;
      if (localtime_r(&t, &local) == nullptr) return -1;
      return LocalMidnight(time, -local.tm_wday, false, 0);
    }
    case COUNT_INTERVAL_MONTH:
      return LocalMidnight(time, 0, true, 0);
  }
  const long seconds = static_cast<long>(interval);
  if (seconds <= 0) {
    maillog(3, "%s:%d Invalid interval %ld", QSV_FILE, __LINE__, seconds);
    return -1;
  }
  return time - time % seconds;
}

long getNextMonthStartTime(long time) { return LocalMidnight(time, 0, true, 1); }
