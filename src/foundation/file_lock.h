// Locks between processes of one node: an flock on a lock file that only exists to be locked and
// is never renamed or removed. The lock belongs to the descriptor, so whoever holds the descriptor
// holds the lock, and a process that dies releases it.
//
// Failures go to the platform's error slot of the calling thread (KLIBCErrGet), not to the log.
// Any thread may call these; two threads of one process that lock the same file through two
// descriptors exclude each other like two processes.
#ifndef MAILSERVER_FOUNDATION_FILE_LOCK_H_
#define MAILSERVER_FOUNDATION_FILE_LOCK_H_

#include "foundation/export.h"
#include "kolt/types.h"

// Opens `path` (created with mode 0666 less the umask if missing) and waits, as long as it takes,
// for an exclusive or a shared lock. The file is then given to the package user, so that daemons
// running as that user can lock it too; if that fails it is logged and the lock still holds.
// TRUE with the descriptor in `*fd`; FALSE with `*fd` -1 and the error slot set.
QSV_EXPORT BOOL qvsFileLockByFile(const char *path, BOOL exclusive, int *fd);

// Releases the lock and closes `fd`. TRUE, or FALSE with the error slot set.
QSV_EXPORT BOOL qvsFileUnlockByFile(int fd);

#endif  // MAILSERVER_FOUNDATION_FILE_LOCK_H_
