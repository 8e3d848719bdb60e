// Named crosswise, as the suite pairs them: relay_client.h holds RelayHost (this server as client).
// The outgoing relays through which this server hands on its mail: none, one for all mail, or
// several, each chosen by the sender or the recipient of a mail. The hosts live as JSON text in
// four settings of Postfix; exportRelayMap turns them into the maps Postfix reads:
// "relay_transport" (recipient rules), "sender_relay" (sender rules) and the SASL password maps
// under "relay/", one per host. Each host of the lists is served by a transport of its own whose
// name, `service_name`, is "relay-" + list + index; those transports are set up outside.
//
// Passwords are clear text in a RelayHostInfo and in the JSON a caller hands in, enciphered with
// the platform cipher in the settings, and clear again in the password maps, which are therefore
// readable by root only.
//
// A RelayHost is a Postfix settings object: one per operation and thread. Each call loads the
// settings afresh; each set ends in one SaveSettings.
#ifndef MAILSERVER_TABLES_RELAY_CLIENT_H_
#define MAILSERVER_TABLES_RELAY_CLIENT_H_

#include <json/json.h>

#include <list>
#include <string>

#include "config/postfix.h"
#include "foundation/export.h"

// What RelayHost::exportFile writes.
enum RelayClientFileType {
  RELAY_SENDER_MAP = 0,     // "sender_relay"
  RELAY_RECIPIENT_MAP = 1,  // "relay_transport"
  RELAY_PASSWORD_MAP = 2,   // "relay/sasl_passwd" and its per-host forms
};

struct QSV_EXPORT RelayHostInfo {
  // The side of a mail a rule is matched against.
  enum Type { SENDER = 0, RECIPIENT = 1 };

  struct QSV_EXPORT Rule {
    std::string rule_type;  // "address" or "domain"
    std::string pattern;    // as the user wrote it, in UTF-8 or punycode

    // The map key of the rule: the pattern, or its other spelling when `convert` is set and
    // there is one; a sender domain gets a leading "@". 1 when the other spelling was used, 0 for
    // the pattern as written, -1 for an unknown rule or list type.
    int ExportRule(Type type, std::string &out, bool convert) const;
  };

  std::string server;
  int port = 25;
  std::list<Rule> rules;
  std::string description;
  bool security_connection = false;
  bool enable_auth = false;
  std::string auth_name;
  std::string auth_password;
  std::string service_name;
  bool enabled = true;

  // "[host]:port", the host in punycode; "" for an empty host or a port out of range.
  std::string ExportHostInfo() const;
  // "[host]:port name:password"; "" unless the host is enabled with complete credentials.
  std::string ExportAuth() const;
  // The map lines of every rule, each ending in "\n"; a pattern with two spellings gives two
  // lines. "" for a disabled host. 0, or -1 for a bad host or rule.
  int ExportPattern(Type type, std::string &out) const;
};

class QSV_EXPORT RelayHost : public Postfix {
 public:
  // "single", "multiple" or "none". 0, or -1 for unreadable settings or another value.
  int getRelayHostType(std::string &type);
  // Stores `value` (an object with "host_type") as it is. 0, or -1.
  int setRelayHostType(const Json::Value &value);

  // The single relay, or `isEmpty` true with `info` untouched when none is set. 0, or -1.
  int getSingleRelayHost(RelayHostInfo &info, bool &isEmpty);
  // Stores one host object. `value` comes back with its password enciphered and its
  // service_name emptied, even when the call fails later. 0, or -1 for a host that is this server.
  int setSingleRelayHost(Json::Value &value);

  // `listType` is "sender" or "recipient". 0, or -1.
  int getRelayHost(const std::string &listType, std::list<RelayHostInfo> &hosts);
  // Stores an array of host objects, each numbered by its place (service_name) and its password
  // enciphered in `hosts` itself. All or nothing: one refused host stores none. 0, or -1.
  int setRelayHost(const std::string &listType, Json::Value &hosts);

  // False for this server's own host name or one of its domains, in either spelling.
  // REQUIRES: the settings are loaded.
  bool validHostName(const std::string &host);

  // Writes every map of the current mode and runs postmap on each. Postfix itself is reloaded
  // by the caller. 0, or -1 at the first failure; the maps written before it stay.
  int exportRelayMap();

  // Writes one map beside `path`, moves it into place whole and runs postmap on it. 0, or -1
  // with the old map left as it was when the writing failed.
  int exportRelayHost(std::string path, RelayClientFileType fileType,
                      std::list<RelayHostInfo> hosts);
  // Writes the lines of `hosts` of one file type to `path`. 0, or -1.
  int exportFile(const std::string &path, RelayClientFileType fileType,
                 std::list<RelayHostInfo> hosts);
  // Removes every file (not directory) directly in `dir`. 0, or -1 at the first failure.
  int removeAllFiles(const std::string &dir);

 private:
  int LoadFresh();
};

#endif  // MAILSERVER_TABLES_RELAY_CLIENT_H_
