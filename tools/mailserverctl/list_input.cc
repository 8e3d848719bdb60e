#include "mailserverctl/list_input.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <climits>
#include <cstring>

#include "foundation/utf8.h"
#include "mailserverctl/error.h"

namespace mailserverctl {
namespace {

// As the library's import readers take them.
constexpr size_t kMaxLine = 64 * 1024;

bool Control(unsigned char c) { return c < 0x20 || c == 0x7f; }

// A decimal number from `min` to INT_MAX, nothing else.
bool Count(const std::string &text, int min, int &number) {
  if (text.empty() || text.size() > 10 ||
      text.find_first_not_of("0123456789") != std::string::npos) {
    return false;
  }
  const long long value = std::stoll(text);
  if (value < min || value > INT_MAX) return false;
  number = static_cast<int>(value);
  return true;
}

std::string Directory(const std::string &path) {
  const size_t slash = path.rfind('/');
  return slash == 0 ? "/" : path.substr(0, slash);
}

}  // namespace

bool SideWord(const std::string &word, Type &type) {
  for (const Type each : {TYPE_FROM, TYPE_TO, TYPE_CLIENT}) {
    if (word == SideName(each)) {
      type = each;
      return true;
    }
  }
  return false;
}

bool KindWord(const std::string &word, NameType &kind) {
  for (const NameType each : {NAME_TYPE_ACCOUNT, NAME_TYPE_ADDRESS, NAME_TYPE_DOMAIN}) {
    if (word == KindName(each)) {
      kind = each;
      return true;
    }
  }
  return false;
}

const char *SideName(int type) {
  switch (type) {
    case TYPE_FROM: return "from";
    case TYPE_TO: return "to";
    case TYPE_CLIENT: return "client";
    default: return "?";
  }
}

const char *KindName(int kind) {
  switch (kind) {
    case NAME_TYPE_ACCOUNT: return "account";
    case NAME_TYPE_ADDRESS: return "address";
    case NAME_TYPE_DOMAIN: return "domain";
    default: return "?";
  }
}

std::string ListNameRefusal(const std::string &name) {
  const std::string refused = "refused name " + Quoted(name) + ": ";
  if (name.empty()) return refused + "a name can't be empty";
  if (name.size() > kMaxListName) {
    return refused + "a name has at most " + std::to_string(kMaxListName) + " bytes";
  }
  for (unsigned char c : name) {
    if (Control(c) || c == ' ') return refused + "a name has no blanks or control characters";
  }
  if (!checkValidUtf8(name)) return refused + "a name is UTF-8 text";
  return "";
}

std::string KindRefusal(Type side, NameType kind, const std::string &name) {
  const size_t at = name.find('@');
  const bool address = at != std::string::npos && at > 0 && at + 1 < name.size() &&
                       name.find('@', at + 1) == std::string::npos;
  if (side != TYPE_CLIENT && kind == NAME_TYPE_ADDRESS) {
    return address ? "" : "refused address " + Quoted(name) + ": an address is NAME@DOMAIN";
  }
  if (at != std::string::npos) {
    return "refused " + std::string(side == TYPE_CLIENT ? "client " : KindName(kind)) + " " +
           Quoted(name) + ": it can't hold an \"@\"" +
           (side == TYPE_CLIENT ? " (a client is an IP address or a host name)" : "");
  }
  return "";
}

std::string PatternRefusal(const std::string &pattern) {
  if (pattern.size() > kMaxListName || !checkValidUtf8(pattern)) {
    return "refused search " + Quoted(pattern) + ": a search is UTF-8 text of at most " +
           std::to_string(kMaxListName) + " bytes";
  }
  for (unsigned char c : pattern) {
    if (Control(c)) return "refused search " + Quoted(pattern) + ": it holds a control character";
  }
  return "";
}

std::string ParsePaging(const std::vector<std::string> &args, size_t from, int &offset, int &limit,
                        std::vector<std::string> &rest) {
  bool haveOffset = false;
  bool haveLimit = false;
  for (size_t i = from; i < args.size(); ++i) {
    const bool isOffset = args[i] == "--offset";
    if (!isOffset && args[i] != "--limit") {
      rest.push_back(args[i]);
      continue;
    }
    bool &seen = isOffset ? haveOffset : haveLimit;
    if (seen) return args[i] + " is given twice";
    seen = true;
    if (i + 1 == args.size()) return args[i] + " needs a number";
    if (!Count(args[++i], isOffset ? 0 : 1, isOffset ? offset : limit)) {
      return "refused " + args[i - 1] + " " + Quoted(args[i]) + ": it takes a whole number from " +
             (isOffset ? "0" : "1") + " to " + std::to_string(INT_MAX);
    }
  }
  return "";
}

std::string Shown(const std::string &text) {
  for (unsigned char c : text) {
    if (Control(c)) return Quoted(text);
  }
  return checkValidUtf8(text) ? text : Quoted(text);
}

std::string ReadImportText(const std::string &path, size_t maxSize, std::string &text,
                           unsigned *mode) {
  if (path.empty() || path[0] != '/') return Quoted(path) + " is no absolute path";
  // No link is followed and nothing but a regular file is read: a FIFO would wait, a device
  // could feed the import without end.
  const int fd = open(path.c_str(), O_RDONLY | O_CLOEXEC | O_NONBLOCK | O_NOCTTY | O_NOFOLLOW);
  if (fd < 0) {
    return errno == ELOOP ? Quoted(path) + " is no regular file"
                          : "cannot read " + Quoted(path) + ": " + strerror(errno);
  }
  struct stat st;
  std::string why;
  if (fstat(fd, &st) != 0 || !S_ISREG(st.st_mode)) {
    why = Quoted(path) + " is no regular file";
  } else if (mode != nullptr) {
    *mode = st.st_mode;
  }
  if (why.empty() && static_cast<unsigned long long>(st.st_size) > maxSize) {
    why = Quoted(path) + " is larger than " + std::to_string(maxSize) + " bytes";
  }
  text.clear();
  char buffer[65536];
  ssize_t got = 0;
  while (why.empty() && (got = read(fd, buffer, sizeof(buffer))) != 0) {
    if (got < 0 && errno == EINTR) continue;
    if (got < 0)
      why = "cannot read " + Quoted(path) + ": " + strerror(errno);
    else
      text.append(buffer, static_cast<size_t>(got));
    // It may have grown since it was looked at.
    if (text.size() > maxSize)
      why = Quoted(path) + " is larger than " + std::to_string(maxSize) + " bytes";
  }
  close(fd);
  if (!why.empty()) return why;
  size_t number = 1;
  for (size_t start = 0; start < text.size(); ++number) {
    size_t end = text.find('\n', start);
    if (end == std::string::npos) end = text.size();
    const std::string line = text.substr(start, end - start);
    const std::string where = Quoted(path) + " line " + std::to_string(number) + ": ";
    if (line.size() >= kMaxLine)
      return where + "longer than " + std::to_string(kMaxLine) + " bytes";
    for (unsigned char c : line) {
      if (Control(c) && c != '\t' && c != '\r') return where + "a control character";
    }
    if (!checkValidUtf8(line)) return where + "not UTF-8 text";
    start = end + 1;
  }
  return "";
}

std::string ExportPathRefusal(const std::string &path) {
  if (path.empty() || path[0] != '/') return Quoted(path) + " is no absolute path";
  if (path.back() == '/') return Quoted(path) + " names a folder";
  struct stat st;
  if (lstat(path.c_str(), &st) == 0) {
    return S_ISREG(st.st_mode) ? "" : Quoted(path) + " is no regular file";
  }
  if (errno != ENOENT) return "cannot write " + Quoted(path) + ": " + strerror(errno);
  if (stat(Directory(path).c_str(), &st) != 0 || !S_ISDIR(st.st_mode)) {
    return "there is no folder " + Quoted(Directory(path));
  }
  return "";
}

PrivateCopy::PrivateCopy(const std::string &text) {
  char name[] = "/tmp/mailserverctl-import-XXXXXX";
  const int fd = mkostemp(name, O_CLOEXEC);
  if (fd < 0) return;
  size_t done = 0;
  while (done < text.size()) {
    const ssize_t wrote = write(fd, text.data() + done, text.size() - done);
    if (wrote < 0 && errno == EINTR) continue;
    if (wrote <= 0) break;
    done += static_cast<size_t>(wrote);
  }
  close(fd);
  if (done == text.size()) {
    path_ = name;
  } else {
    unlink(name);
  }
}

PrivateCopy::~PrivateCopy() {
  if (!path_.empty()) unlink(path_.c_str());
}

}  // namespace mailserverctl
