// The mail log's collector: taking records from one connection against a bare loop of
// recv(), and how much memory a cached entry takes.

#include <benchmark/benchmark.h>
#include <maillogger.h>
#include <malloc.h>
#include <sqlite3.h>
#include <sys/prctl.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <sys/wait.h>
#include <unistd.h>

#include <climits>
#include <csignal>
#include <cstdio>
#include <cstring>
#include <optional>

#include "mail_record.h"
#include "ratio.h"

namespace {

constexpr char kSocket[] = "/var/run/maillog.sock";
constexpr char kOtherSocket[] = "/tmp/bare.sock";
constexpr char kLog[] = "/var/packages/Postwell/target/etc/maillog/maillog.db";
constexpr int kRecords = 5'000;  // on one connection

int listenAt(const char *path) {
  sockaddr_un address{};
  address.sun_family = AF_UNIX;
  strcpy(address.sun_path, path);
  unlink(path);
  const int fd = socket(AF_UNIX, SOCK_STREAM, 0);
  if (bind(fd, reinterpret_cast<sockaddr *>(&address), sizeof address) != 0 ||
      listen(fd, 20) != 0)
    return -1;
  return fd;
}

// Another process that, for each byte it is given, sends all records by one write each.
class Sender {
 public:
  explicit Sender(const char *path) {
    if (pipe(ask_) != 0) return;
    child_ = fork();
    if (child_ != 0) return;
    prctl(PR_SET_PDEATHSIG, SIGKILL);
    close(ask_[1]);
    for (char byte; read(ask_[0], &byte, 1) == 1;) sendAll(path);
    _exit(0);
  }
  ~Sender() {
    kill(child_, SIGKILL);  // the other one holds its pipe open, too
    waitpid(child_, nullptr, 0);
    close(ask_[0]);
    close(ask_[1]);
  }
  Sender(const Sender &) = delete;
  Sender &operator=(const Sender &) = delete;

  bool start() { return write(ask_[1], "", 1) == 1; }

 private:
  static void sendAll(const char *path) {
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    strcpy(address.sun_path, path);
    const LogSocket record = recordOf(1);
    const int fd = socket(AF_UNIX, SOCK_STREAM, 0);
    if (connect(fd, reinterpret_cast<sockaddr *>(&address), sizeof address) != 0)
      _exit(1);
    for (int i = 0; i < kRecords; i++)
      if (write(fd, &record, sizeof record) != sizeof record) _exit(1);
    close(fd);
  }

  int ask_[2] = {-1, -1};
  pid_t child_ = -1;
};

// Made before memory is measured: a fork makes its parent copy every page anew.
std::optional<Sender> sender, bareSender;

// No entry cached.
bool startAnew(std::optional<MailLogger> &logger) {
  logger.reset();
  logger.emplace(INT_MAX, INT_MAX);
  return logger->error() == 0;
}

void intake(benchmark::State &state) {
  std::optional<MailLogger> logger;
  for (auto _ : state) {
    state.PauseTiming();
    if (!startAnew(logger) || !sender->start())
      return state.SkipWithError("no collector");
    state.ResumeTiming();
    logger->receiveLog();
  }
}

void bareIntake(benchmark::State &state) {
  const int listening = listenAt(kOtherSocket);
  for (auto _ : state) {
    state.PauseTiming();
    if (listening < 0 || !bareSender->start()) return state.SkipWithError("no socket");
    state.ResumeTiming();
    const int fd = accept(listening, nullptr, nullptr);
    LogSocket record;
    while (recv(fd, &record, sizeof record, 0) > 0) benchmark::DoNotOptimize(record);
    close(fd);
  }
  close(listening);
}

// The intake alone counts: what it caches has to be stored before the next time, which
// takes the less time the better. So the log takes no rows.
bool refuseRows() {
  if (MailLogger(INT_MAX, INT_MAX).error() != 0) return false;
  sqlite3 *db = nullptr;
  const bool made =
      sqlite3_open(kLog, &db) == SQLITE_OK &&
      sqlite3_exec(db,
                   "create trigger none before insert on mail_log_table begin "
                   "select raise(ignore); end;",
                   nullptr, nullptr, nullptr) == SQLITE_OK;
  return sqlite3_close(db) == SQLITE_OK && made;
}

bool isSmall() {
  constexpr int kEntries = 10'000;
  constexpr size_t kMostBytes = 450;
  MailLogger logger(INT_MAX, INT_MAX);
  logger.cacheLog(recordOf(0));  // with it the counters are there
  const size_t before = mallinfo2().uordblks;
  for (int i = 1; i <= kEntries; i++) logger.cacheLog(recordOf(i));
  const size_t each = (mallinfo2().uordblks - before) / kEntries;
  printf("a cached entry: %zu bytes of heap, goal %zu%s\n", each, kMostBytes,
         each <= kMostBytes ? "" : "  MISSED");
  return each <= kMostBytes;
}

}  // namespace

int main(int argc, char **argv) {
  sender.emplace(kSocket);
  bareSender.emplace(kOtherSocket);
  mallopt(M_TRIM_THRESHOLD, INT_MAX);  // as the daemon does
  if (!refuseRows()) {
    fprintf(stderr, "%s: cannot make %s (run it under hermetic-run)\n", argv[0], kLog);
    return 1;
  }
  const bool small = isSmall();
  const int status =
      runRatios(argc, argv, {{"5,000 records received", intake, bareIntake, 1.25}});
  return small ? status : 1;
}
