#include "tables/attachment_filter.h"

#include <sqlite3.h>
#include <syslog.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstring>

#include "cluster/backendWrapper.h"
#include "foundation/db_handler.h"
#include "foundation/files.h"
#include "foundation/log.h"
#include "foundation/privilege.h"

namespace {

constexpr char kDBPath[] = "/var/packages/Quillon-Server/etc/attachment_filter.db";
constexpr char kRulePath[] = "/var/packages/Quillon-Server/target/etc/attachment_filter.pcre";
constexpr char kSyncKey[] = "mailserver_attachment_filter_db";
constexpr int kBusyTimeoutMs = 60000;
constexpr size_t kStatementSize = 2048;

// What a new database refuses from the start: types that run code or open other files on a
// desktop when opened.
constexpr const char *kDefaultTypes[] = {
    "fdf", "ani", "cur", "ceo", "cab", "reg", "cnf", "hta", "ins", "job", "lnk", "pif",
    "scf", "sct", "shb", "shs", "xnk", "cer", "its", "mau", "prf", "pst", "vsmacros", "ws",
    "com", "src", "bat", "cmd", "cpl", "mhtml", "ma[dfgmqrsvw]", "vb[es]", "ws[cfh]", "md[az]",
    "vs[stw]",
};

const std::string &Schema() {
  static const std::string schema = [] {
    std::string text =
        "create table attachment_filter_table(file_type TEXT);create unique index file_type_index "
        "on attachment_filter_table(file_type);begin transaction;";
    for (const char *type : kDefaultTypes) {
      char insert[kStatementSize];
      snprintf(insert, sizeof(insert),
               "insert or ignore into attachment_filter_table values ('%s');", type);
      text += insert;
    }
    return text + "commit transaction;";
  }();
  return schema;
}

bool Open(DBHandler &db) {
  if (db.connect() != 0) return false;
  db.setBusyTimeout(kBusyTimeoutMs);
  return true;
}

// One statement per type, all or none, then the closed file goes to the other nodes.
int ChangeAndSpread(const char *format, const std::list<std::string> &types) {
  std::list<std::string> statements;
  for (const std::string &type : types) {
    char statement[kStatementSize];
    sqlite3_snprintf(sizeof(statement), statement, format, type.c_str());
    statements.push_back(statement);
  }
  {
    DBHandler db(kDBPath, Schema());
    if (!Open(db) || db.ExecCmdList(statements, true) != 0 || db.disconnect() != 0) return -1;
  }
  KOLT::QUILLON_SERVER::QuillonServerBACKENDWrap backend;
  if (!backend.setFile(kSyncKey, kDBPath, nullptr)) {
    maillog(3, "%s:%d Fail to set file %s", QSV_FILE, __LINE__, kDBPath);
    return -1;
  }
  return 0;
}

bool WriteRule(const std::string &rule, const char *tmp, int fd) {
  bool ok = true;
  size_t done = 0;
  while (done < rule.size()) {
    const ssize_t n = write(fd, rule.data() + done, rule.size() - done);
    if (n < 0 && errno == EINTR) continue;
    if (n <= 0) {
      ok = false;
      break;
    }
    done += static_cast<size_t>(n);
  }
  if (!ok || fsync(fd) != 0) {
    maillog(3, "%s:%d write %s fail, %s", QSV_FILE, __LINE__, tmp, strerror(errno));
    ok = false;
  }
  return ok;
}

}  // namespace

namespace {

// Walks the types of the table, or those containing `search`, in the table's order.
template <typename Visit>
int WalkTypes(const std::string &search, Visit visit) {
  DBHandler db(kDBPath, Schema());
  if (!Open(db)) return -1;
  char statement[kStatementSize];
  if (!search.empty()) {
    snprintf(statement, sizeof(statement),
             "select * from attachment_filter_table where file_type like '%%%s%%';",
             search.c_str());
  } else {
    snprintf(statement, sizeof(statement), "select * from attachment_filter_table;");
  }
  sqlite3_stmt *rows = nullptr;
  int rc = sqlite3_prepare_v2(db.getDB(), statement, -1, &rows, nullptr);
  if (rc != SQLITE_OK) {
    maillog(3, "%s:%d sqlite3_prepare_v2: [%d] %s\n", QSV_FILE, __LINE__, rc,
            sqlite3_errmsg(db.getDB()));
    return -1;
  }
  while ((rc = sqlite3_step(rows)) == SQLITE_ROW) {
    const auto *type = reinterpret_cast<const char *>(sqlite3_column_text(rows, 0));
    visit(type != nullptr ? type : "");
  }
  sqlite3_finalize(rows);
  if (rc != SQLITE_DONE) {
    maillog(3, "%s:%d sqlite3_step: [%d] %s\n", QSV_FILE, __LINE__, rc, sqlite3_errmsg(db.getDB()));
    return -1;
  }
  return 0;
}

}  // namespace

int AttachmentFilter::GetList(std::list<std::string> &out, const std::string &search) {
  return WalkTypes(search, [&](const char *type) { out.push_back(type); });
}

int AttachmentFilter::Add(const std::list<std::string> &types) {
  return ChangeAndSpread("insert or replace into attachment_filter_table(file_type) values ('%q');",
                         types);
}

int AttachmentFilter::Delete(const std::list<std::string> &types) {
  return ChangeAndSpread("delete from attachment_filter_table where file_type='%q';", types);
}

int AttachmentFilter::GenerateConfig() {
  // The name may be quoted, RFC 2231-encoded ("=2E" for the dot) or end a MIME word ("?=").
  std::string rule = "/name\\s*=\\s*\"?(.*(\\.|=2E))(";
  // The types go straight from their rows into the rule: a table of thousands costs no list of
  // its own. A dot in a type means a real dot in a name, not any character.
  bool first = true;
  const int walked = WalkTypes("", [&](const char *type) {
    if (!first) rule += '|';
    first = false;
    for (const char *end = type + strlen(type); type != end;) {
      const char *dot = static_cast<const char *>(memchr(type, '.', end - type));
      if (dot == nullptr) {
        rule.append(type, end);
        break;
      }
      rule.append(type, dot).append("\\.");
      type = dot + 1;
    }
  });
  if (walked != 0) return -1;
  rule += ")(\\?=)?\"?\\s*(;|$)/ REJECT Attachment type not allowed\n";

  std::string tmp;
  const int fd = mkTemporaryBeside(kRulePath, tmp);
  if (fd < 0) {
    maillog(3, "%s:%d mkstemp %s fail, %s", QSV_FILE, __LINE__, tmp.c_str(), strerror(errno));
    return -1;
  }
  if (!WriteRule(rule, tmp.c_str(), fd)) {
    unlink(tmp.c_str());
    close(fd);
    return -1;
  }
  int rc;
  int renameErrno;
  ENTERCriticalSection;
  rc = renameTmpFileAndChmod(tmp.c_str(), kRulePath);
  renameErrno = errno;
  // What writers killed before their rename left behind goes with this one's success.
  if (rc == 0) removeStaleTemporaries(kRulePath);
  LEAVECriticalSection;
  // The lock of the temporary is held until it is in place.
  close(fd);
  if (rc != 0) {
    syslog(LOG_DEBUG, "%s:%d rename fail, %s", QSV_FILE, __LINE__, strerror(renameErrno));
  }
  // Gone already after a successful rename; after a failed one this is the clean-up.
  unlink(tmp.c_str());
  return rc == 0 ? 0 : -1;
}
