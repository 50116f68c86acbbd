// SQLite's memory with a failure switch, apart from the program's own memory.

#ifndef POSTWELL_TESTS_MEMORY_FAULTS_H_
#define POSTWELL_TESTS_MEMORY_FAULTS_H_

namespace memory_faults {

// From now on the `nth` allocation of SQLite, counted from 1, fails; with `all` every
// one after it, too.
void fail(long nth, bool all);

// No more. True when one has failed since fail().
bool stopFailing();

}  // namespace memory_faults

#endif  // POSTWELL_TESTS_MEMORY_FAULTS_H_
