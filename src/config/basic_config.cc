#include "config/basic_config.h"

#include <cstdio>
#include <cstdlib>
#include <stdexcept>

#include "config/mail_conf.h"
#include "core/mail_conf.h"
#include "foundation/log.h"

Config::Config() = default;

Config::Config(const std::list<boost::any> &keys) : keys(keys) {}

const std::list<boost::any> &Config::GetKeyList() const { return keys; }

std::string Config::GetKeyName(const boost::any &key) {
  if (const auto *k = boost::any_cast<Key<int>>(&key)) return k->name;
  if (const auto *k = boost::any_cast<Key<std::string>>(&key)) return k->name;
  if (const auto *k = boost::any_cast<Key<bool>>(&key)) return k->name;
  if (const auto *k = boost::any_cast<Key<double>>(&key)) return k->name;
  throw std::invalid_argument("key type not support");
}

boost::any &Config::Get(const std::string &name) {
  const auto found = values.find(name);
  if (found == values.end()) throw std::invalid_argument(name + ": key not valid");
  return found->second;
}

void Config::Set(const std::string &name, const boost::any &value) { Get(name) = value; }

int Config::Load() {
  for (const boost::any &key : keys) {
    const std::string name = GetKeyName(key);
    std::string text;
    if (mailConfGet(name, text) < 0) {
      // One unreadable key doesn't fail the load: it reads as its default.
      maillog(3, "%s:%d Failed to mailConfGet key %s", QSV_FILE, __LINE__, name.c_str());
    }
    if (const auto *k = boost::any_cast<Key<int>>(&key)) {
      values[name] = Value<int>(
          text.empty() ? k->defaultValue : static_cast<int>(strtol(text.c_str(), nullptr, 10)));
    } else if (const auto *k = boost::any_cast<Key<std::string>>(&key)) {
      values[name] = Value<std::string>(text.empty() ? k->defaultValue : text);
    } else if (const auto *k = boost::any_cast<Key<bool>>(&key)) {
      values[name] = Value<bool>(text.empty() ? k->defaultValue : text == "yes");
    } else if (const auto *k = boost::any_cast<Key<double>>(&key)) {
      values[name] = Value<double>(text.empty() ? k->defaultValue : strtod(text.c_str(), nullptr));
    } else {
      throw std::invalid_argument("key type not support");
    }
  }
  return 0;
}

int Config::Save() {
  std::map<std::string, std::string> pairs;
  for (const boost::any &key : keys) {
    const std::string name = GetKeyName(key);
    const boost::any &value = Get(name);
    if (key.type() == typeid(Key<bool>)) {
      pairs[name] = boost::any_cast<Value<bool>>(value).value ? "yes" : "no";
    } else if (key.type() == typeid(Key<int>)) {
      char text[32];
      snprintf(text, sizeof(text), "%d", boost::any_cast<Value<int>>(value).value);
      pairs[name] = text;
    } else if (key.type() == typeid(Key<double>)) {
      char text[256];
      snprintf(text, sizeof(text), "%f", boost::any_cast<Value<double>>(value).value);
      pairs[name] = text;
    } else if (key.type() == typeid(Key<std::string>)) {
      pairs[name] = boost::any_cast<Value<std::string>>(value).value;
    } else {
      throw std::invalid_argument("key type not support");
    }
  }
  if (mailConfSet(pairs) < 0) {
    maillog(3, "%s:%d save adv anti-spam setting fail", QSV_FILE, __LINE__);
    return -1;
  }
  return 0;
}

namespace {

bool IsYes(const std::string &value) { return value == "yes"; }
bool IsNotYes(const std::string &value) { return value != "yes"; }

const char kScan[] = "enable_dangerous_content_scan";

}  // namespace

CheckItem gCheckList[] = {
    {"smtp_auth_enabled", "no", nullptr, IsYes},
    {"restrict_sender", "no", "smtp_auth_enabled", IsYes},
    {"spam_enable", "no", nullptr, IsYes},
    {"anti_virus_enable", "no", nullptr, IsYes},
    {"reject_sasl_sender_rate_exceed", "no", nullptr, IsYes},
    {"reject_unauth_pipelining", "no", nullptr, IsYes},
    {"reject_non_fqdn_helo_hostname", "no", nullptr, IsYes},
    {"reject_unknown_helo_hostname", "no", nullptr, IsYes},
    {"reject_non_fqdn_sender", "no", nullptr, IsYes},
    {"reject_unknown_sender_domain", "no", nullptr, IsYes},
    {"enable_dangerous_content_scan", "no", nullptr, IsYes},
    {"reject_partial_message", "yes", kScan, IsYes},
    {"reject_external_message_bodies", "yes", kScan, IsYes},
    {"find_phishing_fraud", "yes", kScan, IsYes},
    {"convert_html_to_text", "no", kScan, IsYes},
    {"allow_iframe_tags", "yes", kScan, IsNotYes},
    {"allow_form_tags", "yes", kScan, IsNotYes},
    {"allow_script_tags", "yes", kScan, IsNotYes},
    {"allow_webbugs", "yes", kScan, IsNotYes},
    {"allow_object_codebase_tags", "yes", kScan, IsNotYes},
    {nullptr, nullptr, nullptr, nullptr},
};

Analyzer::Analyzer() : items_(gCheckList) {}

Analyzer::Analyzer(const std::string &, CheckItem *items) : items_(items) {}

int Analyzer::Analyze(std::list<Result> &results) {
  for (const CheckItem *item = items_; item->check != nullptr; ++item) {
    std::string value;
    if (mailConfGet(item->key, value) < 0) value = item->defaultValue;
    if (item->dependency != nullptr) {
      std::string dependency;
      if (mailConfGet(item->dependency, dependency) < 0 || dependency == "no") continue;
    }
    results.push_back({item->check(value) ? "good" : "warning", item->key});
  }
  return 0;
}
