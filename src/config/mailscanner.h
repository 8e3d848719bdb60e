// The settings of the content scanner: spam scoring, the antivirus engine and its templates,
// dangerous content, and the content protection rules (MCP). It adds one operation: running the
// daemon script of the chosen antivirus engine.
//
// The spam keys are shared with the anti-spam object (security/spam.h), which defaults and formats
// some of them differently: here a missing report mechanism reads 0 and a missing non-spam
// threshold -1.0, and scores are saved with six decimals ("5.000000"). The five allow_* keys are
// strings, "yes" or "no": reading one as a bool throws boost::bad_any_cast.
//
// One object per operation and thread, like every settings object.
#ifndef MAILSERVER_CONFIG_MAILSCANNER_H_
#define MAILSERVER_CONFIG_MAILSCANNER_H_

#include <list>
#include <string>

#include "config/basic_config.h"
#include "foundation/export.h"

class QSV_EXPORT MailScanner : public Config {
 public:
  MailScanner();

  // Load: every key, a missing or empty one as its default. Always 0.
  int LoadSettings();
  // Save (only the keys whose value changed are written), then the callbacks in order. 0, or -1
  // (what was written stays).
  int SaveSettings(const std::list<Callback> &callbacks);

  // Runs the daemon script of the engine in anti_virus_engine ("clamav" or "koltav-mcafee") with
  // `action` and gives its result; -1 when the settings can't be loaded or the engine is unknown.
  static int AntiVirusService(const std::string &action);
};

#endif  // MAILSERVER_CONFIG_MAILSCANNER_H_
