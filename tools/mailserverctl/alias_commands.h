// The commands of mailserverctl over the alias table, one mail domain at a time:
//
//   alias add DOMAIN ALIAS MEMBER...   MEMBER: a user, group:NAME, alias:NAME or an address
//   alias del DOMAIN ALIAS [MEMBER...] without members the whole alias goes
//   alias members DOMAIN ALIAS
//   alias expand DOMAIN ALIAS          the final recipients, nested aliases and groups unfolded
//   alias export DOMAIN PATH           the domain's Postfix alias map
//   alias import DOMAIN PATH           entries of such a map; the whole file is checked first
//
// DOMAIN is a domain name of the server. Every argument is checked before anything changes. Each
// returns the process's exit status and prints its own messages.
#ifndef MAILSERVER_TOOLS_MAILSERVERCTL_ALIAS_COMMANDS_H_
#define MAILSERVER_TOOLS_MAILSERVERCTL_ALIAS_COMMANDS_H_

#include <string>
#include <vector>

namespace mailserverctl {

// `args` are the words after "alias".
int AliasCommand(const std::vector<std::string> &args);

}  // namespace mailserverctl

#endif  // MAILSERVER_TOOLS_MAILSERVERCTL_ALIAS_COMMANDS_H_
