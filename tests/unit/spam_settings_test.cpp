// The settings and the rule files of Spam; its lists are spam_test.cpp's.

#include <sys/resource.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cfloat>
#include <climits>

#include "spam.h"
#include "support/files.h"
#include "support/fresh_process.h"
#include "support/library_test.h"

namespace {

using Calls = std::vector<std::string>;
using Names = std::vector<std::string>;

const std::string kSettings = PackageTree::kSettings;
const std::string kImported = "/var/packages/Postwell/etc/rules/";
const std::string kActive = "/var/packages/Postwell/target/etc/spamassassin/";
const std::string kMadeLists =
    "DBHandler.cpp: /var/packages/Postwell/etc/postwell.db isn't exist, create DB";
const std::string kNotLoaded = "spam.cpp: load spam config fail";
const char kConfigure[] =
    "KLIBCExec /var/packages/Postwell/target/scripts/DaemonConfSet.sh spam";

// Each switch on its own: its key, its setter and its getter.
const struct {
  const char *key;
  void (Spam::*set)(bool) noexcept;
  bool (Spam::*get)() const noexcept;
} kSwitches[] = {
    {"spam_enable", &Spam::setEnableSpamassassin, &Spam::isEnableSpamassassin},
    {"spam_enable_rewrite", &Spam::setEnableRewrite, &Spam::isEnableRewrite},
    {"spam_auto_learn", &Spam::setUseAutoLearn, &Spam::isUseAutoLearn},
    {"spam_auto_whitelist", &Spam::setUseAutoWhiteList, &Spam::isUseAutoWhiteList}};

void setDefaults(Spam &spam) {
  for (const auto &one : kSwitches) (spam.*one.set)(false);
  spam.setRequiredScore(5);
  spam.setRewriteSubject("*****SPAM*****");
  spam.setReportMachanism(1);
  spam.setSpamLearnThreshold(12);
  spam.setNonSpamLearnThreshold(0.1f);
}

void expectDefaults(const Spam &spam) {
  for (const auto &one : kSwitches) EXPECT_FALSE((spam.*one.get)()) << one.key;
  EXPECT_EQ(spam.getRequiredScore(), 5.0f);
  EXPECT_EQ(spam.getRewriteSubject(), "*****SPAM*****");
  EXPECT_EQ(spam.getReportMachanism(), 1);
  EXPECT_EQ(spam.getSpamLearnThreshold(), 12.0f);
  EXPECT_EQ(spam.getNonSpamLearnThreshold(), 0.1f);
}

// Every field at a value that is not its default.
void fill(Spam &spam) {
  for (const auto &one : kSwitches) (spam.*one.set)(true);
  spam.setRequiredScore(7.5);
  spam.setRewriteSubject("[\"spam\"] = #1 %s\\");
  spam.setReportMachanism(2);
  spam.setSpamLearnThreshold(9.25);
  spam.setNonSpamLearnThreshold(-1.5);
}

void expectFilled(const Spam &spam) {
  for (const auto &one : kSwitches) EXPECT_TRUE((spam.*one.get)()) << one.key;
  EXPECT_EQ(spam.getRequiredScore(), 7.5f);
  EXPECT_EQ(spam.getRewriteSubject(), "[\"spam\"] = #1 %s\\");
  EXPECT_EQ(spam.getReportMachanism(), 2);
  EXPECT_EQ(spam.getSpamLearnThreshold(), 9.25f);
  EXPECT_EQ(spam.getNonSpamLearnThreshold(), -1.5f);
}

// ---- loading; first, since an instance stays once it is made

class SpamLoadTest : public LibraryTest {
 protected:
  // What a process that finds these settings makes of them.
  void loaded(const std::string &settings, const std::function<void(Spam &)> &check) {
    writeFile(kSettings, settings);
    unlink("/var/packages/Postwell/etc/postwell.db");
    inFreshProcess([&check] {
      ASSERT_NE(Spam::getInstance(), nullptr);
      check(*Spam::getInstance());
    });
    expectLog({kMadeLists});
  }
};

TEST_F(SpamLoadTest, AbsentKeysGiveTheDefaultsAndLoadingWritesNothing) {
  loaded("unrelated=\"1\"\n", expectDefaults);
  EXPECT_EQ(readFile(kSettings), "unrelated=\"1\"\n");
  loaded("", expectDefaults);
  EXPECT_EQ(tree.takeCalls(), Calls());
}

TEST_F(SpamLoadTest, EachSwitchHasItsOwnKey) {
  for (const auto &one : kSwitches) {
    loaded(one.key + std::string("=\"yes\"\n"), [&one](const Spam &spam) {
      for (const auto &other : kSwitches)
        EXPECT_EQ((spam.*other.get)(), &other == &one) << one.key << " " << other.key;
    });
  }
}

TEST_F(SpamLoadTest, OnlyTheExactWordYesIsTrue) {
  for (const char *value : {"Yes", "YES", "1", "true", "on", "", "yes "})
    loaded("spam_enable=\"" + std::string(value) + "\"\n", [value](const Spam &spam) {
      EXPECT_FALSE(spam.isEnableSpamassassin()) << value;
    });
}

TEST_F(SpamLoadTest, ScoresReadTheirLeadingNumber) {
  const std::pair<const char *, float> cases[] = {
      {"5", 5},      {"4.57", 4.57f}, {"-1.50", -1.5f}, {" 7.5x", 7.5f},
      {"1e3", 1000}, {"", 0},         {"abc", 0},       {"7,5", 7}};
  for (const auto &[text, score] : cases)
    loaded("spam_required_score=\"" + std::string(text) +
               "\"\nspam_learn_threshold_spam=\"" + text +
               "\"\nspam_learn_threshold_non_spam=\"" + text + "\"\n",
           [expected = score, value = text](const Spam &spam) {
             EXPECT_EQ(spam.getRequiredScore(), expected) << value;
             EXPECT_EQ(spam.getSpamLearnThreshold(), expected) << value;
             EXPECT_EQ(spam.getNonSpamLearnThreshold(), expected) << value;
           });
}

TEST_F(SpamLoadTest, TheReportKindIsAnyNumberAndEmptyValuesAreNoneOrZero) {
  loaded("spam_report_machanism=\"-7x\"\n",
         [](const Spam &spam) { EXPECT_EQ(spam.getReportMachanism(), -7); });
  loaded("spam_report_machanism=\"\"\nspam_rewrite_subject=\"\"\n", [](const Spam &spam) {
    EXPECT_EQ(spam.getReportMachanism(), 0);
    EXPECT_EQ(spam.getRewriteSubject(), "");
  });
}

TEST_F(SpamLoadTest, OfAHalfWrittenFileWholeLinesCount) {
  loaded("spam_enable=\"yes\"\nspam_required_score=\"7.", [](const Spam &spam) {
    EXPECT_TRUE(spam.isEnableSpamassassin());
    EXPECT_EQ(spam.getRequiredScore(), 5.0f);
  });
}

TEST_F(SpamLoadTest, TheFileIsReadOnceAndNothingIsRun) {
  loaded("spam_enable=\"yes\"\n", [](Spam & /*spam*/) {
    Spam::getInstance();
    EXPECT_EQ(platform::takeCalls(),
              (Calls{"KLIBCSzHashAlloc 1024", "KLIBCFileGetPair " + kSettings}));
  });
}

TEST_F(SpamLoadTest, AnExistingFolderOfImportedRulesStaysAsItIs) {
  ASSERT_EQ(mkdir(kImported.c_str(), 0755), 0);
  writeFile(kImported + "a.cf", "a");
  loaded("", expectDefaults);
  struct stat folder;
  ASSERT_EQ(stat(kImported.c_str(), &folder), 0);
  EXPECT_EQ(folder.st_mode & 07777, 0755u);
  EXPECT_EQ(readFile(kImported + "a.cf"), "a");
}

TEST_F(SpamLoadTest, AfterAFailedFirstGetInstanceTheNextCallBuildsANewObject) {
  inFreshProcess([] {
    EXPECT_EQ(Spam::getInstance(), nullptr);
    writeFile(kSettings, "spam_enable=\"yes\"\n", 0);
    EXPECT_EQ(Spam::getInstance(), nullptr);
    EXPECT_EQ(chmod(kSettings.c_str(), 0644), 0);
    ASSERT_NE(Spam::getInstance(), nullptr);
    EXPECT_TRUE(Spam::getInstance()->isEnableSpamassassin());
  });
  const std::string unread = "spam.cpp: get config fail";
  expectLog({unread, kNotLoaded, unread, kNotLoaded, kMadeLists});
}

TEST_F(SpamLoadTest, SavedSettingsAreLoadedAgain) {
  loaded("", [](Spam &spam) {
    fill(spam);
    EXPECT_EQ(spam.applySettings(), 0);
  });
  loaded(readFile(kSettings), expectFilled);
}

// ---- changing and applying

class SpamSettingsTest : public LibraryTest {
 protected:
  SpamSettingsTest() : spam(*madeOnce()) {
    writeFile(kSettings, "");
    setDefaults(spam);
    log.take();  // of the first one
    platform::reset();
  }

  static Spam *madeOnce() {
    writeFile(kSettings, "");
    return Spam::getInstance();
  }

  Spam &spam;
};

TEST_F(SpamSettingsTest, SettersChangeMemoryOnly) {
  fill(spam);
  expectFilled(spam);
  expectFilled(*Spam::getInstance());
  EXPECT_EQ(readFile(kSettings), "");
  EXPECT_EQ(platform::takeCalls(), Calls());
}

TEST_F(SpamSettingsTest, ApplyingWritesTheNineKeysInThisOrderAndConfigures) {
  EXPECT_EQ(spam.applySettings(), 0);
  EXPECT_EQ(
      readFile(kSettings),
      "spam_enable=\"no\"\nspam_enable_rewrite=\"no\"\n"
      "spam_rewrite_subject=\"*****SPAM*****\"\nspam_required_score=\"5.00\"\n"
      "spam_report_machanism=\"1\"\nspam_auto_learn=\"no\"\n"
      "spam_learn_threshold_spam=\"12.00\"\nspam_learn_threshold_non_spam=\"0.10\"\n"
      "spam_auto_whitelist=\"no\"\n");
  EXPECT_EQ(platform::takeCalls(), (Calls{"KLIBCSzHashAlloc 1024",
                                          "KLIBCFileSetKeys " + kSettings, kConfigure}));
  EXPECT_EQ(tree.takeCalls(), Calls{"DaemonConfSet.sh spam"});  // and no daemon
}

TEST_F(SpamSettingsTest, EachSwitchIsWrittenToItsOwnKey) {
  Spam &filter = spam;  // g++'s sanitizer mistakes a call by pointer on a member
  for (const bool odd : {true, false}) {
    for (const auto &one : kSwitches) {
      for (const auto &other : kSwitches) (filter.*other.set)(!odd);
      (filter.*one.set)(odd);
      ASSERT_EQ(filter.applySettings(), 0);
      for (const auto &other : kSwitches) {
        const bool expected = (&other == &one) == odd;
        EXPECT_EQ((filter.*other.get)(), expected) << one.key << " " << other.key;
        EXPECT_EQ(stored(other.key), expected ? "yes" : "no")
            << one.key << " " << other.key;
      }
    }
  }
}

TEST_F(SpamSettingsTest, ScoresAreWrittenWithTwoDecimals) {
  const std::pair<float, const char *> cases[] = {
      {5.0f, "5.00"},   {4.567f, "4.57"},   {0.1f, "0.10"},       {0.125f, "0.12"},
      {-1.5f, "-1.50"}, {-0.001f, "-0.00"}, {1000.0f, "1000.00"}, {99.999f, "100.00"}};
  for (const auto &[score, text] : cases) {
    spam.setRequiredScore(score);
    spam.setSpamLearnThreshold(score);
    spam.setNonSpamLearnThreshold(score);
    ASSERT_EQ(spam.applySettings(), 0);
    EXPECT_EQ(stored("spam_required_score"), text);
    EXPECT_EQ(stored("spam_learn_threshold_spam"), text);
    EXPECT_EQ(stored("spam_learn_threshold_non_spam"), text);
  }
}

TEST_F(SpamSettingsTest, NumbersOfAnySizeAreWrittenWhole) {
  spam.setRequiredScore(16777216e9f);
  spam.setSpamLearnThreshold(FLT_MAX);
  spam.setNonSpamLearnThreshold(-FLT_MAX);
  for (const int kind : {0, 12345678, INT_MAX, INT_MIN}) {
    spam.setReportMachanism(kind);
    ASSERT_EQ(spam.applySettings(), 0);
    EXPECT_EQ(stored("spam_report_machanism"), std::to_string(kind));
  }
  EXPECT_EQ(std::stof(stored("spam_required_score")), 16777216e9f);
  EXPECT_EQ(std::stof(stored("spam_learn_threshold_spam")), FLT_MAX);
  EXPECT_EQ(std::stof(stored("spam_learn_threshold_non_spam")), -FLT_MAX);
}

TEST_F(SpamSettingsTest, TheSubjectIsWrittenAsItStands) {
  for (const std::string subject :
       {"", "[\"a\"] = #1 %s\\", "J\xc3\xb6rg", "\xff", "  blanks  "}) {
    spam.setRewriteSubject(subject);
    ASSERT_EQ(spam.applySettings(), 0);
    EXPECT_EQ(stored("spam_rewrite_subject"), subject);
  }
}

TEST_F(SpamSettingsTest, ASubjectThatTheFileCannotCarryIsRefusedWhole) {
  spam.setEnableSpamassassin(true);
  for (const std::string &subject :
       {std::string("a\nsmtp_enabled=\"yes"), std::string("a\0b", 3)}) {
    spam.setRewriteSubject(subject);
    EXPECT_EQ(spam.applySettings(), -1);
    expectLog({"spam.cpp: set confing fail"});
  }
  EXPECT_EQ(readFile(kSettings), "");
  EXPECT_EQ(tree.takeCalls(), Calls());
}

TEST_F(SpamSettingsTest, ApplyingLeavesEverythingElseInTheFileUntouched) {
  const std::string others = "# by hand\nsmtp_port=\"2525\"\n\n  odd line = \n";
  writeFile(kSettings, "spam_enable=\"no\"\n" + others +
                           "spam_dnsbl_enable=\"yes\"\nspam_clean_interval=\"7\"\n");
  spam.setEnableSpamassassin(true);
  EXPECT_EQ(spam.applySettings(), 0);
  EXPECT_EQ(
      readFile(kSettings).find("spam_enable=\"yes\"\n" + others +
                               "spam_dnsbl_enable=\"yes\"\nspam_clean_interval=\"7\"\n"),
      0u);
}

TEST_F(SpamSettingsTest, ApplyingMakesAMissingFile) {
  unlink(kSettings.c_str());
  EXPECT_EQ(spam.applySettings(), 0);
  EXPECT_EQ(stored("spam_required_score"), "5.00");
}

TEST_F(SpamSettingsTest, AnUnreadableFileIsNotReplaced) {
  writeFile(kSettings, "smtp_port=\"2525\"\n", 0);
  EXPECT_EQ(spam.applySettings(), -1);
  expectLog({"spam.cpp: set confing fail"});
  EXPECT_EQ(tree.takeCalls(), Calls());
  ASSERT_EQ(chmod(kSettings.c_str(), 0644), 0);
  EXPECT_EQ(readFile(kSettings), "smtp_port=\"2525\"\n");
}

TEST_F(SpamSettingsTest, ApplyingEndsBeforeTheFileIsWritten) {
  platform::failCall("KLIBCSzHashAlloc");
  EXPECT_EQ(spam.applySettings(), -1);
  expectLog({"spam.cpp: Out of memort"});
  platform::failCall("KLIBCFileSetKeys");
  EXPECT_EQ(spam.applySettings(), -1);
  expectLog({"spam.cpp: set confing fail"});
  for (int nth = 1; nth <= 9; nth++) {
    platform::failCall("KLIBCSzHashSetValue", nth);
    EXPECT_EQ(spam.applySettings(), -1) << nth;
    expectLog({"spam.cpp: set confing fail"});
  }
  EXPECT_EQ(readFile(kSettings), "");
  EXPECT_EQ(tree.takeCalls(), Calls());
}

TEST_F(SpamSettingsTest, AFailedConfigurationLeavesTheSettingsWritten) {
  tree.failScript("DaemonConfSet.sh", 1, "spam");
  spam.setEnableSpamassassin(true);
  EXPECT_EQ(spam.applySettings(), -1);
  expectLog({"spam.cpp: fail to generate spamassassin config"});
  EXPECT_EQ(stored("spam_enable"), "yes");
  EXPECT_EQ(tree.takeCalls(), Calls{"DaemonConfSet.sh spam"});
}

TEST_F(SpamSettingsTest, TheStaticOperationsPassArgumentAndResultOn) {
  for (const char *action : {"start", "stop", "restart"}) {
    EXPECT_EQ(Spam::Service(action), 0);
    EXPECT_EQ(tree.takeCalls(), Calls{std::string("SpamDaemon.sh ") + action});
  }
  EXPECT_EQ(Spam::GenerateConfig(), 0);
  EXPECT_EQ(tree.takeCalls(), Calls{"DaemonConfSet.sh spam"});
  tree.failScript("SpamDaemon.sh", 3);
  tree.failScript("DaemonConfSet.sh", 3);
  EXPECT_LT(Spam::Service("start"), 0);
  EXPECT_LT(Spam::GenerateConfig(), 0);
  for (const int result : {-7, 5}) {
    platform::answerCall("KLIBCExec", result);
    EXPECT_EQ(Spam::Service("start"), result);
    platform::answerCall("KLIBCExec", result);
    EXPECT_EQ(Spam::GenerateConfig(), result);
  }
}

// ---- rule files

class SpamRuleTest : public SpamSettingsTest {
 protected:
  SpamRuleTest() {
    for (const std::string &folder : {kImported, kActive}) {
      mkdir(folder.c_str(), 0755);  // of the two the library may have made one
      EXPECT_EQ(chmod(folder.c_str(), 0755), 0);
    }
  }

  static void import(const std::string &name, const std::string &text = "body") {
    writeFile(kImported + name, text);
  }
  static void activate(const std::string &name) { writeFile(kActive + name, "active"); }

  // The rules as they are listed, an enabled one with a plus.
  Names listed() {
    Names names;
    for (const SpamRule &rule : spam.getSpamRules())
      names.push_back((rule.isEnable ? "+" : "-") + rule.ruleName);
    return names;
  }
};

TEST_F(SpamRuleTest, ARuleIsEnabledExactlyWhenItsFileIsActive) {
  EXPECT_EQ(listed(), Names());
  import("a.cf");
  import("b.cf");
  activate("b.cf");
  activate("c.cf");
  EXPECT_EQ(listed(), (Names{"-a.cf", "+b.cf", "+c.cf"}));
}

TEST_F(SpamRuleTest, TheFiltersOwnFilesAreNeverListed) {
  for (const char *name : {"init.pre", "local.cf", "v310.pre", "v312.pre", "v320.pre"}) {
    import(name);
    activate(name);
  }
  EXPECT_EQ(listed(), Names());
  for (const char *name : {"v310.pre", "v312.pre", "v320.pre", "local.cf", "init.pre"})
    ASSERT_EQ(unlink((kActive + name).c_str()), 0);
  EXPECT_EQ(listed(), Names());
  for (const char *name : {"v330.pre", "Local.cf", "local.cf~"}) import(name);
  EXPECT_EQ(listed(), (Names{"-Local.cf", "-local.cf~", "-v330.pre"}));
}

TEST_F(SpamRuleTest, RulesAreListedInByteOrder) {
  for (const char *name : {"b.cf", "\xc3\xa4.cf", "a.cf", "B.cf", "9.cf", "10.cf"})
    import(name);
  activate("Z.cf");
  EXPECT_EQ(listed(), (Names{"-10.cf", "-9.cf", "-B.cf", "+Z.cf", "-a.cf", "-b.cf",
                             "-\xc3\xa4.cf"}));
}

TEST_F(SpamRuleTest, EveryEntryOfTheFoldersIsListed) {
  import(".hidden");
  ASSERT_EQ(mkdir((kActive + "folder").c_str(), 0755), 0);
  ASSERT_EQ(symlink("/nowhere", (kImported + "link").c_str()), 0);
  EXPECT_EQ(listed(), (Names{"-.hidden", "+folder", "-link"}));
}

TEST_F(SpamRuleTest, AFolderThatCannotBeOpenedGivesNoRules) {
  import("a.cf");
  activate("b.cf");
  ASSERT_EQ(chmod(kActive.c_str(), 0), 0);
  EXPECT_EQ(listed(), Names());
  ASSERT_EQ(chmod(kActive.c_str(), 0755), 0);
  ASSERT_EQ(unlink((kActive + "b.cf").c_str()), 0);
  ASSERT_EQ(rmdir(kActive.c_str()), 0);
  EXPECT_EQ(listed(), Names());
  expectLog({"spam.cpp: open spam dir fail", "spam.cpp: open spam dir fail"});
  ASSERT_EQ(unlink((kImported + "a.cf").c_str()), 0);
  ASSERT_EQ(rmdir(kImported.c_str()), 0);
  EXPECT_EQ(listed(), Names());  // the second folder is not tried
  expectLog({"spam.cpp: open dir fail"});
}

TEST_F(SpamRuleTest, EnablingCopiesTheImportedFile) {
  import("a.cf", "first");
  spam.enableRule("a.cf");
  EXPECT_EQ(platform::takeCalls(),
            Calls{"KLIBCExec /bin/cp " + kImported + "a.cf " + kActive + "a.cf"});
  EXPECT_EQ(readFile(kActive + "a.cf"), "first");
  EXPECT_EQ(listed(), Names{"+a.cf"});
  import("a.cf", "2nd");
  EXPECT_EQ(readFile(kActive + "a.cf"), "first");
  spam.enableRule("a.cf");
  EXPECT_EQ(readFile(kActive + "a.cf"), "2nd");
  EXPECT_EQ(tree.takeCalls(), Calls());
}

TEST_F(SpamRuleTest, EnablingRemovesTheActiveFileRatherThanWriteIntoIt) {
  import("a.cf", "imported");
  writeFile(kImported + "../elsewhere", "kept");
  ASSERT_EQ(symlink((kImported + "../elsewhere").c_str(), (kActive + "a.cf").c_str()), 0);
  spam.enableRule("a.cf");
  EXPECT_EQ(readFile(kImported + "../elsewhere"), "kept");
  EXPECT_EQ(readFile(kActive + "a.cf"), "imported");
}

TEST_F(SpamRuleTest, EnablingARuleThatIsNotImportedLeavesItDisabledInSilence) {
  activate("a.cf");
  spam.enableRule("a.cf");
  EXPECT_EQ(listed(), Names());
  spam.enableRule("b.cf");
  EXPECT_EQ(listed(), Names());
}

TEST_F(SpamRuleTest, AFailedCopyLeavesTheRuleDisabledInSilence) {
  import("a.cf");
  activate("a.cf");
  platform::answerCall("KLIBCExec", -7);
  spam.enableRule("a.cf");
  EXPECT_EQ(listed(), Names{"-a.cf"});
  ASSERT_EQ(chmod((kImported + "a.cf").c_str(), 0), 0);
  spam.enableRule("a.cf");
  EXPECT_EQ(listed(), Names{"-a.cf"});
}

TEST_F(SpamRuleTest, ACopyThatEndsHalfWayLeavesTheRuleDisabled) {
  import("a.cf", std::string(10'000, 'x'));
  rlimit before;
  ASSERT_EQ(getrlimit(RLIMIT_FSIZE, &before), 0);
  rlimit small = before;
  small.rlim_cur = 4096;
  ASSERT_EQ(setrlimit(RLIMIT_FSIZE, &small), 0);
  spam.enableRule("a.cf");
  ASSERT_EQ(setrlimit(RLIMIT_FSIZE, &before), 0);
  EXPECT_EQ(listed(), Names{"-a.cf"});
  spam.enableRule("a.cf");
  EXPECT_EQ(readFile(kActive + "a.cf").size(), 10'000u);
}

TEST_F(SpamRuleTest, DisablingKeepsTheImportedFile) {
  import("a.cf", "imported");
  activate("a.cf");
  spam.disableRule("a.cf");
  EXPECT_EQ(listed(), Names{"-a.cf"});
  EXPECT_EQ(readFile(kImported + "a.cf"), "imported");
  spam.disableRule("a.cf");
  spam.disableRule("unknown");
  EXPECT_EQ(listed(), Names{"-a.cf"});
  EXPECT_EQ(platform::takeCalls(), Calls());
}

TEST_F(SpamRuleTest, DeletingRemovesBothFilesOrTheOneThereIs) {
  import("a.cf");
  activate("a.cf");
  import("b.cf");
  activate("c.cf");
  import("kept.cf");
  for (const char *name : {"a.cf", "b.cf", "c.cf", "unknown", ""}) spam.deleteRule(name);
  EXPECT_EQ(listed(), Names{"-kept.cf"});
  EXPECT_EQ(platform::takeCalls(), Calls());
}

TEST_F(SpamRuleTest, AnImportedFilesPathIsGivenWhileItExists) {
  import("a.cf");
  activate("b.cf");
  EXPECT_EQ(Spam::GetImportRulePath("a.cf"), kImported + "a.cf");
  EXPECT_EQ(Spam::GetImportRulePath("b.cf"), "");
  spam.deleteRule("a.cf");
  EXPECT_EQ(Spam::GetImportRulePath("a.cf"), "");
}

TEST_F(SpamRuleTest, NamesMayHoldAnythingAFileNameHolds) {
  for (const std::string &name :
       {std::string("two words"), std::string("-rf"), std::string("$(touch x);`y`"),
        std::string("a'b\"c\\"), std::string("%s%n"), std::string("*"),
        std::string("a\nb"), std::string("\xff"), std::string(255, 'n')}) {
    import(name, name);
    spam.enableRule(name);
    EXPECT_EQ(readFile(kActive + name), name);
    EXPECT_EQ(listed(), Names{"+" + name});
    EXPECT_EQ(Spam::GetImportRulePath(name), kImported + name);
    spam.disableRule(name);
    EXPECT_EQ(listed(), Names{"-" + name});
    spam.deleteRule(name);
    EXPECT_EQ(listed(), Names());
  }
}

TEST_F(SpamRuleTest, ANameThatIsNoFilesIsIgnoredInSilence) {
  import("a.cf");
  const std::string longest(256, 'n');
  for (const std::string &name : {std::string(), std::string("."), longest}) {
    spam.enableRule(name);
    spam.disableRule(name);
    spam.deleteRule(name);
  }
  EXPECT_EQ(Spam::GetImportRulePath(longest), "");
  EXPECT_EQ(listed(), Names{"-a.cf"});
}

// Who takes a name from elsewhere checks it.
TEST_F(SpamRuleTest, ANameWithASlashLeadsOutOfTheFolders) {
  EXPECT_EQ(Spam::GetImportRulePath("../postwell.conf"), kImported + "../postwell.conf");
}

TEST_F(SpamRuleTest, TwoHundredRuleFiles) {
  Names enabled, every2nd;
  for (int i = 100; i < 300; i++) {
    const std::string name = "rule" + std::to_string(i) + ".cf";
    import(name, name);
    spam.enableRule(name);
    enabled.push_back("+" + name);
    every2nd.push_back((i % 2 == 0 ? "-" : "+") + name);
  }
  EXPECT_EQ(listed(), enabled);
  for (int i = 100; i < 300; i += 2) spam.disableRule("rule" + std::to_string(i) + ".cf");
  EXPECT_EQ(listed(), every2nd);
  for (const SpamRule &rule : spam.getSpamRules()) spam.deleteRule(rule.ruleName);
  EXPECT_EQ(listed(), Names());
}

}  // namespace
