#include "tables/global_access.h"

#include <cstring>

#include "eai/punycode.h"
#include "foundation/cidr.h"
#include "foundation/log.h"

namespace {

const char kPath[] = "/var/packages/Quillon-Server/etc/global_access_list.db";
const char kSchema[] =
    "BEGIN TRANSACTION;CREATE TABLE blacklist(id INTEGER, enabled INTEGER, type INTEGER, "
    "description TEXT, pattern TEXT, action INTEGER, PRIMARY KEY (id));CREATE INDEX IF NOT EXISTS "
    "blacklist_enabled_idx ON blacklist (enabled);CREATE INDEX IF NOT EXISTS blacklist_type_idx ON "
    "blacklist (type);CREATE INDEX IF NOT EXISTS blacklist_description_idx ON blacklist "
    "(description);CREATE INDEX IF NOT EXISTS blacklist_pattern_idx ON blacklist (pattern);CREATE "
    "TABLE whitelist(id INTEGER, enabled INTEGER, type INTEGER, description TEXT, pattern TEXT, "
    "action INTEGER, PRIMARY KEY (id));CREATE INDEX IF NOT EXISTS whitelist_enabled_idx ON "
    "whitelist (enabled);CREATE INDEX IF NOT EXISTS whitelist_type_idx ON whitelist (type);CREATE "
    "INDEX IF NOT EXISTS whitelist_description_idx ON whitelist (description);CREATE INDEX IF NOT "
    "EXISTS whitelist_pattern_idx ON whitelist (pattern);COMMIT TRANSACTION;";
const char kSyncKey[] = "mailserver_global_access_db";

// The table names go into statements as they stand: only the two of the file.
bool KnownTable(const char *table) {
  if (table != nullptr && (strcmp(table, "blacklist") == 0 || strcmp(table, "whitelist") == 0)) {
    return true;
  }
  maillog(3, "%s:%d invalid input: no list %s", QSV_FILE, __LINE__, table != nullptr ? table : "");
  return false;
}

}  // namespace

GlobalAccess::GlobalAccess() : db_(kPath, kSchema, kSyncKey) {}

GlobalAccess::~GlobalAccess() = default;

void GlobalAccess::SetSyncFlag(bool sync) { db_.sync = sync; }

int GlobalAccess::ConnectDB() { return db_.ConnectDB(); }

int GlobalAccess::Add(const char *table, const GlobalAccessItem &item) {
  std::string description, pattern;
  if (!KnownTable(table) || !PatternListDB::Quoted(item.description, &description) ||
      !PatternListDB::Quoted(item.pattern, &pattern)) {
    return -1;
  }
  return db_.Change(std::string("INSERT INTO ") + table + "(" + "id, " + "enabled, " + "type, " +
                    "description, " + "pattern, " + "action" + ") " + "SELECT MAX(id) + 1, " +
                    (item.enabled ? "1" : "0") + ", " + std::to_string(item.type) + ", " +
                    description + ", " + pattern + ", " + std::to_string(item.action) + " " +
                    "FROM " + table);
}

int GlobalAccess::Set(const char *table, const GlobalAccessItem &item) {
  std::string cidr;
  if (item.type == GLOBAL_ACCESS_NETWORK && convertToCIDR(item.pattern, cidr) != 0) {
    maillog(3, "%s:%d Invalid CIDR pattern: '%s'", QSV_FILE, __LINE__, item.pattern.c_str());
    return -1;
  }
  std::string description, pattern;
  if (!KnownTable(table) || !PatternListDB::Quoted(item.description, &description) ||
      !PatternListDB::Quoted(item.pattern, &pattern)) {
    return -1;
  }
  return db_.Change(std::string("UPDATE ") + table + " SET " + "enabled = " +
                    (item.enabled ? "1" : "0") + ", " + "type = " + std::to_string(item.type) +
                    ", " + "description = " + description + ", " + "pattern = " + pattern + ", " +
                    "action = " + std::to_string(item.action) + " " + "WHERE id = " +
                    std::to_string(item.id));
}

int GlobalAccess::Delete(const char *table, int id) {
  if (!KnownTable(table)) return -1;
  return db_.Change(std::string("DELETE FROM ") + table + " WHERE id = " + std::to_string(id));
}

int GlobalAccess::Search(const char *table, int offset, int limit, int enabled,
                         GlobalAccessType typeMask, const std::string &keyword,
                         std::vector<GlobalAccessItem> &out, bool asCidr, bool asPunycode) {
  if (!KnownTable(table)) return -1;
  std::string condition = "WHERE 1 ";
  if (enabled != -1) condition += "AND (enabled = " + std::to_string(enabled) + ") ";
  if (typeMask != GLOBAL_ACCESS_ALL) {
    condition += "AND (0 ";
    for (int bit = 1; bit < GLOBAL_ACCESS_ALL; bit <<= 1) {
      if (typeMask & bit) condition += "OR type = " + std::to_string(bit) + " ";
    }
    condition += ") ";
  }
  if (!keyword.empty()) {
    std::string like;
    if (!PatternListDB::LikePattern(keyword, &like)) return -1;
    condition += "AND (pattern LIKE " + like + " OR description LIKE " + like + " ) ";
  }
  std::string rows = std::string("SELECT * FROM ") + table + " " + condition;
  if (limit != -1) {
    rows += "LIMIT '" + std::to_string(limit) + "' OFFSET '" + std::to_string(offset) + "' ";
  }
  std::vector<GlobalAccessItem> page;
  const int total = db_.Search(rows, std::string("SELECT COUNT(*) FROM ") + table + " " + condition,
                               [&page](sqlite3_stmt *row) {
                                 GlobalAccessItem item;
                                 item.id = sqlite3_column_int(row, 0);
                                 item.enabled = sqlite3_column_int(row, 1) != 0;
                                 item.type =
                                     static_cast<GlobalAccessType>(sqlite3_column_int(row, 2));
                                 item.description = PatternListDB::Text(row, 3);
                                 item.pattern = PatternListDB::Text(row, 4);
                                 item.action = sqlite3_column_int(row, 5);
                                 page.push_back(item);
                               });
  if (total < 0) return -1;
  for (GlobalAccessItem &item : page) {
    if (asCidr && item.type == GLOBAL_ACCESS_NETWORK) {
      std::string cidr;
      if (convertToCIDR(item.pattern, cidr) != 0) {
        maillog(3, "%s:%d Invalid CIDR pattern: '%s'", QSV_FILE, __LINE__, item.pattern.c_str());
        continue;
      }
      item.pattern = cidr;
    }
    if (asPunycode) {
      std::string ascii;
      if (KOLT::QUILLON_SERVER::ConvertToPunycode(item.pattern, ascii) == 0) {
        item.pattern = ascii;
      } else {
        maillog(3, "%s:%d Failed to convert to punycode: '%s'", QSV_FILE, __LINE__,
                item.pattern.c_str());
      }
    }
    out.push_back(item);
  }
  return total;
}

int GlobalAccess::AddBlacklist(const GlobalAccessItem &item) { return Add("blacklist", item); }
int GlobalAccess::AddWhitelist(const GlobalAccessItem &item) { return Add("whitelist", item); }
int GlobalAccess::SetBlacklist(const GlobalAccessItem &item) { return Set("blacklist", item); }
int GlobalAccess::SetWhitelist(const GlobalAccessItem &item) { return Set("whitelist", item); }
int GlobalAccess::DeleteBlacklist(int id) { return Delete("blacklist", id); }
int GlobalAccess::DeleteWhitelist(int id) { return Delete("whitelist", id); }

int GlobalAccess::SearchBlacklist(int offset, int limit, int enabled, GlobalAccessType typeMask,
                                  const std::string &keyword, std::vector<GlobalAccessItem> &out,
                                  bool asCidr, bool asPunycode) {
  return Search("blacklist", offset, limit, enabled, typeMask, keyword, out, asCidr, asPunycode);
}

int GlobalAccess::SearchWhitelist(int offset, int limit, int enabled, GlobalAccessType typeMask,
                                  const std::string &keyword, std::vector<GlobalAccessItem> &out,
                                  bool asCidr, bool asPunycode) {
  return Search("whitelist", offset, limit, enabled, typeMask, keyword, out, asCidr, asPunycode);
}
