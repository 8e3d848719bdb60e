// The run side of a task: whether offlineimap runs for it, the connection and login tests, what a
// run is doing, and the clean-up of users taken off the list.
#include <errno.h>
#include <stdlib.h>
#include <string.h>
#include <sys/stat.h>
#include <unistd.h>

#include "foundation/log.h"
#include "kolt/exec.h"
#include "kolt/file.h"
#include "kolt/fs.h"
#include "kolt/pidfile.h"
#include "kolt/szlist.h"
#include "migration/migration.h"
#include "migration/migration_files.h"

namespace KOLT {
namespace QUILLON_SERVER {

using namespace qsvmigration;

namespace {

constexpr char kDataSubdir[] = "/offlineimap_data";

// Splits "source->destination" into a user; false without the arrow.
bool SplitIdentity(const std::string &identity, UserInfo &user) {
  const size_t arrow = identity.find("->");
  if (arrow == std::string::npos) return false;
  user.srcAcnt = identity.substr(0, arrow);
  user.destAcnt = identity.substr(arrow + 2);
  return true;
}

// Feeds genOfflineimapConfig.py the two lines it reads and lets it write the task's
// offlineimap.conf: 0 or -1.
int GenerateConfig(const std::string &taskName, const std::string &user,
                   const std::string &cipher) {
  FILE *script = KLIBCPopen(kGenConfig, "w", taskName.c_str(), nullptr);
  if (script == nullptr) return -1;
  fprintf(script, "%s\n%s\n", user.c_str(), cipher.c_str());
  return KLIBCPclose(script) == 0 ? 0 : -1;
}

// Every entry of `dir` whose name begins with `prefix`, or -1.
int ListEntries(const std::string &dir, const char *prefix, std::list<std::string> &names) {
  KLIBSZLIST *list = KLIBCSzListAlloc(1024);
  if (list == nullptr) {
    maillog(3, "%s:%d out of memory", QSV_FILE, __LINE__);
    return -1;
  }
  if (KLIBCFileEnumDir(dir.c_str(), 0, &list, 0) < 0) {
    KLIBCSzListFree(list);
    return -1;
  }
  const size_t length = strlen(prefix);
  for (int i = 0; i < KLIBCSzListCount(list); i++) {
    const char *name = KLIBCSzListGet(list, i);
    if (strncmp(name, prefix, length) == 0) names.push_back(name);
  }
  KLIBCSzListFree(list);
  return 0;
}

}  // namespace

int MigrationTask::isTaskRunning(const std::string &name) {
  if (checkTaskName(name) != 0) return -1;
  const std::string pidFile = kDataDir + name + kDataSubdir + "/pid";
  if (!KLIBCFileExist(pidFile.c_str())) return 0;
  const int pid = KLIBCReadPidFile(pidFile.c_str());
  if (pid <= 0) {
    maillog(3, "%s:%d failed to get pid", QSV_FILE, __LINE__);
    return -1;
  }
  const int alive = KLIBCProcAliveByPidFile(pidFile.c_str());
  if (alive != 1) return alive;
  const std::string cmdline = "/proc/" + std::to_string(pid) + "/cmdline";
  FILE *in = fopen(cmdline.c_str(), "re");
  if (in == nullptr) {
    maillog(3, "%s:%d failed to open file [%s]", QSV_FILE, __LINE__, cmdline.c_str());
    return -1;
  }
  std::string words;
  char piece[4096];
  size_t n;
  while ((n = fread(piece, 1, sizeof(piece), in)) > 0) words.append(piece, n);
  fclose(in);
  for (char &c : words) {
    if (c == '\0') c = ' ';
  }
  return words.find("--preliminary-test") != std::string::npos ? 2 : 1;
}

int MigrationTask::userTest() {
  const int running = isTaskRunning(taskName);
  if (running < 0) {
    maillog(3, "%s:%d failed to get the running status of task [%s]", QSV_FILE, __LINE__,
            taskName.c_str());
    return -1;
  }
  if (running == 1) {
    maillog(3, "%s:%d task [%s] is already running", QSV_FILE, __LINE__, taskName.c_str());
    return 1;
  }
  if (running == 2) {
    maillog(3, "%s:%d task [%s] is checking account", QSV_FILE, __LINE__, taskName.c_str());
    return 0;
  }
  if (taskName.empty() || !taskDirExist(taskDir)) {
    maillog(3, "%s:%d task direcrtoy[%s] does not exist", QSV_FILE, __LINE__, taskDir.c_str());
    return -1;
  }
  if (clearTestResult() != 0) {
    maillog(3, "%s:%d failed to delete last check result", QSV_FILE, __LINE__);
    return -1;
  }
  // A login test talks to the source only: no master user here.
  if (GenerateConfig(taskName, "user", "password") != 0) {
    maillog(3, "%s:%d failed to generate config of offlineimap", QSV_FILE, __LINE__);
    return -1;
  }
  const std::string conf = taskDir + "/offlineimap.conf";
  if (KLIBCExecl(kOfflineimap, KLIBC_EXEC_QUIET_BACKGROUND, "-c", conf.c_str(), "-u",
                 "koltbernui", "--preliminary-test", "login-test", nullptr) != 0) {
    maillog(3, "%s:%d failed to start task login test [%s]", QSV_FILE, __LINE__,
            taskName.c_str());
    return -1;
  }
  return 0;
}

int MigrationTask::connTest(std::string &result, const std::string &addr, int port, bool ssl) {
  result = "unknown";
  if (CheckTmpDir() != 0) return -1;
  char name[] = "/tmp/quillon_server/migration_conn_test_XXXXXX";
  const int fd = mkstemp(name);
  if (fd < 0) {
    maillog(3, "%s:%d failed to mkdir, path [%s], error[%s]", QSV_FILE, __LINE__, name,
            strerror(errno));
    return -1;
  }
  close(fd);
  unlink(name);
  const std::string dir = name;
  const std::string conf = dir + "/offlineimap.conf";
  uid_t uid = 0;
  gid_t gid = 0;
  if (PackageIds(uid, gid) != 0 || KOLTFSMkdirP(dir.c_str(), 0, 0, uid, gid, 0755) != 0) {
    maillog(3, "%s:%d failed to mkdir, path [%s], error[%s]", QSV_FILE, __LINE__, dir.c_str(),
            strerror(errno));
    return -1;
  }
  int rc = -1;
  const std::string portText = std::to_string(port);
  const int generated =
      ssl ? KLIBCExecl(kGenConfig, KLIBC_EXEC_QUIET_WAIT, "-c", conf.c_str(), "-a", addr.c_str(),
                       "-p", portText.c_str(), "-s", nullptr)
          : KLIBCExecl(kGenConfig, KLIBC_EXEC_QUIET_WAIT, "-c", conf.c_str(), "-a", addr.c_str(),
                       "-p", portText.c_str(), nullptr);
  if (generated != 0) {
    maillog(3, "%s:%d failed to generate config of offlineimap", QSV_FILE, __LINE__);
  } else if (KLIBCExecl(kOfflineimap, KLIBC_EXEC_QUIET_WAIT, "-c", conf.c_str(), "-u", "ttyui",
                        "--preliminary-test", "connectivity-test", nullptr) != 0) {
    maillog(3, "%s:%d failed to start connection test", QSV_FILE, __LINE__);
  } else if (getConnTestResult(result, dir) != 0) {
    maillog(3, "%s:%d failed to get connection test result", QSV_FILE, __LINE__);
  } else {
    rc = 0;
  }
  KLIBCExecl("/bin/rm", KLIBC_EXEC_QUIET_WAIT, "-R", dir.c_str(), nullptr);
  return rc;
}

int MigrationTask::getConnTestResult(std::string &result, const std::string &dir) {
  result = "unknown";
  const std::string path = dir + kDataSubdir + "/conn_test";
  if (!KLIBCFileExist(path.c_str())) {
    maillog(3, "%s:%d file [%s] does not exist", QSV_FILE, __LINE__, path.c_str());
    return -1;
  }
  FILE *in = fopen(path.c_str(), "re");
  if (in == nullptr) {
    maillog(3, "%s:%d failed to open file [%s]", QSV_FILE, __LINE__, path.c_str());
    return -1;
  }
  char line[64] = {0};
  if (fgets(line, sizeof(line), in) != nullptr) {
    line[strcspn(line, "\r\n")] = '\0';
    if (strcmp(line, "success") == 0 || strcmp(line, "failure") == 0) result = line;
  }
  fclose(in);
  return 0;
}

int MigrationTask::clearTestResult() {
  const std::string path = taskDir + kDataSubdir + "/login_test";
  if (unlink(path.c_str()) != 0 && errno != ENOENT) return -1;
  return 0;
}

int MigrationTask::getProcessingStatus(std::list<UserInfo> &processing,
                                       std::list<UserInfo> &done, std::list<UserInfo> &failed) {
  processing.clear();
  done.clear();
  failed.clear();
  if (checkTaskName(taskName) != 0) return -1;
  const std::string conf = taskDir + "/offlineimap.conf";
  struct stat st;
  if (stat(conf.c_str(), &st) != 0) {
    maillog(3, "%s:%d Failed to stat Dir %s error [%s]", QSV_FILE, __LINE__, conf.c_str(),
            strerror(errno));
    return -1;
  }
  const time_t start = st.st_mtime;
  const std::string data = taskDir + kDataSubdir;
  std::list<std::string> accounts;
  if (ListEntries(data, "Account-", accounts) != 0) {
    maillog(3, "%s:%d Failed to list Dir %s error [%s]", QSV_FILE, __LINE__, data.c_str(),
            strerror(errno));
    return -1;
  }
  for (const std::string &account : accounts) {
    UserInfo user;
    if (!SplitIdentity(account.substr(8), user)) continue;
    // What an earlier run left behind says nothing about this one.
    const std::string current = data + "/" + account + "/Curr-Processing";
    struct stat cs;
    if (stat(current.c_str(), &cs) != 0 || cs.st_mtime < start) continue;
    std::list<std::string> entries;
    if (ListEntries(current, "", entries) != 0) continue;
    (entries.empty() ? done : processing).push_back(user);
  }
  if (getErrorUserList(start, failed) != 0) {
    maillog(3, "%s:%d failed to get error user list", QSV_FILE, __LINE__);
    return -1;
  }
  return 0;
}

int MigrationTask::clearOldUserData() {
  std::list<UserInfo> users;
  if (loadUser(users, "") != 0) return -1;
  std::set<std::string> wanted;
  for (const UserInfo &user : users) {
    const std::string name = user.srcAcnt + "->" + user.destAcnt;
    wanted.insert("Account-" + name);
    wanted.insert("Repository-remote-" + name);
    wanted.insert("Repository-local-" + name);
  }
  const std::string data = taskDir + kDataSubdir;
  std::list<std::string> entries;
  for (const char *prefix : {"Account-", "Repository-remote-", "Repository-local-"}) {
    if (ListEntries(data, prefix, entries) != 0 && errno != ENOENT) return -1;
  }
  int rc = 0;
  for (const std::string &entry : entries) {
    if (wanted.count(entry) != 0) continue;
    const std::string path = data + "/" + entry;
    if (KLIBCExecl("/bin/rm", KLIBC_EXEC_QUIET_WAIT, "-r", "--", path.c_str(), nullptr) != 0) {
      maillog(3, "%s:%d failed to remove directory [%s], error[%s]", QSV_FILE, __LINE__,
              path.c_str(), strerror(errno));
      rc = -1;
    }
  }
  return rc;
}

}  // namespace QUILLON_SERVER
}  // namespace KOLT
