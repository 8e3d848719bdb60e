// Base64 in the standard alphabet with padding, as mail headers and the key
// store carry binary values. Pure functions over the caller's buffers; any
// thread may call them.

#ifndef KOLT_BASE64_H_
#define KOLT_BASE64_H_

#include <stddef.h>

// Encodes len bytes as one line of text, NUL-terminated. out needs
// 4 * ceil(len / 3) + 1 bytes. Returns the text length, or -1 when out is too
// small or an argument is null. Empty input gives "" and 0.
int KLIBCBase64SzEncodeFull(const void *in, size_t len, char *out, size_t outSize);

// Decodes inLen characters; CR and LF anywhere are skipped, as in wrapped
// text. Returns the byte count, or -1 for a character outside the alphabet,
// a length that is not a whole number of quads, misplaced padding, or an out
// buffer too small for the result.
int KLIBCBase64Decode(const char *in, size_t inLen, void *out, size_t outSize);

#endif  // KOLT_BASE64_H_
