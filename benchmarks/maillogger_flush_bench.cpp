// The mail log's collector: storing 201 entries against the same texts through raw SQLite
// with the same open and close, at several sizes of the log.

#include <benchmark/benchmark.h>
#include <maillogger.h>
#include <sqlite3.h>
#include <unistd.h>

#include <climits>
#include <cstdio>
#include <filesystem>
#include <string>
#include <vector>

#include "mail_record.h"
#include "ratio.h"

namespace {

namespace fs = std::filesystem;

const std::string kFolder = "/var/packages/Postwell/target/etc/maillog";
const std::string kLog = kFolder + "/maillog.db";
constexpr int kBatch = 201;

std::string folderOf(int rows) { return "rows" + std::to_string(rows); }

// Both halves work on the same log with so many rows, on the disk: the folder of the logs
// is a link to where it lies.
bool useLog(int rows) {
  unlink(kFolder.c_str());
  return symlink((fs::current_path() / folderOf(rows)).c_str(), kFolder.c_str()) == 0;
}

// An empty log begins anew each time; one of many rows hardly grows.
void renew(int rows) {
  if (rows > 0) return;
  for (const char *end : {"-wal", "-shm"}) unlink((kLog + end).c_str());
  fs::copy_file(folderOf(0) + "/template.db", kLog, fs::copy_options::overwrite_existing);
}

std::vector<std::string> statements() {
  std::vector<std::string> texts;
  for (int i = 0; i < kBatch; i++) {
    const LogSocket record = recordOf(i);
    char text[2048];
    sqlite3_snprintf(sizeof text, text,
                     "INSERT INTO '%q' VALUES('%q', '%q', '%d', '%q', '%q', '%d', '%d')",
                     "mail_log_table", record.szMessageID, record.szQueueID,
                     record.log_time, record.szMailFrom, record.szMailTo,
                     record.mail_size, record.status);
    texts.emplace_back(text);
  }
  return texts;
}

template <int Rows>
void flush(benchmark::State &state) {
  if (!useLog(Rows)) return state.SkipWithError("cannot use the log");
  MailLogger logger(INT_MAX, INT_MAX);
  if (logger.error() != 0) return state.SkipWithError("no collector");
  for (auto _ : state) {
    state.PauseTiming();
    renew(Rows);
    for (int i = 0; i < kBatch; i++) logger.cacheLog(recordOf(i));
    state.ResumeTiming();
    logger.flushLogToDB();
    if (logger.error() != 0) return state.SkipWithError("not stored");
  }
}

bool runAll(const std::vector<std::string> &texts) {
  sqlite3 *db = nullptr;
  if (access(kLog.c_str(), F_OK) != 0 || sqlite3_open(kLog.c_str(), &db) != SQLITE_OK)
    return false;
  sqlite3_busy_timeout(db, 60'000);
  const auto run = [db](const char *text) {
    return sqlite3_exec(db, text, nullptr, nullptr, nullptr) == SQLITE_OK;
  };
  bool good = run("BEGIN TRANSACTION;");
  for (const std::string &text : texts) good = good && run(text.c_str());
  good = good && run("COMMIT TRANSACTION;");
  return sqlite3_close(db) == SQLITE_OK && good;
}

template <int Rows>
void bareFlush(benchmark::State &state) {
  if (!useLog(Rows)) return state.SkipWithError("cannot use the log");
  const std::vector<std::string> texts = statements();
  for (auto _ : state) {
    state.PauseTiming();
    renew(Rows);
    state.ResumeTiming();
    if (!runAll(texts)) return state.SkipWithError("not stored");
  }
}

bool run(sqlite3 *db, const std::string &sql) {
  return sqlite3_exec(db, sql.c_str(), nullptr, nullptr, nullptr) == SQLITE_OK;
}

// The file is made by the collector, and filled behind its back.
bool makeLog(int rows) {
  const std::string folder = folderOf(rows);
  fs::remove_all(folder);
  if (!fs::create_directory(folder) || !useLog(rows)) return false;
  if (MailLogger(INT_MAX, INT_MAX).error() != 0) return false;
  sqlite3 *db = nullptr;
  const bool filled =
      sqlite3_open(kLog.c_str(), &db) == SQLITE_OK &&
      run(db, "pragma synchronous = off; begin;") &&
      run(db,
          "with recursive n(i) as (select 1 union all select i + 1 from n where i < " +
              std::to_string(rows) +
              ") insert into mail_log_table select printf('<20261121.%08d.4711abcdef@"
              "mail.example.org>', i), printf('4XyZ%07dzSq', i), 1700000000 + i / 10, "
              "printf('sender%d@mail.example.com', i % 1000), "
              "printf('recipient%d@example.org', i % 1000), 1000 + i % 100000, i % 4 "
              "from n where i <= " +
              std::to_string(rows) + " and " + std::to_string(rows) + " > 0;") &&
      run(db, "commit; pragma wal_checkpoint(truncate);");
  if (sqlite3_close(db) != SQLITE_OK || !filled) return false;
  if (rows == 0) fs::copy_file(kLog, folder + "/template.db");
  // made anew, so that no connection of its creation stays open in this process
  const std::string copy = folder + "/copy.db";
  fs::copy_file(kLog, copy);
  for (const char *end : {"", "-wal", "-shm"}) unlink((kLog + end).c_str());
  fs::rename(copy, kLog);
  sync();
  return true;
}

}  // namespace

int main(int argc, char **argv) {
  fs::create_directories(fs::path(kFolder).parent_path());
  for (const int rows : {0, 100'000, 1'000'000}) {
    if (makeLog(rows)) continue;
    fprintf(stderr, "%s: cannot make the logs (run it under hermetic-run)\n", argv[0]);
    return 1;
  }
  const int status = runRatios(
      argc, argv,
      {{"201 rows into 0", flush<0>, bareFlush<0>, 1.05},
       {"201 rows into 100,000", flush<100'000>, bareFlush<100'000>, 1.05},
       {"201 rows into 1,000,000", flush<1'000'000>, bareFlush<1'000'000>, 1.05}});
  for (const int rows : {0, 100'000, 1'000'000}) fs::remove_all(folderOf(rows));
  return status;
}
