#include "mailserverctl/alias_commands.h"

#include <fcntl.h>
#include <strings.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cctype>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <list>
#include <sstream>

#include "config/postfix.h"
#include "foundation/utf8.h"
#include "kolt/user.h"
#include "tables/alias.h"
#include "mailserverctl/error.h"

namespace mailserverctl {
namespace {

const char kAliasDB[] = "/var/packages/Quillon-Server/etc/alias.db";

// The number of a served domain: from the map of numbered domains, or 1 for the server's first
// domain when it keeps no such map.
bool DomainNumber(const std::string &name, int &id) {
  Postfix postfix;
  // A damaged store throws: that is no answer to whether the domain is served.
  if (postfix.LoadSettings() < 0) return false;
  if (postfix.GetDomainId(name, id)) return true;
  const auto &canonical = postfix.GetCanonicalDomain();
  if (postfix.GetMultiDomainMap().empty() && !canonical.empty() && canonical.front() == name) {
    id = 1;
    return true;
  }
  return false;
}

bool IsReserved(const std::string &name) {
  for (const char *reserved : {"postmaster", "mailer-daemon", "root"}) {
    if (strcasecmp(name.c_str(), reserved) == 0) return true;
  }
  return false;
}

// A name that stands whole on either side of a map line.
bool PlainName(const std::string &name) {
  if (name.empty() || name.size() > 255 || !checkValidUtf8(name) || name[0] == '#') return false;
  for (unsigned char c : name) {
    if (isspace(c) || iscntrl(c) || c == ':' || c == ',' || c == '"') return false;
  }
  return true;
}

bool AliasExists(Alias &table, int domain, const std::string &name) {
  std::list<DomainAlias> aliases;
  table.getDomainAliasList(domain, aliases);
  for (const DomainAlias &alias : aliases) {
    if (alias.alias == name) return true;
  }
  return false;
}

// user:NAME, group:NAME, alias:NAME, an address, or a plain user name; each must exist.
bool ParseMember(Alias &table, int domain, const std::string &word, MemberInfo &member,
                 std::string &why) {
  const size_t colon = word.find(':');
  const std::string kind = colon == std::string::npos ? "" : word.substr(0, colon);
  std::string name = colon == std::string::npos ? word : word.substr(colon + 1);
  if (!PlainName(name)) {
    why = "\"" + word + "\" is no valid member name";
    return false;
  }
  if (kind == "group") {
    KOLTGROUP *group = nullptr;
    if (KOLTGroupGet(name.c_str(), &group) < 0) {
      why = "there is no group " + name;
      return false;
    }
    KOLTGroupFree(group);
    member = {name, MEMBER_GROUP};
  } else if (kind == "alias") {
    if (!AliasExists(table, domain, name)) {
      why = "there is no alias " + name + " in this domain";
      return false;
    }
    member = {name, MEMBER_ALIAS};
  } else if (kind.empty() && name.find('@') != std::string::npos) {
    const size_t at = name.find('@');
    if (at == 0 || at + 1 == name.size() || name.find('@', at + 1) != std::string::npos) {
      why = "\"" + name + "\" is no mail address";
      return false;
    }
    member = {name, MEMBER_EMAIL};
  } else if (kind.empty() || kind == "user") {
    char real[493] = {0};
    if (KLIBUserRealNameGet(name.c_str(), real, sizeof(real), 0) != 0) {
      why = "there is no user " + name;
      return false;
    }
    member = {real, MEMBER_USER};
  } else {
    why = "unknown member kind \"" + kind + "\" (user, group or alias)";
    return false;
  }
  return true;
}

const char *KindName(MemberType type) {
  switch (type) {
    case MEMBER_USER: return "user";
    case MEMBER_GROUP: return "group";
    case MEMBER_ALIAS: return "alias";
    default: return "address";
  }
}

int Saved(Alias &table) {
  if (table.save() != 0) {
    return Error("the change was made on this node but did not reach the cluster (see the "
                 "system log)");
  }
  return 0;
}

// Why `path` can't be the file of `alias export` or `alias import`, or "". Only an absolute path
// says which file it is; what lies there must be a regular file, not a link (the export writes
// through it as root), a device or a FIFO (the import would read it without end, or wait).
std::string MapPathRefusal(const std::string &path, bool mustExist) {
  if (path.empty() || path[0] != '/') return Quoted(path) + " is no absolute path";
  struct stat st;
  if (lstat(path.c_str(), &st) != 0) {
    return mustExist || errno != ENOENT ? "cannot read " + Quoted(path) + ": " + strerror(errno)
                                        : "";
  }
  return S_ISREG(st.st_mode) ? "" : Quoted(path) + " is no regular file";
}

// Reads the next line of `in` into `line`, without its newline. 1 for a line, 0 at the end, -1
// for a line longer than the import takes.
int NextLine(FILE *in, std::string &line) {
  line.clear();
  int c;
  while ((c = getc_unlocked(in)) != EOF && c != '\n') {
    if (line.size() == Alias::kMaxImportLine) return -1;
    line.push_back(static_cast<char>(c));
  }
  return c == EOF && line.empty() ? 0 : 1;
}

// Whether `path` reads as an alias map line by line; `why` names the first line that doesn't.
bool CheckMapFile(const std::string &path, std::string &why) {
  why = MapPathRefusal(path, true);
  if (!why.empty()) return false;
  // Looked at again once open, in case something else was put at the path meanwhile.
  const int fd = open(path.c_str(), O_RDONLY | O_CLOEXEC | O_NONBLOCK | O_NOCTTY | O_NOFOLLOW);
  struct stat st;
  FILE *in = fd >= 0 && fstat(fd, &st) == 0 && S_ISREG(st.st_mode) ? fdopen(fd, "r") : nullptr;
  if (in == nullptr) {
    why = "cannot read " + Quoted(path) + " as a regular file";
    if (fd >= 0) close(fd);
    return false;
  }
  std::string line;
  int got;
  for (int number = 1; (got = NextLine(in, line)) > 0; ++number) {
    const std::string where = path + ":" + std::to_string(number) + ": ";
    if (line.find('\0') != std::string::npos || !checkValidUtf8(line)) {
      why = where + "not UTF-8 text";
      break;
    }
    std::string text;
    for (char c : line) {
      if (!isspace(static_cast<unsigned char>(c))) text += c;
    }
    if (text.empty() || text[0] == '#') continue;
    const size_t colon = text.find(':');
    if (colon == std::string::npos) {
      why = where + "no \"name: members\" line";
      break;
    }
    const std::string name = text.substr(0, colon);
    const std::string members = text.substr(colon + 1);
    if (!PlainName(name) || members.find_first_not_of(',') == std::string::npos) {
      why = where + "an entry needs a name and at least one member";
      break;
    }
    std::stringstream pieces(members);
    for (std::string piece; why.empty() && std::getline(pieces, piece, ',');) {
      if (!piece.empty() && !PlainName(piece)) {
        why = where + Quoted(piece) + " is no valid member name";
      }
    }
    if (!why.empty()) break;
  }
  if (got < 0) {
    why = path + ": a line is longer than " + std::to_string(Alias::kMaxImportLine) + " bytes";
  }
  fclose(in);
  return why.empty();
}

}  // namespace

int AliasCommand(const std::vector<std::string> &args) {
  if (args.size() < 3) return Error("alias takes add, del, members, expand, export or import, a "
                                    "domain and an alias or a path");
  const std::string &word = args[0];
  int domain = 0;
  if (!DomainNumber(args[1], domain)) {
    return Error("\"" + args[1] + "\" is not a domain of this server; nothing was changed");
  }
  Alias table(kAliasDB);
  if (table.getError() != 0 || table.load() != 0) {
    return Error("the alias database cannot be opened (see the system log)");
  }
  const std::string &target = args[2];
  const std::vector<std::string> rest(args.begin() + 3, args.end());

  if (word == "export" && rest.empty()) {
    const std::string why = MapPathRefusal(target, false);
    if (!why.empty()) return Error("refused " + why + "; nothing was written");
    if (table.ExportAlias(target, domain) != 0) return Error("cannot write " + Quoted(target));
    return 0;
  }
  if (word == "import" && rest.empty()) {
    std::string why;
    if (!CheckMapFile(target, why)) return Error(why + "; nothing was imported");
    if (table.ImportAlias(target, domain) != 0) {
      return Error("cannot import " + Quoted(target) + " (see the system log); nothing was "
                   "imported");
    }
    return Saved(table);
  }

  const bool exists = AliasExists(table, domain, target);
  if (word == "add" && !rest.empty()) {
    if (!PlainName(target) || IsReserved(target)) {
      return Error("refused alias name \"" + target + "\": postmaster, mailer-daemon and root " +
                   "are reserved, and a name has no blanks, ':' or ','; nothing was written");
    }
    std::list<MemberInfo> members;
    for (const std::string &each : rest) {
      MemberInfo member;
      std::string why;
      if (!ParseMember(table, domain, each, member, why)) {
        return Error(why + "; nothing was written");
      }
      members.push_back(member);
    }
    if (table.addMember({domain, target}, members) != 0) {
      return Error("adding to " + target + " failed (see the system log)");
    }
    return Saved(table);
  }
  if (!exists) return Error("there is no alias " + target + " in " + args[1]);

  if (word == "del") {
    if (rest.empty()) {
      table.delAlias({{domain, target}});
      if (table.getError() != 0) return Error("deleting " + target + " failed");
      return Saved(table);
    }
    std::list<MemberInfo> members;
    for (const std::string &each : rest) {
      MemberInfo member;
      std::string why;
      if (!ParseMember(table, domain, each, member, why) ||
          table.checkMemberExist({domain, target}, member) != 1) {
        return Error(each + " is not a member of " + target + "; nothing was deleted");
      }
      members.push_back(member);
    }
    if (table.delMember({domain, target}, members) != 0) {
      return Error("deleting from " + target + " failed");
    }
    return Saved(table);
  }
  if (word == "members" && rest.empty()) {
    std::list<MemberInfo> members;
    if (table.loadMember({domain, target}, members) != 0) return Error("cannot read " + target);
    for (const MemberInfo &member : members) {
      printf("%-8s %s\n", KindName(member.type), member.member.c_str());
    }
    return 0;
  }
  if (word == "expand" && rest.empty()) {
    std::list<std::string> names;
    if (table.getWithoutAliasList({domain, target}, names) != 0) {
      return Error("cannot unfold " + target + " (see the system log)");
    }
    for (const std::string &name : names) printf("%s\n", name.c_str());
    return 0;
  }
  return Error("alias takes add, del, members, expand, export or import");
}

}  // namespace mailserverctl
