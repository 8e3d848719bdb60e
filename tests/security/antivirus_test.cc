// The virus scanner's signature sets, status file and pattern count, on real files.
#include <sys/stat.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <string>

#include <gtest/gtest.h>

#include "harness/recording_script.h"
#include "harness/syslog_capture.h"
#include "config/mailscanner.h"
#include "security/antivirus.h"

namespace {

const std::string kLive = "/var/packages/Quillon-Server/target/share/clamav";
const std::string kExtra = kLive + "/extrasigs";
const char kStatus[] = "/tmp/QuillonServer.antivirus.status";
const char kClamdscan[] = "/var/packages/Quillon-Server/target/bin/clamdscan";

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
  // The package's own clamdscan steps aside for the recording one, and comes back for the tests
  // that drive the real daemon.
  rename(kClamdscan, (std::string(kClamdscan) + ".real").c_str());
  {
    qsvtest::RecordingScript clamdscan(kClamdscan, 0);
    qsvtest::SyslogCapture log;
    EXPECT_EQ(AntiVirus::ReloadClamd(), 0);
    EXPECT_TRUE(clamdscan.Calls().empty());
    EXPECT_FALSE(log.Matching("clamd does not exist").empty());
  }
  rename((std::string(kClamdscan) + ".real").c_str(), kClamdscan);
  EXPECT_EQ(AntiVirus::GetAntiVirusEngine("clamav"), 0);
  EXPECT_EQ(AntiVirus::GetAntiVirusEngine("koltav-mcafee"), 1);
  EXPECT_EQ(AntiVirus::GetAntiVirusEngine("ClamAV"), 2);
}

// What the package's clamdscan says of `path`: its line without the summary.
std::string Scan(const std::string &path) {
  const std::string command = std::string(kClamdscan) + " --no-summary " + path + " 2>&1";
  std::string out;
  FILE *pipe = popen(command.c_str(), "r");
  char line[512];
  while (pipe != nullptr && fgets(line, sizeof(line), pipe) != nullptr) out += line;
  if (pipe != nullptr) pclose(pipe);
  return out;
}

bool Contains(const std::string &text, const char *piece) {
  return text.find(piece) != std::string::npos;
}

// A packed database's header as the signature tool reads it: its fields, padded to 512 bytes.
void WritePackedHeader(const std::string &path, int signatures) {
  std::string header = "ClamAV-VDB:23 Nov 2026 07-03 +0000:1:" + std::to_string(signatures) +
                       ":90:d41d8cd98f00b204e9800998ecf8427e:X:qsvtest:1795417431";
  header.resize(512, ' ');
  std::ofstream(path) << header;
}

// The real daemon, started by the library from an empty store (whose engine is ClamAV) with only
// a rule of the test's own as its database: a file it doesn't know scans clean until the extra
// set that names it is loaded and the daemon reloaded.
TEST(AntiVirusTest, RealClamdFindsTheFileOnceTheExtraSetIsLoaded) {
  mkdir("/var/packages/Quillon-Server/target/share", 0755);
  mkdir(kLive.c_str(), 0755);
  mkdir(kExtra.c_str(), 0755);
  // What earlier tests left in either folder is no valid signature.
  system(("rm -f " + kLive + "/*.* " + kExtra + "/*").c_str());
  std::ofstream(kLive + "/qsvbase.yar")
      << "rule QsvBaseMarker\n{\n  strings:\n    $a = \"QSV_BASE_MARKER\"\n  condition:\n"
         "    $a\n}\n";
  // "QSV_EXTRA_MARKER" in hexadecimal, anywhere in a file of any type.
  std::ofstream(kExtra + "/qsvextra.ndb")
      << "QsvTest.Extra.Marker:0:*:5153565f45585452415f4d41524b4552\n";
  std::ofstream(kExtra + "/qsvextra.hdb") << "00112233445566778899aabbccddeeff:12:QsvTest.Hash\n";
  const std::string sample = "/tmp/qsv-av-sample.txt";
  std::ofstream(sample) << "a letter with QSV_EXTRA_MARKER inside\n";
  chmod(sample.c_str(), 0644);

  ASSERT_EQ(MailScanner::AntiVirusService("start"), 0);
  EXPECT_EQ(system("/var/packages/Quillon-Server/target/scripts/daemon/clamav.sh status"), 0);
  EXPECT_TRUE(Contains(Scan(sample), ": OK")) << Scan(sample);

  ASSERT_EQ(AntiVirus::ExtraDBLoad(), 0);
  ASSERT_EQ(AntiVirus::ReloadClamd(), 0);
  // The daemon loads the new set beside the old one and swaps them when it is ready.
  std::string verdict;
  for (int i = 0; i < 300 && !Contains(verdict, "FOUND"); ++i) {
    verdict = Scan(sample);
    if (!Contains(verdict, "FOUND")) usleep(100 * 1000);
  }
  EXPECT_TRUE(Contains(verdict, "QsvTest.Extra.Marker")) << verdict;
  EXPECT_EQ(AntiVirus::AllDBPatternNumGet(), 2);  // a line each; rules of other kinds don't count

  ASSERT_EQ(MailScanner::AntiVirusService("stop"), 0);
  EXPECT_NE(system("/var/packages/Quillon-Server/target/scripts/daemon/clamav.sh status"), 0);
  // Packed databases count what the signature tool reads from their headers.
  WritePackedHeader(kLive + "/qsvpacked.cld", 7);
  EXPECT_EQ(AntiVirus::AllDBPatternNumGet(), 9);
  EXPECT_EQ(AntiVirus::ReloadClamd(), 0);  // no daemon: nothing to reload
  for (const char *name : {"/qsvpacked.cld", "/qsvbase.yar"}) unlink((kLive + name).c_str());
  EXPECT_EQ(AntiVirus::ExtraDBUnload(), 0);
}

}  // namespace
