// What the mail log's collector does while something fails, and what has to hold
// afterwards, whatever it was.

#ifndef POSTWELL_TESTS_FAULTS_MAILLOGGER_SWEEP_H_
#define POSTWELL_TESTS_FAULTS_MAILLOGGER_SWEEP_H_

#include <functional>
#include <string>
#include <vector>

#include "support/library_test.h"
#include "support/mail_log.h"

// A piece of work of a collector that has entries 6, 7 and 8 cached, on a log with the
// entries 1 to 5.
struct CollectorWork {
  const char *name;
  bool isNew;  // there is no log, nor entries 1 to 5
  std::function<void(MailLogger &)> run;
};

std::vector<CollectorWork> collectorWorks();

struct SweepOutcome {
  long points = 0;    // runs with a failure
  long rebuilt = 0;   // those that threw a file away as damaged, which is meant
  long reported = 0;  // those after which error() told of it
  std::vector<std::string> wrong;  // what did not hold
};

class CollectorSweepTest : public LibraryTest {
 protected:
  CollectorSweepTest();

  // Does the work again and again, the 1st, 2nd, … operation failing as `arm` arranges
  // it, until it gets by without a failure (`disarm` tells). Emulated, a part of them has
  // to do.
  SweepOutcome sweep(const CollectorWork &work, const std::function<void(long)> &arm,
                     const std::function<bool()> &disarm);

 private:
  // What does not hold once nothing fails any more.
  void judge(const CollectorWork &work, MailLogger &logger, SweepOutcome &outcome,
             const std::string &where);
};

#endif  // POSTWELL_TESTS_FAULTS_MAILLOGGER_SWEEP_H_
