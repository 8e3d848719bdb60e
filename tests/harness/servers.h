// Real servers for the tests, started on loopback inside the test's own network namespace, so that
// every test binary can use the fixed ports of the package.
//
//   auto redis = qsvtest::ServerProcess::Redis(8500, "secret");   // answers PING when this returns
//   auto cache = qsvtest::ServerProcess::Memcached(8502);
//
// The object owns the server: destroying it stops the server and waits for it.
#ifndef MAILSERVER_TESTS_HARNESS_SERVERS_H_
#define MAILSERVER_TESTS_HARNESS_SERVERS_H_

#include <sys/types.h>

#include <memory>
#include <string>
#include <vector>

namespace qsvtest {

class ServerProcess {
 public:
  // Throws std::runtime_error when the server does not answer within a few seconds.
  static std::unique_ptr<ServerProcess> Redis(int port, const std::string &password = "",
                                              const std::vector<std::string> &extra = {});
  static std::unique_ptr<ServerProcess> Memcached(int port);
  // Any server that speaks first (sshd, an rsync daemon): `args` run as they are (the program by
  // PATH or path), and the server is up once a connection to `port` reads `greeting`.
  static std::unique_ptr<ServerProcess> Greeter(const std::vector<std::string> &args, int port,
                                                const std::string &greeting);

  ~ServerProcess();
  ServerProcess(const ServerProcess &) = delete;
  ServerProcess &operator=(const ServerProcess &) = delete;

  pid_t pid() const { return pid_; }
  int port() const { return port_; }

  // Stops the server now (SIGTERM, then SIGKILL after a while) and waits for it.
  void Stop();

 private:
  ServerProcess(pid_t pid, int port) : pid_(pid), port_(port) {}

  pid_t pid_;
  int port_;
};

// Sends `request` to 127.0.0.1:port and returns what arrived within `timeoutMs`, or "" if the port
// did not accept the connection.
std::string TcpExchange(int port, const std::string &request, int timeoutMs = 500);

}  // namespace qsvtest

#endif  // MAILSERVER_TESTS_HARNESS_SERVERS_H_
