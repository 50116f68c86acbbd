// Every file operation of SQLite fails in turn while the collector writes its log and its
// counters and moves the log aside: once, or from then on.

#include <cerrno>
#include <filesystem>

#include "faults/maillogger_sweep.h"
#include "support/connections.h"
#include "support/file_faults.h"

namespace {

using namespace collector;
using namespace file_faults;

class MailLoggerFileFaultTest : public CollectorSweepTest {
 protected:
  SweepOutcome sweepAll(const Fault &fault) {
    SweepOutcome sum;
    for (const CollectorWork &work : collectorWorks()) {
      const SweepOutcome one = sweep(
          work, [&fault](long nth) { fail(fault, nth); }, stopFailing);
      sum.points += one.points;
      sum.rebuilt += one.rebuilt;
      sum.reported += one.reported;
      sum.wrong.insert(sum.wrong.end(), one.wrong.begin(), one.wrong.end());
    }
    return sum;
  }

  void expectGood(const SweepOutcome &outcome) {
    for (const std::string &wrong : outcome.wrong) ADD_FAILURE() << wrong;
    EXPECT_GT(outcome.reported, 0);
  }
};

TEST_F(MailLoggerFileFaultTest, AnyOperationFailsOnce) {
  const SweepOutcome outcome = sweepAll({kAny, EIO, false, false});
  expectGood(outcome);
  EXPECT_GT(outcome.points, 200 / SWEEP_STEP);
}

TEST_F(MailLoggerFileFaultTest, TheDiskIsGone) {
  const SweepOutcome outcome = sweepAll({kAny, EIO, true, false});
  expectGood(outcome);
  EXPECT_GT(outcome.points, 200 / SWEEP_STEP);
}

TEST_F(MailLoggerFileFaultTest, TheDiskIsFull) {
  const SweepOutcome outcome = sweepAll({kWrite, ENOSPC, true, false});
  expectGood(outcome);
  EXPECT_GT(outcome.points, 40 / SWEEP_STEP);
  EXPECT_EQ(outcome.rebuilt, 0);
}

// A new file that another process holds is that one's to fill.
TEST_F(MailLoggerFileFaultTest, TheFilesAreLockedByAnother) {
  const CollectorWork flush = collectorWorks().front();
  const SweepOutcome outcome = sweep(
      flush,
      [](long nth) {
        fail({kLock, EAGAIN, true, false}, nth);
      },
      stopFailing);
  expectGood(outcome);
  EXPECT_GT(outcome.points, 5 / SWEEP_STEP);
}

// What the sweeps above look for would be seen.
TEST_F(MailLoggerFileFaultTest, WritesThatAreNotMadeAreNoticed) {
  const SweepOutcome outcome = sweepAll({kWrite, 0, true, true});
  EXPECT_GT(outcome.points, 20 / SWEEP_STEP);
  EXPECT_FALSE(outcome.wrong.empty());
}

// ---- counters

class CounterFaultTest : public MailLoggerFileFaultTest {
 protected:
  static void remove() {
    for (const char *end : {"", "-journal"}) std::filesystem::remove(kStatistic + end);
  }

  // The received of the day in progress.
  static long counted() {
    return std::stol(database::rowsOf(kStatistic,
                                      "select coalesce(sum(inbound_quantity), 0) from "
                                      "log_statistic_day;")
                         .at(0));
  }
};

// The counters are written when the collector ends: what is counted for the day is then
// the new total or, if writing failed, the old one.
TEST_F(CounterFaultTest, AFailedWriteOfTheCountersLeavesTheOldOnes) {
  for (const Fault &fault :
       {Fault{kAny, EIO, false, false}, Fault{kWrite, ENOSPC, true, false}}) {
    long points = 0, old = 0;
    for (bool failed = true; failed;) {
      remove();
      for (int i = 0; i < 2; i++) {
        MailLogger logger(0, 1000);
        ASSERT_EQ(logger.error(), 0);
        Entry entry;
        entry.time = static_cast<int32_t>(time(nullptr));
        logger.cacheLog(record(entry));
        logger.flushLogToDB();
        log.take();
        if (i == 1) fail(fault, ++points);
      }
      failed = stopFailing();
      connections::closeLeft();
      bool rebuilt = false;
      for (const LogLine &line : log.take())
        rebuilt = rebuilt || line.text.find("need regent") != std::string::npos;
      EXPECT_EQ(database::rowsOf(kStatistic, "pragma integrity_check;"), Rows{"ok"});
      const long now = counted();
      EXPECT_TRUE(now == 2 || now == 1 || (rebuilt && now == 0)) << now;
      old += now == 1;
      if (!failed) {
        EXPECT_EQ(now, 2);
      }
    }
    EXPECT_GT(points, 15);
    EXPECT_GT(old, 0);
    log.take();
  }
}

}  // namespace
