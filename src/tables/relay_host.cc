#include "tables/relay_client.h"

#include <dirent.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <climits>
#include <cstdio>
#include <cstring>
#include <sstream>

#include "eai/punycode.h"
#include "foundation/files.h"
#include "foundation/log.h"
#include "foundation/privilege.h"
#include "kolt/crypt.h"
#include "kolt/exec.h"

using KOLT::QUILLON_SERVER::ConvertToPunycode;
using KOLT::QUILLON_SERVER::ConvertToPunycodeOrUTF8;

namespace {

constexpr char kEtc[] = "/var/packages/Quillon-Server/target/etc/";
constexpr char kRelayDir[] = "/var/packages/Quillon-Server/target/etc/relay/";
constexpr char kPostmap[] = "/var/packages/Quillon-Server/target/sbin/postmap";
constexpr char kHostTypeKey[] = "smtp_relay_client_host_type";
constexpr char kSingleKey[] = "smtp_relay_client_single";
constexpr char kSenderKey[] = "smtp_relay_client_sender";
constexpr char kRecipientKey[] = "smtp_relay_client_recipient";
constexpr size_t kCipherBuffer = 345;
constexpr int kMaxPort = 65535;

// The settings are the caller's JSON: read them without letting a wrong type throw.
std::string Text(const Json::Value &value) { return value.isString() ? value.asString() : ""; }
bool Flag(const Json::Value &value) { return value.isBool() && value.asBool(); }
int Number(const Json::Value &value) {
  if (value.isInt()) return value.asInt();
  // Too large for an int is out of range for a port anyway.
  return value.isUInt() || value.isInt64() || value.isUInt64() ? INT_MAX : -1;
}

bool Parse(const std::string &text, Json::Value &out) {
  Json::CharReaderBuilder builder;
  std::string errors;
  std::istringstream in(text);
  return Json::parseFromStream(builder, in, &out, &errors);
}

std::string Write(const Json::Value &value) {
  Json::FastWriter writer;
  writer.omitEndingLineFeed();
  return writer.write(value);
}

std::string Punycode(const std::string &name) {
  std::string converted;
  return ConvertToPunycode(name, converted) == 0 ? converted : name;
}

bool Decipher(const std::string &cipher, std::string &plain) {
  char buffer[kCipherBuffer] = {0};
  if (!KLIBCCryptSzDecrypt(cipher.c_str(), buffer, sizeof(buffer))) {
    maillog(3, "%s:%d KLIBCCryptSzDecrypt fail", QSV_FILE, __LINE__);
    return false;
  }
  plain = buffer;
  return true;
}

bool Encipher(Json::Value &host) {
  char buffer[kCipherBuffer] = {0};
  if (!KLIBCCryptSzEncrypt(Text(host["auth_password"]).c_str(), buffer, sizeof(buffer))) {
    maillog(3, "%s:%d relay password encrypt fail", QSV_FILE, __LINE__);
    return false;
  }
  host["auth_password"] = buffer;
  return true;
}

const char *ListKey(const std::string &listType) {
  if (listType == "sender") return kSenderKey;
  if (listType == "recipient") return kRecipientKey;
  return nullptr;
}

std::string Setting(Postfix &postfix, const char *key) {
  return boost::any_cast<Value<std::string>>(postfix.Get(key)).value;
}

bool CloseFile(FILE *out, const std::string &path) {
  bool ok = fflush(out) == 0 && fsync(fileno(out)) == 0;
  ok = fclose(out) == 0 && ok;
  if (!ok) maillog(3, "%s:%d write %s fail, %s", QSV_FILE, __LINE__, path.c_str(), strerror(errno));
  return ok;
}

}  // namespace

int RelayHostInfo::Rule::ExportRule(Type type, std::string &out, bool convert) const {
  if (rule_type != "address" && rule_type != "domain") {
    maillog(3, "%s:%d [Relay Client] Rule type is neither a domain nor an address", QSV_FILE,
            __LINE__);
    return -1;
  }
  if (type != SENDER && type != RECIPIENT) {
    maillog(3, "%s:%d [Relay Client] List type is neither sender nor recipient", QSV_FILE,
            __LINE__);
    return -1;
  }
  std::string text = pattern;
  int rc = 0;
  std::string other;
  if (convert && ConvertToPunycodeOrUTF8(pattern, other)) {
    text = other;
    rc = 1;
  }
  // The sender map is looked up by address; "@domain" is how it names a whole domain.
  out = (rule_type == "domain" && type == SENDER) ? "@" + text : text;
  return rc;
}

std::string RelayHostInfo::ExportHostInfo() const {
  if (server.empty() || port >= kMaxPort + 1 || port <= 0) {
    maillog(3, "%s:%d [Relay Client] empty host or incorrect port number", QSV_FILE, __LINE__);
    return "";
  }
  return "[" + Punycode(server) + "]:" + std::to_string(port);
}

std::string RelayHostInfo::ExportAuth() const {
  const std::string host = ExportHostInfo();
  if (!enable_auth || !enabled || auth_name.empty() || auth_password.empty()) {
    maillog(3, "%s:%d [Relay Client] Host authentication info lost", QSV_FILE, __LINE__);
    return "";
  }
  if (host.empty()) return "";
  return host + " " + auth_name + ":" + auth_password;
}

int RelayHostInfo::ExportPattern(Type type, std::string &out) const {
  out.clear();
  const std::string host = ExportHostInfo();
  if (host.empty()) return -1;
  if (!enabled) return 0;
  const std::string target = " " + service_name + ":" + host + "\n";
  for (const Rule &rule : rules) {
    // Postfix compares keys byte by byte, so a pattern with two spellings is written in both.
    std::string key;
    int rc = rule.ExportRule(type, key, true);
    if (rc == 1) {
      out += key + target;
      rc = rule.ExportRule(type, key, false);
    }
    if (rc < 0) return -1;
    out += key + target;
  }
  return 0;
}

int RelayHost::LoadFresh() {
  // These two lists are appended to by every load; a second load on this object would double
  // them, and the next save would store them doubled.
  ClearGreylistRule();
  ClearPostScreenDNSBL();
  if (LoadSettings() != 0) {
    maillog(3, "%s:%d [Relay Client] postfix loading failed", QSV_FILE, __LINE__);
    return -1;
  }
  return 0;
}

int RelayHost::getRelayHostType(std::string &type) {
  if (LoadFresh() != 0) return -1;
  Json::Value value;
  if (!Parse(Setting(*this, kHostTypeKey), value) || !value.isObject()) {
    maillog(3, "%s:%d [Relay Client] Wrong host type format", QSV_FILE, __LINE__);
    return -1;
  }
  const std::string found = Text(value["host_type"]);
  if (found != "single" && found != "multiple" && found != "none") {
    maillog(3, "%s:%d [Relay Client] Wrong host type value", QSV_FILE, __LINE__);
    return -1;
  }
  type = found;
  return 0;
}

int RelayHost::setRelayHostType(const Json::Value &value) {
  if (LoadFresh() != 0) return -1;
  Set(kHostTypeKey, boost::any(Value<std::string>(Write(value))));
  if (SaveSettings({}) != 0) {
    maillog(3, "%s:%d [Relay Client] postfix save settings failed", QSV_FILE, __LINE__);
    return -1;
  }
  return 0;
}

int RelayHost::getSingleRelayHost(RelayHostInfo &info, bool &isEmpty) {
  if (LoadFresh() != 0) return -1;
  Json::Value value;
  if (!Parse(Setting(*this, kSingleKey), value) || !(value.isObject() || value.isNull())) {
    maillog(3, "%s:%d [Relay Client] single host info corrupt", QSV_FILE, __LINE__);
    return -1;
  }
  if (value.empty()) {
    isEmpty = true;
    return 0;
  }
  std::string password;
  if (!Decipher(Text(value["auth_password"]), password)) return -1;
  info.server = Text(value["server"]);
  info.port = Number(value["port"]);
  info.security_connection = Flag(value["security_connection"]);
  info.enable_auth = Flag(value["enable_auth"]);
  info.auth_name = Text(value["auth_name"]);
  info.auth_password = password;
  info.enabled = true;
  isEmpty = false;
  return 0;
}

int RelayHost::getRelayHost(const std::string &listType, std::list<RelayHostInfo> &hosts) {
  if (LoadFresh() != 0) return -1;
  const char *key = ListKey(listType);
  if (key == nullptr) {
    maillog(3, "%s:%d [Relay Client] Incorrect list type %s", QSV_FILE, __LINE__, listType.c_str());
    return -1;
  }
  Json::Value list;
  if (!Parse(Setting(*this, key), list) || !list.isArray()) {
    maillog(3, "%s:%d [Relay Client] host list corrupt", QSV_FILE, __LINE__);
    return -1;
  }
  for (const Json::Value &element : list) {
    if (!element.isObject()) {
      maillog(3, "%s:%d [Relay Client] host list corrupt", QSV_FILE, __LINE__);
      return -1;
    }
    RelayHostInfo info;
    for (const Json::Value &rule : element["rule_list"]) {
      if (rule.isObject()) info.rules.push_back({Text(rule["rule_type"]), Text(rule["pattern"])});
    }
    if (!Decipher(Text(element["auth_password"]), info.auth_password)) return -1;
    info.server = Text(element["server"]);
    info.port = Number(element["port"]);
    info.description = Text(element["description"]);
    info.security_connection = Flag(element["security_connection"]);
    info.enable_auth = Flag(element["enable_auth"]);
    info.auth_name = Text(element["auth_name"]);
    info.service_name = Text(element["service_name"]);
    info.enabled = Flag(element["enable"]);
    hosts.push_back(info);
  }
  return 0;
}

int RelayHost::setSingleRelayHost(Json::Value &value) {
  if (LoadFresh() != 0) return -1;
  if (!value.isObject()) value = Json::Value(Json::objectValue);
  if (!validHostName(Text(value["server"]))) {
    maillog(3, "%s:%d [Relay Client] single host name invalid", QSV_FILE, __LINE__);
    return -1;
  }
  if (!Encipher(value)) return -1;
  value["service_name"] = "";
  Set(kSingleKey, boost::any(Value<std::string>(Write(value))));
  if (SaveSettings({}) != 0) {
    maillog(3, "%s:%d [Relay Client] postfix save settings failed", QSV_FILE, __LINE__);
    return -1;
  }
  return 0;
}

int RelayHost::setRelayHost(const std::string &listType, Json::Value &hosts) {
  if (LoadFresh() != 0) return -1;
  if (!hosts.isArray()) {
    maillog(3, "%s:%d [Relay Client] host list corrupt", QSV_FILE, __LINE__);
    return -1;
  }
  for (Json::ArrayIndex i = 0; i < hosts.size(); ++i) {
    Json::Value &host = hosts[i];
    if (!host.isObject()) host = Json::Value(Json::objectValue);
    const std::string server = Text(host["server"]);
    if (!validHostName(server)) {
      maillog(3, "%s:%d [Relay Client] multiple relay host hostname %s invalid", QSV_FILE, __LINE__,
              server.c_str());
      return -1;
    }
    if (!Encipher(host)) return -1;
    host["service_name"] = "relay-" + listType + std::to_string(i);
  }
  const char *key = ListKey(listType);
  if (key == nullptr) {
    maillog(3, "%s:%d [Relay Client] Incorrect list type %s", QSV_FILE, __LINE__, listType.c_str());
    return -1;
  }
  Set(key, boost::any(Value<std::string>(Write(hosts))));
  if (SaveSettings({}) != 0) {
    maillog(3, "%s:%d [Relay Client] postfix save settings failed", QSV_FILE, __LINE__);
    return -1;
  }
  return 0;
}

bool RelayHost::validHostName(const std::string &host) {
  // A relay that is this server itself would loop every mail back to it.
  if (Punycode(Setting(*this, "smtp_hostname")) == Punycode(host)) {
    maillog(3, "%s:%d [Relay Client] relay hostname cannot be the same as hostname", QSV_FILE,
            __LINE__);
    return false;
  }
  if (IsLocalDomain(host)) {
    maillog(3, "%s:%d [Relay Client] relay hostname cannot be the same as doamin name", QSV_FILE,
            __LINE__);
    return false;
  }
  return true;
}

int RelayHost::exportFile(const std::string &path, RelayClientFileType fileType,
                          std::list<RelayHostInfo> hosts) {
  FILE *out = fopen(path.c_str(), "we");
  if (out == nullptr) {
    maillog(3, "%s:%d [Relay Client] open file %s fail", QSV_FILE, __LINE__, path.c_str());
    return -1;
  }
  int rc = 0;
  for (const RelayHostInfo &host : hosts) {
    std::string text;
    if (fileType == RELAY_SENDER_MAP || fileType == RELAY_RECIPIENT_MAP) {
      const auto type =
          fileType == RELAY_SENDER_MAP ? RelayHostInfo::SENDER : RelayHostInfo::RECIPIENT;
      if (host.ExportPattern(type, text) == -1) {
        rc = -1;
        break;
      }
    } else if (fileType == RELAY_PASSWORD_MAP) {
      if (host.enable_auth) text = host.ExportAuth();
    } else {
      maillog(3, "%s:%d [Relay Client] Incorrect relay file type", QSV_FILE, __LINE__);
      rc = -1;
      break;
    }
    if (!text.empty()) fprintf(out, "%s\n", text.c_str());
  }
  if (!CloseFile(out, path)) rc = -1;
  return rc;
}

int RelayHost::exportRelayHost(std::string path, RelayClientFileType fileType,
                               std::list<RelayHostInfo> hosts) {
  std::string tmp;
  const int fd = mkTemporaryBeside(path, tmp);
  if (fd < 0) {
    maillog(3, "%s:%d [Relay Client] mkstemp %s failed", QSV_FILE, __LINE__, tmp.c_str());
    unlink(tmp.c_str());
    return -1;
  }
  int rc = exportFile(tmp, fileType, std::move(hosts));
  if (rc != 0) {
    maillog(3, "%s:%d [Relay Client] export %s failed", QSV_FILE, __LINE__, path.c_str());
  } else {
    // Passwords in clear text keep the 0600 of the temporary file: Postfix opens this map as
    // root before it drops its privileges, so nobody else needs to read it.
    const bool secret = fileType == RELAY_PASSWORD_MAP;
    int error;
    ENTERCriticalSection;
    rc = secret ? rename(tmp.c_str(), path.c_str())
                : renameTmpFileAndChmod(tmp.c_str(), path.c_str());
    error = errno;
    // What writers killed before their rename left behind goes with this one's success.
    if (rc == 0) removeStaleTemporaries(path);
    LEAVECriticalSection;
    if (rc != 0 && secret) {
      maillog(3, "%s:%d rename %s fail, %s", QSV_FILE, __LINE__, tmp.c_str(), strerror(error));
    }
    if (rc == 0) rc = KLIBCExec(kPostmap, path.c_str(), nullptr, nullptr, KLIBC_EXEC_QUIET_WAIT);
    if (rc != 0) {
      maillog(3, "%s:%d [Relay Client] postmap %s failed, ret=[%d]", QSV_FILE, __LINE__,
              path.c_str(), rc);
    } else if (secret) {
      const std::string db = path + ".db";
      ENTERCriticalSection;
      rc = chmod(db.c_str(), 0600);
      LEAVECriticalSection;
    }
  }
  close(fd);
  unlink(tmp.c_str());
  return rc == 0 ? 0 : -1;
}

int RelayHost::removeAllFiles(const std::string &dir) {
  DIR *entries = opendir(dir.c_str());
  if (entries == nullptr) {
    maillog(3, "%s:%d [Relay Client] %s not exist", QSV_FILE, __LINE__, dir.c_str());
    return -1;
  }
  int rc = 0;
  while (const dirent *entry = readdir(entries)) {
    const std::string path = dir + "/" + entry->d_name;
    struct stat st;
    if (stat(path.c_str(), &st) != 0) {
      maillog(3, "%s:%d [Relay Client] cannot get stat of %s", QSV_FILE, __LINE__, path.c_str());
      rc = -1;
      break;
    }
    if (S_ISDIR(st.st_mode)) continue;
    int removed;
    ENTERCriticalSection;
    removed = remove(path.c_str());
    LEAVECriticalSection;
    if (removed != 0) {
      maillog(3, "%s:%d [Relay Client] remove %s failed", QSV_FILE, __LINE__, path.c_str());
      rc = -1;
      break;
    }
  }
  closedir(entries);
  return rc;
}

int RelayHost::exportRelayMap() {
  const std::string transport = std::string(kEtc) + "relay_transport";
  std::string type;
  if (getRelayHostType(type) != 0) {
    maillog(3, "%s:%d [Relay Client] get relay host type failed", QSV_FILE, __LINE__);
    return -1;
  }
  std::list<RelayHostInfo> hosts;
  if (type == "single") {
    RelayHostInfo single;
    bool isEmpty = false;
    if (getSingleRelayHost(single, isEmpty) != 0) {
      maillog(3, "%s:%d [Relay Client] get single relay host info failed", QSV_FILE, __LINE__);
      return -1;
    }
    // Postfix's main settings carry the single relay, so its transport map stays empty; the host
    // still goes through the export, where a mode "single" without a host fails, rather than
    // leaving Postfix pointed at a relay that isn't there.
    hosts.push_back(single);
    if (exportRelayHost(transport, RELAY_RECIPIENT_MAP, hosts) != 0) {
      maillog(3, "%s:%d [Relay Client] export empty relay transport maps failed", QSV_FILE,
              __LINE__);
      return -1;
    }
  } else if (type == "multiple") {
    std::list<RelayHostInfo> recipients;
    if (getRelayHost("sender", hosts) != 0) {
      maillog(3, "%s:%d [Relay Client] get sender relay host failed", QSV_FILE, __LINE__);
      return -1;
    }
    if (getRelayHost("recipient", recipients) != 0) {
      maillog(3, "%s:%d [Relay Client] get recipient relay host failed", QSV_FILE, __LINE__);
      return -1;
    }
    if (exportRelayHost(transport, RELAY_RECIPIENT_MAP, recipients) != 0) {
      maillog(3, "%s:%d [Relay Client] export relay transport maps failed", QSV_FILE, __LINE__);
      return -1;
    }
    if (exportRelayHost(std::string(kEtc) + "sender_relay", RELAY_SENDER_MAP, hosts) != 0) {
      maillog(3, "%s:%d [Relay Client] export sender relay failed", QSV_FILE, __LINE__);
      return -1;
    }
    hosts.splice(hosts.end(), recipients);
  } else if (exportRelayHost(transport, RELAY_RECIPIENT_MAP, {}) != 0) {
    maillog(3, "%s:%d [Relay Client] export empty relay transport maps failed", QSV_FILE, __LINE__);
    return -1;
  }

  // The folder is emptied so that the passwords of hosts that are gone go with them.
  const std::string dir(kRelayDir, sizeof(kRelayDir) - 2);
  int rc;
  int error;
  ENTERCriticalSection;
  rc = mkdir(dir.c_str(), 0755);
  error = errno;
  LEAVECriticalSection;
  if (rc != 0 && error == EEXIST) {
    if (removeAllFiles(dir) != 0) {
      maillog(3, "%s:%d [Relay Client] Fail to remove files in folder %s", QSV_FILE, __LINE__,
              dir.c_str());
      return -1;
    }
  } else if (rc != 0) {
    maillog(3, "%s:%d [Relay Client] Fail to create relay folder, %s", QSV_FILE, __LINE__,
            strerror(error));
    return -1;
  }
  {
    ENTERCriticalSection;
    rc = chmod(dir.c_str(), 0755);
    error = errno;
    LEAVECriticalSection;
  }
  if (rc != 0) {
    maillog(3, "%s:%d [Relay Client] Fail to chmod: %s", QSV_FILE, __LINE__, strerror(error));
    return -1;
  }

  for (const RelayHostInfo &host : hosts) {
    std::string path = std::string(kRelayDir) + "sasl_passwd";
    if (type != "single") path += "_" + host.service_name;
    if (exportRelayHost(path, RELAY_PASSWORD_MAP, {host}) != 0) {
      maillog(3, "%s:%d [Relay Client] export sasl password failed", QSV_FILE, __LINE__);
      return -1;
    }
  }
  return 0;
}
