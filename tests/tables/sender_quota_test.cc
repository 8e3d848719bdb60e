// Sender quotas in the real main database, spread through a one-node cluster, and the map that
// Postfix reads, looked up with the real postmap.
#include <unistd.h>

#include <list>
#include <string>

#include <gtest/gtest.h>

#include "config/mail_conf.h"
#include "harness/recording_script.h"
#include "harness/syslog_capture.h"
#include "tables/mailserver_db_schema.h"
#include "tables/sender_quota.h"
#include "tables/tables_fixture.h"

namespace {

const char kMap[] = "/var/packages/Quillon-Server/target/etc/sender_quota_map";

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

TEST_F(SenderQuotaTest, OnlyASingleSetIsBoundTo99999) {
  EXPECT_EQ(SenderQuota::Set("max@example.test", 99999), 0);
  EXPECT_EQ(SenderQuota::Set("over@example.test", 100000), -1);
  EXPECT_EQ(SenderQuota::Set("", 5), -1);
  EXPECT_EQ(SenderQuota::SetList({{"bulk@example.test", 100000}}), 0);
  int total = 0;
  EXPECT_EQ(Page(0, -1, "", total), "max@example.test=99999 bulk@example.test=100000 ");
  EXPECT_EQ(total, 2);

  // A second value replaces the first.
  EXPECT_EQ(SenderQuota::Set("max@example.test", 10), 0);
  EXPECT_EQ(Page(0, -1, "max", total), "max@example.test=10 ");
}

TEST_F(SenderQuotaTest, PagesRunBackwardsAndTheTotalIgnoresTheSearch) {
  ASSERT_EQ(SenderQuota::SetList({{"amy", 1}, {"bob", 2}, {"o'hara", 3}, {"dan", 4}, {"eve", 5}}),
            0);
  int total = 0;
  EXPECT_EQ(Page(1, 2, "", total), "eve=5 dan=4 ");
  EXPECT_EQ(total, 5);
  EXPECT_EQ(Page(0, -1, "'h", total), "o'hara=3 ");
  EXPECT_EQ(total, 5);
  EXPECT_EQ(Page(0, 1, "b", total), "bob=2 ");
  EXPECT_EQ(total, 5);

  ASSERT_EQ(SenderQuota::DeleteList({"o'hara", "amy"}), 0);
  EXPECT_EQ(Page(0, -1, "", total), "eve=5 dan=4 bob=2 ");
  EXPECT_EQ(total, 3);
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

  // A local account is written in its stored spelling.
  ASSERT_EQ(SenderQuota::Set("quillon-server", 12), 0);
  ASSERT_EQ(SenderQuota::GenerateConfig(), 0);
  EXPECT_NE(qsvtest::ReadFile(kMap).find("\nQuillon-Server 12\n"), std::string::npos);
}

TEST_F(SenderQuotaTest, FailedSpreadKeepsTheChangeHereAndSaysSo) {
  qsvtest::SyslogCapture log;
  {
    qsvtest::FailingStoreTool broken;
    EXPECT_EQ(SenderQuota::Set("kept@example.test", 3), -1);
  }
  EXPECT_EQ(log.Matching("Fail to set file /var/packages/Quillon-Server/etc/mailserver.db").size(),
            1u);
  int total = 0;
  EXPECT_EQ(Page(0, -1, "", total), "kept@example.test=3 ");
}

}  // namespace
