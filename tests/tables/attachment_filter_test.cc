// The attachment filter in its real database and the PCRE rule it gives Postfix, tried with the
// real postmap against the header values a mail would carry.
#include <sys/stat.h>
#include <unistd.h>

#include <list>
#include <string>

#include <gtest/gtest.h>

#include "tables/attachment_filter.h"
#include "tables/tables_fixture.h"

namespace {

const char kDB[] = "/var/packages/Quillon-Server/etc/attachment_filter.db";
const char kRule[] = "/var/packages/Quillon-Server/target/etc/attachment_filter.pcre";
const char kRejected[] = "REJECT Attachment type not allowed";

std::string Lookup(const std::string &headerValue) {
  return qsvtest::PostmapQuery(headerValue, std::string("pcre:") + kRule);
}

std::list<std::string> Types(const std::string &search = "") {
  std::list<std::string> types;
  EXPECT_EQ(AttachmentFilter::GetList(types, search), 0);
  return types;
}

class AttachmentFilterTest : public qsvtest::TablesTest {
 protected:
  void SetUp() override { unlink(kDB); }
};

TEST_F(AttachmentFilterTest, NewDatabaseHoldsTheDefaultsUntilTheyAreDeleted) {
  const std::list<std::string> defaults = Types();
  EXPECT_EQ(defaults.size(), 35u);
  EXPECT_EQ(Types("vb"), (std::list<std::string>{"vb[es]"}));
  ASSERT_EQ(AttachmentFilter::Delete({"bat", "vb[es]"}), 0);
  const std::list<std::string> after = Types();
  EXPECT_EQ(after.size(), 33u);
  EXPECT_TRUE(Types("bat").empty()) << "a deleted default came back";
  std::list<std::string> failed;
  EXPECT_EQ(AttachmentFilter::GetList(failed, "it's"), -1);
}

TEST_F(AttachmentFilterTest, RuleRejectsListedTypesOnly) {
  ASSERT_EQ(AttachmentFilter::GenerateConfig(), 0);
  EXPECT_EQ(qsvtest::ReadFile(kRule),
            R"re(/name\s*=\s*"?(.*(\.|=2E))(fdf|ani|cur|ceo|cab|reg|cnf|hta|ins|job|lnk|pif|scf|sct|shb|shs|xnk|cer|its|mau|prf|pst|vsmacros|ws|com|src|bat|cmd|cpl|mhtml|ma[dfgmqrsvw]|vb[es]|ws[cfh]|md[az]|vs[stw])(\?=)?"?\s*(;|$)/ REJECT Attachment type not allowed
)re");
  struct stat st;
  ASSERT_EQ(stat(kRule, &st), 0);
  EXPECT_EQ(st.st_mode & 07777, 0644u);

  EXPECT_EQ(Lookup("name=\"evil.bat\""), kRejected);
  EXPECT_EQ(Lookup("attachment; name=report.vbs;"), kRejected);
  EXPECT_EQ(Lookup("name=\"=?utf-8?Q?evil=2Ebat?=\""), kRejected);
  EXPECT_EQ(Lookup("name=\"combat\""), "") << "bat without a dot before it";
  EXPECT_EQ(Lookup("name=\"evil.exe\""), "");
  EXPECT_EQ(Lookup("name=\"notes.txt\""), "");

  ASSERT_EQ(AttachmentFilter::Add({"exe", "tar.gz"}), 0);
  EXPECT_EQ(Lookup("name=\"evil.exe\""), "") << "the rule changes only when it is written";
  ASSERT_EQ(AttachmentFilter::GenerateConfig(), 0);
  EXPECT_EQ(Lookup("name=\"evil.exe\""), kRejected);
  EXPECT_EQ(Lookup("name=\"backup.tar.gz\""), kRejected);
  EXPECT_EQ(Lookup("name=\"backup.tarxgz\""), "") << "a dot in a type is a real dot";
}

}  // namespace
