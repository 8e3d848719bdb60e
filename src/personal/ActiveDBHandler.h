// The list of local users and groups that are active for the mail service, kept in
// "/var/packages/Quillon-Server/etc/active_list.db". A row is known by its number and kind: the
// uid of a user or the gid of a group, so that a rename on the system keeps the row, and
// RefreshUserGroupName brings its name up to date.
//
// A handler owns its connection from construction to destruction and belongs to one thread;
// other handlers and processes may use the file at the same time.
#ifndef MAILSERVER_PERSONAL_ACTIVEDBHANDLER_H_
#define MAILSERVER_PERSONAL_ACTIVEDBHANDLER_H_

#include <string>
#include <vector>

#include "foundation/db_handler.h"
#include "foundation/export.h"

struct ActiveRecord {
  std::string ugid;    // the uid or gid in decimal; Insert and Delete find it themselves by name
  std::string name;
  std::string type;    // "user" or "group"
  std::string active;  // "yes" or "no"
};

// Each text left empty doesn't narrow. A negative limit or offset is not set.
struct ActiveDBFilter {
  std::string name;
  bool exactName = true;  // false: rows whose name contains `name`
  std::string type;
  std::string active;
  // The columns of the select: "*" for rows, "count(*)" for a count. Only these two are taken:
  // the text goes into the statement as it stands.
  std::string column = "*";
  int limit = -1;
  int offset = -1;
};

class QSV_EXPORT ActiveDBHandler {
 public:
  ActiveDBHandler();
  ~ActiveDBHandler();
  ActiveDBHandler(const ActiveDBHandler &) = delete;
  ActiveDBHandler &operator=(const ActiveDBHandler &) = delete;

  // Adds or replaces the rows of the records, all in one transaction. A record whose name the
  // system doesn't know as its type is left out with a log line. 0 or -1.
  int Insert(const std::vector<ActiveRecord> &records);
  int Insert(const ActiveRecord &record);
  // Removes the rows of the records' names, as Insert finds them. 0 or -1.
  int Delete(const std::vector<ActiveRecord> &records);
  int Delete(const ActiveRecord &record);
  // The number of rows the filter finds, whatever its page, or -1.
  int GetRecordNum(const ActiveDBFilter &filter);
  // Replaces `records` with the page the filter finds, in the table's order. Their count, or -1.
  int Retrieve(const ActiveDBFilter &filter, std::vector<ActiveRecord> &records);
  // Gives each row the name its number has on the system now; a number the system no longer
  // knows keeps its row as it is. 0, or -1 when the table could not be read or written.
  int RefreshUserGroupName();
  // Tells the interested parties that the list changed: see activate_hook.h.
  int ActiveUserListHookAction();

  // -1 until connected, 0 when well, 1 after a failed statement whose cause awaits HandleError.
  int getErrCode() const { return state_; }
  // After a failed statement: a damaged file is thrown away and made anew, empty. The new state.
  int HandleError();
  // A code of SQLITE_CORRUPT makes the database anew and gives the result of that; any other
  // code is given back as it is.
  int HandleDBError(DBHandler &db, int code);

 private:
  int Change(const std::vector<ActiveRecord> &records, bool insert);
  bool Select(const ActiveDBFilter &filter, std::string &statement);
  void Failed(int code);

  DBHandler *db_;
  int state_;
};

#endif  // MAILSERVER_PERSONAL_ACTIVEDBHANDLER_H_
