#include "mailserverctl/typed_settings.h"

#include <climits>
#include <cmath>
#include <cstdio>
#include <cstdlib>

#include "config/mail_conf.h"
#include "core/mail_conf.h"
#include "mailserverctl/error.h"
#include "mailserverctl/names.h"

namespace mailserverctl {
namespace {

bool IsPortKey(const std::string &name) {
  return name.size() > 5 && name.compare(name.size() - 5, 5, "_port") == 0;
}

// A number as the store writes one ("5.000000"): strtod alone would also take blanks, "nan",
// "inf" and hexadecimal, which no setting means.
bool DecimalNumber(const std::string &text, double &number) {
  if (text.empty() || text.find_first_not_of("0123456789.-+eE") != std::string::npos) {
    return false;
  }
  char *end = nullptr;
  const double value = strtod(text.c_str(), &end);
  if (*end != '\0' || !std::isfinite(value)) return false;
  number = value;
  return true;
}

std::string Text(const boost::any &declaration, const boost::any &value, bool &isDefault) {
  if (declaration.type() == typeid(Key<bool>)) {
    const bool v = boost::any_cast<Value<bool>>(value).value;
    isDefault = v == boost::any_cast<Key<bool>>(declaration).defaultValue;
    return v ? "yes" : "no";
  }
  if (declaration.type() == typeid(Key<int>)) {
    const int v = boost::any_cast<Value<int>>(value).value;
    isDefault = v == boost::any_cast<Key<int>>(declaration).defaultValue;
    return std::to_string(v);
  }
  if (declaration.type() == typeid(Key<double>)) {
    const double v = boost::any_cast<Value<double>>(value).value;
    isDefault = v == boost::any_cast<Key<double>>(declaration).defaultValue;
    return std::to_string(v);
  }
  const std::string v = boost::any_cast<Value<std::string>>(value).value;
  isDefault = v == boost::any_cast<Key<std::string>>(declaration).defaultValue;
  return v;
}

}  // namespace

const boost::any *Declaration(Config &config, const std::string &name) {
  for (const boost::any &key : config.GetKeyList()) {
    if (config.GetKeyName(key) == name) return &key;
  }
  return nullptr;
}

bool WholeNumber(const std::string &text, int &number) {
  const size_t digits = !text.empty() && text[0] == '-' ? 1 : 0;
  if (text.size() == digits || text.size() > digits + 10 ||
      text.find_first_not_of("0123456789", digits) != std::string::npos) {
    return false;
  }
  const long long value = std::stoll(text);
  if (value < INT_MIN || value > INT_MAX) return false;
  number = static_cast<int>(value);
  return true;
}

boost::any Typed(const boost::any &declaration, const std::string &name, const std::string &text,
                 std::string &why) {
  int number = 0;
  double real = 0;
  if (declaration.type() == typeid(Key<bool>)) {
    if (text == "yes" || text == "no") return Value<bool>(text == "yes");
    why = name + " takes yes or no";
  } else if (declaration.type() == typeid(Key<int>) && IsPortKey(name)) {
    if (ParsePort(text, number)) return Value<int>(number);
    why = name + " takes a port, a number from 1 to 65535";
  } else if (declaration.type() == typeid(Key<int>)) {
    if (WholeNumber(text, number)) return Value<int>(number);
    why = name + " takes a whole number from " + std::to_string(INT_MIN) + " to " +
          std::to_string(INT_MAX);
  } else if (declaration.type() == typeid(Key<double>)) {
    if (DecimalNumber(text, real)) return Value<double>(real);
    why = name + " takes a number";
  } else {
    return Value<std::string>(text);
  }
  return boost::any();
}

std::string TypeRefusal(Config &config, const std::string &key, const std::string &value) {
  const boost::any *declaration = Declaration(config, key);
  std::string why;
  if (declaration != nullptr && !value.empty()) Typed(*declaration, key, value, why);
  return why;
}

std::string DamagedKey(Config &config, const KeyRule &refusal) {
  for (const boost::any &key : config.GetKeyList()) {
    const std::string name = config.GetKeyName(key);
    std::string value;
    if (mailConfGet(name, value) < 0) continue;  // reads as the default, logged by the load
    const std::string why = refusal(name, value);
    if (!why.empty()) return name + " holds " + QuotedValue(name, value) + ", but " + why;
  }
  return "";
}

std::string TypedPairs(Config &config, const std::string &what,
                       const std::vector<std::string> &pairs, const KeyRule &rule,
                       std::map<std::string, boost::any> &typed) {
  for (size_t i = 0; i + 1 < pairs.size(); i += 2) {
    const std::string &name = pairs[i];
    const std::string &text = pairs[i + 1];
    const boost::any *declaration = Declaration(config, name);
    if (declaration == nullptr) {
      return "no " + what + " setting is called " + Quoted(name) + "; nothing was written";
    }
    if (typed.count(name) != 0) return name + " is given twice; nothing was written";
    std::string why = mailConfRefusal(name, text);
    boost::any value;
    if (why.empty()) value = Typed(*declaration, name, text, why);
    if (why.empty() && rule) why = rule(name, text);
    if (!why.empty()) {
      return "refused " + name + "=" + QuotedValue(name, text) + ": " + why +
             "; nothing was written";
    }
    typed[name] = value;
  }
  return "";
}

void PrintSettings(Config &config,
                   const std::function<std::string(const std::string &key,
                                                   const std::string &value)> &shown) {
  for (const boost::any &key : config.GetKeyList()) {
    const std::string name = config.GetKeyName(key);
    bool isDefault = false;
    const std::string text = Text(key, config.Get(name), isDefault);
    printf("%-42s %s%s\n", name.c_str(), shown(name, text).c_str(),
           isDefault ? "  (default)" : "");
  }
}

}  // namespace mailserverctl
