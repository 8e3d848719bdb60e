#include "mailserverctl/member_commands.h"

#include <arpa/inet.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <regex>
#include <sstream>

#include <json/json.h>

#include "cluster/mailserver_cluster.h"
#include "config/imap_pop3.h"
#include "config/mail_conf.h"
#include "config/version.h"
#include "core/mail_conf.h"
#include "foundation/files.h"
#include "foundation/strings.h"
#include "kolt/exec.h"
#include "mailserverctl/error.h"
#include "webapi/web_api_request.h"

using KOLT::QUILLON_SERVER::KOLTMailNodeCluster;
using KOLT::QUILLON_SERVER::MemberConfig;
using KOLT::QUILLON_SERVER::NodeRole;
using KOLT::QUILLON_SERVER::NODE_ROLE_BALANCER;
using KOLT::QUILLON_SERVER::NODE_ROLE_MAILER;
using KOLT::QUILLON_SERVER::NODE_ROLE_STORAGER;
using KOLT::QUILLON_SERVER::Role;

namespace mailserverctl {
namespace {

const char kEtc[] = "/var/packages/Quillon-Server/etc/";
const char kJoinDir[] = "/var/packages/Quillon-Server/etc/join/";
const char kCaDir[] = "/var/packages/Quillon-Server/etc/internal-ca-ssl/";
const char kTool[] = "/var/packages/Quillon-Server/target/usr/bin/kolt-quillon-server-go-utils";
const char kRedisCli[] = "/var/packages/Quillon-Server/target/usr/bin/redis-cli";
const char kClusterDaemon[] = "/var/packages/Quillon-Server/target/scripts/ClusterDaemon.sh";
constexpr int kQuietWait = 187;

int MemberUsage() {
  fprintf(stderr,
          "usage: mailserverctl member add --address IP --ticket FILE [--roles LIST] "
          "[--weight N] [--no-backend]\n"
          "       mailserverctl member join --ticket FILE\n"
          "       mailserverctl member del ID\n"
          "       mailserverctl member list\n"
          "       mailserverctl member check --address IP | --remove ID\n"
          "       mailserverctl member sync-spam IP\n"
          "       mailserverctl member sync-mail IP\n"
          "       mailserverctl member sync-config IP\n"
          "       mailserverctl member ask IP make_mail_dir|align_inbox [NAME VALUE]...\n"
          "       mailserverctl member readdress IP\n"
          "  (LIST: mailer,storager,balancer; all three by default)\n");
  return 2;
}

bool IsAddress(const std::string &text) {
  unsigned char buf[16];
  return inet_pton(AF_INET, text.c_str(), buf) == 1 || inet_pton(AF_INET6, text.c_str(), buf) == 1;
}

// The mailbox sync takes the peer's address as an IPv4 literal.
bool IsIPv4(const std::string &text) {
  unsigned char buf[4];
  return inet_pton(AF_INET, text.c_str(), buf) == 1;
}

bool IsNodeId(const std::string &text) {
  return std::regex_match(text, std::regex("mailserver_id-[0-9]{1,20}"));
}

std::string ReadFile(const std::string &path) {
  std::ifstream in(path, std::ios::binary);
  std::ostringstream text;
  text << in.rdbuf();
  return text.str();
}

std::vector<std::string> Split(const std::string &text) {
  std::vector<std::string> out;
  stringSplit(out, text, " ");
  return out;
}

std::string Get(const std::string &key) {
  std::string value;
  mailConfGet(key, value);
  return value;
}

bool Holds(const std::string &listKey, const std::string &id) {
  const std::vector<std::string> ids = Split(Get(listKey));
  return std::find(ids.begin(), ids.end(), id) != ids.end();
}

// The address of the node whose key store is the replication master, as the key store tool sees
// it, or "".
std::string RedisMasterAddress() {
  FILE *out = KLIBCPopen(kTool, "r", "backend-command", "--command", "get_redis_master_ip",
                         "--key", "", static_cast<char *>(nullptr));
  if (out == nullptr) return "";
  char line[256] = {0};
  const bool read = fgets(line, sizeof(line), out) != nullptr;
  KLIBCPclose(out);
  std::string address = read ? line : "";
  while (!address.empty() && (address.back() == '\n' || address.back() == '\r')) address.pop_back();
  return IsAddress(address) ? address : "";
}

// A member as the store describes it, for its removal.
MemberConfig StoredMember(const std::string &id) {
  MemberConfig config;
  config.id = id;
  config.backend = Holds("consul_peers", id);
  config.mailer = Holds("mailer", id);
  config.storager = Holds("storager", id);
  config.balancer = Holds("balancer", id);
  for (const std::string &entry : Split(Get("mailer_weight_list"))) {
    if (entry.compare(0, id.size() + 1, id + ":") == 0) {
      config.weight = static_cast<uint32_t>(strtoul(entry.c_str() + id.size() + 1, nullptr, 10));
    }
  }
  return config;
}

Json::Value ConfigJson(const MemberConfig &config) {
  Json::Value json(Json::objectValue);
  json["id"] = config.id;
  json["hostname"] = config.hostname;
  json["volume"] = config.storageVolume;
  for (const std::string &ip : config.ipList) json["ips"].append(ip);
  json["weight"] = config.weight;
  json["backend"] = config.backend;
  json["mailer"] = config.mailer;
  json["storager"] = config.storager;
  json["balancer"] = config.balancer;
  return json;
}

int Add(const std::vector<std::string> &args) {
  std::string address, ticket, roles = "mailer,storager,balancer";
  long weight = 1;
  bool backend = true;
  for (size_t i = 0; i < args.size(); ++i) {
    const std::string &a = args[i];
    const bool hasValue = i + 1 < args.size();
    if (a == "--address" && hasValue) {
      address = args[++i];
    } else if (a == "--ticket" && hasValue) {
      ticket = args[++i];
    } else if (a == "--roles" && hasValue) {
      roles = args[++i];
    } else if (a == "--weight" && hasValue) {
      char *end = nullptr;
      weight = strtol(args[++i].c_str(), &end, 10);
      if (*end != '\0' || weight < 0 || weight > 1000) return Error("--weight: 0 to 1000");
    } else if (a == "--no-backend") {
      backend = false;
    } else {
      return MemberUsage();
    }
  }
  if (!IsAddress(address)) return Error("--address: not an address: " + Quoted(address));
  if (ticket.empty() || ticket[0] != '/') return Error("--ticket: an absolute path is needed");
  MemberConfig config;
  for (const std::string &role : Split(std::regex_replace(roles, std::regex(","), " "))) {
    if (role == "mailer") {
      config.mailer = true;
    } else if (role == "storager") {
      config.storager = true;
    } else if (role == "balancer") {
      config.balancer = true;
    } else {
      return Error("--roles: unknown role " + Quoted(role));
    }
  }
  KOLTMailNodeCluster node;
  if (!node.isClusterInited()) return Error("this node is not part of a cluster");
  if (!node.memberAddCheck({{"new", address}}, "new", "", "")) {
    return Error("the address cannot join (error code " + std::to_string(node.getErrorCode()) +
                 "; see the system log)");
  }
  std::map<std::string, std::string> idIpMap;
  node.newIdIpMapGen({}, idIpMap, true);
  std::map<std::string, std::string> fresh;
  do {
    fresh.clear();
    node.newIdIpMapGen({address}, fresh, false);
  } while (idIpMap.count(fresh.begin()->first) != 0);
  const std::string id = fresh.begin()->first;
  idIpMap[id] = address;

  const std::string master = RedisMasterAddress();
  const std::string masterId = master.empty() ? "" : node.ipToID(master);
  if (masterId.empty()) return Error("cannot tell which node holds the key store's master role");
  Json::Value conf;
  if (loadMailJsonFromFile("backend.conf", conf, kEtc) != 0 || !conf["password"].isString()) {
    return Error("cannot read the backend password");
  }
  std::map<std::string, std::vector<std::string>> nodeIps;
  for (const auto &entry : idIpMap) nodeIps[entry.first] = {entry.second};
  Role role;
  role.mailer = config.mailer;
  role.storager = config.storager;
  role.balancer = config.balancer;
  if (!node.memberAddPrepare(idIpMap, id, role, nodeIps)) {
    return Error("cannot prepare this node for the new member (see the system log)");
  }
  config.id = id;
  config.ipList = {address};
  config.weight = static_cast<uint32_t>(weight);
  config.backend = backend;
  config.storageVolume = "volume1";

  // What the new node needs to join: who is who, whom its key store follows, the cluster's
  // password and CA. Root's alone.
  Json::Value json(Json::objectValue);
  for (const auto &entry : idIpMap) json["map"][entry.first] = entry.second;
  json["master"] = masterId;
  json["password"] = conf["password"];
  json["ca_key"] = ReadFile(std::string(kCaDir) + "ca.key");
  json["ca_crt"] = ReadFile(std::string(kCaDir) + "ca.crt");
  json["member"] = ConfigJson(config);
  if (WriteWholeFile(ticket, Json::StyledWriter().write(json), 0600) != 0) return Error("cannot write the ticket " + Quoted(ticket));
  printf("%s at %s may join: run `mailserverctl member join --ticket FILE` on it\n", id.c_str(),
         address.c_str());
  return 0;
}

// Reads a ticket, refusing one that others than root could have written or read.
bool ReadTicket(const std::string &path, Json::Value &ticket, MemberConfig &config,
                std::map<std::string, std::string> &idIpMap) {
  struct stat st;
  if (path.empty() || path[0] != '/' || lstat(path.c_str(), &st) != 0 || !S_ISREG(st.st_mode) ||
      st.st_uid != 0 || (st.st_mode & 077) != 0) {
    return false;
  }
  Json::CharReaderBuilder builder;
  std::string errors;
  std::ifstream in(path);
  if (!Json::parseFromStream(builder, in, &ticket, &errors) || !ticket.isObject() ||
      !ticket["map"].isObject() || !ticket["member"].isObject()) {
    return false;
  }
  for (const std::string &id : ticket["map"].getMemberNames()) {
    const std::string ip = ticket["map"][id].asString();
    if (!IsNodeId(id) || !IsAddress(ip)) return false;
    idIpMap[id] = ip;
  }
  const Json::Value &m = ticket["member"];
  config.id = m["id"].asString();
  config.storageVolume = m["volume"].asString();
  config.weight = m["weight"].asUInt();
  config.backend = m["backend"].asBool();
  config.mailer = m["mailer"].asBool();
  config.storager = m["storager"].asBool();
  config.balancer = m["balancer"].asBool();
  for (const Json::Value &ip : m["ips"]) config.ipList.push_back(ip.asString());
  const std::string password = ticket["password"].asString();
  return IsNodeId(config.id) && idIpMap.count(config.id) != 0 &&
         idIpMap.count(ticket["master"].asString()) != 0 && !password.empty() &&
         std::all_of(password.begin(), password.end(), [](char c) { return isalnum(c) != 0; }) &&
         std::regex_match(config.storageVolume, std::regex("volume[0-9]{1,3}"));
}

// A replica's first copy of the store raises no key events, so its watcher has mirrored nothing
// yet: the lists this node is about to extend are read from the store itself, and the watcher,
// restarted, catches up on the rest.
// The membership writes of this command raised the services' sync flags for this node too, and
// its watcher leaves a flag raised here to the writer: Dovecot's mailbox sync listener follows
// the membership (a member of two or more nodes listens on its cluster address), so the writer
// reloads it. A Dovecot stopped on purpose stays stopped and is no failure.
void ApplyMembershipHere(const char *command) {
  if (ImapPop3::Service("reload") != 0 && ImapPop3::Service("status") == 0) {
    fprintf(stderr,
            "mailserverctl: member %s: Dovecot did not take up the membership; peers can't sync "
            "mailboxes here until it is reloaded\n",
            command);
  }
}

bool CatchUp(KOLTMailNodeCluster &node) {
  for (const char *key : {"cluster_peers", "consul_peers", "mailer", "storager", "balancer",
                          "mailer_weight_list", "balancer_master_node"}) {
    std::string value;
    if (node.exist(key) && (!node.getKey(key, value, true) || mailConfMirror(key, value, false) < 0)) {
      return false;
    }
  }
  return node.watchRestart(true);
}

// The map went into this node's mirrors at setup, so writing it again would publish nothing: its
// entries are set in the store directly, which wakes every other node.
bool PublishMap(KOLTMailNodeCluster &node, const std::map<std::string, std::string> &idIpMap) {
  for (const auto &entry : idIpMap) {
    if (!node.setKey(entry.first, entry.second, 0)) return false;
  }
  return true;
}

int Join(const std::string &path) {
  Json::Value ticket;
  MemberConfig config;
  std::map<std::string, std::string> idIpMap;
  if (!ReadTicket(path, ticket, config, idIpMap)) {
    return Error("not a usable ticket (root's alone, from `member add`): " + Quoted(path));
  }
  char hostname[256] = {0};
  config.hostname = gethostname(hostname, sizeof(hostname) - 1) == 0 ? hostname : "localhost";
  mkdir(kJoinDir, 0700);
  // The staging folder may have been left by someone else: the key goes in private either way.
  const bool staged =
      WriteWholeFile(std::string(kJoinDir) + "ca.key", ticket["ca_key"].asString(), 0600) == 0 &&
      WriteWholeFile(std::string(kJoinDir) + "ca.crt", ticket["ca_crt"].asString()) == 0;
  KOLTMailNodeCluster node;
  std::vector<std::string> own;
  node.getNodeIPList(own);
  const bool setUp = staged && node.setupEnv(idIpMap, own, {ticket["master"].asString()},
                                             ticket["password"].asString());
  KLIBCExecl("/bin/rm", kQuietWait, "-rf", kJoinDir, static_cast<char *>(nullptr));
  if (!setUp) return Error("cannot set this node up (see the system log)");
  std::map<std::string, std::vector<std::string>> nodeIps;
  for (const auto &entry : idIpMap) nodeIps[entry.first] = {entry.second};
  KOLTMailNodeCluster joined;
  Role role;
  role.mailer = config.mailer;
  role.storager = config.storager;
  role.balancer = config.balancer;
  bool configDone = false;
  const bool ok = joined.start(nodeIps) && joined.waitClusterHealth(10) &&
                  CatchUp(joined) && PublishMap(joined, idIpMap) &&
                  (configDone = joined.addRemoveNodeConfig(config, true));
  if (!ok) {
    joined.memberAddRestore(idIpMap, config.id, role, configDone, config);
    return Error("the node did not join; what was added was taken back (see the system log)");
  }
  ApplyMembershipHere("join");
  printf("%s joined; its key store follows %s\n", config.id.c_str(),
         idIpMap[ticket["master"].asString()].c_str());
  return 0;
}

// After this node took the key store's master role, the other key stores must follow it: a
// store left following the removed node would split the cluster in two.
// redis-cli takes the store's password from its environment, where no other user can read it,
// unlike its command line. False when this node has none.
bool ExportStorePassword() {
  Json::Value conf;
  if (loadMailJsonFromFile("backend.conf", conf, kEtc) != 0 || !conf["password"].isString()) {
    return false;
  }
  setenv("REDISCLI_AUTH", conf["password"].asCString(), 1);
  return true;
}

void RepointBackends(KOLTMailNodeCluster &node, const std::string &removed) {
  if (!ExportStorePassword()) return;
  const std::string self = node.getHostIP();
  for (const std::string &id : Split(Get("consul_peers"))) {
    const std::string ip = node.idToIP(id);
    if (id == removed || id == node.getHostID() || !IsAddress(ip)) continue;
    KLIBCExecl(kRedisCli, kQuietWait, "-h", ip.c_str(), "-p", "8500", "SLAVEOF", self.c_str(),
               "8500", static_cast<char *>(nullptr));
    KLIBCExecl(kRedisCli, kQuietWait, "-h", ip.c_str(), "-p", "8500", "CONFIG", "REWRITE",
               static_cast<char *>(nullptr));
  }
  unsetenv("REDISCLI_AUTH");
}

int Del(const std::string &id) {
  if (!IsNodeId(id)) return Error("not a node id: " + Quoted(id));
  KOLTMailNodeCluster node;
  if (!node.memberDelCheck(id)) {
    return Error("cannot remove " + id + " (error code " + std::to_string(node.getErrorCode()) +
                 "; see the system log)");
  }
  const MemberConfig config = StoredMember(id);
  if (!node.memberDel(id)) return Error("cannot take the key store's master role");
  RepointBackends(node, id);
  if (!node.addRemoveNodeConfig(config, false)) {
    return Error("the member's keys were not all removed (see the system log); run again");
  }
  // The writes above raised sync flags for every node in the peer list, which still named the
  // removed one while they ran; nobody would ever take those up.
  for (NodeRole role : {NODE_ROLE_MAILER, NODE_ROLE_BALANCER, NODE_ROLE_STORAGER}) {
    node.setRoleServSync(role, id, true);
  }
  // The file buffer follows the master balancer, which may now be this node.
  KLIBCExec(kClusterDaemon, "start", nullptr, nullptr, 0);
  ApplyMembershipHere("del");
  printf("%s removed; this node holds the key store's master role\n", id.c_str());
  return 0;
}

// This node's address has changed (the new one is already on its interface): the id map, the
// key store's configuration and every peer's map follow, and the file buffer moves with it.
int Readdress(const std::string &address) {
  KOLTMailNodeCluster node;
  // Two nodes with one address would shadow each other in every node's map.
  if (node.isConflicWithExistIP(address, false)) {
    return Error("the address " + address + " is already a member's");
  }
  // A replica's link to its master went out from the old address, which is gone: the link would
  // hang until it times out (a minute), and the regeneration's writes would wait for it.
  if (ExportStorePassword()) {
    KLIBCExecl(kRedisCli, kQuietWait, "-p", "8500", "CLIENT", "KILL", "TYPE", "master",
               static_cast<char *>(nullptr));
    unsetenv("REDISCLI_AUTH");
  }
  if (!node.idIpMapRegen(address)) return Error("the map was not regenerated (see the system log)");
  if (KLIBCExec(kClusterDaemon, "start", nullptr, nullptr, 0) != 0) {
    return Error("the daemons did not start again on the new address");
  }
  // Peers verify the mailbox sync listener's certificate by this node's address, which the old
  // certificate no longer names. The master balancer's address keeps the script from making a
  // CA of its own on a node that has lost the cluster's.
  const std::string master = node.idToIP(Get("balancer_master_node"));
  if (KLIBCExecl(kClusterDaemon, kQuietWait, "generate_certificate", node.getHostID().c_str(),
                 address.c_str(), master.empty() ? "-" : master.c_str(),
                 static_cast<char *>(nullptr)) != 0) {
    fprintf(stderr, "mailserverctl: no certificate for %s; peers can't sync mail with this node "
                    "(see the system log)\n", address.c_str());
  }
  // The mailbox sync listens on the node's cluster address.
  ApplyMembershipHere("readdress");
  printf("%s is now %s on every node\n", node.getHostID().c_str(), address.c_str());
  return 0;
}

int List() {
  KOLTMailNodeCluster node;
  const std::string master = Get("balancer_master_node");
  for (const std::string &id : Split(Get("cluster_peers"))) {
    std::string roles;
    for (const char *role : {"mailer", "storager", "balancer"}) {
      if (Holds(role, id)) roles += std::string(roles.empty() ? "" : ",") + role;
    }
    const MemberConfig config = StoredMember(id);
    printf("%s %s roles=%s weight=%u%s%s%s\n", id.c_str(), node.idToIP(id).c_str(),
           roles.empty() ? "-" : roles.c_str(), config.weight, config.backend ? " backend" : "",
           id == master ? " master-balancer" : "", id == node.getHostID() ? " (this node)" : "");
  }
  return 0;
}

int Check(const std::vector<std::string> &args) {
  if (args.size() != 2) return MemberUsage();
  KOLTMailNodeCluster node;
  bool ok;
  if (args[0] == "--address" && IsAddress(args[1])) {
    ok = node.memberAddCheck({{"new", args[1]}}, "new", "", "");
  } else if (args[0] == "--remove" && IsNodeId(args[1])) {
    ok = node.memberDelCheck(args[1]);
  } else {
    return MemberUsage();
  }
  if (!ok) return Error("refused (error code " + std::to_string(node.getErrorCode()) + ")");
  printf("ok\n");
  return 0;
}

}  // namespace

// A request without a file to the request service of the peer at `address`: the package's mail
// sync script asks a peer to make a user's mail directory, or to align its INBOX, through it.
// args: METHOD, then NAME VALUE pairs of its params.
int Ask(const std::string &address, const std::vector<std::string> &args) {
  if (args.empty() || args.size() % 2 != 1 ||
      (args[0] != "make_mail_dir" && args[0] != "align_inbox")) {
    return MemberUsage();
  }
  Json::Value request(Json::objectValue);
  request["api"] = "KOLT.QuillonServer.Cluster";
  request["version"] = 1;
  request["method"] = args[0];
  request["params"] = Json::Value(Json::objectValue);
  for (size_t i = 1; i < args.size(); i += 2) request["params"][args[i]] = args[i + 1];
  Json::Value response;
  if (!WebAPIRequest(address, request, response)) {
    return Error("the request service of " + address + " did not answer");
  }
  if (!response["success"].asBool()) {
    return Error("the request service of " + address + " refused " + args[0] + " (code " +
                 std::to_string(response["error"]["code"].asInt()) + ")");
  }
  return 0;
}

int MemberCommand(const std::vector<std::string> &args) {
  if (geteuid() != 0) return Error("member: must run as root");
  if (args.empty()) return MemberUsage();
  const std::vector<std::string> rest(args.begin() + 1, args.end());
  if (args[0] == "add") return Add(rest);
  if (args[0] == "join" && rest.size() == 2 && rest[0] == "--ticket") return Join(rest[1]);
  if (args[0] == "del" && rest.size() == 1) return Del(rest[0]);
  if (args[0] == "list" && rest.empty()) return List();
  if (args[0] == "check") return Check(rest);
  if (args[0] == "sync-spam" && rest.size() == 1 && IsAddress(rest[0])) {
    KOLTMailNodeCluster node;
    if (!node.syncSpamConfig(rest[0], "", "", "", 0)) {
      return Error("the spam databases did not reach " + rest[0] + " (see the system log)");
    }
    printf("spam databases sent to %s\n", rest[0].c_str());
    return 0;
  }
  if (args[0] == "ask" && rest.size() >= 2 && IsAddress(rest[0])) {
    return Ask(rest[0], std::vector<std::string>(rest.begin() + 1, rest.end()));
  }
  if (args[0] == "sync-config" && rest.size() == 1 && IsAddress(rest[0])) {
    KOLTMailNodeCluster node;
    if (!node.syncConfig(rest[0], "", "", "", 0)) {
      return Error("the spam databases or the synced files did not reach " + rest[0] +
                   " (see the system log)");
    }
    printf("spam databases and synced files sent to %s\n", rest[0].c_str());
    return 0;
  }
  if (args[0] == "sync-mail" && rest.size() == 1 && IsIPv4(rest[0])) {
    KOLTMailNodeCluster node;
    if (!node.syncMail(rest[0])) {
      return Error("the mailboxes did not sync with " + rest[0] + " (see the system log)");
    }
    printf("mailboxes synced with %s\n", rest[0].c_str());
    return 0;
  }
  if (args[0] == "readdress" && rest.size() == 1 && IsAddress(rest[0])) return Readdress(rest[0]);
  return MemberUsage();
}

int VersionCommand(const std::vector<std::string> &args) {
  if (args.size() == 1 && args[0] == "publish") {
    if (QuillonServerVersion::SetQuillonServerVersion() != 0) {
      return Error("cannot publish this node's version (see the system log)");
    }
    printf("published\n");
    return 0;
  }
  if (args.size() == 1 && args[0] == "check") {
    const int rc = QuillonServerVersion::CheckQuillonServerVersion();
    if (rc < 0) return Error("cannot compare the versions (see the system log)");
    printf("%s\n", rc == 0 ? "same" : "different");
    return 0;
  }
  fprintf(stderr, "usage: mailserverctl version publish|check\n");
  return 2;
}

}  // namespace mailserverctl
