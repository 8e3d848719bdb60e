// A user's forward and vacation files on a one-node cluster: the lines .forward gets, the reply
// files, their keys in the store, and what a hostile user can plant in the mail directory.
#include <pwd.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstdlib>
#include <ctime>
#include <string>

#include <gtest/gtest.h>

#include "harness/cluster_nodes.h"
#include "harness/eventually.h"
#include "harness/mailserverctl_run.h"
#include "harness/one_node_cluster.h"
#include "harness/recording_script.h"
#include "harness/syslog_capture.h"
#include "personal/personal.h"

namespace {

using qsvtest::Eventually;
using qsvtest::ReadFile;
using qsvtest::StoreCommand;
using qsvtest::WriteFile;

const char kVacation[] = "\"|/var/packages/Quillon-Server/target/bin/vacation ";

long LocalTime(int year, int month, int day, int hour, int minute) {
  struct tm tm = {};
  tm.tm_year = year - 1900;
  tm.tm_mon = month - 1;
  tm.tm_mday = day;
  tm.tm_hour = hour;
  tm.tm_min = minute;
  tm.tm_isdst = -1;
  return static_cast<long>(mktime(&tm));
}

struct stat Lstat(const std::string &path) {
  struct stat st = {};
  lstat(path.c_str(), &st);
  return st;
}

bool Exists(const std::string &path) {
  struct stat st;
  return lstat(path.c_str(), &st) == 0;
}

class PersonalTest : public qsvtest::OneNodeClusterTest {
 protected:
  static void SetUpTestSuite() {
    ASSERT_EQ(system("useradd -M bob"), 0);
    OneNodeClusterTest::SetUpTestSuite();
    uid_ = getpwnam("bob")->pw_uid;
    dir_ = "/var/spool/mail/local/" + std::to_string(uid_);
  }
  void SetUp() override {
    // Every test starts from a user with nothing set, once the key watcher is through with the
    // last test's files: a cycle still running would write its key again.
    EXPECT_TRUE(Eventually([] {
      return StoreCommand(cluster_->password(), {"KEYS", "kv_file_upload/*"}).empty() &&
             StoreCommand(cluster_->password(), {"KEYS", "quillon_server_lock/*"}).empty();
    }));
    usleep(300 * 1000);
    Personal bob("bob");
    ASSERT_TRUE(bob.isValid()) << bob.getErrKey();
    system(("rm -rf " + dir_ + "/.[a-z]*").c_str());
  }

  // Whether the key of `type` is in the store, once the sync has had its time: the sender's key
  // watcher writes the key after it has buffered the file.
  static bool Key(const std::string &type, bool present) {
    const std::string key = "personal/personal-" + std::to_string(uid_) + "-" + type;
    return Eventually(
        [&] { return StoreCommand(cluster_->password(), {"EXISTS", key}) == (present ? "1" : "0"); });
  }
  static std::string Forward() { return ReadFile(dir_ + "/.forward"); }

  static inline uid_t uid_ = 0;
  static inline std::string dir_;
};

TEST_F(PersonalTest, ForwardGetsTheLinesOfEachCombinationAndBothOffRemoveFileAndKey) {
  // Written by hand, before this test gives bob a key (once it is removed, the key watcher takes
  // the file away): a bare day is local midnight; comments alone are no forward.
  WriteFile(dir_ + "/.forward", "# away\n\"|/usr/bin/vacation bob -b 2030/01/02\"\n");
  Personal byHand("bob");
  EXPECT_TRUE(byHand.isEnabledReply());
  EXPECT_EQ(byHand.GetReplyBeginTime(), LocalTime(2030, 1, 2, 0, 0));
  EXPECT_EQ(byHand.GetReplyEndTime(), -1);
  WriteFile(dir_ + "/.forward", "# nothing\n\n   # still nothing\n");
  Personal comments("bob");
  EXPECT_FALSE(comments.isEnabledForward());
  EXPECT_EQ(comments.getForwardAddr(), "");

  // A forward line the delivery agent would run, or a second line smuggled in, is refused.
  for (const char *address : {"|/bin/sh -c x", "a@example.com\n|/bin/sh", "/etc/passwd",
                              "a@example.com,b@example.com", ""}) {
    Personal evil("bob");
    evil.setForward(true);
    evil.setForwardAddr(address);
    EXPECT_EQ(evil.save(), -1) << address;
  }
  EXPECT_EQ(Forward(), "# nothing\n\n   # still nothing\n");

  const long begin = LocalTime(2030, 1, 1, 8, 30);
  const long end = LocalTime(2030, 1, 10, 18, 0);
  struct Case {
    bool forward, reply, keep;
    long begin, end;
    std::string expected;
  };
  const Case cases[] = {
      {true, false, false, -1, -1, "alice@example.com\n"},
      {true, false, true, -1, -1, "\\bob\nalice@example.com\n"},
      {false, true, false, 0, -1, "\\bob\n" + std::string(kVacation) + "bob\"\n"},
      {false, true, false, begin, 0,
       "\\bob\n" + std::string(kVacation) + "bob -b 2030/01/01-08:30:00\"\n"},
      {true, true, false, begin, end,
       std::string(kVacation) + "bob -b 2030/01/01-08:30:00 -e 2030/01/10-18:00:00\"\n"
       "alice@example.com\n"},
      {true, true, true, -1, end,
       "\\bob\n" + std::string(kVacation) + "bob -e 2030/01/10-18:00:00\"\nalice@example.com\n"},
  };
  for (const Case &c : cases) {
    SCOPED_TRACE(c.expected);
    Personal bob("bob");
    bob.setForward(c.forward);
    bob.setForwardAddr("alice@example.com");
    bob.setReply(c.reply);
    bob.setKeepCopy(c.keep);
    bob.SetReplyBeginTime(c.begin);
    bob.SetReplyEndTime(c.end);
    ASSERT_EQ(bob.save(), 0);
    EXPECT_EQ(Forward(), c.expected);
    const struct stat st = Lstat(dir_ + "/.forward");
    EXPECT_EQ(st.st_uid, uid_);
    EXPECT_EQ(st.st_mode, static_cast<mode_t>(S_IFREG | 0644));
    EXPECT_TRUE(Key("forward", true));

    Personal again("bob");
    EXPECT_EQ(again.isEnabledForward(), c.forward);
    EXPECT_EQ(again.isEnabledReply(), c.reply);
    EXPECT_EQ(again.isKeepCopy(), c.keep || (c.reply && !c.forward));
    EXPECT_EQ(again.getForwardAddr(), c.forward ? "alice@example.com" : "");
    EXPECT_EQ(again.GetReplyBeginTime(), c.begin > 0 ? c.begin : -1);
    EXPECT_EQ(again.GetReplyEndTime(), c.end > 0 ? c.end : -1);
  }

  Personal bob("bob");
  bob.setForward(false);
  bob.setReply(false);
  bob.setKeepCopy(true);
  ASSERT_EQ(bob.save(), 0);
  EXPECT_FALSE(Exists(dir_ + "/.forward"));
  EXPECT_TRUE(Key("forward", false));


  Personal stranger("nobody-here");
  EXPECT_FALSE(stranger.isValid());
  Personal otherSource("bob@example.com");
  EXPECT_FALSE(otherSource.isValid());
  EXPECT_EQ(otherSource.getErrKey(), "acc_type_unsupport");
}

TEST_F(PersonalTest, RepliesAreWrittenReadListedAndRemovedAndNoSenderLeavesTheDirectory) {
  Personal bob("bob");
  ASSERT_EQ(bob.WriteReplyContent(nullptr, "Away", "Back on Monday.\nBob"), 0);
  ASSERT_EQ(bob.WriteReplyContent("carol@example.com", "Hi Carol", "Later."), 0);
  EXPECT_EQ(ReadFile(dir_ + "/.vacation.msg"), "From:bob\nSubject:Away\nBack on Monday.\nBob\n");
  EXPECT_EQ(ReadFile(dir_ + "/.carol@example.com.msg"), "From:bob\nSubject:Hi Carol\nLater.\n");
  EXPECT_EQ(Lstat(dir_ + "/.vacation.msg").st_mode, static_cast<mode_t>(S_IFREG | 0644));
  EXPECT_EQ(Lstat(dir_ + "/.carol@example.com.msg").st_uid, uid_);
  EXPECT_TRUE(Key("vacation_msg", true));
  EXPECT_TRUE(Key("sender-carol@example.com", true));
  EXPECT_EQ(bob.getReplyFilePath("carol@example.com"), dir_ + "/.carol@example.com.msg");

  std::string subject, body;
  ASSERT_EQ(bob.ReadReplyContent(nullptr, subject, body), 0);
  EXPECT_EQ(subject, "Away");
  EXPECT_EQ(body, "Back on Monday.\r\nBob\r\n");
  EXPECT_EQ(bob.GetReplyList(), (std::list<std::string>{"carol@example.com"}));

  qsvtest::SyslogCapture log;
  for (const char *sender : {"../../../var/packages/Quillon-Server/etc/x", "a/b", "..", "x..y",
                             "vacation", "two words", ""}) {
    EXPECT_EQ(bob.WriteReplyContent(sender, "s", "b"), -1) << sender;
    EXPECT_EQ(bob.getReplyFilePath(sender), "") << sender;
    EXPECT_FALSE(bob.doesReplyFileExist(sender)) << sender;
  }
  EXPECT_FALSE(log.Matching("Refused the sender [../../../var").empty());
  EXPECT_FALSE(Exists("/var/packages/Quillon-Server/etc/x.msg"));
  EXPECT_EQ(StoreCommand(cluster_->password(), {"KEYS", "personal/*-sender-*"}),
            "personal/personal-" + std::to_string(uid_) + "-sender-carol@example.com");
  EXPECT_EQ(bob.WriteReplyContent(nullptr, "Away\nBcc: everyone@example.com", "b"), -1);
  EXPECT_EQ(ReadFile(dir_ + "/.vacation.msg"), "From:bob\nSubject:Away\nBack on Monday.\nBob\n");

  ASSERT_EQ(bob.RemoveReplySetting("carol@example.com"), 0);
  EXPECT_FALSE(Exists(dir_ + "/.carol@example.com.msg"));
  EXPECT_TRUE(Key("sender-carol@example.com", false));
  EXPECT_TRUE(bob.GetReplyList().empty());
}

// bob owns his mail directory and may plant links, FIFOs and second names of other files in it;
// the library, running as root, must never read, write or hand over anything through them.
TEST_F(PersonalTest, PlantedLinksFifosAndHardLinksAreNeitherReadNorWrittenThrough) {
  const std::string secret = "/var/spool/mail/secret";
  WriteFile(secret, "stolen@example.com\n", 0600);
  ASSERT_EQ(symlink(secret.c_str(), (dir_ + "/.forward").c_str()), 0);
  ASSERT_EQ(symlink(secret.c_str(), (dir_ + "/.vacation.msg").c_str()), 0);

  Personal bob("bob");
  ASSERT_TRUE(bob.isValid());
  EXPECT_FALSE(bob.isEnabledForward());
  EXPECT_EQ(bob.getForwardAddr(), "");
  std::string subject, body;
  EXPECT_EQ(bob.ReadReplyContent(nullptr, subject, body), -1);
  EXPECT_FALSE(bob.doesReplyFileExist(nullptr));

  bob.setForward(true);
  bob.setForwardAddr("alice@example.com");
  ASSERT_EQ(bob.save(), 0);
  ASSERT_EQ(bob.WriteReplyContent(nullptr, "Away", "b"), 0);
  EXPECT_EQ(ReadFile(secret), "stolen@example.com\n");
  EXPECT_EQ(Lstat(secret).st_uid, 0u);
  EXPECT_EQ(Lstat(secret).st_mode, static_cast<mode_t>(S_IFREG | 0600));
  EXPECT_TRUE(S_ISREG(Lstat(dir_ + "/.forward").st_mode));
  EXPECT_EQ(Forward(), "alice@example.com\n");

  // The key watcher's hook gives a file whose key exists to the user: never the secret through a
  // link or a second name.
  const std::string key = "personal-" + std::to_string(uid_) + "-sender-carol@example.com";
  StoreCommand(cluster_->password(), {"SET", "personal/" + key, "x"});
  ASSERT_EQ(link(secret.c_str(), (dir_ + "/.carol@example.com.msg").c_str()), 0);
  EXPECT_EQ(Personal::UpdateFile(key), -1);
  unlink((dir_ + "/.carol@example.com.msg").c_str());
  ASSERT_EQ(symlink(secret.c_str(), (dir_ + "/.carol@example.com.msg").c_str()), 0);
  EXPECT_EQ(Personal::UpdateFile(key), -1);
  EXPECT_EQ(Lstat(secret).st_uid, 0u);
  EXPECT_EQ(Lstat(secret).st_mode, static_cast<mode_t>(S_IFREG | 0600));
  StoreCommand(cluster_->password(), {"DEL", "personal/" + key});

  // A FIFO as .forward must not hang whoever reads the settings.
  unlink((dir_ + "/.forward").c_str());
  ASSERT_EQ(mkfifo((dir_ + "/.forward").c_str(), 0644), 0);
  Personal fifo("bob");
  EXPECT_TRUE(fifo.isValid());
  EXPECT_FALSE(fifo.isEnabledForward());
}

TEST_F(PersonalTest, UpdateFileFollowsTheKeyAndAChangedReplyClearsTheVacationMemory) {
  const std::string key = "personal-" + std::to_string(uid_) + "-vacation_msg";
  // As the file sync lands it: root's until the hook gives it to bob.
  WriteFile(dir_ + "/.vacation.msg", "From:bob\nSubject:x\ny\n", 0600);
  WriteFile(dir_ + "/.vacation.db", "who got a reply", 0600);
  StoreCommand(cluster_->password(), {"SET", "personal/" + key, "record"});
  ASSERT_EQ(Personal::UpdateFile(key), 0);
  EXPECT_EQ(Lstat(dir_ + "/.vacation.msg").st_uid, uid_);
  EXPECT_EQ(Lstat(dir_ + "/.vacation.msg").st_mode, static_cast<mode_t>(S_IFREG | 0644));
  EXPECT_FALSE(Exists(dir_ + "/.vacation.db"));

  StoreCommand(cluster_->password(), {"DEL", "personal/" + key});
  ASSERT_EQ(Personal::UpdateFile(key), 0);
  EXPECT_FALSE(Exists(dir_ + "/.vacation.msg"));

  // Keys from the store are read as strictly as input from a form.
  qsvtest::SyslogCapture log;
  const std::string uid = std::to_string(uid_);
  for (const std::string &forged :
       {"personal-" + uid, "personal-x" + uid + "-forward", "personal-" + uid + "-shadow",
        "personal-" + uid + "-sender-../../../../etc/passwd", "personal-" + uid + "-sender-",
        std::string("personal-99999-forward"), "other-" + uid + "-forward"}) {
    EXPECT_EQ(Personal::UpdateFile(forged), -1) << forged;
    std::string path;
    EXPECT_EQ(Personal::LocalFilePath(forged, path), -1) << forged;
  }
  EXPECT_EQ(log.Matching("Error: splitList size < 3").size(), 2u);
  EXPECT_EQ(log.Matching("Type is not fit").size(), 2u);
  EXPECT_EQ(log.Matching("uid 99999 cannot get the user").size(), 2u);
  std::string path;
  ASSERT_EQ(Personal::LocalFilePath("personal/personal-" + uid + "-sender-a@b.example", path), 0);
  EXPECT_EQ(path, dir_ + "/.a@b.example.msg");
}

}  // namespace

namespace {

// What an administrator types: every refusal is one line, exit status 1, and nothing changed.
TEST_F(PersonalTest, MailserverctlRefusesBadWordsBeforeAnythingChangesAndShowsWhatIsSet) {
  ASSERT_EQ(qsvtest::RunCtl({"personal", "forward", "bob", "alice@example.com", "--keep-copy",
                             "yes"}).status,
            0);
  ASSERT_EQ(qsvtest::RunCtl({"personal", "vacation", "bob", "--subject", "Away", "--body",
                             "Back soon.", "--end", "2030-01-10"}).status,
            0);
  const std::string before = Forward();
  const std::vector<std::vector<std::string>> refused = {
      {"forward", "bob", "|/bin/sh"},
      {"forward", "bob", "alice@example.com\n|/bin/sh"},
      {"forward", "bob", "alice@no_domain"},
      {"forward", "bob", "alice@example.com", "--keep-copy", "maybe"},
      {"forward", "nobody-here", "alice@example.com"},
      {"vacation", "bob", "--sender", "../../x@example.com", "--subject", "s", "--body", "b"},
      {"vacation", "bob", "--sender", "a/b@example.com", "--subject", "s", "--body", "b"},
      {"vacation", "bob", "--subject", "s\x01", "--body", "b"},
      {"vacation", "bob", "--subject", "s"},
      {"vacation", "bob", "--begin", "2030-02-01", "--end", "2030-01-01"},
      {"vacation", "bob", "--until", "2030-01-01"},
      {"off", "bob@example.com"},
  };
  for (std::vector<std::string> words : refused) {
    for (std::string &word : words) {
      // A literal control character, as a script might pass one.
      for (const auto &escape : {std::make_pair(std::string("\\n"), std::string("\n")),
                                 std::make_pair(std::string("\\x01"), std::string("\x01"))}) {
        const size_t at = word.find(escape.first);
        if (at != std::string::npos) word.replace(at, escape.first.size(), escape.second);
      }
    }
    words.insert(words.begin(), "personal");
    const qsvtest::CtlResult result = qsvtest::RunCtl(words);
    EXPECT_EQ(result.status, 1) << words[2] << " " << words.back() << ": " << result.output;
    EXPECT_EQ(result.output.rfind("mailserverctl: ", 0), 0u) << result.output;
  }
  EXPECT_EQ(Forward(), before);
  EXPECT_EQ(ReadFile(dir_ + "/.vacation.msg"), "From:bob\nSubject:Away\nBack soon.\n");
  EXPECT_FALSE(Exists("/var/spool/mail/x@example.com.msg"));

  const qsvtest::CtlResult shown = qsvtest::RunCtl({"personal", "show", "bob"});
  EXPECT_EQ(shown.status, 0);
  EXPECT_EQ(shown.output,
            "forward     yes\naddress     alice@example.com\nkeep copy   yes\nreply       yes\n"
            "begin       -\nend         2030-01-10 23:59:59\nsubject     Away\n");

  ASSERT_EQ(qsvtest::RunCtl({"personal", "off", "bob"}).status, 0);
  EXPECT_FALSE(Exists(dir_ + "/.forward"));
}

}  // namespace
