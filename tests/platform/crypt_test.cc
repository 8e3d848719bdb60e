// The text cipher against the real machine key file: round trips, changed texts, a key from
// elsewhere, the package user, and first use racing in several processes.
#include "kolt/crypt.h"

#include <dirent.h>
#include <fcntl.h>
#include <grp.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstring>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "harness/run_as.h"
#include "test_util.h"

namespace {

const char kKeyFile[] = "/usr/kolt/etc/crypt.key";
const std::string kAlphabet =
    "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789+/=";

bool Encrypt(const std::string &plain, std::string &cipher) {
  char out[345];
  if (!KLIBCCryptSzEncrypt(plain.c_str(), out, sizeof(out))) return false;
  cipher = out;
  return true;
}

bool Decrypt(const std::string &cipher, std::string &plain) {
  char out[256];
  if (!KLIBCCryptSzDecrypt(cipher.c_str(), out, sizeof(out))) return false;
  plain = out;
  return true;
}

TEST(CryptTest, RoundTripsUpTo200BytesWithinTheStoredLength) {
  for (size_t length = 0; length <= 200; ++length) {
    std::string plain;
    for (size_t i = 0; i < length; ++i) plain += static_cast<char>(1 + (i * 37 + length) % 255);
    std::string cipher, back;
    ASSERT_TRUE(Encrypt(plain, cipher)) << length;
    EXPECT_LE(cipher.size(), 344u) << length;
    for (char c : cipher) ASSERT_TRUE(isgraph(static_cast<unsigned char>(c))) << cipher;
    ASSERT_TRUE(Decrypt(cipher, back)) << length;
    EXPECT_EQ(back, plain) << length;
    if (length == 0) {
      EXPECT_EQ(cipher, "");
    }
  }
  // The same password stored twice must not show that it is the same.
  std::string first, second;
  ASSERT_TRUE(Encrypt("relay-password", first));
  ASSERT_TRUE(Encrypt("relay-password", second));
  EXPECT_NE(first, second);
}

TEST(CryptTest, AChangedOrForeignTextIsRefused) {
  std::string cipher, plain;
  // Three lengths, so that the text ends in no, one and two padding characters.
  for (size_t length : {48, 49, 50}) {
    ASSERT_TRUE(Encrypt(std::string(length, 'p'), cipher));
    for (size_t i = 0; i < cipher.size(); ++i) {
      for (char c : kAlphabet) {
        if (cipher[i] == c) continue;
        std::string changed = cipher;
        changed[i] = c;
        EXPECT_FALSE(Decrypt(changed, plain)) << length << ": position " << i << " as " << c;
      }
    }
  }
  EXPECT_FALSE(Decrypt(cipher.substr(0, cipher.size() - 4), plain));
  EXPECT_FALSE(Decrypt(cipher + "AAAA", plain));
  for (const char *garbage : {"hello", "AAAA", "not base64 at all!", "////////////////////////"}) {
    EXPECT_FALSE(Decrypt(garbage, plain)) << garbage;
  }
}

TEST(CryptTest, TextsOfAnotherKeyDoNotDecrypt) {
  std::string cipher, plain;
  ASSERT_TRUE(Encrypt("secret", cipher));
  const std::string ours = ReadFile(kKeyFile);
  ASSERT_EQ(ours.size(), 32u);

  std::string foreign = ours;
  for (char &c : foreign) c = static_cast<char>(c ^ 0x5A);
  WriteFile(kKeyFile, foreign);
  EXPECT_FALSE(Decrypt(cipher, plain));
  std::string underForeign;
  ASSERT_TRUE(Encrypt("secret", underForeign));
  ASSERT_TRUE(Decrypt(underForeign, plain));

  WriteFile(kKeyFile, ours);
  EXPECT_FALSE(Decrypt(underForeign, plain));
  ASSERT_TRUE(Decrypt(cipher, plain));
  EXPECT_EQ(plain, "secret");
}

TEST(CryptTest, ThePackageUserSharesTheKeyWithRoot) {
  unlink(kKeyFile);
  std::string byRoot;
  ASSERT_TRUE(Encrypt("made by root", byRoot));
  struct stat st;
  ASSERT_EQ(stat(kKeyFile, &st), 0);
  EXPECT_EQ(st.st_mode & 07777, 0640u);
  EXPECT_EQ(st.st_uid, 0u);
  EXPECT_EQ(st.st_size, 32);
  const group *packageGroup = getgrnam("Quillon-Server");
  ASSERT_NE(packageGroup, nullptr);
  EXPECT_EQ(st.st_gid, packageGroup->gr_gid);

  ScratchDir dir;
  chmod(dir.path().c_str(), 0777);
  const std::string handOver = dir / "by-package-user";
  const int rc = qsvtest::RunAsUnprivileged("Quillon-Server", [&] {
    std::string plain, cipher;
    if (!Decrypt(byRoot, plain) || plain != "made by root") return 1;
    if (!Encrypt("made by the package user", cipher)) return 2;
    WriteFile(handOver, cipher);
    return 0;
  });
  ASSERT_EQ(rc, 0);
  std::string plain;
  ASSERT_TRUE(Decrypt(ReadFile(handOver), plain));
  EXPECT_EQ(plain, "made by the package user");
}

}  // namespace
