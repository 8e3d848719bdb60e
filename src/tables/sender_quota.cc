#include "tables/sender_quota.h"

#include <sqlite3.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <charconv>
#include <string>

#include "cluster/backendWrapper.h"
#include "config/accounts.h"
#include "config/postfix.h"
#include "foundation/db_handler.h"
#include "foundation/files.h"
#include "foundation/log.h"
#include "foundation/privilege.h"
#include "kolt/exec.h"
#include "foundation/mailserver_db_schema.h"

namespace {

constexpr char kMapPath[] = "/var/packages/Quillon-Server/target/etc/sender_quota_map";
constexpr char kPostmap[] = "/var/packages/Quillon-Server/target/sbin/postmap";
constexpr char kSyncKey[] = "mailserver_dailyquota_db";
constexpr unsigned int kMaxQuota = 99999;
constexpr int kBusyTimeoutMs = 60000;
constexpr size_t kStatementSize = 2048;

bool Open(DBHandler &db) {
  if (db.connect() != 0) return false;
  db.setBusyTimeout(kBusyTimeoutMs);
  return true;
}

// Runs `change` on the database and, once the file is closed and complete, hands it to the other
// nodes.
template <typename Change>
int ChangeAndSpread(Change change) {
  {
    DBHandler db(kMailServerDBPath, kMailServerDBSchema);
    if (!Open(db) || change(db) != 0 || db.disconnect() != 0) return -1;
  }
  KOLT::QUILLON_SERVER::QuillonServerBACKENDWrap backend;
  if (!backend.setFile(kSyncKey, kMailServerDBPath, nullptr)) {
    maillog(3, "%s:%d Fail to set file %s", QSV_FILE, __LINE__, kMailServerDBPath);
    return -1;
  }
  return 0;
}

// `format` with `sender` (and `quota`) as it would stand in the statement buffer, or false when
// it doesn't fit there: a cut statement must not reach the database, where it would fail for a
// reason nobody could see, or do something else than asked.
bool Statement(std::string &out, const char *format, const std::string &sender,
               unsigned int quota = 0) {
  char *text = sqlite3_mprintf(format, sender.c_str(), static_cast<int>(quota));
  const bool fits = text != nullptr && strlen(text) < kStatementSize;
  if (fits) {
    out = text;
  } else {
    maillog(3, "%s:%d invalid input: a sender of %zu bytes is too long", QSV_FILE, __LINE__,
            sender.size());
  }
  sqlite3_free(text);
  return fits;
}

constexpr char kSetFormat[] =
    "insert or replace into sender_quota_table (sender, quota) values ('%q', '%d');";
constexpr char kDeleteFormat[] = "delete from sender_quota_table where sender='%q';";

// Reads a quota back as it went in: a value above INT_MAX was written as its negative twin.
unsigned int QuotaColumn(sqlite3_stmt *row) {
  return static_cast<unsigned int>(sqlite3_column_int64(row, 1));
}

std::string SenderColumn(sqlite3_stmt *row) {
  const auto *text = reinterpret_cast<const char *>(sqlite3_column_text(row, 0));
  return text != nullptr ? text : "";
}

// The map is written beside its place and moved there whole, so Postfix never reads half of it.
// The text is made in memory and written at once: `fd` stays open, and its lock held, until the
// rename.
bool WriteMap(DBHandler &db, Postfix &postfix, const char *tmp, int fd) {
  sqlite3_stmt *rows = nullptr;
  std::string text;
  // The new map is mostly the old one again: room for that at once spares the copies of growing.
  struct stat old;
  if (stat(kMapPath, &old) == 0 && old.st_size > 0 && old.st_size < (64 << 20)) {
    text.reserve(static_cast<size_t>(old.st_size + old.st_size / 8));
  }
  int rc = sqlite3_prepare_v2(db.getDB(), "select * from sender_quota_table", -1, &rows, nullptr);
  if (rc != SQLITE_OK) {
    maillog(3, "%s:%d sqlite3_prepare_v2: [%d] %s\n", QSV_FILE, __LINE__, rc,
            sqlite3_errmsg(db.getDB()));
  } else {
    // One listing of the system's users for the whole map, not a walk of them per sender.
    FullUsernames names(postfix);
    std::string sender;
    while ((rc = sqlite3_step(rows)) == SQLITE_ROW) {
      const auto *column = reinterpret_cast<const char *>(sqlite3_column_text(rows, 0));
      // As a C string: a sender stored with a NUL in it ends there.
      sender.assign(column != nullptr ? column : "");
      text += names.Get(sender);
      char line[16] = {' '};
      char *end = std::to_chars(line + 1, line + sizeof(line) - 1, QuotaColumn(rows)).ptr;
      *end++ = '\n';
      text.append(line, end);
    }
    if (rc != SQLITE_DONE) {
      maillog(3, "%s:%d sqlite3_step: [%d] %s\n", QSV_FILE, __LINE__, rc,
              sqlite3_errmsg(db.getDB()));
    }
  }
  sqlite3_finalize(rows);
  if (rc != SQLITE_DONE) return false;
  size_t done = 0;
  while (done < text.size()) {
    const ssize_t n = write(fd, text.data() + done, text.size() - done);
    if (n < 0 && errno == EINTR) continue;
    if (n <= 0) break;
    done += static_cast<size_t>(n);
  }
  if (done < text.size() || fsync(fd) != 0) {
    maillog(3, "%s:%d write %s fail, %s", QSV_FILE, __LINE__, tmp, strerror(errno));
    return false;
  }
  return true;
}

}  // namespace

int SenderQuota::Set(const std::string &sender, unsigned int quota) {
  if (quota > kMaxQuota || sender.empty()) {
    maillog(3, "%s:%d invalid input", QSV_FILE, __LINE__);
    return -1;
  }
  std::string statement;
  if (!Statement(statement, kSetFormat, sender, quota)) return -1;
  return ChangeAndSpread([&statement](DBHandler &db) { return db.ExecCmd(statement); });
}

int SenderQuota::SetList(const std::list<Setting> &settings) {
  std::list<std::string> statements;
  for (const Setting &setting : settings) {
    // An empty key would make a line that postmap refuses, and with it the whole map.
    if (setting.sender.empty()) {
      maillog(3, "%s:%d invalid input", QSV_FILE, __LINE__);
      return -1;
    }
    statements.emplace_back();
    if (!Statement(statements.back(), kSetFormat, setting.sender, setting.quota)) return -1;
  }
  return ChangeAndSpread([&statements](DBHandler &db) { return db.ExecCmdList(statements, true); });
}

int SenderQuota::DeleteList(const std::list<std::string> &senders) {
  std::list<std::string> statements;
  for (const std::string &sender : senders) {
    statements.emplace_back();
    if (!Statement(statements.back(), kDeleteFormat, sender)) return -1;
  }
  return ChangeAndSpread([&statements](DBHandler &db) { return db.ExecCmdList(statements, true); });
}

int SenderQuota::GetSettingList(std::list<Setting> &out, unsigned int offset, int limit,
                                const std::string &search) {
  DBHandler db(kMailServerDBPath, kMailServerDBSchema);
  if (!Open(db)) return -1;
  char statement[kStatementSize];
  const int from = static_cast<int>(offset);
  if (limit != -1 && !search.empty()) {
    sqlite3_snprintf(sizeof(statement), statement,
                     "select * from sender_quota_table where sender like '%%%q%%' order by sender "
                     "desc limit '%d' offset '%d';",
                     search.c_str(), limit, from);
  } else if (limit != -1) {
    sqlite3_snprintf(sizeof(statement), statement,
                     "select * from sender_quota_table order by sender desc limit '%d' offset "
                     "'%d';",
                     limit, from);
  } else if (!search.empty()) {
    sqlite3_snprintf(sizeof(statement), statement,
                     "select * from sender_quota_table where sender like '%%%q%%' order by sender "
                     "desc;",
                     search.c_str());
  } else {
    sqlite3_snprintf(sizeof(statement), statement,
                     "select * from sender_quota_table order by sender desc;");
  }

  sqlite3_stmt *rows = nullptr;
  int rc = sqlite3_prepare_v2(db.getDB(), statement, -1, &rows, nullptr);
  if (rc != SQLITE_OK) {
    maillog(3, "%s:%d sqlite3_prepare_v2: [%d] %s\n", QSV_FILE, __LINE__, rc,
            sqlite3_errmsg(db.getDB()));
    return -1;
  }
  while ((rc = sqlite3_step(rows)) == SQLITE_ROW) {
    out.push_back({SenderColumn(rows), QuotaColumn(rows)});
  }
  sqlite3_finalize(rows);
  if (rc != SQLITE_DONE) {
    maillog(3, "%s:%d sqlite3_step: [%d] %s\n", QSV_FILE, __LINE__, rc, sqlite3_errmsg(db.getDB()));
    return -1;
  }

  sqlite3_stmt *count = nullptr;
  rc = sqlite3_prepare_v2(db.getDB(), "select count(*) from sender_quota_table", -1, &count,
                          nullptr);
  int total = -1;
  if (rc == SQLITE_OK && sqlite3_step(count) == SQLITE_ROW) {
    total = sqlite3_column_int(count, 0);
  } else {
    maillog(3, "%s:%d sqlite3_step error, %s\n", QSV_FILE, __LINE__, sqlite3_errmsg(db.getDB()));
  }
  sqlite3_finalize(count);
  return total;
}

int SenderQuota::GenerateConfig() {
  Postfix postfix;
  if (postfix.LoadSettings() != 0) {
    maillog(3, "%s:%d load postfix settings fail", QSV_FILE, __LINE__);
    return -1;
  }
  DBHandler db(kMailServerDBPath, kMailServerDBSchema);
  if (!Open(db)) return -1;

  std::string tmp;
  const int fd = mkTemporaryBeside(kMapPath, tmp);
  if (fd < 0) {
    maillog(3, "%s:%d mkstemp %s fail, %s", QSV_FILE, __LINE__, tmp.c_str(), strerror(errno));
    return -1;
  }
  if (!WriteMap(db, postfix, tmp.c_str(), fd)) {
    unlink(tmp.c_str());
    close(fd);
    return -1;
  }
  int rc;
  ENTERCriticalSection;
  rc = renameTmpFileAndChmod(tmp.c_str(), kMapPath);
  // What writers killed before their rename left behind goes with this one's success.
  if (rc == 0) removeStaleTemporaries(kMapPath);
  LEAVECriticalSection;
  close(fd);
  if (rc != 0) {
    unlink(tmp.c_str());
    return -1;
  }
  rc = KLIBCExec(kPostmap, kMapPath, nullptr, nullptr, KLIBC_EXEC_QUIET_WAIT);
  if (rc != 0) {
    maillog(3, "%s:%d postmap %s fail, ret=[%d]", QSV_FILE, __LINE__, kMapPath, rc);
    return -1;
  }
  return 0;
}
