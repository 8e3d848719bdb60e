#include "domain/daily_quota_util.h"

#include <cerrno>
#include <cstdlib>
#include <cstring>

#include "eai/punycode.h"
#include "foundation/log.h"
#include "kolt/exec.h"

namespace KOLT {
namespace QUILLON_SERVER {

namespace {

const char kMemcachedScript[] = "/var/packages/Quillon-Server/target/scripts/daemon/memcached.sh";
const char kQuotaKind[] = "[senderQuota]";
const char kFlowKind[] = "[senderFlow]";
constexpr in_port_t kPort = 11211;
constexpr time_t kDay = 86400;

std::string Punycode(const std::string &domain) {
  std::string ascii;
  return ConvertToPunycode(domain, ascii) == 0 ? ascii : domain;
}

// A counter as a number. A daemon writes decimals; anything else is passed over with a log line
// rather than read as a number it isn't.
bool CounterValue(const std::string &key, const std::string &text, int *value) {
  errno = 0;
  char *end = nullptr;
  const long number = strtol(text.c_str(), &end, 10);
  if (text.empty() || end == nullptr || *end != '\0' || errno == ERANGE || number < INT32_MIN ||
      number > INT32_MAX) {
    maillog(3, "%s:%d invalid counter in key[%s], skipped", QSV_FILE, __LINE__, key.c_str());
    return false;
  }
  *value = static_cast<int>(number);
  return true;
}

}  // namespace

UsageMemcached::UsageMemcached()
    : status_(-1),
      ready_(false),
      server_("localhost"),
      memc_(memcached_create(nullptr)),
      result_(MEMCACHED_SUCCESS),
      servers_(nullptr) {
  ready_ = KLIBCExec(kMemcachedScript, "status", nullptr, nullptr, 187) == 0;
  if (!ready_ || memc_ == nullptr) return;
  servers_ = memcached_server_list_append(nullptr, server_.c_str(), kPort, &result_);
  if (servers_ != nullptr) result_ = memcached_server_push(memc_, servers_);
  status_ = result_ == MEMCACHED_SUCCESS ? 0 : -1;
}

UsageMemcached::~UsageMemcached() {
  if (servers_ != nullptr) memcached_server_list_free(servers_);
  if (memc_ != nullptr) memcached_free(memc_);
}

void UsageMemcached::_ComposeKeyList(int type, const std::list<std::string> &users,
                                     std::vector<std::string> &keys) {
  for (const std::string &user : users) {
    if (user.empty()) continue;
    if (type & kSenderQuota) keys.push_back(kQuotaKind + user);
    if (type & kSenderFlow) keys.push_back(kFlowKind + user);
  }
}

void UsageMemcached::_InsertPrefixInList(const std::string &prefix,
                                         std::vector<std::string> &keys) {
  for (std::string &key : keys) key.insert(0, prefix);
}

int UsageMemcached::_CheckKeyExist(const std::string &key) {
  result_ = memcached_exist(memc_, key.data(), key.size());
  if (result_ == MEMCACHED_CONNECTION_FAILURE || result_ == MEMCACHED_SERVER_MARKED_DEAD) {
    maillog(3, "%s:%d Connection to memcached server error", QSV_FILE, __LINE__);
  }
  return result_ == MEMCACHED_SUCCESS ? 1 : 0;
}

int UsageMemcached::_RemoveKey(const std::string &key) {
  result_ = memcached_delete(memc_, key.data(), key.size(), 0);
  if (result_ != MEMCACHED_SUCCESS) {
    maillog(3, "%s:%d Failed to rmeove key[%s] form buffer", QSV_FILE, __LINE__, key.c_str());
    return -1;
  }
  return 0;
}

int UsageMemcached::_SafeRemoveKey(const std::string &key) {
  return _CheckKeyExist(key) == 1 ? _RemoveKey(key) : 0;
}

int UsageMemcached::_SetKeyVal(const std::map<std::string, std::string> &values) {
  for (const auto &pair : values) {
    result_ = memcached_set(memc_, pair.first.data(), pair.first.size(), pair.second.data(),
                            pair.second.size(), kDay, 0);
    if (result_ != MEMCACHED_SUCCESS) {
      maillog(3, "%s:%d Failed to set key: %s", QSV_FILE, __LINE__,
              memcached_strerror(memc_, result_));
      return -1;
    }
  }
  return 0;
}

int UsageMemcached::_GetKeyValue(const std::vector<std::string> &keys,
                                 std::map<std::string, std::string> &values) {
  if (keys.empty()) return 0;
  const char **names = static_cast<const char **>(calloc(keys.size(), sizeof(char *)));
  size_t *lengths = static_cast<size_t *>(calloc(keys.size(), sizeof(size_t)));
  if (names == nullptr || lengths == nullptr) {
    maillog(3, "%s:%d fail to calloc", QSV_FILE, __LINE__);
    free(names);
    free(lengths);
    return -1;
  }
  for (size_t i = 0; i < keys.size(); ++i) {
    names[i] = keys[i].data();
    lengths[i] = keys[i].size();
  }
  int rc = 0;
  result_ = memcached_mget(memc_, names, lengths, keys.size());
  if (result_ != MEMCACHED_SUCCESS) {
    maillog(3, "%s:%d Failed to mget keys from buffer: %s", QSV_FILE, __LINE__,
            memcached_strerror(memc_, result_));
    rc = -1;
  } else {
    // Each result is the library's own, made for the call and freed here; the end of the rows
    // gives none.
    memcached_result_st *fetched;
    while ((fetched = memcached_fetch_result(memc_, nullptr, &result_)) != nullptr) {
      values[std::string(memcached_result_key_value(fetched), memcached_result_key_length(fetched))] =
          std::string(memcached_result_value(fetched), memcached_result_length(fetched));
      memcached_result_free(fetched);
    }
  }
  free(names);
  free(lengths);
  return rc;
}

void UsageMemcached::_ComposeResult(const std::string &field, const std::string &key,
                                    const std::map<std::string, std::string> &values,
                                    Json::Value &json) {
  int value = -1;
  const auto found = values.find(key);
  // A counter that isn't a number counts as none (see CounterValue).
  if (found == values.end() || !CounterValue(key, found->second, &value)) value = -1;
  json[field] = value;
}

int UsageMemcached::GetDomainUsageData(const std::string &domain,
                                       const std::list<std::string> &users,
                                       std::vector<Json::Value> &result,
                                       const std::string &filter) {
  if (!ready_ || domain.empty() || users.empty()) return 0;
  const std::string prefix = Punycode(domain);
  std::vector<std::string> keys;
  _ComposeKeyList(kSenderQuota | kSenderFlow, users, keys);
  _InsertPrefixInList(prefix, keys);
  std::map<std::string, std::string> values;
  if (_GetKeyValue(keys, values) != 0) {
    maillog(3, "%s:%d Get memcached content error", QSV_FILE, __LINE__);
    return -1;
  }
  for (const std::string &user : users) {
    if (user.empty()) continue;
    if (!filter.empty() && user.find(filter) == std::string::npos) continue;
    Json::Value json(Json::objectValue);
    json["name"] = user;
    _ComposeResult("sender_limit", prefix + kQuotaKind + user, values, json);
    _ComposeResult("flow_limit", prefix + kFlowKind + user, values, json);
    if (json["sender_limit"].asInt() != -1 || json["flow_limit"].asInt() != -1) {
      result.push_back(json);
    }
  }
  return 0;
}

int UsageMemcached::DeleteDomainUsageData(const std::string &domain,
                                          const std::list<std::string> &users, const int &type) {
  if (!ready_ || domain.empty() || users.empty()) return 0;
  std::vector<std::string> keys;
  _ComposeKeyList(type, users, keys);
  _InsertPrefixInList(Punycode(domain), keys);
  for (const std::string &key : keys) {
    if (_SafeRemoveKey(key) != 0) {
      maillog(3, "%s:%d Delete memcached key fail: %s", QSV_FILE, __LINE__, key.c_str());
      return -1;
    }
  }
  return 0;
}

int UsageMemcached::UpdateDomainUser(const std::list<std::string> &domains,
                                     const std::string &oldUser, const std::string &newUser) {
  if (!ready_ || newUser.empty() || domains.empty()) return 0;
  for (const std::string &domain : domains) {
    const std::string prefix = Punycode(domain);
    std::vector<std::string> keys;
    _ComposeKeyList(kSenderQuota | kSenderFlow, {oldUser}, keys);
    _InsertPrefixInList(prefix, keys);
    std::map<std::string, std::string> values;
    if (_GetKeyValue(keys, values) != 0) {
      maillog(3, "%s:%d Get memcached content error", QSV_FILE, __LINE__);
      return -1;
    }
    std::map<std::string, std::string> renamed;
    for (const auto &found : values) {
      for (const char *kind : {kQuotaKind, kFlowKind}) {
        if (found.first.rfind(prefix + kind, 0) == 0) renamed[prefix + kind + newUser] = found.second;
      }
      // The old key goes first: a failure after it loses a day's count, never counts it twice.
      if (_SafeRemoveKey(found.first) != 0) {
        maillog(3, "%s:%d Remove memcached old username fail", QSV_FILE, __LINE__);
        return -1;
      }
    }
    if (_SetKeyVal(renamed) != 0) {
      maillog(3, "%s:%d Update memcached username error", QSV_FILE, __LINE__);
      return -1;
    }
  }
  return 0;
}

}  // namespace QUILLON_SERVER
}  // namespace KOLT
