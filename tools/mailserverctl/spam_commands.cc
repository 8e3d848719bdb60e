#include "mailserverctl/spam_commands.h"

#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <list>
#include <map>
#include <set>

#include "config/mail_conf.h"
#include "core/mail_conf.h"
#include "foundation/files.h"
#include "foundation/mailserver_db_schema.h"
#include "foundation/utf8.h"
#include "mailserverctl/blackwhite_commands.h"
#include "mailserverctl/error.h"
#include "mailserverctl/list_input.h"
#include "security/spam.h"

namespace mailserverctl {
namespace {

const char kRulesDir[] = "/var/packages/Quillon-Server/etc/rules/";
const char kRuleFlagPrefix[] = "mailserver_rule_status-";
// The rules folder is listed 128 files at a time: a rule beyond that would never be seen.
constexpr size_t kMaxRules = 128;
// A rule file is a page of text; nothing near this.
constexpr size_t kMaxRuleFile = 1024 * 1024;
constexpr size_t kMaxSubject = 255;
constexpr double kMaxScore = 1000;

enum class Kind { kSwitch, kScore, kMechanism, kSubject };

// The nine settings in the order they are shown.
const std::vector<std::pair<std::string, Kind>> kSettings = {
    {"spam_enable", Kind::kSwitch},
    {"spam_enable_rewrite", Kind::kSwitch},
    {"spam_rewrite_subject", Kind::kSubject},
    {"spam_required_score", Kind::kScore},
    {"spam_report_machanism", Kind::kMechanism},
    {"spam_auto_learn", Kind::kSwitch},
    {"spam_learn_threshold_spam", Kind::kScore},
    {"spam_learn_threshold_non_spam", Kind::kScore},
    {"spam_auto_whitelist", Kind::kSwitch},
};

int Usage() {
  fprintf(stderr,
          "usage: mailserverctl spam show\n"
          "       mailserverctl spam set KEY VALUE [KEY VALUE ...]\n"
          "       mailserverctl spam apply\n"
          "       mailserverctl spam rule list\n"
          "       mailserverctl spam rule import FILE\n"
          "       mailserverctl spam rule enable|disable|delete NAME\n");
  BlackWhiteUsage();
  return 2;
}

Spam *Instance() {
  Spam *spam = Spam::getInstance(kMailServerDBPath);
  if (spam == nullptr) Error("cannot open the spam filter settings (see the system log)");
  return spam;
}

std::string Score(float value) {
  char text[64];
  snprintf(text, sizeof(text), "%.2f", value);
  return text;
}

// A setting as the store keeps it.
std::string Text(const Spam &spam, const std::string &key) {
  auto yesNo = [](bool on) { return std::string(on ? "yes" : "no"); };
  if (key == "spam_enable") return yesNo(spam.isEnableSpamassassin());
  if (key == "spam_enable_rewrite") return yesNo(spam.isEnableRewrite());
  if (key == "spam_rewrite_subject") return spam.getRewriteSubject();
  if (key == "spam_required_score") return Score(spam.getRequiredScore());
  if (key == "spam_report_machanism") return std::to_string(spam.getReportMachanism());
  if (key == "spam_auto_learn") return yesNo(spam.isUseAutoLearn());
  if (key == "spam_learn_threshold_spam") return Score(spam.getSpamLearnThreshold());
  if (key == "spam_learn_threshold_non_spam") return Score(spam.getNonSpamLearnThreshold());
  return yesNo(spam.isUseAutoWhiteList());
}

// A score is kept with two decimals: more would be cut without a word.
bool ParseScore(const std::string &text, float &score) {
  const size_t digits = !text.empty() && text[0] == '-' ? 1 : 0;
  const size_t dot = text.find('.');
  const std::string whole =
      text.substr(digits, dot == std::string::npos ? std::string::npos : dot - digits);
  const std::string part = dot == std::string::npos ? "" : text.substr(dot + 1);
  if (whole.empty() || whole.size() > 4 ||
      whole.find_first_not_of("0123456789") != std::string::npos ||
      (dot != std::string::npos && (part.empty() || part.size() > 2 ||
                                    part.find_first_not_of("0123456789") != std::string::npos))) {
    return false;
  }
  const double value = strtod(text.c_str(), nullptr);
  if (std::fabs(value) > kMaxScore) return false;
  score = static_cast<float>(value);
  return true;
}

// Why `text` can't be the value of `key`, or "".
std::string ValueRefusal(const std::string &key, Kind kind, const std::string &text) {
  switch (kind) {
    case Kind::kSwitch: return text == "yes" || text == "no" ? "" : key + " takes yes or no";
    case Kind::kMechanism:
      return text == "0" || text == "1" || text == "2" ? "" : key + " takes 0, 1 or 2";
    case Kind::kScore: {
      float score;
      if (ParseScore(text, score)) return "";
      return key + " takes a number from -1000 to 1000 with at most two decimals, as in 5 or -0.5";
    }
    case Kind::kSubject:
      // The configuration writer refuses a mark with a backslash; an empty one reads back as
      // the default mark.
      if (text.empty() || text.size() > kMaxSubject || !checkValidUtf8(text)) {
        return key + " takes UTF-8 text of 1 to " + std::to_string(kMaxSubject) + " bytes";
      }
      for (unsigned char c : text) {
        if (c < 0x20 || c == 0x7f || c == '\\') {
          return key + " can't hold a control character or a backslash";
        }
      }
      return mailConfRefusal(key, text);
  }
  return "";
}

void Assign(Spam &spam, const std::string &key, const std::string &text) {
  float score = 0;
  ParseScore(text, score);
  if (key == "spam_enable") spam.setEnableSpamassassin(text == "yes");
  if (key == "spam_enable_rewrite") spam.setEnableRewrite(text == "yes");
  if (key == "spam_rewrite_subject") spam.setRewriteSubject(text);
  if (key == "spam_required_score") spam.setRequiredScore(score);
  if (key == "spam_report_machanism") spam.setReportMachanism(atoi(text.c_str()));
  if (key == "spam_auto_learn") spam.setUseAutoLearn(text == "yes");
  if (key == "spam_learn_threshold_spam") spam.setSpamLearnThreshold(score);
  if (key == "spam_learn_threshold_non_spam") spam.setNonSpamLearnThreshold(score);
  if (key == "spam_auto_whitelist") spam.setUseAutoWhiteList(text == "yes");
}

// applySettings fails both when the store refused the settings and when only the configuration
// writer failed; the store, read back, tells which.
int Apply(Spam &spam) {
  if (spam.applySettings() == 0) return 0;
  bool stored = true;
  for (const auto &setting : kSettings) {
    std::string value;
    stored = stored && mailConfGet(setting.first, value) == 0 && value == Text(spam, setting.first);
  }
  if (stored) {
    return Error(
        "the settings are saved, but the spam filter's configuration writer failed (see its "
        "message above and the system log); the filter keeps its old configuration");
  }
  return Error("the settings were not all saved (see the system log)");
}

int Show() {
  Spam *spam = Instance();
  if (spam == nullptr) return 1;
  for (const auto &setting : kSettings) {
    printf("%-31s %s\n", setting.first.c_str(), Shown(Text(*spam, setting.first)).c_str());
  }
  return 0;
}

int Set(const std::vector<std::string> &pairs) {
  std::map<std::string, std::string> values;
  for (size_t i = 0; i + 1 < pairs.size(); i += 2) {
    const std::string &key = pairs[i];
    const std::string &text = pairs[i + 1];
    const auto setting = std::find_if(kSettings.begin(), kSettings.end(),
                                      [&key](const auto &each) { return each.first == key; });
    if (setting == kSettings.end()) {
      return Error("no spam setting is called " + Quoted(key) + "; nothing was written");
    }
    if (values.count(key) != 0) return Error(key + " is given twice; nothing was written");
    const std::string why = ValueRefusal(key, setting->second, text);
    if (!why.empty()) {
      return Error("refused " + key + "=" + Quoted(text) + ": " + why + "; nothing was written");
    }
    values[key] = text;
  }
  Spam *spam = Instance();
  if (spam == nullptr) return 1;
  for (const auto &value : values) Assign(*spam, value.first, value.second);
  return Apply(*spam);
}

// --- rules ---

std::string RuleNameRefusal(const std::string &name) {
  std::string why;
  if (name.empty() || name == "." || name == ".." || name.find('/') != std::string::npos ||
      name.size() > 255 || !checkValidUtf8(name)) {
    why = "a rule is named by a plain file name of at most 255 bytes, without \"/\"";
  }
  for (unsigned char c : name) {
    if (c < 0x20 || c == 0x7f) why = "a rule name has no control characters";
  }
  if (why.empty()) why = mailConfRefusal(kRuleFlagPrefix + name, "yes");
  return why.empty() ? "" : "refused rule " + Quoted(name) + ": " + why;
}

// The rule's flag in the store: "yes", "no", or "" when it has none. False when the store can't
// be read.
bool RuleFlag(const std::string &name, std::string &flag) {
  return mailConfGet(kRuleFlagPrefix + name, flag) == 0;
}

bool RuleFileThere(const std::string &name) {
  struct stat st;
  return lstat((kRulesDir + name).c_str(), &st) == 0;
}

int RuleList(Spam &spam) {
  std::map<std::string, std::string> rules;
  for (const std::string &file : spam.getSpamRuleFiles()) rules[file] = "disabled";
  for (const auto &flag : spam.getSpamRules()) {
    const bool file = rules.count(flag.first) != 0;
    rules[flag.first] =
        std::string(flag.second ? "enabled" : "disabled") + (file ? "" : ", file missing");
  }
  for (const auto &rule : rules) {
    printf("%-40s %s\n", Shown(rule.first).c_str(), rule.second.c_str());
  }
  return 0;
}

int RuleImport(Spam &spam, const std::string &path) {
  const std::string name = path.substr(path.rfind('/') + 1);
  if (path.empty() || path[0] != '/') {
    return Error("refused " + Quoted(path) + ": it is no absolute path; nothing was imported");
  }
  std::string why = RuleNameRefusal(name);
  if (!why.empty()) return Error(why + "; nothing was imported");
  std::string text;
  unsigned mode = 0;
  why = ReadImportText(path, kMaxRuleFile, text, &mode);
  // The copy is readable by everyone, as the filter must read it: a file kept from others (a
  // secret handed over by mistake) stays where it is.
  if (why.empty() && (mode & S_IROTH) == 0) {
    why = Quoted(path) + " is not readable by everyone, as a rule file is (chmod o+r first)";
  }
  if (!why.empty()) return Error(why + "; nothing was imported");
  const bool replaces = RuleFileThere(name);
  if (!replaces && spam.getSpamRuleFiles().size() >= kMaxRules) {
    return Error("refused rule " + Quoted(name) + ": the rules folder holds " +
                 std::to_string(kMaxRules) + " files already; nothing was imported");
  }
  if (WriteWholeFile(kRulesDir + name, text) != 0) {
    return Error("cannot write " + Quoted(kRulesDir + name) + ": " + strerror(errno));
  }
  std::string flag;
  // An enabled rule is in the filter's configuration: its new text goes there now.
  if (replaces && RuleFlag(name, flag) && flag == "yes" && spam.GenerateConfig() != 0) {
    return Error("rule " + Quoted(name) +
                 " is replaced, but the configuration writer failed (see its message above); "
                 "the filter keeps its old configuration");
  }
  return 0;
}

int RuleEnable(Spam &spam, const std::string &name) {
  if (spam.GetImportRulePath(name).empty()) {
    return Error("refused rule " + Quoted(name) + ": there is no such file in " + kRulesDir +
                 " (spam rule import FILE); nothing was changed");
  }
  std::string before;
  if (!RuleFlag(name, before)) return Error("cannot read the rule flags (see the system log)");
  if (spam.enableRule(name) != 0)
    return Error("rule " + Quoted(name) + " was not enabled (see the system log)");
  if (spam.GenerateConfig() == 0) return 0;
  if (before == "yes") {
    return Error("the configuration writer failed (see its message above); rule " + Quoted(name) +
                 " was enabled already");
  }
  // A rule the writer refuses would fail every later write: it goes back to what it was.
  const int undone = before.empty() ? spam.deleteRule(name) : spam.disableRule(name);
  if (undone != 0) {
    return Error("the configuration writer refused rule " + Quoted(name) +
                 ", and its flag could not be put back (see the system log): disable it");
  }
  return Error("the configuration writer refused rule " + Quoted(name) +
               " (see its message above); it stays disabled");
}

// disable or delete.
int RuleChange(Spam &spam, const std::string &word, const std::string &name) {
  std::string flag;
  if (!RuleFlag(name, flag)) return Error("cannot read the rule flags (see the system log)");
  const bool file = RuleFileThere(name);
  if (flag.empty() && !file) {
    return Error("refused rule " + Quoted(name) + ": there is no such rule; nothing was changed");
  }
  if (word == "disable") {
    if (spam.disableRule(name) != 0)
      return Error("rule " + Quoted(name) + " was not disabled (see the system log)");
  } else {
    // The flag goes first: the writer must never meet an enabled rule without its file.
    if (!flag.empty() && spam.deleteRule(name) != 0) {
      return Error("rule " + Quoted(name) + " was not deleted (see the system log)");
    }
    if (file && unlink((kRulesDir + name).c_str()) != 0) {
      return Error("the flag of rule " + Quoted(name) +
                   " is deleted, but its file is not: " + strerror(errno));
    }
  }
  if (flag == "yes" && spam.GenerateConfig() != 0) {
    return Error("rule " + Quoted(name) + " is " + word + "d" +
                 ", but the configuration writer failed (see its message above)");
  }
  return 0;
}

int RuleCommand(const std::vector<std::string> &args) {
  const std::string word = args.size() > 1 ? args[1] : "";
  if (word == "list" && args.size() == 2) {
    Spam *spam = Instance();
    return spam == nullptr ? 1 : RuleList(*spam);
  }
  if (args.size() != 3) return Usage();
  if (word != "import" && word != "enable" && word != "disable" && word != "delete") {
    return Error("unknown word " + Quoted(word) +
                 ": spam rule takes list, import, enable, disable or delete");
  }
  if (word != "import") {
    const std::string why = RuleNameRefusal(args[2]);
    if (!why.empty()) return Error(why + "; nothing was changed");
  }
  Spam *spam = Instance();
  if (spam == nullptr) return 1;
  if (word == "import") return RuleImport(*spam, args[2]);
  if (word == "enable") return RuleEnable(*spam, args[2]);
  return RuleChange(*spam, word, args[2]);
}

}  // namespace

std::string SpamSettingRefusal(const std::string &key, const std::string &text) {
  const auto setting = std::find_if(kSettings.begin(), kSettings.end(),
                                    [&key](const auto &each) { return each.first == key; });
  return setting == kSettings.end() ? "" : ValueRefusal(key, setting->second, text);
}

int SpamCommand(const std::vector<std::string> &args) {
  const std::string word = args.empty() ? "" : args[0];
  if (word == "show" && args.size() == 1) return Show();
  if (word == "apply" && args.size() == 1) {
    Spam *spam = Instance();
    return spam == nullptr ? 1 : Apply(*spam);
  }
  if (word == "set" && args.size() >= 3 && args.size() % 2 == 1) {
    return Set(std::vector<std::string>(args.begin() + 1, args.end()));
  }
  if (word == "rule") return RuleCommand(args);
  if (word == "blackwhite")
    return BlackWhiteCommand(std::vector<std::string>(args.begin() + 1, args.end()));
  if (word == "show" || word == "apply" || word == "set" || word.empty()) return Usage();
  return Error("unknown word " + Quoted(word) +
               ": spam takes show, set, apply, rule or blackwhite");
}

}  // namespace mailserverctl
