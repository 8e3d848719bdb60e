// The mail log's queries over a live file of 1,000,000 rows (October) with an archive of
// 1,000,000 more (September) attached as DB0, each against the same statement run on a raw
// connection to the same two files (the floor: SQLite's own work), compiled on every call as the
// library does:
// - the count of all rows, which the web table asks for beside each page;
// - the first page of 50, newest first, every value read into a MailLogInfo;
// - a keyword page that matches nothing, so both files are scanned to their ends;
// - the count a filter of status and dates selects;
// - the HTML export of 100,000 rows to standard output, against stepping the same rows and
//   printing the same cells with stdio.
// Before the timing, the statements the library prepares are caught from its own connection and
// compared with the floor's, and both exports are compared byte for byte.
#include <fcntl.h>
#include <limits.h>
#include <spawn.h>
#include <sqlite3.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <fstream>
#include <iterator>
#include <string>
#include <vector>

#include <benchmark/benchmark.h>
#include <json/json.h>

#include "dtk/localized_string_parser.h"
#include "logs/log_db.h"
#include "logs/log_db_export.h"
#include "logs/maillog.h"
#include "ratio_reporter.h"

extern char **environ;

namespace {

using mail_log::MailLog;
using mail_log::MailLogFilter;
using mail_log::MailLogInfo;

const char *const kLive = mail_log::kMailLogDBPath;
const char *const kArchive = mail_log::kMailLogArchivePath;
const char kTexts[] = "/var/packages/Quillon-Server/target/app/texts/";
const char kLanguage[] = "enu";
constexpr long long kRowsPerFile = 1000000;
constexpr int kPage = 50;
constexpr int kExported = 100000;
const char kKeyword[] = "no-such-keyword-xyz";

// The statements of the library calls below, as the floor runs them.
const char kCountSql[] =
    "SELECT SUM(cnt) from ( SELECT COUNT(*) AS cnt FROM DB0.mail_log_table UNION ALL SELECT "
    "COUNT(*) as cnt FROM main.mail_log_table );";
const char kFirstPageSql[] =
    "SELECT * FROM DB0.mail_log_table UNION ALL SELECT * FROM main.mail_log_table ORDER BY date "
    "desc LIMIT '50' OFFSET '0';";
// search() looks for the keyword in the sender and recipient in their UTF-8 form (the same text
// for this ASCII word), in the message id as typed, and in the subject and original recipient,
// which the live file has, in both files.
const char kKeywordPageSql[] =
    "SELECT * FROM DB0.mail_log_table WHERE mail_from LIKE '%no-such-keyword-xyz%' or mail_to "
    "LIKE '%no-such-keyword-xyz%' or message_id LIKE '%no-such-keyword-xyz%' or subject LIKE "
    "'%no-such-keyword-xyz%' or ori_mail_to LIKE '%no-such-keyword-xyz%' UNION ALL SELECT * FROM "
    "main.mail_log_table WHERE mail_from LIKE '%no-such-keyword-xyz%' or mail_to LIKE "
    "'%no-such-keyword-xyz%' or message_id LIKE '%no-such-keyword-xyz%' or subject LIKE "
    "'%no-such-keyword-xyz%' or ori_mail_to LIKE '%no-such-keyword-xyz%' ORDER BY date desc "
    "LIMIT '50' OFFSET '0';";
const char kExportSql[] =
    "SELECT * FROM DB0.mail_log_table UNION ALL SELECT * FROM main.mail_log_table ORDER BY date "
    "asc LIMIT 100000 OFFSET 0;";
// The filter's statement carries its dates, which are local midnights: made at start-up.
std::string filterCountSql;

// What the set-up learnt, for the benchmarks' own checks.
struct Known {
  long long filtered = -1;  // rows of the filter, counted by a statement of this program's own
  int64_t newest = -1;      // the latest date of both files
  bool statementsMatch = false;
  bool exportsMatch = false;
};
Known known;

time_t LocalMidnight(int year, int month, int day) {
  struct tm tm = {};
  tm.tm_year = year - 1900;
  tm.tm_mon = month - 1;
  tm.tm_mday = day;
  tm.tm_isdst = -1;
  return mktime(&tm);
}

// Received mail from 5 to 24 October.
MailLogFilter StatusFilter() {
  MailLogFilter filter;
  filter.columns = "COUNT(*) AS cnt";
  filter.status = mail_log::MAIL_STATUS_RECEIVE;
  filter.dateFrom = LocalMidnight(2026, 10, 5);
  filter.dateTo = LocalMidnight(2026, 10, 25) - 1;
  return filter;
}

// The oldest 100,000 rows: all of them from the archive.
MailLogFilter ExportFilter() {
  MailLogFilter filter;
  filter.columns = "*";
  filter.limit = kExported;
  filter.offset = 0;
  filter.sortColumn = "date";
  filter.sortOrder = "asc";
  return filter;
}

// The live file with the archive attached, as MailLog connects to them.
sqlite3 *OpenRaw() {
  sqlite3 *db = nullptr;
  if (sqlite3_open(kLive, &db) != SQLITE_OK) {
    sqlite3_close(db);
    return nullptr;
  }
  sqlite3_busy_timeout(db, 60000);
  char *attach = sqlite3_mprintf("ATTACH DATABASE \"%s\" AS DB0;", kArchive);
  const int rc = sqlite3_exec(db, attach, nullptr, nullptr, nullptr);
  sqlite3_free(attach);
  if (rc != SQLITE_OK) {
    sqlite3_close(db);
    return nullptr;
  }
  return db;
}

// Standard output goes to `path` while the object lives, and comes back for the reporter.
class StdoutTo {
 public:
  explicit StdoutTo(const char *path) {
    fflush(stdout);
    saved_ = dup(1);
    const int fd = open(path, O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0600);
    ok_ = saved_ >= 0 && fd >= 0 && dup2(fd, 1) == 1;
    if (fd >= 0) close(fd);
  }
  ~StdoutTo() {
    fflush(stdout);
    if (saved_ >= 0) {
      dup2(saved_, 1);
      close(saved_);
    }
  }
  bool ok() const { return ok_; }

 private:
  int saved_ = -1;
  bool ok_ = false;
};

void LibraryCount(benchmark::State &state) {
  MailLog log(kLive);
  for (auto _ : state) {
    if (log.getLogNum() != 2 * kRowsPerFile) {
      state.SkipWithError("count");
      break;
    }
  }
}

void LibraryFirstPage(benchmark::State &state) {
  MailLog log(kLive);
  for (auto _ : state) {
    std::vector<MailLogInfo> rows;
    if (log.load(kPage, 0, "date", "desc", rows) != 0 || rows.size() != kPage ||
        rows[0].date != known.newest) {
      state.SkipWithError("first page");
      break;
    }
  }
}

void LibraryKeywordPage(benchmark::State &state) {
  MailLog log(kLive);
  for (auto _ : state) {
    std::vector<MailLogInfo> rows;
    if (log.search(kPage, 0, "date", "desc", kKeyword, rows) != 0 || !rows.empty()) {
      state.SkipWithError("keyword page");
      break;
    }
  }
}

void LibraryFilterCount(benchmark::State &state) {
  MailLog log(kLive);
  const MailLogFilter filter = StatusFilter();
  for (auto _ : state) {
    if (log.getLogNum(filter) != known.filtered) {
      state.SkipWithError("filter count");
      break;
    }
  }
}

void LibraryExport(benchmark::State &state) {
  if (!known.exportsMatch) {
    state.SkipWithError("the library's export differs from the floor's");
    return;
  }
  MailLog log(kLive);
  const MailLogFilter filter = ExportFilter();
  StdoutTo quiet("/dev/null");
  for (auto _ : state) {
    if (!quiet.ok() || log.ExportLog(filter, kLanguage) != 0) {
      state.SkipWithError("export");
      break;
    }
  }
}

// The floor of a count: prepare, step, finalize.
long long RawCountOf(sqlite3 *db, const char *sql) {
  sqlite3_stmt *query = nullptr;
  long long count = -1;
  if (sqlite3_prepare_v2(db, sql, -1, &query, nullptr) == SQLITE_OK &&
      sqlite3_step(query) == SQLITE_ROW) {
    count = sqlite3_column_int64(query, 0);
  }
  sqlite3_finalize(query);
  return count;
}

std::string Text(sqlite3_stmt *query, int i) {
  const auto *value = reinterpret_cast<const char *>(sqlite3_column_text(query, i));
  return value != nullptr ? value : "";
}

// The floor of a page: every value MailLog gives back (it never reads the queue id) in a
// MailLogInfo, with the date in local time.
int RawRows(sqlite3 *db, const char *sql, std::vector<MailLogInfo> &rows) {
  sqlite3_stmt *query = nullptr;
  if (sqlite3_prepare_v2(db, sql, -1, &query, nullptr) != SQLITE_OK) {
    sqlite3_finalize(query);
    return -1;
  }
  while (sqlite3_step(query) == SQLITE_ROW) {
    MailLogInfo info;
    info.messageId = Text(query, 0);
    info.date = sqlite3_column_int64(query, 2);
    const time_t date = static_cast<time_t>(info.date);
    localtime_r(&date, &info.dateTm);
    info.mailFrom = Text(query, 3);
    info.mailTo = Text(query, 4);
    info.size = sqlite3_column_int64(query, 5);
    info.status = sqlite3_column_int(query, 6);
    info.host = Text(query, 7);
    info.subject = Text(query, 8);
    info.oriMailTo = Text(query, 9);
    if (info.oriMailTo.empty()) info.oriMailTo = "-";
    rows.push_back(std::move(info));
  }
  return sqlite3_finalize(query) == SQLITE_OK ? 0 : -1;
}

void RawCount(benchmark::State &state) {
  sqlite3 *db = OpenRaw();
  for (auto _ : state) {
    if (db == nullptr || RawCountOf(db, kCountSql) != 2 * kRowsPerFile) {
      state.SkipWithError("raw count");
      break;
    }
  }
  sqlite3_close(db);
}

void RawFirstPage(benchmark::State &state) {
  sqlite3 *db = OpenRaw();
  for (auto _ : state) {
    std::vector<MailLogInfo> rows;
    if (db == nullptr || RawRows(db, kFirstPageSql, rows) != 0 || rows.size() != kPage ||
        rows[0].date != known.newest) {
      state.SkipWithError("raw first page");
      break;
    }
  }
  sqlite3_close(db);
}

void RawKeywordPage(benchmark::State &state) {
  sqlite3 *db = OpenRaw();
  for (auto _ : state) {
    std::vector<MailLogInfo> rows;
    if (db == nullptr || RawRows(db, kKeywordPageSql, rows) != 0 || !rows.empty()) {
      state.SkipWithError("raw keyword page");
      break;
    }
  }
  sqlite3_close(db);
}

void RawFilterCount(benchmark::State &state) {
  sqlite3 *db = OpenRaw();
  for (auto _ : state) {
    if (db == nullptr || RawCountOf(db, filterCountSql.c_str()) != known.filtered) {
      state.SkipWithError("raw filter count");
      break;
    }
  }
  sqlite3_close(db);
}

// The text with the five characters that carry meaning in HTML written as entities, straight
// into the output.
void PutEscaped(const char *text) {
  const char *run = text;
  for (const char *c = text;; ++c) {
    const char *entity;
    switch (*c) {
      case '\0': fwrite(run, 1, c - run, stdout); return;
      case '&': entity = "&amp;"; break;
      case '<': entity = "&lt;"; break;
      case '>': entity = "&gt;"; break;
      case '"': entity = "&quot;"; break;
      case '\'': entity = "&#39;"; break;
      default: continue;
    }
    fwrite(run, 1, c - run, stdout);
    fputs(entity, stdout);
    run = c + 1;
  }
}

void PutCell(const char *text) {
  fputs("<td align=\"center\">", stdout);
  PutEscaped(text);
  fputs("</td>", stdout);
}

const char *ColumnText(sqlite3_stmt *query, int i) {
  const auto *value = reinterpret_cast<const char *>(sqlite3_column_text(query, i));
  return value != nullptr ? value : "";
}

// Kilobytes with at most one decimal, cut: the shortest form of six digits, written out in full
// where that would take an exponent.
void SizeText(int bytes, char *text, size_t size) {
  const float kilobytes = bytes * (1.0f / 1024);
  snprintf(text, size, "%g", kilobytes);
  if (strchr(text, 'e') != nullptr) snprintf(text, size, "%.1f", kilobytes);
  char *point = strchr(text, '.');
  if (point != nullptr) point[2] = '\0';
  strcat(text, "KB");
}

const char *StatusText(int status) {
  switch (status) {
    case 0: return "send";
    case 1: return "receive";
    case 2: return "bounce";
    case 3: return "resend";
    default: return "unknow";
  }
}

std::string TextOf(const Json::Value &texts, const char *section, const char *key) {
  const Json::Value &value = texts[section][key];
  return value.isString() ? value.asString() : "";
}

// The floor of the export: the package's texts read, the same document printed with stdio while
// the rows are stepped. The number of rows, or -1.
long long RawExportOnce(sqlite3 *db) {
  Json::Value texts;
  KOLT::DTK::LocalizedStringParser::ParseTexts(std::string(kTexts) + kLanguage, texts);
  sqlite3_stmt *query = nullptr;
  if (sqlite3_prepare_v2(db, kExportSql, -1, &query, nullptr) != SQLITE_OK) {
    sqlite3_finalize(query);
    return -1;
  }
  printf("Content-Type:application/octet-stream\n");
  printf("Content-Disposition:attachment; filename=\"%s\"\n\n", "koltmaillog.html");
  printf("<html><head>\n");
  printf("<meta http-equiv=\"Content-Type\" content=\"text/html; charset=utf-8;\">\n");
  printf("<title>");
  PutEscaped(TextOf(texts, "maillog", "maillog").c_str());
  printf("</title>\n</head>\n<body>\n<center><h2> ");
  PutEscaped(TextOf(texts, "maillog", "mail_log").c_str());
  printf(" </h2></center>\n<table border=1 width=95%%>\n<tr>\n");
  static const char *const kHeadings[][2] = {
      {"maillog", "message_id"}, {"maillog", "date"},    {"maillog", "time"},
      {"maillog", "mail_from"},  {"maillog", "mail_to"}, {"maillog", "ori_recipient"},
      {"mcp", "mcp_rule_target_title"}, {"maillog", "mail_size"}, {"common", "server_name"},
      {"maillog", "mail_status"},
  };
  for (const auto &heading : kHeadings) {
    printf("<th>");
    PutEscaped(TextOf(texts, heading[0], heading[1]).c_str());
    printf("</th>");
  }
  printf("</tr>\n");
  long long rows = 0;
  while (sqlite3_step(query) == SQLITE_ROW) {
    ++rows;
    const time_t date = static_cast<time_t>(sqlite3_column_int64(query, 2));
    struct tm tm;
    localtime_r(&date, &tm);
    char day[64], time[64], size[64];
    strftime(day, sizeof(day), "%Y-%m-%d", &tm);
    strftime(time, sizeof(time), "%X", &tm);
    SizeText(sqlite3_column_int(query, 5), size, sizeof(size));
    const char *oriMailTo = ColumnText(query, 9);
    printf("<tr>\n");
    PutCell(ColumnText(query, 0));
    printf("<td align=\"center\">%s</td><td align=\"center\">%s</td>", day, time);
    PutCell(ColumnText(query, 3));
    PutCell(ColumnText(query, 4));
    PutCell(oriMailTo[0] != '\0' ? oriMailTo : "-");
    PutCell(ColumnText(query, 8));
    printf("<td align=\"center\">%s</td>", size);
    PutCell(ColumnText(query, 7));
    printf("<td align=\"center\">%s</td>\n</tr>\n", StatusText(sqlite3_column_int(query, 6)));
  }
  printf("</table></body></html>\n");
  fflush(stdout);
  return sqlite3_finalize(query) == SQLITE_OK ? rows : -1;
}

void RawExport(benchmark::State &state) {
  if (!known.exportsMatch) {
    state.SkipWithError("the library's export differs from the floor's");
    return;
  }
  sqlite3 *db = OpenRaw();
  StdoutTo quiet("/dev/null");
  for (auto _ : state) {
    if (db == nullptr || !quiet.ok() || RawExportOnce(db) != kExported) {
      state.SkipWithError("raw export");
      break;
    }
  }
  sqlite3_close(db);
}

// Five repetitions: the median holds when another build shares the machine for a moment.
#define QSV_BENCH(fn) \
  BENCHMARK(fn)->UseRealTime()->Repetitions(5)->ReportAggregatesOnly(true)->Unit(benchmark::kMillisecond)->MinTime(0.5)
QSV_BENCH(LibraryCount);
QSV_BENCH(RawCount);
QSV_BENCH(LibraryFirstPage);
QSV_BENCH(RawFirstPage);
QSV_BENCH(LibraryKeywordPage);
QSV_BENCH(RawKeywordPage);
QSV_BENCH(LibraryFilterCount);
QSV_BENCH(RawFilterCount);
QSV_BENCH(LibraryExport);
QSV_BENCH(RawExport);

// The statements a MailLog's connection runs, caught as SQLite opens it.
std::vector<std::string> traced;

int TraceStatement(unsigned, void *, void *statement, void *) {
  const char *sql = sqlite3_sql(static_cast<sqlite3_stmt *>(statement));
  if (sql != nullptr) traced.push_back(sql);
  return 0;
}

int TraceConnection(sqlite3 *db, char **, const void *) {
  sqlite3_trace_v2(db, SQLITE_TRACE_STMT, TraceStatement, nullptr);
  return SQLITE_OK;
}

bool Ran(const std::string &sql) {
  if (std::find(traced.begin(), traced.end(), sql) != traced.end()) return true;
  fprintf(stderr, "the library did not run: %s\n", sql.c_str());
  return false;
}

std::string FileText(const char *path) {
  std::ifstream in(path, std::ios::binary);
  return std::string(std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>());
}

// Runs each library call once on a traced connection: the floor's statements must be the ones the
// library runs, and both exports the same bytes.
void CheckAgainstLibrary() {
  const char libraryOut[] = "/tmp/log_bench_library.html";
  const char rawOut[] = "/tmp/log_bench_raw.html";
  traced.clear();
  const auto hook = reinterpret_cast<void (*)()>(TraceConnection);
  sqlite3_auto_extension(hook);
  {
    MailLog log(kLive);
    sqlite3_cancel_auto_extension(hook);
    MailLogFilter count = StatusFilter();
    const std::string composed = log.composeCmd(count);
    if (composed != filterCountSql) {
      fprintf(stderr, "composeCmd gives\n  %s\nnot\n  %s\n", composed.c_str(),
              filterCountSql.c_str());
    }
    std::vector<MailLogInfo> rows;
    log.getLogNum();
    log.load(kPage, 0, "date", "desc", rows);
    log.search(kPage, 0, "date", "desc", kKeyword, rows);
    log.getLogNum(count);
    StdoutTo file(libraryOut);
    if (file.ok()) log.ExportLog(ExportFilter(), kLanguage);
  }
  bool match = true;
  for (const std::string &sql : {std::string(kCountSql), std::string(kFirstPageSql),
                                 std::string(kKeywordPageSql), filterCountSql,
                                 std::string(kExportSql)}) {
    match = Ran(sql) && match;
  }
  known.statementsMatch = match;
  sqlite3 *db = OpenRaw();
  long long exported = -1;
  if (db != nullptr) {
    StdoutTo file(rawOut);
    if (file.ok()) exported = RawExportOnce(db);
  }
  sqlite3_close(db);
  const std::string library = FileText(libraryOut), raw = FileText(rawOut);
  known.exportsMatch = exported == kExported && !raw.empty() && library == raw;
  if (!known.exportsMatch) {
    fprintf(stderr, "exports differ: %zu bytes from the library, %zu from the floor (%lld rows)\n",
            library.size(), raw.size(), exported);
  }
  unlink(libraryOut);
  unlink(rawOut);
}

long long RowsIn(const char *path) {
  sqlite3 *db = nullptr;
  long long rows = -1;
  if (sqlite3_open_v2(path, &db, SQLITE_OPEN_READONLY, nullptr) == SQLITE_OK) {
    rows = RawCountOf(db, "SELECT COUNT(*) FROM mail_log_table;");
  }
  sqlite3_close(db);
  return rows;
}

// Runs the generator with `args`, no shell between; true when it wrote its rows.
bool Generate(const std::string &generator, const std::vector<std::string> &args) {
  std::vector<char *> argv;
  argv.push_back(const_cast<char *>(generator.c_str()));
  for (const std::string &arg : args) argv.push_back(const_cast<char *>(arg.c_str()));
  argv.push_back(nullptr);
  pid_t pid;
  if (posix_spawn(&pid, generator.c_str(), nullptr, nullptr, argv.data(), environ) != 0) {
    return false;
  }
  int status = 0;
  return waitpid(pid, &status, 0) == pid && WIFEXITED(status) && WEXITSTATUS(status) == 0;
}

// A million rows in each file, unless both already hold them; then what the checks need.
bool SetUp(const char *self) {
  log_db::PrepareLogDir();
  if (RowsIn(kLive) != kRowsPerFile || RowsIn(kArchive) != kRowsPerFile) {
    // The generator of this build: <build>/bench/log_bench gives <build>/tools/qsv-log-gen.
    char resolved[PATH_MAX];
    if (realpath(self, resolved) == nullptr) return false;
    std::string build = resolved;
    for (int up = 0; up < 2; ++up) build.erase(build.rfind('/'));
    const std::string generator = build + "/tools/qsv-log-gen";
    for (const char *path : {kLive, kArchive}) {
      for (const char *suffix : {"", "-journal", "-wal"}) unlink((std::string(path) + suffix).c_str());
    }
    const std::string rows = std::to_string(kRowsPerFile);
    if (!Generate(generator, {"--mail-db", kLive, "--from", "2026-10-01", "--days", "30", "--rows",
                              rows, "--seed", "1", "--domains",
                              "example.com,b\xc3\xbc" "cher.example"}) ||
        !Generate(generator, {"--mail-db", kArchive, "--from", "2026-09-01", "--days", "30",
                              "--rows", rows, "--seed", "2"}) ||
        RowsIn(kLive) != kRowsPerFile || RowsIn(kArchive) != kRowsPerFile) {
      return false;
    }
  }

  const MailLogFilter filter = StatusFilter();
  char *sql = sqlite3_mprintf(
      "SELECT SUM(cnt) from ( SELECT COUNT(*) AS cnt FROM DB0.mail_log_table WHERE status=1 AND "
      "%lld <= date AND date <= %lld UNION ALL SELECT COUNT(*) AS cnt FROM main.mail_log_table "
      "WHERE status=1 AND %lld <= date AND date <= %lld);",
      static_cast<long long>(filter.dateFrom), static_cast<long long>(filter.dateTo),
      static_cast<long long>(filter.dateFrom), static_cast<long long>(filter.dateTo));
  filterCountSql = sql;
  sqlite3_free(sql);

  // The checks' own answers, by other statements than the ones measured.
  sqlite3 *db = OpenRaw();
  if (db == nullptr) return false;
  long long filtered = 0;
  for (const char *schema : {"DB0", "main"}) {
    char *count = sqlite3_mprintf(
        "SELECT COUNT(*) FROM %s.mail_log_table WHERE status = 1 AND date BETWEEN %lld AND %lld;",
        schema, static_cast<long long>(filter.dateFrom), static_cast<long long>(filter.dateTo));
    filtered += RawCountOf(db, count);
    sqlite3_free(count);
  }
  known.filtered = filtered;
  known.newest = std::max(RawCountOf(db, "SELECT MAX(date) FROM main.mail_log_table;"),
                          RawCountOf(db, "SELECT MAX(date) FROM DB0.mail_log_table;"));
  sqlite3_close(db);
  if (known.filtered <= 0 || known.newest <= 0) return false;

  CheckAgainstLibrary();
  printf("keyword page statement: %s\n", kKeywordPageSql);
  printf("filter count statement: %s\n", filterCountSql.c_str());
  printf("export statement: %s\n", kExportSql);
  return known.statementsMatch;
}

// The ratio and both times of a pair, in milliseconds.
void PrintPair(const RatioReporter &reporter, const char *what, const char *measured,
               const char *floor, const char *goal) {
  reporter.PrintRatio(what, measured, floor, goal);
  printf("  %-56s %10.4f ms, floor %10.4f ms\n", measured, reporter.Time(measured),
         reporter.Time(floor));
}

}  // namespace

int main(int argc, char **argv) {
  benchmark::Initialize(&argc, argv);
  if (!SetUp(argv[0])) {
    fprintf(stderr, "set-up failed: run me in the sandbox\n");
    return 1;
  }
  RatioReporter reporter;
  benchmark::RunSpecifiedBenchmarks(&reporter);
  printf("\n");
  PrintPair(reporter, "getLogNum, 2,000,000 rows in two files / same SQL raw", "LibraryCount",
            "RawCount", "goal <= 1.1");
  PrintPair(reporter, "load, first page of 50 newest first / same SQL raw", "LibraryFirstPage",
            "RawFirstPage", "goal <= 1.1");
  PrintPair(reporter, "search, keyword page matching nothing / same SQL raw",
            "LibraryKeywordPage", "RawKeywordPage", "goal <= 1.1");
  PrintPair(reporter, "getLogNum(filter), status and dates / same SQL raw", "LibraryFilterCount",
            "RawFilterCount", "goal <= 1.1");
  PrintPair(reporter, "ExportLog, 100,000 rows / same SQL raw, stdio cells", "LibraryExport",
            "RawExport", "goal <= 1.5");
  benchmark::Shutdown();
  return 0;
}
