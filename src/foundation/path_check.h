// The directories that files arriving from other nodes of the cluster may be written to, and the
// scripts such a file may be handed to, with the test that a path lies below one of them. The
// tables are constant; checkPathValid raises its effective ids to root for a moment, which the
// whole process sees, so it must not run beside code that depends on lowered ids.
#ifndef MAILSERVER_FOUNDATION_PATH_CHECK_H_
#define MAILSERVER_FOUNDATION_PATH_CHECK_H_

#include "foundation/export.h"

// Null-terminated.
QSV_EXPORT extern const char *szgAllowPrefix[];
QSV_EXPORT extern const char *szgAllowScriptPrefix[];

// Whether `path` lies at or below one of `prefixes` (null-terminated). Each prefix is resolved
// with realpath, as root, so that a prefix reached through a link still matches its target; a
// prefix that doesn't exist is skipped. A match must end at a "/" or at the end of `path`:
// "/var/spool/mail" does not admit "/var/spool/mailx".
// REQUIRES: `path` is already resolved (realpath) or in canonical form: it is compared as it
// stands, so "/var/spool/mail/../../etc" or a link inside a prefix that points out of it would pass.
QSV_EXPORT bool checkPathValid(const char **prefixes, const char *path);

#endif  // MAILSERVER_FOUNDATION_PATH_CHECK_H_
