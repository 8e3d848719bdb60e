#include "mailserverctl/active_commands.h"

#include <cstdio>
#include <map>
#include <set>

#include "mailserverctl/error.h"
#include "mailserverctl/log_options.h"
#include "personal/ActiveDBHandler.h"
#include "personal/activate_hook.h"

namespace mailserverctl {

namespace {

int Usage() {
  fprintf(stderr,
          "usage: mailserverctl active list [--name TEXT [--partial]] [--type user|group]\n"
          "                                 [--active yes|no] [--limit N] [--offset N] [--count]\n"
          "       mailserverctl active refresh\n");
  return 2;
}

// A failed statement may have found the file damaged: HandleError makes it anew, and says so in
// the system log.
int Failed(ActiveDBHandler &list, const std::string &what) {
  if (list.getErrCode() == 1 && list.HandleError() == 0) {
    return Error(what + " failed; the damaged list was made anew, empty (see the system log)");
  }
  return Error(what + " failed (see the system log)");
}

bool OneOf(const std::map<std::string, std::string> &options, const std::string &name,
           const std::set<std::string> &words, std::string &value, int *status) {
  const auto it = options.find(name);
  if (it == options.end()) return true;
  if (words.count(it->second) == 0) {
    *status = Error(name + " takes " + *words.begin() + " or " + *words.rbegin() + ", not " +
                    Quoted(it->second));
    return false;
  }
  value = it->second;
  return true;
}

bool Count(const std::map<std::string, std::string> &options, const std::string &name, int &value,
           int *status) {
  const auto it = options.find(name);
  if (it == options.end()) return true;
  long long number;
  if (!Number(it->second, 1000000000, &number)) {
    *status = Error(name + " takes a number, not " + Quoted(it->second));
    return false;
  }
  value = static_cast<int>(number);
  return true;
}

int List(const std::vector<std::string> &words) {
  std::map<std::string, std::string> options;
  int status = 0;
  ActiveDBFilter filter;
  if (!ReadOptions(words, {"--name", "--type", "--active", "--limit", "--offset"},
                   {"--partial", "--count"}, options, &status) ||
      !OneOf(options, "--type", {"group", "user"}, filter.type, &status) ||
      !OneOf(options, "--active", {"no", "yes"}, filter.active, &status) ||
      !Count(options, "--limit", filter.limit, &status) ||
      !Count(options, "--offset", filter.offset, &status)) {
    return status;
  }
  if (options.count("--name") > 0) {
    if (!TextAcceptable("--name", options["--name"], &status)) return status;
    filter.name = options["--name"];
  } else if (options.count("--partial") > 0) {
    return Error("--partial goes with --name");
  }
  filter.exactName = options.count("--partial") == 0;
  ActiveDBHandler list;
  if (list.getErrCode() < 0) return Error("the active list cannot be opened (see the system log)");
  if (options.count("--count") > 0) {
    const int count = list.GetRecordNum(filter);
    if (count < 0) return Failed(list, "counting the active list");
    printf("%d\n", count);
    return 0;
  }
  std::vector<ActiveRecord> rows;
  if (list.Retrieve(filter, rows) < 0) return Failed(list, "reading the active list");
  for (const ActiveRecord &row : rows) {
    printf("%s\t%s\t%s\t%s\n", Field(row.ugid).c_str(), Field(row.name).c_str(),
           Field(row.type).c_str(), Field(row.active).c_str());
  }
  return 0;
}

int Refresh() {
  ActiveDBHandler list;
  if (list.getErrCode() < 0) return Error("the active list cannot be opened (see the system log)");
  if (list.RefreshUserGroupName() != 0) return Failed(list, "refreshing the names");
  if (ActiveUserListHookAction() != 0) {
    return Error("the names are refreshed, but a hook or the group cache failed (see the system "
                 "log)");
  }
  return 0;
}

}  // namespace

int ActiveCommand(const std::vector<std::string> &args) {
  if (!args.empty() && args[0] == "list") {
    return List(std::vector<std::string>(args.begin() + 1, args.end()));
  }
  if (args.size() == 1 && args[0] == "refresh") return Refresh();
  return Usage();
}

}  // namespace mailserverctl
