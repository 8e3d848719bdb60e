// The machine's network interfaces as the platform reports them. Stateless; any thread may call.
#ifndef KOLT_NETIF_H_
#define KOLT_NETIF_H_

#include "kolt/types.h"

struct KOLTNETIF {
  char name[32];   // "eth0", or "eth0:QSV" for an alias address
  char ip[64];     // dotted IPv4 or IPv6 text
  char mask[64];   // dotted IPv4 mask, or the IPv6 prefix length in decimal
  int isUp;
};

// Fills at most `max` entries, one per address of an interface, in the system's order. Returns the
// number of entries there are (which may exceed max), or -1 with errno.
int KOLTNetIFEnum(KOLTNETIF *entries, int max);

// 1 when the interface's address is configured statically (loopback, or "iface NAME inet static"
// in /etc/network/interfaces or interfaces.d), 0 when it comes from DHCP or isn't declared, -1 for
// an interface that doesn't exist.
int KOLTNetIfIsStaticIP(const char *ifName);

// The first IPv4 address of `ifName`. 0, or -1 for an unknown interface or one without IPv4.
int KOLTNetIFGetInfoEx(const char *ifName, KOLTNETIF *info);

// TRUE when `ip` is a dotted IPv4 address and `mask` a contiguous dotted IPv4 netmask other than
// 0.0.0.0, and, for masks up to /30, `ip` is neither the network nor the broadcast address.
BOOL BlKLIBIsValidIpMask(const char *ip, const char *mask);

// 1 when both addresses lie in the same subnet of `mask`, 0 when not, -1 for bad input.
int KOLTNetIsSameSubnet(const char *ip1, const char *ip2, const char *mask);

#endif  // KOLT_NETIF_H_
