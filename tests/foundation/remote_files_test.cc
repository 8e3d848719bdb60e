// Files copied to and from a peer by the real rsync over the real ssh: the peer is an sshd of the
// test's own on 127.0.0.1:2222 (its own host key, config and authorized key), reached through the
// package's ssh with a key folder made as the cluster makes one; the daemon check runs against a
// real rsync daemon on 873.
#include <sys/stat.h>
#include <sys/time.h>
#include <unistd.h>

#include <ctime>
#include <memory>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "companions/program_run.h"
#include "foundation/rsa_keys.h"
#include "foundation/rsync.h"
#include "harness/recording_script.h"
#include "harness/run_as.h"
#include "harness/servers.h"
#include "harness/syslog_capture.h"

namespace {

using qsvtest::ReadFile;
using qsvtest::RunProgram;
using qsvtest::WriteFile;

const char kRun[] = "/run/qsv-peer";
const char kHome[] = "/tmp/qsvpeer-home";
const char kKeys[] = "/var/packages/Quillon-Server/etc/ssh/peer1";
const char kInBox[] = "/tmp/qsvpeer-home/in box";

void Must(const std::vector<std::string> &argv) {
  const qsvtest::ProgramRun run = RunProgram(argv);
  ASSERT_EQ(run.status, 0) << argv[0] << " " << argv[1] << ": " << run.err;
}

class RemoteFilesTest : public testing::Test {
 protected:
  static void SetUpTestSuite() {
    // The share step makes the package's key folder (root's alone) and its known_hosts.
    ASSERT_EQ(prepareQuillonShareEnv("/volume1/share"), 0);
    Must({"/usr/sbin/useradd", "-M", "-d", kHome, "-p", "*", "-s", "/bin/sh", "qsvpeer"});
    Must({"/usr/bin/install", "-d", "-o", "qsvpeer", "-m", "0755", kHome, kInBox});
    Must({"/usr/bin/install", "-d", "-m", "0755", kRun, std::string(kRun) + "/keys", "/run/sshd"});
    Must({"/usr/bin/ssh-keygen", "-q", "-t", "ed25519", "-N", "", "-f",
          std::string(kRun) + "/host_key"});
    ASSERT_EQ(mkdir(kKeys, 0700), 0);
    ASSERT_EQ(GenerateRSAPrivateKey((std::string(kKeys) + "/id_rsa").c_str(), 2048), 0);
    WriteFile(std::string(kKeys) + "/port", "2222\n");
    const qsvtest::ProgramRun pub =
        RunProgram({"/usr/bin/ssh-keygen", "-y", "-f", std::string(kKeys) + "/id_rsa"});
    WriteFile(std::string(kRun) + "/keys/qsvpeer", pub.out);
    WriteFile("/var/packages/Quillon-Server/etc/ssh/known_hosts",
              "[127.0.0.1]:2222 " + ReadFile(std::string(kRun) + "/host_key.pub"), 0600);
    const std::string config = std::string(kRun) + "/sshd_config";
    WriteFile(config, "Port 2222\nListenAddress 127.0.0.1\nHostKey " + std::string(kRun) +
                          "/host_key\nAuthorizedKeysFile " + kRun +
                          "/keys/%u\nPasswordAuthentication no\nKbdInteractiveAuthentication no\n"
                          "UsePAM no\nPidFile none\nStrictModes yes\n");
    sshd_ = qsvtest::ServerProcess::Greeter({"/usr/sbin/sshd", "-D", "-f", config}, 2222, "SSH-2.0")
                .release();
  }
  static void TearDownTestSuite() { delete sshd_; }

  static qsvtest::ServerProcess *sshd_;
};

qsvtest::ServerProcess *RemoteFilesTest::sshd_ = nullptr;

time_t LocalTime(int year, int month, int day, int hour, int minute, int second) {
  struct tm tm = {};
  tm.tm_year = year - 1900;
  tm.tm_mon = month - 1;
  tm.tm_mday = day;
  tm.tm_hour = hour;
  tm.tm_min = minute;
  tm.tm_sec = second;
  tm.tm_isdst = -1;
  return mktime(&tm);
}

TEST_F(RemoteFilesTest, CopiesBothWaysAndReadsListingsOfThePeer) {
  std::string report;
  for (int i = 0; report.size() < 1234567; ++i) report += "line " + std::to_string(i) + "\n";
  report.resize(1234567);
  WriteFile("/tmp/qsv-local/report 2024.txt", report);
  const std::string remote = std::string(kInBox) + "/report 2024.txt";
  ASSERT_EQ(RsyncPushFile("qsvpeer", "127.0.0.1", remote, "/tmp/qsv-local/report 2024.txt", kKeys), 0);
  EXPECT_EQ(ReadFile(remote), report);
  struct stat st;
  ASSERT_EQ(stat(remote.c_str(), &st), 0);
  EXPECT_EQ(st.st_uid, qsvtest::UidOf("qsvpeer"));

  ASSERT_EQ(mkdir("/tmp/qsv-local/back", 0755), 0);
  ASSERT_EQ(RsyncGetFile("qsvpeer", "127.0.0.1", remote, "/tmp/qsv-local/back/", kKeys), 0);
  EXPECT_EQ(ReadFile("/tmp/qsv-local/back/report 2024.txt"), report);

  EXPECT_EQ(RsyncStat("qsvpeer", "127.0.0.1", remote, kKeys), 0);
  EXPECT_EQ(RsyncStat("qsvpeer", "127.0.0.1", std::string(kInBox) + "/gone", kKeys), 23);

  // Names with blanks before and inside them, a line break, a folder below, a time to read back.
  WriteFile(std::string(kInBox) + "/ leading blank", "x");
  WriteFile(std::string(kInBox) + "/line\nbreak", "");
  WriteFile(std::string(kInBox) + "/skip.tmp", "tmp");
  WriteFile(std::string(kInBox) + "/sub/deep.txt", "deep");
  const time_t when = LocalTime(2021, 3, 4, 5, 6, 7);
  const struct timeval times[2] = {{when, 0}, {when, 0}};
  ASSERT_EQ(utimes(remote.c_str(), times), 0);

  std::vector<RsyncListEntry> entries;
  ASSERT_EQ(RsyncListFolder("qsvpeer", "127.0.0.1", kInBox, kKeys, 0, "", entries), 5);
  std::vector<std::string> names;
  for (const RsyncListEntry &e : entries) names.push_back(e.name);
  EXPECT_EQ(names, (std::vector<std::string>{" leading blank", "line\nbreak", "report 2024.txt",
                                             "skip.tmp", "sub"}));
  EXPECT_EQ(entries[2].size, 1234567);
  EXPECT_EQ(entries[2].mtime, when);
  EXPECT_EQ(entries[2].mode, "-rw-r--r--");
  EXPECT_TRUE(entries[4].isDirectory());

  ASSERT_EQ(RsyncListFolder("qsvpeer", "127.0.0.1", std::string(kInBox) + "/", kKeys, 1, "*.tmp",
                            entries), 5);
  names.clear();
  for (const RsyncListEntry &e : entries) names.push_back(e.name);
  EXPECT_EQ(names, (std::vector<std::string>{" leading blank", "line\nbreak", "report 2024.txt",
                                             "sub", "sub/deep.txt"}));
  EXPECT_EQ(RsyncListFolder("qsvpeer", "127.0.0.1", "/tmp/none", kKeys, 0, "", entries), -1);
}

TEST_F(RemoteFilesTest, RefusesWordsThatWouldBeOptionsOrLeadElsewhere) {
  WriteFile("/tmp/qsv-local/plain", "plain");
  std::vector<RsyncListEntry> entries;
  // The lines of the copies before may still be on their way to the log; wait for them first.
  qsvtest::SyslogCapture().Lines();
  qsvtest::SyslogCapture log;
  const std::string proxy = "-oProxyCommand=touch /tmp/qsv-pwned";
  EXPECT_EQ(RsyncPushFile(proxy, "127.0.0.1", kHome, "/tmp/qsv-local/plain", kKeys), -1);
  EXPECT_EQ(RsyncPushFile("qsvpeer", proxy, kHome, "/tmp/qsv-local/plain", kKeys), -1);
  EXPECT_EQ(RsyncPushFile("qsvpeer", "127.0.0.1 -x", kHome, "/tmp/qsv-local/plain", kKeys), -1);
  EXPECT_EQ(RsyncGetFile("qsvpeer", "127.0.0.1", "--rsh=sh", "/tmp/qsv-local/x", kKeys), -1);
  EXPECT_EQ(RsyncGetFile("qsvpeer", "127.0.0.1", ":module", "/tmp/qsv-local/x", kKeys), -1);
  EXPECT_EQ(RsyncGetFile("qsvpeer", "127.0.0.1", "a\nb", "/tmp/qsv-local/x", kKeys), -1);
  EXPECT_EQ(RsyncGetFile("qsvpeer", "127.0.0.1", kHome, "-rf", kKeys), -1);
  EXPECT_EQ(RsyncGetFile("qsvpeer", "127.0.0.1", kHome, "host:path", kKeys), -1);
  EXPECT_EQ(RsyncStat("qsvpeer", "127.0.0.1", kHome, "/root/.ssh"), -1);
  EXPECT_EQ(RsyncStat("qsvpeer", "127.0.0.1", kHome, std::string(kKeys) + "\" -oProxyCommand=x"), -1);
  EXPECT_EQ(RsyncListFolder("qsvpeer", "127.0.0.1", kHome, kKeys, 0, "a\rb", entries), -1);
  EXPECT_EQ(RsyncServiceCheck("-oProxyCommand=x"), -1);
  EXPECT_EQ(prepareQuillonShareEnv("-rf"), -1);
  EXPECT_EQ(log.Matching(" refuse ").size(), 13u);
  EXPECT_TRUE(log.Matching("gave").empty());
  EXPECT_NE(access("/tmp/qsv-pwned", F_OK), 0);

  // The package's ssh itself: a folder that leads out of the key folder through a link, one that
  // others may change, and a host whose key the package doesn't know are all refused.
  ASSERT_EQ(mkdir("/tmp/qsv-stolen", 0700), 0);
  Must({"/bin/cp", "-a", std::string(kKeys) + "/id_rsa", std::string(kKeys) + "/port", "/tmp/qsv-stolen/"});
  ASSERT_EQ(symlink("/tmp/qsv-stolen", "/var/packages/Quillon-Server/etc/ssh/stolen"), 0);
  EXPECT_NE(RsyncStat("qsvpeer", "127.0.0.1", kHome, "/var/packages/Quillon-Server/etc/ssh/stolen"), 0);
  Must({"/bin/cp", "-a", kKeys, "/var/packages/Quillon-Server/etc/ssh/open"});
  ASSERT_EQ(chmod("/var/packages/Quillon-Server/etc/ssh/open", 0777), 0);
  EXPECT_NE(RsyncStat("qsvpeer", "127.0.0.1", kHome, "/var/packages/Quillon-Server/etc/ssh/open"), 0);
  EXPECT_NE(RsyncStat("qsvpeer", "localhost", kHome, kKeys), 0);
  EXPECT_EQ(log.Matching("is not a folder below /var/packages/Quillon-Server/etc/ssh").size(), 1u);
  EXPECT_EQ(log.Matching("may be changed by others than root").size(), 1u);
}

TEST_F(RemoteFilesTest, ServiceCheckAnswersOnlyWhereAnRsyncDaemonListens) {
  WriteFile(std::string(kRun) + "/rsyncd.conf",
            "use chroot = no\n[share]\npath = /volume1/share\nread only = yes\n");
  auto daemon = qsvtest::ServerProcess::Greeter(
      {"/bin/rsync", "--daemon", "--no-detach", "--config=" + std::string(kRun) + "/rsyncd.conf",
       "--address=127.0.0.1", "--port=873"},
      873, "@RSYNCD:");
  EXPECT_EQ(RsyncServiceCheck("127.0.0.1"), 0);
  daemon->Stop();
  EXPECT_NE(RsyncServiceCheck("127.0.0.1"), 0);
}

TEST_F(RemoteFilesTest, ShareFolderIsMadeOnlyOnAVolumeUnderFoldersOfRootsAlone) {
  // Made by the suite's set-up: the folder for the package group, the key folder for root alone.
  struct stat st;
  ASSERT_EQ(stat("/volume1/share", &st), 0);
  EXPECT_EQ(st.st_mode & 07777, 0770u);
  EXPECT_EQ(st.st_gid, qsvtest::GidOf("Quillon-Server"));
  ASSERT_EQ(stat("/var/packages/Quillon-Server/etc/ssh", &st), 0);
  EXPECT_EQ(st.st_mode & 07777, 0700u);
  EXPECT_EQ(prepareQuillonShareEnv("/volume1/share"), 0);

  Must({"/usr/bin/install", "-d", "-o", "qsvpeer", "/volume1/users"});
  for (const char *path : {"/etc/qsv-share", "/volume1/../etc/qsv-share", "/volume1",
                           "/volume1/@appstore/Quillon-Server/share", "/volume1/users/share"}) {
    EXPECT_EQ(prepareQuillonShareEnv(path), 1) << path;
  }
  EXPECT_NE(access("/etc/qsv-share", F_OK), 0);
  EXPECT_NE(access("/volume1/users/share", F_OK), 0);
}

}  // namespace
