// The Postfix alias map of one domain: written from the table, and read back into it.
#include <fcntl.h>
#include <strings.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <map>
#include <set>
#include <tuple>
#include <unordered_map>
#include <vector>

#include "config/accounts.h"
#include "config/postfix.h"
#include "foundation/files.h"
#include "foundation/log.h"
#include "foundation/strings.h"
#include "kolt/str.h"
#include "tables/alias.h"

namespace {

bool IsReservedName(const std::string &name) {
  for (const char *reserved : {"postmaster", "mailer-daemon", "root"}) {
    if (strcasecmp(name.c_str(), reserved) == 0) return true;
  }
  return false;
}

std::string RemoveBlanks(const char *line) {
  std::string text;
  for (const char *c = line; *c != '\0'; ++c) {
    if (*c != ' ' && *c != '\t') text += *c;
  }
  return text;
}

}  // namespace

int Alias::ExportAlias(const std::string &path, const int &domain) {
  FILE *out = fopen(path.c_str(), "we");
  if (out == nullptr) {
    maillog(3, "%s:%d open file %s fail", QSV_FILE, __LINE__, path.c_str());
    return -1;
  }
  fputs("MAILER-DAEMON: postmaster\n", out);
  fputs("postmaster: root\n", out);

  // One settings load for the whole map rather than one per alias.
  Postfix postfix;
  std::string accountType;
  const bool settingsLoaded = postfix.LoadSettings() >= 0;
  if (settingsLoaded) {
    accountType = boost::any_cast<Value<std::string>>(postfix.Get("account_type")).value;
  } else {
    maillog(7, "%s:%d load postfix setting fail", QSV_FILE, __LINE__);
  }

  // All members of the domain in one read; should that fail, each alias is read on its own, as
  // one alias that can't be read must not cost the others their lines.
  std::unordered_map<std::string, std::list<MemberInfo>> domainMembers;
  const bool readAtOnce = _loadDomainMembers(domain, domainMembers) == 0;
  for (const DomainAlias &alias : aliasList_) {
    if (alias.domain != domain) continue;
    std::list<MemberInfo> ownRead;
    const std::list<MemberInfo> *members = &ownRead;
    if (readAtOnce) {
      const auto found = domainMembers.find(alias.alias);
      if (found != domainMembers.end()) members = &found->second;
    } else if (loadMember(alias, ownRead) != 0) {
      maillog(1, "%s:%d load alias: %s member list fail", QSV_FILE, __LINE__,
              alias.alias.c_str());
      continue;
    }
    if (members->empty()) continue;
    std::list<std::string> names;
    if (settingsLoaded) {
      _getLocalMemberList(*members, accountType, names);
    } else {
      maillog(7, "%s:%d Get local member fail, alias member list will be empty", QSV_FILE,
              __LINE__);
    }
    const std::string joined = StringJoin(names, ", ");
    if (joined.empty()) {
      maillog(1, "%s:%d join %s member list fail", QSV_FILE, __LINE__, alias.alias.c_str());
      continue;
    }
    fprintf(out, "%s: %s\n", alias.alias.c_str(), joined.c_str());
  }
  fclose(out);
  return 0;
}

int Alias::ImportAlias(const std::string &path, const int &domain) {
  FILE *in = OpenRegularFile(path);
  if (in == nullptr) return -1;

  std::map<std::string, std::list<MemberInfo>> entries;
  std::string buffer;
  int got;
  while ((got = ReadBoundedLine(in, buffer, kMaxImportLine)) > 0) {
    char *line = &buffer[0];
    if (KLIBCStrTrimSpace(line, 0) < 0) {
      maillog(7, "%s:%d trim space fail: %s", QSV_FILE, __LINE__, line);
      continue;
    }
    if (line[0] == '#' || line[0] == '\n' || line[0] == ' ' || line[0] == '\0') continue;
    const std::string text = RemoveBlanks(line);
    const size_t colon = text.find(':');
    if (colon == std::string::npos) continue;
    const std::string name = text.substr(0, colon);
    // The fixed lines of every exported map and the reserved alias are not the domain's own.
    if (IsReservedName(name)) continue;
    std::list<MemberInfo> members;
    for (const std::string &piece : StringSplit(text.c_str() + colon + 1, ",")) {
      members.push_back({piece, piece.find('@') != std::string::npos ? MEMBER_EMAIL : MEMBER_USER});
    }
    entries[name] = members;
  }
  if (got < 0) {
    maillog(3, "%s:%d import %s fail: a line is longer than %zu bytes", QSV_FILE, __LINE__,
            path.c_str(), kMaxImportLine);
    fclose(in);
    return -1;
  }
  if (ferror(in)) {
    maillog(3, "%s:%d import %s fail: %s", QSV_FILE, __LINE__, path.c_str(), strerror(errno));
    fclose(in);
    return -1;
  }

  for (auto &entry : entries) {
    for (MemberInfo &member : entry.second) {
      if (member.type == MEMBER_EMAIL) continue;
      const auto defined = entries.find(member.member);
      if (defined != entries.end() && !defined->second.empty()) {
        member.type = MEMBER_ALIAS;
        continue;
      }
      if (member.member.empty()) {
        maillog(7, "%s:%d Illegal domain alias name", QSV_FILE, __LINE__);
        continue;
      }
      for (const DomainAlias &known : aliasList_) {
        if (known.domain == domain && known.alias == member.member) {
          member.type = MEMBER_ALIAS;
          break;
        }
      }
    }
  }

  // The map holds local names; the table keeps users in the full form of the account source.
  Postfix postfix;
  if (postfix.LoadSettings() >= 0 &&
      boost::any_cast<Value<std::string>>(postfix.Get("account_type")).value != "local") {
    for (auto &entry : entries) {
      for (MemberInfo &member : entry.second) {
        if (member.type != MEMBER_USER) continue;
        member.member = getFullUsername(postfix, member.member, false);
      }
    }
  }

  // Each entry is still a batch of its own that lands whole or not at all, but the batches share
  // one transaction, and the rows already there come from one read of the domain; should that
  // read fail, each member is looked up on its own.
  std::unordered_map<std::string, std::list<MemberInfo>> domainMembers;
  const bool readAtOnce = _loadDomainMembers(domain, domainMembers) == 0;
  std::set<std::tuple<std::string, std::string, int>> existing;
  for (const auto &held : domainMembers) {
    if (entries.count(held.first) == 0) continue;
    for (const MemberInfo &member : held.second) {
      existing.emplace(held.first, member.member, static_cast<int>(member.type));
    }
  }
  std::vector<std::list<std::string>> batches;
  for (const auto &entry : entries) {
    const DomainAlias alias{domain, entry.first};
    batches.push_back(_insertCommands(alias, entry.second, [&](const MemberInfo &member) {
      if (!readAtOnce) return checkMemberExist(alias, member);
      return existing.count({alias.alias, member.member, static_cast<int>(member.type)}) != 0
                 ? 1 : 0;
    }));
  }
  _writeEach(batches);
  fclose(in);
  return 0;
}
