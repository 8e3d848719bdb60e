#include "kolt/netif.h"

#include <arpa/inet.h>
#include <dirent.h>
#include <errno.h>
#include <ifaddrs.h>
#include <net/if.h>
#include <netinet/in.h>
#include <stdint.h>
#include <stdio.h>
#include <string.h>

#include <fstream>
#include <sstream>
#include <string>

#include "kolt/err.h"

namespace {

int PrefixLength(const sockaddr_in6 *mask) {
  int bits = 0;
  for (unsigned char byte : mask->sin6_addr.s6_addr) {
    for (; byte & 0x80; byte = static_cast<unsigned char>(byte << 1)) ++bits;
  }
  return bits;
}

// "static", "dhcp" or "" for `ifName` in one interfaces file.
std::string MethodIn(const std::string &path, const std::string &ifName) {
  std::ifstream in(path);
  std::string line;
  while (std::getline(in, line)) {
    std::istringstream words(line);
    std::string iface, name, family, method;
    if (words >> iface >> name >> family >> method && iface == "iface" && name == ifName) {
      return method;
    }
  }
  return "";
}

}  // namespace

int KOLTNetIFEnum(KOLTNETIF *entries, int max) {
  ifaddrs *all = nullptr;
  if (getifaddrs(&all) != 0) {
    KLIBC_ERR_SET(KLIBC_ERR_SYS(errno));
    return -1;
  }
  int count = 0;
  for (ifaddrs *a = all; a != nullptr; a = a->ifa_next) {
    if (a->ifa_addr == nullptr) continue;
    const int family = a->ifa_addr->sa_family;
    if (family != AF_INET && family != AF_INET6) continue;
    if (count < max && entries != nullptr) {
      KOLTNETIF &e = entries[count];
      memset(&e, 0, sizeof(e));
      snprintf(e.name, sizeof(e.name), "%s", a->ifa_name);
      e.isUp = (a->ifa_flags & IFF_UP) ? 1 : 0;
      if (family == AF_INET) {
        inet_ntop(AF_INET, &reinterpret_cast<sockaddr_in *>(a->ifa_addr)->sin_addr, e.ip,
                  sizeof(e.ip));
        if (a->ifa_netmask != nullptr) {
          inet_ntop(AF_INET, &reinterpret_cast<sockaddr_in *>(a->ifa_netmask)->sin_addr, e.mask,
                    sizeof(e.mask));
        }
      } else {
        inet_ntop(AF_INET6, &reinterpret_cast<sockaddr_in6 *>(a->ifa_addr)->sin6_addr, e.ip,
                  sizeof(e.ip));
        if (a->ifa_netmask != nullptr) {
          snprintf(e.mask, sizeof(e.mask), "%d",
                   PrefixLength(reinterpret_cast<sockaddr_in6 *>(a->ifa_netmask)));
        }
      }
    }
    ++count;
  }
  freeifaddrs(all);
  return count;
}

int KOLTNetIfIsStaticIP(const char *ifName) {
  if (ifName == nullptr || if_nametoindex(ifName) == 0) {
    KLIBC_ERR_SET(KLIBC_ERR_NOT_FOUND);
    return -1;
  }
  if (strcmp(ifName, "lo") == 0) return 1;
  std::string method = MethodIn("/etc/network/interfaces", ifName);
  if (DIR *dir = opendir("/etc/network/interfaces.d")) {
    while (dirent *entry = readdir(dir)) {
      if (entry->d_name[0] == '.' || !method.empty()) continue;
      method = MethodIn(std::string("/etc/network/interfaces.d/") + entry->d_name, ifName);
    }
    closedir(dir);
  }
  return method == "static" ? 1 : 0;
}

namespace {

bool ParseIPv4(const char *text, uint32_t &address) {
  in_addr parsed;
  if (text == nullptr || inet_pton(AF_INET, text, &parsed) != 1) return false;
  address = ntohl(parsed.s_addr);
  return true;
}

// A netmask is ones followed by zeros.
bool ParseMask(const char *text, uint32_t &mask) {
  if (!ParseIPv4(text, mask) || mask == 0) return false;
  return ((~mask + 1) & ~mask) == 0;
}

}  // namespace

int KOLTNetIFGetInfoEx(const char *ifName, KOLTNETIF *info) {
  if (ifName == nullptr || info == nullptr) {
    KLIBC_ERR_SET(KLIBC_ERR_BAD_PARAM);
    return -1;
  }
  ifaddrs *all = nullptr;
  if (getifaddrs(&all) != 0) {
    KLIBC_ERR_SET(KLIBC_ERR_SYS(errno));
    return -1;
  }
  // The kernel lists an interface's primary address before its secondaries, so the first match is
  // the address the interface is known by.
  const ifaddrs *found = nullptr;
  for (const ifaddrs *a = all; a != nullptr && found == nullptr; a = a->ifa_next) {
    if (a->ifa_addr != nullptr && a->ifa_addr->sa_family == AF_INET &&
        strcmp(a->ifa_name, ifName) == 0) {
      found = a;
    }
  }
  if (found != nullptr) {
    memset(info, 0, sizeof(*info));
    snprintf(info->name, sizeof(info->name), "%s", found->ifa_name);
    info->isUp = (found->ifa_flags & IFF_UP) ? 1 : 0;
    inet_ntop(AF_INET, &reinterpret_cast<const sockaddr_in *>(found->ifa_addr)->sin_addr, info->ip,
              sizeof(info->ip));
    if (found->ifa_netmask != nullptr) {
      inet_ntop(AF_INET, &reinterpret_cast<const sockaddr_in *>(found->ifa_netmask)->sin_addr,
                info->mask, sizeof(info->mask));
    }
  }
  freeifaddrs(all);
  if (found == nullptr) {
    KLIBC_ERR_SET(KLIBC_ERR_NOT_FOUND);
    return -1;
  }
  return 0;
}

BOOL BlKLIBIsValidIpMask(const char *ip, const char *mask) {
  uint32_t address, netmask;
  if (!ParseIPv4(ip, address) || !ParseMask(mask, netmask)) return FALSE;
  if (netmask <= 0xFFFFFFFCu) {
    const uint32_t host = address & ~netmask;
    if (host == 0 || host == ~netmask) return FALSE;
  }
  return TRUE;
}

int KOLTNetIsSameSubnet(const char *ip1, const char *ip2, const char *mask) {
  uint32_t a, b, netmask;
  if (!ParseIPv4(ip1, a) || !ParseIPv4(ip2, b) || !ParseMask(mask, netmask)) return -1;
  return (a & netmask) == (b & netmask) ? 1 : 0;
}
