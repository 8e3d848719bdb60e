// The files that forward and vacation keep in one user's mail directory, reached by name relative
// to the directory, which is opened once and never through a link. The user owns the directory
// and may put anything in it (a link to /etc/shadow named ".forward", a FIFO, a hard link); the
// work here runs as root, and must still only ever read, write or hand over a plain file of that
// directory.
//
// A UserDir belongs to one thread. It owns the directory's descriptor. The caller brackets the
// calls with InUserRegion/OutUserRegion: nothing here changes ids.
#ifndef MAILSERVER_PERSONAL_USER_DIR_H_
#define MAILSERVER_PERSONAL_USER_DIR_H_

#include <sys/types.h>

#include <string>

namespace personal {

class UserDir {
 public:
  // The files get `uid`:`gid` as their owner.
  UserDir(uid_t uid, gid_t gid) : uid_(uid), gid_(gid) {}
  ~UserDir();
  UserDir(const UserDir &) = delete;
  UserDir &operator=(const UserDir &) = delete;

  // Opens `path`, which must itself be a directory (a link to one is refused) owned by the user
  // or by root. 0, or -1 with errno set and a log line.
  int Open(const std::string &path);

  // Opens `name` for reading if it is a plain file with one link; a link, a FIFO, a directory or
  // a second name of some other file is refused with a log line and errno ELOOP, EINVAL or
  // EMLINK. The descriptor (close-on-exec), or -1 with errno (ENOENT when there is no such file).
  // REQUIRES: Open succeeded.
  int OpenPlainFile(const std::string &name);

  // The whole content of the plain file `name`, at most 1 MiB. 1 read, 0 no such file, -1
  // refused or failed (errno set).
  int Read(const std::string &name, std::string &content);

  // Whether `name` is a plain file of the directory.
  bool HasPlainFile(const std::string &name);

  // Replaces `name` whole with `content`, owned by the user, mode 0644: a new file beside it is
  // written, flushed to disk and renamed over whatever stood there, so a link planted under that
  // name is replaced, not followed, and a reader sees the old file or the new one. 0, or -1 with
  // errno set and `name` as it was.
  int Write(const std::string &name, const std::string &content);

  // Removes `name` (only the name: a link goes, not what it points to). A missing name is fine.
  // 0, or -1 with errno set.
  int Remove(const std::string &name);

  // Whether `name` can stand for a file directly in the directory: not empty, no "/", not "." or
  // "..".
  static bool IsFileName(const std::string &name);

 private:
  uid_t uid_;
  gid_t gid_;
  int fd_ = -1;
};

}  // namespace personal

#endif  // MAILSERVER_PERSONAL_USER_DIR_H_
