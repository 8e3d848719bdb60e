#include "foundation/process_env.h"

#include <csignal>
#include <unistd.h>

#include "kolt/pidfile.h"

int ProcessEnvInit(const char *pidFile, bool foreground, bool noClose) {
  // The old daemon is given its time to go but not waited for: a stuck one must not keep the new
  // one from starting.
  const int oldPid = KLIBCReadPidFile(pidFile);
  if (oldPid > 0) {
    kill(oldPid, SIGTERM);
    sleep(2);
  }
  if (!foreground && daemon(0, noClose ? 1 : 0) != 0) return -1;
  unlink(pidFile);
  return KLIBCProcPidFileCreate(pidFile) < 0 ? -1 : 0;
}
