// Mail directories and the per-domain account databases under the server's account domain, from
// the settings a node keeps in its key mirrors.
#include <sys/stat.h>
#include <unistd.h>

#include <string>

#include <gtest/gtest.h>

#include "foundation/account_db_paths.h"
#include "foundation/mail_dir_path.h"
#include "harness/key_file.h"
#include "harness/recording_script.h"
#include "harness/run_as.h"
#include "harness/syslog_capture.h"

namespace {

using qsvtest::PutKeyFile;

class MailDirTest : public testing::Test {
 protected:
  void SetUp() override {
    PutKeyFile("account_type", "local");
    uid_ = qsvtest::UidOf("Quillon-Server");
    gid_ = qsvtest::GidOf("Quillon-Server");
  }
  uid_t uid_;
  gid_t gid_;
};

TEST_F(MailDirTest, ALoweredCallerGetsTheDirectoryMadeAndGivenToTheUser) {
  const std::string dir = "/var/spool/mail/local/" + std::to_string(uid_);
  const int rc = qsvtest::RunWithEffectiveIds(uid_, gid_, [&] {
    return mailDirPathCreate(uid_, gid_) == 0 && geteuid() == uid_ ? 0 : 1;
  });
  ASSERT_EQ(rc, 0);
  struct stat st;
  ASSERT_EQ(stat(dir.c_str(), &st), 0);
  EXPECT_EQ(st.st_mode & 07777, 0770u);
  EXPECT_EQ(st.st_uid, uid_);
  EXPECT_EQ(st.st_gid, gid_);
  ASSERT_EQ(stat("/var/spool/mail/local", &st), 0);
  EXPECT_EQ(st.st_uid, 0u) << "a parent made on the way keeps the owner above it";
  EXPECT_EQ(mailDirPathCreate(uid_, gid_), 0) << "an existing directory is fine";
}

TEST_F(MailDirTest, FailuresOfEachStepAreLogged) {
  qsvtest::SyslogCapture log;
  PutKeyFile("account_type", "ldap");
  PutKeyFile("acc_domain_name", "");
  EXPECT_EQ(mailDirPathCreate(uid_, gid_), -1);
  PutKeyFile("acc_domain_name", "blocked.example");
  qsvtest::WriteFile("/var/spool/mail/blocked.example", "a file where a directory belongs");
  EXPECT_EQ(mailDirPathCreate(uid_, gid_), -1);
  EXPECT_EQ(log.Matching(" Failed to get mailDir of uid [" + std::to_string(uid_) + "]").size(), 1u);
  EXPECT_EQ(log.Matching(" Failed to create path:[/var/spool/mail/blocked.example/" +
                         std::to_string(uid_) + "] error:[Not a directory]")
                .size(),
            1u);
}

TEST_F(MailDirTest, AccountDatabasesFollowTheAccountDomain) {
  std::string path;
  ASSERT_EQ(GetUserGrouPolicyConfigPath(path), 0);
  EXPECT_EQ(path, "/var/packages/Quillon-Server/etc/local.ugp.db");
  PutKeyFile("account_type", "ldap");
  PutKeyFile("acc_domain_name", "example.com");
  ASSERT_EQ(GetUserGroupDelegationConfigPath(path), 0);
  EXPECT_EQ(path, "/var/packages/Quillon-Server/etc/example.com.delegation.db");
  PutKeyFile("acc_domain_name", "");
  qsvtest::SyslogCapture log;
  EXPECT_EQ(GetUserGrouPolicyConfigPath(path), -1);
  EXPECT_EQ(path, "/var/packages/Quillon-Server/etc/example.com.delegation.db");
  EXPECT_EQ(log.Matching(" smtpAccountDomainGet fail").size(), 1u);
}

}  // namespace
