// Creating a user's mail directory, the one the core library names by the user's number under the
// server's account domain. It raises to root for the moment of each step, which the whole process
// sees; otherwise safe from any thread.
#ifndef MAILSERVER_FOUNDATION_MAIL_DIR_PATH_H_
#define MAILSERVER_FOUNDATION_MAIL_DIR_PATH_H_

#include "foundation/export.h"

// Makes the mail directory of `uid` with its missing parents (mode 0770; a parent made here gets
// the owner of the directory above it) and gives the directory to `uid`:`gid`. An existing
// directory is only given to the user. 0, or -1.
QSV_EXPORT int mailDirPathCreate(unsigned int uid, unsigned int gid);

#endif  // MAILSERVER_FOUNDATION_MAIL_DIR_PATH_H_
