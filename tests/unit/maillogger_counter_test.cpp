// The traffic counters.

#include <sqlite3.h>

#include <optional>

#include "maillogger.h"
#include "support/collector_test.h"
#include "support/connections.h"

namespace {

using namespace collector;
using database::rowsOf;

constexpr time_t kSecond = 1700000010, kHour = 1699999200, kDay = 1699920000;

Rows table(const std::string &scale) {
  return rowsOf(kStatistic, "select * from log_statistic_" + scale + " order by time;");
}

std::string row(time_t start, const std::string &rest) {
  return std::to_string(start) + "|" + rest;
}

class CounterTest : public CollectorTest {
 protected:
  CounterTest() {
    makeFiles();
    EXPECT_EQ(database::Connection(kStatistic)
                  .run("delete from log_statistic_second; delete from log_statistic_hour;"
                       "delete from log_statistic_day;"),
              0);
    logger.emplace(1000, 1000);
    EXPECT_EQ(logger->error(), 0);
    takeStatements();
  }

  void count(MailStatus status, int32_t size, int32_t time = 1700000015) {
    Entry entry;
    entry.status = status;
    entry.size = size;
    entry.time = time;
    logger->cacheLog(record(entry));
  }

  // A pass at a time so many seconds later. The cache time is not over.
  void pass(int seconds) {
    now += seconds;
    send({});
    logger->run();
  }

  // The collector's last act.
  void end() {
    logger->flushLogToDB();
    logger.reset();
  }

  // The rows of the test's own interval.
  std::string second() {
    return rowsOf(kStatistic,
                  "select * from log_statistic_second where time = 1700000010;")
        .at(0);
  }

  std::optional<MailLogger> logger;
};

// ---- what is counted

TEST_F(CounterTest, AnEntryCountsInItsIntervalOfEachScale) {
  count(STATUS_RECEIVE, 1024);
  end();
  EXPECT_EQ(table("second"), Rows{row(kSecond, "1|0|0|1.0|0.0")});
  EXPECT_EQ(table("hour"), Rows{row(kHour, "1|0|0|1.0|0.0")});
  EXPECT_EQ(table("day"), Rows{row(kDay, "1|0|0|1.0|0.0")});
}

TEST_F(CounterTest, TwoReceivedOf2048And1024BytesAreTwoAndThreeKibibytes) {
  count(STATUS_RECEIVE, 2048);
  count(STATUS_RECEIVE, 1024);
  end();
  EXPECT_EQ(second(), row(kSecond, "2|0|0|3.0|0.0"));
}

TEST_F(CounterTest, EachStatusHasItsColumnsAndBouncedBytesNone) {
  count(STATUS_RECEIVE, 1024);
  for (int i = 0; i < 2; i++) count(STATUS_SENT, 1536);
  for (int i = 0; i < 3; i++) count(STATUS_BOUNCE, 4096);
  end();
  EXPECT_EQ(second(), row(kSecond, "1|2|3|1.0|3.0"));
}

TEST_F(CounterTest, AResentEntryAndAnUnknownStatusChangeNoColumn) {
  count(STATUS_RESENT, 1024);
  count(static_cast<MailStatus>(7), 1024);
  count(static_cast<MailStatus>(-1), 1024);
  end();
  EXPECT_EQ(second(), row(kSecond, "0|0|0|0.0|0.0"));
}

TEST_F(CounterTest, TheIntervalIsThatOfTheEntryNotOfTheClock) {
  count(STATUS_SENT, 1024, 1700000015 - 90);
  end();
  EXPECT_EQ(table("second"), Rows{row(kSecond - 90, "0|1|0|0.0|1.0")});
}

TEST_F(CounterTest, RoundingIsTowardsZeroAlsoBefore1970) {
  now = 0;
  count(STATUS_SENT, 0, -1);
  count(STATUS_SENT, 0, 29);
  count(STATUS_SENT, 0, -31);
  end();
  EXPECT_EQ(table("second"), (Rows{"-30|0|1|0|0.0|0.0", "0|0|2|0|0.0|0.0"}));
  EXPECT_EQ(table("day"), Rows{"0|0|3|0|0.0|0.0"});
}

TEST_F(CounterTest, TheFarthestTimesHaveTheirIntervals) {
  now = INT32_MAX;
  count(STATUS_SENT, 0, INT32_MAX);
  count(STATUS_SENT, 0, INT32_MIN);
  logger->flushLogToDB();
  logger.reset();
  EXPECT_EQ(rowsOf(kStatistic, "select time from log_statistic_day;"),
            (Rows{"-2147472000", "2147472000"}));
  EXPECT_EQ(logRows().size(), 2u);
}

TEST_F(CounterTest, BytesWrapAt4GiB) {
  count(STATUS_SENT, INT32_MAX);
  count(STATUS_SENT, INT32_MAX);
  count(STATUS_SENT, 2 + 2048);  // 4 GiB and 2 KiB
  count(STATUS_RECEIVE, -1024);
  end();
  EXPECT_EQ(second(), row(kSecond, "1|3|0|4194303.0|2.0"));
}

// ---- when they are written

TEST_F(CounterTest, NothingIsWrittenWithin30SecondsOfTheLastWrite) {
  count(STATUS_SENT, 1024);
  pass(29);
  EXPECT_EQ(table("second"), Rows());
  pass(1);
  EXPECT_EQ(second(), row(kSecond, "0|1|0|0.0|1.0"));
}

// The start counts as an entry: what is too old goes at once.
TEST_F(CounterTest, ThirtySecondsAfterTheStartIsNotTooLateForAWriteEither) {
  ASSERT_EQ(database::Connection(kStatistic)
                .run("insert into log_statistic_second(time) values (1);"),
            0);
  pass(30);
  EXPECT_EQ(table("second"), Rows());
}

TEST_F(CounterTest, ThirtySecondsAfterTheLastEntryIsNotTooLateForAWrite) {
  pass(20);
  count(STATUS_SENT, 1024);
  pass(30);
  EXPECT_EQ(second(), row(kSecond, "0|1|0|0.0|1.0"));
}

TEST_F(CounterTest, LaterNothingIsWrittenUntilTheNextEntry) {
  count(STATUS_SENT, 1024);
  pass(31);
  pass(1000);
  EXPECT_EQ(table("second"), Rows());
  count(STATUS_SENT, 1024);
  pass(0);
  EXPECT_EQ(second(), row(kSecond, "0|2|0|0.0|2.0"));
}

TEST_F(CounterTest, TheWriteThatCountsIsTheLastSuccessfulOne) {
  count(STATUS_SENT, 1024);
  failStatement("COMMIT", 10);
  pass(30);
  expectLog({"DBHandler.cpp: commitTransaction fail, err=[10], not an error",
             kStillInTransaction});
  EXPECT_EQ(logger->error(), -1);
  EXPECT_EQ(second(), row(kSecond, "0|1|0|0.0|1.0"));  // by the disconnect
  count(STATUS_SENT, 1024);
  pass(1);
  EXPECT_EQ(second(), row(kSecond, "0|2|0|0.0|2.0"));
}

TEST_F(CounterTest, AClockSetBackDelaysTheWriteAndLosesNothing) {
  count(STATUS_SENT, 1024);
  pass(-7200);
  count(STATUS_SENT, 1024);
  pass(30);
  EXPECT_EQ(table("second"), Rows());
  end();
  EXPECT_EQ(second(), row(kSecond, "0|2|0|0.0|2.0"));
}

TEST_F(CounterTest, AClockSetForwardSkipsTheWriteUntilTheNextEntry) {
  count(STATUS_SENT, 1024);
  pass(7200);
  EXPECT_EQ(table("second"), Rows());
  count(STATUS_SENT, 1024);
  pass(0);
  EXPECT_EQ(second(), row(kSecond, "0|2|0|0.0|2.0"));
}

TEST_F(CounterTest, DestructionWritesInAnyCase) {
  pass(1000);
  EXPECT_EQ(takeStatements(), Rows());
  logger.reset();
  EXPECT_EQ(takeStatements().size(), 7u);  // none of them a row
}

// ---- what is written

TEST_F(CounterTest, StatementsAreTheseToTheLetter) {
  count(STATUS_RECEIVE, 1000);
  count(STATUS_SENT, 2048, 1700000015 - 3600);
  logger->flushLogToDB();
  takeStatements();
  logger.reset();
  const Rows statements = takeStatements();
  const std::string head =
      "(time, inbound_quantity , outbound_quantity, bounce_quantity, inbound_bandwidth, "
      "outbound_bandwidth) VALUES(";
  EXPECT_EQ(Rows(statements.begin() + 2, statements.end()),  // behind the log's
            (Rows{"BEGIN TRANSACTION;",
                  "DELETE FROM log_statistic_second WHERE time < '1699913615';",
                  "DELETE FROM log_statistic_hour WHERE time < '1697408015';",
                  "DELETE FROM log_statistic_day WHERE time < '1684448015';",
                  "INSERT OR REPLACE INTO 'log_statistic_second'" + head +
                      "'1699996410', '0', '1', '0', '0.00', '2.00');",
                  "INSERT OR REPLACE INTO 'log_statistic_second'" + head +
                      "'1700000010', '1', '0', '0', '0.98', '0.00');",
                  "INSERT OR REPLACE INTO 'log_statistic_hour'" + head +
                      "'1699995600', '0', '1', '0', '0.00', '2.00');",
                  "INSERT OR REPLACE INTO 'log_statistic_hour'" + head +
                      "'1699999200', '1', '0', '0', '0.98', '0.00');",
                  "INSERT OR REPLACE INTO 'log_statistic_day'" + head +
                      "'1699920000', '1', '1', '0', '0.98', '2.00');",
                  "COMMIT TRANSACTION;"}));
}

TEST_F(CounterTest, RowsOlderThanTheirTablesRetentionDisappear) {
  const std::vector<std::pair<std::string, long>> tables = {
      {"second", 86400}, {"hour", 2592000}, {"day", 15552000}};
  for (const auto &[scale, kept] : tables)
    ASSERT_EQ(database::Connection(kStatistic)
                  .run("insert into log_statistic_" + scale + "(time) values (" +
                       std::to_string(now - kept - 1) + "), (" +
                       std::to_string(now - kept) + ");"),
              0);
  end();
  for (const auto &[scale, kept] : tables)
    EXPECT_EQ(rowsOf(kStatistic, "select time from log_statistic_" + scale),
              Rows{std::to_string(now - kept)});
}

TEST_F(CounterTest, TheIntervalInProgressIsRewrittenWithItsTotals) {
  count(STATUS_SENT, 1024);
  pass(30);
  pass(0);
  count(STATUS_SENT, 1024, static_cast<int32_t>(now));
  pass(30);
  EXPECT_EQ(table("hour"), Rows{row(kHour, "0|2|0|0.0|2.0")});
  EXPECT_EQ(table("second").size(), 2u);
}

TEST_F(CounterTest, OnlyTheCurrentIntervalStaysInMemoryEvenIfItIsEmpty) {
  count(STATUS_SENT, 1024);
  pass(30);
  EXPECT_EQ(table("second"), Rows{row(kSecond, "0|1|0|0.0|1.0")});
  takeStatements();
  end();
  EXPECT_EQ(table("second"),
            (Rows{row(kSecond, "0|1|0|0.0|1.0"), row(kSecond + 30, "0|0|0|0.0|0.0")}));
  int written = 0;
  for (const std::string &statement : takeStatements())
    written += statement.find("INSERT OR REPLACE") == 0;
  EXPECT_EQ(written, 3) << "one for each scale";
}

TEST_F(CounterTest, ALateEntryReplacesThePastIntervalsRowBySmallerTotals) {
  for (int i = 0; i < 5; i++) count(STATUS_SENT, 1024);
  pass(30);
  count(STATUS_SENT, 1024);
  end();
  EXPECT_EQ(second(), row(kSecond, "0|1|0|0.0|1.0"));
  EXPECT_EQ(table("hour"), Rows{row(kHour, "0|6|0|0.0|6.0")});
}

// ---- starting again

TEST_F(CounterTest, ARestartWithinTheIntervalContinuesItsCounts) {
  for (int i = 0; i < 5; i++) count(STATUS_RECEIVE, 2048);
  count(STATUS_SENT, 1024);
  for (int i = 0; i < 2; i++) count(STATUS_BOUNCE, 1024);
  end();
  logger.emplace(1000, 1000);
  count(STATUS_RECEIVE, 2048);
  count(STATUS_SENT, 1024);
  count(STATUS_BOUNCE, 1024);
  end();
  for (const auto &[scale, start] :
       {std::pair("second", kSecond), {"hour", kHour}, {"day", kDay}})
    EXPECT_EQ(table(scale), Rows{row(start, "6|2|3|12.0|2.0")});
}

TEST_F(CounterTest, ARestartInTheNextIntervalBeginsAnew) {
  count(STATUS_RECEIVE, 2048);
  end();
  now += 30;
  logger.emplace(1000, 1000);
  count(STATUS_RECEIVE, 2048, static_cast<int32_t>(now));
  end();
  EXPECT_EQ(table("second"),
            (Rows{row(kSecond, "1|0|0|2.0|0.0"), row(kSecond + 30, "1|0|0|2.0|0.0")}));
  EXPECT_EQ(table("hour"), Rows{row(kHour, "2|0|0|4.0|0.0")});
}

TEST_F(CounterTest, BytesAreReadBackWithTwoDecimals) {
  count(STATUS_RECEIVE, 1000);  // 0.98 KiB are 1003 bytes
  count(STATUS_SENT, 1000);
  end();
  logger.emplace(1000, 1000);
  count(STATUS_RECEIVE, 26);  // 1029: 1.00
  count(STATUS_SENT, 27);     // 1030: 1.01
  end();
  EXPECT_EQ(second(), row(kSecond, "2|2|0|1.0|1.01"));
}

TEST_F(CounterTest, ValuesThatNoCounterCanHoldAreReadAsTheNearest) {
  const std::vector<std::pair<std::string, std::string>> values = {
      {"-5.0, 1e300", "0.0|4194304.0"},
      {"NULL, 'x'", "0.0|0.0"},
      {"9e999, -9e999", "4194304.0|0.0"}};
  for (const auto &[written, read] : values) {
    end();
    ASSERT_EQ(database::Connection(kStatistic)
                  .run("insert or replace into log_statistic_second values(1700000010, "
                       "NULL, -1, 3, " +
                       written + ");"),
              0);
    logger.emplace(1000, 1000);
    EXPECT_EQ(logger->error(), 0);
    end();
    EXPECT_EQ(second(), row(kSecond, "0|-1|3|" + read));
    logger.emplace(1000, 1000);
  }
}

// ---- failures

TEST_F(CounterTest, ALockedFileKeepsTheCounts) {
  count(STATUS_SENT, 1024);
  database::Connection holder(kStatistic);
  ASSERT_EQ(holder.run("BEGIN EXCLUSIVE;"), 0);
  pass(30);
  EXPECT_EQ(logger->error(), -1);
  EXPECT_GT(sleptMs, 59'000);
  expectLog({"DBHandler.cpp: sqlite3_exec fail, err=[5], database is locked",
             kStillInTransaction});
  ASSERT_EQ(holder.run("ROLLBACK;"), 0);
  pass(0);
  EXPECT_EQ(second(), row(kSecond, "0|1|0|0.0|1.0"));
}

TEST_F(CounterTest, AFileWithoutItsTableIsMadeAnewAndTheCountsAreWrittenNextTime) {
  count(STATUS_SENT, 1024);
  ASSERT_EQ(database::Connection(kStatistic).run("drop table log_statistic_second;"), 0);
  pass(30);
  EXPECT_EQ(logger->error(), 0);
  expectLog(
      {"DBHandler.cpp: sqlite3_exec fail, err=[1], no such table: "
       "log_statistic_second",
       kCorrupt, kRegenStatistic, kStillInTransaction, kMissingStatistic});
  EXPECT_EQ(table("second"), Rows());
  pass(0);
  EXPECT_EQ(second(), row(kSecond, "0|1|0|0.0|1.0"));
}

TEST_F(CounterTest, ADamagedFileIsMadeAnew) {
  count(STATUS_SENT, 1024);
  database::spoilSchema(kStatistic);
  pass(30);
  EXPECT_EQ(logger->error(), 0);
  log.take();
  pass(0);
  EXPECT_EQ(second(), row(kSecond, "0|1|0|0.0|1.0"));
}

TEST_F(CounterTest, AFileThatCannotBeOpenedKeepsTheCounts) {
  count(STATUS_SENT, 1024);
  unlink(kStatistic.c_str());
  failStatement("BEGIN TRANSACTION;create table log_statistic", SQLITE_FULL);
  pass(30);
  EXPECT_EQ(logger->error(), -1);
  expectLog({kMissingStatistic,
             "DBHandler.cpp: exec db schema fail, err=[13], not an error",
             "DBHandler.cpp: Create DB fail;"});
  pass(0);
  expectLog({kMissingStatistic});
  EXPECT_EQ(second(), row(kSecond, "0|1|0|0.0|1.0"));
}

TEST_F(CounterTest, AFileThatCannotBeClosedIsAFailureAlthoughItsRowsAreStored) {
  count(STATUS_SENT, 1024);
  connections::failClose();
  pass(30);
  EXPECT_EQ(logger->error(), -1);
  expectLog({"DBHandler.cpp: Failed to close sqlite3, ret = [5]"});
  EXPECT_EQ(second(), row(kSecond, "0|1|0|0.0|1.0"));
}

}  // namespace
