// The mail log's reader. Waiting takes no time here: usleep() is counted instead.

#include "maillog.h"

#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <functional>
#include <optional>

#include "internal/move_lock.h"
#include "maillogger.h"
#include "support/connections.h"
#include "support/database.h"
#include "support/files.h"
#include "support/library_test.h"
#include "support/mail_log.h"
#include "support/sql_recorder.h"

namespace {

long sleptMs = 0;
std::function<void()> whileAsleep;

}  // namespace

extern "C" __attribute__((visibility("default"))) int usleep(useconds_t microseconds) {
  sleptMs += static_cast<long>(microseconds / 1000);
  if (whileAsleep) whileAsleep();
  return 0;
}

namespace {

using collector::kFolder;
using collector::kLog;
using collector::kStatistic;
using collector::Rows;
using database::rowsOf;
using internal::MoveLock;
using Entries = std::vector<MailLogInfo>;

const std::string kMissingLog = "DBHandler.cpp: " + kLog + " isn't exist, create DB";
const std::string kMissingStatistic =
    "DBHandler.cpp: " + kStatistic + " isn't exist, create DB";
const std::string kCorrupt = "maillog.cpp: db corrupt, need regen";
const std::string kRegenLog = "debug DBHandler.cpp: regen db : " + kLog;
const std::string kRegenStatistic = "debug DBHandler.cpp: regen db : " + kStatistic;

LogFilter everything(const std::string &select = "*") {
  LogFilter filter;
  filter.select = select;
  filter.start = 0;
  filter.limit = -1;
  filter.orderDir = "asc";
  filter.orderType = "date";
  filter.sizeOpt = "any";
  filter.mailSize = 0;
  filter.status = -1;
  filter.dateFrom = filter.dateTo = 0;
  return filter;
}

void runSQL(const std::string &path, const std::string &sql) {
  ASSERT_EQ(database::Connection(path).run(sql), 0) << sql;
}

std::string quoted(const std::string &text) {
  std::string result = "'";
  for (const char c : text) result += c == '\'' ? std::string("''") : std::string(1, c);
  return result + '\'';
}

// What each entry is found by.
Rows ids(const Entries &entries) {
  Rows found;
  for (const MailLogInfo &entry : entries) found.push_back(entry.strMessageID);
  return found;
}

class MailLogTest : public LibraryTest {
 protected:
  MailLogTest() {
    setenv("TZ", "UTC", 1);
    tzset();
    { const MailLog made(kLog.c_str()); }
    connections::closeLeft();
    EXPECT_EQ(log.take().size(), 2u);
    sleptMs = 0;
    whileAsleep = nullptr;
    sql::takeStatements();
  }
  ~MailLogTest() override { connections::closeLeft(); }

  // A row with this Message-ID; other columns as SQL.
  static void store(const std::string &id,
                    const std::string &rest = "'q', 1700000000, 'a@x', 'b@y', 10, 1") {
    runSQL(kLog, "insert into mail_log_table values(" + quoted(id) + ", " + rest + ");");
  }

  // Makes the statements that need the log or the statistics impossible.
  static void dropTable() { runSQL(kLog, "drop table mail_log_table;"); }
};

// All queries of the log, with what each gives.
struct Query {
  const char *name;
  bool isCount, isFilter;
  std::function<int(MailLog &, Entries &)> run;
};

const std::vector<Query> &queries() {
  static const std::vector<Query> all = {
      {"getLogNum()", true, false,
       [](MailLog &log, Entries &) { return log.getLogNum(); }},
      {"getLogNum(key)", true, false,
       [](MailLog &log, Entries &) {
         std::string key = "x";
         return log.getLogNum(key);
       }},
      {"getLogNum(filter)", true, false,
       [](MailLog &log, Entries &) { return log.getLogNum(everything("count(*)")); }},
      {"load", false, false,
       [](MailLog &log, Entries &rows) { return log.load(-1, 0, "date", "asc", rows); }},
      {"search", false, false,
       [](MailLog &log, Entries &rows) {
         return log.search(-1, 0, "date", "asc", "x", rows);
       }},
      {"load(filter)", false, true,
       [](MailLog &log, Entries &rows) { return log.load(everything(), rows); }}};
  return all;
}

// ---- construction

TEST_F(MailLogTest, ConstructingOnAPathThatDoesNotExistCreatesAnEmptyLogThere) {
  const std::string saved = kFolder + "maillog_20240131.db";
  MailLog log_(saved.c_str());
  EXPECT_EQ(log_.error(), 0);
  EXPECT_EQ(log_.getLogNum(), 0);
  EXPECT_EQ(rowsOf(saved, "select * from config_table;"), Rows{"version|1"});
  EXPECT_EQ(rowsOf(saved, "pragma journal_mode;"), Rows{"wal"});
  expectLog({"DBHandler.cpp: " + saved + " isn't exist, create DB"});
}

TEST_F(MailLogTest, ConstructingMakesTheFolderAndBothFiles) {
  std::remove(kStatistic.c_str());
  for (const char *end : {"", "-wal", "-shm"}) std::remove((kLog + end).c_str());
  ASSERT_EQ(rmdir(kFolder.c_str()), 0);
  const MailLog made(kLog.c_str());
  EXPECT_EQ(made.error(), 0);
  struct stat folder {};
  ASSERT_EQ(stat(kFolder.c_str(), &folder), 0);
  EXPECT_EQ(folder.st_mode & 0777, 0755u & ~022u);
  EXPECT_TRUE(fileExists(kStatistic));
  expectLog({kMissingLog, kMissingStatistic});
}

TEST_F(MailLogTest, ALogThatCannotBeOpenedEndsTheConstructionThere) {
  std::remove(kStatistic.c_str());
  const std::string path = kFolder + "none/maillog.db";
  const MailLog unusable(path.c_str());
  EXPECT_EQ(unusable.error(), -1);
  EXPECT_FALSE(fileExists(kStatistic));
  EXPECT_EQ(sleptMs, 0);
  expectLog({"DBHandler.cpp: " + path + " isn't exist, create DB",
             "DBHandler.cpp: Open database fail. dbpath = [" + path + "]",
             "DBHandler.cpp: Create DB fail;"});
}

TEST_F(MailLogTest, ANullPathIsAnErrorBeforeAnythingIsMade) {
  std::remove(kStatistic.c_str());
  const MailLog unusable(nullptr);
  EXPECT_EQ(unusable.error(), -1);
  EXPECT_FALSE(fileExists(kStatistic));
  expectLog({"maillog.cpp: Bad Parameter"});
}

TEST_F(MailLogTest, StatisticsThatCannotBeOpenedLeaveTheObjectUnusable) {
  std::remove(kStatistic.c_str());
  ASSERT_EQ(chmod("/var/packages/Postwell/etc", 0555), 0);
  const MailLog unusable(kLog.c_str());
  EXPECT_EQ(unusable.error(), -1);
  ASSERT_EQ(chmod("/var/packages/Postwell/etc", 0755), 0);
  expectLog({kMissingStatistic,
             "DBHandler.cpp: Open database fail. dbpath = [" + kStatistic + "]",
             "DBHandler.cpp: Create DB fail;"});
}

TEST_F(MailLogTest, DestroyingClosesBothFiles) {
  { const MailLog opened(kLog.c_str()); }
  EXPECT_EQ(connections::left(), 0);
}

// A file that somebody has begun to make is empty for a moment.
// What stays beside it would be counted among the saved logs.
TEST_F(MailLogTest, AReaderOfASavedLogLeavesNothingBesideIt) {
  store("1");
  const std::string saved = "maillog_20231114.db";
  ASSERT_EQ(rename(kLog.c_str(), (kFolder + saved).c_str()), 0);
  {
    MailLog reader((kFolder + saved).c_str());
    EXPECT_EQ(reader.getLogNum(), 1);
    EXPECT_EQ(collector::savedLogs().size(), 3u);  // with its write-ahead log
  }
  EXPECT_EQ(collector::savedLogs(), Rows{saved});
}

TEST_F(MailLogTest, AnEmptyFileIsWaitedForForASecondThenFilled) {
  for (const char *end : {"-wal", "-shm"}) std::remove((kLog + end).c_str());
  writeFile(kLog, "");
  MailLog log_(kLog.c_str());
  EXPECT_EQ(log_.error(), 0);
  EXPECT_EQ(sleptMs, 990);
  EXPECT_EQ(log_.getLogNum(), 0);
}

// The collector makes it at its next flush.
TEST_F(MailLogTest, AMissingLogIsLeftToACollectorForASecondThenMade) {
  for (const char *end : {"", "-wal", "-shm"}) std::remove((kLog + end).c_str());
  writeFile(collector::kSocket, "");
  const MailLog waited(kLog.c_str());
  EXPECT_EQ(waited.error(), 0);
  EXPECT_EQ(sleptMs, 990);
  const MailLog other((kFolder + "maillog_20240131.db").c_str());
  EXPECT_EQ(sleptMs, 990);
  std::remove(collector::kSocket.c_str());
  EXPECT_EQ(log.take().size(), 2u);
}

// What SQLite opens by its name when it first reads would be the next log's.
TEST_F(MailLogTest, ALogThatIsBeingMovedIsNotOpened) {
  store("old");
  std::optional<MoveLock> collector(MoveLock::kMoving);
  whileAsleep = [&] {
    whileAsleep = nullptr;
    EXPECT_EQ(connections::left(), 0);
    ASSERT_EQ(rename(kLog.c_str(), (kFolder + "maillog_20231114.db").c_str()), 0);
    collector.reset();
    const MailLog next(kLog.c_str());
    store("new");
  };
  MailLog reader(kLog.c_str());
  EXPECT_EQ(reader.error(), 0);
  Entries found;
  EXPECT_EQ(reader.load(-1, 0, "date", "asc", found), 0);
  EXPECT_EQ(ids(found), Rows{"new"});
  EXPECT_EQ(sleptMs, 10);
  expectLog({kMissingLog});
}

TEST_F(MailLogTest, AMoveThatDoesNotEndIsWaitedForForASecond) {
  store("kept");
  const MoveLock collector(MoveLock::kMoving);
  MailLog reader(kLog.c_str());
  EXPECT_EQ(sleptMs, 990);
  EXPECT_EQ(reader.getLogNum(), 1);
}

// SQLite opens the write-ahead log, by its name, when it first reads.
TEST_F(MailLogTest, ConstructingReadsTheLogOnce) {
  const MailLog log_(kLog.c_str());
  EXPECT_EQ(sql::takeStatements(), Rows{"PRAGMA schema_version;"});
}

TEST_F(MailLogTest, ALogThatIsHeldAloneIsWaitedForByConstructingAndWorksOnceItIsFree) {
  store("kept");
  std::optional<database::Connection> holder(kLog);
  ASSERT_EQ(holder->run("pragma locking_mode = exclusive; begin immediate; commit;"), 0);
  MailLog log_(kLog.c_str());
  EXPECT_EQ(log_.error(), 0);
  EXPECT_GE(sleptMs, 59'000);
  EXPECT_LE(sleptMs, 60'000);
  EXPECT_EQ(log_.getLogNum(), -1);
  EXPECT_LE(sleptMs, 2 * 60'000);
  holder.reset();
  EXPECT_EQ(log_.getLogNum(), 1);
}

// ---- counting

TEST_F(MailLogTest, RowsAreCountedAllByKeyAndByFilter) {
  store("<one@x>", "'q', 1, 'amy@a', 'bob@b', 10, 1");
  store("<two@x>", "'q', 2, 'bob@b', 'amy@a', 20, 0");
  store("<amy@x>", "'q', 3, 'joe@c', 'joe@c', 30, 2");
  MailLog log_(kLog.c_str());
  EXPECT_EQ(log_.getLogNum(), 3);
  std::string amy = "AMY", bob = "bob@", none = "eve", empty;
  EXPECT_EQ(log_.getLogNum(amy), 3);
  EXPECT_EQ(log_.getLogNum(bob), 2);
  EXPECT_EQ(log_.getLogNum(none), 0);
  EXPECT_EQ(log_.getLogNum(empty), 3);
  EXPECT_EQ(amy, "AMY");
  LogFilter filter = everything("count(*)");
  EXPECT_EQ(log_.getLogNum(filter), 3);
  filter.status = STATUS_BOUNCE;
  EXPECT_EQ(log_.getLogNum(filter), 1);
}

TEST_F(MailLogTest, ACountBeyondAnIntWraps) {
  MailLog log_(kLog.c_str());
  EXPECT_EQ(log_.getLogNum(everything("count(*) + 2147483647")), 2147483647);
  EXPECT_EQ(log_.getLogNum(everything("count(*) + 2147483648")), -2147483647 - 1);
  EXPECT_EQ(log_.getLogNum(everything("count(*) + 4294967299")), 3);
}

TEST_F(MailLogTest, TheLastRowOfACountCountsAndWithoutARowItIsMinusOne) {
  store("1");
  store("2", "'q', 9, '', '', 77, 1");
  MailLog log_(kLog.c_str());
  LogFilter none = everything("size");
  none.orderType = "rowid";
  EXPECT_EQ(log_.getLogNum(none), 77);
  none.messageID = "3";
  EXPECT_EQ(log_.getLogNum(none), -1);
}

// ---- loading

TEST_F(MailLogTest, ARowBecomesAnEntryWithoutQueueIdAndLogTime) {
  store("<id@x>", "'4XyZ', 1700000000, 'a@x', 'b@y', 2147483647, 3");
  MailLog log_(kLog.c_str());
  Entries all;
  for (const Query &query : queries())
    if (!query.isCount) {
      EXPECT_EQ(query.run(log_, all), 0) << query.name;
    }
  ASSERT_EQ(all.size(), 3u);
  for (const MailLogInfo &entry : all) {
    EXPECT_EQ(entry.strMessageID, "<id@x>");
    EXPECT_EQ(entry.strQueueID, "");
    EXPECT_EQ(entry.log_time, 0);
    EXPECT_EQ(entry.strMailFrom, "a@x");
    EXPECT_EQ(entry.strMailTo, "b@y");
    EXPECT_EQ(entry.mailSize, 2147483647);
    EXPECT_EQ(entry.status, STATUS_RESENT);
    EXPECT_EQ(entry.date.tm_year, 123);
    EXPECT_EQ(entry.date.tm_mon, 10);
    EXPECT_EQ(entry.date.tm_mday, 14);
    EXPECT_EQ(entry.date.tm_hour, 22);
    EXPECT_EQ(entry.date.tm_min, 13);
    EXPECT_EQ(entry.date.tm_sec, 20);
  }
}

TEST_F(MailLogTest, DatesAreLocalTimeOnBothSidesOfAChangeToSummerTime) {
  setenv("TZ", "CET-1CEST,M3.5.0,M10.5.0/3", 1);
  tzset();
  store("winter", "'', 1711846799, '', '', 0, 0");  // 2024-03-31 01:59:59 CET
  store("summer", "'', 1711846800, '', '', 0, 0");  // a second later
  MailLog log_(kLog.c_str());
  Entries all;
  ASSERT_EQ(log_.load(-1, 0, "date", "asc", all), 0);
  ASSERT_EQ(all.size(), 2u);
  EXPECT_EQ(all[0].date.tm_hour, 1);
  EXPECT_EQ(all[0].date.tm_isdst, 0);
  EXPECT_EQ(all[1].date.tm_hour, 3);
  EXPECT_EQ(all[1].date.tm_isdst, 1);
  EXPECT_EQ(all[1].date.tm_gmtoff, 7200);
}

TEST_F(MailLogTest, NullColumnsAreEmptyTextsAndZeros) {
  runSQL(kLog,
         "insert into mail_log_table values('full', 'q', 5, 'a', 'b', 9, 2);"
         "insert into mail_log_table(date) values(6);"
         "insert into mail_log_table(size) values(7);");
  MailLog log_(kLog.c_str());
  Entries all;
  EXPECT_EQ(log_.load(-1, 0, "size", "desc", all), 0);
  ASSERT_EQ(all.size(), 3u);
  const MailLogInfo &last = all[2];  // nothing of the row before
  EXPECT_EQ(last.strMessageID + last.strMailFrom + last.strMailTo, "");
  EXPECT_EQ(last.mailSize, 0);
  EXPECT_EQ(last.status, STATUS_SENT);
  EXPECT_EQ(last.date.tm_sec, 6);
  EXPECT_EQ(all[1].date.tm_year, 70);
  std::string key;
  EXPECT_EQ(log_.getLogNum(key), 1);  // a null is like nothing
}

TEST_F(MailLogTest, ADateThatNoCalendarHasIsAllZero) {
  store("1", "'', 9223372036854775807, '', '', 0, 7");
  MailLog log_(kLog.c_str());
  Entries all;
  EXPECT_EQ(log_.load(-1, 0, "date", "asc", all), 0);
  ASSERT_EQ(all.size(), 1u);
  if (sizeof(time_t) == 8) {
    EXPECT_EQ(all[0].date.tm_year, 0);
    EXPECT_EQ(all[0].date.tm_mday, 0);
  }
  EXPECT_EQ(static_cast<int>(all[0].status), 7);
}

TEST_F(MailLogTest, PagesAreSortedLimitedAndOffset) {
  for (int i = 1; i <= 5; i++)
    store(std::to_string(i), "'', " + std::to_string(i) + ", '', '', 0, 0");
  MailLog log_(kLog.c_str());
  Entries page;
  EXPECT_EQ(log_.load(2, 1, "date", "desc", page), 0);
  EXPECT_EQ(ids(page), (Rows{"4", "3"}));
  page.clear();
  EXPECT_EQ(log_.load(0, 0, "date", "desc", page), 0);
  EXPECT_EQ(log_.load(2, 5, "date", "desc", page), 0);
  EXPECT_EQ(ids(page), Rows());
  LogFilter filter = everything();
  filter.start = 3;
  filter.limit = 1;
  EXPECT_EQ(log_.load(filter, page), 0);
  EXPECT_EQ(log_.search(2, 3, "date", "asc", "", page), 0);
  EXPECT_EQ(ids(page), (Rows{"4", "4", "5"}));
}

TEST_F(MailLogTest, LimitMinusOneMeansNoLimit) {
  for (int i = 1; i <= 3; i++) store(std::to_string(i));
  MailLog log_(kLog.c_str());
  for (const Query &query : queries()) {
    Entries all;
    if (query.isCount || query.name == std::string("search")) continue;
    EXPECT_EQ(query.run(log_, all), 0);
    EXPECT_EQ(all.size(), 3u) << query.name;
  }
  Entries found;
  EXPECT_EQ(log_.search(-1, 1, "message_id", "asc", "a@X", found), 0);
  EXPECT_EQ(ids(found), (Rows{"2", "3"}));
}

TEST_F(MailLogTest, LoadingAppends) {
  store("x");
  MailLog log_(kLog.c_str());
  Entries all;
  for (size_t calls = 1; calls <= 2; calls++)
    for (const Query &query : queries()) {
      if (query.isCount) continue;
      const size_t before = all.size();
      EXPECT_EQ(query.run(log_, all), 0);
      EXPECT_EQ(all.size(), before + 1) << query.name;
    }
  EXPECT_EQ(all.size(), 6u);
}

// ---- keys

TEST_F(MailLogTest, AKeyMayHoldAnythingAndIsNoSQL) {
  const std::vector<std::string> keys = {"o'hara",
                                         "''",
                                         "'",
                                         "x' or '1'='1",
                                         "a\"b",
                                         "a\\b",
                                         ";drop table mail_log_table;--",
                                         "J\xc3\xb6rg",
                                         "\xff",
                                         "%q%s%n",
                                         "a\nb"};
  for (const std::string &key : keys)
    runSQL(kLog, "insert into mail_log_table values(" + quoted("<" + key + ">") +
                     ", '', 1, " + quoted(key) + ", " + quoted(key) + ", 0, 0);");
  MailLog log_(kLog.c_str());
  for (std::string key : keys) {
    Entries found;
    EXPECT_EQ(log_.search(-1, 0, "date", "asc", key, found), 0);
    const Rows all = ids(found);
    EXPECT_NE(std::find(all.begin(), all.end(), "<" + key + ">"), all.end()) << key;
    EXPECT_LT(all.size(), 6u) << key;  // the quotes are in several
    EXPECT_EQ(log_.getLogNum(key), static_cast<int>(all.size()));
    for (std::string LogFilter::*field :
         {&LogFilter::messageID, &LogFilter::mailFrom, &LogFilter::mailTo}) {
      LogFilter filter = everything();
      filter.*field = key;
      found.clear();
      EXPECT_EQ(log_.load(filter, found), 0);
      EXPECT_EQ(ids(found), all);
    }
  }
  EXPECT_EQ(log_.getLogNum(), static_cast<int>(keys.size()));
}

TEST_F(MailLogTest, PercentAndUnderscoreInAKeyAreWildcards) {
  store("a_b");
  store("axb");
  store("axxb");
  MailLog log_(kLog.c_str());
  std::string any = "a%b", one = "a_b", both = "%_%";
  EXPECT_EQ(log_.getLogNum(any), 3);
  EXPECT_EQ(log_.getLogNum(one), 2);
  EXPECT_EQ(log_.getLogNum(both), 3);
  LogFilter filter = everything("count(*)");
  filter.messageID = "a_b";
  EXPECT_EQ(log_.getLogNum(filter), 2);
}

TEST_F(MailLogTest, AKeyOf2000CharactersIsSoughtWhole) {
  const std::string text(2000, 'k');
  store(text);
  store(text.substr(1));
  MailLog log_(kLog.c_str());
  std::string key = text;
  EXPECT_EQ(log_.getLogNum(key), 1);
  Entries found;
  EXPECT_EQ(log_.search(-1, 0, "date", "asc", key, found), 0);
  EXPECT_EQ(ids(found), Rows{text});
}

TEST_F(MailLogTest, AFilterTextOf2000CharactersIsCutAt1023BytesOfPattern) {
  MailLog log_(kLog.c_str());
  LogFilter filter = everything("count(*)");
  filter.mailTo = std::string(1021, 'k');
  EXPECT_EQ(log_.composeCmd(filter),
            "select count(*) from mail_log_table where mail_to like '%" +
                std::string(1021, 'k') + "%';");
  filter.mailTo = std::string(2000, 'k');
  EXPECT_EQ(log_.composeCmd(filter),
            "select count(*) from mail_log_table where mail_to like '%" +
                std::string(1022, 'k') + "';");
}

// Half a doubled quote would end the text, and the next condition's text would be SQL.
TEST_F(MailLogTest, AFilterTextIsNotCutInTheMiddleOfADoubledQuote) {
  store("kept");
  MailLog log_(kLog.c_str());
  for (const size_t length : {1018u, 1019u, 1020u, 1021u, 1022u, 1023u}) {
    LogFilter filter = everything("count(*)");
    filter.messageID = std::string(length, 'k') + "'''";
    filter.mailTo = " or 1=1 --";
    EXPECT_EQ(log_.getLogNum(filter), 0) << length;
    filter.mailTo = "' or 1=1 --";
    EXPECT_EQ(log_.getLogNum(filter), 0) << length;
  }
  LogFilter quotes = everything("count(*)");
  quotes.messageID = std::string(600, '\'');
  EXPECT_EQ(log_.composeCmd(quotes),
            "select count(*) from mail_log_table where message_id like '%" +
                std::string(1022, '\'') + "';");
}

// ---- statements, to the letter

TEST_F(MailLogTest, StatementsAreTheseToTheLetter) {
  MailLog log_(kLog.c_str());
  sql::takeStatements();
  Entries rows;
  std::string key = "o'h%";
  log_.getLogNum();
  log_.getLogNum(key);
  log_.load(50, -7, "date", "desc", rows);
  log_.search(-1, 2147483647, "mail_from", "asc", key, rows);
  EXPECT_EQ(log_.clear(), 0);
  EXPECT_EQ(
      sql::takeStatements(),
      (Rows{"SELECT Count(*) FROM 'mail_log_table'",
            "SELECT Count(*) FROM 'mail_log_table' WHERE message_id LIKE '%o''h%%' or "
            "mail_from LIKE '%o''h%%' or mail_to LIKE '%o''h%%';",
            "SELECT * FROM 'mail_log_table' ORDER BY date desc LIMIT '50' OFFSET '-7'",
            "SELECT * FROM 'mail_log_table' WHERE mail_from LIKE '%o''h%%' or mail_to "
            "LIKE '%o''h%%' or message_id LIKE '%o''h%%' ORDER BY mail_from asc LIMIT "
            "'-1' OFFSET '2147483647';",
            "DROP TABLE mail_log_table;", "VACUUM;",
            "BEGIN TRANSACTION;create table mail_log_table(message_id TEXT, queue_id "
            "TEXT, date INTEGER, mail_from TEXT, mail_to TEXT, size INTEGER, status "
            "INTEGER);CREATE INDEX message_index ON mail_log_table (message_id);CREATE "
            "INDEX queue_index ON mail_log_table (queue_id);CREATE INDEX date_index ON "
            "mail_log_table (date);CREATE INDEX from_index ON mail_log_table "
            "(mail_from);CREATE INDEX to_index ON mail_log_table (mail_to);CREATE INDEX "
            "size_index ON mail_log_table (size);CREATE INDEX status_index ON "
            "mail_log_table (status);COMMIT TRANSACTION;"}));
}

TEST_F(MailLogTest, AFilterWithEveryConditionOffCountsAll) {
  EXPECT_EQ(MailLog(kLog.c_str()).composeCmd(everything("count(*)")),
            "select count(*) from mail_log_table;");
}

TEST_F(MailLogTest, AFilterForRowsEndsInTwoSemicolons) {
  MailLog log_(kLog.c_str());
  LogFilter filter = everything();
  filter.limit = 50;
  filter.orderDir = "desc";
  EXPECT_EQ(log_.composeCmd(filter),
            "select * from mail_log_table order by date desc limit 50 offset 0;;");
  filter.mailTo = "bob";
  filter.sizeOpt = ">";
  filter.mailSize = 1024;
  filter.status = 1;
  filter.dateFrom = 1400000000;
  EXPECT_EQ(log_.composeCmd(filter),
            "select * from mail_log_table where mail_to like '%bob%' and size>1024 and "
            "status=1 and 1400000000 <= date order by date desc limit 50 offset 0;;");
}

TEST_F(MailLogTest, AFilterOfOnlyDateToHasNoAnd) {
  LogFilter filter = everything("count(*)");
  filter.dateTo = 1400000000;
  EXPECT_EQ(MailLog(kLog.c_str()).composeCmd(filter),
            "select count(*) from mail_log_table where date <= 1400000000;");
}

TEST_F(MailLogTest, AllConditionsComeInThisOrder) {
  LogFilter filter = everything("count(*)");
  filter.messageID = "i'd";
  filter.mailTo = "to";
  filter.mailFrom = "from";
  filter.sizeOpt = "<";
  filter.mailSize = -5;
  filter.status = 0;
  filter.dateFrom = -1;
  filter.dateTo = 2147483647;
  EXPECT_EQ(MailLog(kLog.c_str()).composeCmd(filter),
            "select count(*) from mail_log_table where message_id like '%i''d%' and "
            "mail_to like '%to%' and mail_from like'%from%' and size<-5 and status=0 and "
            "-1 <= date and date <= 2147483647;");
}

TEST_F(MailLogTest, AnyAndCountAreComparedWithCapitals) {
  LogFilter filter = everything("COUNT(*)");
  filter.sizeOpt = "ANY";
  EXPECT_EQ(MailLog(kLog.c_str()).composeCmd(filter),
            "select COUNT(*) from mail_log_table where sizeANY0 order by date asc limit "
            "-1 offset 0;;");
}

// What is inserted as it stands is the caller's affair.
TEST_F(MailLogTest, ColumnsAndDirectionsAreInsertedAsTheyStand) {
  store("a", "'', 2, '', '', 0, 0");
  store("b", "'', 1, '', '', 0, 0");
  MailLog log_(kLog.c_str());
  Entries rows;
  EXPECT_EQ(log_.load(-1, 0, "status asc, date", "asc --", rows), 0);
  EXPECT_EQ(ids(rows), (Rows{"b", "a"}));
  EXPECT_EQ(log_.load(-1, 0, "nothing", "", rows), -1);
  expectLog({});
}

// ---- failures

TEST_F(MailLogTest, AQueryThatCannotBePreparedFails) {
  dropTable();
  MailLog log_(kLog.c_str());
  for (const Query &query : queries()) {
    Entries rows;
    EXPECT_EQ(query.run(log_, rows), -1) << query.name;
    expectLog(query.isFilter ? Rows{"maillog.cpp: prepare error: [1]"} : Rows{});
  }
  EXPECT_EQ(log_.error(), 0);
  EXPECT_EQ(rowsOf(kLog, "select * from config_table;"), Rows{"version|1"});
}

TEST_F(MailLogTest, ACorruptLogReadsAsEmptyThenWorks) {
  for (const Query &query : queries()) {
    store("lost");
    runSQL(kLog, "pragma wal_checkpoint(truncate);");
    database::spoilSchema(kLog);
    {
      MailLog log_(kLog.c_str());
      Entries rows;
      EXPECT_EQ(query.run(log_, rows), 0) << query.name;
      Rows said = {kCorrupt, kRegenLog, kMissingLog};
      if (query.isFilter) said.insert(said.begin(), "maillog.cpp: prepare error: [11]");
      expectLog(said);
      EXPECT_EQ(rows.size(), 0u);
      store("x");
      EXPECT_EQ(query.run(log_, rows), query.isCount ? 1 : 0) << query.name;
      EXPECT_EQ(rows.size(), query.isCount ? 0u : 1u);
      EXPECT_EQ(log_.clear(), 0);
    }
    connections::closeLeft();
  }
}

TEST_F(MailLogTest, ACorruptLogThatCannotBeMadeAnewFails) {
  for (const Query &query : queries()) {
    database::spoilSchema(kLog);
    {
      MailLog log_(kLog.c_str());
      ASSERT_EQ(unlink(kLog.c_str()), 0);
      ASSERT_EQ(mkdir(kLog.c_str(), 0755), 0);
      Entries rows;
      EXPECT_EQ(query.run(log_, rows), -1) << query.name;
      Rows said = {
          kCorrupt, kRegenLog,
          "DBHandler.cpp: Open database fail. dbpath = [" + kLog + "], err=[14]"};
      if (query.isFilter) said.insert(said.begin(), "maillog.cpp: prepare error: [11]");
      expectLog(said);
    }
    ASSERT_EQ(rmdir(kLog.c_str()), 0);
    { const MailLog made(kLog.c_str()); }
    expectLog({kMissingLog});
    connections::closeLeft();
  }
}

TEST_F(MailLogTest, AFileThatIsNoDatabaseFailsAndIsLeftAlone) {
  for (const char *end : {"-wal", "-shm"}) std::remove((kLog + end).c_str());
  const std::string text(5000, 'x');
  writeFile(kLog, text);
  MailLog log_(kLog.c_str());
  EXPECT_EQ(log_.error(), 0);
  EXPECT_EQ(log_.getLogNum(), -1);
  EXPECT_EQ(readFile(kLog), text);
}

// Rows that fill many pages of the file itself.
void fillLog() {
  runSQL(kLog,
         "with recursive n(i) as (select 1 union all select i + 1 from n where i < 2000) "
         "insert into mail_log_table select 'x' || i, 'q', i, printf('%200d', i), 'b', "
         "i, 0 from n; pragma wal_checkpoint(truncate);");
}

TEST_F(MailLogTest, AStepThatFailsFailsTheQueryAndLeavesTheFile) {
  fillLog();
  database::spoilTables(kLog);
  const std::string spoiled = readFile(kLog);
  for (const Query &query : queries()) {
    MailLog log_(kLog.c_str());
    Entries rows;
    EXPECT_EQ(query.run(log_, rows), -1) << query.name;
    expectLog({"maillog.cpp: sqlite3_step: [11] database disk image is malformed\n"});
    EXPECT_EQ(rows.size(), 0u);
    EXPECT_EQ(log_.error(), 0);
  }
  EXPECT_EQ(readFile(kLog), spoiled);
}

TEST_F(MailLogTest, RowsReadBeforeAFailureStay) {
  fillLog();
  std::string content = readFile(kLog);
  for (size_t i = content.size() / 2; i < content.size(); i++) content[i] = '\xff';
  writeFile(kLog, content);
  MailLog log_(kLog.c_str());
  Entries rows;
  EXPECT_EQ(log_.load(-1, 0, "rowid", "asc", rows), -1);
  EXPECT_GT(rows.size(), 100u);
  EXPECT_LT(rows.size(), 2000u);
  EXPECT_EQ(rows[0].strMessageID, "x1");
  expectLog({"maillog.cpp: sqlite3_step: [11] database disk image is malformed\n"});
}

// One number came before it, and counts.
TEST_F(MailLogTest, ACountWhoseStepFailsIsTheLastNumberReadBefore) {
  runSQL(kLog, "insert into mail_log_table(size) values(5), (-9223372036854775808);");
  MailLog log_(kLog.c_str());
  LogFilter filter = everything("abs(size)");
  filter.orderType = "rowid";
  EXPECT_EQ(log_.getLogNum(filter), 5);
  expectLog({"maillog.cpp: sqlite3_step: [1] integer overflow\n"});
}

// ---- in the midst of others

TEST_F(MailLogTest, AWriterDoesNotKeepAReaderWaiting) {
  store("seen");
  database::Connection writer(kLog);
  ASSERT_EQ(writer.run("begin immediate; insert into mail_log_table values('x', '', 1, "
                       "'', '', 0, 0);"),
            0);
  MailLog log_(kLog.c_str());
  EXPECT_EQ(log_.getLogNum(), 1);
  ASSERT_EQ(writer.run("commit;"), 0);
  EXPECT_EQ(log_.getLogNum(), 2);
  EXPECT_EQ(sleptMs, 0);
}

TEST_F(MailLogTest, ALockedFileIsWaitedForFor60Seconds) {
  MailLog log_(kLog.c_str());
  database::Connection writer(kLog), counter(kStatistic);
  ASSERT_EQ(writer.run("begin immediate;"), 0);
  EXPECT_EQ(log_.clear(), -1);
  EXPECT_GE(sleptMs, 59'000);
  EXPECT_LE(sleptMs, 60'000);
  EXPECT_EQ(log_.error(), -1);
  expectLog({"DBHandler.cpp: sqlite3_exec fail, err=[5], database is locked"});
  ASSERT_EQ(counter.run("begin exclusive;"), 0);
  sleptMs = 0;
  Statistic traffic;
  EXPECT_EQ(log_.getQuantityStatistic(traffic, 1400000000, DAY), -1);
  EXPECT_GE(sleptMs, 59'000);
  EXPECT_LE(sleptMs, 60'000);
}

TEST_F(MailLogTest, ALogThatWasMovedAsideIsReadOn) {
  store("old");
  MailLog log_(kLog.c_str());
  const std::string saved = kFolder + "maillog_20240131.db";
  ASSERT_EQ(rename(kLog.c_str(), saved.c_str()), 0);
  { const MailLog made(kLog.c_str()); }  // removes what is left of the old one's name
  store("new");
  store("newer");
  EXPECT_EQ(log_.getLogNum(), 1);
  EXPECT_EQ(MailLog(kLog.c_str()).getLogNum(), 2);
  expectLog({kMissingLog});
}

// ---- clear

TEST_F(MailLogTest, AfterClearTheLogIsEmptyAndStillHasItsVersion) {
  store("gone");
  runSQL(kStatistic,
         "insert into log_statistic_second values(1399996800, 1, 2, 3, 4.0, 5.0);");
  MailLog log_(kLog.c_str());
  EXPECT_EQ(log_.clear(), 0);
  EXPECT_EQ(log_.error(), 0);
  EXPECT_EQ(log_.getLogNum(), 0);
  EXPECT_EQ(rowsOf(kLog, "select * from config_table;"), Rows{"version|1"});
  EXPECT_EQ(rowsOf(kLog, "select count(*) from sqlite_master where type = 'index';"),
            Rows{"8"});
  EXPECT_EQ(rowsOf(kLog, "pragma journal_mode;"), Rows{"wal"});
  EXPECT_EQ(rowsOf(kStatistic, "select count(*) from log_statistic_second;"), Rows{"1"});
  store("new");
  EXPECT_EQ(log_.getLogNum(), 1);
}

TEST_F(MailLogTest, ClearEndsAtTheStatementThatFails) {
  dropTable();
  MailLog log_(kLog.c_str());
  EXPECT_EQ(log_.clear(), -1);
  EXPECT_EQ(log_.error(), -1);
  expectLog({"DBHandler.cpp: sqlite3_exec fail, err=[1], no such table: mail_log_table"});
  const Rows run = sql::takeStatements();
  EXPECT_EQ(run.back(), "DROP TABLE mail_log_table;");
}

TEST_F(MailLogTest, WhatClearHasDoneBeforeAFailureIsKeptAndNothingStaysLocked) {
  store("gone");
  runSQL(kLog,
         "create table to_index_taken(x); drop index to_index;"
         "create index to_index on to_index_taken(x);");
  MailLog log_(kLog.c_str());
  EXPECT_EQ(log_.clear(), -1);
  expectLog({"DBHandler.cpp: sqlite3_exec fail, err=[1], index to_index already exists"});
  EXPECT_EQ(rowsOf(kLog, "select name from sqlite_master where name like 'mail_log%';"),
            Rows());
  EXPECT_EQ(database::Connection(kLog).run("begin immediate; commit;"), 0);
}

TEST_F(MailLogTest, ClearOfACorruptLogMakesItAnew) {
  store("gone");
  runSQL(kLog, "pragma wal_checkpoint(truncate);");
  database::spoilSchema(kLog);
  MailLog log_(kLog.c_str());
  EXPECT_EQ(log_.clear(), 0);
  EXPECT_EQ(log_.error(), 0);
  EXPECT_EQ(log_.getLogNum(), 0);
  const auto lines = log.take();
  ASSERT_EQ(lines.size(), 4u);
  EXPECT_NE(lines[1].text.find(" db corrupt, need regen"), std::string::npos);
}

// ---- statistics

using Numbers = std::vector<uint64_t>;

class StatisticTest : public MailLogTest {
 protected:
  static constexpr time_t kEnd = 1400000000;  // 2014-05-13 16:53:20 UTC

  // One interval of the collector's.
  static void count(const std::string &table, time_t start, const std::string &sums) {
    runSQL(kStatistic, "insert into log_statistic_" + table + " values(" +
                           std::to_string(start) + ", " + sums + ");");
  }

  Numbers inbound(time_t end, TimeScale scale) {
    Statistic traffic;
    EXPECT_EQ(log_.getQuantityStatistic(traffic, end, scale), 0);
    EXPECT_EQ(traffic.outbound.size(), traffic.inbound.size());
    EXPECT_EQ(traffic.bounce.size(), traffic.inbound.size());
    return traffic.inbound;
  }

  MailLog log_{kLog.c_str()};
};

TEST_F(StatisticTest, ADayIs24HoursOfTheTableOf30Seconds) {
  count("second", 1399914000, "1, 2, 3, 1.5, 2.25");  // where the first hour begins
  count("second", 1399917570, "10, 20, 30, 0.75, 0.5");
  count("second", 1399917600, "5, 6, 7, 0, 0");        // where the second does
  count("second", 1400000370, "100, 200, 300, 1, 1");  // still in the last, after kEnd
  count("second", 1399913970, "9, 9, 9, 9, 9");
  count("second", 1400000400, "9, 9, 9, 9, 9");
  count("hour", 1399914000, "9, 9, 9, 9, 9");
  count("day", 1399852800, "9, 9, 9, 9, 9");
  Statistic traffic;
  sql::takeStatements();
  EXPECT_EQ(log_.getQuantityStatistic(traffic, kEnd, DAY), 0);
  const Rows statements = sql::takeStatements();
  ASSERT_EQ(statements.size(), 26u);
  EXPECT_EQ(statements.front() + statements.back(), "BEGIN;COMMIT;");
  EXPECT_EQ(statements[1],
            "SELECT SUM(inbound_quantity),SUM(outbound_quantity),SUM(bounce_quantity) "
            "FROM log_statistic_second WHERE time >= 1399914000 and time < 1399917600;");
  EXPECT_EQ(statements[24],
            "SELECT SUM(inbound_quantity),SUM(outbound_quantity),SUM(bounce_quantity) "
            "FROM log_statistic_second WHERE time >= 1399996800 and time < 1400000400;");
  Numbers in(24), out(24), bounced(24);
  in[0] = 11, out[0] = 22, bounced[0] = 33;
  in[1] = 5, out[1] = 6, bounced[1] = 7;
  in[23] = 100, out[23] = 200, bounced[23] = 300;
  EXPECT_EQ(traffic.inbound, in);
  EXPECT_EQ(traffic.outbound, out);
  EXPECT_EQ(traffic.bounce, bounced);
}

TEST_F(StatisticTest, VolumesAreWholeKibibytesAndLeaveBounceUntouched) {
  count("second", 1399914000, "1, 2, 3, 1.50, 2.25");
  count("second", 1399914030, "1, 2, 3, 0.49, 0.75");
  count("second", 1399996800, "1, 2, 3, 4194304.99, 0.99");
  Statistic traffic;
  traffic.bounce = {42};
  sql::takeStatements();
  EXPECT_EQ(log_.getBandwidthStatistic(traffic, kEnd, DAY), 0);
  EXPECT_EQ(sql::takeStatements().at(1),
            "SELECT SUM(inbound_bandwidth),SUM(outbound_bandwidth) FROM "
            "log_statistic_second WHERE time >= 1399914000 and time < 1399917600;");
  Numbers in(24), out(24);
  in[0] = 1, out[0] = 3, in[23] = 4194304;
  EXPECT_EQ(traffic.inbound, in);
  EXPECT_EQ(traffic.outbound, out);
  EXPECT_EQ(traffic.bounce, Numbers{42});
}

TEST_F(StatisticTest, AWeekAndAMonthAreDaysOfTheHourTable) {
  const time_t today = 1399939200;  // midnight UTC
  count("hour", today, "1, 0, 0, 0, 0");
  count("hour", today + 16 * 3600, "1, 0, 0, 0, 0");
  count("hour", today - 3600, "5, 0, 0, 0, 0");
  count("hour", today - 6 * 86400, "7, 0, 0, 0, 0");
  count("hour", today - 29 * 86400, "11, 0, 0, 0, 0");
  count("hour", today - 29 * 86400 - 3600, "9, 0, 0, 0, 0");
  count("second", today, "9, 0, 0, 0, 0");
  count("day", today, "9, 0, 0, 0, 0");
  EXPECT_EQ(inbound(kEnd, WEEK), (Numbers{7, 0, 0, 0, 0, 5, 2}));
  Numbers month(30);
  month[0] = 11, month[23] = 7, month[28] = 5, month[29] = 2;
  EXPECT_EQ(inbound(kEnd, MONTH), month);
}

TEST_F(StatisticTest, HalfAYearIs6Times30DaysSinceTheEpochNotMonths) {
  const time_t width = 2592000, current = 1399680000;  // 540 times the width
  ASSERT_EQ(current % width, 0);
  count("day", current, "1, 0, 0, 0, 0");
  count("day", current - 86400, "2, 0, 0, 0, 0");
  count("day", current - 5 * width, "4, 0, 0, 0, 0");
  count("day", current - 5 * width - 86400, "9, 0, 0, 0, 0");
  EXPECT_EQ(inbound(kEnd, HALF_YEAR), (Numbers{4, 0, 0, 0, 2, 1}));
}

TEST_F(StatisticTest, APeriodWithoutRowsYieldsZeros) {
  EXPECT_EQ(inbound(kEnd, DAY), Numbers(24));
  EXPECT_EQ(inbound(kEnd, WEEK), Numbers(7));
  EXPECT_EQ(inbound(kEnd, MONTH), Numbers(30));
  EXPECT_EQ(inbound(kEnd, HALF_YEAR), Numbers(6));
}

TEST_F(StatisticTest, AnEndOnABoundaryYieldsOneIntervalLess) {
  count("second", 1399996770, "1, 0, 0, 0, 0");  // just before the boundary
  count("second", 1399996800, "9, 0, 0, 0, 0");
  const Numbers hours = inbound(1399996800, DAY);
  ASSERT_EQ(hours.size(), 23u);
  EXPECT_EQ(hours[22], 1u);
  EXPECT_EQ(inbound(1399996801, DAY).size(), 24u);
  EXPECT_EQ(inbound(1399996799, DAY).size(), 24u);
  EXPECT_EQ(inbound(1399939200, WEEK).size(), 6u);
  EXPECT_EQ(inbound(1399939200, MONTH).size(), 29u);
  EXPECT_EQ(inbound(1399680000, HALF_YEAR).size(), 5u);
}

TEST_F(StatisticTest, TheTimeZoneDoesNotCount) {
  count("hour", 1399939200, "1, 0, 0, 0, 0");
  const Numbers here = inbound(kEnd, WEEK);
  setenv("TZ", "CET-1CEST,M3.5.0,M10.5.0/3", 1);
  tzset();
  EXPECT_EQ(inbound(kEnd, WEEK), here);
}

TEST_F(StatisticTest, OtherScalesReadTheDayTableAndKeepTheirNumber) {
  count("day", 1399680000, "1, 0, 0, 0, 0");
  EXPECT_EQ(inbound(kEnd, static_cast<TimeScale>(2)), (Numbers{0, 1}));
  EXPECT_EQ(inbound(kEnd, static_cast<TimeScale>(1)), Numbers{1});
  EXPECT_EQ(inbound(kEnd, static_cast<TimeScale>(0)), Numbers());
  EXPECT_EQ(inbound(kEnd, static_cast<TimeScale>(-7)), Numbers());
}

TEST_F(StatisticTest, TimesBefore1970RoundTowardsZero) {
  count("second", -3600, "1, 0, 0, 0, 0");
  count("second", 0, "2, 0, 0, 0, 0");
  // The interval that would hold the end begins after it, at 0.
  const Numbers hours = inbound(-1, DAY);
  ASSERT_EQ(hours.size(), 23u);
  EXPECT_EQ(hours[22], 1u);
}

TEST_F(StatisticTest, CallingTwiceDoublesTheLength) {
  Statistic traffic;
  for (size_t calls = 1; calls <= 2; calls++) {
    EXPECT_EQ(log_.getQuantityStatistic(traffic, kEnd, WEEK), 0);
    EXPECT_EQ(traffic.inbound.size(), calls * 7);
    EXPECT_EQ(traffic.outbound.size(), calls * 7);
    EXPECT_EQ(traffic.bounce.size(), calls * 7);
  }
  EXPECT_EQ(log_.getBandwidthStatistic(traffic, kEnd, WEEK), 0);
  EXPECT_EQ(traffic.inbound.size(), 21u);
  EXPECT_EQ(traffic.bounce.size(), 14u);
}

TEST_F(StatisticTest, SumsOfMessagesAreIntsAndVolumesAreNot) {
  count("hour", 1399939200, "2147483647, 2147483647, 4294967295, 3000000000.5, 1e15");
  count("hour", 1399942800, "0, 1, 1, 3000000000.5, 0");
  Statistic messages, volume;
  EXPECT_EQ(log_.getQuantityStatistic(messages, kEnd, WEEK), 0);
  EXPECT_EQ(messages.inbound[6], 2147483647u);
  EXPECT_EQ(messages.outbound[6], static_cast<uint64_t>(INT64_C(-2147483648)));
  EXPECT_EQ(messages.bounce[6], 0u);
  EXPECT_EQ(log_.getBandwidthStatistic(volume, kEnd, WEEK), 0);
  EXPECT_EQ(volume.inbound[6], 6000000001u);
  EXPECT_EQ(volume.outbound[6], 1000000000000000u);
}

TEST_F(StatisticTest, AFileWithAllThatIsKeptIsSummedUpWhole) {
  // one message in each interval that the collector keeps
  const auto fill = [](const std::string &table, long width, long number) {
    runSQL(kStatistic,
           "with recursive n(i) as (select 0 union all select i + 1 from n where i < " +
               std::to_string(number - 1) + ") insert into log_statistic_" + table +
               " select 1400000000 / " + std::to_string(width) + " * " +
               std::to_string(width) + " - i * " + std::to_string(width) +
               ", 1, 1, 1, 1.0, 1.0 from n;");
  };
  fill("second", 30, 2880);
  fill("hour", 3600, 720);
  fill("day", 86400, 180);
  Numbers day(24, 120), month(30, 24), halfYear(6, 30);
  day[23] = 107;  // the current interval is not over
  month[0] = 24, month[29] = 17;
  halfYear[5] = 4;
  EXPECT_EQ(inbound(kEnd, DAY), day);
  EXPECT_EQ(inbound(kEnd, WEEK), (Numbers{24, 24, 24, 24, 24, 24, 17}));
  EXPECT_EQ(inbound(kEnd, MONTH), month);
  EXPECT_EQ(inbound(kEnd, HALF_YEAR), halfYear);
}

TEST_F(StatisticTest, AllIntervalsAreOfOneStateAndAWriterWaitsForTheLast) {
  count("hour", 1399939200 - 6 * 86400, "1, 0, 0, 0, 0");
  count("hour", 1399939200, "1, 0, 0, 0, 0");
  database::Connection writer(kStatistic);
  int selects = 0, written = -1;
  sql::onStatement = [&](const std::string &text) {
    if (text.rfind("SELECT SUM", 0) != 0 || ++selects < 7) return;
    written = writer.run("update log_statistic_hour set inbound_quantity = 2;");
  };
  const Numbers sums = inbound(kEnd, WEEK);
  sql::onStatement = nullptr;
  EXPECT_EQ(written, 5);  // busy
  EXPECT_EQ(sums, (Numbers{1, 0, 0, 0, 0, 0, 1}));
  EXPECT_EQ(writer.run("update log_statistic_hour set inbound_quantity = 2;"), 0);
  EXPECT_EQ(inbound(kEnd, WEEK), (Numbers{2, 0, 0, 0, 0, 0, 2}));
}

TEST_F(StatisticTest, NothingStaysLockedBehindTheSums) {
  EXPECT_EQ(inbound(kEnd, WEEK), Numbers(7));
  runSQL(kStatistic, "begin exclusive; commit;");
  runSQL(kStatistic, "alter table log_statistic_hour rename to gone;");
  Statistic traffic;
  EXPECT_EQ(log_.getQuantityStatistic(traffic, kEnd, WEEK), -1);
  runSQL(kStatistic, "begin exclusive; commit;");
  expectLog({"maillog.cpp: sqlite3_step: [1] no such table: log_statistic_hour\n"});
}

TEST_F(StatisticTest, ALogThatCannotBePreparedFailsWithoutAMessage) {
  runSQL(kStatistic, "drop table log_statistic_hour;");
  Statistic traffic;
  EXPECT_EQ(log_.getQuantityStatistic(traffic, kEnd, WEEK), -1);
  EXPECT_EQ(log_.getBandwidthStatistic(traffic, kEnd, MONTH), -1);
  EXPECT_EQ(traffic.inbound.size(), 0u);
  EXPECT_EQ(log_.error(), 0);
  expectLog({});
}

TEST_F(StatisticTest, ACorruptFileIsMadeAnewAndTheCallSucceedsShort) {
  for (const bool quantity : {true, false}) {
    count("hour", 1399939200, "1, 0, 0, 0, 0");
    database::spoilSchema(kStatistic);
    MailLog fresh(kLog.c_str());
    Statistic traffic;
    traffic.inbound = {42};
    EXPECT_EQ(quantity ? fresh.getQuantityStatistic(traffic, kEnd, WEEK)
                       : fresh.getBandwidthStatistic(traffic, kEnd, WEEK),
              0);
    EXPECT_EQ(traffic.inbound, Numbers{42});
    expectLog({kCorrupt, kRegenStatistic, kMissingStatistic});
    EXPECT_EQ(fresh.getQuantityStatistic(traffic, kEnd, WEEK), 0);
    EXPECT_EQ(traffic.inbound, (Numbers{42, 0, 0, 0, 0, 0, 0, 0}));
  }
}

TEST_F(StatisticTest, ACorruptFileThatCannotBeMadeAnewFails) {
  database::spoilSchema(kStatistic);
  ASSERT_EQ(unlink(kStatistic.c_str()), 0);
  ASSERT_EQ(mkdir(kStatistic.c_str(), 0755), 0);
  Statistic traffic;
  EXPECT_EQ(log_.getQuantityStatistic(traffic, kEnd, WEEK), -1);
  ASSERT_EQ(rmdir(kStatistic.c_str()), 0);
  expectLog(
      {kCorrupt, kRegenStatistic,
       "DBHandler.cpp: Open database fail. dbpath = [" + kStatistic + "], err=[14]"});
}

TEST_F(StatisticTest, AStepThatFailsKeepsTheIntervalsBefore) {
  count("hour", 1399939200 - 5 * 86400, "3, 0, 0, 0, 0");
  count("hour", 1399939200, "9223372036854775807, 0, 0, 0, 0");
  count("hour", 1399942800, "1, 0, 0, 0, 0");
  Statistic traffic;
  EXPECT_EQ(log_.getQuantityStatistic(traffic, kEnd, WEEK), -1);
  EXPECT_EQ(traffic.inbound, (Numbers{0, 3, 0, 0, 0, 0}));
  EXPECT_EQ(traffic.bounce.size(), 6u);
  expectLog({"maillog.cpp: sqlite3_step: [1] integer overflow\n"});
}

}  // namespace
