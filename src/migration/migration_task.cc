// A task at rest: its directory, its document and the settings kept in it.
#include <errno.h>
#include <string.h>
#include <sys/stat.h>
#include <time.h>

#include "foundation/log.h"
#include "kolt/fs.h"
#include "migration/migration.h"
#include "migration/migration_files.h"

namespace KOLT {
namespace QUILLON_SERVER {

using namespace qsvmigration;

namespace {

const char *const kServerTypes[] = {"Common IMAP", "Exchange Server", "GMail", "Hotmail", "Yahoo"};

// A running task's files are the run's: settings stay as they are until it ends.
bool Frozen(const std::string &taskName, int line) {
  if (MigrationTask::isTaskRunning(taskName) != 0) {
    maillog(3, "%s:%d cannot set config", QSV_FILE, line);
    return true;
  }
  return false;
}

Json::Value StringArray(const std::set<std::string> &items) {
  Json::Value array(Json::arrayValue);
  for (const std::string &item : items) array.append(item);
  return array;
}

void ReadStringSet(const Json::Value &array, std::set<std::string> &items) {
  items.clear();
  if (!array.isArray()) return;
  for (const Json::Value &item : array) {
    if (item.isString()) items.insert(item.asString());
  }
}

// Members may be missing or of another type in a document written elsewhere: defaults then.
bool Bool(const Json::Value &object, const char *key) {
  const Json::Value &v = object[key];
  return v.isBool() ? v.asBool() : false;
}
int Int(const Json::Value &object, const char *key, int fallback = 0) {
  const Json::Value &v = object[key];
  return v.isInt() ? v.asInt() : fallback;
}
std::string Text(const Json::Value &object, const char *key) {
  const Json::Value &v = object[key];
  return v.isString() ? v.asString() : std::string();
}

// Everything of the server but its password.
void ReadServer(const Json::Value &value, ServerSetting &server) {
  server.type = static_cast<ServerType>(Int(value, "type"));
  server.addr = Text(value, "addr");
  server.port = Int(value, "port", 143);
  server.useSsl = Bool(value, "use_ssl");
  server.enableMasterUser = Bool(value, "enable_master_user");
  server.enableImapPathPrefix = Bool(value, "enable_imap_path_prefix");
  server.masterAcnt = Text(value, "master_acnt");
  server.masterPasswd.clear();
}

}  // namespace

MigrationTask::MigrationTask(const std::string &name)
    : config(Json::objectValue), loaded(false), taskDir(kDataDir + name), taskName(name),
      logDB(nullptr) {}

MigrationTask::~MigrationTask() { closeLogDB(); }

MigrationTask::MigrationTask(const MigrationTask &other)
    : config(other.config), loaded(other.loaded), taskDir(other.taskDir),
      taskName(other.taskName), logDB(nullptr) {}

MigrationTask &MigrationTask::operator=(const MigrationTask &other) {
  if (this != &other) {
    closeLogDB();
    config = other.config;
    loaded = other.loaded;
    taskDir = other.taskDir;
    taskName = other.taskName;
  }
  return *this;
}

int MigrationTask::checkTaskName(const std::string &name) {
  if (name.find_first_of("/\"\\:") != std::string::npos || name == "." || name == "..") {
    maillog(3, "%s:%d The task name [%s] is illegal", QSV_FILE, __LINE__, name.c_str());
    return -1;
  }
  return 0;
}

bool MigrationTask::taskDirExist(const std::string &path) {
  struct stat st;
  return stat(path.c_str(), &st) == 0 && S_ISDIR(st.st_mode);
}

int MigrationTask::createTaskDir() {
  // An empty name would make the data folder itself the task's.
  if (taskName.empty() || checkTaskName(taskName) != 0) return -1;
  uid_t uid = 0;
  gid_t gid = 0;
  if (PackageIds(uid, gid) != 0 || KOLTFSMkdirP(taskDir.c_str(), 0, 0, uid, gid, 0755) != 0) {
    maillog(3, "%s:%d failed to mkdir, path [%s], error[%s]", QSV_FILE, __LINE__, taskDir.c_str(),
            strerror(errno));
    return -1;
  }
  return 0;
}

int MigrationTask::checkAndCreateTaskDir() {
  if (taskDirExist(taskDir)) return 0;
  return createTaskDir();
}

int MigrationTask::loadConfigFromFile(bool force) {
  if (loaded && !force) return 0;
  if (checkTaskName(taskName) != 0) return -1;
  if (!taskDirExist(taskDir)) {
    maillog(3, "%s:%d task direcrtoy[%s] does not exist", QSV_FILE, __LINE__, taskDir.c_str());
    return -1;
  }
  Json::Value document;
  const int rc = ReadJsonFile(taskDir + "/config", document);
  if (rc == -1 && errno == ENOENT) {
    // A directory made but never saved into: an empty document.
    config = Json::Value(Json::objectValue);
    loaded = true;
    return 0;
  }
  if (rc != 0 || !document.isObject()) {
    maillog(3, "%s:%d failed to load config", QSV_FILE, __LINE__);
    return -1;
  }
  config = document;
  loaded = true;
  return 0;
}

int MigrationTask::ensureLoaded() {
  if (loaded) return 0;
  if (checkAndCreateTaskDir() != 0) return -1;
  return loadConfigFromFile(false);
}

int MigrationTask::saveConfigToFile() {
  if (checkAndCreateTaskDir() != 0) return -1;
  Json::FastWriter writer;
  return PutPrivateFile(writer.write(config), "/tmp/migration_task_XXXXXX", taskDir + "/config",
                        "config");
}

int MigrationTask::setServer(const ServerSetting &server) {
  Json::Value old = config["server_setting"];
  Json::Value value(Json::objectValue);
  value["type"] = static_cast<int>(server.type);
  value["addr"] = server.addr;
  value["port"] = server.port;
  value["use_ssl"] = server.useSsl;
  value["enable_master_user"] = server.enableMasterUser;
  value["enable_imap_path_prefix"] = server.enableImapPathPrefix;
  value["master_acnt"] = server.masterAcnt;
  if (!server.masterPasswd.empty()) {
    char cipher[1024] = {0};
    if (!migrationEncrypt(server.masterPasswd.c_str(), cipher, sizeof(cipher))) {
      maillog(3, "%s:%d failed to encrypt master password", QSV_FILE, __LINE__);
      return -1;
    }
    value["master_passwd"] = cipher;
  } else if (old.isObject() && old.isMember("master_passwd")) {
    value["master_passwd"] = old["master_passwd"];
  }
  config["server_setting"] = value;
  return 0;
}

int MigrationTask::getServer(ServerSetting &server) {
  if (ensureLoaded() != 0) return -1;
  ReadServer(config["server_setting"], server);
  const std::string cipher = Text(config["server_setting"], "master_passwd");
  if (!cipher.empty()) {
    char plain[1024] = {0};
    if (!migrationDecrypt(cipher.c_str(), plain, sizeof(plain))) {
      maillog(3, "%s:%d failed to decrypt master password", QSV_FILE, __LINE__);
      return -1;
    }
    server.masterPasswd = plain;
    explicit_bzero(plain, sizeof(plain));
  }
  return 0;
}

int MigrationTask::saveGeneral(const GeneralSetting &general) {
  if (ensureLoaded() != 0) return -1;
  if (checkTaskName(general.taskName) != 0 || general.taskName.empty()) return -1;
  if (Frozen(taskName, __LINE__)) return -1;
  if (general.taskName != taskName) {
    taskName = general.taskName;
    taskDir = kDataDir + taskName;
  }
  config["task_name"] = general.taskName;
  config["max_ccrt_user"] = general.maxCcrtUser;
  config["max_ccrt_conn"] = general.maxCcrtConn;
  config["enable_schedule_task"] = general.enableScheduleTask;
  config["schedule_start_time"] = static_cast<Json::Int64>(general.scheduleStartTime);
  if (setServer(general.serverSetting) != 0) {
    maillog(3, "%s:%d failed to set server setting", QSV_FILE, __LINE__);
    return -1;
  }
  if (saveConfigToFile() != 0) return -1;
  if (general.enableScheduleTask) {
    if (MigrationMgr::addMigrationSchedule(taskName, general.scheduleStartTime) != 0) {
      maillog(3, "%s:%d failed to add schdule task for task [%s]", QSV_FILE, __LINE__,
              taskName.c_str());
      return -1;
    }
  } else if (MigrationMgr::removeMigrationSchedule(taskName) != 0) {
    maillog(3, "%s:%d failed to remove schdule task for task [%s]", QSV_FILE, __LINE__,
            taskName.c_str());
    return -1;
  }
  return 0;
}

int MigrationTask::loadGeneral(GeneralSetting &general) {
  if (ensureLoaded() != 0) return -1;
  general.taskName = config.isMember("task_name") ? Text(config, "task_name") : taskName;
  general.maxCcrtUser = Int(config, "max_ccrt_user", 1);
  general.maxCcrtConn = Int(config, "max_ccrt_conn", 1);
  general.enableScheduleTask = Bool(config, "enable_schedule_task");
  const Json::Value &start = config["schedule_start_time"];
  general.scheduleStartTime = start.isIntegral() ? start.asInt64() : 0;
  // The master password is the package user's to read; without it the rest still loads, and a
  // save of what was loaded keeps the stored one.
  ReadServer(config["server_setting"], general.serverSetting);
  return 0;
}

void MigrationTask::setNotificationSettingItem(Json::Value &value,
                                               const NotificationSettingItem &item) {
  value = Json::Value(Json::objectValue);
  value["enable_notify"] = item.enableNotify;
  value["is_to_src"] = item.isToSrc;
  value["is_to_dest"] = item.isToDest;
  value["is_to_addr"] = item.isToAddr;
  value["addr"] = item.addr;
  value["is_to_kos"] = item.isToKos;
}

void MigrationTask::getNotificationSettingItem(NotificationSettingItem &item,
                                               const Json::Value &value) {
  item.enableNotify = Bool(value, "enable_notify");
  item.isToSrc = Bool(value, "is_to_src");
  item.isToDest = Bool(value, "is_to_dest");
  item.isToAddr = Bool(value, "is_to_addr");
  item.addr = Text(value, "addr");
  item.isToKos = Bool(value, "is_to_kos");
}

int MigrationTask::saveNotification(const NotificationSetting &notification) {
  if (ensureLoaded() != 0 || Frozen(taskName, __LINE__)) return -1;
  setNotificationSettingItem(config["success_notify"], notification.successNotify);
  setNotificationSettingItem(config["error_notify"], notification.errorNotify);
  return saveConfigToFile();
}

int MigrationTask::loadNotification(NotificationSetting &notification) {
  if (ensureLoaded() != 0) return -1;
  getNotificationSettingItem(notification.successNotify, config["success_notify"]);
  getNotificationSettingItem(notification.errorNotify, config["error_notify"]);
  return 0;
}

int MigrationTask::saveFilter(const FilterSetting &filter) {
  if (ensureLoaded() != 0 || Frozen(taskName, __LINE__)) return -1;
  // The keyword lists belong to saveKeyword: keep them.
  Json::Value value = config["filter_setting"].isObject() ? config["filter_setting"]
                                                          : Json::Value(Json::objectValue);
  value["enable_start_time"] = filter.enableStartTime;
  value["start_time"] = filter.startTime;
  value["enable_end_time"] = filter.enableEndTime;
  value["end_time"] = filter.endTime;
  value["ignore_trash"] = filter.ignoreTrash;
  value["ignore_junk"] = filter.ignoreJunk;
  value["enable_size_limit"] = filter.enableSizeLimit;
  value["size_limit"] = filter.sizeLimit;
  value["enable_folder_name_filter"] = filter.enableFolderNameFilter;
  value["is_blacklist"] = filter.isBlacklist;
  config["filter_setting"] = value;
  return saveConfigToFile();
}

int MigrationTask::loadFilter(FilterSetting &filter) {
  if (ensureLoaded() != 0) return -1;
  const Json::Value &value = config["filter_setting"];
  filter.enableStartTime = Bool(value, "enable_start_time");
  filter.startTime = Int(value, "start_time");
  filter.enableEndTime = Bool(value, "enable_end_time");
  filter.endTime = Int(value, "end_time");
  filter.ignoreTrash = Bool(value, "ignore_trash");
  filter.ignoreJunk = Bool(value, "ignore_junk");
  filter.enableSizeLimit = Bool(value, "enable_size_limit");
  filter.sizeLimit = Int(value, "size_limit");
  filter.enableFolderNameFilter = Bool(value, "enable_folder_name_filter");
  filter.isBlacklist = Bool(value, "is_blacklist");
  ReadStringSet(value["keyword_list"], filter.keywordList);
  ReadStringSet(value["exception_list"], filter.exceptionList);
  return 0;
}

int MigrationTask::saveKeyword(const FilterSetting &filter, bool isKeyword) {
  if (ensureLoaded() != 0 || Frozen(taskName, __LINE__)) return -1;
  if (!config["filter_setting"].isObject()) config["filter_setting"] = Json::objectValue;
  if (isKeyword) {
    config["filter_setting"]["keyword_list"] = StringArray(filter.keywordList);
  } else {
    config["filter_setting"]["exception_list"] = StringArray(filter.exceptionList);
  }
  return saveConfigToFile();
}

int MigrationTask::loadKeyword(FilterSetting &filter, bool isKeyword) {
  if (ensureLoaded() != 0) return -1;
  const Json::Value &value = config["filter_setting"];
  if (isKeyword) {
    ReadStringSet(value["keyword_list"], filter.keywordList);
  } else {
    ReadStringSet(value["exception_list"], filter.exceptionList);
  }
  return 0;
}

ServerType MigrationTask::serverTypeToEnum(const std::string &text) {
  for (int i = 0; i < 5; i++) {
    if (text == kServerTypes[i]) return static_cast<ServerType>(i);
  }
  return COMMON_IMAP;
}

std::string MigrationTask::enumToServerType(ServerType type) {
  const int i = static_cast<int>(type);
  return i >= 0 && i < 5 ? kServerTypes[i] : kServerTypes[0];
}

int MigrationTask::getTaskStatus() {
  const int running = isTaskRunning(taskName);
  if (running < 0) return -1;
  if (running == 1) return 2;
  if (running == 2) return 3;
  GeneralSetting general;
  if (loadGeneral(general) != 0) {
    maillog(3, "%s:%d failed to load general seting", QSV_FILE, __LINE__);
    return -1;
  }
  if (general.enableScheduleTask && time(nullptr) < general.scheduleStartTime) return 1;
  const std::string path = taskDir + "/offlineimap_data/exit_status";
  struct stat st;
  if (stat(path.c_str(), &st) != 0) return 0;
  FILE *in = fopen(path.c_str(), "re");
  if (in == nullptr) return -1;
  int code = 0;
  // Text that isn't a number reads as 0, a run that ended well.
  if (fscanf(in, "%d", &code) != 1) code = 0;
  fclose(in);
  if (code == 0) return 5;
  if (code == 1) return 4;
  return 6;
}

}  // namespace QUILLON_SERVER
}  // namespace KOLT
