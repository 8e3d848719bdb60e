// Network patterns as the relay client, access and whitelist tables accept them: an address, or an
// address with a prefix length or a dotted IPv4 netmask, IPv4 or IPv6. convertToCIDR turns one into
// the network it names, the form the mail daemon's cidr maps want. Safe from any thread.
#ifndef MAILSERVER_FOUNDATION_CIDR_H_
#define MAILSERVER_FOUNDATION_CIDR_H_

#include <string>

#include "foundation/export.h"

// "a.b.c.d", "a.b.c.d/n", "a.b.c.d/m.m.m.m", and the IPv6 forms with "/n" or a dotted mask
// (which stands for its prefix length). A bare address comes back as written; otherwise the
// address's host bits are cleared: "192.168.1.77/255.255.255.0" gives "192.168.1.0/24".
// A prefix of 0 (or the mask "0.0.0.0") is refused: it would let the whole world through.
// 0, or -1 with `cidr` left alone.
QSV_EXPORT int convertToCIDR(const std::string &pattern, std::string &cidr);

#endif  // MAILSERVER_FOUNDATION_CIDR_H_
