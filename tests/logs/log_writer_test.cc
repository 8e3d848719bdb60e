// qsv-log-writer on Postfix's own log lines: what a mail administrator finds in the mail and
// security logs afterwards, read back with plain SQLite.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <chrono>
#include <csignal>
#include <string>
#include <thread>

#include "harness/recording_script.h"
#include "harness/run_as.h"
#include "logs/log_tools.h"

namespace qsvtest {
namespace {

// A received mail for an alias, a sent one (the remote's "queued as" is no hand-over), a bounce
// and its notification, a deferral then delivery to a punycode domain with an encoded subject,
// a refused relay attempt, a refused subject, a hop into a filter on this host (no row), and
// lines that are no Postfix lines at all. Stamps in both forms; the ISO ones with offsets.
const char kMailLog[] =
    "Nov 23 07:10:01 mx1 postfix/smtpd[2101]: connect from mail.example.net[198.51.100.7]\n"
    "Nov 23 07:10:01 mx1 postfix/smtpd[2101]: 4B1C2D3E4F: "
    "client=mail.example.net[198.51.100.7]\n"
    "Nov 23 07:10:01 mx1 postfix/cleanup[2105]: 4B1C2D3E4F: "
    "message-id=<20261123071001.abc@example.net>\n"
    "Nov 23 07:10:01 mx1 postfix/cleanup[2105]: 4B1C2D3E4F: info: header Subject: Quarterly "
    "report from mail.example.net[198.51.100.7]; from=<carol@example.net> "
    "to=<team@example.com> proto=ESMTP helo=<mail.example.net>\n"
    "Nov 23 07:10:01 mx1 postfix/qmgr[1501]: 4B1C2D3E4F: from=<carol@example.net>, size=4242, "
    "nrcpt=1 (queue active)\n"
    "Nov 23 07:10:02 mx1 postfix/local[2110]: 4B1C2D3E4F: to=<alice@example.com>, "
    "orig_to=<team@example.com>, relay=local, delay=0.4, delays=0.2/0.01/0/0.19, dsn=2.0.0, "
    "status=sent (delivered to mailbox)\n"
    "Nov 23 07:10:02 mx1 postfix/qmgr[1501]: 4B1C2D3E4F: removed\n"
    "2026-11-23T07:11:00.123456+01:00 mx1 postfix/pickup[2200]: 5C2D3E4F50: uid=1000 "
    "from=<bob>\n"
    "2026-11-23T07:11:00.125+01:00 mx1 postfix/cleanup[2105]: 5C2D3E4F50: "
    "message-id=<local.1@example.com>\n"
    "2026-11-23T07:11:00+0100 mx1 postfix/qmgr[1501]: 5C2D3E4F50: from=<bob@example.com>, "
    "size=1200, nrcpt=1 (queue active)\n"
    "2026-11-23T06:11:01.5Z mx1 postfix/smtp[2210]: 5C2D3E4F50: to=<dave@partner.example.org>, "
    "relay=mx.partner.example.org[203.0.113.25]:25, delay=1.1, delays=0.1/0/0.5/0.5, "
    "dsn=2.0.0, status=sent (250 2.0.0 Ok: queued as 9F8E7D)\n"
    "2026-11-23T06:11:01.6Z mx1 postfix/qmgr[1501]: 5C2D3E4F50: removed\n"
    "Nov 23 07:12:00 mx1 postfix/smtpd[2101]: 6D3E4F5061: client=unknown[192.0.2.44]\n"
    "Nov 23 07:12:00 mx1 postfix/cleanup[2105]: 6D3E4F5061: message-id=<b1@example.com>\n"
    "Nov 23 07:12:00 mx1 postfix/qmgr[1501]: 6D3E4F5061: from=<erin@example.com>, size=900, "
    "nrcpt=1 (queue active)\n"
    "Nov 23 07:12:03 mx1 postfix/smtp[2211]: 6D3E4F5061: to=<nobody@example.org>, "
    "relay=mx.example.org[203.0.113.9]:25, delay=3, delays=0.1/0/1.4/1.5, dsn=5.1.1, "
    "status=bounced (host mx.example.org[203.0.113.9] said: 550 5.1.1 <nobody@example.org>: "
    "Recipient address rejected: User unknown (in reply to RCPT TO command))\n"
    "Nov 23 07:12:03 mx1 postfix/bounce[2220]: 6D3E4F5061: sender non-delivery notification: "
    "7E4F506172\n"
    "Nov 23 07:12:03 mx1 postfix/qmgr[1501]: 6D3E4F5061: removed\n"
    "Nov 23 07:12:03 mx1 postfix/cleanup[2105]: 7E4F506172: message-id=<n1@mx1.example.com>\n"
    "Nov 23 07:12:03 mx1 postfix/qmgr[1501]: 7E4F506172: from=<>, size=3001, nrcpt=1 (queue "
    "active)\n"
    "Nov 23 07:12:03 mx1 postfix/local[2230]: 7E4F506172: to=<erin@example.com>, relay=local, "
    "delay=0.01, delays=0/0/0/0, dsn=2.0.0, status=sent (delivered to mailbox)\n"
    "Nov 23 07:13:00 mx1 postfix/cleanup[2105]: 8F50617283: message-id=<d1@example.com>\n"
    "Nov 23 07:13:00 mx1 postfix/cleanup[2105]: 8F50617283: warning: header Subject: "
    "=?UTF-8?Q?Gr=C3=BC=C3=9Fe_aus_?= =?UTF-8?B?TcO8bmNoZW4=?= from local; "
    "from=<frank@example.com> to=<kunde@xn--bcher-kva.example>\n"
    "Nov 23 07:13:00 mx1 postfix/qmgr[1501]: 8F50617283: from=<frank@example.com>, size=2048, "
    "nrcpt=2 (queue active)\n"
    "Nov 23 07:13:05 mx1 postfix/smtp[2240]: 8F50617283: to=<kunde@xn--bcher-kva.example>, "
    "relay=none, delay=5, delays=0/0/5/0, dsn=4.4.1, status=deferred (connect to "
    "mx.xn--bcher-kva.example[198.51.100.80]:25: Connection timed out)\n"
    "Nov 23 07:13:05 mx1 postfix/smtp[2241]: 8F50617283: to=<grace@partner.example.org>, "
    "relay=mx.partner.example.org[203.0.113.25]:25, delay=5, delays=0/0/0.1/0.1, dsn=2.0.0, "
    "status=sent (250 2.0.0 Ok)\n"
    "Nov 23 07:14:00 mx1 postfix/smtpd[2102]: NOQUEUE: reject: RCPT from "
    "unknown[203.0.113.66]: 554 5.7.1 <victim@example.net>: Relay access denied; "
    "from=<spammer@example.biz> to=<victim@example.net> proto=ESMTP helo=<spam.example.biz>\n"
    "Nov 23 07:15:00 mx1 postfix/cleanup[2105]: 9A6172839B: reject: header Subject: Cheap "
    "watches from unknown[203.0.113.67]; from=<x@example.biz> to=<alice@example.com> "
    "proto=ESMTP helo=<h.example.biz>: 5.7.1 Spam subject\n"
    "Nov 23 07:16:00 mx1 postfix/smtp[2250]: AB72839CAD: to=<alice@example.com>, "
    "relay=127.0.0.1[127.0.0.1]:10024, delay=0.2, delays=0/0/0/0.2, dsn=2.0.0, status=sent "
    "(250 2.0.0 from MTA(smtp:[127.0.0.1]:10025): 250 2.0.0 Ok: queued as BC839DAEBF)\n"
    "Nov 23 07:43:05 mx1 postfix/smtp[2242]: 8F50617283: to=<kunde@xn--bcher-kva.example>, "
    "relay=mx.xn--bcher-kva.example[198.51.100.80]:25, delay=1805, delays=1800/0/3/2, "
    "dsn=2.0.0, status=sent (250 2.0.0 Ok)\n"
    "Nov 23 07:43:05 mx1 postfix/qmgr[1501]: 8F50617283: removed\n"
    "garbage line\n"
    "Nov 31 07:16:00 mx1 postfix/smtp[1]: CD839DAEBF: to=<a@example.com>, relay=local, "
    "status=sent (x)\n"
    "Nov 23 07:16:00 mx1 sshd[99]: CD839DAEBF: to=<a@example.com>, relay=local, status=sent "
    "(x)\n";

const char kMailColumns[] =
    "SELECT queue_id, date, message_id, mail_from, mail_to, size, status, host, subject, "
    "ori_mail_to "
    "FROM mail_log_table ORDER BY date, mail_to";
const char kSecurityColumns[] = "SELECT * FROM security_log_table ORDER BY date";

std::string At(int hour, int minute, int second) {
  return std::to_string(Utc(2026, 11, 23, hour, minute, second));
}

std::string Joined(const std::vector<std::string> &args) {
  std::string text;
  for (const std::string &arg : args) text += arg + " ";
  return text;
}

using LogWriterTest = LogToolTest;

TEST_F(LogWriterTest, PostfixLinesGiveARowPerFinalRecipientAndPerRefusal) {
  WriteFile(Path("mail.log"), kMailLog);
  const ProgramRun run =
      RunLogTool("qsv-log-writer", {"--mail-db", Path("mail.db"), "--security-db",
                                    Path("security.db"), "--year", "2026", Path("mail.log")});
  ASSERT_EQ(run.status, 0) << run.err;
  EXPECT_EQ(run.out, "6 mail rows, 2 security rows written\n");
  EXPECT_EQ(run.err, "");

  // Traditional stamps are local time (CET, UTC+1 in November); ISO ones carry their offset.
  EXPECT_EQ(Query(Path("mail.db"), kMailColumns),
            "4B1C2D3E4F|" + At(6, 10, 2) +
                "|<20261123071001.abc@example.net>|carol@example.net|"
                "alice@example.com|4242|1|mx1|Quarterly report|team@example.com\n"
                "5C2D3E4F50|" +
                At(6, 11, 1) +
                "|<local.1@example.com>|bob@example.com|"
                "dave@partner.example.org|1200|0|mx1||\n"
                "7E4F506172|" +
                At(6, 12, 3) +
                "|<n1@mx1.example.com>||erin@example.com|3001|1|mx1||\n"
                "6D3E4F5061|" +
                At(6, 12, 3) +
                "|<b1@example.com>|erin@example.com|nobody@example.org|900|"
                "2|mx1||\n"
                "8F50617283|" +
                At(6, 13, 5) +
                "|<d1@example.com>|frank@example.com|"
                "grace@partner.example.org|2048|0|mx1|Grüße aus München|\n"
                "8F50617283|" +
                At(6, 43, 5) +
                "|<d1@example.com>|frank@example.com|kunde@bücher.example|"
                "2048|3|mx1|Grüße aus München|\n");
  EXPECT_EQ(Query(Path("security.db"), kSecurityColumns),
            At(6, 14, 0) +
                "|203.0.113.66|reject|Relay access denied|mx1|spammer@example.biz|"
                "victim@example.net|\n" +
                At(6, 15, 0) +
                "|203.0.113.67|content|Spam subject|mx1|x@example.biz|alice@example.com|"
                "Cheap watches\n");

  // Made for the daemons that read them, whoever ran the writer.
  for (const char *name : {"mail.db", "security.db"}) {
    struct stat st;
    ASSERT_EQ(stat(Path(name).c_str(), &st), 0);
    EXPECT_EQ(st.st_mode & 07777, 0644u) << name;
    EXPECT_EQ(st.st_uid, UidOf("Quillon-Server")) << name;
  }
  // Both tables exactly as every other file of the suite has them, indexes included.
  EXPECT_EQ(Query(Path("mail.db"), "SELECT count(*) FROM sqlite_master WHERE type = 'index'"),
            "8\n");
  EXPECT_EQ(Query(Path("security.db"), "SELECT count(*) FROM sqlite_master WHERE type = 'index'"),
            "6\n");
}

TEST_F(LogWriterTest, RowsFromAPipeAppearWhileItIsStillOpenAndGarbageIsPassedOver) {
  // A writer that ends early must fail this test, not kill it.
  signal(SIGPIPE, SIG_IGN);
  ASSERT_EQ(mkfifo(Path("pipe").c_str(), 0600), 0);
  const std::string mailDb = Path("mail.db");
  bool seenWhileOpen = false;
  std::thread logger([&]() {
    // Not a blocking open: a writer that never opens the pipe would leave it waiting forever.
    int fd = -1;
    for (int i = 0; i < 1000 && fd < 0; ++i) {
      fd = open(Path("pipe").c_str(), O_WRONLY | O_NONBLOCK | O_CLOEXEC);
      if (fd < 0) std::this_thread::sleep_for(std::chrono::milliseconds(10));
    }
    ASSERT_GE(fd, 0) << "the writer never opened the pipe";
    fcntl(fd, F_SETFL, 0);
    auto send = [fd](const std::string &text) {
      EXPECT_EQ(write(fd, text.data(), text.size()), static_cast<ssize_t>(text.size()));
    };
    send(std::string("\x01\x02\xff binary\n") + std::string(100000, 'x') + "\n" +
         "Nov 23 07:10:01 mx1 postfix/smtpd[1]: NOQUEUE: reject: RCPT from\n"
         "Nov 23 07:10:01 mx1 postfix/qmgr[1]: 1A2B3C4D5E: from=<a@example.com>, "
         "size=99999999999999999999999, nrcpt=1 (queue active)\n"
         "Nov 23 07:10:01 mx1 postfix/qmgr[1]: 1A2B3C4D5E: from=<a@example.com, size=12\n"
         "Nov 23 07:10:01 mx1 postfix/local[2]: 1A2B3C4D5E: to=<b@example.com, status=sent\n"
         "Nov 23 07:10:01 mx1 postfix/local[2]: 1A2B3C4D5E: to=<b@example.com>, relay=local, "
         "status=sent (delivered to mailbox)\n");
    for (int i = 0; i < 200 && !seenWhileOpen; ++i) {
      seenWhileOpen =
          Query(mailDb, "SELECT mail_to, size FROM mail_log_table") == "b@example.com|0\n";
      std::this_thread::sleep_for(std::chrono::milliseconds(50));
    }
    // The last line has no newline: the end of the input ends it.
    send(
        "Nov 23 07:10:02 mx1 postfix/local[2]: 1A2B3C4D5E: to=<c@example.com>, relay=local, "
        "status=sent (delivered to mailbox)");
    close(fd);
  });
  const ProgramRun run = RunLogTool(
      "qsv-log-writer", {"--mail-db", mailDb, "--security-db", Path("security.db"), Path("pipe")});
  logger.join();
  EXPECT_TRUE(seenWhileOpen) << "the row waited for the end of the input";
  EXPECT_EQ(run.status, 0) << run.err;
  EXPECT_EQ(run.out, "2 mail rows, 0 security rows written\n");
  EXPECT_EQ(Query(mailDb, "SELECT mail_to FROM mail_log_table ORDER BY mail_to"),
            "b@example.com\nc@example.com\n");
}

TEST_F(LogWriterTest, AnArchiveOfTheOlderLayoutGetsItsEightColumns) {
  const ProgramRun made = RunLogTool("qsv-log-gen", {"--mail-db", Path("archive.db"), "--rows", "0",
                                                     "--from", "2026-11-01", "--old-layout"});
  ASSERT_EQ(made.status, 0) << made.err;
  WriteFile(Path("mail.log"), kMailLog);
  const ProgramRun run =
      RunLogTool("qsv-log-writer", {"--mail-db", Path("archive.db"), "--security-db",
                                    Path("security.db"), "--year", "2026", Path("mail.log")});
  ASSERT_EQ(run.status, 0) << run.err;
  EXPECT_EQ(Query(Path("archive.db"), "SELECT * FROM mail_log_table WHERE status = 3"),
            "<d1@example.com>|8F50617283|" + At(6, 43, 5) +
                "|frank@example.com|kunde@bücher.example|2048|3|mx1\n");
}

TEST_F(LogWriterTest, WithoutPathsTheLiveFilesAreMadeInAFolderOfThePackageUser) {
  const std::string folder = "/var/packages/Quillon-Server/target/var/aggr_log";
  ASSERT_EQ(system(("rm -rf " + folder).c_str()), 0);
  const ProgramRun run = RunLogTool("qsv-log-writer", {});  // standard input is /dev/null
  ASSERT_EQ(run.status, 0) << run.err;
  EXPECT_EQ(run.out, "0 mail rows, 0 security rows written\n");
  struct stat st;
  ASSERT_EQ(stat(folder.c_str(), &st), 0);
  EXPECT_EQ(st.st_mode & 07777, 0755u);
  EXPECT_EQ(st.st_uid, UidOf("Quillon-Server"));
  EXPECT_EQ(Query(folder + "/aggr_mail_log.db", "SELECT count(*) FROM mail_log_table"), "0\n");
  EXPECT_EQ(Query(folder + "/aggr_security_log.db", "SELECT count(*) FROM security_log_table"),
            "0\n");
}

TEST_F(LogWriterTest, BadOptionsAndFilesAreRefusedInOneLineBeforeAnythingIsWritten) {
  WriteFile(Path("mail.log"), kMailLog);
  WriteFile(Path("notes.txt"), "not a database\n");
  ASSERT_EQ(symlink("/etc/passwd", Path("link.db").c_str()), 0);
  const std::string mail = Path("mail.db"), security = Path("security.db"), log = Path("mail.log");
  ASSERT_EQ(RunLogTool("qsv-log-gen", {"--security-db", Path("other.db"), "--rows", "1"}).status,
            0);
  const std::vector<std::pair<std::vector<std::string>, std::string>> cases = {
      {{"--mail-db", "mail.db", "--security-db", security, log},
       "--mail-db is not an absolute path"},
      {{"--mail-db", mail, "--security-db", "", log}, "--security-db is not an absolute path"},
      {{"--mail-db", dir_ + "/", "--security-db", security, log}, "--mail-db names a folder"},
      {{"--mail-db", mail, "--security-db", security, "--year", "26", log}, "--year takes a year"},
      {{"--mail-db", mail, "--security-db", security, "--year", "-2026", log},
       "--year takes a year"},
      {{"--mail-db", mail, "--security-db", security, "--year"}, "--year needs a value"},
      {{"--mail-db", mail, "--security-db", security, "--frobnicate", log},
       "unknown option --frobnicate"},
      {{"--mail-db", mail, "--mail-db", mail, log}, "--mail-db is given twice"},
      {{"--mail-db", mail, "--security-db", mail, log}, "name the same file"},
      {{"--mail-db", mail, "--security-db", security, log, Path("missing.log")}, "cannot read"},
      {{"--mail-db", mail, "--security-db", security, dir_}, "is a folder"},
      {{"--mail-db", Path("link.db"), "--security-db", security, log}, "is a symbolic link"},
      {{"--mail-db", Path("notes.txt"), "--security-db", security, log}, "file is not a database"},
      {{"--mail-db", Path("other.db"), "--security-db", security, log}, "has no mail_log_table"},
  };
  for (const auto &[args, why] : cases) {
    const ProgramRun run = RunLogTool("qsv-log-writer", args);
    const std::string shown = Joined(args);
    EXPECT_EQ(run.status, 1) << shown;
    EXPECT_EQ(run.err.find("qsv-log-writer: "), 0u) << run.err;
    EXPECT_NE(run.err.find(why), std::string::npos) << run.err;
    EXPECT_EQ(run.err.find('\n'), run.err.size() - 1) << "one line: " << run.err;
    EXPECT_EQ(run.out, "") << shown;
    EXPECT_FALSE(Exists("mail.db")) << shown;
    EXPECT_FALSE(Exists("security.db")) << shown;
  }
  EXPECT_EQ(Query(Path("other.db"), "SELECT count(*) FROM security_log_table"), "1\n");
  EXPECT_EQ(ReadFile(Path("notes.txt")), "not a database\n");
}

}  // namespace
}  // namespace qsvtest
