#include "kolt/szhash.h"

#include <new>
#include <string>
#include <unordered_map>
#include <utility>
#include <vector>

#include "kolt/err.h"

struct KLIBSZHASH {
  std::vector<std::pair<std::string, std::string>> entries;  // in arrival order
  std::unordered_map<std::string, size_t> index;             // key -> entries slot
};

KLIBSZHASH *KLIBCSzHashAlloc(int size) {
  KLIBSZHASH *hash = new (std::nothrow) KLIBSZHASH;
  if (hash == nullptr) {
    KLIBC_ERR_SET(KLIBC_ERR_OUT_OF_MEMORY);
    return nullptr;
  }
  try {
    if (size > 0) {
      hash->entries.reserve(size);
      hash->index.reserve(size);
    }
  } catch (const std::bad_alloc &) {
    // The hint was only a hint.
  }
  return hash;
}

void KLIBCSzHashFree(KLIBSZHASH *hash) { delete hash; }

int KLIBCSzHashSetValue(KLIBSZHASH **pp, const char *key, const char *value) {
  if (pp == nullptr || key == nullptr || value == nullptr) {
    KLIBC_ERR_SET(KLIBC_ERR_BAD_PARAM);
    return -1;
  }
  if (*pp == nullptr && (*pp = KLIBCSzHashAlloc(0)) == nullptr) return -1;
  KLIBSZHASH *hash = *pp;
  try {
    auto it = hash->index.find(key);
    if (it != hash->index.end()) {
      hash->entries[it->second].second = value;
      return 0;
    }
    hash->entries.emplace_back(key, value);
    try {
      hash->index.emplace(key, hash->entries.size() - 1);
    } catch (...) {
      hash->entries.pop_back();
      throw;
    }
  } catch (const std::bad_alloc &) {
    KLIBC_ERR_SET(KLIBC_ERR_OUT_OF_MEMORY);
    return -1;
  }
  return 0;
}

const char *KLIBCSzHashGetValue(const KLIBSZHASH *hash, const char *key) {
  if (hash == nullptr || key == nullptr) return nullptr;
  auto it = hash->index.find(key);
  if (it == hash->index.end()) return nullptr;
  return hash->entries[it->second].second.c_str();
}

int KLIBCSzHashCount(const KLIBSZHASH *hash) {
  return hash == nullptr ? 0 : static_cast<int>(hash->entries.size());
}

int KLIBCSzHashKeys(const KLIBSZHASH *hash, KLIBSZLIST **list) {
  if (list == nullptr) {
    KLIBC_ERR_SET(KLIBC_ERR_BAD_PARAM);
    return -1;
  }
  if (*list == nullptr && (*list = KLIBCSzListAlloc(KLIBCSzHashCount(hash))) == nullptr) return -1;
  if (hash == nullptr) return 0;
  for (const auto &entry : hash->entries) {
    if (KLIBCSzListPush(list, entry.first.c_str()) < 0) return -1;
  }
  return static_cast<int>(hash->entries.size());
}
