// Typed settings over the string store: a settings class declares its keys once, with types and
// defaults; Load reads them all, Get and Set work on the loaded values, and Save writes them all
// back as one batch.
//
//   Postfix postfix;                       // declares its keys
//   postfix.LoadSettings();
//   int port = boost::any_cast<Value<int>>(postfix.Get("smtp_port")).value;
//   postfix.Set("smtp_port", boost::any(Value<int>(2525)));
//   postfix.SaveSettings({});
//
// An object is a snapshot for one operation on one thread: build, load, change, save, drop.
#ifndef MAILSERVER_CONFIG_BASIC_CONFIG_H_
#define MAILSERVER_CONFIG_BASIC_CONFIG_H_

#include <boost/any.hpp>
#include <list>
#include <map>
#include <string>

#include "foundation/export.h"

// A declared key. T is int, std::string, bool or double.
template <typename T>
class Key {
 public:
  Key(const std::string &name, const T &defaultValue) : name(name), defaultValue(defaultValue) {}
  std::string name;
  T defaultValue;
};

// A loaded value.
template <typename T>
class Value {
 public:
  explicit Value(const T &value) : value(value) {}
  T value;
};

// A step run after a successful save, typically a daemon script with an action word.
struct Callback {
  std::string name;  // for the log
  int (*func)(const std::string &);
  std::string arg;
};

class QSV_EXPORT Config {
 public:
  Config();
  explicit Config(const std::list<boost::any> &keys);

  const std::list<boost::any> &GetKeyList() const;
  // The name in a Key<T>; throws std::invalid_argument("key type not support") for another type.
  std::string GetKeyName(const boost::any &key);
  // Throws std::invalid_argument("<name>: key not valid") for a key that isn't loaded.
  boost::any &Get(const std::string &name);

  // Replaces a loaded value; the type is checked only when the value is saved.
  virtual void Set(const std::string &name, const boost::any &value);
  // Reads every declared key; an empty value reads as the default. Always 0.
  virtual int Load();
  // Writes every declared key in one batch. 0, or -1.
  virtual int Save();

 protected:
  std::list<boost::any> keys;
  std::map<std::string, boost::any> values;
};

// One row of the list of settings that a hardened server is expected to have.
struct CheckItem {
  const char *key;
  const char *defaultValue;
  const char *dependency;  // may be null; the item counts only while this key isn't "no"
  bool (*check)(const std::string &);
};

// The hardening check list: 20 rows and a row whose check is null.
QSV_EXPORT extern CheckItem gCheckList[];

class QSV_EXPORT Analyzer {
 public:
  struct Result {
    std::string level;  // "good" or "warning"
    std::string key;
  };

  Analyzer();
  Analyzer(const std::string &, CheckItem *items);

  // Appends one result per item that applies. Always 0.
  int Analyze(std::list<Result> &results);

 private:
  std::string unused_;
  CheckItem *items_;
};

#endif  // MAILSERVER_CONFIG_BASIC_CONFIG_H_
