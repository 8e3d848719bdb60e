// The commands of mailserverctl on single keys of the configuration store:
//
//   conf get KEY
//   conf set KEY VALUE [KEY VALUE ...]   only keys of the settings trees ("conf", "cluster",
//                                        "mapping_table"); a key the typed settings know takes
//                                        only a value they can read back as it is
//
// Each returns the process's exit status and prints its own messages.
#ifndef MAILSERVER_TOOLS_MAILSERVERCTL_CONF_COMMANDS_H_
#define MAILSERVER_TOOLS_MAILSERVERCTL_CONF_COMMANDS_H_

#include <string>
#include <vector>

namespace mailserverctl {

int ConfGet(const std::string &key);
// `pairs`: KEY VALUE [KEY VALUE ...]. Every pair is checked before any is written.
int ConfSet(const std::vector<std::string> &pairs);

}  // namespace mailserverctl

#endif  // MAILSERVER_TOOLS_MAILSERVERCTL_CONF_COMMANDS_H_
