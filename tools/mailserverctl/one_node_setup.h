// Makes this machine a one-node cluster: the embedded default of a single mail server. Safe to run
// again: what exists is kept (the password, the node id) and what is unchanged is not rewritten.
#ifndef MAILSERVER_TOOLS_MAILSERVERCTL_ONE_NODE_SETUP_H_
#define MAILSERVER_TOOLS_MAILSERVERCTL_ONE_NODE_SETUP_H_

#include <string>

namespace mailserverctl {

// `address` is the node's address in the cluster. Prints progress on stdout and, on failure, the
// reason on stderr. REQUIRES: root.
bool SetUpOneNode(const std::string &address);

}  // namespace mailserverctl

#endif  // MAILSERVER_TOOLS_MAILSERVERCTL_ONE_NODE_SETUP_H_
