// The commands of mailserverctl over the global black and white lists and the DKIM sign
// whitelist; every change is spread to the cluster:
//
//   global add black|white sender|network|recipient|helo|client-name PATTERN
//              [--description TEXT] [--action N] [--disabled]
//   global del black|white ID...
//   global list black|white [--type T[,T...]] [--enabled yes|no] [--keyword K]
//              [--offset N] [--limit N] [--cidr] [--punycode]
//   dkim add NETWORK [--description TEXT] [--disabled]
//   dkim del ID...
//   dkim list [--enabled yes|no] [--keyword K] [--offset N] [--limit N] [--cidr]
//
// A list prints one item per line (id, enabled, type, pattern, description), then "total: N".
#ifndef MAILSERVER_TOOLS_MAILSERVERCTL_GLOBAL_COMMANDS_H_
#define MAILSERVER_TOOLS_MAILSERVERCTL_GLOBAL_COMMANDS_H_

#include <string>
#include <vector>

namespace mailserverctl {

// args: the words after "global".
int GlobalCommand(const std::vector<std::string> &args);
// args: the words after "dkim".
int DkimCommand(const std::vector<std::string> &args);

}  // namespace mailserverctl

#endif  // MAILSERVER_TOOLS_MAILSERVERCTL_GLOBAL_COMMANDS_H_
