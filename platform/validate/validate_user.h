// The suite's account check: whether a name is a mail account of this machine. Mail accounts are
// the system's ordinary users (uid 1000 up to, not including, 65534 "nobody"), found through the
// name service; service accounts and the package user are not mailboxes. Stateless; any thread.
#ifndef MAILSERVER_VALIDATE_VALIDATE_USER_H_
#define MAILSERVER_VALIDATE_VALIDATE_USER_H_

#include <string>

// True when `account` names a mail account as the system stores it (the case counts).
bool ValidateUser(const std::string &account);

#endif  // MAILSERVER_VALIDATE_VALIDATE_USER_H_
