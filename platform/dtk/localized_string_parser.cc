#include "dtk/localized_string_parser.h"

#include <fstream>

namespace KOLT {
namespace DTK {

namespace {

std::string Trim(const std::string &text) {
  const size_t begin = text.find_first_not_of(" \t\r");
  if (begin == std::string::npos) return "";
  const size_t end = text.find_last_not_of(" \t\r");
  return text.substr(begin, end - begin + 1);
}

}  // namespace

int LocalizedStringParser::ParseTexts(const std::string &dir, Json::Value &texts) {
  std::ifstream in(dir + "/strings");
  if (!in) return -1;
  if (!texts.isObject()) texts = Json::Value(Json::objectValue);
  std::string section;
  for (std::string line; std::getline(in, line);) {
    line = Trim(line);
    if (line.empty() || line[0] == '#' || line[0] == ';') continue;
    if (line.front() == '[' && line.back() == ']') {
      section = Trim(line.substr(1, line.size() - 2));
      continue;
    }
    const size_t equals = line.find('=');
    if (section.empty() || equals == std::string::npos) continue;
    const std::string key = Trim(line.substr(0, equals));
    std::string value = Trim(line.substr(equals + 1));
    if (value.size() >= 2 && value.front() == '"' && value.back() == '"') {
      value = value.substr(1, value.size() - 2);
    }
    if (key.empty() || texts[section].isMember(key)) continue;
    texts[section][key] = value;
  }
  return 0;
}

}  // namespace DTK
}  // namespace KOLT
