// The time slots of the statistics: an hour, a local day, a week from Sunday, a calendar month.
// Local slots follow the process's time zone (TZ), which the caller must not change from another
// thread while these run; otherwise safe from any thread.
#ifndef MAILSERVER_FOUNDATION_ROUND_TIME_H_
#define MAILSERVER_FOUNDATION_ROUND_TIME_H_

#include "foundation/export.h"

// The statistics interval, by its number of seconds.
enum CountInterval : long {
  COUNT_INTERVAL_HOUR = 3600,
  COUNT_INTERVAL_DAY = 86400,
  COUNT_INTERVAL_WEEK = 604800,
  COUNT_INTERVAL_MONTH = 2592000,
};

// The start of the slot that holds `time`:
//   3600     the hour, by plain division (UTC terms)
//   86400    local midnight of that day
//   604800   local midnight of the Sunday that begins the week
//   2592000  local midnight of the first of the month
// Any other positive value rounds down to a multiple of it. A value of 0 or below logs and
// gives -1.
QSV_EXPORT long getRoundTime(long time, CountInterval interval);

// Local midnight of the first day of the month after the one that holds `time`.
QSV_EXPORT long getNextMonthStartTime(long time);

#endif  // MAILSERVER_FOUNDATION_ROUND_TIME_H_
