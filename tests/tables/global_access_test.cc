// The global black and white lists and the DKIM sign whitelist on their real files: numbering,
// type masks, paging, the CIDR and punycode forms read back through postmap's cidr table.
#include <unistd.h>

#include <fstream>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "harness/mailserverctl_run.h"
#include "harness/syslog_capture.h"
#include "tables/dkim_sign_whitelist.h"
#include "tables/global_access.h"
#include "tables/tables_fixture.h"

namespace {

GlobalAccessItem Item(GlobalAccessType type, const std::string &pattern,
                      const std::string &description = "", bool enabled = true) {
  GlobalAccessItem item;
  item.type = type;
  item.pattern = pattern;
  item.description = description;
  item.enabled = enabled;
  return item;
}

std::string Patterns(const std::vector<GlobalAccessItem> &items) {
  std::string out;
  for (const GlobalAccessItem &item : items) {
    out += std::to_string(item.id) + ":" + item.pattern + " ";
  }
  return out;
}

class GlobalAccessTest : public qsvtest::TablesTest {
 protected:
  void SetUp() override {
    for (const char *path : {"/var/packages/Quillon-Server/etc/global_access_list.db",
                             "/var/packages/Quillon-Server/etc/dkim_sign_whitelist.db"}) {
      unlink(path);
    }
  }
};

TEST_F(GlobalAccessTest, ItemsAreNumberedFilteredByTypeAndPagedWithTheirTotal) {
  GlobalAccess lists;
  lists.SetSyncFlag(true);
  ASSERT_EQ(lists.AddWhitelist(Item(GLOBAL_ACCESS_NETWORK, "192.0.2.77/255.255.255.0", "office")),
            0);
  ASSERT_EQ(lists.AddWhitelist(Item(GLOBAL_ACCESS_NETWORK, "not a network", "typo")), 0);
  ASSERT_EQ(lists.AddWhitelist(
                Item(GLOBAL_ACCESS_SENDER, "boss@b\xc3\xbc" "cher.example", "it's the boss")),
            0);
  ASSERT_EQ(lists.AddWhitelist(Item(GLOBAL_ACCESS_HELO, "mx.partner.example", "", false)), 0);
  ASSERT_EQ(lists.AddBlacklist(Item(GLOBAL_ACCESS_SENDER, "spam@bulk.example")), 0);

  std::vector<GlobalAccessItem> items;
  EXPECT_EQ(lists.SearchWhitelist(0, -1, -1, GLOBAL_ACCESS_ALL, "", items, false, false), 4);
  EXPECT_EQ(Patterns(items),
            "1:192.0.2.77/255.255.255.0 2:not a network 3:boss@b\xc3\xbc" "cher.example "
            "4:mx.partner.example ");
  items.clear();
  EXPECT_EQ(lists.SearchBlacklist(0, -1, -1, GLOBAL_ACCESS_ALL, "", items, false, false), 1);
  EXPECT_EQ(items[0].id, 1) << "each list numbers its own";
  // A mask of no bits finds nothing; two bits find either; enabled narrows.
  items.clear();
  const auto none = static_cast<GlobalAccessType>(0);
  const auto either = static_cast<GlobalAccessType>(GLOBAL_ACCESS_SENDER | GLOBAL_ACCESS_HELO);
  EXPECT_EQ(lists.SearchWhitelist(0, -1, -1, none, "", items, false, false), 0);
  EXPECT_TRUE(items.empty());
  EXPECT_EQ(lists.SearchWhitelist(0, -1, 1, either, "", items, false, false), 1);
  EXPECT_EQ(Patterns(items), "3:boss@b\xc3\xbc" "cher.example ");
  // The keyword looks in patterns and descriptions, quotes and all.
  items.clear();
  EXPECT_EQ(lists.SearchWhitelist(0, -1, -1, GLOBAL_ACCESS_ALL, "it's", items, false, true), 1);
  EXPECT_EQ(Patterns(items), "3:boss@xn--bcher-kva.example ");
  // A page of one, and the total of all it was cut from.
  items.clear();
  EXPECT_EQ(lists.SearchWhitelist(1, 1, -1, GLOBAL_ACCESS_ALL, "", items, false, false), 4);
  EXPECT_EQ(Patterns(items), "2:not a network ");

  // The CIDR form: the network as postmap's cidr table takes it, the invalid row left out but
  // counted.
  items.clear();
  EXPECT_EQ(lists.SearchWhitelist(0, -1, -1, GLOBAL_ACCESS_NETWORK, "", items, true, false), 2);
  ASSERT_EQ(Patterns(items), "1:192.0.2.0/24 ");
  std::ofstream("/tmp/whitelist.cidr") << items[0].pattern << " OK\n";
  EXPECT_EQ(qsvtest::PostmapQuery("192.0.2.200", "cidr:/tmp/whitelist.cidr"), "OK");
  EXPECT_EQ(qsvtest::PostmapQuery("192.0.3.1", "cidr:/tmp/whitelist.cidr"), "");

  qsvtest::SyslogCapture log;
  GlobalAccessItem fix = Item(GLOBAL_ACCESS_NETWORK, "still not one");
  fix.id = 2;
  EXPECT_EQ(lists.SetWhitelist(fix), -1);
  EXPECT_EQ(log.Matching("Invalid CIDR pattern: 'still not one'").size(), 1u);
  fix.pattern = "2001:db8::/32";
  ASSERT_EQ(lists.SetWhitelist(fix), 0);
  ASSERT_EQ(lists.DeleteWhitelist(4), 0);
  items.clear();
  EXPECT_EQ(lists.SearchWhitelist(0, -1, -1, GLOBAL_ACCESS_ALL, "", items, true, false), 3);
  EXPECT_EQ(Patterns(items), "1:192.0.2.0/24 2:2001:db8::/32 3:boss@b\xc3\xbc" "cher.example ");
  EXPECT_EQ(lists.Add("graylist", Item(GLOBAL_ACCESS_SENDER, "x")), -1);
  EXPECT_EQ(lists.AddWhitelist(Item(GLOBAL_ACCESS_SENDER, std::string(300, 'a'))), -1);
}

TEST_F(GlobalAccessTest, TheDkimWhitelistKeepsNetworksOnly) {
  DKIMSignWhitelist whitelist;
  DKIMSignWhitelistItem item;
  item.pattern = "198.51.100.0/24";
  item.description = "outbound relays";
  ASSERT_EQ(whitelist.Add(item), 0);
  item.pattern = "relay.example";
  ASSERT_EQ(whitelist.Add(item), 0);
  std::vector<DKIMSignWhitelistItem> items;
  EXPECT_EQ(whitelist.Search(0, -1, -1, "", items, true), 2);
  ASSERT_EQ(items.size(), 1u) << "the name is no network";
  EXPECT_EQ(items[0].id, 1);
  item.id = 2;
  EXPECT_EQ(whitelist.Set(item), -1);
  item.pattern = "203.0.113.5";
  ASSERT_EQ(whitelist.Set(item), 0);
  items.clear();
  EXPECT_EQ(whitelist.Search(0, -1, -1, "relays", items), 2);
  EXPECT_EQ(items.size(), 2u);
}

// The administrator's front end: patterns and words checked before the lists change.
TEST_F(GlobalAccessTest, TheToolAddsListsAndRefusesWhatIsNoPattern) {
  ASSERT_EQ(qsvtest::RunCtl({"global", "add", "white", "network", "198.51.100.9/24",
                             "--description", "partner relays"}).status,
            0);
  ASSERT_EQ(qsvtest::RunCtl({"global", "add", "black", "sender", "spam@bulk.example"}).status, 0);
  for (const std::vector<std::string> &refused : std::vector<std::vector<std::string>>{
           {"global", "add", "grey", "sender", "x@example.com"},
           {"global", "add", "white", "network", "198.51.100.0/0"},
           {"global", "add", "white", "colour", "blue"},
           {"global", "add", "white", "sender", "a\nb"},
           {"global", "del", "white", "first"},
           {"global", "list", "white", "--type", "sender,planet"},
           {"dkim", "add", "relay.example"}}) {
    const qsvtest::CtlResult result = qsvtest::RunCtl(refused);
    EXPECT_EQ(result.status, 1) << result.output;
  }
  const qsvtest::CtlResult white = qsvtest::RunCtl({"global", "list", "white", "--cidr"});
  EXPECT_EQ(white.output, "1\tenabled\tnetwork\t198.51.100.0/24\tpartner relays\ntotal: 1\n");
  ASSERT_EQ(qsvtest::RunCtl({"dkim", "add", "203.0.113.0/24"}).status, 0);
  EXPECT_EQ(qsvtest::RunCtl({"dkim", "list"}).output, "1\tenabled\tnetwork\t203.0.113.0/24\t\ntotal: 1\n");
  qsvtest::WaitForQuietStore();
}

}  // namespace
