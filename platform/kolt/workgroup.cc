#include "kolt/workgroup.h"

#include <cctype>
#include <cstdio>
#include <fstream>
#include <string>

#include "kolt/err.h"

namespace {

std::string Trim(const std::string &text) {
  const size_t begin = text.find_first_not_of(" \t\r\n");
  if (begin == std::string::npos) return "";
  return text.substr(begin, text.find_last_not_of(" \t\r\n") - begin + 1);
}

// Samba ignores case and blanks in section and parameter names ("Work Group" is "workgroup").
std::string Folded(const std::string &name) {
  std::string folded;
  for (char c : name) {
    if (c != ' ' && c != '\t') folded += static_cast<char>(tolower(static_cast<unsigned char>(c)));
  }
  return folded;
}

std::string ConfiguredWorkgroup() {
  std::ifstream in("/etc/samba/smb.conf");
  std::string line, name;
  bool global = false;
  while (std::getline(in, line)) {
    line = Trim(line);
    if (line.empty() || line[0] == '#' || line[0] == ';') continue;
    if (line[0] == '[') {
      const size_t close = line.find(']');
      global = close != std::string::npos && Folded(line.substr(1, close - 1)) == "global";
      continue;
    }
    const size_t equals = line.find('=');
    // As in Samba, a later setting of the same parameter overrides an earlier one.
    if (global && equals != std::string::npos && Folded(line.substr(0, equals)) == "workgroup") {
      name = Trim(line.substr(equals + 1));
    }
  }
  return name;
}

}  // namespace

int KOLTWorkgroupGet(char *buf, int size) {
  std::string name = ConfiguredWorkgroup();
  if (name.empty()) name = "WORKGROUP";
  if (buf == nullptr || size <= static_cast<int>(name.size())) {
    KLIBC_ERR_SET(KLIBC_ERR_BUFFER_TOO_SMALL);
    return -1;
  }
  snprintf(buf, static_cast<size_t>(size), "%s", name.c_str());
  return 0;
}
