#include "mailserverctl/scanner_commands.h"

#include <algorithm>
#include <cstdio>
#include <map>

#include "config/mailscanner.h"
#include "mailserverctl/error.h"
#include "mailserverctl/list_input.h"
#include "mailserverctl/spam_commands.h"
#include "mailserverctl/typed_settings.h"
#include "security/antivirus.h"

namespace mailserverctl {
namespace {

const char kExtraDir[] = "/var/packages/Quillon-Server/target/share/clamav/extrasigs";
// A subject, a header value, the keywords: nothing the scanner keeps on one line needs more.
constexpr size_t kMaxLine = 1024;
// A template is a screenful of text.
constexpr size_t kMaxText = 64 * 1024;
// RFC 5322 allows 998, but a header name that wraps helps nobody.
constexpr size_t kMaxHeaderName = 76;

// What a key takes beyond its type.
enum class Rule { kNone, kYesNo, kEngine, kAction, kHour, kMinute, kCount, kAddress, kHeaderName,
                  kLines, kLine };

int Usage() {
  fprintf(stderr,
          "usage: mailserverctl scanner show\n"
          "       mailserverctl scanner set KEY VALUE [KEY VALUE ...]\n"
          "       mailserverctl av status|reload|extra-load|extra-unload|count\n"
          "       mailserverctl av clear STATUS\n"
          "       mailserverctl av service start|stop|restart|status\n");
  return 2;
}

bool EndsWith(const std::string &text, const std::string &end) {
  return text.size() > end.size() && text.compare(text.size() - end.size(), end.size(), end) == 0;
}

// REQUIRES: `scanner` declares `key`.
Rule RuleOf(MailScanner &scanner, const std::string &key) {
  static const std::map<std::string, Rule> kRules = {
      {"anti_virus_engine", Rule::kEngine},
      {"anti_virus_action", Rule::kAction},
      {"mcp_forward_to", Rule::kAddress},
      {"mcp_bounce_admin_addr", Rule::kAddress},
      {"mcp_add_header_name", Rule::kHeaderName},
      {"anti_virus_delete_template", Rule::kLines},
      {"anti_virus_quarantine_template", Rule::kLines},
      {"mcp_bounce_content", Rule::kLines},
  };
  const auto found = kRules.find(key);
  if (found != kRules.end()) return found->second;
  // The allow_* keys are declared as strings, but the scanner reads nothing but yes and no.
  if (key.compare(0, 6, "allow_") == 0) return Rule::kYesNo;
  if (EndsWith(key, "_hour")) return Rule::kHour;
  if (EndsWith(key, "_minute")) return Rule::kMinute;
  const boost::any &declaration = *Declaration(scanner, key);
  if (declaration.type() == typeid(Key<int>)) return Rule::kCount;
  if (declaration.type() == typeid(Key<std::string>)) return Rule::kLine;
  return Rule::kNone;
}

// Why `text` can't be a text of `key`, or "": at most `max` bytes, and no control characters but
// line ends and tabs where `lines` allows them. A line end in a one-line text would start a new
// header or a new line of the scanner's configuration.
std::string TextRefusal(const std::string &key, const std::string &text, size_t max, bool lines) {
  if (text.size() > max) return key + " takes at most " + std::to_string(max) + " bytes";
  for (unsigned char c : text) {
    const bool allowed = lines && (c == '\n' || c == '\t');
    if ((c < 0x20 || c == 0x7f) && !allowed) {
      return key + (lines ? " takes lines of text without control characters but tabs"
                          : " takes one line of text without control characters");
    }
  }
  return "";
}

std::string HeaderNameRefusal(const std::string &key, const std::string &text) {
  if (text.size() > kMaxHeaderName) {
    return key + " takes a header name of at most " + std::to_string(kMaxHeaderName) + " bytes";
  }
  for (unsigned char c : text) {
    if (c < 0x21 || c > 0x7e || c == ':') {
      return key + " takes a header name: printable ASCII without blanks or \":\"";
    }
  }
  return "";
}

// Why `key` can't take `text` although its type would, or "".
std::string ScannerRule(MailScanner &scanner, const std::string &key, const std::string &text) {
  const std::string why = SpamSettingRefusal(key, text);
  if (!why.empty()) return why;
  int number = 0;
  const bool whole = WholeNumber(text, number);
  switch (RuleOf(scanner, key)) {
    case Rule::kYesNo: return text == "yes" || text == "no" ? "" : key + " takes yes or no";
    case Rule::kEngine:
      return text == "clamav" || text == "koltav-mcafee" ? ""
                                                         : key + " takes clamav or koltav-mcafee";
    case Rule::kAction:
      return text == "delete" || text == "quarantine" ? "" : key + " takes delete or quarantine";
    case Rule::kHour: return whole && number >= 0 && number <= 23 ? "" : key + " takes 0 to 23";
    case Rule::kMinute: return whole && number >= 0 && number <= 59 ? "" : key + " takes 0 to 59";
    case Rule::kCount: return whole && number >= 0 ? "" : key + " takes 0 or more";
    case Rule::kAddress:
      if (text.empty() || (ListNameRefusal(text).empty() &&
                           KindRefusal(TYPE_FROM, NAME_TYPE_ADDRESS, text).empty())) {
        return "";
      }
      return key + " takes an address NAME@DOMAIN, or nothing";
    case Rule::kHeaderName: return HeaderNameRefusal(key, text);
    case Rule::kLines: return TextRefusal(key, text, kMaxText, true);
    case Rule::kLine: return TextRefusal(key, text, kMaxLine, false);
    case Rule::kNone: return "";
  }
  return "";
}

int Show() {
  MailScanner scanner;
  // A value that loads as something else than it says would be shown wrongly.
  const std::string damaged = DamagedKey(scanner, [&scanner](const std::string &key,
                                                             const std::string &value) {
    return TypeRefusal(scanner, key, value);
  });
  if (!damaged.empty()) {
    return Error(damaged + "; set it right with `mailserverctl scanner set`");
  }
  scanner.LoadSettings();  // always 0: an unreadable key reads as its default
  PrintSettings(scanner, [](const std::string &, const std::string &text) { return Shown(text); });
  return 0;
}

int Set(const std::vector<std::string> &pairs) {
  MailScanner scanner;
  // Every value is checked before anything is loaded or set, so that a wrong one writes nothing.
  std::map<std::string, boost::any> typed;
  const std::string why = TypedPairs(
      scanner, "scanner", pairs,
      [&scanner](const std::string &key, const std::string &text) {
        return ScannerRule(scanner, key, text);
      },
      typed);
  if (!why.empty()) return Error(why);
  scanner.LoadSettings();
  for (const auto &entry : typed) scanner.Set(entry.first, entry.second);
  if (scanner.SaveSettings({}) != 0) {
    return Error("the settings were not all saved (see the system log)");
  }
  return 0;
}

// After a set moved, the daemon must load what is in the live folder now.
int Reload(const std::string &moved) {
  if (AntiVirus::ReloadClamd() == 0) return 0;
  return Error(moved + ", but the virus scanner's daemon did not reload (see the system log)");
}

int Clear(const std::string &text) {
  if (text.size() != 1 || text[0] < '1' || text[0] > '5') {
    return Error("refused status " + Quoted(text) + ": a status is a number from 1 to 5");
  }
  AntiVirus::AntiVirusStatusClear(text[0] - '0');
  return 0;
}

// The engine's daemon through the library, which picks the script of the configured engine.
int Service(const std::string &action) {
  static const std::vector<std::string> kActions = {"start", "stop", "restart", "status"};
  if (std::find(kActions.begin(), kActions.end(), action) == kActions.end()) {
    return Error("unknown action " + Quoted(action) +
                 ": av service takes start, stop, restart or status");
  }
  const int rc = MailScanner::AntiVirusService(action);
  if (action == "status") {
    printf("%s\n", rc == 0 ? "running" : "not running");
    return rc == 0 ? 0 : 1;
  }
  return rc == 0 ? 0
                 : Error("the virus scanner's daemon did not " + action +
                         " (see the system log and the daemon's own log)");
}

}  // namespace

int ScannerCommand(const std::vector<std::string> &args) {
  const std::string word = args.empty() ? "" : args[0];
  if (word == "show" && args.size() == 1) return Show();
  if (word == "set" && args.size() >= 3 && args.size() % 2 == 1) {
    return Set(std::vector<std::string>(args.begin() + 1, args.end()));
  }
  if (word == "show" || word == "set" || word.empty()) return Usage();
  return Error("unknown word " + Quoted(word) + ": scanner takes show or set");
}

int AntiVirusCommand(const std::vector<std::string> &args) {
  const std::string word = args.empty() ? "" : args[0];
  if (word == "clear") return args.size() == 2 ? Clear(args[1]) : Usage();
  if (word == "service") return args.size() == 2 ? Service(args[1]) : Usage();
  if (word.empty()) return Usage();
  static const std::vector<std::string> kWords = {"status", "count", "reload", "extra-load",
                                                 "extra-unload"};
  if (std::find(kWords.begin(), kWords.end(), word) == kWords.end()) {
    return Error("unknown word " + Quoted(word) +
                 ": av takes status, reload, extra-load, extra-unload, count, clear or service");
  }
  if (args.size() != 1) return Usage();
  if (word == "status") {
    ANTI_VIRUS_STATUS status = 1;
    if (AntiVirus::AntiVirusStatusGet(status) != 0) {
      return Error("cannot read the antivirus status file (see the system log)");
    }
    printf("%d\n", static_cast<int>(status));
    return 0;
  }
  if (word == "count") {
    printf("%ld\n", AntiVirus::AllDBPatternNumGet());
    return 0;
  }
  if (word == "reload") {
    return AntiVirus::ReloadClamd() == 0
               ? 0
               : Error("the virus scanner's daemon did not reload (see the system log)");
  }
  if (word == "extra-load") {
    if (AntiVirus::ExtraDBLoad() != 0) {
      return Error(std::string("no extra signatures were loaded: ") + kExtraDir +
                   " holds none, or they could not be moved (see the system log)");
    }
    return Reload("the extra signatures are loaded");
  }
  if (AntiVirus::ExtraDBUnload() != 0) {
    return Error("the extra signatures could not be moved out (see the system log)");
  }
  return Reload("the extra signatures are unloaded");
}

}  // namespace mailserverctl
