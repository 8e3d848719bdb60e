#include "core/mail_conf.h"

#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <fstream>
#include <sstream>

#include "core/key_tree_store.h"
#include "kolt/file.h"

using KOLT::QUILLON_SERVER::KeyTreeStore;

const char kMailConfDir[] = "/var/packages/Quillon-Server/etc/mailconf.d/";

namespace {

const char kLockDir[] = "/var/lock/quillon_server/";

bool IsPlain(unsigned char c) {
  return (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || (c >= '0' && c <= '9') || c == '_' ||
         c == '-' || c == '.';
}

}  // namespace

std::string toLeagalFileName(const std::string &key) {
  const KeyTreeStore *store = KeyTreeStore::instance();
  std::string name = store->sharedFileGet(key);
  if (name.empty()) name = store->keyShort(key);
  if (name.empty()) return "%";

  // Every byte that isn't plain, '/' and '%' among them, becomes %XX: the mapping can be undone,
  // so two keys never share a file unless their tree says so. A leading '.' is escaped too, so that "." and ".." can't come out.
  static const char kHex[] = "0123456789ABCDEF";
  std::string file;
  for (size_t i = 0; i < name.size(); ++i) {
    const unsigned char c = static_cast<unsigned char>(name[i]);
    if (IsPlain(c) && !(i == 0 && c == '.')) {
      file += static_cast<char>(c);
    } else {
      file += '%';
      file += kHex[c >> 4];
      file += kHex[c & 15];
    }
  }
  return file;
}

int loadMailJsonFromFile(const std::string &fileName, Json::Value &json, const std::string &dir) {
  std::ifstream in(dir + fileName, std::ios::binary);
  if (!in) return -1;
  std::ostringstream text;
  text << in.rdbuf();
  Json::CharReaderBuilder builder;
  std::string errors;
  std::istringstream stream(text.str());
  Json::Value parsed;
  if (!Json::parseFromStream(builder, stream, &parsed, &errors)) return -1;
  json = parsed;
  return 0;
}

int mailConfGet(const std::string &key, std::string &value) {
  value.clear();
  const std::string fileName = toLeagalFileName(key);
  if (access((kMailConfDir + fileName).c_str(), F_OK) != 0) return errno == ENOENT ? 0 : -1;
  Json::Value json;
  if (loadMailJsonFromFile(fileName, json, kMailConfDir) != 0 || !json.isObject()) return -1;
  const Json::Value &member = json[KeyTreeStore::instance()->keyComplete(key)];
  if (member.isString()) {
    value = member.asString();
  } else if (!member.isNull() && member.isConvertibleTo(Json::stringValue)) {
    value = member.asString();
  }
  return 0;
}

int mailConfigLockGet(const std::string &fileName, BOOL exclusive, int &fd) {
  fd = -1;
  mkdir(kLockDir, 0755);
  const std::string path = kLockDir + fileName + ".lock";
  // Writers run as root or as the package user: the lock file must open for both, whoever made it.
  const mode_t old = umask(0);
  int lockFd = -1;
  const int rc = KLIBCFileLockTimeByFile(path.c_str(), exclusive ? 1 : 0, -1, &lockFd);
  umask(old);
  if (rc != 1) return -1;
  fchmod(lockFd, 0666);
  fd = lockFd;
  return 0;
}

int mailConfigLockRelease(int fd) {
  if (fd < 0) return 0;
  return KLIBCFileUnlockByFile(fd) == 1 ? 0 : -1;
}
