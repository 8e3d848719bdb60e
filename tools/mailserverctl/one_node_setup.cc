#include "mailserverctl/one_node_setup.h"

#include <unistd.h>

#include <cstdio>
#include <map>

#include <json/json.h>

#include "cluster/mailserver_cluster.h"
#include "config/mail_conf.h"
#include "core/mail_conf.h"
#include "kolt/exec.h"

using KOLT::QUILLON_SERVER::genRandomString;
using KOLT::QUILLON_SERVER::KOLTMailNodeCluster;
using KOLT::QUILLON_SERVER::MemberConfig;

namespace mailserverctl {
namespace {

const char kEtc[] = "/var/packages/Quillon-Server/etc/";
const char kClusterDaemon[] = "/var/packages/Quillon-Server/target/scripts/ClusterDaemon.sh";

bool Fail(const std::string &what) {
  fprintf(stderr, "mailserverctl: setup: %s\n", what.c_str());
  return false;
}

// The password of an earlier setup, so that running setup again keeps what the store was
// made with.
std::string KnownPassword() {
  Json::Value conf;
  if (loadMailJsonFromFile("backend.conf", conf, kEtc) == 0 && conf.isObject() &&
      conf["password"].isString()) {
    return conf["password"].asString();
  }
  return "";
}

}  // namespace

bool SetUpOneNode(const std::string &address) {
  if (geteuid() != 0) return Fail("must run as root");
  KOLTMailNodeCluster before;
  // A node that is already a cluster node is only started: setting it up again would wipe the
  // store it serves.
  if (before.isClusterInited() && !before.getHostID().empty()) {
    if (KLIBCExec(kClusterDaemon, "start", nullptr, nullptr, 0) != 0) {
      return Fail("the backend did not start");
    }
    KOLTMailNodeCluster node;
    if (!node.waitClusterHealth(3)) return Fail("the backend does not answer");
    printf("node %s is already set up; its daemons run\n", node.getHostID().c_str());
    return true;
  }

  std::map<std::string, std::string> idIpMap;
  before.newIdIpMapGen({address}, idIpMap, false);
  const std::string id = idIpMap.begin()->first;
  std::string password = KnownPassword();
  if (password.empty()) password = genRandomString(32);
  if (password.size() < 16) return Fail("cannot draw a backend password");

  KOLTMailNodeCluster node;
  if (!node.setupEnv(idIpMap, {address}, {id}, password)) {
    return Fail("cannot set this node up at " + address + " (see the system log)");
  }
  printf("node %s at %s\n", id.c_str(), address.c_str());
  if (!node.start({{id, {address}}})) return Fail("the backend did not start");
  if (!node.waitClusterHealth(3)) return Fail("the backend does not answer");

  // The node's facts go to the store now that it runs: its address, then its membership.
  if (!node.localIdIpMapUpdate(idIpMap, id, true)) return Fail("cannot publish the node's address");
  std::map<std::string, std::string> ipIf;
  node.getNodeIPIFMap(ipIf);
  MemberConfig config;
  config.id = id;
  config.hostname = "localhost";
  char hostname[256] = {0};
  if (gethostname(hostname, sizeof(hostname) - 1) == 0) config.hostname = hostname;
  config.storageVolume = "volume1";
  config.ipList = {address};
  config.backend = config.mailer = config.storager = config.balancer = true;
  if (!node.addRemoveNodeConfig(config, true) ||
      mailConfSet("node_bind_if-" + id, ipIf.count(address) ? ipIf[address] : "lo", true, 0) != 0) {
    return Fail("cannot write the cluster keys (see the system log)");
  }
  // Now that this node is the master balancer, the file buffer starts too.
  if (KLIBCExec(kClusterDaemon, "start", nullptr, nullptr, 0) != 0) {
    return Fail("the file buffer did not start");
  }
  if (!node.isClusterHealth(false)) return Fail("the cluster is not healthy");
  printf("one-node cluster ready: backend on 8500, file buffer on 8502\n");
  return true;
}

}  // namespace mailserverctl
