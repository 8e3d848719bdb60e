// Where a user's mail lives: /var/spool/mail, then the account domain of the server, then the
// user's number, as in /var/spool/mail/example.com/1026. Mail goes by user number, not by name,
// so renaming a user doesn't move mail; the tree is flat under the domain.
//
// The account domain follows the setting "account_type": a local server keeps its users under
// "local", a directory (LDAP) server under "acc_domain_name", a Windows domain member under
// "win_domain_short_name" (or the machine's workgroup where that is empty).
//
// These functions compose paths only; they create nothing. All read settings afresh on every call
// and may be called from any thread. Each returns 0, or -1 with the output left as it was.
#ifndef MAILSERVER_CORE_MAIL_DIR_H_
#define MAILSERVER_CORE_MAIL_DIR_H_

#include <sys/types.h>

#include <string>

// "/var/spool/mail", which must be an existing directory.
int mailDirRootPathGet(std::string &root);

// `root` + "/" + the account domain. A domain that can't be a single path component ("", ".",
// "..", or one with '/') is refused, so a setting can't lead mail outside the root.
int mailDirDomainPathGet(const std::string &root, std::string &domainPath);

// `domainPath` + "/" + the decimal `uid`.
int uidGetPath(const std::string &domainPath, uid_t uid, std::string &path);

// The mail directory of `uid`: the three above composed.
int mailDirGet(uid_t uid, std::string &path);

// The account domain: "local" when "account_type" is "local" or unset; for "ldap" the setting
// "acc_domain_name", which must not be empty; for "win" the setting "win_domain_short_name" or,
// when that is empty, the workgroup of the machine. Another account type is an error.
int smtpAccountDomainGet(std::string &domain);

#endif  // MAILSERVER_CORE_MAIL_DIR_H_
