#include "kolt/sched.h"

#include <errno.h>
#include <fcntl.h>
#include <stdlib.h>
#include <string.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>

#include <string>
#include <vector>

#include <json/json.h>

#include "kolt/err.h"
#include "kolt/exec.h"
#include "kolt/fs.h"

struct KOLTSCHEDTASK {
  Json::Value entry;
  // Getters hand out pointers into these, which live as long as the task.
  std::string name, app, command;
};

struct KOLTSCHEDTASKLIST {
  std::vector<KOLTSCHEDTASK> tasks;
};

namespace {

constexpr char kDir[] = "/usr/kolt/etc/scheduler";
constexpr char kFile[] = "/usr/kolt/etc/scheduler/tasks.json";
constexpr char kLock[] = "/usr/kolt/etc/scheduler/.tasks.lock";

// Holds the writers' lock for its life; `ok` says whether it was had.
class FileLock {
 public:
  FileLock() {
    KOLTFSMkdirP(kDir, 0, 0, 0, 0, 0700);
    fd_ = open(kLock, O_RDWR | O_CREAT | O_CLOEXEC, 0600);
    ok = fd_ >= 0 && flock(fd_, LOCK_EX) == 0;
  }
  ~FileLock() {
    if (fd_ >= 0) close(fd_);
  }
  bool ok = false;

 private:
  int fd_ = -1;
};

// The entries of the file; false when it exists but isn't ours to read or isn't an array.
bool ReadEntries(Json::Value &entries) {
  entries = Json::Value(Json::arrayValue);
  FILE *in = fopen(kFile, "re");
  if (in == nullptr) {
    if (errno == ENOENT) return true;
    KLIBC_ERR_SET(KLIBC_ERR_SYS(errno));
    return false;
  }
  std::string text;
  char piece[4096];
  size_t n;
  while ((n = fread(piece, 1, sizeof(piece), in)) > 0) text.append(piece, n);
  fclose(in);
  Json::CharReaderBuilder builder;
  std::string why;
  std::unique_ptr<Json::CharReader> reader(builder.newCharReader());
  if (!reader->parse(text.data(), text.data() + text.size(), &entries, &why) ||
      !entries.isArray()) {
    KLIBC_ERR_SET(KLIBC_ERR_BAD_FORMAT);
    return false;
  }
  return true;
}

bool WriteEntries(const Json::Value &entries) {
  const std::string tmp = std::string(kFile) + ".tmp";
  const int fd = open(tmp.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC | O_NOFOLLOW, 0600);
  if (fd < 0) {
    KLIBC_ERR_SET(KLIBC_ERR_SYS(errno));
    return false;
  }
  Json::StreamWriterBuilder builder;
  builder["indentation"] = " ";
  const std::string text = Json::writeString(builder, entries) + "\n";
  const bool written = write(fd, text.data(), text.size()) == static_cast<ssize_t>(text.size()) &&
                       fchmod(fd, 0600) == 0 && fsync(fd) == 0;
  const int saved = errno;
  close(fd);
  if (!written || rename(tmp.c_str(), kFile) != 0) {
    KLIBC_ERR_SET(KLIBC_ERR_SYS(written ? errno : saved));
    unlink(tmp.c_str());
    return false;
  }
  return true;
}

bool OneLine(const char *text) { return text != nullptr && strpbrk(text, "\r\n") == nullptr; }

int SetText(KOLTSCHEDTASK *task, const char *key, const char *text) {
  if (task == nullptr || !OneLine(text)) {
    KLIBC_ERR_SET(KLIBC_ERR_BAD_PARAM);
    return -1;
  }
  task->entry[key] = text;
  return 0;
}

int SetInt(KOLTSCHEDTASK *task, const char *key, int value) {
  if (task == nullptr) {
    KLIBC_ERR_SET(KLIBC_ERR_BAD_PARAM);
    return -1;
  }
  task->entry[key] = value;
  return 0;
}

void Refresh(KOLTSCHEDTASK &task) {
  task.name = task.entry.get("name", "").asString();
  task.app = task.entry.get("app", "").asString();
  task.command = task.entry.get("command", "").asString();
}

bool StartOf(const Json::Value &entry, time_t *when) {
  struct tm start {};
  start.tm_year = entry.get("start_year", 0).asInt() - 1900;
  start.tm_mon = entry.get("start_month", 1).asInt() - 1;
  start.tm_mday = entry.get("start_day", 1).asInt();
  start.tm_hour = entry.get("run_hour", 0).asInt();
  start.tm_min = entry.get("run_min", 0).asInt();
  start.tm_isdst = -1;
  const time_t t = mktime(&start);
  if (t == static_cast<time_t>(-1)) return false;
  *when = t;
  return true;
}

// The file runs commands as root: it must be root's and no one else's to change.
bool FileTrusted() {
  struct stat st;
  if (lstat(kFile, &st) != 0) return false;
  return S_ISREG(st.st_mode) && st.st_uid == 0 && (st.st_mode & 022) == 0;
}

}  // namespace

int KOLTSchedTaskAlloc(KOLTSCHEDTASK **task) {
  if (task == nullptr) {
    KLIBC_ERR_SET(KLIBC_ERR_BAD_PARAM);
    return -1;
  }
  *task = new (std::nothrow) KOLTSCHEDTASK;
  if (*task == nullptr) {
    KLIBC_ERR_SET(KLIBC_ERR_OUT_OF_MEMORY);
    return -1;
  }
  (*task)->entry["id"] = -1;
  (*task)->entry["state"] = 0;
  return 0;
}

void KOLTSchedTaskFree(KOLTSCHEDTASK *task) { delete task; }

int KOLTSchedCTaskSetID(KOLTSCHEDTASK *task, int id) { return SetInt(task, "id", id); }
int KOLTSchedCTaskSetOwner(KOLTSCHEDTASK *task, uid_t owner) {
  return SetInt(task, "owner", static_cast<int>(owner));
}
int KOLTSchedCTaskSetApp(KOLTSCHEDTASK *task, const char *app) {
  return SetText(task, "app", app);
}
int KOLTSchedCTaskSetAppName(KOLTSCHEDTASK *task, const char *appName) {
  return SetText(task, "app_name", appName);
}
int KOLTSchedCTaskSetName(KOLTSCHEDTASK *task, const char *name) {
  return SetText(task, "name", name);
}
int KOLTSchedCTaskSetAction(KOLTSCHEDTASK *task, const char *action) {
  return SetText(task, "action", action);
}
int KOLTSchedCTaskSetCanEditName(KOLTSCHEDTASK *task, BOOL can) {
  return SetInt(task, "can_edit_name", can ? 1 : 0);
}
int KOLTSchedCTaskSetCanEditOwner(KOLTSCHEDTASK *task, BOOL can) {
  return SetInt(task, "can_edit_owner", can ? 1 : 0);
}
int KOLTSchedCTaskSetListable(KOLTSCHEDTASK *task, BOOL listable) {
  return SetInt(task, "listable", listable ? 1 : 0);
}
int KOLTSchedCTaskSetCommand(KOLTSCHEDTASK *task, const char *command) {
  return SetText(task, "command", command);
}
int KOLTSchedCTaskSetCanRunFromUI(KOLTSCHEDTASK *task, BOOL can) {
  return SetInt(task, "can_run_from_ui", can ? 1 : 0);
}
int KOLTSchedCTaskSetState(KOLTSCHEDTASK *task, int state) { return SetInt(task, "state", state); }
int KOLTSchedCTaskSetOnce(KOLTSCHEDTASK *task, int once) { return SetInt(task, "once", once); }
int KOLTSchedCTaskSetStartYear(KOLTSCHEDTASK *task, int year) {
  return SetInt(task, "start_year", year);
}
int KOLTSchedCTaskSetStartMonth(KOLTSCHEDTASK *task, int month) {
  return SetInt(task, "start_month", month);
}
int KOLTSchedCTaskSetStartDay(KOLTSCHEDTASK *task, int day) {
  return SetInt(task, "start_day", day);
}
int KOLTSchedCTaskSetRunHour(KOLTSCHEDTASK *task, int hour) {
  return SetInt(task, "run_hour", hour);
}
int KOLTSchedCTaskSetRunMin(KOLTSCHEDTASK *task, int minute) {
  return SetInt(task, "run_min", minute);
}

const char *KOLTSchedTaskGetName(const KOLTSCHEDTASK *task) {
  return task == nullptr ? nullptr : task->name.c_str();
}
const char *KOLTSchedTaskGetApp(const KOLTSCHEDTASK *task) {
  return task == nullptr ? nullptr : task->app.c_str();
}
const char *KOLTSchedTaskGetCommand(const KOLTSCHEDTASK *task) {
  return task == nullptr ? nullptr : task->command.c_str();
}
int KOLTSchedCTaskGetID(const KOLTSCHEDTASK *task) {
  return task == nullptr ? -1 : task->entry.get("id", -1).asInt();
}
int KOLTSchedCTaskGetState(const KOLTSCHEDTASK *task) {
  return task == nullptr ? -1 : task->entry.get("state", 0).asInt();
}
int KOLTSchedTaskGetStart(const KOLTSCHEDTASK *task, time_t *when) {
  if (task == nullptr || when == nullptr || !StartOf(task->entry, when)) {
    KLIBC_ERR_SET(KLIBC_ERR_BAD_PARAM);
    return -1;
  }
  return 0;
}

int KOLTSchedTaskSave(KOLTSCHEDTASK *task) {
  if (task == nullptr) {
    KLIBC_ERR_SET(KLIBC_ERR_BAD_PARAM);
    return -1;
  }
  if (geteuid() != 0) {
    KLIBC_ERR_SET(KLIBC_ERR_SYS(EPERM));
    return -1;
  }
  FileLock lock;
  Json::Value entries;
  if (!lock.ok || !ReadEntries(entries)) return -1;
  int id = task->entry.get("id", -1).asInt();
  Json::Value kept(Json::arrayValue);
  int highest = 0;
  for (const Json::Value &entry : entries) {
    const int other = entry.get("id", -1).asInt();
    if (other > highest) highest = other;
    if (other != id) kept.append(entry);
  }
  if (id < 0) id = highest + 1;
  task->entry["id"] = id;
  kept.append(task->entry);
  if (!WriteEntries(kept)) return -1;
  Refresh(*task);
  return 0;
}

int KOLTSchedTaskRemove(int id) {
  if (geteuid() != 0) {
    KLIBC_ERR_SET(KLIBC_ERR_SYS(EPERM));
    return -1;
  }
  FileLock lock;
  Json::Value entries;
  if (!lock.ok || !ReadEntries(entries)) return -1;
  Json::Value kept(Json::arrayValue);
  for (const Json::Value &entry : entries) {
    if (entry.get("id", -1).asInt() != id) kept.append(entry);
  }
  if (kept.size() == entries.size()) return 0;
  return WriteEntries(kept) ? 0 : -1;
}

int KOLTSchedTaskListGet(KOLTSCHEDTASKLIST **list, KOLTSCHEDFILTER filter, void *arg) {
  if (list == nullptr) {
    KLIBC_ERR_SET(KLIBC_ERR_BAD_PARAM);
    return -1;
  }
  *list = nullptr;
  Json::Value entries;
  if (!ReadEntries(entries)) return -1;
  KOLTSCHEDTASKLIST *result = new KOLTSCHEDTASKLIST;
  for (const Json::Value &entry : entries) {
    KOLTSCHEDTASK task;
    task.entry = entry;
    Refresh(task);
    if (filter == nullptr || filter(&task, arg)) result->tasks.push_back(task);
  }
  *list = result;
  return static_cast<int>(result->tasks.size());
}

KOLTSCHEDTASK *KOLTSchedTaskNext(KOLTSCHEDTASKLIST *list, KOLTSCHEDTASK *previous) {
  if (list == nullptr || list->tasks.empty()) return nullptr;
  if (previous == nullptr) return &list->tasks.front();
  const size_t next = static_cast<size_t>(previous - list->tasks.data()) + 1;
  return next < list->tasks.size() ? &list->tasks[next] : nullptr;
}

void KOLTSchedTaskListFree(KOLTSCHEDTASKLIST *list) { delete list; }

int KOLTSchedCommandSplit(const char *command, char *buffer, int size, const char **words,
                          int max) {
  if (command == nullptr || buffer == nullptr || size <= 0 ||
      strlen(command) >= static_cast<size_t>(size)) {
    KLIBC_ERR_SET(KLIBC_ERR_BAD_PARAM);
    return -1;
  }
  int count = 0;
  char *out = buffer;
  const char *in = command;
  while (*in != '\0') {
    while (*in == ' ' || *in == '\t') in++;
    if (*in == '\0') break;
    if (count >= max) {
      KLIBC_ERR_SET(KLIBC_ERR_BUFFER_TOO_SMALL);
      return -1;
    }
    words[count++] = out;
    bool quoted = false;
    while (*in != '\0' && (quoted || (*in != ' ' && *in != '\t'))) {
      if (*in == '"') {
        quoted = !quoted;
      } else {
        *out++ = *in;
      }
      in++;
    }
    if (quoted) {
      KLIBC_ERR_SET(KLIBC_ERR_BAD_FORMAT);
      return -1;
    }
    *out++ = '\0';
  }
  return count;
}

int KOLTSchedRunDue(time_t now) {
  FileLock lock;
  Json::Value entries;
  if (!lock.ok || !ReadEntries(entries)) return -1;
  if (entries.empty()) return 0;
  if (!FileTrusted()) {
    KLIBC_ERR_SET(KLIBC_ERR_SYS(EPERM));
    return -1;
  }
  std::vector<std::string> due;
  for (Json::Value &entry : entries) {
    time_t start;
    if (entry.get("state", 0).asInt() != 1 || !StartOf(entry, &start) || start > now) continue;
    due.push_back(entry.get("command", "").asString());
    if (entry.get("once", 0).asInt() == 1) entry["state"] = 0;
  }
  if (due.empty()) return 0;
  if (!WriteEntries(entries)) return -1;
  int started = 0;
  for (const std::string &command : due) {
    std::vector<char> buffer(command.size() + 1);
    const char *words[64];
    const int count = KOLTSchedCommandSplit(command.c_str(), buffer.data(),
                                            static_cast<int>(buffer.size()), words, 63);
    if (count <= 0 || words[0][0] != '/') continue;
    words[count] = nullptr;
    if (KLIBCExecv(words[0], words, KLIBC_EXEC_QUIET_BACKGROUND) == 0) started++;
  }
  return started;
}
