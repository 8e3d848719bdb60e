#include "logs/analysisLog.h"

#include <sqlite3.h>

#include <list>

#include "config/accounts.h"
#include "foundation/log.h"
#include "foundation/privilege.h"
#include "kolt/file.h"
#include "logs/log_db.h"
#include "logs/securityLog.h"

namespace analysis_log {

namespace {

constexpr int kBusyTimeoutMs = 60000;
enum State { kMailLog = 1, kSecurityLog = 2 };

}  // namespace

AnalysisLog::AnalysisLog()
    : mailLogDB(new DBHandler(mail_log::kMailLogDBPath, mail_log::kMailLogSchema)),
      securityLogDB(new DBHandler(security_log::kSecurityLogDBPath,
                                  security_log::kSecurityLogSchema)),
      attachResult(-1),
      state(-1) {
  log_db::PrepareLogDir();
  if (mailLogDB && securityLogDB) state = 0;
}

AnalysisLog::~AnalysisLog() {
  mailLogDB->disconnect();
  securityLogDB->disconnect();
}

int AnalysisLog::attachLogDBs(DBHandler *handler, mail_log::MailStatus status) {
  const char *archive = status == mail_log::MAIL_STATUS_REJECT
                            ? security_log::kSecurityLogArchivePath
                            : mail_log::kMailLogArchivePath;
  SQLCmd commands;
  int attached = 0;
  if (KLIBCFileExist(archive)) {
    char statement[log_db::kStatementSize];
    sqlite3_snprintf(sizeof(statement), statement, "ATTACH DATABASE \"%s\" AS DB0;", archive);
    commands += statement;
    attached = 1;
  }
  if (handler->connect() != 0) return -1;
  handler->setBusyTimeout(kBusyTimeoutMs);
  int rc;
  ENTERCriticalSection;
  rc = handler->exeCmds(commands, false);
  LEAVECriticalSection;
  if (rc != SQLITE_OK) {
    maillog(3, "%s:%d Encounter error when attach databases", QSV_FILE, __LINE__);
    return -1;
  }
  return attached;
}

std::string AnalysisLog::composeCmd(const analysisFilter &filter) {
  std::list<std::string> domains;
  if (loadAllUtf8DomainList(domains) < 0) return "";
  const bool refused = filter.status == mail_log::MAIL_STATUS_REJECT;
  std::string nameColumn;
  std::string condition;
  if (refused) {
    nameColumn = "src as name";
    condition = "type == 'reject'";
  } else {
    if (filter.status == mail_log::MAIL_STATUS_LOCAL_RECEIVE) {
      condition = "status == " + std::to_string(mail_log::MAIL_STATUS_RECEIVE);
      if (!domains.empty()) {
        condition += " AND (";
        bool first = true;
        for (const std::string &domain : domains) {
          std::string pattern;
          if (!log_db::Append(pattern, log_db::kPatternSize, "%%@%q", domain.c_str())) return "";
          condition += std::string(first ? "" : " OR ") + "mail_from LIKE '" + pattern + "'";
          first = false;
        }
        condition += ")";
      }
    } else {
      condition = "status == " + std::to_string(filter.status);
    }
    switch (filter.nameKind) {
      case 1: nameColumn = "SUBSTR(mail_from, instr(mail_from, \"@\") + 1) as name"; break;
      case 3: nameColumn = "SUBSTR(mail_to, instr(mail_to, \"@\") + 1) as name"; break;
      case 2: nameColumn = "mail_to as name"; break;
      default: nameColumn = "mail_from as name";
    }
  }
  std::string having;
  if (!filter.name.empty()) {
    std::string pattern;
    if (!log_db::Append(pattern, log_db::kPatternSize, "%%%q%%", filter.name.c_str())) return "";
    having = " HAVING name LIKE '" + pattern + "'";
  }
  const char *table = refused ? security_log::kSecurityLogTable : mail_log::kMailLogTable;
  auto common = [&](const char *schema) {
    std::string query = "SELECT " + nameColumn + (filter.isCount ? " FROM " : ", COUNT(*) AS cnt FROM ") +
                        schema + "." + table + " WHERE " + condition;
    if (filter.dateFrom != 0) query += " AND " + std::to_string(filter.dateFrom) + " <= date";
    if (filter.dateTo != 0) query += " AND date <= " + std::to_string(filter.dateTo);
    return query + " GROUP BY name" + having;
  };
  std::string sql = filter.isCount ? "SELECT COUNT(DISTINCT name) from ("
                                   : "SELECT name, SUM(cnt) as totalCnt from (";
  if (attachResult > 0) sql += common("DB0") + " UNION ALL ";
  sql += common("main");
  if (filter.isCount) {
    sql += ");";
  } else {
    sql += ") GROUP BY name ORDER BY totalCnt DESC LIMIT " + std::to_string(filter.limit) +
           " OFFSET " + std::to_string(filter.offset) + ";";
  }
  if (sql.size() >= log_db::kStatementSize) {
    maillog(3, "%s:%d invalid input: a statement longer than %zu bytes", QSV_FILE, __LINE__,
            log_db::kStatementSize - 1);
    return "";
  }
  return sql;
}

int AnalysisLog::Query(const analysisFilter &filter,
                       const std::function<void(sqlite3_stmt *)> &onRow) {
  if (state < 0) return -1;
  const bool refused = filter.status == mail_log::MAIL_STATUS_REJECT;
  DBHandler *handler = refused ? securityLogDB.get() : mailLogDB.get();
  state = refused ? kSecurityLog : kMailLog;
  attachResult = attachLogDBs(handler, static_cast<mail_log::MailStatus>(filter.status));
  int rc = -1;
  if (attachResult >= 0) {
    const std::string sql = composeCmd(filter);
    if (!sql.empty()) {
      rc = log_db::Rows(
          *handler, sql, [&onRow](sqlite3_stmt *row, int) { onRow(row); },
          [this, handler](int code) { return HandleDBError(*handler, code); });
    }
  }
  // The archive is attached to this connection only: the next query attaches it again.
  handler->disconnect();
  state = 0;
  return rc;
}

int AnalysisLog::getAnalysisNum(int &count, analysisFilter filter) {
  return Query(filter, [&count](sqlite3_stmt *row) { count = sqlite3_column_int(row, 0); });
}

int AnalysisLog::getAnalysis(std::vector<AnalysisCount> &out, analysisFilter filter) {
  return Query(filter, [&out](sqlite3_stmt *row) {
    out.push_back({log_db::Text(row, 0), sqlite3_column_int64(row, 1)});
  });
}

int AnalysisLog::error() { return state; }

int AnalysisLog::HandleDBError(DBHandler &handler, int rc) {
  if (rc != SQLITE_CORRUPT) return rc;
  maillog(3, "%s:%d db corrupt, need regen", QSV_FILE, __LINE__);
  return handler.regenDB();
}

int AnalysisLog::HandleError() {
  DBHandler *handler = state == kMailLog       ? mailLogDB.get()
                       : state == kSecurityLog ? securityLogDB.get()
                                               : nullptr;
  if (handler == nullptr) return -1;
  return HandleDBError(*handler, handler->getErrCode()) == 0 ? 0 : -1;
}

}  // namespace analysis_log
