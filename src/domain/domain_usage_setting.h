// The usage limits of one mail domain of the multi-domain feature: five switches (attachment
// limit, daily quota, outbound flow, forwarding, catch-all) and five numbers, kept in two tables of
// the main database and copied to keys of the store ("virtual_domain" tree), where the policy
// daemons read them. The database is the truth; the keys and the synced database file are written
// when the object goes, once per domain touched, so that many changes cost one publication.
//
// An object lives for one request and belongs to one thread.
#ifndef MAILSERVER_DOMAIN_DOMAIN_USAGE_SETTING_H_
#define MAILSERVER_DOMAIN_DOMAIN_USAGE_SETTING_H_

#include <map>
#include <memory>
#include <set>
#include <string>
#include <vector>

#include "foundation/db_handler.h"
#include "foundation/export.h"

namespace MultipleDomain {

enum EN_KEYSET {
  EN_ATTACH = 1,
  EN_QUOTA = 2,
  EN_FLOW = 3,
  EN_FORWARD = 4,
  EN_CATCH_ALL = 5,
};

enum RT_KEYSET {
  RT_ATTACH = 1,
  RT_QUOTA = 2,
  RT_FLOW = 3,
  RT_MAIL_SIZE = 4,
  RT_CATCH_ALL = 5,
};

// A setting's column in its table and the prefix of its key; the key is the prefix and the
// domain's id in decimal.
struct DataMapping {
  std::string column;
  std::string redisKey;
};

class QSV_EXPORT DomainSetting {
 public:
  explicit DomainSetting(const std::string &dbPath);
  // Removes the keys of the domains deleted, then publishes those changed, ascending by id, and
  // spreads the database file. Failures are log lines.
  ~DomainSetting();
  DomainSetting(const DomainSetting &) = delete;
  DomainSetting &operator=(const DomainSetting &) = delete;

  // -1 before a usable connection, 0 when usable, -2 after a failed statement (the next call
  // tries to heal it).
  int GetError() const;

  int DelSettings(const int &domainId);
  // The rows with the tables' defaults; an existing row stays as it is.
  int CreateSettings(const int &domainId);
  int UpdateEnableSettings(const int &domainId, const std::map<EN_KEYSET, bool> &values);
  int UpdateRateSettings(const int &domainId, const std::map<RT_KEYSET, int> &values);
  // A domain without a row gets one with the defaults, which the next call reads.
  int GetEnableSettings(const int &domainId, std::map<EN_KEYSET, bool> &values);
  int GetRateSettings(const int &domainId, std::map<RT_KEYSET, int> &values);
  // Publishes every domain of the multi-domain map.
  int SetAllRedisKey();
  // Removes every key of this feature from the store.
  int CleanupRedisKey();

 private:
  int _Init();
  bool _CheckAndFixStatus();
  bool _HandleError();
  int _HandleDBError();
  // Runs one statement text; a failure marks the object (-2).
  int Exec(const std::string &statement);
  template <typename Key, typename Value>
  int GetSettings(const int &domainId, const char *table, const std::map<int, DataMapping> &map,
                  std::map<Key, Value> &values);
  void _ComposeRedisKeyList(const int &domainId, std::vector<std::string> &keys);
  int _UpdateRedisKey(const int &domainId);
  int _RemoveKeys(const std::vector<std::string> &keys);
  int _RemoveRedisKey(const int &domainId);
  int _GetAllRelativeKeyList(std::vector<std::string> &keys);
  int SyncDatabase();

  int error_;
  std::string dbPath_;
  std::unique_ptr<DBHandler> db_;
  std::map<int, DataMapping> enableMap_;
  std::map<int, DataMapping> rateMap_;
  std::set<int> toRemove_;
  std::set<int> toUpdate_;
};

}  // namespace MultipleDomain

#endif  // MAILSERVER_DOMAIN_DOMAIN_USAGE_SETTING_H_
