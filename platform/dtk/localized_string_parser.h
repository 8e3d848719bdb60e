// The platform's localized texts: one folder per language, holding a file "strings" of sections
// and keys, read into a JSON object { section: { key: text } }:
//
//   [maillog]
//   mail_log="Mail Log"
//   date=Date
//
// Safe from any thread.
#ifndef PLATFORM_DTK_LOCALIZED_STRING_PARSER_H_
#define PLATFORM_DTK_LOCALIZED_STRING_PARSER_H_

#include <json/json.h>

#include <string>

namespace KOLT {
namespace DTK {

class LocalizedStringParser {
 public:
  // Adds the texts of `dir`/strings to `texts`, keeping the keys `texts` already holds, so that a
  // second folder only fills what the first left out. 0, or -1 when the file can't be read (then
  // `texts` is unchanged). A value may be quoted; the quotes are not part of it.
  static int ParseTexts(const std::string &dir, Json::Value &texts);
};

}  // namespace DTK
}  // namespace KOLT

#endif  // PLATFORM_DTK_LOCALIZED_STRING_PARSER_H_
