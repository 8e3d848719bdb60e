#include "tables/dkim_sign_whitelist.h"

#include "foundation/cidr.h"
#include "foundation/log.h"

namespace {

const char kPath[] = "/var/packages/Quillon-Server/etc/dkim_sign_whitelist.db";
const char kSchema[] =
    "BEGIN TRANSACTION;CREATE TABLE whitelist(id INTEGER, enabled INTEGER, description TEXT, "
    "pattern TEXT, PRIMARY KEY (id));CREATE INDEX IF NOT EXISTS whitelist_enabled_idx ON whitelist "
    "(enabled);CREATE INDEX IF NOT EXISTS whitelist_description_idx ON whitelist "
    "(description);CREATE INDEX IF NOT EXISTS whitelist_pattern_idx ON whitelist "
    "(pattern);COMMIT TRANSACTION;";
const char kSyncKey[] = "mailserver_dkim_sign_whitelist_db";

}  // namespace

// No caller sets a sync flag here: every change is spread.
DKIMSignWhitelist::DKIMSignWhitelist() : db_(kPath, kSchema, kSyncKey) { db_.sync = true; }

DKIMSignWhitelist::~DKIMSignWhitelist() = default;

int DKIMSignWhitelist::ConnectDB() { return db_.ConnectDB(); }

int DKIMSignWhitelist::Add(const DKIMSignWhitelistItem &item) {
  std::string description, pattern;
  if (!PatternListDB::Quoted(item.description, &description) ||
      !PatternListDB::Quoted(item.pattern, &pattern)) {
    return -1;
  }
  return db_.Change(std::string("INSERT INTO whitelist(") + "id, " + "enabled, " + "description, " +
                    "pattern" + ") " + "SELECT MAX(id) + 1, " + (item.enabled ? "1" : "0") + ", " +
                    description + ", " + pattern + " " + "FROM whitelist");
}

int DKIMSignWhitelist::Set(const DKIMSignWhitelistItem &item) {
  std::string cidr;
  if (convertToCIDR(item.pattern, cidr) != 0) {
    maillog(3, "%s:%d Invalid CIDR pattern: '%s'", QSV_FILE, __LINE__, item.pattern.c_str());
    return -1;
  }
  std::string description, pattern;
  if (!PatternListDB::Quoted(item.description, &description) ||
      !PatternListDB::Quoted(item.pattern, &pattern)) {
    return -1;
  }
  return db_.Change(std::string("UPDATE whitelist SET ") + "enabled = " +
                    (item.enabled ? "1" : "0") + ", " + "description = " + description + ", " +
                    "pattern = " + pattern + " " + "WHERE id = " + std::to_string(item.id));
}

int DKIMSignWhitelist::Delete(int id) {
  return db_.Change("DELETE FROM whitelist WHERE id = " + std::to_string(id));
}

int DKIMSignWhitelist::Search(int offset, int limit, int enabled, const std::string &keyword,
                              std::vector<DKIMSignWhitelistItem> &out, bool asCidr) {
  std::string condition = "WHERE 1 ";
  if (enabled != -1) condition += "AND (enabled = " + std::to_string(enabled) + ") ";
  if (!keyword.empty()) {
    std::string like;
    if (!PatternListDB::LikePattern(keyword, &like)) return -1;
    condition += "AND (pattern LIKE " + like + " OR description LIKE " + like + " ) ";
  }
  std::string rows = "SELECT * FROM whitelist " + condition;
  if (limit != -1) {
    rows += "LIMIT '" + std::to_string(limit) + "' OFFSET '" + std::to_string(offset) + "' ";
  }
  std::vector<DKIMSignWhitelistItem> page;
  const int total = db_.Search(rows, "SELECT COUNT(*) FROM whitelist " + condition,
                               [&page](sqlite3_stmt *row) {
                                 DKIMSignWhitelistItem item;
                                 item.id = sqlite3_column_int(row, 0);
                                 item.enabled = sqlite3_column_int(row, 1) != 0;
                                 item.description = PatternListDB::Text(row, 2);
                                 item.pattern = PatternListDB::Text(row, 3);
                                 page.push_back(item);
                               });
  if (total < 0) return -1;
  for (DKIMSignWhitelistItem &item : page) {
    std::string cidr;
    if (convertToCIDR(item.pattern, cidr) != 0) {
      maillog(3, "%s:%d Invalid CIDR pattern: '%s'", QSV_FILE, __LINE__, item.pattern.c_str());
      continue;
    }
    if (asCidr) item.pattern = cidr;
    out.push_back(item);
  }
  return total;
}
