// The little JSON the tool speaks: it reads one member of the package's small JSON files (one
// object, such as etc/backend.conf and the key mirror files under etc/mailconf.d) and writes the
// flat objects of dispatcher events.
//
// Written here rather than taken from a JSON library because the tool runs once per key
// operation: a JSON library drags in the shared C++ runtime, whose loading alone costs more than
// the tool's whole run. The output is byte for byte that of the suite's compact JSON writer,
// so that readers of the events see no difference.
#ifndef QSV_COMPANIONS_KVTOOL_JSON_TEXT_H_
#define QSV_COMPANIONS_KVTOOL_JSON_TEXT_H_

#include <string>
#include <utility>
#include <vector>

namespace kvtool {

enum class JsonRead {
  kOk,
  kNoFile,    // the file cannot be opened
  kBadJson,   // not a JSON object
  kNoMember,  // the object has no such member (or no member at all)
  kNotText,   // the member is null, an array or an object
};

// Puts the value of member `member` of the JSON object in `text` into *value: strings decoded,
// numbers and booleans as they are written. An empty `member` means the first member as written,
// which is how the mirror files of single values are read. When a name repeats, the last wins.
JsonRead JsonMember(const std::string &text, const std::string &member, std::string *value);

// The same for the object in the file at `path`.
JsonRead ReadJsonMember(const std::string &path, const std::string &member, std::string *value);

// A compact JSON object of string members, without a line end. Members come out sorted by name,
// as the suite's writer orders them. Text that is not valid UTF-8 is kept readable: each bad
// byte becomes U+FFFD.
std::string JsonObject(std::vector<std::pair<std::string, std::string>> members);

}  // namespace kvtool

#endif  // QSV_COMPANIONS_KVTOOL_JSON_TEXT_H_
