#include "kolt/syslog.h"

#include <sys/socket.h>
#include <sys/time.h>
#include <sys/un.h>
#include <syslog.h>
#include <unistd.h>

#include <string>

#include <gtest/gtest.h>

#include "kolt/serial.h"
#include "test_util.h"

namespace {

// Sends through KOLTSyslogSend with a private /dev/log and returns the
// datagrams that arrived, one per line.
std::string Capture(bool *ran) {
  std::string out;
  *ran = RunWithPrivateMounts(
      [] {
        if (mount("tmpfs", "/dev", "tmpfs", 0, "size=64k") != 0) return std::string("no tmpfs");
        int fd = socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0);
        struct sockaddr_un addr = {};
        addr.sun_family = AF_UNIX;
        strcpy(addr.sun_path, "/dev/log");
        if (fd < 0 || bind(fd, reinterpret_cast<struct sockaddr *>(&addr), sizeof(addr)) != 0) return std::string("no socket");
        struct timeval tv = {0, 300000};
        setsockopt(fd, SOL_SOCKET, SO_RCVTIMEO, &tv, sizeof(tv));
        closelog();  // forget a connection the parent may have made

        std::string text;
        text += std::to_string(KOLTSyslogSend(32, LOG_ERR, "wrong category")) + " ";
        text += std::to_string(KOLTSyslogSend(KOLT_SYSLOG_CATEGORY_MAIL, LOG_ERR, nullptr)) + " ";
        text += std::to_string(KOLTSyslogSend(KOLT_SYSLOG_CATEGORY_MAIL, LOG_ERR, "disk %s full")) + " ";
        text += std::to_string(KOLTSyslogSend(0, LOG_INFO, "started")) + "\n";
        char buf[1024];
        ssize_t n;
        while ((n = recv(fd, buf, sizeof(buf), 0)) > 0) text += std::string(buf, n) + "\n";
        return text;
      },
      &out);
  return out;
}

TEST(SyslogTest, LinesCarryTheLevelAndTheTextVerbatim) {
  bool ran;
  std::string out = Capture(&ran);
  if (!ran) GTEST_SKIP() << "cannot make a mount namespace";
  ASSERT_EQ(0u, out.find("-1 -1 0 0\n")) << out;
  size_t first = out.find('\n') + 1;
  size_t second = out.find('\n', first) + 1;
  std::string err = out.substr(first, second - first - 1);
  std::string info = out.substr(second);
  // LOG_USER (8) is the facility when nobody called openlog.
  EXPECT_EQ(0u, err.find("<11>")) << err;
  EXPECT_NE(std::string::npos, err.find(": disk %s full")) << err;
  EXPECT_EQ(0u, info.find("<14>")) << info;
  EXPECT_NE(std::string::npos, info.find(": started\n")) << info;
  EXPECT_EQ(std::string::npos, out.find("wrong category"));
}

TEST(SerialTest, FollowsTheMachineIdAndStaysStable) {
  ScratchDir dir;
  WriteFile(dir / "one", "0123456789abcdef0123456789abcdef\n");
  WriteFile(dir / "two", "fedcba9876543210fedcba9876543210\n");
  WriteFile(dir / "bad", "not an id\n");
  std::string out;
  bool ran = RunWithPrivateMounts(
      [&] {
        std::string text;
        for (const char *name : {"one", "two", "bad"}) {
          char buf[32] = "";
          if (!BindFile(dir / name, "/etc/machine-id")) return std::string("no bind");
          text += std::to_string(KLIBGetSerialNumber(buf, sizeof(buf))) + ":" + buf + " ";
        }
        return text;
      },
      &out);
  if (!ran) GTEST_SKIP() << "cannot make a mount namespace";
  EXPECT_EQ("15:QSV0123456789AB 15:QSVFEDCBA987654 -1: ", out);

  char a[16], b[16];
  ASSERT_EQ(15, KLIBGetSerialNumber(a, sizeof(a)));
  ASSERT_EQ(15, KLIBGetSerialNumber(b, sizeof(b)));
  EXPECT_STREQ(a, b);
  EXPECT_EQ(-1, KLIBGetSerialNumber(b, 15));
}

}  // namespace
