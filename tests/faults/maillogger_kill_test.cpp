// The collector is killed at random moments while it stores entries and moves logs
// aside. What it had stored is there, whole, and the next one goes on. The seed is fixed.

#include <unistd.h>

#include <filesystem>
#include <map>
#include <random>

#include "faults/killed.h"
#include "platform/children.h"
#include "support/connections.h"
#include "support/library_test.h"
#include "support/mail_log.h"

namespace {

using namespace collector;

constexpr int kEntries = 40;  // in a batch
constexpr int kThreshold = 100;
constexpr int kMostBatches = 50;  // fill fewer logs than are kept

// Stores batch after batch until it is killed; tells of each when it is stored, or, to
// show that the test would see a loss, before.
int storeUntilKilled(const Acknowledge &acknowledge, bool early) {
  MailLogger logger(0, kThreshold);
  if (logger.error() != 0) return 1;
  for (int batch = 0; batch < kMostBatches; batch++) {
    for (int i = 0; i < kEntries; i++) logger.cacheLog(numbered(batch));
    if (early) acknowledge();
    logger.flushLogToDB();
    if (logger.error() != 0) return 2;
    if (!early) acknowledge();
    logger.rotateLog();
  }
  for (;;) pause();
}

struct Killed {
  int acknowledged = 0;  // batches
  Rows wrong;
};

class KillTest : public LibraryTest {
 protected:
  Killed killOne(bool early, int after, long nanoseconds) {
    Killed killed;
    killed.acknowledged = acknowledgedWhenKilled(
        [&](const Acknowledge &acknowledge) {
          return storeUntilKilled(acknowledge, early);
        },
        after, nanoseconds);
    const Rows left = filesIn(kFolder);
    judge(killed);
    const std::vector<LogLine> said = log.take();
    if (!killed.wrong.empty()) {  // to go by
      killed.wrong.insert(killed.wrong.end(), left.begin(), left.end());
      for (const LogLine &line : said) killed.wrong.push_back(line.text);
    }
    return killed;
  }

  // The name and the size of each.
  static Rows filesIn(const std::string &folder) {
    Rows files;
    if (fileExists(folder))
      for (const auto &entry : std::filesystem::directory_iterator(folder))
        files.push_back(entry.path().filename().string() +
                        ", bytes: " + std::to_string(entry.file_size()));
    return files;
  }

  static void judge(Killed &killed) {
    // A log that was being made has no table yet, which fails one construction.
    if (fileExists(kLog) &&
        database::rowsOf(kLog,
                         "select 1 from sqlite_master where tbl_name = "
                         "'mail_log_table';")
            .empty()) {
      if (MailLogger(0, kThreshold).error() != -1)
        killed.wrong.push_back("a log without its table is taken");
    }
    {
      MailLogger following(0, kThreshold);
      following.cacheLog(numbered(-1));
      following.flushLogToDB();
      if (following.error() != 0) killed.wrong.push_back("the next one does not work");
    }
    connections::closeLeft();  // SQLite's do not outlive a fork
    std::map<std::string, int> found;
    for (const std::string &id : allIds()) found[id]++;
    if (found["-1"] != 1) killed.wrong.push_back("the next one's entry is missing");
    found.erase("-1");
    for (const auto &[id, count] : found)
      if (count != kEntries)
        killed.wrong.push_back(id + " is there " + std::to_string(count) + " times");
    for (int i = 0; i < killed.acknowledged; i++)
      if (found.count(std::to_string(i)) == 0)
        killed.wrong.push_back("batch " + std::to_string(i) + " is lost");
  }

  std::mt19937 random{1};
};

TEST_F(KillTest, WhatWasStoredSurvivesAKillAtAnyMoment) {
  long acknowledged = 0, rotated = 0;
  for (int i = 0; i < kills(); i++) {
    std::filesystem::remove_all(kFolder);
    const int after = static_cast<int>(random() % 12);
    const Killed killed = killOne(false, after, static_cast<long>(random() % 3'000'000));
    for (const std::string &wrong : killed.wrong) ADD_FAILURE() << i << ": " << wrong;
    acknowledged += killed.acknowledged;
    rotated += static_cast<long>(savedLogs().size());
  }
  EXPECT_GT(acknowledged, kills());
  EXPECT_GT(rotated, 0);
  printf("%d kills, %ld batches, %ld logs moved aside\n", kills(), acknowledged, rotated);
}

TEST_F(KillTest, ALossWouldBeSeen) {
  int seen = 0;
  for (int i = 0; i < 20 && seen == 0; i++) {
    std::filesystem::remove_all(kFolder);
    seen += !killOne(true, 1 + i % 5, 0).wrong.empty();
  }
  EXPECT_EQ(seen, 1);
}

// The same while another process has the log open, whose state of it stays beside it.
TEST_F(KillTest, AReaderOfTheLogDoesNotMakeAKillCostMore) {
  for (int i = 0; i < kills() / 5 + 1; i++) {
    std::filesystem::remove_all(kFolder);
    { const MailLogger made(0, kThreshold); }
    connections::closeLeft();
    int gate[2], ready[2];
    ASSERT_EQ(pipe(gate), 0);
    ASSERT_EQ(pipe(ready), 0);
    const pid_t reader = startChild([&] {
      close(gate[1]);
      database::Connection connection(kLog);
      connection.rows("select count(*) from mail_log_table;");
      char byte = 0;
      if (write(ready[1], &byte, 1) != 1) return 1;
      return read(gate[0], &byte, 1) == 0 ? 0 : 2;
    });
    char byte;
    EXPECT_EQ(read(ready[0], &byte, 1), 1);
    const Killed killed = killOne(false, static_cast<int>(random() % 12),
                                  static_cast<long>(random() % 3'000'000));
    for (const std::string &wrong : killed.wrong) ADD_FAILURE() << i << ": " << wrong;
    for (const int end : {gate[0], gate[1], ready[0], ready[1]}) close(end);
    EXPECT_EQ(endOf(reader), 0);
  }
}

}  // namespace
