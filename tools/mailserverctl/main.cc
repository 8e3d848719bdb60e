// mailserverctl: the command-line front end of the library for an administrator of one machine.
//
//   mailserverctl setup [--address IP]
//   mailserverctl member add|join|del|list|check ...
//   mailserverctl version publish|check
//   mailserverctl conf get KEY
//   mailserverctl conf set KEY VALUE [KEY VALUE ...]
//   mailserverctl cluster status
//   mailserverctl backend start|stop
//   mailserverctl settings show [--of postfix|imap|scanner|report]
//   mailserverctl settings set [--of postfix|imap|scanner|report] KEY VALUE [KEY VALUE ...]
//   mailserverctl settings service --of imap start|stop|restart|reload|status
//   mailserverctl domain add|del NAME
//   mailserverctl domain list
//   mailserverctl balancer elect|status
//   mailserverctl quota set SENDER QUOTA
//   mailserverctl quota del SENDER...
//   mailserverctl quota list [SEARCH]
//   mailserverctl quota export
//   mailserverctl attachment add|del TYPE...
//   mailserverctl attachment list [SEARCH]
//   mailserverctl attachment export
//   mailserverctl alias add DOMAIN ALIAS MEMBER...
//   mailserverctl alias del DOMAIN ALIAS [MEMBER...]
//   mailserverctl alias members|expand DOMAIN ALIAS
//   mailserverctl alias export|import DOMAIN PATH
//   mailserverctl file set KEY PATH [SCRIPT [ARG...]]
//   mailserverctl file delete KEY [PATH]
//   mailserverctl relay host|client|export ...   (see relay_commands.h)
//   mailserverctl spam show|set|apply|rule|blackwhite ...   (see spam_commands.h)
//   mailserverctl access add|del|list|import|export ...     (see access_commands.h)
//   mailserverctl scanner show|set ...                       (see scanner_commands.h)
//   mailserverctl av status|reload|extra-load|extra-unload|count|clear ...   (scanner_commands.h)
//   mailserverctl quarantine list|search|delete ...          (see quarantine_commands.h)
//   mailserverctl log|security-log count|list|search|filter|export ...   (see log_commands.h)
//   mailserverctl stats show|chart|security ..., analysis top ...   (see stats_commands.h)
//   mailserverctl personal show|forward|vacation|off USER ...       (see personal_commands.h)
//   mailserverctl domain-usage show|set|counters ...                 (see domain_usage_commands.h)
//   mailserverctl migration add|set|users|test|start|stop|status|log|schedule|remove ...
//                                                                    (see migration_commands.h)
//   mailserverctl active list|refresh ...                             (see active_commands.h)
//   mailserverctl global|dkim add|del|list ...                        (see global_commands.h)
//
// Exit status 0 on success; otherwise a message on stderr and 1 (2 for bad usage).
#include <cstdio>
#include <exception>
#include <string>
#include <vector>

#include "cluster/mailserver_cluster.h"
#include "kolt/exec.h"
#include "mailserverctl/access_commands.h"
#include "mailserverctl/active_commands.h"
#include "mailserverctl/alias_commands.h"
#include "mailserverctl/conf_commands.h"
#include "mailserverctl/domain_usage_commands.h"
#include "mailserverctl/file_commands.h"
#include "mailserverctl/global_commands.h"
#include "mailserverctl/log_commands.h"
#include "mailserverctl/migration_commands.h"
#include "mailserverctl/member_commands.h"
#include "mailserverctl/one_node_setup.h"
#include "mailserverctl/personal_commands.h"
#include "mailserverctl/quarantine_commands.h"
#include "mailserverctl/relay_commands.h"
#include "mailserverctl/scanner_commands.h"
#include "mailserverctl/settings_commands.h"
#include "mailserverctl/spam_commands.h"
#include "mailserverctl/stats_commands.h"
#include "mailserverctl/table_commands.h"
#include "mailserverctl/error.h"

using KOLT::QUILLON_SERVER::KOLTMailNodeCluster;
using KOLT::QUILLON_SERVER::Role;

using mailserverctl::Error;

namespace {

const char kClusterDaemon[] = "/var/packages/Quillon-Server/target/scripts/ClusterDaemon.sh";

int Usage() {
  fprintf(stderr,
          "usage: mailserverctl setup [--address IP]\n"
          "       mailserverctl member add|join|del|list|check ...\n"
          "       mailserverctl version publish|check\n"
          "       mailserverctl conf get KEY\n"
          "       mailserverctl conf set KEY VALUE [KEY VALUE ...]\n"
          "       mailserverctl cluster status\n"
          "       mailserverctl backend start|stop\n"
          "       mailserverctl settings show [--of postfix|imap|scanner|report]\n"
          "       mailserverctl settings set [--of postfix|imap|scanner|report] KEY VALUE "
          "[KEY VALUE ...]\n"
          "       mailserverctl settings service --of imap start|stop|restart|reload|status\n"
          "       mailserverctl domain add|del NAME\n"
          "       mailserverctl domain list\n"
          "       mailserverctl balancer elect|status\n"
          "       mailserverctl quota set SENDER QUOTA\n"
          "       mailserverctl quota del SENDER...\n"
          "       mailserverctl quota list [SEARCH]\n"
          "       mailserverctl quota export\n"
          "       mailserverctl attachment add|del TYPE...\n"
          "       mailserverctl attachment list [SEARCH]\n"
          "       mailserverctl attachment export\n"
          "       mailserverctl alias add DOMAIN ALIAS MEMBER...\n"
          "       mailserverctl alias del DOMAIN ALIAS [MEMBER...]\n"
          "       mailserverctl alias members|expand DOMAIN ALIAS\n"
          "       mailserverctl alias export|import DOMAIN PATH\n"
          "         (MEMBER: a user, user:NAME, group:NAME, alias:NAME or an address)\n"
          "       mailserverctl file set KEY PATH [SCRIPT [ARG...]]\n"
          "       mailserverctl file delete KEY [PATH]\n"
          "       mailserverctl relay host mode none|single|multiple\n"
          "       mailserverctl relay host set SERVER PORT [OPTION...]\n"
          "       mailserverctl relay host add sender|recipient SERVER PORT RULE... [OPTION...]\n"
          "       mailserverctl relay host del|enable|disable SERVICE\n"
          "       mailserverctl relay host list\n"
          "       mailserverctl relay client add network|domain PATTERN [DESCRIPTION]\n"
          "       mailserverctl relay client del|enable|disable network|domain PATTERN\n"
          "       mailserverctl relay client list\n"
          "       mailserverctl relay export\n"
          "       mailserverctl spam show|apply\n"
          "       mailserverctl spam set KEY VALUE [KEY VALUE ...]\n"
          "       mailserverctl spam rule list|import|enable|disable|delete ...\n"
          "       mailserverctl spam blackwhite add|del|list|import|export ...\n"
          "       mailserverctl access add|del|list|import|export ...\n"
          "       mailserverctl scanner show\n"
          "       mailserverctl scanner set KEY VALUE [KEY VALUE ...]\n"
          "       mailserverctl av status|reload|extra-load|extra-unload|count\n"
          "       mailserverctl av clear STATUS\n"
          "       mailserverctl av service start|stop|restart|status\n"
          "       mailserverctl quarantine list [--offset N] [--limit N]\n"
          "       mailserverctl quarantine search [OPTION...] [--offset N] [--limit N]\n"
          "       mailserverctl quarantine delete ID...\n"
          "       mailserverctl log|security-log count [KEYWORD]\n"
          "       mailserverctl log|security-log list|search|filter|export ...\n"
          "       mailserverctl stats show|chart hour|day|week|month [--png FILE] [--at TIME]\n"
          "       mailserverctl stats security --png FILE [--at TIME] [--days N]\n"
          "       mailserverctl analysis top senders|recipients|sender-domains|"
          "recipient-domains|refused ...\n"
          "       mailserverctl domain-usage show|set|counters DOMAIN ...\n"
          "       mailserverctl migration add|set|users|test|start|stop|status|log|schedule|"
          "remove ...\n"
          "       mailserverctl global|dkim add|del|list ...\n"
          "       mailserverctl active list [OPTION...]\n"
          "       mailserverctl active refresh\n"
          "       mailserverctl personal show|off USER\n"
          "       mailserverctl personal forward USER ADDRESS [--keep-copy yes|no]\n"
          "       mailserverctl personal vacation USER [--subject TEXT --body TEXT] "
          "[--sender ADDRESS] [--begin TIME] [--end TIME]\n");
  return 2;
}

const char *YesNo(bool b) { return b ? "yes" : "no"; }

int ClusterStatus() {
  KOLTMailNodeCluster node;
  const bool inited = node.isClusterInited();
  printf("inited:          %s\n", YesNo(inited));
  if (!inited) return 0;
  printf("healthy:         %s\n", YesNo(node.isClusterHealth(false)));
  printf("host id:         %s\n", node.getHostID().c_str());
  printf("host address:    %s\n", node.getHostIP().c_str());
  Role role;
  node.nodeRoleGet(role);
  std::string roles;
  if (role.mailer) roles += " mailer";
  if (role.storager) roles += " storager";
  if (role.balancer) roles += " balancer";
  printf("roles:          %s\n", roles.empty() ? " none" : roles.c_str());
  std::string master;
  node.getMasterBalancer(master);
  printf("master balancer: %s%s\n", master.c_str(), role.balancerMaster ? " (this node)" : "");
  printf("syncing:         %s\n", YesNo(node.isClusterSyncing()));
  return 0;
}

int Backend(const std::string &word) {
  if (word != "start" && word != "stop") return Usage();
  const int rc = KLIBCExec(kClusterDaemon, word.c_str(), nullptr, nullptr, 0);
  // The cached health must follow at once: writers consult it before they try the backend.
  KOLTMailNodeCluster node;
  node.isClusterHealth(false);
  if (rc != 0) return Error("ClusterDaemon.sh " + word + " failed with status " + std::to_string(rc));
  return 0;
}

int Run(const std::vector<std::string> &args) {
  if (args.empty()) return Usage();
  const std::string &command = args[0];
  if (command == "setup") {
    std::string address = "127.0.0.1";
    if (args.size() == 3 && args[1] == "--address") {
      address = args[2];
    } else if (args.size() != 1) {
      return Usage();
    }
    return mailserverctl::SetUpOneNode(address) ? 0 : 1;
  }
  if (command == "member") {
    return mailserverctl::MemberCommand(std::vector<std::string>(args.begin() + 1, args.end()));
  }
  if (command == "version") {
    return mailserverctl::VersionCommand(std::vector<std::string>(args.begin() + 1, args.end()));
  }
  if (command == "conf" && args.size() == 3 && args[1] == "get") {
    return mailserverctl::ConfGet(args[2]);
  }
  if (command == "conf" && args.size() >= 4 && args[1] == "set" && args.size() % 2 == 0) {
    return mailserverctl::ConfSet(std::vector<std::string>(args.begin() + 2, args.end()));
  }
  if (command == "cluster" && args.size() == 2 && args[1] == "status") return ClusterStatus();
  if (command == "backend" && args.size() == 2) return Backend(args[1]);
  if (command == "settings") {
    return mailserverctl::SettingsCommand(std::vector<std::string>(args.begin() + 1, args.end()));
  }
  if (command == "domain" && args.size() == 2 && args[1] == "list") {
    return mailserverctl::DomainCommand("list", "");
  }
  if (command == "domain" && args.size() == 3) return mailserverctl::DomainCommand(args[1], args[2]);
  if (command == "balancer" && args.size() == 2) return mailserverctl::BalancerCommand(args[1]);
  if (command == "file") return mailserverctl::FileCommand(args);
  if (command == "alias" && args.size() >= 4) {
    return mailserverctl::AliasCommand(std::vector<std::string>(args.begin() + 1, args.end()));
  }
  if (command == "relay") {
    return mailserverctl::RelayCommand(std::vector<std::string>(args.begin() + 1, args.end()));
  }
  if (command == "spam") {
    return mailserverctl::SpamCommand(std::vector<std::string>(args.begin() + 1, args.end()));
  }
  if (command == "access") {
    return mailserverctl::AccessCommand(std::vector<std::string>(args.begin() + 1, args.end()));
  }
  if (command == "scanner") {
    return mailserverctl::ScannerCommand(std::vector<std::string>(args.begin() + 1, args.end()));
  }
  if (command == "av") {
    return mailserverctl::AntiVirusCommand(std::vector<std::string>(args.begin() + 1, args.end()));
  }
  if (command == "quarantine") {
    return mailserverctl::QuarantineCommand(
        std::vector<std::string>(args.begin() + 1, args.end()));
  }
  if (command == "log") {
    return mailserverctl::MailLogCommand(std::vector<std::string>(args.begin() + 1, args.end()));
  }
  if (command == "global") {
    return mailserverctl::GlobalCommand(std::vector<std::string>(args.begin() + 1, args.end()));
  }
  if (command == "dkim") {
    return mailserverctl::DkimCommand(std::vector<std::string>(args.begin() + 1, args.end()));
  }
  if (command == "active") {
    return mailserverctl::ActiveCommand(std::vector<std::string>(args.begin() + 1, args.end()));
  }
  if (command == "domain-usage") {
    return mailserverctl::DomainUsageCommand(
        std::vector<std::string>(args.begin() + 1, args.end()));
  }
  if (command == "stats") {
    return mailserverctl::StatsCommand(std::vector<std::string>(args.begin() + 1, args.end()));
  }
  if (command == "analysis") {
    return mailserverctl::AnalysisCommand(std::vector<std::string>(args.begin() + 1, args.end()));
  }
  if (command == "migration") {
    return mailserverctl::MigrationCommand(std::vector<std::string>(args.begin() + 1, args.end()));
  }
  if (command == "personal") {
    return mailserverctl::PersonalCommand(std::vector<std::string>(args.begin() + 1, args.end()));
  }
  if (command == "security-log") {
    return mailserverctl::SecurityLogCommand(
        std::vector<std::string>(args.begin() + 1, args.end()));
  }
  if (command == "quota" || command == "attachment") {
    const std::string word = args.size() >= 2 ? args[1] : "";
    const std::vector<std::string> rest(args.begin() + (args.size() >= 2 ? 2 : 1), args.end());
    const std::string search = rest.empty() ? "" : rest[0];
    const bool quota = command == "quota";
    if (word == "set" && quota && rest.size() == 2) {
      return mailserverctl::QuotaSet(rest[0], rest[1]);
    }
    if (word == "add" && !quota && !rest.empty()) return mailserverctl::AttachmentAdd(rest);
    if (word == "del" && !rest.empty()) {
      return quota ? mailserverctl::QuotaDelete(rest) : mailserverctl::AttachmentDelete(rest);
    }
    if (word == "list" && rest.size() <= 1) {
      return quota ? mailserverctl::QuotaList(search) : mailserverctl::AttachmentList(search);
    }
    if (word == "export" && rest.empty()) {
      return quota ? mailserverctl::QuotaExport() : mailserverctl::AttachmentExport();
    }
  }
  return Usage();
}

// The typed settings throw when a stored value can't be read as its type says. Every command reads
// them before it writes, so it ends here with nothing changed.
int Unreadable(const std::exception &e) {
  const std::string damaged = mailserverctl::DamagedSetting();
  if (damaged.empty()) return Error(std::string("the stored settings cannot be read: ") + e.what());
  return Error("the stored settings cannot be read: " + damaged +
               "; set it right with `mailserverctl conf set`");
}

}  // namespace

int main(int argc, char **argv) {
  try {
    return Run(std::vector<std::string>(argv + 1, argv + argc));
  } catch (const std::exception &e) {
    return Unreadable(e);
  }
}
