// Where users' mail lives for each account type, from settings written as the store writes them.
#include "core/mail_dir.h"

#include <sys/stat.h>
#include <unistd.h>

#include <string>

#include <gtest/gtest.h>

#include "core/mail_conf.h"
#include "harness/key_file.h"
#include "test_util.h"

namespace {

const char kSmbConf[] = "/etc/samba/smb.conf";

// The sandbox's /etc is a private overlay, so smb.conf may be replaced freely.
class MailDirTest : public ::testing::Test {
 protected:
  void SetUp() override {
    mkdir("/var/packages/Quillon-Server/etc", 0755);
    mkdir(kMailConfDir, 0755);
    mkdir("/etc/samba", 0755);
    for (const char *key : {"account_type", "acc_domain_name", "win_domain_short_name"}) {
      unlink(FileOf(key).c_str());
    }
    unlink(kSmbConf);
  }

  static std::string FileOf(const std::string &key) { return kMailConfDir + toLeagalFileName(key); }

  static void Set(const std::string &key, const std::string &value) { qsvtest::PutKeyFile(key, value); }

  static std::string DirOf(uid_t uid) {
    std::string path = "<unchanged>";
    return mailDirGet(uid, path) == 0 ? path : "failed, " + path;
  }
};

TEST_F(MailDirTest, ALocalServerKeepsMailUnderLocalByUserNumber) {
  EXPECT_EQ(DirOf(1026), "/var/spool/mail/local/1026");
  Set("account_type", "local");
  EXPECT_EQ(DirOf(4294967294u), "/var/spool/mail/local/4294967294") << "one flat level";
  EXPECT_NE(access("/var/spool/mail/local", F_OK), 0) << "composing a path creates nothing";
  std::string path;
  ASSERT_EQ(uidGetPath("/srv/mail/example.com", 0, path), 0);
  EXPECT_EQ(path, "/srv/mail/example.com/0");
  EXPECT_EQ(uidGetPath("", 7, path), -1);
}

TEST_F(MailDirTest, ADirectoryServerUsesItsAccountDomainAnyOtherSettingFails) {
  Set("account_type", "ldap");
  Set("acc_domain_name", "example.com");
  EXPECT_EQ(DirOf(1026), "/var/spool/mail/example.com/1026");
  std::string domain;
  ASSERT_EQ(smtpAccountDomainGet(domain), 0);
  EXPECT_EQ(domain, "example.com");
  Set("acc_domain_name", "");
  EXPECT_EQ(smtpAccountDomainGet(domain), -1);
  for (const char *bad : {"", "..", ".", "../etc", "a/b"}) {
    Set("acc_domain_name", bad);
    EXPECT_EQ(DirOf(1026), "failed, <unchanged>") << bad;
  }
  // An unknown account type or a damaged setting fails too.
  Set("account_type", "nis");
  EXPECT_EQ(DirOf(1), "failed, <unchanged>");
  WriteFile(FileOf("account_type"), "{\"mailserver/conf/account_type\":");
  domain = "<unchanged>";
  EXPECT_EQ(smtpAccountDomainGet(domain), -1);
  EXPECT_EQ(domain, "<unchanged>");
}

TEST_F(MailDirTest, AWindowsMemberUsesItsShortNameOrTheWorkgroup) {
  Set("account_type", "win");
  Set("win_domain_short_name", "CORP");
  EXPECT_EQ(DirOf(1500), "/var/spool/mail/CORP/1500");
  Set("win_domain_short_name", "");
  EXPECT_EQ(DirOf(1500), "/var/spool/mail/WORKGROUP/1500");
  WriteFile(kSmbConf, "[global]\n\tworkgroup = OFFICE\n");
  EXPECT_EQ(DirOf(1500), "/var/spool/mail/OFFICE/1500");
  unlink(kSmbConf);
}

}  // namespace
