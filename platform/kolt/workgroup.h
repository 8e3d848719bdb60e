// The machine's Windows workgroup or domain short name. Thread-safe.
#ifndef KOLT_WORKGROUP_H_
#define KOLT_WORKGROUP_H_

// The "workgroup" of the [global] section of /etc/samba/smb.conf, or "WORKGROUP" where none is
// set. 0, or -1 when `buf` is too small.
int KOLTWorkgroupGet(char *buf, int size);

#endif  // KOLT_WORKGROUP_H_
