// How mailserverctl shows and sets the keys of a typed settings object (a Config subclass: the SMTP
// settings, the content scanner's): a value is read by the type its key declares before anything
// is loaded or written, and shown as the store keeps it. Stateless.
#ifndef MAILSERVER_TOOLS_MAILSERVERCTL_TYPED_SETTINGS_H_
#define MAILSERVER_TOOLS_MAILSERVERCTL_TYPED_SETTINGS_H_

#include <boost/any.hpp>
#include <functional>
#include <map>
#include <string>
#include <vector>

#include "config/basic_config.h"

namespace mailserverctl {

// Why `key` may not take `value`, or "": the rules of particular keys beyond their type.
using KeyRule = std::function<std::string(const std::string &key, const std::string &value)>;

// The declaration of `name` among the keys of `config`, or null.
const boost::any *Declaration(Config &config, const std::string &name);

// A decimal int, optionally negative, and nothing else: no blanks, no sign '+', no rest.
bool WholeNumber(const std::string &text, int &number);

// `text` as the value of key `name` of the declared type, or an empty any with `why` set: a bool
// takes yes or no, a key ending in "_port" a port, another int a whole number, a double a finite
// decimal number; a string takes anything.
boost::any Typed(const boost::any &declaration, const std::string &name, const std::string &text,
                 std::string &why);

// Why loading would read the stored `value` of `key` as another value than it holds, or "". An
// empty value reads as the default, and a key `config` doesn't declare has no rule here.
std::string TypeRefusal(Config &config, const std::string &key, const std::string &value);

// The first stored key of `config` that `refusal` refuses, as "KEY holds VALUE, but WHY", or "".
std::string DamagedKey(Config &config, const KeyRule &refusal);

// Reads the pairs KEY VALUE ... as values of the keys `config` declares: every key known, none
// twice, every value taken by the store, by its type and by `rule` (may be null). `what` names the
// settings in messages ("SMTP"). `typed` gets the values; an error message, or "".
std::string TypedPairs(Config &config, const std::string &what,
                       const std::vector<std::string> &pairs, const KeyRule &rule,
                       std::map<std::string, boost::any> &typed);

// Prints each key of the loaded `config` with its value as `shown` gives it, and "(default)"
// after a value that is the default.
void PrintSettings(Config &config,
                   const std::function<std::string(const std::string &key,
                                                   const std::string &value)> &shown);

}  // namespace mailserverctl

#endif  // MAILSERVER_TOOLS_MAILSERVERCTL_TYPED_SETTINGS_H_
