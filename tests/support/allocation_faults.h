// operator new with a failure switch: a test program that links this file can make
// the allocations of its thread fail.

#ifndef POSTWELL_TESTS_ALLOCATION_FAULTS_H_
#define POSTWELL_TESTS_ALLOCATION_FAULTS_H_

namespace allocations {

// From now on `count` allocations of this thread succeed and all after them fail.
void failAfter(long count);

// From now on `count` allocations of this thread succeed and the one after them fails.
void failOnceAfter(long count);

// All succeed again. True when one failed since failAfter().
bool stopFailing();

}  // namespace allocations

#endif  // POSTWELL_TESTS_ALLOCATION_FAULTS_H_
