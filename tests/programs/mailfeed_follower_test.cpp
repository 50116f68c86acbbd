// Following a log file: growing, rotated by renaming or by copying, found again later.

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <filesystem>

#include "folder_watch.h"
#include "log_follower.h"
#include "stop.h"
#include "support/files.h"

namespace {

namespace fs = std::filesystem;

const std::string kFolder = "/tmp/log";
const std::string kLog = kFolder + "/maillog";

class Follower : public testing::Test {
 protected:
  Follower() {
    fs::remove_all(kFolder);
    fs::create_directories(kFolder);
  }
  ~Follower() override { fs::remove_all(kFolder); }

  static void append(const std::string &path, const std::string &text) {
    std::FILE *const file = fopen(path.c_str(), "a");
    ASSERT_NE(file, nullptr);
    fputs(text.c_str(), file);
    ASSERT_EQ(fclose(file), 0);
  }

  // The file's time of last change, so that files made in one instant have an order.
  static void age(const std::string &path, int secondsAgo) {
    const timespec when = {time(nullptr) - secondsAgo, 0};
    const timespec times[] = {when, when};
    ASSERT_EQ(utimensat(AT_FDCWD, path.c_str(), times, 0), 0) << path;
  }

  // Empties the file and writes to it anew, as it happens after a copy was made.
  static void rewrite(const std::string &path, const std::string &text) {
    ASSERT_EQ(truncate(path.c_str(), 0), 0);
    append(path, text);
  }

  // All that there is for now, each line followed by "|".
  static std::string read(LogFollower &log) {
    std::string all;
    for (std::string_view line; log.next(&line);) all.append(line).append("|");
    return all;
  }

  // Reads everything, and gives the position for another run.
  static Position readAll(const std::string &expected) {
    LogFollower log(kLog, std::nullopt);
    EXPECT_EQ(read(log), expected);
    return log.position();
  }
};

TEST_F(Follower, GrowingFile) {
  LogFollower log(kLog, std::nullopt);
  EXPECT_EQ(read(log), "");
  EXPECT_EQ(log.lastLine(), "");
  append(kLog, "one\ntwo\n");
  EXPECT_EQ(read(log), "one|two|");
  EXPECT_EQ(log.lastLine(), "two");
  EXPECT_EQ(read(log), "");
  append(kLog, "three\n\n");
  EXPECT_EQ(read(log), "three||");
  EXPECT_EQ(log.position().mark.offset, 15u);
}

TEST_F(Follower, ALineWithoutItsNewlineIsWaitedFor) {
  append(kLog, "one\ntw");
  LogFollower log(kLog, std::nullopt);
  EXPECT_EQ(read(log), "one|");
  EXPECT_EQ(log.position().mark.offset, 4u);
  append(kLog, "o");
  EXPECT_EQ(read(log), "");
  append(kLog, "\nthree\n");
  EXPECT_EQ(read(log), "two|three|");
}

TEST_F(Follower, LongLinesAndLargeFiles) {
  std::string all, expected;
  for (int i = 0; i < 3000; ++i) {
    const std::string line =
        std::to_string(i) + std::string(static_cast<size_t>(i) % 200, 'x');
    all += line + '\n';
    expected += line + '|';
  }
  append(kLog, all);
  LogFollower log(kLog, std::nullopt);
  EXPECT_EQ(read(log), expected);
  append(kLog, std::string(150000, 'y') + "\nend\n");
  const std::string pieces = read(log);
  EXPECT_EQ(pieces.substr(pieces.size() - 5), "|end|");
  EXPECT_EQ(std::count(pieces.begin(), pieces.end(), 'y'), 150000);
  EXPECT_EQ(log.unread(), 0u);
}

TEST_F(Follower, RenamedAndMadeAnew) {
  append(kLog, "one\n");
  LogFollower log(kLog, std::nullopt);
  EXPECT_EQ(read(log), "one|");
  ASSERT_EQ(rename(kLog.c_str(), (kLog + ".1").c_str()), 0);
  append(kLog + ".1", "two\n");  // its writer does not know yet
  EXPECT_EQ(read(log), "two|");
  append(kLog, "");
  append(kLog + ".1", "three\n");
  EXPECT_EQ(read(log), "three|");
  append(kLog + ".1", "four\nfi");
  append(kLog, "six\n");
  EXPECT_EQ(read(log), "four|fi|six|");
  EXPECT_EQ(log.lastLine(), "six");
  append(kLog, "seven\n");
  EXPECT_EQ(read(log), "seven|");
}

TEST_F(Follower, RemovedAndMadeAnew) {
  append(kLog, "one\n");
  LogFollower log(kLog, std::nullopt);
  EXPECT_EQ(read(log), "one|");
  ASSERT_EQ(unlink(kLog.c_str()), 0);
  EXPECT_EQ(read(log), "");
  append(kLog, "two\n");
  EXPECT_EQ(read(log), "two|");
}

TEST_F(Follower, EmptiedAndFilledAgain) {
  append(kLog, "one\ntwo\n");
  LogFollower log(kLog, std::nullopt);
  EXPECT_EQ(read(log), "one|two|");
  rewrite(kLog, "three\n");  // shorter than before
  EXPECT_EQ(read(log), "three|");
  rewrite(kLog, "four, which is longer than all before\n");
  EXPECT_EQ(read(log), "four, which is longer than all before|");
  ASSERT_EQ(truncate(kLog.c_str(), 0), 0);
  EXPECT_EQ(read(log), "");
  append(kLog, "five\n");
  EXPECT_EQ(read(log), "five|");
}

TEST_F(Follower, CopiedAndEmptied) {
  append(kLog, "one\n");
  LogFollower log(kLog, std::nullopt);
  EXPECT_EQ(read(log), "one|");
  append(kLog, "two\nthr");  // not read before it is moved to the copy
  fs::copy_file(kLog, kLog + "-20261121");
  rewrite(kLog, "four\n");
  EXPECT_EQ(read(log), "two|thr|four|");
}

// ---- Another run

TEST_F(Follower, GoesOnWhereTheLastRunStood) {
  append(kLog, "one\ntwo\n");
  const Position position = readAll("one|two|");
  append(kLog, "three\n");
  LogFollower log(kLog, position);
  EXPECT_EQ(log.lastLine(), "two");
  EXPECT_EQ(log.position().mark.offset, position.mark.offset);
  EXPECT_EQ(read(log), "three|");
}

TEST_F(Follower, EveryRotationMeanwhileIsRead) {
  append(kLog, "one\n");
  const Position position = readAll("one|");
  append(kLog, "two\n");
  ASSERT_EQ(rename(kLog.c_str(), (kLog + ".3").c_str()), 0);
  append(kLog + ".2", "three\n");
  append(kLog + ".1", "four\n");
  append(kLog, "five\n");
  append(kLog + ".9", "long ago\n");
  append(kLog + ".4.gz", "compressed\n");
  append(kLog + ".bak", "somebody's\n");
  append(kFolder + "/maillog2", "another\n");
  age(kLog + ".9", 90);
  age(kLog + ".3", 30);
  age(kLog + ".2", 20);
  age(kLog + ".1", 10);
  LogFollower log(kLog, position);
  EXPECT_EQ(read(log), "two|three|four|five|");
}

TEST_F(Follower, DatedNamesAreRotatedOnesToo) {
  append(kLog, "one\n");
  const Position position = readAll("one|");
  append(kLog, "two\n");
  ASSERT_EQ(rename(kLog.c_str(), (kLog + "-20261120").c_str()), 0);
  append(kLog + ".20261121-021500", "three\n");
  append(kLog, "four\n");
  age(kLog + "-20261120", 30);
  age(kLog + ".20261121-021500", 20);
  LogFollower log(kLog, position);
  EXPECT_EQ(read(log), "two|three|four|");
}

TEST_F(Follower, ACopyMadeMeanwhileIsFound) {
  append(kLog, "one\n");
  const Position position = readAll("one|");
  append(kLog, "two\n");
  fs::copy_file(kLog, kLog + ".1");
  rewrite(kLog, "three is longer than one and two\n");
  age(kLog + ".1", 20);
  LogFollower log(kLog, position);
  EXPECT_EQ(read(log), "two|three is longer than one and two|");
}

TEST_F(Follower, AFileOfTheSameInodeThatIsAnotherBeginsAnew) {
  append(kLog, "one\n");
  Position position = readAll("one|");
  rewrite(kLog, "new one of the same inode\n");
  LogFollower log(kLog, position);
  EXPECT_EQ(read(log), "new one of the same inode|");
}

TEST_F(Follower, AFileOfAnotherDeviceNumberIsKnownByItsText) {
  append(kLog, "one\n");
  Position position = readAll("one|");
  position.device += 1;  // they are given out anew at each start of the machine
  position.inode += 1;
  append(kLog, "two\n");
  LogFollower log(kLog, position);
  EXPECT_EQ(read(log), "two|");
}

TEST_F(Follower, WhenItsFileIsGoneAllThatCameAfterIsRead) {
  append(kLog, "one\n");
  age(kLog, 60);
  const Position position = readAll("one|");
  ASSERT_EQ(unlink(kLog.c_str()), 0);
  append(kLog + ".3", "before\n");
  append(kLog + ".2", "two\n");
  append(kLog + ".1", "three\n");
  append(kLog, "four\n");
  age(kLog + ".3", 90);
  age(kLog + ".2", 30);
  age(kLog + ".1", 20);
  LogFollower log(kLog, position);
  EXPECT_EQ(read(log), "two|three|four|");
}

TEST_F(Follower, AnEmptyFileThatWasRotatedIsKnownByItsInode) {
  append(kLog, "");
  LogFollower first(kLog, std::nullopt);
  EXPECT_EQ(read(first), "");
  const Position position = first.position();
  append(kLog, "one\n");
  ASSERT_EQ(rename(kLog.c_str(), (kLog + ".1").c_str()), 0);
  append(kLog, "two\n");
  LogFollower log(kLog, position);
  EXPECT_EQ(read(log), "one|two|");
}

// Three files, read one after the other; then somebody copies one and touches another.
TEST_F(Follower, WhatWasReadIsNotReadAgainWhenItIsCopiedOrTouched) {
  append(kLog, "one\n");
  LogFollower log(kLog, std::nullopt);
  EXPECT_EQ(read(log), "one|");
  fs::rename(kLog, kLog + ".2");
  append(kLog, "two, of another length\n");
  EXPECT_EQ(read(log), "two, of another length|");
  fs::rename(kLog, kLog + ".1");
  age(kLog + ".1", 10);
  append(kLog, "three\n");
  EXPECT_EQ(read(log), "three|");
  age(kLog, 5);
  fs::copy(kLog + ".1", kLog + ".20261121");
  age(kLog + ".20261121", 3);
  age(kLog + ".2", 2);
  fs::rename(kLog, kLog + ".0");
  append(kLog, "four\n");
  EXPECT_EQ(read(log), "four|");
  // nor by the next run, which has lost the file it stood in
  fs::remove(kLog);
  fs::remove(kLog + ".0");
  append(kLog, "five\n");
  LogFollower next(kLog, log.position());
  EXPECT_EQ(read(next), "five|");
}

TEST_F(Follower, WhatWasRotatedBeforeTheFirstRunIsNeverRead) {
  append(kLog + ".1", "old\n");
  append(kLog, "one\n");
  LogFollower log(kLog, std::nullopt);
  EXPECT_EQ(read(log), "one|");
  age(kLog, 5);
  age(kLog + ".1", 0);
  fs::rename(kLog, kLog + ".2");
  append(kLog, "two\n");
  EXPECT_EQ(read(log), "two|");
}

// Whoever has written to it has not written the same.
TEST_F(Follower, AFinishedFileThatIsAnotherNowIsRead) {
  append(kLog + ".1", "old\n");
  append(kLog, "one\n");
  LogFollower log(kLog, std::nullopt);
  EXPECT_EQ(read(log), "one|");
  age(kLog, 5);
  fs::rename(kLog, kLog + ".2");
  rewrite(kLog + ".1", "new\n");
  age(kLog + ".1", 2);
  append(kLog, "two\n");
  EXPECT_EQ(read(log), "new|two|");
}

TEST_F(Follower, TheEndsOfAHundredFilesAreKept) {
  LogFollower log(kLog, std::nullopt);
  for (int i = 0; i < 102; ++i) {
    append(kLog, std::to_string(1000 + i) + '\n');
    EXPECT_EQ(read(log), std::to_string(1000 + i) + '|');
    fs::rename(kLog, kLog + ".1");
  }
  EXPECT_EQ(log.position().finished.size(), 100u);
}

TEST_F(Follower, WithoutAnyFileItWaitsForOne) {
  append(kLog, "one\n");
  const Position position = readAll("one|");
  ASSERT_EQ(unlink(kLog.c_str()), 0);
  LogFollower log(kLog, position);
  EXPECT_EQ(read(log), "");
  append(kLog, "two\n");
  EXPECT_EQ(read(log), "two|");
}

TEST_F(Follower, ThePositionOfARunThatFoundNoFile) {
  LogFollower none(kLog, std::nullopt);
  EXPECT_EQ(read(none), "");
  append(kLog, "one\n");
  LogFollower log(kLog, none.position());
  EXPECT_EQ(read(log), "one|");
}

TEST_F(Follower, ASymbolicLinkIsFollowed) {
  fs::create_directories(kFolder + "/real");
  append(kFolder + "/real/mail.log", "one\n");
  ASSERT_EQ(symlink("real/mail.log", kLog.c_str()), 0);
  LogFollower log(kLog, std::nullopt);
  EXPECT_EQ(read(log), "one|");
  ASSERT_EQ(rename((kFolder + "/real/mail.log").c_str(),
                   (kFolder + "/real/mail.log.1").c_str()),
            0);
  append(kFolder + "/real/mail.log", "two\n");
  EXPECT_EQ(read(log), "two|");
}

TEST_F(Follower, WhenTheFileWasWrittenLast) {
  append(kLog, "one\n");
  age(kLog, 1000);
  LogFollower log(kLog, std::nullopt);
  read(log);
  EXPECT_NEAR(static_cast<double>(log.written()),
              static_cast<double>(time(nullptr) - 1000), 5);
}

// Cut at every byte: a run that ends anywhere and another that goes on see each line
// once.
TEST_F(Follower, EveryPositionCanBeGoneOnFrom) {
  std::string text;
  for (int i = 0; i < 300; ++i) text += "line " + std::to_string(i * i) + "\n";
  append(kLog, text);
  LogFollower log(kLog, std::nullopt);
  std::string_view line;
  for (size_t done = 0; log.next(&line);) {
    done += line.size() + 1;
    LogFollower other(kLog, log.position());
    std::string rest;
    for (std::string_view more; other.next(&more);) rest.append(more).append("\n");
    ASSERT_EQ(rest, text.substr(done));
  }
}

// ---- Being told of changes

class Watch : public Follower {
 protected:
  static bool told(const FolderWatch &watch) {
    pollfd polled = {watch.fd(), POLLIN, 0};
    return poll(&polled, 1, 0) == 1;
  }
};

TEST_F(Watch, TellsOfEveryKindOfChangeAndOfNoneWithout) {
  FolderWatch watch(kFolder);
  EXPECT_FALSE(told(watch));
  append(kLog, "one\n");
  EXPECT_TRUE(told(watch));
  watch.reset();
  EXPECT_FALSE(told(watch));
  ASSERT_EQ(rename(kLog.c_str(), (kLog + ".1").c_str()), 0);
  EXPECT_TRUE(told(watch));
  watch.reset();
  append(kLog + ".1", "two\n");
  EXPECT_TRUE(told(watch));
  watch.reset();
  ASSERT_EQ(truncate((kLog + ".1").c_str(), 0), 0);
  EXPECT_TRUE(told(watch));
  watch.reset();
  ASSERT_EQ(unlink((kLog + ".1").c_str()), 0);
  EXPECT_TRUE(told(watch));
}

TEST_F(Watch, WaitsForTheFolder) {
  const std::string deep = kFolder + "/a/b/c";
  FolderWatch watch(deep);
  EXPECT_FALSE(told(watch));
  for (const char *step : {"/a", "/a/b", "/a/b/c"}) {
    fs::create_directory(kFolder + step);
    EXPECT_TRUE(told(watch)) << step;
    watch.reset();
    while (told(watch)) watch.reset();
  }
  append(deep + "/maillog", "one\n");
  EXPECT_TRUE(told(watch));
}

TEST_F(Watch, AFolderThatIsMadeAnewIsWatched) {
  FolderWatch watch(kFolder);
  fs::remove_all(kFolder);
  EXPECT_TRUE(told(watch));
  watch.reset();
  fs::create_directory(kFolder);
  EXPECT_TRUE(told(watch));
  watch.reset();
  append(kLog, "one\n");
  EXPECT_TRUE(told(watch));
}

TEST_F(Watch, AFolderThatMayNotBeReadIsAnError) {
  ASSERT_EQ(chmod(kFolder.c_str(), 0), 0);
  EXPECT_THROW(FolderWatch{kFolder}, std::system_error);
  ASSERT_EQ(chmod(kFolder.c_str(), 0755), 0);
}

}  // namespace
