// The active member list over users and groups added to the sandbox's system with useradd and
// groupadd: rows by number, renames followed, a damaged file made anew, and what a change sets off:
// the hook folder and the group cache, read back by a real Dovecot.
#include <fcntl.h>
#include <grp.h>
#include <sys/stat.h>
#include <unistd.h>

#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "companions/program_run.h"
#include "harness/mailserverctl_run.h"
#include "harness/recording_script.h"
#include "harness/run_as.h"
#include "harness/syslog_capture.h"
#include "personal/ActiveDBHandler.h"
#include "personal/activate_hook.h"

namespace {

using qsvtest::ReadFile;
using qsvtest::RunProgram;
using qsvtest::WriteFile;

const char kDB[] = "/var/packages/Quillon-Server/etc/active_list.db";
const char kHooks[] = "/var/packages/Quillon-Server/target/hook/penholder_active_user_list_hook/";
const char kCache[] = "/var/packages/Quillon-Server/target/etc/dovecot/active_group_cache";

void Must(const std::vector<std::string> &argv) {
  const qsvtest::ProgramRun run = RunProgram(argv);
  ASSERT_EQ(run.status, 0) << argv[0] << " " << argv.back() << ": " << run.err;
}

void AddUser(const std::string &name, const std::vector<std::string> &more = {}) {
  std::vector<std::string> argv = {"/usr/sbin/useradd", "-M", "-p", "*"};
  argv.insert(argv.end(), more.begin(), more.end());
  argv.push_back(name);
  Must(argv);
}

std::string Uid(const std::string &user) { return std::to_string(qsvtest::UidOf(user)); }
std::string Gid(const std::string &group) {
  const struct group *entry = getgrnam(group.c_str());
  return entry != nullptr ? std::to_string(entry->gr_gid) : "none";
}

ActiveRecord Row(const std::string &name, const std::string &type, const std::string &active) {
  return {"", name, type, active};
}

std::vector<std::string> Names(const std::vector<ActiveRecord> &rows) {
  std::vector<std::string> names;
  for (const ActiveRecord &row : rows) names.push_back(row.name);
  return names;
}

class ActiveListTest : public testing::Test {
 protected:
  static void SetUpTestSuite() {
    for (const char *group : {"qsvsales", "qsvstaff", "qsvidle"}) Must({"/usr/sbin/groupadd", group});
    AddUser("qsvalice", {"-G", "qsvstaff,qsvidle"});
    AddUser("qsvbob", {"-G", "qsvsales"});
    AddUser("qsvcarol", {"-g", "qsvsales"});
    AddUser("qsvdave", {"-G", "qsvsales"});
  }
  void SetUp() override { unlink(kDB); }
};

TEST_F(ActiveListTest, RowsByNumberReplacedFilteredAndDeleted) {
  ActiveDBHandler list;
  ASSERT_EQ(list.getErrCode(), 0);
  qsvtest::SyslogCapture log;
  ASSERT_EQ(list.Insert({Row("qsvalice", "user", "yes"), Row("ghost", "user", "yes"),
                         Row("qsvbob", "user", "no"), Row("qsvsales", "group", "yes"),
                         Row("ghosts", "group", "yes")}), 0);
  EXPECT_EQ(log.Matching(" Failed to get user 'ghost'").size(), 1u);
  EXPECT_EQ(log.Matching(" Failed to get group 'ghosts'").size(), 1u);
  // The same number and type again replaces the row.
  ASSERT_EQ(list.Insert(Row("qsvalice", "user", "no")), 0);

  std::vector<ActiveRecord> rows;
  ASSERT_EQ(list.Retrieve(ActiveDBFilter(), rows), 3);
  EXPECT_EQ(Names(rows), (std::vector<std::string>{"qsvbob", "qsvsales", "qsvalice"}));
  EXPECT_EQ(rows[2].ugid, Uid("qsvalice"));
  EXPECT_EQ(rows[2].active, "no");
  EXPECT_EQ(rows[1].ugid, Gid("qsvsales"));

  ActiveDBFilter filter;
  filter.name = "qsvs";
  EXPECT_EQ(list.GetRecordNum(filter), 0);
  filter.exactName = false;
  EXPECT_EQ(list.GetRecordNum(filter), 1);
  filter = ActiveDBFilter();
  filter.type = "user";
  filter.active = "no";
  EXPECT_EQ(list.GetRecordNum(filter), 2);
  filter.limit = 1;
  filter.offset = 1;
  ASSERT_EQ(list.Retrieve(filter, rows), 1);
  EXPECT_EQ(rows[0].name, "qsvalice");
  EXPECT_EQ(list.GetRecordNum(filter), 2);
  filter = ActiveDBFilter();
  filter.name = "o'brien%";
  EXPECT_EQ(list.Retrieve(filter, rows), 0);
  filter.column = "* from active_member_table; drop table active_member_table; --";
  EXPECT_EQ(list.Retrieve(filter, rows), -1);

  ASSERT_EQ(list.Delete(Row("qsvbob", "user", "")), 0);
  EXPECT_EQ(list.GetRecordNum(ActiveDBFilter()), 2);
  // A user gone from the system goes from the list by the number it was stored with.
  AddUser("qsvgone");
  ASSERT_EQ(list.Insert(Row("qsvgone", "user", "yes")), 0);
  const std::string gone = Uid("qsvgone");
  Must({"/usr/sbin/userdel", "qsvgone"});
  ASSERT_EQ(list.Delete(Row("qsvgone", "user", "")), 0);
  EXPECT_EQ(list.GetRecordNum(ActiveDBFilter()), 3);
  ASSERT_EQ(list.Delete({gone, "qsvgone", "user", ""}), 0);
  EXPECT_EQ(list.GetRecordNum(ActiveDBFilter()), 2);
}

TEST_F(ActiveListTest, RefreshFollowsRenamesOnTheSystem) {
  AddUser("qsvren");
  AddUser("qsvlost");
  Must({"/usr/sbin/groupadd", "qsvrengrp"});
  {
    ActiveDBHandler list;
    ASSERT_EQ(list.Insert({Row("qsvren", "user", "yes"), Row("qsvrengrp", "group", "yes"),
                           Row("qsvlost", "user", "yes")}), 0);
  }
  const std::string lost = Uid("qsvlost");
  Must({"/usr/sbin/usermod", "-l", "qsvren2", "qsvren"});
  Must({"/usr/sbin/groupmod", "-n", "qsvrengrp2", "qsvrengrp"});
  Must({"/usr/sbin/userdel", "qsvlost"});
  qsvtest::SyslogCapture log;
  const qsvtest::CtlResult refresh = qsvtest::RunCtl({"active", "refresh"});
  EXPECT_EQ(refresh.status, 0) << refresh.output;
  EXPECT_EQ(log.Matching(" KOLTUserGetByUID(" + lost + ") failed [0x0300 ").size(), 1u);

  const qsvtest::CtlResult listed = qsvtest::RunCtl({"active", "list", "--name", "qsv", "--partial"});
  EXPECT_EQ(listed.status, 0);
  EXPECT_EQ(listed.output, Uid("qsvren2") + "\tqsvren2\tuser\tyes\n" + Gid("qsvrengrp2") +
                               "\tqsvrengrp2\tgroup\tyes\n" + lost + "\tqsvlost\tuser\tyes\n");
  EXPECT_EQ(qsvtest::RunCtl({"active", "list", "--type", "group", "--count"}).output, "1\n");
  EXPECT_EQ(qsvtest::RunCtl({"active", "list", "--type", "admin"}).status, 1);
  EXPECT_EQ(qsvtest::RunCtl({"active", "list", "--name", "a\x1b[2J"}).status, 1);
  EXPECT_EQ(qsvtest::RunCtl({"active", "refresh", "now"}).status, 2);
}

TEST_F(ActiveListTest, DamagedFileIsMadeAnew) {
  {
    ActiveDBHandler list;
    ASSERT_EQ(list.Insert({Row("qsvalice", "user", "yes"), Row("qsvbob", "user", "yes")}), 0);
  }
  // The table's root page is the second of 4096 bytes; a page type no file has makes it damaged.
  const int fd = open(kDB, O_WRONLY);
  ASSERT_GE(fd, 0);
  const std::string junk(100, '\xff');
  ASSERT_EQ(pwrite(fd, junk.data(), junk.size(), 4096), 100);
  close(fd);

  ActiveDBHandler list;
  qsvtest::SyslogCapture log;
  std::vector<ActiveRecord> rows;
  EXPECT_EQ(list.Retrieve(ActiveDBFilter(), rows), -1);
  EXPECT_EQ(log.Matching(" db corrupt, need regen").size(), 1u);
  EXPECT_EQ(list.Retrieve(ActiveDBFilter(), rows), 0);
  ASSERT_EQ(list.Insert(Row("qsvdave", "user", "yes")), 0);
  EXPECT_EQ(list.GetRecordNum(ActiveDBFilter()), 1);
}

TEST_F(ActiveListTest, ChangeRunsTheHooksAndWritesAGroupCacheDovecotReads) {
  WriteFile(std::string(kHooks) + "10-note", "#!/bin/sh\necho ran >>/tmp/qsv-active-hook\n", 0755);
  WriteFile(std::string(kHooks) + "20-fails", "#!/bin/sh\nexit 1\n", 0755);
  ActiveDBHandler list;
  // Alice by her own row, Carol by her primary group, Dave as a member; Bob's own "no" wins over
  // his group's "yes", and an inactive group is nobody's.
  ASSERT_EQ(list.Insert({Row("qsvalice", "user", "yes"), Row("qsvbob", "user", "no"),
                         Row("qsvsales", "group", "yes"), Row("qsvstaff", "group", "yes"),
                         Row("qsvidle", "group", "no")}), 0);
  qsvtest::SyslogCapture log;
  EXPECT_EQ(list.ActiveUserListHookAction(), -1);
  EXPECT_EQ(log.Matching(" cannot execute list hook over").size(), 1u);
  EXPECT_EQ(ReadFile("/tmp/qsv-active-hook"), "ran\n");
  auto line = [](const std::string &user, const std::string &groups) {
    return user + "::" + Uid(user) + ":" + std::to_string(qsvtest::GidOf(user)) + "::/home/" +
           user + "::" + (groups.empty() ? "" : "userdb_acl_groups=" + groups) + "\n";
  };
  EXPECT_EQ(ReadFile(kCache),
            line("qsvalice", "qsvstaff") + line("qsvcarol", "qsvsales") + line("qsvdave", "qsvsales"));
  struct stat st;
  ASSERT_EQ(stat(kCache, &st), 0);
  EXPECT_EQ(st.st_mode & 07777, 0644u);
  EXPECT_EQ(st.st_uid, qsvtest::UidOf("Quillon-Server"));

  unlink((std::string(kHooks) + "20-fails").c_str());
  ASSERT_EQ(list.Delete(Row("qsvstaff", "group", "")), 0);
  EXPECT_EQ(ActiveUserListHookAction(), 0);
  EXPECT_EQ(ReadFile(kCache),
            line("qsvalice", "") + line("qsvcarol", "qsvsales") + line("qsvdave", "qsvsales"));

  // Dovecot takes the cache as its user database.
  WriteFile("/run/qsv-dovecot/dovecot.conf",
            "protocols =\nbase_dir = /run/qsv-dovecot/base\nstate_dir = /run/qsv-dovecot\n"
            "ssl = no\nuserdb {\n  driver = passwd-file\n  args = " + std::string(kCache) +
                "\n}\npassdb {\n  driver = passwd-file\n  args = " + kCache + "\n}\n");
  Must({"/usr/sbin/dovecot", "-c", "/run/qsv-dovecot/dovecot.conf"});
  qsvtest::ProgramRun dave;
  for (int i = 0; i < 100 && dave.out.empty(); ++i) {
    usleep(50000);
    dave = RunProgram({"/usr/bin/doveadm", "-c", "/run/qsv-dovecot/dovecot.conf", "user", "-f",
                       "acl_groups", "qsvdave"});
  }
  EXPECT_EQ(dave.out, "qsvsales\n");
  EXPECT_NE(RunProgram({"/usr/bin/doveadm", "-c", "/run/qsv-dovecot/dovecot.conf", "user", "qsvbob"})
                .status, 0);
  Must({"/usr/bin/doveadm", "-c", "/run/qsv-dovecot/dovecot.conf", "stop"});
}

}  // namespace
