// The access table: names the SMTP side accepts (OK), rejects or discards, in "access_table" of the
// main settings database, and its exchange with the mail daemon's regular-expression access maps.
// It sits beside the anti-spam lists because it shares their words (list_types.h).
//
// An exported account row ("/name@.*/") comes back from an import as an address pattern
// ("name@*"): the map form can't tell the two apart.
//
// Access is a process-wide singleton that lives until the process ends. Its first getInstance must
// not race with another; after that, one thread at a time (it owns one database connection).
#ifndef MAILSERVER_SECURITY_ACCESS_H_
#define MAILSERVER_SECURITY_ACCESS_H_

#include <list>
#include <memory>
#include <string>

#include "foundation/db_handler.h"
#include "foundation/export.h"
#include "security/list_types.h"

enum AccessStatus : int {
  ACCESS_UNKNOWN = 0,
  ACCESS_OK = 1,
  ACCESS_REJECT = 2,
  ACCESS_DISCARD = 3,
};

struct AccessInfo {
  std::string name;
  AccessStatus status;
  Type type;
  NameType nameType;
};

class QSV_EXPORT Access {
 public:
  // A page of the table: `type` is "all", "sender", "recipient" or "client"; the name matches as
  // a substring. An unknown type word finds nothing.
  struct Filter {
    int offset;
    int limit;
    std::string type;
    std::string name;
  };

  // The instance, connected to `dbPath` (created with the main settings schema when missing).
  // Later calls give the same instance, whatever path they name. Null when the first attempt
  // fails; the next call tries again.
  static Access *getInstance(const std::string &dbPath);
  int dbInit();
  // Closes the database. Always 0.
  int disconnectDB();

  // "ok" and "permit" are OK, "reject" REJECT, "discard" DISCARD, in any case and with blanks
  // around; anything else ACCESS_UNKNOWN.
  static AccessStatus StrToStatus(const char *text);
  // "OK", "REJECT", "DISCARD", or "UNKNOWN" for any other value.
  static const char *StatusToStr(AccessStatus status);

  // Inserts or replaces every row, all or none. 0 or -1.
  int setAccess(const std::list<AccessInfo> &rows);
  // Deletes by (name_type, name, type), whatever the status. 0 or -1.
  int deleteAccess(const std::list<AccessInfo> &rows);
  int addAccess(Type type, NameType nameType, const std::string &name, AccessStatus status);

  // A page of the rows of `type`, by name in descending order; empty on failure.
  std::list<AccessInfo> getAccessList(Type type, int offset, int limit);
  std::list<AccessInfo> getAllAccessList(const Filter &filter);
  // The number of rows the filter finds, whatever its page; -1 when the query fails.
  int getTotalAccessNum(const Filter &filter);

  // Adds the lines "/PATTERN/ STATUS" (or "NAME STATUS") of a regexp access map as rows of `type`.
  // Lines of another shape or with an unknown status are passed over. 0 or -1.
  int importAccess(Type type, const std::string &path);
  // Writes the rows of `type` as a regexp access map. 0 or -1.
  int exportAccess(Type type, const std::string &path);

 private:
  explicit Access(const std::string &dbPath);
  bool Query(const std::string &statement, std::list<AccessInfo> &out);

  static Access *_access;

  std::unique_ptr<DBHandler> db_;
  std::string dbPath_;
};

#endif  // MAILSERVER_SECURITY_ACCESS_H_
