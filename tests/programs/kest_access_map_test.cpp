// kest_access_map: from the access rules in postwell.db to the tables that Postfix looks
// things up in.

#include "programs/rule_map_test.h"

namespace {

class AccessMap : public RuleMapTest {
 protected:
  static void store(const Rows &rows) { RuleMapTest::store("access_table", rows); }

  static Outcome run() { return RUN_TEST_PROGRAM({}); }

  // A run that leaves nothing out.
  static void make() {
    const Outcome outcome = run();
    EXPECT_EQ(outcome.status, 0);
    EXPECT_EQ(outcome.out, "");
    EXPECT_EQ(outcome.err, "");
  }

  static Sample sample() {
    return {"kest_access_map",
            run,
            "access_table",
            "(2, 'old.example', 0, 2)",
            "(2, 'new.example', 0, 2)",
            "access_sender",
            "old.example",
            "new.example"};
  }
};

TEST_F(AccessMap, EachSideHasItsTable) {
  store(
      {"(2, 'a.example', 0, 2)", "(1, 'Amy@B.example', 1, 3)", "(2, 'c.example', 2, 1)"});
  make();
  EXPECT_EQ(readFile(kFolder + "/access_sender"), "a.example REJECT\n");
  EXPECT_EQ(readFile(kFolder + "/access_recipient"), "amy@b.example DISCARD\n");
  EXPECT_EQ(readFile(kFolder + "/access_client"), "c.example OK\n");
  EXPECT_EQ(find("access_sender", "a.example"), "REJECT");
  EXPECT_EQ(find("access_recipient", "AMY@b.example"), "DISCARD");
  EXPECT_EQ(find("access_client", "c.example"), "OK");
  EXPECT_EQ(find("access_client", "a.example"), "");
  EXPECT_EQ(folder(),
            Rows({"access_client", "access_client.lmdb", "access_recipient",
                  "access_recipient.lmdb", "access_sender", "access_sender.lmdb"}));
}

TEST_F(AccessMap, AnAccountIsOneInEveryLocalDomainAndInNoOther) {
  store({"(0, 'Amy', 0, 2)", "(0, 'CORP\\Eve', 1, 2)", "(0, 'finn@corp.example', 1, 3)"});
  make();
  for (const char *domain : {"mail.example", "localhost", "b.example"}) {
    EXPECT_EQ(find("access_sender", std::string("amy@") + domain), "REJECT");
    EXPECT_EQ(find("access_recipient", std::string("eve@") + domain), "REJECT");
    EXPECT_EQ(find("access_recipient", std::string("finn@") + domain), "DISCARD");
  }
  for (const char *key : {"amy@", "amy", "amy@elsewhere.example", "amy@bad_name"})
    EXPECT_EQ(find("access_sender", key), "") << key;
  EXPECT_EQ(find("access_recipient", "finn@corp.example"), "");
}

TEST_F(AccessMap, WithoutAHostNameTheMachineHasItsOwn) {
  writeFile(PackageTree::kSettings, "smtp_hostname=\"\"\n");
  store({"(0, 'amy', 0, 2)"});
  make();
  std::string host =
      runNative("/usr/sbin/postconf", {"-c", kPostmapConfig, "-h", "myhostname"}).out;
  ASSERT_FALSE(host.empty());
  host.pop_back();
  EXPECT_EQ(find("access_sender", "amy@" + host), "REJECT");
}

TEST_F(AccessMap, ClientsAreHostsAddressesAndNetworks) {
  store({"(2, 'Host.example', 2, 2)", "(1, '192.0.2.1', 2, 2)", "(2, '198.51.100', 2, 3)",
         "(2, '10', 2, 1)", "(2, '2001:DB8:0:0::1', 2, 2)"});
  make();
  EXPECT_EQ(readFile(kFolder + "/access_client"),
            "10 OK\n192.0.2.1 REJECT\n198.51.100 DISCARD\n2001:db8::1 REJECT\n"
            "host.example REJECT\n");
}

TEST_F(AccessMap, LettersOfOtherScriptsMayStandInTheLocalPart) {
  store({"(1, 'j\xc3\xb6rg@b.example', 0, 2)", "(0, 'zo\xc3\xab', 1, 2)"});
  make();
  EXPECT_EQ(find("access_sender", "j\xc3\xb6rg@b.example"), "REJECT");
  EXPECT_EQ(find("access_recipient", "zo\xc3\xab@localhost"), "REJECT");
}

TEST_F(AccessMap, WhatATableCannotCarryIsNamedAndLeftOut) {
  store({"(2, 'good.example', 0, 2)",
         "(1, 'x@y.example OK' || char(10) || 'z.example', 0, 2)",
         "(1, '#x@y.example', 0, 2)",
         "(1, 'a b@y.example', 0, 2)",
         "(1, '\"a\"@y.example', 0, 2)",
         "(1, 'no address', 1, 2)",
         "(1, 'a@' || char(255), 1, 2)",
         "(2, 'a_b', 0, 2)",
         "(2, '', 0, 2)",
         "(2, '.example', 1, 2)",
         "(0, '|touch x', 0, 2)",
         "(0, '', 0, 2)",
         "(0, 'amy', 2, 2)",
         "(1, 'amy@b.example', 2, 2)",
         "(2, '192.0.2.256', 2, 2)",
         "(2, '192.0.2.0/24', 2, 2)",
         "(2, 'unknown.example', 0, 0)",
         "(2, 'odd.example', 0, 7)",
         "(7, 'kind.example', 0, 2)",
         "(2, 'type.example', 5, 2)",
         "(NULL, NULL, NULL, NULL)"});
  const Outcome outcome = run();
  EXPECT_EQ(outcome.status, 0);
  const auto says = [&outcome](const std::string &line) {
    const bool said =
        outcome.err.find("kest_access_map: " + line + "\n") != std::string::npos;
    EXPECT_TRUE(said) << line;
  };
  const std::string noAddress = " is left out: it is no mail address",
                    noDomain = " is left out: it is no domain name",
                    noAccount = " is left out: it is no account name",
                    noHost = " is left out: it is no host, domain or IP address";
  says("sender rule \"x@y.example OK\\x0az.example\"" + noAddress);
  says("sender rule \"#x@y.example\"" + noAddress);
  says("sender rule \"a b@y.example\"" + noAddress);
  says("sender rule \"\"a\"@y.example\"" + noAddress);
  says("recipient rule \"no address\"" + noAddress);
  says("sender rule \"a_b\"" + noDomain);
  says("sender rule \"\"" + noDomain);
  says("recipient rule \".example\"" + noDomain);
  says("sender rule \"|touch x\"" + noAccount);
  says("sender rule \"\"" + noAccount);
  says("client rule \"amy\" is left out: a client has no account");
  says("client rule \"amy@b.example\"" + noHost);
  says("client rule \"192.0.2.256\"" + noHost);
  says("client rule \"192.0.2.0/24\"" + noHost);
  says("sender rule \"unknown.example\" is left out: its action is unknown");
  says("sender rule \"odd.example\" is left out: its action is unknown");
  says("sender rule \"kind.example\" is left out: it is of an unknown kind");
  says("unknown rule \"type.example\" is left out: it is of an unknown type");
  says("sender rule \"\" is left out: its action is unknown");
  EXPECT_EQ(std::count(outcome.err.begin(), outcome.err.end(), '\n'), 20);
  EXPECT_EQ(readFile(kFolder + "/access_sender"), "good.example REJECT\n");
  EXPECT_EQ(readFile(kFolder + "/access_recipient"), "");
  EXPECT_EQ(readFile(kFolder + "/access_client"), "");
}

TEST_F(AccessMap, OfTwoRulesForOneKeyTheFirstNameCounts) {
  store({"(2, 'A.example', 0, 2)", "(2, 'a.example', 0, 1)", "(2, 'a.EXAMPLE', 0, 2)"});
  const Outcome outcome = run();
  EXPECT_EQ(outcome.status, 0);
  EXPECT_EQ(outcome.err,
            "kest_access_map: sender rule \"a.example\" is left out: the rule "
            "\"A.example\" says otherwise\n");
  EXPECT_EQ(find("access_sender", "a.example"), "REJECT");
}

TEST_F(AccessMap, ARuleOnAnAddressCountsForMoreThanOneOnItsAccount) {
  store({"(0, 'amy', 1, 2)", "(1, 'amy@b.example', 1, 1)"});
  make();
  EXPECT_EQ(find("access_recipient", "amy@b.example"), "OK");
  EXPECT_EQ(find("access_recipient", "amy@mail.example"), "REJECT");
}

TEST_F(AccessMap, WithoutRulesOrWithoutTheirFileTheFirstTablesAreEmpty) {
  make();
  EXPECT_EQ(readFile(kFolder + "/access_sender"), "");
  EXPECT_TRUE(fileExists(kFolder + "/access_sender.lmdb"));
}

TEST_F(AccessMap, TheFirstTablesNeedNoFile) {
  unlink(kDatabase.c_str());
  make();
  EXPECT_TRUE(fileExists(kFolder + "/access_recipient.lmdb"));
  make();  // nor do later ones, as long as there has been no rule
  EXPECT_FALSE(fileExists(kDatabase));
}

TEST_F(AccessMap, ALaterMapReplacesTheFirst) {
  expectOldMap(sample());
  ASSERT_EQ(database::Connection(kDatabase).run(
                "delete from access_table where name = 'old.example';"),
            0);
  make();
  EXPECT_EQ(find("access_sender", "old.example"), "");
  EXPECT_EQ(find("access_sender", "new.example"), "REJECT");
}

TEST_F(AccessMap, ADamagedOrMissingFileDoesNotEmptyTheMap) {
  expectADamagedOrMissingFileLeavesTheMap(sample());
}

TEST_F(AccessMap, AMapThatCannotBeMadeLeavesTheOldInForce) {
  expectAMapThatCannotBeMadeLeavesTheOld(sample());
}

TEST_F(AccessMap, SettingsThatCannotBeRead) {
  expectOldMap(sample());
  unlink(PackageTree::kSettings);
  expectFailure(sample(),
                "cannot read the settings (run as root); the map is as it was\n");
}

TEST_F(AccessMap, ItWaitsForAnotherAndReadsTheRulesBehindThat) {
  expectMakersTakeTurns(sample());
}

TEST_F(AccessMap, AKillLeavesTheOldMapOrTheNew) { expectAKillLeavesAMap(sample()); }

TEST_F(AccessMap, WithoutALockNothingIsMade) { expectFailureWithoutALock(sample()); }

TEST_F(AccessMap, WrongUsage) {
  const Outcome outcome = RUN_TEST_PROGRAM({"--help"});
  EXPECT_EQ(outcome.status, 2);
  EXPECT_EQ(outcome.err, "usage: kest_access_map\n  takes no arguments\n");
  EXPECT_EQ(folder(), Rows());
}

}  // namespace
