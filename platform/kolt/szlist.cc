#include "kolt/szlist.h"

#include <stdlib.h>
#include <string.h>

#include "kolt/err.h"

KLIBSZLIST *KLIBCSzListAlloc(int initialSize) {
  if (initialSize <= 0) initialSize = 8;
  KLIBSZLIST *list = static_cast<KLIBSZLIST *>(calloc(1, sizeof(KLIBSZLIST)));
  if (list == nullptr) {
    KLIBC_ERR_SET(KLIBC_ERR_OUT_OF_MEMORY);
    return nullptr;
  }
  list->pszItem = static_cast<char **>(calloc(initialSize, sizeof(char *)));
  if (list->pszItem == nullptr) {
    free(list);
    KLIBC_ERR_SET(KLIBC_ERR_OUT_OF_MEMORY);
    return nullptr;
  }
  list->nAlloc = initialSize;
  return list;
}

void KLIBCSzListRemoveAll(KLIBSZLIST *list) {
  if (list == nullptr) return;
  for (int i = 0; i < list->nItem; i++) {
    free(list->pszItem[i]);
    list->pszItem[i] = nullptr;
  }
  list->nItem = 0;
}

void KLIBCSzListFree(KLIBSZLIST *list) {
  if (list == nullptr) return;
  KLIBCSzListRemoveAll(list);
  free(list->pszItem);
  free(list);
}

int KLIBCSzListPush(KLIBSZLIST **pp, const char *s) {
  if (pp == nullptr || s == nullptr) {
    KLIBC_ERR_SET(KLIBC_ERR_BAD_PARAM);
    return -1;
  }
  if (*pp == nullptr && (*pp = KLIBCSzListAlloc(0)) == nullptr) return -1;
  KLIBSZLIST *list = *pp;
  if (list->nItem == list->nAlloc) {
    int grown = list->nAlloc * 2;
    char **items = static_cast<char **>(realloc(list->pszItem, grown * sizeof(char *)));
    if (items == nullptr) {
      KLIBC_ERR_SET(KLIBC_ERR_OUT_OF_MEMORY);
      return -1;
    }
    list->pszItem = items;
    list->nAlloc = grown;
  }
  char *copy = strdup(s);
  if (copy == nullptr) {
    KLIBC_ERR_SET(KLIBC_ERR_OUT_OF_MEMORY);
    return -1;
  }
  list->pszItem[list->nItem] = copy;
  return list->nItem++;
}

const char *KLIBCSzListGet(const KLIBSZLIST *list, int idx) {
  if (list == nullptr || idx < 0 || idx >= list->nItem) return nullptr;
  return list->pszItem[idx];
}

int KLIBCSzListCount(const KLIBSZLIST *list) {
  return list == nullptr ? 0 : list->nItem;
}
