// The commands of mailserverctl over the relays, both ways:
//
//   relay host mode none|single|multiple     which outgoing relays are used
//   relay host set SERVER PORT [OPTION...]   the one relay of mode single
//   relay host add sender|recipient SERVER PORT RULE... [OPTION...]
//                                            a relay of mode multiple for the mails whose sender
//                                            (or recipient) matches a RULE: a domain, or an
//                                            address when it holds '@'
//   relay host del SERVICE                   SERVICE as `relay host list` shows it
//   relay host enable|disable SERVICE
//   relay host list
//   relay client add network|domain PATTERN [DESCRIPTION]
//   relay client del|enable|disable network|domain PATTERN
//   relay client list
//   relay export                             writes the maps of both for Postfix
//
// OPTIONs of a relay host: --tls, --auth NAME PASSWORD (PASSWORD "-" reads one line from stdin,
// keeping it out of the process list), --description TEXT, --disabled.
//
// Every argument is checked before anything changes. Each returns the process's exit status and
// prints its own messages.
#ifndef MAILSERVER_TOOLS_MAILSERVERCTL_RELAY_COMMANDS_H_
#define MAILSERVER_TOOLS_MAILSERVERCTL_RELAY_COMMANDS_H_

#include <string>
#include <vector>

namespace mailserverctl {

// `args` are the words after "relay". 2 for bad usage.
int RelayCommand(const std::vector<std::string> &args);

}  // namespace mailserverctl

#endif  // MAILSERVER_TOOLS_MAILSERVERCTL_RELAY_COMMANDS_H_
