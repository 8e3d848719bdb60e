// The commands of mailserverctl over the content scanner's settings and the virus scanner's
// signature databases:
//
//   scanner show                   every setting with its value; "(default)" marks defaults, and
//                                  a text with line ends or other control characters is shown
//                                  quoted, with escapes
//   scanner set KEY VALUE [KEY VALUE ...]
//                                  typed as the keys are declared: a switch takes yes or no, a
//                                  number a whole or decimal number. Beyond that: the nine keys
//                                  shared with the spam filter follow `spam set`; the allow_* keys
//                                  take yes or no; anti_virus_engine clamav or koltav-mcafee;
//                                  anti_virus_action delete or quarantine; an hour 0 to 23, a
//                                  minute 0 to 59; spam_clean_interval and mcp_threshold 0 or
//                                  more; mcp_forward_to and mcp_bounce_admin_addr an address
//                                  NAME@DOMAIN or nothing; mcp_add_header_name a header name
//                                  (printable ASCII without ":") or nothing; the two templates and
//                                  mcp_bounce_content text of lines; every other text one line.
//                                  A single refused value writes nothing. The spam filter's
//                                  configuration takes the shared keys up at the next
//                                  `spam apply`.
//   av status                      the number of the status file (1 is at rest)
//   av reload                      tells a running virus scanner daemon to reload; no daemon is
//                                  nothing to do
//   av extra-load|extra-unload     moves the extra signature files into or out of the live
//                                  folder, then reloads the daemon
//   av count                       the number of signatures in the live folder
//   av clear STATUS                ends the work STATUS (1 to 5) marks in the status file
//
// Each returns the process's exit status (1 for a refusal, 2 for a command of the wrong shape)
// and prints its own messages.
#ifndef MAILSERVER_TOOLS_MAILSERVERCTL_SCANNER_COMMANDS_H_
#define MAILSERVER_TOOLS_MAILSERVERCTL_SCANNER_COMMANDS_H_

#include <string>
#include <vector>

namespace mailserverctl {

// args: the words after "scanner".
int ScannerCommand(const std::vector<std::string> &args);
// args: the words after "av".
int AntiVirusCommand(const std::vector<std::string> &args);

}  // namespace mailserverctl

#endif  // MAILSERVER_TOOLS_MAILSERVERCTL_SCANNER_COMMANDS_H_
