#include "kolt/firewall.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <json/json.h>

#include <algorithm>
#include <cctype>
#include <cerrno>
#include <cstring>
#include <functional>
#include <memory>
#include <string>
#include <vector>

#include "kolt/err.h"
#include "kolt/file.h"
#include "kolt/fs.h"

namespace {

const char kDir[] = "/usr/kolt/etc/firewall";
const char kState[] = "/usr/kolt/etc/firewall/state.json";
const char kLock[] = "/usr/kolt/etc/firewall/state.lock";

bool ValidName(const std::string &name) {
  if (name.empty() || name.size() > 64) return false;
  for (unsigned char c : name) {
    if (!isalnum(c) && c != '_' && c != '-' && c != '.') return false;
  }
  return true;
}

Json::Value FreshState() {
  Json::Value state(Json::objectValue);
  state["allowed"] = Json::Value(Json::arrayValue);
  Json::Value &reserved = state["reserved"];
  reserved["services"] = Json::Value(Json::arrayValue);
  reserved["enable"] = false;
  reserved["reload"] = false;
  return state;
}

// The state on disk, or the fresh state when there is none yet. False for a file that can't be
// read or isn't a state: a firewall whose rules we can't tell must not be guessed at.
bool LoadState(Json::Value &state) {
  const int fd = open(kState, O_RDONLY | O_CLOEXEC);
  if (fd < 0) {
    if (errno != ENOENT) {
      KLIBC_ERR_SET(KLIBC_ERR_SYS(errno));
      return false;
    }
    state = FreshState();
    return true;
  }
  std::string text;
  char buffer[4096];
  ssize_t n;
  while ((n = read(fd, buffer, sizeof(buffer))) > 0) text.append(buffer, static_cast<size_t>(n));
  close(fd);
  std::unique_ptr<Json::CharReader> reader(Json::CharReaderBuilder().newCharReader());
  std::string errors;
  Json::Value parsed;
  if (n < 0 || !reader->parse(text.data(), text.data() + text.size(), &parsed, &errors) ||
      !parsed.isObject() || !parsed["allowed"].isArray() || !parsed["reserved"].isObject() ||
      !parsed["reserved"]["services"].isArray()) {
    KLIBC_ERR_SET(KLIBC_ERR_BAD_FORMAT);
    return false;
  }
  state = std::move(parsed);
  return true;
}

bool SaveState(const Json::Value &state) {
  Json::StreamWriterBuilder builder;
  builder["indentation"] = "  ";
  const std::string text = Json::writeString(builder, state) + "\n";
  std::string temp = std::string(kState) + ".XXXXXX";
  const int fd = mkostemp(&temp[0], O_CLOEXEC);
  if (fd < 0) {
    KLIBC_ERR_SET(KLIBC_ERR_SYS(errno));
    return false;
  }
  bool ok = write(fd, text.data(), text.size()) == static_cast<ssize_t>(text.size()) &&
            fsync(fd) == 0 && fchmod(fd, 0644) == 0;
  const int saved = errno;
  ok = close(fd) == 0 && ok && rename(temp.c_str(), kState) == 0;
  if (!ok) {
    KLIBC_ERR_SET(KLIBC_ERR_SYS(saved != 0 ? saved : errno));
    unlink(temp.c_str());
  }
  return ok;
}

// Runs `change` on the state under the writers' lock and saves the result. `change` returns false
// to leave the file as it was.
bool EditState(const std::function<bool(Json::Value &)> &change) {
  if (KOLTFSMkdirP(kDir, 0, 0, 0, 0, 0755) != 0) return false;
  int lockFd = -1;
  if (KLIBCFileLockTimeByFile(kLock, 1, -1, &lockFd) != 1) {
    KLIBC_ERR_SET(KLIBC_ERR_SYS(errno));
    return false;
  }
  Json::Value state;
  const bool ok = LoadState(state) && change(state) && SaveState(state);
  KLIBCFileUnlockByFile(lockFd);
  return ok;
}

bool Contains(const Json::Value &list, const std::string &name) {
  for (const Json::Value &item : list) {
    if (item.isString() && item.asString() == name) return true;
  }
  return false;
}

void Add(Json::Value &list, const std::string &name) {
  if (!Contains(list, name)) list.append(name);
}

void Remove(Json::Value &list, const std::string &name) {
  Json::Value kept(Json::arrayValue);
  for (const Json::Value &item : list) {
    if (!(item.isString() && item.asString() == name)) kept.append(item);
  }
  list = std::move(kept);
}

// The names of a comma-separated list, in order, each once. False when one isn't a service name.
bool SplitServices(const char *text, std::vector<std::string> &names) {
  std::string item;
  const std::string all = std::string(text) + ",";
  for (char c : all) {
    if (c != ',') {
      item += c;
      continue;
    }
    const size_t begin = item.find_first_not_of(" \t");
    const std::string name =
        begin == std::string::npos
            ? ""
            : item.substr(begin, item.find_last_not_of(" \t") - begin + 1);
    item.clear();
    if (name.empty()) continue;
    if (!ValidName(name)) return false;
    if (std::find(names.begin(), names.end(), name) == names.end()) names.push_back(name);
  }
  return true;
}

}  // namespace

int KOLTFwPortsCheckAllowByAdapter(int adapter, const char *serviceName) {
  if (adapter < 0 || serviceName == nullptr || !ValidName(serviceName)) {
    KLIBC_ERR_SET(KLIBC_ERR_BAD_PARAM);
    return -1;
  }
  Json::Value state;
  if (!LoadState(state)) return -1;
  return Contains(state["allowed"], serviceName) ? 1 : 0;
}

BOOL KLIBFwRuleReserveServInsert(const char *commaSeparatedServices, int enable, int reload) {
  std::vector<std::string> names;
  if (commaSeparatedServices == nullptr || !SplitServices(commaSeparatedServices, names)) {
    KLIBC_ERR_SET(KLIBC_ERR_BAD_PARAM);
    return FALSE;
  }
  const bool edited = EditState([&](Json::Value &state) {
    Json::Value &reserved = state["reserved"];
    reserved["services"] = Json::Value(Json::arrayValue);
    for (const std::string &name : names) {
      reserved["services"].append(name);
      if (enable == 1) Add(state["allowed"], name);
    }
    reserved["enable"] = enable == 1;
    // There is no rule engine behind this state to reload; the request is kept for readers.
    reserved["reload"] = reload == 1;
    return true;
  });
  return edited ? TRUE : FALSE;
}

int KOLTFwServiceAllow(const char *serviceName, int allow) {
  if (serviceName == nullptr || !ValidName(serviceName)) {
    KLIBC_ERR_SET(KLIBC_ERR_BAD_PARAM);
    return -1;
  }
  const bool edited = EditState([&](Json::Value &state) {
    if (allow != 0) {
      Add(state["allowed"], serviceName);
    } else {
      Remove(state["allowed"], serviceName);
    }
    return true;
  });
  return edited ? 0 : -1;
}
