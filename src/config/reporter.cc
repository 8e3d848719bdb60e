#include "config/reporter.h"

#include <cstdlib>
#include <stdexcept>

#include <boost/any.hpp>

#include "config/mail_conf.h"
#include "config/postfix.h"
#include "core/mail_conf.h"

namespace {

const char kEnableKey[] = "report_enable_report";
const char kRcpt1Key[] = "report_rcpt_1";
const char kRcpt2Key[] = "report_rcpt_2";
const char kHourKey[] = "report_time_hour";
const char kMinuteKey[] = "report_time_min";

}  // namespace

Reporter::Reporter() : enabled_(false) {}

bool Reporter::IsEnabled() const { return enabled_; }
const std::string &Reporter::GetRcpt(bool second) const { return second ? rcpt2_ : rcpt1_; }
const Reporter::Sender &Reporter::GetSender() const { return sender_; }
const Reporter::SMTP &Reporter::GetSMTP() const { return smtp_; }
const Reporter::Time &Reporter::GetReportTime() const { return time_; }
void Reporter::SetRcpt(const std::string &rcpt, bool second) { (second ? rcpt2_ : rcpt1_) = rcpt; }
void Reporter::SetEnable(bool enabled) { enabled_ = enabled; }
void Reporter::SetTime(const Time &time) { time_ = time; }

int Reporter::Load() {
  std::string enabled;
  if (mailConfGet(kRcpt1Key, rcpt1_) < 0 || mailConfGet(kRcpt2Key, rcpt2_) < 0 ||
      LoadSMTPSetting() != 0 || mailConfGet(kEnableKey, enabled) < 0 || LoadReportTime() != 0 ||
      LoadSender() != 0) {
    return -1;
  }
  enabled_ = enabled == "yes";
  return 0;
}

// The report goes through this node's own SMTP server, on its port.
int Reporter::LoadSMTPSetting() {
  Postfix postfix;
  if (postfix.LoadSettings() < 0) return -1;
  smtp_.host = "localhost";
  smtp_.port = boost::any_cast<Value<int>>(postfix.Get("smtp_port")).value;
  return 0;
}

int Reporter::LoadReportTime() {
  for (const auto &key : {std::make_pair(kHourKey, &time_.hour),
                          std::make_pair(kMinuteKey, &time_.minute)}) {
    std::string text;
    if (mailConfGet(key.first, text) < 0) return -1;
    if (!text.empty()) *key.second = static_cast<unsigned int>(strtol(text.c_str(), nullptr, 10));
  }
  return 0;
}

int Reporter::LoadSender() {
  Postfix postfix;
  if (postfix.LoadSettings() < 0) return -1;
  sender_.name = "Quillon";
  sender_.address =
      "reporter@" + boost::any_cast<Value<std::string>>(postfix.Get("smtp_main_domain")).value;
  return 0;
}

Reporter Reporter::LoadSetting() {
  Reporter reporter;
  if (reporter.Load() != 0) throw std::runtime_error("load report setting fail");
  return reporter;
}

int Reporter::SaveReportTime(std::map<std::string, std::string> &pairs) {
  pairs[kHourKey] = std::to_string(time_.hour);
  pairs[kMinuteKey] = std::to_string(time_.minute);
  return 0;
}

void Reporter::SaveSetting() {
  std::map<std::string, std::string> pairs = {
      {kRcpt1Key, rcpt1_}, {kRcpt2Key, rcpt2_}, {kEnableKey, enabled_ ? "yes" : "no"}};
  if (SaveReportTime(pairs) < 0) throw "save report time fail";
  if (mailConfSet(pairs) < 0) throw "save config fail";
}
