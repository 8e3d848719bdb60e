// The commands of mailserverctl that work on the typed SMTP settings and the balancer:
//
//   settings show                  every SMTP key with its value; "(default)" marks defaults
//   settings set KEY VALUE ...     typed: a bool key takes yes or no, an int key a number, a port
//                                  1 to 65535
//   settings show|set --of postfix|imap|scanner|report ...
//                                  the same over the SMTP settings (postfix, as without --of), the
//                                  IMAP and POP3 settings (imap_commands.h), the content scanner's
//                                  (as `scanner show|set`) or the daily report's
//                                  (report_commands.h)
//   settings service --of imap start|stop|restart|reload|status
//   domain add|del NAME, domain list   NAME a domain name, in UTF-8 or punycode
//   balancer elect, balancer status
//
// Each returns the process's exit status and prints its own messages.
#ifndef MAILSERVER_TOOLS_MAILSERVERCTL_SETTINGS_COMMANDS_H_
#define MAILSERVER_TOOLS_MAILSERVERCTL_SETTINGS_COMMANDS_H_

#include <string>
#include <vector>

namespace mailserverctl {

// Why the typed SMTP settings would not read `value` of `key` (a short key) as it says, or "":
// a port takes 1 to 65535, another whole number a decimal int, a switch yes or no, the numbered
// domains entries NUMBER/DOMAIN, the relay password the cipher's text. An empty value stands for
// the default. A key they don't know has no rule here.
std::string StoredSettingRefusal(const std::string &key, const std::string &value);
// The first stored SMTP setting that StoredSettingRefusal refuses, with the reason, or "".
std::string DamagedSetting();

// args: the words after "settings".
int SettingsCommand(const std::vector<std::string> &args);

int SettingsShow();
int SettingsSet(const std::vector<std::string> &pairs);
int DomainCommand(const std::string &word, const std::string &name);
int BalancerCommand(const std::string &word);

}  // namespace mailserverctl

#endif  // MAILSERVER_TOOLS_MAILSERVERCTL_SETTINGS_COMMANDS_H_
