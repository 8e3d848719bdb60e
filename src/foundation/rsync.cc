#include "foundation/rsync.h"

#include <cstdio>
#include <cstdlib>

#include "foundation/log.h"
#include "foundation/privilege.h"
#include "kolt/exec.h"
#include "kolt/szlist.h"

namespace {

// Debian's /usr/bin/ssh knows no -d. The package's ssh takes the key folder with it and then runs
// Debian's with the key and the package's known_hosts, so the copies run that one; it stands under
// the package root at the place the system's ssh has.
constexpr char kRsyncSshProgram[] = "/var/packages/Quillon-Server/target/usr/bin/ssh";
// Where the key folders of the peers must lie.
constexpr char kRsyncKeyRoot[] = "/var/packages/Quillon-Server/etc/ssh";

constexpr char kRsync[] = "/bin/rsync";
constexpr char kClusterDaemon[] = "/var/packages/Quillon-Server/target/scripts/ClusterDaemon.sh";
constexpr size_t kWordSize = 512;

bool HasControl(const std::string &word) {
  for (const char c : word) {
    if (static_cast<unsigned char>(c) < 0x20 || c == 0x7f) return true;
  }
  return false;
}

// The refused word itself stays out of the log: it may hold anything.
bool Refuse(const char *what, const char *why, int line) {
  maillog(3, "%s:%d refuse %s: %s", QSV_FILE, line, what, why);
  return false;
}

bool UserWord(const std::string &user) {
  if (user.empty() || user[0] == '-') return Refuse("user", "empty or an option", __LINE__);
  if (HasControl(user) || user.find_first_of(" @:/") != std::string::npos) {
    return Refuse("user", "holds a blank, a control character, '@', ':' or '/'", __LINE__);
  }
  return true;
}

// A name or IPv4 address, or an IPv6 address in brackets: nothing else stays one word for rsync.
bool HostWord(const std::string &host) {
  if (host.empty() || host[0] == '-') return Refuse("host", "empty or an option", __LINE__);
  const bool bracketed = host.size() > 2 && host.front() == '[' && host.back() == ']';
  const char *allowed = bracketed ? "0123456789abcdefABCDEF:.%" :
      "abcdefghijklmnopqrstuvwxyzABCDEFGHIJKLMNOPQRSTUVWXYZ0123456789.-_";
  const std::string inside = bracketed ? host.substr(1, host.size() - 2) : host;
  if (inside.find_first_not_of(allowed) != std::string::npos) {
    return Refuse("host", "not a host name or address", __LINE__);
  }
  return true;
}

// A leading ":" would turn "host:path" into "host::path", a module of an rsync daemon.
bool RemotePathWord(const std::string &path) {
  if (path.empty() || path[0] == '-' || path[0] == ':') {
    return Refuse("remote path", "empty, an option or a daemon module", __LINE__);
  }
  if (HasControl(path)) return Refuse("remote path", "holds a control character", __LINE__);
  return true;
}

// Absolute, so that it is neither an option nor read as "host:path".
bool LocalPathWord(const std::string &path) {
  if (path.empty() || path[0] != '/') return Refuse("local path", "not absolute", __LINE__);
  if (HasControl(path)) return Refuse("local path", "holds a control character", __LINE__);
  return true;
}

// rsync splits the -e text into words itself, honouring quotes; a folder with blanks, quotes or
// backslashes could add words of its own. The package's ssh checks the place again, with links
// resolved.
bool KeyFolderWord(const std::string &folder) {
  const std::string root = std::string(kRsyncKeyRoot) + "/";
  if (folder.compare(0, root.size(), root) != 0 || folder.size() == root.size()) {
    return Refuse("key folder", "not below the package's key folder", __LINE__);
  }
  if (HasControl(folder) || folder.find_first_of(" \"'\\") != std::string::npos) {
    return Refuse("key folder", "holds a blank, a quote, a backslash or a control character",
                  __LINE__);
  }
  return true;
}

bool Format(std::string &out, const char *what, const char *format, const char *a,
            const char *b = nullptr, const char *c = nullptr) {
  char buffer[kWordSize];
  const int n = snprintf(buffer, sizeof(buffer), format, a, b, c);
  if (n < 0 || static_cast<size_t>(n) >= sizeof(buffer)) {
    return Refuse(what, "longer than 511 bytes", __LINE__);
  }
  out = buffer;
  return true;
}

bool SshCommand(const std::string &keyFolder, bool quoted, std::string &out) {
  return KeyFolderWord(keyFolder) &&
         Format(out, "ssh command", quoted ? "%s -d \"%s\"" : "%s -d %s", kRsyncSshProgram,
                keyFolder.c_str());
}

bool RemoteAddress(const std::string &user, const std::string &host, const std::string &path,
                std::string &out) {
  return UserWord(user) && HostWord(host) && RemotePathWord(path) &&
         Format(out, "remote address", "%s@%s:%s", user.c_str(), host.c_str(), path.c_str());
}

// The arguments after the program's name, in the platform's list. Null when memory ran out.
KLIBSZLIST *Arguments(const std::vector<std::string> &words) {
  KLIBSZLIST *list = KLIBCSzListAlloc(static_cast<int>(words.size()));
  for (const std::string &word : words) {
    if (list == nullptr || KLIBCSzListPush(&list, word.c_str()) < 0) {
      maillog(3, "%s:%d out of memory", QSV_FILE, __LINE__);
      KLIBCSzListFree(list);
      return nullptr;
    }
  }
  return list;
}

int Run(const std::vector<std::string> &words) {
  KLIBSZLIST *list = Arguments(words);
  if (list == nullptr) return -1;
  int rc;
  ENTERCriticalSection;
  rc = KLIBCExecv(kRsync, list, KLIBC_EXEC_STDIN_NULL);
  LEAVECriticalSection;
  KLIBCSzListFree(list);
  if (rc != 0) maillog(3, "%s:%d %s %s gave %d", QSV_FILE, __LINE__, kRsync, words[0].c_str(), rc);
  return rc;
}

int Copy(bool push, const std::string &user, const std::string &host,
         const std::string &remotePath, const std::string &localPath,
         const std::string &keyFolder) {
  std::string ssh, remote;
  if (!SshCommand(keyFolder, true, ssh) || !RemoteAddress(user, host, remotePath, remote) ||
      !LocalPathWord(localPath)) {
    return -1;
  }
  if (push) return Run({"-a", "-e", ssh, "-s", localPath, remote});
  return Run({"-a", "-e", ssh, "-s", remote, localPath});
}

}  // namespace

int RsyncGetFile(const std::string &user, const std::string &host, const std::string &remotePath,
                 const std::string &localPath, const std::string &keyFolder) {
  return Copy(false, user, host, remotePath, localPath, keyFolder);
}

int RsyncPushFile(const std::string &user, const std::string &host, const std::string &remotePath,
                  const std::string &localPath, const std::string &keyFolder) {
  return Copy(true, user, host, remotePath, localPath, keyFolder);
}

int RsyncStat(const std::string &user, const std::string &host, const std::string &remotePath,
              const std::string &keyFolder) {
  std::string ssh, remote;
  if (!SshCommand(keyFolder, true, ssh) || !RemoteAddress(user, host, remotePath, remote)) return -1;
  return Run({"--list-only", "-e", ssh, "-s", remote});
}

int RsyncServiceCheck(const std::string &host) {
  std::string remote;
  if (!HostWord(host) || !Format(remote, "daemon address", "%s::", host.c_str())) return -1;
  return Run({"-s", remote});
}

int RsyncListFolder(const std::string &user, const std::string &host,
                    const std::string &remoteFolder, const std::string &keyFolder, int recursive,
                    const std::string &exclude, std::vector<RsyncListEntry> &entries) {
  // A folder named with its trailing "/" lists what it holds, not only itself.
  const std::string folder =
      !remoteFolder.empty() && remoteFolder.back() != '/' ? remoteFolder + "/" : remoteFolder;
  std::string ssh, remote;
  if (!SshCommand(keyFolder, false, ssh) || !RemoteAddress(user, host, folder, remote)) return -1;
  if (HasControl(exclude)) {
    Refuse("exclude pattern", "holds a control character", __LINE__);
    return -1;
  }
  std::vector<std::string> words = {"--list-only"};
  if (recursive != 0) words.push_back("-r");
  if (!exclude.empty()) words.push_back("--exclude=" + exclude);
  words.insert(words.end(), {"-e", ssh, "-s", remote});
  KLIBSZLIST *list = Arguments(words);
  if (list == nullptr) return -1;
  FILE *listing;
  ENTERCriticalSection;
  listing = KLIBCPopenv(kRsync, "r", list);
  LEAVECriticalSection;
  KLIBCSzListFree(list);
  if (listing == nullptr) {
    maillog(3, "%s:%d cannot run %s", QSV_FILE, __LINE__, kRsync);
    return -1;
  }
  entries.clear();
  bool readable = true;
  char *line = nullptr;
  size_t capacity = 0;
  ssize_t length;
  // Read to the end even past a bad line, so that rsync never blocks on a full pipe.
  while ((length = getline(&line, &capacity, listing)) > 0) {
    std::string text(line, static_cast<size_t>(length));
    if (text.back() == '\n') text.pop_back();
    RsyncListEntry entry;
    if (!ParseRsyncListLine(text, entry)) {
      readable = false;
      continue;
    }
    if (entry.name != ".") entries.push_back(entry);
  }
  free(line);
  const int rc = KLIBCPclose(listing);
  if (!readable) maillog(3, "%s:%d unreadable lines in the listing of a peer", QSV_FILE, __LINE__);
  if (rc != 0) maillog(3, "%s:%d %s --list-only gave %d", QSV_FILE, __LINE__, kRsync, rc);
  if (!readable || rc != 0) {
    entries.clear();
    return -1;
  }
  return static_cast<int>(entries.size());
}

int prepareQuillonShareEnv(const std::string &path) {
  if (!LocalPathWord(path)) return -1;
  int rc;
  ENTERCriticalSection;
  rc = KLIBCExec(kClusterDaemon, "create_quillon_share_env", path.c_str(), nullptr, 0);
  LEAVECriticalSection;
  if (rc != 0) maillog(3, "%s:%d %s create_quillon_share_env gave %d", QSV_FILE, __LINE__,
                       kClusterDaemon, rc);
  return rc;
}

int RsyncListFolder(const std::string &user, const std::string &host,
                    const std::string &remoteFolder, const std::string &keyFolder, int recursive,
                    const std::string &exclude) {
  std::vector<RsyncListEntry> entries;
  return RsyncListFolder(user, host, remoteFolder, keyFolder, recursive, exclude, entries);
}
