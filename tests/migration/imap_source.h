// A second, separate Dovecot on loopback that plays the server mailboxes are migrated from: its
// own configuration, users and Maildirs under /tmp/qsv-source, filled by writing message files
// directly. Also reads back the Message-IDs of a Maildir folder on either side.
//
// REQUIRES: the sandbox (root, private network). One object at a time.
#ifndef MAILSERVER_TESTS_MIGRATION_IMAP_SOURCE_H_
#define MAILSERVER_TESTS_MIGRATION_IMAP_SOURCE_H_

#include <string>
#include <vector>

namespace qsvtest {

class ImapSource {
 public:
  // Starts the server on `port`; throws std::runtime_error when it doesn't greet.
  explicit ImapSource(int port);
  ~ImapSource();
  ImapSource(const ImapSource &) = delete;
  ImapSource &operator=(const ImapSource &) = delete;

  void AddUser(const std::string &name, const std::string &password);
  // `count` messages of about `size` bytes in `folder` ("INBOX" or a folder name), with
  // Message-IDs <idPrefix.N@source.test>.
  void AddMessages(const std::string &user, const std::string &folder, int count,
                   const std::string &idPrefix, int size = 600);
  std::string MaildirOf(const std::string &user) const;

 private:
  int port_;
};

// The sorted Message-IDs of the messages of `folder` in the Maildir at `maildir`.
std::vector<std::string> MessageIds(const std::string &maildir, const std::string &folder);

}  // namespace qsvtest

#endif  // MAILSERVER_TESTS_MIGRATION_IMAP_SOURCE_H_
