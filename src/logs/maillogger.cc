#include "logs/maillogger.h"

#include <sqlite3.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cmath>
#include <ctime>
#include <new>

#include "cluster/mailserver_cluster.h"
#include "config/mail_conf.h"
#include "core/mail_conf.h"
#include "foundation/file_lock.h"
#include "foundation/files.h"
#include "foundation/log.h"
#include "foundation/privilege.h"
#include "foundation/round_time.h"
#include "kolt/err.h"
#include "kolt/exec.h"
#include "kolt/file.h"
#include "kolt/notify.h"
#include "kolt/szhash.h"
#include "logs/log_db.h"
#include "logs/securityLog.h"

using mail_log::MailStatus;
using statistic_log::StatisticCount;
using statistic_log::TimeScale;
using statistic_log::TopList;

const char kSecurityStatisticSchema[] =
    "PRAGMA journal_mode = WAL;BEGIN TRANSACTION;CREATE TABLE threat_overview_hour(time INTEGER, "
    "mail_type TEXT, threat_type TEXT, count INTEGER, PRIMARY KEY (time, mail_type, "
    "threat_type));CREATE TABLE threat_overview_day(time INTEGER, mail_type TEXT, threat_type "
    "TEXT, count INTEGER, PRIMARY KEY (time, mail_type, threat_type));CREATE TABLE "
    "blocked_address_hour(time INTEGER, mail_type TEXT, address_type TEXT, address TEXT, count "
    "INTEGER, PRIMARY KEY(time, mail_type, address_type, address));CREATE TABLE "
    "blocked_address_day(time INTEGER, mail_type TEXT, address_type TEXT, address TEXT, count "
    "INTEGER, PRIMARY KEY(time, mail_type, address_type, address));CREATE TABLE "
    "threat_origin_hour(time INTEGER, country_code TEXT, country TEXT, city TEXT, latitude REAL, "
    "longitude REAL, count INTEGER, PRIMARY KEY(time, latitude, longitude));CREATE TABLE "
    "threat_origin_day(time INTEGER, country_code TEXT, country TEXT, city TEXT, latitude REAL, "
    "longitude REAL, count INTEGER, PRIMARY KEY(time, latitude, longitude));COMMIT TRANSACTION;";

namespace {

constexpr int kBusyTimeoutMs = 60000;
constexpr int kMaxHoursPerPass = 12;
constexpr int kTopSize = 5;

constexpr char kLockDir[] = "/var/lock/quillon_server";
constexpr char kMailLockPath[] = "/var/lock/quillon_server/mail_log_db.file";
constexpr char kSecurityLockPath[] = "/var/lock/quillon_server/security_log_db.file";
constexpr char kStatisticAttach[] =
    "ATTACH DATABASE \"/var/packages/Quillon-Server/target/var/aggr_log/log_statistic.db\" AS "
    "statDB;";
constexpr char kServiceTool[] = "/usr/kolt/sbin/koltservice";

constexpr char kHourTable[] = "log_statistic_hour";
constexpr char kDayTable[] = "log_statistic_day";
constexpr char kWeekTable[] = "log_statistic_week";
constexpr char kMonthTable[] = "log_statistic_month";
constexpr char kTopTable[] = "log_statistic_top5";
constexpr char kDailyUsageTable[] = "log_statistic_daily_usage";

constexpr char kNotifyTag[] = "QUILLON_SERVER_ARCHIVE_SHARE_REMOVE";
constexpr char kNotifyTexts[] = "/var/packages/Quillon-Server/target/app/texts/";
constexpr char kNotifyFilter[] = "/var/packages/Quillon-Server/target/etc/notify.filter";

// The threat database's handles are never deleted: the job has always left that one to the end of
// the process, and a daemon keeps its one MailLogger that long anyway. They stay reachable here so
// that a leak check still tells a real leak from this one.
std::vector<DBHandler *> *KeptHandlers() {
  static auto *kept = new std::vector<DBHandler *>;
  return kept;
}

bool ValidStatus(MailStatus status) {
  return status >= mail_log::MAIL_STATUS_SEND && status <= mail_log::MAIL_STATUS_REJECT;
}

// The column a status is ranked by: the sender of sent and resent mail, the recipient of received
// and bounced mail, the client address of a reject.
const char *NameColumn(MailStatus status) {
  switch (status) {
    case mail_log::MAIL_STATUS_SEND:
    case mail_log::MAIL_STATUS_RESEND: return "mail_from";
    case mail_log::MAIL_STATUS_REJECT: return "src";
    default: return "mail_to";
  }
}

// The SELECTs that count the rows of `status` per name in [from, to): the archive's first when
// it is attached, then the live file's, joined by UNION ALL.
std::string NameCounts(MailStatus status, long from, long to, bool archive) {
  const char *column = NameColumn(status);
  std::string sql;
  char buffer[log_db::kStatementSize];
  if (status == mail_log::MAIL_STATUS_REJECT) {
    if (archive) {
      sqlite3_snprintf(sizeof(buffer), buffer,
                       "SELECT %s, COUNT(*) as cnt FROM DB%d.%q WHERE type='reject' AND date>=%ld "
                       "AND date<%ld GROUP BY %s UNION ALL ",
                       column, 0, security_log::kSecurityLogTable, from, to, column);
      sql += buffer;
    }
    sqlite3_snprintf(
        sizeof(buffer), buffer,
        "SELECT %s, COUNT(*) as cnt FROM main.%q WHERE type='reject' AND date>=%ld AND "
        "date<%ld GROUP BY %s",
        column, security_log::kSecurityLogTable, from, to, column);
    return sql + buffer;
  }
  if (archive) {
    sqlite3_snprintf(sizeof(buffer), buffer,
                     "SELECT %s, COUNT(*) as cnt FROM DB%d.%q WHERE status=%d AND date>=%ld AND "
                     "date<%ld GROUP BY %s UNION ALL ",
                     column, 0, mail_log::kMailLogTable, static_cast<int>(status), from, to,
                     column);
    sql += buffer;
  }
  sqlite3_snprintf(sizeof(buffer), buffer,
                   "SELECT %s, COUNT(*) as cnt FROM main.%q WHERE status=%d AND date>=%ld AND "
                   "date<%ld GROUP BY %s",
                   column, mail_log::kMailLogTable, static_cast<int>(status), from, to, column);
  return sql + buffer;
}

// The start and the end of the period of `scale` that holds `t`; false for another scale.
bool Period(long t, TimeScale scale, long *start, long *end) {
  switch (scale) {
    case statistic_log::TIME_SCALE_HOUR:
      *start = getRoundTime(t, COUNT_INTERVAL_HOUR);
      *end = *start + COUNT_INTERVAL_HOUR;
      return true;
    case statistic_log::TIME_SCALE_DAY:
      *start = getRoundTime(t, COUNT_INTERVAL_DAY);
      *end = *start + COUNT_INTERVAL_DAY;
      return true;
    case statistic_log::TIME_SCALE_WEEK:
      *start = getRoundTime(t, COUNT_INTERVAL_WEEK);
      *end = *start + COUNT_INTERVAL_WEEK;
      return true;
    case statistic_log::TIME_SCALE_MONTH:
      *start = getRoundTime(t, COUNT_INTERVAL_MONTH);
      *end = getNextMonthStartTime(*start);
      return true;
  }
  return false;
}

const TopList &ListOf(const StatisticCount &count, TimeScale scale) {
  switch (scale) {
    case statistic_log::TIME_SCALE_HOUR: return count.hourList;
    case statistic_log::TIME_SCALE_DAY: return count.dayList;
    case statistic_log::TIME_SCALE_WEEK: return count.weekList;
    default: return count.monthList;
  }
}

void PadTopList(std::vector<std::pair<std::string, int>> &list) {
  while (list.size() < kTopSize) list.emplace_back("", 0);
}

// One of the job's own numbers as statement text; never a value of the logs.
std::string Number(int64_t t) { return std::to_string(t); }

}  // namespace

MailLogger::MailLogger(int interval)
    : interval(interval),
      lastCountTime(static_cast<int64_t>(time(nullptr))),
      dbSelector(0),
      mailLockFd(-1),
      securityLockFd(-1),
      mailLogDB(nullptr),
      securityLogDB(nullptr),
      securityStatisticDB(nullptr),
      statisticDB(nullptr),
      geoIP(nullptr),
      geoIPv6(nullptr) {
  log_db::PrepareLogDir();
  mailLogDB = new (std::nothrow) DBHandler(mail_log::kMailLogDBPath, mail_log::kMailLogSchema);
  if (mailLogDB == nullptr) return;
  securityLogDB = new (std::nothrow)
      DBHandler(security_log::kSecurityLogDBPath, security_log::kSecurityLogSchema);
  if (securityLogDB == nullptr) return;
  statisticDB = new (std::nothrow)
      DBHandler(statistic_log::kStatisticDBPath, statistic_log::kStatisticSchema);
  if (statisticDB == nullptr) return;
  securityStatisticDB =
      new (std::nothrow) DBHandler(kSecurityStatisticDBPath, kSecurityStatisticSchema);
}

MailLogger::~MailLogger() {
  GeoIPFree();
  delete mailLogDB;
  delete securityLogDB;
  delete statisticDB;
  try {
    if (securityStatisticDB != nullptr) KeptHandlers()->push_back(securityStatisticDB);
  } catch (const std::bad_alloc &) {
    // Out of memory at the end of a job: the handle is lost to the leak check, nothing more.
  }
  // A lock is only held between an attach and its disconnect; a pass always ends both.
  for (int fd : {mailLockFd, securityLockFd}) {
    if (fd != -1) qvsFileUnlockByFile(fd);
  }
}

int MailLogger::run() {
  if (interval <= 0) {
    maillog(3, "%s:%d Invalid interval %d", QSV_FILE, __LINE__, interval);
    return -1;
  }
  checkArchiveSetting();
  securityStatistic();
  statistic();
  const time_t now = time(nullptr);
  return static_cast<int>(sleep(static_cast<unsigned>(interval - now % interval)));
}

int MailLogger::error() {
  const int selector = dbSelector;
  dbSelector = 0;
  return selector;
}

int MailLogger::HandleDBError(DBHandler &db, int rc) {
  if (rc != SQLITE_CORRUPT) return rc;
  maillog(3, "%s:%d db[%s] corrupt, need regen", QSV_FILE, __LINE__, db.getDBPath().c_str());
  const int result = db.regenDB();
  // The log daemon keeps the damaged file open until it is told to reopen its destinations.
  ENTERCriticalSection;
  KLIBCExec(kServiceTool, "--reload", "syslog-ng", nullptr, KLIBC_EXEC_QUIET_WAIT);
  LEAVECriticalSection;
  return result;
}

int MailLogger::HandleError() {
  DBHandler *handlers[] = {mailLogDB, securityLogDB, statisticDB, securityStatisticDB};
  if (dbSelector < 1 || dbSelector > 4 || handlers[dbSelector - 1] == nullptr) {
    dbSelector = -1;
    return -1;
  }
  DBHandler *db = handlers[dbSelector - 1];
  dbSelector = HandleDBError(*db, db->getErrCode()) == 0 ? 0 : -1;
  return dbSelector;
}

// ---------------------------------------------------------------------------------------------
// Connections, archives and locks

bool MailLogger::shouldAttach(const std::string &path) {
  if (!KLIBCFileExist(path.c_str())) return false;
  const long mtime = qsvGetFileMtime(path);
  return mtime != 0 && lastCountTime <= getRoundTime(mtime, COUNT_INTERVAL_DAY);
}

int MailLogger::attachStatisticDB(DBHandler *db) {
  // The selector speaks of the counters for any failure here: they are what can't be reached.
  if (db == nullptr || statisticDB == nullptr) {
    dbSelector = 3;
    return -1;
  }
  // Connecting creates the counters' file with its tables if it isn't there yet.
  if (Connect(statisticDB, 3) < 0) return -1;
  statisticDB->disconnect();
  if (Connect(db, 3) < 0) return -1;
  SQLCmd cmds;
  cmds += kStatisticAttach;
  if (RunCmds(db, cmds, false) < 0) {
    dbSelector = 3;
    maillog(3, "%s:%d Encounter error when attach statistic databases", QSV_FILE, __LINE__);
    return -1;
  }
  return 0;
}

int MailLogger::attachLogDBs(DBHandler *db, MailStatus status, TimeScale scale) {
  if (db == nullptr) return -1;
  if (scale == statistic_log::TIME_SCALE_DAY) {
    if (attachStatisticDB(db) < 0) return -1;
  } else if (scale != statistic_log::TIME_SCALE_HOUR) {
    return -1;
  }
  const bool security = status == mail_log::MAIL_STATUS_REJECT;
  const char *archive =
      security ? security_log::kSecurityLogArchivePath : mail_log::kMailLogArchivePath;
  SQLCmd cmds;
  int attached = 0;
  if (shouldAttach(archive)) {
    int &lockFd = security ? securityLockFd : mailLockFd;
    if (lockFd == -1) {
      mkdir(kLockDir, 0755);
      // Blocks while a rotation moves rows into the archive.
      if (!qvsFileLockByFile(security ? kSecurityLockPath : kMailLockPath, TRUE, &lockFd)) {
        maillog(3, "%s:%d fail to get file lock for mail log database.[0x%04X %s:%d]", QSV_FILE,
                __LINE__, KLIBCErrGet(), KLIBCErrorGetFile(), KLIBCErrorGetLine());
        lockFd = -1;
        return -1;
      }
    }
    char statement[log_db::kStatementSize];
    sqlite3_snprintf(sizeof(statement), statement, "ATTACH DATABASE \"%s\" AS DB0;", archive);
    cmds += statement;
    attached = 1;
  }
  if (Connect(db, SelectorOf(db)) < 0) return -1;
  if (cmds.empty()) return 0;
  if (RunCmds(db, cmds, false) < 0) {
    maillog(3, "%s:%d Encounter error when attach databases", QSV_FILE, __LINE__);
    return -1;
  }
  return attached;
}

int MailLogger::attachDB(DBHandler *db, const std::string &path, const std::string &alias) {
  if (db == nullptr) return -1;
  if (!KLIBCFileExist(path.c_str())) {
    maillog(3, "%s:%d Failed to attach DB, the file does not exist: %s (%s)", QSV_FILE, __LINE__,
            path.c_str(), alias.c_str());
    return -1;
  }
  char *statement = sqlite3_mprintf("ATTACH DATABASE '%q' AS '%q'", path.c_str(), alias.c_str());
  if (statement == nullptr) return -1;
  SQLCmd cmds;
  cmds += statement;
  sqlite3_free(statement);
  db->setBusyTimeout(kBusyTimeoutMs);
  int rc;
  {
    ENTERCriticalSection;
    rc = db->exeCmds(cmds, false);
    LEAVECriticalSection;
  }
  if (rc != SQLITE_OK) {
    maillog(3, "%s:%d Failed to attach DB: %s (%s)", QSV_FILE, __LINE__, path.c_str(),
            db->getDB() != nullptr ? sqlite3_errmsg(db->getDB()) : "not connected");
    return -1;
  }
  return 0;
}

int MailLogger::detachDB(DBHandler *db, const std::string &alias) {
  if (db == nullptr) return -1;
  char *statement = sqlite3_mprintf("DETACH DATABASE '%q'", alias.c_str());
  if (statement == nullptr) return -1;
  SQLCmd cmds;
  cmds += statement;
  sqlite3_free(statement);
  if (db->exeCmds(cmds, false) != SQLITE_OK) {
    maillog(3, "%s:%d Failed to detach DB: %s", QSV_FILE, __LINE__, alias.c_str());
    return -1;
  }
  return 0;
}

void MailLogger::disconnectLogDB(DBHandler *db, MailStatus status) {
  if (db == nullptr) return;
  if (db->isConnect()) {
    // Without table statistics SQLite takes the status (or type) index for the hourly counts, a
    // quarter of the whole log each, instead of the date index: 0.1 s a statement on a million
    // rows instead of 0.2 ms. This analyzes a table once its queries here would profit, which is
    // once for a new file and again when it has grown 25 times; otherwise it costs nothing. Only
    // the live file: writing the archive would change the modification time that tells whether
    // it is to be attached. A failure only leaves the plans as they were.
    sqlite3_exec(db->getDB(), "PRAGMA main.optimize;", nullptr, nullptr, nullptr);
  }
  const int rc = db->disconnect();
  if (rc != 0) HandleDBError(*db, rc);
  const bool security = status == mail_log::MAIL_STATUS_REJECT;
  int &lockFd = security ? securityLockFd : mailLockFd;
  if (lockFd == -1) return;
  if (!qvsFileUnlockByFile(lockFd)) {
    if (security) {
      maillog(3, "%s:%d fail to unlock lock of security log database.[0x%04X %s:%d]", QSV_FILE,
              __LINE__, KLIBCErrGet(), KLIBCErrorGetFile(), KLIBCErrorGetLine());
    } else {
      maillog(3, "%s:%d fail to unlock lock of mail log database.[0x%04X %s:%d]", QSV_FILE,
              __LINE__, KLIBCErrGet(), KLIBCErrorGetFile(), KLIBCErrorGetLine());
    }
    return;
  }
  lockFd = -1;
}

int MailLogger::SelectorOf(const DBHandler *db) const {
  if (db == mailLogDB) return 1;
  if (db == securityLogDB) return 2;
  return db == statisticDB ? 3 : 4;
}

int MailLogger::Connect(DBHandler *db, int selector) {
  int rc;
  {
    ENTERCriticalSection;
    rc = db->connect();
    LEAVECriticalSection;
  }
  if (rc != 0) {
    dbSelector = selector;
    HandleDBError(*db, rc);
    return -1;
  }
  db->setBusyTimeout(kBusyTimeoutMs);
  return 0;
}

int MailLogger::RunCmds(DBHandler *db, const SQLCmd &cmds, bool transaction) {
  db->setBusyTimeout(kBusyTimeoutMs);
  int rc;
  {
    ENTERCriticalSection;
    rc = db->exeCmds(cmds, transaction);
    LEAVECriticalSection;
  }
  if (rc == SQLITE_OK) return 0;
  HandleDBError(*db, db->getErrCode());
  return -1;
}

int MailLogger::CountRows(DBHandler *db, int selector, const std::string &sql) {
  return log_db::Count(*db, sql, [this, db, selector](int rc) {
    dbSelector = selector;
    return HandleDBError(*db, rc);
  });
}

int MailLogger::TopRows(DBHandler *db, int selector, const std::string &sql,
                        std::vector<std::pair<std::string, int>> &out) {
  out.clear();
  const int rc = log_db::Rows(
      *db, sql,
      [&out](sqlite3_stmt *row, int) {
        out.emplace_back(log_db::Text(row, 0), sqlite3_column_int(row, 1));
      },
      [this, db, selector](int code) {
        dbSelector = selector;
        return HandleDBError(*db, code);
      });
  PadTopList(out);
  return rc;
}

// ---------------------------------------------------------------------------------------------
// Counters

void MailLogger::statistic() {
  const int64_t now = static_cast<int64_t>(time(nullptr));
  long hour = getRoundTime(static_cast<long>(lastCountTime), COUNT_INTERVAL_HOUR);
  long n = static_cast<long>(std::ceil(static_cast<double>(now - hour) / 3600.0));
  if (n > kMaxHoursPerPass) {
    // After a long outage the oldest hours are given up, so that one pass can't run for long.
    const long skipped = (n - kMaxHoursPerPass) * COUNT_INTERVAL_HOUR;
    lastCountTime += skipped;
    hour += skipped;
    n = kMaxHoursPerPass;
  }
  for (long i = 0; i < n; ++i) {
    StatisticCount count;
    count.time = hour;
    bool counted = true;
    for (int status = 0; status <= mail_log::MAIL_STATUS_REJECT; ++status) {
      const int num = getLogNumPerHour(hour, static_cast<MailStatus>(status));
      if (num < 0) {
        maillog(3, "%s:%d Get total num Error", QSV_FILE, __LINE__);
        counted = false;
        break;
      }
      count.count(status) = num;
    }
    if (!counted) break;
    if (getTop5Lists(hour, count) < 0) {
      maillog(3, "%s:%d Get top 5 list Error", QSV_FILE, __LINE__);
      break;
    }
    if (saveStatistic(hour, count) < 0) {
      maillog(3, "%s:%d Save statistics Error", QSV_FILE, __LINE__);
      break;
    }
    // The job stays on the last hour it wrote: the hour in progress is counted again next pass.
    lastCountTime = hour;
    hour += COUNT_INTERVAL_HOUR;
  }
  if (mailConfSet("log_last_count_time", Number(now), false, 0) < 0) {
    maillog(3, "%s:%d Fail to save last count time", QSV_FILE, __LINE__);
  }
}

int MailLogger::getLogNumPerHour(const long &hour, MailStatus status) {
  if (!ValidStatus(status)) return -1;
  const bool security = status == mail_log::MAIL_STATUS_REJECT;
  DBHandler *db = security ? securityLogDB : mailLogDB;
  const int selector = security ? 2 : 1;
  if (db == nullptr) return -1;
  const int archive = attachLogDBs(db, status, statistic_log::TIME_SCALE_HOUR);
  int result = -1;
  if (archive < 0) {
    dbSelector = selector;
  } else {
    const long end = hour + COUNT_INTERVAL_HOUR;
    char sql[log_db::kStatementSize];
    if (security && archive > 0) {
      sqlite3_snprintf(sizeof(sql), sql,
                       "SELECT SUM(cnt) FROM (SELECT COUNT(*) as cnt FROM main.%q WHERE "
                       "type='reject' AND date >= %ld AND date < %ld UNION ALL SELECT COUNT(*) as "
                       "cnt FROM DB0.%q WHERE type='reject' AND date >= %ld AND date < %ld);",
                       security_log::kSecurityLogTable, hour, end, security_log::kSecurityLogTable,
                       hour, end);
    } else if (security) {
      sqlite3_snprintf(
          sizeof(sql), sql,
          "SELECT COUNT(*) as cnt FROM main.%q WHERE type='reject' AND date >= %ld AND "
          "date < %ld;",
          security_log::kSecurityLogTable, hour, end);
    } else if (archive > 0) {
      sqlite3_snprintf(sizeof(sql), sql,
                       "SELECT SUM(cnt) FROM (SELECT COUNT(*) as cnt FROM main.%q WHERE status=%d "
                       "AND date>=%ld AND date<%ld UNION ALL SELECT COUNT(*) as cnt FROM DB0.%q "
                       "WHERE status=%d AND date>=%ld AND date<%ld);",
                       mail_log::kMailLogTable, static_cast<int>(status), hour, end,
                       mail_log::kMailLogTable, static_cast<int>(status), hour, end);
    } else {
      sqlite3_snprintf(sizeof(sql), sql,
                       "SELECT COUNT(*) as cnt FROM main.%q WHERE status=%d AND date>=%ld AND "
                       "date<%ld;",
                       mail_log::kMailLogTable, static_cast<int>(status), hour, end);
    }
    result = CountRows(db, selector, sql);
  }
  disconnectLogDB(db, status);
  return result;
}

int MailLogger::getTop5Lists(const long &hour, StatisticCount &count) {
  for (int status = 0; status <= mail_log::MAIL_STATUS_REJECT; ++status) {
    if (getTop5NumPerHour(hour, static_cast<MailStatus>(status), count.hourList.lists[status]) <
        0) {
      return -1;
    }
  }
  for (int status = 0; status <= mail_log::MAIL_STATUS_REJECT; ++status) {
    if (countDailyUsage(hour, static_cast<MailStatus>(status)) < 0) return -1;
  }
  for (TimeScale scale : {statistic_log::TIME_SCALE_DAY, statistic_log::TIME_SCALE_WEEK,
                          statistic_log::TIME_SCALE_MONTH}) {
    for (int status = 0; status <= mail_log::MAIL_STATUS_REJECT; ++status) {
      if (getTop5NumOtherScale(hour, static_cast<MailStatus>(status),
                               count.list(scale).lists[status], scale) < 0) {
        return -1;
      }
    }
  }
  return 0;
}

int MailLogger::getTop5NumPerHour(const long &hour, MailStatus status,
                                  std::vector<std::pair<std::string, int>> &out) {
  out.clear();
  if (!ValidStatus(status)) return -1;
  const bool security = status == mail_log::MAIL_STATUS_REJECT;
  DBHandler *db = security ? securityLogDB : mailLogDB;
  const int selector = security ? 2 : 1;
  if (db == nullptr) return -1;
  const int archive = attachLogDBs(db, status, statistic_log::TIME_SCALE_HOUR);
  int result = -1;
  if (archive < 0) {
    dbSelector = selector;
  } else {
    const char *column = NameColumn(status);
    // The ORDER BY names the inner count, not the sum; kept, since with no archive they agree.
    const std::string sql = std::string("SELECT ") + column + ", SUM(cnt) from (" +
                            NameCounts(status, hour, hour + COUNT_INTERVAL_HOUR, archive > 0) +
                            ") GROUP by " + column + " ORDER BY cnt DESC limit 5;";
    result = TopRows(db, selector, sql, out);
  }
  PadTopList(out);
  disconnectLogDB(db, status);
  return result;
}

int MailLogger::countDailyUsage(const long &hour, MailStatus status) {
  if (!ValidStatus(status)) return -1;
  const bool security = status == mail_log::MAIL_STATUS_REJECT;
  DBHandler *db = security ? securityLogDB : mailLogDB;
  const int selector = security ? 2 : 1;
  if (db == nullptr) return -1;
  const long day = getRoundTime(hour, COUNT_INTERVAL_DAY);
  const int archive = attachLogDBs(db, status, statistic_log::TIME_SCALE_DAY);
  int result = -1;
  if (archive < 0) {
    dbSelector = selector;
  } else {
    const char *column = NameColumn(status);
    const std::string sql = std::string("INSERT OR REPLACE INTO statDB.") + kDailyUsageTable +
                            "(time, type, name, num) SELECT " + Number(day) + ", " +
                            Number(status) + ", " + column + ", SUM(cnt) from (" +
                            NameCounts(status, day, day + COUNT_INTERVAL_DAY, archive > 0) +
                            ") GROUP by " + column + ";";
    SQLCmd cmds;
    cmds += sql.c_str();
    result = RunCmds(db, cmds, false);
    if (result < 0) dbSelector = selector;
  }
  disconnectLogDB(db, status);
  return result;
}

int MailLogger::getTop5NumOtherScale(const long &hour, MailStatus status,
                                     std::vector<std::pair<std::string, int>> &out,
                                     TimeScale scale) {
  out.clear();
  long start, end;
  if (!ValidStatus(status) || scale == statistic_log::TIME_SCALE_HOUR ||
      !Period(hour, scale, &start, &end) || statisticDB == nullptr) {
    PadTopList(out);
    return -1;
  }
  if (Connect(statisticDB, 3) < 0) {
    PadTopList(out);
    return -1;
  }
  char sql[log_db::kStatementSize];
  sqlite3_snprintf(sizeof(sql), sql,
                   "SELECT name, SUM(num) as cnt FROM %q WHERE type=%d AND time>=%ld AND time<%ld "
                   "GROUP BY name ORDER BY cnt DESC limit 5;",
                   kDailyUsageTable, static_cast<int>(status), start, end);
  const int result = TopRows(statisticDB, 3, sql, out);
  statisticDB->disconnect();
  return result;
}

int MailLogger::composeInsertCmd(SQLCmd &cmds, const long &t, const StatisticCount &count,
                                 TimeScale scale) {
  long start, end;
  if (!Period(t, scale, &start, &end)) return -1;
  char statement[log_db::kStatementSize];
  if (scale == statistic_log::TIME_SCALE_HOUR) {
    sqlite3_snprintf(sizeof(statement), statement,
                     "INSERT OR REPLACE INTO '%q'(time, sentCnt, receiveCnt, bounceCnt, resentCnt, "
                     "rejectCnt)VALUES('%ld', '%d', '%d', '%d', '%d', '%d');",
                     kHourTable, t, count.sentCnt, count.receiveCnt, count.bounceCnt,
                     count.resentCnt, count.rejectCnt);
  } else {
    // A day is summed from its hours, a week and a month from their days, never from the hour's
    // own counts: the rows below may hold hours this pass didn't count.
    const char *table = scale == statistic_log::TIME_SCALE_DAY    ? kDayTable
                        : scale == statistic_log::TIME_SCALE_WEEK ? kWeekTable
                                                                  : kMonthTable;
    const char *source = scale == statistic_log::TIME_SCALE_DAY ? kHourTable : kDayTable;
    sqlite3_snprintf(sizeof(statement), statement,
                     "INSERT OR REPLACE INTO '%q'(time, sentCnt, receiveCnt, bounceCnt, resentCnt, "
                     "rejectCnt) SELECT %ld, SUM(sentCnt), SUM(receiveCnt), SUM(bounceCnt), "
                     "SUM(resentCnt), SUM(rejectCnt) FROM '%q' WHERE %ld <= time AND %ld > time;",
                     table, start, source, start, end);
  }
  cmds += statement;
  const TopList &list = ListOf(count, scale);
  for (int rank = 0; rank < kTopSize; ++rank) {
    for (int type = 0; type <= mail_log::MAIL_STATUS_REJECT; ++type) {
      const auto &names = list.lists[type];
      const bool present = static_cast<size_t>(rank) < names.size();
      // Names come from the logs: quoted, and never cut to a buffer, which would lose the hour.
      char *insert = sqlite3_mprintf(
          "INSERT OR REPLACE INTO '%q'(time, scale, type, rank, name, num) VALUES('%ld', '%d', "
          "'%d', '%d', '%q', '%d');",
          kTopTable, start, static_cast<int>(scale), type, rank,
          present ? names[rank].first.c_str() : "", present ? names[rank].second : 0);
      if (insert == nullptr) return -1;
      cmds += insert;
      sqlite3_free(insert);
    }
  }
  return 0;
}

int MailLogger::saveStatistic(const long &t, const StatisticCount &count) {
  if (removeOldLog() < 0) return -1;
  if (statisticDB == nullptr) return -1;
  if (Connect(statisticDB, 3) < 0) return -1;
  SQLCmd cmds;
  int result = 0;
  for (TimeScale scale : {statistic_log::TIME_SCALE_HOUR, statistic_log::TIME_SCALE_DAY,
                          statistic_log::TIME_SCALE_WEEK, statistic_log::TIME_SCALE_MONTH}) {
    if (composeInsertCmd(cmds, t, count, scale) < 0) result = -1;
  }
  if (result == 0 && RunCmds(statisticDB, cmds, true) < 0) {
    dbSelector = 3;
    result = -1;
  }
  statisticDB->disconnect();
  return result;
}

int MailLogger::removeOldLog() {
  if (statisticDB == nullptr) return -1;
  const long now = static_cast<long>(time(nullptr));
  // Once a day, in the hour that starts at local midnight. In a zone half an hour off UTC the two
  // never agree and nothing is removed.
  if (getRoundTime(now, COUNT_INTERVAL_DAY) != getRoundTime(now, COUNT_INTERVAL_HOUR)) {
    statisticDB->disconnect();
    return 0;
  }
  if (Connect(statisticDB, 3) < 0) return -1;
  struct Cut {
    const char *table;
    long age;
    int scale;  // 0: the table has no scale
  };
  static const Cut kCuts[] = {
      {kHourTable, 604800, 0},
      {kTopTable, 604800, statistic_log::TIME_SCALE_HOUR},
      {kDayTable, 5184000, 0},
      {kTopTable, 5184000, statistic_log::TIME_SCALE_DAY},
      {kDailyUsageTable, 3024000, 0},
      {kWeekTable, 7776000, 0},
      {kTopTable, 7776000, statistic_log::TIME_SCALE_WEEK},
      {kMonthTable, 31104000, 0},
      {kTopTable, 31104000, statistic_log::TIME_SCALE_MONTH},
  };
  SQLCmd cmds;
  for (const Cut &cut : kCuts) {
    char statement[log_db::kStatementSize];
    if (cut.scale == 0) {
      sqlite3_snprintf(sizeof(statement), statement, "DELETE FROM %q WHERE time < %ld;", cut.table,
                       now - cut.age);
    } else {
      sqlite3_snprintf(sizeof(statement), statement,
                       "DELETE FROM %q WHERE time < %ld AND scale = %d;", cut.table, now - cut.age,
                       cut.scale);
    }
    cmds += statement;
  }
  int result = RunCmds(statisticDB, cmds, true);
  if (result < 0) dbSelector = 3;
  statisticDB->disconnect();
  return result;
}

// ---------------------------------------------------------------------------------------------
// Archive watch

void MailLogger::checkArchiveSetting() {
  KOLT::QUILLON_SERVER::KOLTMailNodeCluster cluster;
  if (!cluster.isClusterHealth(false)) {
    maillog(3, "%s:%d cluster is not health", QSV_FILE, __LINE__);
    return;
  }
  std::string enabled;
  if (mailConfGet("archive_enable_schedule", enabled) < 0) {
    maillog(3, "%s:%d Failed to mailConfGet enable archive", QSV_FILE, __LINE__);
    return;
  }
  if (enabled != "yes") return;
  std::string destination;
  if (mailConfGet("archive_destination", destination) < 0) {
    maillog(3, "%s:%d Failed to mailConfGet archive destination", QSV_FILE, __LINE__);
    return;
  }
  if (destination.empty()) return;
  bool exists;
  {
    ENTERCriticalSection;
    exists = qsvDirectoryExist(destination);
    LEAVECriticalSection;
  }
  KOLT::QUILLON_SERVER::Role role;
  if (!cluster.nodeRoleGet(role)) {
    maillog(3, "%s:%d Can not get node role", QSV_FILE, __LINE__);
    return;
  }
  // A folder that seems gone while the cluster is failing may only be out of reach.
  if (!cluster.isClusterHealth(false)) return;
  if (exists || !role.balancerMaster) return;
  KLIBSZHASH *values = KLIBCSzHashAlloc(1);
  int sent = -1;
  if (values != nullptr &&
      KLIBCSzHashSetValue(&values, "%SHARED_FOLDER%", destination.c_str()) == 0) {
    sent =
        KOLTSysNotifySendNotificationCustomized(kNotifyTag, kNotifyTexts, kNotifyFilter, values, 0);
  }
  KLIBCSzHashFree(values);
  if (sent < 0) maillog(3, "%s:%d send notify fail", QSV_FILE, __LINE__);
  if (mailConfSet("archive_enable_schedule", "no", true, 0) < 0) {
    maillog(3, "%s:%d Failed to mailConfSet enable archive", QSV_FILE, __LINE__);
  }
}
