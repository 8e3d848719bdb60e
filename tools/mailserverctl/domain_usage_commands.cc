#include "mailserverctl/domain_usage_commands.h"

#include <cstdio>
#include <list>
#include <map>

#include "config/postfix.h"
#include "domain/daily_quota_util.h"
#include "domain/domain_usage_setting.h"
#include "eai/punycode.h"
#include "foundation/mailserver_db_schema.h"
#include "mailserverctl/error.h"
#include "mailserverctl/log_options.h"
#include "mailserverctl/names.h"

namespace mailserverctl {

namespace {

using MultipleDomain::EN_KEYSET;
using MultipleDomain::RT_KEYSET;

const std::map<std::string, EN_KEYSET> kSwitches = {
    {"en_attach", MultipleDomain::EN_ATTACH},   {"en_quota", MultipleDomain::EN_QUOTA},
    {"en_flow", MultipleDomain::EN_FLOW},       {"en_forward", MultipleDomain::EN_FORWARD},
    {"en_catch_all", MultipleDomain::EN_CATCH_ALL}};
const std::map<std::string, RT_KEYSET> kLimits = {
    {"rt_attach", MultipleDomain::RT_ATTACH},     {"rt_quota", MultipleDomain::RT_QUOTA},
    {"rt_flow", MultipleDomain::RT_FLOW},         {"rt_mail_size", MultipleDomain::RT_MAIL_SIZE},
    {"catch_all", MultipleDomain::RT_CATCH_ALL}};

int Usage() {
  fprintf(stderr,
          "usage: mailserverctl domain-usage show DOMAIN\n"
          "       mailserverctl domain-usage set DOMAIN KEY VALUE [KEY VALUE ...]\n"
          "       mailserverctl domain-usage counters DOMAIN USER... [--filter TEXT]\n"
          "       mailserverctl domain-usage counters DOMAIN --delete quota|flow|both USER...\n");
  return 2;
}

// The id of a domain of the multi-domain map, by either form of its name; -1 when it has none.
int DomainId(const std::string &name) {
  Postfix postfix;
  if (postfix.LoadSettings() < 0) return -1;
  std::string ascii;
  if (!ValidDomainName(name, &ascii)) return -1;
  for (const auto &domain : postfix.GetMultiDomainMap()) {
    std::string other;
    if (domain.second == name || (ValidDomainName(domain.second, &other) && other == ascii)) {
      return domain.first;
    }
  }
  return -1;
}

int Show(int id, const std::string &name) {
  MultipleDomain::DomainSetting settings(kMailServerDBPath);
  std::map<EN_KEYSET, bool> switches;
  std::map<RT_KEYSET, int> limits;
  // A domain read for the first time gets its rows with the defaults, read on the second try.
  if (settings.GetEnableSettings(id, switches) != 0 ||
      (switches.empty() && settings.GetEnableSettings(id, switches) != 0) ||
      settings.GetRateSettings(id, limits) != 0) {
    return Error("the usage settings could not be read (see the system log)");
  }
  printf("domain %s (id %d)\n", Quoted(name).c_str(), id);
  for (const auto &entry : kSwitches) {
    printf("%-14s %s\n", entry.first.c_str(), switches[entry.second] ? "yes" : "no");
  }
  for (const auto &entry : kLimits) printf("%-14s %d\n", entry.first.c_str(), limits[entry.second]);
  return 0;
}

int Set(int id, const std::vector<std::string> &pairs) {
  std::map<EN_KEYSET, bool> switches;
  std::map<RT_KEYSET, int> limits;
  // Every pair is checked before anything is written.
  for (size_t i = 0; i + 1 < pairs.size(); i += 2) {
    const std::string &key = pairs[i];
    const std::string &value = pairs[i + 1];
    const auto on = kSwitches.find(key);
    const auto limit = kLimits.find(key);
    if ((on != kSwitches.end() && switches.count(on->second) > 0) ||
        (limit != kLimits.end() && limits.count(limit->second) > 0)) {
      return Error(key + " is given twice");
    }
    if (on != kSwitches.end()) {
      if (value != "yes" && value != "no") return Error(key + " takes yes or no, not " + Quoted(value));
      switches[on->second] = value == "yes";
    } else if (limit != kLimits.end()) {
      long long number;
      const bool none = key == "catch_all" && value == "-1";
      if (!none && !Number(value, 2000000000, &number)) {
        return Error(key + " takes a number from 0" + (key == "catch_all" ? " or -1" : "") +
                     ", not " + Quoted(value));
      }
      limits[limit->second] = none ? -1 : static_cast<int>(number);
    } else {
      return Error("unknown setting " + Quoted(key));
    }
  }
  MultipleDomain::DomainSetting settings(kMailServerDBPath);
  if (settings.CreateSettings(id) != 0 ||
      (!switches.empty() && settings.UpdateEnableSettings(id, switches) != 0) ||
      (!limits.empty() && settings.UpdateRateSettings(id, limits) != 0)) {
    return Error("the usage settings could not be written (see the system log)");
  }
  // The keys are published when `settings` goes.
  return 0;
}

int Counters(const std::string &domain, std::vector<std::string> words) {
  std::string filter;
  int kind = 0;
  std::list<std::string> users;
  for (size_t i = 0; i < words.size(); ++i) {
    if (words[i] == "--filter" && i + 1 < words.size() && filter.empty()) {
      filter = words[++i];
    } else if (words[i] == "--delete" && i + 1 < words.size() && kind == 0) {
      const std::string &what = words[++i];
      kind = what == "quota" ? 1 : what == "flow" ? 2 : what == "both" ? 3 : -1;
      if (kind < 0) return Error("--delete takes quota, flow or both, not " + Quoted(what));
    } else if (words[i].empty() || words[i][0] == '-' || words[i].size() > 255 ||
               words[i].find_first_of(" \t\r\n") != std::string::npos) {
      return Error("a user is one word of 1 to 255 bytes, not " + Quoted(words[i]));
    } else {
      users.push_back(words[i]);
    }
  }
  if (users.empty()) return Error("name the users whose counters to read or delete");
  if (kind > 0 && !filter.empty()) return Error("--filter and --delete don't go together");
  KOLT::QUILLON_SERVER::UsageMemcached usage;
  if (kind > 0) {
    if (usage.DeleteDomainUsageData(domain, users, kind) != 0) {
      return Error("the counters could not be removed (see the system log)");
    }
    return 0;
  }
  std::vector<Json::Value> rows;
  if (usage.GetDomainUsageData(domain, users, rows, filter) != 0) {
    return Error("the counters could not be read (see the system log)");
  }
  printf("user\tsent today\toutbound flow\n");
  for (const Json::Value &row : rows) {
    printf("%s\t%d\t%d\n", Field(row["name"].asString()).c_str(), row["sender_limit"].asInt(),
           row["flow_limit"].asInt());
  }
  return 0;
}

}  // namespace

int DomainUsageCommand(const std::vector<std::string> &args) {
  if (args.size() < 2) return Usage();
  const std::string &word = args[0];
  const std::string &domain = args[1];
  if (word != "show" && word != "set" && word != "counters") {
    return Error("unknown word " + Quoted(word) + ": domain-usage takes show, set or counters");
  }
  if (word == "counters") {
    if (!ValidDomainName(domain)) return Error(Quoted(domain) + " is not a domain name");
    return Counters(domain, std::vector<std::string>(args.begin() + 2, args.end()));
  }
  const int id = DomainId(domain);
  if (id < 0) {
    return Error(Quoted(domain) + " is not a domain of the multi-domain map (virtual_multiple_domain)");
  }
  if (word == "show") return args.size() == 2 ? Show(id, domain) : Usage();
  if (args.size() < 4 || args.size() % 2 != 0) return Usage();
  return Set(id, std::vector<std::string>(args.begin() + 2, args.end()));
}

}  // namespace mailserverctl
