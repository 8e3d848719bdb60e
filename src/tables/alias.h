// The mail alias table: per mail domain, which users, groups, nested aliases and outside
// addresses an alias name stands for. One SQLite file, whose path the caller gives; from it come
// the Postfix alias map of a domain (ExportAlias), the reading of such a map (ImportAlias) and the
// flat list of final recipients of an alias (getWithoutAliasList).
//
// Processes of the suite share the file. Each statement batch holds the named lock
// "/tmp/quillon_server_alias_db.lock"; SQLite's busy wait and the unique index do the rest. An
// Alias object owns its DBHandler and belongs to one thread; build one per request.
#ifndef MAILSERVER_TABLES_ALIAS_H_
#define MAILSERVER_TABLES_ALIAS_H_

#include <functional>
#include <list>
#include <memory>
#include <set>
#include <string>
#include <unordered_map>
#include <vector>

#include "foundation/export.h"

class DBHandler;

enum MemberType {
  MEMBER_USER = 0,
  MEMBER_GROUP = 1,
  MEMBER_ALIAS = 2,  // another alias of the same domain
  MEMBER_EMAIL = 3,  // an outside address
};

// Domain 0 is the system's own place (the reserved `root`); 1 is the first mail domain.
struct QSV_EXPORT DomainAlias {
  int domain;
  std::string alias;
};

struct QSV_EXPORT MemberInfo {
  std::string member;
  MemberType type;
};

// Unless said otherwise, operations give 0 for success and a negative value for failure. A file
// that SQLite calls corrupt is made anew with only the seeded `root` row, and the failed call then
// counts as a success.
class QSV_EXPORT Alias {
 public:
  // A missing file will be created by load with the `root` row of the server's account type.
  explicit Alias(const std::string &dbPath);
  ~Alias();
  Alias(const Alias &) = delete;
  Alias &operator=(const Alias &) = delete;

  // Connects and appends every alias to the lists: a second load lists each alias twice.
  int load();
  // load for a file of the layout before domains; every alias counts as domain 1.
  int migrateLoad();
  // Closes the file and, in a healthy cluster, spreads it to the other nodes.
  int save();

  // -1 until constructed, 0 afterwards; after a failed write, the outcome of its handling.
  int getError() const { return error_; }
  std::list<DomainAlias> &getAliasList() { return aliasList_; }
  std::list<DomainAlias> &getSystemAlias() { return systemAlias_; }

  // 1 when the row exists, 0 when not.
  int checkMemberExist(const DomainAlias &alias, const MemberInfo &member);
  // Appends the distinct members of `type`, over all domains.
  int enumMemberByType(std::list<std::string> &out, MemberType type);
  // Appends the distinct names of aliases that hold `member`, over all domains.
  int enumAliasByMember(std::list<std::string> &out, const MemberInfo &member);
  // `out` is replaced.
  int loadMember(const DomainAlias &alias, std::list<MemberInfo> &out);
  // One page of the members of `type` that contain `search` (empty: all), in no set order.
  int loadMember(const DomainAlias &alias, const MemberType &type, const int &offset,
                 const int &limit, const std::string &search, std::vector<MemberInfo> &out);
  int migrateLoadMember(const std::string &alias, std::list<MemberInfo> &out);

  // Members already there, users the system doesn't know and names that aren't UTF-8 are
  // skipped without failing the call.
  int addMember(const DomainAlias &alias, const std::list<MemberInfo> &members);
  int delMember(const DomainAlias &alias, const std::list<MemberInfo> &members);
  // Aliases of the domain that hold this one follow the new name.
  int changeAliasName(const DomainAlias &alias, const std::string &newName);
  // Also takes the aliases out of the aliases that hold them. Gives 0 whatever happened: see
  // getError.
  int delAlias(const std::list<DomainAlias> &aliases);
  // Over all domains; 0 whatever happened, as delAlias.
  int delMemberByType(const std::list<std::string> &names, MemberType type);

  // REQUIRES: load. These work from the lists in memory.
  int getDomainAliasList(const int &domain, std::list<DomainAlias> &out);
  int delDomainAlias(const int &domain);
  int delDomainUserMember(const int &domain, const std::list<std::string> &names);
  int delDomainGroupMember(const int &domain, const std::list<std::string> &names);

  // The final recipients of an alias: nested aliases unfolded (a cycle ends where it closes),
  // groups replaced by their members, local names in their short form; sorted, each once.
  int getWithoutAliasList(const DomainAlias &alias, std::list<std::string> &out);

  // REQUIRES: load. Writes the Postfix alias map of `domain` to `path`; nested aliases stay by
  // name, for Postfix resolves them itself.
  int ExportAlias(const std::string &path, const int &domain);
  // REQUIRES: load. Adds the entries of such a map to `domain`, except the reserved names.
  // -1, with nothing added, for a path that is not a regular file or a line longer than
  // kMaxImportLine bytes.
  int ImportAlias(const std::string &path, const int &domain);
  static constexpr size_t kMaxImportLine = 64 * 1024;

 private:
  int _open();
  int _acquireFileLock();
  int _releaseFileLock(int fd);
  template <typename RowFn>
  int _query(char *statement, RowFn onRow);
  // `ran`: the batch got as far as SQLite (no open or lock failure).
  int _write(const std::list<std::string> &commands, bool &ran);
  // Runs each list as one all-or-none batch, all of them under one hold of the lock and in one
  // transaction; the error state ends as the batches one by one would leave it. -1 when nothing
  // could run, 0 otherwise, whatever the batches did.
  int _writeEach(const std::vector<std::list<std::string>> &batches);
  // Every member of every alias of `domain`, by alias name, from one statement under one hold of
  // the lock.
  int _loadDomainMembers(int domain,
                         std::unordered_map<std::string, std::list<MemberInfo>> &out);
  // The inserts that addMember makes of `members`, with `exists` telling a row already there
  // (anything but 0 skips the member, as checkMemberExist's 1 or a failure does).
  std::list<std::string> _insertCommands(const DomainAlias &alias,
                                         const std::list<MemberInfo> &members,
                                         const std::function<int(const MemberInfo &)> &exists);
  int _HandleDBError(int code);
  int _HandleError();
  int _delDomainMemberImp(const int &domain, const std::list<std::string> &names, int type);
  int _breakDownAlias(int domain, const std::list<MemberInfo> &in, std::list<MemberInfo> &out,
                      std::set<std::string> &seen);
  int _getLocalMemberList(const std::list<MemberInfo> &in, std::list<std::string> &out);
  static void _getLocalMemberList(const std::list<MemberInfo> &in, const std::string &accountType,
                                  std::list<std::string> &out);
  static std::string _toLocalName(const std::string &name, const std::string &accountType);

  int error_;
  std::unique_ptr<DBHandler> db_;
  std::list<DomainAlias> systemAlias_;
  std::list<DomainAlias> aliasList_;
  std::string path_;
};

// Moves a `root` alias defined in domain 1 into the system's place (domain 0), unfolded, and
// gives its members to the aliases that held it.
QSV_EXPORT int SwitchRootAlias(const std::string &dbPath);

#endif  // MAILSERVER_TABLES_ALIAS_H_
