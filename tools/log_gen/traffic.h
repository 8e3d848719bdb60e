// Made-up mail and security traffic of one server: rows spread over a time span, senders and
// recipients mixing the server's own domains with remote ones (some internationalised, in UTF-8),
// statuses about 40% receive, 40% send, 10% bounce and 10% resend. The same plan and seed give the
// same rows on any machine: the generator is ours, not the standard library's, whose
// distributions differ between implementations. Pure functions of the plan: safe from any thread.
#ifndef MAILSERVER_TOOLS_LOG_GEN_TRAFFIC_H_
#define MAILSERVER_TOOLS_LOG_GEN_TRAFFIC_H_

#include <cstdint>
#include <ctime>
#include <functional>
#include <string>
#include <vector>

#include "log_files/log_files.h"

namespace qsvlog {

struct TrafficPlan {
  time_t start = 0;  // rows fall in [start, end)
  time_t end = 0;
  uint64_t rows = 0;
  std::vector<std::string> localDomains;  // UTF-8 form
  uint64_t seed = 1;
  std::string host;
  std::string subject;  // when not empty: one more row, dated mid-span, with exactly this subject
};

// The rows in date order, then the subject row; false as soon as `add` is.
bool MakeMailRows(const TrafficPlan &plan, const std::function<bool(const MailRow &)> &add);
bool MakeSecurityRows(const TrafficPlan &plan, const std::function<bool(const SecurityRow &)> &add);

}  // namespace qsvlog

#endif  // MAILSERVER_TOOLS_LOG_GEN_TRAFFIC_H_
