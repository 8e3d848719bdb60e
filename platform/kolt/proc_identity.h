// Who holds a cluster lock: the node id, the process id and the process's start time, as one line
// of text. The start time tells a live holder from a later process that got the same number.
// Header-only, so that the key store tool, which links nothing of the platform, writes the same
// text that the library reads. Stateless; any thread.
#ifndef KOLT_PROC_IDENTITY_H_
#define KOLT_PROC_IDENTITY_H_

#include <sys/types.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>

// The start time of `pid` in clock ticks since boot (field 22 of /proc/PID/stat), or "" when the
// process does not exist or has ended and waits to be collected.
inline std::string KLIBCProcStartTime(pid_t pid) {
  char path[64];
  snprintf(path, sizeof(path), "/proc/%d/stat", static_cast<int>(pid));
  FILE *in = fopen(path, "re");
  if (in == nullptr) return "";
  char line[1024];
  const size_t n = fread(line, 1, sizeof(line) - 1, in);
  fclose(in);
  line[n] = '\0';
  // The command name may hold blanks and parentheses: the fields start after the last ')'.
  const char *field = strrchr(line, ')');
  if (field == nullptr) return "";
  field += 2;  // ") "
  if (*field == 'Z' || *field == 'X') return "";
  for (int i = 3; i < 22 && field != nullptr; ++i) {
    field = strchr(field, ' ');
    if (field != nullptr) ++field;
  }
  if (field == nullptr) return "";
  return std::string(field, strcspn(field, " "));
}

// "NODE PID START" of process `pid` on node `node`, or "" when the process is gone.
inline std::string KLIBCLockHolderText(const std::string &node, pid_t pid) {
  const std::string start = KLIBCProcStartTime(pid);
  if (start.empty()) return "";
  return node + " " + std::to_string(pid) + " " + start;
}

#endif  // KOLT_PROC_IDENTITY_H_
