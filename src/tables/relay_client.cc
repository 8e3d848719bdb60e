#include "tables/relay_host.h"

#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <sstream>

#include "eai/punycode.h"
#include "foundation/cidr.h"
#include "foundation/files.h"
#include "foundation/log.h"
#include "foundation/privilege.h"
#include "foundation/strings.h"
#include "kolt/exec.h"

using KOLT::QUILLON_SERVER::ConvertToPunycodeOrUTF8;

namespace {

constexpr char kNetworkPath[] = "/var/packages/Quillon-Server/target/etc/trust_network";
constexpr char kDomainPath[] = "/var/packages/Quillon-Server/target/etc/relay_domains";
constexpr char kPostmap[] = "/var/packages/Quillon-Server/target/sbin/postmap";
constexpr char kPostconf[] = "/var/packages/Quillon-Server/target/sbin/postconf";
constexpr char kValuePrefix[] = "mynetworks =";

const char *ListKey(const std::string &listType) {
  if (listType == "network") return "smtp_relay_host_network";
  if (listType == "domain") return "smtp_relay_host_domain";
  return nullptr;
}

// A temporary file beside `target`, to be renamed over it; locked while the object lives.
struct TmpFile {
  explicit TmpFile(const char *target) { fd = mkTemporaryBeside(target, path); }
  ~TmpFile() {
    if (fd >= 0) close(fd);
    unlink(path.c_str());
  }
  std::string path;
  int fd;
};

}  // namespace

int RelayClientInfo::ExportPattern(RelayHostFileType fileType, std::string &out) const {
  out.clear();
  if (fileType == RELAY_NETWORK_FILE) {
    if (convertToCIDR(pattern, out) < 0) {
      maillog(3, "%s:%d convert to CIDR pattern failed: %s", QSV_FILE, __LINE__, pattern.c_str());
      return -1;
    }
    out += " OK";
    return 0;
  }
  if (fileType == RELAY_DOMAIN_FILE) {
    // Postfix compares keys byte by byte: both spellings of a domain must be there.
    std::string other;
    if (ConvertToPunycodeOrUTF8(pattern, other)) out = other + " OK\n";
    out += pattern + " OK";
    return 0;
  }
  maillog(3, "%s:%d [Relay Host] Incorrect write file type", QSV_FILE, __LINE__);
  return -1;
}

int RelayClient::LoadFresh() {
  // These two lists are appended to by every load; keep a reused object from doubling them.
  ClearGreylistRule();
  ClearPostScreenDNSBL();
  if (LoadSettings() != 0) {
    maillog(3, "%s:%d [Relay Host] postfix loading failed", QSV_FILE, __LINE__);
    return -1;
  }
  return 0;
}

int RelayClient::getRelayClient(const std::string &listType, std::list<RelayClientInfo> &out) {
  if (LoadFresh() != 0) return -1;
  const char *key = ListKey(listType);
  if (key == nullptr) {
    maillog(3, "%s:%d [Relay Host] Incorrect list type %s", QSV_FILE, __LINE__, listType.c_str());
    return -1;
  }
  Json::Value list;
  Json::CharReaderBuilder builder;
  std::string errors;
  std::istringstream in(boost::any_cast<Value<std::string>>(Get(key)).value);
  if (!Json::parseFromStream(builder, in, &list, &errors) || !list.isArray()) {
    maillog(3, "%s:%d [Relay Host] Relay client list corrupt", QSV_FILE, __LINE__);
    return -1;
  }
  for (const Json::Value &element : list) {
    if (!element.isObject()) {
      maillog(3, "%s:%d [Relay Host] Relay client list corrupt", QSV_FILE, __LINE__);
      return -1;
    }
    const Json::Value &pattern = element["pattern"];
    const Json::Value &enable = element["enable"];
    const Json::Value &description = element["description"];
    out.push_back({pattern.isString() ? pattern.asString() : "", enable.isBool() && enable.asBool(),
                   description.isString() ? description.asString() : ""});
  }
  return 0;
}

int RelayClient::setRelayClient(const std::string &listType, const Json::Value &list) {
  if (LoadFresh() != 0) return -1;
  const char *key = ListKey(listType);
  if (key == nullptr) {
    maillog(3, "%s:%d [Relay Host] Incorrect list type %s", QSV_FILE, __LINE__, listType.c_str());
    return -1;
  }
  Json::FastWriter writer;
  writer.omitEndingLineFeed();
  Set(key, boost::any(Value<std::string>(writer.write(list))));
  if (SaveSettings({}) != 0) {
    maillog(3, "%s:%d [Relay Host] postfix save settings failed", QSV_FILE, __LINE__);
    return -1;
  }
  return 0;
}

int RelayClient::getDefaultMynetworks(std::vector<std::string> &out) {
  FILE *in = KLIBCPopen(kPostconf, "r", "-d", "mynetworks", nullptr);
  if (in == nullptr) {
    maillog(3, "%s:%d [Relay Host] postconf get default value failed", QSV_FILE, __LINE__);
    return -1;
  }
  // A whole line, however long: a machine with many interfaces has a long list, and a cut one
  // would trust half an address.
  char *line = nullptr;
  size_t size = 0;
  bool found = false;
  while (getline(&line, &size, in) >= 0) {
    if (strncmp(line, kValuePrefix, sizeof(kValuePrefix) - 1) == 0) {
      found = true;
      break;
    }
  }
  int rc = -1;
  if (!found) {
    maillog(3, "%s:%d [Relay Host] postconf get default value failed", QSV_FILE, __LINE__);
  } else {
    line[strcspn(line, "\n")] = '\0';
    const char *value = strlen(line) > sizeof(kValuePrefix) ? line + sizeof(kValuePrefix) : "";
    std::vector<std::string> networks;
    stringSplit(networks, value, " ");
    networks.erase(std::remove(networks.begin(), networks.end(), ""), networks.end());
    if (networks.empty()) {
      maillog(3, "%s:%d [Relay Host] mynetworks default value empty", QSV_FILE, __LINE__);
    } else {
      out.insert(out.end(), networks.begin(), networks.end());
      rc = 0;
    }
  }
  free(line);
  // Read to the end so that postconf is not stopped by a closed pipe.
  char rest[512];
  while (fread(rest, 1, sizeof(rest), in) > 0) {
  }
  if (KLIBCPclose(in) != 0) {
    maillog(3, "%s:%d [Relay Host] close file descriptor failed", QSV_FILE, __LINE__);
    rc = -1;
  }
  return rc;
}

int RelayClient::exportFile(const std::string &path, RelayHostFileType fileType) {
  FILE *out = fopen(path.c_str(), "we");
  if (out == nullptr) {
    maillog(3, "%s:%d [Relay Host] open file %s fail", QSV_FILE, __LINE__, path.c_str());
    return -1;
  }
  int rc = 0;
  std::list<RelayClientInfo> entries;
  if (fileType != RELAY_NETWORK_FILE && fileType != RELAY_DOMAIN_FILE) {
    maillog(3, "%s:%d [Relay Host] Incorrect write file type", QSV_FILE, __LINE__);
    rc = -1;
  } else if (getRelayClient(fileType == RELAY_NETWORK_FILE ? "network" : "domain", entries) != 0) {
    maillog(3, "%s:%d [Relay Host] get relay client failed", QSV_FILE, __LINE__);
    rc = -1;
  }

  if (rc == 0 && fileType == RELAY_NETWORK_FILE) {
    // getRelayClient has just loaded the settings.
    if (boost::any_cast<Value<bool>>(Get("smtp_ignore_lan_auth")).value) {
      std::vector<std::string> networks;
      if (getDefaultMynetworks(networks) != 0) {
        maillog(3, "%s:%d [Relay Host] Get mynetworks default value failed", QSV_FILE, __LINE__);
        rc = -1;
      }
      for (const std::string &network : networks) fprintf(out, "%s OK\n", network.c_str());
    } else {
      fprintf(out, "127.0.0.0/8 OK\n[::1]/128 OK\n");
    }
  }

  for (const RelayClientInfo &entry : entries) {
    if (rc != 0) break;
    if (!entry.enabled) continue;
    std::string text;
    if (entry.ExportPattern(fileType, text) != 0) {
      maillog(3, "%s:%d [Relay Host] Export pattern %s failed", QSV_FILE, __LINE__,
              entry.pattern.c_str());
      rc = -1;
      break;
    }
    fprintf(out, "%s\n", text.c_str());
  }

  const bool flushed = fflush(out) == 0 && fsync(fileno(out)) == 0;
  if (fclose(out) != 0 || !flushed) {
    maillog(3, "%s:%d write %s fail, %s", QSV_FILE, __LINE__, path.c_str(), strerror(errno));
    rc = -1;
  }
  return rc;
}

int RelayClient::exportRelayMap() {
  TmpFile networks(kNetworkPath);
  if (networks.fd < 0) {
    maillog(3, "%s:%d [Relay Host] create file %s failed", QSV_FILE, __LINE__, kNetworkPath);
    return -1;
  }
  TmpFile domains(kDomainPath);
  if (domains.fd < 0) {
    maillog(3, "%s:%d [Relay Host] create file %s failed", QSV_FILE, __LINE__, kDomainPath);
    return -1;
  }
  if (exportFile(networks.path, RELAY_NETWORK_FILE) != 0 ||
      exportFile(domains.path, RELAY_DOMAIN_FILE) != 0) {
    return 1;
  }
  int rc;
  ENTERCriticalSection;
  rc = renameTmpFileAndChmod(networks.path.c_str(), kNetworkPath);
  if (rc == 0) rc = renameTmpFileAndChmod(domains.path.c_str(), kDomainPath);
  // What writers killed before their rename left behind goes with this one's success.
  if (rc == 0) {
    removeStaleTemporaries(kNetworkPath);
    removeStaleTemporaries(kDomainPath);
  }
  LEAVECriticalSection;
  if (rc != 0) return 1;
  // The new domains are in place whatever postmap says; a failure shows in its own log.
  KLIBCExec(kPostmap, kDomainPath, nullptr, nullptr, KLIBC_EXEC_QUIET_WAIT);
  return 0;
}
