#include "domain.h"

#include <unistd.h>

#include "support/files.h"
#include "support/library_test.h"

namespace {

using Calls = std::vector<std::string>;
using Names = std::list<std::string>;

const std::string kSettings = PackageTree::kSettings;

class DomainTest : public LibraryTest {
 protected:
  DomainTest() { writeDefaults(); }

  // The names that an object loads when the key holds this value.
  static Names loaded(const std::string &value) {
    writeFile(kSettings, "canonical_domain=\"" + value + "\"\n");
    Domain domains;
    EXPECT_EQ(domains.load(), 0);
    return domains.getDomain();
  }
};

// ---- load

TEST_F(DomainTest, AFreshObjectIsEmpty) {
  EXPECT_EQ(Domain().getDomain(), Names());
  EXPECT_EQ(platform::takeCalls(), Calls());
}

TEST_F(DomainTest, TheValueIsCutAtCommaAndBlank) {
  EXPECT_EQ(loaded("a.example, b.example"), (Names{"a.example", "b.example"}));
  EXPECT_EQ(loaded("a.example"), Names{"a.example"});
  EXPECT_EQ(loaded("a.example,b.example"), Names{"a.example,b.example"});
  EXPECT_EQ(loaded("a,  b"), (Names{"a", " b"}));
  EXPECT_EQ(loaded(", a, , b, "), (Names{"a", "b"}));
  EXPECT_EQ(loaded("b, a, b"), (Names{"b", "a", "b"}));
  EXPECT_EQ(loaded(""), Names());
}

TEST_F(DomainTest, AMissingKeyLoadsAnEmptyList) {
  writeFile(kSettings, "smtp_enabled=\"yes\"\n");
  Domain domains;
  domains.addDomain("replaced");
  EXPECT_EQ(domains.load(), 0);
  EXPECT_EQ(domains.getDomain(), Names());
}

TEST_F(DomainTest, LoadReplacesTheListAndRunsNothing) {
  Domain domains;
  domains.addDomain("replaced");
  writeFile(kSettings, "canonical_domain=\"a, b\"\n");
  EXPECT_EQ(domains.load(), 0);
  EXPECT_EQ(domains.load(), 0);
  EXPECT_EQ(domains.getDomain(), (Names{"a", "b"}));
  const std::string read =
      "KLIBCFileGetKeyValue /var/packages/Postwell/etc/postwell.conf canonical_domain "
      "8224";
  EXPECT_EQ(platform::takeCalls(), (Calls{read, read}));
}

TEST_F(DomainTest, AFailedLoadLeavesTheList) {
  unlink(kSettings.c_str());
  Domain domains;
  domains.addDomain("kept");
  EXPECT_EQ(domains.load(), -1);
  EXPECT_EQ(domains.getDomain(), Names{"kept"});
  writeDefaults();
  platform::failCall("KLIBCFileGetKeyValue");
  EXPECT_EQ(domains.load(), -1);
  EXPECT_EQ(domains.getDomain(), Names{"kept"});
  const std::string failed = "domain.cpp: Fail to get Domain list";
  expectLog({failed, failed});
}

TEST_F(DomainTest, AValueOf8223BytesIsReadWholeAndALongerOneNotAtAll) {
  EXPECT_EQ(loaded(std::string(8223, 'x')), Names{std::string(8223, 'x')});
  writeFile(kSettings, "canonical_domain=\"" + std::string(8224, 'x') + "\"\n");
  Domain domains;
  EXPECT_EQ(domains.load(), -1);
  expectLog({"domain.cpp: Fail to get Domain list"});
}

// ---- editing

TEST_F(DomainTest, EditingChangesMemoryOnly) {
  const std::string before = readFile(kSettings);
  Domain domains;
  domains.setDomain({"a", "b"});
  domains.addDomain("b");
  domains.addDomain(Names{"c", "a"});
  EXPECT_EQ(domains.getDomain(), (Names{"a", "b", "b", "c", "a"}));
  domains.delDomain("b");
  EXPECT_EQ(domains.getDomain(), (Names{"a", "c", "a"}));
  domains.delDomain("A");
  domains.delDomain("unknown");
  EXPECT_EQ(domains.getDomain(), (Names{"a", "c", "a"}));
  domains.delDomain(Names{"x", "a"});
  EXPECT_EQ(domains.getDomain(), Names{"c"});
  domains.setDomain({});
  EXPECT_EQ(domains.getDomain(), Names());
  EXPECT_EQ(readFile(kSettings), before);
  EXPECT_EQ(platform::takeCalls(), Calls());
}

TEST_F(DomainTest, TheListGivenOutIsACopy) {
  Domain domains;
  domains.addDomain("a");
  Names copy = domains.getDomain();
  copy.push_back("b");
  EXPECT_EQ(domains.getDomain(), Names{"a"});
}

TEST_F(DomainTest, AListMayBeEditedWithItsOwnNames) {
  Domain domains;
  domains.setDomain({"a", "b"});
  domains.addDomain(domains.getDomain());
  EXPECT_EQ(domains.getDomain(), (Names{"a", "b", "a", "b"}));
  domains.delDomain(domains.getDomain());
  EXPECT_EQ(domains.getDomain(), Names());
}

// ---- save

const char kWrite[] =
    "KLIBCFileSetKeyValue /var/packages/Postwell/etc/postwell.conf canonical_domain ";
const char kConfigure[] =
    "KLIBCExec /var/packages/Postwell/target/scripts/DaemonConfSet.sh smtp";
const char kRestart[] =
    "KLIBCExec /var/packages/Postwell/target/scripts/PostfixDaemon.sh restart";

TEST_F(DomainTest, SaveWritesTheKeyThenConfiguresThenRestarts) {
  const std::string before = readFile(kSettings);
  Domain domains;
  domains.setDomain({"a.example", "b.example"});
  EXPECT_EQ(domains.save(), 0);
  EXPECT_EQ(platform::takeCalls(),
            (Calls{kWrite + std::string("a.example, b.example"), kConfigure, kRestart}));
  EXPECT_EQ(tree.takeCalls(),
            (Calls{"DaemonConfSet.sh smtp", "PostfixDaemon.sh restart"}));
  std::string expected = before;
  expected.replace(expected.find("canonical_domain=\"\""), 19,
                   "canonical_domain=\"a.example, b.example\"");
  EXPECT_EQ(readFile(kSettings), expected);
}

TEST_F(DomainTest, SaveDropsOnlyNeighboursThatAreEqual) {
  Domain domains;
  domains.setDomain({"a", "a", "b", "b", "b", "c"});
  EXPECT_EQ(domains.save(), 0);
  EXPECT_EQ(stored("canonical_domain"), "a, b, c");
  EXPECT_EQ(domains.getDomain(), (Names{"a", "b", "c"}));
  domains.setDomain({"a", "b", "a", "A"});
  EXPECT_EQ(domains.save(), 0);
  EXPECT_EQ(stored("canonical_domain"), "a, b, a, A");
}

TEST_F(DomainTest, AnEmptyListIsWrittenAndStillRestarts) {
  writeFile(kSettings, "canonical_domain=\"old\"\n");
  EXPECT_EQ(Domain().save(), 0);
  EXPECT_EQ(readFile(kSettings), "canonical_domain=\"\"\n");
  EXPECT_EQ(tree.takeCalls(),
            (Calls{"DaemonConfSet.sh smtp", "PostfixDaemon.sh restart"}));
}

TEST_F(DomainTest, WhatIsSavedIsLoadedAgain) {
  const Names names = {"a.example", "o'hara \"x\"", "100%s", "J\xc3\xb6rg.example",
                       std::string(1000, 'n')};
  Domain saved, read;
  saved.setDomain(names);
  EXPECT_EQ(saved.save(), 0);
  EXPECT_EQ(read.load(), 0);
  EXPECT_EQ(read.getDomain(), names);
}

struct Step {
  const char *function;  // of the platform
  int nth;
  const char *message;
  std::string stored;
  Calls scripts;  // that have run before
};

TEST_F(DomainTest, SaveEndsAtTheStepThatFails) {
  const Step steps[] = {
      {"KLIBCFileSetKeyValue", 1, "domain.cpp: Set Key SZK_DOMAIN fail", "", {}},
      {"KLIBCExec", 1, "domain.cpp: Fail to exec SZ_SET_DAEMON_CONF", "a", {}},
      {"KLIBCExec",
       2,
       "domain.cpp: Fail to exec SZ_POSTFIX_DAEMON",
       "a",
       {"DaemonConfSet.sh smtp"}}};
  for (const Step &step : steps) {
    writeDefaults();
    platform::reset();
    platform::failCall(step.function, step.nth);
    Domain domains;
    domains.setDomain({"a", "a"});
    EXPECT_EQ(domains.save(), -1);
    expectLog({step.message});
    EXPECT_EQ(stored("canonical_domain"), step.stored);
    EXPECT_EQ(tree.takeCalls(), step.scripts);
    EXPECT_EQ(domains.getDomain(), Names{"a"});  // neighbours merged all the same
  }
}

TEST_F(DomainTest, AScriptThatFailsFailsTheSave) {
  Domain domains;
  tree.failScript("PostfixDaemon.sh", 3, "restart");
  EXPECT_EQ(domains.save(), -1);
  tree.failScript("DaemonConfSet.sh", 1, "smtp");
  EXPECT_EQ(domains.save(), -1);
  expectLog({"domain.cpp: Fail to exec SZ_POSTFIX_DAEMON",
             "domain.cpp: Fail to exec SZ_SET_DAEMON_CONF"});
}

TEST_F(DomainTest, ANameThatTheFileCannotHoldIsRefused) {
  const std::string before = readFile(kSettings);
  for (const std::string &name :
       {std::string("a\nsmtp_enabled=\"yes"), std::string("a.example\0x", 11)}) {
    Domain domains;
    domains.addDomain(name);
    EXPECT_EQ(domains.save(), -1);
    expectLog({"domain.cpp: Set Key SZK_DOMAIN fail"});
  }
  EXPECT_EQ(readFile(kSettings), before);
  EXPECT_EQ(tree.takeCalls(), Calls());
}

}  // namespace
