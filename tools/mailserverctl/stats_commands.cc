#include "mailserverctl/stats_commands.h"

#include <sqlite3.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <ctime>
#include <fstream>
#include <map>
#include <set>

#include "kolt/exec.h"
#include "foundation/round_time.h"
#include "logs/analysisLog.h"
#include "logs/maillogger.h"
#include "logs/statisticLog.h"
#include "mailserverctl/error.h"
#include "mailserverctl/log_options.h"

namespace mailserverctl {

namespace {

const char kGnuplot[] = "/usr/bin/gnuplot";
const char kSecurityStatisticDB[] =
    "/var/packages/Quillon-Server/target/var/aggr_log/security_statistic.db";
const char *const kCountNames[] = {"sent", "received", "bounced", "resent", "rejected"};

int Usage() {
  fprintf(stderr,
          "usage: mailserverctl stats show hour|day|week|month [--at TIME]\n"
          "       mailserverctl stats chart hour|day|week|month --png FILE [--at TIME]\n"
          "       mailserverctl stats security --png FILE [--at TIME] [--days N]\n"
          "       mailserverctl stats count --from TIME --to TIME\n"
          "       mailserverctl stats threats\n"
          "       mailserverctl analysis top senders|recipients|sender-domains|"
          "recipient-domains|refused [OPTION...]\n");
  return 2;
}

bool ScaleOf(const std::string &word, statistic_log::TimeScale *scale) {
  static const std::map<std::string, statistic_log::TimeScale> kScales = {
      {"hour", statistic_log::TIME_SCALE_HOUR},
      {"day", statistic_log::TIME_SCALE_DAY},
      {"week", statistic_log::TIME_SCALE_WEEK},
      {"month", statistic_log::TIME_SCALE_MONTH}};
  const auto it = kScales.find(word);
  if (it == kScales.end()) return false;
  *scale = it->second;
  return true;
}

// --at, or now.
bool AtOption(const std::map<std::string, std::string> &options, long *at, int *status) {
  *at = static_cast<long>(time(nullptr));
  const auto it = options.find("--at");
  if (it == options.end()) return true;
  long long when;
  if (!Moment(it->second, true, &when)) {
    *status = Error("--at takes YYYY-MM-DD, YYYY-MM-DDTHH:MM:SS or seconds since 1970, not " +
                    Quoted(it->second));
    return false;
  }
  *at = static_cast<long>(when);
  return true;
}

// A path gnuplot may write to: absolute, and free of what its string syntax would read.
bool PngPath(const std::map<std::string, std::string> &options, std::string *path, int *status) {
  const auto it = options.find("--png");
  if (it == options.end()) {
    *status = Error("a chart needs --png FILE");
    return false;
  }
  const std::string &p = it->second;
  bool plain = !p.empty() && p[0] == '/' && p.back() != '/' && p.size() < 1024;
  for (const char c : p) {
    const unsigned char u = static_cast<unsigned char>(c);
    if (u < 0x20 || u == 0x7f || c == '"' || c == '\'' || c == '\\' || c == '`' || c == '$') {
      plain = false;
    }
  }
  if (!plain) {
    *status = Error("--png takes an absolute path without quotes, backslashes or control "
                    "characters, not " + Quoted(p));
    return false;
  }
  *path = p;
  return true;
}

// A name as a gnuplot data field: one double-quoted string with nothing in it that ends it.
std::string DataName(const std::string &name) {
  std::string out = "\"";
  for (const char c : Field(name.empty() ? "-" : name)) out += c == '"' ? '\'' : c;
  return out + "\"";
}

std::string LocalTime(long t) {
  const time_t when = static_cast<time_t>(t);
  struct tm tm;
  localtime_r(&when, &tm);
  return When(tm);
}

// Draws with gnuplot: `script` refers to the data files by the names `dir`/NAME and writes
// `target`.drawing, which then replaces `target`.
int Draw(const std::string &dir, const std::string &script, const std::string &target) {
  const std::string scriptPath = dir + "/chart.gp";
  std::ofstream(scriptPath) << script;
  const char *const argv[] = {kGnuplot, scriptPath.c_str(), nullptr};
  const int rc = KLIBCExecv(kGnuplot, argv, 187);
  const std::string drawn = target + ".drawing";
  struct stat st;
  if (rc != 0 || stat(drawn.c_str(), &st) != 0 || st.st_size == 0) {
    unlink(drawn.c_str());
    return Error("gnuplot could not draw the chart (is gnuplot installed?)");
  }
  if (rename(drawn.c_str(), target.c_str()) != 0) {
    unlink(drawn.c_str());
    return Error("cannot write " + Quoted(target));
  }
  return 0;
}

// A private folder for the data files, removed with what it holds when the object goes.
class WorkDir {
 public:
  WorkDir() {
    char name[] = "/tmp/qsv-chart-XXXXXX";
    if (mkdtemp(name) != nullptr) path_ = name;
  }
  ~WorkDir() {
    if (path_.empty()) return;
    for (const char *file : {"chart.gp", "points.dat", "top0.dat", "top1.dat", "top2.dat",
                             "top3.dat", "top4.dat", "threats.dat", "origins.dat"}) {
      unlink((path_ + "/" + file).c_str());
    }
    rmdir(path_.c_str());
  }
  const std::string &path() const { return path_; }

 private:
  std::string path_;
};

int Show(statistic_log::TimeScale scale, long at) {
  statistic_log::StatisticLog log;
  std::vector<statistic_log::StatisticCount> points;
  if (log.error() != 0 || log.getStatistic(points, at, scale) != 0) {
    return Error("the statistics could not be read (see the system log)");
  }
  printf("time\tsent\treceived\tbounced\tresent\trejected\n");
  for (statistic_log::StatisticCount &point : points) {
    printf("%s\t%d\t%d\t%d\t%d\t%d\n", LocalTime(point.time).c_str(), point.sentCnt,
           point.receiveCnt, point.bounceCnt, point.resentCnt, point.rejectCnt);
  }
  if (points.empty()) return 0;
  statistic_log::TopList &top = points.back().list(scale);
  for (int status = 0; status < 5; ++status) {
    printf("top %s at %s:", kCountNames[status], LocalTime(points.back().time).c_str());
    for (const auto &entry : top.lists[status]) {
      if (!entry.first.empty()) printf(" %s (%d)", Field(entry.first).c_str(), entry.second);
    }
    printf("\n");
  }
  return 0;
}

int Chart(statistic_log::TimeScale scale, const std::string &word, long at,
          const std::string &target) {
  statistic_log::StatisticLog log;
  std::vector<statistic_log::StatisticCount> points;
  if (log.error() != 0 || log.getStatistic(points, at, scale) != 0) {
    return Error("the statistics could not be read (see the system log)");
  }
  if (points.empty()) return Error("no statistics for this " + word + " chart yet");
  WorkDir dir;
  if (dir.path().empty()) return Error("cannot make a folder for the chart's data");
  {
    std::ofstream data(dir.path() + "/points.dat");
    for (const statistic_log::StatisticCount &p : points) {
      data << p.time << ' ' << p.sentCnt << ' ' << p.receiveCnt << ' ' << p.bounceCnt << ' '
           << p.resentCnt << ' ' << p.rejectCnt << '\n';
    }
  }
  statistic_log::TopList &top = points.back().list(scale);
  for (int status = 0; status < 5; ++status) {
    std::ofstream data(dir.path() + "/top" + std::to_string(status) + ".dat");
    for (const auto &entry : top.lists[status]) data << DataName(entry.first) << ' ' << entry.second << '\n';
  }
  const char *format = scale == statistic_log::TIME_SCALE_HOUR ? "%d %H:00"
                       : scale == statistic_log::TIME_SCALE_MONTH ? "%Y-%m"
                                                                  : "%m-%d";
  const std::string d = dir.path();
  std::string script =
      "set terminal pngcairo noenhanced size 1200,800 font 'DejaVu Sans,9'\n"
      "set output '" + target + ".drawing'\n"
      "set multiplot title 'Mail by " + word + ", to " + LocalTime(points.back().time) + "'\n"
      "set origin 0,0.45\nset size 1,0.52\n"
      "set xdata time\nset timefmt '%s'\nset format x '" + format + "' timedate\n"
      "set key outside right\nset grid\nset yrange [0:*]\n"
      "plot '" + d + "/points.dat' using 1:2 with linespoints title 'sent', "
      "'' using 1:3 with linespoints title 'received', "
      "'' using 1:4 with linespoints title 'bounced', "
      "'' using 1:5 with linespoints title 'resent', "
      "'' using 1:6 with linespoints title 'rejected'\n"
      "unset xdata\nset format x '%g'\nunset key\nset style fill solid 0.6\n"
      "set boxwidth 0.7\nset xtics rotate by 30 right font ',7'\n";
  for (int status = 0; status < 5; ++status) {
    script += "set origin " + std::to_string(status * 0.2) + ",0\nset size 0.2,0.45\n"
              "set title 'top " + std::string(kCountNames[status]) + "'\n"
              "plot '" + d + "/top" + std::to_string(status) + ".dat' using 0:2:xtic(1) with boxes\n";
  }
  script += "unset multiplot\n";
  return Draw(d, script, target);
}

// The threats by day and type, and the cities they came from, read from the aggregation job's
// tables as they stand.
int SecurityChart(long at, int days, const std::string &target) {
  sqlite3 *db = nullptr;
  if (sqlite3_open_v2(kSecurityStatisticDB, &db, SQLITE_OPEN_READONLY, nullptr) != SQLITE_OK) {
    sqlite3_close(db);
    return Error("no threat statistics yet: the aggregation job has not run");
  }
  sqlite3_busy_timeout(db, 60000);
  const long from = at - static_cast<long>(days) * 86400;
  WorkDir dir;
  if (dir.path().empty()) {
    sqlite3_close(db);
    return Error("cannot make a folder for the chart's data");
  }
  std::set<std::string> types;
  std::map<long, std::map<std::string, long>> byDay;
  sqlite3_stmt *query = nullptr;
  bool ok = sqlite3_prepare_v2(db,
                               "SELECT time, threat_type, SUM(count) FROM threat_overview_day "
                               "WHERE time >= ?1 AND time <= ?2 GROUP BY time, threat_type "
                               "ORDER BY time;",
                               -1, &query, nullptr) == SQLITE_OK;
  if (ok) {
    sqlite3_bind_int64(query, 1, from);
    sqlite3_bind_int64(query, 2, at);
    while (sqlite3_step(query) == SQLITE_ROW) {
      const char *type = reinterpret_cast<const char *>(sqlite3_column_text(query, 1));
      const std::string name = type != nullptr ? type : "";
      types.insert(name);
      byDay[sqlite3_column_int64(query, 0)][name] = sqlite3_column_int64(query, 2);
    }
  }
  sqlite3_finalize(query);
  std::vector<std::pair<std::string, long>> origins;
  ok = ok && sqlite3_prepare_v2(db,
                                "SELECT city, country_code, SUM(count) AS total FROM "
                                "threat_origin_day WHERE time >= ?1 AND time <= ?2 GROUP BY "
                                "city, country_code ORDER BY total DESC LIMIT 10;",
                                -1, &query, nullptr) == SQLITE_OK;
  if (ok) {
    sqlite3_bind_int64(query, 1, from);
    sqlite3_bind_int64(query, 2, at);
    while (sqlite3_step(query) == SQLITE_ROW) {
      const char *city = reinterpret_cast<const char *>(sqlite3_column_text(query, 0));
      const char *code = reinterpret_cast<const char *>(sqlite3_column_text(query, 1));
      origins.emplace_back(std::string(city != nullptr ? city : "") + ", " +
                               (code != nullptr ? code : ""),
                           static_cast<long>(sqlite3_column_int64(query, 2)));
    }
  }
  sqlite3_finalize(query);
  sqlite3_close(db);
  if (!ok) return Error("the threat statistics could not be read");
  if (byDay.empty()) return Error("no threats recorded in these days");
  const std::vector<std::string> columns(types.begin(), types.end());
  {
    std::ofstream data(dir.path() + "/threats.dat");
    // The types name the series through the data file's header, never through the script.
    data << "time";
    for (const std::string &type : columns) data << ' ' << DataName(type);
    data << '\n';
    for (const auto &day : byDay) {
      data << day.first;
      for (const std::string &type : columns) {
        const auto it = day.second.find(type);
        data << ' ' << (it != day.second.end() ? it->second : 0);
      }
      data << '\n';
    }
    std::ofstream places(dir.path() + "/origins.dat");
    for (const auto &origin : origins) places << DataName(origin.first) << ' ' << origin.second << '\n';
  }
  printf("threat origins, %d days to %s:\n", days, LocalTime(at).c_str());
  for (const auto &origin : origins) printf("  %s\t%ld\n", Field(origin.first).c_str(), origin.second);
  const std::string d = dir.path();
  std::string script =
      "set terminal pngcairo noenhanced size 1200,800 font 'DejaVu Sans,9'\n"
      "set output '" + target + ".drawing'\n"
      "set multiplot title 'Threats by day'\n"
      "set origin 0,0.45\nset size 1,0.52\n"
      "set xdata time\nset timefmt '%s'\nset format x '%m-%d' timedate\n"
      "set key outside right\nset grid\nset yrange [0:*]\nplot ";
  for (size_t i = 0; i < columns.size(); ++i) {
    script += std::string(i == 0 ? "" : ", ") + "'" + d + "/threats.dat' using 1:" +
              std::to_string(i + 2) + " with linespoints title columnhead";
  }
  script += "\nunset xdata\nset format x '%g'\nunset key\nset style fill solid 0.6\n"
            "set boxwidth 0.7\nset xtics rotate by 30 right font ',8'\n"
            "set origin 0,0\nset size 1,0.45\nset title 'where they came from'\n";
  script += origins.empty() ? "set label 1 'no known origin' at graph 0.5,0.5 center\n"
                              "plot [0:1] [0:1] NaN notitle\n"
                            : "plot '" + d + "/origins.dat' using 0:2:xtic(1) with boxes\n";
  script += "unset multiplot\n";
  return Draw(d, script, target);
}

// The counters of every hour from `from` to `to`, each as the aggregation job counts it in a pass:
// the five counts, the top lists, one save of the hour and all it feeds.
int CountHours(long from, long to) {
  MailLogger job(3600);
  int hours = 0;
  for (long hour = getRoundTime(from, COUNT_INTERVAL_HOUR); hour <= to; hour += 3600, ++hours) {
    statistic_log::StatisticCount count;
    count.time = hour;
    for (int status = 0; status < 5; ++status) {
      const int n = job.getLogNumPerHour(hour, static_cast<mail_log::MailStatus>(status));
      if (n < 0) return Error("the hour " + LocalTime(hour) + " could not be counted");
      count.count(status) = n;
    }
    if (job.getTop5Lists(hour, count) != 0 || job.saveStatistic(hour, count) != 0) {
      return Error("the hour " + LocalTime(hour) + " could not be saved (see the system log)");
    }
  }
  printf("%d hours counted, %s to %s\n", hours, LocalTime(getRoundTime(from, COUNT_INTERVAL_HOUR)).c_str(),
         LocalTime(to).c_str());
  return 0;
}

}  // namespace

int StatsCommand(const std::vector<std::string> &args) {
  const std::string word = args.empty() ? "" : args[0];
  int status = 1;
  std::map<std::string, std::string> options;
  if (word == "security") {
    if (!ReadOptions(std::vector<std::string>(args.begin() + 1, args.end()),
                     {"--png", "--at", "--days"}, {}, options, &status)) {
      return status;
    }
    long at;
    std::string target;
    long long days = 30;
    if (options.count("--days") > 0 && (!Number(options["--days"], 366, &days) || days == 0)) {
      return Error("--days takes a number from 1 to 366, not " + Quoted(options["--days"]));
    }
    if (!AtOption(options, &at, &status) || !PngPath(options, &target, &status)) return status;
    return SecurityChart(at, static_cast<int>(days), target);
  }
  if (word == "count") {
    if (!ReadOptions(std::vector<std::string>(args.begin() + 1, args.end()), {"--from", "--to"}, {},
                     options, &status)) {
      return status;
    }
    long long from = 0, to = 0;
    if (options.size() != 2 || !Moment(options["--from"], false, &from) ||
        !Moment(options["--to"], true, &to) || to < from || to - from > 400LL * 86400) {
      return Error("stats count takes --from TIME --to TIME, at most 400 days apart");
    }
    return CountHours(static_cast<long>(from), static_cast<long>(to));
  }
  if (word == "threats") {
    // One threat pass of the job, from the hour of the present time (as the clock says) on.
    if (args.size() != 1) return Usage();
    MailLogger job(3600);
    if (job.securityStatistic() != 0) return Error("the threat pass failed (see the system log)");
    return 0;
  }
  if (word != "show" && word != "chart") {
    if (word.empty()) return Usage();
    return Error("unknown word " + Quoted(word) +
                 ": stats takes show, chart, security, count or threats");
  }
  statistic_log::TimeScale scale;
  if (args.size() < 2 || !ScaleOf(args[1], &scale)) {
    return Error("a chart's scale is hour, day, week or month");
  }
  const std::set<std::string> known = word == "chart" ? std::set<std::string>{"--png", "--at"}
                                                      : std::set<std::string>{"--at"};
  if (!ReadOptions(std::vector<std::string>(args.begin() + 2, args.end()), known, {}, options,
                   &status)) {
    return status;
  }
  long at;
  if (!AtOption(options, &at, &status)) return status;
  if (word == "show") return Show(scale, at);
  std::string target;
  if (!PngPath(options, &target, &status)) return status;
  return Chart(scale, args[1], at, target);
}

int AnalysisCommand(const std::vector<std::string> &args) {
  if (args.size() < 2 || args[0] != "top") return Usage();
  static const std::map<std::string, int> kKinds = {{"senders", 0},
                                                    {"sender-domains", 1},
                                                    {"recipients", 2},
                                                    {"recipient-domains", 3},
                                                    {"refused", -1}};
  const auto kind = kKinds.find(args[1]);
  if (kind == kKinds.end()) {
    return Error("unknown ranking " + Quoted(args[1]) +
                 ": senders, recipients, sender-domains, recipient-domains or refused");
  }
  int status = 1;
  std::map<std::string, std::string> options;
  if (!ReadOptions(std::vector<std::string>(args.begin() + 2, args.end()),
                   {"--status", "--from", "--to", "--name", "--limit", "--offset"}, {"--count"},
                   options, &status)) {
    return status;
  }
  analysis_log::analysisFilter filter;
  filter.nameKind = kind->second < 0 ? 0 : kind->second;
  // Senders rank what was sent, recipients what was received, unless --status says otherwise.
  filter.status = kind->second < 0 ? mail_log::MAIL_STATUS_REJECT
                  : kind->second <= 1 ? mail_log::MAIL_STATUS_SEND
                                      : mail_log::MAIL_STATUS_RECEIVE;
  if (options.count("--status") > 0) {
    static const std::map<std::string, int> kStatus = {
        {"send", 0}, {"receive", 1}, {"bounce", 2}, {"resend", 3}, {"local-receive", 5}};
    const auto found = kStatus.find(options["--status"]);
    if (found == kStatus.end() || kind->second < 0) {
      return Error("--status takes send, receive, bounce, resend or local-receive (not with "
                   "refused), not " + Quoted(options["--status"]));
    }
    filter.status = found->second;
  }
  long long number;
  for (const char *name : {"--from", "--to"}) {
    if (options.count(name) == 0) continue;
    const bool end = std::string(name) == "--to";
    if (!Moment(options[name], end, &number)) {
      return Error(std::string(name) + " takes YYYY-MM-DD, YYYY-MM-DDTHH:MM:SS or seconds since "
                   "1970, not " + Quoted(options[name]));
    }
    (end ? filter.dateTo : filter.dateFrom) = number;
  }
  if (options.count("--name") > 0) {
    if (!TextAcceptable("--name", options["--name"], &status)) return status;
    filter.name = options["--name"];
  }
  if (options.count("--limit") > 0) {
    if (!Number(options["--limit"], 10000, &number) || number == 0) {
      return Error("--limit takes a number from 1 to 10000, not " + Quoted(options["--limit"]));
    }
    filter.limit = static_cast<int>(number);
  }
  if (options.count("--offset") > 0) {
    if (!Number(options["--offset"], 2000000000, &number)) {
      return Error("--offset takes a number from 0, not " + Quoted(options["--offset"]));
    }
    filter.offset = static_cast<int>(number);
  }
  analysis_log::AnalysisLog analysis;
  if (options.count("--count") > 0) {
    filter.isCount = true;
    int count = 0;
    if (analysis.getAnalysisNum(count, filter) != 0) {
      return Error("the logs could not be read (see the system log)");
    }
    printf("%d\n", count);
    return 0;
  }
  std::vector<analysis_log::AnalysisCount> rows;
  if (analysis.getAnalysis(rows, filter) != 0) {
    return Error("the logs could not be read (see the system log)");
  }
  for (const analysis_log::AnalysisCount &row : rows) {
    printf("%lld\t%s\n", static_cast<long long>(row.count), Field(row.name).c_str());
  }
  return 0;
}

}  // namespace mailserverctl
