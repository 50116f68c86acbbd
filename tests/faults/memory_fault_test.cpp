// Every allocation of SQLite fails in turn: once, or from then on.

#include "faults/sweep.h"
#include "support/memory_faults.h"

namespace {

class MemoryFaultTest : public SweepTest {
 protected:
  void sweepOne(const Work &work, bool all) {
    const Outcome outcome = sweep(
        work, [all](long nth) { memory_faults::fail(nth, all); },
        memory_faults::stopFailing);
    EXPECT_GT(outcome.points, 30 / SWEEP_STEP) << work.name;
    EXPECT_GT(outcome.reported, outcome.points / 2) << work.name;
    for (const std::string &wrong : outcome.wrong) ADD_FAILURE() << wrong;
  }
};

TEST_F(MemoryFaultTest, OneAllocationFails) {
  for (const Work &work : libraryWorks()) sweepOne(work, false);
}

TEST_F(MemoryFaultTest, MemoryStaysShort) {
  for (const Work &work : libraryWorks())
    if (work.isNew) sweepOne(work, true);  // has all that the other works do
}

}  // namespace
