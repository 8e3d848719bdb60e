#include "migration/imap_source.h"

#include <arpa/inet.h>
#include <dirent.h>
#include <netinet/in.h>
#include <pwd.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <fstream>
#include <sstream>
#include <stdexcept>

namespace qsvtest {

namespace {

const std::string kRoot = "/tmp/qsv-source";

int Run(const std::vector<std::string> &args) {
  std::vector<char *> argv;
  for (const std::string &a : args) argv.push_back(const_cast<char *>(a.c_str()));
  argv.push_back(nullptr);
  const pid_t child = fork();
  if (child == 0) {
    execv(argv[0], argv.data());
    _exit(127);
  }
  int status = 0;
  waitpid(child, &status, 0);
  return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
}

bool Greets(int port) {
  const int fd = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
  sockaddr_in address{};
  address.sin_family = AF_INET;
  address.sin_port = htons(static_cast<uint16_t>(port));
  address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  timeval patience{2, 0};
  setsockopt(fd, SOL_SOCKET, SO_RCVTIMEO, &patience, sizeof(patience));
  char buffer[8] = {0};
  const bool ok = connect(fd, reinterpret_cast<sockaddr *>(&address), sizeof(address)) == 0 &&
                  read(fd, buffer, 4) == 4 && std::string(buffer, 4) == "* OK";
  close(fd);
  return ok;
}

void Owned(const std::string &path, uid_t uid, gid_t gid) {
  mkdir(path.c_str(), 0700);
  chown(path.c_str(), uid, gid);
}

const passwd *Owner() { return getpwnam("Quillon-Server"); }

}  // namespace

ImapSource::ImapSource(int port) : port_(port) {
  const passwd *owner = Owner();
  mkdir(kRoot.c_str(), 0755);
  mkdir((kRoot + "/run").c_str(), 0755);
  Owned(kRoot + "/mail", owner->pw_uid, owner->pw_gid);
  std::ofstream(kRoot + "/users", std::ios::app).flush();
  std::ofstream conf(kRoot + "/dovecot.conf");
  conf << "base_dir = " << kRoot << "/run\n"
       << "state_dir = " << kRoot << "/state\n"
       << "log_path = " << kRoot << "/dovecot.log\n"
       << "listen = 127.0.0.1\nprotocols = imap\nssl = no\n"
       << "disable_plaintext_auth = no\nauth_mechanisms = plain login\nfirst_valid_uid = 1\n"
       << "mail_location = maildir:" << kRoot << "/mail/%u\n"
       << "passdb {\n  driver = passwd-file\n  args = scheme=PLAIN " << kRoot << "/users\n}\n"
       << "userdb {\n  driver = static\n  args = uid=" << owner->pw_uid << " gid="
       << owner->pw_gid << " home=" << kRoot << "/mail/%u\n}\n"
       << "service imap-login {\n  inet_listener imap {\n    port = " << port << "\n  }\n"
       << "  inet_listener imaps {\n    port = 0\n  }\n}\n"
       << "service pop3-login {\n  inet_listener pop3 {\n    port = 0\n  }\n}\n";
  conf.close();
  mkdir((kRoot + "/state").c_str(), 0755);
  if (Run({"/usr/sbin/dovecot", "-c", kRoot + "/dovecot.conf"}) != 0) {
    throw std::runtime_error("the source Dovecot did not start");
  }
  for (int i = 0; i < 100 && !Greets(port_); i++) usleep(100000);
  if (!Greets(port_)) throw std::runtime_error("the source Dovecot does not greet");
}

ImapSource::~ImapSource() { Run({"/usr/sbin/dovecot", "-c", kRoot + "/dovecot.conf", "stop"}); }

void ImapSource::AddUser(const std::string &name, const std::string &password) {
  std::ofstream(kRoot + "/users", std::ios::app) << name << ":" << password << "\n";
}

std::string ImapSource::MaildirOf(const std::string &user) const {
  return kRoot + "/mail/" + user;
}

void ImapSource::AddMessages(const std::string &user, const std::string &folder, int count,
                             const std::string &idPrefix, int size) {
  const passwd *owner = Owner();
  std::string dir = MaildirOf(user);
  Owned(dir, owner->pw_uid, owner->pw_gid);
  if (folder != "INBOX") {
    dir += "/." + folder;
    Owned(dir, owner->pw_uid, owner->pw_gid);
  }
  for (const char *sub : {"/cur", "/new", "/tmp"}) Owned(dir + sub, owner->pw_uid, owner->pw_gid);
  const std::string body(std::max(size - 200, 10), 'x');
  for (int i = 0; i < count; i++) {
    std::ostringstream name;
    name << dir << "/cur/" << (1700000000 + i) << ".M" << i << "P1." << idPrefix << ":2,S";
    std::ofstream message(name.str());
    message << "From: sender@source.test\r\nTo: " << user << "@source.test\r\n"
            << "Subject: message " << i << " of " << folder << "\r\n"
            << "Date: Tue, 14 Nov 2023 10:00:00 +0000\r\n"
            << "Message-ID: <" << idPrefix << "." << i << "@source.test>\r\n\r\n"
            << body << "\r\n";
    message.close();
    chown(name.str().c_str(), owner->pw_uid, owner->pw_gid);
  }
}

std::vector<std::string> MessageIds(const std::string &maildir, const std::string &folder) {
  std::vector<std::string> ids;
  const std::string base = folder == "INBOX" ? maildir : maildir + "/." + folder;
  for (const char *sub : {"/cur", "/new"}) {
    DIR *dir = opendir((base + sub).c_str());
    if (dir == nullptr) continue;
    while (const dirent *entry = readdir(dir)) {
      if (entry->d_name[0] == '.') continue;
      std::ifstream message(base + sub + "/" + entry->d_name);
      std::string line;
      while (std::getline(message, line) && line != "\r" && !line.empty()) {
        if (line.compare(0, 11, "Message-ID:") == 0) {
          ids.push_back(line.substr(12, line.find_last_not_of("\r") - 11));
          break;
        }
      }
    }
    closedir(dir);
  }
  std::sort(ids.begin(), ids.end());
  return ids;
}

}  // namespace qsvtest
