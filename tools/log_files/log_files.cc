#include "log_files/log_files.h"

#include <fcntl.h>
#include <pwd.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <set>

#include "logs/maillog.h"
#include "logs/securityLog.h"

namespace qsvlog {

namespace {

constexpr char kPackageUser[] = "Quillon-Server";
constexpr char kPackageVarDir[] = "/var/packages/Quillon-Server/target/var";
constexpr int kBusyMilliseconds = 60000;

std::string Dirname(const std::string &path) {
  const size_t slash = path.rfind('/');
  return slash == 0 ? "/" : path.substr(0, slash);
}

// The package user's ids when we run as root and files must be handed over; false with `error`
// set when that user is missing.
bool PackageOwner(uid_t *uid, gid_t *gid, std::string *error) {
  struct passwd entry;
  struct passwd *found = nullptr;
  char buffer[1024];
  if (getpwnam_r(kPackageUser, &entry, buffer, sizeof(buffer), &found) != 0 || found == nullptr) {
    *error = std::string("user ") + kPackageUser + " does not exist";
    return false;
  }
  *uid = found->pw_uid;
  *gid = found->pw_gid;
  return true;
}

// The live folder may not exist yet on a fresh installation; other folders are the caller's to
// make.
bool MakeLiveDir(std::string *error) {
  for (const char *dir : {kPackageVarDir, kLogDir}) {
    if (mkdir(dir, 0755) != 0) {
      if (errno == EEXIST) continue;
      *error = std::string("cannot create ") + dir + ": " + strerror(errno);
      return false;
    }
    uid_t uid;
    gid_t gid;
    if (chmod(dir, 0755) != 0 ||
        (geteuid() == 0 && (!PackageOwner(&uid, &gid, error) || chown(dir, uid, gid) != 0))) {
      if (error->empty()) *error = std::string("cannot set up ") + dir + ": " + strerror(errno);
      return false;
    }
  }
  return true;
}

// O_EXCL and O_NOFOLLOW: a file or link someone put there first is never taken over.
bool CreateFile(const std::string &path, std::string *error) {
  const int fd = open(path.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_NOFOLLOW | O_CLOEXEC, 0644);
  if (fd < 0) {
    *error = "cannot create " + path + ": " + strerror(errno);
    return false;
  }
  bool ok = fchmod(fd, 0644) == 0;
  if (ok && geteuid() == 0) {
    uid_t uid;
    gid_t gid;
    ok = PackageOwner(&uid, &gid, error) && fchown(fd, uid, gid) == 0;
  }
  if (!ok && error->empty()) *error = "cannot set the owner of " + path + ": " + strerror(errno);
  close(fd);
  if (!ok) unlink(path.c_str());
  return ok;
}

}  // namespace

std::string CheckDbPath(const std::string &path) {
  if (path.empty() || path[0] != '/') return "is not an absolute path";
  if (path.back() == '/') return "names a folder, not a file";
  return "";
}

std::unique_ptr<LogDb> LogDb::Open(const std::string &path, Table table, bool oldLayout,
                                   std::string *error) {
  error->clear();
  struct stat st;
  bool create = false;
  if (lstat(path.c_str(), &st) == 0) {
    if (S_ISLNK(st.st_mode)) {
      *error = path + " is a symbolic link";
      return nullptr;
    }
    if (!S_ISREG(st.st_mode)) {
      *error = path + " is not a regular file";
      return nullptr;
    }
  } else if (errno == ENOENT) {
    create = true;
    if (Dirname(path) == kLogDir && !MakeLiveDir(error)) return nullptr;
    if (!CreateFile(path, error)) return nullptr;
  } else {
    *error = "cannot use " + path + ": " + strerror(errno);
    return nullptr;
  }

  sqlite3 *db = nullptr;
  // Not SQLITE_OPEN_NOFOLLOW: it refuses a link anywhere in the path, and the live files lie
  // behind the package's "target" link. The file itself was checked above.
  const int rc = sqlite3_open_v2(path.c_str(), &db, SQLITE_OPEN_READWRITE, nullptr);
  std::unique_ptr<LogDb> log(new LogDb(db, path));
  if (rc != SQLITE_OK) {
    *error =
        "cannot open " + path + ": " + (db != nullptr ? sqlite3_errmsg(db) : sqlite3_errstr(rc));
    if (create) unlink(path.c_str());
    return nullptr;
  }
  log->oldLayoutWanted_ = oldLayout;
  sqlite3_busy_timeout(db, kBusyMilliseconds);
  if (!log->Prepare(table, error)) {
    // The schema of a file made here failed: leave nothing half made behind.
    if (create) {
      log.reset();
      unlink(path.c_str());
    }
    return nullptr;
  }
  return log;
}

bool LogDb::Prepare(Table table, std::string *error) {
  const char *name = table == Table::kMail ? "mail_log_table" : "security_log_table";
  // Reading the columns is also the first real read of the file: a file that is no database
  // fails here, before any row.
  std::set<std::string> columns;
  char *sql = sqlite3_mprintf("PRAGMA table_info(%Q)", name);
  sqlite3_stmt *info = nullptr;
  int rc = sqlite3_prepare_v2(db_, sql, -1, &info, nullptr);
  sqlite3_free(sql);
  if (rc == SQLITE_OK) {
    while ((rc = sqlite3_step(info)) == SQLITE_ROW) {
      columns.insert(reinterpret_cast<const char *>(sqlite3_column_text(info, 1)));
    }
  }
  sqlite3_finalize(info);
  if (rc != SQLITE_DONE) {
    *error = "cannot read " + path_ + ": " + sqlite3_errmsg(db_);
    return false;
  }
  if (columns.empty()) {
    // A new file, or an empty one someone made by hand; a database of something else is left
    // alone.
    sqlite3_stmt *any = nullptr;
    const bool empty = sqlite3_prepare_v2(db_, "SELECT 1 FROM sqlite_master LIMIT 1", -1, &any,
                                          nullptr) == SQLITE_OK &&
                       sqlite3_step(any) == SQLITE_DONE;
    sqlite3_finalize(any);
    if (!empty) {
      *error = path_ + " has no " + name;
      return false;
    }
    const char *schema = table == Table::kSecurity ? security_log::kSecurityLogSchema
                         : oldLayoutWanted_        ? kMailSchemaOldLayout
                                                   : mail_log::kMailLogSchema;
    char *message = nullptr;
    if (sqlite3_exec(db_, schema, nullptr, nullptr, &message) != SQLITE_OK) {
      *error = "cannot create the table in " + path_ + ": " +
               (message != nullptr ? message : sqlite3_errmsg(db_));
      sqlite3_free(message);
      sqlite3_exec(db_, "ROLLBACK", nullptr, nullptr, nullptr);
      return false;
    }
    return Prepare(table, error);
  }

  static const char *const kMailColumns[] = {"message_id", "queue_id", "date",   "mail_from",
                                             "mail_to",    "size",     "status", "host"};
  static const char *const kSecurityColumns[] = {"date", "src",    "type",      "event",
                                                 "host", "sender", "recipient", "subject"};
  for (const char *column : table == Table::kSecurity ? kSecurityColumns : kMailColumns) {
    if (columns.count(column) == 0) {
      *error = path_ + " has a " + name + " without the column " + column;
      return false;
    }
  }
  newerLayout_ = columns.count("subject") != 0 && columns.count("ori_mail_to") != 0;
  const char *insert =
      table == Table::kSecurity
          ? "INSERT INTO security_log_table (date, src, type, event, host, sender, recipient, "
            "subject) VALUES (?, ?, ?, ?, ?, ?, ?, ?)"
      : newerLayout_
          ? "INSERT INTO mail_log_table (message_id, queue_id, date, mail_from, mail_to, size, "
            "status, host, subject, ori_mail_to) VALUES (?, ?, ?, ?, ?, ?, ?, ?, ?, ?)"
          : "INSERT INTO mail_log_table (message_id, queue_id, date, mail_from, mail_to, size, "
            "status, host) VALUES (?, ?, ?, ?, ?, ?, ?, ?)";
  if (sqlite3_prepare_v2(db_, insert, -1, &insert_, nullptr) != SQLITE_OK) {
    *error = "cannot prepare the insert into " + path_ + ": " + sqlite3_errmsg(db_);
    return false;
  }
  return true;
}

LogDb::~LogDb() {
  // Rows of a transaction nobody committed were not meant to stay: the journal takes them back.
  if (inTransaction_) sqlite3_exec(db_, "ROLLBACK", nullptr, nullptr, nullptr);
  sqlite3_finalize(insert_);
  sqlite3_close(db_);
}

bool LogDb::Fail(const char *what) {
  error_ = std::string(what) + " " + path_ + ": " + sqlite3_errmsg(db_);
  return false;
}

void LogDb::SetCacheSize(int megabytes) {
  char *sql = sqlite3_mprintf("PRAGMA cache_size = -%d", megabytes * 1024);
  sqlite3_exec(db_, sql, nullptr, nullptr, nullptr);
  sqlite3_free(sql);
}

bool LogDb::Begin() {
  if (sqlite3_exec(db_, "BEGIN IMMEDIATE", nullptr, nullptr, nullptr) != SQLITE_OK) {
    return Fail("cannot lock");
  }
  inTransaction_ = true;
  return true;
}

bool LogDb::Commit() {
  if (sqlite3_exec(db_, "COMMIT", nullptr, nullptr, nullptr) != SQLITE_OK) {
    return Fail("cannot commit to");
  }
  inTransaction_ = false;
  return true;
}

bool LogDb::Step() {
  const int rc = sqlite3_step(insert_);
  sqlite3_reset(insert_);
  return rc == SQLITE_DONE || Fail("cannot write to");
}

namespace {

void BindText(sqlite3_stmt *statement, int index, const std::string &text) {
  sqlite3_bind_text(statement, index, text.data(), static_cast<int>(text.size()), SQLITE_STATIC);
}

}  // namespace

bool LogDb::Add(const MailRow &row) {
  BindText(insert_, 1, row.messageId);
  BindText(insert_, 2, row.queueId);
  sqlite3_bind_int64(insert_, 3, static_cast<sqlite3_int64>(row.date));
  BindText(insert_, 4, row.from);
  BindText(insert_, 5, row.to);
  sqlite3_bind_int64(insert_, 6, row.size);
  sqlite3_bind_int(insert_, 7, row.status);
  BindText(insert_, 8, row.host);
  if (newerLayout_) {
    BindText(insert_, 9, row.subject);
    BindText(insert_, 10, row.origTo);
  }
  return Step();
}

bool LogDb::Add(const SecurityRow &row) {
  sqlite3_bind_int64(insert_, 1, static_cast<sqlite3_int64>(row.date));
  BindText(insert_, 2, row.src);
  BindText(insert_, 3, row.type);
  BindText(insert_, 4, row.event);
  BindText(insert_, 5, row.host);
  BindText(insert_, 6, row.sender);
  BindText(insert_, 7, row.recipient);
  BindText(insert_, 8, row.subject);
  return Step();
}

}  // namespace qsvlog
