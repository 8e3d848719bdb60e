#include "core/mail_dir.h"

#include <sys/stat.h>

#include "core/mail_conf.h"
#include "kolt/err.h"
#include "kolt/workgroup.h"

namespace {

const char kMailRoot[] = "/var/spool/mail";
const char kLocalDomain[] = "local";

bool IsPathComponent(const std::string &name) {
  return !name.empty() && name != "." && name != ".." && name.find('/') == std::string::npos &&
         name.find('\0') == std::string::npos;
}

}  // namespace

int mailDirRootPathGet(std::string &root) {
  struct stat st;
  // stat, not lstat: distributions often make /var/spool/mail a link to /var/mail.
  if (stat(kMailRoot, &st) != 0 || !S_ISDIR(st.st_mode)) {
    KLIBC_ERR_SET(KLIBC_ERR_NOT_FOUND);
    return -1;
  }
  root = kMailRoot;
  return 0;
}

int smtpAccountDomainGet(std::string &domain) {
  std::string type, name;
  if (mailConfGet("account_type", type) != 0) return -1;
  if (type.empty() || type == "local") {
    domain = kLocalDomain;
    return 0;
  }
  if (type == "ldap") {
    if (mailConfGet("acc_domain_name", name) != 0 || name.empty()) {
      KLIBC_ERR_SET(KLIBC_ERR_NOT_FOUND);
      return -1;
    }
  } else if (type == "win") {
    if (mailConfGet("win_domain_short_name", name) != 0) return -1;
    if (name.empty()) {
      // A member that was never given the domain's short name goes by the machine's workgroup.
      char workgroup[256];
      if (KOLTWorkgroupGet(workgroup, sizeof(workgroup)) != 0) return -1;
      name = workgroup;
    }
  } else {
    KLIBC_ERR_SET(KLIBC_ERR_BAD_FORMAT);
    return -1;
  }
  domain = name;
  return 0;
}

int mailDirDomainPathGet(const std::string &root, std::string &domainPath) {
  std::string domain;
  if (root.empty() || smtpAccountDomainGet(domain) != 0) return -1;
  if (!IsPathComponent(domain)) {
    KLIBC_ERR_SET(KLIBC_ERR_BAD_FORMAT);
    return -1;
  }
  domainPath = root + "/" + domain;
  return 0;
}

int uidGetPath(const std::string &domainPath, uid_t uid, std::string &path) {
  if (domainPath.empty()) {
    KLIBC_ERR_SET(KLIBC_ERR_BAD_PARAM);
    return -1;
  }
  path = domainPath + "/" + std::to_string(uid);
  return 0;
}

int mailDirGet(uid_t uid, std::string &path) {
  std::string root, domainPath;
  if (mailDirRootPathGet(root) != 0 || mailDirDomainPathGet(root, domainPath) != 0) return -1;
  return uidGetPath(domainPath, uid, path);
}
