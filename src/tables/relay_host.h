// Named crosswise, as the suite pairs them: relay_host.h holds RelayClient (this server as host).
// Who may relay through this server: networks whose clients send without authentication, and
// domains this server relays mail to. Both lists live as JSON text in settings of Postfix;
// exportRelayMap turns them into "trust_network" (a cidr table, read as text) and
// "relay_domains" (a hash map), and replaces the two only together, so that Postfix never sees
// a new network list beside an old domain list.
//
// A RelayClient is a Postfix settings object: one per operation and thread. Each call loads the
// settings afresh.
#ifndef MAILSERVER_TABLES_RELAY_HOST_H_
#define MAILSERVER_TABLES_RELAY_HOST_H_

#include <json/json.h>

#include <list>
#include <string>
#include <vector>

#include "config/postfix.h"
#include "foundation/export.h"

// What RelayClient::exportFile writes.
enum RelayHostFileType {
  RELAY_NETWORK_FILE = 0,  // "trust_network"
  RELAY_DOMAIN_FILE = 1,   // "relay_domains"
};

struct QSV_EXPORT RelayClientInfo {
  std::string pattern;  // an address, a network or a domain
  bool enabled = true;
  std::string description;

  // The table line(s) of the entry without the last "\n": a network in CIDR form, or a domain
  // in both its spellings, each with " OK". 0, or -1 for a pattern that is no network.
  int ExportPattern(RelayHostFileType fileType, std::string &out) const;
};

class QSV_EXPORT RelayClient : public Postfix {
 public:
  // `listType` is "network" or "domain". 0, or -1.
  int getRelayClient(const std::string &listType, std::list<RelayClientInfo> &out);
  // Stores the array of {pattern, enable, description} as it is: patterns are checked only by
  // the export. 0, or -1.
  int setRelayClient(const std::string &listType, const Json::Value &list);

  // The networks Postfix itself would trust, from `postconf -d mynetworks`. 0, or -1.
  static int getDefaultMynetworks(std::vector<std::string> &out);

  // Writes one table to `path`. 0, or -1.
  int exportFile(const std::string &path, RelayHostFileType fileType);
  // Writes both tables and moves them into place together, then runs postmap on the domains.
  // 0; -1 when a temporary file could not be made; 1 when writing failed, with both old tables
  // left in place.
  int exportRelayMap();

 private:
  int LoadFresh();
};

#endif  // MAILSERVER_TABLES_RELAY_HOST_H_
