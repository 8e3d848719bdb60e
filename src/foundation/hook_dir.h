// The package's hook folders: each holds programs that want to hear of one kind of change, and a
// change runs them all. Stateless: any thread.
#ifndef MAILSERVER_FOUNDATION_HOOK_DIR_H_
#define MAILSERVER_FOUNDATION_HOOK_DIR_H_

#include <string>

#include "foundation/export.h"

// Runs, in name order and one after the other, every regular file of `directory`, with no
// argument and the caller's standard streams. Only what root alone could have put there runs: the
// folder and each file must belong to root and be writable by nobody else, and links are not
// followed. A hook that fails or is refused is logged and the rest still run.
// 0 when every entry ran and exited 0, else -1 (also when the folder can't be read).
QSV_EXPORT int ExecHookInDir(const std::string &directory);

#endif  // MAILSERVER_FOUNDATION_HOOK_DIR_H_
