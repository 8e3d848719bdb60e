#include "security/list_document.h"

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <memory>

#include "foundation/files.h"
#include "foundation/log.h"
#include "foundation/section_file.h"
#include "foundation/utf8.h"

namespace {

// No list the suite writes comes near this; a bigger file is not a list.
constexpr size_t kMaxDocument = 64 * 1024 * 1024;
constexpr size_t kMaxLine = 64 * 1024;

bool WrongShape(const char *where) {
  maillog(3, "%s:%d invalid input: %s has the wrong shape", QSV_FILE, __LINE__, where);
  return false;
}

}  // namespace

bool ListNameAcceptable(const std::string &name) {
  if (name.empty() || !checkValidUtf8(name)) return false;
  for (unsigned char c : name) {
    if (c < 0x20 || c == 0x7f) return false;
  }
  return true;
}

JsonFileRead ReadJsonFile(const std::string &path, Json::Value &doc) {
  std::unique_ptr<FILE, int (*)(FILE *)> in(OpenRegularFile(path), fclose);
  if (!in) return kJsonUnreadable;
  std::string text;
  char buffer[65536];
  size_t got;
  while ((got = fread(buffer, 1, sizeof(buffer), in.get())) > 0) {
    text.append(buffer, got);
    if (text.size() > kMaxDocument) return kJsonInvalid;
  }
  if (ferror(in.get())) return kJsonUnreadable;
  Json::CharReaderBuilder builder;
  std::unique_ptr<Json::CharReader> reader(builder.newCharReader());
  std::string errors;
  if (!reader->parse(text.data(), text.data() + text.size(), &doc, &errors)) return kJsonInvalid;
  return kJsonRead;
}

bool ListDocumentRows(const Json::Value &doc, std::list<BlackWhite> &rows) {
  if (!doc.isObject()) return true;
  std::list<BlackWhite> found;
  for (const char *verdict : {"blacklist", "whitelist"}) {
    const Json::Value &sides = doc[verdict];
    if (sides.isNull()) continue;
    if (!sides.isObject()) return WrongShape(verdict);
    for (const char *side : {"from", "to"}) {
      const Json::Value &kinds = sides[side];
      if (kinds.isNull()) continue;
      if (!kinds.isObject()) return WrongShape(side);
      for (const char *kind : {"account", "address", "domain"}) {
        const Json::Value &names = kinds[kind];
        if (names.isNull()) continue;
        if (!names.isArray()) return WrongShape(kind);
        for (const Json::Value &name : names) {
          if (!name.isString()) return WrongShape(kind);
          found.push_back({name.asString(), Spam::blackWhiteTypeMap.at(verdict),
                           Spam::typeMap.at(side), Spam::nameTypeMap.at(kind)});
        }
      }
    }
  }
  rows.splice(rows.end(), found);
  return true;
}

bool ForEachWordLine(const std::string &path,
                     const std::function<void(const KLIBSZLIST *words, const std::string &line)> &onLine) {
  std::unique_ptr<FILE, int (*)(FILE *)> in(OpenRegularFile(path), fclose);
  if (!in) {
    maillog(3, "%s:%d open file error, %s", QSV_FILE, __LINE__, strerror(errno));
    return false;
  }
  std::unique_ptr<KLIBSZLIST, void (*)(KLIBSZLIST *)> words(KLIBCSzListAlloc(512), KLIBCSzListFree);
  if (!words) {
    maillog(3, "%s:%d out of memory", QSV_FILE, __LINE__);
    return false;
  }
  std::string line;
  int got;
  while ((got = ReadBoundedLine(in.get(), line, kMaxLine)) > 0) {
    KLIBSZLIST *list = words.get();
    if (ParseReadLine(&line[0], &list) < 0) continue;
    onLine(list, line);
  }
  if (got < 0) {
    maillog(3, "%s:%d invalid input: a line longer than %zu bytes", QSV_FILE, __LINE__, kMaxLine);
    return false;
  }
  return true;
}
