// The suite's core library: key names, mirror file names, reads of key files and their locks.
#include <fcntl.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <fstream>
#include <set>
#include <string>
#include <thread>

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

TEST(KeyTreeStoreTest, CompletingIsStableAndIdempotent) {
  const KeyTreeStore *store = KeyTreeStore::instance();
  for (const char *key : {"smtp_port", "balancer_master_node", "node_ip_list-mailserver_id-7",
                          "mailserver_id-42", "service_change/serv_status-a|b|", "task_queue/x/1",
                          "id", "some/odd/path", "weird key"}) {
    const std::string full = store->keyComplete(key);
    EXPECT_EQ(store->keyComplete(full), full) << key;
    EXPECT_EQ(store->keyShort(full), key) << key;
    EXPECT_EQ(store->keyComplete(key), full) << "not stable: " << key;
  }
  EXPECT_EQ(store->keyComplete("smtp_port"), "mailserver/conf/smtp_port");
  EXPECT_EQ(store->keyComplete("cluster_peers"), "mailserver/cluster/cluster_peers");
  // Trees that are listed by the names their writers used stay as written.
  EXPECT_EQ(store->keyComplete("service_change/serv_status-1|x|"), "service_change/serv_status-1|x|");
  EXPECT_EQ(store->keyComplete("health_check_heartbeat_dir"), "health_check_heartbeat_dir");
  EXPECT_EQ(store->keyComplete("id"), "id");
  // The mapping table's members carry the id behind their first slash.
  EXPECT_EQ(store->keyComplete("mailserver_id-5"), "mapping_table/mailserver_id-5");
}

TEST(KeyTreeStoreTest, TreesServicesAndRoles) {
  const KeyTreeStore *store = KeyTreeStore::instance();
  EXPECT_EQ(store->treeGet("smtp_port"), "conf");
  EXPECT_EQ(store->treeGet("mailserver/conf/smtp_port"), "conf");
  EXPECT_EQ(store->treeGet("balancer_master_node"), "cluster");
  EXPECT_EQ(store->treeGet("service_change/serv_status-1|x|"), "service_change");
  EXPECT_EQ(store->getKeyServ("smtp_port"),
            std::vector<std::string>{"mailserver_service_postfix"});
  EXPECT_EQ(store->getKeyServ("mailserver/conf/smtp_port"), store->getKeyServ("smtp_port"));
  EXPECT_TRUE(store->getKeyServ("cluster_peers").empty());
  std::vector<std::string> balancer;
  ASSERT_TRUE(store->roleToServ(2, balancer));
  EXPECT_NE(std::find(balancer.begin(), balancer.end(), "mailserver_service_balancer"),
            balancer.end());
  for (const std::string &service : balancer) EXPECT_EQ(store->roleGet(service), "balancer");
  std::vector<std::string> none;
  EXPECT_FALSE(store->roleToServ(3, none));
  EXPECT_EQ(store->getServScript("mailserver_service_dovecot"), "dsync");
}

TEST(LegalFileNameTest, DistinctKeysGetDistinctSafeNames) {
  const char *keys[] = {"smtp_port", "smtp/port", "smtp%2Fport", "smtp port", ".hidden", "..",
                        "a.b", "A.b", "", "%", "%25", "x\ny", "b\xc3\xbc" "cher", "/"};
  std::set<std::string> names;
  for (const char *key : keys) {
    const std::string name = toLeagalFileName(key);
    EXPECT_TRUE(names.insert(name).second) << "two keys share " << name;
    EXPECT_FALSE(name.empty());
    EXPECT_EQ(name.find('/'), std::string::npos) << name;
    EXPECT_NE(name[0], '.') << name;
    for (char c : name) EXPECT_TRUE(c > 32 && c < 127) << name;
  }
  EXPECT_EQ(toLeagalFileName("smtp_port"), "smtp_port");
  EXPECT_EQ(toLeagalFileName("mailserver/conf/smtp_port"), "smtp_port");
  // Node ids share the mapping table, service sync flags their tree's file.
  EXPECT_EQ(toLeagalFileName("mailserver_id-3"), "mapping_table");
  EXPECT_EQ(toLeagalFileName("service_change/serv_status-1|x|"), "service_change");
  EXPECT_EQ(toLeagalFileName("service_change"), "service_change");
}

TEST(MailConfGetTest, ReadsTheMemberOfTheFullName) {
  WriteConf("smtp_port", "{\"mailserver/conf/smtp_port\":\"2525\",\"other\":\"x\"}\n");
  std::string value = "stale";
  EXPECT_EQ(mailConfGet("smtp_port", value), 0);
  EXPECT_EQ(value, "2525");
  EXPECT_EQ(mailConfGet("mailserver/conf/smtp_port", value), 0);
  EXPECT_EQ(value, "2525");

  WriteConf("mapping_table", "{\"mapping_table/mailserver_id-1\":\"10.0.0.1\"}\n");
  EXPECT_EQ(mailConfGet("mailserver_id-1", value), 0);
  EXPECT_EQ(value, "10.0.0.1");
}

TEST(MailConfGetTest, MissingReadsEmptyAndDamagedFails) {
  std::string value = "stale";
  EXPECT_EQ(mailConfGet("never_written_key", value), 0);
  EXPECT_EQ(value, "");

  WriteConf("smtp_banner", "{\"something_else\":\"x\"}\n");
  value = "stale";
  EXPECT_EQ(mailConfGet("smtp_banner", value), 0);
  EXPECT_EQ(value, "");

  WriteConf("smtp_helo", "{\"mailserver/conf/smtp_helo\":");
  value = "stale";
  EXPECT_LT(mailConfGet("smtp_helo", value), 0);
  EXPECT_EQ(value, "");
}

TEST(MailConfLockTest, LocksALockFileNotTheKeyFileAndExcludesOtherProcesses) {
  WriteConf("smtp_port", "{}\n");
  int fd = -1;
  ASSERT_EQ(mailConfigLockGet("smtp_port", 1, fd), 0);
  ASSERT_GE(fd, 0);
  struct stat byFd, keyFile;
  ASSERT_EQ(fstat(fd, &byFd), 0);
  ASSERT_EQ(stat((std::string(kMailConfDir) + "smtp_port").c_str(), &keyFile), 0);
  EXPECT_FALSE(byFd.st_dev == keyFile.st_dev && byFd.st_ino == keyFile.st_ino);
  struct stat lockFile;
  EXPECT_EQ(stat("/var/lock/quillon_server/smtp_port.lock", &lockFile), 0);

  // Another process can't take it while it is held, and can once it is released.
  const pid_t child = fork();
  if (child == 0) {
    const int other = open("/var/lock/quillon_server/smtp_port.lock", O_RDONLY | O_CLOEXEC);
    _exit(flock(other, LOCK_EX | LOCK_NB) == 0 ? 0 : 1);
  }
  int status = 0;
  waitpid(child, &status, 0);
  EXPECT_EQ(WEXITSTATUS(status), 1);
  EXPECT_EQ(mailConfigLockRelease(fd), 0);
  const pid_t again = fork();
  if (again == 0) {
    const int other = open("/var/lock/quillon_server/smtp_port.lock", O_RDONLY | O_CLOEXEC);
    _exit(flock(other, LOCK_EX | LOCK_NB) == 0 ? 0 : 1);
  }
  waitpid(again, &status, 0);
  EXPECT_EQ(WEXITSTATUS(status), 0);
}

}  // namespace
