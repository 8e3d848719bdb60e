#include "log_files/options.h"

#include <climits>

namespace qsvlog {

std::string ParseCommandLine(int argc, char **argv, const std::set<std::string> &withValue,
                             const std::set<std::string> &flags, CommandLine *out) {
  int i = 1;
  for (; i < argc; ++i) {
    std::string arg = argv[i];
    if (arg == "--") {
      ++i;
      break;
    }
    if (arg.size() < 2 || arg[0] != '-') {
      out->operands.push_back(arg);
      continue;
    }
    std::string value;
    const size_t equals = arg.find('=');
    const bool joined = arg.compare(0, 2, "--") == 0 && equals != std::string::npos;
    if (joined) {
      value = arg.substr(equals + 1);
      arg.erase(equals);
    }
    if (withValue.count(arg) != 0) {
      if (!joined) {
        if (i + 1 >= argc) return arg + " needs a value";
        value = argv[++i];
      }
    } else if (flags.count(arg) != 0) {
      if (joined) return arg + " takes no value";
    } else {
      return "unknown option " + arg.substr(0, 40);
    }
    if (!out->values.emplace(arg, value).second) return arg + " is given twice";
  }
  for (; i < argc; ++i) out->operands.push_back(argv[i]);
  return "";
}

bool ParseNumber(const std::string &text, unsigned long long min, unsigned long long max,
                 unsigned long long *value) {
  if (text.empty()) return false;
  unsigned long long v = 0;
  for (char c : text) {
    if (c < '0' || c > '9') return false;
    const unsigned long long digit = static_cast<unsigned long long>(c - '0');
    if (v > (ULLONG_MAX - digit) / 10) return false;
    v = v * 10 + digit;
  }
  if (v < min || v > max) return false;
  *value = v;
  return true;
}

}  // namespace qsvlog
