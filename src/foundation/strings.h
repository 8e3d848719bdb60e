// Splitting, joining, trimming and replacing text. Pure functions on the caller's objects: safe
// from any thread.
#ifndef MAILSERVER_FOUNDATION_STRINGS_H_
#define MAILSERVER_FOUNDATION_STRINGS_H_

#include <list>
#include <string>
#include <vector>

#include "foundation/export.h"

// Splits at each whole occurrence of `separator`, without trimming; empty pieces are dropped, so an
// empty text gives an empty list.
QSV_EXPORT std::list<std::string> StringSplit(const char *text, const char *separator);

// The vector form of StringSplit: `out` is replaced.
QSV_EXPORT void stringSplit(std::vector<std::string> &out, const std::string &text,
                            const std::string &separator);

QSV_EXPORT std::string StringJoin(const std::list<std::string> &pieces,
                                  const std::string &separator);

// Whether one of the blank-separated ids of `text` is `id`.
QSV_EXPORT bool isContainID(const std::string &text, const std::string &id);

// Strips white space (isspace) at both ends, in place.
QSV_EXPORT void Trim(std::string &text);

// Replaces every occurrence of `from`, scanning left to right past each replacement, so a `to` that
// contains `from` does not loop. An empty `from` changes nothing.
QSV_EXPORT void StrReplace(std::string &text, const std::string &from, const std::string &to);

#endif  // MAILSERVER_FOUNDATION_STRINGS_H_
