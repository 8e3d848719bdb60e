// The device serial number, which names this machine to licences and to the
// other nodes of a cluster. Any thread may call it.

#ifndef KOLT_SERIAL_H_
#define KOLT_SERIAL_H_

// Writes "QSV" and the first 12 hex digits of /etc/machine-id, upper-cased,
// so the serial lives as long as the system installation does. Returns its
// length (15), or -1 when the id cannot be read or buf is too small.
int KLIBGetSerialNumber(char *buf, int size);

#endif  // KOLT_SERIAL_H_
