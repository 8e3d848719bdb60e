#include "logs/statisticLog.h"

#include <sqlite3.h>

#include <ctime>

#include "foundation/log.h"
#include "foundation/round_time.h"
#include "logs/log_db.h"

namespace statistic_log {

namespace {

const char kTop5Table[] = "log_statistic_top5";

// The counter table, the rounded time and the step of a scale's points; false for another scale.
bool ScaleTable(long t, TimeScale scale, const char **table, long *rounded) {
  switch (scale) {
    case TIME_SCALE_HOUR:
      *table = "log_statistic_hour";
      *rounded = getRoundTime(t, COUNT_INTERVAL_HOUR);
      return true;
    case TIME_SCALE_DAY:
      *table = "log_statistic_day";
      *rounded = getRoundTime(t, COUNT_INTERVAL_DAY);
      return true;
    case TIME_SCALE_WEEK:
      *table = "log_statistic_week";
      *rounded = getRoundTime(t, COUNT_INTERVAL_WEEK);
      return true;
    case TIME_SCALE_MONTH:
      *table = "log_statistic_month";
      *rounded = getRoundTime(t, COUNT_INTERVAL_MONTH);
      return true;
  }
  maillog(3, "%s:%d invalid input: time scale %d", QSV_FILE, __LINE__, static_cast<int>(scale));
  return false;
}

long NextPoint(long time, TimeScale scale) {
  switch (scale) {
    case TIME_SCALE_HOUR: return time + COUNT_INTERVAL_HOUR;
    case TIME_SCALE_DAY: return time + COUNT_INTERVAL_DAY;
    case TIME_SCALE_WEEK: return time + COUNT_INTERVAL_WEEK;
    default: return getNextMonthStartTime(time);
  }
}

// Failures are told by the result alone; the corruption rule is the caller's through HandleError.
int NoRegen(int rc) { return rc; }

}  // namespace

StatisticLog::StatisticLog() : db(nullptr), err(-1) {
  bool connected = false;
  db = log_db::OpenLogDB(kStatisticDBPath, kStatisticSchema, &connected);
  if (connected) err = 0;
}

StatisticLog::~StatisticLog() {
  db->disconnect();
  delete db;
}

long StatisticLog::getStartTime(long t, TimeScale scale) {
  switch (scale) {
    case TIME_SCALE_HOUR: return t - 86400;
    case TIME_SCALE_DAY: return t - 604800;
    case TIME_SCALE_WEEK: return t - 4838400;
    default: break;
  }
  const time_t when = static_cast<time_t>(t);
  struct tm tm;
  localtime_r(&when, &tm);
  tm.tm_mday = 1;
  tm.tm_hour = tm.tm_min = tm.tm_sec = 0;
  const int back = static_cast<int>(scale) - 1;
  if (tm.tm_mon < back) {
    tm.tm_year -= 1;
    tm.tm_mon = tm.tm_mon - static_cast<int>(scale) + 13;
  } else {
    tm.tm_mon = tm.tm_mon - static_cast<int>(scale) + 1;
  }
  tm.tm_isdst = -1;
  return static_cast<long>(mktime(&tm));
}

int StatisticLog::getTop5List(std::vector<std::pair<std::string, int>> &out, const long &t,
                              const mail_log::MailStatus &status, const TimeScale &scale) {
  const std::string sql = std::string("SELECT name, num FROM ") + kTop5Table + " WHERE time = " +
                          std::to_string(t) + " AND type = " + std::to_string(status) +
                          " AND scale = " + std::to_string(static_cast<int>(scale)) +
                          " ORDER BY rank ASC;";
  const int rc = log_db::Rows(
      *db, sql,
      [&out](sqlite3_stmt *row, int) {
        out.emplace_back(log_db::Text(row, 0), sqlite3_column_int(row, 1));
      },
      NoRegen);
  if (rc != 0) return -1;
  while (out.size() < 5) out.emplace_back("", 0);
  return 0;
}

int StatisticLog::getExportedDate(StatisticCount &out, const long &t, const TimeScale &scale) {
  const char *table;
  long rounded;
  if (!ScaleTable(t, scale, &table, &rounded)) return -1;
  const std::string sql = std::string("SELECT time, sentCnt, receiveCnt, bounceCnt, resentCnt, "
                                      "rejectCnt FROM ") +
                          table + " WHERE time = " + std::to_string(rounded);
  bool found = false;
  const int rc = log_db::Rows(
      *db, sql,
      [&](sqlite3_stmt *row, int) {
        found = true;
        out.time = sqlite3_column_int64(row, 0);
        for (int status = 0; status < 5; ++status) {
          out.count(status) = sqlite3_column_int(row, status + 1);
        }
      },
      NoRegen);
  if (rc != 0) return -1;
  if (!found) return 0;
  TopList &lists = out.list(scale);
  for (int status = 0; status < 5; ++status) {
    lists.lists[status].clear();
    if (getTop5List(lists.lists[status], out.time, static_cast<mail_log::MailStatus>(status),
                    scale) != 0) {
      return -1;
    }
  }
  return 0;
}

int StatisticLog::getStatistic(std::vector<StatisticCount> &out, const long &t,
                               const TimeScale &scale) {
  const char *table;
  long rounded;
  if (!ScaleTable(t, scale, &table, &rounded)) return -1;
  for (long time = getStartTime(rounded, scale); time <= t; time = NextPoint(time, scale)) {
    StatisticCount point;
    const std::string sql = std::string("SELECT time, sentCnt, receiveCnt, bounceCnt, resentCnt, "
                                        "rejectCnt FROM ") +
                            table + " WHERE time = " + std::to_string(time);
    bool found = false;
    const int rc = log_db::Rows(
        *db, sql,
        [&](sqlite3_stmt *row, int) {
          found = true;
          point.time = sqlite3_column_int64(row, 0);
          for (int status = 0; status < 5; ++status) {
            point.count(status) = sqlite3_column_int(row, status + 1);
          }
        },
        NoRegen);
    if (rc != 0) return -1;
    // A point without a row is a hole the chart's caller fills.
    if (!found) continue;
    for (int status = 0; status < 5; ++status) {
      if (getTop5List(point.list(scale).lists[status], point.time,
                      static_cast<mail_log::MailStatus>(status), scale) != 0) {
        return -1;
      }
    }
    out.push_back(point);
  }
  return 0;
}

// The older sums: `scale` buckets by plain division, the last holding `t`. Their tables belong to
// an earlier layout, so on the present one the first prepare fails.
static int OlderSums(DBHandler &db, Statistic &out, long t, TimeScale scale, const char *columns,
                     int values) {
  const char *table;
  long bucket;
  if (scale == TIME_SCALE_DAY) {
    table = "log_statistic_second";
    bucket = 3600;
  } else if (scale == TIME_SCALE_MONTH || scale == TIME_SCALE_WEEK) {
    table = "log_statistic_hour";
    bucket = 86400;
  } else {
    table = "log_statistic_day";
    bucket = 2592000;
  }
  const long last = t / bucket * bucket;
  for (long start = last - (static_cast<long>(scale) - 1) * bucket; start <= last; start += bucket) {
    const std::string sql = std::string(columns) + table + " WHERE time >= " +
                            std::to_string(start) + " and time < " + std::to_string(start + bucket);
    std::map<mail_log::MailStatus, uint64_t> point;
    const int rc = log_db::Rows(
        db, sql,
        [&](sqlite3_stmt *row, int) {
          point[mail_log::MAIL_STATUS_RECEIVE] = sqlite3_column_int64(row, 0);
          point[mail_log::MAIL_STATUS_SEND] = sqlite3_column_int64(row, 1);
          if (values > 2) point[mail_log::MAIL_STATUS_BOUNCE] = sqlite3_column_int64(row, 2);
        },
        NoRegen);
    if (rc != 0) return -1;
    out.values.push_back(point);
    out.points.push_back(start);
  }
  return 0;
}

int StatisticLog::getBandwidthStatistic(Statistic &out, long t, TimeScale scale) {
  return OlderSums(*db, out, t, scale,
                   "SELECT SUM(inbound_bandwidth),SUM(outbound_bandwidth) FROM ", 2);
}

int StatisticLog::getQuantityStatistic(Statistic &out, long t, TimeScale scale) {
  return OlderSums(*db, out, t, scale,
                   "SELECT SUM(inbound_quantity),SUM(outbound_quantity),SUM(bounce_quantity) FROM ",
                   3);
}

int StatisticLog::error() { return err; }

int StatisticLog::HandleDBError(DBHandler &handler, int rc) {
  if (rc != SQLITE_CORRUPT) return rc;
  maillog(3, "%s:%d db corrupt, need regen", QSV_FILE, __LINE__);
  return handler.regenDB();
}

int StatisticLog::HandleError() {
  if (err != 1) {
    err = -1;
    return -1;
  }
  err = HandleDBError(*db, db->getErrCode()) == 0 ? 0 : -1;
  return err;
}

}  // namespace statistic_log
