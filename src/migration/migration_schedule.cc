// Tasks that start at a set time, through the platform's scheduler. The scheduler splits the
// command at blanks and double quotes and runs it without a shell, so a task name holding '$' or
// a backtick reaches the task tool as it is.
#include <time.h>

#include "foundation/log.h"
#include "foundation/privilege.h"
#include "kolt/err.h"
#include "kolt/sched.h"
#include "migration/migration.h"
#include "migration/migration_files.h"

namespace KOLT {
namespace QUILLON_SERVER {

namespace {

constexpr char kApp[] = "KOLT.DTK.QuillonServer.Instance";

BOOL OursOnly(const KOLTSCHEDTASK *task, void *) {
  const char *app = KOLTSchedTaskGetApp(task);
  return app != nullptr && std::string(app) == kApp;
}

}  // namespace

int MigrationMgr::addMigrationSchedule(std::string taskName, const long &time) {
  if (MigrationTask::checkTaskName(taskName) != 0 || taskName.empty()) return -1;
  if (removeMigrationSchedule(taskName) != 0) {
    maillog(3, "%s:%d Failed to remove schedule task of task [%s]", QSV_FILE, __LINE__,
            taskName.c_str());
    return -1;
  }
  KOLTSCHEDTASK *task = nullptr;
  if (KOLTSchedTaskAlloc(&task) != 0) {
    maillog(3, "%s:%d Failed to alloc task", QSV_FILE, __LINE__);
    return -1;
  }
  const time_t when = static_cast<time_t>(time);
  struct tm local {};
  localtime_r(&when, &local);
  const std::string name = "MailMigration." + taskName;
  const std::string command = std::string(qsvmigration::kTaskUtil) + " start \"" + taskName + "\"";
  KOLTSchedCTaskSetID(task, -1);
  KOLTSchedCTaskSetOwner(task, 0);
  KOLTSchedCTaskSetApp(task, kApp);
  KOLTSchedCTaskSetAppName(task, "#app:app_name#");
  KOLTSchedCTaskSetName(task, name.c_str());
  KOLTSchedCTaskSetAction(task, "Run mail migration through imap");
  KOLTSchedCTaskSetCanEditName(task, FALSE);
  KOLTSchedCTaskSetCanEditOwner(task, FALSE);
  KOLTSchedCTaskSetListable(task, FALSE);
  KOLTSchedCTaskSetCommand(task, command.c_str());
  KOLTSchedCTaskSetCanRunFromUI(task, FALSE);
  KOLTSchedCTaskSetState(task, 1);
  KOLTSchedCTaskSetOnce(task, 1);
  KOLTSchedCTaskSetStartYear(task, local.tm_year + 1900);
  KOLTSchedCTaskSetStartMonth(task, local.tm_mon + 1);
  KOLTSchedCTaskSetStartDay(task, local.tm_mday);
  KOLTSchedCTaskSetRunHour(task, local.tm_hour);
  KOLTSchedCTaskSetRunMin(task, local.tm_min);
  int saved;
  {
    ENTERCriticalSection;
    saved = KOLTSchedTaskSave(task);
    LEAVECriticalSection;
  }
  KOLTSchedTaskFree(task);
  if (saved != 0) {
    maillog(3, "%s:%d Save task failed [0x%04X %s:%d]", QSV_FILE, __LINE__, KLIBCErrGet(),
            KLIBCErrorGetFile(), KLIBCErrorGetLine());
    return -1;
  }
  return 0;
}

int MigrationMgr::removeMigrationSchedule(const std::string &taskName) {
  KOLTSCHEDTASKLIST *list = nullptr;
  int count;
  {
    // The scheduler's file is root's alone.
    ENTERCriticalSection;
    count = KOLTSchedTaskListGet(&list, OursOnly, nullptr);
    LEAVECriticalSection;
  }
  if (count < 0) {
    maillog(3, "%s:%d Failed to KOLTSchedTaskListGet()", QSV_FILE, __LINE__);
    return -1;
  }
  const std::string name = "MailMigration." + taskName;
  int rc = 0;
  for (KOLTSCHEDTASK *task = KOLTSchedTaskNext(list, nullptr); task != nullptr;
       task = KOLTSchedTaskNext(list, task)) {
    const char *taskNameOf = KOLTSchedTaskGetName(task);
    if (taskNameOf == nullptr || name != taskNameOf) continue;
    const int id = KOLTSchedCTaskGetID(task);
    if (id < 0) {
      maillog(3, "%s:%d Failed to get task id", QSV_FILE, __LINE__);
      rc = -1;
      break;
    }
    int removed;
    {
      ENTERCriticalSection;
      removed = KOLTSchedTaskRemove(id);
      LEAVECriticalSection;
    }
    if (removed != 0) {
      maillog(3, "%s:%d Failed to get remove task", QSV_FILE, __LINE__);
      rc = -1;
    }
    break;
  }
  KOLTSchedTaskListFree(list);
  return rc;
}

}  // namespace QUILLON_SERVER
}  // namespace KOLT
