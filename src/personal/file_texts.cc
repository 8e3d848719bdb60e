#include "personal/file_texts.h"

#include <ctime>
#include <sstream>
#include <vector>

#include "foundation/strings.h"

namespace personal {

const char kVacationProgram[] = "/var/packages/Quillon-Server/target/bin/vacation";

namespace {

const char kVacationMark[] = "/bin/vacation";
const char kTimeFormat[] = "%Y/%m/%d-%H:%M:%S";
const char kDayFormat[] = "%Y/%m/%d";
const char kSubjectMark[] = "Subject:";

std::string FormatTime(long when) {
  const time_t t = static_cast<time_t>(when);
  struct tm tm;
  char text[64] = {0};
  if (localtime_r(&t, &tm) == nullptr || strftime(text, sizeof(text), kTimeFormat, &tm) == 0) {
    return "";
  }
  return text;
}

// `word` in one of the two forms, whole; -1 otherwise.
long ParseTime(const std::string &word) {
  for (const char *format : {kTimeFormat, kDayFormat}) {
    struct tm tm = {};
    const char *rest = strptime(word.c_str(), format, &tm);
    if (rest == nullptr || *rest != '\0') continue;
    tm.tm_isdst = -1;
    const time_t t = mktime(&tm);
    return t == static_cast<time_t>(-1) ? -1 : static_cast<long>(t);
  }
  return -1;
}

std::vector<std::string> Lines(const std::string &content) {
  std::vector<std::string> lines;
  std::istringstream in(content);
  std::string line;
  while (std::getline(in, line)) lines.push_back(line);
  return lines;
}

}  // namespace

std::string ComposeForward(const ForwardSettings &settings, const std::string &shortUser) {
  std::string text;
  if (settings.keepCopy || (settings.reply && !settings.forward)) text += "\\" + shortUser + "\n";
  if (settings.reply) {
    text += "\"|" + std::string(kVacationProgram) + " " + shortUser;
    if (settings.begin > 0) text += " -b " + FormatTime(settings.begin);
    if (settings.end > 0) text += " -e " + FormatTime(settings.end);
    text += "\"\n";
  }
  if (settings.forward) text += settings.address + "\n";
  return text;
}

void ParseReplyTime(const std::string &line, long &begin, long &end) {
  begin = -1;
  end = -1;
  std::vector<std::string> words;
  std::istringstream in(line);
  std::string word;
  while (in >> word) {
    // The line's closing quote sticks to its last word.
    while (!word.empty() && word.back() == '"') word.pop_back();
    words.push_back(word);
  }
  for (size_t i = 0; i + 1 < words.size(); ++i) {
    if (words[i] == "-b") begin = ParseTime(words[i + 1]);
    if (words[i] == "-e") end = ParseTime(words[i + 1]);
  }
}

void ParseForward(const std::string &content, ForwardSettings &settings) {
  settings = ForwardSettings();
  bool vacationSeen = false;
  for (std::string line : Lines(content)) {
    if (!vacationSeen && line.find(kVacationMark) != std::string::npos) {
      vacationSeen = true;
      settings.reply = true;
      ParseReplyTime(line, settings.begin, settings.end);
    }
    Trim(line);
    if (line.empty() || line[0] == '#' || line.find(kVacationMark) != std::string::npos) continue;
    if (line[0] == '\\') {
      settings.keepCopy = true;
      continue;
    }
    settings.address = line;
    settings.forward = true;
    break;
  }
}

bool ForwardAddressAcceptable(const std::string &address) {
  if (address.empty() || address.size() > 512) return false;
  if (address[0] == '/' || address[0] == ':' || address[0] == '#') return false;
  for (const char c : address) {
    const unsigned char u = static_cast<unsigned char>(c);
    if (u <= ' ' || u == 0x7f || c == '|' || c == ',' || c == '"' || c == '\\') return false;
  }
  return true;
}

std::string ComposeReply(const std::string &from, const std::string &subject,
                         const std::string &body) {
  return "From:" + from + "\n" + kSubjectMark + subject + "\n" + body + "\n";
}

void ParseReply(const std::string &content, std::string &subject, std::string &body) {
  subject.clear();
  body.clear();
  bool inBody = false;
  for (std::string &line : Lines(content)) {
    if (!line.empty() && line.back() == '\r') line.pop_back();
    if (inBody) {
      body += line + "\r\n";
    } else if (line.compare(0, sizeof(kSubjectMark) - 1, kSubjectMark) == 0) {
      subject = line.substr(sizeof(kSubjectMark) - 1);
      inBody = true;
    }
  }
}

}  // namespace personal
