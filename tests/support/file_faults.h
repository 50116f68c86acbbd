// SQLite's file operations with a failure switch. A test program that links this file
// puts it below SQLite's own file system: the Nth open, read, write, … of a database,
// its journal or its write-ahead log fails as a broken or full disk makes it fail.

#ifndef POSTWELL_TESTS_FILE_FAULTS_H_
#define POSTWELL_TESTS_FILE_FAULTS_H_

namespace file_faults {

enum Operation : unsigned {
  kOpen = 1,
  kRead = 2,
  kWrite = 4,
  kSync = 8,
  kTruncate = 16,
  kRemove = 32,
  kLock = 64,  // taking, not releasing
  kAny = 127
};

struct Fault {
  unsigned operations;  // those that count, kWrite | kSync, …
  int error;            // errno of the failure
  bool all;             // every one after the Nth fails, too
  bool lie;             // a write reports success and is not made
};

// From now on the `nth` of the operations, counted from 1, fails.
void fail(const Fault &fault, long nth);

// No more. True when one has failed since fail().
bool stopFailing();

}  // namespace file_faults

#endif  // POSTWELL_TESTS_FILE_FAULTS_H_
