// mailserverctl member ... and version ...: who belongs to the cluster, and whether its nodes
// agree on the format of what they share.
//
// Adding a node takes two steps: `member add` on a member checks the address, gives the new node
// an id and writes a ticket (root's alone: it carries the cluster's password and CA);
// `member join --ticket FILE` on the new node sets it up, starts its daemons as a replica and
// publishes its membership. `member del ID` runs on any other member, which takes the key
// store's master role and makes the remaining stores follow it.
#ifndef MAILSERVER_TOOLS_MAILSERVERCTL_MEMBER_COMMANDS_H_
#define MAILSERVER_TOOLS_MAILSERVERCTL_MEMBER_COMMANDS_H_

#include <string>
#include <vector>

namespace mailserverctl {

// args after "member". REQUIRES: root.
int MemberCommand(const std::vector<std::string> &args);
// args after "version": publish|check.
int VersionCommand(const std::vector<std::string> &args);

}  // namespace mailserverctl

#endif  // MAILSERVER_TOOLS_MAILSERVERCTL_MEMBER_COMMANDS_H_
