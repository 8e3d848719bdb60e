#include "mailserverctl/table_commands.h"

#include <regex.h>

#include <cctype>
#include <cstdio>
#include <list>
#include <map>
#include <set>

#include "tables/attachment_filter.h"
#include "tables/sender_quota.h"
#include "mailserverctl/error.h"

namespace mailserverctl {
namespace {

constexpr unsigned long kMaxQuota = 99999;
constexpr size_t kMaxSender = 254;  // the longest mail address

// The library reports a change that stayed on this node like any other failure; `savedHere`, read
// back from the table after the failure, tells which it was.
int ChangeFailed(const std::string &what, bool savedHere) {
  if (savedHere) {
    return Error(what + " is saved on this node, but did not reach the other nodes of the " +
                 "cluster (see the system log)");
  }
  return Error(what + " was not saved; nothing was changed (see the system log)");
}

// The quota of every sender, or false when the table can't be read.
bool Quotas(std::map<std::string, unsigned int> &quotas) {
  std::list<SenderQuota::Setting> rows;
  if (SenderQuota::GetSettingList(rows, 0, -1, "") < 0) return false;
  for (const auto &row : rows) quotas[row.sender] = row.quota;
  return true;
}

// A sender is the key of a line of the map: white space would split it and a leading '#' would
// make the line a comment.
bool ValidSender(const std::string &sender) {
  if (sender.empty() || sender.size() > kMaxSender || sender[0] == '#') return false;
  for (unsigned char c : sender) {
    if (isspace(c) || iscntrl(c)) return false;
  }
  return true;
}

// A type becomes one alternative of the rule, between its slashes: it must be a group of its own
// and must not hold the delimiter or open alternatives of its own.
bool ValidType(const std::string &type) {
  if (type.empty()) return false;
  for (unsigned char c : type) {
    if (!isalnum(c) && c != '.' && c != '-' && c != '_' && c != '+' && c != '[' && c != ']') {
      return false;
    }
  }
  regex_t compiled;
  if (regcomp(&compiled, ("(" + type + ")").c_str(), REG_EXTENDED | REG_NOSUB) != 0) return false;
  regfree(&compiled);
  return true;
}

std::list<std::string> AttachmentTypes(bool &ok) {
  std::list<std::string> types;
  ok = AttachmentFilter::GetList(types, "") == 0;
  return types;
}

}  // namespace

int QuotaSet(const std::string &sender, const std::string &quota) {
  if (!ValidSender(sender)) {
    return Error("refused sender " + Quoted(sender) + ": a sender is a name or address of at " +
                 "most " + std::to_string(kMaxSender) + " bytes without blanks, not beginning " +
                 "with #; nothing was written");
  }
  const bool digits = !quota.empty() && quota.size() <= 5 &&
                      quota.find_first_not_of("0123456789") == std::string::npos;
  if (!digits || std::stoul(quota) > kMaxQuota) {
    return Error("refused quota " + Quoted(quota) + ": a quota is a whole number of mails a day " +
                 "from 0 to " + std::to_string(kMaxQuota) + "; nothing was written");
  }
  const auto value = static_cast<unsigned int>(std::stoul(quota));
  if (SenderQuota::Set(sender, value) != 0) {
    std::map<std::string, unsigned int> now;
    const bool saved = Quotas(now) && now.count(sender) != 0 && now[sender] == value;
    return ChangeFailed("the quota of " + sender, saved);
  }
  return 0;
}

int QuotaDelete(const std::vector<std::string> &senders) {
  std::map<std::string, unsigned int> known;
  if (!Quotas(known)) return Error("cannot read the sender quotas (see the system log)");
  for (const std::string &sender : senders) {
    if (known.count(sender) == 0) {
      return Error(Quoted(sender) + " has no quota; nothing was deleted");
    }
  }
  if (SenderQuota::DeleteList(std::list<std::string>(senders.begin(), senders.end())) != 0) {
    std::map<std::string, unsigned int> now;
    bool gone = Quotas(now);
    for (const std::string &sender : senders) gone = gone && now.count(sender) == 0;
    return ChangeFailed("the deletion of the quotas", gone);
  }
  return 0;
}

int QuotaList(const std::string &search) {
  std::list<SenderQuota::Setting> rows;
  if (SenderQuota::GetSettingList(rows, 0, -1, search) < 0) {
    return Error("cannot read the sender quotas (see the system log)");
  }
  for (const auto &row : rows) printf("%-40s %u\n", row.sender.c_str(), row.quota);
  return 0;
}

int QuotaExport() {
  if (SenderQuota::GenerateConfig() != 0) {
    return Error("the sender quota map was not written (see the system log)");
  }
  return 0;
}

int AttachmentAdd(const std::vector<std::string> &types) {
  for (const std::string &type : types) {
    if (!ValidType(type)) {
      return Error("refused attachment type " + Quoted(type) + ": a type is made of letters, " +
                   "digits and . - _ +, with [ ] for alternatives as in vb[es]; nothing was added");
    }
  }
  if (AttachmentFilter::Add(std::list<std::string>(types.begin(), types.end())) != 0) {
    bool ok = false;
    const std::list<std::string> now = AttachmentTypes(ok);
    const std::set<std::string> present(now.begin(), now.end());
    for (const std::string &type : types) ok = ok && present.count(type) != 0;
    return ChangeFailed("the addition of the attachment types", ok);
  }
  return 0;
}

int AttachmentDelete(const std::vector<std::string> &types) {
  bool ok = false;
  const std::list<std::string> current = AttachmentTypes(ok);
  if (!ok) return Error("cannot read the attachment types (see the system log)");
  const std::set<std::string> known(current.begin(), current.end());
  for (const std::string &type : types) {
    if (known.count(type) == 0) {
      return Error(Quoted(type) + " is not a refused attachment type; nothing was deleted");
    }
  }
  if (AttachmentFilter::Delete(std::list<std::string>(types.begin(), types.end())) != 0) {
    bool ok = false;
    const std::list<std::string> now = AttachmentTypes(ok);
    const std::set<std::string> present(now.begin(), now.end());
    for (const std::string &type : types) ok = ok && present.count(type) == 0;
    return ChangeFailed("the deletion of the attachment types", ok);
  }
  return 0;
}

int AttachmentList(const std::string &search) {
  // The search reaches the query as it stands.
  if (search.find('\'') != std::string::npos) {
    return Error("a search can't hold a quote (')");
  }
  std::list<std::string> types;
  if (AttachmentFilter::GetList(types, search) != 0) {
    return Error("cannot read the attachment types (see the system log)");
  }
  for (const std::string &type : types) printf("%s\n", type.c_str());
  return 0;
}

int AttachmentExport() {
  if (AttachmentFilter::GenerateConfig() != 0) {
    return Error("the attachment filter rule was not written (see the system log)");
  }
  return 0;
}

}  // namespace mailserverctl
