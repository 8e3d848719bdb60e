// The commands of mailserverctl over the sender quota and attachment filter tables:
//
//   quota set SENDER QUOTA         a daily quota of 0 to 99999 mails; a sender of 254 bytes at most
//   quota del SENDER...            every sender must have a quota
//   quota list [SEARCH]            senders that contain SEARCH, with their quotas
//   quota export                   writes the Postfix map from the table
//   attachment add TYPE...         a type is an extension or a piece of a regular expression
//   attachment del TYPE...         every type must be in the list
//   attachment list [SEARCH]
//   attachment export              writes the Postfix rule from the table
//
// Every argument is checked before anything changes. Each returns the process's exit status and
// prints its own messages.
#ifndef MAILSERVER_TOOLS_MAILSERVERCTL_TABLE_COMMANDS_H_
#define MAILSERVER_TOOLS_MAILSERVERCTL_TABLE_COMMANDS_H_

#include <string>
#include <vector>

namespace mailserverctl {

int QuotaSet(const std::string &sender, const std::string &quota);
int QuotaDelete(const std::vector<std::string> &senders);
int QuotaList(const std::string &search);
int QuotaExport();
int AttachmentAdd(const std::vector<std::string> &types);
int AttachmentDelete(const std::vector<std::string> &types);
int AttachmentList(const std::string &search);
int AttachmentExport();

}  // namespace mailserverctl

#endif  // MAILSERVER_TOOLS_MAILSERVERCTL_TABLE_COMMANDS_H_
