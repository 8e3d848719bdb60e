#include "mailserverctl/personal_commands.h"

#include <cstdio>
#include <ctime>
#include <map>
#include <set>

#include "foundation/utf8.h"
#include "mailserverctl/error.h"
#include "mailserverctl/list_input.h"
#include "mailserverctl/log_options.h"
#include "mailserverctl/names.h"
#include "personal/file_texts.h"
#include "personal/personal.h"

namespace mailserverctl {
namespace {

constexpr size_t kMaxUser = 255;
constexpr size_t kMaxBody = 64 * 1024;

int Usage() {
  fprintf(stderr,
          "usage: mailserverctl personal show USER\n"
          "       mailserverctl personal forward USER ADDRESS [--keep-copy yes|no]\n"
          "       mailserverctl personal vacation USER [--subject TEXT --body TEXT] "
          "[--sender ADDRESS] [--begin TIME] [--end TIME]\n"
          "       mailserverctl personal off USER\n");
  return 2;
}

std::string UserRefusal(const std::string &user) {
  if (user.empty() || user.size() > kMaxUser) return "a user name has 1 to 255 bytes";
  for (const char c : user) {
    if (static_cast<unsigned char>(c) < 0x20 || c == 0x7f) return "it holds a control character";
  }
  return "";
}

// One address as .forward may hold it: user@domain, nothing the delivery agent would run, write
// to or split.
std::string AddressRefusal(const std::string &address) {
  const size_t at = address.rfind('@');
  if (!personal::ForwardAddressAcceptable(address) || at == 0 || at == std::string::npos ||
      !checkValidUtf8(address)) {
    return "an address is user@domain, without blanks, control characters, quotes, "
           "backslashes, \"|\" or \",\"";
  }
  if (!ValidDomainName(address.substr(at + 1))) return "its domain is no domain name";
  return "";
}

std::string BodyRefusal(const std::string &body) {
  if (body.size() > kMaxBody || !checkValidUtf8(body)) return "a body is UTF-8 of at most 64 KiB";
  for (const char c : body) {
    const unsigned char u = static_cast<unsigned char>(c);
    if ((u < 0x20 && c != '\n' && c != '\t') || u == 0x7f) {
      return "a body holds no control characters but tabs and line ends";
    }
  }
  return "";
}

std::string ShownTime(long when) {
  if (when <= 0) return "-";
  const time_t t = static_cast<time_t>(when);
  struct tm tm;
  localtime_r(&t, &tm);
  return When(tm);
}

// The user's settings, or an error already printed.
bool Load(const std::string &user, Personal &personal, int *status) {
  if (personal.isValid()) return true;
  const std::string why = personal.getErrKey();
  if (why == "acc_type_unsupport") {
    *status = Error(Quoted(user) + " is no user of this server's account source");
  } else if (why == "no_user_home") {
    *status = Error("the mail directory of " + Quoted(user) +
                    " can't be had or read (see the system log)");
  } else {
    *status = Error("no user is called " + Quoted(user));
  }
  return false;
}

int Saved(Personal &personal, const std::string &user) {
  if (personal.save() == 0) return 0;
  return Error("the settings of " + Quoted(user) +
               " were not all saved or not spread to the cluster (see the system log)");
}

int Show(const std::string &user) {
  Personal personal(user);
  int status = 1;
  if (!Load(user, personal, &status)) return status;
  auto yesNo = [](bool on) { return on ? "yes" : "no"; };
  printf("forward     %s\n", yesNo(personal.isEnabledForward()));
  printf("address     %s\n", Shown(personal.getForwardAddr()).c_str());
  printf("keep copy   %s\n", yesNo(personal.isKeepCopy()));
  printf("reply       %s\n", yesNo(personal.isEnabledReply()));
  printf("begin       %s\n", ShownTime(personal.GetReplyBeginTime()).c_str());
  printf("end         %s\n", ShownTime(personal.GetReplyEndTime()).c_str());
  std::string subject, body;
  if (personal.doesReplyFileExist(nullptr) && personal.ReadReplyContent(nullptr, subject, body) == 0) {
    printf("subject     %s\n", Shown(subject).c_str());
  } else {
    printf("subject     -\n");
  }
  for (const std::string &sender : personal.GetReplyList()) {
    printf("sender      %s\n", Shown(sender).c_str());
  }
  return 0;
}

int Forward(const std::vector<std::string> &args) {
  std::map<std::string, std::string> options;
  int status = 1;
  if (!ReadOptions({args.begin() + 2, args.end()}, {"--keep-copy"}, {}, options, &status)) {
    return status;
  }
  const std::string &user = args[0];
  const std::string &address = args[1];
  std::string why = UserRefusal(user);
  if (!why.empty()) return Error("refused the user " + Quoted(user) + ": " + why);
  why = AddressRefusal(address);
  if (!why.empty()) return Error("refused the address " + Quoted(address) + ": " + why);
  const auto keep = options.find("--keep-copy");
  if (keep != options.end() && keep->second != "yes" && keep->second != "no") {
    return Error("--keep-copy takes yes or no");
  }
  Personal personal(user);
  if (!Load(user, personal, &status)) return status;
  personal.setForward(true);
  personal.setForwardAddr(address);
  if (keep != options.end()) personal.setKeepCopy(keep->second == "yes");
  return Saved(personal, user);
}

int Vacation(const std::vector<std::string> &args) {
  std::map<std::string, std::string> options;
  int status = 1;
  if (!ReadOptions({args.begin() + 1, args.end()},
                   {"--subject", "--body", "--sender", "--begin", "--end"}, {}, options,
                   &status)) {
    return status;
  }
  const std::string &user = args[0];
  std::string why = UserRefusal(user);
  if (!why.empty()) return Error("refused the user " + Quoted(user) + ": " + why);
  const bool hasSubject = options.count("--subject") > 0;
  if (hasSubject != (options.count("--body") > 0)) {
    return Error("--subject and --body go together");
  }
  if (hasSubject && !TextAcceptable("--subject", options["--subject"], &status)) return status;
  if (hasSubject) {
    why = BodyRefusal(options["--body"]);
    if (!why.empty()) return Error("refused the body: " + why);
  }
  const auto sender = options.find("--sender");
  if (sender != options.end()) {
    if (!hasSubject) return Error("--sender needs --subject and --body");
    // The reply's file is named after the sender: nothing may lead it out of the mail directory.
    if (sender->second.find('/') != std::string::npos ||
        sender->second.find("..") != std::string::npos) {
      return Error("refused the sender " + Quoted(sender->second) + ": it holds \"/\" or \"..\"");
    }
    why = AddressRefusal(sender->second);
    if (!why.empty()) return Error("refused the sender " + Quoted(sender->second) + ": " + why);
  }
  long long begin = -1;
  long long end = -1;
  if (options.count("--begin") > 0 && !Moment(options["--begin"], false, &begin)) {
    return Error("--begin takes YYYY-MM-DD, YYYY-MM-DDTHH:MM:SS or seconds since 1970");
  }
  if (options.count("--end") > 0 && !Moment(options["--end"], true, &end)) {
    return Error("--end takes YYYY-MM-DD, YYYY-MM-DDTHH:MM:SS or seconds since 1970");
  }
  if (begin > 0 && end > 0 && end <= begin) return Error("--end must come after --begin");

  Personal personal(user);
  if (!Load(user, personal, &status)) return status;
  const char *to = sender != options.end() ? sender->second.c_str() : nullptr;
  // The vacation program answers everyone else with the reply to everyone: it must be there.
  if ((!hasSubject || to != nullptr) && !personal.doesReplyFileExist(nullptr)) {
    return Error(Quoted(user) +
                 " has no reply to everyone yet: give --subject and --body without --sender");
  }
  if (hasSubject && personal.WriteReplyContent(to, options["--subject"], options["--body"]) != 0) {
    return Error("the reply of " + Quoted(user) +
                 " was not written or not spread to the cluster (see the system log)");
  }
  personal.setReply(true);
  if (begin > 0) personal.SetReplyBeginTime(static_cast<long>(begin));
  if (end > 0) personal.SetReplyEndTime(static_cast<long>(end));
  return Saved(personal, user);
}

int Off(const std::string &user) {
  const std::string why = UserRefusal(user);
  if (!why.empty()) return Error("refused the user " + Quoted(user) + ": " + why);
  Personal personal(user);
  int status = 1;
  if (!Load(user, personal, &status)) return status;
  personal.setForward(false);
  personal.setReply(false);
  return Saved(personal, user);
}

}  // namespace

int PersonalCommand(const std::vector<std::string> &args) {
  const std::string word = args.empty() ? "" : args[0];
  const std::vector<std::string> rest(args.begin() + (args.empty() ? 0 : 1), args.end());
  if (word == "show" && rest.size() == 1) return Show(rest[0]);
  if (word == "off" && rest.size() == 1) return Off(rest[0]);
  if (word == "forward" && rest.size() >= 2) return Forward(rest);
  if (word == "vacation" && !rest.empty()) return Vacation(rest);
  return Usage();
}

}  // namespace mailserverctl
