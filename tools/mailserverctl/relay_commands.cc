#include "mailserverctl/relay_commands.h"

#include <arpa/inet.h>

#include <cstdio>
#include <iostream>
#include <list>

#include "foundation/cidr.h"
#include "tables/relay_client.h"  // RelayHost
#include "tables/relay_host.h"    // RelayClient
#include "mailserverctl/error.h"
#include "mailserverctl/names.h"

namespace mailserverctl {
namespace {

constexpr size_t kMaxSecret = 200;  // what the settings cipher takes

int Usage() {
  fprintf(stderr,
          "usage: mailserverctl relay host mode none|single|multiple\n"
          "       mailserverctl relay host set SERVER PORT [OPTION...]\n"
          "       mailserverctl relay host add sender|recipient SERVER PORT RULE... [OPTION...]\n"
          "       mailserverctl relay host del|enable|disable SERVICE\n"
          "       mailserverctl relay host list\n"
          "       mailserverctl relay client add network|domain PATTERN [DESCRIPTION]\n"
          "       mailserverctl relay client del|enable|disable network|domain PATTERN\n"
          "       mailserverctl relay client list\n"
          "       mailserverctl relay export\n"
          "options: --tls --auth NAME PASSWORD|- --description TEXT --disabled\n");
  return 2;
}

int Unchanged(const std::string &what, const std::string &why) {
  return Error("refused " + what + ": " + why + "; nothing was changed");
}

bool ValidServer(const std::string &server) {
  unsigned char address[16];
  return inet_pton(AF_INET, server.c_str(), address) == 1 ||
         inet_pton(AF_INET6, server.c_str(), address) == 1 || ValidDomainName(server);
}

bool ValidAddress(const std::string &address) {
  const size_t at = address.rfind('@');
  if (at == std::string::npos || at == 0) return false;
  for (size_t i = 0; i < at; ++i) {
    if (static_cast<unsigned char>(address[i]) <= ' ' || address[i] == '#') return false;
  }
  return ValidDomainName(address.substr(at + 1));
}

Json::Value HostJson(const RelayHostInfo &host) {
  Json::Value json;
  json["server"] = host.server;
  json["port"] = host.port < 0 ? 0u : static_cast<unsigned>(host.port);
  json["security_connection"] = host.security_connection;
  json["enable_auth"] = host.enable_auth;
  json["auth_name"] = host.auth_name;
  json["auth_password"] = host.auth_password;
  json["service_name"] = host.service_name;
  json["enable"] = host.enabled;
  json["description"] = host.description;
  json["rule_list"] = Json::Value(Json::arrayValue);
  for (const RelayHostInfo::Rule &rule : host.rules) {
    Json::Value item;
    item["pattern"] = rule.pattern;
    item["rule_type"] = rule.rule_type;
    json["rule_list"].append(item);
  }
  return json;
}

// SERVER PORT and the options after the first "--" word, into `host`; the words between are
// the rules (`rules` null: none allowed). An error message, or "" when all is well.
std::string ParseHost(const std::vector<std::string> &args, size_t from, RelayHostInfo &host,
                      std::vector<std::string> *rules) {
  if (args.size() < from + 2) return "usage";
  host.server = args[from];
  if (!ValidServer(host.server)) {
    return "relay host \"" + host.server + "\": a host is a domain name or an IP address";
  }
  if (!ParsePort(args[from + 1], host.port)) {
    return "port \"" + args[from + 1] + "\": a port is a number from 1 to 65535";
  }
  size_t i = from + 2;
  for (; i < args.size() && args[i].rfind("--", 0) != 0; ++i) {
    if (rules == nullptr) return "usage";
    rules->push_back(args[i]);
  }
  for (; i < args.size(); ++i) {
    const bool hasValue = i + 1 < args.size();
    if (args[i] == "--tls") {
      host.security_connection = true;
    } else if (args[i] == "--disabled") {
      host.enabled = false;
    } else if (args[i] == "--description" && hasValue) {
      host.description = args[++i];
    } else if (args[i] == "--auth" && i + 2 < args.size()) {
      host.enable_auth = true;
      host.auth_name = args[++i];
      host.auth_password = args[++i];
      if (host.auth_password == "-" && !std::getline(std::cin, host.auth_password)) {
        return "password: nothing to read on stdin";
      }
    } else {
      return "usage";
    }
  }
  if (host.enable_auth) {
    // The password map line is "[host]:port name:password": the name ends at the first ':'.
    if (host.auth_name.empty() || host.auth_name.find_first_of(": \t\n") != std::string::npos ||
        host.auth_name.size() > kMaxSecret) {
      return "user name \"" + host.auth_name + "\": it must be non-empty, without blanks or ':'";
    }
    if (host.auth_password.empty() || host.auth_password.find('\n') != std::string::npos ||
        host.auth_password.size() > kMaxSecret) {
      return "password: it must be 1 to 200 bytes on one line";
    }
  }
  return "";
}

// This server's own names as a relay would send every mail back here.
bool OwnName(const std::string &server) {
  RelayHost relay;
  return relay.LoadSettings() == 0 && !relay.validHostName(server);
}

int HostMode(const std::string &mode) {
  if (mode != "none" && mode != "single" && mode != "multiple") return Usage();
  Json::Value type;
  type["host_type"] = mode;
  if (RelayHost().setRelayHostType(type) != 0)
    return Error("the relay mode was not saved (see the system log)");
  return 0;
}

int HostSetSingle(const std::vector<std::string> &args) {
  RelayHostInfo host;
  const std::string problem = ParseHost(args, 2, host, nullptr);
  if (problem == "usage") return Usage();
  if (!problem.empty()) return Error("refused " + problem + "; nothing was changed");
  if (OwnName(host.server)) {
    return Unchanged("relay host \"" + host.server + "\"",
                     "it is this server's own host name or domain");
  }
  Json::Value json = HostJson(host);
  if (RelayHost().setSingleRelayHost(json) != 0)
    return Error("the relay host was not saved (see the system log)");
  return 0;
}

int HostAdd(const std::vector<std::string> &args) {
  if (args.size() < 3 || (args[2] != "sender" && args[2] != "recipient")) return Usage();
  const std::string listType = args[2];
  RelayHostInfo host;
  std::vector<std::string> rules;
  const std::string problem = ParseHost(args, 3, host, &rules);
  if (problem == "usage") return Usage();
  if (!problem.empty()) return Error("refused " + problem + "; nothing was changed");
  if (rules.empty()) return Unchanged("relay host " + host.server, "it needs at least one rule");
  for (const std::string &rule : rules) {
    const bool address = rule.find('@') != std::string::npos;
    if (address ? !ValidAddress(rule) : !ValidDomainName(rule)) {
      return Unchanged("rule \"" + rule + "\"", "a rule is a domain or an address");
    }
    host.rules.push_back({address ? "address" : "domain", rule});
  }
  if (OwnName(host.server)) {
    return Unchanged("relay host \"" + host.server + "\"",
                     "it is this server's own host name or domain");
  }
  std::list<RelayHostInfo> hosts;
  if (RelayHost().getRelayHost(listType, hosts) != 0)
    return Error("cannot read the relay hosts (see the system log)");
  hosts.push_back(host);
  Json::Value list(Json::arrayValue);
  for (const RelayHostInfo &each : hosts) list.append(HostJson(each));
  if (RelayHost().setRelayHost(listType, list) != 0)
    return Error("the relay hosts were not saved (see the system log)");
  printf("%s\n", list[list.size() - 1]["service_name"].asString().c_str());
  return 0;
}

// del, enable or disable of the host named by its service.
int HostChange(const std::string &word, const std::string &service) {
  std::string listType;
  if (service.rfind("relay-sender", 0) == 0) listType = "sender";
  if (service.rfind("relay-recipient", 0) == 0) listType = "recipient";
  std::list<RelayHostInfo> hosts;
  if (listType.empty())
    return Unchanged("\"" + service + "\"", "see `relay host list` for the services");
  if (RelayHost().getRelayHost(listType, hosts) != 0)
    return Error("cannot read the relay hosts (see the system log)");
  Json::Value list(Json::arrayValue);
  bool found = false;
  for (RelayHostInfo &host : hosts) {
    if (host.service_name == service) {
      found = true;
      if (word == "del") continue;
      host.enabled = word == "enable";
    }
    list.append(HostJson(host));
  }
  if (!found) return Unchanged("\"" + service + "\"", "no relay host has this service");
  if (RelayHost().setRelayHost(listType, list) != 0)
    return Error("the relay hosts were not saved (see the system log)");
  return 0;
}

void PrintHost(const RelayHostInfo &host) {
  printf("%-18s %s:%d%s%s%s%s\n", host.service_name.empty() ? "-" : host.service_name.c_str(),
         host.server.c_str(), host.port, host.enabled ? "" : " disabled",
         host.security_connection ? " tls" : "",
         host.enable_auth ? (" auth " + host.auth_name).c_str() : "",
         host.description.empty() ? "" : (" \"" + host.description + "\"").c_str());
  for (const RelayHostInfo::Rule &rule : host.rules) {
    printf("%-18s   %s %s\n", "", rule.rule_type.c_str(), rule.pattern.c_str());
  }
}

int HostList() {
  std::string mode;
  RelayHostInfo single;
  bool isEmpty = true;
  std::list<RelayHostInfo> senders;
  std::list<RelayHostInfo> recipients;
  if (RelayHost().getRelayHostType(mode) != 0 ||
      RelayHost().getSingleRelayHost(single, isEmpty) != 0 ||
      RelayHost().getRelayHost("sender", senders) != 0 ||
      RelayHost().getRelayHost("recipient", recipients) != 0) {
    return Error("cannot read the relay hosts (see the system log)");
  }
  printf("mode: %s\n", mode.c_str());
  printf("single:\n");
  if (!isEmpty) PrintHost(single);
  printf("sender:\n");
  for (const RelayHostInfo &host : senders) PrintHost(host);
  printf("recipient:\n");
  for (const RelayHostInfo &host : recipients) PrintHost(host);
  return 0;
}

Json::Value ClientJson(const std::list<RelayClientInfo> &entries) {
  Json::Value list(Json::arrayValue);
  for (const RelayClientInfo &entry : entries) {
    Json::Value item;
    item["pattern"] = entry.pattern;
    item["enable"] = entry.enabled;
    item["description"] = entry.description;
    list.append(item);
  }
  return list;
}

int ClientCommand(const std::vector<std::string> &args) {
  if (args.size() == 2 && args[1] == "list") {
    for (const char *listType : {"network", "domain"}) {
      std::list<RelayClientInfo> entries;
      if (RelayClient().getRelayClient(listType, entries) != 0) {
        return Error("cannot read the relay clients (see the system log)");
      }
      printf("%s:\n", listType);
      for (const RelayClientInfo &entry : entries) {
        printf("  %-40s %s%s\n", entry.pattern.c_str(), entry.enabled ? "enabled" : "disabled",
               entry.description.empty() ? "" : ("  " + entry.description).c_str());
      }
    }
    return 0;
  }
  if (args.size() < 4 || (args[2] != "network" && args[2] != "domain")) return Usage();
  const std::string &word = args[1];
  const std::string &listType = args[2];
  const std::string &pattern = args[3];
  std::list<RelayClientInfo> entries;
  if (RelayClient().getRelayClient(listType, entries) != 0) {
    return Error("cannot read the relay clients (see the system log)");
  }
  bool found = false;
  for (auto it = entries.begin(); it != entries.end();) {
    if (it->pattern != pattern) {
      ++it;
      continue;
    }
    found = true;
    if (word == "del") {
      it = entries.erase(it);
      continue;
    }
    it->enabled = word == "enable";
    ++it;
  }
  if (word == "add" && args.size() <= 5) {
    std::string cidr;
    if (listType == "network" ? convertToCIDR(pattern, cidr) != 0 : !ValidDomainName(pattern)) {
      return Unchanged(listType + " \"" + pattern + "\"",
                       listType == "network"
                           ? "a network is an address, address/prefix or address/netmask"
                           : "a domain is a name of letters, digits, dots and hyphens");
    }
    if (found) return Unchanged(listType + " \"" + pattern + "\"", "it is in the list already");
    entries.push_back({pattern, true, args.size() == 5 ? args[4] : ""});
  } else if ((word == "del" || word == "enable" || word == "disable") && args.size() == 4) {
    if (!found) return Unchanged(listType + " \"" + pattern + "\"", "it is not in the list");
  } else {
    return Usage();
  }
  if (RelayClient().setRelayClient(listType, ClientJson(entries)) != 0) {
    return Error("the relay clients were not saved (see the system log)");
  }
  return 0;
}

int Export() {
  std::string mode;
  RelayHostInfo single;
  bool isEmpty = false;
  if (RelayHost().getRelayHostType(mode) == 0 && mode == "single" &&
      RelayHost().getSingleRelayHost(single, isEmpty) == 0 && isEmpty) {
    return Error("the relay mode is single, but no relay host is set (relay host set SERVER "
                 "PORT); nothing was written");
  }
  if (RelayHost().exportRelayMap() != 0) {
    return Error("the relay host maps were not all written (see the system log)");
  }
  if (RelayClient().exportRelayMap() != 0) {
    return Error(
        "the relay client tables were not written; the old ones stay (see the system "
        "log)");
  }
  return 0;
}

}  // namespace

int RelayCommand(const std::vector<std::string> &args) {
  if (args.size() == 1 && args[0] == "export") return Export();
  if (args.size() >= 2 && args[0] == "client") return ClientCommand(args);
  if (args.size() < 2 || args[0] != "host") return Usage();
  const std::string &word = args[1];
  if (word == "mode" && args.size() == 3) return HostMode(args[2]);
  if (word == "set") return HostSetSingle(args);
  if (word == "add") return HostAdd(args);
  if ((word == "del" || word == "enable" || word == "disable") && args.size() == 3) {
    return HostChange(word, args[2]);
  }
  if (word == "list" && args.size() == 2) return HostList();
  return Usage();
}

}  // namespace mailserverctl
