#include "spam.h"

#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>

#include "support/rules.h"

namespace {

using database::rowsOf;
using rules::kFile;
using rules::kMissing;
using rules::kPath;
using rules::Rows;

using List = std::list<BlackWhite>;

const std::string kHead = "FromOrTo: default no\n";
const std::string kNotLoaded = "spam.cpp: load spam config fail";
const std::string kNotInserted = "spam.cpp: fail to insert info into blackwhite table";
const std::string kNotDeleted = "spam.cpp: fail to delete info into blackwhite table";
const std::string kNotImported = "spam.cpp: import list fail";
const std::string kRulesFolder = rules::kFolder + "/rules";

const BlackWhiteFilter kAll = {0, 100, -1, -1, "*", ""};

// What is stored, in the order in which it was: "name_type|name|type|blackwhite".
Rows entryRows() {
  return rowsOf(kPath, "select * from blackwhite_table order by rowid;");
}

// Entries as entryRows() shows them.
Rows shown(const List &list) {
  Rows rows;
  for (const BlackWhite &entry : list)
    rows.push_back(std::to_string(entry.nameType) + "|" + entry.name + "|" +
                   std::to_string(entry.type) + "|" + std::to_string(entry.blackWhite));
  return rows;
}

BlackWhite domain(const std::string &name, BlackWhiteType list = TYPE_BLACK,
                  Type type = TYPE_SENDER) {
  return {name, list, type, NAME_DOMAIN};
}

// ---- the instance; once made it stays, so what keeps it from being made comes first

class SpamInstanceTest : public LibraryTest {
 protected:
  SpamInstanceTest() { writeDefaults(); }
};

TEST_F(SpamInstanceTest, TwoProcessesAtOnceLoseNoEntry) {
  const auto writer = [](const std::string &prefix) {
    return rules::startProcess([prefix] {
      Spam *spam = nullptr;
      while (spam == nullptr) spam = Spam::getInstance();
      for (int i = 0; i < 100; i++)
        while (spam->addBlackWhite(domain(prefix + std::to_string(i))) != 0) {
        }
      return true;
    });
  };
  const pid_t one = writer("one"), other = writer("other");
  EXPECT_TRUE(rules::succeeded(one));
  EXPECT_TRUE(rules::succeeded(other));
  EXPECT_EQ(rowsOf(kPath, "select count(*) from blackwhite_table;"), Rows{"200"});
  log.take();  // who had to wait for whom
}

TEST_F(SpamInstanceTest, WithoutMemoryForTheSettingsThereIsNone) {
  platform::failCall("KLIBCSzHashAlloc");
  EXPECT_EQ(Spam::getInstance(), nullptr);
  expectLog({"spam.cpp: Out of memort", kNotLoaded});
}

TEST_F(SpamInstanceTest, WithoutSettingsThereIsNoneAndTheFileIsNotMade) {
  unlink(PackageTree::kSettings);
  EXPECT_EQ(Spam::getInstance(), nullptr);
  expectLog({"spam.cpp: get config fail", kNotLoaded});
  EXPECT_FALSE(fileExists(kPath));
  // the folder comes first, without the right to search it
  struct stat folder;
  ASSERT_EQ(stat(kRulesFolder.c_str(), &folder), 0);
  EXPECT_EQ(folder.st_mode & 07777, 0644u);
}

TEST_F(SpamInstanceTest, WithoutTheFileOfTheListsThereIsNoneUntilThereIsOne) {
  ASSERT_EQ(mkdir(kPath.c_str(), 0755), 0);
  const int left = connections::left();
  EXPECT_EQ(Spam::getInstance(), nullptr);
  expectLog({"DBHandler.cpp: Open database fail. dbpath = [" + kPath + "], err=[14]",
             "spam.cpp: db connect fail", kNotLoaded});
  EXPECT_EQ(connections::left(), left);
  ASSERT_EQ(rmdir(kPath.c_str()), 0);
  writeFile(PackageTree::kSettings,
            "spam_enable=\"yes\"\nspam_required_score=\"4.25\"\n"
            "spam_enable_rewrite=\"yes\"\nspam_rewrite_subject=\"[spam] #1\"\n"
            "spam_report_machanism=\"2\"\nspam_auto_learn=\"yes\"\n"
            "spam_learn_threshold_spam=\"9.50\"\n"
            "spam_learn_threshold_non_spam=\"-1.50\"\nspam_auto_whitelist=\"yes\"\n");
  Spam *const spam = Spam::getInstance();
  ASSERT_NE(spam, nullptr);
  EXPECT_EQ(Spam::getInstance(), spam);
  EXPECT_TRUE(spam->isEnableSpamassassin());
  EXPECT_EQ(spam->getRequiredScore(), 4.25f);
  EXPECT_TRUE(spam->isEnableRewrite());
  EXPECT_EQ(spam->getRewriteSubject(), "[spam] #1");
  EXPECT_EQ(spam->getReportMachanism(), 2);
  EXPECT_TRUE(spam->isUseAutoLearn());
  EXPECT_EQ(spam->getSpamLearnThreshold(), 9.5f);
  EXPECT_EQ(spam->getNonSpamLearnThreshold(), -1.5f);
  EXPECT_TRUE(spam->isUseAutoWhiteList());
  expectLog({kMissing});
}

// ---- everything else

class SpamTest : public LibraryTest {
 protected:
  SpamTest() : spam(*Spam::getInstance()) {
    writeDefaults();
    EXPECT_EQ(spam.countQueryData(kAll), 0);  // follows into the new folder
    expectLog({kMissing});
    sql::takeStatements();
  }

  void add(const BlackWhite &entry) { ASSERT_EQ(spam.addBlackWhite(entry), 0); }

  Rows find(const BlackWhiteFilter &filter) {
    return shown(spam.getBlackWhiteList(filter));
  }

  Spam &spam;
};

TEST_F(SpamTest, TheListsReachTheFilterOnlyWhenAsked) {
  add(domain("a.example"));
  ASSERT_EQ(spam.deleteBlackWhite(domain("a.example")), 0);
  EXPECT_EQ(tree.takeCalls(), Rows());
  EXPECT_EQ(Spam::GenerateBlackWhite(), 0);
  EXPECT_EQ(tree.takeCalls(), Rows{"kest_spam_blackwhite"});
  tree.failScript("kest_spam_blackwhite");
  EXPECT_LT(Spam::GenerateBlackWhite(), 0);
  platform::answerCall("KLIBCExec", 7);
  EXPECT_EQ(Spam::GenerateBlackWhite(), 7);
}

// ---- changes

TEST_F(SpamTest, AnEntryOfTheSameNameKindAndSideIsReplacedAlsoFromTheOtherList) {
  add({"a@b.example", TYPE_BLACK, TYPE_SENDER, NAME_ADDRESS});
  add({"a@b.example", TYPE_WHITE, TYPE_SENDER, NAME_ADDRESS});
  add({"a@b.example", TYPE_BLACK, TYPE_RECIPIENT, NAME_ADDRESS});
  add({"a@b.example", TYPE_KNOWN, TYPE_SENDER, NAME_DOMAIN});
  add({"A@b.example", TYPE_BLACK, TYPE_SENDER, NAME_ADDRESS});
  EXPECT_EQ(entryRows(), Rows({"1|a@b.example|0|2", "1|a@b.example|1|1",
                               "2|a@b.example|0|-1", "1|A@b.example|0|1"}));
}

TEST_F(SpamTest, DeletingIgnoresTheListAndWhatIsNotThere) {
  add(domain("a.example", TYPE_BLACK));
  add(domain("a.example", TYPE_BLACK, TYPE_RECIPIENT));
  EXPECT_EQ(
      spam.deleteBlackWhiteList({domain("a.example", TYPE_WHITE), domain("b.example")}),
      0);
  EXPECT_EQ(entryRows(), Rows{"2|a.example|1|1"});
}

TEST_F(SpamTest, StatementsAreTheseToTheLetter) {
  const BlackWhite entry = {"o'h@b.example", TYPE_WHITE, TYPE_RECIPIENT, NAME_ADDRESS};
  EXPECT_EQ(spam.addBlackWhiteList({entry, entry}), 0);
  EXPECT_EQ(spam.deleteBlackWhiteList({entry}), 0);
  EXPECT_EQ(spam.addBlackWhite(entry), 0);
  EXPECT_EQ(spam.deleteBlackWhite(entry), 0);
  spam.getBlackWhiteList({0, 50, -1, -1, "*", ""});
  spam.getBlackWhiteList({3, 9, 0, -1, "*", ""});
  spam.getBlackWhiteList({3, 9, -1, 2, "*", ""});
  spam.getBlackWhiteList({3, 9, -1, -1, "*", "a%b"});
  spam.getBlackWhiteList({3, 9, 1, 1, "name", "o''h"});
  spam.getBlackWhiteList({3, 9, 1, 1, "count(*)", ""});
  spam.countQueryData({3, 9, 1, 1, "*", "x"});
  const std::string insert =
      "insert or replace into blackwhite_table (name_type, name, type, blackwhite) "
      "values ('1', 'o''h@b.example', '1', '2');";
  const std::string remove =
      "delete from blackwhite_table where name_type='1' AND name='o''h@b.example' AND "
      "type='1';";
  const std::string begin = "BEGIN TRANSACTION;", commit = "COMMIT TRANSACTION;";
  const std::string all = "select * from blackwhite_table ";
  EXPECT_EQ(sql::takeStatements(),
            (Rows{begin,
                  insert,
                  insert,
                  commit,
                  begin,
                  remove,
                  commit,
                  begin,
                  insert,
                  commit,
                  begin,
                  remove,
                  commit,
                  all + " limit 50 offset 0;",
                  all + "where type=0 limit 9 offset 3;",
                  all + "where blackwhite=2 limit 9 offset 3;",
                  all + "where name='a%b' limit 9 offset 3;",
                  "select name from blackwhite_table where type=1 and blackwhite=1 and "
                  "name='o''h' limit 9 offset 3;",
                  "select count(*) from blackwhite_table where type=1 and blackwhite=1;",
                  "select count(*) from blackwhite_table where type=1 and blackwhite=1 "
                  "and name='x';"}));
}

TEST_F(SpamTest, AnEmptyListRunsAnEmptyTransaction) {
  EXPECT_EQ(spam.addBlackWhiteList({}), 0);
  EXPECT_EQ(spam.deleteBlackWhiteList({}), 0);
  EXPECT_EQ(sql::takeStatements(), (Rows{"BEGIN TRANSACTION;", "COMMIT TRANSACTION;",
                                         "BEGIN TRANSACTION;", "COMMIT TRANSACTION;"}));
}

TEST_F(SpamTest, NamesMayHoldAnything) {
  for (const std::string name :
       {"o'hara", "''", "100%", "%q%s%n", "a;drop table blackwhite_table;", "two words",
        " ", "", "J\xc3\xb6rg", "\xff", "a\"b", "a\\b", "-- x", "a\nb"}) {
    add(domain(name));
    EXPECT_EQ(entryRows(), Rows{"2|" + name + "|0|1"});
    EXPECT_EQ(find(kAll), entryRows());
    EXPECT_EQ(spam.deleteBlackWhite(domain(name)), 0);
    EXPECT_EQ(entryRows(), Rows());
  }
}

// ---- a failed write stores nothing of it and never disables the next

TEST_F(SpamTest, AStatementHas1023BytesAndMayLoseItsSemicolon) {
  const size_t others = std::string(
                            "insert or replace into blackwhite_table (name_type, name, "
                            "type, blackwhite) values ('2', '', '0', '1');")
                            .size();
  add(domain(std::string(1023 - others, 'n')));
  add(domain(std::string(1024 - others, 'n')));
  EXPECT_EQ(spam.addBlackWhite(domain(std::string(1025 - others, 'n'))), -1);
  expectLog({rules::kTooLong, kNotInserted});
  EXPECT_EQ(entryRows(), Rows({"2|" + std::string(1023 - others, 'n') + "|0|1",
                               "2|" + std::string(1024 - others, 'n') + "|0|1"}));
}

TEST_F(SpamTest, AListWithANameThatDoesNotFitIsStoredOrRemovedNotAtAll) {
  const List given = {domain("before"), domain(std::string(1000, 'n')), domain("after")};
  EXPECT_EQ(spam.addBlackWhiteList(given), -1);
  EXPECT_EQ(entryRows(), Rows());
  EXPECT_TRUE(rules::anotherProcessWrites());
  expectLog({rules::kTooLong, kNotInserted});
  add(domain("before"));
  EXPECT_EQ(spam.deleteBlackWhiteList(given), -1);
  EXPECT_EQ(entryRows(), Rows{"2|before|0|1"});
  EXPECT_TRUE(rules::anotherProcessWrites());
  expectLog({rules::kTooLong, kNotDeleted});
  add(domain("next"));
  EXPECT_EQ(entryRows(), Rows({"2|before|0|1", "2|next|0|1"}));
}

// Cut behind a name the statement would be valid and delete the entries of all sides.
TEST_F(SpamTest, ADeletionThatDoesNotFitDeletesNothing) {
  for (size_t length = 930; length <= 1024; length++) {
    const std::string name(length, 'n');
    ASSERT_EQ(database::Connection(kPath).run("insert into blackwhite_table values(2, '" +
                                              name + "', 1, 2);"),
              0);
    spam.deleteBlackWhite(domain(name));
  }
  EXPECT_EQ(entryRows().size(), 95u);
  EXPECT_GT(log.take().size(), 60u);
}

TEST_F(SpamTest, ALockedFileFailsTheWriteAndTheNextSucceeds) {
  add(domain("old"));
  database::Connection holder(kPath);
  ASSERT_EQ(holder.run("BEGIN IMMEDIATE;"), 0);
  EXPECT_EQ(spam.addBlackWhite(domain("new")), -1);
  EXPECT_EQ(spam.deleteBlackWhite(domain("old")), -1);
  EXPECT_EQ(find(kAll), Rows{"2|old|0|1"});
  ASSERT_EQ(holder.run("ROLLBACK;"), 0);
  expectLog({rules::kLocked, kNotInserted, rules::kLocked, kNotDeleted});
  EXPECT_TRUE(rules::anotherProcessWrites());
  EXPECT_EQ(spam.addBlackWhite(domain("new")), 0);
  EXPECT_EQ(entryRows(), Rows({"2|old|0|1", "2|new|0|1"}));
}

TEST_F(SpamTest, AReaderFailsTheCommitAndTheNextWriteSucceeds) {
  database::Connection reader(kPath);
  ASSERT_EQ(reader.run("BEGIN; SELECT count(*) FROM blackwhite_table;"), 0);
  EXPECT_EQ(spam.addBlackWhiteList({domain("one"), domain("two")}), -1);
  expectLog({"DBHandler.cpp: commitTransaction fail, err=[5], database is locked",
             kNotInserted});
  ASSERT_EQ(reader.run("ROLLBACK;"), 0);
  EXPECT_EQ(entryRows(), Rows());
  EXPECT_TRUE(rules::anotherProcessWrites());
  add(domain("next"));
  EXPECT_EQ(entryRows(), Rows{"2|next|0|1"});
}

TEST_F(SpamTest, AFileThatCannotBeOpenedAgainIsTriedAtTheNextOperation) {
  ASSERT_EQ(unlink(kPath.c_str()), 0);
  ASSERT_EQ(mkdir(kPath.c_str(), 0755), 0);
  const std::string failed =
      "DBHandler.cpp: Open database fail. dbpath = [" + kPath + "], err=[14]";
  EXPECT_EQ(spam.addBlackWhite(domain("a")), -1);
  EXPECT_EQ(find(kAll), Rows());
  EXPECT_EQ(spam.countQueryData(kAll), -1);
  expectLog({failed, kNotInserted, failed, failed});
  ASSERT_EQ(rmdir(kPath.c_str()), 0);
  add(domain("a"));
  EXPECT_EQ(entryRows(), Rows{"2|a|0|1"});
  expectLog({kMissing});
}

// ---- lists and counts

TEST_F(SpamTest, EachConditionOfAFilterNarrowsTheListAndItsCount) {
  add(domain("a", TYPE_BLACK, TYPE_SENDER));
  add(domain("a", TYPE_WHITE, TYPE_RECIPIENT));
  add(domain("b", TYPE_WHITE, TYPE_SENDER));
  add({"a", TYPE_BLACK, TYPE_SENDER, NAME_ACCOUNT});
  const std::vector<std::pair<BlackWhiteFilter, Rows>> cases = {
      {kAll, entryRows()},
      {{0, 9, TYPE_SENDER, -1, "*", ""}, {"2|a|0|1", "2|b|0|2", "0|a|0|1"}},
      {{0, 9, -1, TYPE_WHITE, "*", ""}, {"2|a|1|2", "2|b|0|2"}},
      {{0, 9, -1, -1, "*", "a"}, {"2|a|0|1", "2|a|1|2", "0|a|0|1"}},
      {{0, 9, TYPE_SENDER, TYPE_WHITE, "*", "b"}, {"2|b|0|2"}},
      {{0, 9, TYPE_CLIENT, -1, "*", ""}, {}},
      {{0, 9, -1, 0, "*", ""}, {}}};
  for (const auto &[filter, rows] : cases) {
    Rows found = find(filter), expected = rows;
    std::sort(found.begin(), found.end());
    std::sort(expected.begin(), expected.end());
    EXPECT_EQ(found, expected);
    EXPECT_EQ(spam.countQueryData(filter), static_cast<int>(rows.size()));
  }
}

TEST_F(SpamTest, ASearchKeyIsAWholeNameAndNoPattern) {
  for (const char *name : {"a%b", "axb", "A%B"}) add(domain(name));
  EXPECT_EQ(find({0, 9, -1, -1, "*", "a%b"}), Rows{"2|a%b|0|1"});
  EXPECT_EQ(find({0, 9, -1, -1, "*", "a"}), Rows());
  EXPECT_EQ(spam.countQueryData({0, 9, -1, -1, "*", "a%b"}), 1);
}

TEST_F(SpamTest, ASearchKeyWithAQuoteBreaksTheQueryInSilence) {
  add(domain("o'hara"));
  add(domain("b"));
  EXPECT_EQ(find({0, 9, -1, -1, "*", "o'hara"}), Rows());
  EXPECT_EQ(spam.countQueryData({0, 9, -1, -1, "*", "o'hara"}), -1);
  EXPECT_EQ(find({0, 9, -1, -1, "*", "o''hara"}), Rows{"2|o'hara|0|1"});
  EXPECT_EQ(find({0, 9, -1, -1, "*", "x' or '1'='1"}), entryRows());  // not escaped
}

TEST_F(SpamTest, ASearchKeyThatDoesNotFitFindsNothing) {
  add(domain("a"));
  EXPECT_EQ(find({0, 9, -1, -1, "*", std::string(1016, 'n')}), Rows());
  EXPECT_EQ(spam.countQueryData({0, 9, -1, -1, "*", std::string(1016, 'n')}), 0);
  // one byte more than the condition may have
  EXPECT_EQ(find({0, 9, -1, -1, "*", std::string(1017, 'n')}), Rows());
  EXPECT_EQ(spam.countQueryData({0, 9, -1, -1, "*", std::string(1017, 'n')}), -1);
}

TEST_F(SpamTest, PagesAreInTheOrderOfTheTableAndACountHasNone) {
  for (const char *name : {"b", "a", "c"}) add(domain(name));
  EXPECT_EQ(find({1, 1, -1, -1, "*", ""}), Rows{"2|a|0|1"});
  EXPECT_EQ(find({3, 5, -1, -1, "*", ""}), Rows());
  EXPECT_EQ(find({0, 0, -1, -1, "*", ""}), Rows());
  EXPECT_EQ(find({0, -1, -1, -1, "*", ""}), entryRows());  // no limit to SQLite
  EXPECT_EQ(spam.countQueryData({2, 1, -1, -1, "*", ""}), 3);
}

TEST_F(SpamTest, AReadThatFailsOnItsWayGivesTheRowsBefore) {
  add(domain("a"));
  EXPECT_EQ(find({0, 9, -1, -1,
                  "1, name, 0, 1 from blackwhite_table union all select 1, "
                  "abs(-9223372036854775808), 1, 1",
                  ""}),
            Rows{"1|a|0|1"});
  expectLog({"spam.cpp: sqlite3_step: [1] integer overflow\n"});
  EXPECT_EQ(find({0, 9, -1, -1, "nonsense", ""}), Rows());
  expectLog({});
}

TEST_F(SpamTest, NullValuesReadAsNothing) {
  ASSERT_EQ(database::Connection(kPath).run(
                "insert into blackwhite_table values(NULL, NULL, NULL, NULL);"),
            0);
  EXPECT_EQ(find(kAll), Rows{"0||0|0"});
}

// ---- missing and damaged files

TEST_F(SpamTest, ADeletedFileIsMadeAnewWithAllThreeTablesByAnyOperation) {
  const std::vector<std::function<void()>> operations = {
      [this] { EXPECT_EQ(spam.addBlackWhiteList({}), 0); },
      [this] { EXPECT_EQ(spam.deleteBlackWhiteList({}), 0); },
      [this] { EXPECT_EQ(find(kAll), Rows()); },
      [this] { EXPECT_EQ(spam.countQueryData(kAll), 0); }};
  for (const auto &operation : operations) {
    add(domain("a"));
    ASSERT_EQ(unlink(kPath.c_str()), 0);
    operation();
    EXPECT_EQ(rules::tablesOf(), rules::kTables);
    expectLog({kMissing});
  }
}

TEST_F(SpamTest, ADamagedFileIsLeftAsItIs) {
  add(domain("a"));
  rules::damage();
  const std::string damaged = readFile(kPath);
  EXPECT_EQ(find(kAll), Rows());
  EXPECT_EQ(spam.countQueryData(kAll), -1);
  expectLog({});
  EXPECT_EQ(spam.addBlackWhite(domain("b")), -1);
  const std::vector<LogLine> lines = log.take();
  ASSERT_GE(lines.size(), 2u);
  EXPECT_NE(lines.back().text.find("fail to insert info into blackwhite table"),
            std::string::npos);
  EXPECT_EQ(readFile(kPath), damaged);
}

TEST_F(SpamTest, AFileThatIsNoDatabaseIsLeftAsItIs) {
  add(domain("a"));
  rules::replaceByText();
  EXPECT_EQ(find(kAll), Rows());
  EXPECT_EQ(spam.countQueryData(kAll), -1);
  expectLog({});
  EXPECT_EQ(spam.addBlackWhite(domain("b")), -1);
  expectLog({rules::kNoDatabase, kNotInserted});
  EXPECT_EQ(readFile(kPath), rules::kText);
}

TEST_F(SpamTest, AFileThatIsHeldAloneListsNothingAndIsExportedEmpty) {
  add(domain("a"));
  database::Connection holder(kPath);
  ASSERT_EQ(holder.run("BEGIN EXCLUSIVE;"), 0);
  EXPECT_EQ(find(kAll), Rows());
  EXPECT_EQ(spam.countQueryData(kAll), -1);
  EXPECT_EQ(spam.exportBlackWhite(TYPE_BLACK, kFile), 0);  // a page that fails is empty
  EXPECT_EQ(readFile(kFile), kHead);
  const std::string step = "spam.cpp: sqlite3_step: [5] database is locked\n";
  expectLog({step, step, step});
  ASSERT_EQ(holder.run("ROLLBACK;"), 0);
  EXPECT_EQ(find(kAll), entryRows());
}

TEST_F(SpamTest, DamageThatShowsWhileReadingOrWritingIsOnlyReported) {
  add(domain("a"));
  database::spoilTables(kPath);
  const std::string step =
      "spam.cpp: sqlite3_step: [11] database disk image is malformed\n";
  EXPECT_EQ(find(kAll), Rows());
  EXPECT_EQ(spam.countQueryData(kAll), -1);
  expectLog({step, step});
  EXPECT_EQ(spam.addBlackWhite(domain("b")), -1);
  EXPECT_FALSE(log.take().empty());
  EXPECT_EQ(readFile(kPath).substr(4096, 4), "\xff\xff\xff\xff");  // not made anew
}

// ---- export

TEST_F(SpamTest, AnExportOfAnEmptyListHoldsItsHeadAlone) {
  add(domain("white.example", TYPE_WHITE));
  EXPECT_EQ(spam.exportBlackWhite(TYPE_BLACK, kFile), 0);
  EXPECT_EQ(readFile(kFile), kHead);
}

TEST_F(SpamTest, ExportWritesOneListWithBothSidesAndAccountsAsAddresses) {
  writeFile(PackageTree::kSettings, "smtp_hostname=\"mail.example\"\n");
  add({"amy", TYPE_BLACK, TYPE_SENDER, NAME_ACCOUNT});
  add({"bob@b.example", TYPE_BLACK, TYPE_RECIPIENT, NAME_ADDRESS});
  add(domain("c.example"));
  add({"odd", TYPE_BLACK, TYPE_CLIENT, NAME_ACCOUNT});
  add(domain("white.example", TYPE_WHITE));
  writeFile(kFile, std::string(4000, 'x'));
  EXPECT_EQ(spam.exportBlackWhite(TYPE_BLACK, kFile), 0);
  EXPECT_EQ(readFile(kFile), kHead +
                                 "From: amy@mail.example yes\nTo: bob@b.example yes\n"
                                 "From: c.example yes\nTo: odd@mail.example yes\n");
}

TEST_F(SpamTest, ExportIntoAFileThatCannotBeOpened) {
  EXPECT_EQ(spam.exportBlackWhite(TYPE_BLACK, "/no/such/file"), -1);
  expectLog({"spam.cpp: open file /no/such/file fail"});
}

TEST_F(SpamTest, ExportWithoutSettingsLeavesTheEmptiedFile) {
  writeFile(kFile, "old\n");
  unlink(PackageTree::kSettings);
  EXPECT_EQ(spam.exportBlackWhite(TYPE_BLACK, kFile), -1);
  expectLog({"smtp.cpp: KLIBCFileGetPair fail", "spam.cpp: get domain name fail"});
  EXPECT_EQ(readFile(kFile), "");
}

TEST_F(SpamTest, ExportOntoAFullDiskIsAFailure) {
  EXPECT_EQ(spam.exportBlackWhite(TYPE_BLACK, "/dev/full"), -1);
  expectLog({"spam.cpp: write file /dev/full fail"});
}

// `count` lines of an export, in the order in which they were stored.
std::string exportOf(int count) {
  std::string text = kHead;
  for (int i = 0; i < count; i++)
    text += "From: host" + std::to_string(100000 + i) + ".example yes\n";
  return text;
}

TEST_F(SpamTest, ExportReadsPagesUntilOneIsEmpty) {
  for (const int rows : {0, 1, 511, 512, 513, 1024}) {
    writeFile(kFile, exportOf(rows));
    ASSERT_EQ(spam.importBlackWhite(TYPE_WHITE, kFile), 0);
    log.take();
    sql::takeStatements();
    ASSERT_EQ(spam.exportBlackWhite(TYPE_WHITE, kFile), 0);
    const Rows statements = sql::takeStatements();
    const int pages = (rows + 511) / 512;
    EXPECT_EQ(statements.size(), static_cast<size_t>(pages + 1)) << rows;
    EXPECT_EQ(statements.back(),
              "select * from blackwhite_table where blackwhite=2 limit 512 offset " +
                  std::to_string(pages * 512) + ";");
    EXPECT_EQ(readFile(kFile), exportOf(rows)) << rows;
  }
}

TEST_F(SpamTest, TenThousandEntriesComeBackFromAnExport) {
  writeFile(kFile, exportOf(10000));
  ASSERT_EQ(spam.importBlackWhite(TYPE_BLACK, kFile), 0);
  ASSERT_EQ(spam.exportBlackWhite(TYPE_BLACK, kFile), 0);
  EXPECT_EQ(readFile(kFile), exportOf(10000));
  const Rows before = entryRows();
  EXPECT_EQ(before.size(), 10000u);
  ASSERT_EQ(spam.importBlackWhite(TYPE_BLACK, kFile), 0);
  EXPECT_EQ(entryRows(), before);
  log.take();  // of the head
}

// ---- import

class SpamImportTest : public SpamTest {
 protected:
  // What an import of the text stores.
  Rows imported(const std::string &text, BlackWhiteType list = TYPE_BLACK) {
    EXPECT_EQ(database::Connection(kPath).run("delete from blackwhite_table;"), 0);
    writeFile(kFile, text);
    EXPECT_EQ(spam.importBlackWhite(list, kFile), 0);
    return entryRows();
  }
};

TEST_F(SpamImportTest, AddressesHaveAnAtAndAllElseAreDomains) {
  EXPECT_EQ(
      imported("From: a@b.example yes\nTo: c.example yes\nTo: amy yes\n", TYPE_WHITE),
      Rows({"1|a@b.example|0|2", "2|c.example|1|2", "2|amy|1|2"}));
}

TEST_F(SpamImportTest, WhatWasExportedComesBackWithAccountsAsAddresses) {
  writeFile(PackageTree::kSettings, "smtp_hostname=\"mail.example\"\n");
  add({"amy", TYPE_BLACK, TYPE_SENDER, NAME_ACCOUNT});
  add({"bob@b.example", TYPE_BLACK, TYPE_RECIPIENT, NAME_ADDRESS});
  add(domain("d.example"));
  ASSERT_EQ(spam.exportBlackWhite(TYPE_BLACK, kFile), 0);
  EXPECT_EQ(imported(readFile(kFile)),
            Rows({"1|amy@mail.example|0|1", "1|bob@b.example|1|1", "2|d.example|0|1"}));
  expectLog({"spam.cpp: skip: FromOrTo:"});
}

TEST_F(SpamImportTest, AnImportAddsAndMovesAndRemovesNothing) {
  add(domain("kept.example"));
  add(domain("moved.example"));
  writeFile(kFile, "From: moved.example yes\n");
  EXPECT_EQ(spam.importBlackWhite(TYPE_WHITE, kFile), 0);
  EXPECT_EQ(entryRows(), Rows({"2|kept.example|0|1", "2|moved.example|0|2"}));
}

TEST_F(SpamImportTest, FieldAndFlagAreReadInAnyLetters) {
  EXPECT_EQ(imported("FROM: a YES\nto: b Yes\n"), Rows({"2|a|0|1", "2|b|1|1"}));
}

TEST_F(SpamImportTest, TwoBlanksBeforeTheFlagSkipTheLineAndBeforeTheNameDoNot) {
  EXPECT_EQ(imported("From: a  yes\nFrom:    b yes\n  To: c yes  \n"),
            Rows({"2|b|0|1", "2|c|1|1"}));
  expectLog({});
}

TEST_F(SpamImportTest, OtherFieldsAreSkippedAndLogged) {
  EXPECT_EQ(imported("From a yes\nCc: b yes\nTo: c yes\nX: d no\n# From: e yes\n"),
            Rows{"2|c|1|1"});
  expectLog({"spam.cpp: skip: From",
             "spam.cpp: skip: Cc:", "spam.cpp: skip: X:", "spam.cpp: skip: #"});
}

TEST_F(SpamImportTest, OtherFlagsAndLinesWithoutANameAreSkippedSilently) {
  EXPECT_EQ(imported("From: a no\nFrom: b\nFrom:\nword\nFrom: c yes please\nTo: d yes\n"),
            Rows{"2|d|1|1"});
  expectLog({});
}

TEST_F(SpamImportTest, ALineOfWhiteSpaceIsSkippedWithANote) {
  EXPECT_EQ(imported("\n  \t \r\nFrom: a yes\n"), Rows{"2|a|0|1"});
  const std::string note = "priority 6 spam.cpp: parse fail, skip ";
  expectLog({note, note});
}

TEST_F(SpamImportTest, ATabPartsNoWords) {
  EXPECT_EQ(imported("From:\ta yes\nFrom: a\tyes\nFrom: b\tc yes\n\tFrom: d yes\t\n"),
            Rows({"2|b\tc|0|1", "2|d|0|1"}));
  expectLog({"spam.cpp: skip: From:\ta"});
}

TEST_F(SpamImportTest, ALineThatCannotBeTrimmedIsSkippedAndLogged) {
  platform::answerCall("KLIBCStrTrimSpace", -1);
  EXPECT_EQ(imported("From: a yes\nFrom: b yes\n"), Rows{"2|b|0|1"});
  expectLog({"spam.cpp: trim From: a yes\n fail"});
}

TEST_F(SpamImportTest, LineEndsOfAnotherSystemAndAMissingLastOne) {
  EXPECT_EQ(imported("From: a yes\r\nTo: b yes\r\nTo: c yes"),
            Rows({"2|a|0|1", "2|b|1|1", "2|c|1|1"}));
}

TEST_F(SpamImportTest, ANulEndsItsLine) {
  const std::string nul(1, '\0');
  EXPECT_EQ(imported("From: a yes" + nul + "rest\nFrom: b" + nul + " yes\nTo: c yes\n"),
            Rows({"2|a|0|1", "2|c|1|1"}));
}

TEST_F(SpamImportTest, ALineOf100KBFailsTheImportWhole) {
  writeFile(kFile, "To: a yes\nTo: " + std::string(100'000, 'x') + " yes\nTo: b yes\n");
  EXPECT_EQ(spam.importBlackWhite(TYPE_BLACK, kFile), -1);
  expectLog({rules::kFarTooLong, kNotInserted, kNotImported});
  EXPECT_EQ(entryRows(), Rows());
  EXPECT_TRUE(rules::anotherProcessWrites());
  EXPECT_EQ(imported("From:" + std::string(100'000, ' ') + "c yes\n"), Rows{"2|c|0|1"});
}

TEST_F(SpamImportTest, AnEmptyFileStoresNothing) {
  add(domain("kept"));
  writeFile(kFile, "");
  EXPECT_EQ(spam.importBlackWhite(TYPE_BLACK, kFile), 0);
  EXPECT_EQ(entryRows(), Rows{"2|kept|0|1"});
}

TEST_F(SpamImportTest, AFileThatCannotBeReadStoresNothing) {
  add(domain("kept"));
  EXPECT_EQ(spam.importBlackWhite(TYPE_BLACK, rules::kFolder), 0);  // opened, not read
  EXPECT_EQ(entryRows(), Rows{"2|kept|0|1"});
}

TEST_F(SpamImportTest, AFileThatCannotBeOpened) {
  EXPECT_EQ(spam.importBlackWhite(TYPE_BLACK, "/no/such/file"), -1);
  expectLog({"spam.cpp: open file error, No such file or directory"});
}

TEST_F(SpamImportTest, AnImportIntoALockedFileStoresNothing) {
  database::Connection holder(kPath);
  ASSERT_EQ(holder.run("BEGIN IMMEDIATE;"), 0);
  writeFile(kFile, "From: a yes\n");
  EXPECT_EQ(spam.importBlackWhite(TYPE_BLACK, kFile), -1);
  ASSERT_EQ(holder.run("ROLLBACK;"), 0);
  expectLog({rules::kLocked, kNotInserted, kNotImported});
  EXPECT_EQ(imported("From: a yes\n"), Rows{"2|a|0|1"});
}

}  // namespace
