// The alias table in a real SQLite file with real system users and groups; the exported maps are
// read back with the real postalias.
#include <pwd.h>
#include <sqlite3.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdio>
#include <fstream>
#include <list>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "config/accounts.h"
#include "config/mail_conf.h"
#include "harness/recording_script.h"
#include "harness/syslog_capture.h"
#include "kolt/exec.h"
#include "tables/alias.h"
#include "tables/tables_fixture.h"

namespace {

const char kDb[] = "/var/packages/Quillon-Server/etc/alias.db";
const char kMap[] = "/var/packages/Quillon-Server/target/etc/aliases_test";
const char kPostalias[] = "/var/packages/Quillon-Server/target/sbin/postalias";

std::string Postalias(const std::string &key, const std::string &map) {
  return qsvtest::PostmapQuery(key, "hash:" + map, kPostalias);
}

// "alias:member:type" of every row of the domain, sorted.
std::string Rows(int domain) {
  sqlite3 *db = nullptr;
  sqlite3_open(kDb, &db);
  std::string text;
  char *sql = sqlite3_mprintf(
      "SELECT alias||':'||member||':'||type FROM alias_info_table WHERE domain_idx=%d ORDER BY 1;",
      domain);
  sqlite3_exec(db, sql, [](void *out, int, char **value, char **) {
    *static_cast<std::string *>(out) += std::string(value[0]) + " ";
    return 0;
  }, &text, nullptr);
  sqlite3_free(sql);
  sqlite3_close(db);
  return text;
}

std::string Joined(const std::list<std::string> &names) {
  std::string text;
  for (const auto &name : names) text += name + " ";
  return text;
}

class AliasTest : public qsvtest::TablesTest {
 protected:
  static void SetUpTestSuite() {
    qsvtest::TablesTest::SetUpTestSuite();
    if (getpwnam("alice") != nullptr) return;
    std::ofstream("/etc/passwd", std::ios::app)
        << "alice:x:2001:2001::/tmp:/bin/false\nbob:x:2002:2001::/tmp:/bin/false\n"
        << "carol:x:2003:2001::/tmp:/bin/false\n";
    std::ofstream("/etc/group", std::ios::app) << "mailteam:x:2001:alice,bob\n";
  }
  void SetUp() override {
    for (const char *suffix : {"", "-journal"}) unlink((std::string(kDb) + suffix).c_str());
    mailConfSet("account_type", "local", true, 0);
  }

  // A loaded table with the given members added to aliases of domain 1.
  static void Add(const std::string &alias, const std::list<MemberInfo> &members) {
    Alias table(kDb);
    ASSERT_EQ(table.addMember({1, alias}, members), 0);
  }
};

TEST_F(AliasTest, ExportedMapKeepsNestingForPostfixWhileExpansionUnfoldsIt) {
  Add("sales", {{"Alice", MEMBER_USER}, {"mailteam", MEMBER_GROUP},
                {"ext@partner.test", MEMBER_EMAIL}, {"team", MEMBER_ALIAS}});
  Add("team", {{"carol", MEMBER_USER}});
  // Rows of one alias that don't stand together in the file still make one line.
  Add("sales", {{"zed@partner.test", MEMBER_EMAIL}});
  Alias table(kDb);
  ASSERT_EQ(table.load(), 0);
  ASSERT_EQ(table.ExportAlias(kMap, 1), 0);
  EXPECT_EQ(qsvtest::ReadFile(kMap),
            "MAILER-DAEMON: postmaster\npostmaster: root\n"
            "sales: alice, bob, ext@partner.test, team, zed@partner.test\nteam: carol\n");
  ASSERT_EQ(qsvtest::RunProgram(kPostalias, kMap), 0);
  EXPECT_EQ(Postalias("sales", kMap), "alice, bob, ext@partner.test, team, zed@partner.test");
  EXPECT_EQ(Postalias("team", kMap), "carol");

  std::list<std::string> flat;
  ASSERT_EQ(table.getWithoutAliasList({1, "sales"}, flat), 0);
  EXPECT_EQ(Joined(flat), "alice bob carol ext@partner.test zed@partner.test ");

  // Another domain sees none of it; the valid names of the server do.
  ASSERT_EQ(table.ExportAlias(kMap, 2), 0);
  EXPECT_EQ(qsvtest::ReadFile(kMap), "MAILER-DAEMON: postmaster\npostmaster: root\n");
  const auto valid = GetValidMap(7);
  EXPECT_EQ(valid.count("sales") + valid.count("team") + valid.count("alice"), 3u);
}

TEST_F(AliasTest, AliasesThatHoldEachOtherUnfoldOnceEach) {
  Add("a", {{"alice", MEMBER_USER}, {"b", MEMBER_ALIAS}, {"x@out.test", MEMBER_EMAIL}});
  Add("b", {{"a", MEMBER_ALIAS}, {"alice", MEMBER_USER}, {"bob", MEMBER_USER},
            {"b", MEMBER_ALIAS}});
  Alias table(kDb);
  std::list<std::string> flat;
  ASSERT_EQ(table.getWithoutAliasList({1, "a"}, flat), 0);
  EXPECT_EQ(Joined(flat), "alice bob x@out.test ");
  ASSERT_EQ(table.getWithoutAliasList({1, "b"}, flat), 0);
  EXPECT_EQ(Joined(flat), "alice bob x@out.test ");
}

TEST_F(AliasTest, ImportSkipsReservedNamesAndRoundTripsAnExport) {
  qsvtest::WriteFile(kMap,
                     "# a comment\n\nPostmaster: alice\nROOT: bob\nMailer-Daemon: carol\n"
                     "  a :\tb, far@out.test\n"
                     "b: alice,,bob\nnocolon\nc: Carol, nobody-such\n"
                     "d: twice@out.test, twice@out.test\n");
  // A row already there is skipped; a line that names a member twice loses only its own alias.
  Add("a", {{"far@out.test", MEMBER_EMAIL}});
  {
    qsvtest::SyslogCapture log;
    Alias table(kDb);
    ASSERT_EQ(table.load(), 0);
    ASSERT_EQ(table.ImportAlias(kMap, 1), 0);
    EXPECT_EQ(table.getError(), -1);
    EXPECT_EQ(log.Matching("UNIQUE constraint failed").size(), 1u);
  }
  EXPECT_EQ(Rows(1), "a:b:2 a:far@out.test:3 b:alice:0 b:bob:0 c:carol:0 ");
  EXPECT_EQ(Rows(0), "root:admin:0 ");

  // What is no alias map adds nothing: a directory, a device, a line longer than any map's.
  qsvtest::WriteFile(kMap, "x: alice\nbig: " + std::string(70000, 'b') + "\n");
  {
    qsvtest::SyslogCapture log;
    Alias table(kDb);
    ASSERT_EQ(table.load(), 0);
    for (const char *path : {"/tmp", "/dev/null", kMap}) {
      EXPECT_EQ(table.ImportAlias(path, 1), -1) << path;
    }
    EXPECT_EQ(log.Matching("a line is longer than 65536 bytes").size(), 1u);
  }
  EXPECT_EQ(Rows(1), "a:b:2 a:far@out.test:3 b:alice:0 b:bob:0 c:carol:0 ");

  std::string first;
  {
    Alias table(kDb);
    ASSERT_EQ(table.load(), 0);
    ASSERT_EQ(table.ExportAlias(kMap, 1), 0);
    first = qsvtest::ReadFile(kMap);
  }
  unlink(kDb);
  Alias fresh(kDb);
  ASSERT_EQ(fresh.load(), 0);
  ASSERT_EQ(fresh.ImportAlias(kMap, 1), 0);
  Alias again(kDb);
  ASSERT_EQ(again.load(), 0);
  ASSERT_EQ(again.ExportAlias(kMap, 1), 0);
  EXPECT_EQ(qsvtest::ReadFile(kMap), first);
  EXPECT_EQ(first, "MAILER-DAEMON: postmaster\npostmaster: root\n"
                   "a: b, far@out.test\nb: alice, bob\nc: carol\n");
}

TEST_F(AliasTest, BadMembersAreSkippedWithoutFailingTheCall) {
  Alias table(kDb);
  EXPECT_EQ(table.addMember({1, "list"}, {{"nobody-such", MEMBER_USER},
                                          {"bad\xff@out.test", MEMBER_EMAIL},
                                          {"bob", MEMBER_USER},
                                          {"ok@out.test", MEMBER_EMAIL}}),
            0);
  EXPECT_EQ(table.addMember({1, "bad\xc0\xaf"}, {{"alice", MEMBER_USER}}), 0);
  // Already there: skipped, not a failure of the unique index.
  EXPECT_EQ(table.addMember({1, "list"}, {{"ok@out.test", MEMBER_EMAIL}}), 0);
  EXPECT_EQ(Rows(1), "list:bob:0 list:ok@out.test:3 ");

  std::vector<MemberInfo> page;
  ASSERT_EQ(table.loadMember({1, "list"}, MEMBER_EMAIL, 0, 10, "k@", page), 0);
  ASSERT_EQ(page.size(), 1u);
  EXPECT_EQ(page[0].member, "ok@out.test");
}

TEST_F(AliasTest, NewFileSeedsRootForTheAccountSourceAndASecondLoadAppends) {
  ASSERT_EQ(mailConfSet("account_type", "ldap", true, 0), 0);
  ASSERT_EQ(mailConfSet("acc_domain_name", "corp.example.test", true, 0), 0);
  Alias table(kDb);
  mailConfSet("account_type", "local", true, 0);
  ASSERT_EQ(table.getError(), 0);
  ASSERT_EQ(table.load(), 0);
  EXPECT_EQ(Rows(0), "root:admin@corp.example.test:0 ");

  ASSERT_EQ(table.addMember({1, "x"}, {{"y@out.test", MEMBER_EMAIL}}), 0);
  ASSERT_EQ(table.load(), 0);
  EXPECT_EQ(table.getSystemAlias().size(), 2u);
  EXPECT_EQ(table.getAliasList().size(), 1u) << "the first load was before x existed";
  ASSERT_EQ(table.load(), 0);
  EXPECT_EQ(table.getAliasList().size(), 2u);
}

// Garbage over every page but the first: the schema still reads, every table walk is corrupt.
void Corrupt() {
  std::fstream file(kDb, std::ios::in | std::ios::out | std::ios::binary);
  file.seekg(0, std::ios::end);
  const long size = file.tellg();
  for (long at = 4096; at < size; ++at) {
    file.seekp(at);
    file.put(static_cast<char>(at * 37));
  }
}

TEST_F(AliasTest, CorruptFileIsRebuiltWithOnlyRootAndTheCallSucceeds) {
  Add("sales", {{"alice", MEMBER_USER}});
  for (int i = 0; i < 200; ++i) Add("big" + std::to_string(i), {{"bob", MEMBER_USER}});
  Corrupt();
  {
    Alias table(kDb);
    EXPECT_EQ(table.load(), 0);
    EXPECT_TRUE(table.getAliasList().empty());
  }
  EXPECT_EQ(Rows(0) + Rows(1), "root:admin:0 ");

  Corrupt();
  Alias table(kDb);
  EXPECT_EQ(table.delAlias({{1, "sales"}}), 0);
  EXPECT_EQ(table.getError(), 0) << "rebuilt";
  EXPECT_EQ(Rows(0) + Rows(1), "root:admin:0 ");
}

TEST_F(AliasTest, WritersInSeveralProcessesLoseNoMember) {
  Add("all", {});
  std::vector<pid_t> children;
  for (int p = 0; p < 4; ++p) {
    const pid_t child = fork();
    if (child == 0) {
      Alias table(kDb);
      int failures = 0;
      for (int i = 0; i < 20; ++i) {
        const std::string address = "p" + std::to_string(p) + "-" + std::to_string(i) + "@o.test";
        failures += table.addMember({1, "all"}, {{address, MEMBER_EMAIL}}) != 0;
        // All of them race for this one: the unique index keeps it single.
        table.addMember({1, "all"}, {{"shared@o.test", MEMBER_EMAIL}});
      }
      _exit(failures);
    }
    children.push_back(child);
  }
  for (pid_t child : children) {
    int status = -1;
    waitpid(child, &status, 0);
    EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0);
  }
  Alias table(kDb);
  std::list<MemberInfo> members;
  ASSERT_EQ(table.loadMember({1, "all"}, members), 0);
  EXPECT_EQ(members.size(), 81u);
}

TEST_F(AliasTest, SwitchRootMovesADomainRootIntoTheSystemPlace) {
  Add("root", {{"alice", MEMBER_USER}, {"boss@out.test", MEMBER_EMAIL}});
  Add("ops", {{"root", MEMBER_ALIAS}, {"bob", MEMBER_USER}});
  ASSERT_EQ(SwitchRootAlias(kDb), 0);
  EXPECT_EQ(Rows(0), "root:admin:0 root:alice:0 root:boss@out.test:3 ");
  EXPECT_EQ(Rows(1), "ops:alice:0 ops:bob:0 ops:boss@out.test:3 ");
}

}  // namespace
