// Where the suite keeps its mail logs: a directory "@maillog" on the volume the package is
// installed on, found through the package's target link. Safe from any thread.
#ifndef MAILSERVER_FOUNDATION_LOG_PATHS_H_
#define MAILSERVER_FOUNDATION_LOG_PATHS_H_

#include <string>

#include "foundation/export.h"

// "/volumeN/@maillog" for the volume N that /var/packages/Quillon-Server/target points into, or ""
// when the link can't be read or doesn't lead into a volume.
QSV_EXPORT std::string GetQuillonServerLogDirPath();

// The mail transfer agent's log file in that directory, or "".
QSV_EXPORT std::string GetPostfixLogPath();

#endif  // MAILSERVER_FOUNDATION_LOG_PATHS_H_
