// Unfolding an alias into the names mail finally goes to, and the move of a domain's `root`
// alias into the system's place.
#include <algorithm>

#include "config/postfix.h"
#include "foundation/log.h"
#include "kolt/user.h"
#include "tables/alias.h"

std::string Alias::_toLocalName(const std::string &name, const std::string &accountType) {
  if (accountType == "ldap") {
    const size_t at = name.find('@');
    if (at != std::string::npos) return name.substr(0, at);
  } else if (accountType == "win") {
    const size_t slash = name.find('\\');
    if (slash != std::string::npos) return name.substr(slash + 1);
  }
  return name;
}

void Alias::_getLocalMemberList(const std::list<MemberInfo> &in, const std::string &accountType,
                                std::list<std::string> &out) {
  for (const MemberInfo &member : in) {
    if (member.type == MEMBER_USER) {
      out.push_back(_toLocalName(member.member, accountType));
    } else if (member.type == MEMBER_GROUP) {
      KOLTGROUP *group = nullptr;
      if (KOLTGroupGet(member.member.c_str(), &group) < 0 || group == nullptr) {
        maillog(1, "%s:%d group get fail", QSV_FILE, __LINE__);
        continue;
      }
      std::list<std::string> users;
      for (char **user = group->members; user != nullptr && *user != nullptr; ++user) {
        users.push_back(_toLocalName(*user, accountType));
      }
      KOLTGroupFree(group);
      out.splice(out.end(), users);
    } else {
      out.push_back(member.member);
    }
  }
  out.sort();
  out.unique();
}

int Alias::_getLocalMemberList(const std::list<MemberInfo> &in, std::list<std::string> &out) {
  Postfix postfix;
  if (postfix.LoadSettings() < 0) {
    maillog(7, "%s:%d load postfix setting fail", QSV_FILE, __LINE__);
    return -1;
  }
  const std::string accountType =
      boost::any_cast<Value<std::string>>(postfix.Get("account_type")).value;
  _getLocalMemberList(in, accountType, out);
  return 0;
}

int Alias::_breakDownAlias(int domain, const std::list<MemberInfo> &in, std::list<MemberInfo> &out,
                           std::set<std::string> &seen) {
  for (const MemberInfo &member : in) {
    if (member.type != MEMBER_ALIAS) {
      out.push_back(member);
      continue;
    }
    // Only the names already entered stop the walk: that is what ends a cycle.
    if (!seen.insert(member.member).second) continue;
    std::list<MemberInfo> nested;
    if (loadMember({domain, member.member}, nested) != 0) {
      maillog(3, "%s:%d Load alias member fail while decomposing it", QSV_FILE, __LINE__);
      return -1;
    }
    // A branch that can't be read costs its own members, not the rest of the walk.
    if (_breakDownAlias(domain, nested, out, seen) < 0) {
      maillog(3, "%s:%d Breakdown alias info error.", QSV_FILE, __LINE__);
    }
  }
  return 0;
}

int Alias::getWithoutAliasList(const DomainAlias &alias, std::list<std::string> &out) {
  out.clear();
  std::list<MemberInfo> members;
  if (loadMember(alias, members) != 0) {
    maillog(3, "%s:%d load alias: %s member list from domainId: %d fail", QSV_FILE, __LINE__,
            alias.alias.c_str(), alias.domain);
    return -1;
  }
  if (members.empty()) return 0;
  std::list<MemberInfo> flat;
  std::set<std::string> seen;
  if (_breakDownAlias(alias.domain, members, flat, seen) < 0) {
    maillog(3, "%s:%d Break down alias list fail, we only get broken member", QSV_FILE, __LINE__);
    return -1;
  }
  if (_getLocalMemberList(flat, out) < 0) {
    maillog(3, "%s:%d Get local user member fail", QSV_FILE, __LINE__);
    return -1;
  }
  return 0;
}

int SwitchRootAlias(const std::string &dbPath) {
  Alias alias(dbPath);
  if (alias.load() != 0) {
    maillog(3, "%s:%d Fail to load alias db", QSV_FILE, __LINE__);
    return -1;
  }
  const DomainAlias userRoot{1, "root"};
  std::list<std::string> names;
  if (alias.getWithoutAliasList(userRoot, names) != 0) {
    maillog(3, "%s:%d Get root alias list fail", QSV_FILE, __LINE__);
    return -1;
  }
  std::list<MemberInfo> members;
  for (const std::string &name : names) {
    members.push_back({name, name.find('@') != std::string::npos ? MEMBER_EMAIL : MEMBER_USER});
  }
  std::list<std::string> holders;
  if (alias.enumAliasByMember(holders, {"root", MEMBER_ALIAS}) != 0) {
    maillog(3, "%s:%d Get alias which has member root fail", QSV_FILE, __LINE__);
    return -1;
  }
  for (const std::string &holder : holders) {
    if (alias.addMember({1, holder}, members) != 0) {
      maillog(3, "%s:%d Break down alias which has root alias fail", QSV_FILE, __LINE__);
      return -1;
    }
  }
  if (alias.addMember({0, "root"}, members) != 0) {
    maillog(3, "%s:%d Add system root alias fail", QSV_FILE, __LINE__);
    return -1;
  }
  if (alias.delAlias({userRoot}) != 0) {
    maillog(3, "%s:%d Delete user root alias fail", QSV_FILE, __LINE__);
    return -1;
  }
  if (alias.save() != 0) {
    maillog(3, "%s:%d Fail to sync alias db", QSV_FILE, __LINE__);
    return -1;
  }
  return 0;
}
