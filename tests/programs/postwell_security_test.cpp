// postwell spam, dnsbl and security.

#include <gtest/gtest.h>
#include <unistd.h>

#include <filesystem>

#include "programs/postwell_settings_test.h"

namespace {

namespace fs = std::filesystem;

const std::string kImported = "/var/packages/Postwell/etc/rules/";
const std::string kActive = "/var/packages/Postwell/target/etc/spamassassin/";
const std::string kBlocklists = "/var/packages/Postwell/etc/spamlist.conf";
const std::string kEmptyLists = "[RBL server]\n[RHSBL server]\n";

// All that "security" stores.
const std::string kStored =
    "spam_enable=\"no\"\nanti_virus_enable=\"no\"\nspam_dnsbl_enable=\"no\"\n";

bool isRoot() { return getuid() == 0; }

const Arguments kStates = {"SpamDaemon.sh status", "kest_anti-virus status",
                           "MailScanner.sh status"};

const Arguments kFiltersRun = {"SpamDaemon.sh start", "kest_anti-virus start",
                               "MailScanner.sh start"};

Arguments operator+(Arguments one, const Arguments &other) {
  one.insert(one.end(), other.begin(), other.end());
  return one;
}

void makePackage() {
  fs::create_directories(kImported);
  fs::create_directories(kActive);
  writeFile(kBlocklists, kEmptyLists);
}

// ---- spam show|set

class PostwellSpam : public PostwellSettingsTest {
 protected:
  PostwellSpam() : PostwellSettingsTest("spam") { makePackage(); }
};

TEST_F(PostwellSpam, ShowGivesTheDefaultsOfAbsentKeys) {
  const Outcome outcome = show();
  EXPECT_EQ(outcome.status, 0) << outcome.err;
  EXPECT_EQ(outcome.out,
            "enabled           no\n"
            "score             5.0\n"
            "rewrite           no\n"
            "subject           *****SPAM*****\n"
            "report            attachment\n"
            "auto_learn        no\n"
            "learn_spam        12.0\n"
            "learn_ham         0.1\n"
            "auto_whitelist    no\n");
}

TEST_F(PostwellSpam, ScoresAreShownAsTheyStandInTheFile) {
  writeFile(PackageTree::kSettings, kSomeSettings +
                                        "spam_required_score=\"4.57\"\n"
                                        "spam_report_machanism=\"7\"\n"
                                        "spam_rewrite_subject=\"a\x1b[2Jb\"\n");
  const Outcome outcome = show({"--json"});
  EXPECT_NE(outcome.out.find("\"score\": 4.57,"), std::string::npos) << outcome.out;
  EXPECT_NE(outcome.out.find("\"report\": \"unknown (7)\""), std::string::npos);
  EXPECT_NE(show().out.find("subject           a\\x1b[2Jb\n"), std::string::npos);
}

TEST_F(PostwellSpam, ATagOfAnotherScriptIsShownAsItIs) {
  writeFile(PackageTree::kSettings,
            kSomeSettings + "spam_rewrite_subject=\"\xc3\x9c\xe2\x82\xac\xc2\x9b\"\n");
  EXPECT_NE(show().out.find("subject           \xc3\x9c\xe2\x82\xac\\xc2\\x9b\n"),
            std::string::npos);
  EXPECT_NE(show({"--json"}).out.find("\"subject\": \"\\u00dc\\u20ac\\u009b\""),
            std::string::npos);
}

TEST_F(PostwellSpam, SetMakesAllFollow) {
  const Outcome outcome = set({"--enabled", "yes", "--score", "4.5", "--rewrite", "yes",
                               "--subject", "[spam] ", "--report", "headers"});
  EXPECT_EQ(outcome.status, 2) << "a blank at the end would not be read back";
  const Keys before = settingsNow();
  EXPECT_EQ(set({"--enabled", "yes", "--score", "4.5", "--rewrite", "yes", "--subject",
                 "[spam]", "--report", "headers", "--auto-learn", "yes", "--learn-spam",
                 "15", "--learn-ham", "-0.25", "--auto-whitelist", "yes"})
                .out,
            "Spam filter on; SpamAssassin and Postfix follow.\n");
  EXPECT_EQ(changedSince(before), (Keys{{"spam_enable", "\"yes\""},
                                        {"spam_required_score", "\"4.50\""},
                                        {"spam_enable_rewrite", "\"yes\""},
                                        {"spam_rewrite_subject", "\"[spam]\""},
                                        {"spam_report_machanism", "\"0\""},
                                        {"spam_auto_learn", "\"yes\""},
                                        {"spam_learn_threshold_spam", "\"15.00\""},
                                        {"spam_learn_threshold_non_spam", "\"-0.25\""},
                                        {"spam_auto_whitelist", "\"yes\""}}));
  EXPECT_EQ(package_.takeCalls(),
            (Arguments{"DaemonConfSet.sh spam", "DaemonConfSet.sh smtp"} + kFiltersRun));
}

TEST_F(PostwellSpam, WithoutSmtpPostfixIsLeftAlone) {
  writeSettingsWith("smtp_enabled", "no");
  EXPECT_EQ(set({"--score", "6"}).status, 0);
  EXPECT_EQ(package_.takeCalls(), Arguments{"DaemonConfSet.sh spam"} + kFiltersRun);
}

TEST_F(PostwellSpam, WrongValuesAreRefused) {
  for (const char *score :
       {"", "5,0", "1e3", "12345", "5.123", ".5", "5.", "+5", "1.2.3", "-5", "0", "0.00"})
    expectRefused(
        {"--score", score},
        std::string("--score: must be above 0 and below 10000 with two decimals at "
                    "most, not \"") +
            score + '"');
  expectRefused({"--learn-ham", "-1.234"},
                "--learn-ham: must be a number below 10000 with two decimals at most, "
                "not \"-1.234\"");
  for (const char *tag : {"", "a\nb", "\xc3\xa4", " a"})
    EXPECT_EQ(set({"--subject", tag}).status, 2) << tag;
  EXPECT_EQ(set({"--subject", std::string(201, 'x')}).status, 2);
  expectRefused({"--report", "fax"},
                "--report: must be headers, attachment or text, not \"fax\"");
  expectRefused({"--learn-ham", "12"}, "--learn-ham must be below --learn-spam");
}

TEST_F(PostwellSpam, AFailingStepIsTold) {
  const std::vector<std::pair<std::string, std::string>> steps = {
      {"DaemonConfSet.sh", "smtp"},
      {"SpamDaemon.sh", "start"},
      {"kest_anti-virus", "start"},
      {"MailScanner.sh", "start"}};
  for (const auto &[script, argument] : steps) {
    const PackageTree fresh;
    makePackage();
    writeFile(PackageTree::kSettings, kSomeSettings);
    package_.failScript(script, 1, argument);
    const Outcome outcome = set({"--score", "6"});
    EXPECT_EQ(outcome.status, 1) << script;
    EXPECT_EQ(outcome.out, "");
    EXPECT_NE(outcome.err.find(script + ' ' + argument + "\""), std::string::npos)
        << outcome.err;
    EXPECT_EQ(settingsNow()["spam_required_score"], "\"6.00\"");
  }
}

TEST_F(PostwellSpam, ARefusedConfigurationEndsItThere) {
  package_.failScript("DaemonConfSet.sh", 1, "spam");
  const Outcome outcome = set({"--enabled", "yes"});
  EXPECT_EQ(outcome.status, 1);
  EXPECT_EQ(outcome.err.rfind("postwell: the settings could not be stored, or the spam "
                              "filter cannot follow them.\n",
                              0),
            0u)
      << outcome.err;
  EXPECT_EQ(package_.takeCalls(), Arguments{"DaemonConfSet.sh spam"});
}

TEST_F(PostwellSpam, MissingSettings) {
  ASSERT_EQ(unlink(PackageTree::kSettings), 0);
  for (const Outcome &outcome : {show(), set({"--score", "6"})})
    expectNoSettings(outcome);
}

// ---- spam rules, spam rule

class PostwellSpamRules : public testing::Test {
 protected:
  PostwellSpamRules() {
    makePackage();
    writeFile(PackageTree::kSettings, kSomeSettings);
    writeFile(kSource, kRule);
  }

  static Outcome rule(const Arguments &words) {
    return RUN_TEST_PROGRAM(Arguments{"spam", "rule"} + words);
  }
  static std::string list() {
    const Outcome outcome = RUN_TEST_PROGRAM(Arguments{"spam", "rules"});
    EXPECT_EQ(outcome.err,
              outcome.out.empty() ? "postwell: there is no rule file.\n" : "");
    return outcome.out;
  }
  static bool exists(const std::string &path) { return fileExists(path); }

  static constexpr char kRule[] = "body MINE /x/\n";
  const std::string kSource = "/var/packages/Postwell/mine.cf";
  PackageTree package_;
};

TEST_F(PostwellSpamRules, FromFileToForceAndBack) {
  EXPECT_EQ(rule({"add", kSource}).out,
            "Rule file mine.cf added; \"postwell spam rule enable mine.cf\" puts it into "
            "force.\n");
  EXPECT_EQ(list(), "off  mine.cf\n");
  EXPECT_EQ(readFile(kImported + "mine.cf"), kRule);
  const Arguments checks = package_.takeCalls();
  ASSERT_EQ(checks.size(), 1u);
  EXPECT_EQ(checks[0].rfind("SpamRuleCheck.sh /var/packages/Postwell/etc/.rule.", 0), 0u)
      << checks[0];
  EXPECT_EQ(checks[0].substr(checks[0].rfind(' ')), " mine.cf");

  EXPECT_EQ(rule({"enable", "mine.cf"}).out,
            "Rule file mine.cf on; the spam filter follows.\n");
  EXPECT_EQ(list(), "on   mine.cf\n");
  EXPECT_EQ(readFile(kActive + "mine.cf"), kRule);
  EXPECT_EQ(package_.takeCalls(),
            (Arguments{"SpamRuleCheck.sh " + kImported + "mine.cf mine.cf",
                       "DaemonConfSet.sh spam"}));

  EXPECT_EQ(rule({"disable", "mine.cf"}).out,
            "Rule file mine.cf off; the spam filter follows.\n");
  EXPECT_FALSE(exists(kActive + "mine.cf"));
  EXPECT_EQ(rule({"delete", "mine.cf"}).out,
            "Rule file mine.cf deleted; the spam filter follows.\n");
  EXPECT_EQ(list(), "");
}

TEST_F(PostwellSpamRules, ListAsJson) {
  writeFile(kActive + "A.cf", "");
  writeFile(kActive + "local.cf", "");
  writeFile(kImported + "b.cf", "");
  EXPECT_EQ(RUN_TEST_PROGRAM(Arguments{"spam", "rules", "--json"}).out, R"([
  {
    "name": "A.cf",
    "enabled": true
  },
  {
    "name": "b.cf",
    "enabled": false
  }
]
)");
}

TEST_F(PostwellSpamRules, WhatSpamAssassinRefusesIsNotTaken) {
  package_.failScript("SpamRuleCheck.sh");
  const Outcome outcome = rule({"add", kSource});
  EXPECT_EQ(outcome.status, 1);
  EXPECT_EQ(outcome.err,
            "postwell: the rule file was not taken: a line above tells why\n");
  EXPECT_TRUE(fs::is_empty(kImported));
  for (const auto &entry : fs::directory_iterator("/var/packages/Postwell/etc"))
    EXPECT_EQ(entry.path().filename().string().rfind(".rule", 0), std::string::npos);
}

TEST_F(PostwellSpamRules, FoldersThatCannotBeReadAreNotTakenForEmptyOnes) {
  fs::remove_all(kActive);
  const Outcome outcome = RUN_TEST_PROGRAM(Arguments{"spam", "rules"});
  EXPECT_EQ(outcome.status, 1);
  EXPECT_EQ(outcome.out, "");
  EXPECT_EQ(outcome.err, "postwell: cannot read \"" + kActive +
                             "\": No such file or directory.\nRun as root.\n");
}

TEST_F(PostwellSpamRules, ARuleFileThatTheOthersCannotStandBesideChangesNothing) {
  ASSERT_EQ(rule({"add", kSource}).status, 0);
  writeFile(kActive + "mine.cf", "in force");
  package_.failScript("SpamRuleCheck.sh");
  package_.takeCalls();
  const Outcome outcome = rule({"enable", "mine.cf"});
  EXPECT_EQ(outcome.status, 1);
  EXPECT_EQ(outcome.err,
            "postwell: the spam filter does not take the rule file; nothing was "
            "changed.\nA line above tells why.\n");
  EXPECT_EQ(readFile(kActive + "mine.cf"), "in force");
  EXPECT_EQ(package_.takeCalls(),
            Arguments{"SpamRuleCheck.sh " + kImported + "mine.cf mine.cf"});
}

TEST_F(PostwellSpamRules, AFilterThatDoesNotFollowIsTold) {
  ASSERT_EQ(rule({"add", kSource}).status, 0);
  package_.failScript("DaemonConfSet.sh");
  for (const char *verb : {"enable", "disable", "delete"}) {
    const Outcome outcome = rule({verb, "mine.cf"});
    EXPECT_EQ(outcome.status, 1);
    EXPECT_EQ(outcome.err,
              "postwell: the rule files are as wanted, but the spam filter may not "
              "follow.\nA line above tells why; correct the cause and run\n"
              "\"/var/packages/Postwell/target/scripts/DaemonConfSet.sh spam\".\n");
  }
  EXPECT_EQ(list(), "");
}

TEST_F(PostwellSpamRules, NamesThatLeadElsewhereAreRefused) {
  writeFile("/var/packages/Postwell/etc/outside.cf", "x");
  for (const char *verb : {"enable", "disable", "delete"})
    for (const char *name : {"../outside.cf", ".hidden.cf", "a/b.cf", "a\nb.cf", "-a.cf",
                             "local.cf", "v320.pre", "mine", ".cf", "a b.cf"}) {
      const Outcome outcome = rule({verb, "--", name});
      EXPECT_EQ(outcome.status, 2) << verb << ' ' << name << outcome.err;
    }
  EXPECT_TRUE(exists("/var/packages/Postwell/etc/outside.cf"));
  EXPECT_TRUE(package_.takeCalls().empty());
  const std::string hidden = "/var/packages/Postwell/.x.cf";
  writeFile(hidden, "");
  EXPECT_EQ(rule({"add", hidden}).status, 2);
}

TEST_F(PostwellSpamRules, WhatIsNotThereOrThereAlreadyIsTold) {
  for (const char *verb : {"enable", "disable", "delete"}) {
    const Outcome outcome = rule({verb, "none.cf"});
    EXPECT_EQ(outcome.status, 1);
    EXPECT_EQ(outcome.err,
              "postwell: there is no rule file \"none.cf\"; nothing was changed.\n"
              "\"postwell spam rules\" shows what there is.\n");
  }
  writeFile(kActive + "only.cf", "kept");  // its only copy
  for (const char *verb : {"enable", "disable"})
    EXPECT_EQ(
        rule({verb, "only.cf"})
            .err.rfind("postwell: the one copy of rule file \"only.cf\" is that in force",
                       0),
        0u);
  EXPECT_EQ(readFile(kActive + "only.cf"), "kept");

  ASSERT_EQ(rule({"add", kSource}).status, 0);
  writeFile(kSource, "other");
  EXPECT_EQ(
      rule({"add", kSource}).err,
      "postwell: there is a rule file \"mine.cf\" already; delete it first. Nothing "
      "was changed.\n");
  EXPECT_EQ(readFile(kImported + "mine.cf"), kRule);
  EXPECT_EQ(rule({"add", "/var/packages/Postwell/absent.cf"}).status, 1);
  writeFile("/var/packages/Postwell/large.cf", std::string((1 << 20) + 1, 'x'));
  EXPECT_EQ(rule({"add", "/var/packages/Postwell/large.cf"}).status, 1);
  fs::create_directories("/var/packages/Postwell/folder.cf");
  EXPECT_EQ(rule({"add", "/var/packages/Postwell/folder.cf"}).status, 1);
}

// ---- dnsbl

class PostwellDnsbl : public testing::Test {
 protected:
  PostwellDnsbl() {
    makePackage();
    writeFile(PackageTree::kSettings, kSomeSettings);
  }
  static Outcome run(const Arguments &words) {
    return RUN_TEST_PROGRAM(Arguments{"dnsbl"} + words);
  }
  PackageTree package_;
};

TEST_F(PostwellDnsbl, AddListRemove) {
  const std::string off =
      "None is asked: \"postwell security set --dnsbl yes\" switches them on.\n";
  const Outcome added = run({"add", "Z.example", "b.example", "z.example"});
  EXPECT_EQ(added.out, "z.example is among them already.\n2 blocklists now.\n");
  EXPECT_EQ(added.err, off);
  EXPECT_EQ(run({"add", "--kind", "rhsbl", "b.example"}).status, 0);
  EXPECT_EQ(readFile(kBlocklists),
            "[RBL server]\nz.example\nb.example\n[RHSBL server]\nb.example\n");
  EXPECT_EQ(package_.takeCalls(),
            (Arguments{"DaemonConfSet.sh smtp", "DaemonConfSet.sh smtp"}));
  const Outcome listed = run({"list"});
  EXPECT_EQ(listed.out, "rbl z.example\nrbl b.example\nrhsbl b.example\n");
  EXPECT_EQ(listed.err, off);
  writeFile(PackageTree::kSettings, kSomeSettings + "spam_dnsbl_enable=\"yes\"\n");
  const Outcome removed = run({"remove", "b.example"});
  EXPECT_EQ(removed.out, "2 blocklists now; Postfix follows.\n");
  EXPECT_EQ(removed.err, "");
  EXPECT_EQ(run({"list", "--json"}).out, R"([
  {
    "kind": "rbl",
    "name": "z.example"
  },
  {
    "kind": "rhsbl",
    "name": "b.example"
  }
]
)");
}

TEST_F(PostwellDnsbl, ANameIsFoundInAnySpelling) {
  writeFile(kBlocklists,
            "[RBL server]\nB.example\nb.Example\n[RHSBL server]\nB.example\n");
  EXPECT_EQ(run({"add", "B.EXAMPLE"}).out,
            "b.example is among them already.\n3 blocklists now.\n");
  EXPECT_EQ(run({"remove", "B.EXAMPLE"}).out, "1 blocklist now.\n");
  EXPECT_EQ(readFile(kBlocklists), "[RBL server]\n[RHSBL server]\nB.example\n");
}

TEST_F(PostwellDnsbl, WithoutAnyThatIsTold) {
  for (const char *verb : {"list", "test"}) {
    const Outcome outcome = run({verb});
    EXPECT_EQ(outcome.status, 0);
    EXPECT_EQ(outcome.out, "");
    EXPECT_EQ(outcome.err, "postwell: there is no blocklist.\n");
    EXPECT_EQ(run({verb, "--json"}).out, "[]\n");
  }
}

TEST_F(PostwellDnsbl, NamesThatAreNoneAreRefusedAndCanBeRemoved) {
  for (const char *name : {"", "a b", "a\nb", "a_b.example", "x=127.0.0.1", "1.2.3.4",
                           "localhost", "example."})
    EXPECT_EQ(run({"add", name}).status, 2) << name;
  for (const char *kind : {"rbl", "rhsbl"})
    EXPECT_EQ(run({"add", kind, "b.example"}).err,
              std::string("postwell: NAME: must be the domain name of a list such as "
                          "list.example.org (--kind says what it lists), not \"") +
                  kind + "\"\nRun with --help for more information.\n");
  EXPECT_EQ(readFile(kBlocklists), kEmptyLists);
  EXPECT_EQ(run({"remove", "none.example"}).err,
            "postwell: \"none.example\" is not among them; nothing was changed.\n"
            "\"postwell dnsbl list\" shows what is.\n");
  writeFile(kBlocklists, "[RBL server]\na b\n[RHSBL server]\n");
  EXPECT_EQ(run({"remove", "a b"}).status, 0);
  EXPECT_EQ(readFile(kBlocklists), kEmptyLists);
}

TEST_F(PostwellDnsbl, MissingFileAndFailingScript) {
  package_.failScript("DaemonConfSet.sh");
  EXPECT_EQ(run({"add", "b.example"}).status, 1);
  ASSERT_EQ(unlink(kBlocklists.c_str()), 0);
  EXPECT_EQ(run({"list"}).err,
            "postwell: cannot read /var/packages/Postwell/etc/spamlist.conf.\n"
            "Run as root. If the file is missing, install the package again.\n");
}

// ---- security

class PostwellSecurity : public PostwellSettingsTest {
 protected:
  PostwellSecurity() : PostwellSettingsTest("security") { makePackage(); }

  const Arguments kAllSteps = {
      "DaemonConfSet.sh spam", "DaemonConfSet.sh smtp", "DaemonConfSet.sh mailscanner",
      "DaemonConfSet.sh spam", "DaemonConfSet.sh smtp", "DaemonConfSet.sh mailscanner"};
};

TEST_F(PostwellSecurity, ShowAndSet) {
  const std::string running = isRoot() ? "yes" : "unknown";
  const Outcome shown = show();
  EXPECT_EQ(shown.out,
            "spam              no\n"
            "dnsbl             no\n"
            "anti_virus        no\n"
            "clean_interval    30\n"
            "spam_runs         " +
                running + "\nanti_virus_runs   " + running + "\nmilters_run       " +
                running + '\n');
  EXPECT_EQ(shown.err, "");
  EXPECT_EQ(package_.takeCalls(), isRoot() ? kStates : Arguments());
  const Keys before = settingsNow();
  EXPECT_EQ(set({"--spam", "yes", "--dnsbl", "yes", "--anti-virus", "yes",
                 "--clean-interval", "7"})
                .out,
            "Spam filter on, DNS blocklists on, virus scanner on; the daemons follow.\n");
  const Keys changed = changedSince(before);
  EXPECT_EQ(changed.at("spam_enable"), "\"yes\"");
  EXPECT_EQ(changed.at("spam_dnsbl_enable"), "\"yes\"");
  EXPECT_EQ(changed.at("anti_virus_enable"), "\"yes\"");
  EXPECT_EQ(changed.at("spam_clean_interval"), "\"7\"");
  EXPECT_EQ(package_.takeCalls(), kAllSteps + kFiltersRun);
}

// Only root can look into all folders of the filters.
TEST_F(PostwellSecurity, ShowTellsWhatIsOnAndDown) {
  const std::string spamd =
      "postwell: the spam filter is on, but spamd is not running: mail is accepted "
      "without "
      "being judged.\n";
  const std::string clamd =
      "postwell: the virus scanner is on, but clamd is not running: all mail waits at "
      "its "
      "senders.\n";
  const std::string milter =
      "postwell: a milter that shows mail to them is not running, with the same "
      "effect.\n";
  const std::string remedy = "postwell: \"postwell security apply\" starts what is on.\n";
  const auto expectTold = [this](const std::string &spam, const std::string &virus,
                                 const std::string &told) {
    writeFile(PackageTree::kSettings, kSomeSettings + "spam_enable=\"" + spam +
                                          "\"\nanti_virus_enable=\"" + virus + "\"\n");
    for (const Arguments &options : {Arguments{}, Arguments{"--json"}}) {
      const Outcome outcome = show(options);
      EXPECT_EQ(outcome.status, 0);
      EXPECT_EQ(outcome.err, isRoot() ? told : "");
    }
  };
  expectTold("yes", "yes", "");
  package_.failScript("MailScanner.sh", 3, "status");
  expectTold("yes", "no", milter + remedy);
  package_.failScript("SpamDaemon.sh", 3, "status");
  expectTold("no", "no", "");
  expectTold("no", "yes", milter + remedy);
  package_.failScript("kest_anti-virus", 3, "status");
  expectTold("yes", "yes", spamd + clamd + milter + remedy);
  package_.failScript("MailScanner.sh", 0, "status");
  expectTold("no", "yes", clamd + remedy);
  expectTold("yes", "no", spamd + remedy);
  const std::string value = isRoot() ? "false" : "null";
  EXPECT_NE(
      show({"--json"})
          .out.find("\"clean_interval\": 30,\n  \"spam_runs\": " + value +
                    ",\n  \"anti_virus_runs\": " + value +
                    ",\n  \"milters_run\": " + (isRoot() ? "true" : "null") + "\n}\n"),
      std::string::npos);
}

TEST_F(PostwellSecurity, ApplyTakesWhatIsStored) {
  const Outcome outcome = RUN_TEST_PROGRAM(Arguments{"security", "apply"});
  EXPECT_EQ(outcome.status, 0) << outcome.err;
  EXPECT_EQ(
      outcome.out,
      "Spam filter off, DNS blocklists off, virus scanner off; the daemons follow.\n");
  EXPECT_EQ(package_.takeCalls(), kAllSteps + kFiltersRun);
}

TEST_F(PostwellSecurity, EachFailingStepIsToldThoughTheLibraryReportsSuccess) {
  const std::vector<std::pair<std::string, std::string>> steps = {
      {"DaemonConfSet.sh", "spam"},        {"DaemonConfSet.sh", "smtp"},
      {"DaemonConfSet.sh", "mailscanner"}, {"SpamDaemon.sh", "start"},
      {"kest_anti-virus", "start"},        {"MailScanner.sh", "start"}};
  for (const auto &[script, argument] : steps) {
    const PackageTree fresh;
    makePackage();
    writeFile(PackageTree::kSettings, kSomeSettings + kStored);
    package_.failScript(script, 1, argument);
    const Outcome outcome = RUN_TEST_PROGRAM(Arguments{"security", "apply"});
    EXPECT_EQ(outcome.status, 1) << script << argument;
    EXPECT_EQ(outcome.out, "");
    EXPECT_NE(outcome.err.find(script + ' ' + argument + '"'), std::string::npos)
        << outcome.err;
  }
}

TEST_F(PostwellSecurity, SettingsThatAreNotStoredAreTold) {
  const std::string message =
      "postwell: all settings but that of the spam filter could not be stored: the spam "
      "filter does not take its\n"
      "settings, of which a line above tells, or the line anti_virus_enable in\n"
      "/var/packages/Postwell/etc/postwell.conf is damaged.\n"
      "Correct the cause and set them again.\n";
  // a value that the library has no room for ends its sequence there
  writeFile(PackageTree::kSettings,
            kSomeSettings + "anti_virus_enable=\"" + std::string(16, 'x') + "\"\n");
  const Outcome outcome = set({"--dnsbl", "yes"});
  EXPECT_EQ(outcome.status, 1);
  EXPECT_EQ(outcome.out, "");
  EXPECT_EQ(outcome.err, message);
  EXPECT_EQ(settingsNow().count("spam_dnsbl_enable"), 0u);

  // as does a configuration that the spam filter refuses
  writeFile(PackageTree::kSettings, kSomeSettings);
  package_.failScript("DaemonConfSet.sh", 1, "spam");
  EXPECT_EQ(set({"--dnsbl", "yes"}).err, message);
  EXPECT_EQ(settingsNow().count("spam_dnsbl_enable"), 0u);
}

TEST_F(PostwellSecurity, BlocklistsThatAreNotStoredAreTold) {
  ASSERT_EQ(chmod(kBlocklists.c_str(), 0444), 0);
  const Outcome outcome = set({"--dnsbl", "yes"});
  EXPECT_EQ(outcome.status, 1);
  EXPECT_EQ(outcome.out, "");
  EXPECT_EQ(outcome.err,
            "postwell: the blocklists could not be stored: "
            "/var/packages/Postwell/etc/spamlist.conf cannot be written; the\n"
            "system log tells why. Compare \"postwell dnsbl list\" with what should be "
            "there.\nCorrect the cause and set them again.\n");
}

TEST_F(PostwellSecurity, WrongValuesAreRefused) {
  expectRefused({}, "name at least one setting");
  expectRefused({"--clean-interval", "-1"},
                "--clean-interval: must be a whole number from 0 to 9999, not \"-1\"");
  expectRefused({"--spam", "maybe"}, "--spam: must be yes or no, not \"maybe\"");
}

}  // namespace
