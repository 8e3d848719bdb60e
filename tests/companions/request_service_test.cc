// The node's request service, run from the package and sent requests made and signed here: a peer
// gets a file in place only with the cluster's password, a fresh time, a body that matches its
// digest, a known folder, a plain name and a safe mode; anything else is refused and changes nothing.
#include <arpa/inet.h>
#include <grp.h>
#include <openssl/evp.h>
#include <openssl/hmac.h>
#include <pwd.h>
#include <signal.h>
#include <spawn.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <ctime>
#include <filesystem>
#include <functional>
#include <memory>

#include <gtest/gtest.h>
#include <json/json.h>

#include "companions/program_run.h"
#include "harness/eventually.h"
#include "harness/recording_script.h"

extern char **environ;

namespace qsvtest {
namespace {

const char kService[] = "/var/packages/Quillon-Server/target/usr/bin/kolt-quillon-server-request-service";
const char kDir[] = "/var/spool/mail/spamassassin/";

std::string Hex(const unsigned char *bytes, unsigned size) {
  std::string text;
  const char digits[] = "0123456789abcdef";
  for (unsigned i = 0; i < size; ++i) text += digits[bytes[i] >> 4], text += digits[bytes[i] & 15];
  return text;
}

std::string Sha256(const std::string &text) {
  unsigned char digest[EVP_MAX_MD_SIZE];
  unsigned size = 0;
  return EVP_Digest(text.data(), text.size(), digest, &size, EVP_sha256(), nullptr) ? Hex(digest, size) : "";
}

// What a peer sends for `body`, before a test spoils it.
Json::Value Head(const std::string &body) {
  Json::Value head;
  head["api"] = "KOLT.QuillonServer.Cluster", head["method"] = "sync_conf_file";
  head["params"]["dest_dir"] = kDir;
  head["params"]["file_onwer"] = "Quillon-Server";
  head["params"]["file_group"] = "mail";
  head["params"]["file_perm"] = "0640";
  head["file"]["file_path"] = "/var/spool/mail/spamassassin/bayes_toks";
  head["time"] = static_cast<Json::Int64>(time(nullptr)), head["nonce"] = "5f1c0d";
  head["size"] = static_cast<Json::UInt64>(body.size()), head["sha256"] = Sha256(body);
  return head;
}

// Line, its HMAC with `key`, body; returns the answer's error code, 0 for success, -1 for none.
int Send(const Json::Value &head, const std::string &body, const std::string &key) {
  std::string line = Json::FastWriter().write(head), answer;
  line.pop_back();
  unsigned char mac[EVP_MAX_MD_SIZE];
  unsigned size = 0;
  HMAC(EVP_sha256(), key.data(), static_cast<int>(key.size()),
       reinterpret_cast<const unsigned char *>(line.data()), line.size(), mac, &size);
  const std::string request = line + "\n" + Hex(mac, size) + "\n" + body;
  const int fd = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
  sockaddr_in to{AF_INET, htons(8503), {htonl(INADDR_LOOPBACK)}, {}};
  timeval guard = {20, 0};  // so that a hung service fails the test instead of stalling it
  setsockopt(fd, SOL_SOCKET, SO_RCVTIMEO, &guard, sizeof(guard));
  char c;
  if (connect(fd, reinterpret_cast<sockaddr *>(&to), sizeof(to)) == 0 &&
      send(fd, request.data(), request.size(), MSG_NOSIGNAL) == ssize_t(request.size())) {
    while (recv(fd, &c, 1, 0) == 1 && c != '\n') answer += c;
  }
  close(fd);
  Json::Value json;
  std::unique_ptr<Json::CharReader> reader(Json::CharReaderBuilder().newCharReader());
  const bool parsed = reader->parse(answer.data(), answer.data() + answer.size(), &json, nullptr);
  if (!parsed || !json.isObject()) return -1;
  return json["success"].asBool() ? 0 : json["error"]["code"].asInt();
}

// Every file of that name, or a temporary one beside it, in the places a request could reach.
std::vector<std::string> Traces() {
  std::vector<std::string> found;
  for (const char *dir : {kDir, "/var/spool/mail/", "/tmp/"}) {
    std::error_code ec;
    for (const auto &entry : std::filesystem::directory_iterator(dir, ec)) {
      if (entry.path().filename().string().rfind("bayes_toks", 0) == 0) found.push_back(entry.path());
    }
  }
  return found;
}

TEST(RequestServiceTest, StoresOnlyASignedFreshSafeRequestAndRefusesTheRestUnchanged) {
  const std::string key = "request-secret", good = "learned tokens\n", bad = "forged tokens\n";
  WriteFile(kBackendConf, "{\"password\":\"" + key + "\"}");
  const char *argv[] = {kService, nullptr};
  struct Service {
    pid_t pid = -1;
    ~Service() { if (pid > 0) kill(pid, SIGTERM), waitpid(pid, nullptr, 0); }
  } service;
  ASSERT_EQ(posix_spawn(&service.pid, kService, nullptr, nullptr, const_cast<char **>(argv), environ), 0);
  ASSERT_TRUE(Eventually([&] { return Send(Head(good), good, key) == 0; }, 10));
  const std::string stored = std::string(kDir) + "bayes_toks";
  struct stat st = {};
  ASSERT_EQ(stat(stored.c_str(), &st), 0);
  EXPECT_EQ(ReadFile(stored), good);
  EXPECT_EQ(st.st_uid, getpwnam("Quillon-Server")->pw_uid);
  EXPECT_EQ(st.st_gid, getgrnam("mail")->gr_gid);
  EXPECT_EQ(st.st_mode & 07777, 0640u);

  using Change = std::function<void(Json::Value &)>;
  const auto set = [](const char *member, const char *value) -> Change {
    return [=](Json::Value &h) { (h["params"].isMember(member) ? h["params"] : h["file"])[member] = value; };
  };
  const struct { const char *what; int code; Change change; std::string key = "request-secret"; } refused[] = {
      {"forged", 105, [](Json::Value &) {}, "not-the-password"},
      {"ten minutes old", 106, [](Json::Value &h) { h["time"] = h["time"].asInt64() - 600; }},
      {"ten minutes ahead", 106, [](Json::Value &h) { h["time"] = h["time"].asInt64() + 600; }},
      {"time past any clock", 101, [](Json::Value &h) { h["time"] = Json::UInt64(~0ull); }},
      {"negative size", 101, [](Json::Value &h) { h["size"] = -1; }},
      {"body not its digest", 117, [&](Json::Value &h) { h["sha256"] = Sha256(good); }},
      {"outside folder", 106, set("dest_dir", "/tmp/")},
      {"folder above", 106, set("dest_dir", "/var/spool/mail/spamassassin/../")},
      {"name ..", 106, set("file_path", "/var/spool/mail/spamassassin/..")},
      {"name ending in /", 106, set("file_path", "/var/spool/mail/spamassassin/bayes_toks/")},
      {"set-uid", 106, set("file_perm", "4755")},
      {"set-gid", 106, set("file_perm", "2750")},
      {"other-writable", 106, set("file_perm", "0646")},
      {"unknown owner", 106, set("file_onwer", "no-such-user")},
  };
  for (const auto &request : refused) {
    Json::Value head = Head(bad);
    request.change(head);
    EXPECT_EQ(Send(head, bad, request.key), request.code) << request.what;
    EXPECT_EQ(Traces(), std::vector<std::string>{stored}) << request.what;
    EXPECT_EQ(ReadFile(stored), good) << request.what;
  }
}

}  // namespace
}  // namespace qsvtest
