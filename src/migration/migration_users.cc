// A task's users: the list with enciphered passwords, its import from an uploaded file, and the
// outcome of the login test for each.
#include <errno.h>
#include <string.h>
#include <sys/stat.h>
#include <unistd.h>

#include "config/accounts.h"
#include "foundation/log.h"
#include "kolt/exec.h"
#include "migration/migration.h"
#include "migration/migration_files.h"
#include "validate/validate_user.h"

namespace KOLT {
namespace QUILLON_SERVER {

using namespace qsvmigration;

namespace {

// The array of users with every password enciphered (an empty one stays empty): 0 or -1.
int EncipheredList(const std::list<UserInfo> &users, Json::Value &array) {
  array = Json::Value(Json::arrayValue);
  for (const UserInfo &user : users) {
    Json::Value item(Json::objectValue);
    item["src_acnt"] = user.srcAcnt;
    item["src_passwd"] = "";
    if (!user.srcPasswd.empty()) {
      char cipher[1024] = {0};
      if (!migrationEncrypt(user.srcPasswd.c_str(), cipher, sizeof(cipher))) {
        maillog(3, "%s:%d failed to encrypt user password", QSV_FILE, __LINE__);
        return -1;
      }
      item["src_passwd"] = cipher;
    }
    item["dest_acnt"] = user.destAcnt;
    item["status"] = user.status;
    array.append(item);
  }
  return 0;
}

std::string Text(const Json::Value &object, const char *key) {
  const Json::Value &v = object[key];
  return v.isString() ? v.asString() : std::string();
}

}  // namespace

int MigrationTask::saveUser(const std::list<UserInfo> &users) {
  if (ensureLoaded() != 0) return -1;
  if (isTaskRunning(taskName) != 0) {
    maillog(3, "%s:%d cannot set config", QSV_FILE, __LINE__);
    return -1;
  }
  Json::Value array;
  if (EncipheredList(users, array) != 0) return -1;
  Json::FastWriter writer;
  return PutPrivateFile(writer.write(array), "/tmp/migration_task_XXXXXX",
                        taskDir + "/user_list", "user_list");
}

int MigrationTask::loadUser(std::list<UserInfo> &users, const std::string &) {
  users.clear();
  if (checkTaskName(taskName) != 0) return -1;
  const std::string path = taskDir + "/user_list";
  Json::Value array;
  const int rc = ReadJsonFile(path, array);
  if (rc == -1) {
    maillog(3, "%s:%d file [%s] does not exist", QSV_FILE, __LINE__, path.c_str());
    return -1;
  }
  if (rc != 0 || !array.isArray()) {
    maillog(3, "%s:%d failed to load user list", QSV_FILE, __LINE__);
    return -1;
  }
  Json::Value results(Json::objectValue);
  const std::string testPath = taskDir + "/offlineimap_data/login_test";
  struct stat st;
  if (stat(testPath.c_str(), &st) == 0 && ReadJsonFile(testPath, results) != 0) {
    maillog(3, "%s:%d failed to load user check result", QSV_FILE, __LINE__);
    results = Json::Value(Json::objectValue);
  }
  Postfix postfix;
  if (postfix.LoadSettings() != 0) {
    maillog(3, "%s:%d failed to load postfix setting", QSV_FILE, __LINE__);
    return -1;
  }
  for (const Json::Value &item : array) {
    if (!item.isObject()) continue;
    UserInfo user;
    user.srcAcnt = Text(item, "src_acnt");
    user.destAcnt = Text(item, "dest_acnt");
    user.status = item["status"].isInt() ? item["status"].asInt() : 0;
    const std::string cipher = Text(item, "src_passwd");
    if (!cipher.empty()) {
      char plain[1024] = {0};
      // A list read back without its passwords would lose them at the next save: fail instead.
      if (!migrationDecrypt(cipher.c_str(), plain, sizeof(plain))) {
        maillog(3, "%s:%d failed to decrypt user password", QSV_FILE, __LINE__);
        users.clear();
        return -1;
      }
      user.srcPasswd = plain;
      explicit_bzero(plain, sizeof(plain));
    }
    getUserCheckResult(user, results, postfix);
    users.push_back(user);
  }
  return 0;
}

int MigrationTask::getUserCheckResult(UserInfo &user, const Json::Value &results,
                                      Postfix &postfix) {
  user.checkResult = 0;
  const std::string key = user.srcAcnt + "->" + user.destAcnt;
  if (!results.isObject() || !results.isMember(key) || !results[key].isString()) return 0;
  const std::string word = results[key].asString();
  if (word == "failure") {
    user.checkResult = 3;
  } else if (word == "checking") {
    user.checkResult = 1;
  } else if (word == "success") {
    user.checkResult = ValidateUser(getFullUsername(postfix, user.destAcnt, true)) ? 2 : 4;
  } else {
    user.checkResult = 5;
  }
  return 0;
}

int MigrationTask::checkUserListFile(const std::string &path) {
  if (path.empty()) {
    maillog(3, "%s:%d path of user list file is empty", QSV_FILE, __LINE__);
    return -1;
  }
  struct stat st;
  if (stat(path.c_str(), &st) != 0) {
    maillog(3, "%s:%d user list file[%s] is not exist", QSV_FILE, __LINE__, path.c_str());
    return -1;
  }
  if (KLIBCExecl(kUserListUtil, KLIBC_EXEC_QUIET_WAIT, path.c_str(), nullptr) != 0) {
    maillog(3, "%s:%d failed to parse the user_list file [%s]", QSV_FILE, __LINE__, path.c_str());
    return -1;
  }
  return 0;
}

int MigrationTask::convertUserListFile(const std::string &path) {
  if (checkTaskName(taskName) != 0 || taskName.empty()) return -1;
  if (isTaskRunning(taskName) != 0) {
    maillog(3, "%s:%d cannot set config", QSV_FILE, __LINE__);
    return -1;
  }
  if (checkAndCreateTaskDir() != 0 || CheckTmpDir() != 0) return -1;
  if (KLIBCExecl(kUserListUtil, KLIBC_EXEC_QUIET_WAIT, "-n", taskName.c_str(), path.c_str(),
                 nullptr) != 0) {
    maillog(3, "%s:%d failed to convert the user_list file [%s]", QSV_FILE, __LINE__,
            path.c_str());
    return -1;
  }
  const std::string listPath = taskDir + "/user_list";
  Json::Value array;
  if (ReadJsonFile(listPath, array) != 0 || !array.isArray()) {
    maillog(3, "%s:%d failed to load user list", QSV_FILE, __LINE__);
    return -1;
  }
  // The script leaves the passwords in clear: encipher them before anything else reads the file.
  std::list<UserInfo> users;
  for (const Json::Value &item : array) {
    if (!item.isObject()) continue;
    UserInfo user;
    user.srcAcnt = Text(item, "src_acnt");
    user.srcPasswd = Text(item, "src_passwd");
    user.destAcnt = Text(item, "dest_acnt");
    user.status = item["status"].isInt() ? item["status"].asInt() : 0;
    users.push_back(user);
  }
  Json::Value enciphered;
  const int rc = EncipheredList(users, enciphered);
  for (UserInfo &user : users) explicit_bzero(&user.srcPasswd[0], user.srcPasswd.size());
  if (rc != 0) {
    unlink(listPath.c_str());
    return -1;
  }
  Json::FastWriter writer;
  // A list that can't be put in place enciphered doesn't stay in clear either.
  if (PutPrivateFile(writer.write(enciphered), "/tmp/quillon_server/user_listXXXXXX", listPath,
                     "config") != 0) {
    unlink(listPath.c_str());
    return -1;
  }
  return 0;
}

}  // namespace QUILLON_SERVER
}  // namespace KOLT
