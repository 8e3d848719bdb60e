// Which characters may stand in a user or mail name: none of the control characters, the blank
// and DEL, since the mail daemons' map files split at them. Bytes of 128 and above (UTF-8) are
// allowed. Pure functions: safe from any thread.
#ifndef MAILSERVER_FOUNDATION_TEXT_H_
#define MAILSERVER_FOUNDATION_TEXT_H_

#include <string>

#include "foundation/export.h"

// Whether the byte at `c` is below 33 or is 127. A null pointer counts as unsupported.
QSV_EXPORT bool IsUnsupportedChar(const char *c);

// Whether any byte of `name` is unsupported; a null name is unsupported, an empty one is not.
QSV_EXPORT bool checkUnsupportedUser(const char *name);

// `text` without its unsupported bytes.
QSV_EXPORT std::string StripUnsupportedChars(const std::string &text);

#endif  // MAILSERVER_FOUNDATION_TEXT_H_
