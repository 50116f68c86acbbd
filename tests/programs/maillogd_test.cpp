// The logging daemon as a process: what it answers, what it leaves, how it ends.

#include <fcntl.h>
#include <grp.h>
#include <poll.h>
#include <sys/prctl.h>
#include <sys/resource.h>
#include <sys/select.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

#include <chrono>
#include <csignal>
#include <cstdio>
#include <cstring>
#include <fstream>
#include <functional>

#include "platform/children.h"
#include "run_program.h"
#include "support/database.h"
#include "support/files.h"
#include "support/mail_log.h"
#include "support/package_tree.h"
#include "support/syslog_reader.h"

namespace {

using namespace collector;
using database::rowsOf;

const std::string kPidFile = "/run/postwell/maillogd.pid";

// Senders of the test are served within this time; an emulated one needs it.
constexpr int kPatienceMs = 20'000;

constexpr int kUntilServed = 500;  // records

constexpr int kFewDescriptors = 30;  // are free below FD_SETSIZE for some daemons

// A connection to the daemon.
class Sender {
 public:
  Sender() : fd_(socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0)) {
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    strcpy(address.sun_path, kSocket.c_str());
    connected = connect(fd_, reinterpret_cast<sockaddr *>(&address), sizeof address) == 0;
  }
  ~Sender() { close(fd_); }
  Sender(const Sender &) = delete;
  Sender &operator=(const Sender &) = delete;

  void send(int number) { EXPECT_TRUE(trySend(bytesOf(numbered(number)))); }

  bool trySend(const std::string &bytes) {
    return ::send(fd_, bytes.data(), bytes.size(), MSG_NOSIGNAL) ==
           static_cast<ssize_t>(bytes.size());
  }

  // More than a connection holds that is not being served.
  void sendUntilServed() {
    for (int i = 0; i < kUntilServed; i++) send(i);
  }

  // Says that there is nothing more, and waits for the daemon to have read it all; false
  // when it was not served.
  bool finish() {
    shutdown(fd_, SHUT_WR);
    return waitForEnd();
  }

  // Waits for the daemon to close the connection; false when it was not served.
  bool waitForEnd() {
    pollfd ended = {fd_, POLLIN, 0};
    EXPECT_EQ(poll(&ended, 1, kPatienceMs), 1) << "not served";
    char byte;
    return read(fd_, &byte, 1) == 0;
  }

  bool connected;

 private:
  int fd_;
};

class MaillogdTest : public testing::Test {
 protected:
  MaillogdTest() {
    prctl(PR_SET_CHILD_SUBREAPER, 1);  // or init reaps what runs in the background
    for (const std::string &file : {kPidFile, kSocket}) unlink(file.c_str());
    umask(022);
  }

  ~MaillogdTest() override {
    if (fileExists(kPidFile)) kill(pid(), SIGKILL);
    while (waitpid(-1, nullptr, 0) > 0) {
    }
  }

  // A daemon in the foreground of a process of its own, which has served somebody. That
  // it can be connected to is not enough: it has no log yet then.
  // What `prepare` does, it finds.
  void startWell(
      const std::vector<std::string> &arguments = {},
      const std::function<void()> &prepare = [] {}) {
    caller_ = startChild([&] {
      prepare();
      const Outcome outcome = RUN_TEST_PROGRAM(arguments);
      fputs(outcome.err.c_str(), stderr);
      return outcome.status;
    });
    for (;;) {
      Sender sender;
      if (sender.connected && sender.finish()) break;
      ASSERT_EQ(waitpid(caller_, nullptr, WNOHANG), 0) << "it has ended";
      poll(nullptr, 0, 10);
    }
  }

  // Ends it by a signal; its exit status, or 128 and the signal.
  int stop(int signal = SIGTERM) {
    EXPECT_EQ(kill(pid(), signal), 0);
    return statusOf(caller_);
  }

  static int statusOf(pid_t child) {
    const int status = endOf(child);
    return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
  }

  static Outcome startInBackground(std::vector<std::string> arguments = {}) {
    arguments.insert(arguments.begin(), "--background");
    return RUN_TEST_PROGRAM(arguments);
  }

  static void startWellInBackground(const std::vector<std::string> &arguments = {}) {
    const Outcome outcome = startInBackground(arguments);
    ASSERT_EQ(outcome.status, 0) << outcome.err;
    EXPECT_EQ(outcome.out + outcome.err, "");
  }

  static void stopInBackground(const std::string &pidFile = kPidFile) {
    const pid_t daemon = pid(pidFile);
    EXPECT_EQ(kill(daemon, SIGTERM), 0);
    const auto end = std::chrono::steady_clock::now() + std::chrono::seconds(30);
    while (kill(daemon, 0) == 0) {
      waitpid(daemon, nullptr, WNOHANG);
      ASSERT_LT(std::chrono::steady_clock::now(), end);
      poll(nullptr, 0, 10);
    }
  }

  static pid_t pid(const std::string &file = kPidFile) {
    return std::stoi(readFile(file));
  }

  pid_t caller_ = -1;
  PackageTree tree;
  SyslogReader log;
};

mode_t modeOf(const std::string &path) {
  struct stat st;
  EXPECT_EQ(stat(path.c_str(), &st), 0) << path;
  return st.st_mode & 07777;
}

// ---- usage

TEST_F(MaillogdTest, UsageIsExplainedAndWrongUsageRefused) {
  Outcome outcome = RUN_TEST_PROGRAM({"--help"});
  EXPECT_EQ(outcome.status, 0);
  for (const char *option :
       {"--background", "--pid-file", "--cache-time", "--rotate-threshold", "--group"})
    EXPECT_NE(outcome.out.find(option), std::string::npos) << option;
  EXPECT_EQ(RUN_TEST_PROGRAM({"--version"}).out, "maillogd " TEST_VERSION "\n");
  for (const std::vector<std::string> &wrong :
       std::vector<std::vector<std::string>>{{"--cache-time", "-1"},
                                             {"--cache-time", "86401"},
                                             {"--cache-time", "x"},
                                             {"--rotate-threshold", "0"},
                                             {"--rotate-threshold", "2147483648"},
                                             {"--group", "no\ngroup"},
                                             {"--unknown"},
                                             {"extra"}}) {
    outcome = RUN_TEST_PROGRAM(wrong);
    EXPECT_EQ(outcome.status, 2) << wrong[0];
    EXPECT_EQ(outcome.err.find("maillogd: "), 0u) << outcome.err;
  }
  EXPECT_FALSE(fileExists(kSocket));
}

// ---- collecting

TEST_F(MaillogdTest, WhatIsSentIsStoredWhenItEnds) {
  startWell({"--cache-time", "86400"});
  {
    Sender sender;
    ASSERT_TRUE(sender.connected);
    sender.send(1);
    sender.send(2);
    sender.finish();
  }
  EXPECT_EQ(idsIn(kLog), Rows());
  EXPECT_EQ(stop(), 0);
  EXPECT_EQ(idsIn(kLog), (Rows{"1", "2"}));
  EXPECT_EQ(rowsOf(kStatistic, "select inbound_quantity from log_statistic_hour;"),
            Rows{"2"});
  EXPECT_FALSE(fileExists(kSocket));
  EXPECT_FALSE(fileExists(kPidFile));
}

TEST_F(MaillogdTest, WithoutACacheTimeItStoresBeforeItServesTheNext) {
  startWell();
  Sender sender;
  sender.send(1);
  sender.finish();
  Sender next;  // served when the pass of the first is over
  next.finish();
  EXPECT_EQ(idsIn(kLog), Rows{"1"});
  EXPECT_EQ(stop(), 0);
}

TEST_F(MaillogdTest, TheRotateThresholdIsItsArgument) {
  startWell({"--rotate-threshold", "2"});
  Sender sender;
  for (int i = 0; i < 3; i++) sender.send(i);
  sender.finish();
  Sender next;
  next.finish();
  EXPECT_EQ(stop(), 0);
  EXPECT_EQ(idsIn(kLog), Rows());
  ASSERT_EQ(savedLogs().size(), 1u);
  EXPECT_EQ(countIn(kFolder + savedLogs().at(0)), 3);
}

TEST_F(MaillogdTest, EverySignalOfItsKindEndsItAtOnce) {
  for (const int signal : {SIGTERM, SIGINT, SIGHUP}) {
    startWell();
    Sender sender;
    sender.send(signal);
    sender.finish();
    EXPECT_EQ(stop(signal), 0) << signal;
  }
  EXPECT_EQ(idsIn(kLog).size(), 3u);
}

// A sender may stay connected without a word.
TEST_F(MaillogdTest, ASilentSenderDoesNotKeepItFromEnding) {
  startWell();
  Sender silent;
  silent.sendUntilServed();
  Sender waiting;
  EXPECT_EQ(stop(), 0);
  EXPECT_TRUE(silent.waitForEnd());
  EXPECT_FALSE(waiting.waitForEnd()) << "knows that it was not served";
  EXPECT_EQ(countIn(kLog), kUntilServed);
}

TEST_F(MaillogdTest, ASenderWhoIsAtItMayFinish) {
  startWell();
  Sender sender;
  sender.sendUntilServed();
  ASSERT_EQ(kill(pid(), SIGTERM), 0);
  sender.sendUntilServed();
  sender.finish();
  EXPECT_EQ(statusOf(caller_), 0);
  EXPECT_EQ(countIn(kLog), 2 * kUntilServed);
}

// Sends until it is cut off, and says when it is being served; 1 when it is not cut off.
int sendOnAndOn(int told) {
  std::string many;  // so that there is always something to read
  for (int i = 0; i < 100; i++) many += bytesOf(numbered(i));
  Sender sender;
  sender.sendUntilServed();
  EXPECT_EQ(write(told, "", 1), 1);
  for (int i = 0; i < 3000; i++)
    if (!sender.trySend(many)) return 0;
  return 1;
}

// Its patience over, the daemon ends although the sender does not. Each log that is made
// keeps a descriptor, so the connection's may be any, in the end.
TEST_F(MaillogdTest, ASenderWhoGoesOnAndOnIsCutOffWhateverItsDescriptor) {
  for (const int left : {FD_SETSIZE, kFewDescriptors}) {
    startWell({"--rotate-threshold", "1"}, [left] {
      const rlimit more = {FD_SETSIZE, 2 * FD_SETSIZE};  // which it has to use
      EXPECT_EQ(setrlimit(RLIMIT_NOFILE, &more), 0);
      for (int fd = left; fd < FD_SETSIZE; fd++) EXPECT_EQ(dup2(0, fd), fd);
    });
    for (int i = 0; i < kFewDescriptors; i++) {
      Sender sender;
      sender.send(i);
      sender.send(i);
      sender.finish();
    }
    int told[2];
    ASSERT_EQ(pipe(told), 0);
    const pid_t endless = startChild([&told] { return sendOnAndOn(told[1]); });
    char byte;
    EXPECT_EQ(read(told[0], &byte, 1), 1);
    for (const int fd : told) close(fd);
    EXPECT_EQ(kill(pid(), SIGALRM), 0);
    EXPECT_EQ(endOf(endless), 0) << left;
    EXPECT_EQ(statusOf(caller_), 0);
  }
}

// ---- one at a time

TEST_F(MaillogdTest, ASecondOneIsRefusedAndTheFirstGoesOn) {
  startWell();
  for (const std::vector<std::string> &arguments : std::vector<std::vector<std::string>>{
           {}, {"--background"}, {"--pid-file", "/tmp/other.pid"}}) {
    const Outcome outcome = RUN_TEST_PROGRAM(arguments);
    EXPECT_EQ(outcome.status, 1);
    EXPECT_EQ(outcome.err, "maillogd: another maillogd is running\n");
  }
  EXPECT_FALSE(fileExists("/tmp/other.pid"));
  Sender sender;
  EXPECT_TRUE(sender.connected);
  sender.send(1);
  sender.finish();
  EXPECT_EQ(stop(), 0);
  EXPECT_EQ(idsIn(kLog), Rows{"1"});
}

// A file that got the number of a closed stream would be written into.
TEST_F(MaillogdTest, WithoutStandardErrorItSaysNothing) {
  startWell();
  const Outcome second =
      runNative("/bin/sh", {"-c", "exec " TEST_SHELL_PROGRAM " 2>&- >&- <&-"});
  EXPECT_EQ(second.status, 1);
  EXPECT_EQ(readFile("/var/run/maillog.sock.lock"), "");
}

TEST_F(MaillogdTest, AfterAKillTheNextOneStartsAndEndsNobody) {
  startWell();
  Sender().finish();  // its files are made once someone has been served
  EXPECT_EQ(stop(SIGKILL), 128 + SIGKILL);
  ASSERT_TRUE(fileExists(kPidFile));
  ASSERT_TRUE(fileExists(kSocket));
  const pid_t bystander = startChild([] {
    alarm(60);  // at the latest
    pause();
    return 0;
  });
  writeFile(kPidFile, std::to_string(bystander) + "\n");
  startWell();
  EXPECT_EQ(kill(bystander, 0), 0);
  EXPECT_EQ(waitpid(bystander, nullptr, WNOHANG), 0);
  EXPECT_NE(pid(), bystander);
  kill(bystander, SIGKILL);
  endOf(bystander);
  Sender sender;
  EXPECT_TRUE(sender.connected);
  sender.finish();
  EXPECT_EQ(stop(), 0);
}

// ---- its surroundings

TEST_F(MaillogdTest, SocketAndFilesAreForItsOwnerAlone) {
  startWellInBackground();
  EXPECT_EQ(modeOf(kSocket), 0600u);
  EXPECT_EQ(modeOf(kLog), 0600u);
  EXPECT_EQ(modeOf(kStatistic), 0600u);
  EXPECT_EQ(modeOf(kPidFile), 0644u);
  stopInBackground();
}

TEST_F(MaillogdTest, AGroupMayConnectWhenItIsNamed) {
  gid_t own = getegid();
  if (geteuid() == 0) own = 2;  // any
  const group *found = getgrgid(own);
  ASSERT_NE(found, nullptr);
  startWellInBackground({"--group", found->gr_name});
  struct stat st;
  ASSERT_EQ(stat(kSocket.c_str(), &st), 0);
  EXPECT_EQ(st.st_mode & 07777, 0660u);
  EXPECT_EQ(st.st_gid, own);
  EXPECT_EQ(st.st_uid, geteuid());
  stopInBackground();
}

TEST_F(MaillogdTest, InTheBackgroundItHoldsNothingOfItsCaller) {
  const std::string place = "/tmp/place";
  mkdir(place.c_str(), 0755);
  ASSERT_EQ(chdir(place.c_str()), 0);
  startWellInBackground({"--pid-file", "own.pid"});
  ASSERT_EQ(chdir("/"), 0);
  ASSERT_TRUE(fileExists(place + "/own.pid"));
  const pid_t daemon = pid(place + "/own.pid");
  const std::string proc = "/proc/" + std::to_string(daemon);
  EXPECT_EQ(getsid(daemon), getpgid(daemon));
  EXPECT_NE(getsid(daemon), getsid(0));
  char target[256] = "";
  EXPECT_GT(readlink((proc + "/cwd").c_str(), target, sizeof target - 1), 0);
  EXPECT_STREQ(target, "/");
  for (const char *fd : {"0", "1", "2"}) {
    memset(target, 0, sizeof target);
    EXPECT_GT(readlink((proc + "/fd/" + fd).c_str(), target, sizeof target - 1), 0);
    EXPECT_STREQ(target, "/dev/null");
  }
  stopInBackground(place + "/own.pid");
}

TEST_F(MaillogdTest, InTheForegroundItStaysWithItsCaller) {
  startWell();
  EXPECT_EQ(getsid(pid()), getsid(0));
  EXPECT_EQ(stop(), 0);
}

TEST_F(MaillogdTest, InTheBackgroundItStoresWhatItHasWhenItEnds) {
  startWellInBackground();
  Sender sender;
  sender.send(1);
  sender.finish();
  stopInBackground();
  EXPECT_EQ(idsIn(kLog), Rows{"1"});
  EXPECT_FALSE(fileExists(kPidFile));
}

long residentKilobytes(pid_t process) {
  std::ifstream status("/proc/" + std::to_string(process) + "/status");
  for (std::string line; std::getline(status, line);)
    if (line.rfind("VmRSS:", 0) == 0) return std::stol(line.substr(6));
  return 0;
}

// A burst's memory is given back when nobody has sent for a pass.
TEST_F(MaillogdTest, AtRestItNeedsLittleMemory) {
  startWell();
  Sender sender;
  for (int i = 0; i < 20'000; i++) sender.send(i);
  sender.finish();
  if (std::string(TEST_EMULATOR).empty()) {  // an emulator's memory is its own
    const auto end = std::chrono::steady_clock::now() + std::chrono::seconds(30);
    long kilobytes;
    while ((kilobytes = residentKilobytes(pid())) > TEST_MEMORY_KILOBYTES &&
           std::chrono::steady_clock::now() < end)
      poll(nullptr, 0, 50);
    EXPECT_GT(kilobytes, 0);
    EXPECT_LE(kilobytes, TEST_MEMORY_KILOBYTES);
    printf("%ld KB at rest\n", kilobytes);
  }
  EXPECT_EQ(stop(), 0);
  EXPECT_EQ(countIn(kLog), 20'000);
}

// ---- failures

TEST_F(MaillogdTest, ACollectorThatCannotStartEndsItWithAMessage) {
  writeFile(kStatistic, std::string(8192, 'x'));
  for (const Outcome &outcome : {startInBackground(), RUN_TEST_PROGRAM({})}) {
    EXPECT_EQ(outcome.status, 1);
    EXPECT_EQ(outcome.err,
              "maillogd: the collector cannot start; the system log tells why\n");
  }
  EXPECT_FALSE(fileExists(kPidFile));
  EXPECT_FALSE(fileExists(kSocket));
}

// A log that could not be made and was removed: the collector reports no error.
TEST_F(MaillogdTest, ACollectorThatReportsNoErrorButIsNotUsableEndsItWithAMessage) {
  for (const std::vector<std::string> &arguments :  // each as soon as the one before ends
       std::vector<std::vector<std::string>>{{}, {"--background"}, {}}) {
    const Outcome outcome = runBuilt(TEST_EMULATOR, TEST_UNUSABLE_PROGRAM, arguments);
    unlink(kLog.c_str());  // made at the end
    EXPECT_EQ(outcome.status, 1);
    EXPECT_EQ(outcome.err,
              "maillogd: the mail log was damaged and has been removed; start again\n");
    EXPECT_FALSE(fileExists(kPidFile));
  }
}

TEST_F(MaillogdTest, APidFileThatCannotBeWrittenEndsItWithAMessage) {
  const Outcome outcome = startInBackground({"--pid-file", "/proc/none/own.pid"});
  EXPECT_EQ(outcome.status, 1);
  EXPECT_EQ(outcome.err.find("maillogd: cannot become a daemon with pid file "
                             "/proc/none/own.pid: "),
            0u)
      << outcome.err;
  EXPECT_FALSE(fileExists(kSocket));
}

// /var/run may be more open than the folders of its files.
TEST_F(MaillogdTest, ALockThatIsALinkEndsItWithAMessageAndMakesNothing) {
  const std::string lock = kSocket + ".lock";
  unlink(lock.c_str());
  ASSERT_EQ(symlink("/tmp/elsewhere", lock.c_str()), 0);
  const Outcome outcome = startInBackground();
  unlink(lock.c_str());
  EXPECT_EQ(outcome.status, 1);
  EXPECT_EQ(outcome.err, "maillogd: " + lock + ": Too many levels of symbolic links\n");
  EXPECT_FALSE(fileExists("/tmp/elsewhere"));
}

TEST_F(MaillogdTest, AFailureThatIsOverByTheEndIsNotToldInTheExitStatus) {
  startWell();
  const std::string aside = kLog + ".aside";
  ASSERT_EQ(rename(kLog.c_str(), aside.c_str()), 0);
  writeFile(kLog, std::string(8192, 'x'));
  for (int i = 1; i <= 2; i++) {  // the second is served when the first could be stored
    Sender sender;
    sender.send(i);
    sender.finish();
  }
  ASSERT_EQ(rename(aside.c_str(), kLog.c_str()), 0);
  EXPECT_EQ(stop(), 0);
  EXPECT_EQ(idsIn(kLog), (Rows{"1", "2"}));
}

TEST_F(MaillogdTest, EntriesThatCannotBeStoredAreToldInTheExitStatus) {
  startWell({"--cache-time", "86400"});
  Sender sender;
  sender.send(1);
  sender.finish();
  writeFile(kLog, std::string(8192, 'x'));
  EXPECT_EQ(stop(), 1);
}

}  // namespace
