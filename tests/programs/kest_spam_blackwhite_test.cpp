// kest_spam_blackwhite: from the black and white lists in postwell.db to the lines that
// SpamAssassin reads, and telling a running filter of them.

#include <fcntl.h>

#include "programs/rule_map_test.h"

namespace {

class SpamBlackWhite : public RuleMapTest {
 protected:
  static void store(const Rows &rows) { RuleMapTest::store("blackwhite_table", rows); }

  static Outcome run() { return RUN_TEST_PROGRAM({}); }

  static std::string lists() { return readFile(kLists); }

  // A run that leaves nothing out, and the calls that it makes.
  void make(const Rows &calls) {
    const Outcome outcome = run();
    EXPECT_EQ(outcome.status, 0);
    EXPECT_EQ(outcome.out, "");
    EXPECT_EQ(outcome.err, "");
    EXPECT_EQ(package_.takeCalls(), calls);
  }

  // A run that fails and says this, with these lists in force.
  static void expectFailure(const std::string &message, const std::string &inForce) {
    const Outcome outcome = run();
    EXPECT_EQ(outcome.status, 1);
    EXPECT_EQ(outcome.out, "");
    EXPECT_EQ(outcome.err, "kest_spam_blackwhite: " + message + "\n");
    EXPECT_EQ(lists(), inForce);
  }

  static inline const Rows kTold = {"SpamDaemon.sh reload"};
  static inline const std::string kLists =
      "/var/packages/Postwell/target/etc/spam/blackwhite.cf";
};

TEST_F(SpamBlackWhite, EachKindOfEntryIsALine) {
  store({"(1, 'Bad@B.example', 0, 1)", "(1, 'good@b.example', 0, 2)",
         "(2, 'c.Example', 0, 1)", "(2, 'd.example', 1, 2)", "(1, 'to@b.example', 1, 1)",
         "(1, 'a!#$%&''+/=^_`{|}~.-b@c.example', 0, 2)"});
  make(kTold);
  EXPECT_EQ(lists(),
            "blocklist_from *@c.example *@*.c.example\n"
            "welcomelist_from a!\\#$%&'+/=^_`{|}~.-b@c.example\n"
            "blocklist_from bad@b.example\n"
            "welcomelist_from good@b.example\n"
            "all_spam_to *@d.example *@*.d.example\n"
            "blocklist_to to@b.example\n");
}

TEST_F(SpamBlackWhite, AnAccountHoldsInEveryLocalDomain) {
  store({"(0, 'Amy', 0, 1)", "(0, 'DOM\\bob', 1, 2)"});
  make(kTold);
  EXPECT_EQ(lists(),
            "blocklist_from amy@b.example\nblocklist_from amy@localhost\n"
            "blocklist_from amy@mail.example\nall_spam_to bob@b.example\n"
            "all_spam_to bob@localhost\nall_spam_to bob@mail.example\n");
}

TEST_F(SpamBlackWhite, AnAddressGoesBeforeItsAccount) {
  store({"(0, 'amy', 0, 1)", "(1, 'amy@b.example', 0, 2)"});
  make(kTold);
  EXPECT_EQ(lists(),
            "welcomelist_from amy@b.example\nblocklist_from amy@localhost\n"
            "blocklist_from amy@mail.example\n");
}

TEST_F(SpamBlackWhite, WhatSpamAssassinCannotBeToldOfIsNamedAndLeftOut) {
  store({"(2, 'good.example', 0, 1)", "(1, 'a@b.example' || char(10) || 'x 1', 0, 1)",
         "(1, '*@b.example', 0, 1)", "(1, 'a?@b.example', 0, 1)",
         "(1, 'a@b.example c@d.example', 0, 2)", "(1, 'J\xc3\xb6rg@b.example', 1, 1)",
         "(2, '*', 0, 1)", "(0, 'a b', 0, 1)", "(1, '', 1, 2)", "(2, 'e.example', 2, 1)",
         "(2, 'f.example', 0, 0)", "(7, 'g.example', 0, 1)",
         "(1, 'a' || char(0) || '@h.example', 0, 1)"});
  const Outcome outcome = run();
  EXPECT_EQ(outcome.status, 0);
  EXPECT_EQ(lists(), "blocklist_from *@good.example *@*.good.example\n");
  const std::string start = "kest_spam_blackwhite: ", left = "\" is left out: ",
                    noAddress =
                        left + "it is no mail address that the spam filter can take\n",
                    noDomain = left + "it is no domain name\n",
                    noAccount =
                        left + "it is no account name that the spam filter can take\n";
  for (const std::string &line :
       {"sender blacklist entry \"a@b.example\\x0ax 1" + noAddress,
        "sender blacklist entry \"*@b.example" + noAddress,
        "sender blacklist entry \"a?@b.example" + noAddress,
        "sender whitelist entry \"a@b.example c@d.example" + noAddress,
        "recipient blacklist entry \"J\\xc3\\xb6rg@b.example" + noAddress,
        "sender blacklist entry \"*" + noDomain,
        "sender blacklist entry \"a b" + noAccount,
        "recipient whitelist entry \"" + noAddress,
        "client blacklist entry \"e.example" + left + "it is of an unknown type\n",
        "sender blacklist entry \"f.example" + left + "it is in an unknown list\n",
        "sender blacklist entry \"g.example" + left + "it is of an unknown kind\n",
        "sender blacklist entry \"a\\x00@h.example" + noAddress})
    EXPECT_NE(outcome.err.find(start + line), std::string::npos) << line << outcome.err;
  EXPECT_EQ(std::count(outcome.err.begin(), outcome.err.end(), '\n'), 12);
}

TEST_F(SpamBlackWhite, OfTwoEntriesOfDifferentListsTheFirstNameCounts) {
  store({"(2, 'b.example', 0, 1)", "(2, 'B.example', 0, 2)", "(2, 'B.EXAMPLE', 0, 2)",
         "(2, 'b.example', 1, 1)"});
  const Outcome outcome = run();
  EXPECT_EQ(outcome.err,
            "kest_spam_blackwhite: sender blacklist entry \"b.example\" is left out: the "
            "sender whitelist entry \"B.EXAMPLE\" says otherwise\n");
  EXPECT_EQ(lists(),
            "welcomelist_from *@b.example *@*.b.example\n"
            "blocklist_to *@b.example *@*.b.example\n");
}

TEST_F(SpamBlackWhite, TheFirstListsNeedNoFile) {
  unlink(kDatabase.c_str());
  make(kTold);
  EXPECT_EQ(lists(), "");
  make(kTold);  // nor do later ones, as long as there has been no entry
  EXPECT_FALSE(fileExists(kDatabase));
}

TEST_F(SpamBlackWhite, AFilterIsToldOnlyOfListsThatItHasNotRead) {
  const std::string pidFile = "/run/postwell/spamd/spamd.pid";
  store({"(2, 'b.example', 0, 1)"});
  make(kTold);
  make(kTold);  // it does not run, or it is starting
  const auto touch = [](const std::string &path, time_t seconds) {
    const timespec times[2] = {{seconds, 0}, {seconds, 0}};
    EXPECT_EQ(utimensat(AT_FDCWD, path.c_str(), times, 0), 0);
  };
  std::filesystem::create_directories("/run/postwell/spamd");
  writeFile(pidFile, "1\n");
  touch(kLists, 1000);
  touch(pidFile, 1001);
  make({});  // it has started since
  touch(pidFile, 1000);
  make(kTold);  // it may have read others
  store({"(2, 'c.example', 0, 1)"});
  touch(kLists, 1000);
  touch(pidFile, 1001);
  make(kTold);
  std::filesystem::remove_all("/run/postwell");
}

TEST_F(SpamBlackWhite, AFilterThatCannotBeToldIsAFailure) {
  package_.failScript("SpamDaemon.sh");
  store({"(1, 'a@b.example', 0, 1)"});
  expectFailure(
      "the lists are made, but the spam filter does not read them; the lines above tell "
      "why",
      "blocklist_from a@b.example\n");
}

TEST_F(SpamBlackWhite, ADamagedOrMissingFileLeavesTheLists) {
  store({"(1, 'a@b.example', 0, 1)"});
  make(kTold);
  const std::string old = lists(), asItWas = "; the map is as it was";
  const std::string damaged = "the rules are damaged: restore " + kDatabase +
                              "\nfrom a backup, or remove it to begin anew" + asItWas;
  for (const auto spoil : {database::spoilSchema, database::spoilTables}) {
    makeDatabase();
    spoil(kDatabase);
    expectFailure(damaged, old);
  }
  writeFile(kDatabase, "this is no database, however often it is read\n");
  expectFailure(damaged, old);
  unlink(kDatabase.c_str());
  expectFailure("there is no " + kDatabase + asItWas, old);
  EXPECT_FALSE(fileExists(kDatabase));
}

TEST_F(SpamBlackWhite, ListsThatCannotBeWrittenLeaveTheOldInForce) {
  store({"(1, 'a@b.example', 0, 1)"});
  make(kTold);
  const std::string old = lists(), folder = std::filesystem::path(kLists).parent_path();
  store({"(1, 'c@b.example', 0, 1)"});
  ASSERT_EQ(chmod(folder.c_str(), 0555), 0);
  expectFailure("cannot write beside " + kLists +
                    ": Permission denied; the old lists stay in force",
                old);
  ASSERT_EQ(chmod(folder.c_str(), 0755), 0);
  unlink(PackageTree::kSettings);
  const Outcome outcome = run();
  EXPECT_EQ(outcome.status, 1);
  EXPECT_EQ(outcome.err,
            "kest_spam_blackwhite: cannot read the settings (run as root); the map is as "
            "it was\n");
  EXPECT_EQ(lists(), old);
}

TEST_F(SpamBlackWhite, ItWaitsForAnotherAndWritesWhatIsStoredBehindThat) {
  store({"(1, 'a@b.example', 0, 1)"});
  const Outcome outcome = runAfterAnother("kest_spam_blackwhite", run,
                                          [] { store({"(1, 'c@b.example', 0, 1)"}); });
  EXPECT_EQ(outcome.status, 0);
  EXPECT_EQ(lists(), "blocklist_from a@b.example\nblocklist_from c@b.example\n");
}

// Whoever starts the filter may wait for another one's lists.
TEST_F(SpamBlackWhite, AFilterIsToldWhileAnotherMayWork) {
  writeFile("/var/packages/Postwell/target/scripts/SpamDaemon.sh",
            "#!/bin/sh\nexec flock -n " + lockOf("kest_spam_blackwhite") + " true\n",
            0755);
  make({});
}

TEST_F(SpamBlackWhite, WrongUsage) {
  const Outcome outcome = RUN_TEST_PROGRAM({"--help"});
  EXPECT_EQ(outcome.status, 2);
  EXPECT_EQ(outcome.err, "usage: kest_spam_blackwhite\n  takes no arguments\n");
  EXPECT_FALSE(fileExists(kLists));
}

}  // namespace
