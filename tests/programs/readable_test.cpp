// What a person is shown of a text, at the edges of what is not shown as it stands.

#include "readable.h"

#include <gtest/gtest.h>

#include "common/text.h"

namespace {

TEST(Readable, LettersOfAllScriptsStand) {
  for (const char *text :
       {"", "a b~\\", "\xc3\xbc", "\xe2\x82\xac", "\xf0\x9f\x93\xa7", "\xd7\xa9\xd7\x9c",
        "\xe2\x80\x8c", "\xc2\xa0", "\xef\xbf\xbd", "\xf4\x8f\xbf\xbf"})
    EXPECT_EQ(readable(text), text);
}

TEST(Readable, WhatMisleadsDoesNot) {
  for (const char *character : {"\x01",
                                "\x1f",
                                "\x7f",
                                "\xc2\x80",
                                "\xc2\x9f",
                                "\xd8\x9c",
                                "\xe2\x80\x8b",
                                "\xe2\x80\x8e",
                                "\xe2\x80\x8f",
                                "\xe2\x80\xa8",
                                "\xe2\x80\xa9",
                                "\xe2\x80\xaa",
                                "\xe2\x80\xae",
                                "\xe2\x81\xa0",
                                "\xe2\x81\xa6",
                                "\xe2\x81\xa9",
                                "\xe2\x81\xaf",
                                "\xef\xbb\xbf",
                                "\xef\xbf\xb9",
                                "\xef\xbf\xbf",
                                "\xf3\xa0\x80\x80",
                                "\xf3\xa0\x81\xbf"})
    EXPECT_EQ(readable(std::string("\xc3\xbc") + character + "\xc3\xbc"),
              "\xc3\xbc" + printable(character) + "\xc3\xbc");
  EXPECT_EQ(readable(std::string("a\0b", 3)), "a\\x00b");
}

TEST(Readable, OfWhatIsNoUtf8OnlyAsciiStands) {
  EXPECT_EQ(readable("\xc3\xbc\xff"), "\\xc3\\xbc\\xff");
  EXPECT_EQ(readable("a\xe2\x82"), "a\\xe2\\x82");
}

}  // namespace
