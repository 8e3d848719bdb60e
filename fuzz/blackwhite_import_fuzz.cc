// A black and white list document to import comes from whoever hands the file over: no text may
// crash the reader, an import stores all of the document or nothing, and what it stores is
// exactly the names the document holds, each acceptable as a list name.
#include <cstdint>
#include <cstdlib>
#include <map>
#include <memory>
#include <set>
#include <string>

#include <json/json.h>

#include "list_rows.h"
#include "security/spam.h"

namespace {

const char kDb[] = "/tmp/blackwhite_import_fuzz.db";
const char kDocument[] = "/tmp/blackwhite_import_fuzz.json";

// The names of the document by key, each with every verdict given to it; `wellFormed` is false
// when a cell the import reads is there but of another shape.
std::map<fuzzlist::Key, std::set<int>> DocumentNames(const Json::Value &doc, bool &wellFormed) {
  std::map<fuzzlist::Key, std::set<int>> names;
  wellFormed = true;
  if (!doc.isObject()) return names;
  const std::pair<const char *, int> verdicts[] = {{"blacklist", 1}, {"whitelist", 2}};
  const std::pair<const char *, int> sides[] = {{"from", 0}, {"to", 1}};
  const std::pair<const char *, int> kinds[] = {{"account", 0}, {"address", 1}, {"domain", 2}};
  for (const auto &verdict : verdicts) {
    const Json::Value &bySide = doc[verdict.first];
    if (bySide.isNull()) continue;
    if (!bySide.isObject()) {
      wellFormed = false;
      continue;
    }
    for (const auto &side : sides) {
      const Json::Value &byKind = bySide[side.first];
      if (byKind.isNull()) continue;
      if (!byKind.isObject()) {
        wellFormed = false;
        continue;
      }
      for (const auto &kind : kinds) {
        const Json::Value &list = byKind[kind.first];
        if (list.isNull()) continue;
        if (!list.isArray()) {
          wellFormed = false;
          continue;
        }
        for (const Json::Value &name : list) {
          if (!name.isString()) {
            wellFormed = false;
            continue;
          }
          names[{kind.second, name.asString(), side.second}].insert(verdict.second);
        }
      }
    }
  }
  return names;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
  static Spam *spam = Spam::getInstance(kDb);
  if (spam == nullptr) abort();
  fuzzlist::WriteInput(kDocument, data, size);
  const int rc = spam->importBlackWhite(kDocument);
  const std::map<fuzzlist::Key, int> stored = fuzzlist::TakeRows(kDb, "blackwhite_table");
  if (rc != 0) {
    if (!stored.empty()) abort();  // all or nothing
    return 0;
  }
  Json::CharReaderBuilder builder;
  std::unique_ptr<Json::CharReader> reader(builder.newCharReader());
  Json::Value doc;
  const char *text = reinterpret_cast<const char *>(data);
  if (!reader->parse(text, text + size, &doc, nullptr)) abort();  // took what is not JSON
  bool wellFormed = true;
  const auto names = DocumentNames(doc, wellFormed);
  if (!wellFormed || names.size() != stored.size()) abort();
  for (const auto &row : stored) {
    const auto found = names.find(row.first);
    if (found == names.end() || found->second.count(row.second) == 0 ||
        !fuzzlist::Acceptable(std::get<1>(row.first))) {
      abort();
    }
  }
  return 0;
}
