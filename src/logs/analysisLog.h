// Rankings of who sent, received or was refused most in a period: addresses or domains counted
// straight from the mail log and the security log (with their archives), most first.
//
// An AnalysisLog belongs to one thread. Each query connects, attaches the archive, runs and
// closes again.
#ifndef MAILSERVER_LOGS_ANALYSISLOG_H_
#define MAILSERVER_LOGS_ANALYSISLOG_H_

#include <sqlite3.h>

#include <cstdint>
#include <functional>
#include <memory>
#include <string>
#include <vector>

#include "foundation/db_handler.h"
#include "foundation/export.h"
#include "logs/maillog.h"

namespace analysis_log {

struct analysisFilter {
  bool isCount = false;  // the number of names instead of a page of them
  int32_t limit = 10;
  int32_t offset = 0;
  int32_t status = 0;    // a mail_log::MailStatus, or 5 for mail received from a local domain
  std::string name;      // a piece of the names to keep; empty keeps all
  int32_t nameKind = 0;  // 0 sender address, 1 sender domain, 2 recipient address, 3 recipient
                         // domain; refusals (status 4) rank client addresses whatever it says
  int64_t dateFrom = 0;  // 0: unset
  int64_t dateTo = 0;
};

struct AnalysisCount {
  std::string name;
  int64_t count = 0;
};

class QSV_EXPORT AnalysisLog {
 public:
  AnalysisLog();
  ~AnalysisLog();
  AnalysisLog(const AnalysisLog &) = delete;
  AnalysisLog &operator=(const AnalysisLog &) = delete;

  // The number of different names the filter finds. REQUIRES: filter.isCount.
  int getAnalysisNum(int &count, analysisFilter filter);
  // A page of names with their counts, most first. REQUIRES: !filter.isCount.
  int getAnalysis(std::vector<AnalysisCount> &out, analysisFilter filter);

  // Connects `handler` and attaches the archive of the status's log: the number attached (0 or
  // 1), or -1.
  int attachLogDBs(DBHandler *handler, mail_log::MailStatus status);
  // The whole statement; empty on failure. Uses the attach result of the last attachLogDBs.
  std::string composeCmd(const analysisFilter &filter);

  int error();
  int HandleDBError(DBHandler &db, int rc);
  int HandleError();

 private:
  int Query(const analysisFilter &filter,
            const std::function<void(sqlite3_stmt *)> &onRow);

  std::unique_ptr<DBHandler> mailLogDB;
  std::unique_ptr<DBHandler> securityLogDB;
  int attachResult;
  int state;
};

}  // namespace analysis_log

#endif  // MAILSERVER_LOGS_ANALYSISLOG_H_
