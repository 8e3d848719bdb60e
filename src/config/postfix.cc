#include "config/postfix.h"

#include <cstdlib>
#include <cstring>
#include <set>
#include <stdexcept>

#include "config/mail_conf.h"
#include "core/mail_conf.h"
#include "eai/punycode.h"
#include "foundation/log.h"
#include "foundation/privilege.h"
#include "foundation/strings.h"
#include "kolt/crypt.h"
#include "kolt/exec.h"
#include "kolt/workgroup.h"

using KOLT::QUILLON_SERVER::ConvertToPunycode;

namespace {

const char kRelayPassword[] = "smtp_relay_password";
const char kDaemonScript[] = "/var/packages/Quillon-Server/target/scripts/PostfixCollection.sh";
const size_t kCipherBuffer = 345;

std::string Trimmed(const std::string &text) {
  const size_t begin = text.find_first_not_of(" \t\r\n\f\v");
  if (begin == std::string::npos) return "";
  const size_t end = text.find_last_not_of(" \t\r\n\f\v");
  return text.substr(begin, end - begin + 1);
}

// The punycode form of a name, or the name itself when it has none.
std::string Punycode(const std::string &name) {
  std::string converted;
  return ConvertToPunycode(name, converted) == 0 ? converted : name;
}

}  // namespace

Postfix::Postfix() {
  keys.push_back(Key<bool>("smtp_enabled", false));
  keys.push_back(Key<std::string>("account_type", "local"));
  keys.push_back(Key<std::string>("acc_domain_name", ""));
  keys.push_back(Key<std::string>("win_domain_short_name", ""));
  keys.push_back(Key<bool>("smtp_auth_enabled", false));
  keys.push_back(Key<bool>("smtp_ignore_lan_auth", false));
  keys.push_back(Key<bool>("smtp_security_auth", true));
  keys.push_back(Key<bool>("restrict_sender", false));
  keys.push_back(Key<bool>("smtp_skip_restrict_sender", false));
  keys.push_back(Key<std::string>("smtp_hostname", ""));
  keys.push_back(Key<std::string>("smtp_main_domain", "localdomain"));
  keys.push_back(Key<int>("message_limit", 10));
  keys.push_back(Key<bool>("disable_auto_forward", false));
  keys.push_back(Key<int>("smtp_port", 25));
  keys.push_back(Key<bool>("smtp_ssl_enabled", false));
  keys.push_back(Key<int>("smtps_port", 465));
  keys.push_back(Key<bool>("smtp_tls_enabled", false));
  keys.push_back(Key<int>("smtp_tls_port", 587));
  keys.push_back(Key<bool>("smtpd_send_local_only", false));
  keys.push_back(Key<int>("max_recipients_per_mail", 1000));
  keys.push_back(Key<int>("max_hops_traveled_per_mail", 50));
  keys.push_back(Key<bool>("max_parallel_connection_per_ip_enabled", false));
  keys.push_back(Key<int>("max_parallel_connection_per_ip", 50));
  keys.push_back(Key<bool>("max_mails_per_min_per_ip_enabled", false));
  keys.push_back(Key<int>("max_mails_per_min_per_ip", 0));
  keys.push_back(Key<bool>("max_connection_per_min_per_ip_enabled", false));
  keys.push_back(Key<int>("max_connection_per_min_per_ip", 0));
  keys.push_back(Key<bool>("max_junk_command_per_smtp_session_enabled", false));
  keys.push_back(Key<int>("max_junk_command_per_smtp_session", 100));
  keys.push_back(Key<std::string>("smtpd_banner", ""));
  keys.push_back(Key<bool>("reject_unknown_recipient_count_exceed", false));
  keys.push_back(Key<int>("smtpd_unknown_recipient_count_limit", 100));
  keys.push_back(Key<bool>("reject_sender_flow_exceed", false));
  keys.push_back(Key<bool>("reject_sender_attachment_exceed", false));
  keys.push_back(Key<bool>("reject_sasl_sender_rate_exceed", false));
  keys.push_back(Key<int>("smtpd_sasl_sender_flow_limit", 0));
  keys.push_back(Key<int>("cleanup_sender_attachment_limit", 0));
  keys.push_back(Key<int>("smtpd_sasl_sender_rate_limit", 0));
  keys.push_back(Key<bool>("cleanup_user_attachment_restrict", false));
  keys.push_back(Key<bool>("smtpd_user_send_flow_restrict", false));
  keys.push_back(Key<bool>("smtpd_user_send_quota_restrict", false));
  keys.push_back(Key<bool>("smtpd_domain_send_flow_restrict", false));
  keys.push_back(Key<bool>("smtpd_domain_send_quota_restrict", false));
  keys.push_back(Key<bool>("user_policy_disable_auto_forward", false));
  keys.push_back(Key<std::string>("always_bcc", ""));
  keys.push_back(Key<bool>("smtp_relay_enabled", false));
  keys.push_back(Key<std::string>("smtp_relay_server", ""));
  keys.push_back(Key<int>("smtp_relay_server_port", 25));
  keys.push_back(Key<bool>("smtp_relay_secure_conn", false));
  keys.push_back(Key<bool>("smtp_relay_auth_enabled", false));
  keys.push_back(Key<std::string>("smtp_relay_account", ""));
  keys.push_back(Key<std::string>("smtp_relay_password", ""));
  keys.push_back(Key<std::string>("smtp_relay_client_host_type", "{\"host_type\":\"none\"}"));
  keys.push_back(Key<std::string>("smtp_relay_client_single", "{}"));
  keys.push_back(Key<std::string>("smtp_relay_client_sender", "[]"));
  keys.push_back(Key<std::string>("smtp_relay_client_recipient", "[]"));
  keys.push_back(Key<std::string>("smtp_relay_host_network", "[]"));
  keys.push_back(Key<std::string>("smtp_relay_host_domain", "[]"));
  keys.push_back(Key<bool>("reject_unauth_pipelining", false));
  keys.push_back(Key<bool>("reject_unknown_client_hostname", false));
  keys.push_back(Key<bool>("reject_non_fqdn_helo_hostname", false));
  keys.push_back(Key<bool>("reject_unknown_helo_hostname", false));
  keys.push_back(Key<bool>("reject_non_fqdn_sender", false));
  keys.push_back(Key<bool>("reject_unknown_sender_domain", false));
  keys.push_back(Key<bool>("enable_spf_check", false));
  keys.push_back(Key<bool>("reject_spf_soft_fail", false));
  keys.push_back(Key<bool>("enable_dkim", false));
  keys.push_back(Key<bool>("enable_dmarc", false));
  keys.push_back(Key<int>("postscreen_dnsbl_threshold", 1));
  keys.push_back(Key<bool>("postscreen_enable", false));
  keys.push_back(Key<bool>("greylist_enable", false));
  keys.push_back(Key<int>("greylist_period", 30));
  keys.push_back(Key<std::string>("greylist_default_action", "greylist"));
  keys.push_back(Key<std::string>("additional_domain-", ""));
  keys.push_back(Key<std::string>("virtual_multiple_domain", ""));
  keys.push_back(Key<bool>("enable_postmaster", true));
}

int Postfix::Load() {
  if (Config::Load() < 0) return -1;
  const std::string cipher = boost::any_cast<Value<std::string>>(Get(kRelayPassword)).value;
  char plain[kCipherBuffer] = {0};
  if (!KLIBCCryptSzDecrypt(cipher.c_str(), plain, sizeof(plain))) {
    maillog(3, "%s:%d KLIBCCryptSzDecrypt fail", QSV_FILE, __LINE__);
    return -1;
  }
  Set(kRelayPassword, boost::any(Value<std::string>(plain)));
  return 0;
}

int Postfix::LoadSettings() {
  if (Load() < 0) {
    maillog(3, "%s:%d load config fail", QSV_FILE, __LINE__);
    return -1;
  }
  if (LoadDomainList() < 0) {
    maillog(3, "%s:%d load domain list load fail", QSV_FILE, __LINE__);
    return -1;
  }
  if (LoadMultiDomain() < 0) {
    maillog(3, "%s:%d load multiple domain list fail", QSV_FILE, __LINE__);
    return -1;
  }
  if (LoadPostScreenDNSBLList() < 0) {
    maillog(3, "%s:%d load postscreen dnsbl list fail", QSV_FILE, __LINE__);
    return -1;
  }
  if (LoadGreylistRuleList() < 0) {
    maillog(3, "%s:%d load greylist rule list fail", QSV_FILE, __LINE__);
    return -1;
  }
  return 0;
}

int Postfix::SaveSettings(const std::list<Callback> &callbacks) {
  Set("win_domain_short_name", boost::any(Value<std::string>(GetShortDomainName())));
  const std::string plain = boost::any_cast<Value<std::string>>(Get(kRelayPassword)).value;
  char cipher[kCipherBuffer] = {0};
  if (!KLIBCCryptSzEncrypt(plain.c_str(), cipher, sizeof(cipher))) {
    maillog(3, "%s:%d relay password encrypt fail", QSV_FILE, __LINE__);
    return -1;
  }
  Set(kRelayPassword, boost::any(Value<std::string>(cipher)));
  if (Save() < 0) {
    maillog(3, "%s:%d config save fail", QSV_FILE, __LINE__);
    return -1;
  }
  if (SaveDomainList() < 0) {
    maillog(3, "%s:%d domain list save fail", QSV_FILE, __LINE__);
    return -1;
  }
  if (SavePostScreenDNSBLList() < 0) {
    maillog(3, "%s:%d postscreen dnsbl list save fail", QSV_FILE, __LINE__);
    return -1;
  }
  if (SaveGreylistRuleList() < 0) {
    maillog(3, "%s:%d greylist rule list save fail", QSV_FILE, __LINE__);
    return -1;
  }
  for (const Callback &callback : callbacks) {
    if (callback.func(callback.arg) < 0) {
      maillog(3, "%s:%d %s exec fail", QSV_FILE, __LINE__, callback.name.c_str());
      return -1;
    }
  }
  return 0;
}

int Postfix::Service(const std::string &action) {
  int rc;
  ENTERCriticalSection;
  rc = KLIBCExec(kDaemonScript, action.c_str(), nullptr, nullptr, 0);
  LEAVECriticalSection;
  return rc;
}

std::list<std::string> &Postfix::GetCanonicalDomain() { return canonicalDomains_; }

void Postfix::AddDomain(const std::string &domain) { canonicalDomains_.push_back(domain); }

void Postfix::DeleteDomain(const std::string &domain) { canonicalDomains_.remove(domain); }

int Postfix::SaveDomainList() {
  if (mailConfSet("canonical_domain", StringJoin(canonicalDomains_, ", "), true, 0) < 0) {
    maillog(3, "%s:%d Set Key SZK_DOMAIN fail", QSV_FILE, __LINE__);
    return -1;
  }
  return 0;
}

int Postfix::LoadDomainList() {
  std::string text;
  if (mailConfGet("canonical_domain", text) < 0) {
    maillog(3, "%s:%d Failed mailConfGet key canonical_domain", QSV_FILE, __LINE__);
    return -1;
  }
  canonicalDomains_ = StringSplit(text.c_str(), ", ");
  return 0;
}

std::map<int, std::string> &Postfix::GetMultiDomainMap() { return multiDomainMap_; }

int Postfix::LoadMultiDomain() {
  std::string text;
  if (mailConfGet("virtual_multiple_domain", text) < 0) {
    maillog(3, "%s:%d Failed mailConfGet key virtual_multiple_domain", QSV_FILE, __LINE__);
    return -1;
  }
  for (const std::string &entry : StringSplit(text.c_str(), ", ")) {
    const size_t slash = entry.find('/');
    if (slash == std::string::npos) continue;
    // A damaged number is not caught here: a broken value must not pass for a smaller map.
    multiDomainMap_[std::stoi(entry.substr(0, slash))] = entry.substr(slash + 1);
  }
  return 0;
}

bool Postfix::GetDomainId(const std::string &name, int &id) {
  for (const auto &entry : multiDomainMap_) {
    if (entry.second == name) {
      id = entry.first;
      return true;
    }
  }
  return false;
}

bool Postfix::GetDomainName(const int &id, std::string &name) {
  const auto found = multiDomainMap_.find(id);
  if (found == multiDomainMap_.end()) return false;
  name = found->second;
  return true;
}

bool Postfix::IsLocalDomain(const int &id) { return multiDomainMap_.count(id) != 0; }

bool Postfix::IsLocalDomain(const std::string &domain) {
  const std::string converted = Punycode(domain);
  std::set<std::string> names;
  for (const auto &entry : multiDomainMap_) {
    names.insert(Punycode(entry.second));
    std::list<std::string> additional;
    if (GetAdditionalDomainList(entry.first, additional) == 0) {
      for (const std::string &name : additional) names.insert(Punycode(name));
    }
  }
  return names.count(converted) != 0;
}

int Postfix::GetAdditionalDomainList(const int &id, std::list<std::string> &domains) {
  domains.clear();
  const std::string key = "additional_domain-" + std::to_string(id);
  std::string text;
  if (mailConfGet(key, text) < 0) {
    maillog(3, "%s:%d Failed mailConfGet key: %s", QSV_FILE, __LINE__, key.c_str());
    return -1;
  }
  domains = StringSplit(text.c_str(), ", ");
  return 0;
}

std::string Postfix::GetShortDomainName() {
  char buffer[128] = {0};
  if (boost::any_cast<Value<std::string>>(Get("account_type")).value == "win") {
    KOLTWorkgroupGet(buffer, sizeof(buffer));
  }
  return buffer;
}

std::list<Postfix::GreylistRule> &Postfix::GetGreylistRuleList() { return greylistRules_; }

void Postfix::AddGreylistRule(const std::string &kind, const std::string &match,
                              const std::string &action) {
  for (const GreylistRule &rule : greylistRules_) {
    if (rule.match == match) return;
  }
  greylistRules_.push_back({kind, match, action});
}

void Postfix::ClearGreylistRule() { greylistRules_.clear(); }

int Postfix::LoadGreylistRuleList() {
  std::string text;
  if (mailConfGet("greylist_rule_list", text) < 0) {
    maillog(3, "%s:%d Failed to get greylist_rule_list", QSV_FILE, __LINE__);
    return -1;
  }
  for (const std::string &entry : StringSplit(text.c_str(), ", ")) {
    std::vector<std::string> parts;
    stringSplit(parts, entry, "|");
    // An entry must have its three parts; a shorter one is taken as far as it goes.
    parts.resize(3);
    greylistRules_.push_back({parts[0], parts[1], parts[2]});
  }
  return 0;
}

int Postfix::SaveGreylistRuleList() {
  std::list<std::string> entries;
  for (const GreylistRule &rule : greylistRules_) {
    char entry[1024];
    snprintf(entry, sizeof(entry), "%s|%s|%s", rule.kind.c_str(), rule.match.c_str(),
             rule.action.c_str());
    entries.push_back(entry);
  }
  if (mailConfSet("greylist_rule_list", StringJoin(entries, ", "), true, 0) < 0) {
    maillog(3, "%s:%d Failed to set greylist_rule_list", QSV_FILE, __LINE__);
    return -1;
  }
  return 0;
}

std::list<Postfix::PostScreenDNSBL> &Postfix::GetPostScreenDNSBLList() { return dnsblList_; }

void Postfix::AddPostScreenDNSBL(const std::string &server, int weight) {
  const std::string name = Trimmed(server);
  for (const PostScreenDNSBL &entry : dnsblList_) {
    if (entry.server == name) return;
  }
  dnsblList_.push_back({server, weight});
}

void Postfix::ClearPostScreenDNSBL() { dnsblList_.clear(); }

int Postfix::LoadPostScreenDNSBLList() {
  std::string text;
  if (mailConfGet("postscreen_dnsbl_server", text) < 0) {
    maillog(3, "%s:%d Failed to get postscreen_dnsbl_server", QSV_FILE, __LINE__);
    return -1;
  }
  for (const std::string &entry : StringSplit(text.c_str(), ", ")) {
    std::vector<std::string> parts;
    stringSplit(parts, entry, "|");
    parts.resize(2);
    dnsblList_.push_back(
        {Trimmed(parts[0]), static_cast<int>(strtol(parts[1].c_str(), nullptr, 10))});
  }
  return 0;
}

int Postfix::SavePostScreenDNSBLList() {
  std::list<std::string> entries;
  for (const PostScreenDNSBL &entry : dnsblList_) {
    char text[1024];
    snprintf(text, sizeof(text), "%s|%d", Trimmed(entry.server).c_str(), entry.weight);
    entries.push_back(text);
  }
  if (mailConfSet("postscreen_dnsbl_server", StringJoin(entries, ", "), true, 0) < 0) {
    maillog(3, "%s:%d Failed to set postscreen_dnsbl_server", QSV_FILE, __LINE__);
    return -1;
  }
  return 0;
}
