// Every allocation of SQLite fails in turn: once, or from then on.

#include "faults/sweep.h"
#include "support/memory_faults.h"

namespace {

class MemoryFaultTest : public SweepTest {
 protected:
  void sweepAll(bool all) {
    for (const Work &work : libraryWorks()) {
      const Outcome outcome = sweep(
          work, [all](long nth) { memory_faults::fail(nth, all); },
          memory_faults::stopFailing);
      EXPECT_GT(outcome.points, 30) << work.name;
      EXPECT_GT(outcome.reported, outcome.points / 2) << work.name;
      for (const std::string &wrong : outcome.wrong) ADD_FAILURE() << wrong;
    }
  }
};

TEST_F(MemoryFaultTest, OneAllocationFails) { sweepAll(false); }

TEST_F(MemoryFaultTest, MemoryStaysShort) { sweepAll(true); }

}  // namespace
