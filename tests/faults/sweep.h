// What the library does to a database while something fails, and what has to hold
// afterwards, whatever it was.

#ifndef POSTWELL_TESTS_FAULTS_SWEEP_H_
#define POSTWELL_TESTS_FAULTS_SWEEP_H_

#include <functional>
#include <string>
#include <vector>

#include "support/library_test.h"

// What a caller has been told: rows that are stored, rows that are gone, and whether
// anything was reported as failed.
struct Told {
  std::vector<std::string> stored, gone;
  bool failure = false;
};

// A piece of work on one database file and how to look at its rows.
struct Work {
  const char *name;
  std::string path;
  std::string query;              // gives the rows
  bool isNew;                     // the file is made in this work
  std::vector<std::string> kept;  // rows that are there afterwards in any case
  std::function<void()> prepare;  // what was there before; nothing fails yet
  std::function<Told()> run;      // with failures
  std::function<bool()> open;     // a newcomer gets at the file, or makes it anew
};

// The library's operations: DBHandler on a new file, in both journal modes, and on one
// that was there; Alias likewise.
std::vector<Work> libraryWorks();

struct Outcome {
  long points = 0;    // runs with a failure
  long rebuilt = 0;   // those that took the file for damaged and made it anew
  long reported = 0;  // those in which an operation said so
  std::vector<std::string> wrong;  // what did not hold
};

class SweepTest : public LibraryTest {
 protected:
  SweepTest() { writeDefaults(); }

  // Does the work again and again, the 1st, 2nd, … operation failing as `arm` arranges
  // it, until it gets by without a failure (`disarm` tells).
  Outcome sweep(const Work &work, const std::function<void(long)> &arm,
                const std::function<bool()> &disarm);

 private:
  // What does not hold after the work.
  std::vector<std::string> judge(const Work &work, const Told &told);

  // What the log says about the last run.
  int creations_ = 0;
  bool rebuilt_ = false;
  void readLog();
};

#endif  // POSTWELL_TESTS_FAULTS_SWEEP_H_
