#include <stdio.h>
#include <string.h>

#include <string>
#include <thread>

#include <gtest/gtest.h>

#include "kolt/base64.h"
#include "kolt/err.h"
#include "kolt/str.h"
#include "kolt/szhash.h"
#include "kolt/szlist.h"

namespace {

TEST(SzListTest, ListAndHashGrowPastTheirInitialSizeAndOwnCopies) {
  KLIBSZLIST *list = KLIBCSzListAlloc(2);
  ASSERT_NE(nullptr, list);
  char buf[16];
  for (int i = 0; i < 1000; i++) {
    snprintf(buf, sizeof(buf), "item%d", i);
    ASSERT_EQ(i, KLIBCSzListPush(&list, buf));
  }
  strcpy(buf, "overwritten");
  ASSERT_EQ(1000, KLIBCSzListCount(list));
  EXPECT_STREQ("item0", KLIBCSzListGet(list, 0));
  EXPECT_STREQ("item999", KLIBCSzListGet(list, 999));
  EXPECT_EQ(nullptr, KLIBCSzListGet(list, 1000));
  EXPECT_EQ(nullptr, KLIBCSzListGet(list, -1));

  KLIBCSzListRemoveAll(list);
  EXPECT_EQ(0, KLIBCSzListPush(&list, "again"));
  KLIBCSzListFree(list);

  // The hash replaces values and lists its keys in the order they arrived.
  KLIBSZHASH *hash = KLIBCSzHashAlloc(4);
  ASSERT_EQ(0, KLIBCSzHashSetValue(&hash, "smtp_port", "25"));
  ASSERT_EQ(0, KLIBCSzHashSetValue(&hash, "imap_port", "143"));
  ASSERT_EQ(0, KLIBCSzHashSetValue(&hash, "smtp_port", "587"));
  for (int i = 0; i < 500; i++) {
    std::string key = "k" + std::to_string(i);
    ASSERT_EQ(0, KLIBCSzHashSetValue(&hash, key.c_str(), key.c_str()));
  }
  EXPECT_EQ(502, KLIBCSzHashCount(hash));
  EXPECT_STREQ("587", KLIBCSzHashGetValue(hash, "smtp_port"));
  EXPECT_STREQ("k250", KLIBCSzHashGetValue(hash, "k250"));
  EXPECT_EQ(nullptr, KLIBCSzHashGetValue(hash, "SMTP_PORT"));

  KLIBSZLIST *keys = nullptr;
  ASSERT_EQ(502, KLIBCSzHashKeys(hash, &keys));
  EXPECT_STREQ("smtp_port", KLIBCSzListGet(keys, 0));
  EXPECT_STREQ("imap_port", KLIBCSzListGet(keys, 1));
  EXPECT_STREQ("k499", KLIBCSzListGet(keys, 501));
  KLIBCSzListFree(keys);
  KLIBCSzHashFree(hash);
}

TEST(StrTrimTest, TrimsBothEndsOnly) {
  char a[] = " \t value with  inner space \r\n";
  EXPECT_EQ(23, KLIBCStrTrimSpace(a, 0));
  EXPECT_STREQ("value with  inner space", a);
  char b[] = " \n\t ";
  EXPECT_EQ(0, KLIBCStrTrimSpace(b, 0));
  char c[] = "\xc3\xbc\xc3\xa0";  // bytes above 0x7F are not space
  EXPECT_EQ(4, KLIBCStrTrimSpace(c, 0));
  EXPECT_EQ(-1, KLIBCStrTrimSpace(nullptr, 0));
}

TEST(ErrTest, EachThreadKeepsItsOwnLastError) {
  char out[4];
  ASSERT_EQ(-1, KLIBCBase64Decode("!!!!", 4, out, sizeof(out)));
  EXPECT_EQ(KLIBC_ERR_BAD_FORMAT, KLIBCErrGet());
  EXPECT_STREQ("base64.cc", KLIBCErrorGetFile());
  EXPECT_GT(KLIBCErrorGetLine(), 0);
  int other = -1;
  std::thread([&] { other = KLIBCErrGet(); }).join();
  EXPECT_EQ(0, other);
}

}  // namespace
