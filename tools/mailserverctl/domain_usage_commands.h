// The commands of mailserverctl over the per-domain usage limits and the daily usage counters:
//
//   domain-usage show DOMAIN               the domain's switches and limits
//   domain-usage set DOMAIN KEY VALUE [KEY VALUE ...]
//                                          switches en_attach, en_quota, en_flow, en_forward,
//                                          en_catch_all take yes|no; limits rt_attach, rt_quota,
//                                          rt_flow, rt_mail_size take a number from 0, catch_all
//                                          also -1 (none)
//   domain-usage counters DOMAIN USER... [--filter TEXT]
//                                          today's counters of the users (those with any)
//   domain-usage counters DOMAIN --delete quota|flow|both USER...
//
// DOMAIN is a domain of the multi-domain map (virtual_multiple_domain), in either form.
#ifndef MAILSERVER_TOOLS_MAILSERVERCTL_DOMAIN_USAGE_COMMANDS_H_
#define MAILSERVER_TOOLS_MAILSERVERCTL_DOMAIN_USAGE_COMMANDS_H_

#include <string>
#include <vector>

namespace mailserverctl {

// args: the words after "domain-usage".
int DomainUsageCommand(const std::vector<std::string> &args);

}  // namespace mailserverctl

#endif  // MAILSERVER_TOOLS_MAILSERVERCTL_DOMAIN_USAGE_COMMANDS_H_
