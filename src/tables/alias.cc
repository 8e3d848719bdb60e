#include "tables/alias.h"

#include <pwd.h>
#include <sqlite3.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdarg>
#include <cstring>

#include "cluster/backendWrapper.h"
#include "cluster/mailserver_cluster.h"
#include "config/postfix.h"
#include "core/mail_conf.h"
#include "foundation/db_handler.h"
#include "foundation/log.h"
#include "foundation/privilege.h"
#include "foundation/utf8.h"
#include "kolt/file.h"
#include "kolt/user.h"

namespace {

constexpr char kTable[] = "alias_info_table";
constexpr char kLockPath[] = "/tmp/quillon_server_alias_db.lock";
constexpr char kSyncKey[] = "mailserver_alias_db";
constexpr char kPackageUser[] = "Quillon-Server";
constexpr int kLockWaitSeconds = 30;
constexpr int kBusyTimeoutMs = 60000;
constexpr size_t kCommandSize = 1024;
constexpr size_t kSchemaSize = 4096;

#define ALIAS_SCHEMA(ROOT_MEMBER)                                                               \
  "BEGIN TRANSACTION;create table alias_info_table(alias TEXT, member TEXT, type INTEGER, "     \
  "domain_idx INTEGER);CREATE INDEX alias_index ON alias_info_table (alias);CREATE INDEX "      \
  "member_index ON alias_info_table (member);CREATE INDEX type_index ON alias_info_table "      \
  "(type);CREATE INDEX domain_idx_index ON alias_info_table (domain_idx);create unique index "  \
  "alias_unique_index on alias_info_table (alias, member, type, domain_idx);insert into "       \
  "alias_info_table (alias, member, type, domain_idx) values ('root', " ROOT_MEMBER ", 0, 0);" \
  "COMMIT TRANSACTION;"

constexpr char kLocalSchema[] = ALIAS_SCHEMA("'admin'");
constexpr char kLdapSchema[] = ALIAS_SCHEMA("'admin@%q'");
constexpr char kWinSchema[] = ALIAS_SCHEMA("'%q\\Administrator'");

// The script that seeds `root` with the administrator of the server's account source; "" when
// that can't be had.
std::string SchemaFor(const std::string &accountType, Postfix &postfix) {
  char schema[kSchemaSize];
  if (accountType == "local") return kLocalSchema;
  if (accountType == "ldap") {
    const auto domain = boost::any_cast<Value<std::string>>(postfix.Get("acc_domain_name"));
    sqlite3_snprintf(sizeof(schema), schema, kLdapSchema, domain.value.c_str());
    return schema;
  }
  if (accountType == "win") {
    std::string shortName;
    if (mailConfGet("win_domain_short_name", shortName) < 0) {
      maillog(3, "%s:%d get win short domain name fail", QSV_FILE, __LINE__);
      return "";
    }
    sqlite3_snprintf(sizeof(schema), schema, kWinSchema, shortName.c_str());
    return schema;
  }
  return "";
}

std::string Command(const char *format, ...) {
  char command[kCommandSize];
  va_list args;
  va_start(args, format);
  sqlite3_vsnprintf(sizeof(command), command, format, args);
  va_end(args);
  return command;
}

std::string TextColumn(sqlite3_stmt *row, int column, bool &isNull) {
  const auto *text = reinterpret_cast<const char *>(sqlite3_column_text(row, column));
  isNull = text == nullptr;
  return isNull ? "" : text;
}

}  // namespace

Alias::Alias(const std::string &dbPath) : error_(-1), path_(dbPath) {
  if (KLIBCFileExist(dbPath.c_str())) {
    // The script only matters if this file has to be rebuilt; its seeded row is a fallback.
    db_.reset(new DBHandler(dbPath, kLocalSchema));
    error_ = 0;
    return;
  }
  Postfix postfix;
  if (postfix.LoadSettings() < 0) {
    maillog(3, "%s:%d smtp setting load fail", QSV_FILE, __LINE__);
    return;
  }
  const std::string accountType =
      boost::any_cast<Value<std::string>>(postfix.Get("account_type")).value;
  const std::string schema = SchemaFor(accountType, postfix);
  if (schema.empty()) {
    maillog(3, "%s:%d get %s db schema fail", QSV_FILE, __LINE__, accountType.c_str());
    return;
  }
  db_.reset(new DBHandler(dbPath, schema));
  error_ = 0;
}

Alias::~Alias() = default;

// Every operation opens the file on demand, so that an object stays usable after save.
int Alias::_open() {
  if (!db_) return -1;
  if (db_->isConnect()) return 0;
  if (db_->connect() != 0) return -1;
  db_->setBusyTimeout(kBusyTimeoutMs);
  return 0;
}

int Alias::_acquireFileLock() {
  int fd = -1;
  if (KLIBCFileLockTimeByFile(kLockPath, 1, kLockWaitSeconds, &fd) != 1) {
    maillog(3, "%s:%d Failed to get lock [%s] error[%s]", QSV_FILE, __LINE__, kLockPath,
            strerror(errno));
    return -1;
  }
  // The last holder unlinked the file, so this one may have just been created by whoever runs
  // now; processes of the package user must still be able to take it.
  struct passwd entry;
  struct passwd *found = nullptr;
  char buffer[1024];
  if (getpwnam_r(kPackageUser, &entry, buffer, sizeof(buffer), &found) == 0 && found != nullptr) {
    ENTERCriticalSection;
    if (fchown(fd, found->pw_uid, found->pw_gid) == 0) fchmod(fd, 0644);
    LEAVECriticalSection;
  }
  return fd;
}

int Alias::_releaseFileLock(int fd) {
  if (fd < 1) return 0;
  if (KLIBCFileUnlockByFile(fd) == 0) {
    maillog(3, "%s:%d Failed to unlock %s lock.", QSV_FILE, __LINE__, kLockPath);
    return -1;
  }
  unlink(kLockPath);
  return 0;
}

int Alias::_HandleDBError(int code) {
  if (code != SQLITE_CORRUPT) return code;
  maillog(3, "%s:%d alias db corrupt, need regen", QSV_FILE, __LINE__);
  const int rc = db_->regenDB();
  if (rc == 0) db_->setBusyTimeout(kBusyTimeoutMs);
  return rc;
}

int Alias::_HandleError() {
  if (error_ != 1) {
    error_ = -1;
    return -1;
  }
  error_ = _HandleDBError(db_->getErrCode()) != 0 ? -1 : 0;
  return error_;
}

// Prepares `statement` (from sqlite3_mprintf, freed here) outside the lock and walks its rows
// under it. `onRow` gives false for a row it can't use, which ends the walk with -1.
template <typename RowFn>
int Alias::_query(char *statement, RowFn onRow) {
  if (statement == nullptr || _open() != 0) {
    sqlite3_free(statement);
    return -1;
  }
  sqlite3_stmt *prepared = nullptr;
  int rc = sqlite3_prepare_v2(db_->getDB(), statement, -1, &prepared, nullptr);
  sqlite3_free(statement);
  if (rc != SQLITE_OK) return _HandleDBError(rc) != 0 ? -1 : 0;

  const int fd = _acquireFileLock();
  if (fd < 0) {
    sqlite3_finalize(prepared);
    return -1;
  }
  bool rowsOk = true;
  while ((rc = sqlite3_step(prepared)) == SQLITE_ROW) {
    if (!onRow(prepared)) {
      maillog(3, "%s:%d query fail", QSV_FILE, __LINE__);
      rowsOk = false;
      break;
    }
  }
  // regenDB closes the connection, which must not find this statement still open.
  sqlite3_finalize(prepared);
  int result = rowsOk ? 0 : -1;
  if (rowsOk && rc != SQLITE_DONE) result = _HandleDBError(rc) != 0 ? -1 : 0;
  _releaseFileLock(fd);
  return result;
}

int Alias::_write(const std::list<std::string> &commands, bool &ran) {
  ran = false;
  if (_open() != 0) return -1;
  SQLCmd batch;
  for (const std::string &command : commands) batch += command.c_str();
  const int fd = _acquireFileLock();
  if (fd < 0) return -1;
  ran = true;
  int rc = 0;
  if (db_->exeCmds(batch, true) != SQLITE_OK) {
    error_ = 1;
    rc = _HandleError();
  }
  _releaseFileLock(fd);
  return rc;
}

int Alias::_writeEach(const std::vector<std::list<std::string>> &batches) {
  if (_open() != 0) return -1;
  const int fd = _acquireFileLock();
  if (fd < 0) return -1;
  std::vector<int> results;
  const int rc = db_->exeGroups(batches, results);
  int failed = rc;
  for (const int result : results) {
    if (result != SQLITE_OK) failed = result;
  }
  if (failed != SQLITE_OK) {
    error_ = 1;
    _HandleError();
  }
  _releaseFileLock(fd);
  return 0;
}

int Alias::_loadDomainMembers(int domain,
                              std::unordered_map<std::string, std::list<MemberInfo>> &out) {
  out.clear();
  // Rows come grouped by alias as a rule: only a change of alias costs a look-up.
  std::string current;
  std::list<MemberInfo> *members = nullptr;
  return _query(
      sqlite3_mprintf("SELECT * FROM '%q' WHERE domain_idx='%d';", kTable, domain),
      [&](sqlite3_stmt *row) {
        const auto *alias = reinterpret_cast<const char *>(sqlite3_column_text(row, 0));
        const auto *member = reinterpret_cast<const char *>(sqlite3_column_text(row, 1));
        if (alias == nullptr || member == nullptr) return false;
        if (members == nullptr || current != alias) {
          current = alias;
          members = &out[current];
        }
        members->push_back({member, static_cast<MemberType>(sqlite3_column_int(row, 2))});
        return true;
      });
}

int Alias::load() {
  if (_open() != 0) {
    maillog(3, "%s:%d Fail to load", QSV_FILE, __LINE__);
    return -1;
  }
  return _query(sqlite3_mprintf("SELECT DISTINCT alias, domain_idx FROM '%q';", kTable),
                [this](sqlite3_stmt *row) {
                  bool isNull;
                  DomainAlias entry{sqlite3_column_int(row, 1), TextColumn(row, 0, isNull)};
                  if (isNull) return false;
                  (entry.domain == 0 ? systemAlias_ : aliasList_).push_back(entry);
                  return true;
                });
}

int Alias::migrateLoad() {
  if (_open() != 0) {
    maillog(3, "%s:%d Fail to load", QSV_FILE, __LINE__);
    return -1;
  }
  return _query(sqlite3_mprintf("SELECT DISTINCT alias FROM '%q';", kTable),
                [this](sqlite3_stmt *row) {
                  bool isNull;
                  DomainAlias entry{1, TextColumn(row, 0, isNull)};
                  if (isNull) return false;
                  aliasList_.push_back(entry);
                  return true;
                });
}

int Alias::save() {
  if (db_ && db_->disconnect() != 0) {
    maillog(3, "%s:%d Fail to save", QSV_FILE, __LINE__);
    return -1;
  }
  KOLT::QUILLON_SERVER::KOLTMailNodeCluster cluster;
  if (cluster.getClusterStatus() != KOLT::QUILLON_SERVER::CLUSTER_STATUS_NORMAL) return 0;
  if (!cluster.setFile(kSyncKey, path_, nullptr)) {
    maillog(3, "%s:%d Fail to set file %s", QSV_FILE, __LINE__, path_.c_str());
    return -1;
  }
  return 0;
}

int Alias::checkMemberExist(const DomainAlias &alias, const MemberInfo &member) {
  int count = 0;
  const int rc = _query(
      sqlite3_mprintf("SELECT count(*) FROM '%q' WHERE (alias='%q' AND member='%q' AND type='%d' "
                      "AND domain_idx='%d');",
                      kTable, alias.alias.c_str(), member.member.c_str(),
                      static_cast<int>(member.type), alias.domain),
      [&count](sqlite3_stmt *row) {
        count = sqlite3_column_int(row, 0);
        return true;
      });
  if (rc != 0) return rc;
  return count > 0 ? 1 : 0;
}

namespace {

// A walk that appends column 0 of each row to `out`.
auto AppendText(std::list<std::string> &out) {
  return [&out](sqlite3_stmt *row) {
    bool isNull;
    out.push_back(TextColumn(row, 0, isNull));
    if (isNull) out.pop_back();
    return !isNull;
  };
}

// A walk over "SELECT *" rows: member in column 1, type in column 2.
template <typename Container>
auto AppendMember(Container &out) {
  return [&out](sqlite3_stmt *row) {
    bool isNull;
    MemberInfo member{TextColumn(row, 1, isNull),
                      static_cast<MemberType>(sqlite3_column_int(row, 2))};
    if (isNull) return false;
    out.push_back(member);
    return true;
  };
}

}  // namespace

int Alias::enumMemberByType(std::list<std::string> &out, MemberType type) {
  return _query(sqlite3_mprintf("SELECT DISTINCT member FROM '%q' WHERE type='%d';", kTable,
                                static_cast<int>(type)),
                AppendText(out));
}

int Alias::enumAliasByMember(std::list<std::string> &out, const MemberInfo &member) {
  return _query(sqlite3_mprintf("SELECT DISTINCT alias FROM '%q' WHERE member='%q' AND type='%d';",
                                kTable, member.member.c_str(), static_cast<int>(member.type)),
                AppendText(out));
}

int Alias::loadMember(const DomainAlias &alias, std::list<MemberInfo> &out) {
  out.clear();
  return _query(sqlite3_mprintf("SELECT * FROM '%q' WHERE alias='%q' AND domain_idx='%d';", kTable,
                                alias.alias.c_str(), alias.domain),
                AppendMember(out));
}

int Alias::loadMember(const DomainAlias &alias, const MemberType &type, const int &offset,
                      const int &limit, const std::string &search, std::vector<MemberInfo> &out) {
  out.clear();
  char *head = sqlite3_mprintf(
      "SELECT * FROM '%q' WHERE alias='%q' AND domain_idx='%d' AND type='%d' ", kTable,
      alias.alias.c_str(), alias.domain, static_cast<int>(type));
  char *filter = search.empty() ? sqlite3_mprintf("%s", "")
                                : sqlite3_mprintf("AND (member LIKE '%%%q%%') ", search.c_str());
  char *statement = nullptr;
  if (head != nullptr && filter != nullptr) {
    statement = sqlite3_mprintf("%s%sLIMIT %d OFFSET %d;", head, filter, limit, offset);
  }
  sqlite3_free(head);
  sqlite3_free(filter);
  return _query(statement, AppendMember(out));
}

int Alias::migrateLoadMember(const std::string &alias, std::list<MemberInfo> &out) {
  out.clear();
  return _query(
      sqlite3_mprintf("SELECT * FROM '%q' WHERE alias='%q';", kTable, alias.c_str()),
      AppendMember(out));
}

int Alias::addMember(const DomainAlias &alias, const std::list<MemberInfo> &members) {
  bool ran;
  return _write(_insertCommands(alias, members,
                                [&](const MemberInfo &member) {
                                  return checkMemberExist(alias, member);
                                }),
                ran);
}

std::list<std::string> Alias::_insertCommands(
    const DomainAlias &alias, const std::list<MemberInfo> &members,
    const std::function<int(const MemberInfo &)> &exists) {
  std::list<std::string> commands;
  for (const MemberInfo &member : members) {
    std::string name = member.member;
    if (member.type == MEMBER_USER) {
      char real[493];
      memset(real, 0, sizeof(real));
      if (KLIBUserRealNameGet(member.member.c_str(), real, sizeof(real), 0) != 0) {
        maillog(3, "%s:%d KLIBUserRealNameGet fail %s", QSV_FILE, __LINE__,
                member.member.c_str());
        continue;
      }
      name = real;
    }
    if (exists(member) != 0) continue;
    if (!checkValidUtf8(alias.alias) || !checkValidUtf8(name)) continue;
    commands.push_back(Command(
        "INSERT INTO '%q' (alias,member,type,domain_idx) VALUES ('%q','%q','%d','%d');", kTable,
        alias.alias.c_str(), name.c_str(), static_cast<int>(member.type), alias.domain));
  }
  return commands;
}

int Alias::delMember(const DomainAlias &alias, const std::list<MemberInfo> &members) {
  std::list<std::string> commands;
  for (const MemberInfo &member : members) {
    commands.push_back(Command(
        "DELETE FROM '%q' WHERE (alias='%q' AND member='%q' AND type='%d' AND domain_idx='%d');",
        kTable, alias.alias.c_str(), member.member.c_str(), static_cast<int>(member.type),
        alias.domain));
  }
  bool ran;
  return _write(commands, ran);
}

int Alias::changeAliasName(const DomainAlias &alias, const std::string &newName) {
  bool ran;
  return _write({
      Command("UPDATE '%q' SET alias= '%q' WHERE alias= '%q' AND domain_idx= '%d';", kTable,
              newName.c_str(), alias.alias.c_str(), alias.domain),
      Command("UPDATE '%q' SET member= '%q' WHERE member= '%q' AND type= '%d' AND "
              "domain_idx= '%d';",
              kTable, newName.c_str(), alias.alias.c_str(), static_cast<int>(MEMBER_ALIAS),
              alias.domain),
  }, ran);
}

int Alias::delAlias(const std::list<DomainAlias> &aliases) {
  std::list<std::string> commands;
  for (const DomainAlias &alias : aliases) {
    commands.push_back(Command("DELETE FROM '%q' WHERE alias='%q' AND domain_idx='%d';", kTable,
                               alias.alias.c_str(), alias.domain));
    commands.push_back(
        Command("DELETE FROM '%q' WHERE member='%q' AND type= '%d' AND domain_idx='%d';", kTable,
                alias.alias.c_str(), static_cast<int>(MEMBER_ALIAS), alias.domain));
  }
  // Callers of these two read the outcome from getError.
  bool ran;
  _write(commands, ran);
  return ran ? 0 : -1;
}

int Alias::delMemberByType(const std::list<std::string> &names, MemberType type) {
  std::list<std::string> commands;
  for (const std::string &name : names) {
    commands.push_back(Command("DELETE FROM '%q' WHERE member='%q' AND type='%d';", kTable,
                               name.c_str(), static_cast<int>(type)));
  }
  bool ran;
  _write(commands, ran);
  return ran ? 0 : -1;
}

int Alias::getDomainAliasList(const int &domain, std::list<DomainAlias> &out) {
  for (const DomainAlias &entry : aliasList_) {
    if (entry.domain == domain) out.push_back(entry);
  }
  return 0;
}

int Alias::delDomainAlias(const int &domain) {
  std::list<DomainAlias> aliases;
  if (getDomainAliasList(domain, aliases) != 0) {
    maillog(3, "%s:%d Get domain alias fail when del domain alias", QSV_FILE, __LINE__);
    return -1;
  }
  if (delAlias(aliases) != 0) {
    maillog(3, "%s:%d Delete domain alias fail", QSV_FILE, __LINE__);
    return -1;
  }
  return 0;
}

int Alias::_delDomainMemberImp(const int &domain, const std::list<std::string> &names, int type) {
  std::list<MemberInfo> members;
  for (const std::string &name : names) members.push_back({name, static_cast<MemberType>(type)});
  std::list<DomainAlias> aliases;
  if (getDomainAliasList(domain, aliases) != 0) {
    maillog(3, "%s:%d Get domain alias fail when delDomainUserMember", QSV_FILE, __LINE__);
    return -1;
  }
  for (const DomainAlias &alias : aliases) {
    if (delMember(alias, members) != 0) {
      maillog(3, "%s:%d Failed to delMember, alias: [%s]", QSV_FILE, __LINE__,
              alias.alias.c_str());
      break;
    }
  }
  return 0;
}

int Alias::delDomainUserMember(const int &domain, const std::list<std::string> &names) {
  return _delDomainMemberImp(domain, names, MEMBER_USER);
}

int Alias::delDomainGroupMember(const int &domain, const std::list<std::string> &names) {
  return _delDomainMemberImp(domain, names, MEMBER_GROUP);
}
