// The platform's text cipher: short secrets (relay and migration passwords) are stored in
// settings as printable text that only this machine can read back.
//
// Authenticated encryption (AES-256-GCM) under a machine key that never leaves the machine: 32
// random bytes in /usr/kolt/etc/crypt.key, made on first use, owned by root and readable by the
// group Quillon-Server (mode 0640; 0600 where that group doesn't exist), so that root and the
// package user share it. Processes that race on first use all end up with the one key that won.
// The key is not copied to other nodes, sent anywhere, or replaced once made: a damaged key file
// makes the cipher fail rather than silently orphan what was stored under it. A text made on
// another machine, or changed by one character, does not decrypt.
//
// A text is the base64 of a version byte, a 12-byte nonce, the cipher text and the 16-byte tag.
// Thread-safe.
#ifndef KOLT_CRYPT_H_
#define KOLT_CRYPT_H_

#include "kolt/types.h"

// Enciphers `plain` into `out` as printable text (at most 344 characters for up to 200 bytes of
// plain text, so a 345-byte buffer holds it). An empty plain text gives an empty text. FALSE when
// the key can't be had or `out` is too small.
BOOL KLIBCCryptSzEncrypt(const char *plain, char *out, int outSize);

// The reverse. An empty text gives an empty plain text. FALSE for a text that isn't one of ours,
// was changed, was made with another key, or doesn't fit `out`.
BOOL KLIBCCryptSzDecrypt(const char *cipher, char *out, int outSize);

#endif  // KOLT_CRYPT_H_
