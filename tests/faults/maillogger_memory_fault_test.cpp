// Every allocation fails in turn while the collector works: SQLite's and the library's
// own, once or from then on.

#include <filesystem>

#include "faults/maillogger_sweep.h"
#include "support/allocation_faults.h"
#include "support/connections.h"
#include "support/memory_faults.h"

namespace {

using namespace collector;

class MailLoggerMemoryFaultTest : public CollectorSweepTest {
 protected:
  void expectGood(const SweepOutcome &outcome, const CollectorWork &work) {
    for (const std::string &wrong : outcome.wrong) ADD_FAILURE() << wrong;
    EXPECT_GT(outcome.points, 5 / SWEEP_STEP) << work.name;
    EXPECT_GT(outcome.reported, 0) << work.name;
    EXPECT_EQ(outcome.rebuilt, 0) << work.name;
  }
};

TEST_F(MailLoggerMemoryFaultTest, OneAllocationOfSQLiteFails) {
  const CollectorWork work = collectorWorks().back();  // does all that the others do
  expectGood(sweep(
                 work, [](long nth) { memory_faults::fail(nth, false); },
                 memory_faults::stopFailing),
             work);
}

TEST_F(MailLoggerMemoryFaultTest, SQLitesMemoryStaysShort) {
  const CollectorWork work = collectorWorks().front();
  expectGood(sweep(
                 work, [](long nth) { memory_faults::fail(nth, true); },
                 memory_faults::stopFailing),
             work);
}

TEST_F(MailLoggerMemoryFaultTest, OneAllocationOfTheLibraryFails) {
  for (const CollectorWork &work : collectorWorks())
    expectGood(sweep(
                   work, [](long nth) { allocations::failOnceAfter(nth - 1); },
                   allocations::stopFailing),
               work);
}

TEST_F(MailLoggerMemoryFaultTest, TheLibrarysMemoryStaysShort) {
  for (const CollectorWork &work : collectorWorks())
    expectGood(sweep(
                   work, [](long nth) { allocations::failAfter(nth - 1); },
                   allocations::stopFailing),
               work);
}

// A record for which there is no memory is lost, and said to be; the others are not.
TEST_F(MailLoggerMemoryFaultTest, ARecordWithoutMemoryCostsItselfAtMost) {
  LogSocket large = numbered(2);  // its texts fit no short string
  for (char *field : {large.szQueueID, large.szMailFrom, large.szMailTo})
    for (int i = 0; i < 100; i++) field[i] = 'x';
  long lost = 0;
  bool failed = true;
  for (long nth = 0; failed; nth++) {
    std::filesystem::remove_all(kFolder);
    MailLogger logger(1000, 1000);
    ASSERT_EQ(logger.error(), 0);
    logger.cacheLog(numbered(1));
    allocations::failOnceAfter(nth);
    logger.cacheLog(large);
    failed = allocations::stopFailing();
    EXPECT_EQ(logger.error(), failed ? -1 : 0);
    logger.cacheLog(numbered(3));
    logger.flushLogToDB();
    Rows ids = idsIn(kLog);
    if (ids == Rows{"1", "3"})
      lost++;
    else
      EXPECT_EQ(ids, (Rows{"1", "2", "3"}));
    connections::closeLeft();
    log.take();
  }
  EXPECT_GT(lost, 3);
}

TEST_F(MailLoggerMemoryFaultTest, AConstructionWithoutMemoryIsAFailureAndNothingMore) {
  long points = 0;
  for (bool failed = true; failed; points++) {
    int error = 0;
    {
      allocations::failAfter(points);
      MailLogger logger(10, 1000);
      failed = allocations::stopFailing();
      error = logger.error();
    }
    EXPECT_EQ(error != 0, failed) << points;
    EXPECT_FALSE(fileExists(kSocket));
    connections::closeLeft();
    log.take();
  }
  EXPECT_GT(points, 3);
}

}  // namespace
