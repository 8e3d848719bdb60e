// qsv-log-gen: fills the mail and security logs with made-up traffic, for tests, benchmarks and
// demos.
//
//   qsv-log-gen [--mail-db PATH] [--security-db PATH] [--from YYYY-MM-DD] [--days N] [--rows N]
//               [--domains a.example,b.example] [--seed N] [--old-layout] [--subject TEXT]
//
// At least one database. Each file gets --rows rows (default 1000) spread over --days days
// (default 1) from the local midnight of --from (default: that many days before today), in one
// transaction through one prepared insert. A missing file is created with its table; rows are
// added to an existing one of the same layout. The same options give the same rows. Prints how
// many rows it wrote. Exit status 0, or 1 with one line on stderr.
#include <unistd.h>

#include <algorithm>
#include <climits>
#include <cstdio>
#include <ctime>
#include <memory>
#include <string>

#include "eai/punycode.h"
#include "log_files/log_files.h"
#include "log_files/options.h"
#include "log_gen/traffic.h"

namespace {

using qsvlog::LogDb;

// A million rows with their indexes make about 330 MB of pages. With SQLite's default cache of
// 2 MB the one transaction spills pages into the file and writes them again (18 s for a million
// rows, half of it in the kernel); 128 MB brings that to 12 s, and more helps no further.
constexpr int kCacheMegabytes = 128;

int Fail(const std::string &message) {
  fprintf(stderr, "qsv-log-gen: %s\n", message.c_str());
  return 1;
}

int Usage(FILE *to, int status) {
  fprintf(
      to,
      "usage: qsv-log-gen [--mail-db PATH] [--security-db PATH] [--from YYYY-MM-DD]\n"
      "                   [--days N] [--rows N] [--domains a.example,b.example] [--seed N]\n"
      "                   [--old-layout] [--subject TEXT]\n"
      "  --mail-db, --security-db  the files to fill, absolute paths; one or both\n"
      "  --from, --days   the span, from a local midnight (default: the N days before today)\n"
      "  --rows N         rows per file (default 1000)\n"
      "  --domains LIST   the server's own domains (default example.com)\n"
      "  --seed N         the same seed gives the same rows (default 1)\n"
      "  --old-layout     a new mail file gets the older table, without subject and ori_mail_to\n"
      "  --subject TEXT   one more row in each file, with exactly this subject\n");
  return status;
}

// Local midnight of the day; a day past the end of its month runs on into the next.
time_t LocalMidnight(int year, int month, int day) {
  struct tm tm = {};
  tm.tm_year = year - 1900;
  tm.tm_mon = month - 1;
  tm.tm_mday = day;
  tm.tm_isdst = -1;
  return mktime(&tm);
}

// "YYYY-MM-DD" of a real day, years 1970 to 9999.
bool ParseDay(const std::string &text, int *year, int *month, int *day) {
  unsigned long long y, m, d;
  if (text.size() != 10 || text[4] != '-' || text[7] != '-' ||
      !qsvlog::ParseNumber(text.substr(0, 4), 1970, 9999, &y) ||
      !qsvlog::ParseNumber(text.substr(5, 2), 1, 12, &m) ||
      !qsvlog::ParseNumber(text.substr(8, 2), 1, 31, &d)) {
    return false;
  }
  *year = static_cast<int>(y), *month = static_cast<int>(m), *day = static_cast<int>(d);
  const time_t t = LocalMidnight(*year, *month, *day);
  struct tm back;
  return t != -1 && localtime_r(&t, &back) != nullptr && back.tm_mday == *day;
}

// A domain name in either form; `utf8` gets its UTF-8 form in lower case.
bool ParseDomain(const std::string &name, std::string *utf8) {
  std::string ascii;
  if (name.empty() || KOLT::QUILLON_SERVER::ConvertToPunycode(name, ascii) != 0 ||
      ascii.size() > 253 || ascii.find('@') != std::string::npos) {
    return false;
  }
  size_t labelStart = 0;
  for (size_t i = 0; i <= ascii.size(); ++i) {
    if (i < ascii.size() && ascii[i] != '.') {
      const char c = ascii[i];
      if (!((c >= 'a' && c <= 'z') || (c >= '0' && c <= '9') || c == '-')) return false;
      continue;
    }
    const size_t length = i - labelStart;
    if (length == 0 || length > 63 || ascii[labelStart] == '-' || ascii[i - 1] == '-') return false;
    labelStart = i + 1;
  }
  return KOLT::QUILLON_SERVER::ConvertToUTF8(ascii, *utf8) == 0;
}

// A subject is shown and searched for: one line of UTF-8 text.
bool ValidSubject(const std::string &text) {
  if (text.empty() || text.size() > 998) return false;
  for (size_t i = 0; i < text.size();) {
    const unsigned char c = static_cast<unsigned char>(text[i]);
    size_t length = c < 0x80             ? 1
                    : (c & 0xe0) == 0xc0 ? 2
                    : (c & 0xf0) == 0xe0 ? 3
                    : (c & 0xf8) == 0xf0 ? 4
                                         : 0;
    if (length == 0 || i + length > text.size() || c < 0x20 || c == 0x7f) return false;
    unsigned cp = length == 1 ? c : c & (0x7f >> length);
    for (size_t k = 1; k < length; ++k) {
      const unsigned char next = static_cast<unsigned char>(text[i + k]);
      if ((next & 0xc0) != 0x80) return false;
      cp = (cp << 6) | (next & 0x3f);
    }
    static const unsigned kMinimum[] = {0, 0, 0x80, 0x800, 0x10000};
    if (cp < kMinimum[length] || cp > 0x10ffff || (cp >= 0xd800 && cp <= 0xdfff) ||
        (cp >= 0x80 && cp <= 0x9f)) {
      return false;
    }
    i += length;
  }
  return true;
}

}  // namespace

int main(int argc, char **argv) {
  qsvlog::CommandLine command;
  const std::string wrong =
      qsvlog::ParseCommandLine(argc, argv,
                               {"--mail-db", "--security-db", "--from", "--days", "--rows",
                                "--domains", "--seed", "--subject"},
                               {"--old-layout", "--help"}, &command);
  if (!wrong.empty()) return Fail(wrong);
  auto &values = command.values;
  if (values.count("--help") != 0) return Usage(stdout, 0);
  if (!command.operands.empty())
    return Fail("takes no operands: " + command.operands[0].substr(0, 40));

  const bool mail = values.count("--mail-db") != 0;
  const bool security = values.count("--security-db") != 0;
  if (!mail && !security) return Fail("give --mail-db, --security-db or both");
  for (const char *option : {"--mail-db", "--security-db"}) {
    if (values.count(option) == 0) continue;
    const std::string why = qsvlog::CheckDbPath(values[option]);
    if (!why.empty()) return Fail(std::string(option) + " " + why);
  }
  if (mail && security && values["--mail-db"] == values["--security-db"]) {
    return Fail("--mail-db and --security-db name the same file");
  }
  const bool oldLayout = values.count("--old-layout") != 0;
  if (oldLayout && !mail) return Fail("--old-layout is a layout of the mail log: give --mail-db");

  unsigned long long days = 1, rows = 1000, seed = 1;
  if (values.count("--days") != 0 && !qsvlog::ParseNumber(values["--days"], 1, 3650, &days)) {
    return Fail("--days takes a number from 1 to 3650");
  }
  if (values.count("--rows") != 0 && !qsvlog::ParseNumber(values["--rows"], 0, 1000000000, &rows)) {
    return Fail("--rows takes a number from 0 to 1000000000");
  }
  if (values.count("--seed") != 0 && !qsvlog::ParseNumber(values["--seed"], 0, ULLONG_MAX, &seed)) {
    return Fail("--seed takes a number from 0 to " + std::to_string(ULLONG_MAX));
  }

  qsvlog::TrafficPlan plan;
  int year, month, day;
  if (values.count("--from") != 0) {
    if (!ParseDay(values["--from"], &year, &month, &day)) {
      return Fail("--from takes a day as YYYY-MM-DD");
    }
  } else {
    const time_t now = time(nullptr);
    struct tm today;
    localtime_r(&now, &today);
    year = today.tm_year + 1900, month = today.tm_mon + 1;
    day = today.tm_mday - static_cast<int>(days);
  }
  plan.start = LocalMidnight(year, month, day);
  // Days of 23 or 25 hours where the clocks change: the end is a local midnight too.
  plan.end = LocalMidnight(year, month, day + static_cast<int>(days));
  if (plan.start == -1 || plan.end == -1) return Fail("--from and --days reach past the calendar");

  const std::string domains = values.count("--domains") != 0 ? values["--domains"] : "example.com";
  for (size_t start = 0; start <= domains.size();) {
    size_t comma = domains.find(',', start);
    if (comma == std::string::npos) comma = domains.size();
    std::string utf8;
    if (!ParseDomain(domains.substr(start, comma - start), &utf8)) {
      return Fail("--domains takes domain names separated by commas, not \"" +
                  domains.substr(start, std::min<size_t>(comma - start, 60)) + "\"");
    }
    plan.localDomains.push_back(utf8);
    start = comma + 1;
  }

  if (values.count("--subject") != 0) {
    plan.subject = values["--subject"];
    if (!ValidSubject(plan.subject)) {
      return Fail("--subject takes one line of UTF-8 text of 1 to 998 bytes");
    }
    if (oldLayout) return Fail("--subject needs the subject column, which --old-layout leaves out");
  }
  plan.rows = rows;
  plan.seed = seed;
  char host[256] = "";
  if (gethostname(host, sizeof(host) - 1) != 0 || host[0] == '\0')
    snprintf(host, sizeof(host), "localhost");
  plan.host = host;

  // Both files are opened before either is filled: a wrong path costs no half-done run.
  std::string error;
  std::unique_ptr<LogDb> mailDb, securityDb;
  if (mail) {
    mailDb = LogDb::Open(values["--mail-db"], LogDb::Table::kMail, oldLayout, &error);
    if (!mailDb) return Fail(error);
    if (mailDb->newerLayout() == oldLayout) {
      return Fail(values["--mail-db"] + (oldLayout ? " has the newer layout"
                                                   : " has the older layout; add --old-layout"));
    }
  }
  if (security) {
    securityDb = LogDb::Open(values["--security-db"], LogDb::Table::kSecurity, false, &error);
    if (!securityDb) return Fail(error);
  }

  unsigned long long mailRows = 0, securityRows = 0;
  if (mailDb) {
    mailDb->SetCacheSize(kCacheMegabytes);
    if (!mailDb->Begin()) return Fail(mailDb->error());
    const bool ok = qsvlog::MakeMailRows(plan, [&](const qsvlog::MailRow &row) {
      ++mailRows;
      return mailDb->Add(row);
    });
    if (!ok || !mailDb->Commit()) return Fail(mailDb->error());
  }
  if (securityDb) {
    securityDb->SetCacheSize(kCacheMegabytes);
    if (!securityDb->Begin()) return Fail(securityDb->error());
    const bool ok = qsvlog::MakeSecurityRows(plan, [&](const qsvlog::SecurityRow &row) {
      ++securityRows;
      return securityDb->Add(row);
    });
    if (!ok || !securityDb->Commit()) return Fail(securityDb->error());
  }
  printf("%llu mail rows, %llu security rows written\n", mailRows, securityRows);
  return 0;
}
