#include "log_writer/mail_tracker.h"

#include "log_writer/row_text.h"

namespace qsvlog {

namespace {

// Longer than Postfix keeps a message in the queue by default (five days): a queue id not seen
// for that long lost its end to a rotated or missing log and would otherwise stay forever.
constexpr time_t kForgetAfter = 7 * 24 * 60 * 60;
constexpr unsigned kSweepEvery = 10000;

std::string RecipientKey(const PostfixEvent &event) { return event.to + "\n" + event.origTo; }

}  // namespace

MailRow MailTracker::Row(const LogLine &line, const std::string &queueId, const Message &message,
                         const std::string &to, const std::string &origTo, int status) const {
  MailRow row;
  row.messageId = RowText(message.messageId);
  row.queueId = queueId;
  row.date = line.when;
  row.from = RowAddress(message.from);
  row.to = RowAddress(to);
  row.size = message.size;
  row.status = status;
  row.host = RowText(line.host);
  row.subject = RowSubject(message.subject);
  // Postfix names the original recipient only when rewriting changed it, but not every version.
  row.origTo = origTo == to ? "" : RowAddress(origTo);
  return row;
}

void MailTracker::Deliver(const LogLine &line, const PostfixEvent &event, Message &message,
                          Rows *rows) {
  const std::string key = RecipientKey(event);
  if (event.delivery == Delivery::kDeferred) {
    message.deferred.insert(key);
    return;
  }
  const bool triedBefore = message.deferred.erase(key) != 0;
  if (event.handedOn) return;
  int status = kBounce;
  if (event.delivery == Delivery::kSent) {
    status = triedBefore ? kResend : event.intoMailbox ? kReceive : kSend;
  }
  rows->mail.push_back(Row(line, event.queueId, message, event.to, event.origTo, status));
}

void MailTracker::Feed(const LogLine &line, Rows *rows) {
  if (line.when > newest_) newest_ = line.when;
  if (++linesSinceSweep_ >= kSweepEvery) ForgetStale(newest_);

  const PostfixEvent event = ParsePostfixEvent(line.daemon, line.message);
  if (event.kind == EventKind::kNone) return;
  if (event.kind == EventKind::kRefused) {
    SecurityRow row;
    row.date = line.when;
    row.src = RowText(event.client);
    row.type = event.refusal;
    row.event = RowText(event.reason);
    row.host = RowText(line.host);
    row.sender = RowAddress(event.from);
    row.recipient = RowAddress(event.to);
    std::string subject = event.subject;
    const auto known = event.queueId.empty() ? queue_.end() : queue_.find(event.queueId);
    if (subject.empty() && known != queue_.end()) subject = known->second.subject;
    row.subject = RowSubject(subject);
    rows->security.push_back(row);
    return;
  }
  if (event.queueId.empty()) return;
  if (event.kind == EventKind::kRemoved) {
    queue_.erase(event.queueId);
    return;
  }

  Message &message = queue_[event.queueId];
  message.lastSeen = line.when;
  switch (event.kind) {
    case EventKind::kMessageId:
      message.messageId = event.messageId;
      break;
    case EventKind::kSubject:
      // A header check may match the same header more than once; the first is the message's.
      if (message.subject.empty()) message.subject = event.subject;
      break;
    case EventKind::kQueued:
      message.from = event.from;
      message.size = event.size;
      break;
    case EventKind::kExpired:
      // Postfix gives up on the recipients still deferred and returns the message: bounces.
      for (const std::string &key : message.deferred) {
        const size_t newline = key.find('\n');
        rows->mail.push_back(Row(line, event.queueId, message, key.substr(0, newline),
                                 key.substr(newline + 1), kBounce));
      }
      message.deferred.clear();
      break;
    case EventKind::kDelivery:
      Deliver(line, event, message, rows);
      break;
    default:
      break;
  }
}

void MailTracker::ForgetStale(time_t now) {
  linesSinceSweep_ = 0;
  for (auto it = queue_.begin(); it != queue_.end();) {
    it = it->second.lastSeen + kForgetAfter < now ? queue_.erase(it) : std::next(it);
  }
}

}  // namespace qsvlog
