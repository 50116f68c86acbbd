// The feed at work, in this process: what it saves, when, and how.
//
// The functions at the top stand in the place of the system's.

#include <dlfcn.h>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <csignal>
#include <ctime>
#include <filesystem>
#include <functional>
#include <sstream>
#include <thread>

#include "feed.h"
#include "programs/receiver.h"
#include "support/files.h"
#include "support/wait_until.h"

namespace {

std::function<void()>
    beforeReading;  // what read() reads, once: events are, lines are not
int syncs = 0;

}  // namespace

#define REPLACED extern "C" __attribute__((visibility("default")))

REPLACED ssize_t read(int fd, void *buffer, size_t size) {
  if (beforeReading) std::exchange(beforeReading, nullptr)();
  return reinterpret_cast<decltype(&read)>(dlsym(RTLD_NEXT, "read"))(fd, buffer, size);
}

REPLACED int fsync(int fd) {
  ++syncs;
  return reinterpret_cast<decltype(&fsync)>(dlsym(RTLD_NEXT, "fsync"))(fd);
}

namespace {

namespace fs = std::filesystem;

const std::string kFolder = "/tmp/feed";
// What is written to the folder of the log wakes the feed.
const FeedFiles kFiles = {kFolder + "/log/maillog", kFolder + "/state",
                          kFolder + "/sock"};

const std::string kDelivery =
    "Nov 21 02:04:20 mail postfix/lmtp[1]: Q100000: to=<b@x>, relay=x[private/lmtp], "
    "delay=0, delays=0/0/0/0, dsn=2.0.0, status=sent (ok)\n";
const std::string kRow = "Q100000 b@x 1";

class Running : public testing::Test {
 protected:
  Running() {
    fs::remove_all(kFolder);
    fs::create_directories(kFolder + "/log");
    syncs = 0;
  }
  ~Running() override { fs::remove_all(kFolder); }

  // Runs a feed beside `meanwhile`, and stops it when that is done.
  static void runBeside(const std::function<void()> &meanwhile) {
    Stop stop;
    Feed feed(kFiles, stop);
    std::thread beside([&meanwhile] {
      meanwhile();
      kill(getpid(), SIGTERM);
    });
    feed.run();
    beside.join();
  }

  // The value behind the name of a line of the state, the first or a later one; 0 while
  // there is none.
  static uint64_t saved(const std::string &name, int which) {
    std::istringstream state(fileExists(kFiles.state) ? readFile(kFiles.state) : "");
    for (std::string line, word; std::getline(state, line);) {
      std::istringstream words(line);
      uint64_t value = 0;
      if (!(words >> word) || word != name) continue;
      for (int i = 0; i < which; ++i) words >> value;
      return value;
    }
    return 0;
  }
  static uint64_t savedLines() { return saved("count", 1); }
  static void waitForFileSaved() {
    struct stat status;
    ASSERT_EQ(stat(kFiles.log.c_str(), &status), 0);
    waitUntil("the file is in the state",
              [&] { return saved("log", 2) == status.st_ino; });
  }
  static void waitForLines(const std::string &count) {
    const std::string text = "\"lines\": " + count + ",";
    waitUntil(text.c_str(), [&] {
      const std::string path = kFiles.state + ".status";
      return fileExists(path) && readFile(path).find(text) != std::string::npos;
    });
  }

  // The file is of December 2015, and so kDelivery of the November before.
  static void makeOld(const std::string &path) {
    tm december = {};
    december.tm_year = 115;
    december.tm_mon = 11;
    december.tm_mday = 1;
    const timespec then = {mktime(&december), 0}, times[] = {then, then};
    ASSERT_EQ(utimensat(AT_FDCWD, path.c_str(), times, 0), 0);
  }
  static void expectItsTime(const std::vector<LogSocket> &records) {
    ASSERT_EQ(records.size(), 1u);
    const time_t when = records[0].log_time;
    tm broken = {};
    localtime_r(&when, &broken);
    EXPECT_EQ(broken.tm_year, 115);
    EXPECT_EQ(broken.tm_mon, 10);
  }

  static mode_t modeOf(const std::string &path) {
    struct stat status;
    EXPECT_EQ(stat(path.c_str(), &status), 0) << path;
    return status.st_mode & 07777;
  }

  const Stop blocksTheSignals_;  // in all threads of the test
};

TEST_F(Running, ALineThatComesWhileEventsAreTakenIsNotMissed) {
  appendFile(kFiles.log, "");
  Receiver receiver(kFiles.socket);
  beforeReading = [] { appendFile(kFiles.log, kDelivery); };
  runBeside([&] { EXPECT_EQ(receiver.await(1), std::vector<std::string>{kRow}); });
}

TEST_F(Running, TheYearOfAStampIsThatOfTheFile) {
  appendFile(kFiles.log, kDelivery);
  makeOld(kFiles.log);
  Receiver receiver(kFiles.socket);
  runBeside([&] { receiver.await(1); });
  expectItsTime(receiver.records());
}

TEST_F(Running, TheYearOfStandardInputIsThatOfItsFile) {
  appendFile(kFiles.log, kDelivery);
  makeOld(kFiles.log);
  const int file = open(kFiles.log.c_str(), O_RDONLY | O_CLOEXEC), kept = dup(0);
  ASSERT_EQ(dup2(file, 0), 0);
  close(file);
  Receiver receiver(kFiles.socket);
  Stop stop;
  EXPECT_TRUE(backfill(kFiles.socket, 0, stop));
  ASSERT_EQ(dup2(kept, 0), 0);
  close(kept);
  expectItsTime(receiver.records());
}

// It tells who writes to whom.
TEST_F(Running, TheStateIsSyncedAndNobodyElsesBusiness) {
  appendFile(kFiles.log, kDelivery);
  Receiver receiver(kFiles.socket);
  runBeside([&] { receiver.await(1); });
  EXPECT_GE(syncs, 1);
  EXPECT_EQ(modeOf(kFiles.state), 0600u);
  EXPECT_EQ(modeOf(kFiles.state + ".status"), 0640u);
  EXPECT_EQ(modeOf(kFiles.state + ".lock"), 0640u);
}

// Or a restart would look for a file that was rotated long ago.
TEST_F(Running, TheNextFileIsSavedAlthoughNothingWasDelivered) {
  appendFile(kFiles.log, "one\n");
  runBeside([] {
    waitForFileSaved();
    ASSERT_EQ(rename(kFiles.log.c_str(), (kFiles.log + ".1").c_str()), 0);
    appendFile(kFiles.log, "two\n");
    waitForFileSaved();
  });
}

TEST_F(Running, LinesWithoutADeliveryAreSavedByTheThousandsAndAtTheEnd) {
  appendFile(kFiles.log, "one\n");
  runBeside([] {
    waitForFileSaved();
    appendFile(kFiles.log, "two\n");
    waitForLines("2");
    EXPECT_EQ(savedLines(), 1u);
    std::string many;
    for (int i = 0; i < 20000; ++i) many += "x\n";
    appendFile(kFiles.log, many);
    waitForLines("20002");
    EXPECT_GT(savedLines(), 20000u);
    appendFile(kFiles.log, "last\n");
    waitForLines("20003");
    EXPECT_LT(savedLines(), 20003u);
  });
  EXPECT_EQ(savedLines(), 20003u);
}

}  // namespace
