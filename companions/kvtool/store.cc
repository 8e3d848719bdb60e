#include "store.h"

#include <sys/time.h>

#include <cstdio>
#include <cstdlib>

#include "json_text.h"

namespace kvtool {
namespace {

const char kBackendConf[] = "/var/packages/Quillon-Server/etc/backend.conf";
const char kLocalHost[] = "127.0.0.1";
const int kLocalPort = 8500;

// Connecting to loopback answers at once; a few seconds only matter for a master elsewhere that
// went away. Commands get longer, since a SCAN of a large tree is slow but legitimate.
const timeval kConnectTimeout = {3, 0};
const timeval kCommandTimeout = {10, 0};

// A missing file or an empty password means the server has no password.
bool ReadPassword(std::string *password) {
  switch (ReadJsonMember(kBackendConf, "password", password)) {
    case JsonRead::kOk:
      return true;
    case JsonRead::kNoFile:
    case JsonRead::kNoMember:
      password->clear();
      return true;
    default:
      Complain(std::string("cannot read the store password from ") + kBackendConf);
      return false;
  }
}

Reply Receive(redisContext *context) {
  void *reply = nullptr;
  if (redisGetReply(context, &reply) != REDIS_OK) return Reply();
  return Reply(static_cast<redisReply *>(reply));
}

// Finds "name:value" in the text of INFO, whose lines end with "\r\n".
std::string InfoField(const std::string &info, const std::string &name) {
  const std::string prefix = name + ":";
  size_t at = 0;
  while (at < info.size()) {
    size_t end = info.find('\n', at);
    if (end == std::string::npos) end = info.size();
    if (info.compare(at, prefix.size(), prefix) == 0) {
      std::string value = info.substr(at + prefix.size(), end - at - prefix.size());
      if (!value.empty() && value.back() == '\r') value.pop_back();
      return value;
    }
    at = end + 1;
  }
  return "";
}

}  // namespace

void Complain(const std::string &message) {
  fprintf(stderr, "kolt-quillon-server-go-utils: %s\n", message.c_str());
}

bool PrintExactly(const std::string &text) {
  if (fwrite(text.data(), 1, text.size(), stdout) != text.size() || fflush(stdout) != 0) {
    Complain("cannot write the result to standard output");
    return false;
  }
  return true;
}

std::unique_ptr<Connection> Connection::Open(const std::string &host, int port,
                                             const std::string &password) {
  const std::string where = host + ":" + std::to_string(port);
  redisContext *context = redisConnectWithTimeout(host.c_str(), port, kConnectTimeout);
  if (context == nullptr || context->err != 0) {
    Complain("cannot connect to the key store at " + where + ": " +
             (context != nullptr ? context->errstr : "out of memory"));
    if (context != nullptr) redisFree(context);
    return nullptr;
  }
  redisSetTimeout(context, kCommandTimeout);
  const bool auth = !password.empty();
  if (auth) {
    const char *argv[] = {"AUTH", password.data()};
    const size_t lengths[] = {4, password.size()};
    redisAppendCommandArgv(context, 2, argv, lengths);
  }
  return std::unique_ptr<Connection>(new Connection(context, where, auth));
}

Connection::~Connection() { redisFree(context_); }

Reply Connection::Call(const std::vector<std::string> &args) {
  std::vector<const char *> argv;
  std::vector<size_t> lengths;
  for (const auto &a : args) {
    argv.push_back(a.data());
    lengths.push_back(a.size());
  }
  redisAppendCommandArgv(context_, static_cast<int>(args.size()), argv.data(), lengths.data());

  if (authPending_) {
    authPending_ = false;
    Reply auth = Receive(context_);
    if (!auth) {
      Complain("lost the key store at " + where_ + ": " + context_->errstr);
      return Reply();
    }
    if (auth->type == REDIS_REPLY_ERROR) {
      Complain("the key store at " + where_ + " refused the password: " +
               std::string(auth->str, auth->len));
      return Reply();
    }
  }
  Reply reply = Receive(context_);
  if (!reply) {
    Complain("lost the key store at " + where_ + ": " + context_->errstr);
    return Reply();
  }
  if (reply->type == REDIS_REPLY_ERROR) {
    Complain("the key store at " + where_ + " answered " + args[0] + " with: " +
             std::string(reply->str, reply->len));
    return Reply();
  }
  return reply;
}

std::unique_ptr<Store> Store::Open() {
  std::string password;
  if (!ReadPassword(&password)) return nullptr;
  std::unique_ptr<Connection> local = Connection::Open(kLocalHost, kLocalPort, password);
  if (!local) return nullptr;
  return std::unique_ptr<Store>(new Store(std::move(password), std::move(local)));
}

bool Store::LocalReplication(Replication *replication) {
  Reply info = local_->Call({"INFO", "replication"});
  if (!info) return false;
  if (info->type != REDIS_REPLY_STRING) {
    Complain("the key store at " + local_->where() + " gave no replication state");
    return false;
  }
  const std::string text(info->str, info->len);
  const std::string role = InfoField(text, "role");
  if (role == "master") {
    replication->replica = false;
    return true;
  }
  replication->replica = true;
  replication->masterHost = InfoField(text, "master_host");
  replication->masterPort = atoi(InfoField(text, "master_port").c_str());
  if (role != "slave" || replication->masterHost.empty() || replication->masterPort <= 0) {
    Complain("the key store at " + local_->where() + " names no replication master");
    return false;
  }
  return true;
}

Connection *Store::Master() {
  if (master_ != nullptr) return master_;
  Replication replication;
  if (!LocalReplication(&replication)) return nullptr;
  if (!replication.replica) {
    master_ = local_.get();
    return master_;
  }
  remoteMaster_ = Connection::Open(replication.masterHost, replication.masterPort, password_);
  master_ = remoteMaster_.get();
  return master_;
}

}  // namespace kvtool
