#include "foundation/files.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <cstring>

#include "foundation/log.h"

namespace {

constexpr size_t kTemplateSuffix = 6;  // "XXXXXX"
constexpr size_t kCopyBlock = 1024;

}  // namespace

int qsvMkstemp(char *tmpl) {
  if (tmpl == nullptr) return -1;
  const size_t length = strlen(tmpl);
  if (length <= kTemplateSuffix) return -1;
  const int fd = mkostemp(tmpl, O_CLOEXEC);
  if (fd >= 0) {
    close(fd);
    return 0;
  }
  char pid[16];
  snprintf(pid, sizeof(pid), "%06d", static_cast<int>(getpid() % 1000000));
  memcpy(tmpl + length - kTemplateSuffix, pid, kTemplateSuffix);
  return 0;
}

bool qsvDirectoryExist(const std::string &path) {
  struct stat st;
  return stat(path.c_str(), &st) == 0 && S_ISDIR(st.st_mode);
}

long qsvGetFileMtime(const std::string &path) {
  struct stat st;
  if (stat(path.c_str(), &st) != 0) return 0;
  return static_cast<long>(st.st_mtime);
}

int PopenToFile(FILE *stream, const char *path, const char *mode) {
  if (stream == nullptr || path == nullptr || mode == nullptr) return -1;
  const std::string closeOnExec = std::string(mode) + "e";
  FILE *out = fopen(path, closeOnExec.c_str());
  if (out == nullptr) {
    maillog(3, "%s:%d Open %s fail", QSV_FILE, __LINE__, path);
    return -1;
  }
  char block[kCopyBlock];
  int result = 0;
  size_t got;
  while ((got = fread(block, 1, sizeof(block), stream)) > 0) {
    if (fwrite(block, 1, got, out) != got) {
      result = -1;
      break;
    }
  }
  if (fclose(out) != 0) result = -1;
  if (result != 0) maillog(3, "%s:%d write %s fail, %s", QSV_FILE, __LINE__, path, strerror(errno));
  return result;
}

int renameTmpFileAndChmod(const char *tmp, const char *path) {
  if (tmp == nullptr || path == nullptr) {
    maillog(3, "%s:%d Bad Parameter", QSV_FILE, __LINE__);
    return -1;
  }
  if (chmod(tmp, 0644) != 0) {
    maillog(3, "%s:%d chmod %s fail, %s", QSV_FILE, __LINE__, tmp, strerror(errno));
  }
  if (rename(tmp, path) != 0) {
    maillog(3, "%s:%d rename %s fail, %s", QSV_FILE, __LINE__, tmp, strerror(errno));
    return -1;
  }
  return 0;
}
