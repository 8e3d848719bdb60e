// Operations around the virus scanner's engine: telling the running daemon to reload, moving the
// optional signature sets (extra signatures, safe browsing) in and out of the live database
// folder, a small status file about database work, and the count of signatures in use.
//
// All members are static and keep no state: safe from any thread. Moving a set doesn't reload the
// daemon; the caller calls ReloadClamd.
#ifndef MAILSERVER_SECURITY_ANTIVIRUS_H_
#define MAILSERVER_SECURITY_ANTIVIRUS_H_

#include <cstdint>
#include <string>

#include "foundation/export.h"

// 1 is the state of rest, also for a missing file or a value outside 1 to 5.
typedef int32_t ANTI_VIRUS_STATUS;

class QSV_EXPORT AntiVirus {
 public:
  // 0 also when no daemon runs (nothing to reload); -1 when the reload failed.
  static int ReloadClamd();

  // Move the set into the live folder: 0 when it is there already or was moved (a partial move
  // counts), -1 when there is nothing to move.
  static int ExtraDBLoad();
  static int SafeBrowsingDBLoad();
  // Move the set out of the live folder: 0 when it is not there or was moved.
  static int ExtraDBUnload();
  static int SafeBrowsingDBUnload();

  static int AntiVirusStatusSet(const ANTI_VIRUS_STATUS &status);
  // 0 with the status (1 when there is no file), or -1 when the file can't be read or parsed.
  static int AntiVirusStatusGet(ANTI_VIRUS_STATUS &status);
  // Removes the file when `status` ends the work in progress: 2 ends 2 or 4, 3 ends 3. Else keeps
  // it. Always 0.
  static int AntiVirusStatusClear(const ANTI_VIRUS_STATUS &status);

  // 0 "clamav", 1 "koltav-mcafee", 2 anything else.
  static int GetAntiVirusEngine(const std::string &name);

  // The signatures of the packed databases (by sigtool) and the lines of the extra signature
  // files in the live folder. A part that can't be read counts 0. Starts a process per packed
  // database: not for hot paths.
  static long AllDBPatternNumGet();
};

#endif  // MAILSERVER_SECURITY_ANTIVIRUS_H_
