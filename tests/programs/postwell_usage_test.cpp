// postwell: help, version, wrong usage, and output that cannot be written.

#include <gtest/gtest.h>

#include "programs/run_program.h"
#include "programs/settings.h"

namespace {

using Arguments = std::vector<std::string>;

class Usage : public testing::Test {
 protected:
  Usage() { writeFile(PackageTree::kSettings, kSomeSettings); }

  static Outcome run(const Arguments &arguments, const std::string &outPath = "") {
    return RUN_TEST_PROGRAM(arguments, "", outPath);
  }

  // Wrong usage changes nothing and tells so.
  void expectRefused(const Arguments &arguments, const std::string &message) {
    const Outcome outcome = run(arguments);
    EXPECT_EQ(outcome.status, 2) << testing::PrintToString(arguments);
    EXPECT_EQ(outcome.out, "");
    EXPECT_NE(outcome.err.find(message), std::string::npos) << outcome.err;
    EXPECT_NE(outcome.err.find("Run with --help"), std::string::npos) << outcome.err;
    EXPECT_EQ(readFile(PackageTree::kSettings), kSomeSettings);
    EXPECT_TRUE(package_.takeCalls().empty());
  }

  PackageTree package_;
};

TEST_F(Usage, HelpStandsEverywhere) {
  for (const Arguments &command : std::vector<Arguments>{{},
                                                         {"smtp"},
                                                         {"smtp", "show"},
                                                         {"smtp", "set"},
                                                         {"relay"},
                                                         {"relay", "show"},
                                                         {"relay", "set"},
                                                         {"protocol"},
                                                         {"protocol", "show"},
                                                         {"protocol", "set"},
                                                         {"alias"},
                                                         {"alias", "list"},
                                                         {"alias", "show"},
                                                         {"alias", "add"},
                                                         {"alias", "remove"},
                                                         {"alias", "rename"},
                                                         {"alias", "delete"},
                                                         {"domain"},
                                                         {"domain", "list"},
                                                         {"domain", "add"},
                                                         {"domain", "remove"},
                                                         {"log"},
                                                         {"log", "list"},
                                                         {"log", "search"},
                                                         {"log", "show"},
                                                         {"log", "count"},
                                                         {"log", "archives"},
                                                         {"log", "clear"},
                                                         {"log", "stats"},
                                                         {"access"},
                                                         {"access", "list"},
                                                         {"access", "add"},
                                                         {"access", "remove"},
                                                         {"access", "import"},
                                                         {"access", "export"},
                                                         {"bcc"},
                                                         {"bcc", "list"},
                                                         {"bcc", "add"},
                                                         {"bcc", "remove"},
                                                         {"bcc", "always"},
                                                         {"bcc", "always", "set"},
                                                         {"bcc", "import"},
                                                         {"bcc", "export"},
                                                         {"personal"},
                                                         {"personal", "show"},
                                                         {"personal", "set"}}) {
    Arguments arguments = command;
    arguments.push_back("--help");
    const Outcome outcome = run(arguments);
    std::string usage = "Usage: postwell";
    for (const std::string &word : command) usage += " " + word;
    EXPECT_EQ(outcome.status, 0);
    EXPECT_NE(outcome.out.find(usage + " [OPTIONS]"), std::string::npos) << outcome.out;
    EXPECT_EQ(outcome.err, "");
  }
}

TEST_F(Usage, HelpNamesEveryOption) {
  const std::map<std::string, Arguments> options = {
      {"smtp",
       {"--enabled yes|no", "--account-type local|ldap|win", "--account-domain NAME",
        "--auth yes|no", "--lan-exempt yes|no", "--hostname NAME", "--port NUMBER",
        "--size-limit NUMBER", "--restrict-sender yes|no", "--smtps yes|no",
        "--smtps-port NUMBER"}},
      {"relay",
       {"--enabled yes|no", "--server HOST", "--port NUMBER", "--tls yes|no",
        "--auth yes|no", "--account ACCOUNT", "--password-stdin",
        "--password-file FILE"}},
      {"protocol",
       {"--pop3 yes|no", "--pop3s yes|no", "--imap yes|no", "--imaps yes|no"}}};
  for (const auto &[noun, names] : options) {
    const std::string help = run({noun, "set", "--help"}).out;
    for (const std::string &name : names)
      EXPECT_NE(help.find(name), std::string::npos) << noun << " " << name;
  }
}

TEST_F(Usage, Version) {
  const Outcome outcome = run({"--version"});
  EXPECT_EQ(outcome.status, 0);
  EXPECT_EQ(outcome.out, "postwell " TEST_VERSION "\n");
}

TEST_F(Usage, WrongUsageIsStatus2) {
  expectRefused({}, "name one of: smtp, relay, protocol, alias, domain, log");
  expectRefused({"smtp"}, "name one of: show, set");
  expectRefused({"mail", "show"},
                "\"mail\" is none of: smtp, relay, protocol, alias, domain");
  expectRefused({"show", "spam"}, "\"show\" is none of: smtp, relay, protocol, alias");
  expectRefused({"smtp", "shwo"}, "\"shwo\" is none of: show, set\n");
  expectRefused({"smtp", "show", "set", "--port", "26"}, "set");
  expectRefused({"smtp", "set", "--prot", "26"}, "\"--prot\" is no option here\n");
  expectRefused({"smtp", "show", "--yaml"}, "\"--yaml\" is no option here\n");
  expectRefused({"smtp", "show", "--port", "25"}, "--port");
  expectRefused({"smtp", "set", "--port", "26", "--bogus"}, "--bogus");
  expectRefused({"smtp", "set", "--port", "26", "extra"},
                "\"extra\" is one word too many\n");
  expectRefused({"smtp", "set", "--port"}, "postwell: --port needs a value: NUMBER\n");
  expectRefused({"smtp", "set", "--enabled"},
                "postwell: --enabled needs a value: yes|no\n");
  expectRefused({"smtp", "set", "--port", "26", "--port", "27"},
                "postwell: --port may be given once only\n");
  for (const char *flag : {"--json=no", "--json=maybe", "--json=3"})
    expectRefused({"smtp", "show", flag}, "postwell: --json takes no value\n");
  expectRefused({"log", "stats", "--csv=x"}, "postwell: --csv takes no value\n");
  expectRefused({"smtp", "set", "--port", "26", "--smtps-port", "0"}, "--smtps-port");
}

TEST_F(Usage, SetWithoutAnOptionIsWrongUsage) {
  for (const char *noun : {"smtp", "relay", "protocol"})
    expectRefused({noun, "set"}, "name at least one setting");
}

TEST_F(Usage, AWordThatLacksItsOptionIsAnsweredWithAnExample) {
  for (const auto &[command, example] : std::vector<std::pair<Arguments, std::string>>{
           {{"access", "add", "sender", "reject"},
            "postwell access add sender reject --domain spammer.example"},
           {{"access", "remove", "sender"},
            "postwell access remove sender --domain spammer.example"},
           {{"blacklist", "add", "sender"},
            "postwell blacklist add sender --domain example.org"},
           {{"whitelist", "remove", "sender"},
            "postwell whitelist remove sender --domain example.org"},
           {{"alias", "add", "sales"}, "postwell alias add sales --user bob"}}) {
    Arguments arguments = command;
    arguments.emplace_back("x.example");
    expectRefused(arguments,
                  "\"x.example\" is one word too many. Example: " + example + "\n");
  }
  EXPECT_NE(run({"access", "add", "--help"})
                .out.find("\nExample: postwell access add sender reject --domain "),
            std::string::npos);
}

TEST_F(Usage, ComplaintsCannotDriveTheTerminal) {
  const Outcome outcome = run({"smtp", "set", "--port", "\x1b[2J\x9b\n"});
  EXPECT_EQ(outcome.status, 2);
  EXPECT_EQ(outcome.err,
            "postwell: --port: must be a whole number from 1 to 65535, not "
            "\"\\x1b[2J\\x9b\\x0a\"\nRun with --help for more information.\n");
}

TEST_F(Usage, OutputThatCannotBeWrittenIsAFailure) {
  const Outcome outcome = run({"smtp", "show"}, "/dev/full");
  EXPECT_EQ(outcome.status, 1);
  EXPECT_EQ(outcome.err, "postwell: cannot write to standard output\n");
}

}  // namespace
