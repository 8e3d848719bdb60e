// kolt_gen_dovecot_group_cache: tells Dovecot which users of the active member list are active
// and to which of its active groups each belongs, so that mailbox rights given to a group
// ("group=NAME" in an ACL) reach its members. The library runs it after each change of the list:
//
//   kolt_gen_dovecot_group_cache generate
//
// It writes /var/packages/Quillon-Server/target/etc/dovecot/active_group_cache, a passwd-file
// that Dovecot can take as a userdb, one line per active user:
//
//   NAME::UID:GID::HOME::userdb_acl_groups=GROUP,GROUP
//
// A user is active when its own row says "yes", or when it belongs (by its primary group or as a
// listed member) to a group whose row says "yes" and its own row, if any, doesn't say "no". Names
// come from the system by number, so a renamed user or group appears under its new name. A name
// that the file's syntax can't carry (":", ",", blanks, control characters) is left out with a
// log line. The file is replaced whole; exit 0 when it is in place, 1 otherwise, 2 for bad usage.
#include <fcntl.h>
#include <grp.h>
#include <pwd.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <map>
#include <set>
#include <string>
#include <vector>

#include "foundation/log.h"
#include "kolt/szlist.h"
#include "kolt/user.h"
#include "personal/ActiveDBHandler.h"

namespace {

constexpr char kCache[] = "/var/packages/Quillon-Server/target/etc/dovecot/active_group_cache";
constexpr char kLock[] = "/var/lock/quillon_server/dovecot_group_cache.lock";

struct Member {
  uid_t uid;
  gid_t gid;
  std::string home;
  std::set<std::string> groups;
};

bool Writable(const std::string &name) {
  if (name.empty()) return false;
  for (const char c : name) {
    if (static_cast<unsigned char>(c) <= 0x20 || c == 0x7f || c == ':' || c == ',') return false;
  }
  return true;
}

bool Number(const std::string &text, unsigned long &value) {
  if (text.empty() || text.size() > 10 || text.find_first_not_of("0123456789") != std::string::npos) {
    return false;
  }
  value = std::stoul(text);
  return value < 0xFFFFFFFFUL;
}

// Every local user with its primary group.
std::map<std::string, KOLTUSER> LocalUsers() {
  std::map<std::string, KOLTUSER> users;
  KLIBSZLIST *names = nullptr;
  if (KLIBUserEnum(&names, AUTH_LOCAL, nullptr) >= 0) {
    for (int i = 0; i < KLIBCSzListCount(names); ++i) {
      KOLTUSER user;
      if (KOLTUserGet(KLIBCSzListGet(names, i), &user) == 0) users[user.name] = user;
    }
  }
  KLIBCSzListFree(names);
  return users;
}

// The active users by name, each with its active groups. False when the list can't be read.
bool ActiveMembers(std::map<std::string, Member> &members) {
  ActiveDBHandler list;
  std::vector<ActiveRecord> rows;
  if (list.Retrieve(ActiveDBFilter(), rows) < 0) return false;
  std::set<uid_t> activeUsers, inactiveUsers;
  std::map<gid_t, std::string> activeGroups;
  std::map<std::string, std::set<std::string>> listedMembers;  // group name -> user names
  for (const ActiveRecord &row : rows) {
    unsigned long number;
    if (!Number(row.ugid, number) || (row.active != "yes" && row.active != "no")) continue;
    if (row.type == "user") {
      (row.active == "yes" ? activeUsers : inactiveUsers).insert(static_cast<uid_t>(number));
    } else if (row.type == "group" && row.active == "yes") {
      KOLTGROUP *group = nullptr;
      if (KOLTGroupGetByGID(static_cast<gid_t>(number), &group) != 0) continue;
      if (Writable(group->name)) {
        activeGroups[group->gid] = group->name;
        for (char **m = group->members; m != nullptr && *m != nullptr; ++m) {
          listedMembers[group->name].insert(*m);
        }
      } else {
        maillog(3, "%s:%d group %u left out: its name can't stand in the cache", QSV_FILE,
                __LINE__, static_cast<unsigned>(group->gid));
      }
      KOLTGroupFree(group);
    }
  }
  for (const auto &entry : LocalUsers()) {
    const KOLTUSER &user = entry.second;
    std::set<std::string> groups;
    const auto primary = activeGroups.find(user.gid);
    if (primary != activeGroups.end()) groups.insert(primary->second);
    for (const auto &listed : listedMembers) {
      if (listed.second.count(user.name) > 0) groups.insert(listed.first);
    }
    const bool active = activeUsers.count(user.uid) > 0 ||
                        (!groups.empty() && inactiveUsers.count(user.uid) == 0);
    if (!active) continue;
    if (!Writable(user.name) || strchr(user.home, ':') != nullptr ||
        strpbrk(user.home, "\n\r") != nullptr) {
      maillog(3, "%s:%d user %u left out: its name or home can't stand in the cache", QSV_FILE,
              __LINE__, static_cast<unsigned>(user.uid));
      continue;
    }
    members[user.name] = {user.uid, user.gid, user.home, groups};
  }
  return true;
}

std::string Text(const std::map<std::string, Member> &members) {
  std::string text;
  for (const auto &entry : members) {
    const Member &m = entry.second;
    text += entry.first + "::" + std::to_string(m.uid) + ":" + std::to_string(m.gid) + "::" +
            m.home + "::";
    std::string groups;
    for (const std::string &g : m.groups) groups += (groups.empty() ? "" : ",") + g;
    // Dovecot takes the extra fields of a passwd-file userdb with this prefix.
    if (!groups.empty()) text += "userdb_acl_groups=" + groups;
    text += "\n";
  }
  return text;
}

// Temporary file beside the cache, written, flushed, mode 0644, the package user's, renamed into
// place: Dovecot reads the old cache or the new one, never a part.
bool Replace(const std::string &text) {
  std::string tmp = std::string(kCache) + ".XXXXXX";
  const int fd = mkostemp(&tmp[0], O_CLOEXEC);
  if (fd < 0) {
    maillog(3, "%s:%d cannot make a file beside %s: %s", QSV_FILE, __LINE__, kCache, strerror(errno));
    return false;
  }
  const struct passwd *owner = getpwnam("Quillon-Server");
  bool ok = write(fd, text.data(), text.size()) == static_cast<ssize_t>(text.size()) &&
            fsync(fd) == 0 && fchmod(fd, 0644) == 0 &&
            (owner == nullptr || fchown(fd, owner->pw_uid, owner->pw_gid) == 0);
  ok = close(fd) == 0 && ok;
  if (!ok || rename(tmp.c_str(), kCache) != 0) {
    maillog(3, "%s:%d cannot write %s: %s", QSV_FILE, __LINE__, kCache, strerror(errno));
    unlink(tmp.c_str());
    return false;
  }
  return true;
}

}  // namespace

int main(int argc, char **argv) {
  if (argc != 2 || strcmp(argv[1], "generate") != 0) {
    fprintf(stderr, "usage: kolt_gen_dovecot_group_cache generate\n");
    return 2;
  }
  // Two changes of the list in quick succession: the later run must write last, from the later
  // list, so the runs go one at a time from reading the list to the rename.
  mkdir("/var/lock/quillon_server", 0755);
  const int lock = open(kLock, O_RDWR | O_CREAT | O_CLOEXEC, 0644);
  if (lock < 0 || flock(lock, LOCK_EX) != 0) {
    maillog(3, "%s:%d cannot lock %s: %s", QSV_FILE, __LINE__, kLock, strerror(errno));
    return 1;
  }
  std::map<std::string, Member> members;
  if (!ActiveMembers(members)) {
    maillog(3, "%s:%d cannot read the active member list", QSV_FILE, __LINE__);
    return 1;
  }
  const std::string folder = std::string(kCache).substr(0, std::string(kCache).rfind('/'));
  mkdir(folder.c_str(), 0755);
  return Replace(Text(members)) ? 0 : 1;
}
