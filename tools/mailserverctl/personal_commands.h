// The commands of mailserverctl over one user's forward and vacation:
//
//   personal show USER             forward, its address, keep copy, reply and its times, the
//                                  reply to everyone and the senders with a reply of their own
//   personal forward USER ADDRESS [--keep-copy yes|no]
//                                  forwards the user's mail to ADDRESS (user@domain), keeping a
//                                  copy in the mailbox or not (unchanged when not given)
//   personal vacation USER [--subject TEXT --body TEXT] [--sender ADDRESS]
//                          [--begin TIME] [--end TIME]
//                                  turns the automatic reply on, between the two moments when
//                                  given (YYYY-MM-DD, YYYY-MM-DDTHH:MM:SS or seconds; a moment
//                                  not given stays as it was until `off`); with a
//                                  subject and a body it writes the reply first, to everyone or
//                                  to one sender. A reply to everyone must exist by then.
//   personal off USER              turns forward and reply off: .forward goes on every node
//
// Every word and value is checked before anything changes. A subject is 1 to 200 bytes without
// control characters; a body UTF-8 of at most 64 KiB without control characters but tabs and line
// ends; a sender an address without "/" or "..".
// Each returns the process's exit status (1 for a refusal or a failure, 2 for a command of the
// wrong shape) and prints its own messages.
#ifndef MAILSERVER_TOOLS_MAILSERVERCTL_PERSONAL_COMMANDS_H_
#define MAILSERVER_TOOLS_MAILSERVERCTL_PERSONAL_COMMANDS_H_

#include <string>
#include <vector>

namespace mailserverctl {

// args: the words after "personal".
int PersonalCommand(const std::vector<std::string> &args);

}  // namespace mailserverctl

#endif  // MAILSERVER_TOOLS_MAILSERVERCTL_PERSONAL_COMMANDS_H_
