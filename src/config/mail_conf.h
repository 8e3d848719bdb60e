// The write side of the mail configuration store: one JSON mirror file per key on every node, and
// the cluster's copy in the backend. A changed value goes to the backend first and to the local
// file second, inside one hold of the key file's lock; an unchanged value goes nowhere.
//
// Every function may be called from any thread; the batch form of mailConfSet starts one thread per
// key itself.
#ifndef MAILSERVER_CONFIG_MAIL_CONF_H_
#define MAILSERVER_CONFIG_MAIL_CONF_H_

#include <json/json.h>

#include <functional>
#include <map>
#include <string>

#include "foundation/export.h"

// Keys that may be written although the cluster is unhealthy; null-terminated. Such a key is
// written even when unchanged or refused by the backend, and its write is announced to the
// cluster by a dispatcher event.
QSV_EXPORT extern const char *grgClusterFailedMaySetKeyList[];

// Called by dumpMailConfToFile with the old and the new value before anything is written:
// negative fails the write, 0 leaves the file alone, positive lets the write go on.
using MailConfUpdateCheck = std::function<int(const std::string &key, const std::string &oldValue,
                                              const std::string &newValue, bool remove, int ttl,
                                              bool sync)>;

// Writes one key. With `sync`, the write is refused (-1, nothing written) on a node whose cluster
// is unhealthy, and a changed value is published to the backend with `ttl` before the file is
// written. 0, or -1.
QSV_EXPORT int mailConfSet(const std::string &key, const std::string &value, bool sync, int ttl);

// Why mailConfSet refuses `key` = `value` before anything is published or written, or "" when it
// doesn't: an empty key, a key whose mirror file name is longer than a file name may be, a value
// that is not valid UTF-8 (the mirror file would hold other bytes than the store). Front ends ask
// this first to say what is wrong.
QSV_EXPORT std::string mailConfRefusal(const std::string &key, const std::string &value);

// Writes many keys at once, one thread per key, each as mailConfSet(key, value, true, 0). Not
// atomic: the keys that were written stay written. 0 when all were written, else -1.
QSV_EXPORT int mailConfSet(const std::map<std::string, std::string> &pairs);

// mailConfSet(key, value, true, 0) for callers with plain strings.
QSV_EXPORT int mailConfSet_c(const char *key, const char *value);

// Sets (or, with `remove`, drops) the member of `key` in the JSON file `dir` + `fileName`, under the
// file's lock. The member is named by the key's full name when `completeKey`. A null `check` skips
// the update check. -1 failure, 0 nothing to do, 1 the file was rewritten.
QSV_EXPORT int dumpMailConfToFile(const std::string &fileName, const std::string &key,
                                  const std::string &value, bool remove, bool completeKey,
                                  const std::string &dir, int ttl, bool sync,
                                  const MailConfUpdateCheck &check);

// Brings this node's mirror of `key` in line with a value the backend already holds (or, with
// `remove`, no longer holds): the file is rewritten only when the value differs, and nothing is
// published or flagged, since the node that wrote the backend did that. For the key watcher.
// -1 failure, 0 already current, 1 rewritten.
QSV_EXPORT int mailConfMirror(const std::string &key, const std::string &value, bool remove);

// The same, with the backend's value read by `current` while the key file's lock is held (true and
// the value, or false when the key is gone), so that a value read before a local write finished can
// never be written over it. This is the form for a watcher.
using MailConfCurrentValue = std::function<bool(std::string &value)>;
QSV_EXPORT int mailConfMirror(const std::string &key, const MailConfCurrentValue &current);

// The same for a reader that can also fail to learn the value: `read` gives 1 and the value, 0 when
// the key is gone, or -1 when the backend could not answer, which leaves the mirror as it is (and
// returns -1): a store that is restarting must not empty this node's settings.
using MailConfStoreRead = std::function<int(std::string &value)>;
QSV_EXPORT int mailConfMirrorRead(const std::string &key, const MailConfStoreRead &read);

// Whether `key` currently reads as `value`.
QSV_EXPORT bool mailConfCheckKeyValue(const char *key, const char *value);

// Cluster-wide named locks for callers with plain strings: 0 taken or released, -1 not.
QSV_EXPORT int mailClusterLockAcquire_c(const char *name, unsigned long timeout);
QSV_EXPORT int mailClusterLockRelease_c(const char *name);

// The rules of the MCP quarantine, kept as the JSON text of an array under "mcp_rules".
QSV_EXPORT int SaveMCPRules(const Json::Value &rules);
// Text that isn't a JSON array reads as an empty array, with result 0.
QSV_EXPORT int LoadMCPRules(Json::Value &rules);

// Full-text search rules: which users (0) or groups (1) may use it (true) or not (false). Stored
// by numeric id, so that a renamed user keeps its rule.
enum FTS_RULE_TYPE { FTS_RULE_USER = 0, FTS_RULE_GROUP = 1 };
QSV_EXPORT int ftsRuleMapSet(FTS_RULE_TYPE type, std::map<std::string, bool> &rules);
// With `resolve`, ids become lower-case names and unknown ids are left out; a name on both lists
// reads as forbidden.
QSV_EXPORT int ftsRuleMapGet(FTS_RULE_TYPE type, std::map<std::string, bool> &rules, bool resolve);

#endif  // MAILSERVER_CONFIG_MAIL_CONF_H_
