#include "security/antivirus.h"

#include <glob.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <sstream>
#include <vector>

#include <json/json.h>

#include "foundation/files.h"
#include "foundation/log.h"
#include "foundation/privilege.h"
#include "kolt/exec.h"
#include "kolt/pidfile.h"

namespace {

constexpr char kLiveDir[] = "/var/packages/Quillon-Server/target/share/clamav";
constexpr char kExtraDir[] = "/var/packages/Quillon-Server/target/share/clamav/extrasigs";
constexpr char kSafeBrowsingDir[] =
    "/var/packages/Quillon-Server/target/share/clamav/safebrowsing";
constexpr char kStatusFile[] = "/tmp/QuillonServer.antivirus.status";
constexpr char kPidFile[] = "/var/run/quillon_server/clamd.pid";
constexpr char kClamdscan[] = "/var/packages/Quillon-Server/target/bin/clamdscan";
constexpr char kSigtool[] = "/var/packages/Quillon-Server/target/bin/sigtool";

constexpr char kExtraPattern[] =
    "*.{info,cfg,ign,ign2,ftm,db,hdb,hdu,hsb,hsu,mdb,mdu,msb,msu,ndb,ndu,ldb,ldu,sdb,zmd,rmd,idb,"
    "fp,sfp,gdb,pdb,wdb,crb}";
constexpr char kSafeBrowsingPattern[] = "safebrowsing.c[vl]d";
constexpr char kPackedPattern[] = "*.c[vl]d";

// The paths of `pattern` in `dir`, in glob order: their number, 0 for no match, -1 on error.
int Glob(const char *dir, const char *pattern, std::vector<std::string> *paths) {
  char joined[1024] = {0};
  snprintf(joined, sizeof(joined), "%s/%s", dir, pattern);
  glob_t found;
  const int rc = glob(joined, GLOB_BRACE, nullptr, &found);
  if (rc == GLOB_NOMATCH) return 0;
  if (rc != 0) {
    maillog(3, "%s:%d glob execution error %d", QSV_FILE, __LINE__, rc);
    globfree(&found);
    return -1;
  }
  const int count = static_cast<int>(found.gl_pathc);
  if (paths != nullptr) {
    for (size_t i = 0; i < found.gl_pathc; ++i) paths->emplace_back(found.gl_pathv[i]);
  }
  globfree(&found);
  return count;
}

bool HasFiles(const char *dir, const char *pattern) { return Glob(dir, pattern, nullptr) > 0; }

// Moves each file of `pattern` in `dir` into `target`. Only a failed or empty glob fails: a file
// that can't move stays for the next call.
int Move(const char *dir, const char *pattern, const char *target) {
  std::vector<std::string> paths;
  if (Glob(dir, pattern, &paths) <= 0) return -1;
  for (const std::string &path : paths) {
    char to[1024] = {0};
    snprintf(to, sizeof(to), "%s/%s", target, path.substr(path.rfind('/') + 1).c_str());
    if (rename(path.c_str(), to) != 0) {
      maillog(3, "%s:%d Failed to move file %s to %s", QSV_FILE, __LINE__, path.c_str(), to);
    }
  }
  return 0;
}

int Load(const char *pattern, const char *from, const char *message) {
  if (HasFiles(kLiveDir, pattern)) return 0;
  if (!HasFiles(from, pattern)) return -1;
  if (Move(from, pattern, kLiveDir) != 0) {
    maillog(3, message, QSV_FILE, __LINE__);
    return -1;
  }
  return 0;
}

int Unload(const char *pattern, const char *to) {
  if (!HasFiles(kLiveDir, pattern)) return 0;
  mkdir(to, 0755);
  if (Move(kLiveDir, pattern, to) != 0) {
    maillog(3, "%s:%d Failed to move db files", QSV_FILE, __LINE__);
    return -1;
  }
  return 0;
}

// The count sigtool gives for one packed database, or 0.
long PackedCount(const std::string &path) {
  FILE *out = KLIBCPopen(kSigtool, "r", "-i", path.c_str(), nullptr);
  if (out == nullptr) {
    maillog(3, "%s:%d Execute %s -i %s error", QSV_FILE, __LINE__, kSigtool, path.c_str());
    return 0;
  }
  long count = 0;
  char line[1024];
  while (fgets(line, sizeof(line), out) != nullptr) {
    if (strstr(line, "Signatures") == nullptr) continue;
    char *save = nullptr;
    strtok_r(line, " \t\n", &save);
    const char *second = strtok_r(nullptr, " \t\n", &save);
    if (second != nullptr) count = strtol(second, nullptr, 10);
    break;
  }
  // Read to the end, so that sigtool never blocks on a full pipe.
  while (fgets(line, sizeof(line), out) != nullptr) {
  }
  KLIBCPclose(out);
  return count;
}

long LineCount(const std::string &path) {
  FILE *in = fopen(path.c_str(), "re");
  if (in == nullptr) {
    maillog(3, "%s:%d Failed to open file %s", QSV_FILE, __LINE__, path.c_str());
    return 0;
  }
  long count = 0;
  char line[8192];
  while (fgets(line, sizeof(line), in) != nullptr) ++count;
  fclose(in);
  return count;
}

}  // namespace

int AntiVirus::ReloadClamd() {
  if (KLIBCProcAliveByPidFile(kPidFile) != 1 && KLIBCIsProcAlive("clamd") != 1) {
    maillog(3, "%s:%d clamd does not exist", QSV_FILE, __LINE__);
    return 0;
  }
  if (KLIBCExec(kClamdscan, "--reload", nullptr, nullptr, 0) < 0) {
    maillog(3, "%s:%d Failed to reload calmd", QSV_FILE, __LINE__);
    return -1;
  }
  return 0;
}

int AntiVirus::ExtraDBLoad() {
  return Load(kExtraPattern, kExtraDir, "%s:%d Failed to mv db files");
}

int AntiVirus::ExtraDBUnload() { return Unload(kExtraPattern, kExtraDir); }

int AntiVirus::SafeBrowsingDBLoad() {
  return Load(kSafeBrowsingPattern, kSafeBrowsingDir, "%s:%d Failed to move db files");
}

int AntiVirus::SafeBrowsingDBUnload() { return Unload(kSafeBrowsingPattern, kSafeBrowsingDir); }

int AntiVirus::AntiVirusStatusSet(const ANTI_VIRUS_STATUS &status) {
  Json::Value object;
  object["status"] = status;
  const std::string text = Json::FastWriter().write(object);
  int rc;
  int saved;
  ENTERCriticalSection;
  // Replaced through a temporary and a rename: opened in place, a link another user planted
  // under this name in /tmp would have root truncate the file it points to.
  rc = WriteWholeFile(kStatusFile, text);
  saved = errno;
  LEAVECriticalSection;
  if (rc != 0) {
    maillog(3, "%s:%d Failed to open %s, errno: %s", QSV_FILE, __LINE__, kStatusFile,
            strerror(saved));
    return -1;
  }
  return 0;
}

int AntiVirus::AntiVirusStatusGet(ANTI_VIRUS_STATUS &status) {
  if (access(kStatusFile, F_OK) != 0) {
    status = 1;
    return 0;
  }
  std::ifstream in(kStatusFile);
  if (!in) {
    maillog(3, "%s:%d Failed to open file %s", QSV_FILE, __LINE__, kStatusFile);
    return -1;
  }
  Json::Value object;
  std::string errors;
  if (!Json::parseFromStream(Json::CharReaderBuilder(), in, &object, &errors) ||
      !object.isObject() || !object["status"].isInt()) {
    maillog(3, "%s:%d Failed to parse json file %s", QSV_FILE, __LINE__, kStatusFile);
    return -1;
  }
  const int value = object["status"].asInt();
  status = value >= 1 && value <= 5 ? value : 1;
  return 0;
}

int AntiVirus::AntiVirusStatusClear(const ANTI_VIRUS_STATUS &status) {
  ANTI_VIRUS_STATUS current = 1;
  if (AntiVirusStatusGet(current) != 0) {
    maillog(3, "%s:%d Failed to get antivirus status", QSV_FILE, __LINE__);
    current = 1;
  }
  if ((status == 2 && (current == 2 || current == 4)) || (status == 3 && current == 3)) {
    unlink(kStatusFile);
  }
  return 0;
}

int AntiVirus::GetAntiVirusEngine(const std::string &name) {
  if (name == "clamav") return 0;
  if (name == "koltav-mcafee") return 1;
  return 2;
}

long AntiVirus::AllDBPatternNumGet() {
  long total = 0;
  std::vector<std::string> packed;
  Glob(kLiveDir, kPackedPattern, &packed);
  for (const std::string &path : packed) total += PackedCount(path);
  std::vector<std::string> extra;
  Glob(kLiveDir, kExtraPattern, &extra);
  for (const std::string &path : extra) total += LineCount(path);
  return total;
}
