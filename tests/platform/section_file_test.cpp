// Files with [section] headers.

#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "kestcore.h"
#include "support/files.h"
#include "temp_folder.h"

namespace {

class SectionFile : public testing::Test {
 protected:
  int set(const std::string &section, const std::string &key, const std::string &value,
          const char *format = "%s=\"%s\"\n") {
    return KLIBCFileSetSectionValue(path.c_str(), section.c_str(), key.c_str(),
                                    value.c_str(), format);
  }

  // The value, or "(failed)".
  std::string get(const std::string &section, const std::string &key) {
    char buffer[128] = "unchanged";
    const int result = KLIBCFileGetSectionValue(path.c_str(), section.c_str(),
                                                key.c_str(), buffer, sizeof buffer);
    EXPECT_TRUE(result == 0 || *buffer == '\0');
    return result == 0 ? buffer : "(failed)";
  }

  TempFolder folder;
  std::string path = folder / "postwell_port";
};

bool isHeader(const std::string &line) {
  return KLIBCIFileIsSection(line.data(), static_cast<int>(line.size())) == 1;
}

bool matches(const std::string &line, const char *section) {
  return KLIBCIFileMatchSection(line.data(), static_cast<int>(line.size()), section) == 1;
}

TEST(SectionHeader, standsInSquareBracketsWithOrWithoutNewline) {
  for (const char *line : {"[global]", "[global]\n", "[global]\r\n", " \t[ global ] \n",
                           "[a b]", "[]", "[a]b]"})
    EXPECT_TRUE(isHeader(line)) << line;
  for (const char *line : {"", "\n", "[", "]", "[global", "global]", "x[global]",
                           "[global] x", "#[global]", "key=\"[x]\""})
    EXPECT_FALSE(isHeader(line)) << line;
}

TEST(SectionHeader, matchesItsNameWithoutRegardToCaseAndBlanks) {
  EXPECT_TRUE(matches("[global]\n", "global"));
  EXPECT_TRUE(matches(" [ GloBal\t]\r\n", "gLobaL"));
  EXPECT_TRUE(matches("[two words]", "Two Words"));
  EXPECT_FALSE(matches("[global]", "globa"));
  EXPECT_FALSE(matches("[globa]", "global"));
  EXPECT_FALSE(matches("global", "global"));
  EXPECT_FALSE(matches("[\xc3\xa4]", "\xc3\x84"));  // only ASCII letters have a case
  EXPECT_FALSE(matches("[@]", "`"));
}

TEST(SectionHeader, onlyTheGivenBytesCount) {
  EXPECT_EQ(KLIBCIFileIsSection("[a] rest", 3), 1);
  EXPECT_EQ(KLIBCIFileIsSection("[a]", 2), 0);
  EXPECT_EQ(KLIBCIFileIsSection("[a]", 0), 0);
  EXPECT_EQ(KLIBCIFileIsSection("[a]", -1), 0);
  EXPECT_EQ(KLIBCIFileIsSection(nullptr, 3), 0);
  EXPECT_EQ(KLIBCIFileMatchSection("[ab]", 4, nullptr), 0);
  EXPECT_EQ(KLIBCIFileMatchSection(nullptr, 4, "ab"), 0);
  EXPECT_EQ(KLIBCIFileMatchSection("[ab]", -4, "ab"), 0);
}

TEST_F(SectionFile, valueIsReadFromTheNamedSectionAlone) {
  writeFile(path, "k=\"0\"\n[a]\nk=\"1\"\n[b]\nk=\"2\"\nx=\"3\"\n");
  EXPECT_EQ(get("a", "k"), "1");
  EXPECT_EQ(get("b", "k"), "2");
  EXPECT_EQ(get("a", "x"), "(failed)");
  EXPECT_EQ(KLIBCErrGet(), KLIBC_ERR_NOT_FOUND);
  EXPECT_EQ(get("c", "k"), "(failed)");
}

TEST_F(SectionFile, readsLinesWithoutQuotes) {
  writeFile(path,
            "# Samba\n[global]\n\tworkgroup = OFFICE \r\n;realm = NO\n#x = y\n"
            "  passdb backend = smbpasswd:/usr/kest/etc\nempty =\nopen = \"half\n"
            "Quoted=\" kept \" ; note\n\n[homes]\n\tworkgroup = WRONG\n");
  EXPECT_EQ(get("global", "workgroup"), "OFFICE");
  EXPECT_EQ(get("GLOBAL", "WorkGroup"), "OFFICE");
  EXPECT_EQ(get("global", "passdb backend"), "smbpasswd:/usr/kest/etc");
  EXPECT_EQ(get("global", "empty"), "");
  EXPECT_EQ(get("global", "quoted"), " kept ");
  for (const char *key : {"realm", ";realm", "x", "#x", "open"})
    EXPECT_EQ(get("global", key), "(failed)") << key;
}

TEST_F(SectionFile, firstSectionOfANameAndLastLineOfAKeyCount) {
  writeFile(path, "[a]\nk=\"1\"\nk=\"2\"\n[b]\n[a]\nk=\"3\"\nz=\"4\"\n");
  EXPECT_EQ(get("a", "k"), "2");
  EXPECT_EQ(get("a", "z"), "(failed)");
}

TEST_F(SectionFile, valueMustFitTheBufferWithItsNul) {
  writeFile(path, "[a]\nk=\"12345\"\n");
  char buffer[8] = "old";
  EXPECT_EQ(KLIBCFileGetSectionValue(path.c_str(), "a", "k", buffer, 6), 0);
  EXPECT_STREQ(buffer, "12345");
  EXPECT_LT(KLIBCFileGetSectionValue(path.c_str(), "a", "k", buffer, 5), 0);
  EXPECT_EQ(KLIBCErrGet(), KLIBC_ERR_TOO_LONG);
  EXPECT_STREQ(buffer, "");
}

TEST_F(SectionFile, missingFileIsNegativeForReading) {
  EXPECT_EQ(get("a", "k"), "(failed)");
  EXPECT_EQ(KLIBCErrGet(), KLIBC_ERR_OPEN_FAILED);
}

TEST_F(SectionFile, writesTheFormatsLine) {
  EXPECT_EQ(set("mail_smtp", "dst.ports", "25", "%s=\"%s/tcp\"\n"), 0);
  EXPECT_EQ(set("mail_smtps", "dst.ports", "465", "%s=\"%s/tcp\"\n"), 0);
  EXPECT_EQ(readFile(path),
            "[mail_smtp]\ndst.ports=\"25/tcp\"\n[mail_smtps]\ndst.ports=\"465/tcp\"\n");
  EXPECT_EQ(set("mail_smtp", "dst.ports", "2525", "%s=\"%s/tcp\"\n"), 0);
  EXPECT_EQ(get("mail_smtp", "dst.ports"), "2525/tcp");
  EXPECT_EQ(get("mail_smtps", "dst.ports"), "465/tcp");
}

TEST_F(SectionFile, nullFormatIsTheDefault) {
  EXPECT_EQ(set("a", "k", "1", nullptr), 0);
  EXPECT_EQ(readFile(path), "[a]\nk=\"1\"\n");
}

TEST_F(SectionFile, replacesTheKeyWhereItStandsAndKeepsTheRestToTheByte) {
  writeFile(
      path,
      "# top\r\n k=\"0\"\n[x]\nk=\"1\"\n\n [A] \r\ntitle=\"t\"\r\n  K = old\n;k=\"c\"\n\n"
      "[a]\nk=\"second\"\nend");
  EXPECT_EQ(set("a", "k", "new"), 0);
  EXPECT_EQ(
      readFile(path),
      "# top\r\n k=\"0\"\n[x]\nk=\"1\"\n\n [A] \r\ntitle=\"t\"\r\nk=\"new\"\n;k=\"c\"\n\n"
      "[a]\nk=\"second\"\nend");
}

TEST_F(SectionFile, replacesEveryLineOfTheKeyInTheSection) {
  writeFile(path, "[a]\nk=\"1\"\nj=\"2\"\nk=3\n");
  EXPECT_EQ(set("a", "k", "x"), 0);
  EXPECT_EQ(readFile(path), "[a]\nk=\"x\"\nj=\"2\"\nk=\"x\"\n");
}

TEST_F(SectionFile, addsAKeyAtTheEndOfItsSection) {
  writeFile(path, "[a]\nx=\"1\"\n\n[b]\n[c]\n\n");
  EXPECT_EQ(set("a", "k", "2"), 0);
  EXPECT_EQ(set("b", "k", "3"), 0);
  EXPECT_EQ(set("c", "k", "4"), 0);
  EXPECT_EQ(readFile(path), "[a]\nx=\"1\"\nk=\"2\"\n\n[b]\nk=\"3\"\n[c]\nk=\"4\"\n\n");
}

TEST_F(SectionFile, endsAnOpenLastLineFirst) {
  writeFile(path, "[a]");
  EXPECT_EQ(set("a", "k", "1"), 0);
  EXPECT_EQ(readFile(path), "[a]\nk=\"1\"\n");
  writeFile(path, "[a]\nx=\"1\"");
  EXPECT_EQ(set("a", "k", "1"), 0);
  EXPECT_EQ(readFile(path), "[a]\nx=\"1\"\nk=\"1\"\n");
  writeFile(path, "[a]\nx=\"1\"");
  EXPECT_EQ(set("b", "k", "1"), 0);
  EXPECT_EQ(readFile(path), "[a]\nx=\"1\"\n[b]\nk=\"1\"\n");
}

TEST_F(SectionFile, refusesWhatWouldReadBackAsSomethingElse) {
  const std::string before = "[a]\nk=\"1\"\n";
  writeFile(path, before);
  EXPECT_LT(set("a", "k", "x\n[b]"), 0);
  EXPECT_EQ(KLIBCErrGet(), KLIBC_ERR_VALUE_REFUSED);
  for (const char *key : {"", "k=", "k\"", " k", "k ", "#k", "[k", ";k", "k\nl"})
    EXPECT_LT(set("a", key, "x"), 0) << key;
  for (const char *section : {" a", "a ", "a]", "a\nb", "]", "\n", " "})
    EXPECT_LT(set(section, "k", "x"), 0) << section;
  EXPECT_EQ(KLIBCErrGet(), KLIBC_ERR_VALUE_REFUSED);
  EXPECT_LT(set("a", "k", "x", "%s=%d\n"), 0);
  EXPECT_EQ(KLIBCErrGet(), KLIBC_ERR_BAD_PARAMETERS);
  EXPECT_EQ(readFile(path), before);
}

TEST_F(SectionFile, badParametersAreNegative) {
  writeFile(path, "[a]\nk=\"1\"\n");
  const char *const file = path.c_str();
  char buffer[8];
  EXPECT_LT(KLIBCFileGetSectionValue(nullptr, "a", "k", buffer, 8), 0);
  EXPECT_LT(KLIBCFileGetSectionValue(file, nullptr, "k", buffer, 8), 0);
  EXPECT_LT(KLIBCFileGetSectionValue(file, "a", nullptr, buffer, 8), 0);
  EXPECT_LT(KLIBCFileGetSectionValue(file, "a", "", buffer, 8), 0);
  EXPECT_LT(KLIBCFileGetSectionValue(file, "a", "k", nullptr, 8), 0);
  EXPECT_LT(KLIBCFileGetSectionValue(file, "a", "k", buffer, 0), 0);
  EXPECT_LT(KLIBCFileSetSectionValue(nullptr, "a", "k", "v", nullptr), 0);
  EXPECT_LT(KLIBCFileSetSectionValue(file, nullptr, "k", "v", nullptr), 0);
  EXPECT_LT(KLIBCFileSetSectionValue(file, "a", nullptr, "v", nullptr), 0);
  EXPECT_LT(KLIBCFileSetSectionValue(file, "a", "k", nullptr, nullptr), 0);
  EXPECT_EQ(KLIBCErrGet(), KLIBC_ERR_BAD_PARAMETERS);
  EXPECT_EQ(readFile(path), "[a]\nk=\"1\"\n");
}

}  // namespace
