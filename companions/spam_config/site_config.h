// The text of the spam filter's site configuration: which plugins it loads, the nine settings,
// the black and white list, and the custom rule files that may go in beside them. Everything
// here was read back from the store, the database or the rules folder, so it is checked again
// before it becomes a configuration line: a name with a blank or a line break would otherwise add
// a line of its own. Stateless: safe from any thread.
#ifndef COMPANIONS_SPAM_CONFIG_SITE_CONFIG_H_
#define COMPANIONS_SPAM_CONFIG_SITE_CONFIG_H_

#include <json/json.h>

#include <string>

#include "foundation/log.h"

namespace spamconf {

// Where the filter keeps what it learns: the Bayes tokens ("bayes_toks", "bayes_seen") and the
// sender reputations ("tx-reputation"). The cluster copies these three files between nodes from
// this folder.
inline constexpr char kLearnedDataDir[] = "/var/spool/mail/spamassassin";

struct Settings {
  float requiredScore;
  bool rewrite;
  std::string subjectTag;
  int reportMechanism;
  bool autoLearn;
  float spamThreshold;
  float nonSpamThreshold;
  bool autoWhitelist;
};

// Writes one line to the system log, after the "%s:%d " of `file` and `line`, and the same words to
// standard error, where whoever ran the writer (a person, or the library passing its own standard
// error on) sees them. CONF_NOTE(format, ...) fills in the caller's place.
void NoteAt(const char *file, int line, const char *format, ...)
    __attribute__((format(printf, 3, 4)));
#define CONF_NOTE(...) ::spamconf::NoteAt(QSV_FILE, __LINE__, __VA_ARGS__)

// `text` for a log line: control characters, quotes and backslashes as "\xHH", and at most 128
// bytes of it.
std::string Printable(const std::string &text);

// "init.pre": the plugins, loaded before any rule is read. The reputation plugin only when the
// auto whitelist is on, since its settings are unknown words without it.
std::string PluginsText(bool autoWhitelist);

// "local.cf". False, with `why`, for settings no configuration line can carry: a score that is
// not a number, a subject tag with a control character or a backslash.
bool SettingsText(const Settings &settings, std::string &text, std::string &why);

// "blackwhite.cf", from the list as Spam::exportBlackWhite(json, false) gives it. Names that
// can't be written as one word are left out with a note; `written` gets the number of entries.
std::string ListsText(const Json::Value &lists, int &written);

// Whether `name` can be a file directly inside the rules folder: not empty, no "/", not "." or
// "..", no control character, at most 255 bytes.
bool PlainFileName(const std::string &name);

// The first directive of a rule file that would let it run code or touch files of its choosing
// (loading a plugin, including another file, naming a module, a path or a database), or "" when
// there is none. Rules are read by the filter's master process, which keeps root's real user id.
std::string ForbiddenDirective(const std::string &text);

}  // namespace spamconf

#endif  // COMPANIONS_SPAM_CONFIG_SITE_CONFIG_H_
