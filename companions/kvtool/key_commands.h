// The words of "backend-command": reads, writes and tree operations on single keys of the store,
// and the master's address. Each returns the tool's exit status.
#ifndef QSV_COMPANIONS_KVTOOL_KEY_COMMANDS_H_
#define QSV_COMPANIONS_KVTOOL_KEY_COMMANDS_H_

#include "options.h"

namespace kvtool {

// True when `word` is one of the words below; checked before anything is connected.
bool IsKeyCommand(const std::string &word);

// REQUIRES: invocation.verb is kBackend and IsKeyCommand(invocation.command).
int RunKeyCommand(const Invocation &invocation);

}  // namespace kvtool

#endif  // QSV_COMPANIONS_KVTOOL_KEY_COMMANDS_H_
