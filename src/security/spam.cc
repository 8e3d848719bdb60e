#include "security/spam.h"

#include <sqlite3.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <vector>
#include <strings.h>

#include "cluster/mailserver_cluster.h"
#include "config/mail_conf.h"
#include "config/postfix.h"
#include "core/mail_conf.h"
#include "eai/punycode.h"
#include "foundation/files.h"
#include "foundation/log.h"
#include "foundation/mailserver_db_schema.h"
#include "foundation/map_pattern.h"
#include "kolt/exec.h"
#include "kolt/file.h"
#include "kolt/szlist.h"
#include "security/list_document.h"

namespace {

constexpr char kRulesDir[] = "/var/packages/Quillon-Server/etc/rules/";
constexpr char kRuleStatusPrefix[] = "mailserver_rule_status-";
constexpr char kSetConfig[] = "/var/packages/Quillon-Server/target/bin/kolt_set_config";
constexpr char kSpamDaemon[] = "/var/packages/Quillon-Server/target/scripts/SpamDaemon.sh";
constexpr int kBusyTimeoutMs = 60000;
constexpr int kStatementSize = 1024;
constexpr int kExportPage = 512;

const char *YesNo(bool on) { return on ? "yes" : "no"; }

std::string Format(const char *format, double value) {
  char text[64];
  snprintf(text, sizeof(text), format, value);
  return text;
}

// The value of `key`, or false when it can't be read or is empty: the field keeps its default.
bool Setting(const char *key, std::string &value) {
  return mailConfGet(key, value) == 0 && !value.empty();
}

// Why a row can't be stored, or null. The names end up in configuration lines of the spam filter
// and the mail daemon: one with a control character could add a line of its own.
const char *RowRefusal(const BlackWhite &row) {
  if (!ListNameAcceptable(row.name)) return "a name that is empty, not UTF-8 or holds a control character";
  if (row.type < TYPE_FROM || row.type > TYPE_CLIENT) return "an unknown side";
  if (row.nameType < NAME_TYPE_ACCOUNT || row.nameType > NAME_TYPE_DOMAIN) return "an unknown kind of name";
  if (row.blackWhiteType != BLACK_WHITE_BLACKLIST && row.blackWhiteType != BLACK_WHITE_WHITELIST &&
      row.blackWhiteType != BLACK_WHITE_KNOWN) {
    return "an unknown verdict";
  }
  return nullptr;
}

// The statement text of a filter, or "" when its name pattern does not fit the statement buffer:
// a cut pattern would search for something else than asked.
std::string ComposeQueryCmd(const BlackWhiteFilter &filter) {
  std::string sql = "select " + filter.columns + " from blackwhite_table ";
  if (filter.type != -1 || filter.nameType != -1 || filter.blackWhiteType != -1 ||
      !filter.name.empty()) {
    sql += "where ";
  }
  std::string terms;
  auto term = [&terms](const char *column, int value) {
    if (value == -1) return;
    if (!terms.empty()) terms += " and ";
    terms += column + std::to_string(value);
  };
  term("type=", filter.type);
  // The column is name_type; a query that filters by it fails, and callers have always seen it so.
  term("nameType=", filter.nameType);
  term("blackwhite=", filter.blackWhiteType);
  sql += terms;
  if (!filter.name.empty()) {
    char pattern[kStatementSize];
    sqlite3_snprintf(sizeof(pattern), pattern, "'%%%q%%'", filter.name.c_str());
    if (strlen(pattern) >= sizeof(pattern) - 1) {
      maillog(3, "%s:%d invalid input: a name pattern of %zu bytes is too long", QSV_FILE, __LINE__,
              filter.name.size());
      return "";
    }
    if (!terms.empty()) sql += " and ";
    sql += "name LIKE ";
    sql += pattern;
  }
  if (filter.columns != "count(*)") {
    sql += " limit " + std::to_string(filter.limit) + " offset " + std::to_string(filter.offset);
  }
  sql += ";";
  return sql;
}

// Adds `name` under out[verdict][side][kind] as the words of the row give them; rows whose
// numbers have no word are left out.
void AppendExported(Json::Value &out, const BlackWhite &row, bool asRegexp) {
  const char *side = row.type == TYPE_FROM ? "from"
                     : (row.type == TYPE_TO || row.type == TYPE_CLIENT) ? "to" : nullptr;
  const char *verdict = row.blackWhiteType == BLACK_WHITE_BLACKLIST   ? "blacklist"
                        : row.blackWhiteType == BLACK_WHITE_WHITELIST ? "whitelist"
                        : row.blackWhiteType == BLACK_WHITE_KNOWN     ? "known"
                                                                      : nullptr;
  const char *kind = row.nameType == NAME_TYPE_ACCOUNT   ? "account"
                     : row.nameType == NAME_TYPE_ADDRESS ? "address"
                     : row.nameType == NAME_TYPE_DOMAIN  ? "domain"
                                                         : nullptr;
  if (side == nullptr || verdict == nullptr || kind == nullptr) {
    maillog(3, "%s:%d skip row %s of unknown type", QSV_FILE, __LINE__, row.name.c_str());
    return;
  }
  Json::Value &names = out[verdict][side][kind];
  if (!asRegexp) {
    names.append(row.name);
    return;
  }
  names.append(ConvertPatternToRegexp(row.name));
  std::string other;
  if (KOLT::QUILLON_SERVER::ConvertToPunycodeOrUTF8(row.name, other)) {
    names.append(ConvertPatternToRegexp(other));
  }
}

}  // namespace

const std::map<std::string, BlackWhiteType> Spam::blackWhiteTypeMap = {
    {"blacklist", BLACK_WHITE_BLACKLIST},
    {"whitelist", BLACK_WHITE_WHITELIST},
    {"known", BLACK_WHITE_KNOWN},
};
const std::map<std::string, Type> Spam::typeMap = {
    {"from", TYPE_FROM},
    {"to", TYPE_TO},
    {"client", TYPE_CLIENT},
};
const std::map<std::string, NameType> Spam::nameTypeMap = {
    {"account", NAME_TYPE_ACCOUNT},
    {"address", NAME_TYPE_ADDRESS},
    {"domain", NAME_TYPE_DOMAIN},
};

Spam *Spam::_spam = nullptr;

Spam::Spam(const std::string &dbPath) : dbPath_(dbPath) {}

Spam *Spam::getInstance(const std::string &dbPath) {
  if (_spam != nullptr) return _spam;
  Spam *spam = new Spam(dbPath);
  if (spam->LoadConfig() != 0 || spam->dbInit() != 0) {
    maillog(3, "%s:%d load spam config fail", QSV_FILE, __LINE__);
    delete spam;
    return nullptr;
  }
  _spam = spam;
  return _spam;
}

int Spam::LoadConfig() {
  mkdir(kRulesDir, 0755);
  std::string value;
  if (Setting("spam_enable", value)) enableSpam_ = value == "yes";
  if (Setting("spam_enable_rewrite", value)) enableRewrite_ = value == "yes";
  if (Setting("spam_rewrite_subject", value)) rewriteSubject_ = value;
  if (Setting("spam_required_score", value)) requiredScore_ = strtod(value.c_str(), nullptr);
  if (Setting("spam_report_machanism", value)) {
    reportMechanism_ = static_cast<int>(strtol(value.c_str(), nullptr, 10));
  }
  if (Setting("spam_auto_learn", value)) autoLearn_ = value == "yes";
  if (Setting("spam_learn_threshold_spam", value)) {
    spamLearnThreshold_ = strtod(value.c_str(), nullptr);
  }
  if (Setting("spam_learn_threshold_non_spam", value)) {
    nonSpamLearnThreshold_ = strtod(value.c_str(), nullptr);
  }
  if (Setting("spam_auto_whitelist", value)) autoWhitelist_ = value == "yes";
  return 0;
}

int Spam::applySettings() {
  const std::map<std::string, std::string> settings = {
      {"spam_enable", YesNo(enableSpam_)},
      {"spam_enable_rewrite", YesNo(enableRewrite_)},
      {"spam_rewrite_subject", rewriteSubject_},
      {"spam_required_score", Format("%.2f", requiredScore_)},
      {"spam_report_machanism", std::to_string(reportMechanism_)},
      {"spam_auto_learn", YesNo(autoLearn_)},
      {"spam_learn_threshold_spam", Format("%.2f", spamLearnThreshold_)},
      {"spam_learn_threshold_non_spam", Format("%.2f", nonSpamLearnThreshold_)},
      {"spam_auto_whitelist", YesNo(autoWhitelist_)},
  };
  if (mailConfSet(settings) != 0) {
    maillog(3, "%s:%d set confing fail", QSV_FILE, __LINE__);
    return -1;
  }
  return GenerateConfig();
}

int Spam::GenerateConfig() {
  // The writer's own complaints go to the caller's standard error and to the system log.
  const int flags = KLIBC_EXEC_STDIN_NULL | KLIBC_EXEC_STDOUT_NULL | KLIBC_EXEC_SETSID;
  if (KLIBCExec(kSetConfig, "spam", nullptr, nullptr, flags) != 0) {
    maillog(3, "%s:%d fail to generate spamassassin config", QSV_FILE, __LINE__);
    return -1;
  }
  return 0;
}

int Spam::SetRuleStatus(const std::string &name, const char *status) {
  const std::string key = kRuleStatusPrefix + name;
  const int rc = mailConfSet(key, status, true, 0);
  if (rc < 0) {
    maillog(3, "%s:%d Failed to set key '%s'", QSV_FILE, __LINE__, key.c_str());
    return rc;
  }
  return 0;
}

int Spam::enableRule(const std::string &name) { return SetRuleStatus(name, "yes"); }

int Spam::disableRule(const std::string &name) { return SetRuleStatus(name, "no"); }

int Spam::deleteRule(const std::string &name) {
  const std::string key = kRuleStatusPrefix + name;
  KOLT::QUILLON_SERVER::KOLTMailNodeCluster cluster;
  if (!cluster.removeKey(key)) {
    maillog(3, "%s:%d Failed to remove key '%s'", QSV_FILE, __LINE__, key.c_str());
    return -1;
  }
  return 0;
}

std::string Spam::GetImportRulePath(const std::string &name) {
  // A rule is a file of the rules folder: a name that leads elsewhere names no rule, so that a
  // caller removing "the rule file" never removes another file.
  if (name.empty() || name == "." || name == ".." || name.find('/') != std::string::npos) return "";
  const std::string path = kRulesDir + name;
  return KLIBCFileExist(path.c_str()) ? path : "";
}

std::list<std::string> Spam::getSpamRuleFiles() {
  std::list<std::string> files;
  KLIBSZLIST *list = KLIBCSzListAlloc(1024);
  if (list == nullptr) {
    maillog(3, "%s:%d out of memory", QSV_FILE, __LINE__);
    return files;
  }
  if (KLIBCFileEnumDir(kRulesDir, 0, &list, 128) < 0) {
    maillog(3, "%s:%d enum rule fail %s error [%s]", QSV_FILE, __LINE__, kRulesDir,
            strerror(errno));
  } else {
    for (int i = 0; i < KLIBCSzListCount(list); ++i) files.emplace_back(KLIBCSzListGet(list, i));
  }
  KLIBCSzListFree(list);
  return files;
}

int Spam::RuleStatusWalk(bool enabledOnly, std::list<std::string> &names) {
  Json::Value tree(Json::objectValue);
  KOLT::QUILLON_SERVER::KOLTMailNodeCluster cluster;
  if (!cluster.getTree("rule", tree)) {
    maillog(3, "%s:%d get spam rules tree fail", QSV_FILE, __LINE__);
    return -1;
  }
  for (const std::string &member : tree.getMemberNames()) {
    const size_t dash = member.find('-');
    if (dash == std::string::npos) continue;
    if (enabledOnly && tree[member].asString() != "yes") continue;
    names.push_back(member.substr(dash + 1));
  }
  return 0;
}

std::list<std::pair<std::string, bool>> Spam::getSpamRules() {
  std::list<std::pair<std::string, bool>> rules;
  std::list<std::string> all;
  std::list<std::string> enabled;
  if (RuleStatusWalk(false, all) != 0) {
    maillog(3, "%s:%d get all rule fail", QSV_FILE, __LINE__);
    return rules;
  }
  if (RuleStatusWalk(true, enabled) != 0) {
    maillog(3, "%s:%d get enabled rule fail", QSV_FILE, __LINE__);
    return rules;
  }
  std::map<std::string, bool> flags;
  for (const std::string &name : all) flags[name] = false;
  for (const std::string &name : enabled) flags[name] = true;
  for (const auto &flag : flags) rules.push_back(flag);
  return rules;
}

int Spam::Service(const char *action) {
  if (action == nullptr) return -1;
  return KLIBCExec(kSpamDaemon, action, nullptr, nullptr, KLIBC_EXEC_QUIET_WAIT);
}

int Spam::dbInit() {
  db_.reset(new DBHandler(dbPath_, kMailServerDBSchema));
  if (db_->connect() != 0) {
    maillog(3, "%s:%d db connect fail", QSV_FILE, __LINE__);
    return -1;
  }
  db_->setBusyTimeout(kBusyTimeoutMs);
  return 0;
}

int Spam::disconnectDB() {
  if (db_) db_->disconnect();
  return 0;
}

bool Spam::queryBlackWhiteData(const std::string &statement, std::list<BlackWhite> &out) {
  // After disconnectDB the object stays usable: the list connects again on demand.
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
    const auto *name = reinterpret_cast<const char *>(sqlite3_column_text(query, 1));
    out.push_back({name != nullptr ? name : "",
                   static_cast<BlackWhiteType>(sqlite3_column_int(query, 3)),
                   static_cast<Type>(sqlite3_column_int(query, 2)),
                   static_cast<NameType>(sqlite3_column_int(query, 0))});
  }
  if (rc != SQLITE_DONE) {
    maillog(3, "%s:%d sqlite3_step: [%d] %s\n", QSV_FILE, __LINE__, rc, sqlite3_errmsg(db));
  }
  sqlite3_finalize(query);
  return rc == SQLITE_DONE;
}

std::list<BlackWhite> Spam::getBlackWhiteList(const BlackWhiteFilter &filter) {
  std::list<BlackWhite> rows;
  if (!queryBlackWhiteData(ComposeQueryCmd(filter), rows)) {
    maillog(3, "%s:%d query black white data fail", QSV_FILE, __LINE__);
  }
  return rows;
}

int Spam::countQueryData(const BlackWhiteFilter &filter) {
  BlackWhiteFilter count = filter;
  count.columns = "count(*)";
  const std::string statement = ComposeQueryCmd(count);
  if (statement.empty() || !db_ || (!db_->isConnect() && dbInit() != 0)) return -1;
  sqlite3 *db = db_->getDB();
  sqlite3_stmt *query = nullptr;
  int rc = sqlite3_prepare_v2(db, statement.c_str(), -1, &query, nullptr);
  if (rc != SQLITE_OK) {
    maillog(3, "%s:%d sqlite3_prepare_v2: [%d] %s\n", QSV_FILE, __LINE__, rc, sqlite3_errmsg(db));
    sqlite3_finalize(query);
    return -1;
  }
  int total = -1;
  rc = sqlite3_step(query);
  if (rc == SQLITE_ROW) {
    total = sqlite3_column_int(query, 0);
    rc = sqlite3_step(query);
  }
  if (rc != SQLITE_DONE) {
    maillog(3, "%s:%d sqlite3_step: [%d] %s\n", QSV_FILE, __LINE__, rc, sqlite3_errmsg(db));
    total = -1;
  }
  sqlite3_finalize(query);
  return total;
}

int Spam::ExecuteEach(const std::list<BlackWhite> &rows, const char *format, const char *bound,
                      const char *failure) {
  std::vector<const BlackWhite *> checked;
  checked.reserve(rows.size());
  char statement[kStatementSize];
  for (const BlackWhite &row : rows) {
    if (const char *why = RowRefusal(row)) {
      maillog(3, "%s:%d invalid input: %s", QSV_FILE, __LINE__, why);
      maillog(3, failure, QSV_FILE, __LINE__);
      return -1;
    }
    sqlite3_snprintf(sizeof(statement), statement, format, static_cast<int>(row.nameType),
                     row.name.c_str(), static_cast<int>(row.type),
                     static_cast<int>(row.blackWhiteType));
    // A row whose statement would not fit its buffer is refused, never cut short.
    if (strlen(statement) >= sizeof(statement) - 1) {
      maillog(3, "%s:%d invalid input: a name of %zu bytes is too long", QSV_FILE, __LINE__,
              row.name.size());
      maillog(3, failure, QSV_FILE, __LINE__);
      return -1;
    }
    checked.push_back(&row);
  }
  // The rows run through one compiled statement with their values bound: compiling a text for
  // each row took most of the time of a large import.
  const auto bind = [&checked](sqlite3_stmt *prepared, size_t i) {
    const BlackWhite &row = *checked[i];
    sqlite3_bind_int(prepared, 1, static_cast<int>(row.nameType));
    sqlite3_bind_text(prepared, 2, row.name.data(), static_cast<int>(row.name.size()),
                      SQLITE_STATIC);
    sqlite3_bind_int(prepared, 3, static_cast<int>(row.type));
    if (sqlite3_bind_parameter_count(prepared) >= 4) {
      sqlite3_bind_int(prepared, 4, static_cast<int>(row.blackWhiteType));
    }
  };
  if (!db_ || (!db_->isConnect() && dbInit() != 0) ||
      db_->exeEach(bound, checked.size(), bind) != 0) {
    maillog(3, failure, QSV_FILE, __LINE__);
    return -1;
  }
  return 0;
}

int Spam::addBlackWhiteList(const std::list<BlackWhite> &rows) {
  return ExecuteEach(rows,
                     "insert or replace into blackwhite_table (name_type, name, type, blackwhite) "
                     "values ('%d', '%q', '%d', '%d');",
                     "insert or replace into blackwhite_table (name_type, name, type, blackwhite) "
                     "values (?1, ?2, ?3, ?4);",
                     "%s:%d fail to insert info into blackwhite table");
}

int Spam::deleteBlackWhiteList(const std::list<BlackWhite> &rows) {
  // The verdict is no part of a row's key; the format leaves the fourth argument unused.
  return ExecuteEach(rows, "delete from blackwhite_table where name_type='%d' AND name='%q' AND type='%d';",
                     "delete from blackwhite_table where name_type=?1 AND name=?2 AND type=?3;",
                     "%s:%d fail to delete info into blackwhite table");
}

int Spam::addBlackWhite(const BlackWhite &row) { return addBlackWhiteList({row}); }

int Spam::deleteBlackWhite(const BlackWhite &row) { return deleteBlackWhiteList({row}); }

int Spam::exportBlackWhite(Json::Value &out, bool asRegexp) {
  out = Json::Value(Json::objectValue);
  for (const char *verdict : {"blacklist", "whitelist"}) {
    for (const char *side : {"from", "to"}) {
      for (const char *kind : {"account", "address", "domain"}) {
        out[verdict][side][kind] = Json::Value(Json::arrayValue);
      }
    }
  }
  Postfix postfix;
  if (postfix.LoadSettings() < 0) {
    maillog(3, "%s:%d get domain name fail", QSV_FILE, __LINE__);
    return -1;
  }
  BlackWhiteFilter filter{0, kExportPage, TYPE_ALL, NAME_TYPE_ALL, BLACK_WHITE_KNOWN, "*", ""};
  for (;; filter.offset += kExportPage) {
    const std::list<BlackWhite> page = getBlackWhiteList(filter);
    if (page.empty()) break;
    for (const BlackWhite &row : page) AppendExported(out, row, asRegexp);
  }
  return 0;
}

int Spam::exportBlackWhite(const std::string &path) {
  Json::Value json;
  if (exportBlackWhite(json, false) != 0) {
    maillog(3, "%s:%d cannot export blacklist & whitelist", QSV_FILE, __LINE__);
    return -1;
  }
  if (WriteWholeFile(path, Json::StyledWriter().write(json)) != 0) {
    maillog(3, "%s:%d open file %s fail", QSV_FILE, __LINE__, path.c_str());
    return -1;
  }
  return 0;
}

int Spam::importBlackWhite(const std::string &path) {
  Json::Value doc;
  const int read = ReadJsonFile(path, doc);
  if (read == kJsonUnreadable) {
    maillog(3, "%s:%d open file %s fail", QSV_FILE, __LINE__, path.c_str());
    return -1;
  }
  if (read == kJsonInvalid) {
    maillog(3, "%s:%d file is not valid json format", QSV_FILE, __LINE__);
    return -1;
  }
  std::list<BlackWhite> rows;
  if (!ListDocumentRows(doc, rows)) return -1;
  if (addBlackWhiteList(rows) != 0) {
    maillog(3, "%s:%d import list fail", QSV_FILE, __LINE__);
    return -1;
  }
  return 0;
}

int Spam::importOldBlackWhite(BlackWhiteType verdict, const std::string &path) {
  std::list<BlackWhite> rows;
  const bool read = ForEachWordLine(path, [&](const KLIBSZLIST *words, const std::string &line) {
    if (KLIBCSzListCount(words) != 3) return;
    const char *side = KLIBCSzListGet(words, 0);
    const char *name = KLIBCSzListGet(words, 1);
    const bool from = strcasecmp(side, "from:") == 0;
    if (!from && strcasecmp(side, "to:") != 0) {
      maillog(3, "%s:%d skip: %s", QSV_FILE, __LINE__, line.c_str());
      return;
    }
    if (strcasecmp(KLIBCSzListGet(words, 2), "yes") != 0) return;
    rows.push_back({name, verdict, from ? TYPE_FROM : TYPE_TO,
                    strchr(name, '@') != nullptr ? NAME_TYPE_ADDRESS : NAME_TYPE_DOMAIN});
  });
  if (!read || addBlackWhiteList(rows) != 0) {
    maillog(3, "%s:%d import list fail", QSV_FILE, __LINE__);
    return -1;
  }
  return 0;
}
