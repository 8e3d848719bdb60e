#include "mailserverctl/log_commands.h"

#include <fcntl.h>
#include <unistd.h>

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <ctime>
#include <functional>
#include <map>
#include <set>

#include "logs/maillog.h"
#include "logs/securityLog.h"
#include "mailserverctl/error.h"
#include "mailserverctl/log_options.h"

namespace mailserverctl {

namespace {

constexpr int kMaxLimit = 100000;

// What a log command understands beyond its own terms.
const std::set<std::string> kPageOptions = {"--limit", "--offset", "--sort", "--order"};

const std::set<std::string> kMailColumns = {"message_id", "date",   "mail_from",
                                            "mail_to",    "size",   "status",
                                            "host",       "subject", "ori_mail_to"};
const std::set<std::string> kSecurityColumns = {"date", "src",       "type",     "event",
                                                "host", "sender",    "recipient", "subject"};
const std::set<std::string> kMailTerms = {"--message-id", "--from",      "--to",
                                          "--ori-to",     "--subject",   "--size-from",
                                          "--size-to",    "--status",    "--date-from",
                                          "--date-to"};
const std::set<std::string> kSecurityTerms = {"--src",     "--type",    "--sender",
                                              "--recipient", "--subject", "--date-from",
                                              "--date-to"};

int Usage() {
  fprintf(stderr,
          "usage: mailserverctl log|security-log count [KEYWORD]\n"
          "       mailserverctl log|security-log list [PAGE]\n"
          "       mailserverctl log|security-log search KEYWORD [PAGE]\n"
          "       mailserverctl log|security-log filter [TERMS] [PAGE] [--count]\n"
          "       mailserverctl log|security-log export [--keyword K | TERMS] [PAGE] [--lang L]"
          " [--output FILE]\n"
          "PAGE: --limit N --offset N --sort COLUMN --order asc|desc\n");
  return 2;
}

struct Page {
  int limit = 50;
  int offset = 0;
  std::string sort = "date";
  std::string order = "desc";
};

bool ReadPage(const std::map<std::string, std::string> &options, const std::set<std::string> &columns,
              Page *page, int *status) {
  long long number;
  auto it = options.find("--limit");
  if (it != options.end()) {
    if (!Number(it->second, kMaxLimit, &number) || number == 0) {
      *status = Error("--limit takes a number from 1 to 100000, not " + Quoted(it->second));
      return false;
    }
    page->limit = static_cast<int>(number);
  }
  it = options.find("--offset");
  if (it != options.end()) {
    if (!Number(it->second, 2000000000, &number)) {
      *status = Error("--offset takes a number from 0, not " + Quoted(it->second));
      return false;
    }
    page->offset = static_cast<int>(number);
  }
  it = options.find("--sort");
  if (it != options.end()) {
    // The column goes into the statement unquoted: only the log's own names pass.
    if (columns.count(it->second) == 0) {
      std::string names;
      for (const std::string &c : columns) names += (names.empty() ? "" : ", ") + c;
      *status = Error("--sort takes a column of the log (" + names + "), not " +
                      Quoted(it->second));
      return false;
    }
    page->sort = it->second;
  }
  it = options.find("--order");
  if (it != options.end()) {
    if (it->second != "asc" && it->second != "desc") {
      *status = Error("--order takes asc or desc, not " + Quoted(it->second));
      return false;
    }
    page->order = it->second;
  }
  return true;
}

const char *StatusWord(int status) {
  static const char *const kWords[] = {"send", "receive", "bounce", "resend"};
  return status >= 0 && status < 4 ? kWords[status] : "unknown";
}

void Print(const std::vector<mail_log::MailLogInfo> &rows) {
  for (const mail_log::MailLogInfo &row : rows) {
    printf("%s\t%s\t%s\t%s\t%s\t%lld\t%s\t%s\t%s\n", When(row.dateTm).c_str(),
           StatusWord(row.status), Field(row.mailFrom).c_str(), Field(row.mailTo).c_str(),
           Field(row.oriMailTo).c_str(), static_cast<long long>(row.size), Field(row.host).c_str(),
           Field(row.messageId).c_str(), Field(row.subject).c_str());
  }
}

void Print(const std::vector<security_log::SecurityLogInfo> &rows) {
  for (const security_log::SecurityLogInfo &row : rows) {
    printf("%s\t%s\t%s\t%s\t%s\t%s\t%s\t%s\n", When(row.dateTm).c_str(), Field(row.type).c_str(),
           Field(row.src).c_str(), Field(row.sender).c_str(), Field(row.recipient).c_str(),
           Field(row.host).c_str(), Field(row.event).c_str(), Field(row.subject).c_str());
  }
}

// Runs `write`, which prints a web reply on standard output, and puts the document behind its
// headers into `path` (replaced whole, never written through a link), or lets it through.
int Exported(const std::string &path, const std::function<int()> &write) {
  if (path.empty()) return write() == 0 ? 0 : Error("the export failed (see the system log)");
  if (path[0] != '/' || path.back() == '/') {
    return Error("--output takes an absolute file path, not " + Quoted(path));
  }
  const std::string temporary = path + ".exporting";
  unlink(temporary.c_str());
  const int fd = open(temporary.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_NOFOLLOW | O_CLOEXEC, 0644);
  if (fd < 0) return Error("cannot write beside " + Quoted(path));
  fflush(stdout);
  const int saved = dup(1);
  dup2(fd, 1);
  close(fd);
  const int rc = write();
  fflush(stdout);
  dup2(saved, 1);
  close(saved);
  // The web reply's headers end at the first empty line; the file is the document alone.
  std::string reply;
  if (FILE *in = fopen(temporary.c_str(), "re")) {
    char buffer[65536];
    for (size_t got; (got = fread(buffer, 1, sizeof(buffer), in)) > 0;) reply.append(buffer, got);
    fclose(in);
  }
  const size_t body = reply.find("\n\n");
  bool ok = rc == 0 && body != std::string::npos;
  if (ok) {
    FILE *out = fopen(temporary.c_str(), "we");
    ok = out != nullptr && fwrite(reply.data() + body + 2, 1, reply.size() - body - 2, out) ==
                               reply.size() - body - 2;
    if (out != nullptr && fclose(out) != 0) ok = false;
  }
  if (!ok || rename(temporary.c_str(), path.c_str()) != 0) {
    unlink(temporary.c_str());
    return Error(rc != 0 ? "the export failed (see the system log)"
                         : "cannot write " + Quoted(path));
  }
  return 0;
}

// The shape both logs share; each supplies its columns, terms and calls.
struct LogCommands {
  const std::set<std::string> &columns;
  const std::set<std::string> &terms;
  // Fills the log's filter from the term options; false (with a message) when one is bad.
  std::function<bool(const std::map<std::string, std::string> &, int *)> readTerms;
  std::function<int(std::string *keyword)> count;  // null keyword: all rows
  std::function<int(const Page &, const std::string *keyword)> list;
  std::function<int(const Page &, bool count)> filter;
  std::function<int(const Page &, bool all, const std::string *keyword, const std::string &lang)>
      exportRows;
};

int Run(const LogCommands &log, const std::vector<std::string> &args) {
  const std::string word = args.empty() ? "" : args[0];
  std::vector<std::string> rest(args.begin() + (args.empty() ? 0 : 1), args.end());
  int status = 1;
  std::string keyword;
  if (word == "count") {
    if (rest.size() > 1) return Usage();
    if (rest.empty()) return log.count(nullptr);
    if (!TextAcceptable("the keyword", rest[0], &status)) return status;
    keyword = rest[0];
    return log.count(&keyword);
  }
  if (word == "search") {
    if (rest.empty()) return Usage();
    if (!TextAcceptable("the keyword", rest[0], &status)) return status;
    keyword = rest[0];
    rest.erase(rest.begin());
  }
  std::set<std::string> known = kPageOptions;
  std::set<std::string> flags;
  if (word == "filter" || word == "export") known.insert(log.terms.begin(), log.terms.end());
  if (word == "filter") flags.insert("--count");
  if (word == "export") known.insert({"--keyword", "--lang", "--output"});
  if (word != "list" && word != "search" && word != "filter" && word != "export") {
    if (word.empty()) return Usage();
    return Error("unknown word " + Quoted(word) +
                 ": a log takes count, list, search, filter or export");
  }
  std::map<std::string, std::string> options;
  Page page;
  if (!ReadOptions(rest, known, flags, options, &status) ||
      !ReadPage(options, log.columns, &page, &status)) {
    return status;
  }
  if (word == "list" || word == "search") return log.list(page, word == "search" ? &keyword : nullptr);
  if (!log.readTerms(options, &status)) return status;
  if (word == "filter") return log.filter(page, options.count("--count") > 0);

  const bool all = options.count("--limit") == 0;
  const auto keywordOption = options.find("--keyword");
  if (keywordOption != options.end()) {
    for (const std::string &term : log.terms) {
      if (options.count(term) > 0) return Error("--keyword and " + term + " don't go together");
    }
    if (!TextAcceptable("--keyword", keywordOption->second, &status)) return status;
    keyword = keywordOption->second;
  }
  std::string lang = "enu";
  if (options.count("--lang") > 0) {
    lang = options["--lang"];
    const bool word = !lang.empty() && lang.size() <= 16 &&
                      std::all_of(lang.begin(), lang.end(), [](char c) { return isalnum(c) || c == '_'; });
    if (!word) return Error("--lang takes a language code such as enu, not " + Quoted(lang));
  }
  const std::string output = options.count("--output") > 0 ? options["--output"] : "";
  return Exported(output, [&] {
    return log.exportRows(page, all, keywordOption != options.end() ? &keyword : nullptr, lang);
  });
}

int Counted(int count) {
  if (count < 0) return Error("the log could not be read (see the system log)");
  printf("%d\n", count);
  return 0;
}

template <typename Info>
int Listed(int rc, const std::vector<Info> &rows) {
  if (rc != 0) return Error("the log could not be read (see the system log)");
  Print(rows);
  return 0;
}

// A term option as text, checked; absent terms leave `value` alone.
bool TextTerm(const std::map<std::string, std::string> &options, const char *name,
              std::string *value, int *status) {
  const auto it = options.find(name);
  if (it == options.end()) return true;
  if (!TextAcceptable(name, it->second, status)) return false;
  *value = it->second;
  return true;
}

bool DateTerms(const std::map<std::string, std::string> &options, int64_t *from, int64_t *to,
               int *status) {
  long long when;
  for (const char *name : {"--date-from", "--date-to"}) {
    const auto it = options.find(name);
    if (it == options.end()) continue;
    const bool end = std::string(name) == "--date-to";
    if (!Moment(it->second, end, &when)) {
      *status = Error(std::string(name) + " takes YYYY-MM-DD, YYYY-MM-DDTHH:MM:SS or seconds "
                      "since 1970, not " + Quoted(it->second));
      return false;
    }
    *(end ? to : from) = when;
  }
  return true;
}

// The calls of one log, over its own class, row type and filter.
template <typename Log, typename Info, typename Filter>
LogCommands Commands(const char *path, const std::set<std::string> &columns,
                     const std::set<std::string> &terms,
                     std::function<bool(const std::map<std::string, std::string> &, int *)> readTerms,
                     Filter &filter) {
  auto paged = [&filter](const Page &page, int limit) {
    filter.limit = limit;
    filter.offset = page.offset;
    filter.sortColumn = page.sort;
    filter.sortOrder = page.order;
  };
  return LogCommands{
      columns, terms, readTerms,
      [path](std::string *keyword) {
        Log log(path);
        return Counted(keyword != nullptr ? log.getLogNum(*keyword) : log.getLogNum());
      },
      [path](const Page &page, const std::string *keyword) {
        Log log(path);
        std::vector<Info> rows;
        const int rc = keyword != nullptr
                           ? log.search(page.limit, page.offset, page.sort, page.order, *keyword, rows)
                           : log.load(page.limit, page.offset, page.sort, page.order, rows);
        return Listed(rc, rows);
      },
      [path, &filter, paged](const Page &page, bool count) {
        Log log(path);
        paged(page, page.limit);
        if (count) return Counted(log.getLogNum(filter));
        std::vector<Info> rows;
        return Listed(log.load(filter, rows), rows);
      },
      [path, &filter, paged](const Page &page, bool all, const std::string *keyword,
                             const std::string &lang) {
        Log log(path);
        const int limit = all ? -1 : page.limit;
        if (keyword != nullptr) {
          return log.ExportLog(limit, page.offset, page.sort, page.order, *keyword, lang);
        }
        paged(page, limit);
        return log.ExportLog(filter, lang);
      }};
}

}  // namespace

int MailLogCommand(const std::vector<std::string> &args) {
  mail_log::MailLogFilter filter;
  filter.columns = "*";
  auto readTerms = [&filter](const std::map<std::string, std::string> &options, int *status) {
    const std::pair<const char *, std::string *> texts[] = {
        {"--message-id", &filter.messageId}, {"--from", &filter.mailFrom},
        {"--to", &filter.mailTo},            {"--ori-to", &filter.oriMailTo},
        {"--subject", &filter.subject}};
    for (const auto &text : texts) {
      if (!TextTerm(options, text.first, text.second, status)) return false;
    }
    long long number;
    for (const auto &size : {std::make_pair("--size-from", &filter.sizeFrom),
                             std::make_pair("--size-to", &filter.sizeTo)}) {
      const auto it = options.find(size.first);
      if (it == options.end()) continue;
      if (!Number(it->second, 1LL << 40, &number)) {
        *status = Error(std::string(size.first) + " takes a number of bytes, not " +
                        Quoted(it->second));
        return false;
      }
      *size.second = number;
    }
    const auto statusWord = options.find("--status");
    if (statusWord != options.end()) {
      static const std::map<std::string, int> kStatus = {
          {"send", 0}, {"receive", 1}, {"bounce", 2}, {"resend", 3}, {"local-receive", 5}};
      const auto found = kStatus.find(statusWord->second);
      if (found == kStatus.end()) {
        *status = Error("--status takes send, receive, bounce, resend or local-receive, not " +
                        Quoted(statusWord->second));
        return false;
      }
      filter.status = found->second;
    }
    return DateTerms(options, &filter.dateFrom, &filter.dateTo, status);
  };
  return Run(Commands<mail_log::MailLog, mail_log::MailLogInfo>(mail_log::kMailLogDBPath,
                                                                 kMailColumns, kMailTerms,
                                                                 readTerms, filter),
             args);
}

int SecurityLogCommand(const std::vector<std::string> &args) {
  security_log::SecurityLogFilter filter;
  filter.columns = "*";
  auto readTerms = [&filter](const std::map<std::string, std::string> &options, int *status) {
    const std::pair<const char *, std::string *> texts[] = {
        {"--src", &filter.src},             {"--type", &filter.type},
        {"--sender", &filter.sender},       {"--recipient", &filter.recipient},
        {"--subject", &filter.subject}};
    for (const auto &text : texts) {
      if (!TextTerm(options, text.first, text.second, status)) return false;
    }
    return DateTerms(options, &filter.dateFrom, &filter.dateTo, status);
  };
  return Run(Commands<security_log::SecurityLog, security_log::SecurityLogInfo>(
                 security_log::kSecurityLogDBPath, kSecurityColumns, kSecurityTerms, readTerms,
                 filter),
             args);
}

}  // namespace mailserverctl
