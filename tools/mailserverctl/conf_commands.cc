#include "mailserverctl/conf_commands.h"

#include <cstdio>
#include <map>

#include "cluster/mailserver_cluster.h"
#include "config/mail_conf.h"
#include "core/key_tree_store.h"
#include "core/mail_conf.h"
#include "mailserverctl/error.h"
#include "mailserverctl/settings_commands.h"

using KOLT::QUILLON_SERVER::KeyTreeStore;
using KOLT::QUILLON_SERVER::KOLTMailNodeCluster;

namespace mailserverctl {
namespace {

// The trees an administrator may write. The others are the store's own bookkeeping (locks, task
// queues, upload records, service flags, heartbeats, synced-file records, facts of this node): a
// value set there by hand stalls or misleads the daemons that follow them.
bool IsSettingsTree(const std::string &tree) {
  return tree == "conf" || tree == "cluster" || tree == "mapping_table";
}

// Why `key` = `value` is refused before anything is written, or "".
std::string Refusal(const std::string &key, const std::string &value) {
  std::string why = mailConfRefusal(key, value);
  if (!why.empty()) return why;
  KeyTreeStore *store = KeyTreeStore::instance();
  const std::string tree = store->treeGet(key);
  if (!IsSettingsTree(tree)) {
    return "the key lies in the store's own \"" + tree + "\" tree, not among the settings";
  }
  return StoredSettingRefusal(store->keyShort(key), value);
}

// What keeps a write that passed every check from the store.
std::string WriteFailure() {
  if (!KOLTMailNodeCluster().isClusterHealth(false)) {
    return "the cluster is not healthy; writes wait until it is";
  }
  return "the backend refused it or the key's file on this node could not be written (see the "
         "system log)";
}

}  // namespace

int ConfGet(const std::string &key) {
  std::string value;
  if (mailConfGet(key, value) < 0) return Error("cannot read " + key + ": its file is damaged");
  printf("%s\n", value.c_str());
  return 0;
}

int ConfSet(const std::vector<std::string> &pairs) {
  std::map<std::string, std::string> keys;
  for (size_t i = 0; i + 1 < pairs.size(); i += 2) {
    const std::string why = Refusal(pairs[i], pairs[i + 1]);
    if (!why.empty()) {
      return Error("refused " + Quoted(pairs[i]) + "=" + QuotedValue(pairs[i], pairs[i + 1]) +
                   ": " + why + "; nothing was written");
    }
    keys[pairs[i]] = pairs[i + 1];
  }
  if (pairs.size() == 2) {
    if (mailConfSet(pairs[0], pairs[1], true, 0) != 0) {
      return Error("did not write " + Quoted(pairs[0]) + ": " + WriteFailure());
    }
    return 0;
  }
  if (mailConfSet(keys) != 0) {
    return Error("some keys were not written, the others were: " + WriteFailure());
  }
  return 0;
}

}  // namespace mailserverctl
