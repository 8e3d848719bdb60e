#include "config/mailscanner.h"

#include "foundation/log.h"
#include "foundation/privilege.h"
#include "kolt/exec.h"

namespace {

constexpr char kClamavScript[] = "/var/packages/Quillon-Server/target/scripts/daemon/clamav.sh";
constexpr char kMcafeeScript[] =
    "/var/packages/Quillon-Server/target/scripts/daemon/koltav_mcafee.sh";

const char kDeleteTemplate[] =
    "This is a message from the MailScanner E-Mail Virus Protection Service\n"
    "\n"
    "The original e-mail was believed to be dangerous and/or infected by\n"
    "a virus and has been replaced by this warning message.\n"
    "\n"
    "The infected e-mail has been deleted and cannot be recovered.\n"
    "\n"
    "Best Regards,\n"
    "System Administrator";

const char kQuarantineTemplate[] =
    "This is a message from the MailScanner E-Mail Virus Protection Service\n"
    "\n"
    "The original e-mail was believed to be dangerous and/or infected by\n"
    "a virus and has been replaced by this warning message.\n"
    "\n"
    "If you wish to receive a copy of the *infected* attachment, please\n"
    "e-mail helpdesk and include the whole of this message\n"
    "in your request. Alternatively, you can call them, with\n"
    "the contents of this message to hand when you call.\n"
    "\n"
    "Best Regards,\n"
    "System Administrator";

const char kBounceContent[] =
    "Dear Sender,\n\n"
    "Your message has been banned by our content protector.\n"
    "If you have any question, please contact the system administrator.\n\n"
    "--\nSystem Administrator";

}  // namespace

MailScanner::MailScanner() {
  keys.push_back(Key<bool>("spam_enable", false));
  keys.push_back(Key<double>("spam_required_score", 5.0));
  keys.push_back(Key<bool>("spam_enable_rewrite", false));
  keys.push_back(Key<std::string>("spam_rewrite_subject", "*****SPAM*****"));
  keys.push_back(Key<int>("spam_report_machanism", 0));
  keys.push_back(Key<bool>("spam_auto_learn", false));
  keys.push_back(Key<bool>("spam_auto_whitelist", false));
  keys.push_back(Key<bool>("spam_rule_auto_update", true));
  keys.push_back(Key<int>("spam_rule_update_hour", 0));
  keys.push_back(Key<int>("spam_rule_update_minute", 0));
  keys.push_back(Key<double>("spam_learn_threshold_spam", 12.0));
  keys.push_back(Key<double>("spam_learn_threshold_non_spam", -1.0));
  keys.push_back(Key<int>("spam_clean_interval", 30));
  keys.push_back(Key<std::string>("spam_keywords", ""));
  keys.push_back(Key<bool>("anti_virus_enable", false));
  keys.push_back(Key<std::string>("anti_virus_engine", "clamav"));
  keys.push_back(Key<int>("anti_virus_db_update_hour", 0));
  keys.push_back(Key<int>("anti_virus_db_update_minute", 0));
  keys.push_back(Key<std::string>("anti_virus_last_update_time", ""));
  keys.push_back(Key<bool>("anti_virus_enable_google_safebrowsing", false));
  keys.push_back(Key<bool>("anti_virus_enable_extra_signature", false));
  keys.push_back(Key<bool>("anti_virus_enable_rewrite", false));
  keys.push_back(Key<std::string>("anti_virus_rewrite_subject", "{Virus?}"));
  keys.push_back(Key<std::string>("anti_virus_action", "delete"));
  keys.push_back(Key<bool>("anti_virus_notify_recipient", false));
  keys.push_back(Key<std::string>("anti_virus_delete_template", kDeleteTemplate));
  keys.push_back(Key<std::string>("anti_virus_quarantine_template", kQuarantineTemplate));
  keys.push_back(Key<bool>("anti_virus_auto_update", true));
  keys.push_back(Key<bool>("enable_dangerous_content_scan", false));
  keys.push_back(Key<bool>("reject_partial_message", true));
  keys.push_back(Key<bool>("reject_external_message_bodies", true));
  keys.push_back(Key<bool>("find_phishing_fraud", true));
  keys.push_back(Key<bool>("convert_html_to_text", false));
  keys.push_back(Key<std::string>("allow_iframe_tags", "yes"));
  keys.push_back(Key<std::string>("allow_form_tags", "yes"));
  keys.push_back(Key<std::string>("allow_script_tags", "yes"));
  keys.push_back(Key<std::string>("allow_webbugs", "yes"));
  keys.push_back(Key<std::string>("allow_object_codebase_tags", "yes"));
  keys.push_back(Key<bool>("mcp_enable", false));
  keys.push_back(Key<int>("mcp_threshold", 100));
  keys.push_back(Key<bool>("mcp_enable_store", true));
  keys.push_back(Key<bool>("mcp_enable_deliver", false));
  keys.push_back(Key<bool>("mcp_enable_delete", false));
  keys.push_back(Key<bool>("mcp_enable_bounce", false));
  keys.push_back(Key<bool>("mcp_enable_forward", false));
  keys.push_back(Key<bool>("mcp_enable_header", false));
  keys.push_back(Key<std::string>("mcp_forward_to", ""));
  keys.push_back(Key<std::string>("mcp_add_header_name", ""));
  keys.push_back(Key<std::string>("mcp_add_header_value", ""));
  keys.push_back(Key<std::string>("mcp_bounce_admin_addr", ""));
  keys.push_back(Key<std::string>("mcp_bounce_subject", "*** Banned Mail Notification ***"));
  keys.push_back(Key<std::string>("mcp_bounce_content", kBounceContent));
}

int MailScanner::LoadSettings() { return Load(); }

int MailScanner::SaveSettings(const std::list<Callback> &callbacks) {
  if (Save() < 0) {
    maillog(3, "%s:%d save config fail", QSV_FILE, __LINE__);
    return -1;
  }
  for (const Callback &callback : callbacks) {
    if (callback.func(callback.arg) < 0) {
      maillog(3, "%s:%d %s exec fail", QSV_FILE, __LINE__, callback.name.c_str());
      return -1;
    }
  }
  return 0;
}

int MailScanner::AntiVirusService(const std::string &action) {
  MailScanner scanner;
  if (scanner.LoadSettings() < 0) {
    maillog(3, "%s:%d MailScanner load settings failed", QSV_FILE, __LINE__);
    return -1;
  }
  const std::string engine =
      boost::any_cast<Value<std::string>>(scanner.Get("anti_virus_engine")).value;
  const char *script = engine == "clamav"         ? kClamavScript
                       : engine == "koltav-mcafee" ? kMcafeeScript
                                                   : nullptr;
  if (script == nullptr) {
    maillog(3, "%s:%d Unknown antivirus engine", QSV_FILE, __LINE__);
    return -1;
  }
  int rc;
  ENTERCriticalSection;
  rc = KLIBCExec(script, action.c_str(), nullptr, nullptr, 0);
  LEAVECriticalSection;
  return rc;
}
