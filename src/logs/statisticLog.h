// The statistics the aggregation job (MailLogger) writes into "log_statistic.db" and the charts
// read back: counts per hour, day, week and month, with the top five names of each status.
// This header holds the words both sides share, and the read side, StatisticLog.
//
// A StatisticLog is built, used and dropped by one thread; it only reads, and the job's hourly
// save is one transaction, so a reader sees a whole hour or none of it.
#ifndef MAILSERVER_LOGS_STATISTICLOG_H_
#define MAILSERVER_LOGS_STATISTICLOG_H_

#include <cstdint>
#include <map>
#include <string>
#include <utility>
#include <vector>

#include "foundation/db_handler.h"
#include "foundation/export.h"
#include "logs/maillog.h"

namespace statistic_log {

constexpr char kStatisticDBPath[] = "/var/packages/Quillon-Server/target/var/aggr_log/log_statistic.db";
extern const char kStatisticSchema[];

// A chart's scale; its value is the number of points the chart shows.
enum TimeScale {
  TIME_SCALE_HOUR = 25,
  TIME_SCALE_DAY = 8,
  TIME_SCALE_WEEK = 9,
  TIME_SCALE_MONTH = 7,
};

// The five names with the most mail of one kind, one list per mail_log::MailStatus (0 to 4),
// always five pairs each: missing ranks are ("", 0).
struct TopList {
  std::vector<std::pair<std::string, int>> lists[5];
};

// One point: its time, the five counts in mail_log::MailStatus order, and the top lists of the
// hour, the day, the week and the month it belongs to.
struct StatisticCount {
  int64_t time = 0;
  int32_t sentCnt = 0;
  int32_t receiveCnt = 0;
  int32_t bounceCnt = 0;
  int32_t resentCnt = 0;
  int32_t rejectCnt = 0;
  TopList hourList;
  TopList dayList;
  TopList weekList;
  TopList monthList;

  // The count of a mail_log::MailStatus from 0 to 4.
  int32_t &count(int status);
  // The list of a scale; REQUIRES: one of the four scales.
  TopList &list(TimeScale scale);
};

// The result of the two older sums: per point, values by mail_log::MailStatus, and the points'
// times.
struct Statistic {
  std::vector<std::map<mail_log::MailStatus, uint64_t>> values;
  std::vector<int64_t> points;
};

class QSV_EXPORT StatisticLog {
 public:
  // Makes the log folder and connects; error() is 0 when connected and -1 otherwise.
  StatisticLog();
  ~StatisticLog();
  StatisticLog(const StatisticLog &) = delete;
  StatisticLog &operator=(const StatisticLog &) = delete;

  // The first point of a chart of `scale` whose last point is `t`.
  long getStartTime(long t, TimeScale scale);
  // One entry per point that has a row, oldest first; points without a row are left out.
  int getStatistic(std::vector<StatisticCount> &out, const long &t, const TimeScale &scale);
  // The one point that holds `t`, with its lists.
  int getExportedDate(StatisticCount &out, const long &t, const TimeScale &scale);
  int getTop5List(std::vector<std::pair<std::string, int>> &out, const long &t,
                  const mail_log::MailStatus &status, const TimeScale &scale);
  // Sums over tables of an earlier layout; on the present one they fail with -1.
  int getBandwidthStatistic(Statistic &out, long t, TimeScale scale);
  int getQuantityStatistic(Statistic &out, long t, TimeScale scale);

  int error();
  int HandleDBError(DBHandler &db, int rc);
  int HandleError();

 private:
  DBHandler *db;
  int err;
};

}  // namespace statistic_log

#endif  // MAILSERVER_LOGS_STATISTICLOG_H_
