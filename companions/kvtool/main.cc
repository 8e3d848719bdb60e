// kolt-quillon-server-go-utils: the suite's command-line way into the cluster key store. The
// library and the package's scripts run it by path for every key operation, so a run does as
// little as it can: parse, connect once, send, print, exit. Its verbs, their arguments and the
// exit statuses of exit_status.h are its whole contract with its callers.
#include <cstdio>
#include <string>

#include "exit_status.h"
#include "json_text.h"
#include "key_commands.h"
#include "options.h"
#include "service_commands.h"
#include "store.h"

namespace kvtool {
namespace {

int Usage(const std::string &error) {
  Complain(error);
  fputs(UsageText(), stderr);
  return kExitUsage;
}

// The package's shell scripts read the key mirror files with this.
int ConfValue(const Invocation &inv) {
  std::string value;
  switch (ReadJsonMember(inv.file, inv.member, &value)) {
    case JsonRead::kOk:
      return PrintExactly(value) ? kExitOk : kExitStore;
    case JsonRead::kBadJson:
      Complain(inv.file + " does not hold a JSON object");
      return kExitNo;
    case JsonRead::kNoFile:
    case JsonRead::kNoMember:
    case JsonRead::kNotText:
      // A value that was never set is an ordinary answer for the scripts; they test the status.
      return kExitNo;
  }
  return kExitNo;
}

int Run(int argc, char **argv) {
  Invocation inv;
  std::string error;
  if (!ParseInvocation(argc, argv, &inv, &error)) return Usage(error);
  switch (inv.verb) {
    case Invocation::Verb::kBackend:
      if (!IsKeyCommand(inv.command)) return Usage("unknown --command \"" + inv.command + "\"");
      return RunKeyCommand(inv);
    case Invocation::Verb::kDeregister:
      return Deregister(inv);
    case Invocation::Verb::kDispatcherEvent:
      return SendDispatcherEvent(inv);
    case Invocation::Verb::kConfValue:
      return ConfValue(inv);
  }
  return kExitUsage;
}

}  // namespace
}  // namespace kvtool

int main(int argc, char **argv) { return kvtool::Run(argc, argv); }
