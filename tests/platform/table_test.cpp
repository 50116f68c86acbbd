// The table, the list and the error code.

#include "table.h"

#include <gtest/gtest.h>

#include <climits>
#include <string>
#include <thread>

namespace {

TEST(Table, isCreatedEmpty) {
  Table table;
  EXPECT_EQ(table.get("key"), "(absent)");
}

TEST(Table, givesBackWhatWasSet) {
  Table table({{"smtp_port", "25"}, {"empty", ""}});
  EXPECT_EQ(table.get("smtp_port"), "25");
  EXPECT_EQ(table.get("empty"), "");
  EXPECT_EQ(table.get("smtp_por"), "(absent)");
  EXPECT_EQ(table.get("SMTP_PORT"), "(absent)");
}

TEST(Table, replacesAValue) {
  Table table({{"key", "old"}});
  table.set("key", "new");
  EXPECT_EQ(table.get("key"), "new");
}

TEST(Table, copiesBothTexts) {
  Table table;
  KLIBCSzHash *raw = table.raw();
  char key[] = "key", value[] = "value";
  ASSERT_EQ(KLIBCSzHashSetValue(&raw, key, value), 0);
  key[0] = value[0] = 'X';
  EXPECT_EQ(table.get("key"), "value");
}

TEST(Table, growsPastItsSizeAndItsTextsStay) {
  KLIBCSzHash *table = KLIBCSzHashAlloc(1);
  ASSERT_NE(table, nullptr);
  ASSERT_EQ(KLIBCSzHashSetValue(&table, "first", "short"), 0);
  const char *first = KLIBCSzHashGetValue(table, "first");
  for (int i = 0; i < 5000; ++i) {
    const std::string text = std::to_string(i);
    ASSERT_EQ(KLIBCSzHashSetValue(&table, ("key" + text).c_str(), text.c_str()), 0);
  }
  EXPECT_EQ(KLIBCSzHashGetValue(table, "first"), first);
  EXPECT_STREQ(first, "short");
  for (int i = 0; i < 5000; ++i) {
    const std::string text = std::to_string(i);
    ASSERT_STREQ(KLIBCSzHashGetValue(table, ("key" + text).c_str()), text.c_str());
  }
  KLIBCSzHashFree(table);
}

TEST(Table, mayTakeItsOwnTextAsNewValue) {
  Table table({{"key", std::string(100, 'x')}});
  KLIBCSzHash *raw = table.raw();
  ASSERT_EQ(KLIBCSzHashSetValue(&raw, "key", KLIBCSzHashGetValue(raw, "key")), 0);
  EXPECT_EQ(table.get("key"), std::string(100, 'x'));
}

TEST(Table, refusesBadParameters) {
  Table table({{"key", "value"}});
  KLIBCSzHash *raw = table.raw(), *none = nullptr;
  EXPECT_LT(KLIBCSzHashSetValue(nullptr, "key", "x"), 0);
  EXPECT_LT(KLIBCSzHashSetValue(&none, "key", "x"), 0);
  EXPECT_LT(KLIBCSzHashSetValue(&raw, nullptr, "x"), 0);
  EXPECT_LT(KLIBCSzHashSetValue(&raw, "", "x"), 0);
  EXPECT_LT(KLIBCSzHashSetValue(&raw, "key", nullptr), 0);
  EXPECT_EQ(KLIBCErrGet(), KLIBC_ERR_BAD_PARAMETERS);
  EXPECT_EQ(table.get("key"), "value");
  EXPECT_EQ(table.get(""), "(absent)");
  EXPECT_EQ(KLIBCSzHashGetValue(nullptr, "key"), nullptr);
  EXPECT_EQ(KLIBCSzHashGetValue(raw, nullptr), nullptr);
  EXPECT_EQ(KLIBCSzHashAlloc(0), nullptr);
  EXPECT_EQ(KLIBCSzHashAlloc(-1), nullptr);
  KLIBCSzHashFree(nullptr);
}

TEST(List, keepsTheOrderAndCounts) {
  KLIBCSzList *list = KLIBCSzListAlloc(1);
  ASSERT_NE(list, nullptr);
  EXPECT_EQ(KLIBCSzListGet(list, 0), nullptr);
  for (int i = 0; i < 1000; ++i)
    ASSERT_EQ(KLIBCSzListPush(&list, std::to_string(999 - i).c_str()), i + 1);
  for (int i = 0; i < 1000; ++i)
    ASSERT_STREQ(KLIBCSzListGet(list, i), std::to_string(999 - i).c_str());
  KLIBCSzListFree(list);
}

TEST(List, copiesItsItems) {
  KLIBCSzList *list = KLIBCSzListAlloc(512);
  char item[] = "anna";
  ASSERT_EQ(KLIBCSzListPush(&list, item), 1);
  item[0] = 'X';
  EXPECT_STREQ(KLIBCSzListGet(list, 0), "anna");
  KLIBCSzListFree(list);
}

TEST(List, givesNullPastEitherEndAndRefusesBadParameters) {
  KLIBCSzList *list = KLIBCSzListAlloc(4), *none = nullptr;
  ASSERT_EQ(KLIBCSzListPush(&list, ""), 1);
  EXPECT_STREQ(KLIBCSzListGet(list, 0), "");
  EXPECT_EQ(KLIBCSzListGet(list, 1), nullptr);
  EXPECT_EQ(KLIBCSzListGet(list, -1), nullptr);
  EXPECT_EQ(KLIBCSzListGet(list, INT_MAX), nullptr);
  EXPECT_EQ(KLIBCSzListGet(nullptr, 0), nullptr);
  EXPECT_LT(KLIBCSzListPush(&list, nullptr), 0);
  EXPECT_LT(KLIBCSzListPush(&none, "x"), 0);
  EXPECT_LT(KLIBCSzListPush(nullptr, "x"), 0);
  EXPECT_EQ(KLIBCErrGet(), KLIBC_ERR_BAD_PARAMETERS);
  EXPECT_EQ(KLIBCSzListGet(list, 1), nullptr);
  EXPECT_EQ(KLIBCSzListAlloc(0), nullptr);
  EXPECT_EQ(KLIBCSzListAlloc(-1), nullptr);
  KLIBCSzListFree(list);
  KLIBCSzListFree(nullptr);
}

TEST(Error, isNoneBeforeAnyFailureAndBelongsToItsThread) {
  EXPECT_LT(KLIBCStrTrimSpace(nullptr, 0), 0);
  ASSERT_EQ(KLIBCErrGet(), KLIBC_ERR_BAD_PARAMETERS);
  int before = -1, after = -1;
  std::thread other([&] {
    before = KLIBCErrGet();
    Table table;
    EXPECT_LT(table.load("/nowhere/at/all"), 0);
    after = KLIBCErrGet();
  });
  other.join();
  EXPECT_EQ(before, KLIBC_ERR_NONE);
  EXPECT_EQ(after, KLIBC_ERR_OPEN_FAILED);
  EXPECT_EQ(KLIBCErrGet(), KLIBC_ERR_BAD_PARAMETERS);
}

TEST(Error, isNotResetBySuccess) {
  EXPECT_LT(KLIBCStrTrimSpace(nullptr, 0), 0);
  char text[] = " x ";
  EXPECT_EQ(KLIBCStrTrimSpace(text, 0), 1);
  EXPECT_EQ(KLIBCErrGet(), KLIBC_ERR_BAD_PARAMETERS);
}

}  // namespace
