#include "foundation/cidr.h"

#include <arpa/inet.h>

#include <climits>
#include <cstdlib>
#include <cstring>
#include <list>
#include <unordered_map>

#include "foundation/log.h"
#include "foundation/strings.h"

namespace {

const std::unordered_map<std::string, int> &DottedMasks() {
  static const std::unordered_map<std::string, int> masks = {
      {"128.0.0.0", 1},        {"192.0.0.0", 2},        {"224.0.0.0", 3},
      {"240.0.0.0", 4},        {"248.0.0.0", 5},        {"252.0.0.0", 6},
      {"254.0.0.0", 7},        {"255.0.0.0", 8},        {"255.128.0.0", 9},
      {"255.192.0.0", 10},     {"255.224.0.0", 11},     {"255.240.0.0", 12},
      {"255.248.0.0", 13},     {"255.252.0.0", 14},     {"255.254.0.0", 15},
      {"255.255.0.0", 16},     {"255.255.128.0", 17},   {"255.255.192.0", 18},
      {"255.255.224.0", 19},   {"255.255.240.0", 20},   {"255.255.248.0", 21},
      {"255.255.252.0", 22},   {"255.255.254.0", 23},   {"255.255.255.0", 24},
      {"255.255.255.128", 25}, {"255.255.255.192", 26}, {"255.255.255.224", 27},
      {"255.255.255.240", 28}, {"255.255.255.248", 29}, {"255.255.255.252", 30},
      {"255.255.255.254", 31}, {"255.255.255.255", 32},
  };
  return masks;
}

// The prefix length a mask text stands for, or -1 (logged).
long PrefixOf(const std::string &mask) {
  const auto known = DottedMasks().find(mask);
  if (known != DottedMasks().end()) return known->second;
  long prefix = -1;
  if (mask.find('.') == std::string::npos) {
    prefix = strtol(mask.c_str(), nullptr, 10);
  }
  if (prefix <= 0) {
    maillog(3, "%s:%d Invalid mask: '%s'", QSV_FILE, __LINE__, mask.c_str());
    return -1;
  }
  return prefix;
}

// Clears the bits of `addr` (of `size` bytes) past the first `prefix`.
int MaskAddr(unsigned char *addr, size_t size, unsigned int prefix) {
  if (prefix > size * 8) {
    maillog(3, "%s:%d mask bit too large: %u", QSV_FILE, __LINE__, prefix);
    return -1;
  }
  size_t byte = prefix / 8;
  const unsigned int bits = prefix % 8;
  if (bits != 0) {
    addr[byte] &= static_cast<unsigned char>(0xFF << (8 - bits));
    ++byte;
  }
  memset(addr + byte, 0, size - byte);
  return 0;
}

}  // namespace

int convertToCIDR(const std::string &pattern, std::string &cidr) {
  const std::list<std::string> parts = StringSplit(pattern.c_str(), "/");
  if (parts.size() > 2) {
    maillog(3, "%s:%d Invalid pattern: '%s'", QSV_FILE, __LINE__, pattern.c_str());
    return -1;
  }
  const std::string address = parts.empty() ? std::string() : parts.front();
  const int family = address.find(':') != std::string::npos ? AF_INET6 : AF_INET;
  unsigned char addr[sizeof(struct in6_addr)] = {0};
  if (inet_pton(family, address.c_str(), addr) != 1) {
    maillog(3, "%s:%d Invalid ip for pattern: '%s'", QSV_FILE, __LINE__, pattern.c_str());
    return -1;
  }
  if (parts.size() == 1) {
    cidr = address;
    return 0;
  }

  const long prefix = PrefixOf(parts.back());
  if (prefix < 0) {
    maillog(3, "%s:%d Failed to get cidr prefix for '%s'", QSV_FILE, __LINE__, pattern.c_str());
    return -1;
  }
  const size_t size = family == AF_INET6 ? sizeof(struct in6_addr) : sizeof(struct in_addr);
  if (prefix > static_cast<long>(size * 8)) {
    maillog(3, "%s:%d CIDR prefix is too large: %d", QSV_FILE, __LINE__,
            prefix > INT_MAX ? INT_MAX : static_cast<int>(prefix));
    return -1;
  }
  if (MaskAddr(addr, size, static_cast<unsigned int>(prefix)) != 0) {
    maillog(3, "%s:%d Failed to maskAddr", QSV_FILE, __LINE__);
    return -1;
  }
  char text[INET6_ADDRSTRLEN] = {0};
  if (inet_ntop(family, addr, text, sizeof(text)) == nullptr) {
    maillog(3, "%s:%d Failed to convert IP: '%s'", QSV_FILE, __LINE__, pattern.c_str());
    return -1;
  }
  cidr = std::string(text) + "/" + std::to_string(prefix);
  return 0;
}
