// The commands of mailserverctl over the IMAP and POP3 settings and the Dovecot that serves them:
//
//   settings show --of imap        every key with its value; "(default)" marks defaults
//   settings set --of imap KEY VALUE [KEY VALUE ...]
//                                  a switch takes yes or no, max_userip_conn 1 to 65535, the four
//                                  fts_allowed_* and fts_forbidden_* keys ids joined by "," (or
//                                  nothing). A single refused value writes nothing. A running
//                                  Dovecot then reloads; a stopped one takes the settings up at
//                                  its next start.
//   settings service --of imap start|stop|restart|reload|status
//                                  runs the daemon script through the library
//
// Each returns the process's exit status (1 for a refusal) and prints its own messages.
#ifndef MAILSERVER_TOOLS_MAILSERVERCTL_IMAP_COMMANDS_H_
#define MAILSERVER_TOOLS_MAILSERVERCTL_IMAP_COMMANDS_H_

#include <string>
#include <vector>

namespace mailserverctl {

int ImapShow();
int ImapSet(const std::vector<std::string> &pairs);
int ImapService(const std::string &action);

}  // namespace mailserverctl

#endif  // MAILSERVER_TOOLS_MAILSERVERCTL_IMAP_COMMANDS_H_
