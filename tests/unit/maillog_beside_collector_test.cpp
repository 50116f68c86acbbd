// The mail log's reader while a collector, another process, writes and rotates.

#include <sys/wait.h>
#include <unistd.h>

#include <csignal>
#include <cstdlib>
#include <set>

#include "maillog.h"
#include "maillogger.h"
#include "support/connections.h"
#include "support/database.h"
#include "support/library_test.h"
#include "support/mail_log.h"

namespace {

using namespace collector;

constexpr int kBatch = 201;
constexpr int kFlushes = 50;
constexpr int kThreshold = 2500;  // rows: after some 13 flushes
constexpr size_t kRotations = 3;
constexpr int kMostFlushes = 1000;

// The collector's work. Its exit status is 0 when all that was received is stored.
int collect(int started) {
  MailLogger logger(1000, kThreshold);
  if (logger.error() != 0) return 1;
  if (write(started, "", 1) != 1) return 1;
  int number = 0;
  for (int flush = 1; flush <= kMostFlushes; flush++) {
    for (int i = 0; i < kBatch; i++) logger.cacheLog(numbered(number++));
    logger.flushLogToDB();  // what it cannot store waits for the next one
    logger.rotateLog();
    if (flush >= kFlushes && savedLogs().size() >= kRotations) return 0;
  }
  return 2;
}

LogFilter everything(const char *select) {
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

// Every other way to ask for all rows of the log, of which `least` have been seen. Each
// number is that of whole batches, and none is less than the one before.
void readOtherwise(MailLog &reader, size_t least) {
  std::string key = "example.org";  // the entries' sender
  const auto expectWhole = [&least](const char *query, size_t rows) {
    EXPECT_EQ(rows % kBatch, 0u) << query;
    EXPECT_GE(rows, least) << query;
    least = rows;
  };
  expectWhole("by filter", static_cast<size_t>(reader.getLogNum(everything("count(*)"))));
  expectWhole("by key", static_cast<size_t>(reader.getLogNum(key)));
  std::vector<MailLogInfo> found, filtered;
  EXPECT_EQ(reader.search(-1, 0, "date", "desc", key, found), 0);
  expectWhole("search", found.size());
  EXPECT_EQ(reader.load(everything("*"), filtered), 0);
  expectWhole("load by filter", filtered.size());
}

// What a reader finds in the live log.
int readAll() {
  MailLog reader(kLog.c_str());
  EXPECT_EQ(reader.error(), 0);
  if (reader.error() != 0) return -1;
  const int count = reader.getLogNum();
  EXPECT_GE(count, 0);
  EXPECT_EQ(count % kBatch, 0);
  std::vector<MailLogInfo> rows;
  EXPECT_EQ(reader.load(-1, 0, "message_id", "asc", rows), 0);
  EXPECT_EQ(rows.size() % kBatch, 0u);
  EXPECT_GE(static_cast<int>(rows.size()), count);
  readOtherwise(reader, rows.size());
  Statistic traffic;
  EXPECT_EQ(reader.getQuantityStatistic(traffic, 1700000020, DAY), 0);
  return count;
}

class BesideCollector : public LibraryTest {
 protected:
  BesideCollector() {
    int started[2];
    EXPECT_EQ(pipe(started), 0);
    child_ = fork();
    if (child_ == 0) _exit(collect(started[1]));
    close(started[1]);
    char byte;
    EXPECT_EQ(read(started[0], &byte, 1), 1);
    close(started[0]);
  }
  ~BesideCollector() override {
    if (isRunning()) kill(child_, SIGKILL);
    if (!ended_) waitpid(child_, &status_, 0);
    connections::closeLeft();
  }

  bool isRunning() {
    if (!ended_) ended_ = waitpid(child_, &status_, WNOHANG) == child_;
    return !ended_;
  }

  pid_t child_ = -1;
  bool ended_ = false;
  int status_ = -1;
};

TEST_F(BesideCollector, AReaderNeverFailsAndNeverSeesHalfABatch) {
  int reads = 0;
  std::set<int> seen;
  while (isRunning()) {
    seen.insert(readAll());
    reads++;
    connections::closeLeft();
    if (HasFailure()) break;
  }
  EXPECT_EQ(status_, 0);
  EXPECT_GT(reads, 10);
  EXPECT_GT(seen.size(), 3u);
  const Rows ids = allIds();
  for (const std::string &id : ids)  // what is damaged
    if (id.find_first_not_of("0123456789") != id.npos) ADD_FAILURE() << id;
  EXPECT_EQ(std::set<std::string>(ids.begin(), ids.end()).size(), ids.size());
  EXPECT_EQ(ids.size() % kBatch, 0u);
  EXPECT_GE(ids.size(), static_cast<size_t>(kBatch * kFlushes));
  for (const LogLine &line : log.take())  // who made which file is a matter of chance
    if (HasFailure()) ADD_FAILURE() << line.text;
}

}  // namespace
