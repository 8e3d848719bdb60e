#include "mailserverctl/settings_commands.h"

#include <cerrno>
#include <climits>
#include <cstdio>
#include <cstdlib>
#include <map>

#include "cluster/mailserver_cluster.h"
#include "config/mail_conf.h"
#include "config/postfix.h"
#include "core/mail_conf.h"
#include "foundation/service_alive.h"
#include "foundation/strings.h"
#include "kolt/crypt.h"
#include "mailserverctl/error.h"
#include "mailserverctl/names.h"

using KOLT::QUILLON_SERVER::KOLTMailNodeCluster;
using KOLT::QUILLON_SERVER::ServStatus;

namespace mailserverctl {
namespace {

const char kMultiDomain[] = "virtual_multiple_domain";
const char kRelayPassword[] = "smtp_relay_password";
constexpr size_t kCipherBuffer = 345;

bool Load(Postfix &postfix) {
  if (postfix.LoadSettings() == 0) return true;
  Error("cannot load the SMTP settings (see the system log)");
  return false;
}

// The declaration of `name` among the keys of `config`, or null.
const boost::any *Declaration(Config &config, const std::string &name) {
  for (const boost::any &key : config.GetKeyList()) {
    if (config.GetKeyName(key) == name) return &key;
  }
  return nullptr;
}

bool IsPortKey(const std::string &name) {
  return name.size() > 5 && name.compare(name.size() - 5, 5, "_port") == 0;
}

// A decimal int, optionally negative, and nothing else: no blanks, no sign '+', no rest.
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

// `text` as the value of key `name` of the declared type, or an empty any with `why` set.
boost::any Typed(const boost::any &declaration, const std::string &name, const std::string &text,
                 std::string &why) {
  int number = 0;
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
    char *end = nullptr;
    const double value = strtod(text.c_str(), &end);
    if (!text.empty() && *end == '\0') return Value<double>(value);
    why = name + " takes a number";
  } else {
    return Value<std::string>(text);
  }
  return boost::any();
}

// Why loading would not read `text` as the numbered domains, or "". An entry without '/' is
// passed over when it is read, so it passes here too.
std::string MultiDomainRefusal(const std::string &text) {
  for (const std::string &entry : StringSplit(text.c_str(), ", ")) {
    const size_t slash = entry.find('/');
    int number = 0;
    if (slash != std::string::npos && !WholeNumber(entry.substr(0, slash), number)) {
      return std::string(kMultiDomain) + " takes entries NUMBER/DOMAIN joined by \", \", and " +
             Quoted(entry) + " has no number";
    }
  }
  return "";
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

// After a save, the SMTP daemon takes up the new settings.
int ReloadPostfix(const std::string &action) { return Postfix::Service(action); }

}  // namespace

std::string StoredSettingRefusal(const std::string &key, const std::string &value) {
  if (key == kMultiDomain) return MultiDomainRefusal(value);
  if (key == kRelayPassword) {
    // Loading deciphers it, and fails every load of the settings when it can't.
    char plain[kCipherBuffer] = {0};
    if (!KLIBCCryptSzDecrypt(value.c_str(), plain, sizeof(plain))) {
      return key + " takes the password as this node's cipher wrote it; give the clear text "
                   "to `settings set` instead";
    }
    return "";
  }
  if (value.empty()) return "";  // reads as the default
  Postfix postfix;                // for its declarations; nothing is loaded
  const boost::any *declaration = Declaration(postfix, key);
  std::string why;
  if (declaration != nullptr) Typed(*declaration, key, value, why);
  return why;
}

std::string DamagedSetting() {
  Postfix postfix;
  for (const boost::any &key : postfix.GetKeyList()) {
    const std::string name = postfix.GetKeyName(key);
    std::string value;
    if (mailConfGet(name, value) < 0) continue;  // reads as the default, logged by the load
    const std::string why = StoredSettingRefusal(name, value);
    if (!why.empty()) return name + " holds " + QuotedValue(name, value) + ", but " + why;
  }
  return "";
}

int SettingsShow() {
  // A value that loads as something else than it says would be shown wrongly.
  const std::string damaged = DamagedSetting();
  if (!damaged.empty()) return Error(damaged);
  Postfix postfix;
  if (!Load(postfix)) return 1;
  for (const boost::any &key : postfix.GetKeyList()) {
    const std::string name = postfix.GetKeyName(key);
    bool isDefault = false;
    std::string text = Text(key, postfix.Get(name), isDefault);
    if (name == kRelayPassword && !text.empty()) text = "********";
    printf("%-42s %s%s\n", name.c_str(), text.c_str(), isDefault ? "  (default)" : "");
  }
  return 0;
}

int SettingsSet(const std::vector<std::string> &pairs) {
  Postfix postfix;
  // Every value is checked before anything is loaded or set, so that a wrong one writes nothing.
  std::map<std::string, boost::any> typed;
  for (size_t i = 0; i + 1 < pairs.size(); i += 2) {
    const std::string &name = pairs[i];
    const std::string &text = pairs[i + 1];
    const boost::any *declaration = Declaration(postfix, name);
    if (declaration == nullptr) return Error("no SMTP setting is called " + Quoted(name));
    std::string why = mailConfRefusal(name, text);
    boost::any value;
    if (why.empty()) value = Typed(*declaration, name, text, why);
    if (why.empty() && name == kMultiDomain) why = MultiDomainRefusal(text);
    if (!why.empty()) {
      return Error("refused " + name + "=" + QuotedValue(name, text) + ": " + why +
                   "; nothing was written");
    }
    typed[name] = value;
  }
  if (!Load(postfix)) return 1;
  for (const auto &entry : typed) postfix.Set(entry.first, entry.second);
  if (postfix.SaveSettings({{"reload postfix", ReloadPostfix, "reload"}}) != 0) {
    return Error("the settings were not all saved (see the system log)");
  }
  return 0;
}

int DomainCommand(const std::string &word, const std::string &name) {
  // The list is stored joined by ", ": a name must be one domain name and nothing else.
  std::string ascii;
  if (word == "add" && !ValidDomainName(name, &ascii)) {
    return Error("refused domain " + Quoted(name) + ": a domain name is made of labels of " +
                 "letters, digits and inner hyphens (in UTF-8 or punycode), each of 1 to 63 " +
                 "bytes and 253 in all in punycode; nothing was written");
  }
  Postfix postfix;
  if (!Load(postfix)) return 1;
  if (word == "list") {
    for (const std::string &domain : postfix.GetCanonicalDomain()) printf("%s\n", domain.c_str());
    return 0;
  }
  if (name.empty()) return Error("domain " + word + " needs a name");
  if (word == "add") {
    for (const std::string &domain : postfix.GetCanonicalDomain()) {
      std::string other;
      if (domain == name || (ValidDomainName(domain, &other) && other == ascii)) {
        return Error(Quoted(name) + " is already a domain of this server, as " + Quoted(domain));
      }
    }
    postfix.AddDomain(name);
  } else if (word == "del") {
    const size_t before = postfix.GetCanonicalDomain().size();
    postfix.DeleteDomain(name);
    if (postfix.GetCanonicalDomain().size() == before) {
      return Error(Quoted(name) + " is not a domain of this server");
    }
  } else {
    return Error("domain takes add, del or list");
  }
  if (postfix.SaveDomainList() != 0) return Error("the domain list was not saved");
  return 0;
}

int BalancerCommand(const std::string &word) {
  KOLTMailNodeCluster node;
  if (word == "elect") {
    if (!node.calMasterBalancer(true)) return Error("the election failed (see the system log)");
  } else if (word != "status") {
    return Error("balancer takes elect or status");
  }
  std::vector<std::string> balancers;
  node.listKeySplitByToken("balancer", balancers, " ");
  std::map<std::string, ServStatus> status;
  node.getService("mailserver_service_balancer", status);
  std::string master;
  node.getMasterBalancer(master);
  printf("master balancer: %s\n", master.empty() ? "(none)" : master.c_str());
  for (const std::string &id : balancers) {
    const std::string ip = node.idToIP(id);
    const auto found = status.find(ip);
    printf("  %s  %-15s  service status %d\n", id.c_str(), ip.c_str(),
           found == status.end() ? -1 : static_cast<int>(found->second));
  }
  return 0;
}

}  // namespace mailserverctl
