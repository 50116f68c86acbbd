// kest_gen_login_map: from the settings and the host's users to the table that
// Postfix looks things up in.

#include <gtest/gtest.h>
#include <kestsdk.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>

#include "programs/postfix_map_test.h"

namespace {

const std::string kConfig = "compatibility_level = 3.6\n";

class LoginMap : public PostfixMapTest {
 protected:
  LoginMap() : PostfixMapTest("kest_gen_login_map", "login_map", kConfig) {
    writeFile("/tmp/users-local", "zoe\nBob\n");
    writeFile("/tmp/users-directory", "CORP\\bob\nAmy@corp.example\n");
  }

  // The owners of a local part, as Postfix finds them.
  std::string owners(const std::string &name) const { return found(name); }

  // A run that fails leaves the map of zoe and bob.
  void expectFailure(const std::string &message) const {
    expectFailedRun(message);
    EXPECT_EQ(owners("zoe"), "zoe\n");
    EXPECT_EQ(owners("bob"), "bob\n");
    EXPECT_EQ(owners("eve"), "");
  }
};

TEST_F(LoginMap, LocalAccounts) {
  const Outcome outcome = run();
  ASSERT_EQ(outcome.status, 0) << outcome.err;
  EXPECT_EQ(outcome.out, "");
  EXPECT_EQ(outcome.err, "");
  EXPECT_EQ(readFile(kMap), "bob\tbob\nzoe\tzoe\n");
  EXPECT_EQ(owners("bob"), "bob\n");
  EXPECT_EQ(owners("amy"), "");
  expectTheMapAlone();
}

TEST_F(LoginMap, DomainAndDirectoryAccountsAreListedAsWell) {
  for (const char *type : {"ldap", "win"}) {
    useAccounts(type);
    ASSERT_EQ(run().status, 0);
    EXPECT_EQ(readFile(kMap), "amy\tamy\nbob\tbob,corp\\bob\nzoe\tzoe\n");
    EXPECT_EQ(owners("bob"), "bob,corp\\bob\n");
    EXPECT_EQ(owners("Amy"), "amy\n");
  }
  useAccounts("");  // local
  ASSERT_EQ(run().status, 0);
  EXPECT_EQ(owners("amy"), "");
}

TEST_F(LoginMap, LeavesOutAndNamesWhatTheTableCannotCarry) {
  writeFile("/tmp/users-local", "bob\na b\n#x\n\x1b[2J\nc\xff\n");
  const Outcome outcome = run();
  EXPECT_EQ(outcome.status, 0);
  const std::string start =
      "kest_gen_login_map: left out, no map line can carry this name: ";
  EXPECT_EQ(outcome.err, start + "\"\\x1b[2J\"\n" + start + "\"#x\"\n" + start +
                             "\"a b\"\n" + start + "\"c\\xff\"\n");
  EXPECT_EQ(readFile(kMap), "bob\tbob\n");
}

TEST_F(LoginMap, NoUsersMakeAnEmptyMap) {
  ASSERT_EQ(run().status, 0);
  writeFile("/tmp/users-local", "");
  ASSERT_EQ(run().status, 0);
  EXPECT_EQ(readFile(kMap), "");
  EXPECT_EQ(owners("bob"), "");
}

TEST_F(LoginMap, IsReadableForThePostfixDaemons) {
  const mode_t old = umask(077);
  ASSERT_EQ(run().status, 0);
  umask(old);
  struct stat st;
  for (const std::string &file : {kMap, kMap + ".lmdb"}) {
    ASSERT_EQ(stat(file.c_str(), &st), 0);
    EXPECT_EQ(st.st_mode & 07777, 0644u) << file;
  }
}

TEST_F(LoginMap, ALaterMapReplacesTheFirst) {
  ASSERT_EQ(run().status, 0);
  writeFile("/tmp/users-local", "eve\n");
  ASSERT_EQ(run().status, 0);
  EXPECT_EQ(owners("bob"), "");
  EXPECT_EQ(owners("eve"), "eve\n");
}

TEST_F(LoginMap, AHostThatCannotListItsUsers) {
  ASSERT_EQ(run().status, 0);
  writeFile("/tmp/users-local", "eve\n");
  unlink("/tmp/users-directory");
  useAccounts("ldap");
  expectFailure("the host cannot list its users; the map is as it was\n");
  useAccounts("local");
  unlink("/tmp/users-local");
  expectFailure("the host cannot list its users; the map is as it was\n");
  writeFile("/tmp/users-directory", "eve\n");
  useAccounts("ldap");
  expectFailure("the host cannot list its users; the map is as it was\n");
}

TEST_F(LoginMap, SettingsThatCannotBeRead) {
  ASSERT_EQ(run().status, 0);
  writeFile("/tmp/users-local", "eve\n");
  unlink(PackageTree::kSettings);
  expectFailure("cannot read the settings (run as root; is the package installed?)");
}

TEST_F(LoginMap, AFolderThatCannotBeWritten) {
  ASSERT_EQ(run().status, 0);
  writeFile("/tmp/users-local", "eve\n");
  ASSERT_EQ(chmod(kFolder.c_str(), 0555), 0);
  expectFailure("cannot write beside " + kMap +
                ": Permission denied; the old map stays in force\n");
  ASSERT_EQ(chmod(kFolder.c_str(), 0755), 0);
}

TEST_F(LoginMap, ATextThatCannotBeReplaced) {
  ASSERT_EQ(mkdir(kFolder.c_str(), 0755), 0);
  ASSERT_EQ(mkdir(kMap.c_str(), 0755), 0);
  const Outcome outcome = run();
  EXPECT_EQ(outcome.status, 1);
  EXPECT_EQ(outcome.err, "kest_gen_login_map: cannot replace " + kMap +
                             ": Is a directory; the old map stays in force\n");
  EXPECT_EQ(folder(), std::vector<std::string>{"login_map"});
}

TEST_F(LoginMap, APostmapThatFails) {
  ASSERT_EQ(run().status, 0);
  writeFile("/tmp/users-local", "eve\n");
  writePostfixConfig(kPostmapConfig, "mail_owner = nobody-of-that-name\n");
  const Outcome outcome = run();
  EXPECT_EQ(outcome.status, 1);
  EXPECT_NE(outcome.err.find("nobody-of-that-name"), std::string::npos) << outcome.err;
  EXPECT_NE(
      outcome.err.find("kest_gen_login_map: /usr/sbin/postmap failed for lmdb:" + kMap +
                       "; the lines above tell why; the old map stays in force\n"),
      std::string::npos)
      << outcome.err;
  writePostfixConfig(kPostmapConfig, kConfig);
  EXPECT_EQ(owners("bob"), "bob\n");
  EXPECT_EQ(owners("eve"), "");
}

TEST_F(LoginMap, WrongUsage) {
  for (const char *argument : {"--help", "x"}) {
    const Outcome outcome = RUN_TEST_PROGRAM({argument});
    EXPECT_EQ(outcome.status, 2);
    EXPECT_EQ(outcome.err, "usage: kest_gen_login_map\n  takes no arguments\n");
  }
  EXPECT_FALSE(fileExists(kMap));
}

TEST_F(LoginMap, TheProgramItselfAsksTheHost) {
  KLIBCSzList *list = KLIBCSzListAlloc(16);
  ASSERT_GE(KESTUserEnum(&list, KEST_USER_LOCAL), 0);
  const Outcome outcome = runBuilt(TEST_EMULATOR, TEST_HOST_PROGRAM, {});
  EXPECT_EQ(outcome.status, 0) << outcome.err;
  const std::string text = readFile(kMap);
  int count = 0;
  for (; const char *const user = KLIBCSzListGet(list, count); ++count)
    EXPECT_NE(("\n" + text).find(std::string("\n") + user + "\t"), std::string::npos)
        << user;
  EXPECT_EQ(std::count(text.begin(), text.end(), '\n'), count);
  KLIBCSzListFree(list);
}

}  // namespace
