// The settings of the mail access side: the IMAP and POP3 switches (plain and over TLS), how users
// may authenticate, full-text search and who gets it, and the connections a user may open from one
// address. The daemon script writes Dovecot's configuration from these keys; the library only
// stores them and runs the script.
//
// The four fts_allowed_* and fts_forbidden_* keys hold user or group ids joined by ",", as
// ftsRuleMapSet writes them.
//
// One object per operation and thread, like every settings object.
#ifndef MAILSERVER_CONFIG_IMAP_POP3_H_
#define MAILSERVER_CONFIG_IMAP_POP3_H_

#include <list>
#include <string>

#include "config/basic_config.h"
#include "foundation/export.h"

class QSV_EXPORT ImapPop3 : public Config {
 public:
  ImapPop3();

  // Load: every key, a missing or empty one as its default. Always 0.
  virtual int LoadSettings();
  // Save (only the keys whose value changed are written), then the callbacks in order. 0, or -1
  // (what was written stays).
  virtual int SaveSettings(const std::list<Callback> &callbacks);

  // Runs scripts/daemon/dovecot.sh with `action` (start, stop, restart, reload, status) and gives
  // its exit status.
  static int Service(const std::string &action);
};

#endif  // MAILSERVER_CONFIG_IMAP_POP3_H_
