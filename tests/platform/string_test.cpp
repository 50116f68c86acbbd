// Trimming and formatting.

#include <gtest/gtest.h>

#include <string>

#include "kestcore.h"

namespace {

// The trimmed text with its reported length behind it.
std::string trimmed(std::string text) {
  const int length = KLIBCStrTrimSpace(text.data(), 0);
  return std::string(text.c_str()) + ":" + std::to_string(length);
}

TEST(TrimSpace, stripsEveryKindOfBlankFromBothEnds) {
  EXPECT_EQ(trimmed("text"), "text:4");
  EXPECT_EQ(trimmed(" \t\r\n\v\ftext \t\r\n\v\f"), "text:4");
  EXPECT_EQ(trimmed("text\n"), "text:4");
  EXPECT_EQ(trimmed("\ntext"), "text:4");
}

TEST(TrimSpace, keepsBlanksInsideAndOtherBytes) {
  EXPECT_EQ(trimmed(" a \t b "), "a \t b:5");
  EXPECT_EQ(trimmed("\xc2\xa0x\xc2\xa0"), "\xc2\xa0x\xc2\xa0:5");
  EXPECT_EQ(trimmed("\x01 "), "\x01:1");
}

TEST(TrimSpace, leavesNothingOfBlanks) {
  EXPECT_EQ(trimmed(" \t\r\n"), ":0");
  EXPECT_EQ(trimmed(""), ":0");
}

TEST(TrimSpace, refusesNull) {
  EXPECT_LT(KLIBCStrTrimSpace(nullptr, 0), 0);
  EXPECT_EQ(KLIBCErrGet(), KLIBC_ERR_BAD_PARAMETERS);
}

TEST(StrGet, formatsIntoANewText) {
  char *text = KLIBCStrGet("\\%s, \"|%s %d\"", "anna", "/bin/vacation", 7);
  ASSERT_NE(text, nullptr);
  EXPECT_STREQ(text, "\\anna, \"|/bin/vacation 7\"");
  KLIBCStrPut(text);
}

TEST(StrGet, takesTextsOfAnyLength) {
  const std::string longText(100000, 'x');
  char *text = KLIBCStrGet("<%s>", longText.c_str());
  ASSERT_NE(text, nullptr);
  EXPECT_EQ(text, "<" + longText + ">");
  KLIBCStrPut(text);
  KLIBCStrPut(nullptr);
}

TEST(StrGet, givesNullWhenItCannotFormat) {
  char *(*const unchecked)(const char *, ...) = KLIBCStrGet;  // the compiler would object
  EXPECT_EQ(unchecked(nullptr), nullptr);
  const wchar_t unprintable[] = {static_cast<wchar_t>(0xd800), 0};
  EXPECT_EQ(KLIBCStrGet("%ls", unprintable), nullptr);
}

}  // namespace
