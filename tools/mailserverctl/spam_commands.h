// The commands of mailserverctl over the spam filter:
//
//   spam show                      the nine settings by their store names
//   spam set KEY VALUE [KEY VALUE ...]
//                                  spam_enable, spam_enable_rewrite, spam_auto_learn and
//                                  spam_auto_whitelist take yes or no; spam_required_score,
//                                  spam_learn_threshold_spam and spam_learn_threshold_non_spam a
//                                  number from -1000 to 1000 with at most two decimals;
//                                  spam_report_machanism 0, 1 or 2; spam_rewrite_subject a mark
//                                  of 1 to 255 bytes without control characters or backslashes.
//                                  Then the settings are applied as `spam apply` does.
//   spam apply                     publishes the settings and runs the configuration writer
//   spam rule list                 every rule file and flag: enabled, disabled, file missing
//   spam rule import FILE          copies FILE into the rules folder under its own name
//   spam rule enable|disable NAME  sets the flag and runs the configuration writer; a rule the
//                                  writer refuses stays as it was
//   spam rule delete NAME          removes the flag and the file
//   spam blackwhite ...            see blackwhite_commands.h
//
// A rule NAME is a plain file name: no "/", not "." or "..", no control characters.
// Each returns the process's exit status (1 for a refusal, 2 for a command of the wrong shape)
// and prints its own messages.
#ifndef MAILSERVER_TOOLS_MAILSERVERCTL_SPAM_COMMANDS_H_
#define MAILSERVER_TOOLS_MAILSERVERCTL_SPAM_COMMANDS_H_

#include <string>
#include <vector>

namespace mailserverctl {

// args: the words after "spam".
int SpamCommand(const std::vector<std::string> &args);

// Why `text` can't be the value of `key`, one of the nine settings above, by the rules of
// `spam set`; "" when it can or when `key` is none of them. The content scanner's settings share
// these keys, and the filter's configuration writer must be able to take what either writes.
std::string SpamSettingRefusal(const std::string &key, const std::string &text);

}  // namespace mailserverctl

#endif  // MAILSERVER_TOOLS_MAILSERVERCTL_SPAM_COMMANDS_H_
