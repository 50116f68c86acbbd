// The record: whatever a mail holds, the collector's statement fits its buffer.

#include <gtest/gtest.h>
#include <sqlite3.h>

#include <algorithm>
#include <cstring>
#include <random>
#include <vector>

#include "common/text.h"
#include "record.h"

namespace {

using std::string;

constexpr int kBuffer = 2048;  // the collector's

// The statement that the collector makes of the record, in a buffer in which it fits.
string statementOf(const LogSocket &record) {
  std::vector<char> text(16384);
  sqlite3_snprintf(static_cast<int>(text.size()), text.data(),
                   "INSERT INTO '%q' VALUES('%q', '%q', '%d', '%q', '%q', '%d', '%d')",
                   "mail_log_table", record.szMessageID, record.szQueueID,
                   static_cast<int>(record.log_time), record.szMailFrom, record.szMailTo,
                   static_cast<int>(record.mail_size), static_cast<int>(record.status));
  return text.data();
}

template <size_t Size>
string textOf(const char (&field)[Size]) {
  EXPECT_LT(strnlen(field, Size), Size) << "not terminated";
  const char *const end = field + strnlen(field, Size);
  EXPECT_TRUE(std::all_of(end, field + Size, [](char c) { return c == 0; }));
  return field;
}

void expectGood(const Delivery &delivery) {
  const LogSocket record = makeRecord(delivery);
  ASSERT_LT(statementOf(record).size(), size_t{kBuffer});
  for (const string &text : {textOf(record.szQueueID), textOf(record.szMessageID),
                             textOf(record.szMailFrom), textOf(record.szMailTo)}) {
    ASSERT_TRUE(isUtf8(text)) << printable(text);
    ASSERT_FALSE(hasControl(text)) << printable(text);
  }
}

Delivery deliveryOf(const string &text) {
  Delivery delivery;
  delivery.queueId = delivery.messageId = delivery.from = delivery.to = text;
  delivery.time = delivery.size = INT64_MIN;
  delivery.status = static_cast<MailStatus>(INT32_MIN);
  return delivery;
}

class Record : public testing::Test {
 protected:
  Record() { EXPECT_EQ(sqlite3_initialize(), SQLITE_OK); }
};

TEST_F(Record, HoldsWhatTheLogTold) {
  const Delivery delivery = {1795226689, "4jWjz14cZhz1cQJy", "m'id@x", "a@x", "b@x",
                             450,        STATUS_BOUNCE};
  const LogSocket record = makeRecord(delivery);
  EXPECT_EQ(record.log_time, 1795226689);
  EXPECT_EQ(textOf(record.szQueueID), "4jWjz14cZhz1cQJy");
  EXPECT_EQ(textOf(record.szMessageID), "m'id@x");
  EXPECT_EQ(textOf(record.szMailFrom), "a@x");
  EXPECT_EQ(textOf(record.szMailTo), "b@x");
  EXPECT_EQ(record.mail_size, 450);
  EXPECT_EQ(record.status, STATUS_BOUNCE);
}

TEST_F(Record, NumbersBeyondTheirFieldsBecomeTheNearest) {
  Delivery delivery;
  delivery.time = delivery.size = int64_t{INT32_MAX} + 1;
  EXPECT_EQ(makeRecord(delivery).log_time, INT32_MAX);
  EXPECT_EQ(makeRecord(delivery).mail_size, INT32_MAX);
  delivery.time = delivery.size = int64_t{INT32_MIN} - 1;
  EXPECT_EQ(makeRecord(delivery).log_time, INT32_MIN);
  EXPECT_EQ(makeRecord(delivery).mail_size, INT32_MIN);
}

TEST_F(Record, EachFieldCanBeFilledToItsLastByte) {
  Delivery delivery;
  delivery.queueId = delivery.from = delivery.to = string(300, 'x');
  delivery.messageId = string(600, 'x');
  const LogSocket record = makeRecord(delivery);
  EXPECT_EQ(textOf(record.szQueueID), string(255, 'x'));
  EXPECT_EQ(textOf(record.szMessageID), string(511, 'x'));
  EXPECT_EQ(textOf(record.szMailFrom), string(255, 'x'));
  EXPECT_EQ(textOf(record.szMailTo), string(255, 'x'));
  expectGood(delivery);
}

// The message that strangers would send: Postfix's ids have 20 characters at most.
TEST_F(Record, QuotesAloneLeaveTheMessageIdMostOfItsRoom) {
  Delivery delivery = deliveryOf(string(1000, '\''));
  delivery.queueId = string(20, 'Q');
  const LogSocket record = makeRecord(delivery);
  EXPECT_EQ(textOf(record.szMailFrom), string(255, '\''));
  EXPECT_EQ(textOf(record.szMailTo), string(255, '\''));
  EXPECT_EQ(textOf(record.szMessageID).size(), 455u);
  EXPECT_GE(statementOf(record).size(), 2046u);  // nothing is given away
  expectGood(delivery);
}

TEST_F(Record, FiveHundredQuotesAsMessageIdFitWithOrdinaryAddresses) {
  Delivery delivery = deliveryOf("someone@example.org");
  delivery.messageId = string(500, '\'');
  EXPECT_EQ(textOf(makeRecord(delivery).szMessageID), delivery.messageId);
  expectGood(delivery);
}

TEST_F(Record, EveryLengthOfQuotes) {
  for (size_t length = 0; length < 600; ++length)
    expectGood(deliveryOf(string(length, '\'')));
}

TEST_F(Record, NoCharacterIsCutInTwo) {
  for (const string &character :
       {string("\xc3\xbc"), string("\xe2\x82\xac"), string("\xf0\x9f\x93\xa7")}) {
    for (size_t before = 0; before < 4; ++before) {
      string text(before, 'x');
      while (text.size() < 600) text += character;
      expectGood(deliveryOf(text));
      const size_t whole = before + (255 - before) / character.size() * character.size();
      EXPECT_EQ(textOf(makeRecord(deliveryOf(text)).szMailTo), text.substr(0, whole));
    }
  }
}

TEST_F(Record, WhatIsNoCharacterBecomesAQuestionMark) {
  const std::pair<string, string> texts[] = {
      {string("a\0b", 3), "a?b"},
      {"\x01\x1f\x7f\n\t", "?????"},
      {"\x80\xff\xfe", "???"},
      {"\xc3", "?"},
      {"\xc3(", "?("},
      {"\xc0\xaf", "??"},
      {"\xe0\x80\xaf", "???"},
      {"\xed\xa0\x80", "???"},
      {"\xf4\x90\x80\x80", "????"},
      {"\xf5\x80\x80\x80", "????"},
      {"\xc2\x85", "??"},  // a control character of the second kind
      {"\xe2\x82", "??"},
      {"\xef\xbf\xbd\xf4\x8f\xbf\xbf\xc2\xa0", "\xef\xbf\xbd\xf4\x8f\xbf\xbf\xc2\xa0"}};
  for (const auto &[text, clean] : texts) {
    EXPECT_EQ(cleanText(text, 255, 255), clean) << printable(text);
    EXPECT_EQ(cleanText(cleanText(text, 255, 255), 255, 255), clean);
  }
}

TEST_F(Record, LimitsOfTheCleanText) {
  EXPECT_EQ(cleanText("abc", 2, 100), "ab");
  EXPECT_EQ(cleanText("abc", 100, 2), "ab");
  EXPECT_EQ(cleanText("''", 100, 3), "'");
  EXPECT_EQ(cleanText("''", 100, 4), "''");
  EXPECT_EQ(cleanText("a'", 100, 2), "a");
  EXPECT_EQ(cleanText("abc", 0, 100), "");
  EXPECT_EQ(cleanText("abc", 100, 0), "");
  EXPECT_EQ(cleanText("", 0, 0), "");
}

// Random texts of bytes that matter, in all lengths up to twice the largest field.
TEST_F(Record, AnyFieldsFitTheStatement) {
  std::mt19937 random(20261121);
  const string pieces[] = {
      "'",          "''", "\xc3\xbc", "\xf0\x9f\x93\xa7", "\xff", "x",
      string(1, 0), "%q", "\n",       "\xe2\x82\xac",     "\"",   "\\"};
  const auto below = [&](size_t limit) { return random() % limit; };
  const auto text = [&] {
    const size_t length = below(1100), kinds = 1 + below(std::size(pieces));
    string made;
    while (made.size() < length)
      made +=
          below(4) == 0 ? string(1, static_cast<char>(below(256))) : pieces[below(kinds)];
    return made;
  };
  for (int i = 0; i < 20000; ++i) {
    Delivery delivery;
    delivery.queueId = text();
    delivery.messageId = text();
    delivery.from = text();
    delivery.to = text();
    delivery.time = static_cast<int64_t>(random()) * (below(2) == 0 ? 1 : -1);
    delivery.size = static_cast<int64_t>(random()) << below(31);
    delivery.status = static_cast<MailStatus>(below(4));
    expectGood(delivery);
    if (HasFatalFailure()) return;
  }
}

}  // namespace
