// The lines `rsync --list-only` prints, read back into entries. A listing comes from another node,
// so a line is taken apart carefully and anything unexpected refused. Stateless: any thread.
#ifndef MAILSERVER_FOUNDATION_RSYNC_LISTING_H_
#define MAILSERVER_FOUNDATION_RSYNC_LISTING_H_

#include <ctime>
#include <string>

#include "foundation/export.h"

// One line of an rsync listing.
struct QSV_EXPORT RsyncListEntry {
  std::string mode;    // as rsync shows it, "drwxr-xr-x"; the first letter tells the kind
  long long size = 0;  // in bytes ("4,096" in the listing)
  time_t mtime = 0;    // the listing's time, read as local time, as rsync printed it
  std::string name;    // relative to the folder listed; "sub/file" below it when recursive

  bool isDirectory() const { return !mode.empty() && mode[0] == 'd'; }
};

// Reads one line without its line end: "MODE SIZE YYYY/MM/DD HH:MM:SS NAME", the size padded in
// front and grouped with "," (or "." where the locale writes decimals with a comma). The name is
// all that follows the one blank after the time, leading blanks included, with rsync's \#ooo
// escapes turned back into their bytes. False for any other line.
bool ParseRsyncListLine(const std::string &line, RsyncListEntry &entry);

#endif  // MAILSERVER_FOUNDATION_RSYNC_LISTING_H_
