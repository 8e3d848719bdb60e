// Follows messages through Postfix's queue, line by line, and gives a mail row for each recipient
// once its delivery is final (sent or bounced) and a security row for each refusal. What a row
// needs is logged over several lines by several daemons (client, Message-ID, subject, sender and
// size, then each delivery), so the tracker keeps that per queue id until the queue manager
// removes the message. A tracker belongs to one reader.
#ifndef MAILSERVER_TOOLS_LOG_WRITER_MAIL_TRACKER_H_
#define MAILSERVER_TOOLS_LOG_WRITER_MAIL_TRACKER_H_

#include <ctime>
#include <set>
#include <string>
#include <unordered_map>
#include <vector>

#include "log_files/log_files.h"
#include "log_writer/log_line.h"
#include "log_writer/postfix_event.h"

namespace qsvlog {

struct Rows {
  std::vector<MailRow> mail;
  std::vector<SecurityRow> security;
};

class MailTracker {
 public:
  // Adds the rows `line` completes to `rows`.
  void Feed(const LogLine &line, Rows *rows);

  // Queue ids still followed: messages not yet removed, or whose start was in an earlier log.
  size_t pending() const { return queue_.size(); }

 private:
  struct Message {
    std::string messageId;
    std::string from;
    std::string subject;
    long long size = 0;
    // "to\norig_to" of recipients whose last attempt was deferred.
    std::set<std::string> deferred;
    time_t lastSeen = 0;
  };

  void Deliver(const LogLine &line, const PostfixEvent &event, Message &message, Rows *rows);
  MailRow Row(const LogLine &line, const std::string &queueId, const Message &message,
              const std::string &to, const std::string &origTo, int status) const;
  void ForgetStale(time_t now);

  std::unordered_map<std::string, Message> queue_;
  time_t newest_ = 0;
  unsigned linesSinceSweep_ = 0;
};

}  // namespace qsvlog

#endif  // MAILSERVER_TOOLS_LOG_WRITER_MAIL_TRACKER_H_
