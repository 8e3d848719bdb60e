#include "mailserverctl/settings_commands.h"

#include <algorithm>
#include <cstdio>
#include <map>

#include "cluster/mailserver_cluster.h"
#include "config/postfix.h"
#include "foundation/service_alive.h"
#include "foundation/strings.h"
#include "kolt/crypt.h"
#include "mailserverctl/error.h"
#include "mailserverctl/imap_commands.h"
#include "mailserverctl/names.h"
#include "mailserverctl/report_commands.h"
#include "mailserverctl/scanner_commands.h"
#include "mailserverctl/typed_settings.h"

using KOLT::QUILLON_SERVER::KOLTMailNodeCluster;
using KOLT::QUILLON_SERVER::ServStatus;

namespace mailserverctl {
namespace {

const char kMultiDomain[] = "virtual_multiple_domain";
const char kRelayPassword[] = "smtp_relay_password";
constexpr size_t kCipherBuffer = 345;

bool Load(Postfix &postfix) {
  if (postfix.LoadSettings() == 0) return true;
  Error("cannot load the SMTP settings (see the system log)");
  return false;
}

// Why loading would not read `text` as the numbered domains, or "". An entry without '/' is
// passed over when it is read, so it passes here too.
std::string MultiDomainRefusal(const std::string &text) {
  for (const std::string &entry : StringSplit(text.c_str(), ", ")) {
    const size_t slash = entry.find('/');
    int number = 0;
    if (slash != std::string::npos && !WholeNumber(entry.substr(0, slash), number)) {
      return std::string(kMultiDomain) + " takes entries NUMBER/DOMAIN joined by \", \", and " +
             Quoted(entry) + " has no number";
    }
  }
  return "";
}

// After a save, the SMTP daemon takes up the new settings.
int ReloadPostfix(const std::string &action) { return Postfix::Service(action); }

}  // namespace

std::string StoredSettingRefusal(const std::string &key, const std::string &value) {
  if (key == kMultiDomain) return MultiDomainRefusal(value);
  if (key == kRelayPassword) {
    // Loading deciphers it, and fails every load of the settings when it can't.
    char plain[kCipherBuffer] = {0};
    if (!KLIBCCryptSzDecrypt(value.c_str(), plain, sizeof(plain))) {
      return key + " takes the password as this node's cipher wrote it; give the clear text "
                   "to `settings set` instead";
    }
    return "";
  }
  Postfix postfix;  // for its declarations; nothing is loaded
  return TypeRefusal(postfix, key, value);
}

std::string DamagedSetting() {
  Postfix postfix;
  return DamagedKey(postfix, StoredSettingRefusal);
}

int SettingsCommand(const std::vector<std::string> &args) {
  const std::string word = args.empty() ? "" : args[0];
  std::string of = "postfix";
  size_t rest = 1;
  if (args.size() >= 3 && args[1] == "--of") {
    of = args[2];
    rest = 3;
  }
  const std::vector<std::string> more(args.begin() + std::min(rest, args.size()), args.end());
  if (of != "postfix" && of != "imap" && of != "scanner" && of != "report") {
    return Error("unknown settings " + Quoted(of) + ": --of takes postfix, imap, scanner or report");
  }
  if (word == "show" && more.empty()) {
    if (of == "imap") return ImapShow();
    if (of == "scanner") return ScannerCommand({"show"});
    if (of == "report") return ReportShow();
    return SettingsShow();
  }
  if (word == "set" && !more.empty() && more.size() % 2 == 0) {
    if (of == "imap") return ImapSet(more);
    if (of == "report") return ReportSet(more);
    if (of == "scanner") {
      std::vector<std::string> words = {"set"};
      words.insert(words.end(), more.begin(), more.end());
      return ScannerCommand(words);
    }
    return SettingsSet(more);
  }
  if (word == "service" && of == "imap" && more.size() == 1) return ImapService(more[0]);
  if (word == "service" && rest == 3 && more.size() == 1) {
    return Error("settings service runs Dovecot only (--of imap); the scanner's daemon is "
                 "`mailserverctl av service`");
  }
  fprintf(stderr,
          "usage: mailserverctl settings show [--of postfix|imap|scanner|report]\n"
          "       mailserverctl settings set [--of postfix|imap|scanner|report] KEY VALUE "
          "[KEY VALUE ...]\n"
          "       mailserverctl settings service --of imap start|stop|restart|reload|status\n");
  return 2;
}

int SettingsShow() {
  // A value that loads as something else than it says would be shown wrongly.
  const std::string damaged = DamagedSetting();
  if (!damaged.empty()) return Error(damaged);
  Postfix postfix;
  if (!Load(postfix)) return 1;
  PrintSettings(postfix, [](const std::string &name, const std::string &text) {
    return name == kRelayPassword && !text.empty() ? std::string("********") : text;
  });
  return 0;
}

int SettingsSet(const std::vector<std::string> &pairs) {
  Postfix postfix;
  // Every value is checked before anything is loaded or set, so that a wrong one writes nothing.
  std::map<std::string, boost::any> typed;
  const std::string why = TypedPairs(
      postfix, "SMTP", pairs,
      [](const std::string &name, const std::string &text) {
        return name == kMultiDomain ? MultiDomainRefusal(text) : std::string();
      },
      typed);
  if (!why.empty()) return Error(why);
  if (!Load(postfix)) return 1;
  for (const auto &entry : typed) postfix.Set(entry.first, entry.second);
  if (postfix.SaveSettings({{"reload postfix", ReloadPostfix, "reload"}}) != 0) {
    return Error("the settings were not all saved (see the system log)");
  }
  return 0;
}

int DomainCommand(const std::string &word, const std::string &name) {
  // The list is stored joined by ", ": a name must be one domain name and nothing else.
  std::string ascii;
  if (word == "add" && !ValidDomainName(name, &ascii)) {
    return Error("refused domain " + Quoted(name) + ": a domain name is made of labels of " +
                 "letters, digits and inner hyphens (in UTF-8 or punycode), each of 1 to 63 " +
                 "bytes and 253 in all in punycode; nothing was written");
  }
  Postfix postfix;
  if (!Load(postfix)) return 1;
  if (word == "list") {
    for (const std::string &domain : postfix.GetCanonicalDomain()) printf("%s\n", domain.c_str());
    return 0;
  }
  if (name.empty()) return Error("domain " + word + " needs a name");
  if (word == "add") {
    for (const std::string &domain : postfix.GetCanonicalDomain()) {
      std::string other;
      if (domain == name || (ValidDomainName(domain, &other) && other == ascii)) {
        return Error(Quoted(name) + " is already a domain of this server, as " + Quoted(domain));
      }
    }
    postfix.AddDomain(name);
  } else if (word == "del") {
    const size_t before = postfix.GetCanonicalDomain().size();
    postfix.DeleteDomain(name);
    if (postfix.GetCanonicalDomain().size() == before) {
      return Error(Quoted(name) + " is not a domain of this server");
    }
  } else {
    return Error("domain takes add, del or list");
  }
  if (postfix.SaveDomainList() != 0) return Error("the domain list was not saved");
  return 0;
}

int BalancerCommand(const std::string &word) {
  KOLTMailNodeCluster node;
  if (word == "elect") {
    if (!node.calMasterBalancer(true)) return Error("the election failed (see the system log)");
  } else if (word != "status") {
    return Error("balancer takes elect or status");
  }
  std::vector<std::string> balancers;
  node.listKeySplitByToken("balancer", balancers, " ");
  std::map<std::string, ServStatus> status;
  node.getService("mailserver_service_balancer", status);
  std::string master;
  node.getMasterBalancer(master);
  printf("master balancer: %s\n", master.empty() ? "(none)" : master.c_str());
  for (const std::string &id : balancers) {
    const std::string ip = node.idToIP(id);
    const auto found = status.find(ip);
    printf("  %s  %-15s  service status %d\n", id.c_str(), ip.c_str(),
           found == status.end() ? -1 : static_cast<int>(found->second));
  }
  return 0;
}

}  // namespace mailserverctl
