#include "foundation/strings.h"

#include <cctype>
#include <cstring>

namespace {

template <typename Sink>
void SplitInto(const std::string &text, const std::string &separator, Sink add) {
  if (separator.empty()) {
    if (!text.empty()) add(text);
    return;
  }
  size_t start = 0;
  for (;;) {
    const size_t at = text.find(separator, start);
    const size_t end = at == std::string::npos ? text.size() : at;
    if (end > start) add(text.substr(start, end - start));
    if (at == std::string::npos) return;
    start = at + separator.size();
  }
}

}  // namespace

std::list<std::string> StringSplit(const char *text, const char *separator) {
  std::list<std::string> pieces;
  if (text == nullptr) return pieces;
  SplitInto(text, separator == nullptr ? "" : separator,
            [&](std::string piece) { pieces.push_back(std::move(piece)); });
  return pieces;
}

void stringSplit(std::vector<std::string> &out, const std::string &text,
                 const std::string &separator) {
  out.clear();
  SplitInto(text, separator, [&](std::string piece) { out.push_back(std::move(piece)); });
}

std::string StringJoin(const std::list<std::string> &pieces, const std::string &separator) {
  std::string joined;
  bool first = true;
  for (const std::string &piece : pieces) {
    if (!first) joined += separator;
    joined += piece;
    first = false;
  }
  return joined;
}

bool isContainID(const std::string &text, const std::string &id) {
  std::vector<std::string> ids;
  stringSplit(ids, text, " ");
  for (const std::string &each : ids) {
    if (each == id) return true;
  }
  return false;
}

void Trim(std::string &text) {
  auto isSpace = [](char c) { return isspace(static_cast<unsigned char>(c)) != 0; };
  size_t end = text.size();
  while (end > 0 && isSpace(text[end - 1])) --end;
  size_t begin = 0;
  while (begin < end && isSpace(text[begin])) ++begin;
  text = text.substr(begin, end - begin);
}

void StrReplace(std::string &text, const std::string &from, const std::string &to) {
  if (from.empty()) return;
  for (size_t at = text.find(from); at != std::string::npos; at = text.find(from, at + to.size())) {
    text.replace(at, from.size(), to);
  }
}
