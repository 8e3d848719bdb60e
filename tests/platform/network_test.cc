// The machine's network identity: its Windows workgroup from the Samba settings, the addresses of
// its interfaces, and the address arithmetic of the network settings pages.
#include <sys/stat.h>
#include <unistd.h>

#include <cstdlib>
#include <string>

#include <gtest/gtest.h>

#include "kolt/err.h"
#include "kolt/netif.h"
#include "kolt/workgroup.h"
#include "test_util.h"

namespace {

// The sandbox's /etc is a private overlay, so smb.conf may be replaced freely.
std::string Workgroup(const char *conf) {
  mkdir("/etc/samba", 0755);
  if (conf != nullptr) WriteFile("/etc/samba/smb.conf", conf);
  else unlink("/etc/samba/smb.conf");
  char name[16];
  return KOLTWorkgroupGet(name, sizeof(name)) == 0 ? name : "<failed>";
}

TEST(WorkgroupTest, ReadsTheGlobalSectionOnly) {
  // Samba ignores case and blanks in names.
  EXPECT_EQ(Workgroup("[global]\n   Work Group   =   CORP  \n   server string = x\n"), "CORP");
  EXPECT_EQ(Workgroup("[ global ]\nworkgroup = OLD\nworkgroup = NEW\n"), "NEW");
  EXPECT_EQ(Workgroup("# workgroup = COMMENTED\n[Global]\n; workgroup = OFF\nworkgroup=LAB\n"), "LAB");
  EXPECT_EQ(Workgroup("[homes]\nworkgroup = HOMES\n[global]\nnetbios name = nas\n"), "WORKGROUP");
  EXPECT_EQ(Workgroup("[global]\nworkgroup = FIRST\n[printers]\nworkgroup = PRN\n"), "FIRST");
  EXPECT_EQ(Workgroup("[global]\nworkgroup =\n"), "WORKGROUP");
  EXPECT_EQ(Workgroup(nullptr), "WORKGROUP");
}

// An interface of our own in the sandbox's network namespace, to watch addresses come and go.
TEST(NetIfTest, FirstIPv4AddressOfAnInterfaceAndItsState) {
  KOLTNETIF info;
  ASSERT_EQ(KOLTNetIFGetInfoEx("lo", &info), 0);
  EXPECT_STREQ(info.name, "lo");
  EXPECT_STREQ(info.ip, "127.0.0.1");
  EXPECT_STREQ(info.mask, "255.0.0.0");
  EXPECT_EQ(info.isUp, 1);
  EXPECT_EQ(KOLTNetIFGetInfoEx("nosuch0", &info), -1);
  EXPECT_EQ(KLIBCErrGet(), KLIBC_ERR_NOT_FOUND);

  ASSERT_EQ(system("ip link add qsvtest0 type dummy 2>/dev/null || ip link add qsvtest0 type bridge"), 0);
  EXPECT_EQ(KOLTNetIFGetInfoEx("qsvtest0", &info), -1) << "no address yet";
  ASSERT_EQ(system("ip addr add 192.168.50.10/24 dev qsvtest0"), 0);
  ASSERT_EQ(KOLTNetIFGetInfoEx("qsvtest0", &info), 0);
  EXPECT_STREQ(info.ip, "192.168.50.10");
  EXPECT_STREQ(info.mask, "255.255.255.0");
  EXPECT_EQ(info.isUp, 0);
  // Up, it also gets an IPv6 link-local address, which must not be taken for its address.
  ASSERT_EQ(system("ip link set qsvtest0 up && ip addr add 10.20.0.5/16 dev qsvtest0 && "
                   "ip addr add 172.16.1.1/12 dev qsvtest0 label qsvtest0:QSV"), 0);
  ASSERT_EQ(KOLTNetIFGetInfoEx("qsvtest0", &info), 0);
  EXPECT_STREQ(info.ip, "192.168.50.10");
  EXPECT_EQ(info.isUp, 1);
  ASSERT_EQ(KOLTNetIFGetInfoEx("qsvtest0:QSV", &info), 0);
  EXPECT_STREQ(info.ip, "172.16.1.1");
  EXPECT_STREQ(info.mask, "255.240.0.0");
  system("ip link del qsvtest0");
}

TEST(NetAddressTest, AddressAndMaskValidityAndSameSubnet) {
  struct {
    const char *ip, *mask;
    BOOL valid;
  } masks[] = {
      {"192.168.1.10", "255.255.255.0", TRUE}, {"192.168.1.0", "255.255.255.0", FALSE},
      {"192.168.1.255", "255.255.255.0", FALSE}, {"10.0.0.1", "255.255.255.252", TRUE},
      {"10.0.0.3", "255.255.255.252", FALSE},  {"10.0.0.0", "255.255.255.254", TRUE},
      {"10.0.0.7", "255.255.255.255", TRUE},   {"10.0.0.1", "0.0.0.0", FALSE},
      {"10.0.0.1", "255.0.255.0", FALSE},      {"256.0.0.1", "255.0.0.0", FALSE},
      {"10.0.0.1 ", "255.0.0.0", FALSE},       {"10.0.0.1", "24", FALSE},
      {nullptr, "255.0.0.0", FALSE},           {"10.0.0.1", nullptr, FALSE},
  };
  for (auto &c : masks) {
    EXPECT_EQ(BlKLIBIsValidIpMask(c.ip, c.mask), c.valid) << (c.ip ? c.ip : "null") << " / " << (c.mask ? c.mask : "null");
  }
  struct {
    const char *a, *b, *mask;
    int same;
  } pairs[] = {
      {"192.168.1.10", "192.168.1.200", "255.255.255.0", 1}, {"192.168.1.10", "192.168.2.10", "255.255.255.0", 0},
      {"10.0.0.1", "10.0.0.2", "255.255.255.254", 0},        {"10.0.0.2", "10.0.0.3", "255.255.255.254", 1},
      {"172.16.5.4", "172.31.0.1", "255.240.0.0", 1},        {"172.16.5.4", "172.32.0.1", "255.240.0.0", 0},
      {"10.0.0.1", "10.0.0.2", "255.0.255.0", -1},           {"10.0.0.1", "fe80::1", "255.0.0.0", -1},
      {"10.0.0.1", nullptr, "255.0.0.0", -1},
  };
  for (auto &c : pairs) {
    EXPECT_EQ(KOLTNetIsSameSubnet(c.a, c.b, c.mask), c.same) << c.a << " " << (c.b ? c.b : "null") << " " << c.mask;
  }
}

}  // namespace
