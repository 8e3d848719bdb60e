#include "harness/servers.h"

#include <arpa/inet.h>
#include <fcntl.h>
#include <netinet/in.h>
#include <poll.h>
#include <signal.h>
#include <spawn.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <stdexcept>
#include <thread>

extern char **environ;

namespace qsvtest {
namespace {

pid_t Spawn(const std::vector<std::string> &args) {
  std::vector<char *> argv;
  for (const auto &a : args) argv.push_back(const_cast<char *>(a.c_str()));
  argv.push_back(nullptr);
  posix_spawn_file_actions_t actions;
  posix_spawn_file_actions_init(&actions);
  posix_spawn_file_actions_addopen(&actions, 0, "/dev/null", O_RDONLY, 0);
  posix_spawn_file_actions_addopen(&actions, 1, "/dev/null", O_WRONLY, 0);
  posix_spawn_file_actions_addclosefrom_np(&actions, 3);
  pid_t pid = -1;
  const int rc = posix_spawnp(&pid, argv[0], &actions, nullptr, argv.data(), environ);
  posix_spawn_file_actions_destroy(&actions);
  if (rc != 0) throw std::runtime_error("cannot start " + args[0]);
  return pid;
}

void WaitUntilAnswers(pid_t pid, int port, const std::string &request, const std::string &answer) {
  const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(10);
  while (std::chrono::steady_clock::now() < deadline) {
    if (TcpExchange(port, request, 200).find(answer) != std::string::npos) return;
    int status;
    if (waitpid(pid, &status, WNOHANG) == pid) {
      throw std::runtime_error("server on port " + std::to_string(port) + " exited at start");
    }
    std::this_thread::sleep_for(std::chrono::milliseconds(10));
  }
  kill(pid, SIGKILL);
  waitpid(pid, nullptr, 0);
  throw std::runtime_error("server on port " + std::to_string(port) + " never answered");
}

}  // namespace

std::string TcpExchange(int port, const std::string &request, int timeoutMs) {
  const int fd = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
  if (fd < 0) return "";
  sockaddr_in addr{};
  addr.sin_family = AF_INET;
  addr.sin_port = htons(static_cast<uint16_t>(port));
  addr.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  std::string reply;
  if (connect(fd, reinterpret_cast<sockaddr *>(&addr), sizeof(addr)) == 0 &&
      send(fd, request.data(), request.size(), MSG_NOSIGNAL) ==
          static_cast<ssize_t>(request.size())) {
    pollfd p{fd, POLLIN, 0};
    char buf[4096];
    // The first reply is enough for a readiness check and for the short exchanges of the tests.
    if (poll(&p, 1, timeoutMs) > 0) {
      const ssize_t n = recv(fd, buf, sizeof(buf), 0);
      if (n > 0) reply.assign(buf, static_cast<size_t>(n));
    }
  }
  close(fd);
  return reply;
}

std::unique_ptr<ServerProcess> ServerProcess::Redis(int port, const std::string &password,
                                                    const std::vector<std::string> &extra) {
  std::vector<std::string> args = {"redis-server", "--port", std::to_string(port), "--bind",
                                   "127.0.0.1",   "--save", "",    "--appendonly",      "no",
                                   "--daemonize", "no",     "--dir", "/tmp"};
  if (!password.empty()) {
    args.push_back("--requirepass");
    args.push_back(password);
  }
  args.insert(args.end(), extra.begin(), extra.end());
  const pid_t pid = Spawn(args);
  // An unauthenticated PING is refused with NOAUTH, which still proves the server is up.
  WaitUntilAnswers(pid, port, "PING\r\n", password.empty() ? "+PONG" : "NOAUTH");
  return std::unique_ptr<ServerProcess>(new ServerProcess(pid, port));
}

std::unique_ptr<ServerProcess> ServerProcess::Memcached(int port) {
  const pid_t pid = Spawn({"memcached", "-u", "root", "-l", "127.0.0.1", "-p",
                           std::to_string(port), "-U", "0", "-m", "1024", "-I", "128m"});
  WaitUntilAnswers(pid, port, "version\r\n", "VERSION");
  return std::unique_ptr<ServerProcess>(new ServerProcess(pid, port));
}

std::unique_ptr<ServerProcess> ServerProcess::Greeter(const std::vector<std::string> &args,
                                                      int port, const std::string &greeting) {
  const pid_t pid = Spawn(args);
  WaitUntilAnswers(pid, port, "", greeting);
  return std::unique_ptr<ServerProcess>(new ServerProcess(pid, port));
}

void ServerProcess::Stop() {
  if (pid_ <= 0) return;
  kill(pid_, SIGTERM);
  for (int i = 0; i < 500; ++i) {
    if (waitpid(pid_, nullptr, WNOHANG) == pid_) {
      pid_ = -1;
      return;
    }
    std::this_thread::sleep_for(std::chrono::milliseconds(10));
  }
  kill(pid_, SIGKILL);
  waitpid(pid_, nullptr, 0);
  pid_ = -1;
}

ServerProcess::~ServerProcess() { Stop(); }

}  // namespace qsvtest
