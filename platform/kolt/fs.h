// File-system helpers of the platform: directory trees with a chosen owner,
// mode changes, whole-file copies that never leave a half-written target, and
// reading the volume number of a path. Stateless; any thread may call these.

#ifndef KOLT_FS_H_
#define KOLT_FS_H_

#include <sys/types.h>

// Creates every missing directory of path with mode (umask not applied).
// Each directory it creates is owned by the owner and group of the directory
// above it when inheritOwner is 1, else by uid:gid. Directories that already
// exist are left as they are. flags is reserved. 0, or -1 (errno ENOTDIR when
// a component is not a directory).
int KOLTFSMkdirP(const char *path, int flags, int inheritOwner, uid_t uid, gid_t gid, mode_t mode);

// Sets the mode of path. This machine has no ACLs to keep, so every aclFlags
// value (-1 means "plain") is a plain chmod. 0 or -1.
int KOLTFSAclChmod(const char *path, int aclFlags, mode_t mode);

// Copies src to dst through a temporary file beside dst, so readers see the
// old or the new content, never a part. With overwrite 0 an existing dst
// fails with EEXIST. With keepOwnerMode the copy gets the source's mode and
// owner, else mode 0644 and the caller's owner. 0 or -1.
int KOLTCopyFileI(const char *src, const char *dst, int overwrite, int keepOwnerMode);

// N for a path that is "/volumeN" or begins "/volumeN/" (N decimal, at
// least 1), else -1.
int KOLTVolIDParse(const char *path);

#endif  // KOLT_FS_H_
