// A growable list of owned C strings, the platform's way of handing a set of
// names to a caller. The list owns copies of what is pushed. A list is not
// locked: one thread at a time, or a caller's own lock.

#ifndef KOLT_SZLIST_H_
#define KOLT_SZLIST_H_

struct KLIBSZLIST {
  int nAlloc;       // slots in pszItem
  int nItem;        // slots in use
  char **pszItem;   // each item is owned by the list
};

// Null when memory runs out. initialSize <= 0 picks a small default.
KLIBSZLIST *KLIBCSzListAlloc(int initialSize);
void KLIBCSzListFree(KLIBSZLIST *list);
void KLIBCSzListRemoveAll(KLIBSZLIST *list);

// Appends a copy of s and returns its index, or -1. A null *pp gets a new list.
// The signature allows *pp to move; today it stays put.
int KLIBCSzListPush(KLIBSZLIST **pp, const char *s);

// Null when idx is out of range.
const char *KLIBCSzListGet(const KLIBSZLIST *list, int idx);

// 0 for a null list.
int KLIBCSzListCount(const KLIBSZLIST *list);

#endif  // KOLT_SZLIST_H_
