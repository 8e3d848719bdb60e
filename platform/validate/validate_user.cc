#include "validate/validate_user.h"

#include <pwd.h>

#include <vector>

bool ValidateUser(const std::string &account) {
  if (account.empty() || account.find('\0') != std::string::npos) return false;
  struct passwd entry;
  struct passwd *found = nullptr;
  std::vector<char> buffer(16384);
  if (getpwnam_r(account.c_str(), &entry, buffer.data(), buffer.size(), &found) != 0 ||
      found == nullptr) {
    return false;
  }
  return found->pw_uid >= 1000 && found->pw_uid < 65534;
}
