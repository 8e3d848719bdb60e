// The key store tool reads the package's small JSON files (the backend password, key mirrors) with
// its own reader: no file content may crash it, and what it accepts as a member must be one that
// jsoncpp finds in the same text with the same string value.
#include <cstdint>
#include <cstdlib>
#include <string>

#include <json/json.h>

#include "json_text.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
  const std::string text(reinterpret_cast<const char *>(data), size);
  std::string first, named;
  kvtool::JsonMember(text, "", &first);
  if (kvtool::JsonMember(text, "password", &named) != kvtool::JsonRead::kOk) return 0;

  Json::Value parsed;
  Json::CharReaderBuilder builder;
  builder["rejectDupKeys"] = false;
  std::string errors;
  std::unique_ptr<Json::CharReader> reader(builder.newCharReader());
  if (!reader->parse(text.data(), text.data() + text.size(), &parsed, &errors)) return 0;
  if (!parsed.isObject() || !parsed.isMember("password")) return 0;
  const Json::Value &member = parsed["password"];
  if (member.isString() && member.asString() != named) abort();
  return 0;
}
