#include "log_gen/traffic.h"

#include <algorithm>
#include <cinttypes>
#include <cstdio>

namespace qsvlog {

namespace {

// splitmix64: small, fast, and the same numbers everywhere.
class Random {
 public:
  explicit Random(uint64_t seed) : state_(seed) {}
  uint64_t Next() {
    uint64_t z = (state_ += 0x9e3779b97f4a7c15ULL);
    z = (z ^ (z >> 30)) * 0xbf58476d1ce4e5b9ULL;
    z = (z ^ (z >> 27)) * 0x94d049bb133111ebULL;
    return z ^ (z >> 31);
  }
  uint64_t Below(uint64_t n) { return Next() % n; }
  double Unit() { return static_cast<double>(Next() >> 11) * (1.0 / 9007199254740992.0); }
  template <size_t N>
  const char *Pick(const char *const (&list)[N]) {
    return list[Below(N)];
  }

 private:
  uint64_t state_;
};

const char *const kUsers[] = {"alice",  "bob",    "carol", "dave",    "erin",    "frank",  "grace",
                              "heidi",  "ivan",   "judy",  "mallory", "oscar",   "peggy",  "trent",
                              "victor", "walter", "info",  "sales",   "support", "billing"};
const char *const kAliases[] = {"team", "office", "postmaster", "contact", "all"};
// Internationalised ones included, as people write them: the log keeps the UTF-8 form.
const char *const kRemoteDomains[] = {
    "partner.example.net", "customer.example.org", "lists.example.net", "supplier.example.com",
    "bücher.example",      "münchen.example",      "пример.example",    "例え.example"};
const char *const kSubjects[] = {"Meeting notes",     "Invoice",          "Re: project update",
                                 "Quarterly report",  "Lunch on Friday?", "Fwd: contract draft",
                                 "Grüße aus München", "Ваш заказ",        "会議の議事録",
                                 "Password reset",    "Newsletter",       "Re: Re: holiday plans"};
const char *const kSpamSubjects[] = {"You have won!", "Cheap watches",
                                     "Urgent: verify your account", "Investment opportunity",
                                     "Ihr Paket wartet"};
const char *const kRejectEvents[] = {
    "Relay access denied",
    "Client host rejected: cannot find your hostname",
    "Recipient address rejected: User unknown in local recipient table",
    "Sender address rejected: Domain not found",
    "Helo command rejected: need fully-qualified hostname",
    "Service unavailable; client blocked using a DNS blocklist"};
const char *const kContentEvents[] = {"Attachment type not allowed", "message content rejected",
                                      "Virus found: Eicar-Test-Signature"};

// Local time stays as the plan says; only the spread within the span is random.
time_t RowTime(const TrafficPlan &plan, uint64_t index, uint64_t count, Random &random) {
  const double span = static_cast<double>(plan.end - plan.start);
  const double at = (static_cast<double>(index) + random.Unit()) / static_cast<double>(count);
  const time_t t = plan.start + static_cast<time_t>(span * at);
  return t < plan.end ? t : plan.end - 1;
}

std::string LocalAddress(const TrafficPlan &plan, Random &random) {
  return std::string(random.Pick(kUsers)) + "@" +
         plan.localDomains[random.Below(plan.localDomains.size())];
}

// The remote domains that aren't among the plan's own: mail to one of those is local mail.
std::vector<std::string> RemoteDomains(const TrafficPlan &plan) {
  std::vector<std::string> remote;
  for (const char *domain : kRemoteDomains) {
    if (std::find(plan.localDomains.begin(), plan.localDomains.end(), domain) ==
        plan.localDomains.end()) {
      remote.push_back(domain);
    }
  }
  return remote;
}

std::string RemoteAddress(const std::vector<std::string> &remote, Random &random) {
  return std::string(random.Pick(kUsers)) + "@" + remote[random.Below(remote.size())];
}

std::string Hex(uint64_t value, int digits, bool upper) {
  char text[24];
  snprintf(text, sizeof(text), upper ? "%0*" PRIX64 : "%0*" PRIx64, digits, value);
  return std::string(text).substr(0, static_cast<size_t>(digits));
}

long long MessageSize(Random &random) {
  const uint64_t kind = random.Below(100);
  if (kind < 70) return 1024 + static_cast<long long>(random.Below(50 * 1024));
  if (kind < 95) return 50 * 1024 + static_cast<long long>(random.Below(2 * 1024 * 1024));
  return 2 * 1024 * 1024 + static_cast<long long>(random.Below(23 * 1024 * 1024));
}

std::string Subject(Random &random) {
  std::string subject = random.Pick(kSubjects);
  if (random.Below(2) == 0) subject += " #" + std::to_string(random.Below(10000));
  return subject;
}

}  // namespace

bool MakeMailRows(const TrafficPlan &plan, const std::function<bool(const MailRow &)> &add) {
  Random random(plan.seed);
  const std::vector<std::string> remote = RemoteDomains(plan);
  uint64_t message = 0;
  for (uint64_t i = 0; i < plan.rows; ++message) {
    MailRow row;
    row.date = RowTime(plan, i, plan.rows, random);
    row.queueId = Hex(random.Next(), 11, true);
    row.size = MessageSize(random);
    row.host = plan.host;
    row.subject = Subject(random);
    const uint64_t kind = random.Below(100);
    const bool inbound = kind < 40;
    row.status = inbound ? kReceive : kind < 80 ? kSend : kind < 90 ? kBounce : kResend;
    row.from = inbound && random.Below(2) == 0 ? RemoteAddress(remote, random)
                                               : LocalAddress(plan, random);
    row.messageId = "<" + Hex(random.Next(), 16, false) + "." + std::to_string(message) + "@" +
                    row.from.substr(row.from.find('@') + 1) + ">";
    const uint64_t spread = random.Below(100);
    uint64_t recipients = spread < 80 ? 1 : spread < 95 ? 2 : 3;
    if (recipients > plan.rows - i) recipients = plan.rows - i;
    for (uint64_t r = 0; r < recipients; ++r, ++i) {
      row.to = inbound ? LocalAddress(plan, random) : RemoteAddress(remote, random);
      row.origTo.clear();
      if (inbound && random.Below(100) < 15) {
        row.origTo = std::string(random.Pick(kAliases)) + row.to.substr(row.to.find('@'));
      }
      if (!add(row)) return false;
    }
  }
  if (plan.subject.empty()) return true;
  MailRow row;
  row.date = plan.start + (plan.end - plan.start) / 2;
  row.queueId = Hex(random.Next(), 11, true);
  row.messageId = "<" + Hex(random.Next(), 16, false) + ".subject@" + plan.localDomains[0] + ">";
  row.from = RemoteAddress(remote, random);
  row.to = LocalAddress(plan, random);
  row.size = MessageSize(random);
  row.status = kReceive;
  row.host = plan.host;
  row.subject = plan.subject;
  return add(row);
}

bool MakeSecurityRows(const TrafficPlan &plan,
                      const std::function<bool(const SecurityRow &)> &add) {
  // Not the mail rows' sequence: the security rows stay the same whether or not mail is made too.
  Random random(plan.seed ^ 0x5ec0de5ec0de5ec0ULL);
  const std::vector<std::string> remote = RemoteDomains(plan);
  auto source = [&random]() {
    if (random.Below(10) == 0) return "2001:db8::" + Hex(random.Below(0xffff) + 1, 4, false);
    static const char *const kNets[] = {"192.0.2.", "198.51.100.", "203.0.113."};
    return std::string(random.Pick(kNets)) + std::to_string(1 + random.Below(254));
  };
  for (uint64_t i = 0; i < plan.rows; ++i) {
    SecurityRow row;
    row.date = RowTime(plan, i, plan.rows, random);
    row.src = source();
    row.host = plan.host;
    row.recipient = LocalAddress(plan, random);
    const uint64_t kind = random.Below(100);
    if (kind < 60) {
      row.type = "reject";
      row.event = random.Pick(kRejectEvents);
      row.sender = random.Below(5) == 0 ? "" : RemoteAddress(remote, random);
    } else if (kind < 90) {
      row.type = "spam";
      row.event = "spam score " + std::to_string(5 + random.Below(20)) + "." +
                  std::to_string(random.Below(10)) + " over 5.0";
      row.sender = RemoteAddress(remote, random);
      row.subject = random.Pick(kSpamSubjects);
    } else {
      row.type = "content";
      row.event = random.Pick(kContentEvents);
      row.sender = RemoteAddress(remote, random);
      row.subject = Subject(random);
    }
    if (!add(row)) return false;
  }
  if (plan.subject.empty()) return true;
  SecurityRow row;
  row.date = plan.start + (plan.end - plan.start) / 2;
  row.src = source();
  row.type = "spam";
  row.event = "spam score 15.0 over 5.0";
  row.host = plan.host;
  row.sender = RemoteAddress(remote, random);
  row.recipient = LocalAddress(plan, random);
  row.subject = plan.subject;
  return add(row);
}

}  // namespace qsvlog
