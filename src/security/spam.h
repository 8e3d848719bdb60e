// The spam filter's settings object: nine settings in the configuration store, the custom rule
// files under "/var/packages/Quillon-Server/etc/rules/" with their enabled flags in the store's
// "rule" tree, and the black and white list of senders and recipients in the main settings
// database. Applying the settings runs the package's configuration writer ("kolt_set_config spam"),
// which turns all three into the filter's configuration.
//
// The content scanner's settings (MailScanner) share the spam keys but default and format some
// of them differently: a key missing from the store reads here as report mechanism 1 and non-spam
// threshold 0.1, there as 0 and -1.0; here scores are saved with two decimals, there with six.
// Each object reads the other's values correctly; only the defaults of missing keys differ.
//
// Spam is a process-wide singleton that lives until the process ends. Its first getInstance must
// not race with another; after that, one thread at a time (it owns one database connection).
#ifndef MAILSERVER_SECURITY_SPAM_H_
#define MAILSERVER_SECURITY_SPAM_H_

#include <json/json.h>

#include <list>
#include <map>
#include <memory>
#include <string>
#include <utility>

#include "foundation/db_handler.h"
#include "foundation/export.h"
#include "security/list_types.h"

// One row of the black and white list. (name_type, name, type) is its key: a row added for the
// same key replaces the verdict of the one before.
struct BlackWhite {
  std::string name;
  BlackWhiteType blackWhiteType;
  Type type;
  NameType nameType;
};

// A page of the list. -1 (the *_ALL and BLACK_WHITE_KNOWN words) leaves a field unfiltered; the
// name matches as a substring. `columns` is "*" for rows or "count(*)" for a count. A name type
// filter names a column the table doesn't have: such a query fails and finds nothing.
struct BlackWhiteFilter {
  int offset;
  int limit;
  Type type;
  NameType nameType;
  BlackWhiteType blackWhiteType;
  std::string columns;
  std::string name;
};

class QSV_EXPORT Spam {
 public:
  // The words of the list's JSON form.
  static const std::map<std::string, BlackWhiteType> blackWhiteTypeMap;
  static const std::map<std::string, Type> typeMap;
  static const std::map<std::string, NameType> nameTypeMap;

  // The instance, made on first use with the settings of the store and a connection to `dbPath`
  // (created with the main settings schema when missing). Later calls give the same instance,
  // whatever path they name. Null when the first attempt fails; the next call tries again.
  static Spam *getInstance(const std::string &dbPath);

  bool isEnableSpamassassin() const { return enableSpam_; }
  void setEnableSpamassassin(bool enable) { enableSpam_ = enable; }
  float getRequiredScore() const { return requiredScore_; }
  void setRequiredScore(float score) { requiredScore_ = score; }
  bool isEnableRewrite() const { return enableRewrite_; }
  void setEnableRewrite(bool enable) { enableRewrite_ = enable; }
  std::string getRewriteSubject() const { return rewriteSubject_; }
  void setRewriteSubject(const std::string &subject) { rewriteSubject_ = subject; }
  int getReportMachanism() const { return reportMechanism_; }
  void setReportMachanism(int mechanism) { reportMechanism_ = mechanism; }
  bool isUseAutoLearn() const { return autoLearn_; }
  void setUseAutoLearn(bool use) { autoLearn_ = use; }
  float getSpamLearnThreshold() const { return spamLearnThreshold_; }
  void setSpamLearnThreshold(float threshold) { spamLearnThreshold_ = threshold; }
  float getNonSpamLearnThreshold() const { return nonSpamLearnThreshold_; }
  void setNonSpamLearnThreshold(float threshold) { nonSpamLearnThreshold_ = threshold; }
  bool isUseAutoWhiteList() const { return autoWhitelist_; }
  void setUseAutoWhiteList(bool use) { autoWhitelist_ = use; }

  // Reads the nine settings from the store; a key that is missing or empty keeps its value.
  // Always 0.
  int LoadConfig();
  // Publishes the nine settings, then GenerateConfig. 0, or -1; the settings stay published when
  // only the generation failed.
  int applySettings();
  // Runs the configuration writer. 0, or -1 when it failed (a broken enabled rule file fails it).
  int GenerateConfig();

  // Sets the rule's flag in the store. 0, or the negative result of the store.
  int enableRule(const std::string &name);
  int disableRule(const std::string &name);
  // Removes the rule's flag from the store; the rule file is the caller's to remove.
  int deleteRule(const std::string &name);
  // The rule file's path, or "" when there is no such file.
  std::string GetImportRulePath(const std::string &name);
  // The names of the files in the rules folder, at most 128, in byte order; empty on failure.
  std::list<std::string> getSpamRuleFiles();
  // Every rule with a flag in the store, and whether it is enabled, in name order.
  std::list<std::pair<std::string, bool>> getSpamRules();

  // Runs the spam daemon script with `action` ("start", "stop", "restart", "status", ...) and
  // gives its exit status, or -1 when it could not run.
  int Service(const char *action);

  // Connects to the database (making it when missing). 0 or -1.
  int dbInit();
  // Closes the database; the settings stay usable. Always 0.
  int disconnectDB();

  // All rows or none. 0 or -1.
  int addBlackWhite(const BlackWhite &row);
  // Deletes by (name_type, name, type), whatever the verdict. 0 or -1.
  int deleteBlackWhite(const BlackWhite &row);
  int addBlackWhiteList(const std::list<BlackWhite> &rows);
  int deleteBlackWhiteList(const std::list<BlackWhite> &rows);
  // A page of rows in table order; empty (and a log line) when the query fails.
  std::list<BlackWhite> getBlackWhiteList(const BlackWhiteFilter &filter);
  // The number of rows the filter finds, whatever its page; -1 when the query fails.
  int countQueryData(const BlackWhiteFilter &filter);

  // Adds every name of a JSON document in the export form. 0 or -1; a file that can't be read or
  // parsed changes nothing.
  int importBlackWhite(const std::string &path);
  // Adds the names of the old line form, "from: NAME yes" or "to: NAME yes", with `verdict`.
  int importOldBlackWhite(BlackWhiteType verdict, const std::string &path);
  // Writes the list as the JSON document that importBlackWhite reads. 0 or -1.
  int exportBlackWhite(const std::string &path);
  // Fills `out` with verdict -> side -> kind -> names; all twelve arrays are there even when
  // empty. With `asRegexp` each name is a map regular expression, followed by one for its other
  // spelling (punycode or UTF-8) when it has one. 0 or -1.
  int exportBlackWhite(Json::Value &out, bool asRegexp);

 private:
  explicit Spam(const std::string &dbPath);
  int SetRuleStatus(const std::string &name, const char *status);
  int RuleStatusWalk(bool enabledOnly, std::list<std::string> &names);
  bool queryBlackWhiteData(const std::string &statement, std::list<BlackWhite> &out);
  // `format` is the statement of one row as text, which sets the limit of a row's size; `bound` is
  // the same statement with ?1 name type, ?2 name, ?3 side and ?4 verdict, which is what runs.
  int ExecuteEach(const std::list<BlackWhite> &rows, const char *format, const char *bound,
                  const char *failure);

  static Spam *_spam;

  std::unique_ptr<DBHandler> db_;
  bool enableSpam_ = false;
  bool enableRewrite_ = false;
  std::string rewriteSubject_ = "*****SPAM*****";
  float requiredScore_ = 5.0f;
  int reportMechanism_ = 1;
  bool autoLearn_ = false;
  float spamLearnThreshold_ = 12.0f;
  float nonSpamLearnThreshold_ = 0.1f;
  bool autoWhitelist_ = false;
  std::string dbPath_;
};

#endif  // MAILSERVER_SECURITY_SPAM_H_
