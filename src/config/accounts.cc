#include "config/accounts.h"

#include <cstdio>

#include "core/mail_dir.h"
#include "eai/punycode.h"
#include "foundation/log.h"
#include "foundation/user_names.h"
#include "kolt/szlist.h"
#include "kolt/user.h"
#include "tables/alias.h"

using KOLT::QUILLON_SERVER::ConvertToUTF8;

namespace {

constexpr char kAliasDBPath[] = "/var/packages/Quillon-Server/etc/alias.db";

std::string AccountType(Postfix &postfix) {
  return boost::any_cast<Value<std::string>>(postfix.Get("account_type")).value;
}

std::string Setting(Postfix &postfix, const char *name) {
  return boost::any_cast<Value<std::string>>(postfix.Get(name)).value;
}

}  // namespace

int userTypeCheck(const std::string &user) {
  const char *source = "local";
  if (user.find('\\', 1) != std::string::npos) {
    source = "win";
  } else if (user.find('@', 1) != std::string::npos) {
    source = "ldap";
  }
  Postfix postfix;
  if (postfix.LoadSettings() < 0) {
    maillog(3, "%s:%d postfix cannot loading setting", QSV_FILE, __LINE__);
    return -1;
  }
  return AccountType(postfix) == source ? 0 : -2;
}

namespace {

// `user` with the domain part of the server's source, when it has none.
std::string QualifiedName(const std::string &type, const std::string &domain,
                          const std::string &user) {
  if (type == "ldap" && user.find('@') == std::string::npos) return user + "@" + domain;
  if (type == "win" && user.find('\\') == std::string::npos) return domain + "\\" + user;
  return user;
}

// The domain part that QualifiedName adds for the source `type`.
std::string DomainOf(Postfix &postfix, const std::string &type) {
  if (type == "ldap") return Setting(postfix, "acc_domain_name");
  if (type == "win") return Setting(postfix, "win_domain_short_name");
  return "";
}

std::string QualifiedName(Postfix &postfix, const std::string &user) {
  const std::string type = AccountType(postfix);
  const bool bare = (type == "ldap" && user.find('@') == std::string::npos) ||
                    (type == "win" && user.find('\\') == std::string::npos);
  return bare ? QualifiedName(type, DomainOf(postfix, type), user) : user;
}

// The stored spelling of `name` from `lookup` (0 and the text), or `name` itself with a log line.
template <typename Lookup>
std::string Resolved(const std::string &name, Lookup lookup) {
  std::string real;
  // The platform's buffer for the name is this size: a longer one is no name it gives.
  constexpr size_t kRealNameSize = 493;
  if (lookup(name, real) != 0 || real.size() >= kRealNameSize) {
    maillog(3, "%s:%d KLIBUserRealNameGet fail %s", QSV_FILE, __LINE__, name.c_str());
    return name;
  }
  return real;
}

}  // namespace

std::string getFullUsername(Postfix &postfix, const std::string &user, bool resolve) {
  const std::string name = QualifiedName(postfix, user);
  if (!resolve) return name;
  return Resolved(name, [](const std::string &full, std::string &real) {
    char buffer[493] = {0};
    if (KLIBUserRealNameGet(full.c_str(), buffer, sizeof(buffer), 0) != 0) return -1;
    real = buffer;
    return 0;
  });
}

// A map asks for thousands of names: the settings are read once.
FullUsernames::FullUsernames(Postfix &postfix)
    : type_(AccountType(postfix)), domain_(DomainOf(postfix, type_)) {}

std::string FullUsernames::Get(const std::string &user) {
  return Resolved(QualifiedName(type_, domain_, user),
                  [this](const std::string &full, std::string &real) {
                    return users_.Get(full, real);
                  });
}

int mailDirPathGet(const std::string &user, std::string &path) {
  std::string root, domainPath;
  if (mailDirRootPathGet(root) < 0) {
    maillog(3, "%s:%d cannot get mailDirRootPathGet", QSV_FILE, __LINE__);
    return -1;
  }
  if (mailDirDomainPathGet(root, domainPath) < 0) {
    maillog(3, "%s:%d cannot get mailDirDomainPathGet", QSV_FILE, __LINE__);
    return -1;
  }
  const int type = userTypeCheck(user);
  if (type < 0) {
    if (type == -2) {
      maillog(3, "%s:%d checkUserType fail usertype conflict %s", QSV_FILE, __LINE__, user.c_str());
    } else {
      maillog(3, "%s:%d userTypeCheck fail %s", QSV_FILE, __LINE__, user.c_str());
    }
    maillog(3, "%s:%d cannot get mailDirUIDPathGet", QSV_FILE, __LINE__);
    return -1;
  }
  uid_t uid;
  gid_t gid;
  if (KOLTUserGetUGID(user.c_str(), &uid, &gid) < 0) {
    maillog(3, "%s:%d get %s uid, gid fail", QSV_FILE, __LINE__, user.c_str());
    maillog(3, "%s:%d cannot get mailDirUIDPathGet", QSV_FILE, __LINE__);
    return -1;
  }
  return uidGetPath(domainPath, uid, path) < 0 ? -1 : 0;
}

int mailDirPathGet_c(const char *user, char *buffer, size_t size) {
  if (user == nullptr || buffer == nullptr) {
    maillog(3, "%s:%d Wrong paramter", QSV_FILE, __LINE__);
    return -1;
  }
  std::string path;
  if (mailDirPathGet(user, path) < 0) {
    maillog(3, "%s:%d Cannot get mailDirPathGet ...", QSV_FILE, __LINE__);
    return -1;
  }
  snprintf(buffer, size, "%s", path.c_str());
  return 0;
}

int loadAllUtf8DomainList(std::list<std::string> &domains) {
  Postfix postfix;
  if (postfix.LoadSettings() < 0) return -1;
  for (const auto &entry : postfix.GetMultiDomainMap()) {
    std::list<std::string> names = {entry.second};
    std::list<std::string> additional;
    if (postfix.GetAdditionalDomainList(entry.first, additional) < 0) {
      maillog(3, "%s:%d Get additional domain list fail, domain id is %d", QSV_FILE, __LINE__,
              entry.first);
      return -1;
    }
    names.splice(names.end(), additional);
    for (const std::string &name : names) {
      std::string utf8;
      if (ConvertToUTF8(name, utf8) != 0) {
        maillog(3, "%s:%d failed to convert domain, %s, to utf8 form", QSV_FILE, __LINE__,
                name.c_str());
        return -1;
      }
      domains.push_back(utf8);
    }
  }
  return 0;
}

std::map<std::string, int> GetValidMap(const int &type) {
  std::map<std::string, int> valid;
  Postfix postfix;
  if (postfix.LoadSettings() < 0) return valid;
  const std::string accountType = AccountType(postfix);
  const int authType = accountType == "win" ? AUTH_WIN : accountType == "ldap" ? AUTH_LDAP
                                                                              : AUTH_LOCAL;
  KLIBSZLIST *users = KLIBCSzListAlloc(1024);
  if (users == nullptr) {
    maillog(3, "%s:%d out of memory", QSV_FILE, __LINE__);
    return valid;
  }
  const std::string domain = authType == AUTH_WIN ? Setting(postfix, "win_domain_short_name") : "";
  if (KLIBUserEnum(&users, authType, domain.c_str()) < 0) {
    maillog(3, "%s:%d fail to enum local user", QSV_FILE, __LINE__);
  } else {
    for (int i = 0; i < KLIBCSzListCount(users); ++i) {
      valid[ParseShortUsername(KLIBCSzListGet(users, i), static_cast<AUTH_TYPE>(authType))] = type;
    }
  }
  KLIBCSzListFree(users);

  // Plain names of the map stand for the first domain, so its aliases are the ones that count.
  Alias alias(kAliasDBPath);
  std::list<DomainAlias> aliases;
  if (alias.load() != 0 || alias.getDomainAliasList(1, aliases) != 0) {
    maillog(3, "%s:%d fail to get domain alias", QSV_FILE, __LINE__);
    return valid;
  }
  for (const DomainAlias &entry : aliases) valid[entry.alias] = type;
  return valid;
}
