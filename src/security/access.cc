#include "security/access.h"

#include <sqlite3.h>

#include <cctype>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <string>

#include "config/postfix.h"
#include "foundation/files.h"
#include "foundation/log.h"
#include "foundation/mailserver_db_schema.h"
#include "foundation/strings.h"
#include "kolt/str.h"
#include "kolt/szlist.h"
#include "security/list_document.h"

namespace {

constexpr int kBusyTimeoutMs = 60000;
constexpr int kStatementSize = 1024;
constexpr int kExportPage = 1024;

// The statement of `format` and its arguments, or "" when it does not fit `size` bytes: a cut
// statement would fail for a reason nobody could see, or touch another row.
template <typename... Args>
std::string Statement(int size, const char *format, Args... args) {
  char *text = sqlite3_mprintf(format, args...);
  std::string statement;
  if (text != nullptr && strlen(text) < static_cast<size_t>(size)) {
    statement = text;
  } else {
    maillog(3, "%s:%d invalid input: a statement longer than %d bytes", QSV_FILE, __LINE__, size);
  }
  sqlite3_free(text);
  return statement;
}

int TypeOfWord(const std::string &word) {
  if (word == "sender") return TYPE_FROM;
  if (word == "recipient") return TYPE_TO;
  if (word == "client") return TYPE_CLIENT;
  return -1;
}

std::string GetCountCmd(const Access::Filter &filter) {
  if (filter.name.empty()) return "SELECT COUNT(*) FROM access_table;";
  if (filter.type == "all") {
    return Statement(kStatementSize, "SELECT COUNT(*) FROM access_table WHERE name LIKE '%%%q%%'",
                     filter.name.c_str());
  }
  const int type = TypeOfWord(filter.type);
  if (type < 0) return "";
  return Statement(kStatementSize,
                   "SELECT COUNT(*) FROM access_table WHERE type='%d' AND name LIKE '%%%q%%'", type,
                   filter.name.c_str());
}

std::string GetQueryCmd(const Access::Filter &filter) {
  if (filter.name.empty()) {
    return Statement(kStatementSize, "SELECT * FROM access_table LIMIT '%d' OFFSET '%d'",
                     filter.limit, filter.offset);
  }
  if (filter.type == "all") {
    return Statement(kStatementSize,
                     "SELECT * FROM access_table WHERE name LIKE '%%%q%%' LIMIT '%d' OFFSET '%d'",
                     filter.name.c_str(), filter.limit, filter.offset);
  }
  const int type = TypeOfWord(filter.type);
  if (type < 0) return "";
  return Statement(
      kStatementSize,
      "SELECT * FROM access_table WHERE type='%d' AND name LIKE '%%%q%%' LIMIT '%d' OFFSET '%d'",
      type, filter.name.c_str(), filter.limit, filter.offset);
}

// The map's regular expression of a stored name: each "*" any run, everything else literal.
//
// Two guards beyond the plain form "/name/" (a form whose import is still understood):
// - every character the regular expression language gives a meaning is escaped, not only ".":
//   an address such as "user+tag@example.com" would otherwise match other addresses and never
//   itself, and a "(" or "[" would make the expression invalid and so the whole map unreadable;
// - the pattern is anchored: an unanchored "/boss@example\.com/ OK" also lets in
//   "theboss@example.com.attacker.test". A domain is anchored at the end and after the "@" (or at
//   the start, for a client's host name), so it still matches every address of that domain.
std::string NameToPattern(const std::string &name, NameType nameType) {
  std::string body;
  for (const char c : name) {
    if (c == '*') {
      body += ".*";
    } else if (c != '\0' && strchr("\\^$.|?+()[]{}/", c) != nullptr) {
      body += '\\';
      body += c;
    } else {
      body += c;
    }
  }
  switch (nameType) {
    case NAME_TYPE_ACCOUNT:
      return "^" + body + "@.*$";
    case NAME_TYPE_DOMAIN:
      return "(^|@)" + body + "$";
    default:
      return "^" + body + "$";
  }
}

// The stored name of a map pattern: slashes and anchors dropped, escapes undone, ".*" back to "*".
std::string PatternToName(const std::string &word) {
  std::string pattern = word;
  if (pattern.size() > 2 && pattern.front() == '/' && pattern.back() == '/') {
    pattern = pattern.substr(1, pattern.size() - 2);
  }
  size_t begin = 0;
  if (pattern.compare(0, 5, "(^|@)") == 0) {
    begin = 5;
  } else if (pattern.compare(0, 1, "^") == 0) {
    begin = 1;
  }
  std::string name;
  for (size_t i = begin; i < pattern.size(); ++i) {
    if (pattern[i] == '\\' && i + 1 < pattern.size()) {
      name += pattern[++i];
    } else if (pattern[i] == '.' && i + 1 < pattern.size() && pattern[i + 1] == '*') {
      name += '*';
      ++i;
    } else if (pattern[i] == '$' && i + 1 == pattern.size()) {
      break;  // the end anchor; an escaped "$" was taken above
    } else {
      name += pattern[i];
    }
  }
  return name;
}

}  // namespace

Access *Access::_access = nullptr;

Access::Access(const std::string &dbPath) : dbPath_(dbPath) {}

Access *Access::getInstance(const std::string &dbPath) {
  if (_access != nullptr) return _access;
  Access *access = new Access(dbPath);
  if (access->dbInit() != 0) {
    maillog(3, "%s:%d access db init fail", QSV_FILE, __LINE__);
    delete access;
    return nullptr;
  }
  _access = access;
  return _access;
}

int Access::dbInit() {
  db_.reset(new DBHandler(dbPath_, kMailServerDBSchema));
  if (db_->connect() != 0) {
    maillog(3, "%s:%d db connect fail", QSV_FILE, __LINE__);
    return -1;
  }
  db_->setBusyTimeout(kBusyTimeoutMs);
  return 0;
}

int Access::disconnectDB() {
  if (db_) db_->disconnect();
  return 0;
}

AccessStatus Access::StrToStatus(const char *text) {
  if (text == nullptr) return ACCESS_UNKNOWN;
  char word[64];
  snprintf(word, sizeof(word), "%s", text);
  if (KLIBCStrTrimSpace(word, 0) < 0) {
    maillog(3, "%s:%d trim fail", QSV_FILE, __LINE__);
    return ACCESS_UNKNOWN;
  }
  for (char *c = word; *c != '\0'; ++c) *c = static_cast<char>(tolower(static_cast<unsigned char>(*c)));
  if (strcmp(word, "reject") == 0) return ACCESS_REJECT;
  if (strcmp(word, "ok") == 0 || strcmp(word, "permit") == 0) return ACCESS_OK;
  if (strcmp(word, "discard") == 0) return ACCESS_DISCARD;
  return ACCESS_UNKNOWN;
}

const char *Access::StatusToStr(AccessStatus status) {
  switch (status) {
    case ACCESS_OK:
      return "OK";
    case ACCESS_REJECT:
      return "REJECT";
    case ACCESS_DISCARD:
      return "DISCARD";
    default:
      return "UNKNOWN";
  }
}

bool Access::Query(const std::string &statement, std::list<AccessInfo> &out) {
  // After disconnectDB the table stays usable: it connects again on demand.
  if (statement.empty() || !db_ || (!db_->isConnect() && dbInit() != 0)) return false;
  sqlite3 *db = db_->getDB();
  sqlite3_stmt *query = nullptr;
  int rc = sqlite3_prepare_v2(db, statement.c_str(), -1, &query, nullptr);
  if (rc != SQLITE_OK) {
    maillog(3, "%s:%d sqlite3_prepare_v2: [%d] %s\n", QSV_FILE, __LINE__, rc, sqlite3_errmsg(db));
    sqlite3_finalize(query);
    return false;
  }
  while ((rc = sqlite3_step(query)) == SQLITE_ROW) {
    if (sqlite3_column_count(query) < 4) {
      // A count: its one column is the answer.
      out.push_back({"", static_cast<AccessStatus>(sqlite3_column_int(query, 0)), TYPE_ALL,
                     NAME_TYPE_ALL});
      continue;
    }
    const auto *name = reinterpret_cast<const char *>(sqlite3_column_text(query, 1));
    out.push_back({name != nullptr ? name : "",
                   static_cast<AccessStatus>(sqlite3_column_int(query, 3)),
                   static_cast<Type>(sqlite3_column_int(query, 2)),
                   static_cast<NameType>(sqlite3_column_int(query, 0))});
  }
  if (rc != SQLITE_DONE) {
    maillog(3, "%s:%d sqlite3_step: [%d] %s\n", QSV_FILE, __LINE__, rc, sqlite3_errmsg(db));
  }
  sqlite3_finalize(query);
  return rc == SQLITE_DONE;
}

int Access::setAccess(const std::list<AccessInfo> &rows) {
  SQLCmd statements;
  for (const AccessInfo &row : rows) {
    // The names end up in the mail daemon's map, a line each.
    std::string statement;
    if (ListNameAcceptable(row.name)) {
      statement = Statement(kStatementSize,
                            "INSERT OR REPLACE INTO access_table (name_type, name,type,access) "
                            "VALUES ('%d','%q','%d','%d');",
                            static_cast<int>(row.nameType), row.name.c_str(),
                            static_cast<int>(row.type), static_cast<int>(row.status));
    } else {
      maillog(3, "%s:%d invalid input: a name that is empty, not UTF-8 or holds a control character",
              QSV_FILE, __LINE__);
    }
    if (statement.empty()) {
      maillog(3, "%s:%d fail to insert info into access table", QSV_FILE, __LINE__);
      return -1;
    }
    statements.push_back(statement);
  }
  if (!db_ || (!db_->isConnect() && dbInit() != 0) || db_->exeCmds(statements, true) != 0) {
    maillog(3, "%s:%d fail to insert info into access table", QSV_FILE, __LINE__);
    return -1;
  }
  return 0;
}

int Access::deleteAccess(const std::list<AccessInfo> &rows) {
  SQLCmd statements;
  for (const AccessInfo &row : rows) {
    const std::string statement =
        Statement(kStatementSize,
                  "DELETE FROM access_table WHERE name_type='%d' AND name='%q' AND type='%d';",
                  static_cast<int>(row.nameType), row.name.c_str(), static_cast<int>(row.type));
    if (statement.empty()) {
      maillog(3, "%s:%d fail to delete info into access table", QSV_FILE, __LINE__);
      return -1;
    }
    statements.push_back(statement);
  }
  if (!db_ || (!db_->isConnect() && dbInit() != 0) || db_->exeCmds(statements, true) != 0) {
    maillog(3, "%s:%d fail to delete info into access table", QSV_FILE, __LINE__);
    return -1;
  }
  return 0;
}

int Access::addAccess(Type type, NameType nameType, const std::string &name, AccessStatus status) {
  return setAccess({{name, status, type, nameType}});
}

std::list<AccessInfo> Access::getAccessList(Type type, int offset, int limit) {
  std::list<AccessInfo> rows;
  const std::string statement = Statement(
      kStatementSize,
      "SELECT * FROM access_table WHERE type='%d' ORDER BY %q %q LIMIT '%d' OFFSET '%d'",
      static_cast<int>(type), "name", "desc", limit, offset);
  if (!Query(statement, rows)) {
    maillog(3, "%s:%d load Access data fail", QSV_FILE, __LINE__);
    rows.clear();
  }
  return rows;
}

std::list<AccessInfo> Access::getAllAccessList(const Filter &filter) {
  std::list<AccessInfo> rows;
  if (!Query(GetQueryCmd(filter), rows)) {
    maillog(3, "%s:%d load Access data fail", QSV_FILE, __LINE__);
    rows.clear();
  }
  return rows;
}

int Access::getTotalAccessNum(const Filter &filter) {
  std::list<AccessInfo> count;
  if (!Query(GetCountCmd(filter), count) || count.size() != 1) return -1;
  return static_cast<int>(count.front().status);
}

int Access::exportAccess(Type type, const std::string &path) {
  Postfix postfix;
  if (postfix.LoadSettings() < 0) {
    maillog(3, "%s:%d get domain name fail", QSV_FILE, __LINE__);
    return -1;
  }
  std::string map;
  for (int offset = 0;; offset += kExportPage) {
    const std::list<AccessInfo> page = getAccessList(type, offset, kExportPage);
    if (page.empty()) break;
    for (const AccessInfo &row : page) {
      map += "/" + NameToPattern(row.name, row.nameType) + "/ " + StatusToStr(row.status);
      map += "\n";
    }
  }
  // The map is read by the mail daemon while it is written: it gets the old one or the new one.
  if (WriteWholeFile(path, map) != 0) {
    maillog(3, "%s:%d open file %s fail", QSV_FILE, __LINE__, path.c_str());
    return -1;
  }
  return 0;
}

int Access::importAccess(Type type, const std::string &path) {
  std::list<AccessInfo> rows;
  const bool read = ForEachWordLine(path, [&](const KLIBSZLIST *words, const std::string &) {
    if (KLIBCSzListCount(words) != 2) return;
    const AccessStatus status = StrToStatus(KLIBCSzListGet(words, 1));
    if (status == ACCESS_UNKNOWN) return;
    const std::string name = PatternToName(KLIBCSzListGet(words, 0));
    rows.push_back({name, status, type,
                    name.find('@') != std::string::npos ? NAME_TYPE_ADDRESS : NAME_TYPE_DOMAIN});
  });
  if (!read || setAccess(rows) != 0) {
    maillog(3, "%s:%d import list fail, type: %d", QSV_FILE, __LINE__, static_cast<int>(type));
    return -1;
  }
  return 0;
}
