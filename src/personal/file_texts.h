// The texts of the files forward and vacation keep in a mail directory: .forward as the local
// delivery agent reads it, and a vacation message as the vacation program reads it. Pure
// functions on the caller's objects: safe from any thread.
#ifndef MAILSERVER_PERSONAL_FILE_TEXTS_H_
#define MAILSERVER_PERSONAL_FILE_TEXTS_H_

#include <string>

namespace personal {

// The program .forward pipes mail through while the user is away.
extern const char kVacationProgram[];

struct ForwardSettings {
  bool forward = false;
  bool keepCopy = false;
  std::string address;
  bool reply = false;
  long begin = -1;  // seconds since 1970; 0 or below: none
  long end = -1;
};

// .forward, one line each and each only when its rule holds:
//   \SHORTUSER     keep copy, or reply without forward: the mail stays in the mailbox
//   "|/var/packages/Quillon-Server/target/bin/vacation SHORTUSER -b BEGIN -e END"
//                  reply on; each of " -b BEGIN" and " -e END" only for a time above 0, in local
//                  time as %Y/%m/%d-%H:%M:%S
//   ADDRESS        forward on
std::string ComposeForward(const ForwardSettings &settings, const std::string &shortUser);

// Reads what ComposeForward wrote (or a user wrote by hand): trimmed lines; empty ones, comments
// ("#") and the vacation line skipped; a line starting with a backslash means keep copy; the first
// other line is the forward address, and reading ends there. The vacation line, the first line
// that holds "/bin/vacation", turns reply on and gives its times. `settings` starts from empty.
void ParseForward(const std::string &content, ForwardSettings &settings);

// The times of a vacation line: the word after "-b" and the word after "-e", each as
// %Y/%m/%d-%H:%M:%S or %Y/%m/%d (local midnight) in local time; -1 for a word that is missing or
// of neither form.
void ParseReplyTime(const std::string &line, long &begin, long &end);

// Whether `address` can be the forward line: one address, nothing the delivery agent would take
// as a program ("|"), a file ("/"), an include (":"), a comment ("#"), a list (","), a quoted
// name or a second line.
bool ForwardAddressAcceptable(const std::string &address);

// A vacation message: "From:" FROM, "Subject:" SUBJECT and the body, each followed by "\n".
std::string ComposeReply(const std::string &from, const std::string &subject,
                         const std::string &body);

// The subject is what follows "Subject:" on the first line that starts with it; every later line
// goes to the body with "\r\n" after it. Without such a line both stay empty.
void ParseReply(const std::string &content, std::string &subject, std::string &body);

}  // namespace personal

#endif  // MAILSERVER_PERSONAL_FILE_TEXTS_H_
