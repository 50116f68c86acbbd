#include "bcc.h"

#include <sys/stat.h>
#include <unistd.h>

#include "support/rules.h"

namespace {

using database::rowsOf;
using rules::kFile;
using rules::kMissing;
using rules::kPath;
using rules::Rows;

using List = std::list<BccInfo>;

const std::string kNotRead = "bcc.cpp: queryBCC data fail";
const std::string kNotInserted = "bcc.cpp: fail to insert info into bcc table";
const std::string kNotDeleted = "bcc.cpp: fail to insert info into access table";
const std::string kNoMap = "bcc.cpp: fail to generate BCC map";
const std::string kCorrupt = "bcc.cpp: db corrupt, need regen";

// What is stored, in the order in which it was: "name|type|bcc_to".
Rows ruleRows() { return rowsOf(kPath, "select * from bcc_table order by rowid;"); }

// Rules as ruleRows() shows them.
Rows shown(const List &list) {
  Rows rows;
  for (const BccInfo &rule : list)
    rows.push_back(rule.name + "|" + std::to_string(rule.type) + "|" + rule.bccTo);
  return rows;
}

// ---- the instance; once made it stays, so what keeps it from being made comes first

class BccInstanceTest : public LibraryTest {
 protected:
  BccInstanceTest() { writeDefaults(); }
};

TEST_F(BccInstanceTest, TwoProcessesAtOnceLoseNoRule) {
  const auto writer = [](const std::string &prefix) {
    return rules::startProcess([prefix] {
      BCC *bcc = nullptr;
      while (bcc == nullptr) bcc = BCC::getInstance();
      for (int i = 0; i < 50; i++)
        while (bcc->addBCC(BCC_SENDER, prefix + std::to_string(i), "archive") != 0) {
        }
      return true;
    });
  };
  const pid_t one = writer("one"), other = writer("other");
  EXPECT_TRUE(rules::succeeded(one));
  EXPECT_TRUE(rules::succeeded(other));
  EXPECT_EQ(rowsOf(kPath, "select count(*) from bcc_table;"), Rows{"100"});
  log.take();  // who had to wait for whom
}

TEST_F(BccInstanceTest, WithoutItsFileThereIsNoneUntilThereIsOne) {
  ASSERT_EQ(chmod(rules::kFolder.c_str(), 0555), 0);
  EXPECT_EQ(BCC::getInstance(), nullptr);
  expectLog({kMissing, "DBHandler.cpp: Open database fail. dbpath = [" + kPath + "]",
             "DBHandler.cpp: Create DB fail;", "bcc.cpp: bcc db connect fail",
             "bcc.cpp: bcc init fail"});
  ASSERT_EQ(chmod(rules::kFolder.c_str(), 0755), 0);
  BCC *const bcc = BCC::getInstance();
  EXPECT_NE(bcc, nullptr);
  EXPECT_EQ(BCC::getInstance(), bcc);
  expectLog({kMissing});
}

// ---- everything else

class BccTest : public LibraryTest {
 protected:
  BccTest() : bcc(*BCC::getInstance()) {
    writeDefaults();
    EXPECT_EQ(count("all", ""), 0);  // follows into the new folder
    expectLog({kMissing});
    sql::takeStatements();
  }

  void add(BccType type, const std::string &name, const std::string &to = "archive") {
    ASSERT_EQ(bcc.addBCC(type, name, to), 0);
    tree.takeCalls();
  }

  Rows find(const std::string &type, const std::string &key) {
    return shown(bcc.getAllBCCList({0, 100, type, key}));
  }

  int count(const std::string &type, const std::string &key) {
    return bcc.getTotalBccNum({0, 100, type, key});
  }

  BCC &bcc;
};

TEST_F(BccTest, ARuleHoldsWhatItWasMadeFrom) {
  const BccInfo rule(BCC_RECIPIENT, "amy", "boss@b.example");
  EXPECT_EQ(rule.name, "amy");
  EXPECT_EQ(rule.bccTo, "boss@b.example");
  EXPECT_EQ(rule.type, BCC_RECIPIENT);
  const BccInfo copy(rule);
  BccInfo other(BCC_SENDER, "", "");
  other = copy;
  EXPECT_EQ(shown({copy, other}), Rows({"amy|1|boss@b.example", "amy|1|boss@b.example"}));
}

// ---- copies of all mail

TEST_F(BccTest, TheCopyOfAllMailIsASetting) {
  EXPECT_EQ(bcc.getAlwaysBCC(), "");  // there is no such key
  EXPECT_EQ(bcc.setAlwaysBCC("boss@b.example"), 0);
  EXPECT_EQ(bcc.getAlwaysBCC(), "boss@b.example");
  EXPECT_EQ(stored("always_bcc"), "boss@b.example");
  EXPECT_EQ(bcc.setAlwaysBCC(""), 0);
  EXPECT_EQ(stored("always_bcc"), "");
  EXPECT_EQ(bcc.getAlwaysBCC(), "");
  unlink(PackageTree::kSettings);
  EXPECT_EQ(bcc.getAlwaysBCC(), "");
}

TEST_F(BccTest, AnAddressOf1023BytesIsTheLongestThatIsReadBack) {
  writeFile(PackageTree::kSettings, "always_bcc=\"" + std::string(1023, 'a') + "\"\n");
  EXPECT_EQ(bcc.getAlwaysBCC(), std::string(1023, 'a'));
  writeFile(PackageTree::kSettings, "always_bcc=\"" + std::string(1024, 'a') + "\"\n");
  EXPECT_EQ(bcc.getAlwaysBCC(), "");
}

TEST_F(BccTest, WhileSMTPIsOffTheConfigurationIsMadeAndNothingRestarted) {
  EXPECT_EQ(bcc.setAlwaysBCC("boss"), 0);
  EXPECT_EQ(tree.takeCalls(), Rows{"DaemonConfSet.sh smtp"});
}

TEST_F(BccTest, WhileSMTPIsOnPostfixIsRestarted) {
  writeFile(PackageTree::kSettings, "smtp_enabled=\"yes\"\n");
  EXPECT_EQ(bcc.setAlwaysBCC("boss"), 0);
  EXPECT_EQ(tree.takeCalls(),
            Rows({"DaemonConfSet.sh smtp", "PostfixDaemon.sh restart"}));
  EXPECT_EQ(readFile(PackageTree::kSettings),
            "smtp_enabled=\"yes\"\nalways_bcc=\"boss\"\n");
}

TEST_F(BccTest, TheSettingEndsAtTheStepThatFails) {
  writeFile(PackageTree::kSettings, "smtp_enabled=\"yes\"\n");
  platform::failCall("KLIBCFileSetKeyValue");
  EXPECT_EQ(bcc.setAlwaysBCC("one"), -1);
  expectLog({"bcc.cpp: set key: always_bcc fail"});
  EXPECT_EQ(bcc.getAlwaysBCC(), "");
  EXPECT_EQ(tree.takeCalls(), Rows());

  platform::failCall("KLIBCFileGetPair");
  EXPECT_EQ(bcc.setAlwaysBCC("two"), -1);
  expectLog({"smtp.cpp: KLIBCFileGetPair fail", "bcc.cpp: load smtp setting fail"});
  EXPECT_EQ(bcc.getAlwaysBCC(), "two");
  EXPECT_EQ(tree.takeCalls(), Rows());

  tree.failScript("PostfixDaemon.sh");
  EXPECT_EQ(bcc.setAlwaysBCC("three"), -1);
  expectLog({"bcc.cpp: SMTP Service restart fail"});
  EXPECT_EQ(bcc.getAlwaysBCC(), "three");
  EXPECT_EQ(tree.takeCalls(),
            Rows({"DaemonConfSet.sh smtp", "PostfixDaemon.sh restart"}));

  tree.failScript("DaemonConfSet.sh");
  EXPECT_EQ(bcc.setAlwaysBCC("four"), -1);
  expectLog({"bcc.cpp: set postfix config fail"});
  EXPECT_EQ(bcc.getAlwaysBCC(), "four");
  EXPECT_EQ(tree.takeCalls(), Rows{"DaemonConfSet.sh smtp"});
}

TEST_F(BccTest, ATargetWithANulIsNotWritten) {
  EXPECT_EQ(bcc.setAlwaysBCC(std::string("a\0b", 3)), -1);
  expectLog({"bcc.cpp: set key: always_bcc fail"});
  EXPECT_EQ(stored("always_bcc"), "(absent)");
}

TEST_F(BccTest, AddingForAllMailTouchesNeitherTableNorMap) {
  EXPECT_EQ(bcc.addBCC(BCC_ALL, "any name", "boss@b.example"), 0);
  EXPECT_EQ(stored("always_bcc"), "boss@b.example");
  EXPECT_EQ(tree.takeCalls(), Rows{"DaemonConfSet.sh smtp"});
  EXPECT_EQ(sql::takeStatements(), Rows());
  EXPECT_EQ(ruleRows(), Rows());
}

TEST_F(BccTest, DeletingForAllMailClearsTheSettingAndStillMakesTheMap) {
  writeFile(PackageTree::kSettings, "always_bcc=\"boss\"\n");
  EXPECT_EQ(bcc.deleteBCC({{BCC_ALL, "any name", "any target"}}), 0);
  EXPECT_EQ(stored("always_bcc"), "");
  EXPECT_EQ(sql::takeStatements(), Rows({"BEGIN TRANSACTION;", "COMMIT TRANSACTION;"}));
  EXPECT_EQ(tree.takeCalls(), Rows({"DaemonConfSet.sh smtp", "kest_bcc_map"}));
}

TEST_F(BccTest, ASettingThatCannotBeClearedDoesNotStopTheDeletion) {
  add(BCC_SENDER, "amy");
  platform::failCall("KLIBCFileSetKeyValue");
  EXPECT_EQ(bcc.deleteBCC({{BCC_ALL, "", ""}, {BCC_SENDER, "amy", ""}}), 0);
  expectLog({"bcc.cpp: set key: always_bcc fail"});
  EXPECT_EQ(ruleRows(), Rows());
  EXPECT_EQ(tree.takeCalls(), Rows{"kest_bcc_map"});
}

// ---- changes

TEST_F(BccTest, EveryChangeOfTheTableMakesTheMap) {
  EXPECT_EQ(bcc.setBCC({}), 0);
  EXPECT_EQ(bcc.addBCC(BCC_SENDER, "amy", "boss"), 0);
  EXPECT_EQ(bcc.deleteBCC({}), 0);
  EXPECT_EQ(tree.takeCalls(), Rows({"kest_bcc_map", "kest_bcc_map", "kest_bcc_map"}));
  EXPECT_EQ(BCC::GenerateBccMap(), 0);
  platform::answerCall("KLIBCExec", 7);
  EXPECT_EQ(BCC::GenerateBccMap(), 7);
  platform::answerCall("KLIBCExec", 7);
  EXPECT_EQ(bcc.setBCC({}), 0);
}

TEST_F(BccTest, AMapThatFailsFailsTheChangeThatIsStored) {
  tree.failScript("kest_bcc_map");
  EXPECT_EQ(bcc.addBCC(BCC_SENDER, "amy", "boss"), -1);
  expectLog({kNoMap});
  EXPECT_EQ(ruleRows(), Rows{"amy|0|boss"});
  EXPECT_EQ(bcc.deleteBCC({{BCC_SENDER, "amy", ""}}), -1);
  expectLog({kNoMap});
  EXPECT_EQ(ruleRows(), Rows());
  EXPECT_LT(BCC::GenerateBccMap(), 0);
}

TEST_F(BccTest, ARuleOfTheSameNameAndTypeIsReplaced) {
  add(BCC_SENDER, "amy", "one");
  add(BCC_SENDER, "amy", "two");
  add(BCC_RECIPIENT, "amy", "three");
  ASSERT_EQ(bcc.setBCC({{BCC_ALL, "amy", "four"}}), 0);
  EXPECT_EQ(ruleRows(), Rows({"amy|0|two", "amy|1|three", "amy|2|four"}));
}

TEST_F(BccTest, DeletingIgnoresTheTargetAndWhatIsNotThere) {
  add(BCC_SENDER, "amy");
  add(BCC_RECIPIENT, "amy");
  EXPECT_EQ(bcc.deleteBCC({{BCC_SENDER, "amy", "other"}, {BCC_SENDER, "bob", ""}}), 0);
  EXPECT_EQ(ruleRows(), Rows{"amy|1|archive"});
}

TEST_F(BccTest, StatementsAreTheseToTheLetter) {
  const BccInfo rule(BCC_RECIPIENT, "o'h", "x'y");
  EXPECT_EQ(bcc.setBCC({rule}), 0);
  EXPECT_EQ(bcc.deleteBCC({rule}), 0);
  bcc.getBCCList(BCC_RECIPIENT, 5, 7);
  for (const char *type : {"client", "all", "sender", "recipient"})
    for (const char *key : {"", "o'h%"}) {
      if (*key != '\0' && *type == 'c') continue;
      bcc.getAllBCCList({3, 9, type, key});
      bcc.getTotalBccNum({3, 9, type, key});
    }
  const std::string all = "SELECT * FROM bcc_table LIMIT '9' OFFSET '3';";
  const std::string allCount = "SELECT COUNT(*) FROM bcc_table;";
  const std::string some = "SELECT * FROM bcc_table WHERE ",
                    like = "name LIKE '%o''h%%' or bcc_to LIKE '%o''h%%'",
                    page = " LIMIT '9' OFFSET '3'",
                    typedCount = " AND (name LIKE '%q%' or bcc_to LIKE '%q%');",
                    other = "SELECT COUNT(*) FROM access_table WHERE ";
  EXPECT_EQ(
      sql::takeStatements(),
      (Rows{"BEGIN TRANSACTION;",
            "INSERT OR REPLACE INTO bcc_table(name,type,bcc_to) VALUES "
            "('o''h','1','x''y');",
            "COMMIT TRANSACTION;",
            "BEGIN TRANSACTION;",
            "DELETE FROM bcc_table WHERE name='o''h' AND type='1';",
            "COMMIT TRANSACTION;",
            "SELECT * FROM bcc_table WHERE type='1' ORDER BY name desc LIMIT '7' OFFSET "
            "'5'",
            all,
            allCount,
            all,
            allCount,
            some + like + page + ";",
            "SELECT COUNT(*) FROM bcc_table WHERE name LIKE '%o''h%%' or bcc_to LIKE "
            "'%q%';",
            all,
            allCount,
            some + "type='0' AND (" + like + ")" + page,
            other + "type='0'" + typedCount,
            all,
            allCount,
            some + "type='1' AND (" + like + ")" + page,
            other + "type='1'" + typedCount}));
}

TEST_F(BccTest, NamesAndTargetsMayHoldAnything) {
  for (const std::string text :
       {"o'hara", "''", "100%", "%q%s%n", "a;drop table bcc_table;", "two words", " ", "",
        "J\xc3\xb6rg", "\xff", "a\"b", "a\\b", "-- x", "a\nb"}) {
    add(BCC_SENDER, text, text);
    EXPECT_EQ(ruleRows(), Rows{text + "|0|" + text});
    EXPECT_EQ(shown(bcc.getBCCList(BCC_SENDER, 0, 10)), ruleRows());
    EXPECT_EQ(bcc.deleteBCC({{BCC_SENDER, text, ""}}), 0);
    EXPECT_EQ(ruleRows(), Rows());
  }
}

// ---- a failed write never disables the next

TEST_F(BccTest, AStatementHas1023BytesAndMayLoseItsSemicolon) {
  const size_t others =
      std::string(
          "INSERT OR REPLACE INTO bcc_table(name,type,bcc_to) VALUES ('','0','');")
          .size();
  add(BCC_SENDER, "", std::string(1023 - others, 'n'));
  add(BCC_SENDER, "", std::string(1024 - others, 'n'));
  EXPECT_EQ(bcc.addBCC(BCC_SENDER, "", std::string(1025 - others, 'x')), -1);
  expectLog({rules::kTooLong, rules::kStillInTransaction, kNotInserted});
  EXPECT_EQ(ruleRows(), Rows{"|0|" + std::string(1024 - others, 'n')});
}

TEST_F(BccTest, ANameThatDoesNotFitKeepsWhatCameBeforeAndDisablesNothing) {
  const List given = {{BCC_SENDER, "before", "x"},
                      {BCC_SENDER, std::string(1000, 'n'), "x"},
                      {BCC_SENDER, "after", "x"}};
  EXPECT_EQ(bcc.setBCC(given), -1);
  EXPECT_EQ(ruleRows(), Rows{"before|0|x"});
  EXPECT_TRUE(rules::anotherProcessWrites());
  expectLog({rules::kTooLong, rules::kStillInTransaction, kNotInserted});
  EXPECT_EQ(tree.takeCalls(), Rows());  // no map of a failed change
  add(BCC_SENDER, "next");
  EXPECT_EQ(bcc.deleteBCC(given), -1);
  EXPECT_EQ(ruleRows(), Rows{"next|0|archive"});
  EXPECT_TRUE(rules::anotherProcessWrites());
  expectLog({rules::kTooLong, rules::kStillInTransaction, kNotDeleted});
  EXPECT_EQ(tree.takeCalls(), Rows());
}

TEST_F(BccTest, ALockedFileFailsTheWriteAndTheNextSucceeds) {
  add(BCC_SENDER, "old");
  database::Connection holder(kPath);
  ASSERT_EQ(holder.run("BEGIN IMMEDIATE;"), 0);
  EXPECT_EQ(bcc.addBCC(BCC_SENDER, "new", "x"), -1);
  EXPECT_EQ(bcc.deleteBCC({{BCC_SENDER, "old", ""}}), -1);
  EXPECT_EQ(shown(bcc.getBCCList(BCC_SENDER, 0, 9)), Rows{"old|0|archive"});
  ASSERT_EQ(holder.run("ROLLBACK;"), 0);
  expectLog({rules::kLocked, rules::kStillInTransaction, kNotInserted, rules::kLocked,
             rules::kStillInTransaction, kNotDeleted});
  EXPECT_EQ(tree.takeCalls(), Rows());
  EXPECT_TRUE(rules::anotherProcessWrites());
  add(BCC_SENDER, "new");
  EXPECT_EQ(ruleRows(), Rows({"old|0|archive", "new|0|archive"}));
}

TEST_F(BccTest, AReaderFailsTheCommitAndTheNextWriteSucceeds) {
  database::Connection reader(kPath);
  ASSERT_EQ(reader.run("BEGIN; SELECT count(*) FROM bcc_table;"), 0);
  EXPECT_EQ(bcc.addBCC(BCC_SENDER, "new", "x"), -1);
  const std::string failed =
      "DBHandler.cpp: commitTransaction fail, err=[5], database is locked";
  expectLog({failed, rules::kStillInTransaction, failed, kNotInserted});
  EXPECT_EQ(tree.takeCalls(), Rows());
  ASSERT_EQ(reader.run("ROLLBACK;"), 0);
  EXPECT_TRUE(rules::anotherProcessWrites());
  add(BCC_SENDER, "next");
  EXPECT_EQ(ruleRows(), Rows{"next|0|archive"});
}

// Cut behind a name the statement would be valid and delete the rules of both sides.
TEST_F(BccTest, ADeletionThatDoesNotFitDeletesNothing) {
  for (size_t length = 960; length <= 1024; length++) {
    const std::string name(length, 'n');
    ASSERT_EQ(database::Connection(kPath).run("insert into bcc_table values('" + name +
                                              "', 1, 'x');"),
              0);
    bcc.deleteBCC({{BCC_SENDER, name, ""}});
  }
  EXPECT_EQ(ruleRows().size(), 65u);
  EXPECT_GT(log.take().size(), 60u);
}

TEST_F(BccTest, AFileThatCannotBeOpenedAgainIsTriedAtTheNextOperation) {
  ASSERT_EQ(unlink(kPath.c_str()), 0);
  ASSERT_EQ(mkdir(kPath.c_str(), 0755), 0);
  const std::string failed =
      "DBHandler.cpp: Open database fail. dbpath = [" + kPath + "], err=[14]";
  EXPECT_EQ(bcc.deleteBCC({}), -1);
  EXPECT_EQ(bcc.getBCCList(BCC_SENDER, 0, 9).size(), 0u);
  EXPECT_EQ(count("all", ""), 0);
  expectLog({failed, kNotDeleted, failed, kNotRead, failed});
  EXPECT_EQ(tree.takeCalls(), Rows());
  ASSERT_EQ(rmdir(kPath.c_str()), 0);
  add(BCC_SENDER, "a");
  EXPECT_EQ(ruleRows(), Rows{"a|0|archive"});
  expectLog({kMissing});
}

TEST_F(BccTest, AFileThatIsHeldAloneListsNothingAndIsExportedEmpty) {
  add(BCC_SENDER, "a");
  database::Connection holder(kPath);
  ASSERT_EQ(holder.run("BEGIN EXCLUSIVE;"), 0);
  EXPECT_EQ(find("all", ""), Rows());
  EXPECT_EQ(count("all", ""), 0);
  EXPECT_EQ(bcc.exportBCC(BCC_SENDER, kFile), 0);  // a page that fails is short
  EXPECT_EQ(readFile(kFile), "");
  const std::string step = "bcc.cpp: sqlite3_step: [5] database is locked\n";
  expectLog({step, kNotRead, step, step, kNotRead});
  ASSERT_EQ(holder.run("ROLLBACK;"), 0);
  EXPECT_EQ(find("all", ""), ruleRows());
}

// ---- lists and counts

TEST_F(BccTest, AnEmptyKeyListsAndCountsAllTypesWhateverTheType) {
  add(BCC_SENDER, "amy");
  add(BCC_RECIPIENT, "bob");
  for (const char *type : {"sender", "client", "all", "", "nonsense"}) {
    EXPECT_EQ(find(type, ""), ruleRows());
    EXPECT_EQ(count(type, ""), 2);
  }
}

TEST_F(BccTest, ASearchFindsNamesAndTargets) {
  add(BCC_SENDER, "xABCx", "one");
  add(BCC_SENDER, "two", "abc@b.example");
  add(BCC_RECIPIENT, "abc", "three");
  add(BCC_RECIPIENT, "four", "fiveq");
  EXPECT_EQ(find("sender", "abc"), Rows({"xABCx|0|one", "two|0|abc@b.example"}));
  EXPECT_EQ(find("recipient", "abc"), Rows{"abc|1|three"});
  EXPECT_EQ(find("all", "abc"),
            Rows({"xABCx|0|one", "two|0|abc@b.example", "abc|1|three"}));
  EXPECT_EQ(shown(bcc.getAllBCCList({1, 1, "all", "abc"})), Rows{"two|0|abc@b.example"});
}

TEST_F(BccTest, ASearchOfAllCountsNamesWithTheKeyAndTargetsWithTheLetterQ) {
  add(BCC_SENDER, "abc", "one");
  add(BCC_SENDER, "two", "abc");
  add(BCC_RECIPIENT, "three", "Quality");
  EXPECT_EQ(count("all", "abc"), 2);
  EXPECT_EQ(count("all", "nothing"), 1);
}

TEST_F(BccTest, ASearchWithinATypeCountsNothing) {
  add(BCC_RECIPIENT, "qabc", "qabc");
  EXPECT_EQ(find("recipient", "abc"), Rows{"qabc|1|qabc"});
  EXPECT_EQ(count("recipient", "abc"), 0);
  EXPECT_EQ(count("sender", "abc"), 0);
  expectLog({});
}

TEST_F(BccTest, TheTypeClientWithAKeyGivesTheEmptyStatement) {
  add(BCC_SENDER, "abc");
  const std::string step = "bcc.cpp: sqlite3_step: [21] not an error\n";
  for (const char *type : {"client", "Sender", ""}) {
    EXPECT_EQ(find(type, "abc"), Rows());
    EXPECT_EQ(count(type, "abc"), 0);
    expectLog({step, kNotRead, step});
  }
}

TEST_F(BccTest, AKeyThatDoesNotFitListsNothing) {
  add(BCC_SENDER, "a");
  EXPECT_EQ(find("all", std::string(600, '%')), Rows());  // it stands there twice
  EXPECT_EQ(count("all", std::string(1000, '%')), 0);
  expectLog({kNotRead});
}

TEST_F(BccTest, ListsOfATypeAreByNameDescendingInPages) {
  for (const char *name : {"b", "a", "c"}) add(BCC_RECIPIENT, name, "x");
  add(BCC_SENDER, "z");
  EXPECT_EQ(shown(bcc.getBCCList(BCC_RECIPIENT, 0, 10)),
            Rows({"c|1|x", "b|1|x", "a|1|x"}));
  EXPECT_EQ(shown(bcc.getBCCList(BCC_RECIPIENT, 1, 1)), Rows{"b|1|x"});
}

TEST_F(BccTest, AQueryOfTheCallersAppendsAndGivesSQLitesCode) {
  add(BCC_SENDER, "a", "x");
  ASSERT_EQ(
      database::Connection(kPath).run("insert into bcc_table values(NULL, NULL, NULL);"),
      0);
  List list = {{BCC_RECIPIENT, "kept", "y"}};
  EXPECT_EQ(bcc.queryBccData(list, "select * from bcc_table;"), 0);
  EXPECT_EQ(shown(list), Rows({"kept|1|y", "a|0|x", "|0|"}));
  EXPECT_EQ(bcc.queryBccData(list, "select * from nonsense;"), 1);
  EXPECT_EQ(
      bcc.queryBccData(list,
                       "select 'r', 1, 1 union all select abs(-9223372036854775808), 1, "
                       "1;"),
      1);
  expectLog({"bcc.cpp: sqlite3_step: [1] integer overflow\n"});
  EXPECT_EQ(shown(list).back(), "r|1|1");
}

// ---- missing and damaged files

TEST_F(BccTest, ADeletedFileIsMadeAnewWithAllThreeTablesByAnyOperation) {
  const std::vector<std::function<void()>> operations = {
      [this] { EXPECT_EQ(bcc.setBCC({}), 0); },
      [this] { EXPECT_EQ(bcc.deleteBCC({}), 0); },
      [this] { EXPECT_EQ(bcc.getBCCList(BCC_SENDER, 0, 9).size(), 0u); },
      [this] { EXPECT_EQ(count("all", ""), 0); }};
  for (const auto &operation : operations) {
    add(BCC_SENDER, "a");
    ASSERT_EQ(unlink(kPath.c_str()), 0);
    operation();
    EXPECT_EQ(rules::tablesOf(), rules::kTables);
    expectLog({kMissing});
  }
}

TEST_F(BccTest, AFileThatIsNoDatabaseIsLeftAsItIs) {
  add(BCC_SENDER, "a");
  rules::replaceByText();
  EXPECT_EQ(find("all", ""), Rows());
  EXPECT_EQ(count("all", ""), 0);
  expectLog({kNotRead});
  EXPECT_EQ(bcc.setBCC({{BCC_SENDER, "b", "x"}}), -1);
  expectLog({rules::kNoDatabase, rules::kStillInTransaction, kNotInserted});
  EXPECT_EQ(readFile(kPath), rules::kText);
}

TEST_F(BccTest, DamageThatShowsWhileReadingIsOnlyReported) {
  add(BCC_SENDER, "a");
  database::spoilTables(kPath);
  const std::string step =
      "bcc.cpp: sqlite3_step: [11] database disk image is malformed\n";
  EXPECT_EQ(find("all", ""), Rows());
  EXPECT_EQ(count("all", ""), 0);
  expectLog({step, kNotRead, step});
  EXPECT_EQ(readFile(kPath).substr(4096, 4), "\xff\xff\xff\xff");  // not made anew
}

TEST_F(BccTest, ADamagedFileIsMadeAnewWhenAQueryIsPrepared) {
  const std::vector<std::function<void()>> queries = {
      [this] { EXPECT_EQ(bcc.getBCCList(BCC_SENDER, 0, 9).size(), 0u); },
      [this] { EXPECT_EQ(find("all", ""), Rows()); },
      [this] { EXPECT_EQ(count("all", ""), 0); },
      [this] {
        List list;
        EXPECT_EQ(bcc.queryBccData(list, "select * from bcc_table;"), 11);
      }};
  for (size_t i = 0; i < queries.size(); i++) {
    add(BCC_SENDER, "a");
    rules::damage();
    queries[i]();
    Rows lines = {kCorrupt, rules::kRegen, kMissing};
    if (i < 2) lines.push_back(kNotRead);
    expectLog(lines);
    EXPECT_EQ(rules::tablesOf(), rules::kTables);
    EXPECT_EQ(ruleRows(), Rows());
  }
}

TEST_F(BccTest, AWriteToADamagedFileOnlyFails) {
  add(BCC_SENDER, "a");
  rules::damage();
  EXPECT_EQ(bcc.addBCC(BCC_SENDER, "b", "x"), -1);
  EXPECT_EQ(tree.takeCalls(), Rows());
  expectLog(
      {"DBHandler.cpp: sqlite3_exec fail, err=[11], database disk image is malformed",
       rules::kStillInTransaction,
       "DBHandler.cpp: commitTransaction fail, err=[11], database disk image is "
       "malformed",
       kNotInserted});
  EXPECT_EQ(readFile(kPath).substr(100, 4), "\xff\xff\xff\xff");  // not made anew
}

// ---- export

TEST_F(BccTest, ExportWritesTheRulesOfOneTypeAndNotTheSetting) {
  ASSERT_EQ(bcc.setAlwaysBCC("boss"), 0);
  add(BCC_SENDER, "amy", "x@b.example");
  add(BCC_SENDER, "bob@b.example", "archive");
  add(BCC_RECIPIENT, "carol");
  writeFile(kFile, "what was there before, and longer than the rules are together\n");
  EXPECT_EQ(bcc.exportBCC(BCC_SENDER, kFile), 0);
  EXPECT_EQ(readFile(kFile), "bob@b.example archive\namy x@b.example\n");
  EXPECT_EQ(bcc.exportBCC(BCC_ALL, kFile), 0);
  EXPECT_EQ(readFile(kFile), "");
  EXPECT_EQ(bcc.exportBCC(BCC_SENDER, "/no/such/file"), -1);
  expectLog({"bcc.cpp: open file /no/such/file fail"});
}

TEST_F(BccTest, ExportOntoAFullDiskIsAFailure) {
  add(BCC_SENDER, "a");
  EXPECT_EQ(bcc.exportBCC(BCC_SENDER, "/dev/full"), -1);
  expectLog({"bcc.cpp: write file /dev/full fail"});
}

TEST_F(BccTest, ExportReadsPagesUntilOneIsShort) {
  for (const int rows : {0, 1, 1023, 1024, 1025, 2048}) {
    writeFile(kFile, rules::numberedLines(rows, "archive", false));
    ASSERT_EQ(bcc.importBCC(BCC_SENDER, kFile), 0);
    log.take();
    sql::takeStatements();
    ASSERT_EQ(bcc.exportBCC(BCC_SENDER, kFile), 0);
    const Rows statements = sql::takeStatements();
    EXPECT_EQ(statements.size(), static_cast<size_t>(rows / 1024 + 1)) << rows;
    EXPECT_EQ(statements.back(),
              "SELECT * FROM bcc_table WHERE type='0' ORDER BY name desc LIMIT '1024' "
              "OFFSET '" +
                  std::to_string(rows / 1024 * 1024) + "'");
    EXPECT_EQ(readFile(kFile), rules::numberedLines(rows, "archive", true)) << rows;
  }
}

TEST_F(BccTest, TenThousandRulesComeBackFromAnExport) {
  const std::string lines = rules::numberedLines(10000, "archive", true);
  writeFile(kFile, lines);
  ASSERT_EQ(bcc.importBCC(BCC_RECIPIENT, kFile), 0);
  ASSERT_EQ(bcc.exportBCC(BCC_RECIPIENT, kFile), 0);
  EXPECT_EQ(readFile(kFile), lines);
  const Rows before = ruleRows();
  EXPECT_EQ(before.size(), 10000u);
  ASSERT_EQ(database::Connection(kPath).run("delete from bcc_table;"), 0);
  ASSERT_EQ(bcc.importBCC(BCC_RECIPIENT, kFile), 0);
  EXPECT_EQ(ruleRows(), before);
  log.take();  // of the missing alias file
}

// ---- import

class BccImportTest : public BccTest {
 protected:
  BccImportTest() {
    bcc.importBCC(BCC_SENDER, "/dev/null");  // makes the alias file
    database::Connection(kFolderAlias)
        .run("insert into alias_info_table values('team@b.example', 'amy', 0);");
    tree.takeCalls();
    log.take();
  }

  // What an import of the text stores.
  Rows imported(const std::string &text) {
    EXPECT_EQ(database::Connection(kPath).run("delete from bcc_table;"), 0);
    writeFile(kFile, text);
    EXPECT_EQ(bcc.importBCC(BCC_SENDER, kFile), 0);
    return ruleRows();
  }

  const std::string kFolderAlias = rules::kFolder + "/alias.db";
};

TEST_F(BccImportTest, WordsWithoutAnAtAreNotChecked) {
  EXPECT_EQ(imported("nobody nowhere\nroot root\n"),
            Rows({"nobody|0|nowhere", "root|0|root"}));
  EXPECT_EQ(tree.takeCalls(), Rows{"kest_bcc_map"});
}

TEST_F(BccImportTest, WordsWithAnAtMustBeKnownNames) {
  EXPECT_EQ(imported("amy x@elsewhere.example\nx@elsewhere.example amy\n"
                     "team@b.example amy\namy team@b.example\n"),
            Rows({"team@b.example|0|amy", "amy|0|team@b.example"}));
  expectLog({});
}

TEST_F(BccImportTest, WithoutTheNamesNoWordWithAnAtIsTaken) {
  platform::failCall("KESTUserEnum");
  EXPECT_EQ(imported("team@b.example amy\nbob carol\n"), Rows{"bob|0|carol"});
  expectLog({"utils.cpp: fail to enum local user"});
}

TEST_F(BccImportTest, TheTargetIsTheTrimmedRestOfTheLine) {
  EXPECT_EQ(imported("  amy   \t two words \t \r\nbob\tx y\ncarol z"),
            Rows({"amy|0|two words", "bob\tx|0|y", "carol|0|z"}));
}

TEST_F(BccImportTest, ALineOfOneWordIsARuleWithoutATarget) {
  EXPECT_EQ(imported("amy\nbob \n\ncarol"),
            Rows({"amy\n|0|", "bob|0|", "\n|0|", "carol|0|"}));
}

TEST_F(BccImportTest, OnlyBlanksAreNoLine) {
  EXPECT_EQ(imported("a x\n   "), Rows{"a|0|x"});
  expectLog({"bcc.cpp: parse fail, skip    "});
}

TEST_F(BccImportTest, ANulEndsItsLine) {
  const std::string nul(1, '\0');
  EXPECT_EQ(imported("a x" + nul + "rest\n" + nul + "c x\nd x\n"),
            Rows({"a|0|x", "d|0|x"}));
  expectLog({"bcc.cpp: parse fail, skip "});
}

TEST_F(BccImportTest, ATargetThatCannotBeTrimmedIsSkippedSilently) {
  platform::answerCall("KLIBCStrTrimSpace", -1);
  EXPECT_EQ(imported("a x\nb y\n"), Rows{"b|0|y"});
  expectLog({});
}

TEST_F(BccImportTest, ALineOf100KBFailsTheImportAndKeepsWhatCameBefore) {
  writeFile(kFile, "a x\n" + std::string(100'000, 'x') + " x\nb x\n");
  EXPECT_EQ(bcc.importBCC(BCC_RECIPIENT, kFile), -1);
  expectLog({rules::kFarTooLong, rules::kStillInTransaction, kNotInserted,
             "bcc.cpp: import list fail, type: 1"});
  EXPECT_EQ(ruleRows(), Rows{"a|1|x"});
  EXPECT_EQ(tree.takeCalls(), Rows());
  EXPECT_TRUE(rules::anotherProcessWrites());
}

TEST_F(BccImportTest, AFileThatCannotBeReadOrIsEmptyStoresNothingAndMakesTheMap) {
  add(BCC_SENDER, "kept");
  writeFile(kFile, "");
  for (const std::string &path : {kFile, rules::kFolder}) {
    EXPECT_EQ(bcc.importBCC(BCC_SENDER, path), 0);  // a folder is opened, not read
    EXPECT_EQ(tree.takeCalls(), Rows{"kest_bcc_map"});
  }
  EXPECT_EQ(ruleRows(), Rows{"kept|0|archive"});
}

TEST_F(BccImportTest, AnImportIntoALockedFileStoresNothing) {
  database::Connection holder(kPath);
  ASSERT_EQ(holder.run("BEGIN IMMEDIATE;"), 0);
  writeFile(kFile, "a x\n");
  EXPECT_EQ(bcc.importBCC(BCC_SENDER, kFile), -1);
  ASSERT_EQ(holder.run("ROLLBACK;"), 0);
  expectLog({rules::kLocked, rules::kStillInTransaction, kNotInserted,
             "bcc.cpp: import list fail, type: 0"});
  EXPECT_EQ(tree.takeCalls(), Rows());
  EXPECT_EQ(imported("a x\n"), Rows{"a|0|x"});
}

TEST_F(BccImportTest, AFileThatCannotBeOpened) {
  platform::takeCalls();
  EXPECT_EQ(bcc.importBCC(BCC_SENDER, "/no/such/file"), -1);
  EXPECT_EQ(callsOf({"KESTUserEnum"}).size(), 1u);  // the names were asked for first
  expectLog({"bcc.cpp: open file error, No such file or directory"});
  EXPECT_EQ(tree.takeCalls(), Rows());
}

TEST_F(BccImportTest, AMapThatFailsFailsTheImportThatIsStored) {
  tree.failScript("kest_bcc_map");
  writeFile(kFile, "a x\n");
  EXPECT_EQ(bcc.importBCC(BCC_RECIPIENT, kFile), -1);
  expectLog({kNoMap, "bcc.cpp: import list fail, type: 1"});
  EXPECT_EQ(ruleRows(), Rows{"a|1|x"});
}

}  // namespace
