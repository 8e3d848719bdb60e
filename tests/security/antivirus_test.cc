// The virus scanner's signature sets, status file and pattern count, on real files.
#include <sys/stat.h>
#include <unistd.h>

#include <fstream>
#include <string>

#include <gtest/gtest.h>

#include "harness/recording_script.h"
#include "harness/syslog_capture.h"
#include "security/antivirus.h"

namespace {

const std::string kLive = "/var/packages/Quillon-Server/target/share/clamav";
const std::string kExtra = kLive + "/extrasigs";
const char kStatus[] = "/tmp/QuillonServer.antivirus.status";

bool Exists(const std::string &path) { return access(path.c_str(), F_OK) == 0; }

TEST(AntiVirusTest, ExtraSetsMoveInAndOutAndTheirLinesCount) {
  mkdir("/var/packages/Quillon-Server/target/share", 0755);
  mkdir(kLive.c_str(), 0755);
  EXPECT_EQ(AntiVirus::ExtraDBLoad(), -1);  // nothing anywhere
  EXPECT_EQ(AntiVirus::AllDBPatternNumGet(), 0);
  EXPECT_EQ(AntiVirus::ExtraDBUnload(), 0);  // nothing to move out
  mkdir(kExtra.c_str(), 0755);
  std::ofstream(kExtra + "/local.hdb") << "aa:1:Sig.A\nbb:2:Sig.B\n";
  std::ofstream(kExtra + "/local.ndb") << "Sig.C:0:*:414243\n";
  std::ofstream(kExtra + "/notes.txt") << "not a signature file\n";

  ASSERT_EQ(AntiVirus::ExtraDBLoad(), 0);
  EXPECT_TRUE(Exists(kLive + "/local.hdb") && Exists(kLive + "/local.ndb"));
  EXPECT_TRUE(Exists(kExtra + "/notes.txt"));
  EXPECT_EQ(AntiVirus::AllDBPatternNumGet(), 3);
  // Loaded already: the set counts as there, whatever the other folder holds.
  std::ofstream(kExtra + "/late.hdb") << "cc:3:Sig.D\n";
  EXPECT_EQ(AntiVirus::ExtraDBLoad(), 0);
  EXPECT_TRUE(Exists(kExtra + "/late.hdb"));

  ASSERT_EQ(AntiVirus::ExtraDBUnload(), 0);
  EXPECT_FALSE(Exists(kLive + "/local.hdb"));
  EXPECT_TRUE(Exists(kExtra + "/local.hdb") && Exists(kExtra + "/late.hdb"));
  EXPECT_EQ(AntiVirus::AllDBPatternNumGet(), 0);
  EXPECT_EQ(AntiVirus::SafeBrowsingDBLoad(), -1);
}

TEST(AntiVirusTest, StatusFilePairsAndRestState) {
  unlink(kStatus);
  ANTI_VIRUS_STATUS status = 0;
  ASSERT_EQ(AntiVirus::AntiVirusStatusGet(status), 0);
  EXPECT_EQ(status, 1);
  ASSERT_EQ(AntiVirus::AntiVirusStatusSet(4), 0);
  std::ifstream in(kStatus);
  std::string text((std::istreambuf_iterator<char>(in)), std::istreambuf_iterator<char>());
  EXPECT_EQ(text, "{\"status\":4}\n");
  ASSERT_EQ(AntiVirus::AntiVirusStatusGet(status), 0);
  EXPECT_EQ(status, 4);
  EXPECT_EQ(AntiVirus::AntiVirusStatusClear(3), 0);  // 3 doesn't end 4
  EXPECT_TRUE(Exists(kStatus));
  EXPECT_EQ(AntiVirus::AntiVirusStatusClear(2), 0);
  EXPECT_FALSE(Exists(kStatus));

  std::ofstream(kStatus) << "{\"status\":9}";
  ASSERT_EQ(AntiVirus::AntiVirusStatusGet(status), 0);
  EXPECT_EQ(status, 1);
  std::ofstream(kStatus, std::ios::trunc) << "{\"status\":";
  EXPECT_EQ(AntiVirus::AntiVirusStatusGet(status), -1);

  // A link planted under the status file's name is replaced, never written through.
  unlink(kStatus);
  std::ofstream("/tmp/victim") << "keep me\n";
  ASSERT_EQ(symlink("/tmp/victim", kStatus), 0);
  ASSERT_EQ(AntiVirus::AntiVirusStatusSet(3), 0);
  std::ifstream victim("/tmp/victim");
  std::string kept((std::istreambuf_iterator<char>(victim)), std::istreambuf_iterator<char>());
  EXPECT_EQ(kept, "keep me\n");
  ASSERT_EQ(AntiVirus::AntiVirusStatusGet(status), 0);
  EXPECT_EQ(status, 3);
}

TEST(AntiVirusTest, NoDaemonNoReloadAndEngineNumbers) {
  mkdir("/var/packages/Quillon-Server/target/bin", 0755);
  qsvtest::RecordingScript clamdscan("/var/packages/Quillon-Server/target/bin/clamdscan", 0);
  qsvtest::SyslogCapture log;
  EXPECT_EQ(AntiVirus::ReloadClamd(), 0);
  EXPECT_TRUE(clamdscan.Calls().empty());
  EXPECT_FALSE(log.Matching("clamd does not exist").empty());
  EXPECT_EQ(AntiVirus::GetAntiVirusEngine("clamav"), 0);
  EXPECT_EQ(AntiVirus::GetAntiVirusEngine("koltav-mcafee"), 1);
  EXPECT_EQ(AntiVirus::GetAntiVirusEngine("ClamAV"), 2);
}

}  // namespace
