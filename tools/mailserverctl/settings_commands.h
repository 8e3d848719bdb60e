// The commands of mailserverctl that work on the typed SMTP settings and the balancer:
//
//   settings show                  every SMTP key with its value; "(default)" marks defaults
//   settings set KEY VALUE ...     typed: a bool key takes yes or no, an int key a number
//   domain add|del NAME, domain list
//   balancer elect, balancer status
//
// Each returns the process's exit status and prints its own messages.
#ifndef MAILSERVER_TOOLS_MAILSERVERCTL_SETTINGS_COMMANDS_H_
#define MAILSERVER_TOOLS_MAILSERVERCTL_SETTINGS_COMMANDS_H_

#include <string>
#include <vector>

namespace mailserverctl {

int SettingsShow();
int SettingsSet(const std::vector<std::string> &pairs);
int DomainCommand(const std::string &word, const std::string &name);
int BalancerCommand(const std::string &word);

}  // namespace mailserverctl

#endif  // MAILSERVER_TOOLS_MAILSERVERCTL_SETTINGS_COMMANDS_H_
