// kest_alias_map: from alias.db and the users and groups of the machine to the table
// that Postfix looks things up in.

#include <alias.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include "programs/accounts.h"
#include "programs/postfix_map_test.h"
#include "support/database.h"

namespace {

const std::string kConfig = "compatibility_level = 3.6\nsmtputf8_enable = no\n";
const std::string kDatabase = "/var/packages/Postwell/etc/alias.db";
const std::string kDefaults = "postmaster: root\nMAILER-DAEMON: postmaster\n";

class AliasMap : public PostfixMapTest {
 protected:
  AliasMap() : PostfixMapTest("kest_alias_map", "aliases", kConfig) {
    writeAccounts();
    Alias aliases;  // the alias "root" of the new file is in nobody's way
    EXPECT_EQ(aliases.load(), 0);
    EXPECT_EQ(aliases.delAlias({"root"}), 0);
  }

  static void store(const std::string &alias, MemberType type, const std::string &name) {
    MemberInfo member;
    member.strName = name;
    member.type = type;
    Alias aliases;
    ASSERT_EQ(aliases.load(), 0);
    ASSERT_EQ(aliases.addMember(alias, {member}), 0);
  }

  // The text that a run makes, without the two lines that are always there.
  std::string made() const {
    const Outcome outcome = run();
    EXPECT_EQ(outcome.status, 0) << outcome.err;
    EXPECT_EQ(outcome.err, "");
    EXPECT_EQ(outcome.out, "");
    const std::string text = readFile(kMap);
    EXPECT_EQ(text.substr(text.size() - kDefaults.size()), kDefaults);
    return text.substr(0, text.size() - kDefaults.size());
  }

  // The members of an alias, as Postfix finds them.
  std::string members(const std::string &name) const { return found(name); }

  // The map of "old" with amy, which failures must leave in force.
  void makeOldMap() const {
    store("old", USER, "amy");
    ASSERT_EQ(made(), "old: amy\n");
  }

  void expectFailure(const std::string &message) const {
    expectFailedRun(message);
    EXPECT_EQ(members("old"), "amy\n");
    EXPECT_EQ(members("new"), "");
    EXPECT_EQ(members("postmaster"), "root\n");
  }
};

TEST_F(AliasMap, EveryKindOfMember) {
  store("heads", USER, "dave");
  for (const auto &[type, name] :
       {std::pair(USER, "amy"), std::pair(GROUP, "crew"), std::pair(ALIAS, "heads"),
        std::pair(EXTADDR, "x@example.org")})
    store("team", type, name);
  EXPECT_EQ(made(), "heads: dave\nteam: amy, bob, carol, dave, heads, x@example.org\n");
  EXPECT_EQ(members("team"), "amy, bob, carol, dave, heads, x@example.org\n");
  EXPECT_EQ(members("TEAM"), members("team"));
  EXPECT_EQ(members("heads"), "dave\n");
  EXPECT_EQ(members("postmaster"), "root\n");
  EXPECT_EQ(members("mailer-daemon"), "postmaster\n");
  EXPECT_EQ(members("crew"), "");
  expectTheMapAlone();
}

TEST_F(AliasMap, GroupsOfADirectoryHaveItsUsers) {
  store("a", GROUP, "staff");
  EXPECT_EQ(made(), "a: finn, gina\n");
  writeFile("/tmp/group", "staff:x:3000:\n");
  useAccounts("ldap");
  EXPECT_EQ(made(), "a: gina\n");
  writeFile("/tmp/group", "staff:x:100001:\n");
  useAccounts("win");
  EXPECT_EQ(made(), "a: \"CORP\\\\Eve\"\n");
}

TEST_F(AliasMap, UsersWithADomainAreFoundUnderEitherName) {
  for (const char *name :
       {"CORP\\Eve", "finn@corp.example", "CORP\\amy", "bob@corp.example"})
    store("a", USER, name);
  store("b", GROUP, "CORP\\crew");
  EXPECT_EQ(made(), "a: \"CORP\\\\Eve\", finn, amy, bob\nb: amy, bob, carol, dave\n");
}

TEST_F(AliasMap, NamesWithQuotesAreFoundByPostfix) {
  for (const char *name :
       {"#x", "a b", "a\"b", "a\\b", "a:b", "a,b", "it's", "m\xc3\xbcller", "100$; a"}) {
    store(name, USER, "CORP\\Eve");
    ASSERT_EQ(run().err, "");
    EXPECT_EQ(members(name), "\"CORP\\\\Eve\"\n") << name;
  }
}

// Capitals are told from small letters in ASCII alone, here as in Postfix.
TEST_F(AliasMap, NamesInOtherLettersAreFoundAsTheyAreSpelt) {
  const std::string small = "j\xc3\xb6rg", capital = "J\xc3\x96RG";
  store(small, USER, "amy");
  store(capital, USER, "bob");
  store(
      "stra\xc3\x9f"
      "e",
      USER, "amy");
  store("strasse", USER, "bob");
  ASSERT_EQ(run().err, "");
  EXPECT_EQ(members(small), "amy\n");
  EXPECT_EQ(members(capital), "bob\n");
  EXPECT_EQ(members("stra\xc3\x9f"
                    "e"),
            "amy\n");
  EXPECT_EQ(members("STRASSE"), "bob\n");
}

TEST_F(AliasMap, WhatIsLeftOutIsToldAndTheRestIsMade) {
  store("a", USER, "gone");
  store("a", EXTADDR, "|touch /tmp/owned");
  store("a", GROUP, "left");
  store("b", ALIAS, "c");
  store("c", ALIAS, "b");
  store("|x", USER, "amy");
  const Outcome outcome = run();
  EXPECT_EQ(outcome.status, 0);
  const std::string start = "kest_alias_map: alias ";
  EXPECT_EQ(
      outcome.err,
      start +
          "\"|x\" is left out: the name must not begin with a character that makes it "
          "a command or a file\n" +
          start + "\"a\": member \"gone\" is left out: there is no such user\n" + start +
          "\"a\": member \"|touch /tmp/owned\" is left out: it is no mail address\n" +
          start + "\"a\": member \"gone\" is left out: there is no such user\n" + start +
          "\"c\": member \"b\" is left out: the aliases lead back to each other\n" +
          start + "\"c\" is left out: no member is left\n" + start +
          "\"b\": member \"c\" is left out: that alias is left out\n" + start +
          "\"b\" is left out: no member is left\n");
  EXPECT_EQ(readFile(kMap), "a: amy\n" + kDefaults);
  EXPECT_EQ(members("a"), "amy\n");
  EXPECT_EQ(members("|x"), "");
}

TEST_F(AliasMap, NoAliasesMakeAMapOfTheTwoThatAreAlwaysThere) {
  EXPECT_EQ(made(), "");
  EXPECT_EQ(members("postmaster"), "root\n");
}

TEST_F(AliasMap, ANewFileHasTheAliasRoot) {
  unlink(kDatabase.c_str());
  writeFile("/tmp/passwd", "admin:x:1004:1004::/home/admin:/bin/sh\n");
  EXPECT_EQ(made(), "root: admin\n");
}

TEST_F(AliasMap, ALaterMapReplacesTheFirst) {
  makeOldMap();
  Alias aliases;
  ASSERT_EQ(aliases.load(), 0);
  ASSERT_EQ(aliases.changeAliasName("old", "new"), 0);
  EXPECT_EQ(made(), "new: amy\n");
  EXPECT_EQ(members("old"), "");
  EXPECT_EQ(members("new"), "amy\n");
}

TEST_F(AliasMap, IsReadableForThePostfixDaemons) {
  const mode_t old = umask(077);
  EXPECT_EQ(made(), "");
  umask(old);
  struct stat st;
  for (const std::string &file : {kMap, kMap + ".lmdb"}) {
    ASSERT_EQ(stat(file.c_str(), &st), 0);
    EXPECT_EQ(st.st_mode & 07777, 0644u) << file;
  }
}

// ---- failures

TEST_F(AliasMap, SettingsThatCannotBeRead) {
  makeOldMap();
  store("new", USER, "amy");
  unlink(PackageTree::kSettings);
  expectFailure(
      "cannot read the aliases (the system log tells why); the map is as it was");
  useAccounts("none-of-these");
  expectFailure(
      "cannot read the aliases (the system log tells why); the map is as it was");
}

TEST_F(AliasMap, AFileThatCannotBeRead) {
  makeOldMap();
  store("new", USER, "amy");
  ASSERT_EQ(chmod(kDatabase.c_str(), 0), 0);
  expectFailure(
      "cannot read the aliases (the system log tells why); the map is as it was");
  unlink(kDatabase.c_str());
  writeFile(kDatabase, "this is no database, however often it is read\n");
  expectFailure("the aliases are damaged: restore ");
}

TEST_F(AliasMap, AFileThatCannotBeMade) {
  makeOldMap();
  unlink(kDatabase.c_str());
  ASSERT_EQ(mkdir(kDatabase.c_str(), 0755), 0);
  expectFailure(
      "cannot read the aliases (the system log tells why); the map is as it was");
}

// The library would make a damaged file anew and report success; here it is left for
// its owner to restore.
TEST_F(AliasMap, ADamagedFileDoesNotEmptyTheMap) {
  for (const auto spoil : {database::spoilSchema, database::spoilTables}) {
    makeOldMap();
    store("new", USER, "amy");
    spoil(kDatabase);
    const std::string damaged = readFile(kDatabase);
    expectFailure("the aliases are damaged: restore ");
    EXPECT_EQ(readFile(kDatabase), damaged);
    unlink(kDatabase.c_str());
    Alias aliases;
    ASSERT_EQ(aliases.load(), 0);
    ASSERT_EQ(aliases.delAlias({"root"}), 0);
  }
}

TEST_F(AliasMap, AHostThatCannotListItsUsers) {
  makeOldMap();
  store("new", GROUP, "crew");
  unlink("/tmp/users-local");
  expectFailure("the host cannot list its users; the map is as it was\n");
  writeAccounts();
  unlink("/tmp/users-directory");
  useAccounts("win");
  expectFailure("the host cannot list its users; the map is as it was\n");
  useAccounts("local");
  EXPECT_EQ(made(), "new: amy, bob, carol, dave\nold: amy\n");
}

TEST_F(AliasMap, AFolderThatCannotBeWritten) {
  makeOldMap();
  store("new", USER, "amy");
  ASSERT_EQ(chmod(kFolder.c_str(), 0555), 0);
  expectFailure("cannot write beside " + kMap +
                ": Permission denied; the old map stays in force\n");
  ASSERT_EQ(chmod(kFolder.c_str(), 0755), 0);
}

TEST_F(AliasMap, APostaliasThatFails) {
  makeOldMap();
  store("new", USER, "amy");
  writePostfixConfig(kPostmapConfig, "mail_owner = nobody-of-that-name\n");
  const Outcome outcome = run();
  EXPECT_EQ(outcome.status, 1);
  EXPECT_NE(outcome.err.find("nobody-of-that-name"), std::string::npos) << outcome.err;
  EXPECT_NE(
      outcome.err.find("kest_alias_map: /usr/sbin/postalias failed for lmdb:" + kMap +
                       "; the lines above tell why; the old map stays in force\n"),
      std::string::npos)
      << outcome.err;
  writePostfixConfig(kPostmapConfig, kConfig);
  EXPECT_EQ(members("old"), "amy\n");
  EXPECT_EQ(members("new"), "");
}

TEST_F(AliasMap, WrongUsage) {
  for (const char *argument : {"--help", "x"}) {
    const Outcome outcome = RUN_TEST_PROGRAM({argument});
    EXPECT_EQ(outcome.status, 2);
    EXPECT_EQ(outcome.err, "usage: kest_alias_map\n  takes no arguments\n");
  }
  EXPECT_FALSE(fileExists(kMap));
}

TEST_F(AliasMap, TheProgramItselfAsksTheHost) {
  store("a", USER, "root");
  store("a", USER, "no-user-of-any-host");
  store("b", GROUP, "no-group-of-any-host");
  const Outcome outcome = runBuilt(TEST_EMULATOR, TEST_HOST_PROGRAM, {});
  EXPECT_EQ(outcome.status, 0);
  EXPECT_EQ(outcome.err,
            "kest_alias_map: alias \"a\": member \"no-user-of-any-host\" is left out: "
            "there is no such user\n"
            "kest_alias_map: alias \"b\": member \"no-group-of-any-host\" is left out: "
            "there is no such group\n"
            "kest_alias_map: alias \"b\" is left out: no member is left\n");
  EXPECT_EQ(readFile(kMap), "a: root\n" + kDefaults);
}

}  // namespace
