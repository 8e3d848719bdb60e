#include "mailserverctl/access_commands.h"

#include <regex.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <list>

#include "foundation/mailserver_db_schema.h"
#include "mailserverctl/error.h"
#include "mailserverctl/list_input.h"
#include "security/access.h"

namespace mailserverctl {
namespace {

// No access map the suite writes comes near this.
constexpr size_t kMaxMap = 64 * 1024 * 1024;
// What the map would read as part of a regular expression rather than as the name's own.
const char kRegexpCharacters[] = "\\^$|?+()[]{}";

int Usage() {
  fprintf(stderr,
          "usage: mailserverctl access add from|to|client [account|address|domain] NAME "
          "OK|REJECT|DISCARD\n"
          "       mailserverctl access del from|to|client [account|address|domain] NAME\n"
          "       mailserverctl access list [all|sender|recipient|client] [PATTERN] [--offset N] "
          "[--limit N]\n"
          "       mailserverctl access import|export from|to|client FILE\n");
  return 2;
}

Access *Instance() {
  Access *access = Access::getInstance(kMailServerDBPath);
  if (access == nullptr) Error("cannot open the access table (see the system log)");
  return access;
}

const char *SideWord(int type) {
  switch (type) {
    case TYPE_FROM: return "sender";
    case TYPE_TO: return "recipient";
    case TYPE_CLIENT: return "client";
    default: return "?";
  }
}

std::string UnknownSide(const std::string &word) {
  return "unknown word " + Quoted(word) + ": a side is from, to or client";
}

// The row of "SIDE [KIND] NAME", or an error message.
std::string ParseRow(const std::vector<std::string> &words, AccessInfo &row) {
  if (!mailserverctl::SideWord(words[0], row.type)) return UnknownSide(words[0]);
  row.name = words.back();
  if (words.size() == 3 && !KindWord(words[1], row.nameType)) {
    return "unknown word " + Quoted(words[1]) + ": a kind is account, address or domain";
  }
  if (words.size() == 2) {
    row.nameType = row.name.find('@') != std::string::npos ? NAME_TYPE_ADDRESS : NAME_TYPE_DOMAIN;
  }
  std::string why = ListNameRefusal(row.name);
  if (why.empty()) why = KindRefusal(row.type, row.nameType, row.name);
  if (why.empty() && row.name.find_first_of(kRegexpCharacters) != std::string::npos) {
    why = "refused name " + Quoted(row.name) + ": the map is made of regular expressions, so a " +
          "name can't hold any of " + kRegexpCharacters;
  }
  return why;
}

// The row stored under the key of `row`: 1 and its status, 0 when there is none, -1 when the
// table can't be read.
int Stored(Access &access, const AccessInfo &row, AccessStatus &status) {
  // The name is matched as a piece of the names: the exact one is picked from what comes back.
  const Access::Filter filter{0, -1, SideWord(row.type), row.name};
  if (access.getTotalAccessNum(filter) < 0) return -1;
  for (const AccessInfo &each : access.getAllAccessList(filter)) {
    if (each.name == row.name && each.nameType == row.nameType && each.type == row.type) {
      status = each.status;
      return 1;
    }
  }
  return 0;
}

int AddOrDelete(const std::vector<std::string> &args) {
  const bool add = args[0] == "add";
  if (args.size() < (add ? 4u : 3u) || args.size() > (add ? 5u : 4u)) return Usage();
  AccessInfo row{};
  const std::vector<std::string> words(args.begin() + 1, args.end() - (add ? 1 : 0));
  std::string why = ParseRow(words, row);
  if (why.empty() && add) {
    row.status = Access::StrToStatus(args.back().c_str());
    if (row.status == ACCESS_UNKNOWN) {
      why = "unknown word " + Quoted(args.back()) + ": a status is OK, REJECT or DISCARD";
    }
  }
  if (!why.empty()) return Error(why + (add ? "; nothing was added" : "; nothing was deleted"));
  Access *access = Instance();
  if (access == nullptr) return 1;
  AccessStatus before = ACCESS_UNKNOWN;
  const int stored = Stored(*access, row, before);
  if (stored < 0) return Error("cannot read the access table (see the system log)");
  if (add) {
    if (access->setAccess({row}) != 0) {
      return Error(Quoted(row.name) + " was not added (see the system log); nothing was changed");
    }
    if (stored == 1 && before != row.status) {
      printf("%s: %s, was %s\n", row.name.c_str(), Access::StatusToStr(row.status),
             Access::StatusToStr(before));
    }
    return 0;
  }
  if (stored == 0) {
    return Error("refused: there is no " + std::string(KindName(row.nameType)) + " " +
                 Quoted(row.name) + " for the " + SideWord(row.type) + "; nothing was deleted");
  }
  if (access->deleteAccess({row}) != 0) {
    return Error(Quoted(row.name) + " was not deleted (see the system log)");
  }
  return 0;
}

int List(const std::vector<std::string> &args) {
  Access::Filter filter{0, -1, "all", ""};
  std::vector<std::string> rest;
  std::string why = ParsePaging(args, 1, filter.offset, filter.limit, rest);
  if (!why.empty()) return Error(why);
  if (rest.size() > 2) return Usage();
  if (!rest.empty()) {
    if (rest[0] != "all" && rest[0] != "sender" && rest[0] != "recipient" && rest[0] != "client") {
      return Error("unknown word " + Quoted(rest[0]) +
                   ": access list takes all, sender, recipient or client");
    }
    filter.type = rest[0];
  }
  if (rest.size() == 2) {
    why = PatternRefusal(rest[1]);
    if (!why.empty()) return Error(why);
    filter.name = rest[1];
  }
  // Without a name the table's filter drops the side; "%" matches every name and keeps it.
  if (filter.name.empty() && filter.type != "all") filter.name = "%";
  Access *access = Instance();
  if (access == nullptr) return 1;
  const int total = access->getTotalAccessNum(filter);
  if (total < 0) return Error("cannot read the access table (see the system log)");
  for (const AccessInfo &row : access->getAllAccessList(filter)) {
    printf("%-9s %-7s %-7s %s\n", SideWord(row.type), KindName(row.nameType),
           Access::StatusToStr(row.status), Shown(row.name).c_str());
  }
  printf("total: %d\n", total);
  return 0;
}

// Why the map of `text` can't be imported, or "": a line the import takes whose pattern is no
// regular expression would make the exported map unreadable, and with it every lookup of the
// mail daemon in it.
std::string MapRefusal(const std::string &path, const std::string &text) {
  size_t number = 0;
  for (size_t start = 0; start < text.size(); ++number) {
    size_t end = text.find('\n', start);
    if (end == std::string::npos) end = text.size();
    const std::string line = text.substr(start, end - start);
    start = end + 1;
    std::vector<std::string> words;
    for (size_t at = line.find_first_not_of(" \t\r"); at != std::string::npos;
         at = line.find_first_not_of(" \t\r", at)) {
      const size_t stop = std::min(line.find_first_of(" \t\r", at), line.size());
      words.push_back(line.substr(at, stop - at));
      at = stop;
    }
    if (words.size() != 2 || Access::StrToStatus(words[1].c_str()) == ACCESS_UNKNOWN) continue;
    std::string pattern = words[0];
    if (pattern.size() > 2 && pattern.front() == '/' && pattern.back() == '/') {
      pattern = pattern.substr(1, pattern.size() - 2);
    }
    regex_t compiled;
    if (pattern.size() > kMaxListName ||
        regcomp(&compiled, pattern.c_str(), REG_EXTENDED | REG_ICASE | REG_NOSUB) != 0) {
      return Quoted(path) + " line " + std::to_string(number + 1) + ": " + Quoted(words[0]) +
             " is no regular expression of at most " + std::to_string(kMaxListName) + " bytes";
    }
    regfree(&compiled);
  }
  return "";
}

int ImportOrExport(const std::vector<std::string> &args) {
  if (args.size() != 3) return Usage();
  Type type = TYPE_FROM;
  if (!mailserverctl::SideWord(args[1], type)) return Error(UnknownSide(args[1]));
  const std::string &path = args[2];
  if (args[0] == "export") {
    const std::string why = ExportPathRefusal(path);
    if (!why.empty()) return Error("refused " + why + "; nothing was written");
    Access *access = Instance();
    if (access == nullptr) return 1;
    if (access->exportAccess(type, path) != 0) {
      return Error("cannot write " + Quoted(path) + " (see the system log)");
    }
    return 0;
  }
  std::string text;
  std::string why = ReadImportText(path, kMaxMap, text);
  if (why.empty()) why = MapRefusal(path, text);
  if (!why.empty()) return Error(why + "; nothing was imported");
  Access *access = Instance();
  if (access == nullptr) return 1;
  const PrivateCopy copy(text);
  if (copy.path().empty())
    return Error(std::string("cannot copy the map aside: ") + strerror(errno));
  if (access->importAccess(type, copy.path()) != 0) {
    return Error("cannot import " + Quoted(path) + " (see the system log); nothing was imported");
  }
  return 0;
}

}  // namespace

int AccessCommand(const std::vector<std::string> &args) {
  const std::string word = args.empty() ? "" : args[0];
  if (word == "add" || word == "del") return AddOrDelete(args);
  if (word == "list") return List(args);
  if (word == "import" || word == "export") return ImportOrExport(args);
  if (word.empty()) return Usage();
  return Error("unknown word " + Quoted(word) + ": access takes add, del, list, import or export");
}

}  // namespace mailserverctl
