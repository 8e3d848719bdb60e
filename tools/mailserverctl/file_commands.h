// The commands of mailserverctl that spread files to every node of the cluster:
//
//   file set KEY PATH [SCRIPT [ARG...]]   send this node's PATH to the others under KEY; each
//                                         receiver runs SCRIPT with ARGs once the file landed
//   file delete KEY [PATH]                remove the file of KEY on every node (PATH: a file that
//                                         was never synced is removed here only)
//
// Each returns the process's exit status and prints its own messages.
#ifndef MAILSERVER_TOOLS_MAILSERVERCTL_FILE_COMMANDS_H_
#define MAILSERVER_TOOLS_MAILSERVERCTL_FILE_COMMANDS_H_

#include <string>
#include <vector>

namespace mailserverctl {

int FileCommand(const std::vector<std::string> &args);

}  // namespace mailserverctl

#endif  // MAILSERVER_TOOLS_MAILSERVERCTL_FILE_COMMANDS_H_
