// The platform's firewall, as far as the mail suite sees it: which named services are let through,
// and which services the suite has reserved for itself so that the platform's own rule editing
// leaves them alone.
//
// The state is one JSON file, /usr/kolt/etc/firewall/state.json, that tools and tests can read:
//
//   {"allowed": ["mail_smtp", ...],
//    "reserved": {"services": ["mail_smtp", ...], "enable": true, "reload": true}}
//
// A missing file is the state of a fresh machine: nothing allowed, nothing reserved. Writers take
// an flock on state.lock beside it, edit, and replace the file by rename, so readers need no lock
// and see the old or the new state, never a part. The allowed list holds for every adapter: this
// machine keeps no rules per adapter. A service name is letters, digits, '_', '-' and '.'.
//
// All functions may be called from any thread and any process; changing the state needs root.
#ifndef KOLT_FIREWALL_H_
#define KOLT_FIREWALL_H_

#include "kolt/types.h"

// 1 when `serviceName` is allowed on `adapter` (0 is the first adapter), 0 when not, -1 for a
// negative adapter, a bad name, or a state file that can't be read.
int KOLTFwPortsCheckAllowByAdapter(int adapter, const char *serviceName);

// Makes the comma-separated services (blanks around names and empty items ignored) the reserved
// ones, in place of the previous list, and records `enable` and `reload`. With enable 1 they are
// also added to the allowed services. An empty list clears the reservation. FALSE, with nothing
// changed, for a bad name or a state file that can't be read or written.
BOOL KLIBFwRuleReserveServInsert(const char *commaSeparatedServices, int enable, int reload);

// Adds `serviceName` to the allowed services (allow 1) or takes it out (allow 0). Doing what is
// already done changes nothing. 0, or -1.
int KOLTFwServiceAllow(const char *serviceName, int allow);

#endif  // KOLT_FIREWALL_H_
