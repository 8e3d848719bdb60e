// The mail and security log queries over real SQLite files made by the traffic generator: the
// live file alone, with an archive, with an archive of the older layout; filters, keywords in
// their different forms, and the HTML export parsed back.
#include <fcntl.h>
#include <sys/stat.h>
#include <sqlite3.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "core/mail_conf.h"
#include "harness/mailserverctl_run.h"
#include "harness/syslog_capture.h"
#include "logs/log_db.h"
#include "logs/log_db_export.h"
#include "logs/maillog.h"
#include "logs/log_tools.h"
#include "logs/securityLog.h"

namespace {

using mail_log::MailLog;
using mail_log::MailLogFilter;
using mail_log::MailLogInfo;
using security_log::SecurityLog;
using qsvtest::Exec;
using qsvtest::GenerateLogs;
using qsvtest::QueryNumber;
using qsvtest::SetLocalDomains;

const std::string kLive = mail_log::kMailLogDBPath;
const std::string kArchive = mail_log::kMailLogArchivePath;
const std::string kSecurityLive = security_log::kSecurityLogDBPath;

void Remove(const std::string &path) {
  for (const char *suffix : {"", "-journal", "-wal"}) unlink((path + suffix).c_str());
}

// What `write` prints on standard output.
template <typename Fn>
std::string StdoutOf(Fn write) {
  fflush(stdout);
  const int saved = dup(1);
  const char path[] = "/tmp/log-export.html";
  const int fd = open(path, O_WRONLY | O_CREAT | O_TRUNC, 0600);
  dup2(fd, 1);
  close(fd);
  write();
  fflush(stdout);
  dup2(saved, 1);
  close(saved);
  std::ifstream in(path);
  return std::string((std::istreambuf_iterator<char>(in)), std::istreambuf_iterator<char>());
}

size_t Occurrences(const std::string &text, const std::string &piece) {
  size_t count = 0;
  for (size_t at = text.find(piece); at != std::string::npos; at = text.find(piece, at + 1)) {
    ++count;
  }
  return count;
}

MailLogFilter Rows() {
  MailLogFilter filter;
  filter.columns = "*";
  filter.sortColumn = "date";
  filter.sortOrder = "asc";
  return filter;
}

class MailLogTest : public testing::Test {
 protected:
  void SetUp() override {
    log_db::PrepareLogDir();
    for (const std::string &path : {kLive, kArchive, kSecurityLive}) Remove(path);
    SetLocalDomains("1/example.com, 2/b\xc3\xbc" "cher.example");
  }
};

TEST_F(MailLogTest, TheArchiveJoinsOnlyTheLiveFileAndPagesRunInOneDateOrder) {
  ASSERT_EQ(GenerateLogs("--mail-db " + kLive + " --from 2026-10-01 --days 30 --rows 300 --seed 1 "
                     "--domains example.com"),
            0);
  {
    MailLog log(kLive);
    ASSERT_EQ(log.error(), 0);
    EXPECT_EQ(log.getLogNum(), 300);
    MailLogFilter page = Rows();
    page.limit = 10;
    // No archive: no second database and no union, and an empty filter has no WHERE.
    EXPECT_EQ(log.composeCmd(page),
              "SELECT * FROM main.mail_log_table ORDER BY date asc LIMIT 10 OFFSET 0;");
  }
  // The archive holds the month before; a rotation wrote it with the double slash.
  ASSERT_EQ(GenerateLogs("--mail-db " + kArchive + " --from 2026-09-01 --days 30 --rows 200 --seed 2 "
                     "--domains example.com"),
            0);
  MailLog log(kLive);
  EXPECT_EQ(log.getLogNum(), 500);
  std::vector<MailLogInfo> rows;
  ASSERT_EQ(log.load(500, 0, "date", "asc", rows), 0);
  ASSERT_EQ(rows.size(), 500u);
  int fromArchive = 0;
  for (size_t i = 0; i < rows.size(); ++i) {
    if (i > 0) {
      EXPECT_LE(rows[i - 1].date, rows[i].date);
    }
    fromArchive += rows[i].dateTm.tm_mon == 8;
  }
  EXPECT_EQ(fromArchive, 200) << "September's rows come from the archive";
  MailLogFilter count = Rows();
  count.columns = "COUNT(*) AS cnt";
  EXPECT_EQ(log.composeCmd(count),
            "SELECT SUM(cnt) from ( SELECT COUNT(*) AS cnt FROM DB0.mail_log_table UNION ALL "
            "SELECT COUNT(*) AS cnt FROM main.mail_log_table);");

  // Another file than the live one never sees the archive.
  Remove("/tmp/other_mail_log.db");
  ASSERT_EQ(GenerateLogs("--mail-db /tmp/other_mail_log.db --rows 7 --seed 3"), 0);
  MailLog other("/tmp/other_mail_log.db");
  EXPECT_EQ(other.attachAllDBs(), 0);
  EXPECT_EQ(other.getLogNum(), 7);

  // Clearing empties the live table only.
  ASSERT_EQ(log.clear(), 0);
  MailLog after(kLive);
  EXPECT_EQ(after.getLogNum(), 200);
}

TEST_F(MailLogTest, AnArchiveOfTheOlderLayoutFailsOnlyTheQueriesThatNeedItsMissingColumns) {
  ASSERT_EQ(GenerateLogs("--mail-db " + kLive + " --rows 50 --seed 4 --domains example.com"), 0);
  ASSERT_EQ(GenerateLogs("--mail-db " + kArchive + " --rows 40 --seed 5 --old-layout"), 0);
  qsvtest::SyslogCapture log;
  MailLog mixed(kLive);
  EXPECT_EQ(mixed.getLogNum(), 90);
  std::string keyword = "example";
  // The keyword forms name subject and ori_mail_to for both files, as the live file has them.
  EXPECT_EQ(mixed.getLogNum(keyword), -1);
  std::vector<MailLogInfo> rows;
  EXPECT_EQ(mixed.search(10, 0, "date", "desc", "example", rows), -1);
  // SELECT * over files of ten and of eight columns can't be a union.
  EXPECT_EQ(mixed.load(Rows(), rows), -1);
  EXPECT_TRUE(rows.empty());
  EXPECT_FALSE(log.Matching("sqlite3_prepare_v2: [1]").empty());
  MailLogFilter count = Rows();
  count.status = mail_log::MAIL_STATUS_RECEIVE;
  EXPECT_EQ(mixed.getLogNum(count),
            QueryNumber(kLive, "select count(*) from mail_log_table where status=1") +
                QueryNumber(kArchive, "select count(*) from mail_log_table where status=1"));

  // Both files of the older layout: rows read with an empty subject and "-" as the original
  // recipient.
  Remove(kLive);
  ASSERT_EQ(GenerateLogs("--mail-db " + kLive + " --rows 30 --seed 6 --old-layout"), 0);
  MailLog old(kLive);
  ASSERT_EQ(old.load(100, 0, "date", "desc", rows), 0);
  ASSERT_EQ(rows.size(), 70u);
  for (const MailLogInfo &row : rows) {
    EXPECT_EQ(row.subject, "");
    EXPECT_EQ(row.oriMailTo, "-");
    EXPECT_EQ(row.queueId, "");
  }
}

TEST_F(MailLogTest, FilterTermsAndTheLocalReceiveStatus) {
  ASSERT_EQ(GenerateLogs("--mail-db " + kLive + " --from 2026-10-01 --days 30 --rows 2000 --seed 7 "
                     "--domains example.com,b\xc3\xbc" "cher.example"),
            0);
  MailLog log(kLive);
  MailLogFilter filter = Rows();
  filter.columns = "COUNT(*) AS cnt";
  filter.status = mail_log::MAIL_STATUS_LOCAL_RECEIVE;
  EXPECT_EQ(log.composeCmd(filter),
            "SELECT SUM(cnt) from ( SELECT COUNT(*) AS cnt FROM main.mail_log_table WHERE "
            "status=1 AND (mail_from LIKE '%@example.com' OR mail_from LIKE "
            "'%@b\xc3\xbc" "cher.example'));");
  const long long local = QueryNumber(
      kLive, "select count(*) from mail_log_table where status=1 and (mail_from like "
             "'%@example.com' or mail_from like '%@b\xc3\xbc" "cher.example')");
  EXPECT_GT(local, 0);
  EXPECT_EQ(log.getLogNum(filter), local);
  // With no local domains, every received mail counts.
  SetLocalDomains("");
  EXPECT_EQ(log.getLogNum(filter),
            QueryNumber(kLive, "select count(*) from mail_log_table where status=1"));

  // A size from 0 is a term; a date from 0 is none. Sizes are [from, to), dates [from, to].
  MailLogFilter terms = Rows();
  terms.sizeFrom = 0;
  terms.sizeTo = 20000;
  terms.dateTo = QueryNumber(kLive, "select max(date) from mail_log_table") - 86400;
  terms.mailTo = "xn--bcher-kva.example";  // the encoded form finds the stored UTF-8 one
  terms.limit = 5;
  EXPECT_EQ(log.composeCmd(terms),
            "SELECT * FROM main.mail_log_table WHERE mail_to LIKE '%b\xc3\xbc" "cher.example%' "
            "AND 0 <= size AND size < 20000 AND date <= " + std::to_string(terms.dateTo) +
            " ORDER BY date asc LIMIT 5 OFFSET 0;");
  terms.columns = "COUNT(*) AS cnt";
  const long long expected = QueryNumber(
      kLive, "select count(*) from mail_log_table where mail_to like '%b\xc3\xbc" "cher.example%' "
             "and size >= 0 and size < 20000 and date <= " + std::to_string(terms.dateTo));
  EXPECT_GT(expected, 0);
  EXPECT_EQ(log.getLogNum(terms), expected);
}

TEST_F(MailLogTest, KeywordFormsDifferWhereTheyShould) {
  ASSERT_EQ(GenerateLogs("--mail-db " + kLive + " --rows 400 --seed 8 --domains example.com"), 0);
  Exec(kLive, "insert into mail_log_table values ('<only@id>', 'Q1', 1790000000, "
                 "'anna@b\xc3\xbc" "cher.example', 'bob@example.com', 1234, 1, 'mx1', "
                 "'hello', '')");
  MailLog log(kLive);
  std::vector<MailLogInfo> rows;
  // search turns the keyword into the stored UTF-8 form for the addresses...
  ASSERT_EQ(log.search(10, 0, "date", "desc", "anna@xn--bcher-kva.example", rows), 0);
  ASSERT_EQ(rows.size(), 1u);
  EXPECT_EQ(rows[0].messageId, "<only@id>");
  EXPECT_EQ(rows[0].oriMailTo, "-");
  // ...the count and the export look for it as typed.
  std::string keyword = "anna@xn--bcher-kva.example";
  EXPECT_EQ(log.getLogNum(keyword), 0);
  const std::string html = StdoutOf([&] {
    EXPECT_EQ(log.ExportLog(10, 0, "date", "desc", "anna@xn--bcher-kva.example", "enu"), 0);
  });
  EXPECT_EQ(Occurrences(html, "<tr>"), 1u) << "headings only";
  keyword = "only@id";
  EXPECT_EQ(log.getLogNum(keyword), 1);
}

TEST_F(MailLogTest, ExportWritesEveryRowOnceAndValuesAsText) {
  ASSERT_EQ(GenerateLogs("--mail-db " + kLive + " --rows 1999 --seed 9 --subject "
                     "'<b>Hi</b> <script>alert(1)</script> & \"you\"'"),
            0);
  qsvtest::SyslogCapture log;
  MailLog mail(kLive);
  ASSERT_EQ(mail.getLogNum(), 2000);
  MailLogFilter all = Rows();
  const std::string html = StdoutOf([&] { EXPECT_EQ(mail.ExportLog(all, "enu"), 0); });
  const std::string headers =
      "Content-Type:application/octet-stream\nContent-Disposition:attachment; "
      "filename=\"koltmaillog.html\"\n\n<html><head>\n";
  EXPECT_EQ(html.substr(0, headers.size()), headers);
  EXPECT_EQ(Occurrences(html, "<tr>"), 2001u);
  EXPECT_EQ(Occurrences(html, "<td align=\"center\">"), 20000u);
  EXPECT_EQ(Occurrences(html, "<th>"), 10u);
  EXPECT_NE(html.find("<th>Message ID</th>"), std::string::npos);
  EXPECT_EQ(html.find("<script>"), std::string::npos);
  EXPECT_NE(html.find("&lt;b&gt;Hi&lt;/b&gt; &lt;script&gt;alert(1)&lt;/script&gt; &amp; "
                      "&quot;you&quot;"),
            std::string::npos);
  EXPECT_EQ(html.substr(html.size() - 23), "</table></body></html>\n");
  EXPECT_TRUE(log.Matching("write left body").empty()) << "2000 rows are two full batches";

  Exec(kLive, "delete from mail_log_table where rowid in (select rowid from mail_log_table "
                 "limit 1)");
  StdoutOf([&] { EXPECT_EQ(mail.ExportLog(all, "enu"), 0); });
  EXPECT_EQ(log.Matching("write left body").size(), 1u);
}

// Postfix's own lines, turned into rows by the package's writer, answer the queries.
TEST_F(MailLogTest, RowsWrittenFromPostfixLinesAreFound) {
  std::ofstream("/tmp/postfix.log")
      << "Oct 31 23:50:01 mx1 postfix/smtpd[2101]: 7A1B2C3D4E: client=mail.partner.example"
         "[198.51.100.20]\n"
         "Oct 31 23:50:01 mx1 postfix/cleanup[2102]: 7A1B2C3D4E: message-id=<demo-1@partner.example>\n"
         "Oct 31 23:50:01 mx1 postfix/qmgr[2050]: 7A1B2C3D4E: from=<pat@partner.example>, "
         "size=4242, nrcpt=1 (queue active)\n"
         "Oct 31 23:50:02 mx1 postfix/local[2103]: 7A1B2C3D4E: to=<alice@example.com>, "
         "orig_to=<sales@example.com>, relay=local, delay=0.2, delays=0.1/0/0/0.1, dsn=2.0.0, "
         "status=sent (delivered to mailbox)\n"
         "Oct 31 23:50:02 mx1 postfix/qmgr[2050]: 7A1B2C3D4E: removed\n"
         "Oct 31 23:55:09 mx1 postfix/smtpd[2104]: NOQUEUE: reject: RCPT from unknown[203.0.113.9]: "
         "554 5.7.1 <bob@example.com>: Relay access denied; from=<spam@bulk.example> "
         "to=<bob@example.com> proto=ESMTP helo=<bulk.example>\n";
  const std::string command = std::string(getenv("QSV_BUILD_DIR")) +
                              "/tools/qsv-log-writer --year 2026 /tmp/postfix.log >/dev/null";
  ASSERT_EQ(system(command.c_str()), 0);
  MailLog mail(kLive);
  std::vector<MailLogInfo> rows;
  ASSERT_EQ(mail.search(10, 0, "date", "desc", "partner.example", rows), 0);
  ASSERT_EQ(rows.size(), 1u);
  EXPECT_EQ(rows[0].mailFrom, "pat@partner.example");
  EXPECT_EQ(rows[0].oriMailTo, "sales@example.com");
  EXPECT_EQ(rows[0].status, mail_log::MAIL_STATUS_RECEIVE);
  EXPECT_EQ(rows[0].size, 4242);
  EXPECT_EQ(rows[0].dateTm.tm_mday, 31);
  SecurityLog security(kSecurityLive);
  std::vector<security_log::SecurityLogInfo> refused;
  ASSERT_EQ(security.search(10, 0, "date", "desc", "bulk.example", refused), 0);
  ASSERT_EQ(refused.size(), 1u);
  EXPECT_EQ(refused[0].type, "reject");
  EXPECT_EQ(refused[0].src, "203.0.113.9");
}

TEST(LogExportTest, SizesAndStatusWords) {
  using log_db_export::convertMailSize;
  EXPECT_EQ(convertMailSize(2048), "2KB");
  EXPECT_EQ(convertMailSize(1536), "1.5KB");
  EXPECT_EQ(convertMailSize(1000), "0.9KB");
  EXPECT_EQ(convertMailSize(0), "0KB");
  // Past a million kilobytes the stream would switch to an exponent.
  EXPECT_EQ(convertMailSize(2000000000), "1953125.0KB");
  EXPECT_EQ(log_db_export::statusInt2Str(3), "resend");
  EXPECT_EQ(log_db_export::statusInt2Str(4), "unknow");
}

class SecurityLogTest : public MailLogTest {};

TEST_F(SecurityLogTest, SearchLooksInFourColumnsAndTheExportInTwo) {
  ASSERT_EQ(GenerateLogs("--security-db " + kSecurityLive + " --rows 300 --seed 10 "
                     "--domains example.com"),
            0);
  Exec(kSecurityLive, "insert into security_log_table values (1790000000, '192.0.2.7', "
                         "'spam', 'score 9.1', 'mx1', 'rare-sender@evil.example', "
                         "'bob@example.com', '<i>Win</i>')");
  SecurityLog log(kSecurityLive);
  ASSERT_EQ(log.error(), 0);
  EXPECT_EQ(log.getLogNum(), 301);
  security_log::SecurityLogFilter filter;
  filter.columns = "*";
  filter.sortColumn = "date";
  filter.sortOrder = "desc";
  filter.limit = 3;
  EXPECT_EQ(log.composeCmd(filter),
            "SELECT * FROM main.security_log_table ORDER BY date desc LIMIT 3 OFFSET 0;");
  filter.type = "spam";
  filter.columns = "COUNT(*) AS cnt";
  EXPECT_EQ(log.getLogNum(filter),
            QueryNumber(kSecurityLive, "select count(*) from security_log_table where type like "
                                    "'%spam%'"));

  std::vector<security_log::SecurityLogInfo> rows;
  ASSERT_EQ(log.search(10, 0, "date", "desc", "rare-sender", rows), 0);
  ASSERT_EQ(rows.size(), 1u);
  EXPECT_EQ(rows[0].event, "score 9.1");
  std::string keyword = "rare-sender";
  EXPECT_EQ(log.getLogNum(keyword), 1);
  const std::string html = StdoutOf([&] {
    EXPECT_EQ(log.ExportLog(10, 0, "date", "desc", "rare-sender", "enu"), 0);
  });
  EXPECT_EQ(Occurrences(html, "<tr>"), 1u) << "the export doesn't look at senders";
  const std::string found = StdoutOf([&] {
    EXPECT_EQ(log.ExportLog(-1, 0, "date", "desc", "score 9.1", "enu"), 0);
  });
  EXPECT_EQ(Occurrences(found, "<tr>"), 2u);
  EXPECT_NE(found.find("filename=\"koltsecuritylog.html\""), std::string::npos);
  EXPECT_NE(found.find("&lt;i&gt;Win&lt;/i&gt;"), std::string::npos);
}

size_t Lines(const std::string &text) { return Occurrences(text, "\n"); }

// The administrator's front end: pages and terms checked before the library sees them, since the
// sort column and direction go into the statement as they stand.
TEST_F(MailLogTest, TheToolRefusesUnknownColumnsAndWritesTheDocumentAlone) {
  ASSERT_EQ(GenerateLogs("--mail-db " + kLive + " --rows 120 --seed 11 --domains example.com"), 0);
  ASSERT_EQ(GenerateLogs("--security-db " + kSecurityLive + " --rows 30 --seed 12"), 0);
  EXPECT_EQ(qsvtest::RunCtl({"log", "count"}).output, "120\n");
  const qsvtest::CtlResult page =
      qsvtest::RunCtl({"log", "list", "--limit", "7", "--sort", "size", "--order", "asc"});
  EXPECT_EQ(page.status, 0);
  EXPECT_EQ(Lines(page.output), 7u);
  const qsvtest::CtlResult received =
      qsvtest::RunCtl({"log", "filter", "--status", "receive", "--count"});
  EXPECT_EQ(received.output,
            std::to_string(QueryNumber(kLive, "select count(*) from mail_log_table where status=1")) +
                "\n");
  for (const std::vector<std::string> &refused :
       std::vector<std::vector<std::string>>{
           {"log", "list", "--sort", "date; DROP TABLE mail_log_table"},
           {"log", "list", "--order", "sideways"},
           {"log", "list", "--limit", "0"},
           {"log", "filter", "--status", "lost"},
           {"log", "filter", "--date-from", "yesterday"},
           {"log", "search", std::string("a\nb")},
           {"log", "export", "--keyword", "x", "--from", "y"},
           {"log", "export", "--output", "relative.html"},
           {"security-log", "list", "--sort", "mail_from"}}) {
    const qsvtest::CtlResult result = qsvtest::RunCtl(refused);
    EXPECT_EQ(result.status, 1) << refused[2] << ": " << result.output;
    EXPECT_EQ(result.output.rfind("mailserverctl: ", 0), 0u) << result.output;
  }
  EXPECT_EQ(qsvtest::RunCtl({"log", "count"}).output, "120\n");

  const qsvtest::CtlResult exported =
      qsvtest::RunCtl({"log", "export", "--output", "/tmp/mail-log.html"});
  ASSERT_EQ(exported.status, 0) << exported.output;
  std::ifstream in("/tmp/mail-log.html");
  const std::string html((std::istreambuf_iterator<char>(in)), std::istreambuf_iterator<char>());
  EXPECT_EQ(html.rfind("<html><head>\n", 0), 0u);
  EXPECT_EQ(Occurrences(html, "<tr>"), 121u);
  EXPECT_EQ(Lines(qsvtest::RunCtl({"security-log", "list", "--limit", "100"}).output), 30u);
}

}  // namespace
