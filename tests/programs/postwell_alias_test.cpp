// postwell alias list|show|add|remove|rename|delete.

#include <alias.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include "programs/accounts.h"
#include "programs/run_program.h"
#include "programs/settings.h"
#include "support/database.h"

namespace {

using Arguments = std::vector<std::string>;
using Rows = std::vector<std::string>;

const std::string kDatabase = "/var/packages/Postwell/etc/alias.db";
const std::string kUnchanged = "; nothing was changed\n";

class PostwellAlias : public testing::Test {
 protected:
  PostwellAlias() {
    writeFile(PackageTree::kSettings, "account_type=\"local\"\n");
    writeAccounts();
    makeEmpty();
  }

  // A new file; the alias "root" in it would be in everybody's way.
  static void makeEmpty() {
    unlink(kDatabase.c_str());
    Alias aliases;
    EXPECT_EQ(aliases.load(), 0);
    EXPECT_EQ(aliases.delAlias({"root"}), 0);
  }

  // Rows as a program may leave them that checks nothing, "alias|member|type" each.
  static void store(const Rows &rows) {
    database::Connection file(kDatabase);
    for (const std::string &row : rows) {
      const size_t first = row.find('|'), second = row.rfind('|');
      EXPECT_EQ(file.run("insert into alias_info_table values('" + row.substr(0, first) +
                         "', '" + row.substr(first + 1, second - first - 1) + "', " +
                         row.substr(second + 1) + ");"),
                0)
          << row;
    }
  }

  static Rows stored() {
    return database::rowsOf(kDatabase, "select * from alias_info_table order by rowid;");
  }

  static Outcome run(const Arguments &arguments) {
    Arguments words{"alias"};
    words.insert(words.end(), arguments.begin(), arguments.end());
    return RUN_TEST_PROGRAM(words);
  }

  // The command is done, says this, leaves these rows and publishes them.
  void expectDone(const Arguments &arguments, const std::string &out, const Rows &rows) {
    const Outcome outcome = run(arguments);
    EXPECT_EQ(outcome.status, 0) << testing::PrintToString(arguments);
    EXPECT_EQ(outcome.out, out);
    EXPECT_EQ(outcome.err, "");
    EXPECT_EQ(stored(), rows);
    EXPECT_EQ(package_.takeCalls(), Arguments{"DaemonConfSet.sh alias"});
  }

  // The command ends with the status, says this and does nothing.
  void expectRefused(const Arguments &arguments, int status, const std::string &message) {
    const Rows before = stored();
    const Outcome outcome = run(arguments);
    EXPECT_EQ(outcome.status, status) << testing::PrintToString(arguments);
    EXPECT_EQ(outcome.out, "");
    EXPECT_EQ(outcome.err.rfind("postwell: " + message, 0), 0u) << outcome.err;
    EXPECT_EQ(stored(), before);
    EXPECT_EQ(package_.takeCalls(), Arguments());
  }

  PackageTree package_;
};

// ---- list and show

TEST_F(PostwellAlias, List) {
  store(
      {"team|amy|0", "team|crew|1", "team|heads|2", "heads|x@example.org|3", "odd|x|7"});
  EXPECT_EQ(run({"list"}).out,
            "heads: address x@example.org\n"
            "odd: unknown x\n"
            "team: user amy, group crew, alias heads\n");
  EXPECT_EQ(run({"list", "--json"}).out,
            R"([
  {
    "name": "heads",
    "members": [
      {
        "kind": "address",
        "name": "x@example.org"
      }
    ]
  },
  {
    "name": "odd",
    "members": [
      {
        "kind": "unknown",
        "name": "x"
      }
    ]
  },
  {
    "name": "team",
    "members": [
      {
        "kind": "user",
        "name": "amy"
      },
      {
        "kind": "group",
        "name": "crew"
      },
      {
        "kind": "alias",
        "name": "heads"
      }
    ]
  }
]
)");
  EXPECT_EQ(package_.takeCalls(), Arguments());
}

TEST_F(PostwellAlias, ListOfNone) {
  const Outcome outcome = run({"list"});
  EXPECT_EQ(outcome.status, 0);
  EXPECT_EQ(outcome.out, "");
  EXPECT_EQ(outcome.err, "postwell: there is no alias.\n");
  const Outcome json = run({"list", "--json"});
  EXPECT_EQ(json.out, "[]\n");
  EXPECT_EQ(json.err, "");
}

TEST_F(PostwellAlias, NamesOfOtherScriptsAreShownAsTheyAre) {
  store({"m\xc3\xbcller|j\xc3\xbcrgen\xe2\x80\xae|0"});
  EXPECT_EQ(run({"list"}).out, "m\xc3\xbcller: user j\xc3\xbcrgen\\xe2\\x80\\xae\n");
  EXPECT_EQ(run({"show", "m\xc3\xbcller"}).out, "user j\xc3\xbcrgen\\xe2\\x80\\xae\n");
}

TEST_F(PostwellAlias, ANewFileHasTheAliasRoot) {
  unlink(kDatabase.c_str());
  EXPECT_EQ(run({"list"}).out, "root: user admin\n");
}

TEST_F(PostwellAlias, Show) {
  store({"Team|amy|0", "Team|crew|1"});
  EXPECT_EQ(run({"show", "tEAM"}).out, "user amy\ngroup crew\n");
  EXPECT_EQ(run({"show", "team", "--json"}).out,
            R"({
  "name": "Team",
  "members": [
    {
      "kind": "user",
      "name": "amy"
    },
    {
      "kind": "group",
      "name": "crew"
    }
  ]
}
)");
  expectRefused({"show", "x\x1b"}, 1,
                "there is no alias \"x\\x1b\".\n\"postwell alias list\" shows");
}

TEST_F(PostwellAlias, WhatIsStoredCannotDriveTheTerminal) {
  store({"\x1b[2J|\xff\n|0"});
  EXPECT_EQ(run({"list"}).out, "\\x1b[2J: user \\xff\\x0a\n");
  EXPECT_NE(run({"list", "--json"}).out.find("\"\\u001b[2J\""), std::string::npos);
  EXPECT_EQ(run({"show", "\x1b[2J"}).out, "user \\xff\\x0a\n");
}

// ---- add

TEST_F(PostwellAlias, AddEveryKind) {
  store({"Heads|dave|0"});
  expectDone({"add", "team", "--user", "amy", "--user", "CORP\\Eve", "--group", "crew",
              "--alias", "heads", "--address", "x@example.org"},
             "Alias \"team\" has 5 members; Postfix follows.\n",
             {"Heads|dave|0", "team|amy|0", "team|CORP\\Eve|0", "team|crew|1",
              "team|Heads|2", "team|x@example.org|3"});
}

TEST_F(PostwellAlias, AddToAnAliasUnderAnySpelling) {
  store({"Team|amy|0"});
  expectDone({"add", "TEAM", "--user", "bob"},
             "Alias \"Team\" has 2 members; Postfix follows.\n",
             {"Team|amy|0", "Team|bob|0"});
}

TEST_F(PostwellAlias, AMemberThatIsThereIsNotStoredTwice) {
  store({"team|amy|0"});
  expectDone({"add", "team", "--user", "amy", "--user", "bob", "--user", "bob"},
             "user \"amy\" is a member of \"team\" already.\n"
             "user \"bob\" is a member of \"team\" already.\n"
             "Alias \"team\" has 2 members; Postfix follows.\n",
             {"team|amy|0", "team|bob|0"});
  expectDone({"add", "team", "--user", "bob"},
             "user \"bob\" is a member of \"team\" already.\n"
             "Alias \"team\" has 2 members; Postfix follows.\n",
             {"team|amy|0", "team|bob|0"});
}

TEST_F(PostwellAlias, NamesThatTheFileCanCarry) {
  for (const std::string &name :
       {std::string("a b"), std::string("it's"), std::string("a\"b"),
        std::string("100$;"), std::string("#x"), std::string("m\xc3\xbcller"),
        std::string(64, '\'')})
    EXPECT_EQ(run({"add", name, "--user", "amy"}).status, 0) << name;
  EXPECT_EQ(stored(),
            (Rows{"a b|amy|0", "it's|amy|0", "a\"b|amy|0", "100$;|amy|0", "#x|amy|0",
                  "m\xc3\xbcller|amy|0", std::string(64, '\'') + "|amy|0"}));
}

TEST_F(PostwellAlias, NamesThatAreRefused) {
  const std::vector<std::pair<std::string, std::string>> names = {
      {"", "must not be empty, not \"\""},
      {"a@b", "must not hold @, % or !, not \"a@b\""},
      {"50%", "must not hold @, % or !, not \"50%\""},
      {"a!b", "must not hold @, % or !, not \"a!b\""},
      {"|cmd", "must not begin with a character that makes it a command or a file"},
      {"/file", "must not begin with a character that makes it a command or a file"},
      {":include:/x", "must not begin with a character that makes it a command"},
      {"\\amy", "must not begin with a character that makes it a command or a file"},
      {"a\nroot: |cmd", "must be UTF-8 without control characters, not \"a\\x0aroot"},
      {"a\xff", "must be UTF-8 without control characters, not \"a\\xff\""},
      {" a", "must not begin or end with a blank"},
      {"a ", "must not begin or end with a blank"},
      {std::string(65, 'a'), "must have at most 64 bytes"},
      {std::string(1000, 'a'), "must have at most 64 bytes"}};
  store({"team|amy|0"});
  for (const auto &[name, message] : names) {
    expectRefused({"add", name, "--user", "amy"}, 2, "NAME: " + message);
    expectRefused({"rename", "team", name}, 2, "NEW: " + message);
  }
  expectRefused({"add", "--user", "amy", "--", "-x"}, 2,
                "NAME: must not begin with a hyphen");
}

TEST_F(PostwellAlias, MembersThatAreRefused) {
  const std::vector<std::pair<Arguments, std::string>> members = {
      {{"--user", "nobody-here"},
       "user \"nobody-here\" is refused: there is no such user"},
      {{"--user", ""}, "user \"\" is refused: there is no such user"},
      {{"--user", "|cmd\n"}, "user \"|cmd\\x0a\" is refused: there is no such user"},
      {{"--group", "amy"}, "group \"amy\" is refused: there is no such group"},
      {{"--alias", "amy"}, "alias \"amy\" is refused: there is no such alias"},
      {{"--alias", "team"}, "alias \"team\" is refused: there is no such alias"}};
  for (const auto &[member, message] : members) {
    Arguments words{"add", "team", "--user", "amy"};
    words.insert(words.end(), member.begin(), member.end());
    expectRefused(words, 2, message + kUnchanged);
  }
  for (const char *address : {"", "amy", "|cmd", "a@b, |cmd", "a@b\n", "/x@b", "~/x@b"})
    expectRefused({"add", "team", "--address", address}, 2,
                  "--address: must be a mail address such as bob@example.org, not \"");
}

TEST_F(PostwellAlias, GroupsMayBeEmptyOrHaveUsersWhoAreGone) {
  expectDone({"add", "a", "--group", "empty", "--group", "left"},
             "Alias \"a\" has 2 members; Postfix follows.\n", {"a|empty|1", "a|left|1"});
}

TEST_F(PostwellAlias, CirclesAreRefused) {
  const std::string message =
      "refused, because mail would go round in a circle, or along more\naliases in a row "
      "than Postfix follows" +
      kUnchanged;
  store({"a|b|2", "b|amy|0", "d|carol|0", "x|y|2", "y|x|2"});  // x and y: an old one
  expectRefused({"add", "a", "--alias", "A"}, 2, message);
  expectRefused({"add", "b", "--alias", "a"}, 2, message);
  expectRefused({"add", "amy", "--alias", "a"}, 2, message);
  expectRefused({"add", "carol", "--alias", "d"}, 2, message);
  expectRefused({"add", "carol", "--group", "crew", "--alias", "d"}, 2, message);
  expectRefused({"rename", "a", "amy"}, 2, message);
  expectDone(
      {"add", "amy", "--user", "amy", "--user", "bob"},
      "Alias \"amy\" has 2 members; Postfix follows.\n",
      {"a|b|2", "b|amy|0", "d|carol|0", "x|y|2", "y|x|2", "amy|amy|0", "amy|bob|0"});
}

TEST_F(PostwellAlias, AFileThatSomeoneElseIsReadingIsNotChanged) {
  store({"team|amy|0"});
  database::Connection reader(kDatabase);
  ASSERT_EQ(reader.run("BEGIN; SELECT count(*) FROM alias_info_table;"), 0);
  expectRefused({"add", "team", "--user", "bob"}, 1,
                "the aliases are not as wanted. Run as root, and again if someone else\n"
                "was changing them; the system log tells which step failed.\n");
  ASSERT_EQ(reader.run("ROLLBACK;"), 0);
  expectDone({"add", "team", "--user", "bob"},
             "Alias \"team\" has 2 members; Postfix follows.\n",
             {"team|amy|0", "team|bob|0"});
}

// ---- remove

TEST_F(PostwellAlias, Remove) {
  store({"Team|amy|0", "Team|amy|1", "Team|amy|0", "Team|Heads|2", "Team|x@b|3",
         "b|amy|0"});
  expectDone({"remove", "team", "--user", "amy"},
             "Alias \"Team\" has 3 members; Postfix follows.\n",
             {"Team|amy|1", "Team|Heads|2", "Team|x@b|3", "b|amy|0"});
  expectDone({"remove", "team", "--group", "amy", "--alias", "heads"},
             "Alias \"Team\" has 1 member; Postfix follows.\n",
             {"Team|x@b|3", "b|amy|0"});
}

TEST_F(PostwellAlias, WhatIsStoredCanBeRemovedWhateverItIs) {
  store({"a@b||cmd|3", "a@b|amy|0"});
  expectDone({"remove", "a@b", "--address", "|cmd"},
             "Alias \"a@b\" has 1 member; Postfix follows.\n", {"a@b|amy|0"});
}

TEST_F(PostwellAlias, ANameInBracketsIsOneName) {
  store({"a|amy|0", "b|amy|0", "[a,b]|amy|0", "[a,b]|[c,d]|0"});
  expectDone({"remove", "[a,b]", "--user", "[c,d]"},
             "Alias \"[a,b]\" has 1 member; Postfix follows.\n",
             {"a|amy|0", "b|amy|0", "[a,b]|amy|0"});
  expectDone({"delete", "[a,b]"}, "Alias \"[a,b]\" is gone.\nPostfix follows.\n",
             {"a|amy|0", "b|amy|0"});
}

TEST_F(PostwellAlias, RemovingWhatIsAbsentIsAFailure) {
  store({"team|amy|0", "team|bob|0"});
  expectRefused({"remove", "team", "--user", "amy", "--user", "carol"}, 1,
                "user \"carol\" is no member of \"team\"" + kUnchanged);
  expectRefused({"remove", "team", "--group", "amy"}, 1,
                "group \"amy\" is no member of \"team\"" + kUnchanged);
  expectRefused({"remove", "teams", "--user", "amy"}, 1,
                "there is no alias \"teams\".\n");
}

TEST_F(PostwellAlias, RemovingTheLastMembersRemovesTheAlias) {
  store({"team|amy|0", "team|bob|0", "b|team|2", "b|amy|0", "c|team|2", "d|c|2"});
  expectDone({"remove", "team", "--user", "bob", "--user", "amy"},
             "Alias \"team\" is gone with its last member.\n"
             "Alias \"c\" is gone as well: it has no member left.\n"
             "Alias \"d\" is gone as well: it has no member left.\n"
             "Postfix follows.\n",
             {"b|amy|0"});
}

TEST_F(PostwellAlias, MembersMustBeNamed) {
  for (const char *verb : {"add", "remove"})
    expectRefused({verb, "team"}, 2,
                  "name a member with --user, --group, --alias or --address\n");
  expectRefused({"add", "--user", "amy"}, 2, "NAME is required");
  expectRefused({"add", "--user", "amy", "team", "bob"}, 2,
                "\"bob\" is one word too many");
}

// ---- rename

TEST_F(PostwellAlias, Rename) {
  store({"heads|amy|0", "team|heads|2", "team|heads|0"});
  expectDone({"rename", "HEADS", "Chiefs"},
             "Alias \"heads\" is \"Chiefs\" now; Postfix follows.\n",
             {"Chiefs|amy|0", "team|Chiefs|2", "team|heads|0"});
  expectDone({"rename", "chiefs", "chiefs"},
             "Alias \"Chiefs\" is \"chiefs\" now; Postfix follows.\n",
             {"chiefs|amy|0", "team|chiefs|2", "team|heads|0"});
}

TEST_F(PostwellAlias, AnAliasThatIsRefusedByNowCanBeRenamed) {
  store({"a@b|amy|0"});
  expectDone({"rename", "a@b", "ab"}, "Alias \"a@b\" is \"ab\" now; Postfix follows.\n",
             {"ab|amy|0"});
}

TEST_F(PostwellAlias, RenamingNeverMerges) {
  store({"heads|amy|0", "Team|bob|0"});
  for (const char *name : {"Team", "tEAM"})
    expectRefused({"rename", "heads", name}, 2,
                  "there is an alias \"Team\" already" + kUnchanged);
  expectRefused({"rename", "heads", "heads"}, 2,
                "there is an alias \"heads\" already" + kUnchanged);
  expectRefused({"rename", "chiefs", "x"}, 1, "there is no alias \"chiefs\".\n");
  expectRefused({"rename", "heads"}, 2, "NEW is required");
}

// ---- delete

TEST_F(PostwellAlias, Delete) {
  store({"a|amy|0", "B|amy|0", "c|a|2", "c|B|2", "c|a|0", "d|B|2"});
  expectDone({"delete", "b", "a", "b"},
             "Alias \"B\" is gone.\n"
             "Alias \"a\" is gone.\n"
             "Alias \"d\" is gone as well: it has no member left.\n"
             "Postfix follows.\n",
             {"c|a|0"});
}

TEST_F(PostwellAlias, DeletingAnUnknownOneIsAFailure) {
  store({"a|amy|0"});
  expectRefused({"delete", "a", "b"}, 1, "there is no alias \"b\".\n");
  expectRefused({"delete"}, 2, "NAME is required");
}

// ---- failures

TEST_F(PostwellAlias, AMapThatCannotBeMade) {
  package_.failScript("DaemonConfSet.sh");
  const Outcome outcome = run({"add", "team", "--user", "amy"});
  EXPECT_EQ(outcome.status, 1);
  EXPECT_EQ(outcome.out, "");
  EXPECT_EQ(outcome.err.rfind("postwell: the new settings are in the file, but", 0), 0u)
      << outcome.err;
  EXPECT_NE(
      outcome.err.find(
          "run \"/var/packages/Postwell/target/scripts/DaemonConfSet.sh alias\".\n"),
      std::string::npos)
      << outcome.err;
  EXPECT_EQ(stored(), Rows{"team|amy|0"});
}

// Every verb with arguments that would do.
const std::vector<Arguments> kVerbs = {{"list"},
                                       {"show", "a"},
                                       {"add", "a", "--user", "bob"},
                                       {"remove", "a", "--user", "amy"},
                                       {"rename", "a", "b"},
                                       {"delete", "a"}};

TEST_F(PostwellAlias, AliasesThatCannotBeRead) {
  store({"a|amy|0"});
  const auto expectUnreadable = [this] {
    for (const Arguments &words : kVerbs) {
      const Outcome outcome = run(words);
      EXPECT_EQ(outcome.status, 1);
      EXPECT_EQ(outcome.out, "");
      EXPECT_EQ(outcome.err,
                "postwell: cannot read the aliases (the system log tells why).\n"
                "Run as root.\n");
    }
    EXPECT_EQ(package_.takeCalls(), Arguments());
  };
  ASSERT_EQ(chmod(kDatabase.c_str(), 0), 0);
  expectUnreadable();
  ASSERT_EQ(chmod(kDatabase.c_str(), 0644), 0);
  unlink(PackageTree::kSettings);
  expectUnreadable();
}

TEST_F(PostwellAlias, AFileThatCannotBeWritten) {
  store({"a|amy|0"});
  ASSERT_EQ(chmod(kDatabase.c_str(), 0444), 0);
  for (const Arguments &words : kVerbs) {
    if (words[0] == "list" || words[0] == "show") continue;
    const Outcome outcome = run(words);
    EXPECT_EQ(outcome.status, 1);
    EXPECT_EQ(outcome.out, "");
    EXPECT_EQ(outcome.err.rfind("postwell: the aliases are not as wanted. ", 0), 0u)
        << outcome.err;
  }
  EXPECT_EQ(run({"list"}).out, "a: user amy\n");
  EXPECT_EQ(package_.takeCalls(), Arguments());
}

// The library would make a damaged file anew and report success; nobody may be told that
// there are no aliases, and the file is left for its owner to restore.
TEST_F(PostwellAlias, ADamagedFile) {
  for (const auto spoil : {database::spoilSchema, database::spoilTables})
    for (const Arguments &words : kVerbs) {
      makeEmpty();
      store({"a|amy|0"});
      spoil(kDatabase);
      const std::string damaged = readFile(kDatabase);
      const Outcome outcome = run(words);
      EXPECT_EQ(outcome.status, 1);
      EXPECT_EQ(outcome.out, "");
      EXPECT_EQ(outcome.err.rfind("postwell: the aliases are damaged: restore ", 0), 0u)
          << outcome.err;
      EXPECT_EQ(readFile(kDatabase), damaged);
      EXPECT_EQ(package_.takeCalls(), Arguments());
    }
}

// The damage shows only when the change reaches it.
TEST_F(PostwellAlias, AChangeThatMakesADamagedFileAnew) {
  constexpr size_t kPage = 4096;  // the fifth page is the root of the index on "type"
  for (const Arguments &words :
       {Arguments{"add", "a", "--user", "bob"}, Arguments{"remove", "a", "--user", "amy"},
        Arguments{"delete", "a"}}) {
    makeEmpty();
    store({"a|amy|0", "b|amy|0"});
    std::string content = readFile(kDatabase);
    ASSERT_EQ(content.size(), 5 * kPage);
    content.replace(4 * kPage, kPage, kPage, '\xff');
    writeFile(kDatabase, content);
    ASSERT_EQ(run({"list"}).out, "a: user amy\nb: user amy\n");
    const Outcome outcome = run(words);
    EXPECT_EQ(outcome.status, 1);
    EXPECT_EQ(outcome.out, "");
    EXPECT_EQ(
        outcome.err.rfind("postwell: the change is not stored: the aliases were", 0), 0u)
        << outcome.err;
    EXPECT_EQ(stored(), Rows{"root|admin|0"});
    EXPECT_EQ(package_.takeCalls(), Arguments());
  }
}

TEST_F(PostwellAlias, AHostThatCannotListItsUsers) {
  unlink("/tmp/users-local");
  const Outcome outcome = run({"add", "a", "--group", "crew"});
  EXPECT_EQ(outcome.status, 1);
  EXPECT_EQ(outcome.err, "postwell: the host cannot list its users\n");
  EXPECT_EQ(stored(), Rows());
}

}  // namespace
