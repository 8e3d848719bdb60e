#include "mailserverctl/blackwhite_commands.h"

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <list>
#include <memory>

#include <json/json.h>

#include "foundation/files.h"
#include "foundation/mailserver_db_schema.h"
#include "mailserverctl/error.h"
#include "mailserverctl/list_input.h"
#include "security/list_document.h"
#include "security/spam.h"

namespace mailserverctl {
namespace {

// As much as the library reads of a document.
constexpr size_t kMaxDocument = 64 * 1024 * 1024;

int Usage() {
  BlackWhiteUsage();
  return 2;
}

const char *VerdictName(int verdict) {
  switch (verdict) {
    case BLACK_WHITE_BLACKLIST: return "black";
    case BLACK_WHITE_WHITELIST: return "white";
    case BLACK_WHITE_KNOWN: return "known";
    default: return "?";
  }
}

bool VerdictWord(const std::string &word, BlackWhiteType &verdict) {
  for (const BlackWhiteType each : {BLACK_WHITE_BLACKLIST, BLACK_WHITE_WHITELIST}) {
    if (word == VerdictName(each)) {
      verdict = each;
      return true;
    }
  }
  return false;
}

Spam *Instance() {
  Spam *spam = Spam::getInstance(kMailServerDBPath);
  if (spam == nullptr) Error("cannot open the black and white list (see the system log)");
  return spam;
}

// The row stored under the key of `row` (its side, kind and name), whatever its verdict: 1 and
// `found`, 0 when there is none, -1 when the list can't be read.
int Stored(Spam &spam, const BlackWhite &row, BlackWhite &found) {
  BlackWhiteFilter filter{0, -1, row.type, NAME_TYPE_ALL, BLACK_WHITE_KNOWN, "*", row.name};
  // The name is matched as a piece of the names: the exact one is picked from what comes back.
  if (spam.countQueryData(filter) < 0) return -1;
  for (const BlackWhite &each : spam.getBlackWhiteList(filter)) {
    if (each.name == row.name && each.nameType == row.nameType) {
      found = each;
      return 1;
    }
  }
  return 0;
}

// The row of the words "VERDICT SIDE KIND NAME", or an error message.
std::string ParseRow(const std::vector<std::string> &words, BlackWhite &row) {
  if (!VerdictWord(words[0], row.blackWhiteType)) {
    return "unknown word " + Quoted(words[0]) + ": a list is black or white";
  }
  if (!SideWord(words[1], row.type)) {
    return "unknown word " + Quoted(words[1]) + ": a side is from, to or client";
  }
  if (!KindWord(words[2], row.nameType)) {
    return "unknown word " + Quoted(words[2]) + ": a kind is account, address or domain";
  }
  row.name = words[3];
  std::string why = ListNameRefusal(row.name);
  if (why.empty()) why = KindRefusal(row.type, row.nameType, row.name);
  return why;
}

std::string ListWord(int verdict) { return std::string("the ") + VerdictName(verdict) + " list"; }

int Add(Spam &spam, const BlackWhite &row) {
  BlackWhite before{};
  const int stored = Stored(spam, row, before);
  if (stored < 0) return Error("cannot read the black and white list (see the system log)");
  if (spam.addBlackWhite(row) != 0) {
    return Error(Quoted(row.name) + " was not added (see the system log); nothing was changed");
  }
  if (stored == 1 && before.blackWhiteType != row.blackWhiteType) {
    printf("%s moved from %s to %s\n", row.name.c_str(), ListWord(before.blackWhiteType).c_str(),
           ListWord(row.blackWhiteType).c_str());
  }
  return 0;
}

int Delete(Spam &spam, const BlackWhite &row) {
  BlackWhite before{};
  const int stored = Stored(spam, row, before);
  if (stored < 0) return Error("cannot read the black and white list (see the system log)");
  if (stored == 0 || before.blackWhiteType != row.blackWhiteType) {
    return Error("refused: " + Quoted(row.name) + " is not on " + ListWord(row.blackWhiteType) +
                 " as " + KindName(row.nameType) + " of the side " + SideName(row.type) +
                 "; nothing was deleted");
  }
  if (spam.deleteBlackWhite(row) != 0) {
    return Error(Quoted(row.name) + " was not deleted (see the system log)");
  }
  return 0;
}

int List(const std::vector<std::string> &args) {
  BlackWhiteFilter filter{0, -1, TYPE_ALL, NAME_TYPE_ALL, BLACK_WHITE_KNOWN, "*", ""};
  std::vector<std::string> rest;
  std::string why = ParsePaging(args, 1, filter.offset, filter.limit, rest);
  if (!why.empty()) return Error(why);
  bool haveType = false, haveVerdict = false, haveName = false;
  for (size_t i = 0; i < rest.size(); i += 2) {
    const std::string &option = rest[i];
    bool *seen = option == "--type"      ? &haveType
                 : option == "--verdict" ? &haveVerdict
                 : option == "--name"    ? &haveName
                                         : nullptr;
    if (seen == nullptr) {
      return Error("unknown word " + Quoted(option) +
                   ": spam blackwhite list takes --type, --verdict, --name, --offset and --limit");
    }
    if (*seen) return Error(option + " is given twice");
    *seen = true;
    if (i + 1 == rest.size()) return Error(option + " needs a value");
    const std::string &value = rest[i + 1];
    if (option == "--type" && !SideWord(value, filter.type)) {
      return Error("unknown word " + Quoted(value) + ": a side is from, to or client");
    }
    if (option == "--verdict" && !VerdictWord(value, filter.blackWhiteType)) {
      return Error("unknown word " + Quoted(value) + ": a list is black or white");
    }
    if (option == "--name") {
      why = PatternRefusal(value);
      if (!why.empty()) return Error(why);
      filter.name = value;
    }
  }
  Spam *spam = Instance();
  if (spam == nullptr) return 1;
  const int total = spam->countQueryData(filter);
  if (total < 0) return Error("cannot read the black and white list (see the system log)");
  for (const BlackWhite &row : spam->getBlackWhiteList(filter)) {
    printf("%-5s %-6s %-7s %s\n", VerdictName(row.blackWhiteType), SideName(row.type),
           KindName(row.nameType), Shown(row.name).c_str());
  }
  printf("total: %d\n", total);
  return 0;
}

// Why the document of `text` can't be imported, or "": the library would refuse its shape, or a
// name would be refused by `add`.
std::string DocumentRefusal(const std::string &path, const std::string &text, size_t &names) {
  Json::CharReaderBuilder builder;
  std::unique_ptr<Json::CharReader> reader(builder.newCharReader());
  Json::Value doc;
  std::string errors;
  if (!reader->parse(text.data(), text.data() + text.size(), &doc, &errors)) {
    return Quoted(path) + " is no JSON document";
  }
  std::list<BlackWhite> rows;
  if (!ListDocumentRows(doc, rows)) {
    return Quoted(path) +
           " is not of the form {\"blacklist\": {\"from\": {\"address\": [NAME, ...], "
           "...}, ...}, ...}";
  }
  for (const BlackWhite &row : rows) {
    std::string why = ListNameRefusal(row.name);
    // The document keeps clients among the recipients: an address there may be a client's.
    const bool maybeClient = row.type == TYPE_TO && row.nameType == NAME_TYPE_ADDRESS;
    if (why.empty() && !maybeClient) why = KindRefusal(row.type, row.nameType, row.name);
    if (!why.empty()) return Quoted(path) + ": " + why;
  }
  names = rows.size();
  return "";
}

int Import(const std::vector<std::string> &args) {
  const bool json = args.size() == 3 && args[1] == "--json";
  const bool old = args.size() == 4 && args[1] == "--old";
  if (!json && !old) return Usage();
  BlackWhiteType verdict = BLACK_WHITE_BLACKLIST;
  if (old && !VerdictWord(args[2], verdict)) {
    return Error("unknown word " + Quoted(args[2]) + ": a list is black or white");
  }
  const std::string &path = args.back();
  std::string text;
  std::string why = ReadImportText(path, kMaxDocument, text);
  size_t names = 0;
  if (why.empty() && json) why = DocumentRefusal(path, text, names);
  if (!why.empty()) return Error(why + "; nothing was imported");
  Spam *spam = Instance();
  if (spam == nullptr) return 1;
  const PrivateCopy copy(text);
  if (copy.path().empty())
    return Error(std::string("cannot copy the list aside: ") + strerror(errno));
  const int rc =
      json ? spam->importBlackWhite(copy.path()) : spam->importOldBlackWhite(verdict, copy.path());
  if (rc != 0)
    return Error("cannot import " + Quoted(path) + " (see the system log); nothing was imported");
  if (json) printf("imported %zu names\n", names);
  return 0;
}

int Export(const std::vector<std::string> &args) {
  const bool regexp = args.size() == 3 && args[2] == "--regexp";
  if (args.size() != 2 && !regexp) return Usage();
  const std::string &path = args[1];
  const std::string why = ExportPathRefusal(path);
  if (!why.empty()) return Error("refused " + why + "; nothing was written");
  Spam *spam = Instance();
  if (spam == nullptr) return 1;
  int rc = 0;
  if (regexp) {
    Json::Value out;
    rc = spam->exportBlackWhite(out, true);
    if (rc == 0) rc = WriteWholeFile(path, Json::StyledWriter().write(out));
  } else {
    rc = spam->exportBlackWhite(path);
  }
  if (rc != 0) return Error("cannot write " + Quoted(path) + " (see the system log)");
  return 0;
}

}  // namespace

void BlackWhiteUsage() {
  fprintf(stderr,
          "       mailserverctl spam blackwhite add|del black|white from|to|client "
          "account|address|domain NAME\n"
          "       mailserverctl spam blackwhite list [--type from|to|client] "
          "[--verdict black|white] [--name PATTERN] [--offset N] [--limit N]\n"
          "       mailserverctl spam blackwhite import --json FILE\n"
          "       mailserverctl spam blackwhite import --old black|white FILE\n"
          "       mailserverctl spam blackwhite export FILE [--regexp]\n");
}

int BlackWhiteCommand(const std::vector<std::string> &args) {
  const std::string word = args.empty() ? "" : args[0];
  if ((word == "add" || word == "del") && args.size() == 5) {
    BlackWhite row{};
    const std::string why = ParseRow({args.begin() + 1, args.end()}, row);
    if (!why.empty()) {
      return Error(why + (word == "add" ? "; nothing was added" : "; nothing was deleted"));
    }
    Spam *spam = Instance();
    if (spam == nullptr) return 1;
    return word == "add" ? Add(*spam, row) : Delete(*spam, row);
  }
  if (word == "list") return List(args);
  if (word == "import") return Import(args);
  if (word == "export") return Export(args);
  if (word == "add" || word == "del" || word.empty()) return Usage();
  return Error("unknown word " + Quoted(word) +
               ": spam blackwhite takes add, del, list, import or export");
}

}  // namespace mailserverctl
