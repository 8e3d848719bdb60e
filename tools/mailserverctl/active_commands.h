// The commands of mailserverctl over the list of users and groups active for mail:
//
//   active list [--name TEXT [--partial]] [--type user|group] [--active yes|no]
//               [--limit N] [--offset N] [--count]
//                      the rows (number, name, type, active), tab-separated, in the list's
//                      order; with --count only their number. --partial finds names that
//                      contain TEXT.
//   active refresh     gives each row the name its number has on the system now, then tells
//                      the hooks of the list and rewrites the IMAP server's group cache
//
// Names from the list are printed with control characters escaped.
#ifndef MAILSERVER_TOOLS_MAILSERVERCTL_ACTIVE_COMMANDS_H_
#define MAILSERVER_TOOLS_MAILSERVERCTL_ACTIVE_COMMANDS_H_

#include <string>
#include <vector>

namespace mailserverctl {

// args: the words after "active".
int ActiveCommand(const std::vector<std::string> &args);

}  // namespace mailserverctl

#endif  // MAILSERVER_TOOLS_MAILSERVERCTL_ACTIVE_COMMANDS_H_
