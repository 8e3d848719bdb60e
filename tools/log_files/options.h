// The command line of the log tools: "--name VALUE" or "--name=VALUE" options, flags, and the
// operands after them ("--" ends the options; "-" is an operand). Pure parsing: safe from any
// thread.
#ifndef MAILSERVER_TOOLS_LOG_FILES_OPTIONS_H_
#define MAILSERVER_TOOLS_LOG_FILES_OPTIONS_H_

#include <map>
#include <set>
#include <string>
#include <vector>

namespace qsvlog {

struct CommandLine {
  std::map<std::string, std::string> values;  // "--mail-db" -> "/x.db"; a flag maps to ""
  std::vector<std::string> operands;
};

// "" with `out` filled, or what is wrong, as a message: an unknown option, one given twice, a
// value missing, a value given to a flag.
std::string ParseCommandLine(int argc, char **argv, const std::set<std::string> &withValue,
                             const std::set<std::string> &flags, CommandLine *out);

// Plain decimal digits from `min` to `max`; false for signs, blanks and anything else.
bool ParseNumber(const std::string &text, unsigned long long min, unsigned long long max,
                 unsigned long long *value);

}  // namespace qsvlog

#endif  // MAILSERVER_TOOLS_LOG_FILES_OPTIONS_H_
