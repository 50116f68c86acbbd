// The road from Postfix's log to a queryable database, against programs that read such a
// log for a summary or for charts: pflogsumm, mailgraph and prometheus-postfix-exporter,
// as Debian has them. All read the same file of 200,000 messages. Also the parser alone,
// and how much memory feed and collector take together.

#include <benchmark/benchmark.h>
#include <fcntl.h>
#include <spawn.h>
#include <sqlite3.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <csignal>
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <string>
#include <string_view>
#include <vector>

#include "log_reader.h"
#include "ratio.h"

namespace {

namespace fs = std::filesystem;

constexpr int kMessages = 200000;
constexpr int kMegabytes = 96;  // for the feed and the collector together
constexpr time_t kFirst = 1795132800;
constexpr char kSocket[] = "/var/run/maillog.sock";
constexpr char kDatabase[] = "/var/packages/Postwell/target/etc/maillog/maillog.db";
constexpr char kExporter[] = "127.0.0.1:19154";

const std::string kLog = fs::current_path() / "mailfeed_bench.log";
const std::string kGrowing = fs::current_path() / "mailfeed_bench.growing";
std::string logText;
long mostKilobytes = 0;  // of feed and collector

// ---- The log

class LogWriter {
 public:
  explicit LogWriter(int number) : number_(number) {
    const time_t time = kFirst + number / 4;
    tm broken = {};
    localtime_r(&time, &broken);
    char stamp[32];
    strftime(stamp, sizeof(stamp), "%b %e %H:%M:%S", &broken);
    start_ = std::string(stamp) + " mail postfix/";
  }

  void line(const std::string &program, const std::string &text) {
    logText += start_ + program + '[' + std::to_string(1000 + number_ % 77) +
               "]: " + text + '\n';
  }

 private:
  const int number_;
  std::string start_;
};

// As Postfix logs a message that comes by SMTP: of ten, six are delivered here, three
// sent on and one bounced.
void addMessage(int number) {
  LogWriter log(number);
  const std::string n = std::to_string(number),
                    user = "user" + std::to_string(number % 500);
  char digits[16];
  snprintf(digits, sizeof(digits), "%06d", number);
  const std::string id = std::string("4jWk") + digits + "z1dLcS";
  const std::string client =
      "mx" + std::to_string(number % 9) + ".example.org[192.0.2.7]";
  log.line("smtpd", "connect from " + client);
  log.line("smtpd", id + ": client=" + client);
  log.line("cleanup", id + ": message-id=<20261121" + n + ".4711@mx.example.org>");
  log.line("qmgr", id + ": from=<" + user + "@example.org>, size=" +
                       std::to_string(500 + number % 90000) + ", nrcpt=1 (queue active)");
  log.line("smtpd", "disconnect from " + client +
                        " ehlo=1 mail=1 rcpt=1 data=1 quit=1 commands=5");
  const std::string delays = ", delay=0.06, delays=0.01/0.02/0.03/0.01, dsn=";
  if (number % 10 < 6)
    log.line("lmtp",
             id + ": to=<" + user +
                 "@mail.example.org>, relay=mail.example.org[private/dovecot-lmtp]" +
                 delays + "2.0.0, status=sent (250 2.0.0 <" + user +
                 "@mail.example.org> eRROKe1DAWs3AgAA0J78UA Saved)");
  else
    log.line("smtp", id + ": to=<" + user +
                         "@example.net>, relay=mx.example.net[192.0.2.77]:25" + delays +
                         (number % 10 < 9
                              ? "2.0.0, status=sent (250 2.0.0 Ok: queued as 4jWk05FPdz)"
                              : "5.1.1, status=bounced (host mx.example.net[192.0.2.77] "
                                "said: 550 5.1.1 no such user (in reply to RCPT TO "
                                "command))"));
  log.line("qmgr", id + ": removed");
}

bool writeLog() {
  for (int i = 0; i < kMessages; ++i) addMessage(i);
  std::ofstream file(kLog, std::ios::binary);
  file << logText;
  file.close();
  return file.good();
}

// ---- Processes

pid_t start(const std::vector<std::string> &words,
            const std::string &input = "/dev/null") {
  std::vector<char *> argv;
  for (const std::string &word : words) argv.push_back(const_cast<char *>(word.c_str()));
  argv.push_back(nullptr);
  posix_spawn_file_actions_t actions;
  posix_spawn_file_actions_init(&actions);
  posix_spawn_file_actions_addopen(&actions, STDIN_FILENO, input.c_str(), O_RDONLY, 0);
  for (const int fd : {STDOUT_FILENO, STDERR_FILENO})
    posix_spawn_file_actions_addopen(&actions, fd, "/dev/null", O_WRONLY, 0);
  pid_t pid = -1;
  const int error = posix_spawnp(&pid, argv[0], &actions, nullptr, argv.data(), environ);
  posix_spawn_file_actions_destroy(&actions);
  return error == 0 ? pid : -1;
}

void pause() { usleep(5000); }

// The most memory that the process has had since it began; 0 when it has ended. What
// getrusage() tells counts the process that it was started from.
long kilobytesOf(pid_t pid) {
  std::ifstream status("/proc/" + std::to_string(pid) + "/status");
  long kilobytes = 0;
  for (std::string word; status >> word;)
    if (word == "VmHWM:") status >> kilobytes;
  return kilobytes;
}

// Waits for its end; whether that was a good one. Adds the most memory that it had.
bool finish(pid_t pid, long *kilobytes) {
  int status = 0;
  long most = 0;
  while (pid > 0 && waitpid(pid, &status, WNOHANG) == 0) {
    most = std::max(most, kilobytesOf(pid));
    pause();
  }
  *kilobytes += most;
  return pid > 0 && status == 0;
}

bool finish(pid_t pid) {
  int status = 0;
  return pid > 0 && waitpid(pid, &status, 0) == pid && status == 0;
}

// ---- Ours

void parse(benchmark::State &state) {
  for (auto _ : state) {
    StampReader stamps;
    stamps.writtenBy(kFirst + kMessages);
    int deliveries = 0;
    for (std::string_view rest = logText; !rest.empty();) {
      const std::string_view line = rest.substr(0, rest.find('\n'));
      rest.remove_prefix(line.size() + 1);
      MessageLine parts;
      SenderText sender;
      RecipientText recipient;
      const size_t stamp = stamps.read(line, &parts.time);
      if (stamp == 0 || !splitQueueLine(line.substr(stamp), &parts)) continue;
      if (parseRecipient(parts.text, &recipient))
        ++deliveries;
      else
        benchmark::DoNotOptimize(parseSender(parts.text, &sender));
    }
    if (deliveries != kMessages) return state.SkipWithError("lines were not understood");
  }
}

// The parser, and what becomes of the messages.
void read(benchmark::State &state) {
  for (auto _ : state) {
    LogReader reader;
    reader.stamps().writtenBy(kFirst + kMessages);
    std::vector<Delivery> deliveries;
    size_t count = 0;
    for (std::string_view rest = logText; !rest.empty();) {
      const std::string_view line = rest.substr(0, rest.find('\n'));
      rest.remove_prefix(line.size() + 1);
      reader.take(line, &deliveries);
      if (deliveries.size() < 1000 && !rest.empty()) continue;
      count += deliveries.size();
      deliveries.clear();
    }
    if (count != kMessages) return state.SkipWithError("lines were not understood");
  }
}

int rowsOfDatabase() {
  sqlite3 *db = nullptr;
  sqlite3_stmt *query = nullptr;
  int rows = -1;
  if (sqlite3_open_v2(kDatabase, &db, SQLITE_OPEN_READWRITE, nullptr) == SQLITE_OK &&
      sqlite3_prepare_v2(db, "select count(*) from mail_log_table", -1, &query,
                         nullptr) == SQLITE_OK &&
      sqlite3_step(query) == SQLITE_ROW)
    rows = sqlite3_column_int(query, 0);
  sqlite3_finalize(query);
  sqlite3_close(db);
  return rows;
}

// From the file to the database, with the collector's start and end.
void feed(benchmark::State &state) {
  for (auto _ : state) {
    fs::remove_all(fs::path(kDatabase).parent_path());
    const pid_t collector = start({COLLECTOR_PROGRAM, "--rotate-threshold", "1000000",
                                   "--pid-file", "/tmp/maillogd.pid"});
    while (!fs::exists(kSocket) && kill(collector, 0) == 0) pause();
    long kilobytes = 0;
    const bool fed = finish(start({FEED_PROGRAM, "--stdin"}, kLog), &kilobytes);
    kill(collector, SIGTERM);
    const bool collected = finish(collector, &kilobytes);
    mostKilobytes = std::max(mostKilobytes, kilobytes);
    if (!fed || !collected || rowsOfDatabase() != kMessages)
      return state.SkipWithError("not all messages are in the database");
  }
}

// ---- The others

void pflogsumm(benchmark::State &state) {
  for (auto _ : state)
    if (!finish(start({"pflogsumm", kLog})))
      return state.SkipWithError("pflogsumm failed");
}

void mailgraph(benchmark::State &state) {
  const std::string folder = "/tmp/rrd";
  for (auto _ : state) {
    fs::remove_all(folder);
    fs::create_directory(folder);
    if (!finish(start(
            {"mailgraph", "--daemon-rrd=" + folder, "-l", kLog, "-c", "-y", "2026"})))
      return state.SkipWithError("mailgraph failed");
  }
}

// What the exporter says of itself; "" when it cannot be asked.
std::string metrics() {
  std::FILE *const curl = popen(
      (std::string("curl -s http://") + kExporter + "/metrics 2>/dev/null").c_str(), "r");
  std::string text;
  char bytes[4096];
  for (size_t length; (length = fread(bytes, 1, sizeof(bytes), curl)) > 0;)
    text.append(bytes, length);
  pclose(curl);  // what it has told decides
  return text;
}

// It reads what is added to a file, so the file is filled under its eyes.
void exporter(benchmark::State &state) {
  const std::string all = "\npostfix_qmgr_messages_removed_total 200000\n";
  for (auto _ : state) {
    std::ofstream(kGrowing, std::ios::trunc).close();
    const pid_t pid =
        start({"prometheus-postfix-exporter", "--postfix.logfile_path=" + kGrowing,
               std::string("--web.listen-address=") + kExporter});
    while (metrics().empty() && kill(pid, 0) == 0) pause();
    std::ofstream(kGrowing, std::ios::binary) << logText;
    while (metrics().find(all) == std::string::npos && kill(pid, 0) == 0) pause();
    const bool counted = kill(pid, SIGKILL) == 0;
    finish(pid);
    if (!counted) return state.SkipWithError("prometheus-postfix-exporter failed");
  }
}

}  // namespace

int main(int argc, char **argv) {
  if (!writeLog()) {
    fprintf(stderr, "%s: cannot write %s\n", argv[0], kLog.c_str());
    return 1;
  }
  // One run takes long enough to be measured by itself.
  std::string repetitions = "--benchmark_repetitions=3", time = "--benchmark_min_time=0";
  std::vector<char *> arguments = {argv[0], repetitions.data(), time.data()};
  arguments.insert(arguments.end(), argv + 1, argv + argc);
  const int status =
      runRatios(static_cast<int>(arguments.size()), arguments.data(),
                {{"parser alone, pflogsumm / 30", parse, pflogsumm, 1.0 / 30},
                 {"with messages, pflogsumm / 30", read, pflogsumm, 1.0 / 30},
                 {"log to database, pflogsumm", feed, pflogsumm, 1.0},
                 {"log to database, mailgraph", feed, mailgraph, 1.0},
                 {"log to database, exporter", feed, exporter, 1.0}});
  const bool small = mostKilobytes > 0 && mostKilobytes <= kMegabytes * 1024L;
  printf("feed and collector together: %ld KiB, goal %d MiB%s\n", mostKilobytes,
         kMegabytes, small ? "" : "  MISSED");
  fs::remove(kLog);
  fs::remove(kGrowing);
  return status == 0 && small ? 0 : 1;
}
