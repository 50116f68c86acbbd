// Every file operation of SQLite fails in turn: once, or from then on.

#include <cerrno>

#include "faults/sweep.h"
#include "support/file_faults.h"

namespace {

using namespace file_faults;

class FileFaultTest : public SweepTest {
 protected:
  // Sweeps all works; what was wrong fails the test.
  Outcome sweepAll(const Fault &fault) {
    Outcome sum;
    for (const Work &work : libraryWorks()) {
      const Outcome one = sweepOne(work, fault);
      sum.points += one.points;
      sum.rebuilt += one.rebuilt;
      sum.reported += one.reported;
      for (const std::string &wrong : one.wrong) ADD_FAILURE() << wrong;
    }
    return sum;
  }

  Outcome sweepOne(const Work &work, const Fault &fault) {
    return sweep(
        work, [&fault](long nth) { fail(fault, nth); }, stopFailing);
  }
};

TEST_F(FileFaultTest, AnyOperationFailsOnce) {
  const Outcome outcome = sweepAll({kAny, EIO, false, false});
  EXPECT_GT(outcome.points, 500);
  EXPECT_GT(outcome.rebuilt, 0);  // SQLite gives code 11 for a sector it cannot read
  EXPECT_GT(outcome.reported, outcome.points / 2);
}

TEST_F(FileFaultTest, TheDiskIsGone) {
  const Outcome outcome = sweepAll({kAny, EIO, true, false});
  EXPECT_GT(outcome.points, 500);
  EXPECT_GT(outcome.reported, outcome.points / 2);
}

TEST_F(FileFaultTest, TheDiskIsFull) {
  const Outcome outcome = sweepAll({kWrite, ENOSPC, true, false});
  EXPECT_GT(outcome.points, 100);
  // a write-ahead log that cannot be moved into the file when it is closed stays
  EXPECT_GT(outcome.reported, outcome.points * 9 / 10);
}

// A new file that another process holds is that one's to fill.
TEST_F(FileFaultTest, AFileThatWasThereIsLockedByAnother) {
  for (const Work &work : libraryWorks()) {
    if (work.isNew) continue;
    const Outcome outcome = sweepOne(work, {kLock, EAGAIN, true, false});
    EXPECT_GT(outcome.points, 10) << work.name;
    for (const std::string &wrong : outcome.wrong) ADD_FAILURE() << wrong;
  }
}

// What the sweeps above look for would be seen.
TEST_F(FileFaultTest, WritesThatAreNotMadeAreNoticed) {
  for (const Work &work : libraryWorks()) {
    const Outcome outcome = sweepOne(work, {kWrite, 0, true, true});
    EXPECT_GT(outcome.points, 5) << work.name;
    EXPECT_FALSE(outcome.wrong.empty()) << work.name;
  }
}

}  // namespace
