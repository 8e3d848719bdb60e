// qsv-log-gen: the made-up traffic that tests, benchmarks and the demo rely on, read back with
// plain SQLite.
#include <gtest/gtest.h>

#include <algorithm>
#include <string>
#include <vector>

#include "logs/log_tools.h"

namespace qsvtest {
namespace {

using LogGenTest = LogToolTest;

std::string Count(const std::string &path, const std::string &where) {
  return Query(path, "SELECT count(*) FROM mail_log_table WHERE " + where);
}

TEST_F(LogGenTest, RowsFillTheSpanWithTheStatusMixAndBothKindsOfDomain) {
  // Ten days over the change to summer time (29 March): the span ends at a local midnight.
  const ProgramRun run =
      RunLogTool("qsv-log-gen", {"--mail-db", Path("mail.db"), "--security-db", Path("security.db"),
                                 "--from", "2026-03-20", "--days", "10", "--rows", "5000",
                                 "--domains", "example.com,xn--mnchen-3ya.example", "--seed", "3",
                                 "--subject", "Löwen & 'quotes' \"too\""});
  ASSERT_EQ(run.status, 0) << run.err;
  EXPECT_EQ(run.out, "5001 mail rows, 5001 security rows written\n");
  const std::string mail = Path("mail.db"), security = Path("security.db");

  const std::string start = std::to_string(Utc(2026, 3, 19, 23, 0, 0));  // 00:00 CET
  const std::string end = std::to_string(Utc(2026, 3, 29, 22, 0, 0));    // 00:00 CEST
  for (const std::string &file : {mail, security}) {
    const char *table = file == mail ? "mail_log_table" : "security_log_table";
    EXPECT_EQ(Query(file, std::string("SELECT count(*) FROM ") + table + " WHERE date >= " + start +
                              " AND date < " + end),
              "5001\n")
        << table;
    // Spread over the whole span, not bunched: every day has its share.
    EXPECT_EQ(Query(file, std::string("SELECT count(DISTINCT (date - ") + start +
                              ") / 86400) FROM " + table),
              "10\n")
        << table;
    EXPECT_EQ(Query(file, std::string("SELECT count(*) FROM ") + table +
                              " WHERE subject = 'Löwen & ''quotes'' \"too\"'"),
              "1\n");
  }

  const std::vector<std::pair<int, std::pair<int, int>>> shares = {
      {0, {1800, 2200}}, {1, {1800, 2200}}, {2, {380, 620}}, {3, {380, 620}}};
  for (const auto &[status, range] : shares) {
    const int rows = std::stoi(Count(mail, "status = " + std::to_string(status)));
    EXPECT_GE(rows, range.first) << "status " << status;
    EXPECT_LE(rows, range.second) << "status " << status;
  }
  // Received mail goes to the local domains (the punycode one given is kept in UTF-8), sent mail
  // leaves them; remote domains include internationalised ones, never in punycode.
  EXPECT_EQ(Count(mail,
                  "status = 1 AND mail_to NOT LIKE '%@example.com' AND mail_to NOT LIKE "
                  "'%@münchen.example'"),
            "0\n");
  EXPECT_NE(Count(mail, "status = 1 AND mail_to LIKE '%@münchen.example'"), "0\n");
  EXPECT_EQ(Count(mail,
                  "status = 0 AND (mail_to LIKE '%@example.com' OR mail_to LIKE "
                  "'%@münchen.example')"),
            "0\n");
  EXPECT_NE(Count(mail, "mail_to LIKE '%@bücher.example'"), "0\n");
  EXPECT_EQ(Count(mail, "mail_to LIKE '%xn--%' OR mail_from LIKE '%xn--%'"), "0\n");
  EXPECT_NE(Count(mail, "ori_mail_to != ''"), "0\n");
  EXPECT_EQ(Query(security, "SELECT type FROM security_log_table GROUP BY type ORDER BY type"),
            "content\nreject\nspam\n");
}

TEST_F(LogGenTest, TheSeedDecidesEveryRow) {
  auto make = [this](const std::string &name, const std::string &seed) {
    const ProgramRun run =
        RunLogTool("qsv-log-gen", {"--mail-db", Path(name), "--from", "2026-01-01", "--days", "2",
                                   "--rows", "300", "--seed", seed});
    EXPECT_EQ(run.status, 0) << run.err;
    return Query(Path(name), "SELECT * FROM mail_log_table ORDER BY rowid");
  };
  const std::string first = make("a.db", "42");
  EXPECT_EQ(std::count(first.begin(), first.end(), '\n'), 300);
  EXPECT_EQ(make("b.db", "42"), first);
  EXPECT_NE(make("c.db", "43"), first);
}

TEST_F(LogGenTest, TheOlderLayoutHasEightColumnsAndItsOwnIndexes) {
  const std::string columns =
      "SELECT group_concat(name, ',') FROM pragma_table_info('mail_log_table')";
  const std::string indexes =
      "SELECT group_concat(name, ',') FROM (SELECT name FROM sqlite_master WHERE type = 'index' "
      "ORDER BY name)";
  ProgramRun run = RunLogTool("qsv-log-gen", {"--mail-db", Path("old.db"), "--old-layout", "--rows",
                                              "50", "--from", "2026-01-01"});
  ASSERT_EQ(run.status, 0) << run.err;
  EXPECT_EQ(Query(Path("old.db"), columns),
            "message_id,queue_id,date,mail_from,mail_to,size,status,host\n");
  EXPECT_EQ(Query(Path("old.db"), indexes),
            "mail_log_table_date_idx,mail_log_table_mail_from_idx,mail_log_table_mail_to_idx,"
            "mail_log_table_message_id_idx,mail_log_table_size_idx,mail_log_table_status_idx\n");
  EXPECT_EQ(Query(Path("old.db"), "SELECT count(*) FROM mail_log_table"), "50\n");

  run = RunLogTool("qsv-log-gen",
                   {"--mail-db", Path("new.db"), "--rows", "1", "--from", "2026-01-01"});
  ASSERT_EQ(run.status, 0) << run.err;
  EXPECT_EQ(Query(Path("new.db"), columns),
            "message_id,queue_id,date,mail_from,mail_to,size,status,host,subject,ori_mail_to\n");

  // Rows join a file only in its own layout.
  run = RunLogTool("qsv-log-gen", {"--mail-db", Path("old.db"), "--rows", "5"});
  EXPECT_EQ(run.status, 1);
  EXPECT_NE(run.err.find("has the older layout"), std::string::npos) << run.err;
  run = RunLogTool("qsv-log-gen", {"--mail-db", Path("new.db"), "--rows", "5", "--old-layout"});
  EXPECT_EQ(run.status, 1);
  EXPECT_EQ(Query(Path("new.db"), "SELECT count(*) FROM mail_log_table"), "1\n");
}

TEST_F(LogGenTest, BadOptionsAreRefusedInOneLineBeforeAnyFileIsMade) {
  const std::string mail = Path("mail.db");
  const std::vector<std::pair<std::vector<std::string>, std::string>> cases = {
      {{"--rows", "5"}, "give --mail-db, --security-db or both"},
      {{"--mail-db", "mail.db"}, "not an absolute path"},
      {{"--mail-db", mail, "--days", "0"}, "--days takes a number"},
      {{"--mail-db", mail, "--days", "1e3"}, "--days takes a number"},
      {{"--mail-db", mail, "--rows", "-5"}, "--rows takes a number"},
      {{"--mail-db", mail, "--rows", "2000000000"}, "--rows takes a number"},
      {{"--mail-db", mail, "--seed", "x"}, "--seed takes a number"},
      {{"--mail-db", mail, "--from", "2026-02-30"}, "--from takes a day"},
      {{"--mail-db", mail, "--from", "26-01-01"}, "--from takes a day"},
      {{"--mail-db", mail, "--domains", "example.com,,b.example"}, "--domains takes domain names"},
      {{"--mail-db", mail, "--domains", "bad_domain.example"}, "--domains takes domain names"},
      {{"--mail-db", mail, "--domains", "-a.example"}, "--domains takes domain names"},
      {{"--mail-db", mail, "--subject", "two\nlines"}, "--subject takes one line"},
      {{"--mail-db", mail, "--subject", "\xff\xfe"}, "--subject takes one line"},
      {{"--mail-db", mail, "--subject", "x", "--old-layout"}, "--subject needs the subject column"},
      {{"--security-db", mail, "--old-layout"}, "--old-layout is a layout of the mail log"},
      {{"--mail-db", mail, "--security-db", mail}, "name the same file"},
      {{"--mail-db", mail, "extra"}, "takes no operands"},
      {{"--mail-db", mail, "--old-layout=yes"}, "--old-layout takes no value"},
      {{"--mail-db", mail, "--days"}, "--days needs a value"},
  };
  for (const auto &[args, why] : cases) {
    const ProgramRun run = RunLogTool("qsv-log-gen", args);
    EXPECT_EQ(run.status, 1) << why;
    EXPECT_EQ(run.err.find("qsv-log-gen: "), 0u) << run.err;
    EXPECT_NE(run.err.find(why), std::string::npos) << run.err;
    EXPECT_EQ(run.err.find('\n'), run.err.size() - 1) << "one line: " << run.err;
    EXPECT_EQ(run.out, "") << why;
    EXPECT_FALSE(Exists("mail.db")) << why;
  }
}

}  // namespace
}  // namespace qsvtest
