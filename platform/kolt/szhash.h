// A map from string keys to string values that remembers the order in which
// keys first arrived, so that settings written back come out in the order they
// were read. A hash is not locked: one thread at a time, or a caller's own lock.

#ifndef KOLT_SZHASH_H_
#define KOLT_SZHASH_H_

#include "kolt/szlist.h"

struct KLIBSZHASH;

// size is a hint of the expected key count. Null when memory runs out.
KLIBSZHASH *KLIBCSzHashAlloc(int size);
void KLIBCSzHashFree(KLIBSZHASH *hash);

// Sets or replaces the value of key; a replaced key keeps its place in the
// order. A null *pp gets a new hash. 0 or -1.
int KLIBCSzHashSetValue(KLIBSZHASH **pp, const char *key, const char *value);

// Null when the key is absent. The pointer lives until the key is set again
// or the hash is freed.
const char *KLIBCSzHashGetValue(const KLIBSZHASH *hash, const char *key);

int KLIBCSzHashCount(const KLIBSZHASH *hash);

// Appends the keys, in the order they first arrived, to *list (a null *list
// gets a new one). Returns the number appended, or -1.
int KLIBCSzHashKeys(const KLIBSZHASH *hash, KLIBSZLIST **list);

#endif  // KOLT_SZHASH_H_
