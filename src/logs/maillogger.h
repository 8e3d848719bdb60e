// The aggregation job: it turns the raw mail log and security log into the statistics the charts
// and the threat pages read. Counts per hour, day, week and month with their top five names go to
// "log_statistic.db"; the inbound and outbound threats per hour and day, the blocked addresses and
// the cities the threats came from go to "security_statistic.db".
//
// A daemon of the suite builds one MailLogger and calls run() over and over; each call is one pass
// (archive watch, threats, counters) and then sleeps to the next multiple of the interval. A pass
// starts again at the hour it stopped at last time, so a missed hour is counted later; after a gap
// of more than twelve hours the oldest hours are given up rather than making one pass run long.
//
// The object owns its four database handles (but see ~MailLogger) and its two GeoIP handles, and
// belongs to one thread. Against other processes it relies on SQLite's busy time-out, WAL on the
// threat database, and the two lock files under /var/lock/quillon_server/, which it holds while an
// archive is attached, so that a rotation never moves rows under a running count.
#ifndef MAILSERVER_LOGS_MAILLOGGER_H_
#define MAILSERVER_LOGS_MAILLOGGER_H_

#include <cstdint>
#include <list>
#include <string>
#include <utility>
#include <vector>

#include "foundation/db_handler.h"
#include "foundation/export.h"
#include "logs/maillog.h"
#include "logs/statisticLog.h"

// The GeoIP library's handle and record; callers that read a record include <GeoIPCity.h>.
typedef struct GeoIPTag GeoIP;
typedef struct GeoIPRecordTag GeoIPRecord;

constexpr char kSecurityStatisticDBPath[] =
    "/var/packages/Quillon-Server/target/var/aggr_log/security_statistic.db";
extern const char kSecurityStatisticSchema[];

// The city databases the threat origins are looked up in; data files placed beside the package.
constexpr char kGeoIPCityDBPath[] = "/var/packages/Quillon-Server/target/etc/geoip/GeoLiteCity.dat";
constexpr char kGeoIPCityV6DBPath[] =
    "/var/packages/Quillon-Server/target/etc/geoip/GeoLiteCityv6.dat";

class QSV_EXPORT MailLogger {
 public:
  // Makes the log folder and the four handles (none connected yet). The job's position starts at
  // the present time: the first pass counts the present hour. REQUIRES: `interval` > 0.
  explicit MailLogger(int interval);
  // The handles of the mail log, the security log and the counters go; the threat database's
  // handle is kept to the end of the process.
  ~MailLogger();
  MailLogger(const MailLogger &) = delete;
  MailLogger &operator=(const MailLogger &) = delete;

  // One pass, then a sleep to the next multiple of the interval; what sleep returns (-1 without
  // sleeping for an interval that isn't positive).
  int run();
  // The counters: every hour from the job's position up to the present one, twelve at most, and
  // "log_last_count_time" set to the present time.
  void statistic();
  // The threat tables, recomputed from the hour of the job's position on. 0 or -1.
  int securityStatistic();
  // Turns the archive schedule off, with a notification, when its destination folder is gone and
  // this node is the master balancer.
  void checkArchiveSetting();

  // Whether the archive at `path` may hold rows at or after the job's position.
  bool shouldAttach(const std::string &path);
  // Connects `db` and attaches the archive of `status`'s log as DB0 when it may hold rows, taking
  // that log's lock file first; with `scale` TIME_SCALE_DAY also the counters as statDB.
  // 1 archive attached, 0 none, -1 failure. REQUIRES: disconnectLogDB(db, status) afterwards, also
  // after a failure: it releases the lock.
  int attachLogDBs(DBHandler *db, mail_log::MailStatus status, statistic_log::TimeScale scale);
  int attachStatisticDB(DBHandler *db);
  int attachDB(DBHandler *db, const std::string &path, const std::string &alias);
  int detachDB(DBHandler *db, const std::string &alias);
  void disconnectLogDB(DBHandler *db, mail_log::MailStatus status);

  // Mail of `status` in [hour, hour + 3600), or -1.
  int getLogNumPerHour(const long &hour, mail_log::MailStatus status);
  // The hour's top lists and those of its day, week and month, refreshing the day's usage on the
  // way. 0 or -1.
  int getTop5Lists(const long &hour, statistic_log::StatisticCount &count);
  // Five (name, count) pairs each, ("", 0) where there are fewer names. 0 or -1.
  int getTop5NumPerHour(const long &hour, mail_log::MailStatus status,
                        std::vector<std::pair<std::string, int>> &out);
  int getTop5NumOtherScale(const long &hour, mail_log::MailStatus status,
                           std::vector<std::pair<std::string, int>> &out,
                           statistic_log::TimeScale scale);
  // Counts per name of the local day of `hour` into the daily usage table. 0 or -1.
  int countDailyUsage(const long &hour, mail_log::MailStatus status);
  // Appends the writes of one scale for the hour `t`. 0, or -1 for another scale.
  int composeInsertCmd(SQLCmd &cmds, const long &t, const statistic_log::StatisticCount &count,
                       statistic_log::TimeScale scale);
  // The hour, its day, week and month and all their top lists, in one transaction. 0 or -1.
  int saveStatistic(const long &t, const statistic_log::StatisticCount &count);
  // Drops old counter rows, in the hour that starts at local midnight only. 0 or -1.
  int removeOldLog();

  // "( column LIKE '%@a' OR ... ) " (NOT LIKE and AND when `like` is false); " (0) " for no domain.
  std::string genDomainFilter(const std::string &column, bool like,
                              const std::list<std::string> &domains);
  // `query`, then for each of the `n` attached archives " UNION ALL " and `query` with its first
  // `from` replaced by `to`, whose "%d" becomes the archive's number.
  std::string genUnionQueryForAttachedDB(const std::string &query, int n, const std::string &from,
                                         const std::string &to);
  void genSQLCmdToRemoveSecurityStatisticOldLog(SQLCmd &cmds);
  // REQUIRES (these two and the next): the security log attached to the threat database as "log",
  // and its archive as DB0 when `n` is 1.
  void genSQLCmdForThreatOverview(SQLCmd &cmds, const std::list<std::string> &domains, int n);
  void genSQLCmdForBlockedAddress(SQLCmd &cmds, const std::list<std::string> &domains, int n);
  int execQueriesForThreatOrigin(const std::list<std::string> &domains, int n);

  // The city record of an address, or null (also for anything that isn't an address literal).
  // The caller frees it with GeoIPRecord_delete. The databases stay open until GeoIPFree.
  GeoIPRecord *GeoIPRecordGet(const char *ip);
  void GeoIPFree();

  // Which database the last failure concerned (1 mail log, 2 security log, 3 counters, 4 threats);
  // reading it resets it to 0.
  int error();
  // A damaged file (SQLITE_CORRUPT) is made anew, and the log daemon told to reopen its files:
  // what regenDB gives. Any other code is given back as it is.
  int HandleDBError(DBHandler &db, int rc);
  int HandleError();

 private:
  // The selector of one of the four handles.
  int SelectorOf(const DBHandler *db) const;
  // Connects inside the critical section and sets the busy time-out. 0, or -1 with `selector`
  // set and the failure handled.
  int Connect(DBHandler *db, int selector);
  // Runs `cmds` inside the critical section; -1 with the failure handled.
  int RunCmds(DBHandler *db, const SQLCmd &cmds, bool transaction);
  int CountRows(DBHandler *db, int selector, const std::string &sql);
  int TopRows(DBHandler *db, int selector, const std::string &sql,
              std::vector<std::pair<std::string, int>> &out);
  std::string HourlySource(const std::string &columns, const std::string &condition,
                           const std::string &filters, int n);

  int interval;
  int64_t lastCountTime;
  int dbSelector;
  int mailLockFd;
  int securityLockFd;
  DBHandler *mailLogDB;
  DBHandler *securityLogDB;
  DBHandler *securityStatisticDB;
  DBHandler *statisticDB;
  GeoIP *geoIP;
  GeoIP *geoIPv6;
};

#endif  // MAILSERVER_LOGS_MAILLOGGER_H_
