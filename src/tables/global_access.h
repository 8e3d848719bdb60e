// The global black and white lists: patterns that apply to all mail, numbered, each with a type
// bit, a description and an action the policy side gives meaning to, in
// "global_access_list.db", with a paged search. The file is spread to the cluster when the object
// goes, if something changed and the caller asked for it with SetSyncFlag(true).
//
// An object belongs to one request and one thread.
#ifndef MAILSERVER_TABLES_GLOBAL_ACCESS_H_
#define MAILSERVER_TABLES_GLOBAL_ACCESS_H_

#include <cstdint>
#include <string>
#include <vector>

#include "foundation/export.h"
#include "tables/pattern_list.h"

// A pattern's kind: one bit each; a search takes their sum as a mask (31: all). The network kind
// holds an address or a network, which the CIDR form of a search turns into a network.
enum GlobalAccessType {
  GLOBAL_ACCESS_SENDER = 1,
  GLOBAL_ACCESS_NETWORK = 2,
  GLOBAL_ACCESS_RECIPIENT = 4,
  GLOBAL_ACCESS_HELO = 8,
  GLOBAL_ACCESS_CLIENT_NAME = 16,
  GLOBAL_ACCESS_ALL = 31,
};

struct GlobalAccessItem {
  int32_t id = 0;
  bool enabled = true;
  GlobalAccessType type = GLOBAL_ACCESS_SENDER;
  std::string description;
  std::string pattern;
  int32_t action = 0;
};

class QSV_EXPORT GlobalAccess {
 public:
  GlobalAccess();
  ~GlobalAccess();
  GlobalAccess(const GlobalAccess &) = delete;
  GlobalAccess &operator=(const GlobalAccess &) = delete;

  void SetSyncFlag(bool sync);
  int ConnectDB();

  // `table` is "blacklist" or "whitelist". Add numbers the item above the highest id (1 in an
  // empty table); Set and Delete find it by id. 0 or -1.
  int Add(const char *table, const GlobalAccessItem &item);
  int Set(const char *table, const GlobalAccessItem &item);
  int Delete(const char *table, int id);
  // A page of the items (limit -1: all) that are `enabled` (-1: either), of a type in `typeMask`,
  // whose pattern or description holds `keyword`; the result is their total, whatever the page.
  // With `asCidr` network patterns come as networks (an invalid one is left out of the page but
  // counted); with `asPunycode` patterns come in punycode. -1 on failure.
  int Search(const char *table, int offset, int limit, int enabled, GlobalAccessType typeMask,
             const std::string &keyword, std::vector<GlobalAccessItem> &out, bool asCidr,
             bool asPunycode);

  int AddBlacklist(const GlobalAccessItem &item);
  int AddWhitelist(const GlobalAccessItem &item);
  int SetBlacklist(const GlobalAccessItem &item);
  int SetWhitelist(const GlobalAccessItem &item);
  int DeleteBlacklist(int id);
  int DeleteWhitelist(int id);
  int SearchBlacklist(int offset, int limit, int enabled, GlobalAccessType typeMask,
                      const std::string &keyword, std::vector<GlobalAccessItem> &out, bool asCidr,
                      bool asPunycode);
  int SearchWhitelist(int offset, int limit, int enabled, GlobalAccessType typeMask,
                      const std::string &keyword, std::vector<GlobalAccessItem> &out, bool asCidr,
                      bool asPunycode);

 private:
  PatternListDB db_;
};

#endif  // MAILSERVER_TABLES_GLOBAL_ACCESS_H_
