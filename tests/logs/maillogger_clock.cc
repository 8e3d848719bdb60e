// maillogger_clock: runs steps of the aggregation job, each at a time of the test's choosing, for
// the tests of what the job does by the clock. It runs under libfaketime with a frozen clock read
// from FAKETIME_TIMESTAMP_FILE (as epoch seconds, FAKETIME_FMT=%s), which it rewrites before each
// step:
//
//   maillogger_clock EPOCH:new EPOCH:statistic EPOCH:remove ...
//
// "new" builds the job (its position is the time of that step), "statistic" is the counting pass,
// "remove" the retention; each prints "EPOCH ACTION RESULT" with the time the job saw.
#include <cstdio>
#include <cstdlib>
#include <ctime>
#include <fstream>
#include <memory>
#include <string>

#include "logs/maillogger.h"

int main(int argc, char **argv) {
  const char *clock = getenv("FAKETIME_TIMESTAMP_FILE");
  if (clock == nullptr) {
    fprintf(stderr, "maillogger_clock: run me under libfaketime with FAKETIME_TIMESTAMP_FILE\n");
    return 2;
  }
  std::unique_ptr<MailLogger> job;
  for (int i = 1; i < argc; ++i) {
    const std::string step = argv[i];
    const size_t colon = step.find(':');
    if (colon == std::string::npos) return 2;
    std::ofstream(clock, std::ios::trunc) << step.substr(0, colon) << "\n";
    const std::string action = step.substr(colon + 1);
    int result = 0;
    if (action == "new") {
      job = std::make_unique<MailLogger>(3600);
    } else if (job && action == "statistic") {
      job->statistic();
    } else if (job && action == "remove") {
      result = job->removeOldLog();
    } else {
      fprintf(stderr, "maillogger_clock: unknown step %s\n", argv[i]);
      return 2;
    }
    printf("%ld %s %d\n", static_cast<long>(time(nullptr)), action.c_str(), result);
  }
  return 0;
}
