#include "webapi/web_api_request.h"

#include <arpa/inet.h>
#include <fcntl.h>
#include <netdb.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstdio>
#include <ctime>
#include <memory>
#include <vector>

#include "webapi/web_api_wire.h"

namespace {

bool SendAll(int fd, const char *data, size_t size) {
  while (size > 0) {
    const ssize_t n = send(fd, data, size, MSG_NOSIGNAL);
    if (n <= 0) return false;
    data += n;
    size -= static_cast<size_t>(n);
  }
  return true;
}

int Connect(const std::string &server) {
  addrinfo hints = {};
  hints.ai_socktype = SOCK_STREAM;
  hints.ai_flags = AI_NUMERICHOST;
  addrinfo *found = nullptr;
  if (getaddrinfo(server.c_str(), std::to_string(webapi::kPort).c_str(), &hints, &found) != 0) {
    return -1;
  }
  int fd = socket(found->ai_family, SOCK_STREAM | SOCK_CLOEXEC, 0);
  if (fd >= 0) {
    timeval timeout = {60, 0};
    setsockopt(fd, SOL_SOCKET, SO_RCVTIMEO, &timeout, sizeof(timeout));
    setsockopt(fd, SOL_SOCKET, SO_SNDTIMEO, &timeout, sizeof(timeout));
    if (connect(fd, found->ai_addr, found->ai_addrlen) != 0) {
      close(fd);
      fd = -1;
    }
  }
  freeaddrinfo(found);
  return fd;
}

std::string Nonce() {
  unsigned char bytes[16] = {0};
  const int fd = open("/dev/urandom", O_RDONLY | O_CLOEXEC);
  if (fd >= 0) {
    if (read(fd, bytes, sizeof(bytes)) != sizeof(bytes)) bytes[0] = 0;
    close(fd);
  }
  char text[33];
  for (int i = 0; i < 16; ++i) snprintf(text + 2 * i, 3, "%02x", bytes[i]);
  return text;
}

}  // namespace

bool WebAPIRequest(const std::string &server, const Json::Value &request, Json::Value &response) {
  const std::string password = webapi::BackendPassword();
  if (password.empty() || !request.isObject()) return false;

  std::string body;
  if (request.isMember("file")) {
    const Json::Value &file = request["file"];
    if (!file.isObject() || !file["file_path"].isString()) return false;
    const int in = open(file["file_path"].asCString(), O_RDONLY | O_CLOEXEC);
    struct stat st;
    if (in < 0) return false;
    if (fstat(in, &st) != 0 || !S_ISREG(st.st_mode) ||
        static_cast<size_t>(st.st_size) > webapi::kMaxBody) {
      close(in);
      return false;
    }
    std::vector<char> piece(1 << 16);
    ssize_t n;
    while ((n = read(in, piece.data(), piece.size())) > 0) body.append(piece.data(), n);
    close(in);
    if (n < 0) return false;
  }
  Json::Value header = request;
  header["time"] = static_cast<Json::Int64>(time(nullptr));
  header["nonce"] = Nonce();
  header["size"] = static_cast<Json::UInt64>(body.size());
  webapi::BodyDigest digest;
  digest.Update(body.data(), body.size());
  header["sha256"] = digest.Hex();
  std::string line = Json::FastWriter().write(header);
  if (!line.empty() && line.back() == '\n') line.pop_back();
  const std::string mac = webapi::HmacHex(password, line);

  const int fd = Connect(server);
  if (fd < 0) return false;
  const std::string head = line + "\n" + mac + "\n";
  bool ok = SendAll(fd, head.data(), head.size()) && SendAll(fd, body.data(), body.size());
  std::string answer;
  char c;
  while (ok && answer.size() < webapi::kMaxHeader) {
    const ssize_t n = recv(fd, &c, 1, 0);
    if (n <= 0 || c == '\n') break;
    answer += c;
  }
  close(fd);
  if (!ok) return false;
  Json::CharReaderBuilder builder;
  std::string errors;
  std::unique_ptr<Json::CharReader> reader(builder.newCharReader());
  return reader->parse(answer.data(), answer.data() + answer.size(), &response, &errors) &&
         response.isObject();
}
