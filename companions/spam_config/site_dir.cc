#include "site_dir.h"

#include <dirent.h>
#include <fcntl.h>
#include <ftw.h>
#include <grp.h>
#include <poll.h>
#include <pwd.h>
#include <signal.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <time.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstring>

#include "site_config.h"

namespace spamconf {

namespace {

constexpr char kPackageUser[] = "Quillon-Server";
// The lint of a large rule set takes seconds; one that takes this long is stuck.
constexpr int kLintSeconds = 300;
// What the lint says is shown, not kept: its last part holds the verdict.
constexpr size_t kLintOutputKept = 8192;

// Who the files belong to and whom the lint runs as. Only root can give files away; anyone else
// writes and lints as itself.
struct Owner {
  bool change = false;
  uid_t uid = 0;
  gid_t gid = 0;
  std::vector<gid_t> groups;
  std::string home = "/";
};

bool LookUpOwner(Owner &owner) {
  if (geteuid() != 0) return true;
  struct passwd *pw = getpwnam(kPackageUser);
  if (pw == nullptr) {
    CONF_NOTE("the package user %s does not exist", kPackageUser);
    return false;
  }
  owner.change = true;
  owner.uid = pw->pw_uid;
  owner.gid = pw->pw_gid;
  owner.home = pw->pw_dir;
  int count = 16;
  owner.groups.resize(count);
  while (getgrouplist(pw->pw_name, pw->pw_gid, owner.groups.data(), &count) < 0) {
    owner.groups.resize(count);
  }
  owner.groups.resize(count);
  return true;
}

int GiveAway(int fd, mode_t mode, const Owner &owner) {
  if (fchmod(fd, mode) != 0) return -1;
  return owner.change ? fchown(fd, owner.uid, owner.gid) : 0;
}

int WriteFile(int dir, const SiteFile &file, const Owner &owner) {
  const int fd = openat(dir, file.name.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_NOFOLLOW | O_CLOEXEC,
                        0644);
  if (fd < 0) return -1;
  const char *data = file.text.data();
  size_t left = file.text.size();
  while (left > 0) {
    const ssize_t wrote = write(fd, data, left);
    if (wrote < 0 && errno == EINTR) continue;
    if (wrote <= 0) {
      close(fd);
      return -1;
    }
    data += wrote;
    left -= static_cast<size_t>(wrote);
  }
  const int rc = (GiveAway(fd, 0644, owner) == 0 && fsync(fd) == 0) ? 0 : -1;
  return close(fd) == 0 ? rc : -1;
}

int RemoveEntry(const char *path, const struct stat *, int, struct FTW *) { return remove(path); }

// Removes a folder of ours with everything in it, links as links: nothing outside is touched.
void RemoveTree(const std::string &path) {
  nftw(path.c_str(), RemoveEntry, 16, FTW_DEPTH | FTW_PHYS);
}

// A writer killed between making its folder and the rename leaves the folder behind; under the
// lock no folder of that name belongs to a live writer.
void RemoveStaleFolders(const std::string &parent, const std::string &base) {
  DIR *dir = opendir(parent.c_str());
  if (dir == nullptr) return;
  const std::string prefix = base + ".";
  while (const struct dirent *entry = readdir(dir)) {
    const std::string name = entry->d_name;
    if (name.size() != prefix.size() + 6 || name.compare(0, prefix.size(), prefix) != 0) continue;
    struct stat st;
    if (fstatat(dirfd(dir), entry->d_name, &st, AT_SYMLINK_NOFOLLOW) == 0 && S_ISDIR(st.st_mode)) {
      RemoveTree(parent + "/" + name);
    }
  }
  closedir(dir);
}

// Runs `linter` on the folder `site` as `owner`, with nothing of ours but standard input (empty)
// and a pipe for what it says. Its exit status, or -1 when it could not run or took too long.
int RunLint(const std::string &linter, const std::string &site, const Owner &owner,
            std::string &output) {
  const std::string siteOption = "--siteconfigpath=" + site;
  // Local tests only: a lint must not wait on the network. The preferences file of the user is
  // none of the site's business, and nothing is created in its home.
  const char *argv[] = {linter.c_str(), "--lint", "-L", "-x", "-p", "/dev/null",
                        siteOption.c_str(), nullptr};
  const std::string home = "HOME=" + owner.home;
  const char *envp[] = {"PATH=/usr/sbin:/usr/bin:/sbin:/bin", "LC_ALL=C", home.c_str(), nullptr};
  int pipeFds[2];
  if (pipe2(pipeFds, O_CLOEXEC) != 0) return -1;
  const pid_t pid = fork();
  if (pid < 0) {
    close(pipeFds[0]);
    close(pipeFds[1]);
    return -1;
  }
  if (pid == 0) {
    // Only async-signal-safe calls from here on.
    const int null = open("/dev/null", O_RDONLY);
    if (null < 0 || dup2(null, 0) < 0 || dup2(pipeFds[1], 1) < 0 || dup2(pipeFds[1], 2) < 0) {
      _exit(126);
    }
    close_range(3, ~0U, 0);
    if (owner.change &&
        (setgroups(owner.groups.size(), owner.groups.data()) != 0 ||
         setresgid(owner.gid, owner.gid, owner.gid) != 0 ||
         setresuid(owner.uid, owner.uid, owner.uid) != 0)) {
      _exit(126);
    }
    execve(argv[0], const_cast<char *const *>(argv), const_cast<char *const *>(envp));
    _exit(127);
  }
  close(pipeFds[1]);
  const time_t deadline = time(nullptr) + kLintSeconds;
  bool late = false;
  char buffer[4096];
  for (;;) {
    struct pollfd wait = {pipeFds[0], POLLIN, 0};
    const int left = static_cast<int>(deadline - time(nullptr));
    if (left <= 0) {
      late = true;
      break;
    }
    const int ready = poll(&wait, 1, left * 1000);
    if (ready < 0 && errno == EINTR) continue;
    if (ready <= 0) continue;
    const ssize_t got = read(pipeFds[0], buffer, sizeof(buffer));
    if (got < 0 && errno == EINTR) continue;
    if (got <= 0) break;
    output.append(buffer, static_cast<size_t>(got));
    if (output.size() > 2 * kLintOutputKept) output.erase(0, output.size() - kLintOutputKept);
  }
  close(pipeFds[0]);
  if (late) kill(pid, SIGKILL);
  int status = 0;
  while (waitpid(pid, &status, 0) < 0 && errno == EINTR) {
  }
  if (late) {
    output += "(stopped after " + std::to_string(kLintSeconds) + " s)\n";
    return -1;
  }
  if (WIFEXITED(status)) return WEXITSTATUS(status);
  return -1;
}

std::string ParentOf(const std::string &path) { return path.substr(0, path.rfind('/')); }

}  // namespace

int MakeLearnedDataDir(const std::string &path) {
  Owner owner;
  if (!LookUpOwner(owner)) return -1;
  if (mkdir(path.c_str(), 0700) != 0) {
    if (errno == EEXIST) return 0;
    CONF_NOTE("cannot make %s: %s", path.c_str(), strerror(errno));
    return -1;
  }
  const int fd = open(path.c_str(), O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC);
  const int rc = fd >= 0 && GiveAway(fd, 0700, owner) == 0 ? 0 : -1;
  if (fd >= 0) close(fd);
  if (rc != 0) CONF_NOTE("cannot give %s to the package user: %s", path.c_str(), strerror(errno));
  return rc;
}

int ReplaceSiteDir(const std::string &target, const std::vector<SiteFile> &files,
                   const std::string &linter) {
  Owner owner;
  if (!LookUpOwner(owner)) return -1;
  const std::string parent = ParentOf(target);
  const std::string base = target.substr(parent.size() + 1);
  RemoveStaleFolders(parent, base);

  std::string fresh = target + ".XXXXXX";
  if (mkdtemp(&fresh[0]) == nullptr) {
    CONF_NOTE("cannot make a folder beside %s: %s", target.c_str(), strerror(errno));
    return -1;
  }
  const int dir = open(fresh.c_str(), O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC);
  bool written = dir >= 0 && GiveAway(dir, 0755, owner) == 0;
  for (const SiteFile &file : files) {
    if (!written) break;
    if (WriteFile(dir, file, owner) != 0) {
      CONF_NOTE("cannot write %s/%s: %s", fresh.c_str(), file.name.c_str(), strerror(errno));
      written = false;
    }
  }
  if (written && fsync(dir) != 0) written = false;
  if (dir >= 0) close(dir);
  if (!written) {
    CONF_NOTE("cannot write the new configuration beside %s", target.c_str());
    RemoveTree(fresh);
    return -1;
  }

  std::string said;
  const int lint = RunLint(linter, fresh, owner, said);
  if (lint != 0) {
    fprintf(stderr, "%s", said.c_str());
    std::string firstLine = said.substr(0, said.find('\n'));
    CONF_NOTE("the spam filter refuses the new configuration (lint %s: %s); %s stays as it was",
         lint < 0 ? "did not finish" : ("exit " + std::to_string(lint)).c_str(),
         Printable(firstLine).c_str(), target.c_str());
    RemoveTree(fresh);
    return -1;
  }

  // Swapping keeps a complete configuration at `target` at every moment; the old one then sits
  // at the fresh name and goes.
  if (renameat2(AT_FDCWD, fresh.c_str(), AT_FDCWD, target.c_str(), RENAME_EXCHANGE) == 0) {
    RemoveTree(fresh);
  } else if (errno != ENOENT || rename(fresh.c_str(), target.c_str()) != 0) {
    CONF_NOTE("cannot put %s in place of %s: %s", fresh.c_str(), target.c_str(), strerror(errno));
    RemoveTree(fresh);
    return -1;
  }
  const int parentFd = open(parent.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
  if (parentFd >= 0) {
    fsync(parentFd);
    close(parentFd);
  }
  return 0;
}

}  // namespace spamconf
