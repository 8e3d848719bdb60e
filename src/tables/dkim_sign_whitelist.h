// The networks whose mail is signed with DKIM: numbered patterns in "dkim_sign_whitelist.db",
// searched by page, the file spread to the cluster when the object goes after any change.
//
// An object belongs to one request and one thread.
#ifndef MAILSERVER_TABLES_DKIM_SIGN_WHITELIST_H_
#define MAILSERVER_TABLES_DKIM_SIGN_WHITELIST_H_

#include <cstdint>
#include <string>
#include <vector>

#include "foundation/export.h"
#include "tables/pattern_list.h"

struct DKIMSignWhitelistItem {
  int32_t id = 0;
  bool enabled = true;
  std::string description;
  std::string pattern;  // an address or a network
};

class QSV_EXPORT DKIMSignWhitelist {
 public:
  DKIMSignWhitelist();
  ~DKIMSignWhitelist();
  DKIMSignWhitelist(const DKIMSignWhitelist &) = delete;
  DKIMSignWhitelist &operator=(const DKIMSignWhitelist &) = delete;

  int ConnectDB();
  // Add numbers the item above the highest id (1 in an empty list). Set refuses a pattern that is
  // no network. 0 or -1.
  int Add(const DKIMSignWhitelistItem &item);
  int Set(const DKIMSignWhitelistItem &item);
  int Delete(int id);
  // A page (limit -1: all) of the items that are `enabled` (-1: either) whose pattern or
  // description holds `keyword`; an item whose pattern is no network is left out of the page but
  // counted. With `asCidr` patterns come as networks. The total, or -1.
  int Search(int offset, int limit, int enabled, const std::string &keyword,
             std::vector<DKIMSignWhitelistItem> &out, bool asCidr = false);

 private:
  PatternListDB db_;
};

#endif  // MAILSERVER_TABLES_DKIM_SIGN_WHITELIST_H_
