#include "log_writer/postfix_event.h"

#include <cctype>
#include <cstring>

namespace qsvlog {

namespace {

bool StartsWith(const std::string &text, const char *prefix) {
  return text.compare(0, strlen(prefix), prefix) == 0;
}

bool IsDigits(const std::string &text) {
  if (text.empty()) return false;
  for (char c : text) {
    if (c < '0' || c > '9') return false;
  }
  return true;
}

// The queue id before the first ": " ("" for NOQUEUE), and where the rest begins. Words that
// other lines put in that place are no queue ids.
bool SplitQueueId(const std::string &message, std::string *id, std::string *rest) {
  const size_t colon = message.find(": ");
  if (colon == std::string::npos || colon < 5 || colon > 20) return false;
  std::string token = message.substr(0, colon);
  if (token == "NOQUEUE") {
    token.clear();
  } else {
    for (char c : token) {
      if (!isalnum(static_cast<unsigned char>(c))) return false;
    }
    for (const char *word :
         {"warning", "error", "fatal", "panic", "info", "statistics", "reject"}) {
      if (token == word) return false;
    }
  }
  *id = token;
  *rest = message.substr(colon + 2);
  return true;
}

// The value of the field `key` ("to=", "relay=") in `text`: the field starts the text or follows
// a blank, so "to=" is never the end of "orig_to=". An angle-bracketed value runs to its '>'
// (brackets dropped); a plain one to the next ',' or blank. `end`, when given, gets the position
// after the value.
bool Field(const std::string &text, const char *key, std::string *value, size_t *end = nullptr) {
  const size_t keyLength = strlen(key);
  for (size_t pos = text.find(key); pos != std::string::npos; pos = text.find(key, pos + 1)) {
    if (pos != 0 && text[pos - 1] != ' ') continue;
    size_t start = pos + keyLength;
    size_t stop;
    if (start < text.size() && text[start] == '<') {
      stop = text.find('>', ++start);
      if (stop == std::string::npos) return false;
      *value = text.substr(start, stop - start);
      ++stop;
    } else {
      stop = text.find_first_of(", ", start);
      if (stop == std::string::npos) stop = text.size();
      *value = text.substr(start, stop - start);
    }
    if (end != nullptr) *end = stop;
    return true;
  }
  return false;
}

// "name[addr]" or "name[addr]:port" gives addr; a client without brackets ("local") stays as it is.
std::string ClientAddress(const std::string &client) {
  const size_t open = client.find('[');
  const size_t close = client.find(']', open);
  if (open == std::string::npos || close == std::string::npos) return client;
  return client.substr(open + 1, close - open - 1);
}

bool IsLoopback(const std::string &address) {
  return StartsWith(address, "127.") || address == "::1" || address == "ipv6:::1";
}

// "554 5.7.1 <b@x>: Relay access denied" gives "Relay access denied": the codes and the repeated
// recipient or client say nothing the row doesn't already hold.
std::string Reason(std::string reply) {
  if (reply.size() > 4 && IsDigits(reply.substr(0, 3)) && (reply[3] == ' ' || reply[3] == '-')) {
    reply.erase(0, 4);
  }
  const size_t blank = reply.find(' ');
  const std::string code = reply.substr(0, blank);
  if (blank != std::string::npos && code.size() >= 5 && (code[0] == '4' || code[0] == '5') &&
      code[1] == '.' && code.find_first_not_of("0123456789.") == std::string::npos) {
    reply.erase(0, blank + 1);
  }
  if (!reply.empty() && reply[0] == '<') {
    const size_t close = reply.find(">: ");
    if (close != std::string::npos) reply.erase(0, close + 3);
  }
  const size_t last = reply.find_last_not_of(' ');
  return last == std::string::npos ? "" : reply.substr(0, last + 1);
}

// "STAGE from CLIENT: REPLY; from=<a> to=<b> proto=ESMTP helo=<h>" as smtpd and postscreen log
// a refusal (postscreen with commas between the fields, and "[addr]:port" as the client).
bool ParseSmtpRefusal(const std::string &text, bool milter, PostfixEvent *event) {
  const size_t from = text.find(" from ");
  if (from == std::string::npos) return false;
  const std::string stage = text.substr(0, from);
  size_t clientEnd;
  const size_t clientStart = from + 6;
  const size_t bracket = text.find(']', clientStart);
  const size_t colon = text.find(": ", clientStart);
  if (colon == std::string::npos) return false;
  if (bracket != std::string::npos && bracket < colon) {
    clientEnd = bracket + 1;
    if (text.compare(clientEnd, 1, ":") == 0 && text.compare(clientEnd, 2, ": ") != 0) {
      clientEnd = text.find(": ", clientEnd);  // past ":port"
      if (clientEnd == std::string::npos) return false;
    }
    if (text.compare(clientEnd, 2, ": ") != 0) return false;
  } else {
    clientEnd = colon;
  }
  const size_t replyStart = clientEnd + 2;
  size_t tail = std::string::npos;
  for (const char *marker : {"; from=<", "; proto=", "; helo=<"}) {
    tail = text.rfind(marker);
    if (tail != std::string::npos && tail >= replyStart) break;
    tail = std::string::npos;
  }
  const std::string fields = tail == std::string::npos ? "" : text.substr(tail + 2);
  event->kind = EventKind::kRefused;
  event->client = ClientAddress(text.substr(clientStart, clientEnd - clientStart));
  event->reason = Reason(
      text.substr(replyStart, tail == std::string::npos ? std::string::npos : tail - replyStart));
  Field(fields, "from=", &event->from);
  Field(fields, "to=", &event->to);
  event->refusal = milter && (stage == "END-OF-MESSAGE" || stage == "DATA") ? "content" : "reject";
  return true;
}

// "WHAT from CLIENT; from=<a> to=<b> proto=ESMTP helo=<h>[: TEXT]" as cleanup logs a header or
// body it acted on. `what` gets WHAT, `reason` TEXT.
bool ParseCleanupAction(const std::string &text, std::string *what, PostfixEvent *event) {
  const size_t fieldsStart = text.rfind("; from=<");
  if (fieldsStart == std::string::npos || fieldsStart == 0) return false;
  const size_t from = text.rfind(" from ", fieldsStart - 1);
  if (from == std::string::npos) return false;
  *what = text.substr(0, from);
  event->client = ClientAddress(text.substr(from + 6, fieldsStart - from - 6));
  const std::string fields = text.substr(fieldsStart + 2);
  size_t end = 0;
  Field(fields, "from=", &event->from, &end);
  Field(fields, "to=", &event->to, &end);
  std::string skipped;
  Field(fields, "proto=", &skipped, &end);
  Field(fields, "helo=", &skipped, &end);
  if (fields.compare(end, 2, ": ") == 0) event->reason = Reason(fields.substr(end + 2));
  return true;
}

// "Subject: text" gives "text" when the header is the Subject (in any case); else false.
bool SubjectHeader(const std::string &header, std::string *subject) {
  if (strncasecmp(header.c_str(), "subject:", 8) != 0) return false;
  const size_t start = header.find_first_not_of(" \t", 8);
  *subject = start == std::string::npos ? "" : header.substr(start);
  return true;
}

void ParseCleanup(const std::string &rest, PostfixEvent *event) {
  if (StartsWith(rest, "message-id=")) {
    // The header as the client wrote it, brackets and all; only a second field is cut off.
    std::string id = rest.substr(11);
    if (!id.empty() && id[0] == '<' && id.find('>') != std::string::npos) {
      id.erase(id.find('>') + 1);
    }
    event->kind = EventKind::kMessageId;
    event->messageId = id;
    return;
  }
  std::string what;
  for (const char *prefix : {"info: header ", "warning: header "}) {
    if (StartsWith(rest, prefix) && ParseCleanupAction(rest.substr(strlen(prefix)), &what, event) &&
        SubjectHeader(what, &event->subject)) {
      event->kind = EventKind::kSubject;
      return;
    }
  }
  for (const char *prefix : {"reject: header ", "reject: body "}) {
    if (StartsWith(rest, prefix) && ParseCleanupAction(rest.substr(strlen(prefix)), &what, event)) {
      SubjectHeader(what, &event->subject);
      if (event->reason.empty()) event->reason = "message content rejected";
      event->kind = EventKind::kRefused;
      event->refusal = "content";
      return;
    }
  }
  if (StartsWith(rest, "milter-reject: ")) ParseSmtpRefusal(rest.substr(15), true, event);
}

void ParseQmgr(const std::string &rest, PostfixEvent *event) {
  if (rest == "removed") {
    event->kind = EventKind::kRemoved;
    return;
  }
  if (!StartsWith(rest, "from=<") || !Field(rest, "from=", &event->from)) return;
  std::string status, size;
  if (Field(rest, "status=", &status)) {
    if (status == "expired") event->kind = EventKind::kExpired;
    return;
  }
  // Eighteen digits can't overflow; no message comes near that size.
  if (Field(rest, "size=", &size) && IsDigits(size) && size.size() <= 18) {
    event->size = std::stoll(size);
    event->kind = EventKind::kQueued;
  }
}

void ParseDelivery(const std::string &daemon, const std::string &rest, PostfixEvent *event) {
  const size_t statusAt = rest.find(", status=");
  if (!StartsWith(rest, "to=<") || statusAt == std::string::npos) return;
  // Only the fields before the status: its text in parentheses is the remote server's, and
  // may say anything.
  const std::string fields = rest.substr(0, statusAt);
  std::string relay, word;
  if (!Field(fields, "to=", &event->to)) return;
  Field(fields, "orig_to=", &event->origTo);
  Field(fields, "relay=", &relay);
  const size_t wordStart = statusAt + 9;
  const size_t wordEnd = rest.find(' ', wordStart);
  word = rest.substr(wordStart,
                     wordEnd == std::string::npos ? std::string::npos : wordEnd - wordStart);
  const std::string reply = wordEnd == std::string::npos ? "" : rest.substr(wordEnd);
  if (word == "sent") {
    event->delivery = Delivery::kSent;
  } else if (word == "bounced") {
    event->delivery = Delivery::kBounced;
  } else if (word == "deferred") {
    event->delivery = Delivery::kDeferred;
  } else {
    return;  // address probes ("deliverable", "undeliverable") deliver nothing
  }
  event->kind = EventKind::kDelivery;
  event->intoMailbox =
      daemon == "local" || daemon == "virtual" || daemon == "lmtp" || daemon == "pipe";
  event->handedOn = (daemon == "smtp" || daemon == "lmtp" || daemon == "relay") &&
                    relay.find('[') != std::string::npos && IsLoopback(ClientAddress(relay)) &&
                    reply.find("queued as ") != std::string::npos;
}

}  // namespace

PostfixEvent ParsePostfixEvent(const std::string &daemon, const std::string &message) {
  PostfixEvent event;
  std::string rest;
  if (!SplitQueueId(message, &event.queueId, &rest)) return event;
  if (daemon == "smtpd" || daemon == "postscreen") {
    if (StartsWith(rest, "client=") && !event.queueId.empty()) {
      std::string client;
      Field(rest, "client=", &client);
      event.kind = EventKind::kClient;
      event.client = ClientAddress(client);
    } else if (StartsWith(rest, "reject: ")) {
      ParseSmtpRefusal(rest.substr(8), false, &event);
    } else if (StartsWith(rest, "milter-reject: ")) {
      ParseSmtpRefusal(rest.substr(15), true, &event);
    }
  } else if (daemon == "cleanup") {
    if (!event.queueId.empty()) ParseCleanup(rest, &event);
  } else if (daemon == "qmgr") {
    if (!event.queueId.empty()) ParseQmgr(rest, &event);
  } else if (daemon == "smtp" || daemon == "lmtp" || daemon == "local" || daemon == "virtual" ||
             daemon == "pipe" || daemon == "error" || daemon == "retry" || daemon == "relay") {
    if (!event.queueId.empty()) ParseDelivery(daemon, rest, &event);
  }
  // bounce: "sender non-delivery notification: ID" only names the queue id of the report, which
  // is logged as a message of its own; the bounced recipient already has its row. discard's
  // "sent" delivers nothing.
  return event;
}

}  // namespace qsvlog
