// Settings files under several writers, and under writers that are killed.

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/file.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <csignal>
#include <random>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

#include "children.h"
#include "kestcore.h"
#include "support/files.h"
#include "table.h"
#include "temp_folder.h"

namespace {

constexpr int kProcesses = 8;
constexpr int kRounds = 100;
constexpr int kKeys = 5;

std::string keyOf(int process, int number) {
  return "group" + std::to_string(process) + "_key" + std::to_string(number);
}

// One save of one group; all of its values are the text.
bool saveGroup(const std::string &path, int process, const std::string &text) {
  Table group;
  for (int k = 0; k < kKeys; ++k) group.set(keyOf(process, k), text);
  return group.save(path) == 0;
}

bool groupIs(const std::string &path, int process, const std::string &text) {
  Table table;
  if (table.load(path) < 0) return false;
  for (int k = 0; k < kKeys; ++k)
    if (table.get(keyOf(process, k)) != text) return false;
  return true;
}

TEST(SettingsFileRace, eightProcessesSavingEightGroupsLoseNoKey) {
  TempFolder folder;
  const std::string path = folder / "postwell.conf";
  writeFile(path, "# kept\n");
  const int failed = runTogether(kProcesses, [&](int process) {
    for (int round = 1; round <= kRounds; ++round) {
      const std::string text = std::to_string(round);
      if (!saveGroup(path, process, text) || !groupIs(path, process, text)) return 1;
    }
    return 0;
  });
  EXPECT_EQ(failed, 0);
  Table table;
  EXPECT_EQ(table.load(path), kProcesses * kKeys);
  for (int process = 0; process < kProcesses; ++process)
    EXPECT_TRUE(groupIs(path, process, std::to_string(kRounds))) << process;
  EXPECT_EQ(readFile(path).substr(0, 7), "# kept\n");
}

TEST(SettingsFileRace, sectionsAndKeysOfOneFileShareTheLock) {
  TempFolder folder;
  const std::string path = folder / "file";
  writeFile(path, "k0=\"0\"\nk2=\"0\"\n[s]\n");
  const int failed = runTogether(4, [&](int process) {
    const std::string key = "k" + std::to_string(process);
    for (int round = 1; round <= kRounds; ++round) {
      const std::string text = std::to_string(round);
      const int result =
          process % 2 == 0
              ? KLIBCFileSetKeyValue(path.c_str(), key.c_str(), text.c_str(), nullptr)
              : KLIBCFileSetSectionValue(path.c_str(), "s", key.c_str(), text.c_str(),
                                         nullptr);
      if (result != 0) return 1;
    }
    return 0;
  });
  EXPECT_EQ(failed, 0);
  const std::string last = "=\"" + std::to_string(kRounds) + "\"\n";
  const std::string content = readFile(path);
  EXPECT_EQ(content.find("k0" + last + "k2" + last + "[s]\n"), 0u) << content;
  EXPECT_NE(content.find("k1" + last), std::string::npos) << content;
  EXPECT_NE(content.find("k3" + last), std::string::npos) << content;
  EXPECT_EQ(content.size(), 4 * ("k0" + last).size() + 4);
}

TEST(SettingsFileRace, readerSeesTheOldFileOrTheNewOneWhole) {
  TempFolder folder;
  const std::string path = folder / "postwell.conf";
  ASSERT_TRUE(saveGroup(path, 0, std::string(20000, 'a')));
  const pid_t writer = startChild([&] {
    for (int i = 0;; ++i) saveGroup(path, 0, std::string(20000, i % 2 == 0 ? 'b' : 'a'));
    return 0;
  });
  int torn = 0;
  for (int i = 0; i < 300; ++i) {
    Table table;
    const bool read = table.load(path) == kKeys;
    const std::string first = table.get(keyOf(0, 0));
    bool whole = read && first.size() == 20000;
    for (int k = 1; k < kKeys; ++k) whole = whole && table.get(keyOf(0, k)) == first;
    torn += whole ? 0 : 1;
  }
  kill(writer, SIGKILL);
  endOf(writer);
  EXPECT_EQ(torn, 0);
}

// The writer alternates between two whole contents; whatever the moment of its
// death, one of the two stands there and the next writer is not held up.
TEST(SettingsFileRace, killAtAnyMomentLeavesTheOldFileOrTheNewOne) {
  TempFolder folder;
  const std::string path = folder / "postwell.conf";
  const std::string texts[] = {std::string(9000, 'a'), std::string(5000, 'b')};
  ASSERT_TRUE(saveGroup(path, 0, texts[0]));
  std::mt19937 random(20260101);
  std::uniform_int_distribution<int> microseconds(0, 700);
  for (int round = 0; round < 200; ++round) {
    int started[2];
    ASSERT_EQ(pipe(started), 0);
    const pid_t writer = startChild([&] {
      for (int i = 0;; ++i) {
        if (!saveGroup(path, 0, texts[i % 2])) return 1;
        if (i == 0 && write(started[1], "x", 1) != 1) return 2;
      }
    });
    char byte;
    ASSERT_EQ(read(started[0], &byte, 1), 1);
    std::this_thread::sleep_for(std::chrono::microseconds(microseconds(random)));
    ASSERT_EQ(kill(writer, SIGKILL), 0);
    const int status = endOf(writer);
    ASSERT_TRUE(WIFSIGNALED(status) && WTERMSIG(status) == SIGKILL) << status;
    close(started[0]);
    close(started[1]);
    ASSERT_TRUE(groupIs(path, 0, texts[0]) || groupIs(path, 0, texts[1]))
        << "round " << round;
    const int lock = open((path + ".lock").c_str(), O_RDWR | O_CLOEXEC);
    ASSERT_GE(lock, 0);
    ASSERT_EQ(flock(lock, LOCK_EX | LOCK_NB), 0) << "round " << round;
    close(lock);
  }
  EXPECT_TRUE(saveGroup(path, 0, "final"));
  EXPECT_TRUE(groupIs(path, 0, "final"));
  EXPECT_EQ(folder.names(), std::vector<std::string>{"postwell.conf"});
}

TEST(SettingsFileRace, writerWaitsForTheLockOfAnother) {
  TempFolder folder;
  const std::string path = folder / "postwell.conf";
  ASSERT_TRUE(saveGroup(path, 0, "old"));
  const int lock = open((path + ".lock").c_str(), O_RDWR | O_CLOEXEC);
  ASSERT_EQ(flock(lock, LOCK_EX), 0);
  const pid_t writer = startChild([&] {
    close(lock);
    return saveGroup(path, 0, "new") ? 0 : 1;
  });
  // /proc/locks shows a waiter as "-> FLOCK … <pid> …".
  const std::string waiter = " " + std::to_string(writer) + " ";
  bool waits = false;
  siginfo_t ended = {};  // stays empty while the writer lives
  while (!waits &&
         waitid(P_PID, static_cast<id_t>(writer), &ended, WEXITED | WNOHANG | WNOWAIT) ==
             0 &&
         ended.si_pid == 0) {
    std::istringstream locks(readFile("/proc/locks"));
    for (std::string line; std::getline(locks, line);)
      waits = waits || (line.find("->") != std::string::npos &&
                        line.find(waiter) != std::string::npos);
  }
  EXPECT_TRUE(waits);
  EXPECT_TRUE(groupIs(path, 0, "old"));
  close(lock);
  EXPECT_EQ(endOf(writer), 0);
  EXPECT_TRUE(groupIs(path, 0, "new"));
}

}  // namespace
