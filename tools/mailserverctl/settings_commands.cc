#include "mailserverctl/settings_commands.h"

#include <cerrno>
#include <climits>
#include <cstdio>
#include <cstdlib>
#include <map>

#include "cluster/mailserver_cluster.h"
#include "config/postfix.h"
#include "foundation/service_alive.h"
#include "mailserverctl/error.h"

using KOLT::QUILLON_SERVER::KOLTMailNodeCluster;
using KOLT::QUILLON_SERVER::ServStatus;

namespace mailserverctl {
namespace {

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

// `text` as the value of a key of the declared type, or an empty any with `why` set.
boost::any Typed(const boost::any &declaration, const std::string &text, std::string &why) {
  if (declaration.type() == typeid(Key<bool>)) {
    if (text == "yes" || text == "no") return Value<bool>(text == "yes");
    why = "takes yes or no";
  } else if (declaration.type() == typeid(Key<int>)) {
    char *end = nullptr;
    errno = 0;
    const long number = strtol(text.c_str(), &end, 10);
    if (!text.empty() && *end == '\0' && errno == 0 && number >= INT_MIN && number <= INT_MAX) {
      return Value<int>(static_cast<int>(number));
    }
    why = "takes a whole number";
  } else if (declaration.type() == typeid(Key<double>)) {
    char *end = nullptr;
    const double number = strtod(text.c_str(), &end);
    if (!text.empty() && *end == '\0') return Value<double>(number);
    why = "takes a number";
  } else {
    return Value<std::string>(text);
  }
  return boost::any();
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

int SettingsShow() {
  Postfix postfix;
  if (!Load(postfix)) return 1;
  for (const boost::any &key : postfix.GetKeyList()) {
    const std::string name = postfix.GetKeyName(key);
    bool isDefault = false;
    std::string text = Text(key, postfix.Get(name), isDefault);
    if (name == "smtp_relay_password" && !text.empty()) text = "********";
    printf("%-42s %s%s\n", name.c_str(), text.c_str(), isDefault ? "  (default)" : "");
  }
  return 0;
}

int SettingsSet(const std::vector<std::string> &pairs) {
  Postfix postfix;
  if (!Load(postfix)) return 1;
  // Every value is checked before anything is set, so that a wrong one writes nothing.
  std::map<std::string, boost::any> typed;
  for (size_t i = 0; i + 1 < pairs.size(); i += 2) {
    const boost::any *declaration = Declaration(postfix, pairs[i]);
    if (declaration == nullptr) return Error("no SMTP setting is called " + pairs[i]);
    std::string why;
    boost::any value = Typed(*declaration, pairs[i + 1], why);
    if (value.empty()) {
      return Error("refused " + pairs[i] + "=\"" + pairs[i + 1] + "\": " + pairs[i] + " " + why +
                   "; nothing was written");
    }
    typed[pairs[i]] = value;
  }
  for (const auto &entry : typed) postfix.Set(entry.first, entry.second);
  if (postfix.SaveSettings({{"reload postfix", ReloadPostfix, "reload"}}) != 0) {
    return Error("the settings were not all saved (see the system log)");
  }
  return 0;
}

int DomainCommand(const std::string &word, const std::string &name) {
  Postfix postfix;
  if (!Load(postfix)) return 1;
  if (word == "list") {
    for (const std::string &domain : postfix.GetCanonicalDomain()) printf("%s\n", domain.c_str());
    return 0;
  }
  if (name.empty()) return Error("domain " + word + " needs a name");
  if (word == "add") {
    for (const std::string &domain : postfix.GetCanonicalDomain()) {
      if (domain == name) return Error(name + " is already a domain of this server");
    }
    postfix.AddDomain(name);
  } else if (word == "del") {
    const size_t before = postfix.GetCanonicalDomain().size();
    postfix.DeleteDomain(name);
    if (postfix.GetCanonicalDomain().size() == before) {
      return Error(name + " is not a domain of this server");
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
