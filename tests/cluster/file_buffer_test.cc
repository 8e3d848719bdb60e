// The file buffer on its own, against a real memcached: what a receiver does with the directories
// above a file, which the three-node test only sees when all goes well.
#include <sys/stat.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include "cluster/KvfileBuffer.h"
#include "harness/recording_script.h"
#include "harness/servers.h"
#include "harness/syslog_capture.h"

namespace {

using KOLT::QUILLON_SERVER::FileBuffer;
using KOLT::QUILLON_SERVER::FilePathInfo;

const std::string kRoot = "/var/spool/mail/buffer_test";

class FileBufferTest : public ::testing::Test {
 protected:
  static void SetUpTestSuite() { memcached_ = qsvtest::ServerProcess::Memcached(8502).release(); }
  static void TearDownTestSuite() { delete memcached_; }
  void SetUp() override {
    qsvtest::WriteFile(kRoot + "/source", "payload\n");
    ASSERT_TRUE(buffer_.setFileContentToBuffer("k", kRoot + "/source"));
  }
  static FilePathInfo Dir(mode_t mode, uid_t uid) { return {S_IFDIR | mode, uid, 0, true}; }
  static FilePathInfo File(mode_t mode, uid_t uid) { return {S_IFREG | mode, uid, 0, false}; }

  FileBuffer buffer_{"127.0.0.1", 8502};
  static qsvtest::ServerProcess *memcached_;
};

qsvtest::ServerProcess *FileBufferTest::memcached_;

TEST_F(FileBufferTest, MissingDirectoriesAreMadeAsRecordedAndExistingOnesLeftAlone) {
  chmod(kRoot.c_str(), 0711);
  const std::string target = kRoot + "/made/file";
  ASSERT_TRUE(buffer_.dumpFileContentFromBuffer(
      "k", target,
      {{kRoot, Dir(0700, 0)}, {kRoot + "/made", Dir(0750, 65534)}, {target, File(0604, 65534)}}));
  struct stat st;
  ASSERT_EQ(stat(kRoot.c_str(), &st), 0);
  EXPECT_EQ(st.st_mode & 07777, 0711u) << "an existing directory keeps its mode";
  ASSERT_EQ(stat((kRoot + "/made").c_str(), &st), 0);
  EXPECT_EQ(st.st_mode & 07777, 0750u);
  EXPECT_EQ(st.st_uid, 65534u);
  ASSERT_EQ(stat(target.c_str(), &st), 0);
  EXPECT_EQ(st.st_mode & 07777, 0604u);
  EXPECT_EQ(qsvtest::ReadFile(target), "payload\n");
  EXPECT_FALSE(access((target + ".tmp").c_str(), F_OK) == 0);
}

TEST_F(FileBufferTest, UnrecordedOrLinkedDirectoriesAreNotMade) {
  qsvtest::SyslogCapture log;
  EXPECT_FALSE(buffer_.dumpFileContentFromBuffer("k", kRoot + "/nowhere/file", {}));
  EXPECT_EQ(log.Matching("Cannot find path " + kRoot + "/nowhere in map").size(), 1u);
  EXPECT_FALSE(buffer_.dumpFileContentFromBuffer(
      "k", kRoot + "/link/file", {{kRoot + "/link", {S_IFLNK | 0777, 0, 0, true}}}));
  EXPECT_EQ(log.Matching("is link so we would not auto create").size(), 1u);
  EXPECT_NE(access((kRoot + "/link").c_str(), F_OK), 0);
}

TEST_F(FileBufferTest, AbsentContentIsAFailureToFetchButNotToRemove) {
  EXPECT_TRUE(buffer_.removeFileContentFromBuffer("k"));
  EXPECT_FALSE(buffer_.checkBufferKeyExist("k"));
  EXPECT_TRUE(buffer_.removeFileContentFromBuffer("k"));
  EXPECT_FALSE(buffer_.dumpFileContentFromBuffer("k", kRoot + "/source", {}));
  EXPECT_EQ(qsvtest::ReadFile(kRoot + "/source"), "payload\n");
}

}  // namespace
