// kest_bcc_map: from the BCC rules in postwell.db to the tables in which Postfix looks up
// where copies go.

#include "programs/rule_map_test.h"

namespace {

class BccMap : public RuleMapTest {
 protected:
  static void store(const Rows &rows) { RuleMapTest::store("bcc_table", rows); }

  static Outcome run() { return RUN_TEST_PROGRAM({}); }

  // A run that leaves nothing out.
  static void make() {
    const Outcome outcome = run();
    EXPECT_EQ(outcome.status, 0);
    EXPECT_EQ(outcome.out, "");
    EXPECT_EQ(outcome.err, "");
  }

  static Sample sample() {
    return {"kest_bcc_map",    run,          "bcc_table", "('old', 0, 'x')",
            "('new', 0, 'x')", "bcc_sender", "old",       "new"};
  }
};

TEST_F(BccMap, EachSideHasItsTable) {
  store({"('Amy', 0, 'Boss@Elsewhere.example')", "('Bob@B.example', 1, 'archive')"});
  make();
  EXPECT_EQ(readFile(kFolder + "/bcc_sender"), "amy Boss@Elsewhere.example\n");
  EXPECT_EQ(readFile(kFolder + "/bcc_recipient"), "bob@b.example archive\n");
  EXPECT_EQ(find("bcc_sender", "AMY"), "Boss@Elsewhere.example");
  EXPECT_EQ(find("bcc_recipient", "bob@b.example"), "archive");
  EXPECT_EQ(find("bcc_recipient", "amy"), "");
  EXPECT_EQ(folder(), Rows({"bcc_recipient", "bcc_recipient.lmdb", "bcc_sender",
                            "bcc_sender.lmdb"}));
}

TEST_F(BccMap, WhatATableCannotCarryIsNamedAndLeftOut) {
  store({"('amy', 0, 'x')", "('bob x' || char(10) || 'carol', 0, 'x')",
         "('#dave', 0, 'x')", "('', 1, 'x')", "('eve', 0, '')", "('finn', 0, 'x, y')",
         "('gina', 1, 'x' || char(10) || 'amy y')", "('hal', 1, '|touch x')",
         "('ida', 2, 'x')", "('jan', 9, 'x')"});
  const Outcome outcome = run();
  EXPECT_EQ(outcome.status, 0);
  const std::string start = "kest_bcc_map: ", left = " is left out: ",
                    noName = left + "it is no account name or mail address\n",
                    noTarget = " is no account name or mail address\n";
  EXPECT_EQ(outcome.err,
            start + "recipient rule \"\"" + noName + start + "sender rule \"#dave\"" +
                noName + start + "sender rule \"bob x\\x0acarol\"" + noName + start +
                "sender rule \"eve\"" + left + "its target \"\"" + noTarget + start +
                "sender rule \"finn\"" + left + "its target \"x, y\"" + noTarget + start +
                "recipient rule \"gina\"" + left + "its target \"x\\x0aamy y\"" +
                noTarget + start + "recipient rule \"hal\"" + left +
                "its target \"|touch x\"" + noTarget + start + "all rule \"ida\"" + left +
                "copies of all mail are a setting, not a rule\n" + start +
                "unknown rule \"jan\"" + left + "it is of an unknown type\n");
  EXPECT_EQ(readFile(kFolder + "/bcc_sender"), "amy x\n");
  EXPECT_EQ(readFile(kFolder + "/bcc_recipient"), "");
}

TEST_F(BccMap, OfTwoRulesForOneKeyTheFirstNameCounts) {
  store(
      {"('amy', 0, 'two')", "('Amy', 0, 'one')", "('AMY', 0, 'one')", "('amy', 1, 'x')"});
  const Outcome outcome = run();
  EXPECT_EQ(outcome.err,
            "kest_bcc_map: sender rule \"amy\" is left out: the rule \"AMY\" says "
            "otherwise\n");
  EXPECT_EQ(find("bcc_sender", "amy"), "one");
  EXPECT_EQ(find("bcc_recipient", "amy"), "x");
}

TEST_F(BccMap, TheFirstTablesNeedNoFile) {
  unlink(kDatabase.c_str());
  make();
  EXPECT_EQ(readFile(kFolder + "/bcc_sender"), "");
  EXPECT_TRUE(fileExists(kFolder + "/bcc_recipient.lmdb"));
  make();  // nor do later ones, as long as there has been no rule
  EXPECT_FALSE(fileExists(kDatabase));
}

TEST_F(BccMap, ADamagedOrMissingFileDoesNotEmptyTheMap) {
  expectADamagedOrMissingFileLeavesTheMap(sample());
}

TEST_F(BccMap, AMapThatCannotBeMadeLeavesTheOldInForce) {
  expectAMapThatCannotBeMadeLeavesTheOld(sample());
}

TEST_F(BccMap, ItWaitsForAnotherAndReadsTheRulesBehindThat) {
  expectMakersTakeTurns(sample());
}

TEST_F(BccMap, AKillLeavesTheOldMapOrTheNew) { expectAKillLeavesAMap(sample()); }

TEST_F(BccMap, WithoutALockNothingIsMade) { expectFailureWithoutALock(sample()); }

TEST_F(BccMap, WrongUsage) {
  const Outcome outcome = RUN_TEST_PROGRAM({"--help"});
  EXPECT_EQ(outcome.status, 2);
  EXPECT_EQ(outcome.err, "usage: kest_bcc_map\n  takes no arguments\n");
  EXPECT_EQ(folder(), Rows());
}

}  // namespace
