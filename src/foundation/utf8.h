// UTF-8 text: the strict validity check that guards what goes into the alias tables and the
// map files, and upper-casing for comparisons that ignore case. Pure functions: safe from any
// thread.
#ifndef MAILSERVER_FOUNDATION_UTF8_H_
#define MAILSERVER_FOUNDATION_UTF8_H_

#include <string>

#include "foundation/export.h"

// Whether `text` is well-formed UTF-8 up to its first NUL byte (an empty text is). Refused:
// stray continuation bytes, sequences cut short, overlong forms, the surrogates U+D800..U+DFFF
// and anything above U+10FFFF.
QSV_EXPORT bool checkValidUtf8(const std::string &text);

// The upper-case form of each character, by the simple one-to-one Unicode mapping. Bytes that
// aren't well-formed UTF-8 are copied as they stand.
QSV_EXPORT std::string UnicodeUtf8UpperCase(const std::string &text);

#endif  // MAILSERVER_FOUNDATION_UTF8_H_
