#include "faults/sweep.h"

#include <unistd.h>

#include <algorithm>

#include "DBHandler.h"
#include "alias.h"
#include "support/connections.h"
#include "support/database.h"
#include "support/files.h"

namespace {

using Rows = std::vector<std::string>;

const std::string kFolder = "/var/packages/Postwell/etc/";
const std::string kTable =
    "create table t(a);create index i on t(a);insert into t values(1);";
const std::string kWalTable =
    "BEGIN TRANSACTION;" + kTable + "COMMIT TRANSACTION;PRAGMA journal_mode = WAL;";

bool holds(const Rows &rows, const std::string &row) {
  return std::find(rows.begin(), rows.end(), row) != rows.end();
}

// ---- DBHandler

const std::string kDB = kFolder + "test.db";

// Notes a result; true when it is a success.
bool good(Told &told, int result) {
  if (result != 0) told.failure = true;
  return result == 0;
}

void insert(DBHandler &handle, Told &told, const Rows &values) {
  SQLCmd cmds;
  for (const std::string &value : values)
    cmds += ("insert into t values(" + value + ");").c_str();
  if (good(told, handle.exeCmds(cmds, true)))
    told.stored.insert(told.stored.end(), values.begin(), values.end());
}

Told useHandle(const std::string &schema) {
  Told told;
  DBHandler handle(kDB, schema);
  if (good(told, handle.connect())) {
    insert(handle, told, {"10", "11", "12"});
    good(told, handle.disconnect());
  } else if (handle.isConnect() || handle.getDB() != nullptr) {
    told.stored.push_back("a failed connect() that leaves the handle connected");
  }
  if (!good(told, handle.connect())) return told;
  insert(handle, told, {"20"});
  if (good(told, handle.beginTransaction())) {
    SQLCmd cmds;
    cmds += "insert into t values(30);";
    good(told, handle.exeCmds(cmds, false));
    handle.rollback();
    if (!handle.isInTran()) told.gone.push_back("30");
  }
  return told;
}

Told regenerate(const std::string &schema) {
  Told told;
  DBHandler handle(kDB, schema);
  if (!good(told, handle.connect())) return told;
  if (good(told, handle.regenDB())) {
    told.gone = {"2"};
    insert(handle, told, {"10"});
  }
  return told;
}

bool openHandle(const std::string &schema) {
  DBHandler handle(kDB, schema);
  return handle.connect() == 0;
}

void makeTable(const std::string &schema) {
  DBHandler handle(kDB, schema);
  SQLCmd cmds;
  cmds += "insert into t values(2);";
  EXPECT_EQ(handle.connect(), 0);
  EXPECT_EQ(handle.exeCmds(cmds, true), 0);
}

Work handleWork(const char *name, const std::string &schema, bool isNew, const Rows &kept,
                Told (*run)(const std::string &)) {
  Work work{name, kDB, "select a from t;", isNew, kept, nullptr, nullptr, nullptr};
  work.prepare = [=] {
    if (!isNew || run == regenerate) makeTable(schema);
  };
  work.run = [=] { return run(schema); };
  work.open = [=] { return openHandle(schema); };
  return work;
}

// ---- Alias

MemberInfo member(const char *name, MemberType type) {
  MemberInfo info;
  info.strName = name;
  info.type = type;
  return info;
}

Told useAliases() {
  Told told;
  Alias aliases;
  if (!good(told, aliases.getError()) || !good(told, aliases.load())) return told;
  std::list<MemberInfo> members;
  good(told, aliases.loadMember("root", members));
  std::list<std::string> names;
  good(told, aliases.enumMemberByType(names, USER));
  if (good(told,
           aliases.addMember("sales", {member("anna", USER), member("all", ALIAS)})))
    told.stored = {"sales|anna|0", "sales|all|2"};
  if (good(told, aliases.delMember("old", {member("gone", USER)})))
    told.gone.push_back("old|gone|0");
  if (good(told, aliases.delAlias({"old"}))) told.gone.push_back("old|kept|0");
  if (good(told, aliases.changeAliasName("team", "crew")))
    told.gone.push_back("team|zoe|0");
  good(told, aliases.save());
  return told;
}

bool openAliases() {
  Alias aliases;
  return aliases.getError() == 0 && aliases.load() == 0;
}

void makeAliases() {
  Alias aliases;
  ASSERT_EQ(aliases.load(), 0);
  EXPECT_EQ(aliases.addMember("old", {member("gone", USER), member("kept", USER)}), 0);
  EXPECT_EQ(aliases.addMember("team", {member("zoe", USER)}), 0);
}

Work aliasWork(const char *name, bool isNew) {
  const auto prepare = [=] {
    if (!isNew) makeAliases();
  };
  return {name,       kFolder + "alias.db", "select * from alias_info_table;",
          isNew,      {"root|admin|0"},     prepare,
          useAliases, openAliases};
}

}  // namespace

std::vector<Work> libraryWorks() {
  return {handleWork("handle, new file", kTable, true, {"1"}, useHandle),
          handleWork("handle, new write-ahead file", kWalTable, true, {"1"}, useHandle),
          handleWork("handle, file that was there", kTable, false, {"1", "2"}, useHandle),
          handleWork("handle, write-ahead file that was there", kWalTable, false,
                     {"1", "2"}, useHandle),
          handleWork("regenerated file", kTable, true, {"1"}, regenerate),
          aliasWork("aliases, new file", true),
          aliasWork("aliases, file that was there", false)};
}

// ---- the sweep

Outcome SweepTest::sweep(const Work &work, const std::function<void(long)> &arm,
                         const std::function<bool()> &disarm) {
  Outcome outcome;
  for (long nth = 1;; nth += SWEEP_STEP) {
    for (const char *end : {"", "-journal", "-wal", "-shm"})
      unlink((work.path + end).c_str());
    work.prepare();
    log.take();
    connections::closeLeft();
    arm(nth);
    Told told = work.run();
    const bool failed = disarm();
    readLog();
    if (rebuilt_) told.stored.clear();  // a success all the same, which is meant
    for (const std::string &wrong : judge(work, told))
      outcome.wrong.push_back(std::string(work.name) + ", " + std::to_string(nth) + ": " +
                              wrong);
    connections::closeLeft();
    if (!failed) {
      EXPECT_FALSE(told.failure) << work.name << ": without any failure";
      return outcome;
    }
    outcome.points++;
    if (rebuilt_) outcome.rebuilt++;
    if (told.failure) outcome.reported++;
  }
}

// Each creation that succeeds leaves one connection open.
void SweepTest::readLog() {
  creations_ = 0;
  rebuilt_ = false;
  const auto says = [](const LogLine &line, const char *text) {
    return line.text.find(text) != std::string::npos;
  };
  for (const LogLine &line : log.take()) {
    if (says(line, "isn't exist, create DB")) creations_++;
    if (says(line, "Create DB fail;")) creations_--;
    if (says(line, "db corrupt, need regen")) rebuilt_ = true;
  }
}

std::vector<std::string> SweepTest::judge(const Work &work, const Told &told) {
  Rows wrong;
  if (connections::left() != creations_)
    wrong.push_back(std::to_string(connections::left()) + " connections left");
  if (database::descriptorsOf(work.path) != creations_)
    wrong.push_back(std::to_string(database::descriptorsOf(work.path)) + " descriptors");
  if (fileExists(work.path)) {
    for (const std::string &line : database::rowsOf(work.path, "pragma integrity_check;"))
      if (line != "ok") wrong.push_back(line);
  }
  if (!work.open()) wrong.push_back("cannot be opened any more");
  log.take();
  const Rows rows = database::rowsOf(work.path, work.query);
  for (const std::string &row : work.kept)
    if (!holds(rows, row)) wrong.push_back(row + " is lost");
  for (const std::string &row : told.stored)
    if (!holds(rows, row)) wrong.push_back(row + " was stored and is missing");
  for (const std::string &row : told.gone)
    if (holds(rows, row)) wrong.push_back(row + " was removed and is there");
  return wrong;
}
