#include "maillogger.h"

#include <fcntl.h>
#include <sqlite3.h>
#include <sys/resource.h>
#include <sys/select.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cstring>
#include <memory>
#include <optional>

#include "platform/children.h"
#include "support/collector_test.h"
#include "support/connections.h"

namespace {

using namespace collector;
using database::rowsOf;

const std::string kEtc = "/var/packages/Postwell/etc";

class MailLoggerTest : public CollectorTest {};

// A collector on files that are there already.
class RunningTest : public CollectorTest {
 protected:
  RunningTest() {
    makeFiles();
    logger.emplace(10, 1000);
    EXPECT_EQ(logger->error(), 0);
    takeStatements();
    takeCalls();
  }

  void cache(int count) {
    for (int i = 1; i <= count; i++) logger->cacheLog(numbered(i));
  }

  std::optional<MailLogger> logger;
};

// ---- construction

TEST_F(MailLoggerTest, AFreshCollectorHasItsFolderItsFilesAndItsSocket) {
  {
    MailLogger logger(10, 1000);
    EXPECT_EQ(logger.error(), 0);
    expectLog({kMissingStatistic, kMissingLog});
    struct stat st;
    ASSERT_EQ(stat(kFolder.c_str(), &st), 0);
    EXPECT_EQ(st.st_mode & 07777, 0755u);
    ASSERT_EQ(stat(kSocket.c_str(), &st), 0);
    EXPECT_TRUE(S_ISSOCK(st.st_mode));
    EXPECT_EQ(rowsOf(kLog, "pragma journal_mode;"), Rows{"wal"});
    EXPECT_EQ(rowsOf(kStatistic, "pragma journal_mode;"), Rows{"delete"});
  }
  EXPECT_FALSE(fileExists(kSocket));
  EXPECT_EQ(logRows(), Rows());
}

TEST_F(MailLoggerTest, TheSocketIsBoundByPathWithoutNulAndListensForTwenty) {
  makeFiles();
  MailLogger logger(10, 1000);
  const auto calls = takeCalls();
  EXPECT_EQ(calls.at(0), "bind " + std::to_string(kSocket.size() + 2));
  EXPECT_EQ(calls.at(1), "listen 20");
}

TEST_F(MailLoggerTest, TheCountersAreReadBeforeTheRowsAreCounted) {
  makeFiles();
  const MailLogger logger(10, 1000);
  EXPECT_EQ(takeStatements(),
            (Rows{"SELECT * FROM 'log_statistic_second' WHERE time = '1700000010';",
                  "SELECT * FROM 'log_statistic_hour' WHERE time = '1699999200';",
                  "SELECT * FROM 'log_statistic_day' WHERE time = '1699920000';",
                  "SELECT Count(*) FROM 'mail_log_table'"}));
}

TEST_F(MailLoggerTest, WithoutASocketTheConstructionEndsAtOnce) {
  const std::vector<std::pair<const char *, std::string>> steps = {
      {"socket", "maillogger.cpp: create socket fail"},
      {"bind", "maillogger.cpp: bind fail"},
      {"listen", "maillogger.cpp: listen fail"}};
  for (const auto &[call, message] : steps) {
    makeFiles();
    writeFile(kSocket, "of another");
    failCall(call);
    MailLogger logger(10, 1000);
    EXPECT_EQ(logger.error(), -1) << call;
    EXPECT_EQ(logger.error(), 0) << call;
    expectLog({message});
    EXPECT_EQ(takeStatements(), Rows()) << call;
    logger.receiveLog();
    for (const std::string &made : takeCalls()) EXPECT_EQ(made.find("select"), made.npos);
    struct stat st;
    const bool isFile = stat(kSocket.c_str(), &st) == 0 && S_ISREG(st.st_mode);
    EXPECT_EQ(isFile, std::string(call) == "socket") << "removed before it is bound";
  }
}

TEST_F(MailLoggerTest, AFolderWithoutPermissionIsNoPlaceForASocket) {
  makeFiles();
  ASSERT_EQ(chmod("/var/run", 0555), 0);
  EXPECT_EQ(MailLogger(10, 1000).error(), -1);
  ASSERT_EQ(chmod("/var/run", 0755), 0);
  expectLog({"maillogger.cpp: bind fail"});
}

TEST_F(MailLoggerTest, CountersThatCannotBeOpenedAreError2) {
  makeFiles();
  unlink(kStatistic.c_str());
  ASSERT_EQ(chmod(kEtc.c_str(), 0555), 0);
  {
    MailLogger logger(10, 1000);
    EXPECT_EQ(logger.error(), 2);
    EXPECT_EQ(logger.error(), 0);
    EXPECT_EQ(takeStatements(), Rows());
    expectLog({kMissingStatistic,
               "DBHandler.cpp: Open database fail. dbpath = [" + kStatistic + "]",
               "DBHandler.cpp: Create DB fail;"});
    ASSERT_EQ(chmod(kEtc.c_str(), 0755), 0);
  }
  expectLog({kMissingStatistic});  // the destructor writes them
}

TEST_F(MailLoggerTest, CountersThatCannotBeClosedAreError2) {
  makeFiles();
  connections::failClose();
  MailLogger logger(10, 1000);
  EXPECT_EQ(logger.error(), 2);
  expectLog({"DBHandler.cpp: Failed to close sqlite3, ret = [5]"});
  for (const std::string &statement : takeStatements())
    EXPECT_EQ(statement.find("Count"), statement.npos) << "the log is left alone";
}

// The first page of a table, made unreadable.
void spoilTable(const std::string &table) {
  const int page =
      std::stoi(rowsOf(kStatistic,
                       "select rootpage from sqlite_master where name = '" + table + "';")
                    .at(0));
  std::string content = readFile(kStatistic);
  for (size_t i = 0; i < 4096; i++)
    content[static_cast<size_t>(page - 1) * 4096 + i] = '\xff';
  writeFile(kStatistic, content);
}

TEST_F(MailLoggerTest, CountersThatCannotBeReadEndTheConstruction) {
  for (const std::string scale : {"second", "hour", "day"}) {
    makeFiles();
    spoilTable("log_statistic_" + scale);
    {
      MailLogger logger(10, 1000);
      EXPECT_EQ(logger.error(), -1) << scale;
      expectLog({"sqlite3_step: [11] database disk image is malformed\n",
                 "maillogger.cpp: load counter " + scale + " fail"});
      EXPECT_EQ(takeStatements().back().find("SELECT * FROM 'log_statistic_" + scale), 0u)
          << "nothing follows";
    }
    log.take();
    unlink(kStatistic.c_str());
  }
}

TEST_F(MailLoggerTest, CountersWithoutTheirTableAreMadeAnew) {
  for (const std::string scale : {"second", "hour", "day"}) {
    makeFiles();
    ASSERT_EQ(database::Connection(kStatistic).run("drop table log_statistic_" + scale),
              0);
    EXPECT_EQ(MailLogger(10, 1000).error(), 0);
    expectLog({kCorrupt, kRegenStatistic, kMissingStatistic});
    EXPECT_EQ(rowsOf(kStatistic, "select count(*) from log_statistic_" + scale),
              Rows{"0"});
  }
}

TEST_F(MailLoggerTest, DamagedCountersAreMadeAnew) {
  makeFiles();
  database::spoilSchema(kStatistic);
  EXPECT_EQ(MailLogger(10, 1000).error(), 0);
  expectLog({kCorrupt, kRegenStatistic, kMissingStatistic});
}

TEST_F(MailLoggerTest, AStatisticFileThatIsNoDatabaseIsLeftAlone) {
  makeFiles();
  const std::string text(8192, 'x');
  writeFile(kStatistic, text);
  {
    MailLogger logger(10, 1000);
    EXPECT_EQ(logger.error(), -1);
    expectLog({"maillogger.cpp: load counter second fail"});
  }
  expectLog({"DBHandler.cpp: sqlite3_exec fail, err=[26], file is not a database",
             kStillInTransaction});
  EXPECT_EQ(readFile(kStatistic), text);
}

// ---- counting the rows at the start

TEST_F(MailLoggerTest, ADamagedLogIsMadeAnewAndCountsAsEmpty) {
  makeFiles();
  database::spoilSchema(kLog);
  EXPECT_EQ(MailLogger(10, 1000).error(), 0);
  expectLog({kCorrupt, kRegenLog, kMissingLog});
  EXPECT_EQ(logRows(), Rows());
}

TEST_F(MailLoggerTest, ALogWithoutItsTableIsMadeAnewAndFailsTheConstruction) {
  makeFiles();
  ASSERT_EQ(database::Connection(kLog).run("drop table mail_log_table;"), 0);
  EXPECT_EQ(MailLogger(10, 1000).error(), -1);
  expectLog({kCorrupt, kRegenLog, kMissingLog});
  EXPECT_EQ(logRows(), Rows());
  EXPECT_EQ(MailLogger(10, 1000).error(), 0);
}

TEST_F(MailLoggerTest, ALogThatIsNoDatabaseFailsTheConstructionAndIsLeftAlone) {
  makeFiles();
  const std::string text(8192, 'x');
  writeFile(kLog, text);
  EXPECT_EQ(MailLogger(10, 1000).error(), -1);
  EXPECT_EQ(readFile(kLog), text);
}

TEST_F(MailLoggerTest, ALogWhoseRowsCannotBeCountedFailsTheConstruction) {
  makeFiles();
  database::spoilTables(kLog);
  {
    MailLogger logger(10, 1000);
    EXPECT_EQ(logger.error(), -1);
    expectLog({"maillogger.cpp: sqlite3_step: [11] database disk image is malformed\n"});
  }
  EXPECT_EQ(logRows(), Rows{"error 11: database disk image is malformed"});
}

TEST_F(MailLoggerTest, ALogThatCannotBeOpenedFailsTheConstruction) {
  makeFiles();
  ASSERT_EQ(chmod(kLog.c_str(), 0000), 0);
  MailLogger logger(10, 1000);
  EXPECT_EQ(logger.error(), -1);
  EXPECT_EQ(log.take().size(), 1u);
  ASSERT_EQ(chmod(kLog.c_str(), 0644), 0);
}

// What error() cannot tell: the thresholds are unset, and the file is missing.
TEST_F(MailLoggerTest, ALogWhoseOpeningWasRepairedReportsNoErrorAndIsNotUsable) {
  makeFiles();
  unlink(kLog.c_str());
  failStatement("BEGIN TRANSACTION;create table mail_log_table", SQLITE_ERROR);
  {
    MailLogger logger(10, 1000);
    EXPECT_EQ(logger.error(), 0);
    expectLog({kMissingLog, "DBHandler.cpp: exec db schema fail, err=[1], not an error",
               "DBHandler.cpp: Create DB fail;", kCorrupt, kRegenLog});
    EXPECT_FALSE(fileExists(kLog));
    logger.cacheLog(numbered(1));
    logger.run();  // the cache time is 0
    EXPECT_EQ(idsIn(kLog), Rows{"1"});
  }
  expectLog({kMissingLog});
}

TEST_F(MailLoggerTest, TheRowsThatAreThereCount) {
  makeFiles();
  {
    MailLogger before(0, 1000);
    for (int i = 1; i <= 5; i++) before.cacheLog(numbered(i));
  }
  {
    MailLogger logger(0, 5);
    logger.cacheLog(numbered(6));
    logger.run();
    EXPECT_EQ(savedLogs(), Rows{"maillog_20231114.db"});
    expectLog({kRotated});
  }
  expectLog({kMissingLog});  // for the destructor's empty transaction
}

TEST_F(MailLoggerTest, ASecondCollectorTakesTheSocketAndTheFirstOneRemovesIt) {
  makeFiles();
  auto first = std::make_unique<MailLogger>(10, 1000);
  MailLogger second(10, 1000);
  EXPECT_EQ(second.error(), 0);
  send({bytesOf(numbered(1))});
  first->receiveLog();  // nothing
  second.receiveLog();
  second.flushLogToDB();
  EXPECT_EQ(idsIn(kLog), Rows{"1"});
  first.reset();
  EXPECT_FALSE(fileExists(kSocket));
}

// Whoever is started while it is at work, by whatever in the process, would keep senders
// waiting in a queue that nobody serves.
TEST_F(MailLoggerTest, AProgramThatIsStartedInheritsNeitherTheSocketNorAConnection) {
  makeFiles();
  const auto sockets = [] { return printed("ls -l /proc/self/fd | grep -o socket:.*"); };
  const std::string before = sockets();
  MailLogger logger(10, 1000);
  std::optional<std::string> during;
  afterAccept = [&] { during = sockets(); };
  send({});
  logger.receiveLog();
  EXPECT_EQ(during, before);
}

// All descriptors below a number are taken as long as it lives.
class Descriptors {
 public:
  explicit Descriptors(int below) {
    rlimit more = before_;
    more.rlim_cur = std::min<rlim_t>(before_.rlim_max, static_cast<rlim_t>(below) + 100);
    EXPECT_EQ(setrlimit(RLIMIT_NOFILE, &more), 0);
    int next = open("/dev/null", O_RDONLY | O_CLOEXEC);
    for (; next >= 0 && next < below; next = dup(next)) taken_.push_back(next);
    EXPECT_EQ(next, below);
    ::close(next);
  }
  ~Descriptors() {
    for (const int fd : taken_) ::close(fd);
    EXPECT_EQ(setrlimit(RLIMIT_NOFILE, &before_), 0);
  }
  Descriptors(const Descriptors &) = delete;
  Descriptors &operator=(const Descriptors &) = delete;

 private:
  static rlimit limit() {
    rlimit found{};
    EXPECT_EQ(getrlimit(RLIMIT_NOFILE, &found), 0);
    return found;
  }

  const rlimit before_ = limit();
  std::vector<int> taken_;
};

TEST_F(MailLoggerTest, TheLastDescriptorThatSelectCanWatchWillDo) {
  makeFiles();
  const Descriptors taken(FD_SETSIZE - 1);
  MailLogger logger(0, 1000);
  EXPECT_EQ(logger.error(), 0);
  send({bytesOf(numbered(1))});
  logger.run();
  EXPECT_EQ(idsIn(kLog), Rows{"1"});
}

TEST_F(MailLoggerTest, ADescriptorThatSelectCannotWatchFailsTheConstructionAndIsClosed) {
  makeFiles();
  const Descriptors taken(FD_SETSIZE);
  takeCalls();
  MailLogger logger(10, 1000);
  EXPECT_EQ(logger.error(), -1);
  expectLog({"maillogger.cpp: create socket fail"});
  EXPECT_FALSE(fileExists(kSocket));
  EXPECT_EQ(takeCalls(), Rows{"close " + std::to_string(FD_SETSIZE)});
}

// ---- a pass

TEST_F(RunningTest, ThreeRecordsAreThreeRowsInTheirOrder) {
  send({bytesOf(numbered(1)), bytesOf(numbered(2)), bytesOf(numbered(3))});
  logger->run();
  EXPECT_EQ(logRows(), Rows());  // cached
  now += 10;
  logger->run();
  EXPECT_EQ(logRows(), (Rows{"1|4XyZ|1700000015|a@example.org|b@example.org|1000|1",
                             "2|4XyZ|1700000015|a@example.org|b@example.org|1000|1",
                             "3|4XyZ|1700000015|a@example.org|b@example.org|1000|1"}));
}

TEST_F(RunningTest, RecordsWrittenTogetherAreTakenApart) {
  send({bytesOf(numbered(1)) + bytesOf(numbered(2)), bytesOf(numbered(3))});
  logger->receiveLog();
  logger->flushLogToDB();
  EXPECT_EQ(idsIn(kLog), (Rows{"1", "2", "3"}));
}

TEST_F(RunningTest, AnEmptyConnectionIsNoEntry) {
  send({});
  logger->receiveLog();
  logger->flushLogToDB();
  EXPECT_EQ(logRows(), Rows());
}

TEST_F(RunningTest, WithoutASenderAPassWaitsThreeSecondsAndStillChecks) {
  cache(1);
  now += 7;
  const time_t before = now;
  logger->run();
  EXPECT_EQ(takeCalls().at(0), "select 3 0");
  EXPECT_EQ(now, before + 3);
  EXPECT_EQ(idsIn(kLog), Rows{"1"});
}

TEST_F(RunningTest, APassWritesTheLogBeforeTheCounters) {
  cache(1);
  now += 30;
  send({});
  logger->run();
  const Rows statements = takeStatements();
  ASSERT_GE(statements.size(), 5u);
  EXPECT_EQ(statements[1].find("INSERT INTO 'mail_log_table'"), 0u);
  EXPECT_EQ(statements[4].find("DELETE FROM log_statistic_second"), 0u);
}

TEST_F(RunningTest, AFailedWaitIsSilent) {
  cache(1);
  now += 10;
  failCall("select");
  logger->run();
  EXPECT_EQ(idsIn(kLog), Rows{"1"});
}

TEST_F(RunningTest, AConnectionThatCannotBeAcceptedIsLoggedAndThePassGoesOn) {
  cache(1);
  now += 10;
  send({bytesOf(numbered(2))});
  failCall("accept4");
  logger->run();
  expectLog({"maillogger.cpp: SocketAccept fail"});
  EXPECT_EQ(idsIn(kLog), Rows{"1"});
  logger->receiveLog();
  logger->flushLogToDB();
  EXPECT_EQ(idsIn(kLog), (Rows{"1", "2"}));
}

TEST_F(RunningTest, TheConnectionIsClosedTwice) {
  send({});
  takeCalls();
  logger->receiveLog();
  const Rows calls = takeCalls();
  ASSERT_EQ(calls.size(), 4u);
  const std::string sender = calls[1].substr(std::string("accept ").size());
  EXPECT_EQ(calls, (Rows{"select 3 0", "accept " + sender, "close " + sender,
                         "close " + sender}));
}

TEST_F(RunningTest, TheConnectionWithTheNumber0IsClosedOnce) {
  const int kept = dup(0);
  ::close(0);
  send({});  // closes 0 again
  takeCalls();
  logger->receiveLog();
  EXPECT_EQ(takeCalls(), (Rows{"select 3 0", "accept 0", "close 0"}));
  ASSERT_EQ(dup2(kept, 0), 0);
  ::close(kept);
}

TEST_F(RunningTest, TheEndOfAShortRecordIsThatOfTheOneBefore) {
  Entry entry;
  entry.id = "first";
  const std::string first = bytesOf(record(entry));
  entry.id = "second";
  entry.from = "lost@example.org";
  const std::string second = bytesOf(record(entry));
  send({first, second.substr(0, 600)});
  logger->receiveLog();
  send({second.substr(0, 10)});
  logger->receiveLog();
  logger->flushLogToDB();
  EXPECT_EQ(logRows(), (Rows{"first|4XyZ|1700000015|a@example.org|b@example.org|1000|1",
                             "second|4XyZ|1700000015|a@example.org|b@example.org|1000|1",
                             "|4XyZ|1700000015|||0|0"}));
}

// A connection may carry any number of records: here a burst, from another process.
TEST_F(RunningTest, ABurstOfAHundredThousandRecordsIsStoredWhole) {
  const pid_t sender = startChild([] {
    std::vector<std::string> writes;
    for (int i = 0; i < 100'000; i++) writes.push_back(bytesOf(numbered(i)));
    send(writes);
    return testing::Test::HasFailure();
  });
  while (savedLogs().empty()) logger->run();
  EXPECT_EQ(endOf(sender), 0);
  EXPECT_EQ(rowsOf(kFolder + savedLogs().at(0),
                   "select count(*), min(cast(message_id as integer)), "
                   "max(cast(message_id as integer)), count(distinct message_id) "
                   "from mail_log_table;"),
            Rows{"100000|0|99999|100000"});
  log.take();
}

// ---- records

// The row of one record.
class RecordTest : public RunningTest {
 protected:
  std::string rowOf(const LogSocket &record) {
    logger->cacheLog(record);
    logger->flushLogToDB();
    const Rows rows = logRows();
    return rows.empty() ? "none" : rows.back();
  }
};

TEST_F(RecordTest, AFieldWithoutItsNulRunsOnIntoTheNext) {
  Entry entry;
  entry.queue = std::string(256, 'q');
  EXPECT_EQ(rowOf(record(entry)), "<id@host>|" + entry.queue +
                                      "<id@host>|1700000015|a@example.org|b@example.org|"
                                      "1000|1");
  entry = Entry();
  entry.id = std::string(512, 'i');
  EXPECT_EQ(rowOf(record(entry)), entry.id +
                                      "a@example.org|4XyZ|1700000015|a@example.org|"
                                      "b@example.org|1000|1");
  entry = Entry();
  entry.from = std::string(256, 'f');
  EXPECT_EQ(rowOf(record(entry)), "<id@host>|4XyZ|1700000015|" + entry.from +
                                      "b@example.org|b@example.org|1000|1");
}

TEST_F(RecordTest, TheLastFieldEndsWithTheRecordAtTheLatest) {
  Entry entry;
  entry.to = std::string(256, 't');
  entry.size = 0x41414141;
  EXPECT_EQ(rowOf(record(entry)), "<id@host>|4XyZ|1700000015|a@example.org|" + entry.to +
                                      "AAAA\x01|1094795585|1");
  entry.status = 0x42424242;
  // alone in its memory: whatever reads behind it is seen by the sanitizer
  const auto alone = std::make_unique<LogSocket>(record(entry));
  EXPECT_EQ(rowOf(*alone), "<id@host>|4XyZ|1700000015|a@example.org|" + entry.to +
                               "AAAABBBB|1094795585|1111638594");
}

TEST_F(RecordTest, NumbersAreStoredAsTheyCome) {
  Entry entry;
  entry.time = -1;
  entry.size = INT32_MIN;
  entry.status = 7;
  EXPECT_EQ(rowOf(record(entry)),
            "<id@host>|4XyZ|-1|a@example.org|b@example.org|-2147483648|7");
  entry.time = INT32_MIN;
  entry.size = INT32_MAX;
  entry.status = -1;
  EXPECT_EQ(rowOf(record(entry)),
            "<id@host>|4XyZ|-2147483648|a@example.org|b@example.org|2147483647|-1");
}

TEST_F(RecordTest, TextsMayHoldAnything) {
  for (const std::string text : {"o'hara", "''", "%q%s%n", "a\nb", "\xff\xfe", "",
                                 "');drop table mail_log_table;--", "a|b", "\\"}) {
    Entry entry;
    entry.id = entry.queue = entry.from = entry.to = text;
    EXPECT_EQ(rowOf(record(entry)),
              text + "|" + text + "|1700000015|" + text + "|" + text + "|1000|1");
  }
}

TEST_F(RecordTest, AStatementOf2047BytesFits) {
  const std::string rest =
      "INSERT INTO 'mail_log_table' VALUES('', '4XyZ', '1700000015', 'a@example.org', "
      "'b@example.org', '1000', '1')";
  Entry entry;  // 511 quotes are 1022 bytes
  entry.id = std::string(511, '\'');
  entry.from = std::string(255, '\'');
  entry.to = std::string(255, 't');
  const size_t length =
      rest.size() - 2 * strlen("x@example.org") + 2 * 511 + 2 * 255 + 255;
  entry.queue += std::string(2047 - length, 'q');
  EXPECT_EQ(rowOf(record(entry)), entry.id + "|" + entry.queue + "|1700000015|" +
                                      entry.from + "|" + entry.to + "|1000|1");
  EXPECT_EQ(takeStatements()[1].size(), 2047u);
  entry.queue += "q";
  EXPECT_EQ(rowOf(record(entry)), "none");
  log.take();
}

// The live log is the price of a record that does not fit, again at each flush.
TEST_F(RunningTest, ARecordWhoseStatementIsTooLongCostsTheLiveLogAtEachFlush) {
  cache(2);
  logger->flushLogToDB();
  Entry entry;
  entry.id = std::string(511, '\'');
  entry.from = entry.to = std::string(255, '\'');
  cache(1);
  logger->cacheLog(record(entry));
  const Rows discarded = {
      "DBHandler.cpp: sqlite3_exec fail, err=[1], near \"statement\": syntax error",
      kCorrupt, kRegenLog, kStillInTransaction, kMissingLog};
  for (int i = 0; i < 2; i++) {
    logger->flushLogToDB();
    EXPECT_EQ(logger->error(), 0);  // repaired
    expectLog(discarded);
    EXPECT_EQ(logRows(), Rows());
  }
  logger.reset();
  expectLog(discarded);
}

// ---- when the cache is written

TEST_F(RunningTest, TwoHundredEntriesWaitAnd201DoNot) {
  cache(200);
  logger->run();
  EXPECT_EQ(logRows(), Rows());
  cache(1);
  logger->run();
  EXPECT_EQ(logRows().size(), 201u);
}

TEST_F(RunningTest, EntriesWaitForTheCacheTimeAndNoLonger) {
  cache(1);
  now += 9;
  send({});
  logger->run();
  EXPECT_EQ(logRows(), Rows());
  now += 1;
  send({});
  logger->run();
  EXPECT_EQ(logRows().size(), 1u);
  cache(1);  // counts from the flush
  now += 9;
  send({});
  logger->run();
  EXPECT_EQ(logRows().size(), 1u);
}

TEST_F(RunningTest, AnEmptyCacheIsNotWritten) {
  now += 1000;
  logger->run();
  EXPECT_EQ(takeStatements(), Rows());
}

TEST_F(RunningTest, AClockSetBackDelaysTheFlushAndLosesNothing) {
  cache(1);
  now -= 86400;
  send({bytesOf(numbered(2))});
  logger->run();
  EXPECT_EQ(logRows(), Rows());
  cache(199);
  send({});
  logger->run();  // 201 do not ask the clock
  EXPECT_EQ(logRows().size(), 201u);
  cache(1);
  now += 10;
  send({});
  logger->run();  // which counts from there
  EXPECT_EQ(logRows().size(), 202u);
  cache(1);
  now -= 86400;
  logger.reset();
  EXPECT_EQ(logRows().size(), 203u);
}

TEST_F(RunningTest, AClockSetForwardFlushesAtOnce) {
  cache(1);
  now += 10 * 365 * 86400;
  send({});
  logger->run();
  EXPECT_EQ(logRows().size(), 1u);
}

// ---- writing

TEST_F(RunningTest, StatementsAreTheseToTheLetter) {
  Entry entry;
  entry.id = "o'h";
  logger->cacheLog(record(entry));
  logger->flushLogToDB();
  EXPECT_EQ(takeStatements(),
            (Rows{"BEGIN TRANSACTION;",
                  "INSERT INTO 'mail_log_table' VALUES('o''h', '4XyZ', '1700000015', "
                  "'a@example.org', 'b@example.org', '1000', '1')",
                  "COMMIT TRANSACTION;"}));
}

TEST_F(RunningTest, DestructionRemovesTheSocketThenWritesTheLogThenTheCounters) {
  logger->cacheLog(numbered(1));
  logger.reset();
  EXPECT_FALSE(fileExists(kSocket));
  const Rows statements = takeStatements();
  ASSERT_GE(statements.size(), 5u);
  EXPECT_EQ(statements[1].find("INSERT INTO 'mail_log_table'"), 0u);
  EXPECT_EQ(statements[4].find("DELETE FROM log_statistic_second"), 0u);
}

TEST_F(RunningTest, DestructionWithAnEmptyCacheCostsAnEmptyTransaction) {
  logger.reset();
  const Rows statements = takeStatements();
  ASSERT_GE(statements.size(), 3u);
  EXPECT_EQ(Rows(statements.begin(), statements.begin() + 3),
            (Rows{"BEGIN TRANSACTION;", "COMMIT TRANSACTION;", "BEGIN TRANSACTION;"}));
}

TEST_F(RunningTest, ALockedLogIsWaitedForAMinuteAndTheCacheIsKept) {
  cache(2);
  database::Connection holder(kLog);
  ASSERT_EQ(holder.run("BEGIN IMMEDIATE;"), 0);
  logger->flushLogToDB();
  EXPECT_EQ(logger->error(), -1);
  EXPECT_GT(sleptMs, 59'000);
  EXPECT_LE(sleptMs, 60'000);
  expectLog({"DBHandler.cpp: sqlite3_exec fail, err=[5], database is locked",
             kStillInTransaction});
  ASSERT_EQ(holder.run("ROLLBACK;"), 0);
  logger->flushLogToDB();
  EXPECT_EQ(logger->error(), 0);
  EXPECT_EQ(idsIn(kLog), (Rows{"1", "2"}));
}

TEST_F(RunningTest, RowsBeforeAFailureAreStoredAgainByTheNextFlush) {
  ASSERT_EQ(database::Connection(kLog).run(
                "create trigger t before insert on mail_log_table when "
                "new.message_id = '2' begin select raise(abort, 'no'); end;"),
            0);
  cache(3);
  logger->flushLogToDB();
  EXPECT_EQ(logger->error(), -1);
  expectLog({"DBHandler.cpp: sqlite3_exec fail, err=[19], no", kStillInTransaction});
  EXPECT_EQ(idsIn(kLog), Rows{"1"});
  ASSERT_EQ(database::Connection(kLog).run("drop trigger t;"), 0);
  logger->flushLogToDB();
  EXPECT_EQ(idsIn(kLog), (Rows{"1", "1", "2", "3"}));
}

TEST_F(RunningTest, ALogThatCannotBeOpenedKeepsTheCache) {
  cache(2);
  ASSERT_EQ(rename(kLog.c_str(), (kFolder + "away").c_str()), 0);
  ASSERT_EQ(chmod(kFolder.c_str(), 0555), 0);
  logger->flushLogToDB();
  EXPECT_EQ(logger->error(), -1);
  expectLog({kMissingLog, "DBHandler.cpp: Open database fail. dbpath = [" + kLog + "]",
             "DBHandler.cpp: Create DB fail;"});
  ASSERT_EQ(chmod(kFolder.c_str(), 0755), 0);
  logger->flushLogToDB();
  expectLog({kMissingLog});
  EXPECT_EQ(idsIn(kLog), (Rows{"1", "2"}));
}

TEST_F(RunningTest, ADamagedLogIsMadeAnewAndTheNextFlushStoresTheCache) {
  cache(2);
  logger->flushLogToDB();
  database::spoilTables(kLog);
  cache(1);
  logger->flushLogToDB();
  EXPECT_EQ(logger->error(), 0);
  EXPECT_EQ(log.take().back().text.find("DBHandler.cpp"), 0u);
  EXPECT_EQ(logRows(), Rows());
  logger->flushLogToDB();
  EXPECT_EQ(idsIn(kLog), Rows{"1"});
}

TEST_F(RunningTest, ALogThatVanishesIsMadeAnew) {
  unlink(kLog.c_str());
  cache(1);
  logger->flushLogToDB();
  expectLog({kMissingLog});
  EXPECT_EQ(idsIn(kLog), Rows{"1"});
}

TEST_F(RunningTest, ALogThatCannotBeClosedIsAFailureAlthoughItsRowsAreStored) {
  cache(1);
  connections::failClose();
  logger->flushLogToDB();
  EXPECT_EQ(logger->error(), -1);
  expectLog({"DBHandler.cpp: Failed to close sqlite3, ret = [5]"});
  EXPECT_EQ(idsIn(kLog), Rows{"1"});
  cache(1);
  logger->flushLogToDB();
  EXPECT_EQ(logger->error(), 0);
  EXPECT_EQ(idsIn(kLog), (Rows{"1", "1"}));
}

TEST_F(RunningTest, UpdatingTheStatisticDoesNothing) {
  logger->updateStatistic();
  EXPECT_EQ(takeStatements(), Rows());
  EXPECT_EQ(logger->error(), 0);
}

}  // namespace
