// The mail and security log databases as the log tools write them: where the live files are, the
// scripts that create them (the library's own, and the older layout of an archive), the rows they
// hold, and a connection that adds rows.
//
// A LogDb owns its connection and its prepared insert and belongs to one thread; other processes
// may read or write the same file at the same time, which is what the busy time-out is for.
#ifndef MAILSERVER_TOOLS_LOG_FILES_LOG_FILES_H_
#define MAILSERVER_TOOLS_LOG_FILES_LOG_FILES_H_

#include <sqlite3.h>

#include <ctime>
#include <memory>
#include <string>

namespace qsvlog {

inline constexpr char kLogDir[] = "/var/packages/Quillon-Server/target/var/aggr_log";
inline constexpr char kLiveMailDb[] =
    "/var/packages/Quillon-Server/target/var/aggr_log/aggr_mail_log.db";
inline constexpr char kLiveSecurityDb[] =
    "/var/packages/Quillon-Server/target/var/aggr_log/aggr_security_log.db";

// Archives made before subjects and original recipients were kept.
inline constexpr char kMailSchemaOldLayout[] =
    "BEGIN TRANSACTION;"
    "create table mail_log_table(message_id TEXT, queue_id TEXT, date INTEGER, mail_from TEXT, "
    "mail_to TEXT, size INTEGER, status INTEGER, host TEXT);"
    "CREATE INDEX IF NOT EXISTS mail_log_table_message_id_idx ON mail_log_table (message_id);"
    "CREATE INDEX IF NOT EXISTS mail_log_table_date_idx ON mail_log_table (date);"
    "CREATE INDEX IF NOT EXISTS mail_log_table_mail_from_idx ON mail_log_table (mail_from);"
    "CREATE INDEX IF NOT EXISTS mail_log_table_mail_to_idx ON mail_log_table (mail_to);"
    "CREATE INDEX IF NOT EXISTS mail_log_table_size_idx ON mail_log_table (size);"
    "CREATE INDEX IF NOT EXISTS mail_log_table_status_idx ON mail_log_table (status);"
    "COMMIT TRANSACTION;";

// The status column of the mail log.
enum MailStatus {
  kSend = 0,     // delivered to a remote host
  kReceive = 1,  // delivered into a local mailbox
  kBounce = 2,
  kResend = 3,  // delivered after an earlier deferral
};

// One recipient of one message. Addresses are in their UTF-8 form.
struct MailRow {
  std::string messageId;  // the Message-ID header as it was logged, angle brackets included
  std::string queueId;
  time_t date = 0;
  std::string from;
  std::string to;
  long long size = 0;
  int status = kSend;
  std::string host;
  std::string subject;
  std::string origTo;  // before alias rewriting; empty when the same as `to`
};

struct SecurityRow {
  time_t date = 0;
  std::string src;   // the client's address
  std::string type;  // "reject", "spam" or "content"
  std::string event;
  std::string host;
  std::string sender;
  std::string recipient;
  std::string subject;
};

// "" when `path` may name a log database, else why not: it must be absolute and name a file.
std::string CheckDbPath(const std::string &path);

class LogDb {
 public:
  enum class Table { kMail, kSecurity };

  // Connects to `path`, creating a missing file with its table (the older mail layout when
  // `oldLayout`), mode 0644, owned by the package user when run as root; a missing live log
  // folder is made the same way. A path that is a symbolic link is refused. Null with `*error`
  // set when the file can't be used.
  static std::unique_ptr<LogDb> Open(const std::string &path, Table table, bool oldLayout,
                                     std::string *error);
  ~LogDb();
  LogDb(const LogDb &) = delete;
  LogDb &operator=(const LogDb &) = delete;

  // Whether the mail table has subject and ori_mail_to; a row added to an older table loses them.
  bool newerLayout() const { return newerLayout_; }

  // Lets one long transaction keep up to `megabytes` of pages in memory instead of spilling them
  // into the file before the commit.
  void SetCacheSize(int megabytes);

  // Takes the write lock at once, so that a long wait happens before any row, not at commit.
  bool Begin();
  bool Commit();
  bool inTransaction() const { return inTransaction_; }
  // REQUIRES: Open for the matching table.
  bool Add(const MailRow &row);
  bool Add(const SecurityRow &row);

  // What went wrong last, for a one-line message.
  const std::string &error() const { return error_; }

 private:
  LogDb(sqlite3 *db, const std::string &path) : db_(db), path_(path) {}
  bool Prepare(Table table, std::string *error);
  bool Step();
  bool Fail(const char *what);

  sqlite3 *db_;
  sqlite3_stmt *insert_ = nullptr;
  std::string path_;
  bool newerLayout_ = true;
  bool oldLayoutWanted_ = false;
  bool inTransaction_ = false;
  std::string error_;
};

}  // namespace qsvlog

#endif  // MAILSERVER_TOOLS_LOG_FILES_LOG_FILES_H_
