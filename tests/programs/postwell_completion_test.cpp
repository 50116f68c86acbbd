// The completion of bash: what it offers for a line, of which the last word is being
// typed.

#include <gtest/gtest.h>
#include <unistd.h>

#include <sstream>

#include "programs/run_program.h"
#include "support/files.h"
#include "support/package_tree.h"

namespace {

using Words = std::vector<std::string>;

constexpr char kTool[] = "/var/packages/Postwell/target/bin/postwell";
constexpr char kFiles[] = "(names of files)";

// Completes "$@" as bash does when a user asks for it, in a shell that forgives nothing.
constexpr char kAsk[] =
    "set -u; shopt -s failglob; . \"$0\" || exit; compopt() { echo \"($*)\"; }\n"
    "[[ $(complete -p postwell) == 'complete -F _postwell postwell' ]] || exit\n"
    "COMP_WORDS=(postwell \"$@\"); COMP_CWORD=$#\n"
    "_postwell postwell \"${!#}\" \"${COMP_WORDS[COMP_CWORD-1]}\" || exit\n"
    "for word in \"${COMPREPLY[@]}\"; do printf '%s\\n' \"$word\"; done";

class Completion : public testing::Test {
 protected:
  Completion() {
    writeFile(kTool, "#!/bin/sh\nexec " TEST_SHELL_PROGRAM " \"$@\"\n", 0755);
  }

  static Words offered(const Words &line) {
    Words arguments = {"--norc", "-c", kAsk, TEST_COMPLETION};
    arguments.insert(arguments.end(), line.begin(), line.end());
    const Outcome outcome = runNative("bash", arguments);
    EXPECT_EQ(outcome.status, 0) << testing::PrintToString(line);
    EXPECT_EQ(outcome.err, "") << testing::PrintToString(line);
    std::istringstream out(outcome.out);
    Words words;
    for (std::string word; std::getline(out, word);)
      words.push_back(word == "(-o default)" ? kFiles : word);
    return words;
  }

  // The words that the tool itself names where one of them is missing.
  static Words named(const Words &line) {
    const std::string said = RUN_TEST_PROGRAM(line).err;
    const std::string start = "postwell: name one of: ";
    EXPECT_EQ(said.rfind(start, 0), 0U) << said;
    std::istringstream in(said.substr(start.size(), said.find('\n') - start.size()));
    Words words;
    for (std::string word; in >> word; words.push_back(word))
      if (word.back() == ',') word.pop_back();
    return words;
  }

  PackageTree package_;
};

TEST_F(Completion, OffersTheNounsAndTheVerbsOfEach) {
  const Words nouns = named({});
  EXPECT_GE(nouns.size(), 14U);
  EXPECT_EQ(offered({""}), nouns);
  for (const std::string &noun : nouns) EXPECT_EQ(offered({noun, ""}), named({noun}));
  EXPECT_EQ(offered({"bcc", "always", ""}), named({"bcc", "always"}));
}

TEST_F(Completion, OffersWhatBeginsAsTyped) {
  EXPECT_EQ(offered({"re"}), Words{"relay"});
  EXPECT_EQ(offered({"smtp", "s"}), (Words{"show", "set"}));
  EXPECT_EQ(offered({"smtp", "set", "--smtps"}), (Words{"--smtps", "--smtps-port"}));
  EXPECT_EQ(offered({"--v"}), Words{"--version"});
  EXPECT_EQ(offered({"smpt"}), Words{});
}

TEST_F(Completion, OffersOptionsWhereNoWordIsMissing) {
  EXPECT_EQ(offered({"protocol", "set", "--imap", "yes", ""}),
            (Words{"--help", "--pop3", "--pop3s", "--imap", "--imaps"}));
  EXPECT_EQ(offered({"alias", "list", ""}), (Words{"--help", "--json"}));
}

TEST_F(Completion, OffersTheValuesOfAnOption) {
  EXPECT_EQ(offered({"smtp", "set", "--smtps", ""}), (Words{"yes", "no"}));
  EXPECT_EQ(offered({"smtp", "set", "--port", "25", "--account-type", "l"}),
            (Words{"local", "ldap"}));
  EXPECT_EQ(offered({"smtp", "set", "--port", ""}), Words{});
  EXPECT_EQ(offered({"relay", "set", "--password-file", "/ro"}), Words{kFiles});
  // bash takes the "=" for a word of its own
  EXPECT_EQ(offered({"smtp", "set", "--smtps", "="}), (Words{"yes", "no"}));
  EXPECT_EQ(offered({"smtp", "set", "--smtps", "=", "n"}), Words{"no"});
  EXPECT_EQ(offered({"smtp", "set", "--smtps", "=", "no", "--lan"}),
            Words{"--lan-exempt"});
}

TEST_F(Completion, OffersTheWordsThatAVerbTakesInTheirOrder) {
  const Words types = {"sender", "recipient", "client"};
  EXPECT_EQ(offered({"access", "add", ""}), types);
  EXPECT_EQ(offered({"access", "add", "--domain", "spam.example", ""}), types);
  EXPECT_EQ(offered({"access", "add", "sender", "re"}), Words{"reject"});
  EXPECT_EQ(offered({"access", "add", "sender", "reject", "--a"}),
            (Words{"--account", "--address"}));
  EXPECT_EQ(offered({"access", "import", "sender", ""}), Words{kFiles});
  // names, as many as wanted, which nobody here knows
  EXPECT_EQ(offered({"domain", "add", "a.example", "b.example", ""}), Words{});
  EXPECT_EQ(offered({"personal", "set", ""}), Words{});
}

TEST_F(Completion, OddWordsAreNeitherExpandedNorRun) {
  for (const std::string word :
       {"$(touch /tmp/run)", "`touch /tmp/run`", ";touch /tmp/run",
        "a[$(touch /tmp/run)]", "*", "]", "'", "\\", "=", "a b"}) {
    EXPECT_EQ(offered({word, "sm"}), Words{}) << word;
    EXPECT_EQ(offered({word, "--ver"}), Words{"--version"}) << word;
    EXPECT_EQ(offered({word + "?"}), Words{}) << word;
  }
  EXPECT_FALSE(fileExists("/tmp/run"));
}

TEST_F(Completion, OffersNothingWhereTheToolIsMissing) {
  ASSERT_EQ(unlink(kTool), 0);
  EXPECT_EQ(offered({""}), Words{});
}

}  // namespace
