// The threat pass of the aggregation job: inbound and outbound refused and filtered mail per hour
// and local day, the blocked addresses, and the cities the inbound threats came from.
#include <GeoIP.h>
#include <GeoIPCity.h>
#include <arpa/inet.h>
#include <sqlite3.h>

#include <cstring>
#include <string>

#include "config/accounts.h"
#include "foundation/log.h"
#include "foundation/privilege.h"
#include "kolt/err.h"
#include "logs/log_db.h"
#include "logs/maillogger.h"
#include "logs/securityLog.h"

namespace {

constexpr size_t kOriginBatch = 100;
const char kInbound[] = "inbound";
const char kOutbound[] = "outbound";

// An IPv6 address when it has a colon, else an IPv4 one.
bool IsAddress(const std::string &text) {
  unsigned char address[sizeof(struct in6_addr)];
  const int family = text.find(':') != std::string::npos ? AF_INET6 : AF_INET;
  return inet_pton(family, text.c_str(), address) == 1;
}

}  // namespace

std::string MailLogger::genDomainFilter(const std::string &column, bool like,
                                        const std::list<std::string> &domains) {
  // No local domain: nothing is inbound or outbound, whichever way the filter is meant.
  if (domains.empty()) return " (0) ";
  std::string filter = "( ";
  bool first = true;
  for (const std::string &domain : domains) {
    if (!first) filter += like ? " OR " : " AND ";
    first = false;
    char *term = sqlite3_mprintf("%s%s'%%@%q'", column.c_str(), like ? " LIKE " : " NOT LIKE ",
                                 domain.c_str());
    if (term != nullptr) filter += term;
    sqlite3_free(term);
  }
  return filter + ") ";
}

std::string MailLogger::genUnionQueryForAttachedDB(const std::string &query, int n,
                                                   const std::string &from, const std::string &to) {
  std::string sql = query;
  const size_t at = query.find(from);
  for (int i = 0; i < n && at != std::string::npos; ++i) {
    std::string schema = to;
    const size_t number = schema.find("%d");
    if (number != std::string::npos) schema.replace(number, 2, std::to_string(i));
    sql += " UNION ALL " + std::string(query).replace(at, from.size(), schema);
  }
  return sql;
}

void MailLogger::genSQLCmdToRemoveSecurityStatisticOldLog(SQLCmd &cmds) {
  for (const char *table : {"threat_overview_hour", "threat_overview_day", "threat_origin_hour",
                            "threat_origin_day", "blocked_address_hour", "blocked_address_day"}) {
    const std::string statement =
        std::string("DELETE FROM ") + table +
        " WHERE time < strftime('%s', strftime('%Y-%m-%d', 'now', '-29 day'), 'utc')";
    cmds += statement.c_str();
  }
}

// The per-hour counts of `column` in the security log from the hour of the job's position on, in
// UTC hours, over the live file and the `n` attached archives. `condition` and `filters` each
// start with "AND ".
std::string MailLogger::HourlySource(const std::string &column, const std::string &condition,
                                     const std::string &filters, int n) {
  const std::string query =
      "SELECT strftime('%s', strftime('%Y-%m-%d %H:00:00', date, 'unixepoch')) AS time, " + column +
      ", COUNT(*) AS cnt FROM log.security_log_table WHERE strftime('%s', " +
      "strftime('%Y-%m-%d %H:00:00', " + std::to_string(lastCountTime) +
      ", 'unixepoch')) <= date " + condition + filters + "GROUP BY time, " + column;
  return genUnionQueryForAttachedDB(query, n, "log.", "DB%d.");
}

namespace {

// Local days, stored as the epoch of local midnight, from the local day of the job's position on.
std::string DaySince(int64_t lastCountTime) {
  return "WHERE strftime('%s', " + std::to_string(lastCountTime) +
         ", 'unixepoch', 'localtime', 'start of day', 'utc') <= time ";
}

}  // namespace

void MailLogger::genSQLCmdForThreatOverview(SQLCmd &cmds, const std::list<std::string> &domains,
                                            int n) {
  const std::string inbound = "AND " + genDomainFilter("sender", false, domains) + "AND " +
                              genDomainFilter("recipient", true, domains);
  const std::string outbound = "AND " + genDomainFilter("sender", true, domains) + "AND " +
                               genDomainFilter("recipient", false, domains);
  for (const auto &direction :
       {std::make_pair(kInbound, &inbound), std::make_pair(kOutbound, &outbound)}) {
    const std::string statement =
        std::string(
            "INSERT OR REPLACE INTO main.threat_overview_hour(time, mail_type, "
            "threat_type, count) SELECT time, '") +
        direction.first + "', type, SUM(cnt) FROM (" +
        HourlySource("type", "", *direction.second, n) + ") GROUP BY time, type;";
    cmds += statement.c_str();
  }
  const std::string day =
      "INSERT OR REPLACE INTO main.threat_overview_day(time, mail_type, threat_type, count) "
      "SELECT strftime('%s', time, 'unixepoch', 'localtime', 'start of day', 'utc') AS daytime, "
      "mail_type, threat_type, SUM(count) FROM main.threat_overview_hour " +
      DaySince(lastCountTime) + "GROUP BY daytime, mail_type, threat_type;";
  cmds += day.c_str();
}

void MailLogger::genSQLCmdForBlockedAddress(SQLCmd &cmds, const std::list<std::string> &domains,
                                            int n) {
  const std::string inbound = "AND " + genDomainFilter("sender", false, domains) + "AND " +
                              genDomainFilter("recipient", true, domains);
  const std::string outbound = "AND " + genDomainFilter("sender", true, domains) + "AND " +
                               genDomainFilter("recipient", false, domains);
  // A sent mail that failed a content check says nothing against its sender's address.
  const std::string notContent = "AND type != 'spam' AND type != 'content' ";
  struct Part {
    const char *direction;
    const char *column;
    const std::string *filters;
    const std::string *condition;
  };
  const std::string none;
  const Part parts[] = {{kInbound, "sender", &inbound, &none},
                        {kInbound, "recipient", &inbound, &none},
                        {kOutbound, "sender", &outbound, &notContent},
                        {kOutbound, "recipient", &outbound, &notContent}};
  for (const Part &part : parts) {
    const std::string column = part.column;
    const std::string statement =
        std::string(
            "INSERT OR REPLACE INTO main.blocked_address_hour(time, mail_type, "
            "address_type, address, count) SELECT time, '") +
        part.direction + "', '" + column + "', " + column + ", SUM(cnt) FROM (" +
        HourlySource(column, *part.condition, *part.filters, n) + ") GROUP BY time, " + column +
        ";";
    cmds += statement.c_str();
  }
  const std::string day =
      "INSERT OR REPLACE INTO main.blocked_address_day(time, mail_type, address_type, address, "
      "count) SELECT strftime('%s', time, 'unixepoch', 'localtime', 'start of day', 'utc') as "
      "daytime, mail_type, address_type, address, SUM(count) FROM main.blocked_address_hour " +
      DaySince(lastCountTime) + "GROUP BY daytime, mail_type, address_type, address;";
  cmds += day.c_str();
}

int MailLogger::execQueriesForThreatOrigin(const std::list<std::string> &domains, int n) {
  if (securityStatisticDB == nullptr) return -1;
  const std::string inbound = "AND " + genDomainFilter("sender", false, domains) + "AND " +
                              genDomainFilter("recipient", true, domains);
  const std::string sql = "SELECT time, src, SUM(cnt) AS count FROM (" +
                          HourlySource("src", "", inbound, n) + ") GROUP BY time, src;";
  SQLCmd batch;
  bool written = true;
  // A database that can't be opened is tried once a pass, not once a row.
  bool missing[2] = {false, false};
  const int rc = log_db::Rows(
      *securityStatisticDB, sql,
      [&](sqlite3_stmt *row, int) {
        if (!written) return;
        const int64_t hour = sqlite3_column_int64(row, 0);
        const std::string src = log_db::Text(row, 1);
        const int count = sqlite3_column_int(row, 2);
        const bool v6 = src.find(':') != std::string::npos;
        if (missing[v6]) return;
        GeoIPRecord *record = GeoIPRecordGet(src.c_str());
        if (record == nullptr) {
          missing[v6] = (v6 ? geoIPv6 : geoIP) == nullptr && IsAddress(src);
          return;
        }
        // What the database says about a place may be any bytes: quoted like log values.
        char *insert = sqlite3_mprintf(
            "INSERT OR REPLACE INTO main.%s(%s, %s, %s, %s, %s, %s, %s) VALUES(%d, '%q', '%q', "
            "'%q', %f, %f, %d)",
            "threat_origin_hour", "time", "country_code", "country", "city", "latitude",
            "longitude", "count", static_cast<int>(hour),
            record->country_code != nullptr ? record->country_code : "",
            record->country_name != nullptr ? record->country_name : "",
            record->city != nullptr ? record->city : "", static_cast<double>(record->latitude),
            static_cast<double>(record->longitude), count);
        GeoIPRecord_delete(record);
        if (insert == nullptr) {
          written = false;
          return;
        }
        batch += insert;
        sqlite3_free(insert);
        if (batch.size() >= kOriginBatch) {
          written = RunCmds(securityStatisticDB, batch, true) == 0;
          batch.clear();
        }
      },
      [this](int code) {
        dbSelector = 4;
        return HandleDBError(*securityStatisticDB, code);
      });
  int result = rc == 0 && written ? 0 : -1;
  if (rc == 0 && written) {
    const std::string day =
        "INSERT OR REPLACE INTO main.threat_origin_day (time, country_code, country, city, "
        "latitude, longitude, count) SELECT strftime('%s', time, 'unixepoch', 'localtime', "
        "'start of day', 'utc') AS daytime, country_code,country, city, latitude, longitude, "
        "SUM(count) FROM main.threat_origin_hour " +
        DaySince(lastCountTime) + "GROUP BY daytime, latitude, longitude;";
    batch += day.c_str();
    if (RunCmds(securityStatisticDB, batch, true) < 0) result = -1;
  }
  if (result < 0) dbSelector = 4;
  GeoIPFree();
  return result;
}

int MailLogger::securityStatistic() {
  std::list<std::string> domains;
  if (loadAllUtf8DomainList(domains) < 0) {
    maillog(3, "%s:%d Failed to load domain list.[0x%04X %s:%d]", QSV_FILE, __LINE__, KLIBCErrGet(),
            KLIBCErrorGetFile(), KLIBCErrorGetLine());
    return -1;
  }
  if (securityStatisticDB == nullptr || securityLogDB == nullptr) return -1;
  if (Connect(securityStatisticDB, 4) < 0) return -1;
  // Connecting makes the live security log with its table if no row was ever logged, so that it
  // can be attached.
  if (Connect(securityLogDB, 2) < 0) {
    disconnectLogDB(securityStatisticDB, mail_log::MAIL_STATUS_REJECT);
    return -1;
  }
  int result = -1;
  const int n = attachLogDBs(securityStatisticDB, mail_log::MAIL_STATUS_REJECT,
                             statistic_log::TIME_SCALE_HOUR);
  if (n < 0) {
    maillog(3, "%s:%d Failed to attachLogDBs.[0x%04X %s:%d]", QSV_FILE, __LINE__, KLIBCErrGet(),
            KLIBCErrorGetFile(), KLIBCErrorGetLine());
  } else if (attachDB(securityStatisticDB, security_log::kSecurityLogDBPath, "log") < 0) {
    maillog(3, "%s:%d Failed to attach security log db.[0x%04X %s:%d]", QSV_FILE, __LINE__,
            KLIBCErrGet(), KLIBCErrorGetFile(), KLIBCErrorGetLine());
  } else {
    SQLCmd cmds;
    genSQLCmdToRemoveSecurityStatisticOldLog(cmds);
    genSQLCmdForThreatOverview(cmds, domains, n);
    genSQLCmdForBlockedAddress(cmds, domains, n);
    if (RunCmds(securityStatisticDB, cmds, false) < 0) {
      dbSelector = 4;
    } else if (execQueriesForThreatOrigin(domains, n) < 0) {
      maillog(3, "%s:%d Failed to execQueriesForThreatOrigin", QSV_FILE, __LINE__);
    } else {
      result = 0;
    }
  }
  if (detachDB(securityStatisticDB, "log") < 0) {
    maillog(3, "%s:%d Failed to detach security log db.", QSV_FILE, __LINE__);
  }
  securityLogDB->disconnect();
  disconnectLogDB(securityStatisticDB, mail_log::MAIL_STATUS_REJECT);
  return result;
}

GeoIPRecord *MailLogger::GeoIPRecordGet(const char *ip) {
  // Only address literals: given a name, the library would ask DNS for whatever a log row holds.
  if (ip == nullptr || !IsAddress(ip)) return nullptr;
  const bool v6 = strchr(ip, ':') != nullptr;
  GeoIP *&handle = v6 ? geoIPv6 : geoIP;
  if (handle == nullptr) {
    handle = GeoIP_open(v6 ? kGeoIPCityV6DBPath : kGeoIPCityDBPath, GEOIP_INDEX_CACHE);
    if (handle == nullptr) {
      if (v6) {
        maillog(3, "%s:%d Failed to open GeoIPv6 db", QSV_FILE, __LINE__);
      } else {
        maillog(3, "%s:%d Failed to open GeoIP db", QSV_FILE, __LINE__);
      }
      return nullptr;
    }
    GeoIP_set_charset(handle, GEOIP_CHARSET_UTF8);
  }
  return v6 ? GeoIP_record_by_name_v6(handle, ip) : GeoIP_record_by_name(handle, ip);
}

void MailLogger::GeoIPFree() {
  for (GeoIP **handle : {&geoIP, &geoIPv6}) {
    if (*handle != nullptr) GeoIP_delete(*handle);
    *handle = nullptr;
  }
}
