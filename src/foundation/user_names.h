// The naming rules of the three account sources. A user's name says where it comes from:
//
//   local  name            name
//   ldap   name@domain     name
//   win    DOMAIN\name     name
//
// The functions here only read their arguments and the system's user database: safe from any
// thread.
#ifndef MAILSERVER_FOUNDATION_USER_NAMES_H_
#define MAILSERVER_FOUNDATION_USER_NAMES_H_

#include <string>

#include "foundation/export.h"
#include "kolt/user.h"

// The bare name: after the last backslash when one stands after position 0, else before the
// first "@" that stands after position 0, else the name itself.
QSV_EXPORT std::string TrimDomainName(const std::string &name);

// The short name by the server's source: for AUTH_LDAP the text before the first "@", for
// AUTH_WIN the text after the first backslash; otherwise, or when that character is missing, the
// name unchanged.
QSV_EXPORT std::string ParseShortUsername(const std::string &name, AUTH_TYPE type);

// The same rule by the `account_type` text: "ldap", "win" or "local".
QSV_EXPORT std::string ParseShortUsername(const std::string &name, const std::string &accountType);

// The name of user `uid` as the system stores it. 0, or -1 with `name` left alone.
QSV_EXPORT int getRealUserName(const unsigned int &uid, std::string &name);

#endif  // MAILSERVER_FOUNDATION_USER_NAMES_H_
