// KLIBCExec: what the child is given, and what its end is taken for.
//
// The children are the machine's own programs and scripts, so that the test also
// runs where this program itself is emulated.

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <sys/time.h>
#include <unistd.h>

#include <atomic>
#include <csignal>
#include <cstdlib>
#include <filesystem>
#include <string>
#include <thread>
#include <vector>

#include "kestcore.h"
#include "support/files.h"
#include "temp_folder.h"

namespace {

// While it lives, this process's descriptor `fd` leads to a file.
class Redirect {
 public:
  Redirect(int fd, const std::string &path, int flags)
      : fd_(fd), saved_(fcntl(fd, F_DUPFD_CLOEXEC, 10)) {
    const int file = open(path.c_str(), flags | O_CLOEXEC, 0644);
    EXPECT_GE(file, 0) << path;
    EXPECT_EQ(dup2(file, fd), fd);
    close(file);
  }
  Redirect(const Redirect &) = delete;
  Redirect &operator=(const Redirect &) = delete;
  ~Redirect() {
    EXPECT_EQ(dup2(saved_, fd_), fd_);
    close(saved_);
  }

 private:
  int fd_;
  int saved_;
};

class Exec : public testing::Test {
 protected:
  std::string script(const std::string &body, mode_t mode = 0755) {
    writeFile(folder / "script", body, mode);
    return folder / "script";
  }

  // What the program writes to its standard output.
  std::string outputOf(const std::string &program, const char *arg1 = nullptr,
                       const char *arg2 = nullptr, const char *arg3 = nullptr,
                       const char *arg4 = nullptr) {
    fflush(stdout);
    {
      const Redirect output(1, folder / "output", O_WRONLY | O_CREAT | O_TRUNC);
      EXPECT_EQ(KLIBCExec(program.c_str(), arg1, arg2, arg3, arg4), 0);
    }
    return readFile(folder / "output");
  }

  // The set after a name such as "SigBlk:" in /proc/self/status of a child, standard
  // signals only: of the others the C library keeps some for itself.
  unsigned long long signalsOf(const std::string &status, const std::string &name) {
    return std::stoull(status.substr(status.find(name) + name.size()), nullptr, 16) &
           0x7fffffff;
  }

  TempFolder folder;
};

const char kPrint[] = "#!/bin/sh\nprintf '%s\\n' \"$#\" \"$@\"\n";

TEST_F(Exec, statusZeroIsZero) {
  EXPECT_EQ(KLIBCExec("/bin/true", nullptr, nullptr, nullptr, nullptr), 0);
  EXPECT_EQ(KLIBCExec("/bin/sh", "-c", "exit 0", nullptr, nullptr), 0);
}

TEST_F(Exec, everyOtherEndIsNegative) {
  for (const char *end : {"exit 1", "exit 2", "exit 126", "exit 127", "exit 255",
                          "kill -TERM $$", "kill -KILL $$"}) {
    EXPECT_LT(KLIBCExec("/bin/sh", "-c", end, nullptr, nullptr), 0) << end;
    EXPECT_EQ(KLIBCErrGet(), KLIBC_ERR_EXEC_FAILED);
  }
}

TEST_F(Exec, whatCannotBeRunIsNegative) {
  const auto run = [](const std::string &program) {
    return KLIBCExec(program.c_str(), nullptr, nullptr, nullptr, nullptr);
  };
  EXPECT_LT(run(folder / "missing"), 0);
  EXPECT_LT(run(folder.path()), 0);
  EXPECT_LT(run(""), 0);
  EXPECT_LT(run(script(kPrint, 0644)), 0);
  EXPECT_LT(run(script("no program, no script\n")), 0);
  EXPECT_LT(run(script("#!/no/such/interpreter\n")), 0);
  EXPECT_EQ(KLIBCErrGet(), KLIBC_ERR_EXEC_FAILED);
  EXPECT_LT(run("true"), 0);  // a path, not a name to search for
  EXPECT_LT(KLIBCExec(nullptr, nullptr, nullptr, nullptr, nullptr), 0);
  EXPECT_EQ(KLIBCErrGet(), KLIBC_ERR_BAD_PARAMETERS);
}

TEST_F(Exec, argumentsArriveUnchanged) {
  const std::string program = script(kPrint);
  EXPECT_EQ(outputOf(program, "two words", "'\"", "$(id) `id` $HOME", "; \\ * \t|&"),
            "4\ntwo words\n'\"\n$(id) `id` $HOME\n; \\ * \t|&\n");
  EXPECT_EQ(outputOf(program, "", "--", "-x", "J\xc3\xbcrgen\xff"),
            "4\n\n--\n-x\nJ\xc3\xbcrgen\xff\n");
}

TEST_F(Exec, firstNullEndsTheArguments) {
  const std::string program = script("#!/bin/sh\necho $# \"$@\"\n");
  EXPECT_EQ(outputOf(program), "0\n");
  EXPECT_EQ(outputOf(program, "start"), "1 start\n");
  EXPECT_EQ(outputOf(program, "a", "b", "c"), "3 a b c\n");
  EXPECT_EQ(outputOf(program, "a", nullptr, "c", "d"), "1 a\n");
}

TEST_F(Exec, childHasTheCallersEnvironment) {
  ASSERT_EQ(setenv("POSTWELL_TEST", "a b=c", 1), 0);
  EXPECT_EQ(outputOf("/bin/sh", "-c", "printf '%s' \"$POSTWELL_TEST\""), "a b=c");
  ASSERT_EQ(unsetenv("POSTWELL_TEST"), 0);
  EXPECT_EQ(outputOf("/bin/sh", "-c", "printf '%s' \"${POSTWELL_TEST-unset}\""), "unset");
}

TEST_F(Exec, childHasTheCallersStandardInputAndError) {
  writeFile(folder / "input", "from the caller\n");
  {
    const Redirect input(0, folder / "input", O_RDONLY);
    EXPECT_EQ(outputOf("/bin/cat"), "from the caller\n");
  }
  {
    const Redirect error(2, folder / "error", O_WRONLY | O_CREAT);
    EXPECT_EQ(KLIBCExec("/bin/sh", "-c", "echo complaint >&2", nullptr, nullptr), 0);
  }
  EXPECT_EQ(readFile(folder / "error"), "complaint\n");
}

TEST_F(Exec, childInheritsNoOtherDescriptor) {
  // Both without close-on-exec: one low, one far above.
  const std::string path = folder / "leak";
  const int low = open(path.c_str(), O_RDONLY | O_CREAT, 0600);
  ASSERT_GE(low, 3);
  ASSERT_EQ(dup2(low, 200), 200);
  ASSERT_EQ(std::filesystem::read_symlink("/proc/self/fd/200"), path);
  const std::string list = outputOf("/bin/ls", "-l", "/proc/self/fd");
  close(low);
  close(200);
  EXPECT_NE(list.find("1 -> " + (folder / "output")), std::string::npos) << list;
  EXPECT_EQ(list.find(path), std::string::npos) << list;
}

TEST_F(Exec, childHasNoBlockedAndNoIgnoredSignal) {
  sigset_t some, before;
  sigemptyset(&some);
  for (const int number : {SIGTERM, SIGINT, SIGUSR1, SIGCHLD}) sigaddset(&some, number);
  ASSERT_EQ(sigprocmask(SIG_BLOCK, &some, &before), 0);
  const auto pipeHandler = signal(SIGPIPE, SIG_IGN);
  const auto hupHandler = signal(SIGHUP, SIG_IGN);
  const std::string status = outputOf("/bin/cat", "/proc/self/status");
  signal(SIGPIPE, pipeHandler);
  signal(SIGHUP, hupHandler);
  ASSERT_EQ(sigprocmask(SIG_SETMASK, &before, nullptr), 0);
  EXPECT_EQ(signalsOf(status, "SigBlk:"), 0u);
  EXPECT_EQ(signalsOf(status, "SigIgn:"), 0u);
}

TEST_F(Exec, callersSignalsStayAsTheyWere) {
  const auto handler = signal(SIGUSR1, SIG_IGN);
  EXPECT_EQ(KLIBCExec("/bin/true", nullptr, nullptr, nullptr, nullptr), 0);
  EXPECT_EQ(signal(SIGUSR1, handler), SIG_IGN);
}

TEST_F(Exec, unknownStatusIsNegative) {
  const auto handler = signal(SIGCHLD, SIG_IGN);
  const int result = KLIBCExec("/bin/true", nullptr, nullptr, nullptr, nullptr);
  signal(SIGCHLD, handler);
  EXPECT_LT(result, 0);
}

int fifoForHandler = -1;
std::atomic<int> alarms{0};

extern "C" void onAlarm(int) {
  if (++alarms == 5) (void)!write(fifoForHandler, "\n", 1);
}

// The child ends only after the wait for it has been interrupted several times.
TEST_F(Exec, waitsOnWhenASignalInterrupts) {
  const std::string fifo = folder / "fifo";
  ASSERT_EQ(mkfifo(fifo.c_str(), 0600), 0);
  fifoForHandler = open(fifo.c_str(), O_RDWR | O_CLOEXEC);
  ASSERT_GE(fifoForHandler, 0);
  struct sigaction action = {}, before;
  action.sa_handler = onAlarm;  // without SA_RESTART
  ASSERT_EQ(sigaction(SIGALRM, &action, &before), 0);
  const itimerval everyMillisecond = {{0, 1000}, {0, 1000}}, never = {};
  ASSERT_EQ(setitimer(ITIMER_REAL, &everyMillisecond, nullptr), 0);
  const int result =
      KLIBCExec("/bin/sh", "-c", "read line <\"$0\" && exit 0", fifo.c_str(), nullptr);
  ASSERT_EQ(setitimer(ITIMER_REAL, &never, nullptr), 0);
  ASSERT_EQ(sigaction(SIGALRM, &before, nullptr), 0);
  close(fifoForHandler);
  EXPECT_EQ(result, 0);
  EXPECT_GE(alarms, 5);
}

TEST_F(Exec, threadsGetTheStatusOfTheirOwnChild) {
  std::vector<std::thread> threads;
  std::atomic<int> wrong{0};
  for (int t = 0; t < 8; ++t)
    threads.emplace_back([t, &wrong] {
      const bool good = t % 2 == 0;
      for (int i = 0; i < 25; ++i) {
        const int result = KLIBCExec(good ? "/bin/true" : "/bin/false", nullptr, nullptr,
                                     nullptr, nullptr);
        if ((result == 0) != good) ++wrong;
      }
    });
  for (std::thread &thread : threads) thread.join();
  EXPECT_EQ(wrong, 0);
}

}  // namespace
