// postwell domain list|add|remove.

#include <gtest/gtest.h>
#include <unistd.h>

#include "programs/run_program.h"
#include "programs/settings.h"

namespace {

using Arguments = std::vector<std::string>;

class PostwellDomain : public testing::Test {
 protected:
  PostwellDomain() { use("a.example, B.example"); }

  static void use(const std::string &value) {
    writeFile(PackageTree::kSettings,
              kSomeSettings + "canonical_domain=\"" + value + "\"\n");
  }

  static Outcome run(const Arguments &arguments) {
    Arguments words{"domain"};
    words.insert(words.end(), arguments.begin(), arguments.end());
    return RUN_TEST_PROGRAM(words);
  }

  static std::string stored() { return settingsNow()["canonical_domain"]; }

  // The command is done, says this, stores this and makes Postfix follow.
  void expectDone(const Arguments &arguments, const std::string &out,
                  const std::string &value) {
    const Outcome outcome = run(arguments);
    EXPECT_EQ(outcome.status, 0) << outcome.err;
    EXPECT_EQ(outcome.out, out);
    EXPECT_EQ(outcome.err, "");
    EXPECT_EQ(stored(), '"' + value + '"');
    EXPECT_EQ(package_.takeCalls(),
              (Arguments{"DaemonConfSet.sh smtp", "PostfixDaemon.sh restart"}));
  }

  // The command ends with the status, says this and does nothing.
  void expectRefused(const Arguments &arguments, int status, const std::string &message) {
    const std::string before = readFile(PackageTree::kSettings);
    const Outcome outcome = run(arguments);
    EXPECT_EQ(outcome.status, status) << testing::PrintToString(arguments);
    EXPECT_EQ(outcome.out, "");
    EXPECT_EQ(outcome.err.rfind("postwell: " + message, 0), 0u) << outcome.err;
    EXPECT_EQ(readFile(PackageTree::kSettings), before);
    EXPECT_EQ(package_.takeCalls(), Arguments());
  }

  PackageTree package_;
};

TEST_F(PostwellDomain, List) {
  EXPECT_EQ(run({"list"}).out, "a.example\nB.example\n");
  EXPECT_EQ(run({"list", "--json"}).out, "[\n  \"a.example\",\n  \"B.example\"\n]\n");
  use("");
  const Outcome outcome = run({"list"});
  EXPECT_EQ(outcome.status, 0);
  EXPECT_EQ(outcome.out, "");
  EXPECT_EQ(outcome.err, "postwell: there is no domain in the list.\n");
  const Outcome json = run({"list", "--json"});
  EXPECT_EQ(json.out, "[]\n");
  EXPECT_EQ(json.err, "");
}

TEST_F(PostwellDomain, AListMadeByHandCannotDriveTheTerminal) {
  use("\x1b[2J, \xff");
  EXPECT_EQ(run({"list"}).out, "\\x1b[2J\n\\xff\n");
  EXPECT_EQ(run({"list", "--json"}).out, "[\n  \"\\u001b[2J\",\n  \"\\ufffd\"\n]\n");
}

TEST_F(PostwellDomain, Add) {
  expectDone({"add", "C.Example", "d.e-f.example"},
             "The list has 4 domains; Postfix follows.\n",
             "a.example, B.example, c.example, d.e-f.example");
}

TEST_F(PostwellDomain, WhatIsThereAlreadyIsNotAddedAgain) {
  expectDone({"add", "b.example", "new.example", "A.EXAMPLE", "new.example"},
             "b.example is in the list already.\n"
             "a.example is in the list already.\n"
             "new.example is in the list already.\n"
             "The list has 3 domains; Postfix follows.\n",
             "a.example, B.example, new.example");
  expectDone({"add", "a.example"},
             "a.example is in the list already.\n"
             "The list has 3 domains; Postfix follows.\n",
             "a.example, B.example, new.example");
}

TEST_F(PostwellDomain, Remove) {
  expectDone({"remove", "b.EXAMPLE"}, "The list has 1 domain; Postfix follows.\n",
             "a.example");
  expectDone({"remove", "a.example", "a.example"},
             "The list has 0 domains; Postfix follows.\n", "");
}

TEST_F(PostwellDomain, RemovesEverySpellingAndWhatIsNoName) {
  use("x y, a.example, A.example,b.example, A.example");
  expectDone({"remove", "a.example", "x y"}, "The list has 1 domain; Postfix follows.\n",
             "A.example,b.example");
}

TEST_F(PostwellDomain, RemovingAnUnknownOneIsAFailure) {
  expectRefused({"remove", "a.example", "c.example\x1b"}, 1,
                "\"c.example\\x1b\" is not in the list; nothing was changed.\n");
}

TEST_F(PostwellDomain, NamesThatAreNoneAreRefused) {
  for (const char *name :
       {"", "a b", "a,b", "a, b", "a_b.example", "a-.example", "a.example.", "1.2.3.4",
        "$mydomain", "a\"b", "a\nb", "m\xc3\xbcller.example", "/etc/passwd"})
    expectRefused({"add", "c.example", name}, 2,
                  "NAME: must be a domain name such as example.org, not \"");
  expectRefused({"add", "-a.example"}, 2, "NAME is required");  // it looks like an option
  expectRefused({"add"}, 2, "NAME is required");
  expectRefused({"remove"}, 2, "NAME is required");
  expectRefused({"list", "x"}, 2, "\"x\" is one word too many");
}

// A domain name of so many bytes.
std::string nameOf(size_t size) {
  std::string name(size, 'c');
  for (size_t dot = 50; dot + 1 < size; dot += 51) name[dot] = '.';
  return name;
}

// A longer value than 8223 bytes would be cut when it is read back.
TEST_F(PostwellDomain, TheLongestList) {
  constexpr size_t kLongest = 8223;
  std::string value = "first.example";
  while (kLongest - value.size() > 250)
    value += ", x" + std::to_string(value.size()) + nameOf(190);
  const size_t left = kLongest - value.size() - 2;
  use(value);
  expectRefused({"add", nameOf(left + 1)}, 2,
                "the list would be longer than 8223 bytes; nothing was changed\n");
  EXPECT_EQ(run({"add", nameOf(left)}).status, 0);
  EXPECT_TRUE(stored() == '"' + value + ", " + nameOf(left) + '"');
  const std::string list = run({"list"}).out;
  EXPECT_EQ(list.substr(list.size() - left - 1), nameOf(left) + "\n");
}

TEST_F(PostwellDomain, MissingSettings) {
  ASSERT_EQ(unlink(PackageTree::kSettings), 0);
  for (const Arguments &arguments :
       {Arguments{"list"}, Arguments{"add", "c.example"}, Arguments{"remove", "a"}})
    expectNoSettings(run(arguments));
  EXPECT_FALSE(fileExists(PackageTree::kSettings));
}

TEST_F(PostwellDomain, AFailingScript) {
  for (const char *script : {"PostfixDaemon.sh", "DaemonConfSet.sh"}) {
    package_.failScript(script);
    use("a.example");
    const Outcome outcome = run({"add", "c.example"});
    EXPECT_EQ(outcome.status, 1);
    EXPECT_EQ(outcome.out, "");
    EXPECT_EQ(outcome.err.rfind("postwell: the new settings are in the file, but", 0),
              0u);
    EXPECT_NE(outcome.err.find("run \"DaemonConfSet.sh smtp\" and \"PostfixDaemon.sh "
                               "restart\" in\n/var/packages/Postwell/target/scripts.\n"),
              std::string::npos)
        << outcome.err;
    EXPECT_EQ(stored(), "\"a.example, c.example\"");
  }
}

}  // namespace
