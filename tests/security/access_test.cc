// The access table in the real main database, and its regexp map read by the real postmap.
#include <unistd.h>

#include <fstream>
#include <sstream>
#include <string>

#include <gtest/gtest.h>

#include "security/access.h"
#include "security/security_fixture.h"
#include "tables/tables_fixture.h"

namespace {

using qsvtest::MainDBExec;

std::string Names(const std::list<AccessInfo> &rows) {
  std::string text;
  for (const AccessInfo &row : rows) {
    text += std::to_string(row.nameType) + "/" + row.name + "=" + Access::StatusToStr(row.status) + " ";
  }
  return text;
}

std::string ReadText(const std::string &path) {
  std::ifstream in(path);
  std::stringstream text;
  text << in.rdbuf();
  return text.str();
}

class AccessTest : public qsvtest::SecurityTest {
 protected:
  void SetUp() override {
    access_ = Access::getInstance(kMailServerDBPath);
    ASSERT_NE(access_, nullptr);
    MainDBExec("delete from access_table;");
  }
  Access *access_ = nullptr;
};

TEST_F(AccessTest, StatusWordsInAnyCaseAndTheFirstPathWins) {
  for (const char *ok : {"OK", "ok", " Permit ", "PERMIT\t"}) EXPECT_EQ(Access::StrToStatus(ok), ACCESS_OK) << ok;
  EXPECT_EQ(Access::StrToStatus("Reject"), ACCESS_REJECT);
  EXPECT_EQ(Access::StrToStatus("discard"), ACCESS_DISCARD);
  for (const char *other : {"", "okay", "REJECT 550", "defer"}) {
    EXPECT_EQ(Access::StrToStatus(other), ACCESS_UNKNOWN) << other;
  }
  EXPECT_STREQ(Access::StatusToStr(static_cast<AccessStatus>(9)), "UNKNOWN");
  EXPECT_EQ(Access::getInstance("/tmp/another.db"), access_);
  EXPECT_NE(::access("/tmp/another.db", F_OK), 0);
}

TEST_F(AccessTest, FiltersByTypeWordAndNameAndCounts) {
  ASSERT_EQ(access_->setAccess({{"a@example.com", ACCESS_OK, TYPE_FROM, NAME_TYPE_ADDRESS},
                                {"example.com", ACCESS_REJECT, TYPE_TO, NAME_TYPE_DOMAIN},
                                {"b@other.example", ACCESS_DISCARD, TYPE_FROM, NAME_TYPE_ADDRESS},
                                {"192.0.2.1", ACCESS_REJECT, TYPE_CLIENT, NAME_TYPE_ADDRESS}}),
            0);
  EXPECT_EQ(Names(access_->getAllAccessList({0, 10, "all", "example.com"})),
            "1/a@example.com=OK 2/example.com=REJECT ");
  EXPECT_EQ(Names(access_->getAllAccessList({0, 10, "sender", "example"})),
            "1/a@example.com=OK 1/b@other.example=DISCARD ");
  EXPECT_EQ(Names(access_->getAllAccessList({1, 1, "sender", "example"})), "1/b@other.example=DISCARD ");
  EXPECT_EQ(access_->getTotalAccessNum({0, 1, "client", "192"}), 1);
  // Without a name the type word doesn't narrow the count.
  EXPECT_EQ(access_->getTotalAccessNum({0, 1, "client", ""}), 4);
  EXPECT_TRUE(access_->getAllAccessList({0, 10, "nobody", "example"}).empty());
  EXPECT_EQ(access_->getTotalAccessNum({0, 10, "nobody", "example"}), -1);

  // A row's key has no status: the same key replaces it, a delete finds it with any status.
  ASSERT_EQ(access_->addAccess(TYPE_FROM, NAME_TYPE_ADDRESS, "a@example.com", ACCESS_REJECT), 0);
  ASSERT_EQ(access_->deleteAccess({{"b@other.example", ACCESS_OK, TYPE_FROM, NAME_TYPE_ADDRESS}}), 0);
  EXPECT_EQ(Names(access_->getAccessList(TYPE_FROM, 0, 10)), "1/a@example.com=REJECT ");
  // A name with a newline would be a map line of its own: the whole call is refused.
  EXPECT_EQ(access_->setAccess({{"c@example.com", ACCESS_OK, TYPE_FROM, NAME_TYPE_ADDRESS},
                                {"x\n/.*/ OK", ACCESS_REJECT, TYPE_FROM, NAME_TYPE_ADDRESS}}),
            -1);
  EXPECT_EQ(access_->getTotalAccessNum({0, 1, "all", ""}), 3);
}

TEST_F(AccessTest, ExportedMapAnswersThroughPostmapAndImportsBack) {
  ASSERT_EQ(access_->setAccess({{"*.spam.example", ACCESS_REJECT, TYPE_FROM, NAME_TYPE_DOMAIN},
                                {"boss@example.com", ACCESS_OK, TYPE_FROM, NAME_TYPE_ADDRESS},
                                {"bob", ACCESS_DISCARD, TYPE_FROM, NAME_TYPE_ACCOUNT},
                                {"odd/name@example.com", ACCESS_REJECT, TYPE_FROM, NAME_TYPE_ADDRESS},
                                {"a+b(c[d@example.com", ACCESS_DISCARD, TYPE_FROM, NAME_TYPE_ADDRESS},
                                {"weird.example", static_cast<AccessStatus>(9), TYPE_FROM, NAME_TYPE_DOMAIN},
                                {"rcpt@example.com", ACCESS_OK, TYPE_TO, NAME_TYPE_ADDRESS}}),
            0);
  const std::string map = "/tmp/sender_access.regexp";
  ASSERT_EQ(access_->exportAccess(TYPE_FROM, map), 0);
  EXPECT_EQ(ReadText(map),
            "/(^|@)weird\\.example$/ UNKNOWN\n"
            "/^odd\\/name@example\\.com$/ REJECT\n"
            "/^boss@example\\.com$/ OK\n"
            "/^bob@.*$/ DISCARD\n"
            "/^a\\+b\\(c\\[d@example\\.com$/ DISCARD\n"
            "/(^|@).*\\.spam\\.example$/ REJECT\n");
  const std::string regexp = "regexp:" + map;
  EXPECT_EQ(qsvtest::PostmapQuery("host.spam.example", regexp), "REJECT");
  EXPECT_EQ(qsvtest::PostmapQuery("user@host.spam.example", regexp), "REJECT");
  EXPECT_EQ(qsvtest::PostmapQuery("user@weird.example", regexp), "UNKNOWN");
  EXPECT_EQ(qsvtest::PostmapQuery("boss@example.com", regexp), "OK");
  EXPECT_EQ(qsvtest::PostmapQuery("bob@anywhere.example", regexp), "DISCARD");
  EXPECT_EQ(qsvtest::PostmapQuery("odd/name@example.com", regexp), "REJECT");
  // Regexp characters in a name are taken literally, and a name is no piece of a longer one.
  EXPECT_EQ(qsvtest::PostmapQuery("a+b(c[d@example.com", regexp), "DISCARD");
  EXPECT_EQ(qsvtest::PostmapQuery("aab(c[d@example.com", regexp), "");
  EXPECT_EQ(qsvtest::PostmapQuery("theboss@example.com.attacker.test", regexp), "");
  EXPECT_EQ(qsvtest::PostmapQuery("user@notweird.example", regexp), "");
  EXPECT_EQ(qsvtest::PostmapQuery("rcpt@example.com", regexp), "");

  MainDBExec("delete from access_table;");
  ASSERT_EQ(access_->importAccess(TYPE_FROM, map), 0);
  // The unknown status stays out; the account comes back as an address pattern.
  EXPECT_EQ(Names(access_->getAccessList(TYPE_FROM, 0, 100)),
            "1/odd/name@example.com=REJECT 1/boss@example.com=OK 1/bob@*=DISCARD "
            "1/a+b(c[d@example.com=DISCARD 2/*.spam.example=REJECT ");

  // Lines of another shape pass; a bare first word is taken as it stands.
  std::ofstream(map, std::ios::trunc)
      << "plain.example reject\n/old\\.example/ OK\n/x/ OK extra\n# comment\n\n/y/\n";
  MainDBExec("delete from access_table;");
  ASSERT_EQ(access_->importAccess(TYPE_TO, map), 0);
  EXPECT_EQ(Names(access_->getAccessList(TYPE_TO, 0, 100)),
            "2/plain.example=REJECT 2/old.example=OK ");
  EXPECT_EQ(access_->importAccess(TYPE_TO, "/tmp"), -1);
}

}  // namespace
