#include "migration/migration_files.h"

#include <errno.h>
#include <stdio.h>
#include <string.h>
#include <sys/stat.h>
#include <unistd.h>

#include <vector>

#include "foundation/log.h"
#include "kolt/fs.h"
#include "kolt/user.h"

namespace qsvmigration {

int PackageIds(uid_t &uid, gid_t &gid) {
  return KOLTUserGetUGID(kPackageUser, &uid, &gid) == 0 ? 0 : -1;
}

int ReadJsonFile(const std::string &path, Json::Value &value) {
  FILE *in = fopen(path.c_str(), "re");
  if (in == nullptr) return -1;
  std::string text;
  char piece[8192];
  size_t n;
  while ((n = fread(piece, 1, sizeof(piece), in)) > 0) text.append(piece, n);
  fclose(in);
  Json::Reader reader;
  return reader.parse(text, value, false) ? 0 : -2;
}

int PutPrivateFile(const std::string &text, const std::string &tmpl, const std::string &path,
                   const char *what) {
  std::vector<char> tmp(tmpl.begin(), tmpl.end());
  tmp.push_back('\0');
  const int fd = mkstemp(tmp.data());
  FILE *out = fd < 0 ? nullptr : fdopen(fd, "w");
  if (out == nullptr) {
    maillog(3, "%s:%d failed to open the temp %s file [%s]", QSV_FILE, __LINE__, what, tmp.data());
    if (fd >= 0) {
      close(fd);
      unlink(tmp.data());
    }
    return -1;
  }
  const bool written = fwrite(text.data(), 1, text.size(), out) == text.size();
  const bool closed = fclose(out) == 0;
  int rc = -1;
  uid_t uid = 0;
  gid_t gid = 0;
  if (!written || !closed) {
    maillog(3, "%s:%d failed to open the temp %s file [%s]", QSV_FILE, __LINE__, what, tmp.data());
  } else if (KOLTCopyFileI(tmp.data(), path.c_str(), 1, 1) != 0) {
    maillog(3, "%s:%d failed to copyfile, [%s] => [%s], error[%s]", QSV_FILE, __LINE__,
            tmp.data(), path.c_str(), strerror(errno));
  } else if (PackageIds(uid, gid) != 0 || chown(path.c_str(), uid, gid) != 0) {
    maillog(3, "%s:%d failed to chown, path[%s], error[%s]", QSV_FILE, __LINE__, path.c_str(),
            strerror(errno));
  } else if (KOLTFSAclChmod(path.c_str(), -1, 0600) != 0) {
    maillog(3, "%s:%d failed to chmod, path[%s], error[%s]", QSV_FILE, __LINE__, path.c_str(),
            strerror(errno));
  } else {
    rc = 0;
  }
  unlink(tmp.data());
  return rc;
}

int CheckTmpDir() {
  const char dir[] = "/tmp/quillon_server";
  if (mkdir(dir, 0755) != 0 && errno != EEXIST) {
    maillog(3, "%s:%d failed to mkdir, path [%s], error[%s]", QSV_FILE, __LINE__, dir,
            strerror(errno));
    return -1;
  }
  struct stat st;
  if (lstat(dir, &st) != 0 || !S_ISDIR(st.st_mode) ||
      (st.st_uid != 0 && st.st_uid != geteuid()) || (st.st_mode & 022) != 0) {
    maillog(3, "%s:%d [%s] is not a folder of root's alone", QSV_FILE, __LINE__, dir);
    return -1;
  }
  return 0;
}

}  // namespace qsvmigration
