#include "core/key_tree_store.h"

#include <cstring>

namespace KOLT {
namespace QUILLON_SERVER {
namespace {

// Trees of the store. A tree with an empty prefix holds keys that are their own full names: the
// bookkeeping trees, which callers list and match by the names they wrote. A tree with a shared
// file keeps the local mirrors of all its keys in that one file, one member per key; the keys of
// the other trees have a mirror file each.
struct Tree {
  const char *name;
  const char *prefix;
  const char *sharedFile;
};

const Tree kTrees[] = {
    {"conf", "mailserver/conf", nullptr},        // settings of the mail services; the default
    {"cluster", "mailserver/cluster", nullptr},  // membership, roles, node facts
    {"mapping_table", "mapping_table", "mapping_table"},  // node id -> address
    {"service_change", "", "service_change"},
    {"health_check_heartbeat_dir", "", "health_check_heartbeat_dir"},
    {"node_local", "", nullptr},  // facts of this node only, never published
    {"task_queue", "", nullptr},
    {"quillon_server_lock", "", nullptr},
    {"suspend", "", nullptr},
    {"service_catalog", "", nullptr},
    // the records of synced files, under the names their owners give them
    {"file", "mailserver/file", nullptr},
    // enabled flags of the custom anti-spam rules; listed by the tree's name, so it is its prefix
    {"rule", "rule", nullptr},
    // the records of users' forward and vacation files, "personal-UID-TYPE"; the key watcher hands
    // each change to the library's personal hook
    {"personal", "personal", nullptr},
    // per-domain usage limits the policy daemons read; listed by the tree's name
    {"virtual_domain", "virtual_domain", nullptr},
};

// Keys placed outside the default tree, and the services that must follow a change of a key.
// A key that ends in "-" is a prefix to which a node id or a domain number is appended.
struct KeyRow {
  const char *key;
  const char *tree;
  std::vector<std::string> services;
};

const char kPostfix[] = "mailserver_service_postfix";
const char kDovecot[] = "mailserver_service_dovecot";
const char kSpam[] = "mailserver_service_spam";
const char kAntivirus[] = "mailserver_service_antivirus";
const char kBalancer[] = "mailserver_service_balancer";
const char kHaproxy[] = "mailserver_service_haproxy";

const KeyRow kKeys[] = {
    {"mailserver_id-", "mapping_table", {}},
    {"id", "node_local", {}},
    // cluster
    {"cluster_peers", "cluster", {}},
    {"consul_peers", "cluster", {}},
    {"mailer", "cluster", {kHaproxy}},
    {"storager", "cluster", {kHaproxy}},
    {"balancer", "cluster", {}},
    // A new master moves the proxy's configuration; the election itself lowers these flags.
    {"balancer_master_node", "cluster", {kHaproxy}},
    {"mailer_weight_list", "cluster", {kHaproxy}},
    {"enable_balancer_address", "cluster", {kBalancer}},
    {"balancer_address", "cluster", {kBalancer}},
    {"balancer_netmask", "cluster", {kBalancer}},
    {"quillon_server_cluster_status", "cluster", {}},
    {"health_check_trigger", "cluster", {}},
    {"node_bind_if-", "cluster", {}},
    {"node_ip_list-", "cluster", {}},
    {"resource_info-", "cluster", {}},
    {"storage_static_mapping-", "cluster", {}},
    {"general_storage_volume-", "cluster", {}},
    {"peer_info_hostname-", "cluster", {}},
    {"peer_info_mac-", "cluster", {}},
    {"peer_info_serial_num-", "cluster", {}},
    {"version_cluster-", "cluster", {}},
    // synced files
    {"mailserver_alias_db", "file", {}},
    {"mailserver_dailyquota_db", "file", {}},
    {"mailserver_attachment_filter_db", "file", {}},
    {"mailserver_global_access_db", "file", {}},
    {"mailserver_dkim_sign_whitelist_db", "file", {}},
    {"domain_setting_db", "file", {}},
    {"personal-", "personal", {}},
    // SMTP
    {"smtp_", "conf", {kPostfix}},
    {"smtpd_", "conf", {kPostfix}},
    {"relay_", "conf", {kPostfix}},
    {"canonical_domain", "conf", {kPostfix, kDovecot}},
    {"virtual_multiple_domain", "conf", {kPostfix, kDovecot}},
    {"additional_domain-", "conf", {kPostfix, kDovecot}},
    {"postscreen_", "conf", {kPostfix}},
    {"greylist_", "conf", {kPostfix}},
    {"message_size_limit", "conf", {kPostfix}},
    // Postfix's own reject_* words; the scanner's two below are exact rows, which win.
    {"reject_", "conf", {kPostfix}},
    {"account_type", "conf", {kPostfix, kDovecot}},
    // IMAP and POP3
    {"imap_", "conf", {kDovecot}},
    {"pop3_", "conf", {kDovecot}},
    {"dovecot_", "conf", {kDovecot}},
    {"imaps_", "conf", {kDovecot}},
    {"pop3s_", "conf", {kDovecot}},
    // It rules POP3 logins as much as IMAP ones, whatever its prefix says.
    {"imap_pop3_security_auth", "conf", {kDovecot}},
    {"enable_dovecot_auth_", "conf", {kDovecot}},
    {"max_userip_conn", "conf", {kDovecot}},
    // Full-text search is the IMAP server's: its switches, its word splitter, and the ids of the
    // users and groups allowed or refused it.
    {"fts_", "conf", {kDovecot}},
    {"jieba_enabled", "conf", {kDovecot}},
    // content scanning
    {"spam_", "conf", {kSpam}},
    {"mailserver_rule_status-", "rule", {kSpam}},
    // per-domain usage limits: the policy daemons read them as they are, no service follows
    {"enable_attachment-", "virtual_domain", {}},
    {"enable_daily_quota-", "virtual_domain", {}},
    {"enable_outbound_flow-", "virtual_domain", {}},
    {"enable_auto_forward-", "virtual_domain", {}},
    {"enable_catch_all-", "virtual_domain", {}},
    {"attachment_limit-", "virtual_domain", {}},
    {"daily_quota_limit-", "virtual_domain", {}},
    {"outbound_flow_limit-", "virtual_domain", {}},
    {"mail_size_limit-", "virtual_domain", {}},
    {"catch_all-", "virtual_domain", {}},
    {"av_", "conf", {kAntivirus}},
    {"antivirus_", "conf", {kAntivirus}},
    {"anti_virus_", "conf", {kAntivirus}},
    // The content scanner that runs the spam checks also judges dangerous content and applies
    // the content protection rules.
    {"mcp_", "conf", {kSpam}},
    {"enable_dangerous_content_scan", "conf", {kSpam}},
    {"reject_partial_message", "conf", {kSpam}},
    {"reject_external_message_bodies", "conf", {kSpam}},
    {"find_phishing_fraud", "conf", {kSpam}},
    {"convert_html_to_text", "conf", {kSpam}},
    {"allow_iframe_tags", "conf", {kSpam}},
    {"allow_form_tags", "conf", {kSpam}},
    {"allow_script_tags", "conf", {kSpam}},
    {"allow_webbugs", "conf", {kSpam}},
    {"allow_object_codebase_tags", "conf", {kSpam}},
};

struct ServiceRow {
  const char *service;
  int role;          // 0 mailer, 1 storager, 2 balancer
  const char *tag;   // sync tag
};

const ServiceRow kServices[] = {
    {kPostfix, 0, ""},    {kSpam, 0, ""},       {kAntivirus, 0, ""},
    {kDovecot, 1, "dsync"}, {kBalancer, 2, ""}, {kHaproxy, 2, ""},
};

const char *const kRoleKeys[] = {"mailer", "storager", "balancer"};

bool StartsWith(const std::string &text, const char *prefix) {
  return text.compare(0, strlen(prefix), prefix) == 0;
}

// The tree that declares `key` by its full name, or null.
const Tree *TreeOfFullName(const std::string &key) {
  for (const Tree &tree : kTrees) {
    const size_t n = strlen(tree.prefix);
    if (n > 0 && key.size() > n + 1 && StartsWith(key, tree.prefix) && key[n] == '/') return &tree;
  }
  return nullptr;
}

const Tree *TreeNamed(const char *name) {
  for (const Tree &tree : kTrees) {
    if (strcmp(tree.name, name) == 0) return &tree;
  }
  return &kTrees[0];
}

// The row of a short key: an exact row first, else the longest prefix row.
const KeyRow *RowOf(const std::string &shortKey) {
  const KeyRow *best = nullptr;
  size_t bestLength = 0;
  for (const KeyRow &row : kKeys) {
    const size_t n = strlen(row.key);
    if (shortKey == row.key) return &row;
    const bool isPrefixRow = n > 0 && (row.key[n - 1] == '-' || row.key[n - 1] == '_');
    if (isPrefixRow && shortKey.size() > n && StartsWith(shortKey, row.key) && n > bestLength) {
      best = &row;
      bestLength = n;
    }
  }
  return best;
}

// The tree of a short key.
const Tree *TreeOfShortName(const std::string &key) {
  const size_t slash = key.find('/');
  if (slash != std::string::npos) {
    const std::string top = key.substr(0, slash);
    for (const Tree &tree : kTrees) {
      if (tree.prefix[0] == '\0' && top == tree.name) return &tree;
    }
    return nullptr;  // a path of no known tree: its own full name
  }
  for (const Tree &tree : kTrees) {
    if (tree.prefix[0] == '\0' && key == tree.name) return &tree;
    if (key == tree.prefix) return &tree;  // the root of a tree named by its prefix
  }
  const KeyRow *row = RowOf(key);
  return row != nullptr ? TreeNamed(row->tree) : &kTrees[0];
}

const Tree *TreeOf(const std::string &key) {
  if (const Tree *tree = TreeOfFullName(key)) return tree;
  return TreeOfShortName(key);
}

}  // namespace

KeyTreeStore *KeyTreeStore::instance() {
  static KeyTreeStore store;
  return &store;
}

std::string KeyTreeStore::keyComplete(const std::string &key) const {
  if (key.empty() || TreeOfFullName(key) != nullptr) return key;
  const Tree *tree = TreeOfShortName(key);
  if (tree == nullptr || tree->prefix[0] == '\0' || key == tree->prefix) return key;
  return std::string(tree->prefix) + "/" + key;
}

std::string KeyTreeStore::keyShort(const std::string &key) const {
  const Tree *tree = TreeOfFullName(key);
  return tree == nullptr ? key : key.substr(strlen(tree->prefix) + 1);
}

std::string KeyTreeStore::treeGet(const std::string &key) const {
  if (const Tree *tree = TreeOf(key)) return tree->name;
  return key.substr(0, key.find('/'));
}

std::string KeyTreeStore::sharedFileGet(const std::string &key) const {
  const Tree *tree = TreeOf(key);
  return tree != nullptr && tree->sharedFile != nullptr ? tree->sharedFile : "";
}

std::vector<std::string> KeyTreeStore::getKeyServ(const std::string &key) const {
  const KeyRow *row = RowOf(keyShort(key));
  return row != nullptr ? row->services : std::vector<std::string>();
}

std::string KeyTreeStore::getServScript(const std::string &service) const {
  for (const ServiceRow &row : kServices) {
    if (service == row.service) return row.tag;
  }
  return "";
}

std::string KeyTreeStore::roleGet(const std::string &service) const {
  for (const ServiceRow &row : kServices) {
    if (service == row.service) return kRoleKeys[row.role];
  }
  return "";
}

bool KeyTreeStore::roleToServ(int role, std::vector<std::string> &services) const {
  if (role < 0 || role > 2) return false;
  for (const ServiceRow &row : kServices) {
    if (row.role == role) services.push_back(row.service);
  }
  return true;
}

}  // namespace QUILLON_SERVER
}  // namespace KOLT
