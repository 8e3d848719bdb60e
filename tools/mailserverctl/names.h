// What mailserverctl accepts as a domain name and as a port, wherever a command takes one.
#ifndef MAILSERVER_TOOLS_MAILSERVERCTL_NAMES_H_
#define MAILSERVER_TOOLS_MAILSERVERCTL_NAMES_H_

#include <string>

namespace mailserverctl {

// A domain name, in UTF-8 or in its ASCII (punycode) form: the ASCII form has labels of 1 to 63
// letters, digits and hyphens, no hyphen at either end of a label, 253 bytes at most. `ascii`,
// when given, gets that form (in lower case).
bool ValidDomainName(const std::string &name, std::string *ascii = nullptr);

// A port: plain decimal digits, 1 to 65535.
bool ParsePort(const std::string &text, int &port);

}  // namespace mailserverctl

#endif  // MAILSERVER_TOOLS_MAILSERVERCTL_NAMES_H_
