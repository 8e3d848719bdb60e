// A user's vacation replies: the reply to everyone and the replies to single senders, each a file
// of the mail directory written at once and published under its own key.
#include <cerrno>
#include <cstring>

#include "foundation/log.h"
#include "foundation/privilege.h"
#include "foundation/text.h"
#include "kolt/file.h"
#include "kolt/szlist.h"
#include "personal/file_texts.h"
#include "personal/personal.h"
#include "personal/user_dir.h"

using personal::UserDir;

namespace {

const char kDefaultReplyFile[] = ".vacation.msg";
const char kReplySuffix[] = ".msg";
// A file name has at most 255 bytes, and "." and ".msg" take five.
constexpr size_t kMaxSender = 250;

struct Ids {
  uid_t uid;
  gid_t gid;
};

// Why `sender` can't name a reply file, or null when it can. The name comes from a web form, the
// command line or the store: whatever it holds, the file must stay in the user's directory.
const char *SenderRefusal(const std::string &sender) {
  if (sender.empty() || sender.size() > kMaxSender) return "it is empty or too long";
  if (sender.find('/') != std::string::npos || sender.find("..") != std::string::npos) {
    return "it holds \"/\" or \"..\"";
  }
  if (sender.find('\0') != std::string::npos || checkUnsupportedUser(sender.c_str())) {
    return "it holds a blank or a control character";
  }
  // ".vacation.msg" is the reply to everyone.
  if (sender == "vacation") return "it is the name of the reply to everyone";
  return nullptr;
}

bool EndsWith(const std::string &text, const char *suffix) {
  const size_t n = strlen(suffix);
  return text.size() >= n && text.compare(text.size() - n, n, suffix) == 0;
}

}  // namespace

std::string Personal::ReplyFileName(const char *sender) {
  if (sender == nullptr) return kDefaultReplyFile;
  const std::string name = sender;
  if (const char *why = SenderRefusal(name)) {
    maillog(3, "%s:%d Refused the sender [%s]: %s", QSV_FILE, __LINE__, name.c_str(), why);
    return "";
  }
  return "." + name + kReplySuffix;
}

std::string Personal::getReplyFilePath(const char *sender) const {
  const std::string name = ReplyFileName(sender);
  return name.empty() ? "" : mailDir_ + "/" + name;
}

bool Personal::doesReplyFileExist(const char *sender) {
  const std::string name = ReplyFileName(sender);
  if (name.empty()) return false;
  const Ids ids{uid_, gid_};
  UserDir dir(uid_, gid_);
  bool exists;
  InUserRegion(ids);
  exists = dir.Open(mailDir_) == 0 && dir.HasPlainFile(name);
  OutUserRegion;
  return exists;
}

int Personal::ReadReplyContent(const char *sender, std::string &subject, std::string &body) {
  const std::string name = ReplyFileName(sender);
  if (name.empty()) return -1;
  const Ids ids{uid_, gid_};
  UserDir dir(uid_, gid_);
  std::string content;
  int rc;
  {
    InUserRegion(ids);
    rc = dir.Open(mailDir_);
    if (rc == 0) rc = dir.Read(name, content);
    OutUserRegion;
  }
  if (rc <= 0) {
    maillog(3, "%s:%d Can not open vacation file.", QSV_FILE, __LINE__);
    return -1;
  }
  personal::ParseReply(content, subject, body);
  return 0;
}

int Personal::WriteReplyContent(const char *sender, const std::string &subject,
                                const std::string &body) {
  const std::string name = ReplyFileName(sender);
  if (name.empty()) return -1;
  // A line break would start a header or the body of its own.
  if (subject.find_first_of("\r\n") != std::string::npos) {
    maillog(3, "%s:%d Refused the subject of the reply of %s: it holds a line break", QSV_FILE,
            __LINE__, user_.c_str());
    return -1;
  }
  const std::string content = personal::ComposeReply(user_, subject, body);
  const Ids ids{uid_, gid_};
  UserDir dir(uid_, gid_);
  int rc;
  int error;
  {
    InUserRegion(ids);
    rc = dir.Open(mailDir_);
    if (rc == 0) rc = dir.Write(name, content);
    error = errno;
    OutUserRegion;
  }
  if (rc < 0) {
    maillog(3, "%s:%d Can not write the vacation file %s/%s: %s", QSV_FILE, __LINE__,
            mailDir_.c_str(), name.c_str(), strerror(error));
    return -1;
  }
  return SyncFile(sender == nullptr ? "vacation_msg" : std::string("sender-") + sender,
                  mailDir_ + "/" + name);
}

int Personal::RemoveReplySetting(const std::string &sender) {
  const std::string name = ReplyFileName(sender.c_str());
  if (name.empty() || sender.find('\0') != std::string::npos) return -1;
  const Ids ids{uid_, gid_};
  UserDir dir(uid_, gid_);
  int rc;
  int error;
  {
    InUserRegion(ids);
    rc = dir.Open(mailDir_);
    if (rc == 0) rc = dir.Remove(name);
    error = errno;
    OutUserRegion;
  }
  if (rc < 0) {
    maillog(3, "%s:%d Failed to remove %s/%s: %s", QSV_FILE, __LINE__, mailDir_.c_str(),
            name.c_str(), strerror(error));
    return -1;
  }
  return RemoveBackendKey("sender-" + sender);
}

std::list<std::string> Personal::GetReplyList() {
  std::list<std::string> senders;
  KLIBSZLIST *names = KLIBCSzListAlloc(0);
  if (names == nullptr) {
    maillog(3, "%s:%d out of memory", QSV_FILE, __LINE__);
    return senders;
  }
  const Ids ids{uid_, gid_};
  int rc;
  int error;
  {
    InUserRegion(ids);
    rc = KLIBCFileEnumDir(mailDir_.c_str(), 0, &names, 0);
    error = errno;
    OutUserRegion;
  }
  if (rc < 0) {
    maillog(3, "%s:%d Failed to KLIBCFileEnumDir %s error [%s]", QSV_FILE, __LINE__,
            mailDir_.c_str(), strerror(error));
  } else {
    for (int i = 0; i < KLIBCSzListCount(names); ++i) {
      const std::string name = KLIBCSzListGet(names, i);
      if (name == kDefaultReplyFile || name.size() <= 1 + strlen(kReplySuffix) ||
          name[0] != '.' || !EndsWith(name, kReplySuffix)) {
        continue;
      }
      const std::string sender = name.substr(1, name.size() - 1 - strlen(kReplySuffix));
      if (SenderRefusal(sender) == nullptr) senders.push_back(sender);
    }
  }
  KLIBCSzListFree(names);
  return senders;
}
