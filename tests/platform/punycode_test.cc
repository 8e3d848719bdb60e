#include "eai/punycode.h"

#include <string>

#include <gtest/gtest.h>

namespace {

using KOLT::QUILLON_SERVER::ConvertToPunycode;
using KOLT::QUILLON_SERVER::ConvertToPunycodeOrUTF8;
using KOLT::QUILLON_SERVER::ConvertToUTF8;

std::string Ascii(const std::string &in) {
  std::string out = "<untouched>";
  return ConvertToPunycode(in, out) == 0 ? out : "<fail>" + out;
}

std::string Unicode(const std::string &in) {
  std::string out = "<untouched>";
  return ConvertToUTF8(in, out) == 0 ? out : "<fail>" + out;
}

TEST(PunycodeTest, DomainsAndTheDomainOfAnAddressRoundTrip) {
  const char *pairs[][2] = {
      {"bücher.example", "xn--bcher-kva.example"}, {"例子.广告", "xn--fsqu00a.xn--4rr70v"},
      {"mail.bücher.example.", "mail.xn--bcher-kva.example."}, {"*.bücher.example", "*.xn--bcher-kva.example"},
      {".bücher.example", ".xn--bcher-kva.example"}, {"用户@例子.广告", "用户@xn--fsqu00a.xn--4rr70v"},
      {"faß.de", "xn--fa-hia.de"},  // IDNA2008 keeps the sharp s
      {"\xe2\x98\x83.com", "xn--n3h.com"},  // symbols only the older rules admit still convert
  };
  for (auto &p : pairs) {
    EXPECT_EQ(p[1], Ascii(p[0]));
    EXPECT_EQ(p[0], Unicode(p[1]));
  }
  EXPECT_EQ("xn--bcher-kva.example", Ascii("Bücher.EXAMPLE"));
  EXPECT_EQ("bücher.example", Unicode("XN--BCHER-KVA.Example"));
}

TEST(PunycodeTest, OnlyTheDomainConvertsPlainTextStaysAndBadInputFails) {
  EXPECT_EQ("Xn--Local@bücher.example", Unicode("Xn--Local@xn--bcher-kva.example"));
  EXPECT_EQ("\"a@b\"@xn--bcher-kva.example", Ascii("\"a@b\"@bücher.example"));
  EXPECT_EQ("user@mail.example.com", Ascii("user@Mail.Example.COM"));
  EXPECT_EQ("user@Mail.Example.COM", Unicode("user@Mail.Example.COM"));
  for (const char *plain : {"", "_dmarc.example", "*", "a..b"}) {
    EXPECT_EQ(plain, Ascii(plain));
    EXPECT_EQ(plain, Unicode(plain));
  }
  // An embedded NUL would cut the domain short.
  for (const std::string &bad : {std::string("bü\0cher.de", 11), std::string("a\xff.com"),
                                 std::string("ab--cü.de"), std::string("user@-bü.de")}) {
    EXPECT_EQ("<fail><untouched>", Ascii(bad)) << bad;
  }
  for (const char *bad : {"xn--zz.example", "xn--a.com", "xn--99999999999.com"}) {
    EXPECT_EQ("<fail><untouched>", Unicode(bad)) << bad;
  }
}

TEST(PunycodeTest, EitherWayPicksTheOtherSpelling) {
  std::string out = "<untouched>";
  EXPECT_TRUE(ConvertToPunycodeOrUTF8("bücher.example", out));
  EXPECT_EQ("xn--bcher-kva.example", out);
  EXPECT_TRUE(ConvertToPunycodeOrUTF8("user@xn--bcher-kva.example", out));
  EXPECT_EQ("user@bücher.example", out);

  out = "<untouched>";
  EXPECT_FALSE(ConvertToPunycodeOrUTF8("mail.example.com", out));
  EXPECT_FALSE(ConvertToPunycodeOrUTF8("用户@example.com", out));  // nothing to convert
  EXPECT_FALSE(ConvertToPunycodeOrUTF8("xn--zz.example", out));
  EXPECT_EQ("<untouched>", out);
}

}  // namespace
