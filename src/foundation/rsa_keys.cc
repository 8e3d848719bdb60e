#include "foundation/rsa_keys.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <memory>

#include <openssl/bio.h>
#include <openssl/err.h>
#include <openssl/evp.h>
#include <openssl/pem.h>
#include <openssl/rsa.h>

#include "foundation/log.h"

namespace {

constexpr mode_t kKeyFileMode = 0600;

struct BioFree {
  void operator()(BIO *bio) const { BIO_free_all(bio); }
};
struct PkeyFree {
  void operator()(EVP_PKEY *key) const { EVP_PKEY_free(key); }
};
using Bio = std::unique_ptr<BIO, BioFree>;
using Pkey = std::unique_ptr<EVP_PKEY, PkeyFree>;

// The oldest error OpenSSL queued, as text; the queue is emptied so the next call starts clean.
// ERR_error_string_n into our own buffer, since the one-argument form shares a static buffer.
std::string OpenSslError() {
  const unsigned long code = ERR_get_error();
  ERR_clear_error();
  if (code == 0) return strerror(errno);
  char text[256];
  ERR_error_string_n(code, text, sizeof(text));
  return text;
}

// A BIO writing to `path`, truncated, and mode 0600 before anything is written to it, so the key
// never stands in a file others may read. Null on failure, with errno set.
Bio OpenKeyFile(const char *path) {
  const int fd = open(path, O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, kKeyFileMode);
  if (fd < 0) return nullptr;
  if (fchmod(fd, kKeyFileMode) != 0) {
    const int saved = errno;
    close(fd);
    errno = saved;
    return nullptr;
  }
  Bio bio(BIO_new_fd(fd, BIO_CLOSE));
  if (!bio) close(fd);
  return bio;
}

// Flushes and closes; a full disk shows here rather than at the write.
int CloseKeyFile(Bio bio) {
  if (BIO_flush(bio.get()) != 1) return -1;
  int fd = -1;
  BIO_get_fd(bio.get(), &fd);
  if (fd >= 0 && fsync(fd) != 0) return -1;
  return 0;
}

}  // namespace

int GenerateRSAPrivateKey(const char *path, unsigned int bits) {
  if (path == nullptr) {
    maillog(3, "%s:%d Bad Parameter", QSV_FILE, __LINE__);
    return -1;
  }
  ERR_clear_error();
  Pkey key(EVP_RSA_gen(bits));
  if (!key) {
    maillog(3, "%s:%d generate %d bit rsa key fail, %s", QSV_FILE, __LINE__,
            static_cast<int>(bits), OpenSslError().c_str());
    return -1;
  }
  Bio bio = OpenKeyFile(path);
  if (!bio) {
    maillog(3, "%s:%d new bio fail, %s", QSV_FILE, __LINE__, strerror(errno));
    return -1;
  }
  // The traditional writer gives the PKCS#1 form ("BEGIN RSA PRIVATE KEY") the suite's readers
  // expect, not PKCS#8.
  if (PEM_write_bio_PrivateKey_traditional(bio.get(), key.get(), nullptr, nullptr, 0, nullptr,
                                           nullptr) != 1 ||
      CloseKeyFile(std::move(bio)) != 0) {
    maillog(3, "%s:%d write private key fail, %s", QSV_FILE, __LINE__, OpenSslError().c_str());
    return -1;
  }
  return 0;
}

int GenerateRSAPublicKey(const char *privatePath, const char *publicPath) {
  if (privatePath == nullptr || publicPath == nullptr) {
    maillog(3, "%s:%d Bad Parameter", QSV_FILE, __LINE__);
    return -1;
  }
  ERR_clear_error();
  Bio in(BIO_new_file(privatePath, "r"));
  Pkey key(in ? PEM_read_bio_PrivateKey(in.get(), nullptr, nullptr, nullptr) : nullptr);
  if (!key || EVP_PKEY_get_base_id(key.get()) != EVP_PKEY_RSA) {
    maillog(3, "%s:%d Failed to read %s error %s", QSV_FILE, __LINE__, privatePath,
            key ? "not an RSA key" : OpenSslError().c_str());
    return -1;
  }
  Bio bio = OpenKeyFile(publicPath);
  if (!bio) {
    maillog(3, "%s:%d new bio fail, %s", QSV_FILE, __LINE__, strerror(errno));
    return -1;
  }
  if (PEM_write_bio_PUBKEY(bio.get(), key.get()) != 1 || CloseKeyFile(std::move(bio)) != 0) {
    maillog(3, "%s:%d write public key fail, %s", QSV_FILE, __LINE__, OpenSslError().c_str());
    return -1;
  }
  return 0;
}

int ReadRSAPublicKey(const char *path, std::string &pem) {
  if (path == nullptr) {
    maillog(3, "%s:%d Bad Parameter", QSV_FILE, __LINE__);
    return -1;
  }
  ERR_clear_error();
  Bio in(BIO_new_file(path, "r"));
  Pkey key(in ? PEM_read_bio_PUBKEY(in.get(), nullptr, nullptr, nullptr) : nullptr);
  if (!key || EVP_PKEY_get_base_id(key.get()) != EVP_PKEY_RSA) {
    maillog(3, "%s:%d Failed to read %s error %s", QSV_FILE, __LINE__, path,
            key ? "not an RSA key" : OpenSslError().c_str());
    return -1;
  }
  Bio out(BIO_new(BIO_s_mem()));
  if (!out) {
    maillog(3, "%s:%d Failed to new bio error %s", QSV_FILE, __LINE__, OpenSslError().c_str());
    return -1;
  }
  if (PEM_write_bio_PUBKEY(out.get(), key.get()) != 1) {
    maillog(3, "%s:%d Failed to write bio error %s", QSV_FILE, __LINE__, OpenSslError().c_str());
    return -1;
  }
  char *data = nullptr;
  const long length = BIO_get_mem_data(out.get(), &data);
  pem.assign(data, length > 0 ? static_cast<size_t>(length) : 0);
  return 0;
}
