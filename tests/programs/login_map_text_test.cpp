// The text of the login map, for names that no host is likely to have.

#include <gtest/gtest.h>

#include "login_map.h"

namespace {

std::string textOf(const std::vector<std::string> &users) {
  return makeLoginMap(users).text;
}

TEST(LoginMapText, BareNamesInSmallLetters) {
  EXPECT_EQ(textOf({"bob"}), "bob\tbob\n");
  EXPECT_EQ(textOf({"Bob.M-1_x"}), "bob.m-1_x\tbob.m-1_x\n");
  EXPECT_EQ(textOf({}), "");
}

TEST(LoginMapText, DomainsGoAndTheirLoginsStay) {
  EXPECT_EQ(textOf({"Bob@Corp.Example"}), "bob\tbob\n");
  EXPECT_EQ(textOf({"CORP\\Bob"}), "bob\tbob,corp\\bob\n");
  EXPECT_EQ(textOf({"CORP\\Bob@x"}), "bob\tbob,corp\\bob\n");
  EXPECT_EQ(textOf({"A\\B\\c"}), "c\ta\\b\\c,c\n");
}

TEST(LoginMapText, UsersOfTheSameNameShareALine) {
  EXPECT_EQ(textOf({"bob", "B\\bob", "A\\bob", "BOB", "bob@x"}),
            "bob\ta\\bob,b\\bob,bob\n");
}

TEST(LoginMapText, TheOrderOfTheUsersDoesNotMatter) {
  EXPECT_EQ(textOf({"zoe", "amy", "X\\amy"}), textOf({"X\\amy", "zoe", "amy"}));
  EXPECT_EQ(textOf({"zoe", "amy"}), "amy\tamy\nzoe\tzoe\n");
}

TEST(LoginMapText, NamesThatNoLineCanCarryAreLeftOut) {
  const std::vector<std::string> hopeless = {"",
                                             "@x",
                                             "CORP\\",
                                             "a b",
                                             "a,b",
                                             "a\tb",
                                             "a\nroot root",
                                             "#bob",
                                             "CORP\\#bob",
                                             "\"bob",
                                             "a\x7f",
                                             "b\xff",
                                             "c\xc3",
                                             "A B\\bob",
                                             "a\xed\xa0\x80",
                                             "bob@a b",
                                             std::string(256, 'a'),
                                             std::string("a\0b", 3)};
  for (const std::string &name : hopeless) {
    const LoginMap map = makeLoginMap({"zoe", name});
    EXPECT_EQ(map.text, "zoe\tzoe\n") << name;
    EXPECT_EQ(map.leftOut, std::vector<std::string>{name});
  }
}

TEST(LoginMapText, OddNamesThatALineCanCarry) {
  const std::string longest(255, 'a');
  for (const std::string &name :
       {std::string("a#b"), std::string("a\"b"), std::string("$x"), std::string("a:b"),
        std::string("m\xc3\xbcller"), longest}) {
    const LoginMap map = makeLoginMap({name});
    EXPECT_EQ(map.text, name + "\t" + name + "\n");
    EXPECT_TRUE(map.leftOut.empty());
  }
}

}  // namespace
