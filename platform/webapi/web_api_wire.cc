#include "webapi/web_api_wire.h"

#include <openssl/crypto.h>
#include <openssl/evp.h>
#include <openssl/hmac.h>

#include <fstream>

#include <json/json.h>

namespace webapi {
namespace {

std::string Hex(const unsigned char *bytes, size_t size) {
  static const char kDigits[] = "0123456789abcdef";
  std::string text;
  for (size_t i = 0; i < size; ++i) {
    text += kDigits[bytes[i] >> 4];
    text += kDigits[bytes[i] & 15];
  }
  return text;
}

}  // namespace

std::string BackendPassword() {
  std::ifstream in("/var/packages/Quillon-Server/etc/backend.conf");
  Json::Value conf;
  Json::CharReaderBuilder builder;
  std::string errors;
  if (!in || !Json::parseFromStream(builder, in, &conf, &errors) || !conf.isObject() ||
      !conf["password"].isString()) {
    return "";
  }
  return conf["password"].asString();
}

std::string HmacHex(const std::string &key, const std::string &text) {
  unsigned char mac[EVP_MAX_MD_SIZE];
  unsigned int size = 0;
  HMAC(EVP_sha256(), key.data(), static_cast<int>(key.size()),
       reinterpret_cast<const unsigned char *>(text.data()), text.size(), mac, &size);
  return Hex(mac, size);
}

BodyDigest::BodyDigest() : ctx_(EVP_MD_CTX_new()) {
  EVP_DigestInit_ex(static_cast<EVP_MD_CTX *>(ctx_), EVP_sha256(), nullptr);
}

BodyDigest::~BodyDigest() { EVP_MD_CTX_free(static_cast<EVP_MD_CTX *>(ctx_)); }

void BodyDigest::Update(const void *data, size_t size) {
  EVP_DigestUpdate(static_cast<EVP_MD_CTX *>(ctx_), data, size);
}

std::string BodyDigest::Hex() {
  unsigned char digest[EVP_MAX_MD_SIZE];
  unsigned int size = 0;
  EVP_DigestFinal_ex(static_cast<EVP_MD_CTX *>(ctx_), digest, &size);
  return webapi::Hex(digest, size);
}

bool SameMac(const std::string &a, const std::string &b) {
  return a.size() == b.size() && CRYPTO_memcmp(a.data(), b.data(), a.size()) == 0;
}

}  // namespace webapi
