// The settings of the SMTP side: every key the mail transfer agent's configuration depends on,
// with its type and default, and the lists that don't fit one key: the canonical domains, the map
// of domain numbers to names, the post-screen DNS block lists and the greylist rules.
//
// In the store the relay password is enciphered by the platform's cipher; a loaded object holds it
// in plain text, and SaveSettings enciphers it again in the object. So a SaveSettings ends an
// object's life: a second one would encipher twice.
//
// One object per operation and thread, like every settings object.
#ifndef MAILSERVER_CONFIG_POSTFIX_H_
#define MAILSERVER_CONFIG_POSTFIX_H_

#include <list>
#include <map>
#include <string>

#include "config/basic_config.h"
#include "foundation/export.h"

class QSV_EXPORT Postfix : public Config {
 public:
  struct PostScreenDNSBL {
    std::string server;
    int weight;
  };
  struct GreylistRule {
    std::string kind;
    std::string match;  // what makes a rule unique
    std::string action;
  };

  Postfix();

  // Config::Load, then the relay password deciphered. 0, or -1.
  int Load() override;
  // Load and the four lists, stopping at the first failure. 0, or -1.
  int LoadSettings();
  // The keys, the lists, then the callbacks in order. 0, or -1 (what was written stays).
  int SaveSettings(const std::list<Callback> &callbacks);

  // Runs the SMTP daemon script with an action word; its result.
  static int Service(const std::string &action);

  std::list<std::string> &GetCanonicalDomain();
  void AddDomain(const std::string &domain);
  void DeleteDomain(const std::string &domain);
  int SaveDomainList();
  int LoadDomainList();

  std::map<int, std::string> &GetMultiDomainMap();
  // Throws std::invalid_argument or std::out_of_range for an entry whose number is damaged.
  int LoadMultiDomain();
  bool GetDomainId(const std::string &name, int &id);
  bool GetDomainName(const int &id, std::string &name);
  bool IsLocalDomain(const int &id);
  // Whether `domain`, in either its Unicode or its punycode form, is one of the served domains or
  // their further names.
  bool IsLocalDomain(const std::string &domain);
  int GetAdditionalDomainList(const int &id, std::list<std::string> &domains);

  // The workgroup of a "win" server, else "".
  std::string GetShortDomainName();

  std::list<GreylistRule> &GetGreylistRuleList();
  void AddGreylistRule(const std::string &kind, const std::string &match,
                       const std::string &action);
  void ClearGreylistRule();
  int LoadGreylistRuleList();
  int SaveGreylistRuleList();

  std::list<PostScreenDNSBL> &GetPostScreenDNSBLList();
  void AddPostScreenDNSBL(const std::string &server, int weight);
  void ClearPostScreenDNSBL();
  int LoadPostScreenDNSBLList();
  int SavePostScreenDNSBLList();

 private:
  std::list<std::string> canonicalDomains_;
  std::map<int, std::string> multiDomainMap_;
  std::list<PostScreenDNSBL> dnsblList_;
  std::list<GreylistRule> greylistRules_;
};

#endif  // MAILSERVER_CONFIG_POSTFIX_H_
