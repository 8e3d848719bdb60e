// Files as the platform offers them: existence, directory listings, advisory
// locks with a time limit, and finding a line. Stateless; any thread may call
// these. A lock belongs to its descriptor: whoever holds the fd holds the lock.

#ifndef KOLT_FILE_H_
#define KOLT_FILE_H_

#include "kolt/szlist.h"
#include "kolt/types.h"

// TRUE when path names something stat() can reach (a dangling link is FALSE).
BOOL KLIBCFileExist(const char *path);

// Appends the names in dir, "." and ".." left out, sorted by byte order, at
// most maxEntries of them (0: all). A null *list gets a new one. flags is
// reserved. Returns the number appended, or -1 with errno from opendir.
int KLIBCFileEnumDir(const char *dir, int flags, KLIBSZLIST **list, int maxEntries);

// Opens path (created 0644 if missing) and takes an flock on it, exclusive
// when exclusive is 1, else shared. Waits up to seconds for another holder to
// let go (0: try once; below 0: wait as long as it takes). Returns 1 and the
// descriptor in *fd, or 0 when the wait ran out (errno EWOULDBLOCK when
// seconds was 0, else ETIMEDOUT), or -1 on any other failure. On failure no
// descriptor is left open.
int KLIBCFileLockTimeByFile(const char *path, int exclusive, int seconds, int *fd);

// Releases the lock and closes fd: 1, or 0 on failure.
int KLIBCFileUnlockByFile(int fd);

// Copies the first line of path that contains needle, without its line end,
// into buf. flags is reserved. 1 found, 0 not found, -1 when the file cannot
// be read or the line does not fit in buf.
int KLIBCFileGetLine(const char *path, const char *needle, char *buf, int size, int flags);

#endif  // KOLT_FILE_H_
