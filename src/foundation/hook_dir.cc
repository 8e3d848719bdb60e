#include "foundation/hook_dir.h"

#include <sys/stat.h>

#include "foundation/log.h"
#include "kolt/exec.h"
#include "kolt/file.h"
#include "kolt/szlist.h"

namespace {

// Hooks run with the caller's rights, often root's: a folder or file that someone else could
// change would let that someone run what they like as root.
bool OnlyRootMayChange(const struct stat &st) {
  return st.st_uid == 0 && (st.st_mode & (S_IWGRP | S_IWOTH)) == 0;
}

}  // namespace

int ExecHookInDir(const std::string &directory) {
  struct stat st;
  KLIBSZLIST *names = nullptr;
  if (lstat(directory.c_str(), &st) != 0 || !S_ISDIR(st.st_mode) ||
      KLIBCFileEnumDir(directory.c_str(), 0, &names, 0) < 0) {
    maillog(3, "%s:%d failed to enumerate directory [%s]", QSV_FILE, __LINE__, directory.c_str());
    KLIBCSzListFree(names);
    return -1;
  }
  if (!OnlyRootMayChange(st)) {
    maillog(3, "%s:%d hook directory [%s] may be changed by others than root, not run", QSV_FILE,
            __LINE__, directory.c_str());
    KLIBCSzListFree(names);
    return -1;
  }
  const std::string prefix =
      directory.back() == '/' ? directory : directory + "/";
  int result = 0;
  for (int i = 0; i < KLIBCSzListCount(names); ++i) {
    const std::string path = prefix + KLIBCSzListGet(names, i);
    if (lstat(path.c_str(), &st) != 0) {
      maillog(3, "%s:%d failed to execute hook [%s]", QSV_FILE, __LINE__, path.c_str());
      result = -1;
      continue;
    }
    if (!S_ISREG(st.st_mode)) continue;
    if (!OnlyRootMayChange(st)) {
      maillog(3, "%s:%d hook [%s] may be changed by others than root, not run", QSV_FILE, __LINE__,
              path.c_str());
      result = -1;
      continue;
    }
    if (KLIBCExec(path.c_str(), nullptr, nullptr, nullptr, 0) != 0) {
      maillog(3, "%s:%d failed to execute hook [%s]", QSV_FILE, __LINE__, path.c_str());
      result = -1;
    }
  }
  KLIBCSzListFree(names);
  return result;
}
