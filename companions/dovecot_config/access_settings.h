// The IMAP and POP3 settings as Dovecot's configuration may take them. Every value is read back
// from the store as text and checked again before it can become part of a configuration line: a
// switch must be "yes" or "no", a number plain digits, a list of ids digits and commas; an empty
// value stands for the key's default. The store's mirror files belong to the package user, while
// the configuration is read by Dovecot's master, which runs as root: one line break in a value
// would let that user add any directive of his own. Stateless: safe from any thread.
#ifndef COMPANIONS_DOVECOT_CONFIG_ACCESS_SETTINGS_H_
#define COMPANIONS_DOVECOT_CONFIG_ACCESS_SETTINGS_H_

#include <string>

namespace dovecotconf {

// Where the package keeps Dovecot's configuration and what goes with it.
inline constexpr char kConfDir[] = "/var/packages/Quillon-Server/target/etc/dovecot";
inline constexpr char kConfFile[] = "/var/packages/Quillon-Server/target/etc/dovecot/dovecot.conf";
// Names of users who may not log in, one a line, the form of a passwd file.
inline constexpr char kDenyFile[] = "/var/packages/Quillon-Server/target/etc/dovecot/deny_users";
inline constexpr char kAuthMasterConf[] =
    "/var/packages/Quillon-Server/target/etc/dovecot/conf.d/auth-master.conf.ext";
// The certificate of the TLS listeners, made by the daemon script at the first start.
inline constexpr char kCertFile[] = "/var/packages/Quillon-Server/target/etc/dovecot/ssl/dovecot.pem";
inline constexpr char kKeyFile[] = "/var/packages/Quillon-Server/target/etc/dovecot/ssl/dovecot.key";
// Dovecot's sockets and pid file, and what it keeps between runs; the daemon script looks for the
// pid file in the same place.
inline constexpr char kBaseDir[] = "/var/run/quillon_server/dovecot";
inline constexpr char kStateDir[] = "/var/packages/Quillon-Server/target/var/lib/dovecot";
inline constexpr char kLogFile[] = "/var/packages/Quillon-Server/target/var/log/dovecot.log";
// The password peers give to this node's doveadm server when they sync mailboxes, derived from
// the cluster's backend password; root's alone, like that one.
inline constexpr char kDoveadmPasswordFile[] =
    "/var/packages/Quillon-Server/target/etc/dovecot/doveadm_password";
// What the sync listener's TLS is made of: this node's certificate and key, signed by the
// cluster's internal CA (ClusterDaemon.sh generate_certificate), and that CA, by which each
// member verifies the peer it syncs with.
inline constexpr char kNodeCertFile[] = "/var/packages/Quillon-Server/etc/internal-ssl/node.crt";
inline constexpr char kNodeKeyFile[] = "/var/packages/Quillon-Server/etc/internal-ssl/node.key";
inline constexpr char kClusterCaFile[] = "/var/packages/Quillon-Server/etc/internal-ca-ssl/ca.crt";
// Where the members of a cluster sync their mailboxes (doveadm sync over TCP).
constexpr int kMailSyncPort = 24245;

// The most connections one user may hold from one address. Dovecot takes larger numbers, but no
// mail client needs thousands, and a number of this size can't surprise its parser.
constexpr int kMaxUserIpConnections = 65535;

struct AccessSettings {
  bool imap = false;
  bool imaps = false;
  bool pop3 = false;
  bool pop3s = false;
  bool securityAuth = true;  // plain passwords only over TLS or from this machine
  bool authDeny = false;     // the names of kDenyFile may not log in
  bool authLocal = false;    // logins only from this machine and the private networks
  bool fts = true;
  bool jieba = false;
  int maxUserIpConnections = 30;
  // Where users' mail directories lie: /var/spool/mail and the server's account domain.
  std::string mailDomainPath;
  // Whether kCertFile and kKeyFile are there; without them the TLS listeners stay off.
  bool haveCertificate = false;
  // This node's own address in the cluster, in its canonical form, while the node has peers to
  // sync mailboxes with; "" otherwise, and then no sync listener is written.
  std::string syncAddress;
  // DoveadmPassword() of the cluster, alongside syncAddress.
  std::string syncPassword;
  // Why there is no sync listener although this node belongs to a cluster, for the log; "" when
  // there is one or the node stands alone.
  std::string noSyncListener;
};

// Reads every key of the IMAP and POP3 settings and the account domain. False, with `why` naming
// the key and what is wrong with it, when a value can't be read or isn't of its form; then nothing
// may be written.
bool ReadAccessSettings(AccessSettings &settings, std::string &why);

// The sync password for a cluster whose backend password is `backendPassword`: the same on every
// member, and not the backend password itself, which doveadm's protocol would carry.
std::string DoveadmPassword(const std::string &backendPassword);

// The whole of dovecot.conf for `settings`.
std::string ConfText(const AccessSettings &settings);

}  // namespace dovecotconf

#endif  // COMPANIONS_DOVECOT_CONFIG_ACCESS_SETTINGS_H_
