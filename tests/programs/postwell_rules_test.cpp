// postwell access list|add|remove|import|export and postwell bcc list|add|remove|always|
// import|export.

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
const std::string kUnchanged = "; nothing was changed";
const std::string kNoRule = "postwell: there is no rule to show.\n";

class PostwellRules : public testing::Test {
 protected:
  // The first command makes postwell.db.
  PostwellRules() {
    writeFile(PackageTree::kSettings, "smtp_hostname=\"mail.example\"\n");
    EXPECT_EQ(run({"access", "add", "sender", "reject", "--domain", "x.example"}).status,
              0);
    EXPECT_EQ(run({"access", "remove", "sender", "--domain", "x.example"}).status, 0);
    package_.takeCalls();
  }

  static Outcome run(const Arguments &arguments) { return RUN_TEST_PROGRAM(arguments); }

  static Rows accessRules() {
    return database::rowsOf(kDatabase, "select * from access_table order by rowid;");
  }
  static Rows bccRules() {
    return database::rowsOf(kDatabase, "select * from bcc_table order by rowid;");
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
    const Rows access = accessRules(), bcc = bccRules();
    const std::string settings = readFile(PackageTree::kSettings);
    const Outcome outcome = run(arguments);
    EXPECT_EQ(outcome.status, status) << testing::PrintToString(arguments);
    EXPECT_EQ(outcome.out, "");
    EXPECT_EQ(outcome.err.rfind("postwell: " + message, 0), 0u) << outcome.err;
    EXPECT_EQ(accessRules(), access);
    EXPECT_EQ(bccRules(), bcc);
    EXPECT_EQ(readFile(PackageTree::kSettings), settings);
    EXPECT_EQ(package_.takeCalls(), Rows());
  }

  PackageTree package_;
};

TEST_F(PostwellRules, BeforeTheFirstRuleThereIsNoFileAndTheListIsEmpty) {
  unlink(kDatabase.c_str());
  for (const char *noun : {"access", "bcc"}) {
    expectDone({noun, "list"}, "", {}, kNoRule);
    expectDone({noun, "list", "--json"}, "{\n  \"total\": 0,\n  \"rules\": []\n}\n", {});
  }
  EXPECT_FALSE(fileExists(kDatabase));
}

// ---- access

TEST_F(PostwellRules, AccessAddAndRemove) {
  expectDone({"access", "add", "sender", "reject", "--account", "amy", "--address",
              "a@b.example", "--domain", "b.example", "--domain", "c.example"},
             "4 rules stored; Postfix follows.\n", {"kest_access_map"});
  expectDone({"access", "add", "client", "permit", "--address", "192.0.2.1"},
             "1 rule stored; Postfix follows.\n", {"kest_access_map"});
  expectDone({"access", "add", "sender", "discard", "--domain", "b.example"},
             "1 rule stored; Postfix follows.\n", {"kest_access_map"});
  EXPECT_EQ(accessRules(), (Rows{"0|amy|0|2", "1|a@b.example|0|2", "2|c.example|0|2",
                                 "1|192.0.2.1|2|1", "2|b.example|0|3"}));
  expectDone({"access", "remove", "sender", "--account", "amy", "--domain", "b.example"},
             "2 rules removed; Postfix follows.\n", {"kest_access_map"});
  EXPECT_EQ(accessRules(),
            (Rows{"1|a@b.example|0|2", "2|c.example|0|2", "1|192.0.2.1|2|1"}));
}

TEST_F(PostwellRules, AccessRulesThatNoMapCarriesAreRefused) {
  const std::vector<std::pair<Arguments, std::string>> rules = {
      {{"--address", "no address"}, "\"no address\" is refused: it is no mail address"},
      {{"--address", "a@b\nc OK"}, "\"a@b\\x0ac OK\" is refused: it is no mail address"},
      {{"--domain", "a_b"}, "\"a_b\" is refused: it is no domain name"},
      {{"--account", ""}, "\"\" is refused: it is no account name"}};
  for (const auto &[names, message] : rules) {
    Arguments words{"access", "add", "sender", "reject", "--domain", "good.example"};
    words.insert(words.end(), names.begin(), names.end());
    expectRefused(words, 2, message + kUnchanged);
  }
  expectRefused({"access", "add", "client", "reject", "--account", "amy"}, 2,
                "\"amy\" is refused: a client has no account" + kUnchanged);
  expectRefused({"access", "add", "sender", "reject"}, 2,
                "name something with --account, --address or --domain. Example: postwell "
                "access add sender reject --domain spammer.example\n");
  expectRefused({"access", "add", "all", "reject", "--domain", "a.example"}, 2,
                "TYPE: must be sender, recipient or client, not \"all\"");
  expectRefused({"access", "add", "sender", "deny", "--domain", "a.example"}, 2,
                "ACTION: must be permit, reject or discard, not \"deny\"");
}

TEST_F(PostwellRules, ARefusalTellsHowANameIsWritten) {
  const auto expectAdvice = [this](const Arguments &rule, const std::string &looks) {
    Arguments words{"access", "add"};
    words.insert(words.end(), rule.begin(), rule.end());
    expectRefused(words, 2, '"' + rule.back() + "\" is refused: ");
    const std::string err = run(words).err,
                      advice = "\nIt must look like " + looks + ".\n";
    EXPECT_EQ(err.substr(err.find('\n')), advice);
  };
  expectAdvice({"sender", "reject", "--account", "a b"}, "bob");
  expectAdvice({"recipient", "reject", "--address", "x.example"}, "bob@example.org");
  expectAdvice({"sender", "reject", "--domain", "a@x.example"}, "example.org");
  const std::string client =
      "192.0.2.1, 2001:db8::7, mail.example.org, example.org or, for all\n"
      "of 192.0.2.0/24, 192.0.2";
  for (const char *name : {"192.0.2.0/24", "192.0.2.0/33", "192.0.2.", "300.0.2.1"})
    expectAdvice({"client", "reject", "--address", name}, client);
  expectDone({"access", "add", "client", "reject", "--address", "192.0.2"},
             "1 rule stored; Postfix follows.\n", {"kest_access_map"});
}

TEST_F(PostwellRules, AccessRulesThatAreThereAlreadyAreTold) {
  const Arguments add = {"access", "add", "sender", "reject", "--domain", "b.example"};
  expectDone(add, "1 rule stored; Postfix follows.\n", {"kest_access_map"});
  const std::string told =
      "The rule for the sender domain \"b.example\" is there already.\n";
  expectDone(add, told, {"kest_access_map"});
  Arguments both = add;
  both.insert(both.end(), {"--domain", "c.example", "--address", "B.example@b.example"});
  expectDone(both, told + "2 rules stored; Postfix follows.\n", {"kest_access_map"});
  expectDone({"access", "add", "sender", "reject", "--domain", "B.EXAMPLE"}, told,
             {"kest_access_map"});
  expectDone({"access", "add", "recipient", "reject", "--domain", "b.example"},
             "1 rule stored; Postfix follows.\n", {"kest_access_map"});
  expectDone({"access", "add", "sender", "permit", "--domain", "b.example"},
             "1 rule stored; Postfix follows.\n", {"kest_access_map"});
}

TEST_F(PostwellRules, WhatIsStoredCanBeRemovedWhateverItIs) {
  store("insert into access_table values(2, 'a b' || char(10), 0, 7);");
  expectDone({"access", "remove", "sender", "--domain", "a b\n"},
             "1 rule removed; Postfix follows.\n", {"kest_access_map"});
  EXPECT_EQ(accessRules(), Rows());
  expectRefused({"access", "remove", "sender", "--domain", "gone.example"}, 1,
                "there is no rule for the sender domain \"gone.example\"; nothing was "
                "changed.\n\"postwell access list\" shows what there is.\n");
}

TEST_F(PostwellRules, AccessListInPagesAndBySearch) {
  store(
      "insert into access_table values(2, 'b.example', 0, 2), (0, 'amy', 1, 1), "
      "(1, 'Q@c.example', 2, 3), (7, 'z' || char(27), 9, 0);");
  expectDone({"access", "list"},
             "client address Q@c.example discard\nrecipient account amy permit\n"
             "sender domain b.example reject\nunknown unknown z\\x1b unknown\n",
             {});
  expectDone({"access", "list", "--offset", "1", "--limit", "2"},
             "recipient account amy permit\nsender domain b.example reject\n", {});
  expectDone({"access", "list", "--search", "EXAMPLE"},
             "client address Q@c.example discard\nsender domain b.example reject\n", {});
  expectDone({"access", "list", "--type", "sender"}, "sender domain b.example reject\n",
             {});
  expectDone({"access", "list", "--search", "q@", "--json"}, R"({
  "total": 1,
  "rules": [
    {
      "type": "client",
      "kind": "address",
      "name": "Q@c.example",
      "action": "discard"
    }
  ]
}
)",
             {});
  expectDone({"access", "list", "--search", "nowhere"}, "", {}, kNoRule);
  expectDone({"access", "list", "--limit", "0", "--json"},
             "{\n  \"total\": 4,\n  \"rules\": []\n}\n", {});
  expectRefused({"access", "list", "--offset", "-1"}, 2,
                "--offset: must be a whole number from 0 to");
}

TEST_F(PostwellRules, AccessImportTellsWhatItSkipsAndWhy) {
  writeFile(kFile,
            "a@b.example  Reject\r\n\n  c.example OK\nbad_name OK\nd.example\n"
            "e.example deny\nf_g\tOK\nlast.example\t discard");
  expectDone(
      {"access", "import", "recipient", kFile},
      "Line 4 is skipped (\"bad_name OK\"): it is no domain name.\n"
      "Line 5 is skipped (\"d.example\"): its action is none of permit, OK, reject "
      "and discard.\n"
      "Line 6 is skipped (\"e.example deny\"): its action is none of permit, OK, reject "
      "and discard.\n"
      "Line 7 is skipped (\"f_g OK\"): it is no domain name.\n"
      "3 lines taken, 4 lines skipped; Postfix follows.\n",
      {"kest_access_map"});
  EXPECT_EQ(accessRules(),
            (Rows{"1|a@b.example|1|2", "2|c.example|1|1", "2|last.example|1|3"}));
  writeFile(kFile, "B.Example OK\nbad_name OK\n");
  expectDone({"access", "import", "sender", kFile, "--json"}, R"({
  "taken": 1,
  "skipped": [
    {
      "line": 2,
      "text": "bad_name OK",
      "reason": "it is no domain name"
    }
  ]
}
)",
             {"kest_access_map"});
  EXPECT_EQ(accessRules().back(), "2|b.example|0|1");
  writeFile(kFile, "bad_name OK\n");
  const Outcome nothing = run({"access", "import", "sender", kFile});
  EXPECT_EQ(nothing.status, 1);
  EXPECT_EQ(nothing.err, "postwell: no line of the file was taken\n");
  package_.takeCalls();
  expectRefused({"access", "import", "sender", "/no/such/file"}, 1,
                "cannot read \"/no/such/file\"");
  expectRefused({"access", "import", "sender", "/var"}, 1, "cannot read \"/var\"");
}

TEST_F(PostwellRules, NamesThatDifferInCapitalsAreOneRule) {
  expectDone({"access", "add", "sender", "reject", "--domain", "B.Example"},
             "1 rule stored; Postfix follows.\n", {"kest_access_map"});
  EXPECT_EQ(accessRules(), Rows{"2|b.example|0|2"});
  store("insert into access_table values(2, 'C.example', 0, 2), (2, 'C.Example', 0, 2);");
  run({"access", "add", "sender", "permit", "--domain", "c.EXAMPLE"});
  EXPECT_EQ(accessRules(),
            (Rows{"2|b.example|0|2", "2|C.example|0|2", "2|C.Example|0|1"}));
  run({"access", "remove", "sender", "--domain", "B.EXAMPLE", "--domain", "c.example"});
  EXPECT_EQ(accessRules(), Rows());
}

TEST_F(PostwellRules, AClientsAddressIsTheSameRuleAfterExportAndImport) {
  run({"access", "add", "client", "reject", "--address", "192.0.2.1"});
  ASSERT_EQ(run({"access", "export", "client", kFile}).status, 0);
  ASSERT_EQ(run({"access", "import", "client", kFile}).status, 0);
  EXPECT_EQ(accessRules(), Rows{"1|192.0.2.1|2|2"});
}

TEST_F(PostwellRules, AnExportThatCannotReadLeavesTheFileAlone) {
  writeFile(kFile, "kept");
  ASSERT_EQ(unlink(PackageTree::kSettings), 0);
  const Outcome outcome = run({"access", "export", "sender", kFile});
  EXPECT_EQ(outcome.status, 1);
  EXPECT_NE(outcome.err.find("cannot read /var/packages/Postwell/etc/postwell.conf"),
            std::string::npos)
      << outcome.err;
  EXPECT_EQ(readFile(kFile), "kept");
}

TEST_F(PostwellRules, AccessExport) {
  store(
      "insert into access_table values(2, 'b.example', 0, 2), (0, 'amy', 0, 1), "
      "(2, 'c.example', 1, 2);");
  expectDone({"access", "export", "sender", kFile},
             "2 rules written to \"" + kFile + "\".\n", {});
  EXPECT_EQ(readFile(kFile), "b.example REJECT\namy@mail.example OK\n");
  expectRefused(
      {"access", "export", "sender", "/no/such/file"}, 1,
      "cannot write the rules into \"/no/such/file\"; the system log tells why");
}

TEST_F(PostwellRules, AMapThatFailsIsToldWithTheRemedy) {
  package_.failScript("kest_access_map");
  const Outcome outcome =
      run({"access", "add", "sender", "reject", "--domain", "a.example"});
  EXPECT_EQ(outcome.status, 1);
  EXPECT_NE(outcome.err.find("run \"/var/packages/Postwell/target/bin/kest_access_map\""),
            std::string::npos)
      << outcome.err;
  EXPECT_EQ(accessRules(), Rows{"2|a.example|0|2"});
}

TEST_F(PostwellRules, ADamagedFileIsLeftAsItIs) {
  database::spoilSchema(kDatabase);
  const std::string damaged = readFile(kDatabase);
  for (const Arguments &arguments : std::vector<Arguments>{
           {"access", "list"},
           {"access", "add", "sender", "reject", "--domain", "a.example"},
           {"access", "remove", "sender", "--domain", "a.example"},
           {"access", "export", "sender", kFile},
           {"bcc", "list"},
           {"bcc", "add", "sender", "amy", "boss"},
           {"bcc", "remove", "sender", "amy"},
           {"bcc", "export", "sender", kFile}}) {
    const Outcome outcome = run(arguments);
    EXPECT_EQ(outcome.status, 1) << testing::PrintToString(arguments);
    EXPECT_EQ(outcome.err.rfind("postwell: the rules are damaged: restore ", 0), 0u)
        << outcome.err;
    EXPECT_EQ(readFile(kDatabase), damaged);
  }
  EXPECT_EQ(package_.takeCalls(), Rows());
}

TEST_F(PostwellRules, AFileThatSomeoneElseIsWritingIsNotChanged) {
  database::Connection writer(kDatabase);
  ASSERT_EQ(writer.run("BEGIN IMMEDIATE;"), 0);
  const std::string message = "the rules are not as wanted. Run as root, and again";
  expectRefused({"access", "add", "sender", "reject", "--domain", "a.example"}, 1,
                message);
  expectRefused({"bcc", "add", "sender", "amy", "boss"}, 1, message);
  ASSERT_EQ(writer.run("ROLLBACK;"), 0);
  expectDone({"bcc", "add", "sender", "amy", "boss"}, "1 rule stored; Postfix follows.\n",
             {"kest_bcc_map"});
}

// ---- bcc

TEST_F(PostwellRules, BccAddAndRemove) {
  expectDone({"bcc", "add", "sender", "amy", "boss@b.example"},
             "1 rule stored; Postfix follows.\n", {"kest_bcc_map"});
  expectDone({"bcc", "add", "recipient", "c@d.example", "archive"},
             "1 rule stored; Postfix follows.\n", {"kest_bcc_map"});
  EXPECT_EQ(bccRules(), (Rows{"amy|0|boss@b.example", "c@d.example|1|archive"}));
  expectRefused({"bcc", "remove", "recipient", "amy"}, 1,
                "there is no rule for the recipient \"amy\"; nothing was changed.\n");
  expectDone({"bcc", "remove", "sender", "amy"}, "1 rule removed; Postfix follows.\n",
             {"kest_bcc_map"});
  EXPECT_EQ(bccRules(), Rows{"c@d.example|1|archive"});
}

TEST_F(PostwellRules, ANameInBracketsIsOneName) {
  store("insert into bcc_table values('a', 0, 'x'), ('b', 0, 'x'), ('[a,b]', 0, 'x');");
  expectDone({"bcc", "remove", "sender", "[a,b]"}, "1 rule removed; Postfix follows.\n",
             {"kest_bcc_map"});
  EXPECT_EQ(bccRules(), (Rows{"a|0|x", "b|0|x"}));
  expectRefused({"bcc", "remove", "sender", "a", "[b]"}, 1,
                "there is no rule for the sender \"[b]\"; nothing was changed.\n");
  expectRefused({"bcc", "[a]"}, 2, "\"[a]\" is none of: list, add, ");
}

TEST_F(PostwellRules, BccRulesThatNoMapCarriesAreRefused) {
  expectRefused({"bcc", "add", "sender", "a b", "boss"}, 2,
                "\"a b\" is refused: it is no account name or mail address" + kUnchanged);
  expectRefused({"bcc", "add", "sender", "amy", "x, y"}, 2,
                "\"amy\" is refused: its target \"x, y\" is no account name or mail "
                "address" +
                    kUnchanged + ".\nIt must look like bob or bob@example.org.\n");
  expectRefused({"bcc", "add", "client", "amy", "boss"}, 2,
                "TYPE: must be sender or recipient, not \"client\"");
}

TEST_F(PostwellRules, ABccRuleThatIsThereAlreadyIsTold) {
  const Arguments add = {"bcc", "add", "sender", "Amy", "boss"};
  expectDone(add, "1 rule stored; Postfix follows.\n", {"kest_bcc_map"});
  expectDone(add, "The rule for the sender \"amy\" is there already.\n",
             {"kest_bcc_map"});
  expectDone({"bcc", "add", "sender", "amy", "other"},
             "1 rule stored; Postfix follows.\n", {"kest_bcc_map"});
}

TEST_F(PostwellRules, BccListInPagesAndBySearch) {
  store("insert into bcc_table values('b', 0, 'Boss'), ('a', 1, 'x'), ('c', 0, 'y');");
  expectDone({"bcc", "list"}, "recipient a x\nsender b Boss\nsender c y\n", {});
  expectDone({"bcc", "list", "--type", "sender", "--offset", "1"}, "sender c y\n", {});
  expectDone({"bcc", "list", "--search", "boss", "--json"}, R"({
  "total": 1,
  "rules": [
    {
      "type": "sender",
      "name": "b",
      "target": "Boss"
    }
  ]
}
)",
             {});
}

TEST_F(PostwellRules, BccAlways) {
  expectDone({"bcc", "always", "show"}, "(none)\n", {});
  expectDone({"bcc", "always", "set", "boss@b.example"},
             "A copy of all mail goes to \"boss@b.example\"; Postfix follows.\n",
             {"DaemonConfSet.sh smtp"});
  expectDone({"bcc", "always", "show", "--json"},
             "{\n  \"target\": \"boss@b.example\"\n}\n", {});
  expectRefused(
      {"bcc", "always", "set", "x\ny"}, 2,
      "TARGET: must be a mail address or the name of an account, not \"x\\x0ay\"");
  expectDone({"bcc", "always", "off"},
             "No copy of all mail goes anywhere; Postfix follows.\n",
             {"DaemonConfSet.sh smtp"});
  EXPECT_EQ(readFile(PackageTree::kSettings),
            "smtp_hostname=\"mail.example\"\nalways_bcc=\"\"\n");
  package_.failScript("DaemonConfSet.sh");
  const Outcome outcome = run({"bcc", "always", "set", "boss"});
  EXPECT_EQ(outcome.status, 1);
  EXPECT_NE(outcome.err.find("the new settings are in the file"), std::string::npos);
}

TEST_F(PostwellRules, BccImportAndExport) {
  writeFile(kFile, "amy boss\nbob x@elsewhere.example\ncarol\nd e f\n");
  expectDone(
      {"bcc", "import", "sender", kFile},
      "Line 3 is skipped (\"carol\"): its target \"\" is no account name or mail "
      "address.\n"
      "Line 4 is skipped (\"d e f\"): its target \"e f\" is no account name or mail "
      "address.\n"
      "2 lines taken, 2 lines skipped; Postfix follows.\n",
      {"kest_bcc_map"});
  EXPECT_EQ(bccRules(), (Rows{"amy|0|boss", "bob|0|x@elsewhere.example"}));
  expectDone({"bcc", "export", "sender", kFile},
             "2 rules written to \"" + kFile + "\".\n", {});
  EXPECT_EQ(readFile(kFile), "bob x@elsewhere.example\namy boss\n");
}

TEST_F(PostwellRules, ABccMapThatFailsIsToldWithTheRemedy) {
  package_.failScript("kest_bcc_map");
  for (const Arguments &arguments : std::vector<Arguments>{
           {"bcc", "add", "sender", "amy", "boss"}, {"bcc", "remove", "sender", "amy"}}) {
    const Outcome outcome = run(arguments);
    EXPECT_EQ(outcome.status, 1);
    EXPECT_NE(outcome.err.find("run \"/var/packages/Postwell/target/bin/kest_bcc_map\""),
              std::string::npos)
        << outcome.err;
  }
  EXPECT_EQ(bccRules(), Rows());
}

}  // namespace
