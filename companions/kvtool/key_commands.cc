#include "key_commands.h"

#include <set>
#include <sstream>

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

int Create(Store *store, const Invocation &inv) {
  Connection *master = store->Master();
  if (master == nullptr) return kExitStore;
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
  return master->Call({"DEL", inv.key}) ? kExitOk : kExitStore;
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
  const std::string conf = "/var/packages/Quillon-Server/etc/mailconf.d/";
  std::string id, address;
  if (ReadJsonMember(conf + "local_id_file", "id", &id) != JsonRead::kOk || id.empty()) return "";
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
