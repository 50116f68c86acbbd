#include "spam_filter.h"

#include <dlfcn.h>
#include <sys/stat.h>
#include <unistd.h>

#include "kestcore.h"
#include "support/files.h"
#include "support/fresh_process.h"
#include "support/library_test.h"

namespace {

using Calls = std::vector<std::string>;
using Servers = std::list<DNSBinfo>;

const std::string kSettings = PackageTree::kSettings;
const std::string kFile = "/var/packages/Postwell/etc/spamlist.conf";
const std::string kHeads = "[RBL server]\n[RHSBL server]\n";
const char kConfigure[] =
    "KLIBCExec /var/packages/Postwell/target/scripts/DaemonConfSet.sh smtp";
const std::string kNotOpened = "utils.cpp: Open " + kFile + " fail";
const std::string kNoRBL =
    "spam_filter.cpp: GetSectionContent SZ_SPAM_LIST_RBL_SERVER fail";
const std::string kNoRHSBL =
    "spam_filter.cpp: GetSectionContent SZ_SPAM_LIST_RHSBL_SERVER fail";
const std::string kNoList = "spam_filter.cpp: loadWhiteList fail";
const std::string kBlank = "utils.cpp: KLIBCStrTrimSpace :  fail";

bool removeFileWhileRead = false;

}  // namespace

// Takes the platform's place to remove the file between the reading of its sections.
extern "C" __attribute__((visibility("default"))) int KLIBCIFileMatchSection(
    const char *line, int length, const char *section) {
  if (removeFileWhileRead) {
    EXPECT_STREQ(section, "RBL server");
    unlink(kFile.c_str());
  }
  return reinterpret_cast<decltype(&KLIBCIFileMatchSection)>(
      dlsym(RTLD_NEXT, "KLIBCIFileMatchSection"))(line, length, section);
}

namespace {

DNSBinfo rbl(const std::string &name) { return {name, RBL}; }
DNSBinfo rhsbl(const std::string &name) { return {name, RHSBL}; }

// Servers as words "type:name".
Calls shown(const Servers &servers) {
  Calls words;
  for (const DNSBinfo &server : servers)
    words.push_back(std::to_string(server.type) + ":" + server.strServerName);
  return words;
}

// ---- the instance; first, since it stays once it is made

class DNSBLInstanceTest : public LibraryTest {
 protected:
  DNSBLInstanceTest() {
    writeFile(kSettings, "spam_dnsbl_enable=\"yes\"\n");
    writeFile(kFile, "[RBL server]\na.example\n[RHSBL server]\nb.example\n");
  }

  static void expectLoaded() {
    DNSBL *const dnsbl = DNSBL::getInstance();
    ASSERT_NE(dnsbl, nullptr);
    EXPECT_EQ(DNSBL::getInstance(), dnsbl);
    EXPECT_TRUE(dnsbl->isDNSBLEnabled());
    EXPECT_EQ(shown(dnsbl->getDNSBList()), (Calls{"0:a.example", "1:b.example"}));
  }
};

TEST_F(DNSBLInstanceTest, IsLoadedOnFirstUseAndOnce) {
  inFreshProcess([] {
    expectLoaded();
    EXPECT_EQ(platform::takeCalls(),
              (Calls{"KLIBCSzHashAlloc 1024", "KLIBCFileGetPair " + kSettings}));
  });
  EXPECT_EQ(tree.takeCalls(), Calls());
}

TEST_F(DNSBLInstanceTest, WithoutTheKeyItIsOff) {
  writeFile(kSettings, "");
  inFreshProcess([] { EXPECT_FALSE(DNSBL::getInstance()->isDNSBLEnabled()); });
}

TEST_F(DNSBLInstanceTest, WithoutMemoryForTheSettingsThereIsNoneUntilTheNextCall) {
  inFreshProcess([] {
    platform::failCall("KLIBCSzHashAlloc");
    EXPECT_EQ(DNSBL::getInstance(), nullptr);
    expectLoaded();
  });
  expectLog({"spam_filter.cpp: Out of memory"});
}

TEST_F(DNSBLInstanceTest, WithoutSettingsThereIsNoneUntilThereAreSome) {
  inFreshProcess([] {
    ASSERT_EQ(chmod(kSettings.c_str(), 0), 0);
    EXPECT_EQ(DNSBL::getInstance(), nullptr);
    const std::string away = kSettings + ".away";
    ASSERT_EQ(rename(kSettings.c_str(), away.c_str()), 0);
    EXPECT_EQ(DNSBL::getInstance(), nullptr);
    ASSERT_EQ(rename(away.c_str(), kSettings.c_str()), 0);
    ASSERT_EQ(chmod(kSettings.c_str(), 0644), 0);
    expectLoaded();
  });
  const std::string unread = "spam_filter.cpp: KLIBCFileGetPair fail";
  expectLog({unread, unread});
}

TEST_F(DNSBLInstanceTest, WithoutItsFileThereIsNoneUntilThereIsOne) {
  inFreshProcess([] {
    ASSERT_EQ(chmod(kFile.c_str(), 0), 0);
    EXPECT_EQ(DNSBL::getInstance(), nullptr);
    const std::string away = kFile + ".away";
    ASSERT_EQ(rename(kFile.c_str(), away.c_str()), 0);
    EXPECT_EQ(DNSBL::getInstance(), nullptr);
    ASSERT_EQ(rename(away.c_str(), kFile.c_str()), 0);
    ASSERT_EQ(chmod(kFile.c_str(), 0644), 0);
    expectLoaded();
  });
  expectLog({kNotOpened, kNoRBL, kNoList, kNotOpened, kNoRBL, kNoList});
}

TEST_F(DNSBLInstanceTest, AfterAFailureHalfWayTheNextCallBeginsAnew) {
  inFreshProcess([] {
    const std::string content = readFile(kFile);
    removeFileWhileRead = true;
    EXPECT_EQ(DNSBL::getInstance(), nullptr);
    removeFileWhileRead = false;
    writeFile(kFile, content);
    expectLoaded();
  });
  expectLog({kNotOpened, kNoRHSBL, kNoList});
}

// ---- everything else

class DNSBLTest : public LibraryTest {
 protected:
  DNSBLTest() : dnsbl(*madeOnce()) {
    dnsbl.setEnableDNSBL(false);
    dnsbl.setDNSBList({});
    platform::reset();
  }

  static DNSBL *madeOnce() {
    writeDefaults();
    writeFile(kFile, kHeads);
    return DNSBL::getInstance();
  }

  // What is loaded from this file.
  Calls loaded(const std::string &text) {
    writeFile(kFile, text);
    dnsbl.setDNSBList({});
    EXPECT_EQ(dnsbl.loadSettings(), 0);
    return shown(dnsbl.getDNSBList());
  }

  // What applying this list writes.
  std::string applied(const Servers &servers) {
    dnsbl.setDNSBList(servers);
    EXPECT_EQ(dnsbl.applySettings(), 0);
    return readFile(kFile);
  }

  DNSBL &dnsbl;
};

TEST_F(DNSBLTest, RecordsAreEqualWhenNameAndTypeAre) {
  EXPECT_TRUE(rbl("a") == rbl("a"));
  EXPECT_FALSE(rbl("a") == rhsbl("a"));
  EXPECT_FALSE(rbl("a") == rbl("A"));
  EXPECT_FALSE(rbl("a") == rbl("a "));
}

// ---- load

TEST_F(DNSBLTest, ServersAreReadInTheOrderOfTheirSections) {
  EXPECT_EQ(loaded("[RBL server]\nb\na\n[RHSBL server]\nd\nc\n"),
            (Calls{"0:b", "0:a", "1:d", "1:c"}));
  EXPECT_EQ(loaded("x\n[RHSBL server]\nc\n[other]\ny\n[RBL server]\na\n"),
            (Calls{"0:a", "1:c"}));
  EXPECT_EQ(loaded(kHeads), Calls());
}

TEST_F(DNSBLTest, AMissingSectionIsEmpty) {
  EXPECT_EQ(loaded("[RBL server]\na\n"), Calls{"0:a"});
  EXPECT_EQ(loaded("[RHSBL server]\nb\n"), Calls{"1:b"});
  EXPECT_EQ(loaded(""), Calls());
}

TEST_F(DNSBLTest, LineEndsOfAnotherSystemAndAMissingLastOne) {
  EXPECT_EQ(loaded("[RBL server]\r\na\r\nb\r\n[RHSBL server]\r\nc\r\nd"),
            (Calls{"0:a", "0:b", "1:c", "1:d"}));
  EXPECT_EQ(loaded("[RBL server]\na"), Calls{"0:a"});
}

TEST_F(DNSBLTest, WhiteSpaceAroundANameGoesAndABlankLineIsSkippedAndLogged) {
  EXPECT_EQ(loaded("[RBL server]\n  a \t\n\n \t \r\n\tb c\n[RHSBL server]\n"),
            (Calls{"0:a", "0:b c"}));
  expectLog({kBlank, kBlank});
}

TEST_F(DNSBLTest, RepeatedServersAndCommentsAreServers) {
  EXPECT_EQ(loaded("[RBL server]\na\na\n# b\na\n[RHSBL server]\na\n; c\n"),
            (Calls{"0:a", "0:a", "0:# b", "0:a", "1:a", "1:; c"}));
}

TEST_F(DNSBLTest, LinesOf100KBAreReadAndWrittenWhole) {
  const std::string one(100'000, 'x'), other(100'000, 'y');
  const std::string text = "[RBL server]\n" + one + "\n[RHSBL server]\n" + other + "\n";
  EXPECT_EQ(loaded(text), (Calls{"0:" + one, "1:" + other}));
  EXPECT_EQ(applied(dnsbl.getDNSBList()), text);
}

TEST_F(DNSBLTest, AHalfWrittenFileGivesWhatItHas) {
  EXPECT_EQ(loaded("[RBL server]\na.example\nb.exa"), (Calls{"0:a.example", "0:b.exa"}));
  EXPECT_EQ(loaded("[RBL server]\na.example\n[RHSBL ser"), Calls{"0:a.example"});
}

TEST_F(DNSBLTest, LoadingAddsToTheList) {
  dnsbl.setDNSBList({rhsbl("old")});
  writeFile(kFile, "[RBL server]\na\n");
  EXPECT_EQ(dnsbl.loadSettings(), 0);
  EXPECT_EQ(dnsbl.loadSettings(), 0);
  EXPECT_EQ(shown(dnsbl.getDNSBList()), (Calls{"1:old", "0:a", "0:a"}));
}

TEST_F(DNSBLTest, OnlyTheExactWordYesTurnsItOnAndAnAbsentKeyLeavesIt) {
  for (const char *value : {"Yes", "1", "", "on"}) {
    dnsbl.setEnableDNSBL(true);
    writeFile(kSettings, "spam_dnsbl_enable=\"" + std::string(value) + "\"\n");
    EXPECT_EQ(dnsbl.loadSettings(), 0);
    EXPECT_FALSE(dnsbl.isDNSBLEnabled()) << value;
  }
  writeFile(kSettings, "spam_dnsbl_enable=\"yes\"\n");
  EXPECT_EQ(dnsbl.loadSettings(), 0);
  EXPECT_TRUE(dnsbl.isDNSBLEnabled());
  writeFile(kSettings, "");
  EXPECT_EQ(dnsbl.loadSettings(), 0);
  EXPECT_TRUE(dnsbl.isDNSBLEnabled());
}

TEST_F(DNSBLTest, AFailedLoadKeepsWhatWasReadBefore) {
  writeFile(kSettings, "spam_dnsbl_enable=\"yes\"\n");
  writeFile(kFile, "[RBL server]\na\n[RHSBL server]\nb\n");
  removeFileWhileRead = true;
  EXPECT_EQ(dnsbl.loadSettings(), -1);
  removeFileWhileRead = false;
  EXPECT_TRUE(dnsbl.isDNSBLEnabled());
  EXPECT_EQ(shown(dnsbl.getDNSBList()), Calls{"0:a"});
  expectLog({kNotOpened, kNoRHSBL, kNoList});
}

// ---- editing

TEST_F(DNSBLTest, EditingChangesMemoryOnly) {
  const std::string settings = readFile(kSettings);
  dnsbl.setEnableDNSBL(true);
  EXPECT_TRUE(dnsbl.isDNSBLEnabled());
  dnsbl.setDNSBList({rbl("b"), rhsbl("a")});
  dnsbl.addDNSBList({rbl("a"), rbl("b"), rbl("b")});
  dnsbl.addDNSBList({});
  EXPECT_EQ(shown(dnsbl.getDNSBList()), (Calls{"0:b", "1:a", "0:a", "0:b", "0:b"}));
  dnsbl.setDNSBList({rbl("c")});
  EXPECT_EQ(shown(DNSBL::getInstance()->getDNSBList()), Calls{"0:c"});
  EXPECT_EQ(readFile(kSettings), settings);
  EXPECT_EQ(readFile(kFile), kHeads);
  EXPECT_EQ(platform::takeCalls(), Calls());
}

TEST_F(DNSBLTest, DeletingRemovesEveryCopyOfOneTypeAndIgnoresWhatIsNotThere) {
  dnsbl.setDNSBList({rbl("a"), rhsbl("a"), rbl("b"), rbl("a"), rbl("A")});
  dnsbl.delDNSBList({rbl("a"), rbl("x"), rhsbl("b")});
  EXPECT_EQ(shown(dnsbl.getDNSBList()), (Calls{"1:a", "0:b", "0:A"}));
  dnsbl.delDNSBList({});
  dnsbl.delDNSBList(dnsbl.getDNSBList());
  EXPECT_EQ(dnsbl.getDNSBList().size(), 0u);
}

TEST_F(DNSBLTest, TheListGivenOutIsACopy) {
  dnsbl.setDNSBList({rbl("a")});
  Servers copy = dnsbl.getDNSBList();
  copy.front().strServerName = "b";
  EXPECT_EQ(shown(dnsbl.getDNSBList()), Calls{"0:a"});
}

// ---- apply

TEST_F(DNSBLTest, AnEmptyListIsTheTwoHeaderLines) {
  writeFile(kFile, "[RBL server]\na much longer file than before\n");
  EXPECT_EQ(applied({}), kHeads);
}

TEST_F(DNSBLTest, AMissingFileIsMade) {
  unlink(kFile.c_str());
  EXPECT_EQ(applied({rhsbl("a")}), "[RBL server]\n[RHSBL server]\na\n");
}

TEST_F(DNSBLTest, RBLServersComeBeforeRHSBLServersEachInTheirOrder) {
  EXPECT_EQ(applied({rhsbl("z"), rbl("b"), rhsbl("y"), rbl("a")}),
            "[RBL server]\nb\na\n[RHSBL server]\nz\ny\n");
}

TEST_F(DNSBLTest, AServerTwiceInARowIsWrittenOnceAndFurtherDownAgain) {
  EXPECT_EQ(applied({rbl("a"), rbl("a"), rbl("a")}), "[RBL server]\na\n[RHSBL server]\n");
  EXPECT_EQ(applied({rhsbl("a"), rhsbl("b"), rhsbl("a")}),
            "[RBL server]\n[RHSBL server]\na\nb\na\n");
  // what stands between two of one type is of no account
  EXPECT_EQ(applied({rbl("a"), rhsbl("a"), rbl("a"), rbl("A")}),
            "[RBL server]\na\nA\n[RHSBL server]\na\n");
  EXPECT_EQ(dnsbl.getDNSBList().size(), 4u);  // the list itself stays
}

TEST_F(DNSBLTest, AServerAddedTwiceInARowIsWrittenOnceAndLaterAgain) {
  for (const char *name : {"a", "a", "b", "a"}) dnsbl.addDNSBList({rbl(name)});
  EXPECT_EQ(applied(dnsbl.getDNSBList()), "[RBL server]\na\nb\na\n[RHSBL server]\n");
}

TEST_F(DNSBLTest, ServersOfAnotherTypeAreNotWritten) {
  EXPECT_EQ(applied({{"x", static_cast<DNSBType>(2)}, rbl("a")}),
            "[RBL server]\na\n[RHSBL server]\n");
}

TEST_F(DNSBLTest, NamesAreWrittenAsTheyStand) {
  EXPECT_EQ(applied({rbl("100%s%n"), rbl(""), rbl("a b"), rhsbl("\xff")}),
            "[RBL server]\n100%s%n\n\na b\n[RHSBL server]\n\xff\n");
}

TEST_F(DNSBLTest, WhatIsAppliedIsLoadedAgain) {
  dnsbl.setEnableDNSBL(true);
  const Servers servers = {rbl("a.example"), rbl("b.example"), rhsbl("c.example")};
  const std::string text = applied(servers);
  dnsbl.setEnableDNSBL(false);
  EXPECT_EQ(loaded(text), shown(servers));
  EXPECT_TRUE(dnsbl.isDNSBLEnabled());
}

TEST_F(DNSBLTest, WithSMTPDisabledNothingIsRun) {
  dnsbl.setEnableDNSBL(true);
  EXPECT_EQ(dnsbl.applySettings(), 0);
  EXPECT_EQ(stored("spam_dnsbl_enable"), "yes");
  EXPECT_EQ(platform::takeCalls(),
            (Calls{"KLIBCSzHashAlloc 1024", "KLIBCFileSetKeys " + kSettings,
                   "KLIBCSzHashAlloc 1024", "KLIBCFileGetPair " + kSettings,
                   "KLIBCSzHashAlloc 1024", "KLIBCFileGetPair " + kSettings,
                   "KLIBCryptSzDecrypt 4095"}));
  EXPECT_EQ(tree.takeCalls(), Calls());
}

TEST_F(DNSBLTest, WithSMTPEnabledPostfixIsConfiguredAndNotRestarted) {
  writeFile(kSettings, "smtp_enabled=\"yes\"\nspam_dnsbl_enable=\"yes\"\n");
  EXPECT_EQ(dnsbl.applySettings(), 0);
  EXPECT_EQ(stored("spam_dnsbl_enable"), "no");
  EXPECT_EQ(callsOf({"KLIBCExec"}), Calls{kConfigure});
  EXPECT_EQ(tree.takeCalls(), Calls{"DaemonConfSet.sh smtp"});
}

TEST_F(DNSBLTest, ApplyingLeavesEverythingElseInTheSettingsUntouched) {
  writeFile(kSettings, "# by hand\nsmtp_port=\"2525\"\nspam_enable=\"yes\"\n");
  EXPECT_EQ(dnsbl.applySettings(), 0);
  EXPECT_EQ(readFile(kSettings),
            "# by hand\nsmtp_port=\"2525\"\nspam_enable=\"yes\"\n"
            "spam_dnsbl_enable=\"no\"\n");
}

TEST_F(DNSBLTest, MissingSettingsAreMade) {
  unlink(kSettings.c_str());
  EXPECT_EQ(dnsbl.applySettings(), 0);
  EXPECT_EQ(readFile(kSettings), "spam_dnsbl_enable=\"no\"\n");
}

// ---- apply: each failing step ends the sequence there

class DNSBLFailureTest : public DNSBLTest {
 protected:
  DNSBLFailureTest() {
    writeFile(kSettings, "smtp_enabled=\"yes\"\nspam_dnsbl_enable=\"no\"\n");
    dnsbl.setEnableDNSBL(true);
    dnsbl.setDNSBList({rbl("new")});
  }

  // Applying fails with these lines.
  void expectFailure(const std::vector<std::string> &lines) {
    EXPECT_EQ(dnsbl.applySettings(), -1);
    expectLog(lines);
  }

  const std::string kNew = "[RBL server]\nnew\n[RHSBL server]\n";
};

TEST_F(DNSBLFailureTest, BeforeTheSettingsAreWritten) {
  const std::string before = readFile(kSettings);
  platform::failCall("KLIBCSzHashAlloc");
  expectFailure({"spam_filter.cpp: Out of memory"});
  for (const char *function : {"KLIBCSzHashSetValue", "KLIBCFileSetKeys"}) {
    platform::failCall(function);
    expectFailure({"spam_filter.cpp: KLIBCFileSetKeys fail"});
  }
  EXPECT_EQ(readFile(kSettings), before);
  EXPECT_EQ(readFile(kFile), kHeads);
  EXPECT_EQ(tree.takeCalls(), Calls());
}

TEST_F(DNSBLFailureTest, UnreadableSettingsAreNotReplaced) {
  ASSERT_EQ(chmod(kSettings.c_str(), 0), 0);
  expectFailure({"spam_filter.cpp: KLIBCFileSetKeys fail"});
  EXPECT_EQ(readFile(kFile), kHeads);
  EXPECT_EQ(tree.takeCalls(), Calls());
}

TEST_F(DNSBLFailureTest, AFileThatCannotBeOpenedLeavesTheSwitchWrittenAndTheOldServers) {
  for (const mode_t mode : {0444u, 0222u}) {  // it is opened for both
    writeFile(kSettings, "smtp_enabled=\"yes\"\nspam_dnsbl_enable=\"no\"\n");
    ASSERT_EQ(chmod(kFile.c_str(), mode), 0);
    expectFailure({"spam_filter.cpp: open SZ_SPAM_FILTER_LIST fail",
                   "spam_filter.cpp: saveSpamList fail"});
    EXPECT_EQ(stored("spam_dnsbl_enable"), "yes");
  }
  ASSERT_EQ(chmod(kFile.c_str(), 0644), 0);
  EXPECT_EQ(readFile(kFile), kHeads);
  EXPECT_EQ(tree.takeCalls(), Calls());
}

TEST_F(DNSBLFailureTest, AFullDiskIsAFailure) {
  ASSERT_EQ(unlink(kFile.c_str()), 0);
  ASSERT_EQ(symlink("/dev/full", kFile.c_str()), 0);
  expectFailure({"spam_filter.cpp: write file " + kFile + " fail",
                 "spam_filter.cpp: saveSpamList fail"});
  EXPECT_EQ(stored("spam_dnsbl_enable"), "yes");
  EXPECT_EQ(tree.takeCalls(), Calls());
}

TEST_F(DNSBLFailureTest, SMTPSettingsThatCannotBeLoadedLeaveBothFilesWritten) {
  platform::failCall("KLIBCSzHashAlloc", 2);
  expectFailure({"smtp.cpp: Out of memory", "spam_filter.cpp: load smtp fail"});
  appendFile(kSettings, "smtp_relay_password=\"in the clear\"\n");
  expectFailure({"smtp.cpp: KLIBCryptSzDecrypt fail", "spam_filter.cpp: load smtp fail"});
  EXPECT_EQ(stored("spam_dnsbl_enable"), "yes");
  EXPECT_EQ(readFile(kFile), kNew);
  EXPECT_EQ(tree.takeCalls(), Calls());
}

TEST_F(DNSBLFailureTest, AFailedConfigurationLeavesBothFilesWritten) {
  tree.failScript("DaemonConfSet.sh", 1, "smtp");
  expectFailure({"spam_filter.cpp: fail to gen postfix config"});
  EXPECT_EQ(stored("spam_dnsbl_enable"), "yes");
  EXPECT_EQ(readFile(kFile), kNew);
  EXPECT_EQ(tree.takeCalls(), Calls{"DaemonConfSet.sh smtp"});
}

}  // namespace
