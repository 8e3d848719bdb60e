#include "mailserverctl/report_commands.h"

#include <cstdio>
#include <map>
#include <stdexcept>

#include "config/reporter.h"
#include "mailserverctl/error.h"
#include "mailserverctl/list_input.h"
#include "mailserverctl/typed_settings.h"

namespace mailserverctl {
namespace {

const char kEnable[] = "report_enable_report";
const char kRcpt1[] = "report_rcpt_1";
const char kRcpt2[] = "report_rcpt_2";
const char kHour[] = "report_time_hour";
const char kMinute[] = "report_time_min";

// Why `key` can't take `text`, or "" (and "" for a key of no report setting, which the caller
// tells apart).
std::string ReportRefusal(const std::string &key, const std::string &text) {
  int number = 0;
  const bool whole = WholeNumber(text, number);
  if (key == kEnable) return text == "yes" || text == "no" ? "" : key + " takes yes or no";
  if (key == kHour) return whole && number >= 0 && number <= 23 ? "" : key + " takes 0 to 23";
  if (key == kMinute) return whole && number >= 0 && number <= 59 ? "" : key + " takes 0 to 59";
  // The report goes out to these as they are: one address, or nobody.
  if (text.empty() || (ListNameRefusal(text).empty() &&
                       KindRefusal(TYPE_FROM, NAME_TYPE_ADDRESS, text).empty())) {
    return "";
  }
  return key + " takes an address NAME@DOMAIN, or nothing";
}

bool Load(Reporter &reporter) {
  try {
    reporter = Reporter::LoadSetting();
    return true;
  } catch (const std::runtime_error &) {
    Error("cannot load the report settings (see the system log)");
    return false;
  }
}

void Print(const char *name, const std::string &value) {
  printf("%-42s %s\n", name, value.c_str());
}

}  // namespace

int ReportShow() {
  Reporter reporter;
  if (!Load(reporter)) return 1;
  Print(kEnable, reporter.IsEnabled() ? "yes" : "no");
  Print(kRcpt1, Shown(reporter.GetRcpt(false)));
  Print(kRcpt2, Shown(reporter.GetRcpt(true)));
  Print(kHour, std::to_string(reporter.GetReportTime().hour));
  Print(kMinute, std::to_string(reporter.GetReportTime().minute));
  // These two follow the SMTP settings and can't be set here.
  Print("sender", Shown(reporter.GetSender().name + " <" + reporter.GetSender().address + ">"));
  Print("server", Shown(reporter.GetSMTP().host) + ":" + std::to_string(reporter.GetSMTP().port));
  return 0;
}

int ReportSet(const std::vector<std::string> &pairs) {
  // Every value is checked before anything is loaded or set, so that a wrong one writes nothing.
  std::map<std::string, std::string> given;
  for (size_t i = 0; i + 1 < pairs.size(); i += 2) {
    const std::string &key = pairs[i];
    const std::string &text = pairs[i + 1];
    if (key != kEnable && key != kRcpt1 && key != kRcpt2 && key != kHour && key != kMinute) {
      return Error("no report setting is called " + Quoted(key) + "; nothing was written");
    }
    if (given.count(key) != 0) return Error(key + " is given twice; nothing was written");
    const std::string why = ReportRefusal(key, text);
    if (!why.empty()) {
      return Error("refused " + key + "=" + Quoted(text) + ": " + why + "; nothing was written");
    }
    given[key] = text;
  }
  Reporter reporter;
  if (!Load(reporter)) return 1;
  Reporter::Time time = reporter.GetReportTime();
  for (const auto &entry : given) {
    const std::string &key = entry.first;
    if (key == kEnable) reporter.SetEnable(entry.second == "yes");
    if (key == kRcpt1 || key == kRcpt2) reporter.SetRcpt(entry.second, key == kRcpt2);
    if (key == kHour) time.hour = static_cast<unsigned>(std::stoi(entry.second));
    if (key == kMinute) time.minute = static_cast<unsigned>(std::stoi(entry.second));
  }
  reporter.SetTime(time);
  try {
    reporter.SaveSetting();
  } catch (const char *what) {
    return Error(std::string("the report settings were not all saved: ") + what);
  }
  return 0;
}

}  // namespace mailserverctl
