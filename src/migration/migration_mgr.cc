// Starting, stopping, listing, renaming and removing tasks.
#include <dirent.h>
#include <errno.h>
#include <signal.h>
#include <stdio.h>
#include <string.h>
#include <unistd.h>

#include "foundation/log.h"
#include "foundation/privilege.h"
#include "kolt/exec.h"
#include "kolt/file.h"
#include "kolt/pidfile.h"
#include "migration/migration.h"
#include "migration/migration_files.h"

namespace KOLT {
namespace QUILLON_SERVER {

using namespace qsvmigration;

namespace {

// Refuses a task that runs or tests, as removing and renaming do: true when it may go on.
bool Idle(const std::string &taskName) {
  const int running = MigrationTask::isTaskRunning(taskName);
  if (running == 1) {
    maillog(3, "%s:%d task [%s] is running", QSV_FILE, __LINE__, taskName.c_str());
  } else if (running == 2) {
    maillog(3, "%s:%d task [%s] is checking account", QSV_FILE, __LINE__, taskName.c_str());
  } else if (running < 0) {
    maillog(3, "%s:%d failed to get the running status of task [%s]", QSV_FILE, __LINE__,
            taskName.c_str());
  }
  return running == 0;
}

}  // namespace

int MigrationMgr::startTask(const std::string &taskName) {
  const int running = MigrationTask::isTaskRunning(taskName);
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
    maillog(3, "%s:%d account checking [%s] is running", QSV_FILE, __LINE__, taskName.c_str());
    return 2;
  }
  MigrationTask task(taskName);
  if (taskName.empty() || !MigrationTask::taskDirExist(task.getTaskDir())) {
    maillog(3, "%s:%d task direcrtoy[%s] does not exist", QSV_FILE, __LINE__,
            task.getTaskDir().c_str());
    return -1;
  }
  std::string user, password;
  if (enableMasterUser(taskName, user, password) != 0) {
    maillog(3, "%s:%d failed to generate dovecot master user setting", QSV_FILE, __LINE__);
    return -1;
  }
  bool failed = true;
  char cipher[1024] = {0};
  const std::string conf = task.getTaskDir() + "/offlineimap.conf";
  FILE *script = KLIBCPopen(kGenConfig, "w", taskName.c_str(), nullptr);
  if (script == nullptr) {
    maillog(3, "%s:%d failed to generate config of offlineimap", QSV_FILE, __LINE__);
  } else if (!migrationEncrypt(password.c_str(), cipher, sizeof(cipher))) {
    maillog(3, "%s:%d failed to encrypt dovecot master password", QSV_FILE, __LINE__);
    KLIBCPclose(script);
  } else {
    fprintf(script, "%s\n%s\n", user.c_str(), cipher);
    if (KLIBCPclose(script) != 0) {
      maillog(3, "%s:%d failed to generate config of offlineimap", QSV_FILE, __LINE__);
    } else if (KLIBCExecl(kOfflineimap, KLIBC_EXEC_QUIET_BACKGROUND, "-c", conf.c_str(), "-u",
                          "koltbernui", nullptr) != 0) {
      maillog(3, "%s:%d failed to start task [%s]", QSV_FILE, __LINE__, taskName.c_str());
    } else {
      failed = false;
    }
  }
  explicit_bzero(&password[0], password.size());
  if (failed) {
    if (disableMasterUser(taskName) != 0) {
      maillog(3, "%s:%d failed to disable master user", QSV_FILE, __LINE__);
    }
    return -1;
  }
  // Up to ten seconds for the run to show itself, looked at every tenth of a second: a caller
  // shouldn't wait a whole second for a process that is there after a few milliseconds.
  for (int i = 0; i < 100; i++) {
    if (MigrationTask::isTaskRunning(taskName) == 1) break;
    usleep(100000);
  }
  return 0;
}

int MigrationMgr::stopTask(const std::string &taskName) {
  const int running = MigrationTask::isTaskRunning(taskName);
  if (running < 0) {
    maillog(3, "%s:%d failed to get the running status of task [%s]", QSV_FILE, __LINE__,
            taskName.c_str());
    return -1;
  }
  if (running == 0) {
    maillog(3, "%s:%d task [%s] is not running", QSV_FILE, __LINE__, taskName.c_str());
    return 0;
  }
  const std::string pidFile = kDataDir + taskName + "/offlineimap_data/pid";
  if (KLIBCProcSignalByPidFile(pidFile.c_str(), SIGTERM) != 0) {
    maillog(3, "%s:%d failed to stop the task", QSV_FILE, __LINE__);
    return -1;
  }
  for (int second = 1; second <= 35; second++) {
    sleep(1);
    if (MigrationTask::isTaskRunning(taskName) == 0) break;
    if (second % 10 == 0) KLIBCProcSignalByPidFile(pidFile.c_str(), SIGTERM);
  }
  if (disableMasterUser(taskName) != 0) {
    maillog(3, "%s:%d failed to disable master user", QSV_FILE, __LINE__);
    return -1;
  }
  return 0;
}

int MigrationMgr::stopAllTask() {
  std::list<std::string> running;
  if (numOfRunningTask(running) < 0) return -1;
  for (const std::string &name : running) {
    if (stopTask(name) != 0) {
      maillog(3, "%s:%d failed to stop migration task [%s]", QSV_FILE, __LINE__, name.c_str());
    }
  }
  int fd = -1;
  if (KLIBCFileLockTimeByFile(kMasterUserLock, 1, 30, &fd) != 1) {
    maillog(3, "%s:%d Failed to get lock [%s] error[%s]", QSV_FILE, __LINE__, kMasterUserLock,
            strerror(errno));
    return -1;
  }
  int rc = 0;
  if (unlink(kMasterUsers) != 0 && errno != ENOENT) {
    maillog(3, "%s:%d Failed to unlink [%s] error [%s]", QSV_FILE, __LINE__, kMasterUsers,
            strerror(errno));
    rc = -1;
  }
  if (clearAuthMasterConf() != 0) rc = -1;
  int reloaded;
  {
    ENTERCriticalSection;
    reloaded = KLIBCExecl(kDovecot, KLIBC_EXEC_QUIET_WAIT, "-c", kDovecotConf, "reload", nullptr);
    LEAVECriticalSection;
  }
  if (reloaded != 0) {
    maillog(3, "%s:%d failed to reload dovecot", QSV_FILE, __LINE__);
    rc = -1;
  }
  if (KLIBCFileUnlockByFile(fd) != 1) {
    maillog(3, "%s:%d Failed to unlock %s lock.", QSV_FILE, __LINE__, kMasterUserLock);
  }
  return rc;
}

int MigrationMgr::deleteTask(const std::string &taskName) {
  // An empty name would remove every task at once.
  if (taskName.empty() || MigrationTask::checkTaskName(taskName) != 0) return -1;
  if (!Idle(taskName)) return -1;
  const std::string dir = kDataDir + taskName;
  if (MigrationTask::taskDirExist(dir) &&
      KLIBCExecl("/bin/rm", KLIBC_EXEC_QUIET_WAIT, "-r", "--", dir.c_str(), nullptr) != 0) {
    maillog(3, "%s:%d failed to rm directory [%s], error[%s]", QSV_FILE, __LINE__, dir.c_str(),
            strerror(errno));
    return -1;
  }
  if (removeMigrationSchedule(taskName) != 0) {
    maillog(3, "%s:%d failed to remove schdule task for task [%s]", QSV_FILE, __LINE__,
            taskName.c_str());
    return -1;
  }
  // This node writes task logs without a log daemon holding the file open, so there is no
  // syslog-ng to let go of task_log.db.
  return 0;
}

int MigrationMgr::moveTask(const std::string &oldName, const std::string &newName) {
  if (oldName.empty() || newName.empty()) {
    maillog(3, "%s:%d either original task name or new task name is empty", QSV_FILE, __LINE__);
    return -1;
  }
  if (MigrationTask::checkTaskName(oldName) != 0 || MigrationTask::checkTaskName(newName) != 0) {
    return -1;
  }
  const std::string from = kDataDir + oldName;
  const std::string to = kDataDir + newName;
  if (!MigrationTask::taskDirExist(from)) {
    maillog(3, "%s:%d task direcrtoy[%s] does not exist", QSV_FILE, __LINE__, from.c_str());
    return -1;
  }
  if (!Idle(oldName)) return -1;
  if (removeMigrationSchedule(oldName) != 0) {
    maillog(3, "%s:%d failed to remove schdule task for task [%s]", QSV_FILE, __LINE__,
            oldName.c_str());
    return -1;
  }
  if (rename(from.c_str(), to.c_str()) != 0) {
    maillog(3, "%s:%d failed to rename [%s] to [%s]", QSV_FILE, __LINE__, from.c_str(),
            to.c_str());
    return -1;
  }
  MigrationTask task(newName);
  GeneralSetting general;
  if (task.loadGeneral(general) != 0) {
    maillog(3, "%s:%d failed to load general seting", QSV_FILE, __LINE__);
    return -1;
  }
  general.taskName = newName;
  if (task.saveGeneral(general) != 0) {
    maillog(3, "%s:%d failed to load save seting", QSV_FILE, __LINE__);
    return -1;
  }
  return 0;
}

int MigrationMgr::listAllTask(std::list<std::string> &tasks, const std::string &filter) {
  tasks.clear();
  DIR *dir = opendir(kDataDir);
  if (dir == nullptr) return errno == ENOENT ? 0 : -1;
  while (const struct dirent *entry = readdir(dir)) {
    const std::string name = entry->d_name;
    if (name == "." || name == "..") continue;
    if (!MigrationTask::taskDirExist(kDataDir + name)) continue;
    if (!filter.empty() && name.find(filter) == std::string::npos) continue;
    tasks.push_back(name);
  }
  closedir(dir);
  tasks.sort();
  return 0;
}

int MigrationMgr::numOfRunningTask(std::list<std::string> &tasks) {
  tasks.clear();
  std::list<std::string> all;
  if (listAllTask(all, "") != 0) return -1;
  for (const std::string &name : all) {
    MigrationTask task(name);
    if (task.getTaskStatus() == 2) tasks.push_back(name);
  }
  return static_cast<int>(tasks.size());
}

}  // namespace QUILLON_SERVER
}  // namespace KOLT
