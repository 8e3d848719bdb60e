// The suite's core library: key names, mirror file names, reads of key files and their locks.
#include <fcntl.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <fstream>
#include <set>
#include <string>

#include <gtest/gtest.h>

#include "core/key_tree_store.h"
#include "core/mail_conf.h"

using KOLT::QUILLON_SERVER::KeyTreeStore;

namespace {

void WriteConf(const std::string &fileName, const std::string &text) {
  mkdir("/var/packages/Quillon-Server/etc", 0755);
  mkdir(kMailConfDir, 0755);
  std::ofstream(std::string(kMailConfDir) + fileName) << text;
}

TEST(KeyTreeStoreTest, FullNamesTreesServicesAndRoles) {
  const KeyTreeStore *store = KeyTreeStore::instance();
  for (const char *key : {"smtp_port", "node_ip_list-mailserver_id-7", "mailserver_id-42",
                          "service_change/serv_status-a|b|", "id", "some/odd/path", "weird key"}) {
    const std::string full = store->keyComplete(key);
    EXPECT_EQ(store->keyComplete(full), full) << key;
    EXPECT_EQ(store->keyShort(full), key) << key;
  }
  const char *full[][2] = {{"smtp_port", "mailserver/conf/smtp_port"},
                           {"cluster_peers", "mailserver/cluster/cluster_peers"},
                           // Trees listed by the names their writers used stay as written.
                           {"service_change/serv_status-1|x|", "service_change/serv_status-1|x|"},
                           {"health_check_heartbeat_dir", "health_check_heartbeat_dir"},
                           // The mapping table's members carry the id behind their first slash.
                           {"mailserver_id-5", "mapping_table/mailserver_id-5"},
                           // Rule flags are listed by their tree's name, which is their prefix.
                           {"mailserver_rule_status-a.cf", "rule/mailserver_rule_status-a.cf"},
                           {"rule", "rule"}};
  for (auto &f : full) EXPECT_EQ(store->keyComplete(f[0]), f[1]);

  EXPECT_EQ(store->treeGet("mailserver/conf/smtp_port"), "conf");
  EXPECT_EQ(store->treeGet("balancer_master_node"), "cluster");
  EXPECT_EQ(store->treeGet("service_change/serv_status-1|x|"), "service_change");
  EXPECT_EQ(store->getKeyServ("mailserver/conf/smtp_port"),
            std::vector<std::string>{"mailserver_service_postfix"});
  EXPECT_TRUE(store->getKeyServ("cluster_peers").empty());
  EXPECT_EQ(store->treeGet("mailserver_rule_status-a.cf"), "rule");
  // The scanner's keys: its two reject_ keys are no Postfix settings, unlike the others.
  const char *services[][3] = {
      {"mailserver_rule_status-a.cf", "mailserver_service_spam", "rule"},
      {"spam_required_score", "mailserver_service_spam", "conf"},
      {"reject_partial_message", "mailserver_service_spam", "conf"},
      {"reject_external_message_bodies", "mailserver_service_spam", "conf"},
      {"allow_webbugs", "mailserver_service_spam", "conf"},
      {"mcp_rules", "mailserver_service_spam", "conf"},
      {"anti_virus_engine", "mailserver_service_antivirus", "conf"},
      {"reject_unknown_sender_domain", "mailserver_service_postfix", "conf"},
      // The IMAP and POP3 keys that carry no "imap_" or "pop3_" prefix still reach Dovecot.
      {"imaps_enabled", "mailserver_service_dovecot", "conf"},
      {"pop3s_enabled", "mailserver_service_dovecot", "conf"},
      {"imap_pop3_security_auth", "mailserver_service_dovecot", "conf"},
      {"enable_dovecot_auth_local", "mailserver_service_dovecot", "conf"},
      {"max_userip_conn", "mailserver_service_dovecot", "conf"},
      {"fts_forbidden_group", "mailserver_service_dovecot", "conf"},
      {"jieba_enabled", "mailserver_service_dovecot", "conf"}};
  for (auto &s : services) {
    EXPECT_EQ(store->getKeyServ(s[0]), std::vector<std::string>{s[1]}) << s[0];
    EXPECT_EQ(store->treeGet(s[0]), s[2]) << s[0];
  }
  std::vector<std::string> balancer;
  ASSERT_TRUE(store->roleToServ(2, balancer));
  EXPECT_NE(std::find(balancer.begin(), balancer.end(), "mailserver_service_balancer"), balancer.end());
  for (const std::string &service : balancer) EXPECT_EQ(store->roleGet(service), "balancer");
  EXPECT_FALSE(store->roleToServ(3, balancer));
  EXPECT_EQ(store->getServScript("mailserver_service_dovecot"), "dsync");
}

TEST(LegalFileNameTest, DistinctKeysGetDistinctSafeNames) {
  std::set<std::string> names;
  for (const char *key : {"smtp_port", "smtp/port", "smtp%2Fport", "smtp port", ".hidden", "..", "a.b",
                          "A.b", "", "%", "%25", "x\ny", "b\xc3\xbc" "cher", "/"}) {
    const std::string name = toLeagalFileName(key);
    EXPECT_TRUE(names.insert(name).second) << "two keys share " << name;
    EXPECT_FALSE(name.empty() || name[0] == '.' || name.find('/') != std::string::npos) << name;
    for (char c : name) EXPECT_TRUE(c > 32 && c < 127) << name;
  }
  EXPECT_EQ(toLeagalFileName("mailserver/conf/smtp_port"), "smtp_port");
  // Node ids share the mapping table, service sync flags their tree's file.
  EXPECT_EQ(toLeagalFileName("mailserver_id-3"), "mapping_table");
  EXPECT_EQ(toLeagalFileName("service_change/serv_status-1|x|"), "service_change");
}

TEST(MailConfGetTest, ReadsTheMemberOfTheFullNameMissingIsEmptyDamagedFails) {
  WriteConf("smtp_port", "{\"mailserver/conf/smtp_port\":\"2525\",\"other\":\"x\"}\n");
  WriteConf("mapping_table", "{\"mapping_table/mailserver_id-1\":\"10.0.0.1\"}\n");
  WriteConf("smtp_banner", "{\"something_else\":\"x\"}\n");
  WriteConf("smtp_helo", "{\"mailserver/conf/smtp_helo\":");
  // The writer's plain form, with and without its newline, and forms that need unescaping.
  WriteConf("smtp_plain", "{\"mailserver/conf/smtp_plain\":\"ESMTP ready\"}");
  WriteConf("smtp_empty", "{\"mailserver/conf/smtp_empty\":\"\"}\n");
  WriteConf("smtp_escaped", "{\"mailserver/conf/smtp_escaped\":\"a\\\"b\\\\c\\u00e9\"}\n");
  WriteConf("smtp_cut", "{\"mailserver/conf/smtp_cut\":\"abc\"");
  struct {
    const char *key, *value;
    int rc;
  } cases[] = {{"smtp_port", "2525", 0},          {"mailserver/conf/smtp_port", "2525", 0},
               {"mailserver_id-1", "10.0.0.1", 0}, {"never_written_key", "", 0},
               {"smtp_banner", "", 0},             {"smtp_helo", "", -1},
               {"smtp_plain", "ESMTP ready", 0},   {"smtp_empty", "", 0},
               {"smtp_escaped", "a\"b\\c\xc3\xa9", 0}, {"smtp_cut", "", -1}};
  for (auto &c : cases) {
    std::string value = "stale";
    EXPECT_EQ(mailConfGet(c.key, value) < 0 ? -1 : 0, c.rc) << c.key;
    EXPECT_EQ(value, c.value) << c.key;
  }
}

TEST(MailConfLockTest, LocksALockFileNotTheKeyFileAndExcludesOtherProcesses) {
  const char lockFile[] = "/var/lock/quillon_server/smtp_port.lock";
  auto otherProcessLocks = [&] {
    const pid_t child = fork();
    if (child == 0) _exit(flock(open(lockFile, O_RDONLY | O_CLOEXEC), LOCK_EX | LOCK_NB) == 0 ? 0 : 1);
    int status = 0;
    waitpid(child, &status, 0);
    return WEXITSTATUS(status) == 0;
  };
  WriteConf("smtp_port", "{}\n");
  int fd = -1;
  ASSERT_EQ(mailConfigLockGet("smtp_port", 1, fd), 0);
  struct stat byFd, keyFile;
  ASSERT_EQ(fstat(fd, &byFd), 0);
  ASSERT_EQ(stat((std::string(kMailConfDir) + "smtp_port").c_str(), &keyFile), 0);
  EXPECT_FALSE(byFd.st_dev == keyFile.st_dev && byFd.st_ino == keyFile.st_ino);
  EXPECT_FALSE(otherProcessLocks());
  EXPECT_EQ(mailConfigLockRelease(fd), 0);
  EXPECT_TRUE(otherProcessLocks());
}

}  // namespace
