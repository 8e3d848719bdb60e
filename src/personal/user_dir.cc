#include "personal/user_dir.h"

#include <fcntl.h>
#include <sys/random.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>

#include "foundation/log.h"

namespace personal {
namespace {

// Forward and vacation files are a few lines; a larger one is no file of ours.
constexpr size_t kMaxFile = 1 << 20;
// The delivery agent and the vacation program read them as the user; everyone may read them, as
// ever with .forward.
constexpr mode_t kFileMode = 0644;
constexpr int kTemporaryTries = 10;

// A fresh name beside `name` for a file being written: name, ".", six random letters.
std::string TemporaryName(const std::string &name) {
  static const char kLetters[] = "abcdefghijklmnopqrstuvwxyzABCDEFGHIJKLMNOPQRSTUVWXYZ0123456789";
  unsigned char random[6] = {0};
  if (getrandom(random, sizeof(random), 0) != static_cast<ssize_t>(sizeof(random))) {
    // Without randomness the process id still keeps writers of different processes apart; O_EXCL
    // keeps everything else out.
    const unsigned pid = static_cast<unsigned>(getpid());
    for (size_t i = 0; i < sizeof(random); ++i) random[i] = static_cast<unsigned char>(pid >> (i * 5));
  }
  std::string tmp = name + ".";
  for (unsigned char c : random) tmp += kLetters[c % (sizeof(kLetters) - 1)];
  return tmp;
}

bool WriteAll(int fd, const std::string &content) {
  size_t done = 0;
  while (done < content.size()) {
    const ssize_t n = write(fd, content.data() + done, content.size() - done);
    if (n < 0 && errno == EINTR) continue;
    if (n <= 0) return false;
    done += static_cast<size_t>(n);
  }
  return true;
}

}  // namespace

UserDir::~UserDir() {
  if (fd_ >= 0) close(fd_);
}

bool UserDir::IsFileName(const std::string &name) {
  return !name.empty() && name != "." && name != ".." && name.find('/') == std::string::npos &&
         name.find('\0') == std::string::npos;
}

int UserDir::Open(const std::string &path) {
  if (fd_ >= 0) close(fd_);
  fd_ = open(path.c_str(), O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC);
  if (fd_ < 0) {
    const int error = errno;
    maillog(3, "%s:%d Cannot open the mail directory %s: %s", QSV_FILE, __LINE__, path.c_str(),
            strerror(error));
    errno = error;
    return -1;
  }
  struct stat st;
  if (fstat(fd_, &st) != 0 || (st.st_uid != uid_ && st.st_uid != 0)) {
    // Another user's directory under this user's name: nothing of it is ours to touch.
    maillog(3, "%s:%d Refused the mail directory %s: it belongs to uid %d, not to %d", QSV_FILE,
            __LINE__, path.c_str(), static_cast<int>(st.st_uid), static_cast<int>(uid_));
    close(fd_);
    fd_ = -1;
    errno = EPERM;
    return -1;
  }
  return 0;
}

int UserDir::OpenPlainFile(const std::string &name) {
  if (fd_ < 0 || !IsFileName(name)) {
    errno = EINVAL;
    return -1;
  }
  // O_NONBLOCK: a FIFO put there must not hang the caller in open.
  const int fd = openat(fd_, name.c_str(), O_RDONLY | O_NOFOLLOW | O_NONBLOCK | O_CLOEXEC);
  if (fd < 0) {
    const int error = errno;
    if (error == ELOOP) {
      maillog(3, "%s:%d Refused %s: it is a symbolic link", QSV_FILE, __LINE__, name.c_str());
    }
    errno = error;
    return -1;
  }
  struct stat st;
  int error = 0;
  if (fstat(fd, &st) != 0) {
    error = errno;
  } else if (!S_ISREG(st.st_mode)) {
    maillog(3, "%s:%d Refused %s: it is not a plain file", QSV_FILE, __LINE__, name.c_str());
    error = EINVAL;
  } else if (st.st_nlink != 1) {
    // A second name of a file elsewhere, made by the user to have it read or handed over.
    maillog(3, "%s:%d Refused %s: it has %lu links", QSV_FILE, __LINE__, name.c_str(),
            static_cast<unsigned long>(st.st_nlink));
    error = EMLINK;
  }
  if (error != 0) {
    close(fd);
    errno = error;
    return -1;
  }
  return fd;
}

int UserDir::Read(const std::string &name, std::string &content) {
  const int fd = OpenPlainFile(name);
  if (fd < 0) return errno == ENOENT ? 0 : -1;
  std::string text;
  char piece[4096];
  ssize_t n;
  while ((n = read(fd, piece, sizeof(piece))) != 0) {
    if (n < 0 && errno == EINTR) continue;
    if (n < 0 || text.size() + static_cast<size_t>(n) > kMaxFile) {
      const int error = n < 0 ? errno : EFBIG;
      if (error == EFBIG) {
        maillog(3, "%s:%d Refused %s: it is larger than %zu bytes", QSV_FILE, __LINE__,
                name.c_str(), kMaxFile);
      }
      close(fd);
      errno = error;
      return -1;
    }
    text.append(piece, static_cast<size_t>(n));
  }
  close(fd);
  content.swap(text);
  return 1;
}

bool UserDir::HasPlainFile(const std::string &name) {
  struct stat st;
  return fd_ >= 0 && IsFileName(name) && fstatat(fd_, name.c_str(), &st, AT_SYMLINK_NOFOLLOW) == 0 &&
         S_ISREG(st.st_mode);
}

int UserDir::Write(const std::string &name, const std::string &content) {
  if (fd_ < 0 || !IsFileName(name)) {
    errno = EINVAL;
    return -1;
  }
  std::string tmp;
  int fd = -1;
  for (int attempt = 0; fd < 0 && attempt < kTemporaryTries; ++attempt) {
    tmp = TemporaryName(name);
    fd = openat(fd_, tmp.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_NOFOLLOW | O_CLOEXEC, 0600);
    if (fd < 0 && errno != EEXIST) return -1;
  }
  if (fd < 0) return -1;
  // Owner and mode go on the descriptor: no name is looked up again before the rename.
  const bool written = WriteAll(fd, content) && fsync(fd) == 0 && fchown(fd, uid_, gid_) == 0 &&
                       fchmod(fd, kFileMode) == 0;
  int error = errno;
  if (close(fd) != 0 && written) error = errno;
  if (written && renameat(fd_, tmp.c_str(), fd_, name.c_str()) == 0) return 0;
  if (written) error = errno;
  unlinkat(fd_, tmp.c_str(), 0);
  errno = error;
  return -1;
}

int UserDir::Remove(const std::string &name) {
  if (fd_ < 0 || !IsFileName(name)) {
    errno = EINVAL;
    return -1;
  }
  if (unlinkat(fd_, name.c_str(), 0) == 0 || errno == ENOENT) return 0;
  return -1;
}

}  // namespace personal
