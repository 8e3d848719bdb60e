// The fixed places of migration tasks and the few file steps every part of them shares: reading a
// JSON file, and putting a document in place as the package user's alone (mode 0600). Internal to
// the library; stateless, any thread.
#ifndef MAILSERVER_MIGRATION_MIGRATION_FILES_H_
#define MAILSERVER_MIGRATION_MIGRATION_FILES_H_

#include <sys/types.h>

#include <string>

#include <json/json.h>

namespace qsvmigration {

constexpr char kDataDir[] = "/var/packages/Quillon-Server/target/var/migration_data/";
constexpr char kGenConfig[] =
    "/var/packages/Quillon-Server/target/scripts/migration_util/genOfflineimapConfig.py";
constexpr char kUserListUtil[] =
    "/var/packages/Quillon-Server/target/scripts/migration_util/userListUtil.py";
constexpr char kOfflineimap[] = "/var/packages/Quillon-Server/target/usr/bin/offlineimap/offlineimap.py";
constexpr char kDoveadm[] = "/var/packages/Quillon-Server/target/bin/doveadm";
constexpr char kDovecot[] = "/var/packages/Quillon-Server/target/sbin/dovecot";
constexpr char kDovecotConf[] = "/var/packages/Quillon-Server/target/etc/dovecot/dovecot.conf";
constexpr char kTaskUtil[] = "/var/packages/Quillon-Server/target/bin/kolt_migration_task_util";
constexpr char kMasterUsers[] =
    "/var/packages/Quillon-Server/target/etc/dovecot/conf.d/master-users";
constexpr char kAuthMasterConf[] =
    "/var/packages/Quillon-Server/target/etc/dovecot/conf.d/auth-master.conf.ext";
constexpr char kAuthMasterTemplate[] =
    "/var/packages/Quillon-Server/target/etc/template/auth-master.template";
constexpr char kMasterUserLock[] = "/var/lock/quillon_server/kolt_migration_master_user_lock";
constexpr char kReloadLock[] = "/var/lock/quillon_server/kolt_migration_reload_dovecot_lock";
constexpr char kPackageUser[] = "Quillon-Server";

// The package user's ids: 0, or -1 when the system doesn't know the user.
int PackageIds(uid_t &uid, gid_t &gid);

// Parses a JSON file into `value`: 0, -1 when it can't be read, -2 when it isn't JSON.
int ReadJsonFile(const std::string &path, Json::Value &value);

// Writes `text` to a fresh file made from `tmpl` (a mkstemp template), then copies it onto `path`
// with the package user as owner and mode 0600, and removes the temporary file in every case. The
// copy keeps the temporary file's mode, so the target is never readable by others on the way.
// `what` names the document in the open failure's log line. 0, or -1 with a line logged.
int PutPrivateFile(const std::string &text, const std::string &tmpl, const std::string &path,
                   const char *what);

// Makes /tmp/quillon_server when missing and checks that no one but root (or this process's user)
// can change what lies in it, since the migration's temporary files go there: 0, or -1 logged.
int CheckTmpDir();

}  // namespace qsvmigration

#endif  // MAILSERVER_MIGRATION_MIGRATION_FILES_H_
