// postwell blacklist|whitelist list|add|remove|import|export.

#include <gtest/gtest.h>
#include <unistd.h>

#include "programs/run_program.h"
#include "programs/settings.h"
#include "support/database.h"

namespace {

using Arguments = std::vector<std::string>;
using Rows = std::vector<std::string>;

const std::string kDatabase = "/var/packages/Postwell/etc/postwell.db";
const std::string kFile = "/var/packages/Postwell/etc/list.txt";
const std::string kMaker = "kest_spam_blackwhite";

class PostwellSpamLists : public testing::Test {
 protected:
  // The first command makes postwell.db.
  PostwellSpamLists() {
    writeFile(PackageTree::kSettings, "smtp_hostname=\"mail.example\"\n");
    EXPECT_EQ(run({"blacklist", "add", "sender", "--domain", "x.example"}).status, 0);
    EXPECT_EQ(run({"blacklist", "remove", "sender", "--domain", "x.example"}).status, 0);
    package_.takeCalls();
  }

  static Outcome run(const Arguments &arguments) { return RUN_TEST_PROGRAM(arguments); }

  static Rows entries() {
    return database::rowsOf(kDatabase, "select * from blackwhite_table order by rowid;");
  }
  static void store(const std::string &sql) {
    EXPECT_EQ(database::Connection(kDatabase).run(sql), 0) << sql;
  }

  // The command is done, says this and makes these calls.
  void expectDone(const Arguments &arguments, const std::string &out, const Rows &calls,
                  const std::string &err = "") {
    const Outcome outcome = run(arguments);
    EXPECT_EQ(outcome.status, 0) << testing::PrintToString(arguments);
    EXPECT_EQ(outcome.out, out);
    EXPECT_EQ(outcome.err, err);
    EXPECT_EQ(package_.takeCalls(), calls);
  }

  // The command ends with the status, says this and changes nothing.
  void expectRefused(const Arguments &arguments, int status, const std::string &message) {
    const Rows before = entries();
    const Outcome outcome = run(arguments);
    EXPECT_EQ(outcome.status, status) << testing::PrintToString(arguments);
    EXPECT_EQ(outcome.out, "");
    EXPECT_EQ(outcome.err.rfind("postwell: " + message, 0), 0u) << outcome.err;
    EXPECT_EQ(entries(), before);
    EXPECT_EQ(package_.takeCalls(), Rows());
  }

  PackageTree package_;
};

TEST_F(PostwellSpamLists, BeforeTheFirstRuleThereIsNoFileAndTheListsAreEmpty) {
  unlink(kDatabase.c_str());
  for (const char *noun : {"blacklist", "whitelist"})
    expectDone({noun, "list"}, "", {}, "postwell: there is no rule to show.\n");
  EXPECT_FALSE(fileExists(kDatabase));
}

TEST_F(PostwellSpamLists, AddAndRemove) {
  expectDone({"blacklist", "add", "sender", "--account", "amy", "--address",
              "a@b.example", "--domain", "b.example", "--domain", "c.example"},
             "4 rules stored; the spam filter follows.\n", {kMaker});
  expectDone({"whitelist", "add", "recipient", "--address", "a@b.example"},
             "1 rule stored; the spam filter follows.\n", {kMaker});
  EXPECT_EQ(entries(), (Rows{"0|amy|0|1", "1|a@b.example|0|1", "2|b.example|0|1",
                             "2|c.example|0|1", "1|a@b.example|1|2"}));
  expectDone(
      {"blacklist", "remove", "sender", "--account", "amy", "--domain", "b.example"},
      "2 rules removed; the spam filter follows.\n", {kMaker});
  EXPECT_EQ(entries(),
            (Rows{"1|a@b.example|0|1", "2|c.example|0|1", "1|a@b.example|1|2"}));
}

TEST_F(PostwellSpamLists, AddingToOneListTakesFromTheOtherAndSaysSo) {
  expectDone({"blacklist", "add", "sender", "--domain", "a.example"},
             "1 rule stored; the spam filter follows.\n", {kMaker});
  expectDone({"whitelist", "add", "sender", "--domain", "a.example"},
             "1 rule stored; the spam filter follows.\n", {kMaker},
             "The sender domain \"a.example\" was in the other list.\n");
  EXPECT_EQ(entries(), Rows{"2|a.example|0|2"});
  expectRefused({"blacklist", "remove", "sender", "--domain", "a.example"}, 1,
                "there is no rule for the sender domain \"a.example\"; nothing was "
                "changed.\n\"postwell blacklist list\" shows what there is.\n");
}

TEST_F(PostwellSpamLists, ARuleThatIsThereAlreadyIsTold) {
  const Arguments add = {"blacklist", "add", "sender", "--domain", "A.example"};
  expectDone(add, "1 rule stored; the spam filter follows.\n", {kMaker});
  expectDone(add, "The rule for the sender domain \"a.example\" is there already.\n",
             {kMaker});
  EXPECT_EQ(entries(), Rows{"2|a.example|0|1"});
}

TEST_F(PostwellSpamLists, RulesThatTheSpamFilterCannotTakeAreRefused) {
  const std::string unchanged = "; nothing was changed.\nIt must look like ";
  const std::vector<std::pair<Arguments, std::string>> rules = {
      {{"--address", "*@b.example"},
       "\"*@b.example\" is refused: it is no mail address that the spam filter can take"},
      {{"--address", "a@b\nc"},
       "\"a@b\\x0ac\" is refused: it is no mail address that the spam filter can take"},
      {{"--domain", "a_b"}, "\"a_b\" is refused: it is no domain name"},
      {{"--account", "a b"},
       "\"a b\" is refused: it is no account name that the spam filter can take"}};
  for (const auto &[names, message] : rules) {
    Arguments words{"blacklist", "add", "sender", "--domain", "good.example"};
    words.insert(words.end(), names.begin(), names.end());
    expectRefused(words, 2, message + unchanged);
  }
  expectRefused({"whitelist", "add", "sender"}, 2,
                "name something with --account, --address or --domain. Example: postwell "
                "whitelist add sender --domain example.org\n");
  expectRefused({"whitelist", "add", "client", "--domain", "a.example"}, 2,
                "TYPE: must be sender or recipient, not \"client\"");
}

TEST_F(PostwellSpamLists, WhatIsStoredCanBeRemovedWhateverItIs) {
  store("insert into blackwhite_table values(2, 'a b' || char(10), 0, 2);");
  expectDone({"whitelist", "remove", "sender", "--domain", "a b\n"},
             "1 rule removed; the spam filter follows.\n", {kMaker});
  EXPECT_EQ(entries(), Rows());
}

TEST_F(PostwellSpamLists, ListInPagesAndBySearch) {
  store(
      "insert into blackwhite_table values(2, 'b.example', 0, 1), (0, 'amy', 1, 1), "
      "(1, 'Q@c.example', 0, 1), (7, 'z' || char(27), 9, 1), (2, 'w.example', 0, 2);");
  expectDone({"blacklist", "list"},
             "sender address Q@c.example\nrecipient account amy\n"
             "sender domain b.example\nunknown unknown z\\x1b\n",
             {});
  expectDone({"whitelist", "list"}, "sender domain w.example\n", {});
  expectDone({"blacklist", "list", "--offset", "1", "--limit", "2"},
             "recipient account amy\nsender domain b.example\n", {});
  expectDone({"blacklist", "list", "--type", "sender", "--search", "EXAMPLE"},
             "sender address Q@c.example\nsender domain b.example\n", {});
  expectDone({"whitelist", "list", "--json"}, R"({
  "total": 1,
  "rules": [
    {
      "type": "sender",
      "kind": "domain",
      "name": "w.example"
    }
  ]
}
)",
             {});
}

TEST_F(PostwellSpamLists, ImportTellsWhatItSkipsAndWhy) {
  writeFile(kFile,
            "FromOrTo: default no\nFrom: a@b.example yes\r\n\nTO:  c.example   YES\n"
            "Cc: d.example yes\nFrom: e.example\nFrom: f.example no\n"
            "From: *@g.example yes\nTo: h.example i.example yes\nFrom:\nFrom: yes\n"
            "To: last.example yes");
  expectDone(
      {"blacklist", "import", kFile},
      "Line 5 is skipped (\"Cc: d.example yes\"): it begins with neither From: "
      "nor To:.\n"
      "Line 6 is skipped (\"From: e.example\"): it does not end with yes.\n"
      "Line 7 is skipped (\"From: f.example no\"): it does not end with yes.\n"
      "Line 8 is skipped (\"From: *@g.example yes\"): it is no mail address that "
      "the spam filter can take.\n"
      "Line 9 is skipped (\"To: h.example i.example yes\"): it has more than three "
      "words.\n"
      "Line 10 is skipped (\"From:\"): it does not end with yes.\n"
      "Line 11 is skipped (\"From: yes\"): it does not end with yes.\n"
      "3 lines taken, 7 lines skipped; the spam filter follows.\n",
      {kMaker});
  EXPECT_EQ(entries(),
            (Rows{"1|a@b.example|0|1", "2|c.example|1|1", "2|last.example|1|1"}));
  writeFile(kFile, "From: W.Example\tyes\nnonsense\n");
  expectDone({"whitelist", "import", kFile, "--json"}, R"({
  "taken": 1,
  "skipped": [
    {
      "line": 2,
      "text": "nonsense",
      "reason": "it begins with neither From: nor To:"
    }
  ]
}
)",
             {kMaker});
  EXPECT_EQ(entries().back(), "2|w.example|0|2");
  expectRefused({"whitelist", "import", "/no/such/file"}, 1,
                "cannot read \"/no/such/file\"");
}

TEST_F(PostwellSpamLists, WhatIsExportedIsImportedWithoutALineSkipped) {
  store(
      "insert into blackwhite_table values(2, 'b.example', 0, 1), (0, 'amy', 1, 1), "
      "(2, 'w.example', 0, 2);");
  expectDone({"blacklist", "export", kFile}, "2 rules written to \"" + kFile + "\".\n",
             {});
  EXPECT_EQ(readFile(kFile),
            "FromOrTo: default no\nFrom: b.example yes\nTo: amy@mail.example yes\n");
  expectDone({"whitelist", "import", kFile},
             "2 lines taken, 0 lines skipped; the spam filter follows.\n", {kMaker},
             "The sender domain \"b.example\" was in the other list.\n");
  expectRefused(
      {"blacklist", "export", "/no/such/file"}, 1,
      "cannot write the rules into \"/no/such/file\"; the system log tells why");
}

TEST_F(PostwellSpamLists, ListsThatCannotBeMadeAreToldWithTheRemedy) {
  package_.failScript(kMaker);
  const Outcome outcome = run({"blacklist", "add", "sender", "--domain", "a.example"});
  EXPECT_EQ(outcome.status, 1);
  EXPECT_NE(
      outcome.err.find("run \"/var/packages/Postwell/target/bin/kest_spam_blackwhite\""),
      std::string::npos)
      << outcome.err;
  EXPECT_EQ(entries(), Rows{"2|a.example|0|1"});
}

TEST_F(PostwellSpamLists, ADamagedFileIsLeftAsItIs) {
  database::spoilSchema(kDatabase);
  const std::string damaged = readFile(kDatabase);
  writeFile(kFile, "From: a.example yes\n");
  for (const Arguments &arguments :
       std::vector<Arguments>{{"blacklist", "list"},
                              {"blacklist", "add", "sender", "--domain", "a.example"},
                              {"blacklist", "remove", "sender", "--domain", "a.example"},
                              {"blacklist", "import", kFile},
                              {"blacklist", "export", kFile}}) {
    const Outcome outcome = run(arguments);
    EXPECT_EQ(outcome.status, 1) << testing::PrintToString(arguments);
    EXPECT_EQ(outcome.err.rfind("postwell: the rules are damaged: restore ", 0), 0u)
        << outcome.err;
    EXPECT_EQ(readFile(kDatabase), damaged);
  }
  EXPECT_EQ(package_.takeCalls(), Rows());
}

TEST_F(PostwellSpamLists, AFileThatSomeoneElseIsWritingOrSettingsThatAreGone) {
  database::Connection writer(kDatabase);
  ASSERT_EQ(writer.run("BEGIN IMMEDIATE;"), 0);
  expectRefused({"blacklist", "add", "sender", "--domain", "a.example"}, 1,
                "the rules are not as wanted. Run as root, and again");
  ASSERT_EQ(writer.run("ROLLBACK;"), 0);
  unlink(PackageTree::kSettings);
  expectRefused({"blacklist", "add", "sender", "--domain", "a.example"}, 1,
                "cannot read /var/packages/Postwell/etc/postwell.conf.\n");
}

}  // namespace
