#include "options.h"

#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <map>
#include <set>

namespace kvtool {
namespace {

const char kUsage[] =
    "usage: kolt-quillon-server-go-utils backend-command --command WORD --key KEY [--value VALUE]"
    " [--ttl SECONDS]\n"
    "         WORD: set get linear_get exist del del_dir list create break_lock get_redis_master_ip\n"
    "       kolt-quillon-server-go-utils quillon_server_command --deregister"
    " --service_name NAME --server_id ID\n"
    "       kolt-quillon-server-go-utils sendDisaptcherEvent -type TYPE -tree TREE -key KEY\n"
    "       kolt-quillon-server-go-utils conf-value --file PATH [--member NAME]\n";

// Splits the words after the verb into named values and flags. Names not in `valued` or
// `flags` are refused.
bool ParsePairs(int argc, char **argv, const std::set<std::string> &valued,
                const std::set<std::string> &flags, std::map<std::string, std::string> *values,
                std::string *error) {
  for (int i = 2; i < argc; ++i) {
    const char *word = argv[i];
    if (word[0] != '-') {
      *error = std::string("unexpected argument \"") + word + "\"";
      return false;
    }
    std::string name = word + (word[1] == '-' ? 2 : 1);
    if (flags.count(name) != 0) {
      (*values)[name] = "";
      continue;
    }
    if (valued.count(name) == 0) {
      *error = std::string("unknown option ") + word;
      return false;
    }
    if (i + 1 >= argc) {
      *error = std::string("option ") + word + " needs a value";
      return false;
    }
    (*values)[name] = argv[++i];
  }
  return true;
}

bool Take(const std::map<std::string, std::string> &values, const std::string &name,
          std::string *out) {
  const auto it = values.find(name);
  if (it == values.end()) return false;
  *out = it->second;
  return true;
}

bool ParseTtl(const std::string &text, long long *ttl) {
  if (text.empty()) return false;
  errno = 0;
  char *end = nullptr;
  const long long n = strtoll(text.c_str(), &end, 10);
  if (errno != 0 || *end != '\0') return false;
  *ttl = n;
  return true;
}

}  // namespace

const char *UsageText() { return kUsage; }

bool ParseInvocation(int argc, char **argv, Invocation *inv, std::string *error) {
  if (argc < 2) {
    *error = "no command given";
    return false;
  }
  const std::string verb = argv[1];
  std::map<std::string, std::string> values;

  if (verb == "backend-command") {
    inv->verb = Invocation::Verb::kBackend;
    if (!ParsePairs(argc, argv, {"command", "key", "value", "ttl"}, {}, &values, error)) {
      return false;
    }
    if (!Take(values, "command", &inv->command)) {
      *error = "backend-command needs --command";
      return false;
    }
    // The master's address is not about a key; the library passes an empty one anyway.
    if (!Take(values, "key", &inv->key) && inv->command != "get_redis_master_ip") {
      *error = "backend-command needs --key";
      return false;
    }
    Take(values, "value", &inv->value);
    std::string ttl;
    if (Take(values, "ttl", &ttl) && !ParseTtl(ttl, &inv->ttl)) {
      *error = "--ttl wants a whole number of seconds, not \"" + ttl + "\"";
      return false;
    }
    return true;
  }

  if (verb == "quillon_server_command") {
    inv->verb = Invocation::Verb::kDeregister;
    if (!ParsePairs(argc, argv, {"service_name", "server_id"}, {"deregister"}, &values, error)) {
      return false;
    }
    if (values.count("deregister") == 0) {
      *error = "quillon_server_command knows only --deregister";
      return false;
    }
    if (!Take(values, "service_name", &inv->serviceName) || inv->serviceName.empty() ||
        !Take(values, "server_id", &inv->serverId) || inv->serverId.empty()) {
      *error = "--deregister needs --service_name and --server_id";
      return false;
    }
    return true;
  }

  if (verb == "sendDisaptcherEvent") {
    inv->verb = Invocation::Verb::kDispatcherEvent;
    if (!ParsePairs(argc, argv, {"type", "tree", "key"}, {}, &values, error)) return false;
    if (!Take(values, "type", &inv->eventType) || !Take(values, "tree", &inv->eventTree) ||
        !Take(values, "key", &inv->eventKey)) {
      *error = "sendDisaptcherEvent needs -type, -tree and -key";
      return false;
    }
    return true;
  }

  if (verb == "conf-value") {
    inv->verb = Invocation::Verb::kConfValue;
    if (!ParsePairs(argc, argv, {"file", "member"}, {}, &values, error)) return false;
    if (!Take(values, "file", &inv->file)) {
      *error = "conf-value needs --file";
      return false;
    }
    Take(values, "member", &inv->member);
    return true;
  }

  *error = "unknown command \"" + verb + "\"";
  return false;
}

}  // namespace kvtool
