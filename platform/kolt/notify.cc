#include "kolt/notify.h"

#include <fcntl.h>
#include <json/json.h>
#include <unistd.h>

#include <cerrno>
#include <memory>
#include <string>

#include "kolt/err.h"
#include "kolt/fs.h"
#include "kolt/szlist.h"

const char kKoltNotificationLog[] = "/usr/kolt/var/notifications.log";

namespace {

const char kDir[] = "/usr/kolt/var";

}  // namespace

int KOLTSysNotifySendNotificationCustomized(const char *tag, const char *textsDir,
                                            const char *filterFile, const KLIBSZHASH *values,
                                            int flags) {
  if (tag == nullptr || *tag == '\0') {
    KLIBC_ERR_SET(KLIBC_ERR_BAD_PARAM);
    return -1;
  }
  std::string line;
  try {
    Json::Value record(Json::objectValue);
    record["tag"] = tag;
    record["texts"] = textsDir != nullptr ? textsDir : "";
    record["filter"] = filterFile != nullptr ? filterFile : "";
    Json::Value &placeholders = record["values"] = Json::Value(Json::objectValue);
    KLIBSZLIST *list = nullptr;
    const int count = values != nullptr ? KLIBCSzHashKeys(values, &list) : 0;
    std::unique_ptr<KLIBSZLIST, void (*)(KLIBSZLIST *)> keys(list, KLIBCSzListFree);
    if (count < 0) return -1;
    for (int i = 0; i < KLIBCSzListCount(keys.get()); ++i) {
      const char *key = KLIBCSzListGet(keys.get(), i);
      placeholders[key] = KLIBCSzHashGetValue(values, key);
    }
    Json::StreamWriterBuilder builder;
    builder["indentation"] = "";
    line = Json::writeString(builder, record) + "\n";
  } catch (const std::exception &) {
    KLIBC_ERR_SET(KLIBC_ERR_OUT_OF_MEMORY);
    return -1;
  }
  if (KOLTFSMkdirP(kDir, 0, 0, 0, 0, 0755) != 0) {
    KLIBC_ERR_SET(KLIBC_ERR_SYS(errno));
    return -1;
  }
  const int fd = open(kKoltNotificationLog, O_WRONLY | O_APPEND | O_CREAT | O_CLOEXEC, 0644);
  if (fd < 0) {
    KLIBC_ERR_SET(KLIBC_ERR_SYS(errno));
    return -1;
  }
  const bool written = write(fd, line.data(), line.size()) == static_cast<ssize_t>(line.size());
  const int saved = errno;
  if (close(fd) != 0 || !written) {
    KLIBC_ERR_SET(KLIBC_ERR_SYS(written ? errno : saved));
    return -1;
  }
  return 0;
}
