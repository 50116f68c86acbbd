// What the tests of the rule maps' makers share: rules in postwell.db, put there past
// every check, and Postfix's answers from the tables made of them.

#ifndef POSTWELL_TESTS_RULE_MAP_TEST_H_
#define POSTWELL_TESTS_RULE_MAP_TEST_H_

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <filesystem>
#include <functional>
#include <future>
#include <random>
#include <sstream>
#include <string>
#include <vector>

#include "faults/killed.h"
#include "programs/postfix_config.h"
#include "programs/run_program.h"
#include "support/database.h"
#include "support/files.h"
#include "support/package_tree.h"
#include "support/wait_until.h"

// A maker, and two rules by which its tables are told apart.
struct Sample {
  std::string program;
  std::function<Outcome()> run;
  std::string table;
  std::string oldRow;
  std::string newRow;
  std::string map;
  std::string oldKey;
  std::string newKey;
};

class RuleMapTest : public testing::Test {
 protected:
  using Rows = std::vector<std::string>;

  RuleMapTest() {
    writeFile(
        PackageTree::kSettings,
        "smtp_hostname=\"Mail.example\"\ncanonical_domain=\"b.example, bad_name\"\n");
    EXPECT_EQ(mkdir(kPostmapConfig.c_str(), 0755), 0);
    writePostfixConfig(kPostmapConfig,
                       "compatibility_level = 3.6\nsmtputf8_enable = no\n");
    makeDatabase();
  }

  static void makeDatabase() {
    unlink(kDatabase.c_str());
    writeFile(kDatabase, "");
    EXPECT_EQ(database::Connection(kDatabase).run(
                  "create table bcc_table(name TEXT, type INTEGER, bcc_to TEXT);"
                  "create table access_table(name_type INTEGER, name TEXT, type INTEGER, "
                  "access INTEGER);"
                  "create table blackwhite_table(name_type INTEGER, name TEXT, type "
                  "INTEGER, blackwhite INTEGER);"),
              0);
  }

  // Rows "(1, 'name', ...)" of the table.
  static void store(const std::string &table, const Rows &rows) {
    database::Connection connection(kDatabase);
    for (const std::string &row : rows)
      EXPECT_EQ(connection.run("insert into " + table + " values" + row + ";"), 0) << row;
  }

  // What Postfix finds in a table; without the newline.
  static std::string find(const std::string &table, const std::string &key) {
    std::string found = runNative("/usr/sbin/postmap", {"-c", kPostmapConfig, "-q", key,
                                                        "lmdb:" + kFolder + "/" + table})
                            .out;
    if (!found.empty()) found.pop_back();
    return found;
  }

  static Rows folder() {
    Rows names;
    if (!fileExists(kFolder)) return names;
    for (const auto &entry : std::filesystem::directory_iterator(kFolder))
      names.push_back(entry.path().filename());
    std::sort(names.begin(), names.end());
    return names;
  }

  // A map with the old row is made; then the new row is stored.
  static void expectOldMap(const Sample &sample) {
    makeDatabase();
    store(sample.table, {sample.oldRow});
    EXPECT_EQ(sample.run().status, 0);
    EXPECT_NE(find(sample.map, sample.oldKey), "");
    store(sample.table, {sample.newRow});
  }

  // The next run fails and says so, and the old map stays in force.
  static void expectFailure(const Sample &sample, const std::string &message) {
    const Outcome outcome = sample.run();
    EXPECT_EQ(outcome.status, 1);
    EXPECT_EQ(outcome.out, "");
    EXPECT_NE(outcome.err.find(sample.program + ": " + message), std::string::npos)
        << outcome.err;
    EXPECT_NE(find(sample.map, sample.oldKey), "");
    EXPECT_EQ(find(sample.map, sample.newKey), "");
  }

  static std::string lockOf(const std::string &program) {
    return "/run/postwell/" + program + ".lock";
  }

  // A run while another one is at work, which ends when this one waits for it and
  // `change` has been made.
  static Outcome runAfterAnother(const std::string &program,
                                 const std::function<Outcome()> &run,
                                 const std::function<void()> &change) {
    std::filesystem::create_directories("/run/postwell");
    const std::string path = lockOf(program);
    const int other = open(path.c_str(), O_RDWR | O_CREAT | O_CLOEXEC, 0600);
    EXPECT_EQ(flock(other, LOCK_EX), 0);
    std::future<Outcome> outcome = std::async(std::launch::async, run);
    const auto ended = [&outcome] {
      return outcome.wait_for(std::chrono::seconds(0)) == std::future_status::ready;
    };
    waitUntil("the program waits", [&] { return ended() || isWaitedFor(path); });
    EXPECT_FALSE(ended()) << "it has not waited";
    change();
    close(other);
    return outcome.get();
  }

  // Whether a process waits for the lock of this file.
  static bool isWaitedFor(const std::string &path) {
    struct stat file;
    if (stat(path.c_str(), &file) != 0) return false;
    std::istringstream locks(readFile("/proc/locks"));
    const std::string inode = ":" + std::to_string(file.st_ino) + " ";
    for (std::string line; std::getline(locks, line);)
      if (line.find("-> FLOCK") != std::string::npos &&
          line.find(inode) != std::string::npos)
        return true;
    return false;
  }

  static void expectMakersTakeTurns(const Sample &sample) {
    expectOldMap(sample);
    const std::string last = "delete from " + sample.table + ";";
    const Outcome outcome = runAfterAnother(sample.program, sample.run, [&] {
      EXPECT_EQ(database::Connection(kDatabase).run(last), 0);
    });
    EXPECT_EQ(outcome.status, 0);
    EXPECT_EQ(find(sample.map, sample.oldKey), "");
    EXPECT_EQ(find(sample.map, sample.newKey), "");
  }

  static void expectFailureWithoutALock(const Sample &sample) {
    expectOldMap(sample);
    const std::string path = lockOf(sample.program);
    unlink(path.c_str());
    ASSERT_EQ(mkdir(path.c_str(), 0755), 0);
    expectFailure(sample, "cannot lock " + path +
                              ": Is a directory (run as root); the map is as it was\n");
    ASSERT_EQ(rmdir(path.c_str()), 0);
  }

  static void expectADamagedOrMissingFileLeavesTheMap(const Sample &sample) {
    const std::string asItWas = "; the map is as it was\n";
    const std::string restore =
        "restore " + kDatabase + "\nfrom a backup, or remove it to begin anew" + asItWas;
    for (const auto spoil : {database::spoilSchema, database::spoilTables}) {
      expectOldMap(sample);
      spoil(kDatabase);
      const std::string damaged = readFile(kDatabase);
      expectFailure(sample, "the rules are damaged: " + restore);
      EXPECT_EQ(readFile(kDatabase), damaged);
    }
    expectOldMap(sample);
    writeFile(kDatabase, "this is no database, however often it is read\n");
    expectFailure(sample, "the rules are damaged: " + restore);
    const std::string unread = "cannot read " + kDatabase +
                               " (run as root; the system log may tell why)" + asItWas;
    writeFile(kDatabase, "");  // without the table
    expectFailure(sample, unread);
    EXPECT_EQ(readFile(kDatabase), "");
    expectOldMap(sample);
    ASSERT_EQ(chmod(kDatabase.c_str(), 0), 0);
    expectFailure(sample, unread);
    unlink(kDatabase.c_str());
    expectFailure(sample, "there is no " + kDatabase + asItWas);
    EXPECT_FALSE(fileExists(kDatabase));
  }

  static void expectAMapThatCannotBeMadeLeavesTheOld(const Sample &sample) {
    expectOldMap(sample);
    ASSERT_EQ(chmod(kFolder.c_str(), 0555), 0);
    expectFailure(sample, "cannot write beside " + kFolder);
    ASSERT_EQ(chmod(kFolder.c_str(), 0755), 0);
    writePostfixConfig(kPostmapConfig, "mail_owner = nobody-of-that-name\n");
    const Outcome outcome = sample.run();
    EXPECT_EQ(outcome.status, 1);
    EXPECT_NE(outcome.err.find("; the old map stays in force\n"), std::string::npos)
        << outcome.err;
    writePostfixConfig(kPostmapConfig, "compatibility_level = 3.6\n");
    EXPECT_NE(find(sample.map, sample.oldKey), "");
    EXPECT_EQ(find(sample.map, sample.newKey), "");
  }

  // At whatever moment a run and its postmap are killed, Postfix finds the old map or the
  // new one, and the next run makes the new one.
  static void expectAKillLeavesAMap(const Sample &sample) {
    std::mt19937 random{1};
    for (int i = 0; i < kills() / 4 + 1; i++) {
      expectOldMap(sample);
      acknowledgedWhenKilled(
          [&sample](const Acknowledge &) {
            (void)sample.run();
            return pause();
          },
          0, static_cast<long>(random() % 20'000'000));
      EXPECT_NE(find(sample.map, sample.oldKey), "") << i;
      EXPECT_EQ(sample.run().status, 0);
      EXPECT_NE(find(sample.map, sample.newKey), "") << i;
    }
  }

  static inline const std::string kFolder = "/var/packages/Postwell/target/etc/postfix";
  static inline const std::string kPostmapConfig =
      "/var/packages/Postwell/target/etc/postmap";
  static inline const std::string kDatabase = "/var/packages/Postwell/etc/postwell.db";

  PackageTree package_;
};

#endif  // POSTWELL_TESTS_RULE_MAP_TEST_H_
