#include "kolt/fs.h"

#include <errno.h>
#include <sys/stat.h>
#include <unistd.h>

#include <random>
#include <string>

#include <gtest/gtest.h>

#include "harness/run_as.h"
#include "kolt/file.h"
#include "test_util.h"

namespace {

struct stat StatOf(const std::string &path) {
  struct stat st = {};
  stat(path.c_str(), &st);
  return st;
}

TEST(FsTest, MkdirPGivesEachNewDirectoryModeAndOwnerOrTheParents) {
  const uid_t uid = qsvtest::UidOf("Quillon-Server");
  const gid_t gid = qsvtest::GidOf("Quillon-Server");
  ScratchDir dir;
  std::string deep = dir / "a/b/c";
  mode_t old = umask(077);
  ASSERT_EQ(0, KOLTFSMkdirP(deep.c_str(), 0, 0, uid, gid, 0750));
  umask(old);
  for (const char *sub : {"a", "a/b", "a/b/c"}) {
    struct stat st = StatOf(dir / sub);
    EXPECT_TRUE(S_ISDIR(st.st_mode) && st.st_uid == uid && st.st_gid == gid) << sub;
    EXPECT_EQ(0750u, st.st_mode & 07777) << sub;
  }
  // What existed before is left alone, down to the last level.
  EXPECT_EQ(0u, StatOf(dir.path()).st_uid);
  ASSERT_EQ(0, KOLTFSMkdirP((deep + "/").c_str(), 0, 0, 0, 0, 0700));
  EXPECT_EQ(uid, StatOf(deep).st_uid);
  EXPECT_EQ(0750u, StatOf(deep).st_mode & 07777);

  // Inheriting: new levels take the owner of the directory they are made in.
  ASSERT_EQ(0, KOLTFSMkdirP((dir / "a/x//y").c_str(), 0, 1, 0, 0, 0700));
  for (const char *sub : {"a/x", "a/x/y"}) {
    EXPECT_TRUE(StatOf(dir / sub).st_uid == uid && StatOf(dir / sub).st_gid == gid) << sub;
    EXPECT_EQ(0700u, StatOf(dir / sub).st_mode & 07777) << sub;
  }

  WriteFile(dir / "file", "");
  for (const char *bad : {"file/sub", "file"}) {
    errno = 0;
    EXPECT_EQ(-1, KOLTFSMkdirP((dir / bad).c_str(), 0, 0, 0, 0, 0755)) << bad;
    EXPECT_EQ(ENOTDIR, errno) << bad;
  }
}

TEST(FsTest, CopyFileReplacesOnlyWhenAllowedAndLeavesNoCopyBehind) {
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
  KLIBSZLIST *list = nullptr;
  EXPECT_EQ(2, KLIBCFileEnumDir(dir.path().c_str(), 0, &list, 0));
  KLIBCSzListFree(list);
}

TEST(FsTest, VolIDParse) {
  struct {
    const char *path;
    int id;
  } cases[] = {
      {"/volume1", 1},  {"/volume1/@maillog", 1}, {"/volume12/a/b", 12}, {"/volume/", -1},
      {"/volumeX/", -1}, {"/volume1x/", -1},      {"/volume0/", -1},     {"volume1/", -1},
      {"", -1},          {"/volume99999999999/", -1},
  };
  for (auto &c : cases) EXPECT_EQ(c.id, KOLTVolIDParse(c.path)) << c.path;
  EXPECT_EQ(-1, KOLTVolIDParse(nullptr));
}

}  // namespace
