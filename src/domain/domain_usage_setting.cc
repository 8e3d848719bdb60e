#include "domain/domain_usage_setting.h"

#include <sqlite3.h>

#include "cluster/backendWrapper.h"
#include "config/postfix.h"
#include "foundation/log.h"
#include "foundation/mailserver_db_schema.h"
#include "kolt/file.h"

namespace MultipleDomain {

namespace {

constexpr int kBusyTimeoutMs = 60000;
constexpr int kStatementFailed = -2;
const char kEnableTable[] = "multi_domain_enable_table";
const char kRateTable[] = "multi_domain_rate_table";
const char kSyncedKey[] = "domain_setting_db";
const char kKeyTree[] = "virtual_domain";

}  // namespace

DomainSetting::DomainSetting(const std::string &dbPath) : error_(-1), dbPath_(dbPath) {
  enableMap_ = {{EN_ATTACH, {"en_attach", "enable_attachment-"}},
                {EN_QUOTA, {"en_quota", "enable_daily_quota-"}},
                {EN_FLOW, {"en_flow", "enable_outbound_flow-"}},
                {EN_FORWARD, {"en_forward", "enable_auto_forward-"}},
                {EN_CATCH_ALL, {"en_catch_all", "enable_catch_all-"}}};
  rateMap_ = {{RT_ATTACH, {"rt_attach", "attachment_limit-"}},
              {RT_QUOTA, {"rt_quota", "daily_quota_limit-"}},
              {RT_FLOW, {"rt_flow", "outbound_flow_limit-"}},
              {RT_MAIL_SIZE, {"rt_mail_size", "mail_size_limit-"}},
              {RT_CATCH_ALL, {"catch_all", "catch_all-"}}};
  error_ = _Init();
}

DomainSetting::~DomainSetting() {
  for (const int id : toRemove_) _RemoveRedisKey(id);
  for (const int id : toUpdate_) _UpdateRedisKey(id);
  if (db_) db_->disconnect();
  db_.reset();
  if (error_ < 0) maillog(3, "%s:%d Domain usage setting db has internal error", QSV_FILE, __LINE__);
}

int DomainSetting::GetError() const { return error_; }

int DomainSetting::_Init() {
  if (!KLIBCFileExist(dbPath_.c_str())) {
    maillog(3, "%s:%d Domain settings db file does not exist", QSV_FILE, __LINE__);
    return -1;
  }
  db_.reset(new DBHandler(dbPath_, kMailServerDBSchema));
  if (db_->connect() != 0) {
    maillog(3, "%s:%d Cannot connect domain usage setting db", QSV_FILE, __LINE__);
    return -1;
  }
  db_->setBusyTimeout(kBusyTimeoutMs);
  return 0;
}

int DomainSetting::_HandleDBError() {
  if (!db_) {
    maillog(1, "%s:%d No db create, exit error handle", QSV_FILE, __LINE__);
    return -1;
  }
  // Only a damaged file needs mending; a statement that failed for its own reason leaves the
  // connection as good as it was.
  if (db_->getErrCode() != SQLITE_CORRUPT) return 0;
  maillog(3, "%s:%d mailserver db corrupt, need regen", QSV_FILE, __LINE__);
  return db_->regenDB();
}

bool DomainSetting::_HandleError() {
  if (error_ == kStatementFailed) {
    if (_HandleDBError() == 0) error_ = 0;
  } else {
    error_ = _Init();
  }
  return error_ == 0;
}

bool DomainSetting::_CheckAndFixStatus() {
  if (error_ >= 0 || _HandleError()) return true;
  maillog(3, "%s:%d DomainSetting internal error", QSV_FILE, __LINE__);
  return false;
}

int DomainSetting::Exec(const std::string &statement) {
  if (db_->ExecCmd(statement) != SQLITE_OK) {
    error_ = kStatementFailed;
    return -1;
  }
  return 0;
}

int DomainSetting::CreateSettings(const int &domainId) {
  if (!_CheckAndFixStatus()) return -1;
  const std::string id = std::to_string(domainId);
  std::string sql;
  for (const char *table : {kEnableTable, kRateTable}) {
    sql += std::string("INSERT INTO '") + table + "' (domain_id) SELECT " + id +
           " WHERE NOT EXISTS (SELECT 1 FROM " + table + " WHERE domain_id=" + id + ");";
  }
  if (Exec(sql) != 0) return -1;
  toUpdate_.insert(domainId);
  return 0;
}

int DomainSetting::DelSettings(const int &domainId) {
  if (!_CheckAndFixStatus()) return -1;
  const std::string id = std::to_string(domainId);
  std::string sql;
  for (const char *table : {kEnableTable, kRateTable}) {
    sql += std::string("DELETE FROM '") + table + "' WHERE (domain_id='" + id + "');";
  }
  if (Exec(sql) != 0) return -1;
  toRemove_.insert(domainId);
  return 0;
}

int DomainSetting::UpdateEnableSettings(const int &domainId,
                                        const std::map<EN_KEYSET, bool> &values) {
  if (!_CheckAndFixStatus()) return -1;
  std::string sets;
  for (const auto &value : values) {
    const auto mapping = enableMap_.find(value.first);
    if (mapping == enableMap_.end()) continue;
    if (!sets.empty()) sets += ",";
    sets += "'" + mapping->second.column + "'='" + (value.second ? "1" : "0") + "'";
  }
  // With nothing to set the text is malformed: it fails and marks the object, as it should.
  if (Exec(std::string("UPDATE '") + kEnableTable + "' SET" + sets + " WHERE (domain_id='" +
           std::to_string(domainId) + "');") != 0) {
    return -1;
  }
  toUpdate_.insert(domainId);
  return 0;
}

int DomainSetting::UpdateRateSettings(const int &domainId, const std::map<RT_KEYSET, int> &values) {
  if (!_CheckAndFixStatus()) return -1;
  std::string sets;
  for (const auto &value : values) {
    const auto mapping = rateMap_.find(value.first);
    if (mapping == rateMap_.end()) continue;
    if (!sets.empty()) sets += ",";
    sets += "'" + mapping->second.column + "'='" + std::to_string(value.second) + "'";
  }
  if (Exec(std::string("UPDATE '") + kRateTable + "' SET" + sets + " WHERE (domain_id='" +
           std::to_string(domainId) + "');") != 0) {
    return -1;
  }
  toUpdate_.insert(domainId);
  return 0;
}

// Reads the domain's row of `table` into `values` by the columns of `map`; a domain without a row
// gets one made, and the caller reads the defaults next time.
template <typename Key, typename Value>
int DomainSetting::GetSettings(const int &domainId, const char *table,
                               const std::map<int, DataMapping> &map,
                               std::map<Key, Value> &values) {
  values.clear();
  const std::string sql = std::string("SELECT * FROM '") + table + "' WHERE (domain_id='" +
                          std::to_string(domainId) + "');";
  sqlite3_stmt *query = nullptr;
  if (sqlite3_prepare_v2(db_->getDB(), sql.c_str(), -1, &query, nullptr) != SQLITE_OK) {
    maillog(3, "%s:%d Prepare db error", QSV_FILE, __LINE__);
    sqlite3_finalize(query);
    return -1;
  }
  bool found = false;
  int rc;
  while ((rc = sqlite3_step(query)) == SQLITE_ROW) {
    found = true;
    for (int i = 0; i < sqlite3_column_count(query); ++i) {
      const char *name = sqlite3_column_name(query, i);
      for (const auto &mapping : map) {
        if (mapping.second.column == name) {
          values[static_cast<Key>(mapping.first)] = static_cast<Value>(sqlite3_column_int(query, i));
        }
      }
    }
  }
  if (rc != SQLITE_DONE) {
    maillog(3, "%s:%d sqlite3_step: [%d] %s\n", QSV_FILE, __LINE__, rc,
            sqlite3_errmsg(db_->getDB()));
    sqlite3_finalize(query);
    return -1;
  }
  sqlite3_finalize(query);
  if (!found) {
    maillog(3, "%s:%d Get domain[%d] info fail", QSV_FILE, __LINE__, domainId);
    if (CreateSettings(domainId) != 0) {
      maillog(3, "%s:%d Fix domain[%d] usage setting fail", QSV_FILE, __LINE__, domainId);
      return -1;
    }
  }
  return 0;
}

int DomainSetting::GetEnableSettings(const int &domainId, std::map<EN_KEYSET, bool> &values) {
  if (!_CheckAndFixStatus()) return -1;
  return GetSettings(domainId, kEnableTable, enableMap_, values);
}

int DomainSetting::GetRateSettings(const int &domainId, std::map<RT_KEYSET, int> &values) {
  if (!_CheckAndFixStatus()) return -1;
  return GetSettings(domainId, kRateTable, rateMap_, values);
}

void DomainSetting::_ComposeRedisKeyList(const int &domainId, std::vector<std::string> &keys) {
  for (const auto *map : {&enableMap_, &rateMap_}) {
    for (const auto &mapping : *map) keys.push_back(mapping.second.redisKey + std::to_string(domainId));
  }
}

int DomainSetting::SyncDatabase() {
  KOLT::QUILLON_SERVER::QuillonServerBACKENDWrap backend;
  if (!backend.setFile(kSyncedKey, kMailServerDBPath, nullptr)) {
    maillog(3, "%s:%d Fail to set file %s", QSV_FILE, __LINE__, kMailServerDBPath);
    return -1;
  }
  return 0;
}

int DomainSetting::_UpdateRedisKey(const int &domainId) {
  std::map<EN_KEYSET, bool> enables;
  std::map<RT_KEYSET, int> rates;
  if (GetEnableSettings(domainId, enables) != 0 || GetRateSettings(domainId, rates) != 0) {
    maillog(3, "%s:%d Get usage limit db error", QSV_FILE, __LINE__);
    return -1;
  }
  KOLT::QUILLON_SERVER::QuillonServerBACKENDWrap backend;
  const std::string id = std::to_string(domainId);
  bool ok = true;
  for (const auto &value : enables) {
    ok = ok && backend.setKey(enableMap_[value.first].redisKey + id, value.second ? "yes" : "no", 0);
  }
  for (const auto &value : rates) {
    ok = ok && backend.setKey(rateMap_[value.first].redisKey + id, std::to_string(value.second), 0);
  }
  if (!ok) {
    maillog(3, "%s:%d Set usage limit redis key fail", QSV_FILE, __LINE__);
    maillog(3, "%s:%d Update redis key error", QSV_FILE, __LINE__);
    return -1;
  }
  if (SyncDatabase() != 0) {
    maillog(3, "%s:%d Sync domain usage limit db fail", QSV_FILE, __LINE__);
    return -1;
  }
  return 0;
}

int DomainSetting::_RemoveKeys(const std::vector<std::string> &keys) {
  KOLT::QUILLON_SERVER::QuillonServerBACKENDWrap backend;
  int rc = 0;
  for (const std::string &key : keys) {
    if (backend.exist(key) && !backend.removeKey(key)) {
      maillog(3, "%s:%d Failed to remove key '%s'", QSV_FILE, __LINE__, key.c_str());
      rc = -1;
    }
  }
  return rc;
}

int DomainSetting::_RemoveRedisKey(const int &domainId) {
  std::vector<std::string> keys;
  _ComposeRedisKeyList(domainId, keys);
  int rc = _RemoveKeys(keys);
  if (SyncDatabase() != 0) {
    maillog(3, "%s:%d Sync domain usage limit db fail", QSV_FILE, __LINE__);
    rc = -1;
  }
  return rc;
}

int DomainSetting::SetAllRedisKey() {
  if (!_CheckAndFixStatus()) return -1;
  Postfix postfix;
  if (postfix.LoadSettings() < 0) {
    maillog(3, "%s:%d Load postfix error", QSV_FILE, __LINE__);
    return -1;
  }
  for (const auto &domain : postfix.GetMultiDomainMap()) {
    if (_UpdateRedisKey(domain.first) != 0) {
      maillog(3, "%s:%d Update domain usage info fail domainId: %d", QSV_FILE, __LINE__,
              domain.first);
    }
  }
  return 0;
}

int DomainSetting::_GetAllRelativeKeyList(std::vector<std::string> &keys) {
  std::vector<std::string> children;
  if (!KOLT::QUILLON_SERVER::QuillonServerBACKENDWrap().ls(kKeyTree, children)) {
    maillog(3, "%s:%d List %s redis tree fail", QSV_FILE, __LINE__, kKeyTree);
    return -1;
  }
  for (const std::string &child : children) {
    bool ours = false;
    for (const auto *map : {&enableMap_, &rateMap_}) {
      for (const auto &mapping : *map) ours = ours || child.rfind(mapping.second.redisKey, 0) == 0;
    }
    if (ours) keys.push_back(child);
  }
  return 0;
}

int DomainSetting::CleanupRedisKey() {
  if (!_CheckAndFixStatus()) return -1;
  std::vector<std::string> keys;
  if (_GetAllRelativeKeyList(keys) != 0) {
    maillog(3, "%s:%d Get redis tree fail", QSV_FILE, __LINE__);
    return -1;
  }
  if (_RemoveKeys(keys) != 0) {
    maillog(3, "%s:%d Clean all relative to domain setting redis key fail", QSV_FILE, __LINE__);
    return -1;
  }
  return 0;
}

}  // namespace MultipleDomain
