#include "DBHandler.h"

#include <gtest/gtest.h>
#include <sqlite3.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <csignal>
#include <ctime>
#include <functional>
#include <memory>
#include <utility>

#include "platform/children.h"
#include "support/database.h"
#include "support/files.h"
#include "support/library_test.h"
#include "support/limit.h"

namespace {

using Rows = std::vector<std::string>;
using database::descriptorsOf;
using database::rowsOf;

const std::string kFolder = "/var/packages/Postwell/etc";
const std::string kPath = kFolder + "/test.db";
const std::string kSchema =
    "create table t(a INTEGER, b TEXT);insert into t values(1,'seed');";
const std::string kAll = "select * from t order by a;";

const std::string kMissing = "DBHandler.cpp: " + kPath + " isn't exist, create DB";
const std::string kCreateFailed = "DBHandler.cpp: Create DB fail;";
const std::string kRegen = "debug DBHandler.cpp: regen db : " + kPath;
const std::string kStillInTransaction =
    "debug DBHandler.cpp: Still in transaction, try to commit";

// What SQLite's busy handler sleeps: added up, and slept only when the test wants it.
// The first sleep of a wait runs `meanwhile`.
unsigned long sleptMicroseconds = 0;
bool sleepingForReal = false;
std::function<void()> meanwhile;

class DBHandlerTest : public LibraryTest {
 protected:
  DBHandlerTest() : before_(descriptorsOf(kPath)) {
    sleptMicroseconds = 0;
    sleepingForReal = false;
    meanwhile = nullptr;
  }

  // Connections to the file that were opened in this test.
  int connections() const { return descriptorsOf(kPath) - before_; }

  // The file as the schema makes it, made by a handle that is gone.
  void createFile() {
    DBHandler handle(kPath, kSchema);
    EXPECT_EQ(handle.connect(), 0);
    expectLog({kMissing});
  }

 private:
  int before_;  // what creations in earlier tests have left open
};

SQLCmd commands(const std::vector<const char *> &statements) {
  SQLCmd cmds;
  for (const char *statement : statements) cmds += statement;
  return cmds;
}

// ---- SQLCmd

TEST_F(DBHandlerTest, StatementsAreCopiedInTheirOrder) {
  SQLCmd cmds;
  std::string text = "one;";
  cmds += text.c_str();
  text = "gone";
  (cmds += "two;") += "three;";
  EXPECT_EQ(cmds.cmd_list, (std::list<std::string>{"one;", "two;", "three;"}));
}

TEST_F(DBHandlerTest, DumpWritesOneStatementALineToStandardError) {
  testing::internal::CaptureStderr();
  commands({"select '%s%n';", "", "select 2;"}).dumpCmds();
  EXPECT_EQ(testing::internal::GetCapturedStderr(), "select '%s%n';\n\nselect 2;\n");
}

// ---- connect

TEST_F(DBHandlerTest, AFreshHandleTouchesNoFile) {
  {
    DBHandler handle(kPath, kSchema);
    EXPECT_EQ(handle.getErrCode(), -1);
    EXPECT_EQ(handle.getDB(), nullptr);
    EXPECT_FALSE(handle.isConnect());
    EXPECT_FALSE(handle.isInTran());
    EXPECT_EQ(handle.disconnect(), 0);
    EXPECT_EQ(handle.getErrCode(), -1);
  }
  EXPECT_FALSE(fileExists(kPath));
}

TEST_F(DBHandlerTest, AMissingFileIsMadeFromTheSchemaOnce) {
  DBHandler handle(kPath, kSchema);
  EXPECT_EQ(handle.connect(), 0);
  expectLog({kMissing});
  EXPECT_TRUE(handle.isConnect());
  EXPECT_NE(handle.getDB(), nullptr);
  EXPECT_EQ(handle.getErrCode(), 0);
  EXPECT_EQ(handle.disconnect(), 0);
  EXPECT_FALSE(handle.isConnect());
  EXPECT_EQ(handle.connect(), 0);
  EXPECT_EQ(rowsOf(kPath, kAll), Rows{"1|seed"});
}

TEST_F(DBHandlerTest, AnExistingFileIsOpenedWithoutTheSchema) {
  createFile();
  DBHandler handle(kPath, "no SQL at all");
  EXPECT_EQ(handle.connect(), 0);
  EXPECT_EQ(rowsOf(kPath, kAll), Rows{"1|seed"});
}

TEST_F(DBHandlerTest, ConnectingAConnectedHandleChangesNothing) {
  DBHandler handle(kPath, kSchema);
  ASSERT_EQ(handle.connect(), 0);
  expectLog({kMissing});
  sqlite3 *const connection = handle.getDB();
  EXPECT_EQ(handle.exeCmds(commands({"nonsense;"}), false), 1);
  expectLog(
      {"DBHandler.cpp: sqlite3_exec fail, err=[1], near \"nonsense\": syntax error"});
  unlink(kPath.c_str());
  EXPECT_EQ(handle.connect(), 0);
  EXPECT_EQ(handle.getErrCode(), 1);
  EXPECT_EQ(handle.getDB(), connection);
  EXPECT_FALSE(fileExists(kPath));
}

TEST_F(DBHandlerTest, AFailedSchemaIsReportedAndTheHandleHeals) {
  DBHandler handle(kPath, "create table t(a INTEGER, b TEXT);nonsense;");
  EXPECT_EQ(handle.connect(), 1);
  EXPECT_EQ(handle.getErrCode(), 1);
  expectLog(
      {kMissing,
       "DBHandler.cpp: exec db schema fail, err=[1], near \"nonsense\": syntax error",
       kCreateFailed});
  EXPECT_FALSE(handle.isConnect());
  EXPECT_EQ(connections(), 0);
  EXPECT_FALSE(fileExists(kPath));  // it would stand there without its tables
  handle.setSchema(kSchema);
  EXPECT_EQ(handle.connect(), 0);
  expectLog({kMissing});
  EXPECT_EQ(rowsOf(kPath, kAll), Rows{"1|seed"});
}

TEST_F(DBHandlerTest, AnUnfinishedSchemaTransactionIsNoFile) {
  DBHandler handle(kPath, "BEGIN TRANSACTION;create table t(a);nonsense;");
  EXPECT_EQ(handle.connect(), 1);
  log.take();
  EXPECT_FALSE(fileExists(kPath));
  EXPECT_FALSE(fileExists(kPath + "-journal"));
}

TEST_F(DBHandlerTest, AFileThatWasThereSurvivesAFailedSchema) {
  createFile();
  const std::string before = readFile(kPath);
  DBHandler handle(kPath, kSchema);
  EXPECT_EQ(handle.createDB(), 1);
  expectLog({"DBHandler.cpp: exec db schema fail, err=[1], table t already exists"});
  EXPECT_FALSE(handle.isConnect());
  EXPECT_EQ(readFile(kPath), before);
}

TEST_F(DBHandlerTest, AnEmptyFileThatWasThereIsNotTouched) {
  writeFile(kPath, "");
  DBHandler handle(kPath, "nonsense;");
  EXPECT_EQ(handle.createDB(), 1);
  log.take();
  EXPECT_EQ(readFile(kPath), "");
  EXPECT_EQ(handle.connect(), 0);  // it is there, so it is opened as it is
  EXPECT_EQ(readFile(kPath), "");
}

TEST_F(DBHandlerTest, AMissingFolderFailsTheConnectUntilItIsMade) {
  const std::string path = kFolder + "/sub/test.db";
  DBHandler handle(path, kSchema);
  for (int attempt = 0; attempt < 2; attempt++) {
    EXPECT_EQ(handle.connect(), 14);
    EXPECT_EQ(handle.getErrCode(), 14);
    EXPECT_FALSE(handle.isConnect());
    expectLog({"DBHandler.cpp: " + path + " isn't exist, create DB",
               "DBHandler.cpp: Open database fail. dbpath = [" + path + "]",
               kCreateFailed});
  }
  ASSERT_EQ(mkdir((kFolder + "/sub").c_str(), 0755), 0);
  EXPECT_EQ(handle.connect(), 0);
  expectLog({"DBHandler.cpp: " + path + " isn't exist, create DB"});
  EXPECT_EQ(rowsOf(path, kAll), Rows{"1|seed"});
}

TEST_F(DBHandlerTest, AFileThatCannotBeOpenedFailsTheConnectUntilItCan) {
  createFile();
  ASSERT_EQ(chmod(kPath.c_str(), 0), 0);
  DBHandler handle(kPath, kSchema);
  for (int attempt = 0; attempt < 2; attempt++) {
    EXPECT_EQ(handle.connect(), 14);
    EXPECT_EQ(handle.getErrCode(), 14);
    EXPECT_FALSE(handle.isConnect());
    expectLog({"DBHandler.cpp: Open database fail. dbpath = [" + kPath + "], err=[14]"});
  }
  ASSERT_EQ(chmod(kPath.c_str(), 0644), 0);
  EXPECT_EQ(handle.connect(), 0);
  EXPECT_EQ(connections(), 2);  // this one and the creating one
}

TEST_F(DBHandlerTest, AReadOnlyFolderHoldsNoNewFileAndNoChange) {
  createFile();
  const std::string missing = kFolder + "/missing.db";
  ASSERT_EQ(chmod(kFolder.c_str(), 0555), 0);
  DBHandler handle(missing, kSchema);
  EXPECT_EQ(handle.connect(), 14);
  log.take();
  DBHandler present(kPath, kSchema);
  EXPECT_EQ(present.connect(), 0);
  EXPECT_EQ(present.exeCmds(commands({"insert into t values(2,'x');"}), false), 8);
  expectLog(
      {"DBHandler.cpp: sqlite3_exec fail, err=[8], attempt to write a readonly "
       "database"});
  ASSERT_EQ(chmod(kFolder.c_str(), 0755), 0);
  EXPECT_EQ(rowsOf(kPath, kAll), Rows{"1|seed"});
}

TEST_F(DBHandlerTest, AReadOnlyFileIsReadAndNotWritten) {
  createFile();
  ASSERT_EQ(chmod(kPath.c_str(), 0444), 0);
  DBHandler handle(kPath, kSchema);
  EXPECT_EQ(handle.connect(), 0);
  EXPECT_EQ(handle.exeCmds(commands({"select * from t;"}), false), 0);
  EXPECT_EQ(handle.exeCmds(commands({"delete from t;"}), false), 8);
  expectLog(
      {"DBHandler.cpp: sqlite3_exec fail, err=[8], attempt to write a readonly "
       "database"});
}

TEST_F(DBHandlerTest, PathAndSchemaCountFromTheNextConnect) {
  DBHandler handle(kFolder + "/other.db", "create table other(x);");
  handle.setDBPath(kPath);
  handle.setSchema(kSchema);
  EXPECT_EQ(handle.connect(), 0);
  expectLog({kMissing});
  handle.setDBPath(kFolder + "/third.db");
  EXPECT_EQ(handle.exeCmds(commands({"insert into t values(2,'x');"}), false), 0);
  EXPECT_EQ(rowsOf(kPath, kAll), (Rows{"1|seed", "2|x"}));
  EXPECT_FALSE(fileExists(kFolder + "/other.db"));
  EXPECT_FALSE(fileExists(kFolder + "/third.db"));
}

// ---- files that are damaged or in use

TEST_F(DBHandlerTest, AFileThatIsNoDatabaseFailsWhenItIsUsed) {
  writeFile(kPath, std::string(8192, 'x'));
  DBHandler handle(kPath, kSchema);
  EXPECT_EQ(handle.connect(), 0);  // SQLite looks into it later
  EXPECT_EQ(handle.exeCmds(commands({"select * from t;"}), false), 26);
  EXPECT_EQ(handle.getErrCode(), 26);
  expectLog({"DBHandler.cpp: sqlite3_exec fail, err=[26], file is not a database"});
}

TEST_F(DBHandlerTest, ACorruptPageIsCode11) {
  createFile();
  database::spoilTables(kPath);
  DBHandler handle(kPath, kSchema);
  EXPECT_EQ(handle.connect(), 0);
  EXPECT_EQ(handle.exeCmds(commands({"insert into t values(2,'x');"}), true), 11);
  EXPECT_EQ(handle.getErrCode(), 11);
  expectLog(
      {"DBHandler.cpp: sqlite3_exec fail, err=[11], database disk image is malformed"});
  handle.rollback();
  EXPECT_EQ(handle.regenDB(), 0);
  expectLog({kRegen, kMissing});
  EXPECT_EQ(rowsOf(kPath, kAll), Rows{"1|seed"});
}

// A file that another connection keeps locked.
class LockedTest : public DBHandlerTest {
 protected:
  LockedTest() {
    createFile();
    holder = std::make_unique<database::Connection>(kPath);
    EXPECT_EQ(holder->run("BEGIN EXCLUSIVE;"), 0);
  }

  // A statement fails after SQLite has waited so long.
  void expectLocked(unsigned int microseconds) {
    EXPECT_EQ(handle.exeCmds(commands({"select * from t;"}), false), 5);
    EXPECT_EQ(sleptMicroseconds, microseconds);
    expectLog({"DBHandler.cpp: sqlite3_exec fail, err=[5], database is locked"});
  }

  std::unique_ptr<database::Connection> holder;
  DBHandler handle{kPath, kSchema};
};

TEST_F(LockedTest, WithoutATimeoutALockedFileFailsAtOnce) {
  handle.setBusyTimeout(0);
  EXPECT_EQ(handle.connect(), 0);
  expectLocked(0);
}

TEST_F(LockedTest, WithATimeoutSQLiteWaitsThatLong) {
  handle.setBusyTimeout(300);
  EXPECT_EQ(handle.connect(), 0);
  expectLocked(300'000);
}

TEST_F(LockedTest, TheShortestTimeoutIsOneMillisecond) {
  handle.setBusyTimeout(1);
  EXPECT_EQ(handle.connect(), 0);
  expectLocked(1000);
}

TEST_F(LockedTest, TheWaitOfACreationEndsWithIt) {
  holder.reset();
  ASSERT_EQ(unlink(kPath.c_str()), 0);
  EXPECT_EQ(handle.createDB(), 0);
  holder = std::make_unique<database::Connection>(kPath);
  ASSERT_EQ(holder->run("BEGIN EXCLUSIVE;"), 0);
  expectLocked(0);
}

TEST_F(LockedTest, AWaitEndsWithTheLock) {
  meanwhile = [this] { EXPECT_EQ(holder->run("COMMIT;"), 0); };
  handle.setBusyTimeout(60'000);
  EXPECT_EQ(handle.connect(), 0);
  EXPECT_EQ(handle.exeCmds(commands({"insert into t values(2,'x');"}), true), 0);
  EXPECT_GT(sleptMicroseconds, 0u);
  EXPECT_LT(sleptMicroseconds, 60'000'000u);
  EXPECT_EQ(rowsOf(kPath, kAll), (Rows{"1|seed", "2|x"}));
}

TEST_F(LockedTest, ATimeoutCountsFromTheNextConnectAndOnlyAboveZero) {
  EXPECT_EQ(handle.connect(), 0);
  handle.setBusyTimeout(300);
  expectLocked(0);
  EXPECT_EQ(handle.disconnect(), 0);
  handle.setBusyTimeout(0xffffffffu);  // -1, as an int
  EXPECT_EQ(handle.connect(), 0);
  expectLocked(0);
}

// ---- transactions

TEST_F(DBHandlerTest, ATransactionIsCommittedOrRolledBack) {
  createFile();
  DBHandler handle(kPath, kSchema);
  ASSERT_EQ(handle.connect(), 0);
  EXPECT_EQ(handle.beginTransaction(), 0);
  EXPECT_TRUE(handle.isInTran());
  EXPECT_EQ(handle.exeCmds(commands({"insert into t values(2,'kept');"}), false), 0);
  EXPECT_EQ(handle.commitTransaction(), 0);
  EXPECT_FALSE(handle.isInTran());
  EXPECT_EQ(handle.beginTransaction(), 0);
  EXPECT_EQ(handle.exeCmds(commands({"insert into t values(3,'undone');"}), false), 0);
  handle.rollback();
  EXPECT_FALSE(handle.isInTran());
  EXPECT_EQ(handle.getErrCode(), 0);
  EXPECT_EQ(rowsOf(kPath, kAll), (Rows{"1|seed", "2|kept"}));
}

TEST_F(DBHandlerTest, BeginInsideATransactionFailsAndLeavesItOpen) {
  createFile();
  DBHandler handle(kPath, kSchema);
  ASSERT_EQ(handle.connect(), 0);
  ASSERT_EQ(handle.beginTransaction(), 0);
  EXPECT_EQ(handle.beginTransaction(), 1);
  EXPECT_EQ(handle.getErrCode(), 1);
  EXPECT_TRUE(handle.isInTran());
  EXPECT_EQ(handle.exeCmds(commands({"insert into t values(2,'x');"}), true), 1);
  const std::string failed =
      "DBHandler.cpp: begin Transaction fail, err=[1], "
      "cannot start a transaction within a transaction";
  expectLog({failed, failed});
  handle.rollback();
  EXPECT_EQ(rowsOf(kPath, kAll), Rows{"1|seed"});
}

TEST_F(DBHandlerTest, CommitAndRollbackOutsideATransactionFail) {
  createFile();
  DBHandler handle(kPath, kSchema);
  ASSERT_EQ(handle.connect(), 0);
  EXPECT_EQ(handle.commitTransaction(), 1);
  EXPECT_EQ(handle.disconnect(), 0);
  ASSERT_EQ(handle.connect(), 0);
  handle.rollback();
  EXPECT_EQ(handle.getErrCode(), 1);
  EXPECT_FALSE(handle.isInTran());
  expectLog(
      {"DBHandler.cpp: commitTransaction fail, err=[1], "
       "cannot commit - no transaction is active",
       "DBHandler.cpp: rollback fail, err=[1], "
       "cannot rollback - no transaction is active"});
}

TEST_F(DBHandlerTest, AFailedCommitOrRollbackStaysInTheTransaction) {
  createFile();
  DBHandler handle(kPath, kSchema);
  ASSERT_EQ(handle.connect(), 0);
  database::Connection reader(kPath);
  ASSERT_EQ(reader.run("BEGIN;select * from t;"), 0);
  EXPECT_EQ(handle.exeCmds(commands({"insert into t values(2,'x');"}), true), 5);
  EXPECT_EQ(handle.getErrCode(), 5);
  EXPECT_TRUE(handle.isInTran());
  expectLog({"DBHandler.cpp: commitTransaction fail, err=[5], database is locked"});
  ASSERT_EQ(reader.run("COMMIT;"), 0);
  EXPECT_EQ(handle.commitTransaction(), 0);
  EXPECT_EQ(rowsOf(kPath, kAll), (Rows{"1|seed", "2|x"}));

  ASSERT_EQ(handle.beginTransaction(), 0);
  ASSERT_EQ(sqlite3_exec(handle.getDB(), "COMMIT;", nullptr, nullptr, nullptr), 0);
  handle.rollback();
  EXPECT_TRUE(handle.isInTran());
  handle.disconnect();
  expectLog(
      {"DBHandler.cpp: rollback fail, err=[1], "
       "cannot rollback - no transaction is active",
       kStillInTransaction,
       "DBHandler.cpp: commitTransaction fail, err=[1], "
       "cannot commit - no transaction is active"});
}

// ---- exeCmds

TEST_F(DBHandlerTest, StatementsRunInTheirOrder) {
  createFile();
  DBHandler handle(kPath, kSchema);
  ASSERT_EQ(handle.connect(), 0);
  const SQLCmd cmds = commands(
      {"insert into t values(2,'two');", "update t set b = 'changed' where a = 2;",
       "insert into t values(3,'a;b');delete from t where a=1;"});
  for (const bool useTransaction : {false, true}) {
    EXPECT_EQ(handle.exeCmds(cmds, useTransaction), 0);
    EXPECT_FALSE(handle.isInTran());
  }
  EXPECT_EQ(rowsOf(kPath, kAll), (Rows{"2|changed", "2|changed", "3|a;b", "3|a;b"}));
}

TEST_F(DBHandlerTest, AnEmptyListWithoutTransactionGivesTheCodeBefore) {
  createFile();
  DBHandler handle(kPath, kSchema);
  ASSERT_EQ(handle.connect(), 0);
  EXPECT_EQ(handle.exeCmds(SQLCmd(), false), 0);
  EXPECT_EQ(handle.exeCmds(commands({"nonsense;"}), false), 1);
  EXPECT_EQ(handle.exeCmds(SQLCmd(), false), 1);
  EXPECT_EQ(handle.exeCmds(SQLCmd(), true), 0);
  log.take();
}

TEST_F(DBHandlerTest, WhatSucceededBeforeAFailureIsCommittedByDisconnect) {
  createFile();
  DBHandler handle(kPath, kSchema);
  ASSERT_EQ(handle.connect(), 0);
  EXPECT_EQ(handle.exeCmds(commands({"insert into t values(2,'kept');",
                                     "insert into missing values(1);",
                                     "insert into t values(3,'not run');"}),
                           true),
            1);
  EXPECT_EQ(handle.getErrCode(), 1);
  EXPECT_TRUE(handle.isInTran());
  expectLog({"DBHandler.cpp: sqlite3_exec fail, err=[1], no such table: missing"});
  EXPECT_EQ(handle.disconnect(), 0);
  expectLog({kStillInTransaction});
  EXPECT_FALSE(handle.isInTran());
  EXPECT_EQ(rowsOf(kPath, kAll), (Rows{"1|seed", "2|kept"}));
}

TEST_F(DBHandlerTest, WithoutATransactionWhatSucceededIsStoredAtOnce) {
  createFile();
  DBHandler handle(kPath, kSchema);
  ASSERT_EQ(handle.connect(), 0);
  EXPECT_EQ(
      handle.exeCmds(commands({"insert into t values(2,'kept');", "nonsense;"}), false),
      1);
  EXPECT_FALSE(handle.isInTran());
  log.take();
  EXPECT_EQ(rowsOf(kPath, kAll), (Rows{"1|seed", "2|kept"}));
}

TEST_F(DBHandlerTest, ADisconnectedHandleRunsNothing) {
  DBHandler handle(kPath, kSchema);
  EXPECT_EQ(handle.exeCmds(commands({"select 1;"}), false), SQLITE_MISUSE);
  EXPECT_EQ(handle.beginTransaction(), SQLITE_MISUSE);
  EXPECT_EQ(log.take().size(), 2u);
  EXPECT_FALSE(fileExists(kPath));
}

// ---- disconnect

TEST_F(DBHandlerTest, TheDestructorCommitsAndCloses) {
  createFile();
  {
    DBHandler handle(kPath, kSchema);
    ASSERT_EQ(handle.connect(), 0);
    ASSERT_EQ(handle.beginTransaction(), 0);
    EXPECT_EQ(handle.exeCmds(commands({"insert into t values(2,'x');"}), false), 0);
  }
  expectLog({kStillInTransaction});
  EXPECT_EQ(connections(), 1);  // the creating one
  EXPECT_EQ(rowsOf(kPath, kAll), (Rows{"1|seed", "2|x"}));
}

TEST_F(DBHandlerTest, AFailedCommitDoesNotStopTheCloseWhichEndsTheTransaction) {
  createFile();
  DBHandler handle(kPath, kSchema);
  ASSERT_EQ(handle.connect(), 0);
  database::Connection reader(kPath);
  ASSERT_EQ(reader.run("BEGIN;select * from t;"), 0);
  ASSERT_EQ(handle.beginTransaction(), 0);
  ASSERT_EQ(handle.exeCmds(commands({"insert into t values(2,'lost');"}), false), 0);
  EXPECT_EQ(handle.disconnect(), 0);
  expectLog({kStillInTransaction,
             "DBHandler.cpp: commitTransaction fail, err=[5], database is locked"});
  EXPECT_FALSE(handle.isConnect());
  EXPECT_FALSE(handle.isInTran());
  EXPECT_EQ(handle.getErrCode(), 0);
  ASSERT_EQ(reader.run("COMMIT;"), 0);
  EXPECT_EQ(handle.connect(), 0);
  EXPECT_EQ(handle.disconnect(), 0);  // nothing to commit, nothing logged
  EXPECT_EQ(rowsOf(kPath, kAll), Rows{"1|seed"});
}

TEST_F(DBHandlerTest, AFailedCloseLeavesTheHandleConnected) {
  createFile();
  DBHandler handle(kPath, kSchema);
  ASSERT_EQ(handle.connect(), 0);
  sqlite3_stmt *statement = nullptr;
  ASSERT_EQ(
      sqlite3_prepare_v2(handle.getDB(), "select * from t;", -1, &statement, nullptr), 0);
  EXPECT_EQ(handle.disconnect(), 5);
  EXPECT_EQ(handle.getErrCode(), 5);
  EXPECT_TRUE(handle.isConnect());
  expectLog({"DBHandler.cpp: Failed to close sqlite3, ret = [5]"});
  sqlite3_finalize(statement);
  EXPECT_EQ(handle.disconnect(), 0);
  EXPECT_FALSE(handle.isConnect());
}

// ---- regenDB

TEST_F(DBHandlerTest, RegeneratingDisconnectedRemovesTheFile) {
  createFile();
  DBHandler handle(kPath, kSchema);
  EXPECT_EQ(handle.regenDB(), 0);
  EXPECT_EQ(handle.getErrCode(), 0);
  EXPECT_FALSE(handle.isConnect());
  EXPECT_FALSE(fileExists(kPath));
  EXPECT_EQ(handle.regenDB(), 0);  // a missing file is as good
  expectLog({kRegen, kRegen});
  EXPECT_EQ(handle.connect(), 0);
  expectLog({kMissing});
  EXPECT_EQ(rowsOf(kPath, kAll), Rows{"1|seed"});
}

TEST_F(DBHandlerTest, RegeneratingConnectedLeavesAConnectedFreshFile) {
  createFile();
  DBHandler handle(kPath, kSchema);
  ASSERT_EQ(handle.connect(), 0);
  ASSERT_EQ(handle.exeCmds(commands({"insert into t values(2,'x');"}), true), 0);
  EXPECT_EQ(handle.regenDB(), 0);
  expectLog({kRegen, kMissing});
  EXPECT_TRUE(handle.isConnect());
  EXPECT_EQ(rowsOf(kPath, kAll), Rows{"1|seed"});
  EXPECT_EQ(handle.exeCmds(commands({"insert into t values(3,'y');"}), true), 0);
  EXPECT_EQ(rowsOf(kPath, kAll), (Rows{"1|seed", "3|y"}));
}

TEST_F(DBHandlerTest, RegeneratingInATransactionEndsIt) {
  createFile();
  DBHandler handle(kPath, kSchema);
  ASSERT_EQ(handle.connect(), 0);
  ASSERT_EQ(handle.beginTransaction(), 0);
  ASSERT_EQ(handle.exeCmds(commands({"insert into t values(2,'x');"}), false), 0);
  EXPECT_EQ(handle.regenDB(), 0);
  expectLog({kRegen, kStillInTransaction, kMissing});
  EXPECT_FALSE(handle.isInTran());
  EXPECT_EQ(rowsOf(kPath, kAll), Rows{"1|seed"});
}

TEST_F(DBHandlerTest, RegeneratingAHandleThatCannotBeClosedRemovesTheFileAllTheSame) {
  createFile();
  DBHandler handle(kPath, kSchema);
  ASSERT_EQ(handle.connect(), 0);
  sqlite3_stmt *statement = nullptr;
  ASSERT_EQ(
      sqlite3_prepare_v2(handle.getDB(), "select * from t;", -1, &statement, nullptr), 0);
  EXPECT_EQ(handle.regenDB(), 0);
  expectLog({kRegen, "DBHandler.cpp: Failed to close sqlite3, ret = [5]"});
  EXPECT_TRUE(handle.isConnect());
  EXPECT_FALSE(fileExists(kPath));
  sqlite3_finalize(statement);
  EXPECT_EQ(handle.disconnect(), 0);
  EXPECT_EQ(handle.connect(), 0);
  expectLog({kMissing});
  EXPECT_EQ(rowsOf(kPath, kAll), Rows{"1|seed"});
}

TEST_F(DBHandlerTest, AFailedRegenerationLeavesTheHandleDisconnected) {
  createFile();
  DBHandler handle(kPath, "nonsense;");
  ASSERT_EQ(handle.connect(), 0);
  EXPECT_EQ(handle.regenDB(), 1);
  EXPECT_EQ(handle.getErrCode(), 1);
  EXPECT_FALSE(handle.isConnect());
  EXPECT_FALSE(fileExists(kPath));
  EXPECT_EQ(log.take().size(), 4u);
}

// ---- the connection that creates a file

TEST_F(DBHandlerTest, EachCreationThatSucceedsLeavesOneConnectionOpen) {
  DBHandler handle(kPath, kSchema);
  ASSERT_EQ(handle.connect(), 0);
  EXPECT_EQ(connections(), 2);
  ASSERT_EQ(handle.disconnect(), 0);
  EXPECT_EQ(connections(), 1);
  for (int i = 0; i < 3; i++) {
    ASSERT_EQ(handle.connect(), 0);
    ASSERT_EQ(handle.disconnect(), 0);
  }
  EXPECT_EQ(connections(), 1);
  ASSERT_EQ(handle.connect(), 0);
  ASSERT_EQ(handle.regenDB(), 0);
  EXPECT_EQ(connections(), 3);
  ASSERT_EQ(handle.disconnect(), 0);
  EXPECT_EQ(connections(), 2);
  handle.setSchema("nonsense;");
  EXPECT_EQ(handle.regenDB(), 0);
  for (int i = 0; i < 3; i++) EXPECT_EQ(handle.connect(), 1);
  EXPECT_EQ(connections(), 2);
  log.take();
}

TEST_F(DBHandlerTest, TwoThousandCreationsRunOnARaisedLimit) {
  rlimit allowed;
  ASSERT_EQ(getrlimit(RLIMIT_NOFILE, &allowed), 0);
  const Limit raised(RLIMIT_NOFILE, allowed.rlim_max);
  constexpr int wanted = 2000;
  ASSERT_GT(allowed.rlim_max, wanted + 40u) << "the hard limit of descriptors";
  DBHandler handle(kPath, kSchema);
  for (int i = 1; i <= wanted; i++) {
    ASSERT_EQ(handle.regenDB(), 0) << i;
    ASSERT_EQ(handle.connect(), 0) << i;
    ASSERT_EQ(handle.disconnect(), 0) << i;
    log.take();
  }
  EXPECT_EQ(connections(), wanted);
  EXPECT_EQ(rowsOf(kPath, kAll), Rows{"1|seed"});
}

TEST_F(DBHandlerTest, WithoutDescriptorsTheConnectFailsUntilThereAreSome) {
  createFile();
  DBHandler handle(kPath, kSchema);
  {
    const Limit none(RLIMIT_NOFILE, 0);
    EXPECT_EQ(handle.connect(), 14);
    EXPECT_FALSE(handle.isConnect());
  }
  expectLog({"DBHandler.cpp: Open database fail. dbpath = [" + kPath + "], err=[14]"});
  EXPECT_EQ(handle.connect(), 0);
}

// ---- a disk without room, and others at work

TEST_F(DBHandlerTest, AFileThatDoesNotFitIsRemovedAndMadeLater) {
  signal(SIGXFSZ, SIG_IGN);
  const std::string schema = kSchema +
                             "create table u(x);create index i on u(x);"
                             "insert into u values(zeroblob(20000));";
  DBHandler handle(kPath, schema);
  int failures = 0;
  for (rlim_t room = 0; !handle.isConnect(); room += 2048) {
    ASSERT_LT(room, 200'000u);
    const Limit disk(RLIMIT_FSIZE, room);
    if (handle.connect() == 0) break;
    failures++;
    EXPECT_NE(handle.getErrCode(), 0);
    EXPECT_FALSE(fileExists(kPath)) << "room for " << room << " bytes";
    EXPECT_FALSE(fileExists(kPath + "-journal")) << "room for " << room << " bytes";
    EXPECT_EQ(log.take().size(), 3u);
  }
  EXPECT_GE(failures, 10);
  expectLog({kMissing});
  EXPECT_EQ(rowsOf(kPath, "pragma integrity_check;"), Rows{"ok"});
  EXPECT_EQ(rowsOf(kPath, "select length(x) from u;"), Rows{"20000"});
}

TEST_F(DBHandlerTest, AFileThatWasThereSurvivesADiskWithoutRoom) {
  signal(SIGXFSZ, SIG_IGN);
  createFile();
  DBHandler handle(kPath, kSchema);
  ASSERT_EQ(handle.connect(), 0);
  {
    const Limit disk(RLIMIT_FSIZE, 4096);
    EXPECT_NE(handle.exeCmds(commands({"insert into t values(2,zeroblob(9000));"}), true),
              0);
    EXPECT_EQ(handle.disconnect(), 0);
  }
  log.take();
  EXPECT_EQ(rowsOf(kPath, "pragma integrity_check;"), Rows{"ok"});
  EXPECT_EQ(rowsOf(kPath, kAll), Rows{"1|seed"});
}

TEST_F(DBHandlerTest, ANewFileThatOthersHoldIsNotRemoved) {
  const std::string other = kPath + "-other";
  writeFile(other, "");
  database::Connection holder(other);
  ASSERT_EQ(holder.run("BEGIN EXCLUSIVE;"), 0);
  DBHandler handle(kPath, "ATTACH '" + other + "' AS o; CREATE TABLE o.x(a);");
  EXPECT_EQ(handle.connect(), 5);
  EXPECT_TRUE(fileExists(kPath));
  EXPECT_EQ(log.take().size(), 3u);
}

TEST_F(DBHandlerTest, ANewFileIsForAllToRead) {
  const mode_t before = umask(022);
  createFile();
  umask(before);
  struct stat st;
  ASSERT_EQ(stat(kPath.c_str(), &st), 0);
  EXPECT_EQ(st.st_mode & 07777, 0644u);
}

// Whoever loses the race may fail, by finding the tables there already, but the file is
// filled, once, and nobody removes what another has made.
TEST_F(DBHandlerTest, ProcessesThatCreateTheSameFileAtOnceNeverLoseIt) {
  sleepingForReal = true;
  for (const std::string ends : {"", "BEGIN TRANSACTION;"}) {
    const std::string schema = ends + kSchema + "create index i on t(a);" +
                               (ends.empty() ? "" : "COMMIT TRANSACTION;");
    for (int round = 0; round < 40; round++) {
      unlink(kPath.c_str());
      const int failed = runTogether(4, [&schema](int) {
        DBHandler handle(kPath, schema);
        const int code = handle.connect();
        return code == SQLITE_ERROR ? 0 : code;
      });
      EXPECT_EQ(failed, 0);
      ASSERT_TRUE(fileExists(kPath)) << "round " << round;
      EXPECT_EQ(rowsOf(kPath, "select name from sqlite_master;"), (Rows{"t", "i"}));
      EXPECT_EQ(rowsOf(kPath, kAll), Rows{"1|seed"});
      EXPECT_EQ(rowsOf(kPath, "pragma integrity_check;"), Rows{"ok"});
      log.take();
    }
  }
}

}  // namespace

// SQLite's waiting, in this program.
extern "C" __attribute__((visibility("default"))) int usleep(useconds_t microseconds) {
  sleptMicroseconds += microseconds;
  if (meanwhile) std::exchange(meanwhile, nullptr)();
  const timespec time = {0, static_cast<long>(microseconds) * 1000};
  return sleepingForReal ? nanosleep(&time, nullptr) : 0;
}
