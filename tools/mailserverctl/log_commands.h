// The commands of mailserverctl over the mail log and the security log:
//
//   log count [KEYWORD]                     rows of the live file and its archive; with a
//                                           KEYWORD, those whose id, addresses or subject hold it
//   log list [PAGE]                         a page of rows, one per line, tab-separated
//   log search KEYWORD [PAGE]               a page of the rows that hold KEYWORD
//   log filter [TERMS] [PAGE] [--count]     a page of the rows every TERM holds, or their number
//   log export [--keyword K | TERMS] [PAGE] [--lang L] [--output FILE]
//                                           the rows as an HTML table: on standard output as
//                                           the web reply (headers first), or the document
//                                           alone into FILE (an absolute path)
//   security-log count|list|search|filter|export ...   the same over the security log
//
// PAGE is --limit N (at most 100000; default 50, for export all), --offset N, --sort COLUMN and
// --order asc|desc (default: date desc). The column must be one of the log's own: the library
// puts it into the statement as it stands.
// Mail log TERMS: --message-id, --from, --to, --ori-to, --subject (pieces of the value),
// --size-from/--size-to (bytes, [from, to)), --status send|receive|bounce|resend|local-receive,
// --date-from/--date-to (YYYY-MM-DD, YYYY-MM-DDTHH:MM:SS in local time, or seconds since 1970;
// a bare day as --date-to means its end).
// Security log TERMS: --src, --type, --sender, --recipient, --subject, --date-from, --date-to.
//
// Values from the logs are printed with control characters escaped: senders choose them.
#ifndef MAILSERVER_TOOLS_MAILSERVERCTL_LOG_COMMANDS_H_
#define MAILSERVER_TOOLS_MAILSERVERCTL_LOG_COMMANDS_H_

#include <string>
#include <vector>

namespace mailserverctl {

// args: the words after "log".
int MailLogCommand(const std::vector<std::string> &args);
// args: the words after "security-log".
int SecurityLogCommand(const std::vector<std::string> &args);

}  // namespace mailserverctl

#endif  // MAILSERVER_TOOLS_MAILSERVERCTL_LOG_COMMANDS_H_
