#include "access_settings.h"

#include <arpa/inet.h>
#include <ifaddrs.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <unistd.h>

#include <boost/any.hpp>
#include <cstdio>
#include <cstdlib>
#include <map>
#include <vector>

#include "cluster/mailserver_cluster.h"
#include "config/imap_pop3.h"
#include "core/mail_conf.h"
#include "core/mail_dir.h"
#include "webapi/web_api_wire.h"

namespace dovecotconf {
namespace {

// Local and private networks, for logins that must not come from outside.
constexpr char kLocalNets[] =
    "127.0.0.0/8,::1/128,10.0.0.0/8,172.16.0.0/12,192.168.0.0/16,fc00::/7,fe80::/10";

// `text` for a message: control characters, quotes and backslashes as "\xHH", at most 64 bytes.
std::string Printable(const std::string &text) {
  std::string out;
  for (const char c : text.substr(0, 64)) {
    const auto byte = static_cast<unsigned char>(c);
    if (byte < 0x20 || byte == 0x7F || c == '\\' || c == '"') {
      char escaped[8];
      snprintf(escaped, sizeof(escaped), "\\x%02x", byte);
      out += escaped;
    } else {
      out += c;
    }
  }
  return text.size() > 64 ? out + "..." : out;
}

bool Digits(const std::string &text, size_t maxLength) {
  return !text.empty() && text.size() <= maxLength &&
         text.find_first_not_of("0123456789") == std::string::npos;
}

// Decimal ids joined by ",", as the full-text search rules keep them.
bool IdList(const std::string &text) {
  size_t start = 0;
  for (;;) {
    const size_t comma = text.find(',', start);
    if (!Digits(text.substr(start, comma - start), 10)) return false;
    if (comma == std::string::npos) return true;
    start = comma + 1;
  }
}

// A path Dovecot can take as one word of a value: no blank, no quote, no "%" (its variables),
// no "<" or "!" at the start of a word, nothing but letters, digits and ". _ - /".
bool PlainPath(const std::string &path) {
  return !path.empty() && path[0] == '/' &&
         path.find_first_not_of("abcdefghijklmnopqrstuvwxyzABCDEFGHIJKLMNOPQRSTUVWXYZ0123456789._-/") ==
             std::string::npos;
}

// The checked value of one declared key, as text: "yes"/"no", digits, ids, or the default's text
// for an empty value. False, with `why`, for anything else.
bool Checked(ImapPop3 &settings, const boost::any &declaration, std::string &value,
             std::string &why) {
  const std::string name = settings.GetKeyName(declaration);
  std::string text;
  if (mailConfGet(name, text) < 0) {
    why = name + " can't be read from the store";
    return false;
  }
  if (declaration.type() == typeid(Key<bool>)) {
    if (text.empty()) text = boost::any_cast<Key<bool>>(declaration).defaultValue ? "yes" : "no";
    if (text == "yes" || text == "no") {
      value = text;
      return true;
    }
    why = name + " holds \"" + Printable(text) + "\", but it takes yes or no";
  } else if (declaration.type() == typeid(Key<int>)) {
    if (text.empty()) text = std::to_string(boost::any_cast<Key<int>>(declaration).defaultValue);
    if (Digits(text, 5) && atoi(text.c_str()) >= 1 && atoi(text.c_str()) <= kMaxUserIpConnections) {
      value = text;
      return true;
    }
    why = name + " holds \"" + Printable(text) + "\", but it takes a number from 1 to " +
          std::to_string(kMaxUserIpConnections);
  } else if (declaration.type() == typeid(Key<std::string>)) {
    // The only texts of these settings are the lists of user and group ids.
    if (text.empty() || IdList(text)) {
      value = text;
      return true;
    }
    why = name + " holds \"" + Printable(text) + "\", but it takes ids joined by \",\"";
  } else {
    why = name + " is of a type no Dovecot setting takes";
  }
  return false;
}

// `text` as an IPv4 or IPv6 address in the form inet_ntop gives it, or "" when it is none. Only
// this form reaches the configuration: whatever else the mapping table's mirror holds can't.
std::string CanonicalAddress(const std::string &text) {
  unsigned char bytes[sizeof(in6_addr)];
  char out[INET6_ADDRSTRLEN];
  for (const int family : {AF_INET, AF_INET6}) {
    if (inet_pton(family, text.c_str(), bytes) == 1 &&
        inet_ntop(family, bytes, out, sizeof(out)) != nullptr) {
      return out;
    }
  }
  return "";
}

// Whether one of this machine's interfaces has `address` (canonical): Dovecot refuses to start at
// all when a listener can't bind, and IMAP must not go down for an address that moved away.
bool AssignedHere(const std::string &address) {
  ifaddrs *list = nullptr;
  if (getifaddrs(&list) != 0) return false;
  bool found = false;
  for (const ifaddrs *entry = list; entry != nullptr && !found; entry = entry->ifa_next) {
    if (entry->ifa_addr == nullptr) continue;
    char text[INET6_ADDRSTRLEN] = {0};
    if (entry->ifa_addr->sa_family == AF_INET) {
      inet_ntop(AF_INET, &reinterpret_cast<const sockaddr_in *>(entry->ifa_addr)->sin_addr, text,
                sizeof(text));
    } else if (entry->ifa_addr->sa_family == AF_INET6) {
      inet_ntop(AF_INET6, &reinterpret_cast<const sockaddr_in6 *>(entry->ifa_addr)->sin6_addr,
                text, sizeof(text));
    }
    found = address == text;
  }
  freeifaddrs(list);
  return found;
}

// Whether `path` is a file root alone may change; with `secret`, one only root may read too.
bool RootsFile(const char *path, bool secret) {
  struct stat st;
  return lstat(path, &st) == 0 && S_ISREG(st.st_mode) && st.st_uid == 0 &&
         (st.st_mode & (secret ? 077 : 022)) == 0;
}

// The sync listener's address and password, when this node is one of at least two members: a
// node alone has nobody to sync with and opens no port for it.
void ReadSyncSettings(AccessSettings &settings) {
  using KOLT::QUILLON_SERVER::KOLTMailNodeCluster;
  KOLTMailNodeCluster cluster;
  if (!cluster.isClusterInited()) return;
  const std::string id = cluster.getHostID();
  std::vector<std::string> peers;
  cluster.listPeers(peers);
  bool member = false;
  for (const std::string &peer : peers) member = member || (!id.empty() && peer == id);
  if (!member || peers.size() < 2) return;
  const std::string stored = cluster.idToIP(id);
  const std::string address = CanonicalAddress(stored);
  if (address.empty()) {
    settings.noSyncListener = "this node's address in the mapping table, \"" + Printable(stored) +
                              "\", is no IP address";
    return;
  }
  if (!AssignedHere(address)) {
    settings.noSyncListener = "this node's cluster address " + address + " is on none of its "
                              "interfaces";
    return;
  }
  // Mail crosses the cluster's network only inside TLS: without this node's certificate there is
  // no listener, rather than one in clear, which members would refuse anyway.
  if (!RootsFile(kNodeCertFile, false) || !RootsFile(kNodeKeyFile, true) ||
      !RootsFile(kClusterCaFile, false)) {
    settings.noSyncListener = std::string("no certificate of the cluster's CA for this node (") +
                              kNodeCertFile + " and " + kNodeKeyFile + ", root's, the key 0600, "
                              "and " + kClusterCaFile + ")";
    return;
  }
  const std::string backendPassword = webapi::BackendPassword();
  if (backendPassword.empty()) {
    settings.noSyncListener = "the cluster's backend password can't be read";
    return;
  }
  settings.syncAddress = address;
  settings.syncPassword = DoveadmPassword(backendPassword);
}

}  // namespace

std::string DoveadmPassword(const std::string &backendPassword) {
  return webapi::HmacHex(backendPassword, "quillon-server dovecot doveadm mail sync");
}

bool ReadAccessSettings(AccessSettings &settings, std::string &why) {
  ImapPop3 declared;  // for its declarations; the values are read here as text
  std::map<std::string, std::string> values;
  for (const boost::any &declaration : declared.GetKeyList()) {
    std::string value;
    if (!Checked(declared, declaration, value, why)) return false;
    values[declared.GetKeyName(declaration)] = value;
  }
  settings.imap = values["imap_enabled"] == "yes";
  settings.imaps = values["imaps_enabled"] == "yes";
  settings.pop3 = values["pop3_enabled"] == "yes";
  settings.pop3s = values["pop3s_enabled"] == "yes";
  settings.securityAuth = values["imap_pop3_security_auth"] == "yes";
  settings.authDeny = values["enable_dovecot_auth_deny"] == "yes";
  settings.authLocal = values["enable_dovecot_auth_local"] == "yes";
  settings.fts = values["fts_enabled"] == "yes";
  settings.jieba = values["jieba_enabled"] == "yes";
  settings.maxUserIpConnections = atoi(values["max_userip_conn"].c_str());

  // Mail directories go by the account domain, which comes from other settings of the store:
  // it is checked the same way.
  std::string root, domainPath;
  if (mailDirRootPathGet(root) != 0 || mailDirDomainPathGet(root, domainPath) != 0) {
    why = "the mail directories' folder can't be named (is /var/spool/mail there, and the "
          "account domain set?)";
    return false;
  }
  if (!PlainPath(domainPath)) {
    why = "the mail directories' folder \"" + Printable(domainPath) +
          "\" holds characters Dovecot's configuration can't carry";
    return false;
  }
  settings.mailDomainPath = domainPath;
  settings.haveCertificate = access(kCertFile, R_OK) == 0 && access(kKeyFile, R_OK) == 0;
  ReadSyncSettings(settings);
  return true;
}

std::string ConfText(const AccessSettings &s) {
  const bool imaps = s.imaps && s.haveCertificate;
  const bool pop3s = s.pop3s && s.haveCertificate;
  std::string protocols;
  if (s.imap || imaps) protocols += " imap";
  if (s.pop3 || pop3s) protocols += " pop3";
  const auto yesNo = [](bool on) { return std::string(on ? "yes" : "no"); };
  const auto port = [](bool on, int number) { return std::to_string(on ? number : 0); };

  std::string text =
      "# Dovecot for the mail server, written by kolt_gen_dovecot_conf from the server's IMAP and\n"
      "# POP3 settings: a change made here is lost at the next write.\n";
  text += std::string("base_dir = ") + kBaseDir + "\n";
  text += std::string("state_dir = ") + kStateDir + "\n";
  text += std::string("log_path = ") + kLogFile + "\n";
  // Loopback only: no setting yet says which of the node's addresses may serve mail access.
  text += "listen = 127.0.0.1\n";
  text += "protocols =" + protocols + "\n";
  // Dovecot turns every listener's TLS off with a global "no", the sync listener's too; without
  // a certificate of their own IMAP and POP3 keep theirs off in their protocol blocks instead.
  const bool sync = !s.syncAddress.empty();
  text += "ssl = " + yesNo(s.haveCertificate || sync) + "\n";
  if (s.haveCertificate) {
    text += std::string("ssl_cert = <") + kCertFile + "\n";
    text += std::string("ssl_key = <") + kKeyFile + "\n";
  }
  if (s.haveCertificate || sync) text += "ssl_min_protocol = TLSv1.2\n";
  if (sync && !s.haveCertificate) {
    text += "protocol imap {\n  ssl = no\n}\nprotocol pop3 {\n  ssl = no\n}\n";
  }
  // Dovecot counts a connection from this machine as secured, so the switch only ever shuts out
  // clear-text passwords that crossed a network.
  text += "disable_plaintext_auth = " + yesNo(s.securityAuth) + "\n";
  text += "auth_mechanisms = plain login\n";
  text += "mail_max_userip_connections = " + std::to_string(s.maxUserIpConnections) + "\n";
  text += "mail_location = maildir:~/Maildir\n";
  if (s.fts) {
    text += "# Full-text search: no index backend is installed on this node, so searches read the\n"
            "# mail itself.\n";
  }
  // Running migration tasks enter mailboxes through master users; the file is empty while none
  // runs.
  text += std::string("!include_try ") + kAuthMasterConf + "\n";
  text += "auth_master_user_separator = *\n";
  if (s.authDeny) {
    text += std::string("passdb {\n  driver = passwd-file\n  args = ") + kDenyFile +
            "\n  deny = yes\n}\n";
  }
  // The system's users, with the passwords of the system: PAM's "dovecot" service.
  text += "passdb {\n  driver = pam\n  args = dovecot\n";
  if (s.authLocal) text += std::string("  override_fields = allow_nets=") + kLocalNets + "\n";
  text += "}\n";
  // Mail lives by the user's number, as everywhere in the suite, not in the system's home.
  text += "userdb {\n  driver = passwd\n  override_fields = home=" + s.mailDomainPath +
          "/%{userdb:uid}\n}\n";
  text += "service imap-login {\n"
          "  inet_listener imap {\n    port = " + port(s.imap, 143) + "\n  }\n"
          "  inet_listener imaps {\n    port = " + port(imaps, 993) + "\n    ssl = yes\n  }\n"
          "}\n";
  text += "service pop3-login {\n"
          "  inet_listener pop3 {\n    port = " + port(s.pop3, 110) + "\n  }\n"
          "  inet_listener pop3s {\n    port = " + port(pop3s, 995) + "\n    ssl = yes\n  }\n"
          "}\n";
  if (!s.syncAddress.empty()) {
    // The cluster's members sync mailboxes through doveadm's server: on this node's cluster
    // address alone, and only for a peer that knows the cluster's sync password.
    const std::string syncPort = std::to_string(kMailSyncPort);
    text += std::string("doveadm_password = <") + kDoveadmPasswordFile + "\n";
    // No doveadm_port: with it set, every doveadm mail command first asks the passdb whether
    // the user is proxied elsewhere, which PAM can't answer.
    text += "service doveadm {\n"
            "  inet_listener cluster_sync {\n    address = " + s.syncAddress +
            "\n    port = " + syncPort + "\n    ssl = yes\n  }\n"
            "}\n";
    // The node's certificate from the cluster's CA, not the one mail clients see: peers verify
    // it by this node's address.
    text += std::string("protocol doveadm {\n  ssl_cert = <") + kNodeCertFile +
            "\n  ssl_key = <" + kNodeKeyFile + "\n}\n";
  }
  return text;
}

}  // namespace dovecotconf
