// Following a log file whose writer does something between two looks at it, and what of
// it does not depend on when: what is kept of a file, and how long a line may be.
//
// stat(), which only the looking for files uses, and inotify_add_watch() stand here in
// the place of the system's.

#include <dlfcn.h>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <poll.h>
#include <sys/inotify.h>
#include <sys/stat.h>
#include <unistd.h>

#include <filesystem>
#include <functional>
#include <utility>

#include "fingerprint.h"
#include "folder_watch.h"
#include "log_follower.h"
#include "log_reader.h"
#include "support/files.h"

namespace {

std::function<void()> beforeLooking;                      // once
std::function<void(const std::string &)> beforeWatching;  // with the path

}  // namespace

extern "C" __attribute__((visibility("default"))) int stat(const char *path,
                                                           struct stat *status) noexcept {
  if (beforeLooking) std::exchange(beforeLooking, nullptr)();
  return fstatat(AT_FDCWD, path, status, 0);
}

extern "C" __attribute__((visibility("default"))) int inotify_add_watch(
    int fd, const char *path, uint32_t events) noexcept {
  if (beforeWatching) beforeWatching(path);
  return reinterpret_cast<decltype(&inotify_add_watch)>(
      dlsym(RTLD_NEXT, "inotify_add_watch"))(fd, path, events);
}

namespace {

namespace fs = std::filesystem;

const std::string kFolder = "/tmp/log";
const std::string kLog = kFolder + "/maillog";

class FollowerRace : public testing::Test {
 protected:
  FollowerRace() {
    fs::remove_all(kFolder);
    fs::create_directories(kFolder);
  }
  ~FollowerRace() override { fs::remove_all(kFolder); }

  static void setTime(const std::string &path, long seconds, long nanoseconds = 0) {
    const timespec times[] = {{seconds, nanoseconds}, {seconds, nanoseconds}};
    ASSERT_EQ(utimensat(AT_FDCWD, path.c_str(), times, 0), 0) << path;
  }

  // All that there is for now, each line followed by "|".
  static std::string read(LogFollower &log) {
    std::string all;
    for (std::string_view line; log.next(&line);) all.append(line).append("|");
    return all;
  }
};

TEST_F(FollowerRace, WhatComesToTheOldFileJustBeforeTheNewOneIsFilledIsRead) {
  appendFile(kLog, "one\n");
  LogFollower log(kLog, std::nullopt);
  EXPECT_EQ(read(log), "one|");
  ASSERT_EQ(rename(kLog.c_str(), (kLog + ".1").c_str()), 0);
  beforeLooking = [] {
    appendFile(kLog + ".1", "two\n");
    appendFile(kLog, "three\n");
  };
  EXPECT_EQ(read(log), "two|three|");
}

// By it the year of a line is told, and after a restart which files came later.
TEST_F(FollowerRace, WhenTheFileWasWrittenLastIsLookedAtWithEachReading) {
  appendFile(kLog, "one\n");
  const time_t longAgo = 1000;
  setTime(kLog, longAgo);
  LogFollower log(kLog, std::nullopt);
  EXPECT_EQ(read(log), "one|");
  EXPECT_EQ(log.written(), longAgo);
  appendFile(kLog, "two\n");
  struct stat status;
  ASSERT_EQ(stat(kLog.c_str(), &status), 0);
  ASSERT_GT(status.st_mtime, longAgo);
  EXPECT_EQ(read(log), "two|");
  EXPECT_EQ(log.written(), status.st_mtime);
  EXPECT_EQ(log.position().written, status.st_mtime);
}

TEST_F(FollowerRace, FilesOfOneSecondAreReadInTheirOrder) {
  appendFile(kLog, "one\n");
  LogFollower log(kLog, std::nullopt);
  EXPECT_EQ(read(log), "one|");
  ASSERT_EQ(rename(kLog.c_str(), (kLog + ".3").c_str()), 0);
  appendFile(kLog + ".1", "three\n");
  appendFile(kLog + ".2", "two\n");
  appendFile(kLog + ".", "somebody's\n");
  appendFile(kLog, "four\n");
  setTime(kLog + ".3", 1000, 1);
  setTime(kLog + ".2", 1000, 2);
  setTime(kLog + ".", 1000, 3);
  setTime(kLog + ".1", 1000, 4);
  EXPECT_EQ(read(log), "two|three|four|");
}

// Where a restart falls between the copying and the emptying, both are alike.
TEST_F(FollowerRace, OfACopyAndTheFileItselfTheFileIsReadOn) {
  appendFile(kLog, "one\n");
  Position position;
  {
    LogFollower log(kLog, std::nullopt);
    EXPECT_EQ(read(log), "one|");
    position = log.position();
  }
  fs::copy_file(kLog, kLog + ".1");
  appendFile(kLog, "two\n");
  LogFollower log(kLog, position);
  EXPECT_EQ(read(log), "two|");
}

TEST_F(FollowerRace, OfAnEmptyFileThatIsGoneNoOlderOneTakesThePlace) {
  appendFile(kLog, "");
  Position position;
  {
    LogFollower log(kLog, std::nullopt);
    EXPECT_EQ(read(log), "");
    position = log.position();
  }
  appendFile(kLog + ".1", "long ago\n");
  setTime(kLog + ".1", 1000);
  ASSERT_EQ(rename(kLog.c_str(), (kFolder + "/elsewhere").c_str()), 0);
  appendFile(kLog, "two\n");
  LogFollower log(kLog, position);
  EXPECT_EQ(read(log), "two|");
}

TEST_F(FollowerRace, AFileThatWasEmptiedAndRemovedIsReadNoMore) {
  appendFile(kLog, "one\n");
  LogFollower log(kLog, std::nullopt);
  EXPECT_EQ(read(log), "one|");
  ASSERT_EQ(truncate(kLog.c_str(), 0), 0);
  ASSERT_EQ(unlink(kLog.c_str()), 0);
  EXPECT_EQ(read(log), "");
  appendFile(kLog, "two\n");
  EXPECT_EQ(read(log), "two|");
}

// Opening it would wait for a writer.
TEST_F(FollowerRace, WhatIsNoFileIsNoLog) {
  ASSERT_EQ(mkfifo(kLog.c_str(), 0600), 0);
  LogFollower log(kLog, std::nullopt);
  EXPECT_EQ(read(log), "");
}

TEST_F(FollowerRace, AFolderThatAppearsWhileTheOneAboveIsTakenIsWatched) {
  const std::string folder = kFolder + "/later";
  beforeWatching = [&](const std::string &path) {
    if (path == kFolder) fs::create_directory(folder);
  };
  const FolderWatch watch(folder);
  beforeWatching = nullptr;
  appendFile(folder + "/maillog", "one\n");
  pollfd polled = {watch.fd(), POLLIN, 0};
  EXPECT_EQ(poll(&polled, 1, 0), 1);
}

// A state that was saved by another version must be understood.
TEST_F(FollowerRace, TheFingerprintIsThatOfThe1024BytesBeforeThePosition) {
  std::string text;
  for (int i = 0; text.size() < 5000; ++i) text += "line " + std::to_string(i) + "\n";
  appendFile(kLog, text);
  LogFollower log(kLog, std::nullopt);
  read(log);
  EXPECT_EQ(log.position().mark.offset, text.size());
  EXPECT_EQ(log.position().mark.fingerprint,
            fingerprintOf(text.substr(text.size() - 1024)));
}

TEST_F(FollowerRace, ALineWithoutAnEndIsTakenAtItsLongest) {
  appendFile(kLog, std::string(kLongestLine - 1, 'x'));
  LogFollower log(kLog, std::nullopt);
  EXPECT_EQ(read(log), "");
  appendFile(kLog, "x");
  EXPECT_EQ(read(log), std::string(65536, 'x') + '|');
}

}  // namespace
