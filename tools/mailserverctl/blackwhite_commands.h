// The commands of mailserverctl over the spam filter's black and white list:
//
//   spam blackwhite add black|white from|to|client account|address|domain NAME
//                                  a name already listed under the same side and kind moves to
//                                  the list named here
//   spam blackwhite del black|white from|to|client account|address|domain NAME
//   spam blackwhite list [--type from|to|client] [--verdict black|white] [--name PATTERN]
//                        [--offset N] [--limit N]
//                                  the rows, then "total: N", the number the filter finds
//   spam blackwhite import --json FILE             the document `export` writes
//   spam blackwhite import --old black|white FILE  lines "from: NAME yes" and "to: NAME yes"
//   spam blackwhite export FILE [--regexp]         the JSON document; with --regexp each name is
//                                                  a regular expression, as the filter gets it
//
// NAME is one word of at most 255 bytes; an address of a sender or recipient is NAME@DOMAIN, an
// account, a domain and a client have no "@". FILE is an absolute path. An imported file is read
// whole and checked before anything is stored: a single bad name stores nothing.
#ifndef MAILSERVER_TOOLS_MAILSERVERCTL_BLACKWHITE_COMMANDS_H_
#define MAILSERVER_TOOLS_MAILSERVERCTL_BLACKWHITE_COMMANDS_H_

#include <string>
#include <vector>

namespace mailserverctl {

// args: the words after "spam blackwhite".
int BlackWhiteCommand(const std::vector<std::string> &args);
// Prints the usage lines of these commands on stderr.
void BlackWhiteUsage();

}  // namespace mailserverctl

#endif  // MAILSERVER_TOOLS_MAILSERVERCTL_BLACKWHITE_COMMANDS_H_
