#include "security.h"

#include <sys/stat.h>
#include <unistd.h>

#include <climits>

#include "spam.h"
#include "spam_filter.h"
#include "support/files.h"
#include "support/fresh_process.h"
#include "support/library_test.h"

namespace {

using Calls = std::vector<std::string>;

const std::string kSettings = PackageTree::kSettings;
const std::string kServers = "/var/packages/Postwell/etc/spamlist.conf";
const std::string kHeads = "[RBL server]\n[RHSBL server]\n";
const std::string kScript =
    "KLIBCExec /var/packages/Postwell/target/scripts/DaemonConfSet.sh ";
const std::string kMadeLists =
    "DBHandler.cpp: /var/packages/Postwell/etc/postwell.db isn't exist, create DB";

// ---- the instance; first, since it stays once it is made

class SecurityInstanceTest : public LibraryTest {
 protected:
  SecurityInstanceTest() {
    writeFile(kSettings, "spam_clean_interval=\"7\"\nanti_virus_enable=\"yes\"\n");
    writeFile(kServers, kHeads);
  }

  static void expectLoaded() {
    Security *const security = Security::getInstance();
    ASSERT_NE(security, nullptr);
    EXPECT_EQ(Security::getInstance(), security);
    EXPECT_EQ(security->getSpamCleanInterval(), 7);
    EXPECT_TRUE(security->isEnableAntiVirus());
  }

  // What a process that finds these settings makes of them.
  void loaded(const std::string &settings, const std::function<void(Security &)> &check) {
    writeFile(kSettings, settings);
    unlink("/var/packages/Postwell/etc/postwell.db");
    inFreshProcess([&check] {
      ASSERT_NE(Security::getInstance(), nullptr);
      check(*Security::getInstance());
    });
    expectLog({kMadeLists});
  }
};

TEST_F(SecurityInstanceTest, IsLoadedOnFirstUseAndOnce) {
  inFreshProcess([] {
    expectLoaded();
    EXPECT_EQ(platform::takeCalls(),
              (Calls{"KLIBCSzHashAlloc 1024", "KLIBCFileGetPair " + kSettings,
                     "KLIBCSzHashAlloc 1024", "KLIBCFileGetPair " + kSettings,
                     "KLIBCSzHashAlloc 1024", "KLIBCFileGetPair " + kSettings}));
  });
  expectLog({kMadeLists});
  EXPECT_EQ(tree.takeCalls(), Calls());
}

TEST_F(SecurityInstanceTest, AbsentKeysGiveTheDefaults) {
  loaded("unrelated=\"1\"\n", [](Security &security) {
    EXPECT_EQ(security.getSpamCleanInterval(), 30);
    EXPECT_FALSE(security.isEnableAntiVirus());
    EXPECT_FALSE(security.isEnableSpamassassin());
    EXPECT_FALSE(security.isEnableDNSBL());
  });
  EXPECT_EQ(readFile(kSettings), "unrelated=\"1\"\n");
}

TEST_F(SecurityInstanceTest, EachSwitchIsThatOfItsKey) {
  const char *const keys[] = {"anti_virus_enable", "spam_enable", "spam_dnsbl_enable"};
  for (const std::string on : keys)
    loaded(on + "=\"yes\"\n", [on](Security &security) {
      EXPECT_EQ(security.isEnableAntiVirus(), on == "anti_virus_enable");
      EXPECT_EQ(security.isEnableSpamassassin(), on == "spam_enable");
      EXPECT_EQ(security.isEnableDNSBL(), on == "spam_dnsbl_enable");
    });
}

TEST_F(SecurityInstanceTest, TheIntervalIsAnyNumberAndOnlyTheExactWordYesIsTrue) {
  const std::pair<const char *, int> cases[] = {
      {"0", 0}, {"-1", -1}, {"14 days", 14}, {"", 0}, {"x", 0}, {"99999999999", INT_MAX}};
  for (const auto &[text, number] : cases)
    loaded(
        "spam_clean_interval=\"" + std::string(text) + "\"\nanti_virus_enable=\"Yes\"\n",
        [expected = number](Security &security) {
          EXPECT_EQ(security.getSpamCleanInterval(), expected);
          EXPECT_FALSE(security.isEnableAntiVirus());
        });
}

TEST_F(SecurityInstanceTest, OfAHalfWrittenFileWholeLinesCount) {
  loaded("anti_virus_enable=\"yes\"\nspam_clean_interval=\"9", [](Security &security) {
    EXPECT_TRUE(security.isEnableAntiVirus());
    EXPECT_EQ(security.getSpamCleanInterval(), 30);
  });
}

TEST_F(SecurityInstanceTest, WithoutMemoryForTheSettingsThereIsNoneUntilTheNextCall) {
  inFreshProcess([] {
    platform::failCall("KLIBCSzHashAlloc");
    EXPECT_EQ(Security::getInstance(), nullptr);
    EXPECT_EQ(platform::takeCalls(), Calls{"KLIBCSzHashAlloc 1024"});
    expectLoaded();
  });
  expectLog({"security.cpp: Out of memory", kMadeLists});
}

TEST_F(SecurityInstanceTest, WithoutSettingsThereIsNoneUntilThereAreSome) {
  inFreshProcess([] {
    ASSERT_EQ(chmod(kSettings.c_str(), 0), 0);
    EXPECT_EQ(Security::getInstance(), nullptr);
    const std::string away = kSettings + ".away";
    ASSERT_EQ(rename(kSettings.c_str(), away.c_str()), 0);
    EXPECT_EQ(Security::getInstance(), nullptr);
    ASSERT_EQ(rename(away.c_str(), kSettings.c_str()), 0);
    ASSERT_EQ(chmod(kSettings.c_str(), 0644), 0);
    expectLoaded();
  });
  const std::string unread = "security.cpp: get config fail";
  expectLog({unread, unread, kMadeLists});
}

TEST_F(SecurityInstanceTest, WithoutTheSpamFilterThereIsNoneUntilTheNextCall) {
  inFreshProcess([] {
    platform::failCall("KLIBCFileGetPair", 2);
    EXPECT_EQ(Security::getInstance(), nullptr);
    EXPECT_EQ(callsOf({"KLIBCFileGetPair"}).size(), 2u);  // the blocklists were not tried
    expectLoaded();
  });
  expectLog({"spam.cpp: get config fail", "spam.cpp: load spam config fail",
             "security.cpp: get spam settings fail", kMadeLists});
}

TEST_F(SecurityInstanceTest, WithoutTheBlocklistsThereIsNoneUntilTheNextCall) {
  inFreshProcess([] {
    ASSERT_EQ(unlink(kServers.c_str()), 0);
    EXPECT_EQ(Security::getInstance(), nullptr);
    Spam *const spam = Spam::getInstance();  // has been made, and stays
    writeFile(kServers, kHeads);
    expectLoaded();
    EXPECT_EQ(Spam::getInstance(), spam);
  });
  expectLog({kMadeLists, "utils.cpp: Open " + kServers + " fail",
             "spam_filter.cpp: GetSectionContent SZ_SPAM_LIST_RBL_SERVER fail",
             "spam_filter.cpp: loadWhiteList fail",
             "security.cpp: get dnsbl settings fail"});
}

// ---- changing and applying

class SecurityTest : public LibraryTest {
 protected:
  SecurityTest() : security(*madeOnce()) {
    writeFile(kSettings, "");
    security.setSpamCleanInterval(30);
    security.setEnableAntiVirus(false);
    security.setEnableSpamassassin(false);
    security.setEnableDNSBL(false);
    DNSBL::getInstance()->setDNSBList({});
    log.take();  // of the first one
    platform::reset();
  }

  static Security *madeOnce() {
    writeFile(kSettings, "");
    writeFile(kServers, kHeads);
    return Security::getInstance();
  }

  Security &security;
};

TEST_F(SecurityTest, SettersChangeMemoryOnly) {
  security.setSpamCleanInterval(-5);
  security.setEnableAntiVirus(true);
  security.setEnableSpamassassin(true);
  security.setEnableDNSBL(true);
  EXPECT_EQ(security.getSpamCleanInterval(), -5);
  EXPECT_TRUE(security.isEnableAntiVirus());
  EXPECT_TRUE(security.isEnableSpamassassin());
  EXPECT_TRUE(security.isEnableDNSBL());
  EXPECT_EQ(readFile(kSettings), "");
  EXPECT_EQ(platform::takeCalls(), Calls());
}

TEST_F(SecurityTest, TheSpamFilterAndTheBlocklistsAreThoseOfTheProcess) {
  security.setEnableSpamassassin(true);
  EXPECT_TRUE(Spam::getInstance()->isEnableSpamassassin());
  EXPECT_FALSE(DNSBL::getInstance()->isDNSBLEnabled());
  security.setEnableDNSBL(true);
  EXPECT_TRUE(DNSBL::getInstance()->isDNSBLEnabled());
  Spam::getInstance()->setEnableSpamassassin(false);
  EXPECT_FALSE(security.isEnableSpamassassin());
  EXPECT_TRUE(security.isEnableDNSBL());
  DNSBL::getInstance()->setEnableDNSBL(false);
  EXPECT_FALSE(security.isEnableDNSBL());
}

TEST_F(SecurityTest, ApplyingRunsEveryStepInThisOrderAndNoService) {
  writeFile(kSettings, "smtp_enabled=\"yes\"\n");
  DNSBL::getInstance()->setDNSBList({{"a.example", RBL}});
  security.setSpamCleanInterval(7);
  security.setEnableAntiVirus(true);
  security.setEnableSpamassassin(true);
  security.setEnableDNSBL(true);
  EXPECT_EQ(security.applySettings(), 0);
  const std::string alloc = "KLIBCSzHashAlloc 1024",
                    write = "KLIBCFileSetKeys " + kSettings,
                    read = "KLIBCFileGetPair " + kSettings;
  EXPECT_EQ(platform::takeCalls(),
            (Calls{alloc, alloc, write, kScript + "spam",
                   "KLIBCFileGetKeyValue " + kSettings + " anti_virus_enable 16", write,
                   alloc, write, alloc, read, alloc, read, kScript + "smtp",
                   kScript + "mailscanner"}));
  EXPECT_EQ(tree.takeCalls(), (Calls{"DaemonConfSet.sh spam", "DaemonConfSet.sh smtp",
                                     "DaemonConfSet.sh mailscanner"}));
  EXPECT_EQ(stored("spam_clean_interval"), "7");
  for (const char *key : {"anti_virus_enable", "spam_enable", "spam_dnsbl_enable"})
    EXPECT_EQ(stored(key), "yes") << key;
  EXPECT_EQ(readFile(kServers), "[RBL server]\na.example\n[RHSBL server]\n");
}

TEST_F(SecurityTest, ItsOwnKeysAreWrittenBehindThoseOfTheSpamFilter) {
  writeFile(kSettings, "# by hand\nsmtp_port=\"2525\"\n");
  EXPECT_EQ(security.applySettings(), 0);
  const std::string text = readFile(kSettings);
  EXPECT_EQ(text.find("# by hand\nsmtp_port=\"2525\"\nspam_enable=\"no\"\n"), 0u);
  EXPECT_EQ(text.substr(text.find("spam_clean_interval")),
            "spam_clean_interval=\"30\"\nanti_virus_enable=\"no\"\n"
            "spam_dnsbl_enable=\"no\"\n");
}

TEST_F(SecurityTest, AnyIntervalIsWrittenAsItStands) {
  for (const int interval : {0, -1, INT_MAX, INT_MIN}) {
    security.setSpamCleanInterval(interval);
    EXPECT_EQ(security.applySettings(), 0);
    EXPECT_EQ(stored("spam_clean_interval"), std::to_string(interval));
  }
}

// ---- apply: each failing step ends the sequence there, and the result is 0

class SecurityFailureTest : public SecurityTest {
 protected:
  SecurityFailureTest() {
    writeFile(kSettings, "smtp_enabled=\"yes\"\n");
    security.setEnableAntiVirus(true);
    security.setEnableSpamassassin(true);
    security.setEnableDNSBL(true);
    DNSBL::getInstance()->setDNSBList({{"new", RBL}});
  }

  // Applying gives 0 and logs these lines; of the switches of spam filter, virus scanner
  // and blocklists as many were written, and of the scripts "spam", "smtp" and
  // "mailscanner" as many were run.
  void expectEnd(const std::vector<std::string> &lines, size_t written, size_t run) {
    EXPECT_EQ(security.applySettings(), 0);
    expectLog(lines);
    const char *const keys[] = {"spam_enable", "anti_virus_enable", "spam_dnsbl_enable"};
    for (size_t i = 0; i < 3; i++)
      EXPECT_EQ(stored(keys[i]), i < written ? "yes" : "(absent)") << keys[i];
    EXPECT_EQ(stored("spam_clean_interval"), written > 1 ? "30" : "(absent)");
    Calls scripts = {"DaemonConfSet.sh spam", "DaemonConfSet.sh smtp",
                     "DaemonConfSet.sh mailscanner"};
    scripts.resize(run);
    EXPECT_EQ(tree.takeCalls(), scripts);
  }
};

TEST_F(SecurityFailureTest, WithoutMemoryForItsTable) {
  platform::failCall("KLIBCSzHashAlloc");
  expectEnd({"security.cpp: Out of memory"}, 0, 0);
}

TEST_F(SecurityFailureTest, WithoutMemoryForTheSpamFiltersTable) {
  platform::failCall("KLIBCSzHashAlloc", 2);
  expectEnd({"spam.cpp: Out of memort", "security.cpp: save spam settings fail"}, 0, 0);
}

TEST_F(SecurityFailureTest, SpamSettingsThatCannotBeWritten) {
  platform::failCall("KLIBCFileSetKeys");
  expectEnd({"spam.cpp: set confing fail", "security.cpp: save spam settings fail"}, 0,
            0);
}

TEST_F(SecurityFailureTest, AFailingSpamConfigurationWritesNoneOfItsOwnKeys) {
  tree.failScript("DaemonConfSet.sh", 1, "spam");
  expectEnd({"spam.cpp: fail to generate spamassassin config",
             "security.cpp: save spam settings fail"},
            1, 1);
}

TEST_F(SecurityFailureTest, AKeyThatCannotBeReadIsNotWritten) {
  appendFile(kSettings, "anti_virus_enable=\"sixteen bytes ...\"\n");
  EXPECT_EQ(security.applySettings(), 0);
  expectLog({"security.cpp: KLIBCFileGetKeyValue error, kesterr=[0x0F00]"});
  EXPECT_EQ(stored("spam_enable"), "yes");
  EXPECT_EQ(stored("anti_virus_enable"), "sixteen bytes ...");
  EXPECT_EQ(stored("spam_clean_interval"), "(absent)");
  EXPECT_EQ(tree.takeCalls(), Calls{"DaemonConfSet.sh spam"});
}

TEST_F(SecurityFailureTest, AnOldValueOf15BytesIsReadWhateverItSays) {
  appendFile(kSettings, "anti_virus_enable=\"fifteen bytes..\"\n");
  expectEnd({}, 3, 3);
}

TEST_F(SecurityFailureTest, KeysOfItsOwnThatCannotBeWritten) {
  platform::failCall("KLIBCFileSetKeys", 2);
  expectEnd({"security.cpp: set confing fail"}, 1, 1);
  for (const int nth : {10, 11}) {  // behind the spam filter's nine
    platform::failCall("KLIBCSzHashSetValue", nth);
    expectEnd({"security.cpp: set confing fail"}, 1, 1);
  }
}

TEST_F(SecurityFailureTest, BlocklistsThatCannotBeWritten) {
  ASSERT_EQ(chmod(kServers.c_str(), 0444), 0);
  expectEnd(
      {"spam_filter.cpp: open SZ_SPAM_FILTER_LIST fail",
       "spam_filter.cpp: saveSpamList fail", "security.cpp: save dnsbl setting fail"},
      3, 1);
  EXPECT_EQ(readFile(kServers), kHeads);
}

TEST_F(SecurityFailureTest, AFailingPostfixConfiguration) {
  tree.failScript("DaemonConfSet.sh", 1, "smtp");
  expectEnd({"spam_filter.cpp: fail to gen postfix config",
             "security.cpp: save dnsbl setting fail"},
            3, 2);
}

TEST_F(SecurityFailureTest, AFailingMailScannerConfigurationLeavesAllElseDone) {
  tree.failScript("DaemonConfSet.sh", 1, "mailscanner");
  expectEnd({"security.cpp: generate mailscanner.conf fail"}, 3, 3);
  EXPECT_EQ(readFile(kServers), "[RBL server]\nnew\n[RHSBL server]\n");
}

// ---- the static operations

TEST_F(SecurityTest, TheStaticOperationsPassArgumentAndResultOn) {
  for (const std::string action : {"start", "stop", "restart"}) {
    EXPECT_EQ(Security::AntiVirusService(action.c_str()), 0);
    EXPECT_EQ(Security::MailScannerService(action.c_str()), 0);
    EXPECT_EQ(tree.takeCalls(),
              (Calls{"kest_anti-virus " + action, "MailScanner.sh " + action}));
  }
  EXPECT_EQ(Security::GenerateConfig(), 0);
  EXPECT_EQ(tree.takeCalls(), Calls{"DaemonConfSet.sh mailscanner"});
  const std::pair<const char *, std::function<int()>> operations[] = {
      {"kest_anti-virus", [] { return Security::AntiVirusService("start"); }},
      {"MailScanner.sh", [] { return Security::MailScannerService("start"); }},
      {"DaemonConfSet.sh", [] { return Security::GenerateConfig(); }}};
  for (const auto &[script, operation] : operations) {
    tree.failScript(script, 3);
    EXPECT_LT(operation(), 0);
    for (const int result : {-7, 5}) {
      platform::answerCall("KLIBCExec", result);
      EXPECT_EQ(operation(), result);
    }
  }
}

}  // namespace
