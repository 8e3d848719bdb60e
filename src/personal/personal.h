// One user's mail forwarding and automatic reply. Both live as plain files in the user's mail
// directory, where the local delivery agent and the vacation program read them:
//
//   .forward          "\user" (keep a copy), the vacation pipe, the forward address; 0644, the user's
//   .vacation.msg     the reply to everyone
//   .SENDER.msg       the reply to one sender
//   .vacation.db      the vacation program's memory of who got a reply
//
// Every file written here is published to the other nodes with setFile under the key
// "personal-" UID "-" TYPE, TYPE being "forward", "vacation_msg" or "sender-" SENDER; the key
// watcher of each node calls UpdateFile when such a key changes or goes.
//
// The user's files are touched inside the user region (InUserRegion), by name relative to the
// mail directory and never through a link the user planted there.
//
// A Personal belongs to one thread. UpdateFile may run in the key watcher at the same time as a
// Personal writes the same file on the same node: the last writer wins.
#ifndef MAILSERVER_PERSONAL_PERSONAL_H_
#define MAILSERVER_PERSONAL_PERSONAL_H_

#include <sys/types.h>

#include <list>
#include <string>

#include "foundation/export.h"

class QSV_EXPORT Personal {
 public:
  // Reads the user's settings from .forward. An object that can't be had is invalid, and
  // getErrKey says why: "acc_type_unsupport" for a user of another account source than the
  // server's, "no_user_home" when the mail directory can't be had or read.
  explicit Personal(const std::string &user);
  ~Personal();

  std::string getErrKey() const { return errKey_; }
  std::string getUser() const { return user_; }
  bool isValid() const { return valid_; }
  bool isEnabledForward() const { return forwardEnabled_; }
  bool isKeepCopy() const { return keepCopy_; }
  std::string getForwardAddr() const { return forwardAddr_; }
  bool isEnabledReply() const { return replyEnabled_; }
  // Seconds since 1970, or -1 when not set.
  long GetReplyBeginTime() const { return replyBegin_; }
  long GetReplyEndTime() const { return replyEnd_; }

  void setForward(bool enabled) { forwardEnabled_ = enabled; }
  void setKeepCopy(bool keep) { keepCopy_ = keep; }
  void setForwardAddr(const std::string &address) { forwardAddr_ = address; }
  void setReply(bool enabled) { replyEnabled_ = enabled; }
  // 0 or below: no limit on that side.
  void SetReplyBeginTime(long when) { replyBegin_ = when; }
  void SetReplyEndTime(long when) { replyEnd_ = when; }

  // Writes .forward and publishes it when forward or reply is on; otherwise removes the file
  // and its key, whatever keep copy says, and stops a sync of it still under way (the other
  // nodes' key watchers then remove their copies). A forward address must be one plain address (no
  // blank, control character, quote, backslash, "|" or ",", and not starting with "/", ":" or
  // "#"), since the delivery agent would take anything else as a program, a file or a list.
  // 0, or -1 when this node's file could not be written or removed, or the cluster did not take
  // the change (the file of this node stays as written).
  // REQUIRES: isValid().
  int save();

  // The path of the reply to `sender`, or of the reply to everyone for null; "" for a sender that
  // can't name a file (see WriteReplyContent).
  std::string getReplyFilePath(const char *sender) const;
  bool doesReplyFileExist(const char *sender);
  // The subject and the body (each line ending in "\r\n") of a reply. 0, or -1.
  int ReadReplyContent(const char *sender, std::string &subject, std::string &body);
  // Writes and publishes the reply to `sender`, or to everyone for null. A sender is refused when
  // it is empty, longer than 250 bytes, holds "/", "..", a blank or a control character, or is
  // "vacation" (that file is the reply to everyone); a subject with a line break is refused.
  // 0, or -1 as save.
  int WriteReplyContent(const char *sender, const std::string &subject, const std::string &body);
  // Removes the reply to `sender` here and, as save does for .forward, its key. 0, or -1.
  int RemoveReplySetting(const std::string &sender);
  // The senders that have a reply of their own, by name.
  std::list<std::string> GetReplyList();

  // Brings this node's file of `backendKey` ("personal-UID-TYPE") in line with the store: a key
  // that exists gives its file (already fetched by the file sync) to the user with mode 0644, a
  // key that is gone takes its file away. A changed reply also clears .vacation.db, so that the
  // vacation program answers everyone again. 0, or -1 (the key is handled again at its next
  // change).
  static int UpdateFile(const std::string &backendKey);

  // The file that `backendKey` stands for on this node: the mail directory of the key's uid and
  // the name of its type. A key of another form, an unknown uid or a sender that can't name a file
  // gives -1. The key watcher checks a record's destination against it before fetching.
  static int LocalFilePath(const std::string &backendKey, std::string &path);

 private:
  // What a key names, once checked.
  struct KeyParts {
    uid_t uid = 0;
    std::string type;    // "forward", "vacation_msg" or "sender"
    std::string sender;  // for "sender"
  };
  static int SplitBackendKey(const std::string &backendKey, KeyParts &parts);
  static std::string FileName(const KeyParts &parts);

  int ReadSettings();
  int writeToFWD(const std::string &path);
  std::string ComposeBackendKey(const std::string &type) const;
  int SyncFile(const std::string &type, const std::string &path);
  int RemoveBackendKey(const std::string &type);
  std::string ForwardContent() const;
  // The reply's file name: ".vacation.msg" for null, else "." + sender + ".msg"; "" (logged) for a
  // sender refused by the rules of WriteReplyContent.
  static std::string ReplyFileName(const char *sender);

  std::string errKey_;
  std::string user_;
  uid_t uid_ = 0;
  gid_t gid_ = 0;
  bool valid_ = true;
  std::string mailDir_;
  bool forwardEnabled_ = false;
  bool keepCopy_ = false;
  std::string forwardAddr_;
  bool replyEnabled_ = false;
  long replyBegin_ = -1;
  long replyEnd_ = -1;
};

#endif  // MAILSERVER_PERSONAL_PERSONAL_H_
