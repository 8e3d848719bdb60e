#include "key_commands.h"

#include <unistd.h>

#include <set>
#include <sstream>

#include "kolt/proc_identity.h"

#include "exit_status.h"
#include "json_text.h"
#include "key_tree.h"
#include "store.h"

namespace kvtool {
namespace {

using Command = int (*)(Store *, const Invocation &);

void AddExpiry(const Invocation &inv, std::vector<std::string> *args) {
  if (inv.ttl > 0) {
    args->push_back("EX");
    args->push_back(std::to_string(inv.ttl));
  }
}

int PrintValueOf(Connection *connection, const std::string &key) {
  if (connection == nullptr) return kExitStore;
  Reply reply = connection->Call({"GET", key});
  if (!reply) return kExitStore;
  if (reply->type == REDIS_REPLY_NIL) return kExitNo;
  if (reply->type != REDIS_REPLY_STRING) return kExitStore;
  return PrintExactly(std::string(reply->str, reply->len)) ? kExitOk : kExitStore;
}

int Set(Store *store, const Invocation &inv) {
  Connection *master = store->Master();
  if (master == nullptr) return kExitStore;
  std::vector<std::string> args = {"SET", inv.key, inv.value};
  AddExpiry(inv, &args);
  return master->Call(args) ? kExitOk : kExitStore;
}

const char kConfDir[] = "/var/packages/Quillon-Server/etc/mailconf.d/";
const char kLockPrefix[] = "quillon_server_lock/";
const char kHolderPrefix[] = "quillon_server_lock_holder/";

// The holder record of a cluster lock, or "" for any other key.
std::string HolderKeyOf(const std::string &key) {
  const size_t n = sizeof(kLockPrefix) - 1;
  if (key.size() <= n || key.compare(0, n, kLockPrefix) != 0) return "";
  return kHolderPrefix + key.substr(n);
}

std::string LocalId() {
  std::string id;
  if (ReadJsonMember(std::string(kConfDir) + "local_id_file", "id", &id) != JsonRead::kOk) return "";
  return id;
}

// A lock and the record of its holder, the process that ran this tool, are set together: a lock
// whose holder has gone can then be told from one still held, and broken.
int CreateLock(Connection *master, const Invocation &inv, const std::string &holderKey) {
  static const char kScript[] =
      "local ok\n"
      "if tonumber(ARGV[2]) > 0 then ok = redis.call('SET', KEYS[1], ARGV[1], 'NX', 'EX', ARGV[2])\n"
      "else ok = redis.call('SET', KEYS[1], ARGV[1], 'NX') end\n"
      "if not ok then return 0 end\n"
      "if ARGV[3] == '' then return 1 end\n"
      "if tonumber(ARGV[2]) > 0 then redis.call('SET', KEYS[2], ARGV[3], 'EX', ARGV[2])\n"
      "else redis.call('SET', KEYS[2], ARGV[3]) end\n"
      "return 1\n";
  // A process of a node without an id can't be judged later: no record, the lock just expires.
  const std::string node = LocalId();
  const std::string holder = node.empty() ? "" : KLIBCLockHolderText(node, getppid());
  Reply reply = master->Call({"EVAL", kScript, "2", inv.key, holderKey, inv.value,
                              std::to_string(inv.ttl > 0 ? inv.ttl : 0), holder});
  if (!reply || reply->type != REDIS_REPLY_INTEGER) return kExitStore;
  return reply->integer == 1 ? kExitOk : kExitNo;
}

int Create(Store *store, const Invocation &inv) {
  Connection *master = store->Master();
  if (master == nullptr) return kExitStore;
  const std::string holderKey = HolderKeyOf(inv.key);
  if (!holderKey.empty()) return CreateLock(master, inv, holderKey);
  std::vector<std::string> args = {"SET", inv.key, inv.value, "NX"};
  AddExpiry(inv, &args);
  Reply reply = master->Call(args);
  if (!reply) return kExitStore;
  return reply->type == REDIS_REPLY_NIL ? kExitNo : kExitOk;
}

int Get(Store *store, const Invocation &inv) { return PrintValueOf(store->Local(), inv.key); }

int LinearGet(Store *store, const Invocation &inv) {
  return PrintValueOf(store->Master(), inv.key);
}

int Exist(Store *store, const Invocation &inv) {
  Connection *local = store->Local();
  Reply reply = local->Call({"EXISTS", inv.key});
  if (!reply) return kExitStore;
  if (reply->type == REDIS_REPLY_INTEGER && reply->integer > 0) return kExitOk;
  bool found = false;
  if (!ScanUnder(local, inv.key, [&](const std::vector<std::string> &) {
        found = true;
        return false;
      })) {
    return kExitStore;
  }
  return found ? kExitOk : kExitNo;
}

int Del(Store *store, const Invocation &inv) {
  Connection *master = store->Master();
  if (master == nullptr) return kExitStore;
  std::vector<std::string> args = {"DEL", inv.key};
  const std::string holderKey = HolderKeyOf(inv.key);
  if (!holderKey.empty()) args.push_back(holderKey);
  return master->Call(args) ? kExitOk : kExitStore;
}

// Removes a lock only while its holder record still reads --value: whoever took the lock since
// the caller judged its holder gone keeps it.
int BreakLock(Store *store, const Invocation &inv) {
  static const char kScript[] =
      "if redis.call('GET', KEYS[2]) == ARGV[1] then redis.call('DEL', KEYS[1], KEYS[2]) return 1 end\n"
      "return 0\n";
  const std::string holderKey = HolderKeyOf(inv.key);
  if (holderKey.empty() || inv.value.empty()) return kExitNo;
  Connection *master = store->Master();
  if (master == nullptr) return kExitStore;
  Reply reply = master->Call({"EVAL", kScript, "2", inv.key, holderKey, inv.value});
  if (!reply || reply->type != REDIS_REPLY_INTEGER) return kExitStore;
  return reply->integer == 1 ? kExitOk : kExitNo;
}

int DelDir(Store *store, const Invocation &inv) {
  Connection *master = store->Master();
  if (master == nullptr) return kExitStore;
  if (!master->Call({"DEL", inv.key})) return kExitStore;
  bool failed = false;
  // Deleting while scanning is safe: SCAN still returns every key that stays in the store
  // throughout, and those deleted are gone anyway.
  if (!ScanUnder(master, inv.key, [&](const std::vector<std::string> &keys) {
        std::vector<std::string> args = {"DEL"};
        args.insert(args.end(), keys.begin(), keys.end());
        failed = !master->Call(args);
        return !failed;
      }) ||
      failed) {
    return kExitStore;
  }
  return kExitOk;
}

int List(Store *store, const Invocation &inv) {
  std::set<std::string> children;
  if (!ScanUnder(store->Local(), inv.key, [&](const std::vector<std::string> &keys) {
        for (const auto &key : keys) children.insert(ChildOf(inv.key, key));
        return true;
      })) {
    return kExitStore;
  }
  std::string out;
  for (const auto &child : children) {
    if (!out.empty()) out += ' ';
    out += child;
  }
  return PrintExactly(out) ? kExitOk : kExitStore;
}

// The node's own address in the cluster, from the local mirrors of its id and of the mapping
// table; "" when this node has not been set up.
std::string OwnClusterAddress() {
  const std::string conf = kConfDir;
  std::string address;
  const std::string id = LocalId();
  if (id.empty()) return "";
  if (ReadJsonMember(conf + "mapping_table", "mapping_table/" + id, &address) != JsonRead::kOk) {
    return "";
  }
  return address;
}

// The address other nodes reach the master at. A replica knows it from its link. The master is
// this node: its address in the mapping table, or else the first address it is bound to (Redis
// marks optional addresses with a leading "-", which is not part of the address; a wildcard
// names no address).
int MasterIp(Store *store, const Invocation &) {
  Replication replication;
  if (!store->LocalReplication(&replication)) return kExitStore;
  if (replication.replica) {
    return PrintExactly(replication.masterHost) ? kExitOk : kExitStore;
  }
  const std::string own = OwnClusterAddress();
  if (!own.empty()) return PrintExactly(own) ? kExitOk : kExitStore;
  Connection *local = store->Local();
  Reply reply = local->Call({"CONFIG", "GET", "bind"});
  if (!reply) return kExitStore;
  if (reply->type == REDIS_REPLY_ARRAY && reply->elements == 2 &&
      reply->element[1]->type == REDIS_REPLY_STRING) {
    std::istringstream addresses(std::string(reply->element[1]->str, reply->element[1]->len));
    std::string address;
    while (addresses >> address) {
      if (!address.empty() && address[0] == '-') address.erase(0, 1);
      if (address.empty() || address == "*" || address == "::*") continue;
      return PrintExactly(address) ? kExitOk : kExitStore;
    }
  }
  Complain("the key store at " + local->where() + " is the master but binds no address");
  return kExitStore;
}

struct Entry {
  const char *word;
  Command run;
};

const Entry kCommands[] = {
    {"set", Set},
    {"get", Get},
    {"linear_get", LinearGet},
    {"exist", Exist},
    {"del", Del},
    {"del_dir", DelDir},
    {"list", List},
    {"create", Create},
    {"break_lock", BreakLock},
    {"get_redis_master_ip", MasterIp},
};

Command Find(const std::string &word) {
  for (const auto &entry : kCommands) {
    if (word == entry.word) return entry.run;
  }
  return nullptr;
}

}  // namespace

bool IsKeyCommand(const std::string &word) { return Find(word) != nullptr; }

int RunKeyCommand(const Invocation &invocation) {
  std::unique_ptr<Store> store = Store::Open();
  if (!store) return kExitStore;
  return Find(invocation.command)(store.get(), invocation);
}

}  // namespace kvtool
