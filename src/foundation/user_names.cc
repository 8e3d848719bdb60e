#include "foundation/user_names.h"

#include "foundation/log.h"

namespace {

// Big enough for any name the platform keeps.
constexpr int kRealNameSize = 492;

}  // namespace

std::string TrimDomainName(const std::string &name) {
  if (name.find('\\', 1) != std::string::npos) return name.substr(name.rfind('\\') + 1);
  const size_t at = name.find('@', 1);
  if (at != std::string::npos) return name.substr(0, at);
  return name;
}

std::string ParseShortUsername(const std::string &name, AUTH_TYPE type) {
  if (type == AUTH_LDAP) {
    const size_t at = name.find('@');
    return at == std::string::npos ? name : name.substr(0, at);
  }
  if (type == AUTH_WIN) {
    const size_t slash = name.find('\\');
    return slash == std::string::npos ? name : name.substr(slash + 1);
  }
  return name;
}

std::string ParseShortUsername(const std::string &name, const std::string &accountType) {
  if (accountType == "ldap") return ParseShortUsername(name, AUTH_LDAP);
  if (accountType == "win") return ParseShortUsername(name, AUTH_WIN);
  return ParseShortUsername(name, AUTH_LOCAL);
}

int getRealUserName(const unsigned int &uid, std::string &name) {
  KOLTUSER user;
  if (KOLTUserGetByUID(uid, &user) != 0) {
    maillog(3, "%s:%d Get user name by uid fail: %lu", QSV_FILE, __LINE__,
            static_cast<unsigned long>(uid));
    return -1;
  }
  char realName[kRealNameSize] = {0};
  if (KLIBUserRealNameGet(user.name, realName, sizeof(realName), 0) != 0) {
    maillog(3, "%s:%d Get user real name fail", QSV_FILE, __LINE__);
    return -1;
  }
  name = realName;
  return 0;
}
