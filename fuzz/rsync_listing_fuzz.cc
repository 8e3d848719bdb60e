// A listing comes from another node's rsync: no line may crash the reader, and what it accepts
// must be an entry that stays inside the folder listed.
#include <cstdint>
#include <cstdlib>
#include <string>

#include "foundation/rsync_listing.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
  const std::string line(reinterpret_cast<const char *>(data), size);
  RsyncListEntry entry;
  if (!ParseRsyncListLine(line, entry)) return 0;
  const std::string &name = entry.name;
  if (entry.mode.size() != 10 || entry.size < 0 || name.empty() || name[0] == '/' ||
      name.find('\0') != std::string::npos || name == ".." || name.compare(0, 3, "../") == 0 ||
      name.find("/../") != std::string::npos ||
      (name.size() >= 3 && name.compare(name.size() - 3, 3, "/..") == 0)) {
    abort();
  }
  return 0;
}
