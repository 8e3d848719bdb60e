// Migration of mailboxes from other IMAP servers. A task is a directory under
// /var/packages/Quillon-Server/target/var/migration_data/ named after the task: its JSON document
// (`config`), its users (`user_list`), the configuration of each run (`offlineimap.conf`), what the
// run leaves in `offlineimap_data/`, and the run's log (`task_log.db`). Passwords stay enciphered
// in every file; only the package user can decipher them.
//
// `MigrationTask` is a value object over one task's directory: it loads the document once and
// writes it whole. `MigrationMgr` starts, stops, schedules, renames and removes tasks and keeps the
// Dovecot master user that lets a running task write into every local mailbox.
//
// Objects are for one thread. Several processes may work on tasks at once: the master user file
// and Dovecot's reload are ordered by lock files; a task's own files are guarded only by
// `isTaskRunning` (a running task's settings can't be changed).
//
// REQUIRES: for `migrationDecrypt` (and so `loadUser` and `getServer` with a password) the
// effective user is Quillon-Server; starting, stopping and scheduling need root.
#ifndef MAILSERVER_MIGRATION_MIGRATION_H_
#define MAILSERVER_MIGRATION_MIGRATION_H_

#include <stdint.h>
#include <time.h>

#include <list>
#include <set>
#include <string>

#include <json/json.h>

#include "config/postfix.h"
#include "foundation/db_handler.h"
#include "foundation/export.h"

// Enciphers `plain` with a prefix that ties it to this machine: 1, or 0.
QSV_EXPORT int migrationEncrypt(const char *plain, char *out, int outLen);
// The reverse, for the package user only: 1, or 0.
QSV_EXPORT int migrationDecrypt(const char *cipher, char *out, int outLen);

namespace KOLT {
namespace QUILLON_SERVER {

enum ServerType {
  COMMON_IMAP = 0,
  EXCHANGE_SERVER = 1,
  GMAIL = 2,
  HOTMAIL = 3,
  YAHOO = 4,
};

struct ServerSetting {
  ServerType type = COMMON_IMAP;
  std::string addr;
  int port = 143;
  bool useSsl = false;
  bool enableMasterUser = false;
  bool enableImapPathPrefix = false;
  std::string masterAcnt;
  std::string masterPasswd;  // plain in the object; empty on a save keeps the stored one
};

struct GeneralSetting {
  std::string taskName;
  int maxCcrtUser = 1;
  int maxCcrtConn = 1;
  bool enableScheduleTask = false;
  int64_t scheduleStartTime = 0;
  ServerSetting serverSetting;
};

struct NotificationSettingItem {
  bool enableNotify = false;
  bool isToSrc = false;
  bool isToDest = false;
  bool isToAddr = false;
  std::string addr;
  bool isToKos = false;
};

struct NotificationSetting {
  NotificationSettingItem successNotify;
  NotificationSettingItem errorNotify;
};

struct FilterSetting {
  bool enableStartTime = false;
  int startTime = 0;
  bool enableEndTime = false;
  int endTime = 0;
  bool ignoreTrash = false;
  bool ignoreJunk = false;
  bool enableSizeLimit = false;
  int sizeLimit = 0;
  bool enableFolderNameFilter = false;
  bool isBlacklist = false;
  std::set<std::string> keywordList;
  std::set<std::string> exceptionList;
};

struct UserInfo {
  std::string srcAcnt;
  std::string srcPasswd;  // plain in the object, enciphered in the file
  std::string destAcnt;
  int32_t status = 0;
  int32_t checkResult = 0;  // 0 none, 1 checking, 2 success, 3 failure, 4 success but no such
                            // account here, 5 another word; never saved
};

// One row of a task's log.
struct QSV_EXPORT MigrationLog {
  struct tm time {};
  int severity = 0;
  std::string identity;
  std::string event;

  static std::string convertToSeverityStr(int severity);
};

class QSV_EXPORT MigrationTask {
 public:
  explicit MigrationTask(const std::string &taskName);
  ~MigrationTask();
  MigrationTask(const MigrationTask &other);
  MigrationTask &operator=(const MigrationTask &other);

  static int checkTaskName(const std::string &taskName);
  static bool taskDirExist(const std::string &path);
  int createTaskDir();
  int checkAndCreateTaskDir();

  // `force` reads the file again even when it was loaded.
  int loadConfigFromFile(bool force);
  int saveConfigToFile();

  int setServer(const ServerSetting &server);
  int getServer(ServerSetting &server);
  int saveGeneral(const GeneralSetting &general);
  int loadGeneral(GeneralSetting &general);
  int saveNotification(const NotificationSetting &notification);
  int loadNotification(NotificationSetting &notification);
  static void setNotificationSettingItem(Json::Value &value, const NotificationSettingItem &item);
  static void getNotificationSettingItem(NotificationSettingItem &item, const Json::Value &value);
  int saveFilter(const FilterSetting &filter);
  int loadFilter(FilterSetting &filter);
  int saveKeyword(const FilterSetting &filter, bool isKeyword);
  int loadKeyword(FilterSetting &filter, bool isKeyword);

  int saveUser(const std::list<UserInfo> &users);
  // The second argument is kept for callers; the users come from this task's `user_list`.
  int loadUser(std::list<UserInfo> &users, const std::string &unused);
  static int checkUserListFile(const std::string &path);
  int convertUserListFile(const std::string &path);
  int getUserCheckResult(UserInfo &user, const Json::Value &results, Postfix &postfix);

  int getTaskStatus();
  static int isTaskRunning(const std::string &taskName);
  static ServerType serverTypeToEnum(const std::string &text);
  static std::string enumToServerType(ServerType type);

  int userTest();
  static int connTest(std::string &result, const std::string &addr, int port, bool ssl);
  static int getConnTestResult(std::string &result, const std::string &dir);
  int clearTestResult();
  int getProcessingStatus(std::list<UserInfo> &processing, std::list<UserInfo> &done,
                          std::list<UserInfo> &failed);
  int getErrorUserList(long since, std::list<UserInfo> &users);
  int clearOldUserData();

  // severity: -1 for all; desc: newest first; userOnly: rows meant for the user only.
  int listTaskLog(std::list<MigrationLog> &logs, int severity, int limit, int offset,
                  const std::string &keyword, bool desc, bool userOnly);
  int getTaskLogNum(int severity, const std::string &keyword, bool userOnly);

  const std::string &getTaskName() const { return taskName; }
  const std::string &getTaskDir() const { return taskDir; }

 private:
  int ensureLoaded();
  int openLogDB();
  void closeLogDB();

  Json::Value config;
  bool loaded;
  std::string taskDir;
  std::string taskName;
  DBHandler *logDB;
};

class QSV_EXPORT MigrationMgr {
 public:
  static int startTask(const std::string &taskName);
  static int stopTask(const std::string &taskName);
  static int stopAllTask();
  static int deleteTask(const std::string &taskName);
  static int moveTask(const std::string &oldName, const std::string &newName);
  static int listAllTask(std::list<std::string> &tasks, const std::string &filter);
  static int numOfRunningTask(std::list<std::string> &tasks);
  static int addMigrationSchedule(std::string taskName, const long &time);
  static int removeMigrationSchedule(const std::string &taskName);
  static int enableMasterUser(const std::string &taskName, std::string &user,
                              std::string &password);
  static int disableMasterUser(const std::string &taskName);
  static int genMasterUserFile(const std::string &taskName, std::string &user,
                               std::string &password, bool enable);
  static int clearAuthMasterConf();
};

}  // namespace QUILLON_SERVER
}  // namespace KOLT

#endif  // MAILSERVER_MIGRATION_MIGRATION_H_
