// mailfeed as a process: following, restarts, kills, its status and its failures.

#include <fcntl.h>
#include <gtest/gtest.h>
#include <spawn.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <csignal>
#include <filesystem>
#include <random>
#include <sstream>

#include "programs/receiver.h"
#include "programs/run_program.h"
#include "support/files.h"
#include "support/wait_until.h"

namespace {

namespace fs = std::filesystem;
using Clock = std::chrono::steady_clock;

const std::string kFolder = "/tmp/feed";
const std::string kLog = kFolder + "/log/maillog";
const std::string kState = kFolder + "/state/state";
const std::string kSocket = kFolder + "/sock";
const std::string kErrors = kFolder + "/stderr";
const std::vector<std::string> kFiles = {"--log", kLog,       "--state",
                                         kState,  "--socket", kSocket};

constexpr bool kEmulated = sizeof(TEST_EMULATOR) > 1;

// A feed that runs until it is ended; killed with the test.
class Process {
 public:
  explicit Process(std::vector<std::string> arguments = kFiles) {
    std::vector<std::string> words;
    std::istringstream emulator(TEST_EMULATOR);
    for (std::string word; std::getline(emulator, word, '|');) words.push_back(word);
    words.push_back(TEST_PROGRAM);
    words.insert(words.end(), arguments.begin(), arguments.end());
    std::vector<char *> argv;
    for (std::string &word : words) argv.push_back(word.data());
    argv.push_back(nullptr);
    posix_spawn_file_actions_t actions;
    posix_spawn_file_actions_init(&actions);
    posix_spawn_file_actions_addopen(&actions, STDERR_FILENO, kErrors.c_str(),
                                     O_WRONLY | O_CREAT | O_APPEND, 0644);
    EXPECT_EQ(posix_spawnp(&pid_, argv[0], &actions, nullptr, argv.data(), environ), 0);
    posix_spawn_file_actions_destroy(&actions);
  }
  ~Process() {
    if (pid_ > 0) end(SIGKILL);
  }
  Process(const Process &) = delete;
  Process &operator=(const Process &) = delete;

  // The exit status; 128 and the signal that ended it.
  int end(int signal) {
    kill(pid_, signal);
    int status = 0;
    EXPECT_EQ(waitpid(pid_, &status, 0), pid_);
    pid_ = -1;
    return WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
  }

 private:
  pid_t pid_ = -1;
};

std::string queueId(int number) { return "Q" + std::to_string(100000 + number); }

// All lines of one message that is received.
std::string message(int number) {
  const std::string start = "Nov 21 02:04:20 mail postfix/", id = queueId(number);
  return start + "cleanup[1]: " + id + ": message-id=<" + id + "@x>\n" + start +
         "qmgr[1]: " + id + ": from=<a@x>, size=5, nrcpt=1 (queue active)\n" + start +
         "lmtp[1]: " + id +
         ": to=<b@x>, relay=x[private/dovecot-lmtp], delay=0, delays=0/0/0/0, dsn=2.0.0, "
         "status=sent (ok)\n" +
         start + "qmgr[1]: " + id + ": removed\n";
}

std::string messages(int from, int to) {
  std::string text;
  for (int i = from; i < to; ++i) text += message(i);
  return text;
}

std::vector<std::string> rows(int from, int to) {
  std::vector<std::string> all;
  for (int i = from; i < to; ++i) all.push_back(queueId(i) + " b@x 1");
  return all;
}

void append(const std::string &path, const std::string &text) {
  const int fd = open(path.c_str(), O_WRONLY | O_CREAT | O_APPEND | O_CLOEXEC, 0644);
  ASSERT_GE(fd, 0) << path;
  ASSERT_EQ(write(fd, text.data(), text.size()), static_cast<ssize_t>(text.size()));
  close(fd);
}

class MailFeed : public testing::Test {
 protected:
  MailFeed() {
    fs::remove_all(kFolder);
    for (const char *folder : {"/log", "/state"})
      fs::create_directories(kFolder + folder);
  }
  ~MailFeed() override {
    chmod((kFolder + "/state").c_str(), 0755);
    fs::remove_all(kFolder);
  }

  static Outcome run(std::vector<std::string> arguments, const std::string &input = "") {
    return RUN_TEST_PROGRAM(arguments, input);
  }

  static Outcome status(bool json = false) {
    std::vector<std::string> arguments = {"--status", "--state", kState};
    if (json) arguments.emplace_back("--json");
    return run(arguments);
  }

  static bool said(const std::string &text) {
    return fileExists(kErrors) && readFile(kErrors).find(text) != std::string::npos;
  }
  static void waitForSaying(const std::string &text) {
    waitUntil(text.c_str(), [&] { return said(text); });
  }
  static void waitForStatus(const std::string &text) {
    waitUntil(text.c_str(), [&] {
      return fileExists(kState + ".status") &&
             readFile(kState + ".status").find(text) != std::string::npos;
    });
  }
  // The state is saved after the collector has taken the records.
  static void waitForSaved(int records) {
    waitUntil("saved", [&] {
      if (!fileExists(kState)) return false;
      std::istringstream state(readFile(kState));
      std::string line, word, lines, notUnderstood, sent;
      while (std::getline(state, line))
        if (std::istringstream words(line); words >> word && word == "count")
          words >> lines >> notUnderstood >> sent;
      return sent == std::to_string(records);
    });
  }
};

// ---- Following

TEST_F(MailFeed, WhatIsThereAndWhatComes) {
  append(kLog, messages(0, 3));
  Receiver receiver(kSocket);
  Process feed;
  EXPECT_EQ(receiver.await(3), rows(0, 3));
  append(kLog, messages(3, 4));
  EXPECT_EQ(receiver.await(4), rows(0, 4));
  const LogSocket record = receiver.records()[3];
  EXPECT_STREQ(record.szMessageID, "Q100003@x");
  EXPECT_STREQ(record.szMailFrom, "a@x");
  EXPECT_EQ(record.mail_size, 5);
  EXPECT_EQ(feed.end(SIGTERM), 0);
  EXPECT_EQ(receiver.partialReads(), 0u);
  EXPECT_EQ(readFile(kErrors), "");
}

TEST_F(MailFeed, ALiveLineArrivesWithinASecondAndABatchOnOneConnection) {
  Receiver receiver(kSocket);
  append(kLog, "");
  Process feed;
  append(kLog, messages(0, 1));
  receiver.await(1);
  auto fastest = Clock::duration::max();
  for (int i = 0; i < 3; ++i) {
    const auto start = Clock::now();
    append(kLog, messages(1 + 50 * i, 51 + 50 * i));
    receiver.await(static_cast<size_t>(51 + 50 * i));
    fastest = std::min(fastest, Clock::now() - start);
  }
  EXPECT_LT(fastest, std::chrono::seconds(kEmulated ? 10 : 1));
  EXPECT_EQ(receiver.connections(), 4u);
}

TEST_F(MailFeed, BacklogGoesInConnectionsOfTwentyThousand) {
  append(kLog, messages(0, 45000));
  Receiver receiver(kSocket);
  Process feed;
  EXPECT_EQ(receiver.await(45000), rows(0, 45000));
  EXPECT_EQ(receiver.connections(), 3u);
  EXPECT_EQ(receiver.partialReads(), 0u);
}

TEST_F(MailFeed, TheLogMayAppearLaterWithItsFolder) {
  fs::remove(kFolder + "/log");
  Receiver receiver(kSocket);
  Process feed;
  waitUntil("a running feed", [] { return fileExists(kState + ".lock"); });
  fs::create_directory(kFolder + "/log");
  append(kLog, messages(0, 1));
  EXPECT_EQ(receiver.await(1), rows(0, 1));
}

TEST_F(MailFeed, Rotation) {
  Receiver receiver(kSocket);
  Process feed;
  for (int i = 0; i < 5; ++i) {
    append(kLog, messages(2 * i, 2 * i + 1));
    receiver.await(static_cast<size_t>(2 * i + 1));
    ASSERT_EQ(rename(kLog.c_str(), (kLog + "." + std::to_string(i)).c_str()), 0);
    append(kLog + "." + std::to_string(i), messages(2 * i + 1, 2 * i + 2));
  }
  append(kLog, messages(10, 11));
  EXPECT_EQ(receiver.await(11), rows(0, 11));
}

// ---- Restarts

TEST_F(MailFeed, ARestartNeitherLosesNorRepeats) {
  Receiver receiver(kSocket);
  append(kLog, messages(0, 5));
  {
    Process feed;
    receiver.await(5);
    EXPECT_EQ(feed.end(SIGTERM), 0);
  }
  append(kLog, messages(5, 10));
  Process feed;
  EXPECT_EQ(receiver.await(10), rows(0, 10));
  EXPECT_EQ(feed.end(SIGINT), 0);
}

TEST_F(MailFeed, ARestartAfterARotationNeitherLosesNorRepeats) {
  Receiver receiver(kSocket);
  append(kLog, messages(0, 5));
  {
    Process feed;
    receiver.await(5);
    EXPECT_EQ(feed.end(SIGTERM), 0);
  }
  append(kLog, messages(5, 6));
  ASSERT_EQ(rename(kLog.c_str(), (kLog + ".1").c_str()), 0);
  append(kLog, messages(6, 7));
  Process feed;
  EXPECT_EQ(receiver.await(7), rows(0, 7));
}

TEST_F(MailFeed, AMessageIsKnownAfterARestart) {
  const std::string all = message(0);
  const size_t delivery = all.find("Nov 21 02:04:20 mail postfix/lmtp");
  append(kLog, all.substr(0, delivery));
  Receiver receiver(kSocket);
  {
    Process feed;
    waitForStatus("\"messages_in_queue\": 1");
    EXPECT_EQ(feed.end(SIGTERM), 0);
  }
  append(kLog, all.substr(delivery));
  Process feed;
  EXPECT_EQ(receiver.await(1), rows(0, 1));
  EXPECT_STREQ(receiver.records()[0].szMessageID, "Q100000@x");
  EXPECT_STREQ(receiver.records()[0].szMailFrom, "a@x");
}

TEST_F(MailFeed, AStopSendsWhatIsComplete) {
  Receiver receiver(kSocket);
  Process feed;
  append(kLog, messages(0, 1));
  receiver.await(1);
  append(kLog, messages(1, 2));
  EXPECT_EQ(feed.end(SIGTERM), 0);
  EXPECT_EQ(receiver.records().size(), 2u);
}

// Killed at any moment, while lines come: a new connection begins where the one before it
// ended, or once more where it began, when its end could not be saved any more.
TEST_F(MailFeed, KilledAtRandomMomentsNothingIsLost) {
  constexpr int kMessages = 500;
  std::mt19937 random(static_cast<unsigned>(getpid()));
  Receiver receiver(kSocket);
  int written = 0;
  for (int i = 0; i < (kEmulated ? 10 : 60); ++i) {
    Process feed;
    const int until = std::min(kMessages - 10, written + static_cast<int>(random() % 20));
    for (; written < until; ++written) append(kLog, message(written));
    usleep(static_cast<useconds_t>(random() % (kEmulated ? 400000 : 40000)));
    EXPECT_EQ(feed.end(SIGKILL), 128 + SIGKILL);
  }
  append(kLog, messages(written, kMessages));
  Process feed;
  waitForSaved(kMessages);
  EXPECT_EQ(feed.end(SIGTERM), 0);

  const auto connection = receiver.connectionOfEach();
  const auto came = receiver.await(kMessages);
  int first = 0, expected = 0;
  for (size_t i = 0; i < came.size(); ++i) {
    const int number = std::stoi(came[i].substr(1)) - 100000;
    const bool begins = i == 0 || connection[i] != connection[i - 1];
    ASSERT_TRUE(number == expected || (begins && number == first))
        << number << " came as record " << i << " instead of " << expected;
    if (begins) first = number;
    expected = number + 1;
  }
  EXPECT_EQ(expected, kMessages);
  EXPECT_EQ(receiver.partialReads(), 0u);
}

TEST_F(MailFeed, KilledInABacklogItRepeatsTheUnsavedBatchAlone) {
  append(kLog, messages(0, 50000));
  Receiver receiver(kSocket);
  {
    Process feed;
    receiver.await(25000);  // in the middle of the second connection
    feed.end(SIGKILL);
  }
  Process feed;
  waitForSaved(50000);
  const auto came = receiver.await(50000);
  EXPECT_EQ(std::vector<std::string>(came.begin(), came.begin() + 20000), rows(0, 20000));
  EXPECT_EQ(std::vector<std::string>(came.end() - 10000, came.end()), rows(40000, 50000));
  EXPECT_EQ(std::count(came.begin(), came.end(), rows(0, 1)[0]), 1);
  auto unique = came;
  std::sort(unique.begin(), unique.end());
  unique.erase(std::unique(unique.begin(), unique.end()), unique.end());
  EXPECT_EQ(unique, rows(0, 50000));
}

// ---- A collector that is away

TEST_F(MailFeed, WhileTheCollectorIsAwayTheLogIsTheQueue) {
  append(kLog, messages(0, 3));
  Process feed;
  waitForSaying("mailfeed");
  waitForStatus("\"collector_away\": true");
  EXPECT_TRUE(said("the collector at " + kSocket + " is away; waiting: No such file"));
  EXPECT_NE(status().out.find("records_waiting       3\n"), std::string::npos);
  EXPECT_EQ(feed.end(SIGTERM), 0);
  EXPECT_FALSE(fileExists(kState));
  append(kLog, messages(3, 6));
  fs::remove(kErrors);
  Process again;
  waitForSaying("is away");
  Receiver receiver(kSocket);
  EXPECT_EQ(receiver.await(6), rows(0, 6));
  waitForSaying("the collector at " + kSocket + " is back");
  // without any further line
  waitForStatus(
      "\"records_sent\": 6,\n  \"records_waiting\": 0,\n  \"collector_away\": false");
}

TEST_F(MailFeed, ACollectorThatIsKilledGetsTheBatchAgain) {
  append(kLog, messages(0, 400));
  Process feed;
  {
    Receiver dying(kSocket, 150);
    dying.awaitDeath();
  }
  Receiver receiver(kSocket);
  EXPECT_EQ(receiver.await(400), rows(0, 400));
}

// ---- Standard input

TEST_F(MailFeed, StandardInputIsReadOnce) {
  Receiver receiver(kSocket);
  const std::string all = messages(0, 25000);
  const Outcome outcome =
      run({"--stdin", "--socket", kSocket}, all.substr(0, all.size() - 1));
  EXPECT_EQ(outcome.status, 0);
  EXPECT_EQ(outcome.err,
            "mailfeed: 100000 lines, 0 not understood, 25000 records sent\n");
  EXPECT_EQ(receiver.await(25000), rows(0, 25000));
  EXPECT_EQ(receiver.connections(), 2u);
  EXPECT_FALSE(fileExists(kState));
}

TEST_F(MailFeed, TheYearOfStandardInput) {
  Receiver receiver(kSocket);
  EXPECT_EQ(run({"--stdin", "--year", "2015", "--socket", kSocket}, message(0)).status,
            0);
  const time_t when = receiver.records().at(0).log_time;
  tm broken = {};
  localtime_r(&when, &broken);
  EXPECT_EQ(broken.tm_year, 115);
  EXPECT_EQ(broken.tm_mon, 10);
  EXPECT_EQ(broken.tm_mday, 21);
}

TEST_F(MailFeed, ALineWithoutAnEndIsTakenInPieces) {
  const Outcome outcome =
      run({"--stdin", "--socket", kSocket}, std::string(2 * 65536 + 1, 'x'));
  EXPECT_EQ(outcome.status, 0);
  EXPECT_EQ(outcome.err, "mailfeed: 3 lines, 0 not understood, 0 records sent\n");
}

TEST_F(MailFeed, EmptyStandardInputNeedsNoCollector) {
  const Outcome outcome = run({"--stdin", "--socket", kSocket});
  EXPECT_EQ(outcome.status, 0);
  EXPECT_EQ(outcome.err, "mailfeed: 0 lines, 0 not understood, 0 records sent\n");
}

// ---- Status

TEST_F(MailFeed, StatusTellsWhatWasReadAndWhetherItRuns) {
  const Outcome none = status();
  EXPECT_EQ(none.status, 1);
  EXPECT_NE(none.err.find("the feed has not read anything yet"), std::string::npos);

  append(kLog,
         messages(0, 2) + "Nov 21 02:04:21 mail postfix/lmtp[1]: Q100000: to=<b\x1b[m\n");
  Receiver receiver(kSocket);
  {
    Process feed;
    waitForStatus("\"records_sent\": 2");
    const Outcome running = status();
    EXPECT_EQ(running.status, 0);
    EXPECT_EQ(running.out.substr(running.out.find("last_line_time")).substr(32),
              " 02:04:21\n"
              "lines                 9\n"
              "lines_not_understood  1\n"
              "last_not_understood   Nov 21 02:04:21 mail postfix/lmtp[1]: Q100000: "
              "to=<b\\x1b[m\n"
              "records_sent          2\n"
              "records_waiting       0\n"
              "collector_away        no\n"
              "messages_in_queue     0\n"
              "messages_forgotten    0\n"
              "running               yes\n")
        << running.out;
    EXPECT_NE(running.out.find("last_line             Nov 21 02:04:21 mail"),
              std::string::npos);
    EXPECT_EQ(feed.end(SIGTERM), 0);
  }
  const Outcome ended = status(true);
  EXPECT_EQ(ended.status, 0);
  EXPECT_NE(ended.out.find("\"running\": false"), std::string::npos) << ended.out;
  EXPECT_NE(ended.out.find("\"lines_not_understood\": 1,"), std::string::npos);
  EXPECT_NE(ended.out.find("to=<b\\u001b[m\""), std::string::npos);
}

// As one is that was killed between saving its state and showing it.
TEST_F(MailFeed, AStatusThatIsBehindIsMendedAtTheStart) {
  Receiver receiver(kSocket);
  append(kLog, messages(0, 2));
  {
    Process feed;
    waitForStatus("\"records_sent\": 2");
    EXPECT_EQ(feed.end(SIGTERM), 0);
  }
  fs::remove(kState + ".status");
  Process feed;
  waitForStatus("\"records_sent\": 2");
}

TEST_F(MailFeed, AStatusFileThatIsDamaged) {
  writeFile(kState + ".status", "{");
  EXPECT_EQ(status().status, 1);
  EXPECT_NE(status().err.find(kState + ".status is damaged"), std::string::npos);
  writeFile(kState + ".status",
            "{\"last_line_time\": \"x\", \"lines\": [1], \"z\": 1.5}");
  EXPECT_EQ(status().status, 0);
}

// ---- The background

TEST_F(MailFeed, InTheBackgroundWithAPidFile) {
  const std::string pidFile = kFolder + "/pid";
  append(kLog, messages(0, 1));
  Receiver receiver(kSocket);
  std::vector<std::string> arguments = kFiles;
  arguments.insert(arguments.end(), {"--background", "--pid-file", pidFile});
  const Outcome outcome = run(arguments);
  EXPECT_EQ(outcome.status, 0);
  EXPECT_EQ(outcome.out + outcome.err, "");
  const pid_t pid = std::stoi(readFile(pidFile));
  EXPECT_EQ(receiver.await(1), rows(0, 1));

  const Outcome second = run(arguments);
  EXPECT_EQ(second.status, 1);
  EXPECT_NE(second.err.find("another mailfeed works with " + kState), std::string::npos);
  EXPECT_EQ(std::stoi(readFile(pidFile)), pid);

  kill(pid, SIGTERM);
  waitUntil("the daemon's end", [&] { return !fileExists(pidFile); });
}

TEST_F(MailFeed, InTheBackgroundItHoldsNothingOfItsCaller) {
  const std::string pidFile = kFolder + "/pid";
  std::vector<std::string> arguments = kFiles;
  arguments.insert(arguments.end(), {"--background", "--pid-file", pidFile});
  ASSERT_EQ(chdir(kFolder.c_str()), 0);
  ASSERT_EQ(run(arguments).status, 0);
  ASSERT_EQ(chdir("/"), 0);
  const pid_t pid = std::stoi(readFile(pidFile));
  const fs::path proc = "/proc/" + std::to_string(pid);
  waitUntil("another folder", [&] { return fs::read_symlink(proc / "cwd") == "/"; });
  EXPECT_EQ(getsid(pid), pid);
  for (const char *fd : {"0", "1", "2"})
    EXPECT_EQ(fs::read_symlink(proc / "fd" / fd), "/dev/null");
  kill(pid, SIGTERM);
  waitUntil("the daemon's end", [&] { return !fileExists(pidFile); });
}

TEST_F(MailFeed, APidFileThatCannotBeWrittenStartsNothing) {
  std::vector<std::string> arguments = kFiles;
  arguments.insert(arguments.end(),
                   {"--background", "--pid-file", kFolder + "/none/pid"});
  const Outcome outcome = run(arguments);
  EXPECT_EQ(outcome.status, 1);
  EXPECT_NE(outcome.err.find("cannot write " + kFolder + "/none/pid.new: No such file"),
            std::string::npos)
      << outcome.err;
  EXPECT_NE(status().err.find("has not read anything"), std::string::npos);
  EXPECT_NE(run({"--status", "--state", kState}).out.find("running"), 0u);
}

// ---- Failures

TEST_F(MailFeed, ADamagedStateIsKeptAndTheLogReadFromItsBeginning) {
  append(kLog, messages(0, 2));
  writeFile(kState, "mailfeed-state\t1\nnonsense\n");
  Receiver receiver(kSocket);
  Process feed;
  EXPECT_EQ(receiver.await(2), rows(0, 2));
  waitForSaying(kState + " is damaged and now called " + kState + ".damaged.");
  int kept = 0;
  for (const auto &entry : fs::directory_iterator(kFolder + "/state"))
    if (entry.path().filename().string().find("state.damaged.") == 0) {
      ++kept;
      EXPECT_EQ(readFile(entry.path()), "mailfeed-state\t1\nnonsense\n");
    }
  EXPECT_EQ(kept, 1);
}

TEST_F(MailFeed, AStateThatCannotBeReadStartsNothing) {
  writeFile(kState, "secret", 0);
  const Outcome outcome = run(kFiles);
  EXPECT_EQ(outcome.status, 1);
  EXPECT_NE(outcome.err.find("cannot read " + kState + ": Permission denied"),
            std::string::npos)
      << outcome.err;
}

TEST_F(MailFeed, AFolderThatCannotBeWrittenStartsNothing) {
  ASSERT_EQ(chmod((kFolder + "/state").c_str(), 0555), 0);
  const Outcome outcome = run(kFiles);
  EXPECT_EQ(outcome.status, 1);
  EXPECT_NE(outcome.err.find("cannot write " + kState + ".lock: Permission denied"),
            std::string::npos)
      << outcome.err;
}

TEST_F(MailFeed, ALogFolderThatCannotBeReadStartsNothing) {
  ASSERT_EQ(chmod((kFolder + "/log").c_str(), 0), 0);
  const Outcome outcome = run(kFiles);
  EXPECT_EQ(outcome.status, 1);
  EXPECT_NE(outcome.err.find("cannot watch " + kFolder + "/log: Permission denied"),
            std::string::npos)
      << outcome.err;
  ASSERT_EQ(chmod((kFolder + "/log").c_str(), 0755), 0);
}

// The records go on; what a restart would repeat grows until saving works again.
TEST_F(MailFeed, SavingThatFailsIsToldAndTriedAgain) {
  Receiver receiver(kSocket);
  Process feed;
  append(kLog, messages(0, 1));
  waitForSaved(1);
  ASSERT_EQ(chmod((kFolder + "/state").c_str(), 0555), 0);
  append(kLog, messages(1, 2));
  waitForSaying("cannot write " + kState +
                ".new: Permission denied; a restart would repeat records");
  append(kLog, messages(2, 3));
  EXPECT_EQ(receiver.await(3), rows(0, 3));
  ASSERT_EQ(chmod((kFolder + "/state").c_str(), 0755), 0);
  append(kLog, messages(3, 4));
  waitForSaying("saving works again");
  waitForSaved(4);
}

TEST_F(MailFeed, WrongUsage) {
  const std::vector<std::vector<std::string>> wrong = {{"x"},
                                                       {"--pid-file", "/tmp/pid"},
                                                       {"--json"},
                                                       {"--year", "2020"},
                                                       {"--stdin", "--year", "1969"},
                                                       {"--stdin", "--year", "x"},
                                                       {"--stdin", "--status"},
                                                       {"--stdin", "--background"},
                                                       {"--status", "--background"},
                                                       {"--log"},
                                                       {"--\x1b"}};
  for (const auto &arguments : wrong) {
    const Outcome outcome = run(arguments);
    EXPECT_EQ(outcome.status, 2) << arguments[0];
    EXPECT_EQ(outcome.err.substr(0, 10), "mailfeed: ");
    EXPECT_EQ(outcome.err.find('\x1b'), std::string::npos);
  }
  EXPECT_EQ(run({"--help"}).status, 0);
  EXPECT_EQ(run({"--version"}).out.substr(0, 9), "mailfeed ");
}

}  // namespace
