// Turning this node into a cluster node and back: the local id map, the backend's password and
// Redis configuration, the node certificate and the firewall reservation.
#include <arpa/inet.h>
#include <fcntl.h>
#include <pwd.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <fstream>

#include <json/json.h>

#include "cluster/mailserver_cluster.h"
#include "config/mail_conf.h"
#include "core/mail_conf.h"
#include "foundation/files.h"
#include "foundation/log.h"
#include "foundation/privilege.h"
#include "kolt/exec.h"
#include "kolt/firewall.h"
#include "kolt/fs.h"

namespace KOLT {
namespace QUILLON_SERVER {
namespace {

const char kEtc[] = "/var/packages/Quillon-Server/etc/";
const char kBackendConf[] = "/var/packages/Quillon-Server/etc/backend.conf";
const char kRedisDir[] = "/var/packages/Quillon-Server/etc/redis/";
const char kRedisConf[] = "/var/packages/Quillon-Server/etc/redis/redis.conf";
const char kRedisTemplate[] = "/var/packages/Quillon-Server/target/etc/template/redis.template";
const char kTarget[] = "/var/packages/Quillon-Server/target";
const char kClusterDaemon[] = "/var/packages/Quillon-Server/target/scripts/ClusterDaemon.sh";
const char kFirewall[] = "/var/packages/Quillon-Server/target/scripts/firewall.sh";
const char kMailConfBak[] = "/var/packages/Quillon-Server/etc/mailconf.d_bak/";
const char kPackageUser[] = "Quillon-Server";
constexpr int kQuietWait = 187;

bool PackageIds(uid_t &uid, gid_t &gid) {
  const passwd *pw = getpwnam(kPackageUser);
  if (pw == nullptr) return false;
  uid = pw->pw_uid;
  gid = pw->pw_gid;
  return true;
}

// Redis reads its configuration line by line: a value that is not a plain address could add
// directives of its own.
bool IsAddress(const std::string &text) {
  unsigned char buf[sizeof(in6_addr)];
  return inet_pton(AF_INET, text.c_str(), buf) == 1 || inet_pton(AF_INET6, text.c_str(), buf) == 1;
}

bool IsPlainPassword(const std::string &password) {
  if (password.empty()) return false;
  for (char c : password) {
    if (!isalnum(static_cast<unsigned char>(c))) return false;
  }
  return true;
}

bool ReadBackendPassword(std::string &password) {
  std::ifstream in(kBackendConf);
  if (!in) {
    maillog(3, "%s:%d Failed to open %s error: %s", QSV_FILE, __LINE__, kBackendConf,
            strerror(errno));
    return false;
  }
  Json::Value conf;
  Json::CharReaderBuilder builder;
  std::string errors;
  if (!Json::parseFromStream(builder, in, &conf, &errors) || !conf.isObject() ||
      !conf["password"].isString()) {
    maillog(3, "%s:%d Failed to load json %s", QSV_FILE, __LINE__, kBackendConf);
    return false;
  }
  password = conf["password"].asString();
  return true;
}

// The volume that holds the package: the log of the key store goes there.
bool RedisLogPath(std::string &path) {
  char target[4096] = {0};
  if (readlink(kTarget, target, sizeof(target) - 1) <= 0) {
    maillog(3, "%s:%d Failed to KOLTVolIDParse %s error [%s]", QSV_FILE, __LINE__, kTarget,
            strerror(errno));
    return false;
  }
  const int volume = KOLTVolIDParse(target);
  if (volume < 1) {
    maillog(3, "%s:%d Failed to KOLTVolIDParse %s error [%s]", QSV_FILE, __LINE__, target,
            "no volume");
    return false;
  }
  const std::string dir = "/volume" + std::to_string(volume) + "/@maillog";
  mkdir(dir.c_str(), 0755);
  path = dir + "/redis.log";
  return true;
}

// Copies the template into a fresh temporary beside the configuration and moves it into place.
bool CopyTemplate() {
  char tmp[4096];
  snprintf(tmp, sizeof(tmp), "%sXXXXXX", kRedisConf);
  const int fd = mkstemp(tmp);
  if (fd < 0) {
    maillog(3, "%s:%d Failed get temp filename", QSV_FILE, __LINE__);
    return false;
  }
  FILE *out = fdopen(fd, "w");
  if (out == nullptr) {
    close(fd);
    unlink(tmp);
    maillog(3, "%s:%d Failed to create tmp file", QSV_FILE, __LINE__);
    return false;
  }
  FILE *in = fopen(kRedisTemplate, "re");
  if (in == nullptr) {
    fclose(out);
    unlink(tmp);
    maillog(3, "%s:%d Failed to open %s", QSV_FILE, __LINE__, kRedisTemplate);
    return false;
  }
  char piece[1024];
  size_t n;
  bool copied = true;
  while ((n = fread(piece, 1, sizeof(piece), in)) > 0) {
    if (fwrite(piece, 1, n, out) != n) copied = false;
  }
  copied = copied && !ferror(in);
  fclose(in);
  if (fclose(out) != 0 || !copied) {
    unlink(tmp);
    maillog(3, "%s:%d Failed copy config", QSV_FILE, __LINE__);
    return false;
  }
  if (renameTmpFileAndChmod(tmp, kRedisConf) != 0) {
    unlink(tmp);
    maillog(3, "%s:%d Failed to rename %s to %s", QSV_FILE, __LINE__, tmp, kRedisConf);
    return false;
  }
  return true;
}

}  // namespace

std::string genRandomString(int length) {
  static const char kAlphabet[] =
      "0123456789ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz";
  // The backend password guards the whole cluster: drawn from the kernel's random source, not
  // from rand() seeded with the clock, whose seed anyone who knows the setup time can replay.
  std::string text;
  const int fd = open("/dev/urandom", O_RDONLY | O_CLOEXEC);
  if (fd < 0) return text;
  unsigned char bytes[64];
  while (static_cast<int>(text.size()) < length) {
    const ssize_t n = read(fd, bytes, sizeof(bytes));
    if (n <= 0) break;
    for (ssize_t i = 0; i < n && static_cast<int>(text.size()) < length; ++i) {
      if (bytes[i] < 248) text += kAlphabet[bytes[i] % 62];  // 248 = 4 * 62: no bias
    }
  }
  close(fd);
  if (static_cast<int>(text.size()) != length) text.clear();
  return text;
}

bool KOLTMailNodeCluster::genBackendConf(const std::string &password) {
  uid_t uid;
  gid_t gid;
  if (!PackageIds(uid, gid) || !IsPlainPassword(password)) return false;
  Json::Value conf(Json::objectValue);
  conf["password"] = password;
  // Only root and the package user may read the cluster's password: it is never in the file
  // with a wider mode, and the owner follows once it is in place.
  return WriteWholeFile(kBackendConf, Json::FastWriter().write(conf), 0600) == 0 &&
         chown(kBackendConf, uid, gid) == 0;
}

bool KOLTMailNodeCluster::setupBackendEnv(const std::vector<std::string> &masterIps,
                                          const std::string &hostIp) {
  std::string password;
  if (!ReadBackendPassword(password)) return false;
  // What goes into the configuration is checked again: the addresses come from the mapping
  // table and the password from a file, and either could carry a line of its own.
  if (!IsPlainPassword(password) || !IsAddress(hostIp) ||
      (!masterIps.empty() && !IsAddress(masterIps.front()))) {
    maillog(3, "%s:%d Failed to write to %s", QSV_FILE, __LINE__, kRedisConf);
    return false;
  }
  uid_t uid;
  gid_t gid;
  if (!PackageIds(uid, gid)) return false;
  if (access(kRedisDir, F_OK) != 0) {
    if (mkdir(kRedisDir, 0755) != 0) {
      maillog(3, "%s:%d Failed to mkdir dir %s, error: %s", QSV_FILE, __LINE__, kRedisDir,
              strerror(errno));
      return false;
    }
    if (chown(kRedisDir, uid, gid) != 0) {
      maillog(3, "%s:%d Failed to chown %s, error: %s", QSV_FILE, __LINE__, kRedisDir,
              strerror(errno));
      return false;
    }
  }
  std::string logPath;
  if (!RedisLogPath(logPath)) return false;
  if (access(logPath.c_str(), F_OK) != 0) {
    const int fd = open(logPath.c_str(), O_WRONLY | O_CREAT | O_CLOEXEC | O_NOFOLLOW, 0644);
    if (fd >= 0) close(fd);
  }
  if (chown(logPath.c_str(), uid, gid) != 0) {
    maillog(3, "%s:%d Failed to chown %s, error: %s", QSV_FILE, __LINE__, logPath.c_str(),
            strerror(errno));
  }
  if (!CopyTemplate()) return false;

  std::ifstream in(kRedisConf);
  std::string tmp;
  const int fd = in ? mkTemporaryBeside(kRedisConf, tmp) : -1;
  FILE *out = fd >= 0 ? fdopen(fd, "w") : nullptr;
  if (out == nullptr) {
    if (fd >= 0) {
      close(fd);
      unlink(tmp.c_str());
    }
    maillog(3, "%s:%d Failed to open %s error: %s", QSV_FILE, __LINE__, kRedisConf,
            strerror(errno));
    return false;
  }
  std::string text;
  for (std::string line; std::getline(in, line);) text += line + "\n";
  if (!masterIps.empty() && masterIps.front() != hostIp) {
    text += "slaveof " + masterIps.front() + " 8500\n";
  }
  text += "requirepass " + password + "\n";
  text += "masterauth " + password + "\n";
  text += "port 8500\n";
  text += std::string("dir  ") + kRedisDir + "\n";
  text += "logfile " + logPath + "\n";
  // The file holds the password: it keeps mkstemp's mode 0600.
  const bool written = fwrite(text.data(), 1, text.size(), out) == text.size() &&
                       fflush(out) == 0 && fsync(fileno(out)) == 0;
  if (!written) maillog(3, "%s:%d Failed to write to %s", QSV_FILE, __LINE__, tmp.c_str());
  const bool owned = fchown(fileno(out), uid, gid) == 0;
  fclose(out);
  if (!written || !owned) {
    unlink(tmp.c_str());
    return false;
  }
  if (rename(tmp.c_str(), kRedisConf) != 0) {
    maillog(3, "%s:%d Failed to rename %s to %s, error: %s", QSV_FILE, __LINE__, tmp.c_str(),
            kRedisConf, strerror(errno));
    unlink(tmp.c_str());
    return false;
  }
  return true;
}

bool KOLTMailNodeCluster::clusterCleanup() {
  const std::string balancerIf = getBalancerIF();
  const std::string mailConfDir = std::string(kEtc) + "mailconf.d/";
  uid_t uid = 0;
  gid_t gid = 0;
  const bool haveUser = PackageIds(uid, gid);
  bool ok = true;
  int mkdirErrno = 0;
  int chownErrno = 0;
  {
    ENTERCriticalSection;
    if (!balancerIf.empty()) {
      KLIBCExecl("/sbin/ifconfig", kQuietWait, balancerIf.c_str(), "down",
                 static_cast<char *>(nullptr));
    }
    KLIBCExecl(kFirewall, kQuietWait, "stop", static_cast<char *>(nullptr));
    // The settings of the last cluster survive one wipe.
    if (qsvDirectoryExist(mailConfDir)) {
      KLIBCExecl("/bin/rm", kQuietWait, "-fr", kMailConfBak, static_cast<char *>(nullptr));
      KLIBCExecl("/bin/mv", kQuietWait, mailConfDir.c_str(), kMailConfBak,
                 static_cast<char *>(nullptr));
    }
    for (const char *dir : {"mailconf.d/", "internal-ca-ssl/", "internal-ssl/", "redis/"}) {
      const std::string path = std::string(kEtc) + dir;
      KLIBCExecl("/bin/rm", kQuietWait, "-fr", path.c_str(), static_cast<char *>(nullptr));
    }
    unlink("/tmp/quillon_server/service_status_db/register.json");
    unlink("/var/lib/dovecot/replicator.db");
    if (mkdir(mailConfDir.c_str(), 0755) != 0) {
      mkdirErrno = errno;
      ok = false;
    } else if (!haveUser || chown(mailConfDir.c_str(), uid, gid) != 0) {
      chownErrno = haveUser ? errno : ENOENT;
      ok = false;
    }
    LEAVECriticalSection;
  }
  if (mkdirErrno != 0) {
    maillog(3, "%s:%d Failed to mkdir %s, error: %s", QSV_FILE, __LINE__, mailConfDir.c_str(),
            strerror(mkdirErrno));
  } else if (chownErrno != 0) {
    maillog(3, "%s:%d Failed to chown %s, error: %s", QSV_FILE, __LINE__, mailConfDir.c_str(),
            strerror(chownErrno));
  }
  hostID_.clear();
  hostIP_.clear();
  idIpMap_.clear();
  return ok;
}

bool KOLTMailNodeCluster::localIdIpMapUpdate(const std::map<std::string, std::string> &idIpMap,
                                             const std::string &localId, bool sync) {
  for (const auto &entry : idIpMap) {
    if (mailConfSet(entry.first, entry.second, sync, 0) != 0) {
      maillog(3, "%s:%d Failed to write config of id:[%s] ip[%s]", QSV_FILE, __LINE__,
              entry.first.c_str(), entry.second.c_str());
      return false;
    }
  }
  if (!localId.empty() && dumpMailConfToFile("local_id_file", "id", localId, false, true,
                                             kMailConfDir, 0, false, nullptr) < 0) {
    maillog(3, "%s:%d Failed to dump local id file", QSV_FILE, __LINE__);
    return false;
  }
  idIpMap_.clear();
  hostID_ = getHostID();
  hostIP_ = hostID_.empty() ? "" : idToIP(hostID_);
  return true;
}

bool KOLTMailNodeCluster::newIdIpMapGen(const std::vector<std::string> &ips,
                                        std::map<std::string, std::string> &idIpMap,
                                        bool reuse) {
  if (reuse) {
    if (idIpMap_.empty()) loadIdIpMap();
    idIpMap.insert(idIpMap_.begin(), idIpMap_.end());
    return true;
  }
  srand(static_cast<unsigned>(time(nullptr)));
  for (const std::string &ip : ips) {
    std::string id;
    do {
      id = "mailserver_id-" + std::to_string(time(nullptr) + rand() % 100);
    } while (idIpMap.count(id) != 0);
    idIpMap[id] = ip;
  }
  return true;
}

bool KOLTMailNodeCluster::setupEnv(const std::map<std::string, std::string> &idIpMap,
                                   const std::vector<std::string> &hostIps,
                                   const std::vector<std::string> &masterIds,
                                   const std::string &password) {
  const std::string hostIp = searchHostIP(hostIps);
  if (hostIp.empty()) {
    maillog(3, "%s:%d Failed to get hostIP", QSV_FILE, __LINE__);
    return false;
  }
  std::string id;
  for (const auto &entry : idIpMap) {
    if (entry.second == hostIp) id = entry.first;
  }
  if (id.empty()) {
    maillog(3, "%s:%d Local ip [%s] is not in mapping table", QSV_FILE, __LINE__, hostIp.c_str());
    return false;
  }
  if (!stop()) {
    maillog(3, "%s:%d Failed to stop backend so cannot setup", QSV_FILE, __LINE__);
    return false;
  }
  if (!clusterCleanup()) {
    maillog(3, "%s:%d Failed to clean up cluster", QSV_FILE, __LINE__);
    return false;
  }
  if (!localIdIpMapUpdate(idIpMap, id, false)) {
    maillog(3, "%s:%d Failed to update local idIPMap", QSV_FILE, __LINE__);
    return false;
  }
  std::vector<std::string> masterIps;
  for (const std::string &masterId : masterIds) masterIps.push_back(idToIP(masterId));
  std::vector<const char *> args = {kClusterDaemon, "generate_certificate", id.c_str(), hostIp.c_str()};
  for (const std::string &ip : masterIps) args.push_back(ip.c_str());
  args.push_back(nullptr);
  int rc;
  {
    ENTERCriticalSection;
    rc = KLIBCExecv(kClusterDaemon, args.data(), kQuietWait);
    LEAVECriticalSection;
  }
  if (rc != 0) {
    maillog(3, "%s:%d Failed to generate new certificate", QSV_FILE, __LINE__);
    return false;
  }
  std::string services;
  for (const char **name = szgMailFWServices; *name != nullptr; ++name) {
    int allowed;
    {
      ENTERCriticalSection;
      allowed = KOLTFwPortsCheckAllowByAdapter(0, *name);
      LEAVECriticalSection;
    }
    if (allowed == 1) services += (services.empty() ? "" : ",") + std::string(*name);
  }
  BOOL reserved;
  {
    ENTERCriticalSection;
    reserved = KLIBFwRuleReserveServInsert(services.c_str(), 1, 1);
    LEAVECriticalSection;
  }
  if (!reserved) {
    maillog(3, "%s:%d Failed to KLIBFwRuleReserveServInsert()", QSV_FILE, __LINE__);
    return false;
  }
  if (!genBackendConf(password)) {
    maillog(3, "%s:%d Failed to create backend conf", QSV_FILE, __LINE__);
    return false;
  }
  return setupBackendEnv(masterIps, hostIp);
}

}  // namespace QUILLON_SERVER
}  // namespace KOLT
