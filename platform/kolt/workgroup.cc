#include "kolt/workgroup.h"

#include <strings.h>

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

std::string ConfiguredWorkgroup() {
  std::ifstream in("/etc/samba/smb.conf");
  std::string line;
  bool global = false;
  while (std::getline(in, line)) {
    line = Trim(line);
    if (line.empty() || line[0] == '#' || line[0] == ';') continue;
    if (line[0] == '[') {
      global = strcasecmp(line.c_str(), "[global]") == 0;
      continue;
    }
    const size_t equals = line.find('=');
    if (global && equals != std::string::npos &&
        strcasecmp(Trim(line.substr(0, equals)).c_str(), "workgroup") == 0) {
      return Trim(line.substr(equals + 1));
    }
  }
  return "";
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
