// Name patterns of the anti-spam lists ("*.example.com", "*@spam.example") as the regular
// expressions of the mail daemon's regexp maps. Safe from any thread.
#ifndef MAILSERVER_FOUNDATION_MAP_PATTERN_H_
#define MAILSERVER_FOUNDATION_MAP_PATTERN_H_

#include <string>

#include "foundation/export.h"

// "/^" pattern "$/", each "." taken literally and each "*" matching any run of characters short
// of an "@", so that a wildcard never crosses from the local part into the domain:
// "*.mail" gives "/^[^@]*\.mail$/". Other regular expression characters pass unchanged.
QSV_EXPORT std::string ConvertPatternToRegexp(const std::string &pattern);

#endif  // MAILSERVER_FOUNDATION_MAP_PATTERN_H_
