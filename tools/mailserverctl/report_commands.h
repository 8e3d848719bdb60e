// The commands of mailserverctl over the daily mail report's settings:
//
//   settings show --of report      the switch, the two recipients and the time as stored, and the
//                                  sender and server that follow the SMTP settings
//   settings set --of report KEY VALUE [KEY VALUE ...]
//                                  report_enable_report yes or no, report_rcpt_1 and report_rcpt_2
//                                  an address NAME@DOMAIN or nothing, report_time_hour 0 to 23,
//                                  report_time_min 0 to 59. A single refused value writes nothing.
//
// Each returns the process's exit status (1 for a refusal) and prints its own messages.
#ifndef MAILSERVER_TOOLS_MAILSERVERCTL_REPORT_COMMANDS_H_
#define MAILSERVER_TOOLS_MAILSERVERCTL_REPORT_COMMANDS_H_

#include <string>
#include <vector>

namespace mailserverctl {

int ReportShow();
int ReportSet(const std::vector<std::string> &pairs);

}  // namespace mailserverctl

#endif  // MAILSERVER_TOOLS_MAILSERVERCTL_REPORT_COMMANDS_H_
