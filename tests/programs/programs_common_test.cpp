// The pure functions that the programs share, at their edges.

#include <gtest/gtest.h>

#include "common/host_name.h"
#include "common/relay_login.h"
#include "common/text.h"

namespace {

using std::string;

TEST(Text, PrintableShowsEveryByteSafely) {
  EXPECT_EQ(printable("a b\\~\"'"), "a b\\~\"'");
  EXPECT_EQ(printable(string("\0\x1f\x7f\x80\xff", 5)), "\\x00\\x1f\\x7f\\x80\\xff");
}

TEST(Text, IsMadeOf) {
  EXPECT_TRUE(isMadeOf("", ""));
  EXPECT_TRUE(isMadeOf("azAZ09.-", "-."));
  for (const string &bad :
       {string("a.b"), string("a\0", 2), string("\xc3\xbc"), string("a b")})
    EXPECT_FALSE(isMadeOf(bad, "-")) << printable(bad);
}

TEST(Text, HasControl) {
  for (int c = 0; c < 256; ++c)
    EXPECT_EQ(hasControl(string("a") + static_cast<char>(c)), c < 32 || c == 127) << c;
}

TEST(Text, IsUtf8) {
  for (const char *good : {"", "a", "\xc3\xbc", "\xe2\x82\xac", "\xf0\x9f\x93\xa7",
                           "\xf4\x8f\xbf\xbf", "a\xef\xbf\xbd"})
    EXPECT_TRUE(isUtf8(good)) << good;
  for (const char *bad :
       {"\x80", "\xc3", "\xc3(", "\xc0\xaf", "\xe0\x80\xaf", "\xed\xa0\x80",
        "\xf4\x90\x80\x80", "\xf8\x88\x80\x80\x80", "\xff", "a\xe2\x82"})
    EXPECT_FALSE(isUtf8(bad)) << printable(bad);
}

TEST(Text, LowerCaseKnowsAsciiAlone) {
  EXPECT_EQ(lowerCase("AZaz09[\xc3\x9c"), "azaz09[\xc3\x9c");
}

TEST(HostName, LabelsAndLengths) {
  const string label(63, 'a');
  const string longest = label + "." + label + "." + label + "." + string(61, 'a');
  ASSERT_EQ(longest.size(), 253u);
  for (const string &good :
       {string("a"), string("localhost"), string("3com.example"), string("a--b.1-1.x9"),
        string("A.B"), string("1.2.3.4x"), label, longest})
    EXPECT_TRUE(isHostName(good)) << good;
  for (const string &bad :
       {string(""), string("."), string("a."), string(".a"), string("a..b"), string("-a"),
        string("a-"), string("a.-b"), string("a_b"), string("a b"), string("1"),
        string("1.2.3.4"), string("a.1"), string("a/b"), string("a\0b", 3), label + "a",
        longest + "a"})
    EXPECT_FALSE(isHostName(bad)) << printable(bad);
}

TEST(HostName, Addresses) {
  for (const char *good : {"192.0.2.1", "::", "::1", "2001:db8::7", "::ffff:192.0.2.1"})
    EXPECT_TRUE(isAddress(good)) << good;
  for (const string &bad :
       {string(""), string("192.0.2"), string("192.0.2.300"), string(":"),
        string("[::1]"), string("fe80::1%lo"), string("a"), string("::1\0x", 5)})
    EXPECT_FALSE(isAddress(bad)) << printable(bad);
}

TEST(RelayLogin, WhatMayStand) {
  for (const char *account :
       {"", "bob", "bob@corp.example", "CORP\\bob", "b b", "m\xc3\xbcller"})
    EXPECT_EQ(accountProblem(account), "") << account;
  for (const string &password :
       {string(), string(" x"), string("a:b # \"c\""), string(215, 'x')})
    EXPECT_EQ(passwordProblem(password), "") << password;
}

TEST(RelayLogin, AProblemNeverTellsTheSecret) {
  for (const string &password : {string("xyzzy "), string("xyzzy\n"), string("xyzzy\xff"),
                                 "xyzzy" + string(216, 'x')}) {
    EXPECT_NE(passwordProblem(password), "");
    EXPECT_EQ(passwordProblem(password).find("xyzzy"), string::npos);
  }
}

}  // namespace
