// What the tests of the mail log's collector share: a clock that the test sets, and
// system calls and statements that fail.

#ifndef POSTWELL_TESTS_COLLECTOR_TEST_H_
#define POSTWELL_TESTS_COLLECTOR_TEST_H_

#include <ctime>
#include <functional>
#include <string>
#include <vector>

#include "support/library_test.h"
#include "support/mail_log.h"

namespace collector {

// What DBHandler logs when it makes one of the two files, or removes it.
inline const std::string kMissingLog =
    "DBHandler.cpp: " + kLog + " isn't exist, create DB";
inline const std::string kMissingStatistic =
    "DBHandler.cpp: " + kStatistic + " isn't exist, create DB";
inline const std::string kRegenLog = "debug DBHandler.cpp: regen db : " + kLog;
inline const std::string kRegenStatistic =
    "debug DBHandler.cpp: regen db : " + kStatistic;
inline const std::string kStillInTransaction =
    "debug DBHandler.cpp: Still in transaction, try to commit";

// What the collector says before the second, and the host's event of a rotation.
inline const std::string kCorrupt = "maillogger.cpp: db corrupt, need regent";
inline const std::string kRotated =
    "priority 6 platform event 0x13600001 (source 1, level 1)";

// ---- what the process under test meets

// What time() tells. The wait for a sender and SQLite's wait for a lock let it pass
// instead of waiting.
extern time_t now;
extern long sleptMs;  // by SQLite

// Makes the `nth` call from now on of "socket", "bind", "listen", "select", "accept4",
// "rename", "opendir" or "readdir" fail.
void failCall(const std::string &function, int nth = 1);

// Makes the next statement that begins so fail with this code of SQLite, unrun.
void failStatement(const std::string &beginning, int code);

// The statements that were run or prepared, oldest first; forgets them.
Rows takeStatements();

// The calls of select, bind, listen and close, with what is to be seen of their
// arguments; forgets them.
Rows takeCalls();

// Run before each rename(), and after each rename() or accept4() that succeeds.
extern std::function<void()> beforeRename, afterRename, afterAccept;

// What getpwuid() and getgrgid() tell of every owner; "" is the truth.
extern std::string ownerName, groupName;

// What a shell that this process starts prints.
std::string printed(const std::string &command);

}  // namespace collector

class CollectorTest : public LibraryTest {
 protected:
  CollectorTest();
  // Closes what creating files has left open: its descriptors would run out.
  ~CollectorTest() override;

  // Makes the two files, so that nothing is logged when they are opened.
  void makeFiles();
};

#endif  // POSTWELL_TESTS_COLLECTOR_TEST_H_
