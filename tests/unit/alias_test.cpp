#include "alias.h"

#include <sys/stat.h>
#include <unistd.h>

#include <array>
#include <functional>

#include "support/connections.h"
#include "support/database.h"
#include "support/files.h"
#include "support/library_test.h"
#include "support/sql_recorder.h"

namespace {

using Rows = std::vector<std::string>;
using Names = std::list<std::string>;
using Members = std::list<MemberInfo>;
using database::rowsOf;

const std::string kFolder = "/var/packages/Postwell/etc";
const std::string kPath = kFolder + "/alias.db";
const std::string kMissing = "DBHandler.cpp: " + kPath + " isn't exist, create DB";
const std::string kStillInTransaction =
    "debug DBHandler.cpp: Still in transaction, try to commit";
const std::string kCorrupt = "alias.cpp: alias db corrupt, need regen";
const std::string kRegen = "debug DBHandler.cpp: regen db : " + kPath;

MemberInfo member(const std::string &name, MemberType type) {
  MemberInfo info;
  info.strName = name;
  info.type = type;
  return info;
}

class AliasTest : public LibraryTest {
 protected:
  AliasTest() { writeDefaults(); }

  // The file with "root" and these rows, "alias|member|type".
  void store(const std::vector<std::array<std::string, 3>> &rows) {
    Alias aliases;
    ASSERT_EQ(aliases.load(), 0);
    for (const auto &[alias, name, type] : rows)
      ASSERT_EQ(aliases.addMember(
                    alias, {member(name, static_cast<MemberType>(std::stoi(type)))}),
                0);
    log.take();
  }
};

// What is stored, in the order in which it was.
Rows aliasRows() {
  return rowsOf(kPath, "select * from alias_info_table order by rowid;");
}

// ---- MemberInfo

TEST_F(AliasTest, MembersCompareByNameAndType) {
  const MemberInfo fresh;
  EXPECT_EQ(fresh.strName, "");
  EXPECT_EQ(fresh.type, USER);
  const MemberInfo anna = member("anna", GROUP);
  const MemberInfo copy(anna);
  EXPECT_TRUE(copy == anna);
  EXPECT_FALSE(anna == member("anna", USER));
  EXPECT_FALSE(anna == member("Anna", GROUP));
}

// ---- construction

TEST_F(AliasTest, ConstructingTouchesNoFile) {
  const Alias aliases;
  EXPECT_EQ(aliases.getError(), 0);
  EXPECT_EQ(aliases.getAliasNameList(), Names());
  EXPECT_FALSE(fileExists(kPath));
}

TEST_F(AliasTest, WithoutSettingsTheObjectIsUnusable) {
  unlink(PackageTree::kSettings);
  const Alias aliases;
  EXPECT_EQ(aliases.getError(), -1);
  EXPECT_EQ(aliases.getAliasNameList(), Names());
  expectLog({"smtp.cpp: KLIBCFileGetPair fail", "alias.cpp: smtp setting load fail"});
}

TEST_F(AliasTest, ARelayPasswordThatIsLostMakesTheObjectUnusable) {
  platform::failCall("KLIBCryptSzDecrypt");
  EXPECT_EQ(Alias().getError(), -1);
  expectLog({"smtp.cpp: KLIBCryptSzDecrypt fail", "alias.cpp: smtp setting load fail"});
}

TEST_F(AliasTest, AnUnknownAccountTypeHasNoAliases) {
  for (const std::string type : {"Local", "nis", "win "}) {
    writeFile(PackageTree::kSettings, "account_type=\"" + type + "\"\n");
    EXPECT_EQ(Alias().getError(), -1);
    expectLog({"alias.cpp: get " + type + " db schema fail"});
  }
  EXPECT_FALSE(fileExists(kPath));
}

// ---- the schema by account type

// What a fresh file holds with these settings.
Rows freshRows(const std::string &settings) {
  writeFile(PackageTree::kSettings, settings);
  unlink(kPath.c_str());
  Alias aliases;
  EXPECT_EQ(aliases.getError(), 0);
  EXPECT_EQ(aliases.load(), 0);
  EXPECT_EQ(aliases.getAliasNameList(), Names{"root"});
  return aliasRows();
}

TEST_F(AliasTest, RootIsTheAdministratorOfTheAccountType) {
  EXPECT_EQ(freshRows("account_type=\"local\"\n"), Rows{"root|admin|0"});
  EXPECT_EQ(freshRows("account_type=\"\"\n"), Rows{"root|admin|0"});
  EXPECT_EQ(freshRows("other=\"\"\n"), Rows{"root|admin|0"});
  EXPECT_EQ(freshRows("account_type=\"ldap\"\nacc_domain_name=\"corp.example\"\n"),
            Rows{"root|admin@corp.example|0"});
  EXPECT_EQ(freshRows("account_type=\"ldap\"\n"), Rows{"root|admin@|0"});
  EXPECT_EQ(freshRows("account_type=\"win\"\nwin_domain_short_name=\"OFFICE\"\n"),
            Rows{"root|OFFICE\\Administrator|0"});
  EXPECT_EQ(freshRows("account_type=\"win\"\n"), Rows{"root|\\Administrator|0"});
  expectLog(Rows(7, kMissing));
}

TEST_F(AliasTest, QuotesInDomainNamesAreQuoted) {
  EXPECT_EQ(freshRows("account_type=\"ldap\"\nacc_domain_name=\"o'hara;%q\"\n"),
            Rows{"root|admin@o'hara;%q|0"});
  EXPECT_EQ(freshRows("account_type=\"win\"\nwin_domain_short_name=\"O'H\"\n"),
            Rows{"root|O'H\\Administrator|0"});
  const std::string quotes(255, '\'');  // twice as many in the schema
  EXPECT_EQ(freshRows("account_type=\"win\"\nwin_domain_short_name=\"" + quotes + "\"\n"),
            Rows{"root|" + quotes + "\\Administrator|0"});
  expectLog({kMissing, kMissing, kMissing});
}

TEST_F(AliasTest, LdapSettingsThatCannotBeReadAgainGiveNoSchema) {
  writeFile(PackageTree::kSettings, "account_type=\"ldap\"\n");
  platform::failCall("KLIBCFileGetPair", 3);  // SMTP and relay read it once each
  EXPECT_EQ(Alias().getError(), -1);
  expectLog({"smtp.cpp: KLIBCFileGetPair fail", "alias.cpp: get ldap db schema fail"});
}

TEST_F(AliasTest, AShortNameThatCannotBeReadGivesNoSchema) {
  writeFile(PackageTree::kSettings, "account_type=\"win\"\n");
  platform::failCall("KLIBCFileGetKeyValue");
  EXPECT_EQ(Alias().getError(), -1);
  EXPECT_EQ(callsOf({"KLIBCFileGetKeyValue"}),
            Rows{"KLIBCFileGetKeyValue /var/packages/Postwell/etc/postwell.conf "
                 "win_domain_short_name 256"});
  expectLog(
      {"alias.cpp: get win short domain name fail", "alias.cpp: get win db schema fail"});
  writeFile(PackageTree::kSettings, "account_type=\"win\"\nwin_domain_short_name=\"" +
                                        std::string(256, 'x') + "\"\n");
  EXPECT_EQ(Alias().getError(), -1);
  expectLog(
      {"alias.cpp: get win short domain name fail", "alias.cpp: get win db schema fail"});
}

TEST_F(AliasTest, ADomainNameTooLongForTheSchemaFailsTheLoad) {
  writeFile(PackageTree::kSettings, "account_type=\"ldap\"\nacc_domain_name=\"" +
                                        std::string(4000, 'x') + "\"\n");
  Alias aliases;
  EXPECT_EQ(aliases.getError(), 0);
  EXPECT_EQ(aliases.load(), -1);
  EXPECT_FALSE(fileExists(kPath));
  expectLog(
      {kMissing,
       "DBHandler.cpp: exec db schema fail, err=[1], near \"statement\": syntax error",
       "DBHandler.cpp: Create DB fail;", "alias.cpp: Fail to load"});
}

// ---- load

TEST_F(AliasTest, LoadListsEachAliasOnceAndAppends) {
  store({{"sales", "anna", "0"}, {"sales", "zoe", "0"}, {"Sales", "zoe", "0"}});
  Alias aliases;
  EXPECT_EQ(aliases.load(), 0);
  EXPECT_EQ(aliases.getAliasNameList(), (Names{"Sales", "root", "sales"}));
  EXPECT_EQ(aliases.load(), 0);
  EXPECT_EQ(aliases.getAliasNameList(),
            (Names{"Sales", "root", "sales", "Sales", "root", "sales"}));
}

TEST_F(AliasTest, LoadWithoutFolderFailsUntilItIsThere) {
  ASSERT_EQ(chmod(kFolder.c_str(), 0555), 0);
  Alias aliases;
  EXPECT_EQ(aliases.load(), -1);
  EXPECT_EQ(aliases.getError(), 0);
  expectLog({kMissing, "DBHandler.cpp: Open database fail. dbpath = [" + kPath + "]",
             "DBHandler.cpp: Create DB fail;", "alias.cpp: Fail to load"});
  ASSERT_EQ(chmod(kFolder.c_str(), 0755), 0);
  EXPECT_EQ(aliases.load(), 0);
  expectLog({kMissing});
}

TEST_F(AliasTest, ANullValueEndsTheQuery) {
  store({});
  ASSERT_EQ(database::Connection(kPath).run(
                "insert into alias_info_table values(NULL, 'x', 1), ('a', NULL, 0);"),
            0);
  Alias aliases;
  Names names;
  Members members;
  EXPECT_EQ(aliases.load(), -1);
  EXPECT_EQ(aliases.loadMember("a", members), -1);
  EXPECT_EQ(aliases.enumMemberByType(names, USER), -1);
  EXPECT_EQ(aliases.getError(), 0);
  EXPECT_EQ(aliases.enumMemberByType(names, GROUP), 0);
  EXPECT_EQ(aliases.save(), 0);  // nothing was left unfinished
  const std::string failed = "alias.cpp: query fail";
  expectLog({failed, failed, failed});
}

// ---- save

TEST_F(AliasTest, SaveClosesTheFileAndPublishes) {
  Alias aliases;
  ASSERT_EQ(aliases.load(), 0);
  expectLog({kMissing});
  EXPECT_EQ(tree.takeCalls(), Rows());
  EXPECT_EQ(aliases.save(), 0);
  EXPECT_EQ(tree.takeCalls(), Rows{"DaemonConfSet.sh alias"});
  Members members;
  EXPECT_EQ(aliases.loadMember("root", members), -1);  // closed
  EXPECT_EQ(aliases.load(), 0);
  EXPECT_EQ(aliases.loadMember("root", members), 0);
}

TEST_F(AliasTest, SaveThatCannotCloseTheFileDoesNotPublish) {
  Alias aliases;
  ASSERT_EQ(aliases.load(), 0);
  connections::failClose();
  EXPECT_EQ(aliases.save(), -1);
  expectLog({kMissing, "DBHandler.cpp: Failed to close sqlite3, ret = [5]",
             "alias.cpp: Fail to save"});
  EXPECT_EQ(tree.takeCalls(), Rows());
  EXPECT_EQ(aliases.save(), 0);
}

TEST_F(AliasTest, SaveFailsWithTheScript) {
  tree.failScript("DaemonConfSet.sh", 1, "alias");
  Alias aliases;
  ASSERT_EQ(aliases.load(), 0);
  EXPECT_EQ(aliases.addMember("sales", {member("anna", USER)}), 0);
  EXPECT_EQ(aliases.save(), -1);
  expectLog({kMissing, "alias.cpp: Fail to exec SZ_SET_DAEMON_CONF"});
  EXPECT_EQ(aliasRows(), (Rows{"root|admin|0", "sales|anna|0"}));
}

TEST_F(AliasTest, TheDestructorClosesAndDoesNotPublish) {
  const int before = database::descriptorsOf(kPath);
  {
    Alias aliases;
    ASSERT_EQ(aliases.load(), 0);
    EXPECT_EQ(aliases.addMember("sales", {member("anna", USER)}), 0);
  }
  EXPECT_EQ(database::descriptorsOf(kPath), before + 1);  // the one that made the file
  EXPECT_EQ(tree.takeCalls(), Rows());
  EXPECT_EQ(aliasRows(), (Rows{"root|admin|0", "sales|anna|0"}));
  expectLog({kMissing});
}

// ---- reading members

TEST_F(AliasTest, MembersAreReadWithTheirTypes) {
  store({{"all", "anna", "0"},
         {"all", "staff", "1"},
         {"all", "sales", "2"},
         {"all", "x@y.example", "3"},
         {"other", "zoe", "0"}});
  Alias aliases;
  ASSERT_EQ(aliases.load(), 0);
  Members members = {member("replaced", USER)};
  EXPECT_EQ(aliases.loadMember("all", members), 0);
  EXPECT_EQ(members, (Members{member("anna", USER), member("staff", GROUP),
                              member("sales", ALIAS), member("x@y.example", EXTADDR)}));
  EXPECT_EQ(aliases.loadMember("ALL", members), 0);
  EXPECT_EQ(members, Members());
}

TEST_F(AliasTest, MembersOfATypeAreListedOnceAndAppended) {
  store({{"a", "zoe", "0"}, {"b", "zoe", "0"}, {"b", "zoe", "1"}, {"b", "anna", "0"}});
  Alias aliases;
  ASSERT_EQ(aliases.load(), 0);
  Names names = {"kept"};
  EXPECT_EQ(aliases.enumMemberByType(names, USER), 0);
  names.sort();  // they come in no certain order
  EXPECT_EQ(names, (Names{"admin", "anna", "kept", "zoe"}));
  names.clear();
  EXPECT_EQ(aliases.enumMemberByType(names, GROUP), 0);
  EXPECT_EQ(names, Names{"zoe"});
  EXPECT_EQ(aliases.enumMemberByType(names, EXTADDR), 0);
  EXPECT_EQ(names, Names{"zoe"});
}

// ---- changes

class AliasChangeTest : public AliasTest {
 protected:
  AliasChangeTest() {
    store({{"sales", "anna", "0"},
           {"sales", "staff", "1"},
           {"all", "sales", "2"},
           {"all", "sales", "0"},
           {"all", "anna", "0"}});
    EXPECT_EQ(aliases.load(), 0);
  }

  Alias aliases;
};

TEST_F(AliasChangeTest, AMemberAddedTwiceIsStoredTwice) {
  const Members added = {member("zoe", USER), member("zoe", USER), member("x", EXTADDR)};
  EXPECT_EQ(aliases.addMember("new", added), 0);
  EXPECT_EQ(aliasRows(),
            (Rows{"root|admin|0", "sales|anna|0", "sales|staff|1", "all|sales|2",
                  "all|sales|0", "all|anna|0", "new|zoe|0", "new|zoe|0", "new|x|3"}));
  Members members;
  EXPECT_EQ(aliases.loadMember("new", members), 0);
  EXPECT_EQ(members, added);
  Names names;
  EXPECT_EQ(aliases.enumMemberByType(names, USER), 0);
  names.sort();
  EXPECT_EQ(names, (Names{"admin", "anna", "sales", "zoe"}));
}

TEST_F(AliasChangeTest, AMemberIsRemovedByNameAndTypeFromOneAlias) {
  EXPECT_EQ(aliases.delMember("all", {member("sales", USER), member("anna", GROUP)}), 0);
  EXPECT_EQ(aliasRows(), (Rows{"root|admin|0", "sales|anna|0", "sales|staff|1",
                               "all|sales|2", "all|anna|0"}));
}

TEST_F(AliasChangeTest, MembersOfATypeAreRemovedFromEveryAlias) {
  EXPECT_EQ(aliases.delMemberByType({"anna", "sales", "unknown"}, USER), 0);
  EXPECT_EQ(aliasRows(), (Rows{"root|admin|0", "sales|staff|1", "all|sales|2"}));
}

TEST_F(AliasChangeTest, ADeletedAliasIsNoMemberEither) {
  EXPECT_EQ(aliases.delAlias({"sales", "unknown"}), 0);
  EXPECT_EQ(aliasRows(), (Rows{"root|admin|0", "all|sales|0", "all|anna|0"}));
}

TEST_F(AliasChangeTest, ARenamedAliasIsRenamedAsMemberToo) {
  EXPECT_EQ(aliases.changeAliasName("sales", "shop"), 0);
  EXPECT_EQ(aliasRows(), (Rows{"root|admin|0", "shop|anna|0", "shop|staff|1",
                               "all|shop|2", "all|sales|0", "all|anna|0"}));
}

TEST_F(AliasChangeTest, RenamingOntoAnotherAliasMergesThem) {
  EXPECT_EQ(aliases.changeAliasName("sales", "all"), 0);
  EXPECT_EQ(aliasRows(), (Rows{"root|admin|0", "all|anna|0", "all|staff|1", "all|all|2",
                               "all|sales|0", "all|anna|0"}));
}

TEST_F(AliasChangeTest, StatementsAreTheseToTheLetter) {
  Members members;
  Names names;
  sql::takeStatements();
  EXPECT_EQ(aliases.load(), 0);
  EXPECT_EQ(aliases.loadMember("o'h", members), 0);
  EXPECT_EQ(aliases.enumMemberByType(names, ALIAS), 0);
  EXPECT_EQ(aliases.addMember("a", {member("o'h", EXTADDR), member("b", GROUP)}), 0);
  EXPECT_EQ(aliases.delMember("a", {member("b", GROUP)}), 0);
  EXPECT_EQ(aliases.delMemberByType({"b", "c"}, USER), 0);
  EXPECT_EQ(aliases.delAlias({"a", "b"}), 0);
  EXPECT_EQ(aliases.changeAliasName("old", "new"), 0);
  EXPECT_EQ(
      sql::takeStatements(),
      (Rows{
          "SELECT DISTINCT alias FROM 'alias_info_table';",
          "SELECT * FROM 'alias_info_table' WHERE alias='o''h';",
          "SELECT DISTINCT member FROM 'alias_info_table' WHERE type='2';",
          "BEGIN TRANSACTION;",
          "INSERT INTO 'alias_info_table' (alias,member,type) VALUES ('a','o''h','3');",
          "INSERT INTO 'alias_info_table' (alias,member,type) VALUES ('a','b','1');",
          "COMMIT TRANSACTION;",
          "BEGIN TRANSACTION;",
          "DELETE FROM 'alias_info_table' WHERE (alias='a' AND member='b' AND type='1');",
          "COMMIT TRANSACTION;",
          "BEGIN TRANSACTION;",
          "DELETE FROM 'alias_info_table' WHERE member='b' AND type='0';",
          "DELETE FROM 'alias_info_table' WHERE member='c' AND type='0';",
          "COMMIT TRANSACTION;",
          "BEGIN TRANSACTION;",
          "DELETE FROM 'alias_info_table' WHERE alias='a';",
          "DELETE FROM 'alias_info_table' WHERE member='a' AND type= '2';",
          "DELETE FROM 'alias_info_table' WHERE alias='b';",
          "DELETE FROM 'alias_info_table' WHERE member='b' AND type= '2';",
          "COMMIT TRANSACTION;",
          "BEGIN TRANSACTION;",
          "UPDATE 'alias_info_table' SET alias= 'new' WHERE alias= 'old';",
          "UPDATE 'alias_info_table' SET member= 'new' WHERE member= 'old' AND type= "
          "'2';",
          "COMMIT TRANSACTION;"}));
}

TEST_F(AliasChangeTest, EmptyListsChangeNothing) {
  const Rows before = aliasRows();
  EXPECT_EQ(aliases.addMember("new", {}), 0);
  EXPECT_EQ(aliases.delMember("sales", {}), 0);
  EXPECT_EQ(aliases.delMemberByType({}, USER), 0);
  EXPECT_EQ(aliases.delAlias({}), 0);
  EXPECT_EQ(aliasRows(), before);
}

TEST_F(AliasChangeTest, NamesMayHoldAnything) {
  for (const std::string name :
       {"o'hara", "''", "100%", "%q%s%n", "a;drop table alias_info_table;", "two words",
        " ", "", "J\xc3\xb6rg", "\xff", "a\"b", "a\\b", "-- x", "a\nb"}) {
    const MemberInfo asUser = member(name, USER), asAlias = member(name, ALIAS);
    EXPECT_EQ(aliases.addMember(name, {asUser, asAlias}), 0);
    Members members;
    EXPECT_EQ(aliases.loadMember(name, members), 0);
    EXPECT_EQ(members, (Members{asUser, asAlias})) << name;
    EXPECT_EQ(aliases.changeAliasName(name, "new" + name), 0);
    EXPECT_EQ(aliases.loadMember("new" + name, members), 0);
    EXPECT_EQ(members, (Members{asUser, member("new" + name, ALIAS)})) << name;
    EXPECT_EQ(aliases.delMember("new" + name, {asUser}), 0);
    EXPECT_EQ(aliases.loadMember("new" + name, members), 0);
    EXPECT_EQ(members, Members{member("new" + name, ALIAS)}) << name;
    EXPECT_EQ(aliases.delAlias({"new" + name}), 0);
    EXPECT_EQ(aliasRows().size(), 6u) << name;
  }
  EXPECT_EQ(aliases.getError(), 0);
}

TEST_F(AliasChangeTest, ANameOfAThousandCharactersIsReadButDoesNotFitAChange) {
  const std::string name(1000, 'n');
  ASSERT_EQ(database::Connection(kPath).run("insert into alias_info_table values('" +
                                            name + "', '" + name + "', 0);"),
            0);
  Members members;
  EXPECT_EQ(aliases.loadMember(name, members), 0);
  EXPECT_EQ(members, Members{member(name, USER)});
  EXPECT_EQ(aliases.addMember(name, {member("x", USER)}), -1);
  EXPECT_EQ(aliases.getError(), -1);
  EXPECT_EQ(aliases.save(), 0);
  expectLog(
      {"DBHandler.cpp: sqlite3_exec fail, err=[1], near \"statement\": syntax error",
       kStillInTransaction});
}

TEST_F(AliasChangeTest, AStatementHas1023BytesAndMayLoseItsSemicolon) {
  // One row more for a name of this length, or the text that stands for a longer one.
  const auto statementFor = [this](size_t length, int result) {
    sql::takeStatements();
    EXPECT_EQ(aliases.addMember(std::string(length, 'n'), {member("x", USER)}), result);
    const Rows run = sql::takeStatements();
    return run.size() < 2 ? "" : run[1];
  };
  const size_t others = statementFor(1, 0).size() - 1;
  EXPECT_EQ(statementFor(1023 - others, 0).size(), 1023u);
  EXPECT_EQ(statementFor(1024 - others, 0).size(), 1023u);
  EXPECT_EQ(statementFor(1025 - others, -1), "statement too long");
  EXPECT_EQ(aliases.save(), 0);
  log.take();
  EXPECT_EQ(aliasRows().size(), 9u);
}

// A statement has room for 1023 bytes. Cut behind a name it might still be valid and
// mean more than it should: no WHERE, no type.
TEST_F(AliasChangeTest, AStatementThatDoesNotFitTouchesNoOtherRow) {
  const std::vector<std::function<int(const std::string &)>> changes = {
      [this](const std::string &n) { return aliases.addMember(n, {member("x", USER)}); },
      [this](const std::string &n) { return aliases.delMember(n, {member("x", USER)}); },
      [this](const std::string &n) { return aliases.delMember("x", {member(n, USER)}); },
      [this](const std::string &n) { return aliases.delMemberByType({n}, USER); },
      [this](const std::string &n) { return aliases.delAlias({n}); },
      [this](const std::string &n) { return aliases.changeAliasName("sales", n); },
      [this](const std::string &n) { return aliases.changeAliasName(n, "sales"); }};
  const std::string others =
      "select * from alias_info_table where alias in ('root', 'all') and type = 0;";
  const Rows before = rowsOf(kPath, others);
  for (const auto &change : changes) {
    int refused = 0;
    for (size_t length = 920; length <= 1024; length++) {
      const bool stored = change(std::string(length, 'n')) == 0;
      EXPECT_TRUE(refused == 0 || !stored) << "what was too long is so when longer";
      if (!stored) refused++;
      EXPECT_EQ(aliases.save(), 0);
      EXPECT_EQ(aliases.load(), 0);
      if (!stored) {
        ASSERT_EQ(rowsOf(kPath, others), before) << "change " << &change - &changes[0];
      }
      log.take();
    }
    EXPECT_GT(refused, 20);
    EXPECT_LT(refused, 100);
  }
}

TEST_F(AliasChangeTest, AFailedChangeLeavesTheObjectInErrorAndKeepsWhatSucceeded) {
  EXPECT_EQ(aliases.addMember("new",
                              {member("kept", USER), member(std::string(1000, 'x'), USER),
                               member("not run", USER)}),
            -1);
  EXPECT_EQ(aliases.getError(), -1);
  EXPECT_EQ(aliases.save(), 0);
  expectLog(
      {"DBHandler.cpp: sqlite3_exec fail, err=[1], near \"statement\": syntax error",
       kStillInTransaction});
  EXPECT_EQ(aliasRows().back(), "new|kept|0");
  EXPECT_EQ(tree.takeCalls(), Rows{"DaemonConfSet.sh alias"});
}

TEST_F(AliasChangeTest, AChangeWithoutLoadFails) {
  Alias closed;
  EXPECT_EQ(closed.addMember("new", {member("x", USER)}), -1);
  EXPECT_EQ(closed.getError(), -1);
  EXPECT_EQ(log.take().size(), 1u);
  EXPECT_EQ(aliasRows().size(), 6u);
}

TEST_F(AliasChangeTest, ALockedFileFailsTheChangeAtOnce) {
  database::Connection holder(kPath);
  ASSERT_EQ(holder.run("BEGIN IMMEDIATE;"), 0);
  EXPECT_EQ(aliases.delAlias({"sales"}), -1);
  EXPECT_EQ(aliases.getError(), -1);
  ASSERT_EQ(holder.run("ROLLBACK;"), 0);
  expectLog({"DBHandler.cpp: sqlite3_exec fail, err=[5], database is locked"});
  EXPECT_EQ(aliases.save(), 0);
  expectLog({kStillInTransaction});
  EXPECT_EQ(aliasRows().size(), 6u);
}

// ---- damaged files

TEST_F(AliasTest, ACorruptSchemaIsRebuiltWhenTheQueryIsPrepared) {
  store({{"sales", "anna", "0"}});
  database::spoilSchema(kPath);
  Alias aliases;
  EXPECT_EQ(aliases.load(), 0);
  EXPECT_EQ(aliases.getAliasNameList(), Names());  // an empty success
  expectLog({kCorrupt, kRegen, kMissing});
  EXPECT_EQ(aliasRows(), Rows{"root|admin|0"});
  EXPECT_EQ(aliases.load(), 0);
  EXPECT_EQ(aliases.getAliasNameList(), Names{"root"});
}

TEST_F(AliasTest, ACorruptTableIsRebuiltWhenTheQueryIsStepped) {
  Members members;
  Names names;
  const std::vector<std::function<int(Alias &)>> queries = {
      [](Alias &) { return 0; },  // load() itself
      [&members](Alias &aliases) { return aliases.loadMember("sales", members); },
      [&names](Alias &aliases) { return aliases.enumMemberByType(names, USER); }};
  for (size_t i = 0; i < queries.size(); i++) {
    store({{"sales", "anna", "0"}});
    Alias aliases;
    if (i > 0) {
      ASSERT_EQ(aliases.load(), 0);
    }
    database::spoilTables(kPath);
    EXPECT_EQ(i > 0 ? queries[i](aliases) : aliases.load(), 0);
    expectLog({kCorrupt, kRegen, kMissing});
    EXPECT_EQ(aliasRows(), Rows{"root|admin|0"});
    EXPECT_EQ(aliases.getError(), 0);
  }
  EXPECT_EQ(members, Members());
  EXPECT_EQ(names, Names());
}

TEST_F(AliasTest, AChangeToACorruptFileSucceedsAndStoresNothing) {
  store({{"sales", "anna", "0"}});
  Alias aliases;
  ASSERT_EQ(aliases.load(), 0);
  database::spoilTables(kPath);
  EXPECT_EQ(aliases.addMember("new", {member("x", USER)}), 0);
  EXPECT_EQ(aliases.getError(), 0);
  expectLog(
      {"DBHandler.cpp: sqlite3_exec fail, err=[11], database disk image is malformed",
       kCorrupt, kRegen, kStillInTransaction,
       "DBHandler.cpp: commitTransaction fail, err=[11], database disk image is "
       "malformed",
       kMissing});
  EXPECT_EQ(aliasRows(), Rows{"root|admin|0"});
  EXPECT_EQ(aliases.addMember("new", {member("x", USER)}), 0);
  EXPECT_EQ(aliasRows(), (Rows{"root|admin|0", "new|x|0"}));
}

TEST_F(AliasTest, ARebuildThatFailsIsAFailure) {
  writeFile(PackageTree::kSettings, "account_type=\"ldap\"\nacc_domain_name=\"" +
                                        std::string(4000, 'x') + "\"\n");
  writeFile(kPath, "");
  ASSERT_EQ(database::Connection(kPath).run(
                "create table alias_info_table(alias TEXT, member TEXT, type INTEGER);"),
            0);
  database::spoilTables(kPath);
  Alias aliases;
  EXPECT_EQ(aliases.load(), -1);
  EXPECT_EQ(aliases.getError(), 0);
  EXPECT_EQ(log.take().size(), 5u);
}

TEST_F(AliasTest, AFileThatIsNoDatabaseIsLeftAsItIs) {
  const std::string text(8192, 'x');
  writeFile(kPath, text);
  Alias aliases;
  EXPECT_EQ(aliases.load(), -1);
  EXPECT_EQ(readFile(kPath), text);
}

TEST_F(AliasTest, AFileWithoutTheTableIsLeftAsItIs) {
  writeFile(kPath, "");
  Alias aliases;
  EXPECT_EQ(aliases.load(), -1);
  EXPECT_EQ(aliases.addMember("new", {member("x", USER)}), -1);
  expectLog(
      {"DBHandler.cpp: sqlite3_exec fail, err=[1], no such table: alias_info_table"});
  EXPECT_EQ(readFile(kPath), "");
  EXPECT_EQ(aliases.save(), 0);
  expectLog({kStillInTransaction});
}

}  // namespace
