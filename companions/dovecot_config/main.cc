// kolt_gen_dovecot_conf: writes Dovecot's configuration from the mail server's IMAP and POP3
// settings. The daemon script runs it before it starts or reloads Dovecot:
//
//   kolt_gen_dovecot_conf write
//
// The settings are read back from the store and checked again (see access_settings.h). The text
// goes to a fresh file beside etc/dovecot/dovecot.conf, Dovecot's own doveconf reads it, and only
// a file doveconf accepts is renamed onto the live one. Exit 0 when the new configuration is in
// place, 1 otherwise, with the reason on standard error and in the system log; a refused
// configuration changes nothing. 2 for bad usage.
#include <fcntl.h>
#include <signal.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdarg>
#include <cstdio>
#include <cstring>
#include <string>

#include "access_settings.h"
#include "foundation/log.h"
#include "kolt/exec.h"

namespace {

constexpr char kDoveconf[] = "/var/packages/Quillon-Server/target/bin/doveconf";
constexpr char kLockDir[] = "/var/lock/quillon_server";
constexpr char kLockFile[] = "/var/lock/quillon_server/dovecot_conf.lock";

void NoteAt(const char *file, int line, const char *format, ...)
    __attribute__((format(printf, 3, 4)));
#define NOTE(...) NoteAt(QSV_FILE, __LINE__, __VA_ARGS__)

// One line to the system log and the same words to standard error, where whoever ran the writer
// (the daemon script, a person) sees them.
void NoteAt(const char *file, int line, const char *format, ...) {
  char text[2048];
  va_list args;
  va_start(args, format);
  vsnprintf(text, sizeof(text), format, args);
  va_end(args);
  maillog(3, "%s:%d %s", file, line, text);
  fprintf(stderr, "kolt_gen_dovecot_conf: %s\n", text);
}

bool WriteAll(int fd, const std::string &text) {
  size_t done = 0;
  while (done < text.size()) {
    const ssize_t n = write(fd, text.data() + done, text.size() - done);
    if (n < 0 && errno == EINTR) continue;
    if (n <= 0) return false;
    done += static_cast<size_t>(n);
  }
  return true;
}

// The deny list must exist once the configuration names it: Dovecot fails every login when a
// passdb's file is missing. An existing one is left as it is.
bool MakeDenyFile() {
  const int fd = open(dovecotconf::kDenyFile, O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC, 0644);
  if (fd >= 0) {
    close(fd);
    return true;
  }
  return errno == EEXIST;
}

// The sync password, in a file of root's alone from its first byte on (mkostemp makes it 0600),
// put in place whole. Dovecot takes the file's content as it is: no newline.
bool WriteSyncPassword(const std::string &password) {
  std::string fresh = std::string(dovecotconf::kConfDir) + "/.doveadm_password.XXXXXX";
  const int fd = mkostemp(&fresh[0], O_CLOEXEC);
  if (fd < 0) return false;
  const bool written = fchown(fd, 0, 0) == 0 && fchmod(fd, 0600) == 0 && WriteAll(fd, password) &&
                       fsync(fd) == 0;
  close(fd);
  if (!written || rename(fresh.c_str(), dovecotconf::kDoveadmPasswordFile) != 0) {
    unlink(fresh.c_str());
    return false;
  }
  return true;
}

// The configuration is root's alone to change: Dovecot's master reads it as root, so the package
// user, who owns the settings' mirror files, must not own this file.
int WriteConf(const dovecotconf::AccessSettings &settings) {
  mkdir(dovecotconf::kConfDir, 0755);
  if (settings.authDeny && !MakeDenyFile()) {
    NOTE("cannot make the deny list %s: %s; nothing changed", dovecotconf::kDenyFile,
         strerror(errno));
    return -1;
  }
  if (!settings.syncAddress.empty() && !WriteSyncPassword(settings.syncPassword)) {
    NOTE("cannot write %s: %s; nothing changed", dovecotconf::kDoveadmPasswordFile,
         strerror(errno));
    return -1;
  }
  std::string fresh = std::string(dovecotconf::kConfDir) + "/.dovecot.conf.XXXXXX";
  const int fd = mkostemp(&fresh[0], O_CLOEXEC);
  if (fd < 0) {
    NOTE("cannot make a new file in %s: %s; nothing changed", dovecotconf::kConfDir,
         strerror(errno));
    return -1;
  }
  const bool written = WriteAll(fd, dovecotconf::ConfText(settings)) && fchmod(fd, 0644) == 0 &&
                       fsync(fd) == 0;
  close(fd);
  if (!written) {
    NOTE("cannot write %s: %s; nothing changed", fresh.c_str(), strerror(errno));
    unlink(fresh.c_str());
    return -1;
  }
  // doveconf prints the whole configuration on success, which nobody here reads; its complaint
  // goes to our standard error.
  const int rc = KLIBCExecl(kDoveconf, KLIBC_EXEC_STDIN_NULL | KLIBC_EXEC_STDOUT_NULL, "-c",
                            fresh.c_str(), "-n", nullptr);
  if (rc != 0) {
    NOTE("Dovecot's doveconf refused the new configuration (status %d); the old one stays", rc);
    unlink(fresh.c_str());
    return -1;
  }
  if (rename(fresh.c_str(), dovecotconf::kConfFile) != 0) {
    NOTE("cannot put %s in place: %s; the old one stays", dovecotconf::kConfFile, strerror(errno));
    unlink(fresh.c_str());
    return -1;
  }
  // A node that left its cluster keeps no password of it.
  if (settings.syncAddress.empty()) unlink(dovecotconf::kDoveadmPasswordFile);
  return 0;
}

// Dovecot's mail processes run as the user, and must pass through the folder of the account
// domain to reach the user's own directory; the suite makes that folder for root alone. It gets
// the right to pass for everybody, never the right to list. A folder that isn't root's own (or is
// a link) is left as it is.
void LetUsersThrough(const std::string &domainPath) {
  mkdir(domainPath.c_str(), 0711);
  const int fd = open(domainPath.c_str(), O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC);
  struct stat st;
  if (fd < 0 || fstat(fd, &st) != 0 || st.st_uid != 0 ||
      ((st.st_mode & 0001) == 0 && fchmod(fd, (st.st_mode & 07777) | 0001) != 0)) {
    NOTE("users can't be let through %s to their mail directories: %s", domainPath.c_str(),
         fd < 0 ? strerror(errno) : "it isn't root's own folder");
  }
  if (fd >= 0) close(fd);
}

int Write() {
  dovecotconf::AccessSettings settings;
  std::string why;
  if (!dovecotconf::ReadAccessSettings(settings, why)) {
    NOTE("%s; the configuration was not written", why.c_str());
    return -1;
  }
  if ((settings.imaps || settings.pop3s) && !settings.haveCertificate) {
    NOTE("IMAPS and POP3S stay off: there is no certificate in %s", dovecotconf::kCertFile);
  }
  if (settings.fts && settings.jieba) {
    NOTE("the jieba word splitter is on, but this node has no full-text search index for it");
  }
  if (!settings.noSyncListener.empty()) {
    NOTE("no mailbox sync listener: %s", settings.noSyncListener.c_str());
  }
  LetUsersThrough(settings.mailDomainPath);
  mkdir(kLockDir, 0755);
  const int lock = open(kLockFile, O_RDWR | O_CREAT | O_CLOEXEC, 0600);
  if (lock < 0 || flock(lock, LOCK_EX) != 0) {
    NOTE("cannot lock %s: %s", kLockFile, strerror(errno));
    if (lock >= 0) close(lock);
    return -1;
  }
  const int rc = WriteConf(settings);
  close(lock);
  return rc;
}

}  // namespace

int main(int argc, char **argv) {
  if (argc != 2 || strcmp(argv[1], "write") != 0) {
    fprintf(stderr,
            "usage: kolt_gen_dovecot_conf write\n"
            "  writes Dovecot's configuration from the mail server's IMAP and POP3 settings\n");
    return 2;
  }
  umask(022);
  signal(SIGPIPE, SIG_IGN);
  return Write() == 0 ? 0 : 1;
}
