// The settings of the daily mail report: whether it is sent, to whom (two recipients), at what
// time of day, from which sender and through which SMTP server. The sender and the server follow
// the SMTP settings (the main domain and the port); the rest are keys of their own, read and written
// one by one.
//
// A Reporter is a value: copy it, load it, change it and save it from one thread.
#ifndef MAILSERVER_CONFIG_REPORTER_H_
#define MAILSERVER_CONFIG_REPORTER_H_

#include <map>
#include <string>

#include "foundation/export.h"

class QSV_EXPORT Reporter {
 public:
  struct Sender {
    std::string name;
    std::string address;
  };
  struct Time {
    unsigned int hour = 0;
    unsigned int minute = 0;
  };
  struct SMTP {
    std::string host;
    int port = 25;
  };

  Reporter();

  bool IsEnabled() const;
  const std::string &GetRcpt(bool second) const;
  const Sender &GetSender() const;
  const SMTP &GetSMTP() const;
  const Time &GetReportTime() const;
  void SetRcpt(const std::string &rcpt, bool second);
  void SetEnable(bool enabled);
  void SetTime(const Time &time);

  // Reads every setting. 0, or -1 when a key (or the SMTP settings) could not be read.
  int Load();
  // A loaded object. Throws std::runtime_error("load report setting fail") when Load fails.
  static Reporter LoadSetting();
  // Writes the switch, the recipients and the time in one batch. Throws a const char *: "save
  // report time fail" or "save config fail".
  void SaveSetting();

 private:
  int LoadSMTPSetting();
  int LoadReportTime();
  int LoadSender();
  int SaveReportTime(std::map<std::string, std::string> &pairs);

  bool enabled_;
  std::string rcpt1_;
  std::string rcpt2_;
  Sender sender_;
  Time time_;
  SMTP smtp_;
};

#endif  // MAILSERVER_CONFIG_REPORTER_H_
