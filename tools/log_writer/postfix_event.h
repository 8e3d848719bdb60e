// What one Postfix log message says: a step of a message through the queue (client, Message-ID,
// subject, sender and size, a delivery attempt, removal) or a refusal. Text is kept as logged
// (addresses without their angle brackets); turning it into row values is the tracker's job.
// Pure functions: safe from any thread.
#ifndef MAILSERVER_TOOLS_LOG_WRITER_POSTFIX_EVENT_H_
#define MAILSERVER_TOOLS_LOG_WRITER_POSTFIX_EVENT_H_

#include <string>

namespace qsvlog {

enum class EventKind {
  kNone,       // nothing the logs keep
  kClient,     // smtpd: "client=name[addr]"
  kMessageId,  // cleanup: "message-id=<...>"
  kSubject,    // cleanup: the Subject header, logged by a header check
  kQueued,     // qmgr: "from=<a>, size=N, nrcpt=N (queue active)"
  kExpired,    // qmgr: "from=<a>, status=expired, returned to sender"
  kDelivery,   // a delivery agent: "to=<b>, orig_to=<c>, relay=..., status=..."
  kRemoved,    // qmgr: "removed"
  kRefused,    // a client, a recipient or a content refused: one security row
};

enum class Delivery { kSent, kBounced, kDeferred };

struct PostfixEvent {
  EventKind kind = EventKind::kNone;
  std::string queueId;  // empty for NOQUEUE
  std::string client;   // the SMTP client's address (kClient, kRefused)
  std::string messageId;
  std::string subject;  // the raw header text (kSubject, a refused Subject header)
  std::string from;
  std::string to;
  std::string origTo;
  long long size = 0;
  Delivery delivery = Delivery::kSent;
  bool intoMailbox = false;  // delivered by one of the local delivery agents
  // Given to a filter on this host that queued it anew: its delivery comes under the new queue
  // id, and counting this hop too would show each message twice.
  bool handedOn = false;
  std::string refusal;  // "reject" or "content"
  std::string reason;   // the reply without its codes: "Relay access denied"
};

// `daemon` is "smtpd", "cleanup", ... as ParseLogLine gives it.
PostfixEvent ParsePostfixEvent(const std::string &daemon, const std::string &message);

}  // namespace qsvlog

#endif  // MAILSERVER_TOOLS_LOG_WRITER_POSTFIX_EVENT_H_
