#include "kolt/fs.h"

#include <errno.h>
#include <pwd.h>
#include <sys/stat.h>
#include <unistd.h>

#include <random>
#include <string>

#include <gtest/gtest.h>

#include "kolt/file.h"
#include "test_util.h"

namespace {

struct stat StatOf(const std::string &path) {
  struct stat st = {};
  stat(path.c_str(), &st);
  return st;
}

class FsOwnerTest : public ::testing::Test {
 protected:
  void SetUp() override {
    if (geteuid() != 0) GTEST_SKIP() << "needs root to give files away";
    struct passwd *pw = getpwnam("Quillon-Server");
    if (pw == nullptr) GTEST_SKIP() << "no package user";
    uid_ = pw->pw_uid;
    gid_ = pw->pw_gid;
  }
  uid_t uid_ = 0;
  gid_t gid_ = 0;
};

TEST_F(FsOwnerTest, MkdirPGivesEachNewDirectoryModeAndOwner) {
  ScratchDir dir;
  std::string deep = dir / "a/b/c";
  mode_t old = umask(077);
  ASSERT_EQ(0, KOLTFSMkdirP(deep.c_str(), 0, 0, uid_, gid_, 0750));
  umask(old);
  for (const char *sub : {"a", "a/b", "a/b/c"}) {
    struct stat st = StatOf(dir / sub);
    EXPECT_TRUE(S_ISDIR(st.st_mode)) << sub;
    EXPECT_EQ(0750u, st.st_mode & 07777) << sub;
    EXPECT_EQ(uid_, st.st_uid) << sub;
    EXPECT_EQ(gid_, st.st_gid) << sub;
  }
  // What existed before is left alone.
  EXPECT_EQ(0u, StatOf(dir.path()).st_uid);
  EXPECT_EQ(0700u, StatOf(dir.path()).st_mode & 07777);

  // Existing all the way down is success and changes nothing.
  ASSERT_EQ(0, KOLTFSMkdirP((deep + "/").c_str(), 0, 0, 0, 0, 0700));
  EXPECT_EQ(uid_, StatOf(deep).st_uid);
  EXPECT_EQ(0750u, StatOf(deep).st_mode & 07777);
}

TEST_F(FsOwnerTest, MkdirPCanInheritTheParentsOwner) {
  ScratchDir dir;
  std::string base = dir / "spool";
  ASSERT_EQ(0, mkdir(base.c_str(), 0755));
  ASSERT_EQ(0, chown(base.c_str(), uid_, gid_));
  std::string deep = base + "/x//y";
  ASSERT_EQ(0, KOLTFSMkdirP(deep.c_str(), 0, 1, 0, 0, 0700));
  for (const std::string &sub : {base + "/x", base + "/x/y"}) {
    EXPECT_EQ(uid_, StatOf(sub).st_uid) << sub;
    EXPECT_EQ(gid_, StatOf(sub).st_gid) << sub;
    EXPECT_EQ(0700u, StatOf(sub).st_mode & 07777) << sub;
  }
}

TEST(FsTest, MkdirPStopsAtAFile) {
  ScratchDir dir;
  WriteFile(dir / "file", "");
  errno = 0;
  EXPECT_EQ(-1, KOLTFSMkdirP((dir / "file/sub").c_str(), 0, 0, getuid(), getgid(), 0755));
  EXPECT_EQ(ENOTDIR, errno);
  EXPECT_EQ(-1, KOLTFSMkdirP((dir / "file").c_str(), 0, 0, getuid(), getgid(), 0755));
  EXPECT_EQ(ENOTDIR, errno);
}

// True when dir holds nothing but the given names: no copy left behind.
bool OnlyHolds(const ScratchDir &dir, size_t count) {
  KLIBSZLIST *list = nullptr;
  int n = KLIBCFileEnumDir(dir.path().c_str(), 0, &list, 0);
  KLIBCSzListFree(list);
  return n == static_cast<int>(count);
}

TEST(FsTest, CopyFileReplacesOnlyWhenAllowed) {
  ScratchDir dir;
  std::string src = dir / "src", dst = dir / "dst";
  std::string data(1 << 20, '\0');
  std::mt19937 rng(7);
  for (char &c : data) c = static_cast<char>(rng());
  WriteFile(src, data);

  ASSERT_EQ(0, KOLTCopyFileI(src.c_str(), dst.c_str(), 0, 0));
  EXPECT_EQ(data, ReadFile(dst));
  EXPECT_EQ(0644u, StatOf(dst).st_mode & 07777);

  WriteFile(src, "new");
  errno = 0;
  EXPECT_EQ(-1, KOLTCopyFileI(src.c_str(), dst.c_str(), 0, 0));
  EXPECT_EQ(EEXIST, errno);
  EXPECT_EQ(data, ReadFile(dst));
  ASSERT_EQ(0, KOLTCopyFileI(src.c_str(), dst.c_str(), 1, 0));
  EXPECT_EQ("new", ReadFile(dst));

  EXPECT_EQ(-1, KOLTCopyFileI((dir / "none").c_str(), (dir / "other").c_str(), 1, 0));
  EXPECT_EQ(-1, KOLTCopyFileI(src.c_str(), (dir / "no/dir/dst").c_str(), 1, 0));
  EXPECT_TRUE(OnlyHolds(dir, 2));
}

TEST(FsTest, VolIDParse) {
  struct {
    const char *path;
    int id;
  } cases[] = {
      {"/volume1", 1},      {"/volume1/", 1},      {"/volume1/@maillog", 1}, {"/volume12/a/b", 12},
      {"/volume", -1},      {"/volume/", -1},      {"/volumeX/", -1},        {"/volume1x/", -1},
      {"/volume0/", -1},    {"volume1/", -1},      {"/vol1/", -1},           {"", -1},
      {"/volume99999999999/", -1},
  };
  for (auto &c : cases) EXPECT_EQ(c.id, KOLTVolIDParse(c.path)) << c.path;
  EXPECT_EQ(-1, KOLTVolIDParse(nullptr));
}

}  // namespace
