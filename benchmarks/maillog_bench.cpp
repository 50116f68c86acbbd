// The mail log's reader against the same statements through raw SQLite: counting and
// searching, which only step; pages and loads, which make entries of the rows, against
// reading the same columns and leaving them; statistics against the same sums by one
// prepared statement.

#include <benchmark/benchmark.h>
#include <maillog.h>
#include <sqlite3.h>
#include <unistd.h>

#include <cstdio>
#include <filesystem>
#include <map>
#include <memory>
#include <string>
#include <vector>

#include "ratio.h"

namespace {

namespace fs = std::filesystem;

const std::string kFolder = "/var/packages/Postwell/target/etc/maillog/";
constexpr char kStatistic[] = "/var/packages/Postwell/etc/log_statistic.db";
constexpr int kFew = 100'000, kMany = 1'000'000;
constexpr time_t kEnd = 1'700'000'000;

std::string pathOf(int rows) { return kFolder + std::to_string(rows) + ".db"; }

using Database = std::unique_ptr<sqlite3, int (*)(sqlite3 *)>;

Database opened(const std::string &path) {
  sqlite3 *db = nullptr;
  if (sqlite3_open_v2(path.c_str(), &db, SQLITE_OPEN_READWRITE, nullptr) == SQLITE_OK)
    sqlite3_busy_timeout(db, 60'000);
  return Database(db, sqlite3_close);
}

// Prepares the statement and hands each row to `take`. False on a failure.
template <class Take>
bool step(sqlite3 *db, const std::string &sql, Take take) {
  sqlite3_stmt *statement = nullptr;
  bool good = sqlite3_prepare_v2(db, sql.c_str(), -1, &statement, nullptr) == SQLITE_OK;
  if (good) {
    int code;
    while ((code = sqlite3_step(statement)) == SQLITE_ROW) take(statement);
    good = code == SQLITE_DONE;
  }
  return sqlite3_finalize(statement) == SQLITE_OK && good;
}

// ---- the same queries, ours and bare

LogFilter filterOf(const char *select, int limit, const char *from) {
  LogFilter filter;
  filter.select = select;
  filter.start = 0;
  filter.limit = limit;
  filter.orderDir = "desc";
  filter.orderType = "date";
  filter.mailFrom = from;
  filter.sizeOpt = "any";
  filter.mailSize = 0;
  filter.status = -1;
  filter.dateFrom = filter.dateTo = 0;
  return filter;
}

// Both halves keep their connections open, as a program that shows pages does.
MailLog &reader(int rows) {
  static std::map<int, std::unique_ptr<MailLog>> readers;
  auto &one = readers[rows];
  if (one == nullptr) one = std::make_unique<MailLog>(pathOf(rows).c_str());
  return *one;
}

sqlite3 *bare(int rows) {
  static std::map<int, Database> databases;
  const auto found = databases.find(rows);
  if (found != databases.end()) return found->second.get();
  return databases.emplace(rows, opened(pathOf(rows))).first->second.get();
}

// Steps through what is one number.
void bareNumber(benchmark::State &state, int rows, const std::string &sql, int number) {
  for (auto _ : state) {
    int found = -1;
    step(bare(rows), sql, [&found](auto *row) { found = sqlite3_column_int(row, 0); });
    if (found != number) return state.SkipWithError("wrong count");
  }
}

template <int Rows>
void countAll(benchmark::State &state) {
  for (auto _ : state)
    if (reader(Rows).getLogNum() != Rows) return state.SkipWithError("wrong count");
}

template <int Rows>
void bareCountAll(benchmark::State &state) {
  bareNumber(state, Rows, "SELECT Count(*) FROM 'mail_log_table'", Rows);
}

template <int Rows>
void countByKey(benchmark::State &state) {
  std::string key = "sender77@";
  for (auto _ : state)
    if (reader(Rows).getLogNum(key) != Rows / 1000)
      return state.SkipWithError("wrong count");
}

template <int Rows>
void bareCountByKey(benchmark::State &state) {
  bareNumber(state, Rows,
             "SELECT Count(*) FROM 'mail_log_table' WHERE message_id LIKE '%sender77@%' "
             "or mail_from LIKE '%sender77@%' or mail_to LIKE '%sender77@%';",
             Rows / 1000);
}

template <int Rows>
void countByFilter(benchmark::State &state) {
  const LogFilter filter = filterOf("count(*)", -1, "sender77@");
  for (auto _ : state)
    if (reader(Rows).getLogNum(filter) != Rows / 1000)
      return state.SkipWithError("wrong count");
}

template <int Rows>
void bareCountByFilter(benchmark::State &state) {
  bareNumber(state, Rows, reader(Rows).composeCmd(filterOf("count(*)", -1, "sender77@")),
             Rows / 1000);
}

template <int Rows>
void search(benchmark::State &state) {
  for (auto _ : state) {
    std::vector<MailLogInfo> log;
    if (reader(Rows).search(50, 0, "date", "desc", "nobody@", log) != 0 || !log.empty())
      return state.SkipWithError("wrong search");
  }
}

template <int Rows>
void bareSearch(benchmark::State &state) {
  const std::string sql =
      "SELECT * FROM 'mail_log_table' WHERE mail_from LIKE '%nobody@%' or mail_to LIKE "
      "'%nobody@%' or message_id LIKE '%nobody@%' ORDER BY date desc LIMIT '50' OFFSET "
      "'0';";
  for (auto _ : state)
    if (!step(bare(Rows), sql, [](auto *) {})) return state.SkipWithError("wrong search");
}

// Limit is how many rows are loaded.
template <int Rows, int Limit>
void load(benchmark::State &state) {
  for (auto _ : state) {
    std::vector<MailLogInfo> log;
    if (reader(Rows).load(Limit, 0, "date", "desc", log) != 0 || log.size() != Limit)
      return state.SkipWithError("wrong load");
  }
}

// Steps and looks at each column that an entry is made of.
void bareRows(benchmark::State &state, int rows, const std::string &sql, int limit) {
  for (auto _ : state) {
    int found = 0;
    step(bare(rows), sql, [&found](auto *row) {
      for (const int text : {0, 3, 4})
        benchmark::DoNotOptimize(sqlite3_column_text(row, text));
      for (const int number : {2, 5, 6})
        benchmark::DoNotOptimize(sqlite3_column_int64(row, number));
      found++;
    });
    if (found != limit) return state.SkipWithError("wrong load");
  }
}

template <int Rows, int Limit>
void bareLoad(benchmark::State &state) {
  bareRows(state, Rows,
           "SELECT * FROM 'mail_log_table' ORDER BY date desc LIMIT '" +
               std::to_string(Limit) + "' OFFSET '0'",
           Limit);
}

// A page of what a filter finds: the common sender's is found at once, so that little
// but the entries takes time.
template <int Rows, int Limit>
void loadByFilter(benchmark::State &state) {
  const LogFilter filter = filterOf("*", Limit, "sender");
  for (auto _ : state) {
    std::vector<MailLogInfo> log;
    if (reader(Rows).load(filter, log) != 0 || log.size() != Limit)
      return state.SkipWithError("wrong load");
  }
}

template <int Rows, int Limit>
void bareLoadByFilter(benchmark::State &state) {
  bareRows(state, Rows, reader(Rows).composeCmd(filterOf("*", Limit, "sender")), Limit);
}

// ---- statistics

struct Table {
  const char *name;
  long width;
};

template <TimeScale Scale>
constexpr Table tableOf() {
  if (Scale == DAY) return {"log_statistic_second", 3600};
  if (Scale == HALF_YEAR) return {"log_statistic_day", 2'592'000};
  return {"log_statistic_hour", 86'400};
}

template <TimeScale Scale, bool Quantity>
void statistics(benchmark::State &state) {
  for (auto _ : state) {
    Statistic traffic;
    const int result = Quantity
                           ? reader(kFew).getQuantityStatistic(traffic, kEnd, Scale)
                           : reader(kFew).getBandwidthStatistic(traffic, kEnd, Scale);
    if (result != 0 || traffic.inbound.size() != Scale || traffic.inbound[0] == 0)
      return state.SkipWithError("wrong sums");
  }
}

template <TimeScale Scale, bool Quantity>
void bareStatistics(benchmark::State &state) {
  static const Database db = opened(kStatistic);
  constexpr Table table = tableOf<Scale>();
  const std::string sql =
      std::string("SELECT ") +
      (Quantity ? "SUM(inbound_quantity),SUM(outbound_quantity),SUM(bounce_quantity)"
                : "SUM(inbound_bandwidth),SUM(outbound_bandwidth)") +
      " FROM " + table.name + " WHERE time >= ?1 and time < ?2;";
  for (auto _ : state) {
    sqlite3_stmt *statement = nullptr;
    sqlite3_prepare_v2(db.get(), sql.c_str(), -1, &statement, nullptr);
    long start = kEnd - kEnd % table.width - (Scale - 1) * table.width;
    for (int i = 0; i < Scale; i++, start += table.width) {
      sqlite3_bind_int64(statement, 1, start);
      sqlite3_bind_int64(statement, 2, start + table.width);
      int64_t sums[3] = {};
      if (sqlite3_step(statement) == SQLITE_ROW)
        for (int column = 0; column < (Quantity ? 3 : 2); column++)
          sums[column] = Quantity ? sqlite3_column_int(statement, column)
                                  : sqlite3_column_int64(statement, column);
      benchmark::DoNotOptimize(sums);
      if (sums[0] == 0) state.SkipWithError("wrong sums");
      sqlite3_reset(statement);
    }
    sqlite3_finalize(statement);
  }
}

// ---- the files

bool run(sqlite3 *db, const std::string &sql) {
  return sqlite3_exec(db, sql.c_str(), nullptr, nullptr, nullptr) == SQLITE_OK;
}

// As mail is: a Message-ID of some 50 bytes, addresses of some 25, times that rise.
bool fillLog(int rows) {
  if (MailLog(pathOf(rows).c_str()).error() != 0) return false;
  const Database db = opened(pathOf(rows));
  return run(db.get(),
             "pragma synchronous = off; begin; with recursive n(i) as (select 1 union "
             "all select i + 1 from n where i < " +
                 std::to_string(rows) +
                 ") insert into mail_log_table select printf('<20261121.%08d.4711abcdef@"
                 "mail.example.org>', i), printf('4XyZ%07dzSq', i), 1700000000 + i / 10, "
                 "printf('sender%d@mail.example.com', i % 1000), "
                 "printf('recipient%d@example.org', i % 1000), 1000 + i % 100000, i % 4 "
                 "from n; commit; pragma wal_checkpoint(truncate);");
}

// All that the collector keeps: a day, 30 days and 180 days.
bool fillStatistics() {
  const Database db = opened(kStatistic);
  const auto fill = [&db](const std::string &table, int width, int number) {
    const std::string interval = std::to_string(width);
    return run(
        db.get(),
        "with recursive n(i) as (select 0 union all select i + 1 from n where i < " +
            std::to_string(number) + ") insert into log_statistic_" + table +
            " select 1700000000 / " + interval + " * " + interval + " - i * " + interval +
            ", i % 9 + 1, i % 7, i % 3, i * 1.25 + 1, i * 2.5 from n;");
  };
  return fill("second", 30, 2880) && fill("hour", 3600, 720) && fill("day", 86'400, 180);
}

}  // namespace

int main(int argc, char **argv) {
  // the folder is a link to the disk below the build folder
  const fs::path disk = fs::current_path() / "maillogs";
  fs::remove_all(disk);
  fs::create_directory(disk);
  fs::create_directory_symlink(disk, kFolder.substr(0, kFolder.size() - 1));
  if (!fillLog(kFew) || !fillLog(kMany) || !fillStatistics()) {
    fprintf(stderr, "%s: cannot make the logs (run it under hermetic-run)\n", argv[0]);
    return 1;
  }
  const int status = runRatios(
      argc, argv,
      {{"number of all 100,000", countAll<kFew>, bareCountAll<kFew>, 1.02},
       {"number of all 1,000,000", countAll<kMany>, bareCountAll<kMany>, 1.02},
       {"a count by key over 100,000", countByKey<kFew>, bareCountByKey<kFew>, 1.02},
       {"a count by key over 1,000,000", countByKey<kMany>, bareCountByKey<kMany>, 1.02},
       {"a count by filter, 100,000", countByFilter<kFew>, bareCountByFilter<kFew>, 1.02},
       {"a count by filter, 1,000,000", countByFilter<kMany>, bareCountByFilter<kMany>,
        1.02},
       {"a search over 100,000", search<kFew>, bareSearch<kFew>, 1.02},
       {"a search over 1,000,000", search<kMany>, bareSearch<kMany>, 1.02},
       {"a page of 50 of 100,000", load<kFew, 50>, bareLoad<kFew, 50>, 1.6},
       {"a page of 50 of 1,000,000", load<kMany, 50>, bareLoad<kMany, 50>, 1.6},
       {"a filter's page of 100,000", loadByFilter<kFew, 50>, bareLoadByFilter<kFew, 50>,
        1.6},
       {"a filter's page of 1,000,000", loadByFilter<kMany, 50>,
        bareLoadByFilter<kMany, 50>, 1.6},
       {"100,000 rows in one load", load<kFew, kFew>, bareLoad<kFew, kFew>, 1.9},
       {"messages of a day", statistics<DAY, true>, bareStatistics<DAY, true>, 2},
       {"messages of a week", statistics<WEEK, true>, bareStatistics<WEEK, true>, 2},
       {"messages of a month", statistics<MONTH, true>, bareStatistics<MONTH, true>, 2},
       {"messages of half a year", statistics<HALF_YEAR, true>,
        bareStatistics<HALF_YEAR, true>, 2},
       {"volume of a day", statistics<DAY, false>, bareStatistics<DAY, false>, 2},
       {"volume of a week", statistics<WEEK, false>, bareStatistics<WEEK, false>, 2},
       {"volume of a month", statistics<MONTH, false>, bareStatistics<MONTH, false>, 2},
       {"volume of half a year", statistics<HALF_YEAR, false>,
        bareStatistics<HALF_YEAR, false>, 2}});
  fs::remove_all(disk);
  return status;
}
