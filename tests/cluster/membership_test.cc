// Membership on three fresh machines with networks of their own: a one-node cluster grows to
// three through member add and join, each new node's key store a replica of the master's; the
// nodes agree on versions; a setting written on a replica reaches every mirror; removals are
// refused where they must be; a dead master is removed and its role moves; an address changes.
#include <gtest/gtest.h>

#include <pwd.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cstdlib>
#include <string>
#include <vector>

#include "harness/cluster_nodes.h"
#include "harness/recording_script.h"
#include "harness/syslog_capture.h"

namespace qsvtest {
namespace {

const char kEtc[] = "/var/packages/Quillon-Server/etc/";
const char kMirrors[] = "/var/packages/Quillon-Server/etc/mailconf.d/";
const char kClusterDaemon[] = "/var/packages/Quillon-Server/target/scripts/ClusterDaemon.sh";

std::string Ctl() { return std::string(getenv("QSV_BUILD_DIR")) + "/tools/mailserverctl"; }

int CountLines(const std::string &text, const std::string &prefix) {
  int count = 0;
  size_t at = 0;
  while ((at = text.find("\n" + prefix, at)) != std::string::npos) {
    ++count;
    ++at;
  }
  return count;
}

class Membership {
 public:
  explicit Membership(NetworkNodes &nodes) : nodes_(nodes) {}

  // A command of node `node`'s mailserverctl; its standard output.
  std::string Ctl(int node, const std::vector<std::string> &args, int expected = 0) {
    std::vector<std::string> argv = {qsvtest::Ctl()};
    argv.insert(argv.end(), args.begin(), args.end());
    std::string out;
    EXPECT_EQ(nodes_.Run(node, argv, out), expected) << args[0] << " on node " << node << ": "
                                                     << out;
    return out;
  }

  // The key store of node `node`, asked over the network from the test's namespace.
  std::string Redis(int node, const std::vector<std::string> &args) {
    const std::string password = ReadJsonPassword(node);
    std::vector<std::string> argv = {"env", "REDISCLI_AUTH=" + password, "redis-cli", "-h",
                                     NetworkNodes::Address(node), "-p", "8500"};
    argv.insert(argv.end(), args.begin(), args.end());
    std::string out;
    nodes_.Run(node, argv, out);
    return out;
  }

  std::string Role(int node) {
    const std::string info = Redis(node, {"info", "replication"});
    const size_t at = info.find("role:");
    return at == std::string::npos ? "" : info.substr(at + 5, info.find('\r', at) - at - 5);
  }

  std::string Id(int node) {
    const std::string text = ReadFile(nodes_.Path(node, std::string(kMirrors) + "local_id_file"));
    const size_t at = text.find("mailserver_id-");
    return at == std::string::npos ? "" : text.substr(at, text.find('"', at) - at);
  }

  // True once no service sync flag is left on node `node`'s store: each node's watcher takes up
  // the flags raised for it and lowers them.
  bool FlagsLowered(int node, const std::string &pattern = "service_change/serv_status-*") {
    for (int i = 0; i < 150; ++i) {
      if (Redis(node, {"--scan", "--pattern", pattern}).empty()) return true;
      usleep(100000);
    }
    return false;
  }

  void Join(int node, const std::vector<std::string> &options) {
    EXPECT_TRUE(FlagsLowered(1)) << "before node " << node << " joins";
    std::vector<std::string> add = {"member", "add", "--address", NetworkNodes::Address(node),
                                    "--ticket", "/tmp/ticket-" + std::to_string(node)};
    add.insert(add.end(), options.begin(), options.end());
    Ctl(1, add);
    Ctl(node, {"member", "join", "--ticket", "/tmp/ticket-" + std::to_string(node)});
  }

 private:
  std::string ReadJsonPassword(int node) {
    const std::string text = ReadFile(nodes_.Path(node, std::string(kEtc) + "backend.conf"));
    const size_t at = text.find("\"password\":\"");
    return at == std::string::npos ? "" : text.substr(at + 12, text.find('"', at + 12) - at - 12);
  }

  NetworkNodes &nodes_;
};

TEST(MembershipTest, ThreeNodesJoinReplicateAgreeAndLoseTheirMaster) {
  NetworkNodes nodes(3);
  Membership cluster(nodes);
  SyslogCapture log;
  cluster.Ctl(1, {"setup", "--address", NetworkNodes::Address(1)});
  cluster.Join(2, {});
  // A file spread before node 3 joins, which node 3 therefore lacks: the alias database.
  cluster.Ctl(1, {"domain", "add", "example.com"});
  cluster.Ctl(1, {"alias", "add", "example.com", "oncall", "dave@example.org"});
  cluster.Join(3, {"--roles", "mailer", "--weight", "0"});
  const std::string id1 = cluster.Id(1), id2 = cluster.Id(2), id3 = cluster.Id(3);
  ASSERT_FALSE(id1.empty() || id2.empty() || id3.empty());

  // One replica line on each node that joined, none on the master; Redis agrees.
  const std::string conf1 = ReadFile(nodes.Path(1, std::string(kEtc) + "redis/redis.conf"));
  EXPECT_EQ(CountLines(conf1, "slaveof "), 0);
  for (int node : {2, 3}) {
    const std::string conf = ReadFile(nodes.Path(node, std::string(kEtc) + "redis/redis.conf"));
    EXPECT_EQ(CountLines(conf, "slaveof "), 1) << node;
    EXPECT_NE(conf.find("\nslaveof 10.77.0.1 8500\n"), std::string::npos) << node;
    EXPECT_EQ(cluster.Role(node), "slave") << node;
  }
  EXPECT_EQ(cluster.Role(1), "master");
  for (int node : {1, 2, 3}) {
    EXPECT_NE(cluster.Ctl(node, {"cluster", "status"}).find("healthy:         yes"),
              std::string::npos)
        << node;
  }

  // Roles sorted in byte order, a weight of 0 written as 1, the joined node's address mapped.
  std::vector<std::string> ids = {id1, id2, id3};
  std::sort(ids.begin(), ids.end());
  EXPECT_EQ(cluster.Ctl(3, {"conf", "get", "mailer"}), ids[0] + " " + ids[1] + " " + ids[2]);
  EXPECT_EQ(cluster.Ctl(3, {"conf", "get", "balancer"}),
            std::min(id1, id2) + " " + std::max(id1, id2));
  EXPECT_NE(cluster.Ctl(2, {"conf", "get", "mailer_weight_list"}).find(id3 + ":1"),
            std::string::npos);
  EXPECT_NE(ReadFile(nodes.Path(2, std::string(kMirrors) + "mapping_table")).find("10.77.0.3"),
            std::string::npos);
  // An address that is already a member's can't join again, and nothing changes.
  EXPECT_TRUE(cluster.FlagsLowered(1));
  cluster.Ctl(1, {"member", "check", "--address", NetworkNodes::Address(2)}, 1);
  EXPECT_FALSE(log.Matching("The ip [10.77.0.2] is confict").empty());
  EXPECT_EQ(cluster.Ctl(1, {"conf", "get", "cluster_peers"}), id1 + " " + id2 + " " + id3);

  // Versions: different until the last node has published, then the same everywhere.
  EXPECT_EQ(cluster.Ctl(1, {"version", "check"}), "different");
  EXPECT_EQ(cluster.Ctl(2, {"version", "check"}), "different");
  EXPECT_EQ(cluster.Ctl(3, {"version", "check"}), "same");
  EXPECT_EQ(cluster.Ctl(1, {"version", "check"}), "same");

  // A setting written on a replica goes to the master and comes back to every mirror.
  cluster.Ctl(2, {"conf", "set", "smtp_banner_text", "written on node 2"});
  EXPECT_EQ(cluster.Redis(1, {"get", "mailserver/conf/smtp_banner_text"}), "written on node 2");
  bool mirrored = false;
  for (int i = 0; i < 200 && !mirrored; ++i) {
    mirrored = ReadFile(nodes.Path(3, std::string(kMirrors) + "smtp_banner_text"))
                   .find("written on node 2") != std::string::npos;
    if (!mirrored) usleep(50000);
  }
  EXPECT_TRUE(mirrored);
  // The mail transfer agents of nodes 1 and 3 were told to take it up, and did.
  EXPECT_TRUE(cluster.FlagsLowered(1));
  EXPECT_FALSE(log.Matching("reloaded mailserver_service_postfix for service_change/serv_status-" +
                            id3 + "|")
                   .empty());

  // The spam databases this node learnt reach the new member through its request service, owned
  // as the filter there needs them, and the files spread before it joined are sent again.
  mkdir("/volume1/Quillon", 0755);
  mkdir("/volume1/Quillon/spamassassin", 0755);
  for (const char *name : {"bayes_toks", "bayes_seen", "tx-reputation"}) {
    WriteFile("/volume1/Quillon/spamassassin/" + std::string(name), std::string(name) + " data");
  }
  const auto members3 = [&] {
    std::string out;
    nodes.Run(3, {Ctl(), "alias", "members", "example.com", "oncall"}, out);
    return out;
  };
  EXPECT_EQ(members3().find("dave"), std::string::npos);
  // A record planted in the store names a file outside the synced folders: never sent.
  cluster.Redis(1, {"set", "mailserver/file/planted_db",
                    "{\"senderID\":\"x\",\"srcFilePath\":\"/etc/shadow\",\"dstFilePath\":"
                    "\"/etc/shadow\",\"timestamp\":\"1\",\"fileContentKey\":\"c\",\"taskQueueKey\""
                    ":\"t\",\"randNum\":0,\"pathInfo\":{}}"});
  cluster.Ctl(1, {"member", "sync-config", NetworkNodes::Address(3)});
  EXPECT_FALSE(log.Matching("skipped planted_db: the file lies outside").empty());
  bool aliasArrived = false;
  for (int i = 0; i < 100 && !aliasArrived; ++i) {
    aliasArrived = members3().find("dave") != std::string::npos;
    if (!aliasArrived) usleep(100000);
  }
  EXPECT_TRUE(aliasArrived);
  EXPECT_FALSE(log.Matching("again under mailserver_alias_db").empty());
  struct stat st;
  const std::string received = nodes.Path(3, "/var/spool/mail/spamassassin/bayes_toks");
  EXPECT_EQ(ReadFile(received), "bayes_toks data");
  ASSERT_EQ(stat(received.c_str(), &st), 0);
  EXPECT_EQ(st.st_mode & 07777, 0640u);
  EXPECT_EQ(st.st_uid, getpwnam("postfix")->pw_uid);

  // Refusals that change nothing: removing oneself; removing while a service sync is pending on
  // a healthy cluster (error code 9).
  cluster.Ctl(1, {"member", "del", id1}, 1);
  EXPECT_FALSE(log.Matching("it cannot remove itself").empty());
  const std::string pending = "service_change/mailserver_service_postfix-" + id2;
  cluster.Redis(1, {"set", pending, "1"});
  cluster.Ctl(1, {"member", "del", id3}, 1);
  EXPECT_FALSE(log.Matching("cluster is changing").empty());
  EXPECT_EQ(cluster.Ctl(1, {"conf", "get", "cluster_peers"}), id1 + " " + id2 + " " + id3);

  // Node 1, the master, dies with that sync still pending: its replicas are unhealthy, which lets
  // node 2 remove it. Node 2 takes the master role, node 3 follows it, the cluster is healthy
  // again, and node 1's keys, mapping entry and sync flags are gone.
  nodes.Run(1, {kClusterDaemon, "stop"});
  cluster.Ctl(2, {"member", "del", id1});
  cluster.Redis(2, {"del", pending});
  EXPECT_EQ(cluster.Role(2), "master");
  EXPECT_EQ(cluster.Role(3), "slave");
  EXPECT_NE(cluster.Redis(3, {"info", "replication"}).find("master_host:10.77.0.2"),
            std::string::npos);
  for (int node : {2, 3}) {
    EXPECT_NE(cluster.Ctl(node, {"cluster", "status"}).find("healthy:         yes"),
              std::string::npos)
        << node;
  }
  EXPECT_EQ(cluster.Ctl(3, {"conf", "get", "cluster_peers"}), id2 + " " + id3);
  EXPECT_EQ(cluster.Ctl(3, {"conf", "get", "balancer_master_node"}), id2);
  EXPECT_EQ(cluster.Redis(3, {"exists", "mailserver/cluster/node_ip_list-" + id1}), "0");
  EXPECT_EQ(ReadFile(nodes.Path(2, std::string(kMirrors) + "mapping_table")).find(id1),
            std::string::npos);
  EXPECT_TRUE(cluster.FlagsLowered(2, "service_change/serv_status-" + id1 + "*"));

  // Node 2 is now the only storager and balancer: its removal is refused, naming the role.
  EXPECT_TRUE(cluster.FlagsLowered(2));
  cluster.Ctl(3, {"member", "del", id2}, 1);
  EXPECT_FALSE(log.Matching("cause role storager less than 1").empty());
  EXPECT_EQ(cluster.Ctl(3, {"conf", "get", "cluster_peers"}), id2 + " " + id3);

  // Node 3's address changes: once it has regenerated the map, node 2 knows the new address and
  // both are healthy again, and the Dovecot that node 3's watcher started when it joined (for the
  // mailbox sync alone, IMAP and POP3 being off) listens on the new address.
  const std::string dovecotConf = "/var/packages/Quillon-Server/target/etc/dovecot/dovecot.conf";
  EXPECT_NE(ReadFile(nodes.Path(3, dovecotConf)).find("address = 10.77.0.3\n"), std::string::npos)
      << ReadFile(nodes.Path(3, dovecotConf));
  nodes.Run(3, {"ip", "addr", "del", "10.77.0.3/24", "dev", "eth0"});
  nodes.Run(3, {"ip", "addr", "add", "10.77.0.13/24", "dev", "eth0"});
  cluster.Ctl(3, {"member", "readdress", "10.77.0.13"});
  bool known = false;
  for (int i = 0; i < 100 && !known; ++i) {
    known = ReadFile(nodes.Path(2, std::string(kMirrors) + "mapping_table")).find("10.77.0.13") !=
            std::string::npos;
    if (!known) usleep(50000);
  }
  EXPECT_TRUE(known);
  EXPECT_NE(ReadFile(nodes.Path(3, dovecotConf)).find("address = 10.77.0.13\n"), std::string::npos);
  // Its certificate names the new address, by which peers verify it when they sync mail.
  EXPECT_EQ(system(("openssl verify -verify_ip 10.77.0.13 -CAfile " +
                    nodes.Path(2, std::string(kEtc) + "internal-ca-ssl/ca.crt") + " " +
                    nodes.Path(3, std::string(kEtc) + "internal-ssl/node.crt") + " >/dev/null 2>&1")
                       .c_str()),
            0);
  for (int node : {2, 3}) {
    EXPECT_NE(cluster.Ctl(node, {"cluster", "status"}).find("healthy:         yes"),
              std::string::npos)
        << node;
  }
}

// Mailboxes of two members meet: each node's Dovecot opens the sync listener on its cluster
// address only, and member sync-mail merges node 1's mailboxes with node 2's both ways, making a
// user's directory on node 2 where it was missing, over TLS alone: a node without the cluster's
// CA, a clear connection, a peer whose certificate isn't the CA's and a wrong sync password all
// fail the sync, and a directory whose owner isn't the user its number names is nobody's mailbox.
TEST(MembershipTest, MailboxesSyncBothWaysWithAPeer) {
  const std::string dovecot = "/var/packages/Quillon-Server/target/scripts/daemon/dovecot.sh";
  const std::string conf = "/var/packages/Quillon-Server/target/etc/dovecot/dovecot.conf";
  const std::string secret = "/var/packages/Quillon-Server/target/etc/dovecot/doveadm_password";
  NetworkNodes nodes(2);
  Membership cluster(nodes);
  SyslogCapture log;
  cluster.Ctl(1, {"setup", "--address", NetworkNodes::Address(1)});
  cluster.Join(2, {});
  // Dovecot runs with IMAP and POP3 off: a member serves the sync all the same.
  for (int node : {1, 2}) {
    ASSERT_EQ(nodes.Run(node, {dovecot, "start"}), 0) << node;
    const std::string text = ReadFile(nodes.Path(node, conf));
    EXPECT_NE(text.find("\nlisten = 127.0.0.1\n"), std::string::npos) << node;
    EXPECT_NE(text.find("address = " + NetworkNodes::Address(node) + "\n    port = 24245\n"),
              std::string::npos)
        << text;
    struct stat st;
    ASSERT_EQ(stat(nodes.Path(node, secret).c_str(), &st), 0);
    EXPECT_EQ(st.st_mode & 07777, 0600u);
    EXPECT_EQ(st.st_uid, 0u);
  }
  const std::string password = ReadFile(nodes.Path(1, secret));
  EXPECT_EQ(password.size(), 64u);
  EXPECT_EQ(ReadFile(nodes.Path(2, secret)), password) << "one password for the cluster";
  EXPECT_EQ(ReadFile(nodes.Path(1, std::string(kEtc) + "backend.conf")).find(password),
            std::string::npos)
      << "not the backend password";

  // Two users of the system: the first has mail on both nodes, the second on node 1 only; a third
  // number names a directory that the first user made.
  for (const char *name : {"qsvsyncone", "qsvsynctwo", "qsvsyncother"}) {
    ASSERT_EQ(system(("/usr/sbin/useradd -M -p '*' " + std::string(name)).c_str()), 0) << name;
  }
  const passwd one = *getpwnam("qsvsyncone");
  const uid_t two = getpwnam("qsvsynctwo")->pw_uid, other = getpwnam("qsvsyncother")->pw_uid;
  const auto home = [&](int node, uid_t uid) {
    return nodes.Path(node, "/var/spool/mail/local/" + std::to_string(uid));
  };
  // Mail delivered straight into the Maildir of user `uid` (the stray directory: of user one).
  const auto deliver = [&](int node, uid_t uid, const std::string &id) {
    const std::string dir = home(node, uid);
    const passwd *owner = getpwuid(uid == other ? one.pw_uid : uid);
    for (const std::string sub : {"", "/Maildir", "/Maildir/cur", "/Maildir/new", "/Maildir/tmp"}) {
      mkdir((dir + sub).c_str(), 0770);
      ASSERT_EQ(chown((dir + sub).c_str(), owner->pw_uid, owner->pw_gid), 0);
    }
    const std::string file = dir + "/Maildir/new/1700000000." + id + ".node" + std::to_string(node);
    WriteFile(file, "From: a@example.com\nSubject: " + id + "\nMessage-ID: <" + id +
                        "@example.com>\n\nbody " + id + "\n");
    ASSERT_EQ(chown(file.c_str(), owner->pw_uid, owner->pw_gid), 0);
  };
  deliver(1, one.pw_uid, "first");
  deliver(1, one.pw_uid, "second");
  deliver(2, one.pw_uid, "third");
  deliver(1, two, "only");
  deliver(1, other, "stray");
  const auto messages = [&](int node, const std::string &user) {
    std::string out;
    nodes.Run(node, {"/var/packages/Quillon-Server/target/bin/doveadm", "-c", conf, "mailbox",
                     "status", "-u", user, "messages", "INBOX"},
              out);
    return out;
  };

  // Mail crosses the network only inside TLS with a peer the cluster's CA vouches for. Without
  // the CA node 1 syncs nothing rather than in clear, and node 2's listener takes no clear text.
  const std::string ca = nodes.Path(1, std::string(kEtc) + "internal-ca-ssl/ca.crt");
  ASSERT_EQ(rename(ca.c_str(), (ca + ".away").c_str()), 0);
  cluster.Ctl(1, {"member", "sync-mail", NetworkNodes::Address(2)}, 1);
  EXPECT_FALSE(log.Matching("are not synced in clear").empty());
  ASSERT_EQ(rename((ca + ".away").c_str(), ca.c_str()), 0);
  const std::string peer = NetworkNodes::Address(2) + ":24245";
  EXPECT_NE(nodes.Run(1, {"/var/packages/Quillon-Server/target/bin/doveadm", "-c", conf, "sync",
                          "-u", "qsvsyncone", "tcp:" + peer}),
            0);
  EXPECT_EQ(messages(2, "qsvsyncone"), "INBOX messages=1");
  // Node 2 with a certificate for its address, but of its own making: node 1 won't talk to it.
  const std::string cert = nodes.Path(2, std::string(kEtc) + "internal-ssl/node.crt");
  const std::string key = nodes.Path(2, std::string(kEtc) + "internal-ssl/node.key");
  const std::string realCert = ReadFile(cert), realKey = ReadFile(key);
  ASSERT_EQ(system(("openssl req -x509 -newkey ec -pkeyopt ec_paramgen_curve:prime256v1 -nodes "
                    "-days 1 -subj /CN=impostor -addext subjectAltName=IP:" +
                    NetworkNodes::Address(2) + " -keyout " + key + " -out " + cert +
                    " 2>/dev/null && chmod 0600 " + key)
                       .c_str()),
            0);
  ASSERT_EQ(nodes.Run(2, {dovecot, "reload"}), 0);
  cluster.Ctl(1, {"member", "sync-mail", NetworkNodes::Address(2)}, 1);
  EXPECT_EQ(messages(2, "qsvsyncone"), "INBOX messages=1");
  EXPECT_EQ(messages(2, "qsvsynctwo"), "INBOX messages=0");
  EXPECT_FALSE(log.Matching("self-signed certificate").empty());
  WriteFile(cert, realCert);
  WriteFile(key, realKey, 0600);
  ASSERT_EQ(nodes.Run(2, {dovecot, "reload"}), 0);

  // A password that isn't the cluster's: refused by node 2, and nothing arrives.
  WriteFile(nodes.Path(1, secret), std::string(64, '0'), 0600);
  cluster.Ctl(1, {"member", "sync-mail", NetworkNodes::Address(2)}, 1);
  EXPECT_EQ(messages(2, "qsvsyncone"), "INBOX messages=1");
  EXPECT_FALSE(log.Matching("failed to sync the mailbox of qsvsyncone").empty());

  WriteFile(nodes.Path(1, secret), password, 0600);
  cluster.Ctl(1, {"member", "sync-mail", NetworkNodes::Address(2)});
  for (int node : {1, 2}) {
    EXPECT_EQ(messages(node, "qsvsyncone"), "INBOX messages=3") << node;
    EXPECT_EQ(messages(node, "qsvsynctwo"), "INBOX messages=1") << node;
  }
  struct stat st;
  ASSERT_EQ(lstat(home(2, two).c_str(), &st), 0);
  EXPECT_EQ(st.st_mode & 07777, 0770u);
  EXPECT_EQ(st.st_uid, two);
  EXPECT_EQ(lstat(home(2, other).c_str(), &st), -1) << "a stray directory is nobody's mailbox";
  EXPECT_FALSE(log.Matching("skipped /var/spool/mail/local/" + std::to_string(other)).empty());
}

}  // namespace
}  // namespace qsvtest
