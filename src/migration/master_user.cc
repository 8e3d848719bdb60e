// The Dovecot master user of running tasks: one passwd-file line per task, usable only from this
// machine, and the passdb that reads the file only while some task runs.
#include <errno.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/stat.h>
#include <unistd.h>

#include <crypt.h>
#include <sys/random.h>

#include <openssl/sha.h>

#include "foundation/log.h"
#include "foundation/privilege.h"
#include "kolt/exec.h"
#include "kolt/file.h"
#include "kolt/fs.h"
#include "kolt/user.h"
#include "migration/migration.h"
#include "migration/migration_files.h"

namespace KOLT {
namespace QUILLON_SERVER {

using namespace qsvmigration;

namespace {

// Takes a lock file exclusively, with 30 seconds' patience, and gives it to the package user.
int TakeLock(const char *path, int &fd) {
  if (KLIBCFileLockTimeByFile(path, 1, 30, &fd) != 1) {
    maillog(3, "%s:%d Failed to get lock [%s] error[%s]", QSV_FILE, __LINE__, path,
            strerror(errno));
    return -1;
  }
  uid_t uid = 0;
  gid_t gid = 0;
  if (PackageIds(uid, gid) == 0) {
    fchown(fd, uid, gid);
    fchmod(fd, 0644);
  }
  return 0;
}

void ReleaseLock(int fd, const char *path) {
  if (KLIBCFileUnlockByFile(fd) != 1) {
    maillog(3, "%s:%d Failed to unlock %s lock.", QSV_FILE, __LINE__, path);
  }
}

std::string MasterUserName(const std::string &taskName) {
  unsigned char digest[SHA256_DIGEST_LENGTH];
  SHA256(reinterpret_cast<const unsigned char *>(taskName.data()), taskName.size(), digest);
  static const char kHex[] = "0123456789abcdef";
  std::string name;
  for (unsigned char byte : digest) {
    name += kHex[byte >> 4];
    name += kHex[byte & 15];
  }
  return name;
}

// `count` characters drawn from the kernel's generator: 0, or -1.
int RandomText(int count, std::string &text) {
  static const char kChars[] =
      "0123456789ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz";
  unsigned char bytes[64];
  if (count > static_cast<int>(sizeof(bytes)) ||
      getrandom(bytes, count, 0) != static_cast<ssize_t>(count)) {
    return -1;
  }
  text.clear();
  for (int i = 0; i < count; i++) text += kChars[bytes[i] % 62];
  return 0;
}

// The SHA512-CRYPT hash of `password` in Dovecot's form: 0, or -1 logged. The hash is made here
// rather than by "doveadm pw -p", whose command line every local user could read while it runs.
int HashPassword(const std::string &password, std::string &hash) {
  std::string salt;
  if (RandomText(16, salt) != 0) {
    maillog(3, "%s:%d failed to get salted password", QSV_FILE, __LINE__);
    return -1;
  }
  struct crypt_data data;
  memset(&data, 0, sizeof(data));
  const char *result = crypt_r(password.c_str(), ("$6$" + salt + "$").c_str(), &data);
  if (result == nullptr || strncmp(result, "$6$", 3) != 0) {
    maillog(3, "%s:%d failed to read salted result", QSV_FILE, __LINE__);
    return -1;
  }
  hash = std::string("{SHA512-CRYPT}") + result;
  return 0;
}

// Dovecot reads the package's own configuration, never the machine's.
int ReloadDovecot() {
  int rc;
  ENTERCriticalSection;
  rc = KLIBCExecl(kDovecot, KLIBC_EXEC_QUIET_WAIT, "-c", kDovecotConf, "reload", nullptr);
  LEAVECriticalSection;
  if (rc != 0) {
    maillog(3, "%s:%d failed to reload dovecot", QSV_FILE, __LINE__);
    return -1;
  }
  return 0;
}

}  // namespace

int MigrationMgr::genMasterUserFile(const std::string &taskName, std::string &user,
                                    std::string &password, bool enable) {
  int lock = -1;
  if (TakeLock(kMasterUserLock, lock) != 0) return -1;
  std::string dir = kMasterUsers;
  dir.erase(dir.rfind('/'));
  KOLTFSMkdirP(dir.c_str(), 0, 0, 0, 0, 0755);
  char tmp[] = "/var/packages/Quillon-Server/target/etc/dovecot/conf.d/master-users_XXXXXXX";
  const int fd = mkstemp(tmp);
  FILE *out = fd < 0 ? nullptr : fdopen(fd, "w");
  if (out == nullptr) {
    maillog(3, "%s:%d failed to open tmp master-user file", QSV_FILE, __LINE__);
    if (fd >= 0) close(fd);
    ReleaseLock(lock, kMasterUserLock);
    return -1;
  }
  int rc = -1;
  const std::string name = MasterUserName(taskName);
  do {
    FILE *in = fopen(kMasterUsers, "re");
    if (in == nullptr && errno != ENOENT) {
      maillog(3, "%s:%d failed to open master-user file", QSV_FILE, __LINE__);
      break;
    }
    if (in != nullptr) {
      char line[4096];
      while (fgets(line, sizeof(line), in) != nullptr) {
        if (strstr(line, name.c_str()) == nullptr) fputs(line, out);
      }
      fclose(in);
    }
    if (enable) {
      // From the kernel's generator, not rand() seeded with the time: anyone who knows the
      // second of a start could otherwise work the password out.
      std::string hash;
      if (RandomText(20, password) != 0 || HashPassword(password, hash) != 0) break;
      fprintf(out, "%s:%s::::::%s\n", name.c_str(), hash.c_str(),
              "allow_nets=127.0.0.1/32,::1/128");
      user = name;
    }
    if (fflush(out) != 0 || fsync(fileno(out)) != 0) break;
    uid_t uid = 0;
    gid_t gid = 0;
    // The package user keeps the file; Dovecot's auth process, which runs as Dovecot's own
    // user, reads it through the group. Nobody else sees even the hashes.
    gid_t dovecotGid = 0;
    if (PackageIds(uid, gid) != 0 || KOLTUserGetUGID("dovecot", nullptr, &dovecotGid) != 0 ||
        fchown(fileno(out), uid, dovecotGid) != 0) {
      maillog(3, "%s:%d failed to chown, path[%s], error[%s]", QSV_FILE, __LINE__, tmp,
              strerror(errno));
      break;
    }
    if (fchmod(fileno(out), 0640) != 0) {
      maillog(3, "%s:%d failed to chmod, path[%s], error[%s]", QSV_FILE, __LINE__, tmp,
              strerror(errno));
      break;
    }
    if (rename(tmp, kMasterUsers) != 0) {
      maillog(3, "%s:%d failed to rename [%s] to [%s]", QSV_FILE, __LINE__, tmp, kMasterUsers);
      break;
    }
    rc = 0;
  } while (false);
  fclose(out);
  if (rc != 0) unlink(tmp);
  ReleaseLock(lock, kMasterUserLock);
  return rc;
}

int MigrationMgr::enableMasterUser(const std::string &taskName, std::string &user,
                                   std::string &password) {
  if (genMasterUserFile(taskName, user, password, true) != 0) {
    maillog(3, "%s:%d failed to generate master-user file", QSV_FILE, __LINE__);
    return -1;
  }
  int lock = -1;
  if (TakeLock(kReloadLock, lock) != 0) return -1;
  std::list<std::string> running;
  const int count = numOfRunningTask(running);
  int rc = 0;
  if (count < 0) {
    maillog(3, "%s:%d failed to get number of running task", QSV_FILE, __LINE__);
    rc = -1;
  } else if (count == 0) {
    if (KOLTCopyFileI(kAuthMasterTemplate, kAuthMasterConf, 1, 0) != 0) {
      maillog(3, "%s:%d failed to copyfile, [%s] => [%s], error[%s]", QSV_FILE, __LINE__,
              kAuthMasterTemplate, kAuthMasterConf, strerror(errno));
      rc = -1;
    } else {
      rc = ReloadDovecot();
    }
  }
  ReleaseLock(lock, kReloadLock);
  return rc;
}

int MigrationMgr::disableMasterUser(const std::string &taskName) {
  std::string user, password;
  if (!taskName.empty() && genMasterUserFile(taskName, user, password, false) != 0) {
    maillog(3, "%s:%d failed to generate master-user file", QSV_FILE, __LINE__);
    return -1;
  }
  int lock = -1;
  if (TakeLock(kReloadLock, lock) != 0) return -1;
  std::list<std::string> running;
  const int count = numOfRunningTask(running);
  int rc = 0;
  if (count < 0) {
    maillog(3, "%s:%d failed to get number of running task", QSV_FILE, __LINE__);
    rc = -1;
  } else if (count == 0) {
    if (unlink(kMasterUsers) != 0 && errno != ENOENT) {
      maillog(3, "%s:%d Failed to unlink [%s] error [%s]", QSV_FILE, __LINE__, kMasterUsers,
              strerror(errno));
      rc = -1;
    }
    if (clearAuthMasterConf() != 0 || ReloadDovecot() != 0) rc = -1;
  }
  ReleaseLock(lock, kReloadLock);
  return rc;
}

int MigrationMgr::clearAuthMasterConf() {
  FILE *out = fopen(kAuthMasterConf, "we");
  if (out == nullptr || fclose(out) != 0) {
    maillog(3, "%s:%d failed to truncate file [%s]", QSV_FILE, __LINE__, kAuthMasterConf);
    return -1;
  }
  return 0;
}

}  // namespace QUILLON_SERVER
}  // namespace KOLT
