// The file buffer on its own, against a real memcached: what a receiver does with the directories
// above a file, which the three-node test only sees when all goes well.
#include <sys/stat.h>
#include <unistd.h>

#include <json/json.h>
#include <gtest/gtest.h>

#include <sstream>

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

// The buffer takes writes from anyone: what a receiver lands is what the sender's digest says, a
// link planted beside the target is never written through, and set-id bits never travel.
TEST_F(FileBufferTest, OnlyTheSendersBytesLandAndNothingElseIsWrittenThrough) {
  std::string digest;
  ASSERT_TRUE(buffer_.setFileContentToBuffer("k", kRoot + "/source", &digest));
  EXPECT_EQ(digest, "d4e4877bac978b7952f0d544fc52ebff5411d351d129f1f056fa43f11da9af2b");  // sha256sum of "payload\n"
  const std::string target = kRoot + "/landed";
  const std::map<std::string, FilePathInfo> info = {{target, File(04755, 0)}};
  const std::string victim = kRoot + "/victim";
  qsvtest::WriteFile(victim, "untouched\n");
  ASSERT_EQ(symlink(victim.c_str(), (target + ".tmp").c_str()), 0);

  qsvtest::SyslogCapture log;
  EXPECT_TRUE(qsvtest::TcpExchange(8502, "set k 0 0 8\r\nZXZpbAo=\r\n").find("STORED") == 0);
  EXPECT_FALSE(buffer_.dumpFileContentFromBuffer("k", target, info, digest));
  EXPECT_TRUE(buffer_.contentRefused());
  EXPECT_EQ(log.Matching("Refused the content of key[k]").size(), 1u);
  EXPECT_NE(access(target.c_str(), F_OK), 0);

  ASSERT_TRUE(buffer_.setFileContentToBuffer("k", kRoot + "/source"));
  ASSERT_TRUE(buffer_.dumpFileContentFromBuffer("k", target, info, digest));
  EXPECT_FALSE(buffer_.contentRefused());
  EXPECT_EQ(qsvtest::ReadFile(target), "payload\n");
  EXPECT_EQ(qsvtest::ReadFile(victim), "untouched\n");
  struct stat st;
  ASSERT_EQ(stat(target.c_str(), &st), 0);
  EXPECT_EQ(st.st_mode & 07777, 0755u);
}

// Records may come from writers that type members otherwise: they are read by conversion, so a
// delete marked 1 is a delete, and only what can't be converted refuses the record.
TEST(FileKeyValTest, MembersAreReadByConversion) {
  Json::Value json;
  std::istringstream(
      R"({"senderID":"n1","srcFilePath":"/a","dstFilePath":"/a","timestamp":17,)"
      R"("fileContentKey":"c","taskQueueKey":"t","randNum":2,"pathInfo":{},"isDelete":1})") >> json;
  KOLT::QUILLON_SERVER::FileKeyVal record;
  ASSERT_TRUE(record.fromJson(json));
  EXPECT_EQ(record.timestamp, "17");
  EXPECT_TRUE(record.isDelete);
  json["isDelete"] = 0;
  ASSERT_TRUE(record.fromJson(json));
  EXPECT_FALSE(record.isDelete);
  json["timestamp"] = Json::Value(Json::objectValue);
  EXPECT_FALSE(record.fromJson(json));
}

}  // namespace
