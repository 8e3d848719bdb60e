// A file cycle's record arrives from the key store, written by any node: no text may crash the
// reader, and a record it accepts must come back unchanged through its own writer.
#include <cstdint>
#include <cstdlib>
#include <memory>
#include <string>

#include <json/json.h>

#include "cluster/file_key_val.h"

using KOLT::QUILLON_SERVER::FileKeyVal;

namespace {

bool Read(const std::string &text, FileKeyVal &record) {
  Json::Value json;
  Json::CharReaderBuilder builder;
  std::unique_ptr<Json::CharReader> reader(builder.newCharReader());
  return reader->parse(text.data(), text.data() + text.size(), &json, nullptr) &&
         record.fromJson(json);
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
  FileKeyVal record;
  if (!Read(std::string(reinterpret_cast<const char *>(data), size), record)) return 0;
  const std::string once = record.serialize(record.randNum);
  FileKeyVal again;
  if (!Read(once, again) || again.serialize(again.randNum) != once) abort();
  return 0;
}
