#include "kolt/user.h"

#include <string>

#include <gtest/gtest.h>

#include "kolt/err.h"
#include "test_util.h"

namespace {

TEST(UserTest, LookupsAreExactRealNameForgivesCase) {
  KOLTUSER user;
  ASSERT_EQ(0, KOLTUserGetByUID(0, &user));
  EXPECT_STREQ("/root", user.home);
  uid_t uid = 0;
  gid_t gid = 0;
  ASSERT_EQ(0, KOLTUserGetUGID("Quillon-Server", &uid, &gid));
  ASSERT_EQ(0, KOLTUserGet("Quillon-Server", &user));
  EXPECT_NE(0u, uid);
  EXPECT_EQ(uid, user.uid);
  EXPECT_EQ(gid, user.gid);
  EXPECT_EQ(-1, KOLTUserGet("quillon-server", &user));
  EXPECT_EQ(KLIBC_ERR_NOT_FOUND, KLIBCErrGet());

  char buf[64];
  ASSERT_EQ(0, KLIBUserRealNameGet("quillon-server", buf, sizeof(buf), 0));
  EXPECT_STREQ("Quillon-Server", buf);
  ASSERT_EQ(0, KLIBUserRealNameGet("QUILLON-SERVER", buf, sizeof(buf), 0));
  EXPECT_STREQ("Quillon-Server", buf);
  EXPECT_EQ(-1, KLIBUserRealNameGet("quillon-server", buf, 14, 0));
  EXPECT_EQ(-1, KLIBUserRealNameGet("quillon-serve", buf, sizeof(buf), 0));

  KOLTGROUP *group = nullptr;
  ASSERT_EQ(0, KOLTGroupGet("Quillon-Server", &group));
  gid = group->gid;
  KOLTGroupFree(group);
  ASSERT_EQ(0, KOLTGroupGetByGID(gid, &group));
  EXPECT_STREQ("Quillon-Server", group->name);
  KOLTGroupFree(group);
  EXPECT_EQ(-1, KOLTGroupGet("no-such-group-kolt", &group));
  EXPECT_EQ(KLIBC_ERR_NOT_FOUND, KLIBCErrGet());
}

// The account files the tests below put in place of the machine's.
const char kPasswd[] =
    "root:x:0:0:root:/root:/bin/bash\n"
    "svc:x:999:999::/var/empty:/usr/sbin/nologin\n"
    "bob:x:1001:100::/home/bob:/bin/sh\n"
    "alice:x:1000:100::/home/alice:/bin/sh\n"
    "Carol:x:1500:100::/home/Carol:/bin/sh\n"
    "zed:x:65533:100::/home/zed:/bin/sh\n"
    "nobody:x:65534:65534::/nonexistent:/usr/sbin/nologin\n";
const char kGroup[] =
    "root:x:0:\n"
    "users:x:100:\n"
    "mailadmins:x:2000:alice,Carol,bob\n";

// With kPasswd and kGroup bound over the system's account files in a mount namespace of its own.
TEST(UserTest, GroupMembersAndOrdinaryLocalUsersSorted) {
  ScratchDir dir;
  WriteFile(dir / "passwd", kPasswd);
  WriteFile(dir / "group", kGroup);
  std::string out;
  ASSERT_TRUE(RunWithPrivateMounts(
      [&] {
        if (!BindFile(dir / "passwd", "/etc/passwd") || !BindFile(dir / "group", "/etc/group")) return std::string("no bind");
        std::string text;
        KOLTGROUP *group = nullptr;
        if (KOLTGroupGet("mailadmins", &group) != 0) return std::string("lookup failed");
        text = std::to_string(group->gid) + ":";
        for (char **m = group->members; *m != nullptr; m++) text += std::string(*m) + ",";
        KOLTGroupFree(group);
        if (KOLTGroupGetByGID(100, &group) != 0) return text + " gid lookup failed";
        text += std::string(" ") + group->name + (group->members[0] == nullptr ? " empty " : " members ");
        KOLTGroupFree(group);

        KLIBSZLIST *list = nullptr;
        text += std::to_string(KLIBUserEnum(&list, AUTH_LOCAL, nullptr)) + ":";
        for (int i = 0; i < KLIBCSzListCount(list); i++) text += std::string(KLIBCSzListGet(list, i)) + ",";
        text += " win=" + std::to_string(KLIBUserEnum(&list, AUTH_WIN, "CORP"));
        text += " ldap=" + std::to_string(KLIBUserEnum(&list, AUTH_LDAP, "dc=example"));
        text += " bad=" + std::to_string(KLIBUserEnum(&list, 0x100, nullptr));
        KLIBCSzListFree(list);
        char real[32];
        return text + (KLIBUserRealNameGet("carol", real, sizeof(real), 0) == 0 ? std::string(" real=") + real : " real=none");
      },
      &out));
  EXPECT_EQ("2000:alice,Carol,bob, users empty 4:Carol,alice,bob,zed, win=0 ldap=0 bad=-1 real=Carol", out);
}

}  // namespace
