// The tool's way to the key store: this node's Redis on 127.0.0.1:8500 and, when this node is a
// replica, its replication master, both with the password of etc/backend.conf.
//
// Writes and linear reads must reach the master; plain reads are served by the node's own server
// (it may lag behind). The tool makes one connection for anything it can and a second one only
// when it must write from a replica.
//
// Failures are reported on stderr where they are seen; callers only turn them into exit status 2.
// Not thread-safe; the tool has one thread.
#ifndef QSV_COMPANIONS_KVTOOL_STORE_H_
#define QSV_COMPANIONS_KVTOOL_STORE_H_

#include <memory>
#include <string>
#include <vector>

#include <hiredis/hiredis.h>

namespace kvtool {

struct ReplyFree {
  void operator()(redisReply *reply) const { freeReplyObject(reply); }
};
using Reply = std::unique_ptr<redisReply, ReplyFree>;

// One authenticated connection. Owns its hiredis context.
class Connection {
 public:
  // Connects with a bounded wait. AUTH is queued, not sent: it leaves together with the first
  // command, so that a short run costs one round trip. Null, with a message, when unreachable.
  static std::unique_ptr<Connection> Open(const std::string &host, int port,
                                          const std::string &password);
  ~Connection();
  Connection(const Connection &) = delete;
  Connection &operator=(const Connection &) = delete;

  // Sends one command (binary-safe arguments) and returns its reply. An error reply, a refused
  // password or a lost connection give null, with a message.
  Reply Call(const std::vector<std::string> &args);

  const std::string &where() const { return where_; }

 private:
  Connection(redisContext *context, std::string where, bool authPending)
      : context_(context), where_(std::move(where)), authPending_(authPending) {}

  redisContext *context_;
  std::string where_;  // "host:port", for messages
  bool authPending_;
};

// What INFO replication says about a server.
struct Replication {
  bool replica = false;
  std::string masterHost;  // only for a replica
  int masterPort = 0;
};

class Store {
 public:
  // Reads the password and connects to this node's server. Null, with a message, on failure.
  static std::unique_ptr<Store> Open();

  // This node's server.
  Connection *Local() { return local_.get(); }

  // The replication master: the local connection on a master, a second connection on a replica.
  // Null, with a message, on failure. Asks the local server only once.
  Connection *Master();

  // INFO replication of this node's server. False, with a message, on failure.
  bool LocalReplication(Replication *replication);

 private:
  explicit Store(std::string password, std::unique_ptr<Connection> local)
      : password_(std::move(password)), local_(std::move(local)) {}

  std::string password_;
  std::unique_ptr<Connection> local_;
  std::unique_ptr<Connection> remoteMaster_;
  Connection *master_ = nullptr;
};

// Writes `text` to stdout exactly, with nothing added. False, with a message, when it cannot.
bool PrintExactly(const std::string &text);

// Reports a failure of the tool on stderr, with the program's name in front.
void Complain(const std::string &message);

}  // namespace kvtool

#endif  // QSV_COMPANIONS_KVTOOL_STORE_H_
