#include "tables/pattern_list.h"

#include <cstring>

#include "cluster/backendWrapper.h"
#include "foundation/log.h"

namespace {

constexpr int kBusyTimeoutMs = 60000;
constexpr size_t kTextSize = 256;

}  // namespace

PatternListDB::PatternListDB(const char *path, const char *schema, const char *syncKey)
    : path_(path), schema_(schema), syncKey_(syncKey) {}

PatternListDB::~PatternListDB() {
  if (db_) db_->disconnect();
  db_.reset();
  if (sync && changed &&
      !KOLT::QUILLON_SERVER::QuillonServerBACKENDWrap().setFile(syncKey_, path_, nullptr)) {
    maillog(3, "%s:%d Failed to setFile", QSV_FILE, __LINE__);
  }
}

int PatternListDB::ConnectDB() {
  if (db_) return 0;
  db_.reset(new DBHandler(path_, schema_));
  if (db_->connect() != 0) {
    maillog(3, "%s:%d Failed to connect db", QSV_FILE, __LINE__);
    db_.reset();
    return -1;
  }
  db_->setBusyTimeout(kBusyTimeoutMs);
  return 0;
}

int PatternListDB::Change(const std::string &statement) {
  if (ConnectDB() != 0) {
    maillog(3, "%s:%d DB connection failed", QSV_FILE, __LINE__);
    return -1;
  }
  if (db_->ExecCmd(statement) != SQLITE_OK) {
    maillog(3, "%s:%d sqlite error: [%d] %s", QSV_FILE, __LINE__, db_->getErrCode(),
            sqlite3_errmsg(db_->getDB()));
    return -1;
  }
  changed = true;
  return 0;
}

bool PatternListDB::Quoted(const std::string &text, std::string *quoted) {
  char buffer[kTextSize];
  sqlite3_snprintf(sizeof(buffer), buffer, "%Q", text.c_str());
  if (strlen(buffer) >= sizeof(buffer) - 1) {
    maillog(3, "%s:%d invalid input: a text of %zu bytes is too long", QSV_FILE, __LINE__,
            text.size());
    return false;
  }
  *quoted = buffer;
  return true;
}

bool PatternListDB::LikePattern(const std::string &keyword, std::string *pattern) {
  char buffer[kTextSize];
  sqlite3_snprintf(sizeof(buffer), buffer, "'%%%q%%'", keyword.c_str());
  if (strlen(buffer) >= sizeof(buffer) - 1) {
    maillog(3, "%s:%d invalid input: a keyword of %zu bytes is too long", QSV_FILE, __LINE__,
            keyword.size());
    return false;
  }
  *pattern = buffer;
  return true;
}

int PatternListDB::Search(const std::string &rows, const std::string &count,
                          const std::function<void(sqlite3_stmt *)> &onRow) {
  if (ConnectDB() != 0) {
    maillog(3, "%s:%d DB connection failed", QSV_FILE, __LINE__);
    return -1;
  }
  int total = -1;
  for (const std::string *statement : {&rows, &count}) {
    sqlite3_stmt *query = nullptr;
    int rc = sqlite3_prepare_v2(db_->getDB(), statement->c_str(), -1, &query, nullptr);
    if (rc != SQLITE_OK) {
      maillog(3, "%s:%d sqlite3_prepare_v2: [%d] %s\n", QSV_FILE, __LINE__, rc,
              sqlite3_errmsg(db_->getDB()));
      sqlite3_finalize(query);
      return -1;
    }
    while ((rc = sqlite3_step(query)) == SQLITE_ROW) {
      if (statement == &rows) {
        onRow(query);
      } else {
        total = sqlite3_column_int(query, 0);
      }
    }
    if (rc != SQLITE_DONE) {
      maillog(3, "%s:%d sqlite3_step: [%d] %s\n", QSV_FILE, __LINE__, rc,
              sqlite3_errmsg(db_->getDB()));
      sqlite3_finalize(query);
      return -1;
    }
    sqlite3_finalize(query);
  }
  return total;
}

std::string PatternListDB::Text(sqlite3_stmt *row, int i) {
  const auto *text = reinterpret_cast<const char *>(sqlite3_column_text(row, i));
  return text != nullptr ? text : "";
}
