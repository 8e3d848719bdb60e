#include "store_link.h"

#include <poll.h>
#include <syslog.h>

#include <json/json.h>

#include "core/mail_conf.h"

namespace keywatcher {
namespace {

const char kHost[] = "127.0.0.1";
const int kPort = 8500;
const char kEventPrefix[] = "__keyspace@0__:";

struct ReplyFree {
  void operator()(redisReply *reply) const { freeReplyObject(reply); }
};
using Reply = std::unique_ptr<redisReply, ReplyFree>;

Reply Call(redisContext *context, const std::vector<std::string> &args) {
  std::vector<const char *> argv;
  std::vector<size_t> lengths;
  for (const std::string &arg : args) {
    argv.push_back(arg.data());
    lengths.push_back(arg.size());
  }
  Reply reply(static_cast<redisReply *>(
      redisCommandArgv(context, static_cast<int>(args.size()), argv.data(), lengths.data())));
  if (!reply) {
    syslog(LOG_ERR, "key store link lost: %s", context->errstr);
  } else if (reply->type == REDIS_REPLY_ERROR) {
    syslog(LOG_ERR, "key store refused %s: %s", args[0].c_str(), reply->str);
    return Reply();
  }
  return reply;
}

}  // namespace

Context Connect() {
  const timeval wait = {5, 0};
  Context context(redisConnectWithTimeout(kHost, kPort, wait));
  if (!context || context->err) {
    syslog(LOG_ERR, "cannot reach the key store on %s:%d: %s", kHost, kPort,
           context ? context->errstr : "out of memory");
    return Context();
  }
  Json::Value conf;
  std::string password;
  if (loadMailJsonFromFile("backend.conf", conf, "/var/packages/Quillon-Server/etc/") == 0 &&
      conf.isObject() && conf["password"].isString()) {
    password = conf["password"].asString();
  }
  if (!password.empty() && !Call(context.get(), {"AUTH", password})) return Context();
  return context;
}

std::unique_ptr<EventFeed> EventFeed::Open(const std::vector<std::string> &patterns) {
  Context context = Connect();
  if (!context) return nullptr;
  // The package's configuration turns keyspace events on; a store started otherwise would leave
  // the watcher deaf, so it is turned on here too.
  Reply events = Call(context.get(), {"CONFIG", "GET", "notify-keyspace-events"});
  if (events && events->type == REDIS_REPLY_ARRAY && events->elements == 2 &&
      std::string(events->element[1]->str, events->element[1]->len).find('K') ==
          std::string::npos) {
    syslog(LOG_WARNING, "keyspace events were off in the key store; turning them on");
    Call(context.get(), {"CONFIG", "SET", "notify-keyspace-events", "KA"});
  }
  std::vector<std::string> args = {"PSUBSCRIBE"};
  for (const std::string &pattern : patterns) args.push_back(kEventPrefix + pattern);
  if (!Call(context.get(), args)) return nullptr;
  // One confirmation per pattern; the first came back with the call.
  for (size_t i = 1; i < patterns.size(); ++i) {
    void *reply = nullptr;
    if (redisGetReply(context.get(), &reply) != REDIS_OK) return nullptr;
    freeReplyObject(reply);
  }
  return std::unique_ptr<EventFeed>(new EventFeed(std::move(context)));
}

int EventFeed::Next(std::string *key, std::string *event, int timeoutMs) {
  redisContext *c = context_.get();
  for (;;) {
    void *raw = nullptr;
    if (redisGetReplyFromReader(c, &raw) != REDIS_OK) return -1;
    if (raw == nullptr) {
      pollfd fd = {c->fd, POLLIN, 0};
      const int ready = poll(&fd, 1, timeoutMs);
      if (ready == 0) return 0;
      if (ready < 0) return errno == EINTR ? 0 : -1;
      if (redisBufferRead(c) != REDIS_OK) return -1;
      continue;
    }
    Reply reply(static_cast<redisReply *>(raw));
    // pmessage, pattern, channel, payload
    if (reply->type != REDIS_REPLY_ARRAY || reply->elements != 4) continue;
    const std::string channel(reply->element[2]->str, reply->element[2]->len);
    const std::string prefix = kEventPrefix;
    if (channel.compare(0, prefix.size(), prefix) != 0) continue;
    *key = channel.substr(prefix.size());
    event->assign(reply->element[3]->str, reply->element[3]->len);
    return 1;
  }
}

std::unique_ptr<Reader> Reader::Open() {
  Context context = Connect();
  if (!context) return nullptr;
  return std::unique_ptr<Reader>(new Reader(std::move(context)));
}

bool Reader::Get(const std::string &key, std::string *value) {
  Reply reply = Call(context_.get(), {"GET", key});
  if (!reply || reply->type != REDIS_REPLY_STRING) return false;
  value->assign(reply->str, reply->len);
  return true;
}

bool Reader::Keys(const std::string &pattern, std::vector<std::string> *keys) {
  std::string cursor = "0";
  do {
    Reply reply = Call(context_.get(), {"SCAN", cursor, "MATCH", pattern, "COUNT", "1000"});
    if (!reply || reply->type != REDIS_REPLY_ARRAY || reply->elements != 2) return false;
    cursor.assign(reply->element[0]->str, reply->element[0]->len);
    const redisReply *batch = reply->element[1];
    for (size_t i = 0; i < batch->elements; ++i) {
      keys->emplace_back(batch->element[i]->str, batch->element[i]->len);
    }
  } while (cursor != "0");
  return true;
}

}  // namespace keywatcher
