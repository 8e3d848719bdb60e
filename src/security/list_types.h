// The words the anti-spam lists and the access table share: on which side of a mail a name stands
// (sender, recipient, client), what kind of name it is (a local account, a whole address, a
// domain) and which verdict a list gives it. The numbers are stored in the main settings database
// and must not change. Constants only: safe from any thread.
#ifndef MAILSERVER_SECURITY_LIST_TYPES_H_
#define MAILSERVER_SECURITY_LIST_TYPES_H_

enum BlackWhiteType : int {
  BLACK_WHITE_KNOWN = -1,  // any verdict, in a filter
  BLACK_WHITE_BLACKLIST = 1,
  BLACK_WHITE_WHITELIST = 2,
};

enum Type : int {
  TYPE_ALL = -1,  // no filter
  TYPE_FROM = 0,
  TYPE_TO = 1,
  TYPE_CLIENT = 2,
};

enum NameType : int {
  NAME_TYPE_ALL = -1,  // no filter
  NAME_TYPE_ACCOUNT = 0,
  NAME_TYPE_ADDRESS = 1,
  NAME_TYPE_DOMAIN = 2,
};

#endif  // MAILSERVER_SECURITY_LIST_TYPES_H_
