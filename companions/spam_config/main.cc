// kolt_set_config: writes a daemon's configuration from what the library keeps. The library runs
// it after saving settings:
//
//   kolt_set_config spam
//
// writes the spam filter's site configuration (the nine settings, the enabled custom rule files
// and the black and white list) into the package's own folder, which the filter daemon is started
// with, checks it with the filter's lint, and puts it in place only when the lint is clean. A
// running filter then reloads. Exit 0 when the new configuration is the live one, 1 otherwise, with
// the reason on standard error and in the system log; a refused configuration changes nothing.
#include <fcntl.h>
#include <signal.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <list>
#include <set>
#include <string>
#include <utility>
#include <vector>

#include "foundation/mailserver_db_schema.h"
#include "kolt/exec.h"
#include "security/spam.h"
#include "site_config.h"
#include "site_dir.h"

namespace {

constexpr char kSiteDir[] = "/var/packages/Quillon-Server/target/etc/spamassassin";
constexpr char kRulesDir[] = "/var/packages/Quillon-Server/etc/rules";
constexpr char kSpamAssassin[] = "/var/packages/Quillon-Server/target/bin/spamassassin";
constexpr char kSpamDaemon[] = "/var/packages/Quillon-Server/target/scripts/SpamDaemon.sh";
constexpr char kLockDir[] = "/var/lock/quillon_server";
constexpr char kLockFile[] = "/var/lock/quillon_server/spam_config.lock";
// Large published rule sets run to a few megabytes; a file far beyond that is no rule file.
constexpr off_t kMaxRuleFile = 32 << 20;

using spamconf::Printable;

// Reads the rule file `name` of the open rules folder into `text`. False (with a note) for a name
// that is no plain file of the folder: a link, a folder, a device, or a name with a "/" or "..".
bool ReadRule(int rulesDir, const std::string &name, std::string &text) {
  if (!spamconf::PlainFileName(name)) {
    CONF_NOTE("rule \"%s\" skipped: not a plain file name", Printable(name).c_str());
    return false;
  }
  // No link is followed, and opening a FIFO does not wait for a writer.
  const int fd = openat(rulesDir, name.c_str(),
                        O_RDONLY | O_NOFOLLOW | O_NONBLOCK | O_NOCTTY | O_CLOEXEC);
  if (fd < 0) {
    CONF_NOTE("rule \"%s\" skipped: cannot open it in %s: %s", Printable(name).c_str(), kRulesDir,
         strerror(errno));
    return false;
  }
  struct stat st;
  if (fstat(fd, &st) != 0 || !S_ISREG(st.st_mode) || st.st_size > kMaxRuleFile) {
    CONF_NOTE("rule \"%s\" skipped: not a regular file of at most %lld bytes", Printable(name).c_str(),
         static_cast<long long>(kMaxRuleFile));
    close(fd);
    return false;
  }
  text.clear();
  char buffer[65536];
  ssize_t got;
  while ((got = read(fd, buffer, sizeof(buffer))) > 0) {
    text.append(buffer, static_cast<size_t>(got));
    if (text.size() > static_cast<size_t>(kMaxRuleFile)) break;
  }
  close(fd);
  if (got < 0 || text.size() > static_cast<size_t>(kMaxRuleFile)) {
    CONF_NOTE("rule \"%s\" skipped: cannot read it whole", Printable(name).c_str());
    return false;
  }
  return true;
}

// The site files of the enabled rules. -1 when an enabled rule asks for something no rule may.
int RuleFiles(const std::list<std::pair<std::string, bool>> &rules,
              std::vector<spamconf::SiteFile> &files) {
  int rulesDir = -1;
  std::set<std::string> taken;
  for (const auto &rule : rules) {
    if (!rule.second) continue;
    if (rulesDir < 0) {
      rulesDir = open(kRulesDir, O_RDONLY | O_DIRECTORY | O_CLOEXEC);
      if (rulesDir < 0) {
        CONF_NOTE("enabled rules skipped: cannot open %s: %s", kRulesDir, strerror(errno));
        return 0;
      }
    }
    std::string text;
    if (!ReadRule(rulesDir, rule.first, text)) continue;
    const std::string directive = spamconf::ForbiddenDirective(text);
    if (!directive.empty()) {
      CONF_NOTE("rule \"%s\" uses \"%s\", which no rule file may: the configuration is not written",
           Printable(rule.first).c_str(), Printable(directive).c_str());
      close(rulesDir);
      return -1;
    }
    // The filter reads only the files ending in ".cf", in name order; the prefix keeps rules apart
    // from our own files whatever they are called, and puts them before "local.cf", so that a
    // rule file that sets a score threshold of its own doesn't override the suite's settings.
    const std::string &name = rule.first;
    const bool hasSuffix = name.size() > 3 && name.compare(name.size() - 3, 3, ".cf") == 0;
    const std::string fileName = "custom_" + name + (hasSuffix ? "" : ".cf");
    if (!taken.insert(fileName).second) {
      CONF_NOTE("rule \"%s\" skipped: another rule already goes in as %s", Printable(name).c_str(),
           Printable(fileName).c_str());
      continue;
    }
    files.push_back({fileName, text});
  }
  if (rulesDir >= 0) close(rulesDir);
  return 0;
}

int WriteSpamConfig() {
  Spam *spam = Spam::getInstance(kMailServerDBPath);
  if (spam == nullptr) {
    CONF_NOTE("cannot read the spam filter's settings and lists (%s)", kMailServerDBPath);
    return -1;
  }
  const spamconf::Settings settings = {
      spam->getRequiredScore(),      spam->isEnableRewrite(),     spam->getRewriteSubject(),
      spam->getReportMachanism(),    spam->isUseAutoLearn(),      spam->getSpamLearnThreshold(),
      spam->getNonSpamLearnThreshold(), spam->isUseAutoWhiteList(),
  };
  std::vector<spamconf::SiteFile> files(3);
  files[0] = {"init.pre", spamconf::PluginsText(settings.autoWhitelist)};
  std::string why;
  files[1].name = "local.cf";
  if (!spamconf::SettingsText(settings, files[1].text, why)) {
    CONF_NOTE("the spam filter's settings can't be written: %s; nothing changed", why.c_str());
    return -1;
  }
  // The export gives an empty list when the table can't be read; the count tells the two apart.
  const BlackWhiteFilter all{0, 0, TYPE_ALL, NAME_TYPE_ALL, BLACK_WHITE_KNOWN, "count(*)", ""};
  Json::Value lists;
  if (spam->countQueryData(all) < 0 || spam->exportBlackWhite(lists, false) != 0) {
    CONF_NOTE("cannot read the black and white list; nothing changed");
    return -1;
  }
  int listed = 0;
  files[2] = {"blackwhite.cf", spamconf::ListsText(lists, listed)};
  if (RuleFiles(spam->getSpamRules(), files) != 0) return -1;

  // The filter runs without its learned data rather than not at all.
  spamconf::MakeLearnedDataDir(spamconf::kLearnedDataDir);

  mkdir(kLockDir, 0755);
  const int lock = open(kLockFile, O_RDWR | O_CREAT | O_CLOEXEC, 0600);
  if (lock < 0 || flock(lock, LOCK_EX) != 0) {
    CONF_NOTE("cannot lock %s: %s", kLockFile, strerror(errno));
    if (lock >= 0) close(lock);
    return -1;
  }
  const int placed = spamconf::ReplaceSiteDir(kSiteDir, files, kSpamAssassin);
  // Released before the daemon script runs, which may itself run this program to start.
  close(lock);
  if (placed != 0) return -1;

  if (KLIBCExec(kSpamDaemon, "status", nullptr, nullptr, KLIBC_EXEC_QUIET_WAIT) == 0 &&
      KLIBCExec(kSpamDaemon, "reload", nullptr, nullptr,
                KLIBC_EXEC_STDIN_NULL | KLIBC_EXEC_STDOUT_NULL) != 0) {
    CONF_NOTE("the new configuration is in place, but the running filter did not reload it");
    return -1;
  }
  return 0;
}

}  // namespace

int main(int argc, char **argv) {
  if (argc != 2 || strcmp(argv[1], "spam") != 0) {
    fprintf(stderr,
            "usage: kolt_set_config spam\n"
            "  writes the spam filter's configuration from the mail server's settings\n");
    return 1;
  }
  umask(022);
  signal(SIGPIPE, SIG_IGN);
  return WriteSpamConfig() == 0 ? 0 : 1;
}
