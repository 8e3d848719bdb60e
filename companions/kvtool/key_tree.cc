#include "key_tree.h"

namespace kvtool {

std::string GlobEscape(const std::string &text) {
  std::string escaped;
  escaped.reserve(text.size());
  for (char c : text) {
    if (c == '*' || c == '?' || c == '[' || c == ']' || c == '\\') escaped += '\\';
    escaped += c;
  }
  return escaped;
}

bool ScanUnder(Connection *connection, const std::string &dir,
               const std::function<bool(const std::vector<std::string> &)> &page) {
  const std::string pattern = GlobEscape(dir) + "/*";
  std::string cursor = "0";
  do {
    // A large COUNT keeps the number of round trips low on a big store; the server's work per
    // call stays bounded all the same.
    Reply reply = connection->Call({"SCAN", cursor, "MATCH", pattern, "COUNT", "1000"});
    if (!reply) return false;
    if (reply->type != REDIS_REPLY_ARRAY || reply->elements != 2 ||
        reply->element[0]->type != REDIS_REPLY_STRING ||
        reply->element[1]->type != REDIS_REPLY_ARRAY) {
      Complain("the key store at " + connection->where() + " gave a malformed SCAN reply");
      return false;
    }
    cursor.assign(reply->element[0]->str, reply->element[0]->len);
    const redisReply *batch = reply->element[1];
    std::vector<std::string> keys;
    keys.reserve(batch->elements);
    for (size_t i = 0; i < batch->elements; ++i) {
      keys.emplace_back(batch->element[i]->str, batch->element[i]->len);
    }
    if (!keys.empty() && !page(keys)) return true;
  } while (cursor != "0");
  return true;
}

std::string ChildOf(const std::string &dir, const std::string &key) {
  const size_t next = key.find('/', dir.size() + 1);
  return next == std::string::npos ? key : key.substr(0, next);
}

}  // namespace kvtool
