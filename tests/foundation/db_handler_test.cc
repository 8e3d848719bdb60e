// The SQLite handle on real database files: creation with schema and owner, batches with and
// without a transaction, a damaged file thrown away and made anew, and the table questions.
#include <fcntl.h>
#include <sys/stat.h>
#include <syslog.h>
#include <unistd.h>

#include <string>

#include <gtest/gtest.h>

#include "foundation/db_handler.h"
#include "harness/run_as.h"
#include "harness/syslog_capture.h"

namespace {

const char kDir[] = "/tmp/db-handler-test";
const char kSchema[] =
    "create table item(name TEXT, size INTEGER);create unique index item_name on item(name);"
    "insert into item values ('seed', 1);";

class DBHandlerTest : public testing::Test {
 protected:
  void SetUp() override {
    mkdir(kDir, 0755);
    path_ = std::string(kDir) + "/" + testing::UnitTest::GetInstance()->current_test_info()->name();
    unlink(path_.c_str());
  }
  bool FileExists() const { return access(path_.c_str(), F_OK) == 0; }

  std::string path_;
};

TEST_F(DBHandlerTest, NewFileGetsSchemaOwnerAndModeOnce) {
  qsvtest::SyslogCapture log;
  {
    DBHandler db(path_, kSchema);
    EXPECT_FALSE(FileExists()) << "the constructor must not touch the file";
    ASSERT_EQ(db.connect(), 0);
    EXPECT_EQ(db.setBusyTimeout(60000), 0);
  }
  struct stat st;
  ASSERT_EQ(stat(path_.c_str(), &st), 0);
  EXPECT_EQ(st.st_uid, qsvtest::UidOf("Quillon-Server"));
  EXPECT_EQ(st.st_gid, qsvtest::GidOf("Quillon-Server"));
  EXPECT_EQ(st.st_mode & 07777, 0644u);
  const auto created = log.Matching("isn't exist, create DB");
  ASSERT_EQ(created.size(), 1u);
  EXPECT_EQ(created[0].priority & 7, LOG_DEBUG);

  DBHandler again(path_, kSchema);
  ASSERT_EQ(again.connect(), 0);
  EXPECT_EQ(again.GetTableDataCount("item"), 1) << "the schema ran a second time";
}

TEST_F(DBHandlerTest, TransactionalBatchIsAllOrNothing) {
  DBHandler db(path_, kSchema);
  ASSERT_EQ(db.connect(), 0);
  EXPECT_EQ(db.exeCmds(SQLCmd(), true), 0);
  EXPECT_FALSE(db.isInTran());

  SQLCmd batch;
  batch += "insert into item values ('a', 2);";
  batch += "insert into no_such_table values (1);";
  EXPECT_EQ(db.exeCmds(batch, true), SQLITE_ERROR);
  EXPECT_FALSE(db.isInTran());
  EXPECT_EQ(db.GetTableDataCount("item"), 1) << "the first insert of a failed batch stayed";

  EXPECT_EQ(db.ExecCmdList(batch, false), SQLITE_ERROR);
  EXPECT_EQ(db.GetTableDataCount("item"), 2) << "without a transaction the first insert stays";

  // A constraint failure in the middle of a batch is the same kind of failure.
  const std::list<std::string> duplicate = {"insert into item values ('b', 3);",
                                            "insert into item values ('a', 4);"};
  EXPECT_EQ(db.ExecCmdList(duplicate, true), SQLITE_CONSTRAINT);
  EXPECT_EQ(db.getErrCode(), SQLITE_CONSTRAINT);
  EXPECT_EQ(db.GetTableDataCount("item"), 2);

  // One statement for many rows: a clash on the third row takes the first two back with it.
  const char *names[] = {"c", "d", "a"};
  const auto bind = [&names](sqlite3_stmt *insert, size_t i) {
    sqlite3_bind_text(insert, 1, names[i], -1, SQLITE_STATIC);
    sqlite3_bind_int(insert, 2, static_cast<int>(i));
  };
  EXPECT_EQ(db.exeEach("insert into item values (?1, ?2);", 3, bind), SQLITE_CONSTRAINT);
  EXPECT_FALSE(db.isInTran());
  EXPECT_EQ(db.GetTableDataCount("item"), 2);
  EXPECT_EQ(db.exeEach("insert into item values (?1, ?2);", 2, bind), 0);
  EXPECT_EQ(db.GetTableDataCount("item"), 4);
  EXPECT_EQ(db.exeEach("insert into no_such_table values (?1);", 1, bind), SQLITE_ERROR);
  EXPECT_FALSE(db.isInTran());
}

TEST_F(DBHandlerTest, DisconnectCommitsAnOpenTransaction) {
  qsvtest::SyslogCapture log;
  {
    DBHandler db(path_, kSchema);
    ASSERT_EQ(db.connect(), 0);
    ASSERT_EQ(db.beginTransaction(), 0);
    ASSERT_EQ(db.ExecCmd("insert into item values ('kept', 5);"), 0);
    EXPECT_TRUE(db.isInTran());
  }  // dropped without a commit
  DBHandler reader(path_, kSchema);
  EXPECT_EQ(reader.GetTableDataCount("item"), 2);
  EXPECT_FALSE(reader.isConnect()) << "a question on a closed handle leaves it closed";
  EXPECT_EQ(log.Matching("Still in transaction, try to commit").size(), 1u);
}

TEST_F(DBHandlerTest, CorruptFileIsRegeneratedWithItsSchema) {
  {
    DBHandler db(path_, kSchema);
    ASSERT_EQ(db.connect(), 0);
    SQLCmd fill;
    for (int i = 0; i < 500; ++i) {
      fill += ("insert into item values ('" + std::string(200, 'x') + std::to_string(i) + "', 0);")
                  .c_str();
    }
    ASSERT_EQ(db.exeCmds(fill, true), 0);
  }
  // Keep the header page, so SQLite still takes the file for a database, and ruin the rest.
  const int fd = open(path_.c_str(), O_WRONLY | O_CLOEXEC);
  ASSERT_GE(fd, 0);
  const std::string garbage(64 * 1024, '\x5a');
  ASSERT_EQ(pwrite(fd, garbage.data(), garbage.size(), 4096), static_cast<ssize_t>(garbage.size()));
  close(fd);

  DBHandler db(path_, kSchema);
  ASSERT_EQ(db.connect(), 0);
  ASSERT_EQ(db.setBusyTimeout(60000), 0);
  const int rc = db.ExecCmd("select sum(size) from item;");
  ASSERT_EQ(rc, SQLITE_CORRUPT);
  ASSERT_EQ(db.getErrCode(), SQLITE_CORRUPT);
  // What a table class does with a code of 11.
  EXPECT_EQ(db.regenDB(), 0);
  EXPECT_TRUE(db.isConnect());
  EXPECT_EQ(db.GetTableDataCount("item"), 1) << "the new file lacks its schema";
  EXPECT_EQ(db.ExecCmd("insert into item values ('after', 6);"), 0);
}

TEST_F(DBHandlerTest, RegenOnAClosedHandleWaitsForTheNextConnect) {
  DBHandler db(path_, kSchema);
  EXPECT_EQ(db.setBusyTimeout(60000), -1);
  ASSERT_EQ(db.connect(), 0);
  ASSERT_EQ(db.ExecCmd("insert into item values ('gone', 7);"), 0);
  ASSERT_EQ(db.disconnect(), 0);
  EXPECT_EQ(db.setBusyTimeout(60000), -1);

  EXPECT_EQ(db.regenDB(), 0);
  EXPECT_FALSE(FileExists());
  EXPECT_FALSE(db.isConnect());
  ASSERT_EQ(db.connect(), 0);
  EXPECT_EQ(db.GetTableDataCount("item"), 1);
}

TEST_F(DBHandlerTest, TableQuestions) {
  DBHandler db(path_, kSchema);
  EXPECT_TRUE(db.IsTableExist("item"));
  EXPECT_FALSE(db.IsTableExist("items"));
  EXPECT_TRUE(db.IsColumnExists("item", "SIZE"));
  EXPECT_TRUE(db.IsColumnExists("item", "Name"));
  EXPECT_FALSE(db.IsColumnExists("item", "nam"));
  EXPECT_EQ(db.getColumnList("item"), (std::set<std::string>{"name", "size"}));
  EXPECT_TRUE(db.getColumnList("missing").empty());
  EXPECT_EQ(db.GetTableDataCount("missing"), 0);
  EXPECT_FALSE(db.isConnect());
}

}  // namespace
