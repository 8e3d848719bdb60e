#include "kolt/base64.h"

#include <random>
#include <string>
#include <vector>

#include <gtest/gtest.h>

namespace {

std::string Encode(const std::string &in) {
  std::vector<char> out((in.size() + 2) / 3 * 4 + 1);
  int n = KLIBCBase64SzEncodeFull(in.data(), in.size(), out.data(), out.size());
  return n < 0 ? "<fail>" : std::string(out.data(), n);
}

std::string Decode(const std::string &in) {
  std::vector<char> out(in.size() + 1);
  int n = KLIBCBase64Decode(in.data(), in.size(), out.data(), out.size());
  return n < 0 ? "<fail>" : std::string(out.data(), n);
}

TEST(Base64Test, KnownVectorsAndBinaryRoundTripPlainAndWrapped) {
  const char *pairs[][2] = {{"", ""},         {"f", "Zg=="},         {"fo", "Zm8="},
                            {"foob", "Zm9vYg=="}, {"foobar", "Zm9vYmFy"}, {"\xff\xfe", "//4="}};
  for (auto &p : pairs) {
    EXPECT_EQ(p[1], Encode(p[0]));
    EXPECT_EQ(p[0], Decode(p[1]));
  }
  std::string data(12288, '\0');
  std::mt19937 rng(42);
  for (char &c : data) c = static_cast<char>(rng());
  std::string text = Encode(data), wrapped;
  ASSERT_EQ(16384u, text.size());
  EXPECT_EQ(data, Decode(text));
  for (size_t i = 0; i < text.size(); i += 76) wrapped += text.substr(i, 76) + "\r\n";
  EXPECT_EQ(data, Decode(wrapped));
}

TEST(Base64Test, RefusesBadInputAndSmallBuffers) {
  for (const char *bad : {"Zm9v!", "Zm9vY", "Zg=", "Zm=v", "Z===", "Zm9v====", "Zg==Zg==", "Zm 9v"}) {
    EXPECT_EQ("<fail>", Decode(bad)) << bad;
  }
  char out[9];
  EXPECT_EQ(3, KLIBCBase64Decode("Zm9v", 4, out, 3));
  EXPECT_EQ(-1, KLIBCBase64Decode("Zm9v", 4, out, 2));
  EXPECT_EQ(8, KLIBCBase64SzEncodeFull("foobar", 6, out, 9));
  EXPECT_EQ(-1, KLIBCBase64SzEncodeFull("foobar", 6, out, 8));
}

}  // namespace
