// How a request travels between the request client and the request service of a node:
//
//   line 1: the request as compact JSON, with "time" (seconds), "nonce", and "size" and "sha256"
//           (hex) of the body
//   line 2: hex HMAC-SHA256 of line 1 with the backend password
//   then:   exactly "size" bytes of the file, if any
//
// The service checks line 2 before it reads a byte of the body, and the body against "sha256"
// before it puts the file in place.
//
// and back one line of JSON. Both ends read the password from the node's backend.conf.
#ifndef MAILSERVER_WEBAPI_WEB_API_WIRE_H_
#define MAILSERVER_WEBAPI_WEB_API_WIRE_H_

#include <cstddef>
#include <string>

namespace webapi {

constexpr int kPort = 8503;
// A request older or newer than this, in seconds, is refused: a recorded one can't be replayed
// later.
constexpr long kClockSkew = 120;
// The spam databases run to tens of megabytes; nothing the cluster sends is larger.
constexpr size_t kMaxBody = 256u << 20;
constexpr size_t kMaxHeader = 64u << 10;

// The cluster's password from backend.conf, or "" when it can't be read.
std::string BackendPassword();

// Lower-case hex of HMAC-SHA256(key, text).
std::string HmacHex(const std::string &key, const std::string &text);

// Incremental SHA-256 of a body.
class BodyDigest {
 public:
  BodyDigest();
  ~BodyDigest();
  BodyDigest(const BodyDigest &) = delete;
  BodyDigest &operator=(const BodyDigest &) = delete;
  void Update(const void *data, size_t size);
  std::string Hex();  // ends the digest

 private:
  void *ctx_;
};

// Compares two MACs in time that does not depend on where they differ.
bool SameMac(const std::string &a, const std::string &b);

}  // namespace webapi

#endif  // MAILSERVER_WEBAPI_WEB_API_WIRE_H_
