#include "cluster/file_key_val.h"

#include <sys/stat.h>

#include <cerrno>
#include <cstring>

#include "foundation/log.h"

namespace KOLT {
namespace QUILLON_SERVER {
namespace {

const char *const kRequiredMembers[] = {"senderID", "timestamp",    "srcFilePath", "dstFilePath",
                                        "fileContentKey", "taskQueueKey", "randNum", "pathInfo"};

// A JSON string of `text`, all of it: a NUL or a stray byte inside a path is kept, not cut off or
// replaced, so that a record reads back as it was written.
std::string Quoted(const std::string &text) {
  Json::StreamWriterBuilder builder;
  builder["indentation"] = "";
  builder["emitUTF8"] = true;  // bytes as they are: a name need not be valid UTF-8
  return Json::writeString(builder, Json::Value(text));
}

void AddMember(std::string &out, const std::string &name, const std::string &jsonValue) {
  out += out.size() > 1 ? "," : "";
  out += Quoted(name);
  out += ':';
  out += jsonValue;
}

}  // namespace

std::string FileUploadKey(const std::string &key) {
  return "kv_file_upload/file_upload_hook-" + key;
}

bool FileKeyVal::create(const std::string &sender, const std::string &src, const std::string &dst,
                        const std::string &time, const std::string &backendKey,
                        const std::string &upload, const std::string &contentKey,
                        const std::string &queueKey, const std::string &script,
                        const std::vector<std::string> &args) {
  senderID = sender;
  srcFilePath = src;
  dstFilePath = dst;
  timestamp = time;
  oriBackendKey = backendKey;
  uploadKey = upload;
  fileContentKey = contentKey;
  taskQueueKey = queueKey;
  scriptPath = script;
  scriptArgs = args;
  isDelete = false;
  randNum = 0;
  pathInfo.clear();

  // Every prefix from the first directory under the root down to the file itself, so that a
  // receiver can rebuild whatever part of the path it lacks.
  std::string prefix;
  size_t start = 0;
  while (start <= src.size()) {
    size_t slash = src.find('/', start);
    if (slash == std::string::npos) slash = src.size();
    const std::string part = src.substr(start, slash - start);
    start = slash + 1;
    if (part.empty()) continue;
    prefix += "/" + part;
    struct stat st;
    if (lstat(prefix.c_str(), &st) != 0) {
      maillog(3, "%s:%d Failed to lstat %s error: %s", QSV_FILE, __LINE__, prefix.c_str(),
              strerror(errno));
      return false;
    }
    FilePathInfo &info = pathInfo[prefix];
    info.mode = st.st_mode;
    info.uid = st.st_uid;
    info.gid = st.st_gid;
    info.isDir = S_ISDIR(st.st_mode);
  }
  return true;
}

std::string FileKeyVal::serialize(int counter) const {
  // Written by hand rather than through a Json::Value, whose members come out sorted: the record
  // reads in the order of its fields.
  std::string out = "{";
  AddMember(out, "senderID", Quoted(senderID));
  AddMember(out, "srcFilePath", Quoted(srcFilePath));
  AddMember(out, "dstFilePath", Quoted(dstFilePath));
  AddMember(out, "timestamp", Quoted(timestamp));
  AddMember(out, "oriBackendKey", Quoted(oriBackendKey));
  AddMember(out, "uploadKey", Quoted(uploadKey));
  AddMember(out, "fileContentKey", Quoted(fileContentKey));
  AddMember(out, "taskQueueKey", Quoted(taskQueueKey));
  AddMember(out, "scriptPath", Quoted(scriptPath));
  AddMember(out, "isDelete", isDelete ? "true" : "false");
  std::string args = "[";
  for (const std::string &arg : scriptArgs) {
    if (args.size() > 1) args += ',';
    args += Quoted(arg);
  }
  AddMember(out, "scriptArgs", args + "]");
  std::string paths = "{";
  for (const auto &entry : pathInfo) {
    std::string info = "{";
    AddMember(info, "mode", std::to_string(entry.second.mode));
    AddMember(info, "uid", std::to_string(entry.second.uid));
    AddMember(info, "gid", std::to_string(entry.second.gid));
    AddMember(info, "isDir", entry.second.isDir ? "true" : "false");
    AddMember(paths, entry.first, info + "}");
  }
  AddMember(out, "pathInfo", paths + "}");
  AddMember(out, "randNum", std::to_string(counter));
  return out + "}";
}

bool FileKeyVal::fromJson(const Json::Value &json) {
  if (!json.isObject()) return false;
  for (const char *member : kRequiredMembers) {
    if (!json.isMember(member)) return false;
  }
  // Members are read by conversion, as other writers of records may type them (a numeric
  // timestamp, an "isDelete" of 1); only what can't be converted refuses the record.
  const Json::Value &paths = json["pathInfo"];
  const Json::Value &args = json["scriptArgs"];
  if (!paths.isObject() || !json["randNum"].isConvertibleTo(Json::intValue) ||
      !(args.isNull() || args.isArray()) ||
      !json["isDelete"].isConvertibleTo(Json::booleanValue)) {
    return false;
  }
  for (const char *member : {"senderID", "srcFilePath", "dstFilePath", "timestamp",
                             "oriBackendKey", "uploadKey", "fileContentKey", "taskQueueKey",
                             "scriptPath"}) {
    if (!json[member].isConvertibleTo(Json::stringValue)) return false;
  }
  senderID = json["senderID"].asString();
  srcFilePath = json["srcFilePath"].asString();
  dstFilePath = json["dstFilePath"].asString();
  timestamp = json["timestamp"].asString();
  oriBackendKey = json["oriBackendKey"].asString();
  uploadKey = json["uploadKey"].asString();
  fileContentKey = json["fileContentKey"].asString();
  taskQueueKey = json["taskQueueKey"].asString();
  scriptPath = json["scriptPath"].asString();
  isDelete = json["isDelete"].asBool();
  randNum = json["randNum"].asInt();
  scriptArgs.clear();
  for (const Json::Value &arg : args) {
    if (!arg.isString()) return false;
    scriptArgs.push_back(arg.asString());
  }
  pathInfo.clear();
  for (const std::string &path : paths.getMemberNames()) {
    const Json::Value &info = paths[path];
    if (!info.isObject()) return false;
    for (const char *member : {"mode", "uid", "gid"}) {
      if (!info[member].isConvertibleTo(Json::uintValue)) return false;
    }
    FilePathInfo &entry = pathInfo[path];
    entry.mode = info["mode"].asUInt();
    entry.uid = info["uid"].asUInt();
    entry.gid = info["gid"].asUInt();
    entry.isDir = info["isDir"].isBool() && info["isDir"].asBool();
  }
  return true;
}

}  // namespace QUILLON_SERVER
}  // namespace KOLT
