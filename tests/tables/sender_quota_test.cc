// Sender quotas in the real main database, spread through a one-node cluster, and the map that
// Postfix reads, looked up with the real postmap; and what killed writers of the maps leave.
#include <fcntl.h>
#include <pwd.h>
#include <sqlite3.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>

#include <fstream>
#include <list>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "config/mail_conf.h"
#include "harness/syslog_capture.h"
#include "tables/attachment_filter.h"
#include "foundation/mailserver_db_schema.h"
#include "tables/relay_client.h"
#include "tables/relay_host.h"
#include "tables/sender_quota.h"
#include "tables/tables_fixture.h"

namespace {

const std::string kEtc = "/var/packages/Quillon-Server/target/etc/";
const std::string kMap = kEtc + "sender_quota_map";

class SenderQuotaTest : public qsvtest::TablesTest {
 protected:
  void SetUp() override { unlink(kMailServerDBPath); }

  // "sender=quota" for each row, in the order of the page.
  static std::string Page(unsigned int offset, int limit, const std::string &search, int &total) {
    std::list<SenderQuota::Setting> rows;
    total = SenderQuota::GetSettingList(rows, offset, limit, search);
    std::string text;
    for (const auto &row : rows) text += row.sender + "=" + std::to_string(row.quota) + " ";
    return text;
  }
};

TEST_F(SenderQuotaTest, SetIsBoundAndPagesRunBackwardsWithTheTotalOfAll) {
  EXPECT_EQ(SenderQuota::Set("max@example.test", 99999), 0);
  EXPECT_EQ(SenderQuota::Set("over@example.test", 100000), -1);
  EXPECT_EQ(SenderQuota::Set("", 5), -1);
  ASSERT_EQ(SenderQuota::SetList({{"amy", 100000}, {"bob", 2}, {"o'hara", 3}, {"dan", 4}}), 0);
  ASSERT_EQ(SenderQuota::Set("max@example.test", 10), 0);  // replaces the first value
  int total = 0;
  EXPECT_EQ(Page(1, 2, "", total), "max@example.test=10 dan=4 ");
  EXPECT_EQ(total, 5);
  EXPECT_EQ(Page(0, -1, "'h", total), "o'hara=3 ");
  EXPECT_EQ(total, 5);
  EXPECT_EQ(Page(0, 1, "b", total), "bob=2 ");
  ASSERT_EQ(SenderQuota::DeleteList({"o'hara", "max@example.test"}), 0);
  EXPECT_EQ(Page(0, -1, "", total), "dan=4 bob=2 amy=100000 ");
  EXPECT_EQ(total, 3);
}

TEST_F(SenderQuotaTest, SenderTooLongForItsStatementChangesNothing) {
  // Cut at the end of its buffer, the deletion of this sender would end in the middle of its
  // doubled quote and delete the sender without the quote.
  const std::string victim(2001, 'v');
  ASSERT_EQ(SenderQuota::Set("kept", 1), 0);
  sqlite3 *db = nullptr;
  ASSERT_EQ(sqlite3_open(kMailServerDBPath, &db), SQLITE_OK);
  char *insert = sqlite3_mprintf("insert into sender_quota_table values ('%q', 7);",
                                 victim.c_str());
  ASSERT_EQ(sqlite3_exec(db, insert, nullptr, nullptr, nullptr), SQLITE_OK);
  sqlite3_free(insert);
  sqlite3_close(db);

  qsvtest::SyslogCapture log;
  EXPECT_EQ(SenderQuota::DeleteList({"kept", victim + "'"}), -1);
  EXPECT_EQ(SenderQuota::Set(victim, 8), -1);
  EXPECT_EQ(SenderQuota::SetList({{"other", 1}, {victim, 8}}), -1);
  EXPECT_EQ(log.Matching("invalid input: a sender of 2002 bytes is too long").size(), 1u);
  int total = 0;
  EXPECT_EQ(Page(0, -1, "", total), victim + "=7 kept=1 ");
}

TEST_F(SenderQuotaTest, MapIsKeyedByTheFullUserName) {
  ASSERT_EQ(mailConfSet("account_type", "ldap", true, 0), 0);
  ASSERT_EQ(mailConfSet("acc_domain_name", "corp.example.test", true, 0), 0);
  ASSERT_EQ(SenderQuota::SetList({{"alice", 30}, {"bob@other.example.test", 7}}), 0);
  const int rc = SenderQuota::GenerateConfig();
  mailConfSet("account_type", "local", true, 0);
  ASSERT_EQ(rc, 0);

  EXPECT_EQ(qsvtest::ReadFile(kMap), "alice@corp.example.test 30\nbob@other.example.test 7\n");
  const std::string map = std::string("hash:") + kMap;
  EXPECT_EQ(qsvtest::PostmapQuery("alice@corp.example.test", map), "30");
  EXPECT_EQ(qsvtest::PostmapQuery("alice", map), "") << "the stored sender is no key of the map";
  EXPECT_EQ(qsvtest::PostmapQuery("bob@other.example.test", map), "7");

  // A local account is written in its stored spelling: an exact one wins over one that differs
  // in case only, else the first user listed; a sender no user has stays, with a log line.
  if (getpwnam("Pat") == nullptr) {
    std::ofstream("/etc/passwd", std::ios::app) << "Pat:x:2101:100::/tmp:/bin/false\n"
                                                 << "pat:x:2102:100::/tmp:/bin/false\n";
  }
  ASSERT_EQ(SenderQuota::SetList({{"quillon-server", 12}, {"pat", 13}, {"PAT", 14},
                                  {"nobody-such", 15}}), 0);
  qsvtest::SyslogCapture log;
  ASSERT_EQ(SenderQuota::GenerateConfig(), 0);
  const std::string text = qsvtest::ReadFile(kMap);
  for (const char *line :
       {"\nQuillon-Server 12\n", "\npat 13\n", "\nPat 14\n", "\nnobody-such 15\n"}) {
    EXPECT_NE(text.find(line), std::string::npos) << line;
  }
  EXPECT_EQ(log.Matching("KLIBUserRealNameGet fail nobody-such").size(), 1u);
}

// What writers killed between their mkstemp and their rename left behind goes with the next
// successful write of the same map; what is not plainly such a leftover stays.
TEST_F(SenderQuotaTest, NextWriteOfAMapRemovesWhatItsKilledWritersLeft) {
  const std::vector<std::string> stale = {"sender_quota_mapAbC123", "attachment_filter.pcreZz9Yx8",
                                          "relay_transportQ1w2E3", "trust_networkR4t5Y6",
                                          "relay_domainsU7i8O9"};
  const std::vector<std::string> kept = {
      "sender_quota_mapAbC12", "sender_quota_mapAbC1234", "sender_quota_map_b-c12",
      "sender_relayAbCdEf",  // a map not written in mode "none"
      "sender_quota_mapLiVe00", "sender_quota_mapDiRrrr", "sender_quota_mapLiNkkk"};
  for (const std::string &name : stale) qsvtest::WriteFile(kEtc + name, "half a map");
  for (size_t i = 0; i < 5; ++i) qsvtest::WriteFile(kEtc + kept[i], "not a leftover");
  ASSERT_EQ(mkdir((kEtc + kept[5]).c_str(), 0755), 0);
  qsvtest::WriteFile("/tmp/link-target", "x");
  ASSERT_EQ(symlink("/tmp/link-target", (kEtc + kept[6]).c_str()), 0);
  // A writer still at work holds its temporary locked.
  const int live = open((kEtc + kept[4]).c_str(), O_RDONLY | O_CLOEXEC);
  ASSERT_EQ(flock(live, LOCK_EX), 0);

  ASSERT_EQ(mailConfSet("smtp_relay_client_host_type", "{\"host_type\":\"none\"}", true, 0), 0);
  ASSERT_EQ(mailConfSet("smtp_relay_host_network", "[]", true, 0), 0);
  ASSERT_EQ(mailConfSet("smtp_relay_host_domain", "[]", true, 0), 0);
  EXPECT_EQ(SenderQuota::GenerateConfig(), 0);
  EXPECT_EQ(AttachmentFilter::GenerateConfig(), 0);
  EXPECT_EQ(RelayHost().exportRelayMap(), 0);
  EXPECT_EQ(RelayClient().exportRelayMap(), 0);
  close(live);
  for (const std::string &name : stale) EXPECT_NE(access((kEtc + name).c_str(), F_OK), 0) << name;
  struct stat st;
  for (const std::string &name : kept) EXPECT_EQ(lstat((kEtc + name).c_str(), &st), 0) << name;
  EXPECT_EQ(qsvtest::ReadFile("/tmp/link-target"), "x");
  for (const std::string &name : kept) remove((kEtc + name).c_str());
}

}  // namespace
