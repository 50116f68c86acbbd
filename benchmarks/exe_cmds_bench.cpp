// A list of statements as one transaction: DBHandler::exeCmds against bare sqlite3_exec
// calls of the same texts on a file of the same schema.

#include <benchmark/benchmark.h>
#include <sqlite3.h>

#include <cstdio>
#include <string>

#include "DBHandler.h"
#include "ratio.h"

namespace {

constexpr char kPath[] = "/var/packages/Postwell/etc/bench.db";
constexpr char kSchema[] =
    "create table t(key INTEGER PRIMARY KEY, name TEXT, value INTEGER);"
    "create index name_index on t(name);";

// Statements that leave the file as it is when they are run again.
SQLCmd statements(int count) {
  SQLCmd cmds;
  for (int i = 0; i < count; i++) {
    char text[128];
    snprintf(text, sizeof text,
             "INSERT OR REPLACE INTO t(key, name, value) VALUES('%d','user%d','%d');", i,
             i, i % 7);
    cmds += text;
  }
  return cmds;
}

template <int Count>
void ours(benchmark::State &state) {
  const SQLCmd cmds = statements(Count);
  DBHandler handle(kPath, kSchema);
  if (handle.connect() != 0) return state.SkipWithError("cannot connect");
  for (auto _ : state)
    if (handle.exeCmds(cmds, true) != 0) return state.SkipWithError("exeCmds failed");
}

bool runAll(sqlite3 *db, const SQLCmd &cmds) {
  const auto run = [db](const char *text) {
    return sqlite3_exec(db, text, nullptr, nullptr, nullptr) == SQLITE_OK;
  };
  if (!run("BEGIN TRANSACTION;")) return false;
  for (const std::string &statement : cmds.cmd_list)
    if (!run(statement.c_str())) return false;
  return run("COMMIT TRANSACTION;");
}

template <int Count>
void bare(benchmark::State &state) {
  const SQLCmd cmds = statements(Count);
  sqlite3 *db = nullptr;
  if (sqlite3_open(kPath, &db) != SQLITE_OK) state.SkipWithError("cannot open");
  for (auto _ : state)
    if (!runAll(db, cmds)) {
      state.SkipWithError("sqlite3_exec failed");
      break;
    }
  sqlite3_close(db);
}

}  // namespace

int main(int argc, char **argv) {
  DBHandler file(kPath, kSchema);
  if (file.connect() != 0 || file.exeCmds(statements(100'000), true) != 0 ||
      file.disconnect() != 0) {
    fprintf(stderr, "%s: cannot fill %s (run it under hermetic-run)\n", argv[0], kPath);
    return 1;
  }
  return runRatios(argc, argv,
                   {{"1,000 statements", ours<1'000>, bare<1'000>, 1.05},
                    {"100,000 statements", ours<100'000>, bare<100'000>, 1.05}});
}
