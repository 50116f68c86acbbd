// The text of the alias map: for users and names that no host is likely to have.

#include <gtest/gtest.h>

#include <algorithm>
#include <functional>

#include "common/alias_map.h"

namespace {

using std::string;
using Names = std::vector<string>;

MemberInfo member(MemberType type, const string &name) {
  MemberInfo info;
  info.strName = name;
  info.type = type;
  return info;
}

MemberInfo user(const string &name) { return member(USER, name); }
MemberInfo grp(const string &name) { return member(GROUP, name); }
MemberInfo alias(const string &name) { return member(ALIAS, name); }
MemberInfo address(const string &name) { return member(EXTADDR, name); }

// Has the mailboxes that a test gives it; a user's is under his own name.
class Known : public Accounts {
 public:
  string mailbox(const string &name) const override {
    const auto found = boxes.find(name);
    return found == boxes.end() ? "" : found->second;
  }
  bool members(const string &name, Names *users) const override {
    const auto found = groups.find(name);
    if (found != groups.end()) *users = found->second;
    return found != groups.end();
  }
  std::map<string, string> boxes{{"amy", "amy"}, {"bob", "bob"}, {"CORP\\eve", "eve"}};
  std::map<string, Names> groups{{"crew", {"amy", "bob"}},
                                 {"empty", {}},
                                 {"left", {"amy", "gone"}},
                                 {"gone", {"gone"}}};
};

const char kDefaults[] = "postmaster: root\nMAILER-DAEMON: postmaster\n";

// The lines without the two that are always there.
string linesOf(const AliasTable &aliases, const Known &accounts = Known()) {
  string text = makeAliasMap(aliases, accounts).text;
  const size_t end = text.size() - (sizeof kDefaults - 1);
  EXPECT_EQ(text.substr(end), kDefaults);
  return text.substr(0, end);
}

Names problemsOf(const AliasTable &aliases) {
  return makeAliasMap(aliases, Known()).problems;
}

string leftOut(const string &name, const string &who, const string &why) {
  return "alias \"" + name + "\": member \"" + who + "\" is left out: " + why;
}
string empty(const string &name) {
  return "alias \"" + name + "\" is left out: no member is left";
}

// ---- members

TEST(AliasMapText, EveryKindOfMember) {
  const AliasTable table = {
      {"heads", {user("amy")}},
      {"team",
       {user("CORP\\eve"), grp("crew"), alias("heads"), address("x@example.org")}}};
  EXPECT_EQ(linesOf(table), "heads: amy\nteam: eve, amy, bob, heads, x@example.org\n");
  EXPECT_EQ(problemsOf(table), Names());
}

TEST(AliasMapText, NoAliases) { EXPECT_EQ(makeAliasMap({}, Known()).text, kDefaults); }

TEST(AliasMapText, AMemberThatOccursTwiceIsWrittenOnce) {
  EXPECT_EQ(linesOf({{"a", {user("amy"), user("amy"), grp("crew")}}}), "a: amy, bob\n");
  EXPECT_EQ(linesOf({{"amy", {user("bob")}}, {"b", {user("amy"), alias("amy")}}}),
            "amy: bob\nb: amy\n");
}

TEST(AliasMapText, DanglingMembersAreToldAndTheRestStays) {
  const AliasTable table = {
      {"a",
       {user("gone"), grp("gone"), grp("none"), grp("empty"), alias("none"),
        member(static_cast<MemberType>(7), "amy"), user(""), grp("left")}}};
  EXPECT_EQ(linesOf(table), "a: amy\n");
  EXPECT_EQ(problemsOf(table), (Names{leftOut("a", "gone", "there is no such user"),
                                      leftOut("a", "gone", "there is no such user"),
                                      leftOut("a", "none", "there is no such group"),
                                      leftOut("a", "empty", "the group has no users"),
                                      leftOut("a", "none", "there is no such alias"),
                                      leftOut("a", "amy", "it is of an unknown kind"),
                                      leftOut("a", "", "there is no such user"),
                                      leftOut("a", "gone", "there is no such user")}));
}

TEST(AliasMapText, AnAliasWithoutMembersIsLeftOutWhereverItIsNamed) {
  const AliasTable table = {{"a", {alias("b"), user("amy")}},
                            {"b", {alias("c")}},
                            {"c", {user("gone")}},
                            {"d", {}}};
  EXPECT_EQ(linesOf(table), "a: amy\n");
  EXPECT_EQ(problemsOf(table),
            (Names{leftOut("c", "gone", "there is no such user"), empty("c"),
                   leftOut("b", "c", "that alias is left out"), empty("b"),
                   leftOut("a", "b", "that alias is left out"), empty("d")}));
}

TEST(AliasMapText, ARootThatNobodyReadsIsToldWithTheRemedy) {
  const string remedy =
      "mail to root and postmaster cannot be delivered: name a reader with "
      "\"postwell alias add root --user NAME\"";
  EXPECT_EQ(
      problemsOf({{"root", {user("gone")}}}),
      (Names{leftOut("root", "gone", "there is no such user"), empty("root"), remedy}));
  EXPECT_EQ(problemsOf({{"root", {user("gone")}}, {"postmaster", {user("amy")}}}),
            (Names{leftOut("root", "gone", "there is no such user"), empty("root")}));
  EXPECT_EQ(problemsOf({{"root", {user("amy")}}}), Names());
}

TEST(AliasMapText, AUserWhoseAliasIsLeftOutHasAMailbox) {
  EXPECT_EQ(linesOf({{"amy", {user("gone")}}, {"b", {user("amy")}}}), "b: amy\n");
}

// ---- names

TEST(AliasMapText, NamesThatDifferInCaseAreOneAlias) {
  EXPECT_EQ(linesOf({{"SALES", {user("amy")}},
                     {"Sales", {user("bob"), user("amy")}},
                     {"b", {alias("sAles")}}}),
            "b: sales\nsales: amy, bob\n");
}

TEST(AliasMapText, NamesThatNeedQuotesHaveThem) {
  const std::map<string, string> quoted = {
      {"#x", "\"#x\""},       {"a b", "\"a b\""},
      {"a\"b", "\"a\\\"b\""}, {"a\\b", "\"a\\\\b\""},
      {"a:b", "\"a:b\""},     {"a,b", "\"a,b\""},
      {"a;b", "\"a;b\""},     {"a(b)", "\"a(b)\""},
      {"<a>", "\"<a>\""},     {"[a]", "\"[a]\""},
      {"a/b", "\"a/b\""},     {"m\xc3\xbcller", "\"m\xc3\xbcller\""},
      {"it's", "it's"},       {"100$", "100$"},
      {"a|b", "\"a|b\""},     {"'; drop", "\"'; drop\""}};
  for (const auto &[name, word] : quoted) {
    EXPECT_EQ(linesOf({{name, {user("amy")}}}), word + ": amy\n");
    EXPECT_EQ(problemsOf({{name, {user("amy")}}}), Names());
    Known accounts;
    accounts.boxes = {{name, name}};
    EXPECT_EQ(linesOf({{"z", {user(name)}}}, accounts), "z: " + word + "\n");
  }
}

// Neither an alias nor a user nor an address of these names may enter the map, and the
// rest of it must not suffer.
const Names kHostile = {
    "|cmd",          "/file",  ":include:/x", "\\amy", "-x",  " a", "a ",
    "a\nroot: |cmd", "a\tb",   "a\x7f",       "b\xff", "a@b", "@",  "",
    "\xed\xa0\x80",  "50%off", "a!b"};

TEST(AliasMapText, HostileNamesOfAliasesAreLeftOut) {
  Names names = kHostile;
  names.push_back(string(65, 'a'));
  names.push_back(string(1000, 'a'));
  for (const string &name : names) {
    const AliasTable table = {{name, {user("amy")}}, {"z", {user("bob")}}};
    EXPECT_EQ(linesOf(table), "z: bob\n");
    ASSERT_EQ(problemsOf(table).size(), 1u) << name;
    EXPECT_NE(problemsOf(table)[0].find("is left out: the name must "), string::npos);
  }
  EXPECT_EQ(linesOf({{string(64, 'a'), {user("amy")}}}), string(64, 'a') + ": amy\n");
}

TEST(AliasMapText, HostileNamesOfUsersAreLeftOut) {
  for (const string &name : kHostile) {
    Known accounts;
    accounts.boxes[name] = name;
    EXPECT_EQ(linesOf({{"z", {user(name), user("bob")}}}, accounts), "z: bob\n") << name;
  }
}

TEST(AliasMapText, HostileAddressesAreLeftOut) {
  Names names = kHostile;
  names.erase(std::find(names.begin(), names.end(), "a@b"));  // an address
  for (const char *more :
       {"|cmd@example.org", "/x@example.org", ":x@example.org", "\"|x\"@example.org",
        "-x@example.org", "a b@example.org", "a,b@example.org", ".a@example.org",
        "a.@example.org", "a..b@example.org", "a@", "a@.", "a@b@example.org",
        "a@example.org, |cmd", "a@example.org\nroot: |cmd", "a@1.2.3.4", "a@[1.2.3.4]",
        "m\xc3\xbcller@example.org", "bob"})
    names.push_back(more);
  names.push_back(string(65, 'a') + "@example.org");
  names.push_back(string(1000, 'a') + "@example.org");
  for (const string &name : names) {
    const AliasTable table = {{"z", {address(name), user("bob")}}};
    EXPECT_EQ(linesOf(table), "z: bob\n") << name;
    EXPECT_EQ(problemsOf(table).size(), 1u) << name;
  }
  for (const string &good :
       {string("a@b"), string("o'neil+x#1@example.org"), string(64, 'a') + "@b"})
    EXPECT_EQ(linesOf({{"z", {address(good)}}}), "z: " + good + "\n");
}

TEST(AliasMapText, ProblemsCannotDriveTheTerminal) {
  EXPECT_EQ(problemsOf({{"a\x1b", {user("amy")}}, {"z", {user("\x1b\n"), user("amy")}}}),
            (Names{"alias \"a\\x1b\" is left out: the name must be UTF-8 without control "
                   "characters",
                   leftOut("z", "\\x1b\\x0a", "there is no such user")}));
}

// ---- the two that are always there

TEST(AliasMapText, PostmasterAndMailerDaemonMayBeAliases) {
  EXPECT_EQ(
      makeAliasMap({{"PostMaster", {user("amy")}}, {"mailer-daemon", {user("bob")}}},
                   Known())
          .text,
      "mailer-daemon: bob\npostmaster: amy\n");
  EXPECT_EQ(makeAliasMap({{"postmaster", {user("gone")}}}, Known()).text, kDefaults);
}

TEST(AliasMapText, AUserPostmasterHasTheMail) {
  Known accounts;
  accounts.boxes["postmaster"] = "postmaster";
  EXPECT_EQ(makeAliasMap({{"root", {user("postmaster")}}}, accounts).text,
            "root: postmaster\npostmaster: postmaster\nMAILER-DAEMON: postmaster\n");
}

// ---- circles

// Follows the map as Postfix does and fails the test when that does not end.
void expectNoCircle(const string &text) {
  std::map<string, Names> lines;
  for (size_t start = 0, end; (end = text.find('\n', start)) != string::npos;
       start = end + 1) {
    const string line = text.substr(start, end - start);
    const size_t colon = line.find(": ");
    Names &words = lines[line.substr(0, colon)];
    for (size_t at = colon; at != string::npos; at = line.find(", ", at + 2))
      words.push_back(line.substr(at + 2, line.find(", ", at + 2) - at - 2));
  }
  const std::function<void(const string &, size_t)> follow = [&](const string &name,
                                                                 size_t depth) {
    ASSERT_LE(depth, lines.size()) << text;
    const auto line = lines.find(name);
    if (line == lines.end()) return;
    for (const string &word : line->second)
      if (word != name) follow(word, depth + 1);
  };
  for (const auto &[name, words] : lines) follow(name, 0);
}

void expectCircles(const AliasTable &table, const string &text, const Names &circles) {
  const AliasMap map = makeAliasMap(table, Known());
  EXPECT_EQ(linesOf(table), text);
  EXPECT_EQ(map.loops, circles);
  expectNoCircle(map.text);
}

const char kCircle[] = "the aliases lead back to each other";

TEST(AliasMapText, AnAliasOfItself) {
  expectCircles({{"a", {alias("A"), user("amy")}}}, "a: amy\n",
                {leftOut("a", "a", kCircle)});
  const AliasTable nothingElse = {{"a", {alias("a")}}};
  expectCircles(nothingElse, "", {leftOut("a", "a", kCircle)});
  EXPECT_EQ(problemsOf(nothingElse), (Names{leftOut("a", "a", kCircle), empty("a")}));
}

TEST(AliasMapText, TwoAliases) {
  expectCircles({{"a", {alias("b"), user("amy")}}, {"b", {alias("a"), user("bob")}}},
                "a: b, amy\nb: bob\n", {leftOut("b", "a", kCircle)});
}

TEST(AliasMapText, ACircleOfAliasesAlone) {
  const AliasTable table = {{"a", {alias("b")}}, {"b", {alias("a")}}};
  expectCircles(table, "", {leftOut("b", "a", kCircle)});
  EXPECT_EQ(problemsOf(table),
            (Names{leftOut("b", "a", kCircle), empty("b"),
                   leftOut("a", "b", "that alias is left out"), empty("a")}));
}

TEST(AliasMapText, ManyWaysToOneAliasAreNoCircle) {
  const AliasTable table = {{"a", {alias("c"), alias("b"), alias("d")}},
                            {"b", {alias("c"), alias("d")}},
                            {"c", {alias("d"), user("amy")}},
                            {"d", {user("bob")}}};
  expectCircles(table, "a: c, b, d\nb: c, d\nc: d, amy\nd: bob\n", {});
}

TEST(AliasMapText, ALinkOfACircleIsBrokenWhereTheWalkClosesIt) {
  const AliasTable table = {{"a", {alias("c"), alias("b")}},
                            {"b", {alias("c"), user("amy")}},
                            {"c", {alias("d"), user("amy")}},
                            {"d", {alias("b"), user("bob")}}};
  expectCircles(table, "a: c, b\nb: amy\nc: d, amy\nd: b, bob\n",
                {leftOut("b", "c", kCircle)});
}

TEST(AliasMapText, AnAliasNamedLikeItsOwnUser) {
  expectCircles({{"amy", {user("amy"), user("bob")}}}, "amy: amy, bob\n", {});
  expectCircles({{"amy", {alias("amy"), user("amy")}}}, "amy: amy\n",
                {leftOut("amy", "amy", kCircle)});
}

TEST(AliasMapText, UsersWhoseAliasesLeadBack) {
  expectCircles({{"amy", {user("bob")}}, {"bob", {user("amy"), address("x@b")}}},
                "amy: bob\nbob: x@b\n", {leftOut("bob", "amy", kCircle)});
  expectCircles({{"amy", {alias("team")}}, {"team", {grp("crew")}}},
                "amy: team\nteam: bob\n", {leftOut("team", "amy", kCircle)});
}

constexpr int kMany = 20000;

string numbered(int i) { return "a" + std::to_string(100000 + i); }

// Each alias a member of the one before; the last has a user.
AliasTable chain(int length) {
  AliasTable table;
  for (int i = 1; i < length; ++i) table[numbered(i)] = {alias(numbered(i + 1))};
  table[numbered(length)] = {user("amy")};
  return table;
}

TEST(AliasMapText, TwentyAliasesInARow) {
  string text;
  for (int i = 1; i < 20; ++i) text += numbered(i) + ": " + numbered(i + 1) + "\n";
  text += numbered(20) + ": amy\n";
  EXPECT_EQ(linesOf(chain(20)), text);
  EXPECT_EQ(problemsOf(chain(20)), Names());
}

TEST(AliasMapText, MoreInARowPostfixWouldNotFollow) {
  AliasTable table = chain(21);
  table[numbered(0)] = {alias(numbered(1)), user("bob")};
  const AliasMap map = makeAliasMap(table, Known());
  const Names loop{leftOut(numbered(1), numbered(2), "more than 20 aliases in a row")};
  EXPECT_EQ(map.loops, loop);
  EXPECT_EQ(map.problems,
            (Names{loop[0], empty(numbered(1)),
                   leftOut(numbered(0), numbered(1), "that alias is left out")}));
  EXPECT_EQ(map.text.rfind(numbered(0) + ": bob\n" + numbered(2) + ": ", 0), 0u);
}

TEST(AliasMapText, TheLongestOfSeveralChainsCounts) {
  AliasTable table = chain(20);
  table["b"] = {alias(numbered(3)), alias(numbered(1)), alias(numbered(2))};
  EXPECT_EQ(makeAliasMap(table, Known()).loops,
            Names{leftOut("b", numbered(1), "more than 20 aliases in a row")});
}

TEST(AliasMapText, AChainAsLongAsTheTable) {
  AliasTable table = chain(kMany);
  EXPECT_EQ(problemsOf(table).size(), 2u * (kMany - 20));  // each with its member
  table[numbered(kMany)].push_back(alias(numbered(1)));
  EXPECT_EQ(problemsOf(table)[0], leftOut(numbered(kMany), numbered(1), kCircle));
}

TEST(AliasMapText, EveryAliasAMemberOfEveryOther) {
  AliasTable table;
  for (int i = 0; i < 12; ++i) {
    table[numbered(i)] = {user("amy")};
    for (int other = 0; other < 12; ++other)
      table[numbered(i)].push_back(alias(numbered(other)));
  }
  const AliasMap map = makeAliasMap(table, Known());
  EXPECT_EQ(map.loops.size(), 12u * 13 / 2);
  expectNoCircle(map.text);
}

}  // namespace
