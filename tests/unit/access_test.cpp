#include "access.h"

#include <sys/stat.h>
#include <unistd.h>

#include "support/rules.h"

namespace {

using database::rowsOf;
using rules::kFile;
using rules::kMissing;
using rules::kPath;
using rules::Rows;

using List = std::list<AccessInfo>;

const std::string kNotLoaded = "access.cpp: load Access data fail";
const std::string kNotInserted = "access.cpp: fail to insert info into access table";
const std::string kNotDeleted = "access.cpp: fail to delete info into access table";
const std::string kCorrupt = "access.cpp: db corrupt, need regen";

// What is stored, in the order in which it was: "name_type|name|type|access".
Rows ruleRows() { return rowsOf(kPath, "select * from access_table order by rowid;"); }

// Rules as ruleRows() shows them.
Rows shown(const List &list) {
  Rows rows;
  for (const AccessInfo &rule : list)
    rows.push_back(std::to_string(rule.nameType) + "|" + rule.name + "|" +
                   std::to_string(rule.type) + "|" + std::to_string(rule.status));
  return rows;
}

// ---- the instance; once made it stays, so what keeps it from being made comes first

class AccessInstanceTest : public LibraryTest {
 protected:
  AccessInstanceTest() { writeDefaults(); }
};

TEST_F(AccessInstanceTest, TwoProcessesAtOnceLoseNoRule) {
  const auto writer = [](const std::string &prefix) {
    return rules::startProcess([prefix] {
      Access *access = nullptr;
      while (access == nullptr) access = Access::getInstance();
      for (int i = 0; i < 100; i++)
        while (access->addAccess(TYPE_SENDER, NAME_DOMAIN, prefix + std::to_string(i),
                                 ACCESS_REJECT) != 0) {
        }
      return true;
    });
  };
  const pid_t one = writer("one"), other = writer("other");
  EXPECT_TRUE(rules::succeeded(one));
  EXPECT_TRUE(rules::succeeded(other));
  EXPECT_EQ(rowsOf(kPath, "select count(*) from access_table;"), Rows{"200"});
  log.take();  // who had to wait for whom
}

TEST_F(AccessInstanceTest, WithoutItsFileThereIsNoneUntilThereIsOne) {
  ASSERT_EQ(chmod(rules::kFolder.c_str(), 0555), 0);
  EXPECT_EQ(Access::getInstance(), nullptr);
  expectLog({kMissing, "DBHandler.cpp: Open database fail. dbpath = [" + kPath + "]",
             "DBHandler.cpp: Create DB fail;", "access.cpp: db connect fail",
             "access.cpp: db init fail"});
  ASSERT_EQ(chmod(rules::kFolder.c_str(), 0755), 0);
  ASSERT_EQ(mkdir(kPath.c_str(), 0755), 0);
  EXPECT_EQ(Access::getInstance(), nullptr);
  expectLog({"DBHandler.cpp: Open database fail. dbpath = [" + kPath + "], err=[14]",
             "access.cpp: db connect fail", "access.cpp: db init fail"});
  ASSERT_EQ(rmdir(kPath.c_str()), 0);
  Access *const access = Access::getInstance();
  EXPECT_NE(access, nullptr);
  EXPECT_EQ(Access::getInstance(), access);
  expectLog({kMissing});
}

// ---- everything else

class AccessTest : public LibraryTest {
 protected:
  AccessTest() : access(*Access::getInstance()) {
    writeDefaults();
    EXPECT_EQ(count("all", ""), 0);  // follows into the new folder
    expectLog({kMissing});
    sql::takeStatements();
  }

  void add(Type type, NameType nameType, const std::string &name,
           AccessStatus status = ACCESS_REJECT) {
    ASSERT_EQ(access.addAccess(type, nameType, name, status), 0);
  }

  Rows find(const std::string &type, const std::string &key) {
    return shown(access.getAllAccessList({0, 100, type, key}));
  }

  int count(const std::string &type, const std::string &key) {
    return access.getTotalAccessNum({0, 100, type, key});
  }

  Access &access;
};

TEST_F(AccessTest, ARuleHoldsWhatItWasMadeFrom) {
  const AccessInfo rule(TYPE_CLIENT, NAME_DOMAIN, "a.example", ACCESS_DISCARD);
  EXPECT_EQ(rule.name, "a.example");
  EXPECT_EQ(rule.status, ACCESS_DISCARD);
  EXPECT_EQ(rule.type, TYPE_CLIENT);
  EXPECT_EQ(rule.nameType, NAME_DOMAIN);
  const AccessInfo copy(rule);
  AccessInfo other(TYPE_SENDER, NAME_ACCOUNT, "", ACCESS_UNKNOW);
  other = copy;
  EXPECT_EQ(shown({copy, other}), Rows({"2|a.example|2|3", "2|a.example|2|3"}));
}

// ---- words and actions

TEST_F(AccessTest, ActionsAreReadInAnyLettersWithWhiteSpaceAround) {
  for (const char *word : {"  Permit\n", "OK", "ok", "permit", "\tPERMIT\r\n"})
    EXPECT_EQ(Access::StrToStatus(word), ACCESS_PERMIT) << word;
  EXPECT_EQ(Access::StrToStatus("Reject"), ACCESS_REJECT);
  EXPECT_EQ(Access::StrToStatus("discard "), ACCESS_DISCARD);
  for (const char *word : {"deny", "", "\n", "reject it", "oka", "UNKNOWN", "2"})
    EXPECT_EQ(Access::StrToStatus(word), ACCESS_UNKNOW) << word;
}

TEST_F(AccessTest, OnlyTheFirst63BytesOfAnActionCount) {
  EXPECT_EQ(Access::StrToStatus((std::string(57, ' ') + "reject").c_str()),
            ACCESS_REJECT);
  EXPECT_EQ(Access::StrToStatus((std::string(58, ' ') + "reject").c_str()),
            ACCESS_UNKNOW);
  EXPECT_EQ(Access::StrToStatus(("ok" + std::string(61, ' ') + "x").c_str()),
            ACCESS_PERMIT);
}

TEST_F(AccessTest, AnActionThatCannotBeTrimmedIsUnknown) {
  platform::answerCall("KLIBCStrTrimSpace", -1);
  EXPECT_EQ(Access::StrToStatus("ok"), ACCESS_UNKNOW);
  expectLog({"access.cpp: trim fail"});
  platform::answerCall("KLIBCStrTrimSpace", 5);
  EXPECT_EQ(Access::StrToStatus("ok"), ACCESS_PERMIT);
}

TEST_F(AccessTest, ActionsAreWrittenInCapitals) {
  EXPECT_STREQ(Access::StatusToStr(ACCESS_PERMIT), "OK");
  EXPECT_STREQ(Access::StatusToStr(ACCESS_REJECT), "REJECT");
  EXPECT_STREQ(Access::StatusToStr(ACCESS_DISCARD), "DISCARD");
  EXPECT_STREQ(Access::StatusToStr(ACCESS_UNKNOW), "UNKNOWN");
  EXPECT_STREQ(Access::StatusToStr(static_cast<AccessStatus>(7)), "UNKNOWN");
}

TEST_F(AccessTest, TheMapIsMadeByItsProgramOnlyWhenAsked) {
  add(TYPE_SENDER, NAME_DOMAIN, "a.example");
  EXPECT_EQ(tree.takeCalls(), Rows());
  EXPECT_EQ(Access::GenerateAccessMap(), 0);
  EXPECT_EQ(tree.takeCalls(), Rows{"kest_access_map"});
  tree.failScript("kest_access_map");
  EXPECT_LT(Access::GenerateAccessMap(), 0);
  platform::answerCall("KLIBCExec", 7);
  EXPECT_EQ(Access::GenerateAccessMap(), 7);
}

// ---- changes

TEST_F(AccessTest, ARuleOfTheSameNameKindAndSideIsReplaced) {
  add(TYPE_SENDER, NAME_ADDRESS, "a@b.example", ACCESS_REJECT);
  add(TYPE_SENDER, NAME_ADDRESS, "a@b.example", ACCESS_PERMIT);
  add(TYPE_RECIPIENT, NAME_ADDRESS, "a@b.example", ACCESS_DISCARD);
  add(TYPE_SENDER, NAME_DOMAIN, "a@b.example", ACCESS_UNKNOW);
  add(TYPE_SENDER, NAME_ADDRESS, "A@b.example", ACCESS_REJECT);
  EXPECT_EQ(ruleRows(), Rows({"1|a@b.example|0|1", "1|a@b.example|1|3",
                              "2|a@b.example|0|0", "1|A@b.example|0|2"}));
}

TEST_F(AccessTest, DeletingIgnoresTheActionAndWhatIsNotThere) {
  add(TYPE_SENDER, NAME_DOMAIN, "a.example");
  add(TYPE_RECIPIENT, NAME_DOMAIN, "a.example");
  EXPECT_EQ(access.deleteAccess({{TYPE_SENDER, NAME_DOMAIN, "a.example", ACCESS_PERMIT},
                                 {TYPE_CLIENT, NAME_DOMAIN, "a.example", ACCESS_REJECT}}),
            0);
  EXPECT_EQ(ruleRows(), Rows{"2|a.example|1|2"});
}

TEST_F(AccessTest, StatementsAreTheseToTheLetter) {
  const AccessInfo rule(TYPE_RECIPIENT, NAME_ADDRESS, "o'h@b.example", ACCESS_DISCARD);
  EXPECT_EQ(access.setAccess({rule, rule}), 0);
  EXPECT_EQ(access.deleteAccess({rule}), 0);
  access.getAccessList(TYPE_CLIENT, 5, 7);
  for (const char *type : {"x", "all", "sender", "recipient", "client"})
    for (const char *key : {"", "o'h%"}) {
      if (*key != '\0' && *type == 'x') continue;
      access.getAllAccessList({3, 9, type, key});
      access.getTotalAccessNum({3, 9, type, key});
    }
  const std::string insert =
      "INSERT OR REPLACE INTO access_table (name_type, name,type,access) VALUES "
      "('1','o''h@b.example','1','3');";
  const std::string all = "SELECT * FROM access_table LIMIT '9' OFFSET '3'";
  const std::string allCount = "SELECT COUNT(*) FROM access_table;";
  const std::string some = "SELECT * FROM access_table WHERE ",
                    page = "name LIKE '%o''h%%' LIMIT '9' OFFSET '3'",
                    someCount = "SELECT COUNT(*) FROM access_table WHERE ";
  EXPECT_EQ(
      sql::takeStatements(),
      (Rows{"BEGIN TRANSACTION;",
            insert,
            insert,
            "COMMIT TRANSACTION;",
            "BEGIN TRANSACTION;",
            "DELETE FROM access_table WHERE name_type='1' AND name='o''h@b.example' AND "
            "type='1';",
            "COMMIT TRANSACTION;",
            "SELECT * FROM access_table WHERE type='2' ORDER BY name desc LIMIT '7' "
            "OFFSET '5'",
            all,
            allCount,
            all,
            allCount,
            some + page,
            someCount + "name LIKE '%o''h%%'",
            all,
            allCount,
            some + "type='0' AND " + page,
            someCount + "type='0' AND name LIKE '%q%'",
            all,
            allCount,
            some + "type='1' AND " + page,
            someCount + "type='1' AND name LIKE '%q%'",
            all,
            allCount,
            some + "type='2' AND " + page,
            someCount + "type='2' AND name LIKE '%q%'"}));
}

TEST_F(AccessTest, AnEmptyListRunsAnEmptyTransaction) {
  EXPECT_EQ(access.setAccess({}), 0);
  EXPECT_EQ(access.deleteAccess({}), 0);
  EXPECT_EQ(sql::takeStatements(), (Rows{"BEGIN TRANSACTION;", "COMMIT TRANSACTION;",
                                         "BEGIN TRANSACTION;", "COMMIT TRANSACTION;"}));
}

TEST_F(AccessTest, NamesMayHoldAnything) {
  for (const std::string name :
       {"o'hara", "''", "100%", "%q%s%n", "a;drop table access_table;", "two words", " ",
        "", "J\xc3\xb6rg", "\xff", "a\"b", "a\\b", "-- x", "a\nb"}) {
    add(TYPE_SENDER, NAME_ADDRESS, name);
    EXPECT_EQ(ruleRows(), Rows{"1|" + name + "|0|2"});
    EXPECT_EQ(shown(access.getAccessList(TYPE_SENDER, 0, 10)), ruleRows());
    EXPECT_EQ(access.deleteAccess({{TYPE_SENDER, NAME_ADDRESS, name, ACCESS_UNKNOW}}), 0);
    EXPECT_EQ(ruleRows(), Rows());
  }
}

// ---- a failed write never disables the next

TEST_F(AccessTest, AStatementHas1023BytesAndMayLoseItsSemicolon) {
  const size_t others = std::string(
                            "INSERT OR REPLACE INTO access_table (name_type, "
                            "name,type,access) VALUES ('2','','0','2');")
                            .size();
  add(TYPE_SENDER, NAME_DOMAIN, std::string(1023 - others, 'n'));
  add(TYPE_SENDER, NAME_DOMAIN, std::string(1024 - others, 'n'));
  EXPECT_EQ(access.addAccess(TYPE_SENDER, NAME_DOMAIN, std::string(1025 - others, 'n'),
                             ACCESS_REJECT),
            -1);
  expectLog({rules::kTooLong, rules::kStillInTransaction, kNotInserted});
  EXPECT_EQ(ruleRows(), Rows({"2|" + std::string(1023 - others, 'n') + "|0|2",
                              "2|" + std::string(1024 - others, 'n') + "|0|2"}));
}

TEST_F(AccessTest, ANameThatDoesNotFitKeepsWhatCameBeforeAndDisablesNothing) {
  const List given = {{TYPE_SENDER, NAME_DOMAIN, "before", ACCESS_REJECT},
                      {TYPE_SENDER, NAME_DOMAIN, std::string(1000, 'n'), ACCESS_REJECT},
                      {TYPE_SENDER, NAME_DOMAIN, "after", ACCESS_REJECT}};
  EXPECT_EQ(access.setAccess(given), -1);
  EXPECT_EQ(ruleRows(), Rows{"2|before|0|2"});
  EXPECT_TRUE(rules::anotherProcessWrites());
  expectLog({rules::kTooLong, rules::kStillInTransaction, kNotInserted});
  add(TYPE_SENDER, NAME_DOMAIN, "next");
  EXPECT_EQ(ruleRows(), Rows({"2|before|0|2", "2|next|0|2"}));
  EXPECT_EQ(access.deleteAccess(given), -1);
  EXPECT_EQ(ruleRows(), Rows{"2|next|0|2"});
  EXPECT_TRUE(rules::anotherProcessWrites());
  expectLog({rules::kTooLong, rules::kStillInTransaction, kNotDeleted});
}

// Cut behind a name the statement would be valid and delete the rules of all sides.
TEST_F(AccessTest, ADeletionThatDoesNotFitDeletesNothing) {
  for (size_t length = 930; length <= 1024; length++) {
    const std::string name(length, 'n');
    ASSERT_EQ(database::Connection(kPath).run("insert into access_table values(2, '" +
                                              name + "', 1, 2);"),
              0);
    access.deleteAccess({{TYPE_SENDER, NAME_DOMAIN, name, ACCESS_UNKNOW}});
  }
  EXPECT_EQ(ruleRows().size(), 95u);
  EXPECT_GT(log.take().size(), 60u);
}

TEST_F(AccessTest, ALockedFileFailsTheWriteAndTheNextSucceeds) {
  add(TYPE_SENDER, NAME_DOMAIN, "old");
  const AccessInfo rule(TYPE_SENDER, NAME_DOMAIN, "new", ACCESS_REJECT);
  database::Connection holder(kPath);
  ASSERT_EQ(holder.run("BEGIN IMMEDIATE;"), 0);
  EXPECT_EQ(access.setAccess({rule}), -1);
  EXPECT_EQ(access.deleteAccess({rule}), -1);
  EXPECT_EQ(shown(access.getAccessList(TYPE_SENDER, 0, 9)), Rows{"2|old|0|2"});
  ASSERT_EQ(holder.run("ROLLBACK;"), 0);
  expectLog({rules::kLocked, rules::kStillInTransaction, kNotInserted, rules::kLocked,
             rules::kStillInTransaction, kNotDeleted});
  EXPECT_TRUE(rules::anotherProcessWrites());
  EXPECT_EQ(access.setAccess({rule}), 0);
  EXPECT_EQ(ruleRows(), Rows({"2|old|0|2", "2|new|0|2"}));
}

TEST_F(AccessTest, AReaderFailsTheCommitAndTheNextWriteSucceeds) {
  database::Connection reader(kPath);
  ASSERT_EQ(reader.run("BEGIN; SELECT count(*) FROM access_table;"), 0);
  EXPECT_EQ(access.addAccess(TYPE_SENDER, NAME_DOMAIN, "new", ACCESS_REJECT), -1);
  const std::string failed =
      "DBHandler.cpp: commitTransaction fail, err=[5], database is locked";
  expectLog({failed, rules::kStillInTransaction, failed, kNotInserted});
  ASSERT_EQ(reader.run("ROLLBACK;"), 0);
  EXPECT_EQ(ruleRows(), Rows());  // the close ended the transaction
  EXPECT_TRUE(rules::anotherProcessWrites());
  add(TYPE_SENDER, NAME_DOMAIN, "next");
  EXPECT_EQ(ruleRows(), Rows{"2|next|0|2"});
}

TEST_F(AccessTest, AFileThatCannotBeOpenedAgainIsTriedAtTheNextOperation) {
  ASSERT_EQ(unlink(kPath.c_str()), 0);
  ASSERT_EQ(mkdir(kPath.c_str(), 0755), 0);
  const std::string failed =
      "DBHandler.cpp: Open database fail. dbpath = [" + kPath + "], err=[14]";
  EXPECT_EQ(access.addAccess(TYPE_SENDER, NAME_DOMAIN, "a", ACCESS_REJECT), -1);
  EXPECT_EQ(access.getAccessList(TYPE_SENDER, 0, 9).size(), 0u);
  EXPECT_EQ(access.getTotalAccessNum({0, 9, "all", ""}), 0);
  expectLog({failed, kNotInserted, failed, kNotLoaded, failed});
  ASSERT_EQ(rmdir(kPath.c_str()), 0);
  add(TYPE_SENDER, NAME_DOMAIN, "a");
  EXPECT_EQ(ruleRows(), Rows{"2|a|0|2"});
  expectLog({kMissing});
}

// ---- lists and counts

TEST_F(AccessTest, AnEmptyKeyListsAndCountsAllTypesWhateverTheType) {
  add(TYPE_SENDER, NAME_DOMAIN, "a.example");
  add(TYPE_RECIPIENT, NAME_ACCOUNT, "amy");
  add(TYPE_CLIENT, NAME_ADDRESS, "192.0.2.1");
  for (const char *type : {"sender", "client", "all", "", "Sender", "nonsense"}) {
    EXPECT_EQ(find(type, ""), ruleRows());
    EXPECT_EQ(count(type, ""), 3);
  }
}

TEST_F(AccessTest, ASearchWithinATypeListsTheKeyAndCountsTheLetterQ) {
  add(TYPE_SENDER, NAME_DOMAIN, "xabcx");
  add(TYPE_SENDER, NAME_DOMAIN, "ABC");
  add(TYPE_RECIPIENT, NAME_DOMAIN, "abc");
  add(TYPE_SENDER, NAME_DOMAIN, "q1");
  add(TYPE_SENDER, NAME_DOMAIN, "1Q");
  add(TYPE_SENDER, NAME_DOMAIN, "1q1");
  EXPECT_EQ(find("sender", "abc"), Rows({"2|xabcx|0|2", "2|ABC|0|2"}));
  EXPECT_EQ(count("sender", "abc"), 3);
  EXPECT_EQ(find("recipient", "abc"), Rows{"2|abc|1|2"});
  EXPECT_EQ(count("recipient", "abc"), 0);
  EXPECT_EQ(find("client", "abc"), Rows());
  EXPECT_EQ(find("all", "abc"), Rows({"2|xabcx|0|2", "2|ABC|0|2", "2|abc|1|2"}));
  EXPECT_EQ(count("all", "abc"), 3);
}

TEST_F(AccessTest, AnUnknownTypeWithAKeyGivesTheEmptyStatement) {
  add(TYPE_SENDER, NAME_DOMAIN, "abc");
  const std::string step = "access.cpp: sqlite3_step: [21] not an error\n";
  for (const char *type : {"Sender", "", "bcc"}) {
    EXPECT_EQ(find(type, "abc"), Rows());
    EXPECT_EQ(count(type, "abc"), 0);
    expectLog({step, kNotLoaded, step});
  }
}

TEST_F(AccessTest, AKeyMayHoldQuotesAndWildcards) {
  add(TYPE_SENDER, NAME_DOMAIN, "o'hara");
  add(TYPE_SENDER, NAME_DOMAIN, "axb");
  EXPECT_EQ(find("all", "'"), Rows{"2|o'hara|0|2"});
  EXPECT_EQ(find("sender", "a_b"), Rows{"2|axb|0|2"});
  EXPECT_EQ(count("all", "%"), 2);
}

TEST_F(AccessTest, AKeyThatDoesNotFitListsNothing) {
  add(TYPE_SENDER, NAME_DOMAIN, "a");
  EXPECT_EQ(find("all", std::string(1000, '%')), Rows());
  EXPECT_EQ(count("all", std::string(1000, '%')), 0);
  expectLog({kNotLoaded});
}

TEST_F(AccessTest, ListsOfATypeAreByNameDescendingInPages) {
  for (const char *name : {"b", "a", "c", "B"}) add(TYPE_CLIENT, NAME_DOMAIN, name);
  add(TYPE_SENDER, NAME_DOMAIN, "z");
  EXPECT_EQ(shown(access.getAccessList(TYPE_CLIENT, 0, 10)),
            Rows({"2|c|2|2", "2|b|2|2", "2|a|2|2", "2|B|2|2"}));
  EXPECT_EQ(shown(access.getAccessList(TYPE_CLIENT, 1, 2)), Rows({"2|b|2|2", "2|a|2|2"}));
  EXPECT_EQ(access.getAccessList(TYPE_CLIENT, 4, 2).size(), 0u);
  EXPECT_EQ(access.getAccessList(TYPE_CLIENT, 0, 0).size(), 0u);
  EXPECT_EQ(access.getAccessList(TYPE_CLIENT, 0, -1).size(), 4u);  // no limit to SQLite
  EXPECT_EQ(shown(access.getAllAccessList({1, 2, "all", "b"})), Rows{"2|B|2|2"});
}

TEST_F(AccessTest, AQueryOfTheCallersAppendsAndGivesSQLitesCode) {
  add(TYPE_SENDER, NAME_DOMAIN, "a");
  ASSERT_EQ(database::Connection(kPath).run(
                "insert into access_table values(NULL, NULL, NULL, NULL);"),
            0);
  List list = {{TYPE_CLIENT, NAME_ACCOUNT, "kept", ACCESS_PERMIT}};
  EXPECT_EQ(access.queryAccessData(list, "select * from access_table;"), 0);
  EXPECT_EQ(shown(list), Rows({"0|kept|2|1", "2|a|0|2", "0||0|0"}));
  EXPECT_EQ(access.queryAccessData(list, "select * from nonsense;"), 1);
  EXPECT_EQ(access.queryAccessData(
                list,
                "select 1, 'x', 1, 1 union all select 1, abs(-9223372036854775808), "
                "1, 1;"),
            1);
  expectLog({"access.cpp: sqlite3_step: [1] integer overflow\n"});
  EXPECT_EQ(shown(list).back(), "1|x|1|1");  // the rows before the failing one stay
}

TEST_F(AccessTest, AFileThatIsHeldAloneListsNothingAndIsExportedEmpty) {
  add(TYPE_SENDER, NAME_DOMAIN, "a");
  database::Connection holder(kPath);
  ASSERT_EQ(holder.run("BEGIN EXCLUSIVE;"), 0);
  EXPECT_EQ(access.getAccessList(TYPE_SENDER, 0, 9).size(), 0u);
  EXPECT_EQ(find("all", ""), Rows());
  EXPECT_EQ(count("all", ""), 0);
  EXPECT_EQ(access.exportAccess(TYPE_SENDER, kFile), 0);  // a page that fails is short
  EXPECT_EQ(readFile(kFile), "");
  const std::string step = "access.cpp: sqlite3_step: [5] database is locked\n";
  expectLog({step, kNotLoaded, step, kNotLoaded, step, step, kNotLoaded});
  ASSERT_EQ(holder.run("ROLLBACK;"), 0);
  EXPECT_EQ(find("all", ""), ruleRows());
}

// ---- missing and damaged files

TEST_F(AccessTest, AFileThatIsNoDatabaseIsLeftAsItIs) {
  add(TYPE_SENDER, NAME_DOMAIN, "a");
  rules::replaceByText();
  EXPECT_EQ(find("all", ""), Rows());
  EXPECT_EQ(count("all", ""), 0);
  expectLog({kNotLoaded});
  EXPECT_EQ(access.addAccess(TYPE_SENDER, NAME_DOMAIN, "b", ACCESS_REJECT), -1);
  expectLog({rules::kNoDatabase, rules::kStillInTransaction, kNotInserted});
  EXPECT_EQ(readFile(kPath), rules::kText);
}

TEST_F(AccessTest, ADeletedFileIsMadeAnewWithAllThreeTablesByAnyOperation) {
  const std::vector<std::function<void()>> operations = {
      [this] { EXPECT_EQ(access.setAccess({}), 0); },
      [this] { EXPECT_EQ(access.deleteAccess({}), 0); },
      [this] { EXPECT_EQ(access.getAccessList(TYPE_SENDER, 0, 9).size(), 0u); },
      [this] { EXPECT_EQ(count("all", ""), 0); }};
  for (const auto &operation : operations) {
    add(TYPE_SENDER, NAME_DOMAIN, "a");
    ASSERT_EQ(unlink(kPath.c_str()), 0);
    operation();
    EXPECT_EQ(rules::tablesOf(), rules::kTables);
    expectLog({kMissing});
  }
}

TEST_F(AccessTest, AFileThatAnotherProcessReplacedIsTheOneThatIsRead) {
  add(TYPE_SENDER, NAME_DOMAIN, "old");
  const std::string copy = kPath + ".copy";
  writeFile(copy, readFile(kPath));
  ASSERT_EQ(database::Connection(copy).run("update access_table set name='new';"), 0);
  ASSERT_EQ(rename(copy.c_str(), kPath.c_str()), 0);
  EXPECT_EQ(find("all", ""), Rows{"2|new|0|2"});
}

TEST_F(AccessTest, ADamagedFileIsMadeAnewWhenAQueryIsPrepared) {
  const std::vector<std::function<void()>> queries = {
      [this] { EXPECT_EQ(access.getAccessList(TYPE_SENDER, 0, 9).size(), 0u); },
      [this] { EXPECT_EQ(find("all", ""), Rows()); },
      [this] { EXPECT_EQ(count("all", ""), 0); },
      [this] {
        List list;
        EXPECT_EQ(access.queryAccessData(list, "select * from access_table;"), 11);
      }};
  for (size_t i = 0; i < queries.size(); i++) {
    add(TYPE_SENDER, NAME_DOMAIN, "a");
    rules::damage();
    queries[i]();
    Rows lines = {kCorrupt, rules::kRegen, kMissing};
    if (i < 2) lines.push_back(kNotLoaded);
    expectLog(lines);
    EXPECT_EQ(rules::tablesOf(), rules::kTables);
    EXPECT_EQ(ruleRows(), Rows());
  }
}

TEST_F(AccessTest, ARebuildThatFailsGivesTheQuerysCode) {
  add(TYPE_SENDER, NAME_DOMAIN, "a");
  rules::damage();
  ASSERT_EQ(chmod(rules::kFolder.c_str(), 0555), 0);
  List list;
  EXPECT_EQ(access.queryAccessData(list, "select * from access_table;"), 11);
  expectLog({kCorrupt, rules::kRegen});  // the damaged file could not be removed
  ASSERT_EQ(chmod(rules::kFolder.c_str(), 0755), 0);
  EXPECT_EQ(access.queryAccessData(list, "select * from access_table;"), 11);
  expectLog({kCorrupt, rules::kRegen, kMissing});
  EXPECT_EQ(access.queryAccessData(list, "select * from access_table;"), 0);
}

TEST_F(AccessTest, DamageThatShowsWhileReadingOrWritingIsOnlyReported) {
  add(TYPE_SENDER, NAME_DOMAIN, "a");
  database::spoilTables(kPath);
  const std::string malformed = "[11] database disk image is malformed";
  EXPECT_EQ(find("all", ""), Rows());
  EXPECT_EQ(count("all", ""), 0);
  EXPECT_EQ(access.addAccess(TYPE_SENDER, NAME_DOMAIN, "b", ACCESS_REJECT), -1);
  const std::vector<LogLine> lines = log.take();
  ASSERT_GE(lines.size(), 5u);
  EXPECT_NE(lines[0].text.find("sqlite3_step: " + malformed + "\n"), std::string::npos);
  EXPECT_NE(lines.back().text.find("fail to insert info into access table"),
            std::string::npos);
  EXPECT_EQ(readFile(kPath).substr(4096, 4), "\xff\xff\xff\xff");  // not made anew
}

// ---- export

TEST_F(AccessTest, ExportWritesTheRulesOfOneTypeAndAccountsAsAddresses) {
  writeFile(PackageTree::kSettings, "smtp_hostname=\"mail.example\"\n");
  add(TYPE_SENDER, NAME_ACCOUNT, "amy", ACCESS_PERMIT);
  add(TYPE_SENDER, NAME_ADDRESS, "bob@b.example", ACCESS_REJECT);
  add(TYPE_SENDER, NAME_DOMAIN, "c.example", ACCESS_DISCARD);
  add(TYPE_SENDER, NAME_DOMAIN, "d.example", ACCESS_UNKNOW);
  add(TYPE_RECIPIENT, NAME_DOMAIN, "e.example", ACCESS_REJECT);
  writeFile(kFile, "what was there before, and longer than the rules are together\n");
  EXPECT_EQ(access.exportAccess(TYPE_SENDER, kFile), 0);
  EXPECT_EQ(readFile(kFile),
            "d.example UNKNOWN\nc.example DISCARD\nbob@b.example REJECT\n"
            "amy@mail.example OK\n");
  EXPECT_EQ(access.exportAccess(TYPE_CLIENT, kFile), 0);
  EXPECT_EQ(readFile(kFile), "");
}

TEST_F(AccessTest, ExportIntoAFileThatCannotBeOpened) {
  EXPECT_EQ(access.exportAccess(TYPE_SENDER, "/no/such/file"), -1);
  expectLog({"access.cpp: open file /no/such/file fail"});
}

TEST_F(AccessTest, ExportWithoutSettingsLeavesTheEmptiedFile) {
  add(TYPE_SENDER, NAME_DOMAIN, "a");
  writeFile(kFile, "old\n");
  unlink(PackageTree::kSettings);
  EXPECT_EQ(access.exportAccess(TYPE_SENDER, kFile), -1);
  expectLog({"smtp.cpp: KLIBCFileGetPair fail", "access.cpp: get domain name fail"});
  EXPECT_EQ(readFile(kFile), "");
}

TEST_F(AccessTest, ExportOntoAFullDiskIsAFailure) {
  add(TYPE_SENDER, NAME_DOMAIN, "a");
  EXPECT_EQ(access.exportAccess(TYPE_SENDER, "/dev/full"), -1);
  expectLog({"access.cpp: write file /dev/full fail"});
}

TEST_F(AccessTest, ExportReadsPagesUntilOneIsShort) {
  for (const int rows : {0, 1, 1023, 1024, 1025, 2048}) {
    writeFile(kFile, rules::numberedLines(rows, "OK", false));
    ASSERT_EQ(access.importAccess(TYPE_SENDER, kFile), 0);
    log.take();
    sql::takeStatements();
    ASSERT_EQ(access.exportAccess(TYPE_SENDER, kFile), 0);
    const Rows statements = sql::takeStatements();
    EXPECT_EQ(statements.size(), static_cast<size_t>(rows / 1024 + 1)) << rows;
    EXPECT_EQ(statements.back(),
              "SELECT * FROM access_table WHERE type='0' ORDER BY name desc LIMIT '1024' "
              "OFFSET '" +
                  std::to_string(rows / 1024 * 1024) + "'");
    EXPECT_EQ(readFile(kFile), rules::numberedLines(rows, "OK", true)) << rows;
  }
}

TEST_F(AccessTest, TenThousandRulesComeBackFromAnExport) {
  const std::string lines = rules::numberedLines(10000, "REJECT", true);
  writeFile(kFile, lines);
  ASSERT_EQ(access.importAccess(TYPE_RECIPIENT, kFile), 0);
  ASSERT_EQ(access.exportAccess(TYPE_RECIPIENT, kFile), 0);
  EXPECT_EQ(readFile(kFile), lines);
  const Rows before = ruleRows();
  EXPECT_EQ(before.size(), 10000u);
  ASSERT_EQ(database::Connection(kPath).run("delete from access_table;"), 0);
  ASSERT_EQ(access.importAccess(TYPE_RECIPIENT, kFile), 0);
  EXPECT_EQ(ruleRows(), before);
  log.take();  // of the missing alias file
}

// ---- import

class AccessImportTest : public AccessTest {
 protected:
  AccessImportTest() {
    access.importAccess(TYPE_SENDER, "/dev/null");  // makes the alias file
    log.take();
  }

  // What an import of the text stores.
  Rows imported(const std::string &text, Type type = TYPE_SENDER) {
    EXPECT_EQ(database::Connection(kPath).run("delete from access_table;"), 0);
    writeFile(kFile, text);
    EXPECT_EQ(access.importAccess(type, kFile), 0);
    return ruleRows();
  }
};

TEST_F(AccessImportTest, AddressesHaveAnAtAndAllElseAreDomains) {
  EXPECT_EQ(imported("a@b.example OK\nc.example reject\namy Discard\n", TYPE_CLIENT),
            Rows({"1|a@b.example|2|1", "2|c.example|2|2", "2|amy|2|3"}));
  expectLog({});
}

TEST_F(AccessImportTest, AnExportedAccountComesBackAsAnAddressAndADomainAsOne) {
  writeFile(PackageTree::kSettings, "smtp_hostname=\"mail.example\"\n");
  add(TYPE_SENDER, NAME_ACCOUNT, "amy", ACCESS_PERMIT);
  add(TYPE_SENDER, NAME_DOMAIN, "d.example", ACCESS_REJECT);
  ASSERT_EQ(access.exportAccess(TYPE_SENDER, kFile), 0);
  EXPECT_EQ(imported(readFile(kFile)),
            Rows({"2|d.example|0|2", "1|amy@mail.example|0|1"}));
}

TEST_F(AccessImportTest, NamesNeedNotBeKnown) {
  platform::failCall("KESTUserEnum");
  EXPECT_EQ(imported("nobody@elsewhere.example OK\n"),
            Rows{"1|nobody@elsewhere.example|0|1"});
  expectLog({"utils.cpp: fail to enum local user"});
}

TEST_F(AccessImportTest, WhoTheLocalNamesAreIsAskedFirst) {
  platform::takeCalls();
  EXPECT_EQ(access.importAccess(TYPE_SENDER, "/no/such/file"), -1);
  EXPECT_EQ(callsOf({"KESTUserEnum"}).size(), 1u);
  expectLog({"access.cpp: open file error, No such file or directory"});
}

TEST_F(AccessImportTest, SeveralBlanksBeforeTheActionDoNotMatter) {
  EXPECT_EQ(imported("  a    OK\nb  \t reject \t \n"), Rows({"2|a|0|1", "2|b|0|2"}));
}

TEST_F(AccessImportTest, ATabBelongsToTheNameAndTheLineIsSkipped) {
  EXPECT_EQ(imported("a\tOK\nb OK\n"), Rows{"2|b|0|1"});
  EXPECT_EQ(imported("a\tb OK\n"), Rows{"2|a\tb|0|1"});
  expectLog({});
}

TEST_F(AccessImportTest, LinesWithoutAnActionAreSkippedSilently) {
  EXPECT_EQ(imported("a\nb \nc deny\nd OK yes\n\n# e OK\nf OK\n"), Rows({"2|f|0|1"}));
  expectLog({});
}

TEST_F(AccessImportTest, OnlyBlanksAreNoLine) {
  EXPECT_EQ(imported("a OK\n   "), Rows{"2|a|0|1"});
  expectLog({"access.cpp: parse fail, skip    "});
  EXPECT_EQ(imported("   \na OK\n"), Rows{"2|a|0|1"});  // the newline is a word
  expectLog({});
}

TEST_F(AccessImportTest, LineEndsOfAnotherSystemAndAMissingLastOne) {
  EXPECT_EQ(imported("a OK\r\nb REJECT\r\nc discard"),
            Rows({"2|a|0|1", "2|b|0|2", "2|c|0|3"}));
}

TEST_F(AccessImportTest, ANulEndsItsLine) {
  const std::string nul(1, '\0');
  EXPECT_EQ(imported("a OK" + nul + "rest\nb" + nul + " OK\n" + nul + "c OK\nd OK\n"),
            Rows({"2|a|0|1", "2|d|0|1"}));
  expectLog({"access.cpp: parse fail, skip "});
}

TEST_F(AccessImportTest, ALineOf100KBFailsTheImportAndKeepsWhatCameBefore) {
  writeFile(kFile, "a OK\n" + std::string(100'000, 'x') + " OK\nb OK\n");
  EXPECT_EQ(access.importAccess(TYPE_CLIENT, kFile), -1);
  expectLog({rules::kFarTooLong, rules::kStillInTransaction, kNotInserted,
             "access.cpp: import list fail, type: 2"});
  EXPECT_EQ(ruleRows(), Rows{"2|a|2|1"});
  EXPECT_TRUE(rules::anotherProcessWrites());
  EXPECT_EQ(imported("c " + std::string(100'000, ' ') + "OK\nd OK\n"), Rows{"2|d|0|1"});
}

TEST_F(AccessImportTest, AnEmptyFileStoresNothing) {
  add(TYPE_SENDER, NAME_DOMAIN, "kept");
  writeFile(kFile, "");
  EXPECT_EQ(access.importAccess(TYPE_SENDER, kFile), 0);
  EXPECT_EQ(ruleRows(), Rows{"2|kept|0|2"});
}

TEST_F(AccessImportTest, AFileThatCannotBeReadStoresNothing) {
  add(TYPE_SENDER, NAME_DOMAIN, "kept");
  EXPECT_EQ(access.importAccess(TYPE_SENDER, rules::kFolder), 0);  // opened, not read
  EXPECT_EQ(ruleRows(), Rows{"2|kept|0|2"});
}

TEST_F(AccessImportTest, AnImportIntoALockedFileStoresNothing) {
  database::Connection holder(kPath);
  ASSERT_EQ(holder.run("BEGIN IMMEDIATE;"), 0);
  writeFile(kFile, "a OK\n");
  EXPECT_EQ(access.importAccess(TYPE_SENDER, kFile), -1);
  ASSERT_EQ(holder.run("ROLLBACK;"), 0);
  expectLog({rules::kLocked, rules::kStillInTransaction, kNotInserted,
             "access.cpp: import list fail, type: 0"});
  EXPECT_EQ(imported("a OK\n"), Rows{"2|a|0|1"});
}

}  // namespace
