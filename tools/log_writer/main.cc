// qsv-log-writer: turns Postfix's log lines into rows of the mail and security logs.
//
//   qsv-log-writer [--mail-db PATH] [--security-db PATH] [--year YYYY] [FILE...]
//
// Reads the files in order, or standard input when there are none ("-" names it too). A mail row
// is written for each recipient once its delivery is final, a security row for each refusal.
// Each file's rows are committed together; from standard input (or a pipe) rows are committed
// every 1000 rows and whenever the input pauses, so that readers see them soon and never wait
// long. Lines it doesn't understand are passed over. At the end it prints how many rows it wrote.
// Exit status 0, or 1 with one line on stderr.
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <csignal>
#include <cstdio>
#include <cstring>
#include <ctime>
#include <memory>
#include <string>
#include <vector>

#include "log_files/log_files.h"
#include "log_files/options.h"
#include "log_writer/line_reader.h"
#include "log_writer/log_line.h"
#include "log_writer/mail_tracker.h"

namespace {

using qsvlog::LogDb;

constexpr size_t kRowsPerStreamCommit = 1000;

volatile sig_atomic_t stopRequested = 0;

void RequestStop(int) { stopRequested = 1; }

int Fail(const std::string &message) {
  fprintf(stderr, "qsv-log-writer: %s\n", message.c_str());
  return 1;
}

int Usage(FILE *to, int status) {
  fprintf(to,
          "usage: qsv-log-writer [--mail-db PATH] [--security-db PATH] [--year YYYY] [FILE...]\n"
          "  --mail-db PATH      mail log database (default %s)\n"
          "  --security-db PATH  security log database (default %s)\n"
          "  --year YYYY         year of the first line with a stamp like \"Nov 23 07:10:01\"\n"
          "                      (default: the current year)\n"
          "Reads standard input when no FILE is given.\n",
          qsvlog::kLiveMailDb, qsvlog::kLiveSecurityDb);
  return status;
}

struct Input {
  std::string name;
  int fd;
  bool stream;  // a pipe or terminal: commit as rows come, not at its end
};

// Both databases, with the transactions open between commits and the rows they hold.
class RowWriter {
 public:
  RowWriter(LogDb &mail, LogDb &security) : mail_(mail), security_(security) {}

  bool Add(const qsvlog::Rows &rows) {
    for (const qsvlog::MailRow &row : rows.mail) {
      if ((!mail_.inTransaction() && !mail_.Begin()) || !mail_.Add(row)) return Failed(mail_);
      ++pendingMail_;
    }
    for (const qsvlog::SecurityRow &row : rows.security) {
      if ((!security_.inTransaction() && !security_.Begin()) || !security_.Add(row)) {
        return Failed(security_);
      }
      ++pendingSecurity_;
    }
    return true;
  }

  bool Commit() {
    if (mail_.inTransaction() && !mail_.Commit()) return Failed(mail_);
    mailRows_ += pendingMail_;
    pendingMail_ = 0;
    if (security_.inTransaction() && !security_.Commit()) return Failed(security_);
    securityRows_ += pendingSecurity_;
    pendingSecurity_ = 0;
    return true;
  }

  size_t pending() const { return pendingMail_ + pendingSecurity_; }
  const std::string &error() const { return error_; }
  void Report() const {
    printf("%zu mail rows, %zu security rows written\n", mailRows_, securityRows_);
  }

 private:
  bool Failed(const LogDb &db) {
    error_ = db.error();
    return false;
  }

  LogDb &mail_;
  LogDb &security_;
  size_t pendingMail_ = 0, pendingSecurity_ = 0, mailRows_ = 0, securityRows_ = 0;
  std::string error_;
};

}  // namespace

int main(int argc, char **argv) {
  qsvlog::CommandLine command;
  const std::string wrong = qsvlog::ParseCommandLine(
      argc, argv, {"--mail-db", "--security-db", "--year"}, {"--help"}, &command);
  if (!wrong.empty()) return Fail(wrong);
  if (command.values.count("--help") != 0) return Usage(stdout, 0);

  auto value = [&](const char *name, const char *fallback) {
    const auto found = command.values.find(name);
    return found == command.values.end() ? std::string(fallback) : found->second;
  };
  const std::string mailPath = value("--mail-db", qsvlog::kLiveMailDb);
  const std::string securityPath = value("--security-db", qsvlog::kLiveSecurityDb);
  for (const auto &[option, path] : {std::pair<const char *, std::string>{"--mail-db", mailPath},
                                     {"--security-db", securityPath}}) {
    const std::string why = qsvlog::CheckDbPath(path);
    if (!why.empty()) return Fail(std::string(option) + " " + why);
  }
  if (mailPath == securityPath) return Fail("--mail-db and --security-db name the same file");
  unsigned long long year = 0;
  if (command.values.count("--year") != 0 &&
      !qsvlog::ParseNumber(command.values["--year"], 1970, 9999, &year)) {
    return Fail("--year takes a year from 1970 to 9999");
  }

  // Every input is opened before anything is written: a mistyped name costs no half-done run.
  std::vector<Input> inputs;
  if (command.operands.empty()) command.operands.push_back("-");
  for (const std::string &name : command.operands) {
    const int fd =
        name == "-" ? fcntl(0, F_DUPFD_CLOEXEC, 0) : open(name.c_str(), O_RDONLY | O_CLOEXEC);
    struct stat st;
    if (fd < 0 || fstat(fd, &st) != 0) {
      return Fail("cannot read " + (name == "-" ? std::string("standard input") : name) + ": " +
                  strerror(errno));
    }
    if (S_ISDIR(st.st_mode)) return Fail(name + " is a folder");
    inputs.push_back({name, fd, !S_ISREG(st.st_mode)});
  }

  std::string error;
  std::unique_ptr<LogDb> mail = LogDb::Open(mailPath, LogDb::Table::kMail, false, &error);
  if (!mail) return Fail(error);
  std::unique_ptr<LogDb> security =
      LogDb::Open(securityPath, LogDb::Table::kSecurity, false, &error);
  if (!security) return Fail(error);

  // Without SA_RESTART, so that a read waiting on a quiet pipe returns and the rows read so far
  // can be committed before the end.
  struct sigaction stop = {};
  stop.sa_handler = RequestStop;
  sigaction(SIGINT, &stop, nullptr);
  sigaction(SIGTERM, &stop, nullptr);

  RowWriter writer(*mail, *security);
  qsvlog::StampClock clock(static_cast<int>(year), time(nullptr));
  qsvlog::MailTracker tracker;
  qsvlog::Rows rows;
  for (const Input &input : inputs) {
    qsvlog::LineReader reader(input.fd, &stopRequested);
    std::function<bool()> idle;
    if (input.stream) idle = [&writer]() { return writer.Commit(); };
    std::string text;
    qsvlog::LineReader::Result result;
    while ((result = reader.Next(&text, idle)) == qsvlog::LineReader::kLine) {
      qsvlog::LogLine line;
      if (!qsvlog::ParseLogLine(text, clock, &line)) continue;
      rows.mail.clear();
      rows.security.clear();
      tracker.Feed(line, &rows);
      if (!writer.Add(rows)) return Fail(writer.error());
      if (input.stream && writer.pending() >= kRowsPerStreamCommit && !writer.Commit()) {
        return Fail(writer.error());
      }
    }
    close(input.fd);
    if (result == qsvlog::LineReader::kFailed) {
      if (!writer.error().empty()) return Fail(writer.error());
      return Fail("cannot read " + input.name + ": " + strerror(errno));
    }
    if (result == qsvlog::LineReader::kStopped && !input.stream) {
      // A file is written whole or not at all, so that it can simply be read again.
      writer.Report();
      return Fail("stopped; nothing of " + input.name + " was written");
    }
    if (!writer.Commit()) return Fail(writer.error());
    if (result == qsvlog::LineReader::kStopped) break;
  }
  writer.Report();
  return 0;
}
