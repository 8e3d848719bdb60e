#include "core/mail_conf.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <memory>
#include <unordered_map>

#include "core/key_tree_store.h"
#include "kolt/file.h"

using KOLT::QUILLON_SERVER::KeyTreeStore;

const char kMailConfDir[] = "/var/packages/Quillon-Server/etc/mailconf.d/";

namespace {

const char kLockDir[] = "/var/lock/quillon_server/";

bool IsPlain(unsigned char c) {
  return (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || (c >= '0' && c <= '9') || c == '_' ||
         c == '-' || c == '.';
}

}  // namespace

std::string toLeagalFileName(const std::string &key) {
  const KeyTreeStore *store = KeyTreeStore::instance();
  std::string name = store->sharedFileGet(key);
  if (name.empty()) name = store->keyShort(key);
  if (name.empty()) return "%";

  // Every byte that isn't plain, '/' and '%' among them, becomes %XX: the mapping can be undone,
  // so two keys never share a file unless their tree says so. A leading '.' is escaped too, so that "." and ".." can't come out.
  static const char kHex[] = "0123456789ABCDEF";
  std::string file;
  for (size_t i = 0; i < name.size(); ++i) {
    const unsigned char c = static_cast<unsigned char>(name[i]);
    if (IsPlain(c) && !(i == 0 && c == '.')) {
      file += static_cast<char>(c);
    } else {
      file += '%';
      file += kHex[c >> 4];
      file += kHex[c & 15];
    }
  }
  return file;
}

namespace {

// The whole file, or false when it can't be opened or read. ENOENT is left in errno for callers
// that treat a missing file as an empty one.
bool ReadWhole(const std::string &path, std::string &text) {
  const int fd = open(path.c_str(), O_RDONLY | O_CLOEXEC);
  if (fd < 0) return false;
  char buffer[4096];
  ssize_t n;
  while ((n = read(fd, buffer, sizeof(buffer))) > 0) {
    text.append(buffer, static_cast<size_t>(n));
    // A regular file reads short only at its end: no second call to be told so.
    if (static_cast<size_t>(n) < sizeof(buffer)) {
      n = 0;
      break;
    }
  }
  const int saved = errno;
  close(fd);
  errno = saved;
  return n == 0;
}

bool ParseJson(const std::string &text, Json::Value &json) {
  // Building a reader costs more than parsing a key file: one per thread, made once.
  thread_local std::unique_ptr<Json::CharReader> reader(Json::CharReaderBuilder().newCharReader());
  std::string errors;
  return reader->parse(text.data(), text.data() + text.size(), &json, &errors);
}

}  // namespace

int loadMailJsonFromFile(const std::string &fileName, Json::Value &json, const std::string &dir) {
  std::string text;
  Json::Value parsed;
  if (!ReadWhole(dir + fileName, text) || !ParseJson(text, parsed)) return -1;
  json = std::move(parsed);
  return 0;
}

namespace {

struct KeyNames {
  std::string path;      // of the key's mirror file
  std::string complete;  // the member's name in it
};

// What the key tree says of a key costs more than reading its file, and never changes: it is kept
// per thread, for a bounded number of keys, since some keys carry a node id or a domain number.
const KeyNames &NamesOf(const std::string &key) {
  thread_local std::unordered_map<std::string, KeyNames> known;
  const auto found = known.find(key);
  if (found != known.end()) return found->second;
  if (known.size() >= 4096) known.clear();
  KeyNames names{kMailConfDir + toLeagalFileName(key),
                 KeyTreeStore::instance()->keyComplete(key)};
  return known.emplace(key, std::move(names)).first->second;
}

// The writer's own form of a mirror, {"NAME":"VALUE"} with nothing to unescape, read without a
// JSON parser: a settings load reads some eighty of them, and the parser cost as much as the
// reads. Anything else (escapes, other members, a hand-edited file) goes to the parser.
bool ReadPlainMirror(const std::string &text, const std::string &name, std::string &value) {
  size_t end = text.size();
  if (end > 0 && text[end - 1] == '\n') --end;
  const size_t head = name.size() + 5;  // {"NAME":"
  if (end < head + 2 || text.compare(0, 2, "{\"") != 0 || text.compare(2, name.size(), name) != 0 ||
      text.compare(2 + name.size(), 3, "\":\"") != 0 || text.compare(end - 2, 2, "\"}") != 0) {
    return false;
  }
  for (size_t i = head; i < end - 2; ++i) {
    const unsigned char c = static_cast<unsigned char>(text[i]);
    if (c < 0x20 || c == '"' || c == '\\') return false;
  }
  value.assign(text, head, end - 2 - head);
  return true;
}

}  // namespace

int mailConfGet(const std::string &key, std::string &value) {
  value.clear();
  const KeyNames &names = NamesOf(key);
  std::string text;
  if (!ReadWhole(names.path, text)) return errno == ENOENT ? 0 : -1;
  if (ReadPlainMirror(text, names.complete, value)) return 0;
  Json::Value json;
  if (!ParseJson(text, json) || !json.isObject()) return -1;
  const std::string &name = names.complete;
  const Json::Value *member = json.find(name.data(), name.data() + name.size());
  if (member != nullptr && member->isConvertibleTo(Json::stringValue)) value = member->asString();
  return 0;
}

int mailConfigLockGet(const std::string &fileName, BOOL exclusive, int &fd) {
  fd = -1;
  mkdir(kLockDir, 0755);
  const std::string path = kLockDir + fileName + ".lock";
  // Writers run as root or as the package user: the lock file must open for both, whoever made it.
  // The fchmod below sees to that; the umask is left alone, since it belongs to the whole process
  // and writers on other threads take locks at the same time.
  int lockFd = -1;
  const int rc = KLIBCFileLockTimeByFile(path.c_str(), exclusive ? 1 : 0, -1, &lockFd);
  if (rc != 1) return -1;
  fchmod(lockFd, 0666);
  fd = lockFd;
  return 0;
}

int mailConfigLockRelease(int fd) {
  if (fd < 0) return 0;
  return KLIBCFileUnlockByFile(fd) == 1 ? 0 : -1;
}
