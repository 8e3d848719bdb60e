#include "mailserverctl/migration_commands.h"

#include <unistd.h>

#include <cstdio>
#include <fstream>
#include <functional>
#include <iterator>
#include <iostream>
#include <map>
#include <set>

#include "kolt/user.h"
#include "mailserverctl/error.h"
#include "mailserverctl/log_options.h"
#include "mailserverctl/names.h"
#include "migration/migration.h"

using KOLT::QUILLON_SERVER::GeneralSetting;
using KOLT::QUILLON_SERVER::MigrationLog;
using KOLT::QUILLON_SERVER::MigrationMgr;
using KOLT::QUILLON_SERVER::MigrationTask;
using KOLT::QUILLON_SERVER::UserInfo;

namespace mailserverctl {
namespace {

const char *const kStates[] = {"never run",           "waiting for its schedule", "running",
                               "checking accounts",   "ended with exit code 1",   "finished well",
                               "ended otherwise"};
const char *const kChecks[] = {"-", "checking", "success", "failure",
                               "success, but no such account here", "unknown"};

int Usage() {
  fprintf(stderr,
          "usage: mailserverctl migration add|set TASK --server HOST [--port N] [--ssl] "
          "[--master-user ACCOUNT] [--max-users N] [--max-conns N]\n"
          "       mailserverctl migration users TASK [--file CSV]\n"
          "       mailserverctl migration test TASK | test --server HOST [--port N] [--ssl]\n"
          "       mailserverctl migration start|stop|remove TASK\n"
          "       mailserverctl migration status [TASK]\n"
          "       mailserverctl migration log TASK [--severity 0-7] [--keyword TEXT] [--page N] "
          "[--size N] [--oldest-first] [--user-rows]\n"
          "       mailserverctl migration schedule TASK TIME|off\n");
  return 2;
}

std::string StateText(int state) {
  return state >= 0 && state <= 6 ? kStates[state] : "error (see the system log)";
}

// Names go into paths and the scheduler's command line; the library refuses what would escape.
bool TaskNameOk(const std::string &name, int *status) {
  if (name.empty() || name.size() > 200 || MigrationTask::checkTaskName(name) != 0) {
    *status = Error("a task name has 1 to 200 bytes and no '/', '\"', '\\' or ':', and isn't "
                    "\".\" or \"..\": " + Quoted(name));
    return false;
  }
  for (const char c : name) {
    if (static_cast<unsigned char>(c) < 0x20 || c == 0x7f) {
      *status = Error("a task name holds no control characters: " + Quoted(name));
      return false;
    }
  }
  return true;
}

bool Exists(const std::string &name) {
  return MigrationTask::taskDirExist(MigrationTask(name).getTaskDir());
}

// Only the package user may read the stored passwords: the work runs with its effective ids.
int AsPackageUser(const std::function<int()> &body) {
  uid_t uid;
  gid_t gid;
  if (KOLTUserGetUGID("Quillon-Server", &uid, &gid) != 0) return -1;
  const uid_t euid = geteuid();
  const gid_t egid = getegid();
  if (setegid(gid) != 0 || seteuid(uid) != 0) {
    setegid(egid);
    return -1;
  }
  const int rc = body();
  if (seteuid(euid) != 0 || setegid(egid) != 0) {
    fprintf(stderr, "mailserverctl: could not take back the ids it had\n");
    _exit(1);
  }
  return rc;
}

int AddOrSet(const std::string &name, const std::vector<std::string> &words, bool add) {
  int status = 0;
  std::map<std::string, std::string> options;
  if (!TaskNameOk(name, &status) ||
      !ReadOptions(words, {"--server", "--port", "--master-user", "--max-users", "--max-conns"},
                   {"--ssl"}, options, &status)) {
    return status;
  }
  if (add == Exists(name)) {
    return Error(add ? "there is a task " + Quoted(name) + " already"
                     : "there is no task " + Quoted(name));
  }
  if (add && options.count("--server") == 0) return Error("a new task needs --server HOST");
  MigrationTask task(name);
  GeneralSetting general;
  if (!add && task.loadGeneral(general) != 0) return Error("the task's settings can't be read");
  general.taskName = name;
  auto &server = general.serverSetting;
  if (options.count("--server")) {
    if (!ValidDomainName(options["--server"]) && options["--server"].find_first_not_of(
                                                     "0123456789.:abcdefABCDEF") != std::string::npos) {
      return Error("the server is a host name or an address: " + Quoted(options["--server"]));
    }
    server.addr = options["--server"];
  }
  if (options.count("--port") && !ParsePort(options["--port"], server.port)) {
    return Error("a port is a number from 1 to 65535: " + Quoted(options["--port"]));
  }
  if (options.count("--ssl")) server.useSsl = true;
  long long number = 0;
  for (const auto &[option, field] : std::vector<std::pair<std::string, int *>>{
           {"--max-users", &general.maxCcrtUser}, {"--max-conns", &general.maxCcrtConn}}) {
    if (options.count(option) == 0) continue;
    if (!Number(options[option], 64, &number) || number < 1) {
      return Error(option + " takes a number from 1 to 64");
    }
    *field = static_cast<int>(number);
  }
  if (options.count("--master-user")) {
    const std::string &account = options["--master-user"];
    if (!TextAcceptable("--master-user", account, &status)) return status;
    std::string password;
    if (!std::getline(std::cin, password) || password.empty()) {
      return Error("--master-user needs its password as one line of standard input");
    }
    server.enableMasterUser = true;
    server.masterAcnt = account;
    server.masterPasswd = password;
  }
  if (task.saveGeneral(general) != 0) {
    return Error("the task could not be saved (is it running? see the system log)");
  }
  printf("task %s %s\n", Quoted(name).c_str(), add ? "added" : "changed");
  return 0;
}

int Users(const std::string &name, const std::vector<std::string> &words) {
  int status = 0;
  std::map<std::string, std::string> options;
  if (!TaskNameOk(name, &status) || !ReadOptions(words, {"--file"}, {}, options, &status)) {
    return status;
  }
  if (!Exists(name)) return Error("there is no task " + Quoted(name));
  MigrationTask task(name);
  if (options.count("--file")) {
    const std::string &file = options["--file"];
    if (file.empty() || file[0] != '/') return Error("--file takes an absolute path");
    if (MigrationTask::checkUserListFile(file) != 0) {
      return Error("the list " + Quoted(file) + " is not usable (one user a line: source "
                   "account, password, destination account)");
    }
    if (task.convertUserListFile(file) != 0) return Error("the list could not be imported");
  }
  std::list<UserInfo> users;
  if (AsPackageUser([&] { return task.loadUser(users, ""); }) != 0) {
    return Error("the task's users can't be read");
  }
  printf("%-32s %-32s %s\n", "SOURCE", "DESTINATION", "LOGIN TEST");
  for (const UserInfo &user : users) {
    const int check = user.checkResult >= 0 && user.checkResult <= 5 ? user.checkResult : 5;
    printf("%-32s %-32s %s\n", Field(user.srcAcnt).c_str(), Field(user.destAcnt).c_str(),
           kChecks[check]);
  }
  return 0;
}

int Test(const std::vector<std::string> &words) {
  int status = 0;
  std::map<std::string, std::string> options;
  std::string name;
  std::vector<std::string> rest = words;
  if (!rest.empty() && rest[0].compare(0, 2, "--") != 0) {
    name = rest[0];
    rest.erase(rest.begin());
  }
  if (!ReadOptions(rest, {"--server", "--port"}, {"--ssl"}, options, &status)) return status;
  std::string host = options.count("--server") ? options["--server"] : "";
  int port = 143;
  bool ssl = options.count("--ssl") > 0;
  if (!name.empty()) {
    if (!TaskNameOk(name, &status)) return status;
    if (!Exists(name)) return Error("there is no task " + Quoted(name));
    GeneralSetting general;
    if (MigrationTask(name).loadGeneral(general) != 0) return Error("the task can't be read");
    host = general.serverSetting.addr;
    port = general.serverSetting.port;
    ssl = general.serverSetting.useSsl;
  } else if (host.empty() ||
             (options.count("--port") && !ParsePort(options["--port"], port))) {
    return Usage();
  }
  std::string result;
  if (MigrationTask::connTest(result, host, port, ssl) != 0) {
    return Error("the connection test could not run (see the system log)");
  }
  printf("connection to %s port %d: %s\n", Quoted(host).c_str(), port, result.c_str());
  if (name.empty() || result != "success") return result == "success" ? 0 : 1;
  MigrationTask task(name);
  if (task.userTest() != 0) return Error("the login test could not start (is the task running?)");
  // The test runs in the background: it is over once no user reads "checking" and its process
  // has gone (which may not have shown itself yet when the first look is taken).
  const std::string results = task.getTaskDir() + "/offlineimap_data/login_test";
  for (int i = 0; i < 600; i++) {
    std::ifstream in(results);
    const std::string text((std::istreambuf_iterator<char>(in)), std::istreambuf_iterator<char>());
    if (in && text.find("checking") == std::string::npos &&
        MigrationTask::isTaskRunning(name) != 2) {
      break;
    }
    usleep(100000);
  }
  return Users(name, {});
}

int Status(const std::vector<std::string> &words) {
  int status = 0;
  std::list<std::string> names;
  if (words.size() > 1) return Usage();
  if (words.size() == 1) {
    if (!TaskNameOk(words[0], &status)) return status;
    if (!Exists(words[0])) return Error("there is no task " + Quoted(words[0]));
    names.push_back(words[0]);
  } else if (MigrationMgr::listAllTask(names, "") != 0) {
    return Error("the tasks can't be listed");
  }
  for (const std::string &name : names) {
    MigrationTask task(name);
    printf("%s: %s\n", Quoted(name).c_str(), StateText(task.getTaskStatus()).c_str());
    std::list<UserInfo> processing, done, failed;
    if (words.empty() || task.getProcessingStatus(processing, done, failed) != 0) continue;
    for (const auto &[label, list] : std::vector<std::pair<const char *, std::list<UserInfo> *>>{
             {"copying", &processing}, {"done", &done}, {"with errors", &failed}}) {
      for (const UserInfo &user : *list) {
        printf("  %-12s %s -> %s\n", label, Field(user.srcAcnt).c_str(),
               Field(user.destAcnt).c_str());
      }
    }
  }
  return 0;
}

int Log(const std::string &name, const std::vector<std::string> &words) {
  int status = 0;
  std::map<std::string, std::string> options;
  if (!TaskNameOk(name, &status) ||
      !ReadOptions(words, {"--severity", "--keyword", "--page", "--size"},
                   {"--oldest-first", "--user-rows"}, options, &status)) {
    return status;
  }
  if (!Exists(name)) return Error("there is no task " + Quoted(name));
  long long severity = -1, page = 1, size = 50;
  if (options.count("--severity") && !Number(options["--severity"], 7, &severity)) {
    return Error("--severity takes 0 to 7");
  }
  if ((options.count("--page") && (!Number(options["--page"], 1000000, &page) || page < 1)) ||
      (options.count("--size") && (!Number(options["--size"], 1000, &size) || size < 1))) {
    return Error("--page takes 1 to 1000000 and --size 1 to 1000");
  }
  const bool hasKeyword = options.count("--keyword") > 0;
  const std::string keyword = hasKeyword ? options["--keyword"] : "";
  if (hasKeyword && !TextAcceptable("--keyword", keyword, &status)) return status;
  MigrationTask task(name);
  std::list<MigrationLog> rows;
  const bool userRows = options.count("--user-rows") > 0;
  const int total = task.getTaskLogNum(static_cast<int>(severity), keyword, userRows);
  if (total < 0 || task.listTaskLog(rows, static_cast<int>(severity), static_cast<int>(size),
                                    static_cast<int>((page - 1) * size), keyword,
                                    options.count("--oldest-first") == 0, userRows) != 0) {
    return Error("the task's log can't be read");
  }
  printf("%d rows\n", total);
  for (const MigrationLog &row : rows) {
    printf("%s\t%s\t%s\t%s\n", When(row.time).c_str(),
           MigrationLog::convertToSeverityStr(row.severity).c_str(), Field(row.identity).c_str(),
           Field(row.event).c_str());
  }
  return 0;
}

int Schedule(const std::string &name, const std::string &when) {
  int status = 0;
  if (!TaskNameOk(name, &status)) return status;
  if (!Exists(name)) return Error("there is no task " + Quoted(name));
  MigrationTask task(name);
  GeneralSetting general;
  if (task.loadGeneral(general) != 0) return Error("the task's settings can't be read");
  long long moment = 0;
  if (when == "off") {
    general.enableScheduleTask = false;
  } else if (Moment(when, false, &moment)) {
    general.enableScheduleTask = true;
    general.scheduleStartTime = moment;
  } else {
    return Error("a time is \"YYYY-MM-DDTHH:MM:SS\", seconds since 1970, or off: " +
                 Quoted(when));
  }
  if (task.saveGeneral(general) != 0) return Error("the schedule could not be saved");
  printf("task %s: %s\n", Quoted(name).c_str(), StateText(task.getTaskStatus()).c_str());
  return 0;
}

// start, stop and remove: one task name, one call.
int Run(const std::string &word, const std::string &name) {
  int status = 0;
  if (!TaskNameOk(name, &status)) return status;
  if (!Exists(name)) return Error("there is no task " + Quoted(name));
  if (word == "start") {
    const int rc = MigrationMgr::startTask(name);
    if (rc == 1) return Error("task " + Quoted(name) + " is running already");
    if (rc == 2) return Error("task " + Quoted(name) + " is checking its accounts");
    if (rc != 0) return Error("task " + Quoted(name) + " did not start (see the system log)");
  } else if (word == "stop") {
    if (MigrationMgr::stopTask(name) != 0) return Error("task " + Quoted(name) + " did not stop");
  } else if (MigrationMgr::deleteTask(name) != 0) {
    return Error("task " + Quoted(name) + " was not removed (is it running?)");
  }
  printf("task %s: %s\n", Quoted(name).c_str(),
         word == "remove" ? "removed" : StateText(MigrationTask(name).getTaskStatus()).c_str());
  return 0;
}

}  // namespace

int MigrationCommand(const std::vector<std::string> &args) {
  if (args.empty()) return Usage();
  const std::string &word = args[0];
  const std::vector<std::string> rest(args.begin() + 1, args.end());
  if (word == "status") return Status(rest);
  if (word == "test") return Test(rest);
  if (rest.empty()) return Usage();
  const std::vector<std::string> options(rest.begin() + 1, rest.end());
  if (word == "add" || word == "set") return AddOrSet(rest[0], options, word == "add");
  if (word == "users") return Users(rest[0], options);
  if (word == "log") return Log(rest[0], options);
  if (word == "schedule" && rest.size() == 2) return Schedule(rest[0], rest[1]);
  if ((word == "start" || word == "stop" || word == "remove") && rest.size() == 1) {
    return Run(word, rest[0]);
  }
  return Usage();
}

}  // namespace mailserverctl
