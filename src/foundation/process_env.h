// Start-up of the suite's daemons: displace a running instance, detach, write the pid file.
#ifndef MAILSERVER_FOUNDATION_PROCESS_ENV_H_
#define MAILSERVER_FOUNDATION_PROCESS_ENV_H_

#include "foundation/export.h"

// Sends SIGTERM to the daemon named by `pidFile`, if any, and gives it two seconds; then, unless
// `foreground`, detaches with daemon(0, noClose); then writes the caller's pid to `pidFile`.
// Returns 0, or -1 when detaching or writing the pid file failed.
// REQUIRES: called once, early, before the caller starts threads (daemon() forks).
QSV_EXPORT int ProcessEnvInit(const char *pidFile, bool foreground, bool noClose);

#endif  // MAILSERVER_FOUNDATION_PROCESS_ENV_H_
