#include "mailserverctl/one_node_setup.h"

#include <pwd.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <fstream>
#include <map>
#include <sstream>

#include <json/json.h>

#include "cluster/mailserver_cluster.h"
#include "config/mail_conf.h"
#include "core/mail_conf.h"
#include "kolt/exec.h"
#include "kolt/fs.h"

using KOLT::QUILLON_SERVER::KOLTMailNodeCluster;

namespace mailserverctl {
namespace {

const char kEtc[] = "/var/packages/Quillon-Server/etc/";
const char kBackendConf[] = "/var/packages/Quillon-Server/etc/backend.conf";
const char kRedisDir[] = "/var/packages/Quillon-Server/etc/redis/";
const char kRedisConf[] = "/var/packages/Quillon-Server/etc/redis/redis.conf";
const char kRedisTemplate[] = "/var/packages/Quillon-Server/target/etc/template/redis.template";
const char kClusterDaemon[] = "/var/packages/Quillon-Server/target/scripts/ClusterDaemon.sh";
const char kPackageUser[] = "Quillon-Server";

bool Fail(const std::string &what) {
  fprintf(stderr, "mailserverctl: setup: %s\n", what.c_str());
  return false;
}

bool PackageUser(uid_t &uid, gid_t &gid) {
  const passwd *pw = getpwnam(kPackageUser);
  if (pw == nullptr) return false;
  uid = pw->pw_uid;
  gid = pw->pw_gid;
  return true;
}

bool MakeOwnedDir(const std::string &path, uid_t uid, gid_t gid) {
  if (mkdir(path.c_str(), 0755) != 0 && errno != EEXIST) return false;
  return chown(path.c_str(), uid, gid) == 0;
}

// Writes `text` to `path` through a temporary file and a rename, with the package user as owner.
bool WriteOwnedFile(const std::string &path, const std::string &text, mode_t mode, uid_t uid,
                    gid_t gid) {
  const std::string tmp = path + ".tmp";
  {
    std::ofstream out(tmp, std::ios::binary | std::ios::trunc);
    out << text;
    out.flush();
    if (!out) return false;
  }
  if (chmod(tmp.c_str(), mode) != 0 || chown(tmp.c_str(), uid, gid) != 0 ||
      rename(tmp.c_str(), path.c_str()) != 0) {
    unlink(tmp.c_str());
    return false;
  }
  return true;
}

std::string ReadText(const std::string &path) {
  std::ifstream in(path, std::ios::binary);
  std::ostringstream text;
  text << in.rdbuf();
  return text.str();
}

// Digits, upper-case and lower-case letters, from the kernel's random source.
std::string RandomPassword(size_t length) {
  static const char kAlphabet[] =
      "0123456789ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz";
  std::string password;
  std::ifstream random("/dev/urandom", std::ios::binary);
  while (password.size() < length) {
    const int c = random.get();
    if (c < 0) break;
    if (c < 248) password += kAlphabet[c % 62];  // 248 = 4 * 62: no bias
  }
  return password;
}

// The backend password: the one already set up, or a new one.
bool BackendPassword(std::string &password, uid_t uid, gid_t gid) {
  Json::Value conf;
  if (loadMailJsonFromFile("backend.conf", conf, kEtc) == 0 && conf.isObject() &&
      conf["password"].isString() && !conf["password"].asString().empty()) {
    password = conf["password"].asString();
    return true;
  }
  password = RandomPassword(32);
  if (password.size() != 32) return false;
  Json::Value fresh(Json::objectValue);
  fresh["password"] = password;
  return WriteOwnedFile(kBackendConf, Json::FastWriter().write(fresh), 0600, uid, gid);
}

// The template, then the lines that make it this node's: the password, the port, the directory
// and the log.
bool WriteRedisConf(const std::string &password, uid_t uid, gid_t gid) {
  // The log goes to the volume that holds the package.
  char target[4096] = {0};
  if (readlink("/var/packages/Quillon-Server/target", target, sizeof(target) - 1) <= 0) {
    return false;
  }
  const int volume = KOLTVolIDParse(target);
  if (volume < 1) return false;
  const std::string logDir = "/volume" + std::to_string(volume) + "/@maillog";
  const std::string logFile = logDir + "/redis.log";
  mkdir(logDir.c_str(), 0755);
  if (access(logFile.c_str(), F_OK) != 0) std::ofstream(logFile).close();
  if (chown(logFile.c_str(), uid, gid) != 0) return false;

  std::string text = ReadText(kRedisTemplate);
  if (text.empty()) return false;
  if (text.back() != '\n') text += '\n';
  text += "requirepass " + password + "\n";
  text += "masterauth " + password + "\n";
  text += "port 8500\n";
  text += std::string("dir  ") + kRedisDir + "\n";
  text += "logfile " + logFile + "\n";
  // It holds the backend password: readable by root and the package user only, also when an
  // earlier setup left it readable by everyone.
  if (ReadText(kRedisConf) == text) {
    return chmod(kRedisConf, 0600) == 0 && chown(kRedisConf, uid, gid) == 0;
  }
  return WriteOwnedFile(kRedisConf, text, 0600, uid, gid);
}

std::string NewHostId() {
  srand(static_cast<unsigned>(time(nullptr)));
  return "mailserver_id-" + std::to_string(time(nullptr) + rand() % 100);
}

int RunClusterDaemon(const char *word) {
  return KLIBCExec(kClusterDaemon, word, nullptr, nullptr, 0);
}

}  // namespace

bool SetUpOneNode(const std::string &address) {
  if (geteuid() != 0) return Fail("must run as root");
  uid_t uid;
  gid_t gid;
  if (!PackageUser(uid, gid)) return Fail("the user Quillon-Server does not exist");
  if (!MakeOwnedDir(kEtc, uid, gid) || !MakeOwnedDir(kMailConfDir, uid, gid) ||
      !MakeOwnedDir(kRedisDir, uid, gid)) {
    return Fail(std::string("cannot make the directories under ") + kEtc + ": " + strerror(errno));
  }

  std::string password;
  if (!BackendPassword(password, uid, gid)) return Fail("cannot write the backend password");
  if (!WriteRedisConf(password, uid, gid)) return Fail("cannot write the Redis configuration");

  KOLTMailNodeCluster before;
  std::string id = before.getHostID();
  if (id.empty()) id = NewHostId();
  // The node's id is a local fact; its address goes into the mapping table below, through the
  // backend, once that runs.
  if (dumpMailConfToFile("local_id_file", "id", id, false, true, kMailConfDir, 0, false, nullptr) <
      0) {
    return Fail("cannot write the node id");
  }
  printf("node %s at %s\n", id.c_str(), address.c_str());

  if (RunClusterDaemon("start") != 0) return Fail("the backend did not start");
  KOLTMailNodeCluster node;
  if (!node.waitClusterHealth(3)) return Fail("the backend does not answer");

  std::map<std::string, std::string> ipIf;
  node.getNodeIPIFMap(ipIf);
  const std::string ifName = ipIf.count(address) != 0 ? ipIf[address] : "lo";
  const std::map<std::string, std::string> keys = {
      {id, address},
      {"cluster_peers", id},
      {"consul_peers", id},
      {"mailer", id},
      {"storager", id},
      {"balancer", id},
      {"node_ip_list-" + id, address},
      {"node_bind_if-" + id, ifName},
      {"balancer_master_node", id},
  };
  if (mailConfSet(keys) != 0) return Fail("cannot write the cluster keys (see the system log)");

  // Now that this node is the master balancer, the file buffer starts too.
  if (RunClusterDaemon("start") != 0) return Fail("the file buffer did not start");
  if (!node.isClusterHealth(false)) return Fail("the cluster is not healthy");
  printf("one-node cluster ready: backend on 8500, file buffer on 8502\n");
  return true;
}

}  // namespace mailserverctl
