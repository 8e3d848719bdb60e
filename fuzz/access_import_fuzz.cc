// A regexp access map to import comes from whoever hands the file over: no text may crash the
// reader, an import stores all of its rows or nothing, every stored row is of the side asked for
// with a known status, an acceptable name and the kind its "@" gives it, and the map the table
// exports reads back as the very same rows.
#include <cctype>
#include <cstdint>
#include <cstdlib>
#include <map>
#include <string>

#include "list_rows.h"
#include "security/access.h"

namespace {

const char kDb[] = "/tmp/access_import_fuzz.db";
const char kMap[] = "/tmp/access_import_fuzz.map";
const char kExported[] = "/tmp/access_import_fuzz.exported";

// The lines the import could take: those of exactly two words.
size_t TwoWordLines(const std::string &text) {
  size_t count = 0;
  for (size_t start = 0; start < text.size();) {
    size_t end = text.find('\n', start);
    if (end == std::string::npos) end = text.size();
    std::string line = text.substr(start, end - start);
    line = line.substr(0, line.find('\0'));
    start = end + 1;
    int words = 0;
    bool inWord = false;
    for (const char c : line) {
      const bool blank = isspace(static_cast<unsigned char>(c)) != 0;
      if (!blank && !inWord) ++words;
      inWord = !blank;
    }
    count += words == 2;
  }
  return count;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
  static Access *access = Access::getInstance(kDb);
  if (access == nullptr) abort();
  fuzzlist::WriteInput(kMap, data, size);
  const int rc = access->importAccess(TYPE_FROM, kMap);
  if (rc != 0) {
    if (!fuzzlist::TakeRows(kDb, "access_table").empty()) abort();  // all or nothing
    return 0;
  }
  if (access->exportAccess(TYPE_FROM, kExported) != 0) abort();
  const std::map<fuzzlist::Key, int> imported = fuzzlist::TakeRows(kDb, "access_table");
  if (imported.size() > TwoWordLines(std::string(reinterpret_cast<const char *>(data), size))) {
    abort();
  }
  for (const auto &row : imported) {
    const std::string &name = std::get<1>(row.first);
    const int kind = name.find('@') != std::string::npos ? NAME_TYPE_ADDRESS : NAME_TYPE_DOMAIN;
    if (!fuzzlist::Acceptable(name) || std::get<0>(row.first) != kind ||
        std::get<2>(row.first) != TYPE_FROM || row.second < ACCESS_OK ||
        row.second > ACCESS_DISCARD) {
      abort();
    }
  }
  if (access->importAccess(TYPE_FROM, kExported) != 0) abort();
  if (fuzzlist::TakeRows(kDb, "access_table") != imported) abort();
  return 0;
}
