// The sandbox's system log: receives datagrams on a Unix socket (normally /dev/log) and appends each
// as one line to a file, with its "<priority>" header as sent. A newline inside a message is written
// as the two characters "\n", so that one line is always one message.
//
//   syslog_sink SOCKET_PATH LOG_FILE
#include <fcntl.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <string>

int main(int argc, char **argv) {
  if (argc != 3) {
    fprintf(stderr, "usage: syslog_sink SOCKET_PATH LOG_FILE\n");
    return 2;
  }
  const int out = open(argv[2], O_WRONLY | O_CREAT | O_APPEND | O_CLOEXEC, 0644);
  if (out < 0) {
    perror("syslog_sink: open");
    return 1;
  }
  const int sock = socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0);
  sockaddr_un addr{};
  addr.sun_family = AF_UNIX;
  if (sock < 0 || strlen(argv[1]) >= sizeof(addr.sun_path)) {
    perror("syslog_sink: socket");
    return 1;
  }
  strcpy(addr.sun_path, argv[1]);
  unlink(argv[1]);
  // Messages may exceed the default receive buffer when many arrive at once.
  int bufferSize = 8 << 20;
  setsockopt(sock, SOL_SOCKET, SO_RCVBUF, &bufferSize, sizeof(bufferSize));
  if (bind(sock, reinterpret_cast<sockaddr *>(&addr), sizeof(addr)) != 0) {
    perror("syslog_sink: bind");
    return 1;
  }
  // Unprivileged processes of the tests log too.
  chmod(argv[1], 0666);

  static char datagram[1 << 16];
  std::string line;
  for (;;) {
    const ssize_t n = recv(sock, datagram, sizeof(datagram), 0);
    if (n < 0) {
      if (errno == EINTR) continue;
      perror("syslog_sink: recv");
      return 1;
    }
    line.clear();
    for (ssize_t i = 0; i < n; ++i) {
      if (datagram[i] == '\n') {
        line += "\\n";
      } else if (datagram[i] != '\0') {
        line += datagram[i];
      }
    }
    line += '\n';
    if (write(out, line.data(), line.size()) != static_cast<ssize_t>(line.size())) {
      perror("syslog_sink: write");
      return 1;
    }
  }
}
