// The user naming rules of the server's account source, as the SMTP settings set it ("local",
// "ldap" or "win"), and what follows from them: full names, mail directories, served domains.
// Each call loads its own settings: safe from any thread.
#ifndef MAILSERVER_CONFIG_ACCOUNTS_H_
#define MAILSERVER_CONFIG_ACCOUNTS_H_

#include <cstddef>
#include <list>
#include <map>
#include <string>

#include "config/postfix.h"
#include "foundation/export.h"
#include "kolt/user.h"

// 0 when the form of `user` ("DOMAIN\name" win, "name@domain" ldap, else local) matches the
// server's account_type, -2 when it belongs to another source, -1 when the settings can't load.
QSV_EXPORT int userTypeCheck(const std::string &user);

// `user` in the full form of the server's source; with `resolve`, in the stored spelling.
QSV_EXPORT std::string getFullUsername(Postfix &postfix, const std::string &user, bool resolve);

// getFullUsername(postfix, user, true) for many users: the account source's settings are read
// once, at construction, the system's users are listed once, at the first Get, and every name is
// resolved from that list (see KOLTUserRealNames). REQUIRES: `postfix` loaded. Belongs to one
// thread.
class QSV_EXPORT FullUsernames {
 public:
  explicit FullUsernames(Postfix &postfix);
  std::string Get(const std::string &user);

 private:
  std::string type_;    // account_type
  std::string domain_;  // what a name of that source is qualified with
  KOLTUserRealNames users_;
};

// The mail directory of `user`, by user number: a rename doesn't move mail. 0, or -1.
QSV_EXPORT int mailDirPathGet(const std::string &user, std::string &path);
QSV_EXPORT int mailDirPathGet_c(const char *user, char *buffer, size_t size);

// The UTF-8 forms of every served domain and of their further names. 0, or -1.
QSV_EXPORT int loadAllUtf8DomainList(std::list<std::string> &domains);

// The valid mail names, each mapped to `type`: the short names of the server's users and the
// aliases of the first domain.
QSV_EXPORT std::map<std::string, int> GetValidMap(const int &type);

#endif  // MAILSERVER_CONFIG_ACCOUNTS_H_
