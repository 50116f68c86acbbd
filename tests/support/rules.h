// What the tests of the rule tables share.

#ifndef POSTWELL_TESTS_RULES_H_
#define POSTWELL_TESTS_RULES_H_

#include <gtest/gtest.h>
#include <sys/wait.h>
#include <unistd.h>

#include <functional>
#include <string>
#include <vector>

#include "support/connections.h"
#include "support/database.h"
#include "support/files.h"
#include "support/library_test.h"
#include "support/sql_recorder.h"

namespace rules {

using Rows = std::vector<std::string>;

const std::string kFolder = "/var/packages/Postwell/etc";
const std::string kPath = kFolder + "/postwell.db";
const std::string kFile = kFolder + "/list.txt";
const std::string kMissing = "DBHandler.cpp: " + kPath + " isn't exist, create DB";
const std::string kRegen = "debug DBHandler.cpp: regen db : " + kPath;
const std::string kStillInTransaction =
    "debug DBHandler.cpp: Still in transaction, try to commit";
const std::string kLocked =
    "DBHandler.cpp: sqlite3_exec fail, err=[5], database is locked";
const std::string kTooLong =
    "DBHandler.cpp: sqlite3_exec fail, err=[1], near \"statement\": syntax error";

// SQLite leaves out a text that is longer than the whole statement may be.
const std::string kFarTooLong =
    "DBHandler.cpp: sqlite3_exec fail, err=[1], unrecognized token: \"'\"";

// Another process, which runs this.
inline pid_t startProcess(const std::function<bool()> &run) {
  const pid_t child = fork();
  if (child == 0) _exit(run() ? 0 : 1);
  return child;
}

inline bool succeeded(pid_t child) {
  int status = -1;
  return waitpid(child, &status, 0) == child && status == 0;
}

// Whether another process can write to the file at once.
inline bool anotherProcessWrites() {
  return succeeded(startProcess(
      [] { return database::Connection(kPath).run("pragma user_version = 7;") == 0; }));
}

// Another process damages the file so that no query can be prepared: what an open
// connection knows of the tables would still do for it, so the file is replaced.
inline void damage() {
  const std::string copy = kPath + ".copy";
  writeFile(copy, readFile(kPath));
  database::spoilSchema(copy);
  ASSERT_EQ(rename(copy.c_str(), kPath.c_str()), 0);
}

// What another process puts in the file's place.
const std::string kText = "this is no database, however often it is read\n";
const std::string kNoDatabase =
    "DBHandler.cpp: sqlite3_exec fail, err=[26], file is not a database";
inline void replaceByText() {
  const std::string copy = kPath + ".copy";
  writeFile(copy, kText);
  ASSERT_EQ(rename(copy.c_str(), kPath.c_str()), 0);
}

inline Rows tablesOf() {
  return database::rowsOf(
      kPath, "select name from sqlite_master where type='table' order by name;");
}

const Rows kTables = {"access_table", "bcc_table", "blackwhite_table"};

// Lines "name<from> word" … "name<end - 1> word", as imports read and exports write them.
inline std::string numberedLines(int count, const std::string &word, bool descending) {
  std::string text;
  for (int i = 0; i < count; i++) {
    const int number = 100000 + (descending ? count - 1 - i : i);
    text += "host" + std::to_string(number) + ".example " + word + "\n";
  }
  return text;
}

}  // namespace rules

#endif  // POSTWELL_TESTS_RULES_H_
