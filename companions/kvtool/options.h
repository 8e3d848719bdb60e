// The command line of the key store tool: which verb was asked for and its options. Parsing only;
// nothing here touches the store or the disk.
//
// Every verb takes "name value" pairs in any order; one or two leading dashes are accepted, since
// the event verb has always been called with single-dash names and the others with double-dash
// names. The word after a name is always its value, even when it starts with a dash, so values
// such as "--x" or "-1" pass through.
#ifndef QSV_COMPANIONS_KVTOOL_OPTIONS_H_
#define QSV_COMPANIONS_KVTOOL_OPTIONS_H_

#include <string>

namespace kvtool {

struct Invocation {
  enum class Verb { kBackend, kDeregister, kDispatcherEvent, kConfValue };
  Verb verb = Verb::kBackend;

  // backend-command
  std::string command;
  std::string key;
  std::string value;  // empty when --value was not given
  long long ttl = 0;  // seconds; 0 or less means no expiry

  // quillon_server_command --deregister
  std::string serviceName;
  std::string serverId;

  // sendDisaptcherEvent
  std::string eventType;
  std::string eventTree;
  std::string eventKey;

  // conf-value
  std::string file;
  std::string member;  // empty: the first member of the object
};

// Fills *invocation from argv (argv[0] is the program). On bad usage returns false and puts the
// reason in *error.
bool ParseInvocation(int argc, char **argv, Invocation *invocation, std::string *error);

// Lines describing every verb, for the usage message.
const char *UsageText();

}  // namespace kvtool

#endif  // QSV_COMPANIONS_KVTOOL_OPTIONS_H_
