// The quarantine index in its real database file.
#include <unistd.h>

#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "harness/syslog_capture.h"
#include "security/MCPDBHandler.h"

namespace {

MCPRecord Record(const std::string &id, const std::string &sender, const std::string &receivers,
                 int64_t time, const std::string &subject, int score, uint64_t size) {
  return {id, sender, receivers, "20261123", time, subject, "card number", "/q/" + id, score,
          "store", size};
}

MCPDBFilter Off() {
  return {0, 100, "*", "", "", "", "", "", "", -1, -1, 0, 0, 0, 0, false, "receivedTime", "asc"};
}

std::string Ids(MCPDBHandler &db, const MCPDBFilter &filter) {
  std::vector<MCPRecord> rows;
  EXPECT_EQ(db.Retrieve(filter, rows), 0);
  std::string ids;
  for (const MCPRecord &row : rows) ids += row.message_id + " ";
  return ids;
}

class QuarantineTest : public testing::Test {
 protected:
  void SetUp() override {
    unlink("/var/packages/Quillon-Server/etc/mcp_quarantine.db");
    db_.reset(new MCPDBHandler());
    ASSERT_EQ(db_->getErrCode(), 0);
    ASSERT_EQ(db_->Insert({Record("m1", "a@xn--bcher-kva.example", "x@example.com y@xn--bcher-kva.example",
                                  100, "invoice", 50, 1000),
                           Record("m2", "b@example.com", "x@example.com", 200, "hello", 120, 5000),
                           Record("m3", "%c@example.com%", "z@example.com", 300, "report", 90, 200)}),
              0);
  }
  std::unique_ptr<MCPDBHandler> db_;
};

TEST_F(QuarantineTest, AddressesAreStoredInUtf8AndTheSameRecordTwiceIsTwoRows) {
  MCPDBFilter filter = Off();
  filter.searchMode = true;
  filter.searchText = "bücher";
  EXPECT_EQ(Ids(*db_, filter), "m1 ");
  filter.searchText = "xn--bcher-kva";  // searched in its UTF-8 form too
  EXPECT_EQ(Ids(*db_, filter), "m1 ");
  std::vector<MCPRecord> rows;
  ASSERT_EQ(db_->Retrieve(Off(), rows), 0);
  EXPECT_EQ(rows[0].sender, "a@bücher.example");
  EXPECT_EQ(rows[0].receivers, "x@example.com y@bücher.example");
  EXPECT_EQ(rows[1].mailSize, 5000u);
  EXPECT_EQ(rows[1].score, 120);

  ASSERT_EQ(db_->Insert(rows[1]), 0);
  EXPECT_EQ(db_->GetRecordNum(Off()), 4);
  // A delete goes by message id and path, whatever else the record says.
  MCPRecord gone = rows[1];
  gone.subject = "other";
  ASSERT_EQ(db_->Delete(gone), 0);
  EXPECT_EQ(Ids(*db_, Off()), "m1 m3 ");
}

TEST_F(QuarantineTest, FieldFilterBoundsSearchModeAndCounts) {
  MCPDBFilter filter = Off();
  filter.scoreFrom = 60;
  EXPECT_EQ(Ids(*db_, filter), "m2 m3 ");
  filter.receivedTimeTo = 250;
  EXPECT_EQ(Ids(*db_, filter), "m2 ");
  filter.mailSizeFrom = 6000;
  EXPECT_EQ(Ids(*db_, filter), "");
  // Field texts compare whole, with their percent signs.
  filter = Off();
  filter.sender = "b@example.com";
  EXPECT_EQ(Ids(*db_, filter), "");
  filter.sender = "c@example.com";
  EXPECT_EQ(Ids(*db_, filter), "m3 ");
  // The search mode ignores every other field.
  filter.searchMode = true;
  filter.searchText = "example.com";
  filter.limit = 1;
  filter.offset = 1;
  filter.orderDirection = "desc";
  EXPECT_EQ(Ids(*db_, filter), "m2 ");
  EXPECT_EQ(db_->GetRecordNum(filter), 3);  // a count has no page
  filter.searchMode = false;
  filter.sender = "";
  filter.scoreTo = 100;
  EXPECT_EQ(db_->GetRecordNum(filter), 2);
}

TEST_F(QuarantineTest, ABatchWithAStatementTooLongStoresNothing) {
  qsvtest::SyslogCapture log;
  EXPECT_EQ(db_->Insert({Record("m4", "d@example.com", "x@example.com", 400, "fine", 1, 1),
                         Record("m5", "e@example.com", "x@example.com", 500, std::string(3000, 'x'), 1, 1)}),
            -1);
  EXPECT_EQ(db_->GetRecordNum(Off()), 3);
  EXPECT_FALSE(log.Matching("fail to insert mcp record to mcp_quarantine_table").empty());
  EXPECT_EQ(db_->getErrCode(), 2);
  MCPDBFilter search = Off();
  search.searchMode = true;
  search.searchText = std::string(600, 'q');
  std::vector<MCPRecord> rows;
  EXPECT_EQ(db_->Retrieve(search, rows), -1);
}

}  // namespace
