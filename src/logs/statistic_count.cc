#include "logs/statisticLog.h"

namespace statistic_log {

const char kStatisticSchema[] =
    "BEGIN TRANSACTION;create table log_statistic_hour(time INTEGER PRIMARY KEY, sentCnt INTEGER, "
    "receiveCnt INTEGER, bounceCnt INTEGER, resentCnt INTEGER, rejectCnt INTEGER);create table "
    "log_statistic_day(time INTEGER PRIMARY KEY, sentCnt INTEGER, receiveCnt INTEGER, bounceCnt "
    "INTEGER, resentCnt INTEGER, rejectCnt INTEGER);create table log_statistic_week(time INTEGER "
    "PRIMARY KEY, sentCnt INTEGER, receiveCnt INTEGER, bounceCnt INTEGER, resentCnt INTEGER, "
    "rejectCnt INTEGER);create table log_statistic_month(time INTEGER PRIMARY KEY, sentCnt "
    "INTEGER, receiveCnt INTEGER, bounceCnt INTEGER, resentCnt INTEGER, rejectCnt INTEGER);create "
    "table log_statistic_top5(time INTEGER, scale INTEGER, type INTEGER, rank INTEGER, name TEXT, "
    "num INTEGER, PRIMARY KEY (time, type, scale, rank));create table "
    "log_statistic_daily_usage(time INTEGER, type INTEGER, name TEXT, num INTEGER, PRIMARY KEY "
    "(time, type, name));CREATE INDEX hour_index ON log_statistic_hour (time);CREATE INDEX "
    "day_index ON log_statistic_day (time);CREATE INDEX week_index ON log_statistic_week "
    "(time);CREATE INDEX month_index ON log_statistic_month (time);CREATE INDEX top5_time_index "
    "ON log_statistic_top5 (time);CREATE INDEX top5_scale_index ON log_statistic_top5 "
    "(scale);CREATE INDEX top5_type_index ON log_statistic_top5 (type);CREATE INDEX "
    "top5_rank_index ON log_statistic_top5 (rank);COMMIT TRANSACTION;";

int32_t &StatisticCount::count(int status) {
  switch (status) {
    case 0: return sentCnt;
    case 1: return receiveCnt;
    case 2: return bounceCnt;
    case 3: return resentCnt;
    default: return rejectCnt;
  }
}

TopList &StatisticCount::list(TimeScale scale) {
  switch (scale) {
    case TIME_SCALE_HOUR: return hourList;
    case TIME_SCALE_DAY: return dayList;
    case TIME_SCALE_WEEK: return weekList;
    default: return monthList;
  }
}

}  // namespace statistic_log
