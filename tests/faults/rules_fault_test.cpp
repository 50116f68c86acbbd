// Every file operation and every allocation of SQLite fails in turn while rules are
// stored, removed and read, each time in a process of its own, as the owners of the rules
// live as long as theirs. What was acknowledged is there afterwards, a list of the spam
// filter is there whole or not at all, and once nothing fails any more the same process
// can write again.

#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <functional>

#include "access.h"
#include "bcc.h"
#include "spam.h"
#include "support/database.h"
#include "support/file_faults.h"
#include "support/files.h"
#include "support/library_test.h"
#include "support/memory_faults.h"

namespace {

using Rows = std::vector<std::string>;

const std::string kPath = "/var/packages/Postwell/etc/postwell.db";
const Rows kThree = {"one", "three", "two"};

// What one class does with rules of these names.
struct Owner {
  const char *name;
  const char *table;
  bool whole;  // a list that fails leaves nothing
  std::function<bool()> open;
  std::function<bool(const Rows &)> store;
  std::function<bool(const Rows &)> remove;
  std::function<void()> read;
};

std::list<AccessInfo> accessRules(const Rows &names) {
  std::list<AccessInfo> rules;
  for (const std::string &name : names)
    rules.emplace_back(TYPE_SENDER, NAME_DOMAIN, name, ACCESS_REJECT);
  return rules;
}

std::list<BccInfo> bccRules(const Rows &names) {
  std::list<BccInfo> rules;
  for (const std::string &name : names) rules.emplace_back(BCC_SENDER, name, "x");
  return rules;
}

std::list<BlackWhite> spamEntries(const Rows &names) {
  std::list<BlackWhite> entries;
  for (const std::string &name : names)
    entries.push_back({name, TYPE_BLACK, TYPE_SENDER, NAME_DOMAIN});
  return entries;
}

const std::vector<Owner> kOwners = {
    {"Access", "access_table", false, [] { return Access::getInstance() != nullptr; },
     [](const Rows &names) {
       return Access::getInstance()->setAccess(accessRules(names)) == 0;
     },
     [](const Rows &names) {
       return Access::getInstance()->deleteAccess(accessRules(names)) == 0;
     },
     [] { Access::getInstance()->getAccessList(TYPE_SENDER, 0, 9); }},
    {"BCC", "bcc_table", false, [] { return BCC::getInstance() != nullptr; },
     [](const Rows &names) { return BCC::getInstance()->setBCC(bccRules(names)) == 0; },
     [](const Rows &names) {
       return BCC::getInstance()->deleteBCC(bccRules(names)) == 0;
     },
     [] { BCC::getInstance()->getBCCList(BCC_SENDER, 0, 9); }},
    {"Spam", "blackwhite_table", true, [] { return Spam::getInstance() != nullptr; },
     [](const Rows &names) {
       return Spam::getInstance()->addBlackWhiteList(spamEntries(names)) == 0;
     },
     [](const Rows &names) {
       return Spam::getInstance()->deleteBlackWhiteList(spamEntries(names)) == 0;
     },
     [] {
       Spam::getInstance()->countQueryData({0, 9, -1, -1, "*", ""});
     }}};

// What a run was told, as bits of its exit status.
enum Told : unsigned { kStored = 1, kRemoved = 2, kFailed = 4, kWritesAgain = 8 };

using Arm = std::function<void(long nth)>;
using Disarm = std::function<bool()>;

unsigned work(const Owner &owner) {
  unsigned told = 0;
  if (!owner.open()) return told;
  if (owner.store(kThree)) told |= kStored;
  if (owner.remove({"old"})) told |= kRemoved;
  owner.read();
  return told;
}

// Runs this in another process; its exit status, or a number that no run gives.
unsigned inAnotherProcess(const std::function<unsigned()> &run) {
  const pid_t child = fork();
  if (child == 0) _exit(static_cast<int>(run()));
  int status = 0;
  const bool ended = waitpid(child, &status, 0) == child && WIFEXITED(status);
  return ended ? static_cast<unsigned>(WEXITSTATUS(status)) : 255;
}

class RulesFaultTest : public LibraryTest {
 protected:
  RulesFaultTest() { writeDefaults(); }

  // Sweeps the owner's work on a new file or on one with the rules "old" and "kept",
  // every `step`th point.
  // Gives how many points there were.
  long sweep(const Owner &owner, bool isNew, long step, const Arm &arm,
             const Disarm &disarm) {
    for (long nth = 1;; nth += step) {
      for (const char *end : {"", "-journal"}) unlink((kPath + end).c_str());
      if (!isNew) fill(owner);
      log.take();
      const unsigned told = inAnotherProcess([&] {
        arm(nth);
        unsigned bits = work(owner);
        if (disarm()) bits |= kFailed;
        if (owner.open() && owner.store({"next"})) bits |= kWritesAgain;
        return bits;
      });
      SCOPED_TRACE(std::string(owner.name) + (isNew ? ", new file, " : ", ") +
                   std::to_string(nth));
      EXPECT_LT(told, 16u) << "the process crashed";
      judge(owner, told, isNew);
      if ((told & kFailed) == 0) {
        EXPECT_EQ(told, kStored | kRemoved | kWritesAgain);
        return nth - 1;
      }
    }
  }

  void sweepAll(const Arm &arm, const Disarm &disarm, bool alsoNew, long least,
                long step) {
    for (const Owner &owner : kOwners)
      for (const bool isNew : {false, true})
        if (!isNew || alsoNew) {
          EXPECT_GT(sweep(owner, isNew, step, arm, disarm), least) << owner.name;
        }
  }

 private:
  static void fill(const Owner &owner) {
    const unsigned failed = inAnotherProcess([&owner] {
      return owner.open() && owner.store({"kept", "old"}) ? 0u : 1u;
    });
    EXPECT_EQ(failed, 0u);
  }

  // Whether the file was taken for damaged and made anew, which is meant.
  bool wasMadeAnew() {
    const std::vector<LogLine> lines = log.take();
    return std::any_of(lines.begin(), lines.end(), [](const LogLine &line) {
      return line.text.find("db corrupt, need regen") != std::string::npos;
    });
  }

  void judge(const Owner &owner, unsigned told, bool isNew) {
    EXPECT_TRUE((told & kWritesAgain) != 0) << "the next write fails";
    EXPECT_EQ(database::rowsOf(kPath, "pragma integrity_check;"), Rows{"ok"});
    const Rows rows = database::rowsOf(
        kPath, std::string("select name from ") + owner.table + " order by name;");
    const auto holds = [&rows](const std::string &name) {
      return std::find(rows.begin(), rows.end(), name) != rows.end();
    };
    EXPECT_TRUE(holds("next"));
    if (wasMadeAnew()) return;
    if (!isNew) {
      EXPECT_TRUE(holds("kept"));
    }
    if ((told & kRemoved) != 0) {
      EXPECT_FALSE(holds("old"));
    }
    const auto stored = std::count_if(kThree.begin(), kThree.end(), holds);
    if ((told & kStored) != 0) {
      EXPECT_EQ(stored, 3);
    } else if (owner.whole) {
      EXPECT_TRUE(stored == 0 || stored == 3) << stored << " of 3 are stored";
    }
  }
};

// ---- files

Arm arming(const file_faults::Fault &fault) {
  return [fault](long nth) { file_faults::fail(fault, nth); };
}

TEST_F(RulesFaultTest, AnyFileOperationFailsOnce) {
  sweepAll(arming({file_faults::kAny, EIO, false, false}), file_faults::stopFailing, true,
           30, FILE_STEP);
}

TEST_F(RulesFaultTest, TheDiskIsGone) {
  sweepAll(arming({file_faults::kAny, EIO, true, false}), file_faults::stopFailing, true,
           30, FILE_STEP);
}

TEST_F(RulesFaultTest, TheDiskIsFull) {
  sweepAll(arming({file_faults::kWrite, ENOSPC, true, false}), file_faults::stopFailing,
           true, 5, FILE_STEP);
}

TEST_F(RulesFaultTest, AnotherProcessHasTheFileLocked) {
  sweepAll(arming({file_faults::kLock, EAGAIN, true, false}), file_faults::stopFailing,
           false, 5, FILE_STEP);
}

// What the sweeps above look for would be seen.
TEST_F(RulesFaultTest, WritesThatAreNotMadeAreNoticed) {
  const unsigned told = inAnotherProcess([] {
    file_faults::fail({file_faults::kWrite, 0, true, true}, 1);
    const unsigned bits = work(kOwners[2]);
    return bits | (file_faults::stopFailing() ? kFailed : 0u);
  });
  EXPECT_EQ(told & kFailed, kFailed);
  EXPECT_NE(database::rowsOf(kPath, "select name from blackwhite_table order by name;"),
            kThree);
  log.take();
}

// ---- memory

TEST_F(RulesFaultTest, OneAllocationFails) {
  sweepAll([](long nth) { memory_faults::fail(nth, false); }, memory_faults::stopFailing,
           false, 30, MEMORY_STEP);
}

TEST_F(RulesFaultTest, MemoryStaysShort) {
  sweepAll([](long nth) { memory_faults::fail(nth, true); }, memory_faults::stopFailing,
           false, 30, MEMORY_STEP);
}

}  // namespace
