#include "mailserverctl/imap_commands.h"

#include <algorithm>
#include <cstdio>
#include <map>

#include "config/imap_pop3.h"
#include "mailserverctl/error.h"
#include "mailserverctl/typed_settings.h"

namespace mailserverctl {
namespace {

// Dovecot's configuration writer takes no more; see kolt_gen_dovecot_conf.
constexpr int kMaxUserIpConnections = 65535;

// Decimal ids joined by ",", as the full-text search rules keep them, or nothing.
bool IdList(const std::string &text) {
  if (text.empty()) return true;
  for (size_t start = 0;;) {
    const size_t comma = text.find(',', start);
    const std::string id = text.substr(start, comma == std::string::npos ? comma : comma - start);
    if (id.empty() || id.size() > 10 || id.find_first_not_of("0123456789") != std::string::npos) {
      return false;
    }
    if (comma == std::string::npos) return true;
    start = comma + 1;
  }
}

// Why `key` can't take `text` although its type would, or "": what the configuration writer
// takes, so that a value set here never stops Dovecot's next start.
std::string ImapRule(const std::string &key, const std::string &text) {
  int number = 0;
  if (key == "max_userip_conn") {
    return WholeNumber(text, number) && number >= 1 && number <= kMaxUserIpConnections
               ? ""
               : key + " takes 1 to " + std::to_string(kMaxUserIpConnections);
  }
  if (key.compare(0, 12, "fts_allowed_") == 0 || key.compare(0, 14, "fts_forbidden_") == 0) {
    return IdList(text) ? "" : key + " takes user or group ids joined by \",\", or nothing";
  }
  return "";
}

}  // namespace

int ImapShow() {
  ImapPop3 settings;
  // A value that loads as something else than it says would be shown wrongly.
  const std::string damaged = DamagedKey(settings, [&settings](const std::string &key,
                                                               const std::string &value) {
    const std::string why = TypeRefusal(settings, key, value);
    return why.empty() && !value.empty() ? ImapRule(key, value) : why;
  });
  if (!damaged.empty()) {
    return Error(damaged + "; set it right with `mailserverctl settings set --of imap`");
  }
  settings.LoadSettings();  // always 0: an unreadable key reads as its default
  PrintSettings(settings, [](const std::string &, const std::string &text) { return text; });
  return 0;
}

int ImapSet(const std::vector<std::string> &pairs) {
  ImapPop3 settings;
  // Every value is checked before anything is loaded or set, so that a wrong one writes nothing.
  std::map<std::string, boost::any> typed;
  const std::string why = TypedPairs(settings, "IMAP and POP3", pairs, ImapRule, typed);
  if (!why.empty()) return Error(why);
  settings.LoadSettings();
  for (const auto &entry : typed) settings.Set(entry.first, entry.second);
  if (settings.SaveSettings({}) != 0) {
    return Error("the settings were not all saved (see the system log)");
  }
  // A stopped Dovecot reads them at its next start; reloading it would start nothing.
  if (ImapPop3::Service("status") == 0 && ImapPop3::Service("reload") != 0) {
    return Error("the settings were saved, but the running Dovecot did not take them up (see "
                 "the system log)");
  }
  return 0;
}

int ImapService(const std::string &action) {
  static const std::vector<std::string> kActions = {"start", "stop", "restart", "reload",
                                                    "status"};
  if (std::find(kActions.begin(), kActions.end(), action) == kActions.end()) {
    return Error("unknown action " + Quoted(action) +
                 ": settings service takes start, stop, restart, reload or status");
  }
  const int rc = ImapPop3::Service(action);
  if (action == "status") {
    printf("%s\n", rc == 0 ? "running" : "not running");
    return rc == 0 ? 0 : 1;
  }
  return rc == 0 ? 0
                 : Error("Dovecot did not " + action +
                         " (see the system log and the package's var/log/dovecot.log)");
}

}  // namespace mailserverctl
