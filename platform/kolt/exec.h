// Runs other programs: posix_spawn with an explicit argument vector, never a
// shell, and only stdin, stdout and stderr passed on (everything else the
// caller has open stays behind, whether or not it was marked close-on-exec).
// A path without a '/' is looked up in PATH.
//
// Children started in the background are not waited for. Their pids are kept
// in a set, and every later KLIBCExec* / KLIBCPopen* call first collects the
// ones that have ended, so they do not linger as zombies. A process that
// ignores SIGCHLD or reaps with waitpid(-1) itself takes that job over.
//
// All functions may be called from any thread.

#ifndef KOLT_EXEC_H_
#define KOLT_EXEC_H_

#include <stdio.h>

#include "kolt/szlist.h"

// Bits of the flag word; other bits are ignored.
#define KLIBC_EXEC_STDIN_NULL 0x01
#define KLIBC_EXEC_STDOUT_NULL 0x02
#define KLIBC_EXEC_STDERR_NULL 0x08
#define KLIBC_EXEC_SETSID 0x10      // child leads a new session
#define KLIBC_EXEC_BACKGROUND 0x40  // do not wait

// The two words the library uses: quiet, own session, wait (187) or not (251).
#define KLIBC_EXEC_QUIET_WAIT 0xBB
#define KLIBC_EXEC_QUIET_BACKGROUND 0xFB

// Waiting runs return the child's exit code, or -1 when it could not start or
// was killed by a signal. Background runs return 0 once the child started,
// else -1.

// argv is path, then arg1..arg3 up to the first null.
int KLIBCExec(const char *path, const char *arg1, const char *arg2, const char *arg3, int flags);

// argv is path, then the const char * arguments up to a NULL.
int KLIBCExecl(const char *path, int flags, ...);

// argv is complete (argv[0] included) and null-terminated.
int KLIBCExecv(const char *path, const char *const argv[], int flags);

// argv is path, then the items of args (args may be null).
int KLIBCExecv(const char *path, const KLIBSZLIST *args, int flags);

// Runs a program with a pipe to its stdout (mode "r") or stdin (mode "w");
// its other stdio is inherited. Close the stream with KLIBCPclose, never
// fclose. Null when the pipe or the child could not be made.
FILE *KLIBCPopen(const char *path, const char *mode, ...);
FILE *KLIBCPopenv(const char *path, const char *mode, const char *const argv[]);
FILE *KLIBCPopenv(const char *path, const char *mode, const KLIBSZLIST *args);

// Closes the stream and waits for its child. Returns the exit code, or -1
// when the child died of a signal or the stream did not come from KLIBCPopen*
// (such a stream is left open).
int KLIBCPclose(FILE *stream);

#endif  // KOLT_EXEC_H_
