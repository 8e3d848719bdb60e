// How every mailserverctl command reports a failure: one line on stderr, exit status 1.
#ifndef MAILSERVER_TOOLS_MAILSERVERCTL_ERROR_H_
#define MAILSERVER_TOOLS_MAILSERVERCTL_ERROR_H_

#include <cstdio>
#include <string>

namespace mailserverctl {

inline int Error(const std::string &message) {
  fprintf(stderr, "mailserverctl: %s\n", message.c_str());
  return 1;
}

}  // namespace mailserverctl

#endif  // MAILSERVER_TOOLS_MAILSERVERCTL_ERROR_H_
