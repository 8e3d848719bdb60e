#include "kolt/crypt.h"

#include <fcntl.h>
#include <grp.h>
#include <sys/stat.h>
#include <unistd.h>

#include <openssl/evp.h>
#include <openssl/rand.h>

#include <cerrno>
#include <cstring>
#include <string>
#include <vector>

#include "kolt/base64.h"
#include "kolt/err.h"

namespace {

const char kKeyDir[] = "/usr/kolt/etc";
const char kKeyFile[] = "/usr/kolt/etc/crypt.key";
constexpr unsigned char kVersion = 1;
constexpr size_t kKeySize = 32, kNonceSize = 12, kTagSize = 16;

bool ReadKey(unsigned char key[kKeySize]) {
  const int fd = open(kKeyFile, O_RDONLY | O_CLOEXEC);
  if (fd < 0) return false;
  const ssize_t n = read(fd, key, kKeySize);
  close(fd);
  return n == static_cast<ssize_t>(kKeySize);
}

bool PackageGroup(gid_t &gid) {
  group entry, *found = nullptr;
  std::vector<char> buffer(16384);
  if (getgrnam_r("Quillon-Server", &entry, buffer.data(), buffer.size(), &found) != 0 ||
      found == nullptr) {
    return false;
  }
  gid = found->gr_gid;
  return true;
}

// Base64 lets the last character of a text carry spare bits; a text that differs from ours only
// there would still decode to the same bytes. Only the one spelling we write is accepted, so that
// any change to a stored text is seen.
bool IsOurSpelling(const char *text, size_t textLength, const unsigned char *bytes, int size) {
  std::vector<char> again(textLength + 1);
  const int n =
      KLIBCBase64SzEncodeFull(bytes, static_cast<size_t>(size), again.data(), again.size());
  return n == static_cast<int>(textLength) && memcmp(again.data(), text, textLength) == 0;
}

// The machine key, made on first use. Racing first users each write a candidate and link it into
// place; link fails for all but one, and every one then reads the winner.
bool MachineKey(unsigned char key[kKeySize]) {
  if (ReadKey(key)) return true;
  // The package user must reach the key through these directories, whatever the caller's umask.
  if (mkdir("/usr/kolt", 0755) == 0) chmod("/usr/kolt", 0755);
  if (mkdir(kKeyDir, 0755) == 0) chmod(kKeyDir, 0755);
  unsigned char fresh[kKeySize];
  if (RAND_bytes(fresh, kKeySize) != 1) return false;
  std::string candidate = std::string(kKeyFile) + ".XXXXXX";
  const int fd = mkostemp(&candidate[0], O_CLOEXEC);
  if (fd < 0) return false;
  // Only a whole key may ever appear under the final name: a short one would lock every secret out.
  const bool written =
      write(fd, fresh, kKeySize) == static_cast<ssize_t>(kKeySize) && fsync(fd) == 0;
  OPENSSL_cleanse(fresh, sizeof(fresh));
  // The package user deciphers too, through its group; no one else may read the key.
  gid_t packageGid = 0;
  if (PackageGroup(packageGid) && fchown(fd, 0, packageGid) == 0) {
    fchmod(fd, 0640);
  } else {
    fchmod(fd, 0600);
  }
  close(fd);
  if (written) link(candidate.c_str(), kKeyFile);
  unlink(candidate.c_str());
  return ReadKey(key);
}

}  // namespace

BOOL KLIBCCryptSzEncrypt(const char *plain, char *out, int outSize) {
  if (plain == nullptr || out == nullptr || outSize < 1) {
    KLIBC_ERR_SET(KLIBC_ERR_BAD_PARAM);
    return FALSE;
  }
  const size_t length = strlen(plain);
  if (length == 0) {
    out[0] = '\0';
    return TRUE;
  }
  unsigned char key[kKeySize];
  if (!MachineKey(key)) {
    KLIBC_ERR_SET(KLIBC_ERR_SYS(errno));
    return FALSE;
  }
  std::vector<unsigned char> sealed(1 + kNonceSize + length + kTagSize);
  sealed[0] = kVersion;
  unsigned char *nonce = &sealed[1];
  unsigned char *body = nonce + kNonceSize;
  unsigned char *tag = body + length;
  bool ok = RAND_bytes(nonce, kNonceSize) == 1;
  EVP_CIPHER_CTX *ctx = EVP_CIPHER_CTX_new();
  int n = 0, last = 0;
  ok = ok && ctx != nullptr &&
       EVP_EncryptInit_ex(ctx, EVP_aes_256_gcm(), nullptr, key, nonce) == 1 &&
       EVP_EncryptUpdate(ctx, body, &n, reinterpret_cast<const unsigned char *>(plain),
                         static_cast<int>(length)) == 1 &&
       EVP_EncryptFinal_ex(ctx, body + n, &last) == 1 &&
       EVP_CIPHER_CTX_ctrl(ctx, EVP_CTRL_GCM_GET_TAG, kTagSize, tag) == 1;
  EVP_CIPHER_CTX_free(ctx);
  OPENSSL_cleanse(key, sizeof(key));
  if (!ok || KLIBCBase64SzEncodeFull(sealed.data(), sealed.size(), out,
                                     static_cast<size_t>(outSize)) < 0) {
    KLIBC_ERR_SET(KLIBC_ERR_BUFFER_TOO_SMALL);
    return FALSE;
  }
  return TRUE;
}

BOOL KLIBCCryptSzDecrypt(const char *cipher, char *out, int outSize) {
  if (cipher == nullptr || out == nullptr || outSize < 1) {
    KLIBC_ERR_SET(KLIBC_ERR_BAD_PARAM);
    return FALSE;
  }
  const size_t textLength = strlen(cipher);
  if (textLength == 0) {
    out[0] = '\0';
    return TRUE;
  }
  std::vector<unsigned char> sealed(textLength);
  const int size = KLIBCBase64Decode(cipher, textLength, sealed.data(), sealed.size());
  if (size < static_cast<int>(1 + kNonceSize + kTagSize) || sealed[0] != kVersion ||
      !IsOurSpelling(cipher, textLength, sealed.data(), size)) {
    KLIBC_ERR_SET(KLIBC_ERR_BAD_FORMAT);
    return FALSE;
  }
  const size_t length = static_cast<size_t>(size) - 1 - kNonceSize - kTagSize;
  if (length + 1 > static_cast<size_t>(outSize)) {
    KLIBC_ERR_SET(KLIBC_ERR_BUFFER_TOO_SMALL);
    return FALSE;
  }
  unsigned char key[kKeySize];
  if (!ReadKey(key)) {
    KLIBC_ERR_SET(KLIBC_ERR_SYS(errno));
    return FALSE;
  }
  unsigned char *nonce = &sealed[1];
  unsigned char *body = nonce + kNonceSize;
  unsigned char *tag = body + length;
  std::vector<unsigned char> plain(length + 1);
  EVP_CIPHER_CTX *ctx = EVP_CIPHER_CTX_new();
  int n = 0, last = 0;
  const bool ok = ctx != nullptr &&
                  EVP_DecryptInit_ex(ctx, EVP_aes_256_gcm(), nullptr, key, nonce) == 1 &&
                  EVP_DecryptUpdate(ctx, plain.data(), &n, body, static_cast<int>(length)) == 1 &&
                  EVP_CIPHER_CTX_ctrl(ctx, EVP_CTRL_GCM_SET_TAG, kTagSize, tag) == 1 &&
                  EVP_DecryptFinal_ex(ctx, plain.data() + n, &last) == 1;
  EVP_CIPHER_CTX_free(ctx);
  OPENSSL_cleanse(key, sizeof(key));
  if (!ok) {
    KLIBC_ERR_SET(KLIBC_ERR_BAD_FORMAT);
    return FALSE;
  }
  memcpy(out, plain.data(), length);
  out[length] = '\0';
  OPENSSL_cleanse(plain.data(), plain.size());
  return TRUE;
}
