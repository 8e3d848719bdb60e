// The machine's network interfaces as the platform reports them. Stateless; any thread may call.
#ifndef KOLT_NETIF_H_
#define KOLT_NETIF_H_

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

#endif  // KOLT_NETIF_H_
