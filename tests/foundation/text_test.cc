// Text helpers: replacing, the characters a name may hold, strict UTF-8, and the line tools over a
// real section file.
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "foundation/section_file.h"
#include "foundation/strings.h"
#include "foundation/text.h"
#include "foundation/utf8.h"
#include "harness/recording_script.h"
#include "harness/syslog_capture.h"

namespace {

std::vector<std::string> Items(const KLIBSZLIST *list) {
  std::vector<std::string> items;
  for (int i = 0; i < KLIBCSzListCount(list); ++i) items.push_back(KLIBCSzListGet(list, i));
  return items;
}

TEST(TextTest, ReplacingAndStrippingUnsupportedCharacters) {
  std::string grows = "a.a";
  StrReplace(grows, "a", "aa");  // what was inserted isn't scanned again
  EXPECT_EQ(grows, "aa.aa");
  EXPECT_FALSE(checkUnsupportedUser("j\xc3\xa9r\xc3\xb4me"));  // bytes above 127 aren't negative
  EXPECT_TRUE(checkUnsupportedUser("john doe"));
  EXPECT_TRUE(checkUnsupportedUser("john\x7f"));
  EXPECT_EQ(StripUnsupportedChars(" jo\thn\x7f\xc3\xa9\n"), "john\xc3\xa9");
}

TEST(Utf8Test, WellFormedTextAtTheEdgesOfEachLengthIsValid) {
  EXPECT_TRUE(checkValidUtf8(""));
  EXPECT_TRUE(checkValidUtf8("\xc2\x80\xdf\xbf\xe0\xa0\x80\xed\x9f\xbf\xee\x80\x80"));
  EXPECT_TRUE(checkValidUtf8("\xf0\x90\x80\x80\xf4\x8f\xbf\xbf"));  // U+10000, U+10FFFF
  EXPECT_TRUE(checkValidUtf8(std::string("ok\0\xff", 4)));         // the check ends at a NUL
}

TEST(Utf8Test, OverlongSurrogateTooLargeAndTruncatedFormsAreRefused) {
  for (const char *bad : {"\xc0\xaf", "\xc1\xbf", "\xe0\x9f\xbf", "\xf0\x8f\xbf\xbf",  // overlong
                          "\xed\xa0\x80", "\xed\xbf\xbf",                          // surrogates
                          "\xf4\x90\x80\x80", "\xf5\x80\x80\x80",                  // > U+10FFFF
                          "a\xc3", "\xe2\x82", "\xf0\x9f\x98", "\xe2\x28\xa1", "\x80"}) {
    EXPECT_FALSE(checkValidUtf8(bad)) << testing::PrintToString(bad);
  }
  EXPECT_FALSE(checkValidUtf8(std::string("\xc3\0", 2)));
}

TEST(Utf8Test, UpperCaseMapsBeyondAsciiAndKeepsBrokenBytes) {
  EXPECT_EQ(UnicodeUtf8UpperCase("j\xc3\xa9r\xc3\xb4me@x"), "J\xc3\x89R\xc3\x94ME@X");
  EXPECT_EQ(UnicodeUtf8UpperCase("\xd0\xbc\xd0\xb8\xd1\x80"), "\xd0\x9c\xd0\x98\xd0\xa0");
  EXPECT_EQ(UnicodeUtf8UpperCase("a\xff" "b\xc3"), "A\xff" "B\xc3");
}

TEST(LineToolsTest, ParseReadLineGivesTheWordsOfEachLineAfresh) {
  KLIBSZLIST *list = nullptr;
  char first[] = "  from:\tspam@example.com   yes\n";
  EXPECT_EQ(ParseReadLine(first, &list), 3);
  EXPECT_EQ(Items(list), (std::vector<std::string>{"from:", "spam@example.com", "yes"}));
  char second[] = "one\n";
  EXPECT_EQ(ParseReadLine(second, &list), 1);
  EXPECT_EQ(Items(list), (std::vector<std::string>{"one"}));
  KLIBCSzListFree(list);
}

TEST(LineToolsTest, SectionContentIsTheTrimmedLinesOfEveryOccurrence) {
  const char path[] = "/tmp/section-file-test.conf";
  qsvtest::WriteFile(path,
                     "[white]\n\t example.com \t\n\n# comment\n[black]\nspam.example\n"
                     "[whitelist]\nother.example\n[white]\nlate\tentry");
  KLIBSZLIST *list = nullptr;
  EXPECT_EQ(GetSectionContent(path, "white", &list), 2);
  EXPECT_EQ(Items(list), (std::vector<std::string>{"example.com", "late entry"}));
  EXPECT_EQ(GetSectionContent(path, "grey", &list), 0);
  KLIBCSzListFree(list);

  qsvtest::SyslogCapture log;
  EXPECT_EQ(GetSectionContent("/tmp/none.conf", "white", &list), -1);
  EXPECT_EQ(log.Matching(" Open /tmp/none.conf fail").size(), 1u);
}

}  // namespace
