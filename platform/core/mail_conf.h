// The read side of the mail configuration store and the helpers its writers share: the file name
// of a key's local mirror, the lock that orders writers of one mirror file, and the JSON loader.
//
// A key's mirror is a one-line JSON object in /var/packages/Quillon-Server/etc/mailconf.d/ whose
// member, named by the key's full name, holds the value as a string. The keys of a few trees (the
// node ids of "mapping_table", the flags of "service_change") share their tree's file, one member
// each.
//
// All functions are safe from any thread; readers need no lock because writers replace a file by
// rename.
#ifndef MAILSERVER_CORE_MAIL_CONF_H_
#define MAILSERVER_CORE_MAIL_CONF_H_

#include <json/json.h>

#include <string>

#include "kolt/types.h"

// The directory of the key mirror files, with its trailing slash.
extern const char kMailConfDir[];

// The mirror file name of `key`: safe in a directory (no "/", no leading ".", printable ASCII),
// distinct for distinct keys except within a tree that shares one file. A full name and its short
// name give the same file.
std::string toLeagalFileName(const std::string &key);

// Reads `key`'s value. A key without a mirror file or member reads as "" with result 0; a file that
// can't be read or parsed gives -1 and leaves `value` empty.
int mailConfGet(const std::string &key, std::string &value);

// Loads `dir` + `fileName` as JSON. 0, or -1 when the file can't be read or isn't JSON.
int loadMailJsonFromFile(const std::string &fileName, Json::Value &json, const std::string &dir);

// Takes the lock that orders the writers of one mirror file on this node: an flock on a separate
// file under /var/lock/quillon_server/, never on the mirror, which its writers replace by rename.
// Waits as long as it takes. 0 and the descriptor in `fd`, or -1 with `fd` -1.
int mailConfigLockGet(const std::string &fileName, BOOL exclusive, int &fd);

// Releases a lock of mailConfigLockGet. A descriptor of -1 is ignored. 0, or -1.
int mailConfigLockRelease(int fd);

#endif  // MAILSERVER_CORE_MAIL_CONF_H_
