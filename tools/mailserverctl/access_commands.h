// The commands of mailserverctl over the access table, the names the SMTP side accepts, rejects
// or discards:
//
//   access add from|to|client [account|address|domain] NAME OK|REJECT|DISCARD
//                                  without a kind word a name with "@" is an address and any
//                                  other a domain, as an imported map line is read; a name
//                                  already there takes the new status
//   access del from|to|client [account|address|domain] NAME
//   access list [all|sender|recipient|client] [PATTERN] [--offset N] [--limit N]
//                                  the rows whose names contain PATTERN (in which "_" and "%"
//                                  stand for any character and any run), then "total: N"
//   access import from|to|client FILE   the lines "/PATTERN/ STATUS" or "NAME STATUS" of a
//                                       regexp map; other lines are passed over
//   access export from|to|client FILE   the rows of a side as a regexp map
//
// A NAME is one word of at most 255 bytes; "*" stands for any run of characters and "." is a
// dot. The map is made of regular expressions, so a name can't hold \ ^ $ | ? + ( ) [ ] { }.
// FILE is an absolute path. The status words are read in any case; PERMIT is OK.
#ifndef MAILSERVER_TOOLS_MAILSERVERCTL_ACCESS_COMMANDS_H_
#define MAILSERVER_TOOLS_MAILSERVERCTL_ACCESS_COMMANDS_H_

#include <string>
#include <vector>

namespace mailserverctl {

// args: the words after "access".
int AccessCommand(const std::vector<std::string> &args);

}  // namespace mailserverctl

#endif  // MAILSERVER_TOOLS_MAILSERVERCTL_ACCESS_COMMANDS_H_
