// kolt_migration_task_util start|stop TASK: what the platform's scheduler runs at a task's hour.
// The task name comes as one argument, whatever characters it holds.
#include <stdio.h>
#include <string.h>

#include <string>

#include "migration/migration.h"

using KOLT::QUILLON_SERVER::MigrationMgr;
using KOLT::QUILLON_SERVER::MigrationTask;

int main(int argc, char **argv) {
  if (argc != 3 || (strcmp(argv[1], "start") != 0 && strcmp(argv[1], "stop") != 0)) {
    fprintf(stderr, "usage: kolt_migration_task_util start|stop TASK\n");
    return 1;
  }
  const std::string task = argv[2];
  if (task.empty() || MigrationTask::checkTaskName(task) != 0) {
    fprintf(stderr, "kolt_migration_task_util: \"%s\" can't be a task's name\n", argv[2]);
    return 1;
  }
  if (strcmp(argv[1], "stop") == 0) return MigrationMgr::stopTask(task) == 0 ? 0 : 1;
  const int rc = MigrationMgr::startTask(task);
  if (rc < 0) fprintf(stderr, "kolt_migration_task_util: task \"%s\" did not start\n", argv[2]);
  return rc == 0 ? 0 : 1;
}
