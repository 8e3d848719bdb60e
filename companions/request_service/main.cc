// The node's request service: answers the requests that other members of the cluster send
// through WebAPIRequest, on port 8503 of every address. ClusterDaemon.sh starts it with the
// other daemons of a cluster node, as root, since it hands received files to their owners.
//
//   kolt-quillon-server-request-service            (runs until SIGTERM)
//
// Methods of the api "KOLT.QuillonServer.Cluster":
//   sync_conf_file  params dest_dir, file_onwer, file_group, file_perm; the file's content
//                   follows the request and is stored under the base name of its "file_path".
//   make_mail_dir   params user; makes that user's mail directory here, as the library would
//                   (mode 0770, the user's own), before a peer syncs the user's mailbox into it.
//   align_inbox     params user, guid; gives that user's INBOX here the peer's INBOX GUID.
//
// A request must carry a valid signature with the cluster's backend password. What a peer sends
// is checked again here: only the known destination folders, plain file names, existing owners,
// and modes without set-id bits or write access for others.
#include <arpa/inet.h>
#include <fcntl.h>
#include <grp.h>
#include <netinet/in.h>
#include <pwd.h>
#include <signal.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <syslog.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <memory>
#include <string>
#include <vector>

#include <json/json.h>

#include "core/mail_dir.h"
#include "webapi/web_api_wire.h"

namespace {

// Error codes of the answer.
enum { kBadRequest = 101, kNotSigned = 105, kRefused = 106, kWriteFailed = 117 };

// Where peers may put files: the spam databases the anti-spam filter learns into.
const char *const kAllowedDirs[] = {"/var/spool/mail/spamassassin/"};

struct Failure {
  int code;
  std::string why;
};

void Answer(int fd, bool success, int code = 0) {
  Json::Value answer(Json::objectValue);
  answer["success"] = success;
  if (!success) answer["error"]["code"] = code;
  const std::string text = Json::FastWriter().write(answer);
  send(fd, text.data(), text.size(), MSG_NOSIGNAL);
}

bool ReadLine(int fd, std::string &line) {
  line.clear();
  char c;
  while (line.size() < webapi::kMaxHeader) {
    if (recv(fd, &c, 1, 0) != 1) return false;
    if (c == '\n') return true;
    line += c;
  }
  return false;
}

bool PlainName(const std::string &name) {
  if (name.empty() || name[0] == '.' || name.size() > 255) return false;
  for (char c : name) {
    if (!isalnum(static_cast<unsigned char>(c)) && c != '.' && c != '_' && c != '-') return false;
  }
  return true;
}

// Whether the folder `part` is root's and writable by nobody else, and a link only where root made
// it (Debian's /var/spool/mail is one): nobody else can have put it there or can change it.
bool RootsFolder(const std::string &part) {
  struct stat st;
  return lstat(part.c_str(), &st) == 0 && !(S_ISLNK(st.st_mode) && st.st_uid != 0) &&
         stat(part.c_str(), &st) == 0 && S_ISDIR(st.st_mode) && st.st_uid == 0 &&
         (st.st_mode & 022) == 0;
}

// The destination folder, made root's if missing; refused when someone other than root could
// change it, so that a link can't send the file elsewhere.
bool SafeDir(const std::string &dir) {
  bool allowed = false;
  for (const char *known : kAllowedDirs) allowed = allowed || dir == known;
  if (!allowed) return false;
  std::string path;
  for (size_t at = 1; at <= dir.size(); ++at) {
    if (at < dir.size() && dir[at] != '/') continue;
    path = dir.substr(0, at);
    if ((mkdir(path.c_str(), 0755) != 0 && errno != EEXIST) || !RootsFolder(path)) return false;
  }
  return true;
}

// A user name as a peer may name one: what useradd and the directory services give, nothing that
// could read as an option or a path.
bool PlainUserName(const std::string &name) {
  if (name.empty() || name.size() > 64 || name[0] == '-' || name[0] == '.') return false;
  for (char c : name) {
    if (!isalnum(static_cast<unsigned char>(c)) && c != '.' && c != '_' && c != '-' && c != '@') {
      return false;
    }
  }
  return true;
}

// Whether `path` and every folder above it are RootsFolder, so that nobody else can swap a part.
bool RootsAlone(const std::string &path) {
  for (size_t at = 1; at <= path.size(); ++at) {
    if (at < path.size() && path[at] != '/') continue;
    if (!RootsFolder(path.substr(0, at))) return false;
  }
  return true;
}

// Dovecot's sync server runs as the user, who may not create a folder in the account domain's
// folder (root's, 0711): the directory is made here, by root, with the owner, group and mode the
// library gives every mail directory. One that exists must be the user's own already.
Failure MakeMailDir(const Json::Value &request) {
  const Json::Value &params = request["params"];
  if (!params.isObject() || !params["user"].isString() || request["size"].asUInt64() != 0) {
    return {kBadRequest, "incomplete make_mail_dir request"};
  }
  const std::string name = params["user"].asString();
  const passwd *user = PlainUserName(name) ? getpwnam(name.c_str()) : nullptr;
  if (user == nullptr || user->pw_uid == 0) return {kRefused, "refused user"};
  const uid_t uid = user->pw_uid;
  const gid_t gid = user->pw_gid;
  std::string path;
  if (mailDirGet(uid, path) != 0) return {kWriteFailed, "no mail folder on this node"};
  const std::string domainPath = path.substr(0, path.rfind('/'));
  const std::string base = path.substr(path.rfind('/') + 1);
  // The domain's folder as the configuration writer makes it: others may pass, not list.
  mkdir(domainPath.c_str(), 0711);
  if (!RootsAlone(domainPath)) return {kRefused, "refused mail folder " + domainPath};
  const int parent = open(domainPath.c_str(), O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC);
  if (parent < 0) return {kWriteFailed, "cannot open " + domainPath};
  const bool made = mkdirat(parent, base.c_str(), 0700) == 0;
  const int dir = openat(parent, base.c_str(), O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC);
  close(parent);
  struct stat st;
  Failure failure = {0, ""};
  if (dir < 0 || fstat(dir, &st) != 0) {
    failure = {kWriteFailed, "cannot make " + path};
  } else if (made) {
    if (fchown(dir, uid, gid) != 0 || fchmod(dir, 0770) != 0) {
      failure = {kWriteFailed, "cannot hand " + path + " to its user"};
    } else {
      syslog(LOG_INFO, "made the mail directory %s for a peer's sync", path.c_str());
    }
  } else if (st.st_uid != uid) {
    failure = {kRefused, path + " belongs to another user"};
  }
  if (dir >= 0) close(dir);
  return failure;
}

// Dovecot of this node, which the peer's sync reaches through the cluster's mailbox sync listener.
const char kDoveadm[] = "/var/packages/Quillon-Server/target/bin/doveadm";
const char kDovecotConf[] = "/var/packages/Quillon-Server/target/etc/dovecot/dovecot.conf";

// Runs `argv` (no shell, a bare environment) and gives its exit status, with its standard output
// in `out`; -1 when it can't run or doesn't end normally.
int Run(const std::vector<std::string> &argv, std::string &out) {
  // The service ignores SIGCHLD so that its own children vanish; here we wait for ours.
  signal(SIGCHLD, SIG_DFL);
  int pipeFds[2];
  if (pipe2(pipeFds, O_CLOEXEC) != 0) return -1;
  const pid_t pid = fork();
  if (pid == 0) {
    dup2(pipeFds[1], STDOUT_FILENO);
    const int null = open("/dev/null", O_RDWR);
    if (null >= 0) {
      dup2(null, STDIN_FILENO);
      dup2(null, STDERR_FILENO);
    }
    std::vector<char *> args;
    for (const std::string &arg : argv) args.push_back(const_cast<char *>(arg.c_str()));
    args.push_back(nullptr);
    char *const env[] = {const_cast<char *>("PATH=/usr/sbin:/usr/bin:/sbin:/bin"), nullptr};
    execve(args[0], args.data(), env);
    _exit(127);
  }
  close(pipeFds[1]);
  if (pid < 0) {
    close(pipeFds[0]);
    return -1;
  }
  char piece[4096];
  ssize_t n;
  while ((n = read(pipeFds[0], piece, sizeof(piece))) > 0 && out.size() < 65536) {
    out.append(piece, n);
  }
  close(pipeFds[0]);
  int status = 0;
  if (waitpid(pid, &status, 0) != pid || !WIFEXITED(status)) return -1;
  return WEXITSTATUS(status);
}

bool Guid(const std::string &text) {
  return text.size() == 32 && text.find_first_not_of("0123456789abcdef") == std::string::npos;
}

// Two nodes that each received mail for a user made an INBOX of their own, each with its GUID;
// dsync merges mailboxes of one name with different GUIDs by renaming one aside, which it can't
// do with INBOX, so every run would end in a desync. The peer asks before it syncs: our INBOX
// takes the GUID of its INBOX, and dsync merges the two.
Failure AlignInbox(const Json::Value &request) {
  const Json::Value &params = request["params"];
  if (!params.isObject() || !params["user"].isString() || !params["guid"].isString() ||
      request["size"].asUInt64() != 0) {
    return {kBadRequest, "incomplete align_inbox request"};
  }
  const std::string name = params["user"].asString();
  const std::string guid = params["guid"].asString();
  const passwd *user = PlainUserName(name) ? getpwnam(name.c_str()) : nullptr;
  if (user == nullptr || user->pw_uid == 0 || !Guid(guid)) return {kRefused, "refused user or GUID"};
  std::string out;
  if (Run({kDoveadm, "-c", kDovecotConf, "-f", "flow", "mailbox", "status", "-u", name, "guid",
           "INBOX"},
          out) != 0) {
    return {kWriteFailed, "no INBOX of " + name + " here"};
  }
  const size_t at = out.find("guid=");
  if (at != std::string::npos && out.compare(at + 5, 32, guid) == 0) return {0, ""};
  std::string ignored;
  if (Run({kDoveadm, "-c", kDovecotConf, "mailbox", "update", "-u", name, "--mailbox-guid", guid,
           "INBOX"},
          ignored) != 0) {
    return {kWriteFailed, "cannot give the INBOX of " + name + " the GUID " + guid};
  }
  syslog(LOG_INFO, "the INBOX of %s took the GUID of a peer's", name.c_str());
  return {0, ""};
}

// Receives the body into a temporary file beside its place, checks its digest, and moves it in.
Failure StoreFile(int fd, const Json::Value &request) {
  const Json::Value &params = request["params"];
  const Json::Value &file = request["file"];
  if (!params.isObject() || !file.isObject() || !params["dest_dir"].isString() ||
      !params["file_onwer"].isString() || !params["file_group"].isString() ||
      !params["file_perm"].isString() || !file["file_path"].isString()) {
    return {kBadRequest, "incomplete sync_conf_file request"};
  }
  const std::string dir = params["dest_dir"].asString();
  std::string name = file["file_path"].asString();
  name = name.substr(name.rfind('/') + 1);
  const passwd *owner = getpwnam(params["file_onwer"].asCString());
  const group *grp = getgrnam(params["file_group"].asCString());
  char *end = nullptr;
  const long perm = strtol(params["file_perm"].asCString(), &end, 8);
  if (!PlainName(name) || owner == nullptr || grp == nullptr || end == nullptr || *end != '\0' ||
      perm < 0 || perm > 0777 || (perm & 02) != 0) {
    return {kRefused, "refused file name, owner, group or mode"};
  }
  if (!SafeDir(dir)) return {kRefused, "refused destination " + dir};
  const uid_t uid = owner->pw_uid;
  const gid_t gid = grp->gr_gid;

  const std::string target = dir + name;
  std::string tmp = target + ".XXXXXX";
  const int out = mkostemp(&tmp[0], O_CLOEXEC);
  if (out < 0) return {kWriteFailed, "cannot create a file in " + dir};
  webapi::BodyDigest digest;
  Json::UInt64 left = request["size"].asUInt64();
  char piece[1 << 16];
  bool ok = true;
  while (ok && left > 0) {
    const ssize_t n = recv(fd, piece, left < sizeof(piece) ? left : sizeof(piece), 0);
    ok = n > 0 && write(out, piece, n) == n;
    if (ok) {
      digest.Update(piece, n);
      left -= static_cast<Json::UInt64>(n);
    }
  }
  ok = ok && webapi::SameMac(digest.Hex(), request["sha256"].asString());
  ok = ok && fsync(out) == 0 && fchown(out, uid, gid) == 0 && fchmod(out, perm) == 0;
  close(out);
  if (!ok || rename(tmp.c_str(), target.c_str()) != 0) {
    unlink(tmp.c_str());
    return {kWriteFailed, "cannot receive " + target};
  }
  syslog(LOG_INFO, "received %s from a peer", target.c_str());
  return {0, ""};
}

void Serve(int fd, const std::string &password) {
  std::string line;
  std::string mac;
  if (!ReadLine(fd, line) || !ReadLine(fd, mac)) return;
  if (password.empty() || !webapi::SameMac(webapi::HmacHex(password, line), mac)) {
    syslog(LOG_WARNING, "refused a request without a valid signature");
    Answer(fd, false, kNotSigned);
    return;
  }
  Json::Value request;
  Json::CharReaderBuilder builder;
  std::string errors;
  std::unique_ptr<Json::CharReader> reader(builder.newCharReader());
  if (!reader->parse(line.data(), line.data() + line.size(), &request, &errors) ||
      !request.isObject() || !request["time"].isInt64() || !request["size"].isUInt64() ||
      !request["sha256"].isString()) {
    // In range, not just integral: asInt64()/asUInt64() throw on a time beyond Int64 or a
    // negative size, and a malformed request gets a refusal, not a child killed without answer.
    Answer(fd, false, kBadRequest);
    return;
  }
  // Compared with the clock's bounds rather than by a difference, which a time near the ends of
  // Int64 would overflow.
  const Json::Int64 now = time(nullptr), sent = request["time"].asInt64();
  if (sent < now - webapi::kClockSkew || sent > now + webapi::kClockSkew ||
      request["size"].asUInt64() > webapi::kMaxBody) {
    syslog(LOG_WARNING, "refused a stale or oversized request");
    Answer(fd, false, kRefused);
    return;
  }
  const std::string method = request["method"].asString();
  if (request["api"].asString() != "KOLT.QuillonServer.Cluster" ||
      (method != "sync_conf_file" && method != "make_mail_dir" && method != "align_inbox")) {
    Answer(fd, false, kBadRequest);
    return;
  }
  const Failure failure = method == "make_mail_dir" ? MakeMailDir(request)
                          : method == "align_inbox" ? AlignInbox(request)
                                                    : StoreFile(fd, request);
  if (failure.code != 0) syslog(LOG_ERR, "%s: %s", method.c_str(), failure.why.c_str());
  Answer(fd, failure.code == 0, failure.code);
}

}  // namespace

int main() {
  openlog("kolt-quillon-server-request-service", LOG_PID, LOG_DAEMON);
  signal(SIGCHLD, SIG_IGN);  // children are reaped by the kernel
  signal(SIGPIPE, SIG_IGN);
  const int listener = socket(AF_INET6, SOCK_STREAM | SOCK_CLOEXEC, 0);
  const int yes = 1;
  const int no = 0;
  setsockopt(listener, SOL_SOCKET, SO_REUSEADDR, &yes, sizeof(yes));
  setsockopt(listener, IPPROTO_IPV6, IPV6_V6ONLY, &no, sizeof(no));
  sockaddr_in6 address = {};
  address.sin6_family = AF_INET6;
  address.sin6_addr = in6addr_any;
  address.sin6_port = htons(webapi::kPort);
  if (listener < 0 || bind(listener, reinterpret_cast<sockaddr *>(&address), sizeof(address)) != 0 ||
      listen(listener, 16) != 0) {
    syslog(LOG_ERR, "cannot listen on port %d: %s", webapi::kPort, strerror(errno));
    return 1;
  }
  for (;;) {
    const int fd = accept4(listener, nullptr, nullptr, SOCK_CLOEXEC);
    if (fd < 0) continue;
    // One child per request, so that a slow peer holds up nobody else.
    if (fork() == 0) {
      close(listener);
      timeval timeout = {30, 0};
      setsockopt(fd, SOL_SOCKET, SO_RCVTIMEO, &timeout, sizeof(timeout));
      setsockopt(fd, SOL_SOCKET, SO_SNDTIMEO, &timeout, sizeof(timeout));
      // Read at each request: a node set up again has a new password.
      Serve(fd, webapi::BackendPassword());
      _exit(0);
    }
    close(fd);
  }
}
