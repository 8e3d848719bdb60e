// The commands of mailserverctl over mailbox migration tasks:
//
//   migration add TASK --server HOST [--port N] [--ssl] [--master-user ACCOUNT]
//                 [--max-users N] [--max-conns N]
//       a new task; with --master-user the source master password is read as one line of stdin
//   migration set TASK [the same options]     changes a task that isn't running
//   migration users TASK [--file CSV]         imports users (source,password,destination a line)
//                                             or lists them with their login test result
//   migration test TASK                       the source's port, then every user's login
//   migration test --server HOST [--port N] [--ssl]
//   migration start|stop|remove TASK
//   migration status [TASK]                   state and progress (all tasks without TASK)
//   migration log TASK [--severity 0-7] [--keyword TEXT] [--page N] [--size N] [--oldest-first]
//                      [--user-rows]
//   migration schedule TASK TIME|off          TIME as "YYYY-MM-DDTHH:MM:SS" or seconds
//
// Passwords never go on a command line, where every local user could read them. A refusal
// prints one line and exits 1 with nothing changed.
#ifndef MAILSERVER_TOOLS_MAILSERVERCTL_MIGRATION_COMMANDS_H_
#define MAILSERVER_TOOLS_MAILSERVERCTL_MIGRATION_COMMANDS_H_

#include <string>
#include <vector>

namespace mailserverctl {

int MigrationCommand(const std::vector<std::string> &args);

}  // namespace mailserverctl

#endif  // MAILSERVER_TOOLS_MAILSERVERCTL_MIGRATION_COMMANDS_H_
