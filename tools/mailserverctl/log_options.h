// What the log, statistics and ranking commands of mailserverctl share: reading "--name value"
// options, checking texts, numbers and moments, and showing values that came from a log.
#ifndef MAILSERVER_TOOLS_MAILSERVERCTL_LOG_OPTIONS_H_
#define MAILSERVER_TOOLS_MAILSERVERCTL_LOG_OPTIONS_H_

#include <ctime>
#include <map>
#include <set>
#include <string>
#include <vector>

namespace mailserverctl {

// The options in `words`, each "--name value" but `flags`, which stand alone. An unknown,
// repeated or valueless option is refused with a message and `*status`; true when all are good.
bool ReadOptions(const std::vector<std::string> &words, const std::set<std::string> &known,
                 const std::set<std::string> &flags, std::map<std::string, std::string> &out,
                 int *status);
// A text a term or keyword may hold: 1 to 200 bytes, no control characters.
bool TextAcceptable(const std::string &name, const std::string &text, int *status);
// Decimal digits only, at most `max`.
bool Number(const std::string &text, long long max, long long *value);
// "YYYY-MM-DD", "YYYY-MM-DDTHH:MM:SS" (local time) or seconds since 1970. A bare day is its first
// second, or its last when `endOfDay`.
bool Moment(const std::string &text, bool endOfDay, long long *when);
// A value from a log as one field of a line: control characters, tabs and backslashes escaped.
std::string Field(const std::string &text);
// "YYYY-MM-DD HH:MM:SS".
std::string When(const struct tm &tm);

}  // namespace mailserverctl

#endif  // MAILSERVER_TOOLS_MAILSERVERCTL_LOG_OPTIONS_H_
