#include "mailserverctl/global_commands.h"

#include <cstdio>
#include <map>
#include <set>

#include "foundation/cidr.h"
#include "foundation/strings.h"
#include "mailserverctl/error.h"
#include "mailserverctl/log_options.h"
#include "tables/dkim_sign_whitelist.h"
#include "tables/global_access.h"

namespace mailserverctl {

namespace {

const std::map<std::string, GlobalAccessType> kTypes = {
    {"sender", GLOBAL_ACCESS_SENDER},
    {"network", GLOBAL_ACCESS_NETWORK},
    {"recipient", GLOBAL_ACCESS_RECIPIENT},
    {"helo", GLOBAL_ACCESS_HELO},
    {"client-name", GLOBAL_ACCESS_CLIENT_NAME}};

int Usage() {
  fprintf(stderr,
          "usage: mailserverctl global add black|white TYPE PATTERN [--description TEXT] "
          "[--action N] [--disabled]\n"
          "       mailserverctl global del black|white ID...\n"
          "       mailserverctl global list black|white [OPTION...]\n"
          "       mailserverctl dkim add NETWORK [--description TEXT] [--disabled]\n"
          "       mailserverctl dkim del ID...\n"
          "       mailserverctl dkim list [OPTION...]\n"
          "TYPE: sender, network, recipient, helo or client-name\n");
  return 2;
}

const char *TypeWord(int type) {
  for (const auto &entry : kTypes) {
    if (entry.second == type) return entry.first.c_str();
  }
  return "unknown";
}

// A pattern or description: one line of at most 200 bytes.
bool Line(const std::string &what, const std::string &text, bool mayBeEmpty, int *status) {
  if (mayBeEmpty && text.empty()) return true;
  return TextAcceptable(what, text, status);
}

bool Ids(const std::vector<std::string> &words, std::vector<int> *ids, int *status) {
  long long id;
  for (const std::string &word : words) {
    if (!Number(word, 2000000000, &id) || id == 0) {
      *status = Error("an id is a number from 1, not " + Quoted(word));
      return false;
    }
    ids->push_back(static_cast<int>(id));
  }
  if (ids->empty()) *status = Error("name the ids to delete");
  return !ids->empty();
}

// The paging and filter options both lists share.
struct ListOptions {
  int offset = 0;
  int limit = -1;
  int enabled = -1;
  std::string keyword;
};

bool ReadList(std::map<std::string, std::string> &options, ListOptions *list, int *status) {
  long long number;
  if (options.count("--offset") > 0) {
    if (!Number(options["--offset"], 2000000000, &number)) {
      *status = Error("--offset takes a number from 0, not " + Quoted(options["--offset"]));
      return false;
    }
    list->offset = static_cast<int>(number);
  }
  if (options.count("--limit") > 0) {
    if (!Number(options["--limit"], 100000, &number) || number == 0) {
      *status = Error("--limit takes a number from 1 to 100000, not " + Quoted(options["--limit"]));
      return false;
    }
    list->limit = static_cast<int>(number);
  }
  if (options.count("--enabled") > 0) {
    const std::string &word = options["--enabled"];
    if (word != "yes" && word != "no") {
      *status = Error("--enabled takes yes or no, not " + Quoted(word));
      return false;
    }
    list->enabled = word == "yes" ? 1 : 0;
  }
  if (options.count("--keyword") > 0) {
    if (!TextAcceptable("--keyword", options["--keyword"], status)) return false;
    list->keyword = options["--keyword"];
  }
  return true;
}

void PrintRow(int id, bool enabled, const char *type, const std::string &pattern,
              const std::string &description) {
  printf("%d\t%s\t%s\t%s\t%s\n", id, enabled ? "enabled" : "disabled", type,
         Field(pattern).c_str(), Field(description).c_str());
}

}  // namespace

int GlobalCommand(const std::vector<std::string> &args) {
  if (args.size() < 2) return Usage();
  const std::string &word = args[0];
  if (args[1] != "black" && args[1] != "white") {
    return Error("a global list is black or white, not " + Quoted(args[1]));
  }
  const bool black = args[1] == "black";
  int status = 1;
  GlobalAccess lists;
  // Every change reaches the other nodes when `lists` goes.
  lists.SetSyncFlag(true);
  if (word == "add") {
    if (args.size() < 4) return Usage();
    const auto type = kTypes.find(args[2]);
    if (type == kTypes.end()) return Error("unknown type " + Quoted(args[2]));
    std::map<std::string, std::string> options;
    if (!ReadOptions(std::vector<std::string>(args.begin() + 4, args.end()),
                     {"--description", "--action"}, {"--disabled"}, options, &status)) {
      return status;
    }
    GlobalAccessItem item;
    item.type = type->second;
    item.pattern = args[3];
    item.description = options["--description"];
    item.enabled = options.count("--disabled") == 0;
    long long action = 0;
    if (options.count("--action") > 0 && !Number(options["--action"], 1000000, &action)) {
      return Error("--action takes a number from 0, not " + Quoted(options["--action"]));
    }
    item.action = static_cast<int>(action);
    std::string cidr;
    if (!Line("the pattern", item.pattern, false, &status) ||
        !Line("--description", item.description, true, &status)) {
      return status;
    }
    if (item.type == GLOBAL_ACCESS_NETWORK && convertToCIDR(item.pattern, cidr) != 0) {
      return Error(Quoted(item.pattern) + " is no network (an address, or one with /prefix or "
                   "/netmask, never /0)");
    }
    if ((black ? lists.AddBlacklist(item) : lists.AddWhitelist(item)) != 0) {
      return Error("the item was not added (see the system log)");
    }
    return 0;
  }
  if (word == "del") {
    std::vector<int> ids;
    if (!Ids(std::vector<std::string>(args.begin() + 2, args.end()), &ids, &status)) return status;
    for (const int id : ids) {
      if ((black ? lists.DeleteBlacklist(id) : lists.DeleteWhitelist(id)) != 0) {
        return Error("item " + std::to_string(id) + " was not deleted (see the system log)");
      }
    }
    return 0;
  }
  if (word != "list") return Error("unknown word " + Quoted(word) + ": global takes add, del or list");
  std::map<std::string, std::string> options;
  ListOptions list;
  if (!ReadOptions(std::vector<std::string>(args.begin() + 2, args.end()),
                   {"--type", "--enabled", "--keyword", "--offset", "--limit"},
                   {"--cidr", "--punycode"}, options, &status) ||
      !ReadList(options, &list, &status)) {
    return status;
  }
  int mask = GLOBAL_ACCESS_ALL;
  if (options.count("--type") > 0) {
    mask = 0;
    for (const std::string &name : StringSplit(options["--type"].c_str(), ",")) {
      const auto type = kTypes.find(name);
      if (type == kTypes.end()) return Error("unknown type " + Quoted(name));
      mask |= type->second;
    }
  }
  std::vector<GlobalAccessItem> items;
  const int total =
      lists.Search(black ? "blacklist" : "whitelist", list.offset, list.limit, list.enabled,
                   static_cast<GlobalAccessType>(mask), list.keyword, items,
                   options.count("--cidr") > 0, options.count("--punycode") > 0);
  if (total < 0) return Error("the list could not be read (see the system log)");
  for (const GlobalAccessItem &item : items) {
    PrintRow(item.id, item.enabled, TypeWord(item.type), item.pattern, item.description);
  }
  printf("total: %d\n", total);
  return 0;
}

int DkimCommand(const std::vector<std::string> &args) {
  if (args.empty()) return Usage();
  const std::string &word = args[0];
  int status = 1;
  DKIMSignWhitelist whitelist;
  if (word == "add") {
    if (args.size() < 2) return Usage();
    std::map<std::string, std::string> options;
    if (!ReadOptions(std::vector<std::string>(args.begin() + 2, args.end()), {"--description"},
                     {"--disabled"}, options, &status)) {
      return status;
    }
    DKIMSignWhitelistItem item;
    item.pattern = args[1];
    item.description = options["--description"];
    item.enabled = options.count("--disabled") == 0;
    std::string cidr;
    if (!Line("--description", item.description, true, &status)) return status;
    if (convertToCIDR(item.pattern, cidr) != 0) {
      return Error(Quoted(item.pattern) + " is no network (an address, or one with /prefix or "
                   "/netmask, never /0)");
    }
    return whitelist.Add(item) == 0 ? 0 : Error("the network was not added (see the system log)");
  }
  if (word == "del") {
    std::vector<int> ids;
    if (!Ids(std::vector<std::string>(args.begin() + 1, args.end()), &ids, &status)) return status;
    for (const int id : ids) {
      if (whitelist.Delete(id) != 0) {
        return Error("item " + std::to_string(id) + " was not deleted (see the system log)");
      }
    }
    return 0;
  }
  if (word != "list") return Error("unknown word " + Quoted(word) + ": dkim takes add, del or list");
  std::map<std::string, std::string> options;
  ListOptions list;
  if (!ReadOptions(std::vector<std::string>(args.begin() + 1, args.end()),
                   {"--enabled", "--keyword", "--offset", "--limit"}, {"--cidr"}, options,
                   &status) ||
      !ReadList(options, &list, &status)) {
    return status;
  }
  std::vector<DKIMSignWhitelistItem> items;
  const int total = whitelist.Search(list.offset, list.limit, list.enabled, list.keyword, items,
                                     options.count("--cidr") > 0);
  if (total < 0) return Error("the list could not be read (see the system log)");
  for (const DKIMSignWhitelistItem &item : items) {
    PrintRow(item.id, item.enabled, "network", item.pattern, item.description);
  }
  printf("total: %d\n", total);
  return 0;
}

}  // namespace mailserverctl
