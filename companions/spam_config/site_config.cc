#include "site_config.h"

#include <cmath>
#include <cstdarg>
#include <cstdio>
#include <set>
#include <vector>

#include "eai/punycode.h"
#include "foundation/log.h"
#include "foundation/utf8.h"

namespace spamconf {

namespace {

// No mail address is longer than 254 bytes; a list name that is much longer is no address.
constexpr size_t kMaxListName = 512;

std::string Number(float value) {
  char text[64];
  snprintf(text, sizeof(text), "%.2f", static_cast<double>(value));
  return text;
}

// The code point of the well-formed UTF-8 sequence at text[i], whose length goes to `length`.
unsigned DecodeAt(const std::string &text, size_t i, size_t &length) {
  const auto byte = [&text](size_t k) { return static_cast<unsigned char>(text[k]); };
  const unsigned lead = byte(i);
  if (lead < 0x80) {
    length = 1;
    return lead;
  }
  length = lead >= 0xF0 ? 4 : lead >= 0xE0 ? 3 : 2;
  unsigned code = lead & (0x7F >> length);
  for (size_t k = 1; k < length; ++k) code = (code << 6) | (byte(i + k) & 0x3F);
  return code;
}

// Characters that end a word or a line for the filter's parser, or for anything that reads the
// file after it: the ASCII blanks and controls, the C1 controls, and the Unicode blanks and line
// separators.
bool BreaksLine(unsigned code) {
  return code < 0x20 || code == 0x7F || (code >= 0x80 && code <= 0xA0) || code == 0x1680 ||
         (code >= 0x2000 && code <= 0x200B) || code == 0x2028 || code == 0x2029 ||
         code == 0x202F || code == 0x205F || code == 0x3000 || code == 0xFEFF;
}

// Whether `text` is UTF-8 whose every character passes `allowed` (NUL bytes never do: the
// UTF-8 check stops at the first one).
template <typename Allowed>
bool EveryCharacter(const std::string &text, Allowed allowed) {
  if (!checkValidUtf8(text)) return false;
  for (size_t i = 0, length = 0; i < text.size(); i += length) {
    if (!allowed(DecodeAt(text, i, length))) return false;
  }
  return true;
}

// One word of a list line: no blank, no control, no "#" (which starts a comment) and no "\"
// (which escapes one).
bool ListWord(const std::string &word) {
  return !word.empty() && word.size() <= kMaxListName && EveryCharacter(word, [](unsigned c) {
           return c != ' ' && c != '#' && c != '\\' && !BreaksLine(c);
         });
}

// The address pattern of a list name, or "" when the name has no place in its kind.
//
// An account is a name of the mail server's own users; the suite's other lists match it at any
// domain (the access maps write "name@.*"), so it does here too. A domain is matched exactly: its
// subdomains are names of their own.
std::string Pattern(const std::string &kind, const std::string &name) {
  const bool hasAt = name.find('@') != std::string::npos;
  if (kind == "account") return hasAt ? "" : name + "@*";
  if (kind == "address") return hasAt ? name : "";
  if (kind == "domain") return hasAt ? "" : "*@" + name;
  return "";
}

}  // namespace

std::string Printable(const std::string &text) {
  std::string out;
  for (const char c : text.substr(0, 128)) {
    const auto byte = static_cast<unsigned char>(c);
    if (byte < 0x20 || byte == 0x7F || c == '\\' || c == '"') {
      char escaped[8];
      snprintf(escaped, sizeof(escaped), "\\x%02x", byte);
      out += escaped;
    } else {
      out += c;
    }
  }
  if (text.size() > 128) out += "...";
  return out;
}

void NoteAt(const char *file, int line, const char *format, ...) {
  char text[2048];
  va_list args;
  va_start(args, format);
  vsnprintf(text, sizeof(text), format, args);
  va_end(args);
  maillog(3, "%s:%d %s", file, line, text);
  fprintf(stderr, "kolt_set_config: %s\n", text);
}

std::string PluginsText(bool autoWhitelist) {
  std::string text =
      "# The plugins of the mail server's spam filter. Written by kolt_set_config: a change made\n"
      "# here is lost at the next write.\n"
      "enable_compat welcomelist_blocklist\n";
  for (const char *plugin :
       {"Check", "AutoLearnThreshold", "Bayes", "BodyEval", "DNSEval", "FreeMail", "HeaderEval",
        "HTMLEval", "HTTPSMismatch", "ImageInfo", "MIMEEval", "MIMEHeader", "RelayEval",
        "ReplaceTags", "URIDetail", "URIDNSBL", "URIEval", "VBounce", "WelcomeListSubject",
        "WLBLEval"}) {
    text += std::string("loadplugin Mail::SpamAssassin::Plugin::") + plugin + "\n";
  }
  // These need Perl modules that not every machine has; without them the checks are left out
  // rather than the whole filter.
  for (const char *plugin : {"DKIM", "SPF"}) {
    text += std::string("tryplugin Mail::SpamAssassin::Plugin::") + plugin + "\n";
  }
  if (autoWhitelist) text += "loadplugin Mail::SpamAssassin::Plugin::TxRep\n";
  return text;
}

bool SettingsText(const Settings &s, std::string &text, std::string &why) {
  for (const float score : {s.requiredScore, s.spamThreshold, s.nonSpamThreshold}) {
    if (!std::isfinite(score)) {
      why = "a score or threshold is not a finite number";
      return false;
    }
  }
  int reportSafe = s.reportMechanism;
  if (reportSafe < 0 || reportSafe > 2) {
    CONF_NOTE("report mechanism %d is not 0, 1 or 2; writing the default 1", reportSafe);
    reportSafe = 1;
  }
  text =
      "# The mail server's spam filter settings. Written by kolt_set_config: a change made here\n"
      "# is lost at the next write.\n";
  text += "required_score " + Number(s.requiredScore) + "\n";
  text += "report_safe " + std::to_string(reportSafe) + "\n";
  if (s.rewrite) {
    if (!EveryCharacter(s.subjectTag, [](unsigned c) { return c != '\\' && !BreaksLine(c); })) {
      why = "the subject tag is not UTF-8 or holds a control character or a backslash";
      return false;
    }
    std::string tag;
    for (const char c : s.subjectTag) {
      if (c == '#') tag += '\\';
      tag += c;
    }
    if (tag.find_first_not_of(' ') == std::string::npos) {
      CONF_NOTE("subject rewriting is on but the tag is empty; subjects stay as they are");
    } else {
      text += "rewrite_header Subject " + tag + "\n";
    }
  }
  text += "use_bayes 1\n";
  text += std::string("bayes_path ") + kLearnedDataDir + "/bayes\n";
  text += std::string("bayes_auto_learn ") + (s.autoLearn ? "1" : "0") + "\n";
  text += "bayes_auto_learn_threshold_spam " + Number(s.spamThreshold) + "\n";
  text += "bayes_auto_learn_threshold_nonspam " + Number(s.nonSpamThreshold) + "\n";
  if (s.autoWhitelist) {
    text += "use_txrep 1\n";
    text += std::string("auto_welcomelist_path ") + kLearnedDataDir + "/tx-reputation\n";
  }
  return true;
}

std::string ListsText(const Json::Value &lists, int &written) {
  written = 0;
  std::string text =
      "# The mail server's black and white list of senders and recipients. Written by\n"
      "# kolt_set_config: a change made here is lost at the next write.\n";
  std::set<std::string> seen;
  const struct {
    const char *verdict, *side, *directive;
  } places[] = {
      {"blacklist", "from", "blocklist_from"},
      {"blacklist", "to", "blocklist_to"},
      {"whitelist", "from", "welcomelist_from"},
      {"whitelist", "to", "welcomelist_to"},
  };
  if (!lists.isObject()) return text;
  for (const auto &place : places) {
    const Json::Value &verdict = lists[place.verdict];
    if (!verdict.isObject() || !verdict[place.side].isObject()) continue;
    for (const char *kind : {"account", "address", "domain"}) {
      const Json::Value &names = verdict[place.side][kind];
      if (!names.isArray()) continue;
      for (const Json::Value &item : names) {
        if (!item.isString()) continue;
        const std::string name = item.asString();
        std::vector<std::string> spellings = {name};
        // Mail names a Unicode domain in either spelling, and the filter compares text.
        std::string other;
        if (std::string(kind) != "account" &&
            KOLT::QUILLON_SERVER::ConvertToPunycodeOrUTF8(name, other)) {
          spellings.push_back(other);
        }
        for (const std::string &spelling : spellings) {
          const std::string pattern = Pattern(kind, spelling);
          if (pattern.empty() || !ListWord(pattern)) {
            CONF_NOTE("list %s %s %s: skipped \"%s\", which can't be one word of the configuration",
                 place.verdict, place.side, kind, Printable(spelling).c_str());
            continue;
          }
          const std::string line = std::string(place.directive) + " " + pattern + "\n";
          if (!seen.insert(line).second) continue;
          text += line;
          ++written;
        }
      }
    }
  }
  return text;
}

bool PlainFileName(const std::string &name) {
  return !name.empty() && name.size() <= 255 && name != "." && name != ".." &&
         name.find('/') == std::string::npos &&
         EveryCharacter(name, [](unsigned c) { return c == ' ' || !BreaksLine(c); });
}

std::string ForbiddenDirective(const std::string &text) {
  size_t start = 0;
  while (start < text.size()) {
    size_t end = text.find('\n', start);
    if (end == std::string::npos) end = text.size();
    std::string line = text.substr(start, end - start);
    start = end + 1;
    const size_t first = line.find_first_not_of(" \t\r\f\v");
    if (first == std::string::npos || line[first] == '#') continue;
    const size_t last = line.find_first_of(" \t\r\f\v#", first);
    std::string word = line.substr(first, last == std::string::npos ? std::string::npos
                                                                    : last - first);
    // The filter's parser reads directives in any case and with "-" for "_".
    for (char &c : word) {
      if (c >= 'A' && c <= 'Z') c = static_cast<char>(c - 'A' + 'a');
      if (c == '-') c = '_';
    }
    const auto endsWith = [&word](const std::string &tail) {
      return word.size() >= tail.size() &&
             word.compare(word.size() - tail.size(), tail.size(), tail) == 0;
    };
    if (word == "loadplugin" || word == "tryplugin" || word == "include" ||
        word.find("_sql_") != std::string::npos || endsWith("_factory") ||
        endsWith("_module") || endsWith("_modules") || endsWith("_path") || endsWith("_dsn")) {
      return word;
    }
  }
  return "";
}

}  // namespace spamconf
