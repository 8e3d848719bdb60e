// The old line form of the black and white list ("from: NAME yes") comes from whoever hands the
// file over: no text may crash the reader, an import stores all of its names or nothing, and
// what it stores is exactly the "yes" lines' names with the kind their "@" gives them. A refused
// file must hold a name that can't be stored.
#include <strings.h>

#include <cctype>
#include <cstdint>
#include <cstdlib>
#include <map>
#include <string>
#include <vector>

#include "list_rows.h"
#include "security/spam.h"

namespace {

const char kDb[] = "/tmp/old_blackwhite_import_fuzz.db";
const char kList[] = "/tmp/old_blackwhite_import_fuzz.txt";
// Comfortably below what a statement of the list can carry, quotes doubled included.
constexpr size_t kSurelyStored = 400;

std::vector<std::string> Words(const std::string &line) {
  std::vector<std::string> words;
  std::string word;
  for (const char c : line) {
    if (isspace(static_cast<unsigned char>(c))) {
      if (!word.empty()) words.push_back(word);
      word.clear();
    } else {
      word += c;
    }
  }
  if (!word.empty()) words.push_back(word);
  return words;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
  static Spam *spam = Spam::getInstance(kDb);
  if (spam == nullptr) abort();
  fuzzlist::WriteInput(kList, data, size);
  const int rc = spam->importOldBlackWhite(BLACK_WHITE_BLACKLIST, kList);
  const std::map<fuzzlist::Key, int> stored = fuzzlist::TakeRows(kDb, "blackwhite_table");

  std::map<fuzzlist::Key, int> expected;
  bool refusable = false;
  const std::string text(reinterpret_cast<const char *>(data), size);
  for (size_t start = 0; start < text.size();) {
    size_t end = text.find('\n', start);
    if (end == std::string::npos) end = text.size();
    // A line is read as a C string: it ends at a NUL.
    std::string line = text.substr(start, end - start);
    line = line.substr(0, line.find('\0'));
    start = end + 1;
    const std::vector<std::string> words = Words(line);
    if (words.size() != 3 || strcasecmp(words[2].c_str(), "yes") != 0) continue;
    const bool from = strcasecmp(words[0].c_str(), "from:") == 0;
    if (!from && strcasecmp(words[0].c_str(), "to:") != 0) continue;
    const std::string &name = words[1];
    refusable |= !fuzzlist::Acceptable(name) || name.size() > kSurelyStored;
    expected[{name.find('@') != std::string::npos ? 1 : 2, name, from ? 0 : 1}] = 1;
  }
  if (rc != 0) {
    if (!stored.empty() || !refusable) abort();
    return 0;
  }
  for (const auto &row : expected) {
    if (!fuzzlist::Acceptable(std::get<1>(row.first))) abort();
  }
  if (stored != expected) abort();
  return 0;
}
