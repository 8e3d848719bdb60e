// The watcher's two links to this node's key store (Redis on 127.0.0.1:8500, with the password
// of etc/backend.conf): one subscribed to the keyspace events of the keys it follows, one for
// plain reads. Each object owns its hiredis context; neither is thread-safe.
#ifndef QSV_COMPANIONS_KEY_WATCHER_STORE_LINK_H_
#define QSV_COMPANIONS_KEY_WATCHER_STORE_LINK_H_

#include <hiredis/hiredis.h>

#include <memory>
#include <string>
#include <vector>

namespace keywatcher {

struct ContextFree {
  void operator()(redisContext *context) const { redisFree(context); }
};
using Context = std::unique_ptr<redisContext, ContextFree>;

// Connects and authenticates; null, logged, on failure.
Context Connect();

// A subscription to the keyspace events of keys matching `patterns`.
class EventFeed {
 public:
  // Null, logged, when the store can't be reached or refuses the subscription.
  static std::unique_ptr<EventFeed> Open(const std::vector<std::string> &patterns);

  // 1 with the next event's key and event name ("set", "del", "expired", ...), 0 when none came
  // within `timeoutMs`, -1 when the link is lost.
  int Next(std::string *key, std::string *event, int timeoutMs);

 private:
  explicit EventFeed(Context context) : context_(std::move(context)) {}
  Context context_;
};

class Reader {
 public:
  static std::unique_ptr<Reader> Open();
  // False when the key doesn't exist or the store fails.
  bool Get(const std::string &key, std::string *value);
  // All keys matching `pattern`; false when the store fails.
  bool Keys(const std::string &pattern, std::vector<std::string> *keys);

 private:
  explicit Reader(Context context) : context_(std::move(context)) {}
  Context context_;
};

}  // namespace keywatcher

#endif  // QSV_COMPANIONS_KEY_WATCHER_STORE_LINK_H_
