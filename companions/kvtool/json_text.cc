#include "json_text.h"

#include <algorithm>
#include <cctype>
#include <cstdio>

namespace kvtool {
namespace {

// Files of the package nest at most a level or two; this only keeps a broken file from
// exhausting the stack.
const int kMaxDepth = 64;

void AppendUtf8(unsigned cp, std::string *out) {
  if (cp < 0x80) {
    *out += static_cast<char>(cp);
  } else if (cp < 0x800) {
    *out += static_cast<char>(0xC0 | (cp >> 6));
    *out += static_cast<char>(0x80 | (cp & 0x3F));
  } else if (cp < 0x10000) {
    *out += static_cast<char>(0xE0 | (cp >> 12));
    *out += static_cast<char>(0x80 | ((cp >> 6) & 0x3F));
    *out += static_cast<char>(0x80 | (cp & 0x3F));
  } else {
    *out += static_cast<char>(0xF0 | (cp >> 18));
    *out += static_cast<char>(0x80 | ((cp >> 12) & 0x3F));
    *out += static_cast<char>(0x80 | ((cp >> 6) & 0x3F));
    *out += static_cast<char>(0x80 | (cp & 0x3F));
  }
}

// A recursive-descent reader over the text. Each Parse* leaves pos_ after what it read and
// returns false on malformed input.
class Reader {
 public:
  explicit Reader(const std::string &text) : text_(text) {}

  // The members of the top object; only scalars keep their value.
  struct Member {
    std::string name;
    std::string value;
    bool text;
  };
  bool ParseDocument(std::vector<Member> *members) {
    SkipBlanks();
    if (!Eat('{')) return false;
    SkipBlanks();
    if (!Eat('}')) {
      do {
        Member m;
        SkipBlanks();
        if (!ParseString(&m.name)) return false;
        SkipBlanks();
        if (!Eat(':')) return false;
        SkipBlanks();
        if (!ParseValue(0, &m.value, &m.text)) return false;
        members->push_back(std::move(m));
        SkipBlanks();
      } while (Eat(','));
      if (!Eat('}')) return false;
    }
    SkipBlanks();
    return pos_ == text_.size();
  }

 private:
  bool Eat(char c) {
    if (pos_ < text_.size() && text_[pos_] == c) {
      ++pos_;
      return true;
    }
    return false;
  }

  bool EatWord(const char *word) {
    const std::string w(word);
    if (text_.compare(pos_, w.size(), w) != 0) return false;
    pos_ += w.size();
    return true;
  }

  void SkipBlanks() {
    while (pos_ < text_.size() && (text_[pos_] == ' ' || text_[pos_] == '\t' ||
                                   text_[pos_] == '\n' || text_[pos_] == '\r')) {
      ++pos_;
    }
  }

  bool ParseHex4(unsigned *cp) {
    if (text_.size() - pos_ < 4) return false;
    *cp = 0;
    for (int i = 0; i < 4; ++i) {
      const char c = text_[pos_++];
      *cp <<= 4;
      if (c >= '0' && c <= '9') {
        *cp |= static_cast<unsigned>(c - '0');
      } else if (c >= 'a' && c <= 'f') {
        *cp |= static_cast<unsigned>(c - 'a' + 10);
      } else if (c >= 'A' && c <= 'F') {
        *cp |= static_cast<unsigned>(c - 'A' + 10);
      } else {
        return false;
      }
    }
    return true;
  }

  bool ParseString(std::string *out) {
    if (!Eat('"')) return false;
    while (pos_ < text_.size()) {
      const char c = text_[pos_++];
      if (c == '"') return true;
      if (static_cast<unsigned char>(c) < 0x20) return false;
      if (c != '\\') {
        *out += c;
        continue;
      }
      if (pos_ >= text_.size()) return false;
      const char e = text_[pos_++];
      switch (e) {
        case '"': *out += '"'; break;
        case '\\': *out += '\\'; break;
        case '/': *out += '/'; break;
        case 'b': *out += '\b'; break;
        case 'f': *out += '\f'; break;
        case 'n': *out += '\n'; break;
        case 'r': *out += '\r'; break;
        case 't': *out += '\t'; break;
        case 'u': {
          unsigned cp;
          if (!ParseHex4(&cp)) return false;
          if (cp >= 0xD800 && cp < 0xDC00) {
            unsigned low;
            if (!EatWord("\\u") || !ParseHex4(&low) || low < 0xDC00 || low > 0xDFFF) return false;
            cp = 0x10000 + ((cp - 0xD800) << 10) + (low - 0xDC00);
          } else if (cp >= 0xDC00 && cp <= 0xDFFF) {
            return false;
          }
          AppendUtf8(cp, out);
          break;
        }
        default:
          return false;
      }
    }
    return false;
  }

  bool ParseNumber(std::string *out) {
    const size_t start = pos_;
    Eat('-');
    const size_t digits = pos_;
    while (pos_ < text_.size() && isdigit(static_cast<unsigned char>(text_[pos_]))) ++pos_;
    if (pos_ == digits || (text_[digits] == '0' && pos_ - digits > 1)) return false;
    if (Eat('.')) {
      const size_t fraction = pos_;
      while (pos_ < text_.size() && isdigit(static_cast<unsigned char>(text_[pos_]))) ++pos_;
      if (pos_ == fraction) return false;
    }
    if (Eat('e') || Eat('E')) {
      if (!Eat('+')) Eat('-');
      const size_t exponent = pos_;
      while (pos_ < text_.size() && isdigit(static_cast<unsigned char>(text_[pos_]))) ++pos_;
      if (pos_ == exponent) return false;
    }
    out->assign(text_, start, pos_ - start);
    return true;
  }

  // Scalars set *text and their spelling in *out; null, arrays and objects are read past.
  bool ParseValue(int depth, std::string *out, bool *text) {
    if (depth > kMaxDepth || pos_ >= text_.size()) return false;
    *text = true;
    const char c = text_[pos_];
    if (c == '"') return ParseString(out);
    if (c == '-' || isdigit(static_cast<unsigned char>(c))) return ParseNumber(out);
    if (EatWord("true")) {
      *out = "true";
      return true;
    }
    if (EatWord("false")) {
      *out = "false";
      return true;
    }
    *text = false;
    if (EatWord("null")) return true;
    const bool object = c == '{';
    if (!object && c != '[') return false;
    ++pos_;
    SkipBlanks();
    if (Eat(object ? '}' : ']')) return true;
    do {
      SkipBlanks();
      std::string ignored;
      bool ignoredText;
      if (object) {
        if (!ParseString(&ignored)) return false;
        SkipBlanks();
        if (!Eat(':')) return false;
        SkipBlanks();
      }
      if (!ParseValue(depth + 1, &ignored, &ignoredText)) return false;
      SkipBlanks();
    } while (Eat(','));
    return Eat(object ? '}' : ']');
  }

  const std::string &text_;
  size_t pos_ = 0;
};

// The next code point of UTF-8 text, or U+FFFD for a byte that does not start a valid sequence
// (which is then skipped alone). Overlong forms and encoded surrogates are not valid.
unsigned NextCodePoint(const std::string &s, size_t *i) {
  const unsigned char b = static_cast<unsigned char>(s[*i]);
  int length;
  unsigned cp;
  if (b < 0x80) {
    ++*i;
    return b;
  } else if ((b & 0xE0) == 0xC0) {
    length = 2;
    cp = b & 0x1F;
  } else if ((b & 0xF0) == 0xE0) {
    length = 3;
    cp = b & 0x0F;
  } else if ((b & 0xF8) == 0xF0) {
    length = 4;
    cp = b & 0x07;
  } else {
    ++*i;
    return 0xFFFD;
  }
  if (s.size() - *i < static_cast<size_t>(length)) {
    ++*i;
    return 0xFFFD;
  }
  for (int k = 1; k < length; ++k) {
    const unsigned char next = static_cast<unsigned char>(s[*i + k]);
    if ((next & 0xC0) != 0x80) {
      ++*i;
      return 0xFFFD;
    }
    cp = (cp << 6) | (next & 0x3F);
  }
  static const unsigned kSmallest[] = {0, 0, 0x80, 0x800, 0x10000};
  if (cp < kSmallest[length] || cp > 0x10FFFF || (cp >= 0xD800 && cp <= 0xDFFF)) {
    ++*i;
    return 0xFFFD;
  }
  *i += length;
  return cp;
}

void AppendEscaped(unsigned unit, std::string *out) {
  char buf[8];
  snprintf(buf, sizeof(buf), "\\u%04x", unit);
  *out += buf;
}

// Everything outside printable ASCII is escaped, so the text is plain ASCII whatever it carries.
void AppendQuoted(const std::string &s, std::string *out) {
  *out += '"';
  size_t i = 0;
  while (i < s.size()) {
    const unsigned cp = NextCodePoint(s, &i);
    switch (cp) {
      case '"': *out += "\\\""; break;
      case '\\': *out += "\\\\"; break;
      case '\b': *out += "\\b"; break;
      case '\f': *out += "\\f"; break;
      case '\n': *out += "\\n"; break;
      case '\r': *out += "\\r"; break;
      case '\t': *out += "\\t"; break;
      default:
        if (cp >= 0x20 && cp < 0x80) {
          *out += static_cast<char>(cp);
        } else if (cp < 0x10000) {
          AppendEscaped(cp, out);
        } else {
          AppendEscaped(0xD800 + ((cp - 0x10000) >> 10), out);
          AppendEscaped(0xDC00 + ((cp - 0x10000) & 0x3FF), out);
        }
    }
  }
  *out += '"';
}

}  // namespace

JsonRead JsonMember(const std::string &text, const std::string &member, std::string *value) {
  std::vector<Reader::Member> members;
  if (!Reader(text).ParseDocument(&members)) return JsonRead::kBadJson;
  if (members.empty()) return JsonRead::kNoMember;
  const std::string &name = member.empty() ? members.front().name : member;
  for (auto it = members.rbegin(); it != members.rend(); ++it) {
    if (it->name != name) continue;
    if (!it->text) return JsonRead::kNotText;
    *value = it->value;
    return JsonRead::kOk;
  }
  return JsonRead::kNoMember;
}

JsonRead ReadJsonMember(const std::string &path, const std::string &member, std::string *value) {
  FILE *f = fopen(path.c_str(), "re");
  if (f == nullptr) return JsonRead::kNoFile;
  std::string text;
  char buf[4096];
  size_t n;
  while ((n = fread(buf, 1, sizeof(buf), f)) > 0) text.append(buf, n);
  const bool failed = ferror(f) != 0;
  fclose(f);
  if (failed) return JsonRead::kNoFile;
  return JsonMember(text, member, value);
}

std::string JsonObject(std::vector<std::pair<std::string, std::string>> members) {
  std::stable_sort(members.begin(), members.end(),
                   [](const auto &a, const auto &b) { return a.first < b.first; });
  std::string out = "{";
  for (const auto &m : members) {
    if (out.size() > 1) out += ',';
    AppendQuoted(m.first, &out);
    out += ':';
    AppendQuoted(m.second, &out);
  }
  return out + "}";
}

}  // namespace kvtool
