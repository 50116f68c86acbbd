// Moving the live log aside, and what happens to the logs that are saved.

#include <fcntl.h>
#include <sqlite3.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <memory>
#include <optional>
#include <random>

#include "internal/move_lock.h"
#include "maillog.h"
#include "maillogger.h"
#include "platform/children.h"
#include "support/collector_test.h"
#include "support/connections.h"

namespace {

using namespace collector;
using database::rowsOf;

namespace fs = std::filesystem;

constexpr int kThreshold = 3;
const std::string kToday = "maillog_20231114.db";

class RotationTest : public CollectorTest {
 protected:
  RotationTest() {
    makeFiles();
    logger.emplace(0, kThreshold);
    EXPECT_EQ(logger->error(), 0);
  }

  // A pass that stores so many entries, numbered on.
  void pass(int entries) {
    for (int i = 0; i < entries; i++) logger->cacheLog(numbered(++number));
    logger->run();
  }

  // Everything that was stored, as allIds() tells it.
  Rows stored() const {
    Rows ids;
    for (int i = 1; i <= number; i++) ids.push_back(std::to_string(i));
    std::sort(ids.begin(), ids.end());
    return ids;
  }

  // What passes log when they rotate.
  void expectRotations(int count) {
    int events = 0;
    for (const LogLine &line : log.take())
      events += line.text.find("platform event 0x13600001") != std::string::npos;
    EXPECT_EQ(events, count);
  }

  // Saved logs in the making: empty files, the first of them the oldest.
  void putSaved(int count) {
    for (int i = 0; i < count; i++)
      put("maillog_old" + std::to_string(100 + i) + ".db", i);
  }

  // An empty file, modified `seconds` after a distant moment.
  void put(const std::string &name, long seconds, long nanoseconds = 0) {
    writeFile(kFolder + name, "");
    const timespec times[2] = {{1000 + seconds, nanoseconds},
                               {1000 + seconds, nanoseconds}};
    ASSERT_EQ(utimensat(AT_FDCWD, (kFolder + name).c_str(), times, AT_SYMLINK_NOFOLLOW),
              0);
  }

  int number = 0;
  std::optional<MailLogger> logger;
};

bool isThere(const std::string &name) { return fileExists(kFolder + name); }

// ---- when

TEST_F(RotationTest, AsManyRowsAsTheThresholdStay) {
  pass(kThreshold);
  EXPECT_EQ(savedLogs(), Rows());
  pass(1);
  EXPECT_EQ(savedLogs(), Rows{kToday});
  expectRotations(1);
}

TEST_F(RotationTest, OnlyAFlushRotates) {
  pass(kThreshold);
  ASSERT_EQ(database::Connection(kLog).run(
                "insert into mail_log_table(message_id) values ('x'), ('y');"),
            0);
  logger->run();
  EXPECT_EQ(savedLogs(), Rows());
}

TEST_F(RotationTest, TheSavedLogIsWholeAndTheNextFlushMakesANewOne) {
  pass(kThreshold + 1);
  EXPECT_FALSE(isThere("maillog.db"));
  EXPECT_EQ(idsIn(kFolder + kToday), (Rows{"1", "2", "3", "4"}));
  expectLog({kRotated});
  pass(1);
  expectLog({kMissingLog});
  EXPECT_EQ(idsIn(kLog), Rows{"5"});
  EXPECT_EQ(savedLogs(), Rows{kToday});
  EXPECT_EQ(rowsOf(kLog, "select * from config_table;"), Rows{"version|1"});
  EXPECT_EQ(rowsOf(kLog, "pragma journal_mode;"), Rows{"wal"});
}

TEST_F(RotationTest, ALogWithFewerRowsThanBelievedStaysAndIsCountedAnew) {
  pass(kThreshold);
  ASSERT_EQ(database::Connection(kLog).run("delete from mail_log_table;"), 0);
  pass(1);  // believed to be 4
  EXPECT_EQ(savedLogs(), Rows());
  pass(kThreshold - 1);  // 3, and known to be
  EXPECT_EQ(savedLogs(), Rows());
  pass(1);
  EXPECT_EQ(savedLogs(), Rows{kToday});
  log.take();
}

TEST_F(RotationTest, ALogWithAsManyRowsAsTheThresholdIsMovedOnceItIsBelievedToHaveMore) {
  pass(kThreshold);
  ASSERT_EQ(database::Connection(kLog).run(
                "delete from mail_log_table where message_id = '1';"),
            0);
  pass(1);
  EXPECT_EQ(savedLogs(), Rows{kToday});
  log.take();
}

TEST_F(RotationTest, RowsThatCannotBeCountedEndTheRotation) {
  pass(kThreshold);
  failStatement("SELECT Count(*)", 10);
  pass(1);
  expectLog({"maillogger.cpp: Get Log Num fail"});
  EXPECT_EQ(savedLogs(), Rows());
  pass(1);
  EXPECT_EQ(savedLogs(), Rows{kToday});
  EXPECT_EQ(allIds(), stored());
  log.take();
}

TEST_F(RotationTest, ALogThatCannotBeOpenedToBeCountedEndsTheRotation) {
  pass(kThreshold);
  log.take();
  ASSERT_EQ(chmod(kLog.c_str(), 0), 0);
  logger->rotateLog();
  ASSERT_EQ(chmod(kLog.c_str(), 0644), 0);
  EXPECT_EQ(logger->error(), -1);
  expectLog({"DBHandler.cpp: Open database fail. dbpath = [" + kLog + "], err=[14]",
             "maillogger.cpp: Get Log Num fail"});
}

TEST_F(RotationTest, ALogThatCannotBeRenamedStaysUntilItCanBe) {
  putSaved(21);
  pass(kThreshold);
  failCall("rename");
  pass(1);
  expectLog({"maillogger.cpp: rename " + kLog + " fail, Input/output error"});
  EXPECT_EQ(savedLogs().size(), 21u) << "none is removed";
  pass(1);
  EXPECT_EQ(idsIn(kFolder + kToday), (Rows{"1", "2", "3", "4", "5"}));
  expectRotations(1);
}

// ---- names

TEST_F(RotationTest, NamesOfOneDayGrowByAnUnderscoreAnd1) {
  for (int i = 0; i < 3; i++) pass(kThreshold + 1);
  EXPECT_EQ(savedLogs(),
            (Rows{kToday, "maillog_20231114_1.db", "maillog_20231114_1_1.db"}));
  EXPECT_EQ(idsIn(kFolder + kToday), (Rows{"1", "2", "3", "4"}));
  EXPECT_EQ(idsIn(kFolder + "maillog_20231114_1_1.db"), (Rows{"9", "10", "11", "12"}));
  expectRotations(3);
}

TEST_F(RotationTest, TheDateIsTheLocalOne) {
  setenv("TZ", "XXX-14", 1);
  tzset();
  now = 1700000015;  // 22:13 in Greenwich
  pass(kThreshold + 1);
  unsetenv("TZ");
  tzset();
  EXPECT_EQ(savedLogs(), Rows{"maillog_20231115.db"});
  log.take();
}

TEST_F(RotationTest, WhateverHasTheNameKeepsIt) {
  ASSERT_TRUE(fs::create_directory(kFolder + kToday));
  pass(kThreshold + 1);
  EXPECT_EQ(savedLogs(), (Rows{kToday, "maillog_20231114_1.db"}));
  log.take();
}

// A log of the name that has been removed may have left its own.
TEST_F(RotationTest, AWriteAheadLogThatWasLeftUnderTheNameIsNotTakenForTheSavedLogsOwn) {
  pass(1);
  database::Connection other(kLog);
  ASSERT_EQ(other.run("pragma wal_autocheckpoint = 0; update mail_log_table set "
                      "message_id = 'stale';"),
            0);
  fs::copy(kLog + "-wal", kFolder + kToday + "-wal");
  pass(kThreshold);
  ASSERT_EQ(savedLogs().size(), 1u);
  EXPECT_EQ(allIds(), (Rows{"2", "3", "4", "stale"}));
  log.take();
}

// ---- how many are kept

TEST_F(RotationTest, With21SavedLogsTheLeastRecentlyModifiedIsRemoved) {
  putSaved(20);
  pass(kThreshold + 1);
  EXPECT_EQ(savedLogs().size(), 20u);
  EXPECT_FALSE(isThere("maillog_old100.db"));
  EXPECT_TRUE(isThere("maillog_old101.db"));
  EXPECT_TRUE(isThere(kToday));
  expectRotations(1);
}

TEST_F(RotationTest, TwentySavedLogsAreKept) {
  putSaved(19);
  pass(kThreshold + 1);
  EXPECT_EQ(savedLogs().size(), 20u);
  expectRotations(1);
}

TEST_F(RotationTest, OneIsRemovedPerRotation) {
  putSaved(25);
  pass(kThreshold + 1);
  EXPECT_EQ(savedLogs().size(), 25u);
  log.take();
}

TEST_F(RotationTest, AFolderThatIsTheOldestEntryIsNotRemoved) {
  putSaved(20);
  ASSERT_TRUE(fs::create_directory(kFolder + "a folder"));
  const timespec times[2] = {{1, 0}, {1, 0}};
  ASSERT_EQ(utimensat(AT_FDCWD, (kFolder + "a folder").c_str(), times, 0), 0);
  pass(kThreshold + 1);
  EXPECT_EQ(savedLogs().size(), 22u);
  log.take();
}

TEST_F(RotationTest, AFolderThatCannotBeOpenedCountsNothing) {
  putSaved(20);
  failCall("opendir");
  pass(kThreshold + 1);
  expectLog({"maillogger.cpp: get save log db info fail", kRotated});
  EXPECT_EQ(savedLogs().size(), 21u);
}

TEST_F(RotationTest, AFolderThatCannotBeReadCountsNothing) {
  putSaved(20);
  failCall("readdir", 5);
  pass(kThreshold + 1);
  expectLog({"maillogger.cpp: read saved log db num fail", kRotated});
  EXPECT_EQ(savedLogs().size(), 21u);
}

TEST_F(RotationTest, TheOldestOfAFolderThatCannotBeOpenedStays) {
  putSaved(20);
  failCall("opendir", 2);
  pass(kThreshold + 1);
  expectLog(
      {"maillogger.cpp: fail to get oldest saved mail log db, rotate saved log db "
       "fail",
       kRotated});
  EXPECT_EQ(savedLogs().size(), 21u);
}

TEST_F(RotationTest, TheOldestOfAnEmptyFolderIsNone) {
  putSaved(20);
  afterRename = [] {
    const long entries = std::distance(fs::directory_iterator(kFolder), {});
    failCall("readdir", static_cast<int>(entries) + 4);  // two dots, the end, and then
  };
  pass(kThreshold + 1);
  expectLog(
      {"maillogger.cpp: read oldest saved log db info fail, rotate saved log db "
       "fail",
       kRotated});
  EXPECT_EQ(savedLogs().size(), 21u);
}

// Saved logs are counted and chosen as these commands do.
struct Listed {
  int count = -1;
  std::string oldest;
};

Listed listed() {
  Listed found;
  found.count = std::stoi(printed("ls " + kFolder + " -l | grep maillog_ | wc -l"));
  found.oldest = printed("ls " + kFolder + " -t | tail -1");
  if (!found.oldest.empty()) found.oldest.pop_back();  // its newline
  return found;
}

Rows everything() {
  Rows names;
  for (const auto &entry : fs::directory_iterator(kFolder))
    names.push_back(entry.path().filename());
  std::sort(names.begin(), names.end());
  return names;
}

class ListingTest : public RotationTest {
 protected:
  // Rotates; what is removed is what the commands would have named.
  void rotateAndCompare() {
    Listed expected;
    Rows before;
    afterRename = [&] {
      expected = listed();
      before = everything();
    };
    pass(kThreshold + 1);
    ASSERT_GE(expected.count, 1);
    counts.push_back(expected.count);
    if (expected.count > 20 && !fs::is_directory(kFolder + expected.oldest))
      before.erase(std::remove(before.begin(), before.end(), expected.oldest),
                   before.end());
    EXPECT_EQ(everything(), before) << expected.count << " " << expected.oldest;
    log.take();
  }

  std::vector<int> counts;
};

TEST_F(ListingTest, HiddenEntriesAreNeitherCountedNorChosen) {
  putSaved(19);
  for (int i = 0; i < 5; i++) put(".maillog_" + std::to_string(i), -10 - i);
  rotateAndCompare();
  EXPECT_EQ(counts, std::vector<int>{20});
}

TEST_F(ListingTest, WhatLiesBesideASavedLogCounts) {
  putSaved(18);
  put("maillog_old100.db-wal", 50);
  put("maillog_old100.db-shm", -50);
  rotateAndCompare();
  EXPECT_EQ(counts, std::vector<int>{21});
  EXPECT_FALSE(isThere("maillog_old100.db-shm"));
}

TEST_F(ListingTest, ALinkCountsByWhatItNames) {
  putSaved(18);
  fs::create_symlink("maillog_old100.db", kFolder + "a link");
  fs::create_symlink("/nowhere/maillog_", kFolder + "another");
  fs::create_symlink("/nowhere", kFolder + "a third");
  rotateAndCompare();
  EXPECT_EQ(counts, std::vector<int>{21});
}

TEST_F(ListingTest, ANameOfTwoLinesIsTwoLines) {
  putSaved(17);
  put("maillog_x\nmaillog_y", 60);
  put("one line\nmaillog_z maillog_z", 61);
  rotateAndCompare();
  EXPECT_EQ(counts, std::vector<int>{21});
}

TEST_F(ListingTest, OfAnOldestNameOfTwoLinesTheLastIsRemoved) {
  putSaved(20);
  put("old\nmaillog_old105.db", -5);
  rotateAndCompare();
  EXPECT_FALSE(isThere("maillog_old105.db"));
  EXPECT_TRUE(isThere("old\nmaillog_old105.db"));
  put("older\n", -6);  // an empty line
  rotateAndCompare();
}

TEST_F(ListingTest, OfEntriesOfOneTimeTheLastByNameIsRemoved) {
  putSaved(20);
  for (const char *name : {"b", "a", "C", "\xc3\xa4", "B", "-x"}) put(name, -100, 5);
  put("d", -100, 6);
  for (int i = 0; i < 8; i++) rotateAndCompare();
  EXPECT_FALSE(isThere("a"));
  EXPECT_FALSE(isThere("d"));
}

TEST_F(ListingTest, TimesBefore1970AreTheOldest) {
  putSaved(20);
  put("maillog_early", -100'000);
  put("maillog_earlier", -100'000, 1);
  rotateAndCompare();
  EXPECT_FALSE(isThere("maillog_early"));
}

TEST_F(RotationTest, AnOwnerOfThatNameMakesEveryEntryCount) {
  for (std::string *name : {&ownerName, &groupName}) {
    for (int i = 0; i < 20; i++) put("other" + std::to_string(i), i);
    pass(kThreshold + 1);
    EXPECT_TRUE(isThere("other0"));
    *name = "maillog_keeper";
    pass(kThreshold + 1);
    EXPECT_FALSE(isThere("other0"));
    name->clear();
  }
  log.take();
}

// Folders of every kind, from a fixed seed.
TEST_F(ListingTest, FoldersOfEveryKindAreTreatedAsByTheCommands) {
  std::mt19937 random(4);
  const auto below = [&random](unsigned n) {
    return static_cast<unsigned>(random() % n);
  };
  for (int round = 0; round < 25; round++) {
    for (const std::string &name : everything()) fs::remove_all(kFolder + name);
    const unsigned entries = 17 + below(8);
    for (unsigned i = 0; i < entries; i++) {
      const char *const kinds[] = {"maillog_%u.db",        "maillog_%u.db-wal",
                                   "maillog.db%u",         "notes%u",
                                   ".maillog_%u",          "x maillog_%u",
                                   "maillog_%u\nnote",     "note%u\nmaillog_",
                                   "maillog_%u\nmaillog_", " maillog_%u "};
      char name[64];
      snprintf(name, sizeof name, kinds[below(4) == 0 ? below(10) : 0], i);
      if (below(12) == 0)
        fs::create_symlink(below(2) == 0 ? "maillog_" : "nothing", kFolder + name);
      else
        put(name, static_cast<long>(below(5)), static_cast<long>(below(2)));
    }
    rotateAndCompare();
  }
  EXPECT_GT(std::count_if(counts.begin(), counts.end(), [](int n) { return n > 20; }), 3);
  EXPECT_GT(std::count_if(counts.begin(), counts.end(), [](int n) { return n <= 20; }),
            3);
}

// ---- readers

// Another process that has the live log open, and does as it is told.
class Reader {
 public:
  explicit Reader(const std::string &beginning, const std::string &path = kLog) {
    int down[2], up[2];
    EXPECT_EQ(pipe(down), 0);
    EXPECT_EQ(pipe(up), 0);
    child_ = startChild([&] {
      ::close(down[1]);
      ::close(up[0]);
      serve(down[0], up[1], path, beginning);
      return 0;
    });
    ::close(down[0]);
    ::close(up[1]);
    ask_ = down[1];
    answer_ = up[0];
    EXPECT_EQ(read(answer_, &begun_, 1), 1);
    EXPECT_EQ(begun_, '.');
  }

  ~Reader() {
    EXPECT_EQ(ask('q'), 0);
    ::close(ask_);
    ::close(answer_);
    EXPECT_EQ(endOf(child_), 0);
  }

  Reader(const Reader &) = delete;
  Reader &operator=(const Reader &) = delete;

  // How many rows it sees; -1: the query fails.
  int count() { return ask('c'); }
  // Ends its transaction.
  void commit() { EXPECT_EQ(ask('e'), 0); }

 private:
  int ask(char what) {
    EXPECT_EQ(write(ask_, &what, 1), 1);
    int told = -2;
    EXPECT_EQ(read(answer_, &told, sizeof told), static_cast<ssize_t>(sizeof told));
    return told;
  }

  static void serve(int asked, int answer, const std::string &path,
                    const std::string &beginning) {
    database::Connection connection(path);
    const bool begun = connection.run(beginning) == 0;
    EXPECT_EQ(write(answer, begun ? "." : "!", 1), 1);
    for (char what = 0; what != 'q' && read(asked, &what, 1) == 1;) {
      int told = what == 'q' ? 0 : -1;
      if (what == 'c') {
        const Rows rows = connection.rows("select count(*) from mail_log_table;");
        if (rows.size() == 1) told = std::stoi(rows[0]);
      } else if (what == 'e') {
        told = connection.run("commit;");
      }
      EXPECT_EQ(write(answer, &told, sizeof told), static_cast<ssize_t>(sizeof told));
    }
  }

  pid_t child_;
  int ask_, answer_;
  char begun_ = 0;
};

const char kLook[] = "select count(*) from mail_log_table;";
const char kHold[] = "begin; select count(*) from mail_log_table;";

// Another process that moves the write-ahead log into the file, and goes on no further
// than to a reader of an older state.
class Checkpointer {
 public:
  Checkpointer() {
    EXPECT_EQ(pipe(told_), 0);
    child_ = startChild([this] {
      sqlite3 *connection = nullptr;
      if (sqlite3_open(kLog.c_str(), &connection) != SQLITE_OK) return 1;
      sqlite3_busy_handler(connection, tellAndWait, this);
      return sqlite3_exec(connection, "pragma wal_checkpoint(full);", nullptr, nullptr,
                          nullptr);
    });
    char byte = 0;
    EXPECT_EQ(read(told_[0], &byte, 1), 1);
  }

  ~Checkpointer() {
    kill(child_, SIGKILL);
    endOf(child_);
    for (const int fd : told_) ::close(fd);
  }

  Checkpointer(const Checkpointer &) = delete;
  Checkpointer &operator=(const Checkpointer &) = delete;

 private:
  static int tellAndWait(void *self, int /*times*/) {
    EXPECT_EQ(write(static_cast<Checkpointer *>(self)->told_[1], ".", 1), 1);
    return pause();  // until it is killed
  }

  int told_[2];
  pid_t child_;
};

TEST_F(RotationTest, AReaderConnectedThroughTenRotationsCostsNoRow) {
  pass(1);
  Reader reader(kLook);
  for (int i = 0; i < 10; i++) pass(kThreshold + 1);
  EXPECT_EQ(savedLogs().size(), 10u);
  EXPECT_EQ(allIds(), stored());
  EXPECT_EQ(reader.count(), 5);  // of the log that it has opened
  expectRotations(10);
}

TEST_F(RotationTest, AReaderOfEachLogThroughTenRotationsCostsNoRow) {
  std::list<Reader> readers;
  for (int i = 0; i < 10; i++) {
    pass(kThreshold);
    readers.emplace_back(kHold);  // sees the latest state, needs no older one
    pass(kThreshold);
    readers.back().commit();
    pass(1);
  }
  for (Reader &reader : readers) EXPECT_GE(reader.count(), kThreshold);
  EXPECT_GE(savedLogs().size(), 10u);
  readers.clear();
  EXPECT_EQ(allIds(), stored());
  log.take();
}

// Nobody waits for him: the log stays and grows until he is done.
TEST_F(RotationTest, AReaderInATransactionThroughTenRotationsCostsNoRow) {
  pass(kThreshold);
  {
    Reader reader(kHold);
    for (int i = 0; i < 10; i++) {
      pass(kThreshold + 1);
      expectLog({"debug maillogger.cpp: " + kLog + " is in use, rotate later"});
      EXPECT_EQ(reader.count(), kThreshold);
    }
    EXPECT_EQ(savedLogs(), Rows());
    EXPECT_EQ(allIds(), stored());
    reader.commit();
    EXPECT_EQ(sleptMs, 0);
    pass(1);
    EXPECT_EQ(savedLogs(), Rows{kToday});
    EXPECT_EQ(allIds(), stored());
    expectRotations(1);
  }
  pass(1);
  EXPECT_EQ(allIds(), stored());
  log.take();
}

TEST_F(RotationTest, WhileSomebodyOpensTheLogItStaysInItsPlace) {
  {
    const internal::MoveLock reader(internal::MoveLock::kOpening);
    pass(kThreshold + 1);
    expectLog({"debug maillogger.cpp: " + kLog + " is in use, rotate later"});
    EXPECT_EQ(savedLogs(), Rows());
  }
  pass(1);
  EXPECT_EQ(savedLogs(), Rows{kToday});
  EXPECT_EQ(allIds(), stored());
  expectRotations(1);
}

TEST_F(RotationTest, ACheckpointOfAnotherDelaysTheRotationAndCostsNoRow) {
  pass(1);
  {
    Reader reader(kHold);
    pass(kThreshold - 1);
    const Checkpointer other;
    logger->rotateLog();
    expectLog({"debug maillogger.cpp: " + kLog + " is in use, rotate later"});
    EXPECT_EQ(savedLogs(), Rows());
  }
  pass(1);
  EXPECT_EQ(savedLogs(), Rows{kToday});
  EXPECT_EQ(allIds(), stored());
  log.take();
}

TEST_F(RotationTest, AReaderThatEndsAfterTheRotationLeavesTheNewLogAlone) {
  pass(1);
  auto reader = std::make_unique<Reader>(kLook);
  pass(kThreshold);
  pass(2);
  reader.reset();  // the last to close the saved log
  EXPECT_EQ(allIds(), stored());
  pass(1);
  EXPECT_EQ(allIds(), stored());
  log.take();
}

// A reader of the library's, another process, that closes the log when it is told to. It
// stops where it is about to remove a file, until it is told to go on.
class ClosingReader {
 public:
  ClosingReader() {
    EXPECT_EQ(pipe(orders_), 0);
    EXPECT_EQ(pipe(told_), 0);
    child_ = startChild([this] {
      auto reader = std::make_unique<MailLog>(kLog.c_str());
      instead_ = this;
      sqlite3_vfs *const system = sqlite3_vfs_find(nullptr);
      system->xSetSystemCall(system, "unlink",
                             reinterpret_cast<sqlite3_syscall_ptr>(removeWhenTold));
      tellAndWait("opened");
      reader.reset();
      tell("closed");
      return 0;
    });
    EXPECT_EQ(heard(), "opened");
  }

  ~ClosingReader() {
    for (const int fd : {orders_[0], orders_[1], told_[0], told_[1]}) ::close(fd);
  }

  ClosingReader(const ClosingReader &) = delete;
  ClosingReader &operator=(const ClosingReader &) = delete;

  // Lets it close the log as far as it gets by itself.
  void beginToClose() {
    order();
    state_ = heard();
  }

  void finish() {
    while (state_ != "closed") beginToClose();
    EXPECT_EQ(endOf(child_), 0);
  }

 private:
  static int removeWhenTold(const char *path) {
    instead_->tellAndWait("remove");
    return unlink(path);
  }

  void order() const { EXPECT_EQ(write(orders_[1], ".", 1), 1); }
  void tell(const char *what) const { EXPECT_EQ(write(told_[1], what, 6), 6); }
  void tellAndWait(const char *what) const {
    tell(what);
    char byte;
    EXPECT_EQ(read(orders_[0], &byte, 1), 1);
  }
  std::string heard() const {
    char what[6] = "";
    EXPECT_EQ(read(told_[0], what, sizeof what), 6);
    return {what, sizeof what};
  }

  static ClosingReader *instead_;
  int orders_[2], told_[2];
  pid_t child_;
  std::string state_;
};
ClosingReader *ClosingReader::instead_;

// Were it to tidy up behind itself, what it removes would be the new log's by then.
TEST_F(RotationTest, AReaderThatClosesTheLogDuringTheRotationLeavesTheNewOneAlone) {
  pass(kThreshold);
  ClosingReader reader;
  beforeRename = [&] { reader.beginToClose(); };
  pass(1);
  EXPECT_EQ(savedLogs(), Rows{kToday});
  pass(1);
  {
    const Reader ofTheNewOne(kLook);  // keeps its write-ahead log in use
    pass(1);
    reader.finish();
    pass(1);
  }
  EXPECT_EQ(allIds(), stored());
  log.take();
}

TEST_F(RotationTest, AReaderOfALogThatIsThrownAwayDoesNotSpoilTheNewOne) {
  pass(2);
  Reader reader(kHold);
  ASSERT_EQ(database::Connection(kLog).run("drop table mail_log_table;"), 0);
  logger->cacheLog(numbered(7));
  logger->flushLogToDB();  // made anew
  log.take();
  for (int i = 0; i < 3; i++) {
    logger->flushLogToDB();
    logger->cacheLog(numbered(8 + i));
  }
  logger->flushLogToDB();
  EXPECT_EQ(logger->error(), 0);
  EXPECT_EQ(allIds(), (Rows{"10", "7", "8", "9"}));
  EXPECT_EQ(reader.count(), 2);
}

TEST_F(RotationTest, AWriterAtWorkDoesNotSpoilTheRotation) {
  pass(1);
  Reader writer("begin immediate; delete from mail_log_table;");
  pass(kThreshold);  // waits for the lock, in vain
  EXPECT_EQ(logger->error(), -1);
  writer.commit();
  logger->flushLogToDB();
  EXPECT_EQ(allIds(), (Rows{"2", "3", "4"}));
  log.take();
}

TEST_F(RotationTest, ACheckpointThatFailsDelaysTheRotation) {
  failStatement("PRAGMA wal_checkpoint", 10);
  pass(kThreshold + 1);
  expectLog({"debug maillogger.cpp: " + kLog + " is in use, rotate later"});
  EXPECT_EQ(savedLogs(), Rows());
  EXPECT_EQ(allIds(), stored());
  pass(1);
  EXPECT_EQ(savedLogs(), Rows{kToday});
  EXPECT_EQ(allIds(), stored());
  expectRotations(1);
}

}  // namespace
