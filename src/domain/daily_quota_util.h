// The management side of the policy daemons' daily usage counters: how much mail each sender has
// sent today, and how much outbound flow, kept in the node's usage memcached (localhost:11211)
// under the key domain + kind + user ("example.com[senderQuota]bob"), the domain in punycode.
// It reads them for the web pages, removes them when a user or a domain goes and moves them when
// a user is renamed; it never counts.
//
// Without the memcached running every call answers 0 and does nothing. An object belongs to one
// caller.
#ifndef MAILSERVER_DOMAIN_DAILY_QUOTA_UTIL_H_
#define MAILSERVER_DOMAIN_DAILY_QUOTA_UTIL_H_

#include <json/json.h>
#include <libmemcached/memcached.h>

#include <list>
#include <map>
#include <string>
#include <vector>

#include "foundation/export.h"

namespace KOLT {
namespace QUILLON_SERVER {

class QSV_EXPORT UsageMemcached {
 public:
  // Bits of a type mask.
  static constexpr int kSenderQuota = 1;
  static constexpr int kSenderFlow = 2;

  UsageMemcached();
  ~UsageMemcached();
  UsageMemcached(const UsageMemcached &) = delete;
  UsageMemcached &operator=(const UsageMemcached &) = delete;

  // One object per user with a counter today: {"name", "sender_limit", "flow_limit"}, -1 for a
  // counter that isn't there; only users whose name holds `filter` (when not empty).
  int GetDomainUsageData(const std::string &domain, const std::list<std::string> &users,
                         std::vector<Json::Value> &result, const std::string &filter);
  // Removes the counters of `type` (bits above) of the users; the first failure stops.
  int DeleteDomainUsageData(const std::string &domain, const std::list<std::string> &users,
                            const int &type);
  // Moves the user's counters in each domain to the new name, with a fresh day to live.
  int UpdateDomainUser(const std::list<std::string> &domains, const std::string &oldUser,
                       const std::string &newUser);

 private:
  int _CheckKeyExist(const std::string &key);
  int _RemoveKey(const std::string &key);
  int _SafeRemoveKey(const std::string &key);
  void _InsertPrefixInList(const std::string &prefix, std::vector<std::string> &keys);
  int _SetKeyVal(const std::map<std::string, std::string> &values);
  void _ComposeKeyList(int type, const std::list<std::string> &users,
                       std::vector<std::string> &keys);
  void _ComposeResult(const std::string &field, const std::string &key,
                      const std::map<std::string, std::string> &values, Json::Value &json);
  int _GetKeyValue(const std::vector<std::string> &keys,
                   std::map<std::string, std::string> &values);

  int status_;
  bool ready_;
  std::string server_;
  memcached_st *memc_;
  memcached_return_t result_;
  memcached_server_st *servers_;
};

}  // namespace QUILLON_SERVER
}  // namespace KOLT

#endif  // MAILSERVER_DOMAIN_DAILY_QUOTA_UTIL_H_
