// The commands of mailserverctl over the index of the mails the content policy holds back:
//
//   quarantine list [--offset N] [--limit N]
//   quarantine search [FILTER...] [--order COLUMN] [--direction asc|desc] [--offset N] [--limit N]
//       --text TEXT              the sender, the recipients, the subject or the report contain
//                                TEXT; the index searches so only without the other filters
//       --sender ADDRESS         the sender is ADDRESS (UTF-8 or punycode, in any case)
//       --receiver ADDRESS       ADDRESS is one of the recipients
//       --subject TEXT           the subject is TEXT
//       --received-from|--received-to SECONDS   the time of receipt, 0 or more
//       --score-from|--score-to N               the score, 1 to 4294967295
//       --size-from|--size-to BYTES             the size, 1 or more
//       --order COLUMN           a column of the index: message_id, sender, receivers, dateNum,
//                                receivedTime (the default), subject, report, path, score,
//                                actions or mailSize
//       --direction asc|desc     asc by default
//                                Each mail on a line, its fields separated by tabs: ID, message
//                                id, time of receipt, score, size, sender, recipients, subject
//                                and the path of the held mail; then "total: N", the number the
//                                filters find.
//   quarantine delete ID...      removes the mails' rows from the index; the held files stay
//
// An ID is the number a list shows: the index's own number of the mail's row, which a row keeps
// for its life, so that an ID names the same mail however the index changed since the list. The
// same mail indexed twice shows one ID, and a delete removes both rows. Texts are UTF-8 of at
// most 255 bytes without control characters. Every option is given at most once, and everything
// is checked before the index is opened.
#ifndef MAILSERVER_TOOLS_MAILSERVERCTL_QUARANTINE_COMMANDS_H_
#define MAILSERVER_TOOLS_MAILSERVERCTL_QUARANTINE_COMMANDS_H_

#include <string>
#include <vector>

namespace mailserverctl {

// args: the words after "quarantine".
int QuarantineCommand(const std::vector<std::string> &args);

}  // namespace mailserverctl

#endif  // MAILSERVER_TOOLS_MAILSERVERCTL_QUARANTINE_COMMANDS_H_
