// Network patterns of the relay and access tables, and the name patterns of the regexp maps.
#include <arpa/inet.h>

#include <cstdint>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "foundation/cidr.h"
#include "foundation/map_pattern.h"
#include "harness/syslog_capture.h"

namespace {

// The log messages since `log` began, without their "file:line " prefix.
std::vector<std::string> Messages(qsvtest::SyslogCapture &log) {
  std::vector<std::string> messages;
  for (const auto &line : log.Lines()) messages.push_back(line.message.substr(line.message.find(' ') + 1));
  return messages;
}

TEST(CidrTest, EveryMaskAndItsPrefixGiveOneNetworkWithoutHostBitsInBothFamilies) {
  for (int prefix = 1; prefix <= 32; ++prefix) {
    struct in_addr mask = {htonl(~uint32_t{0} << (32 - prefix))};
    const std::string dotted = inet_ntoa(mask);
    std::string byMask, byPrefix;
    ASSERT_EQ(convertToCIDR("255.255.255.255/" + dotted, byMask), 0) << prefix;
    ASSERT_EQ(convertToCIDR("255.255.255.255/" + std::to_string(prefix), byPrefix), 0) << prefix;
    EXPECT_EQ(byMask, dotted + "/" + std::to_string(prefix));
    EXPECT_EQ(byPrefix, byMask);
  }
  // Host bits are cleared, bare addresses kept.
  std::string cidr;
  ASSERT_EQ(convertToCIDR("192.168.1.77/255.255.255.0", cidr), 0);
  EXPECT_EQ(cidr, "192.168.1.0/24");
  ASSERT_EQ(convertToCIDR("10.200.255.255/13", cidr), 0);
  EXPECT_EQ(cidr, "10.200.0.0/13");
  ASSERT_EQ(convertToCIDR("2001:DB8:0::1", cidr), 0);
  EXPECT_EQ(cidr, "2001:DB8:0::1");
  // IPv6 takes a prefix or a dotted mask.
  ASSERT_EQ(convertToCIDR("2001:db8:abcd:12::1/64", cidr), 0);
  EXPECT_EQ(cidr, "2001:db8:abcd:12::/64");
  ASSERT_EQ(convertToCIDR("2001:db8:abcd:12::1/255.255.255.0", cidr), 0);
  EXPECT_EQ(cidr, "2001:d00::/24");
}

TEST(CidrTest, ZeroAndOversizedPrefixesAreRefusedWithTheirLines) {
  qsvtest::SyslogCapture log;
  std::string cidr = "untouched";
  EXPECT_EQ(convertToCIDR("fe80::1/129", cidr), -1);
  EXPECT_EQ(convertToCIDR("10.0.0.1/0", cidr), -1);
  EXPECT_EQ(convertToCIDR("10.0.0.1/0.0.0.0", cidr), -1);
  EXPECT_EQ(convertToCIDR("10.0.0.1/33", cidr), -1);
  EXPECT_EQ(convertToCIDR("10.0.0.1/255.0.255.0", cidr), -1);
  EXPECT_EQ(convertToCIDR("10.0.0.1/24/8", cidr), -1);
  EXPECT_EQ(convertToCIDR("10.0.0.256/24", cidr), -1);
  EXPECT_EQ(cidr, "untouched");
  EXPECT_EQ(Messages(log), (std::vector<std::string>{
                               "CIDR prefix is too large: 129",
                               "Invalid mask: '0'",
                               "Failed to get cidr prefix for '10.0.0.1/0'",
                               "Invalid mask: '0.0.0.0'",
                               "Failed to get cidr prefix for '10.0.0.1/0.0.0.0'",
                               "CIDR prefix is too large: 33",
                               "Invalid mask: '255.0.255.0'",
                               "Failed to get cidr prefix for '10.0.0.1/255.0.255.0'",
                               "Invalid pattern: '10.0.0.1/24/8'",
                               "Invalid ip for pattern: '10.0.0.256/24'",
                           }));
}

TEST(MapPatternTest, PointsAreLiteralAndStarsStayInsideOnePartOfTheAddress) {
  EXPECT_EQ(ConvertPatternToRegexp("*.mail"), "/^[^@]*\\.mail$/");
  EXPECT_EQ(ConvertPatternToRegexp("*@*.example.com"), "/^[^@]*@[^@]*\\.example\\.com$/");
}

}  // namespace
