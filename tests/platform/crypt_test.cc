// The text cipher against the real machine key file: round trips, changed texts, a key from
// elsewhere, the package user, and first use racing in several processes.
#include "kolt/crypt.h"

#include <grp.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <string>

#include <gtest/gtest.h>

#include "harness/run_as.h"
#include "test_util.h"

namespace {

const char kKeyFile[] = "/usr/kolt/etc/crypt.key";

bool Encrypt(const std::string &plain, std::string &cipher) {
  char out[345];
  return KLIBCCryptSzEncrypt(plain.c_str(), out, sizeof(out)) && (cipher = out, true);
}

bool Decrypt(const std::string &cipher, std::string &plain) {
  char out[256];
  return KLIBCCryptSzDecrypt(cipher.c_str(), out, sizeof(out)) && (plain = out, true);
}

TEST(CryptTest, RoundTripsUpTo200BytesWithinTheStoredLength) {
  for (size_t length = 0; length <= 200; ++length) {
    std::string plain, cipher, back;
    for (size_t i = 0; i < length; ++i) plain += static_cast<char>(1 + (i * 37 + length) % 255);
    ASSERT_TRUE(Encrypt(plain, cipher)) << length;
    EXPECT_LE(cipher.size(), 344u) << length;
    for (char c : cipher) ASSERT_TRUE(isgraph(static_cast<unsigned char>(c))) << cipher;
    ASSERT_TRUE(Decrypt(cipher, back)) << length;
    EXPECT_EQ(back, plain) << length;
  }
  // The same password stored twice must not show that it is the same.
  std::string first, second;
  ASSERT_TRUE(Encrypt("relay-password", first) && Encrypt("relay-password", second));
  EXPECT_NE(first, second);
}

TEST(CryptTest, AChangedOrForeignTextIsRefused) {
  const std::string alphabet = "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789+/=";
  std::string cipher, plain;
  // Three lengths, so that the text ends in no, one and two padding characters.
  for (size_t length : {48, 49, 50}) {
    ASSERT_TRUE(Encrypt(std::string(length, 'p'), cipher));
    for (size_t i = 0; i < cipher.size(); ++i) {
      for (char c : alphabet) {
        std::string changed = cipher;
        changed[i] = c;
        if (c != cipher[i]) EXPECT_FALSE(Decrypt(changed, plain)) << length << ": " << i << c;
      }
    }
  }
  for (const std::string &bad : {cipher.substr(0, cipher.size() - 4), cipher + "AAAA",
                                 std::string("hello"), std::string("AAAA")}) {
    EXPECT_FALSE(Decrypt(bad, plain)) << bad;
  }

  // Nor does a text made under another machine's key, and ours still works once it is back.
  ASSERT_TRUE(Encrypt("secret", cipher));
  const std::string ours = ReadFile(kKeyFile);
  ASSERT_EQ(ours.size(), 32u);
  std::string foreign = ours, underForeign;
  for (char &c : foreign) c = static_cast<char>(c ^ 0x5A);
  WriteFile(kKeyFile, foreign);
  EXPECT_FALSE(Decrypt(cipher, plain));
  ASSERT_TRUE(Encrypt("secret", underForeign));
  WriteFile(kKeyFile, ours);
  EXPECT_FALSE(Decrypt(underForeign, plain));
  ASSERT_TRUE(Decrypt(cipher, plain));
  EXPECT_EQ(plain, "secret");
}

TEST(CryptTest, RacingFirstUsersAndThePackageUserShareOneKey) {
  unlink(kKeyFile);
  ScratchDir dir;
  chmod(dir.path().c_str(), 0777);
  pid_t children[8];
  for (int i = 0; i < 8; ++i) {
    if ((children[i] = fork()) == 0) {
      std::string cipher;
      if (Encrypt("racer " + std::to_string(i), cipher)) WriteFile(dir / std::to_string(i), cipher);
      _exit(0);
    }
  }
  for (pid_t child : children) waitpid(child, nullptr, 0);
  for (int i = 0; i < 8; ++i) {
    std::string plain;
    EXPECT_TRUE(Decrypt(ReadFile(dir / std::to_string(i)), plain) && plain == "racer " + std::to_string(i)) << i;
  }
  struct stat st;
  ASSERT_EQ(stat(kKeyFile, &st), 0);
  EXPECT_EQ(st.st_mode & 07777, 0640u);
  EXPECT_EQ(st.st_uid, 0u);
  EXPECT_EQ(st.st_size, 32);
  const group *packageGroup = getgrnam("Quillon-Server");
  ASSERT_NE(packageGroup, nullptr);
  EXPECT_EQ(st.st_gid, packageGroup->gr_gid);

  const std::string byRoot = ReadFile(dir / "0"), handOver = dir / "by-package-user";
  ASSERT_EQ(qsvtest::RunAsUnprivileged("Quillon-Server", [&] {
    std::string plain, cipher;
    if (!Decrypt(byRoot, plain) || plain != "racer 0") return 1;
    if (!Encrypt("made by the package user", cipher)) return 2;
    WriteFile(handOver, cipher);
    return 0;
  }), 0);
  std::string plain;
  ASSERT_TRUE(Decrypt(ReadFile(handOver), plain));
  EXPECT_EQ(plain, "made by the package user");
}

}  // namespace
