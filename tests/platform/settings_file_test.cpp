// Key/value files: what is read, what is kept, what is refused.

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <unistd.h>

#include <climits>
#include <csignal>
#include <string>
#include <vector>

#include "children.h"
#include "kestcore.h"
#include "support/files.h"
#include "table.h"
#include "temp_folder.h"

namespace {

class SettingsFile : public testing::Test {
 protected:
  int set(const std::string &key, const std::string &value,
          const char *format = nullptr) {
    return KLIBCFileSetKeyValue(path.c_str(), key.c_str(), value.c_str(), format);
  }

  // The value, or "(N)" when the call did not return the value's length.
  std::string get(const std::string &key, size_t size = 200000) {
    std::vector<char> buffer(size, 'X');
    const int length = KLIBCFileGetKeyValue(path.c_str(), key.c_str(), buffer.data(),
                                            static_cast<int>(size), 0);
    const std::string value = buffer.data();
    return length == static_cast<int>(value.size()) ? value
                                                    : "(" + std::to_string(length) + ")";
  }

  mode_t modeOf(const std::string &file) {
    struct stat st;
    EXPECT_EQ(stat(file.c_str(), &st), 0);
    return st.st_mode & 07777;
  }

  TempFolder folder;
  std::string path = folder / "postwell.conf";
};

// ---- reading

TEST_F(SettingsFile, readsEverySettingsLine) {
  writeFile(path, "a=\"1\"\nb=\"two words\"\nc=\"\"\n");
  Table table;
  EXPECT_EQ(table.load(path), 3);
  EXPECT_EQ(table.get("a"), "1");
  EXPECT_EQ(table.get("b"), "two words");
  EXPECT_EQ(table.get("c"), "");
}

TEST_F(SettingsFile, valueStandsBetweenFirstAndLastQuoteOfItsLine) {
  writeFile(path, "a=\"x \"y\" z\" # rest\nb=\"\"\"\nc= \t\"v\"\r\nd=\"k=v\"");
  Table table;
  EXPECT_EQ(table.load(path), 4);
  EXPECT_EQ(table.get("a"), "x \"y\" z");
  EXPECT_EQ(table.get("b"), "\"");
  EXPECT_EQ(table.get("c"), "v");
  EXPECT_EQ(table.get("d"), "k=v");
}

TEST_F(SettingsFile, blanksAroundTheKeyDoNotCount) {
  writeFile(path, " \t a \t=\"1\"\nb c=\"2\"\n");
  Table table;
  EXPECT_EQ(table.load(path), 2);
  EXPECT_EQ(table.get("a"), "1");
  EXPECT_EQ(table.get("b c"), "2");
}

TEST_F(SettingsFile, otherLinesAreComments) {
  using namespace std::string_literals;
  writeFile(path,
            "#a=\"1\"\n  # b=\"2\"\nc=3\nd=\"4\ne\n=\"5\"\n\n\"f\"=\"6\"\n[g=\"7\"]\n"
            "h=\"8\0\"\n\"i=\"9\"\n[j=\"10\"\n"s);
  Table table;
  EXPECT_EQ(table.load(path), 0);
  for (const char *key : {"a", "#a", "b", "c", "d", "e", "f", "[g", "h", "i", "[j"})
    EXPECT_EQ(table.get(key), "(absent)") << key;
}

TEST_F(SettingsFile, lastOfSeveralLinesCounts) {
  writeFile(path, "a=\"1\"\nb=\"2\"\na=\"3\"\n");
  Table table;
  EXPECT_EQ(table.load(path), 3);
  EXPECT_EQ(table.get("a"), "3");
  EXPECT_EQ(get("a"), "3");
}

TEST_F(SettingsFile, readingAddsToTheTable) {
  writeFile(path, "a=\"new\"\n");
  Table table({{"a", "old"}, {"b", "kept"}});
  EXPECT_EQ(table.load(path), 1);
  EXPECT_EQ(table.get("a"), "new");
  EXPECT_EQ(table.get("b"), "kept");
}

TEST_F(SettingsFile, emptyFileHasNoSettings) {
  writeFile(path, "");
  Table table;
  EXPECT_EQ(table.load(path), 0);
  EXPECT_EQ(get("a"), "");
}

TEST_F(SettingsFile, missingOrUnreadableFileIsNegative) {
  Table table;
  EXPECT_LT(table.load(path), 0);
  EXPECT_EQ(KLIBCErrGet(), KLIBC_ERR_OPEN_FAILED);
  EXPECT_EQ(get("a"), "(-1)");
  writeFile(path, "a=\"1\"\n", 0000);
  EXPECT_LT(table.load(path), 0);
  EXPECT_EQ(KLIBCErrGet(), KLIBC_ERR_OPEN_FAILED);
  EXPECT_EQ(get("a"), "(-1)");
  EXPECT_LT(table.load(folder.path()), 0);
  EXPECT_EQ(KLIBCErrGet(), KLIBC_ERR_READ_FAILED);
}

TEST_F(SettingsFile, aPipeIsRefusedAndNotWaitedFor) {
  ASSERT_EQ(mkfifo(path.c_str(), 0600), 0);
  Table table;
  EXPECT_LT(table.load(path), 0);
  EXPECT_EQ(KLIBCErrGet(), KLIBC_ERR_READ_FAILED);
}

TEST_F(SettingsFile, absentKeyGivesZeroAndAnEmptyBuffer) {
  writeFile(path, "a=\"1\"\n");
  char buffer[16] = "unchanged";
  EXPECT_EQ(KLIBCFileGetKeyValue(path.c_str(), "b", buffer, sizeof buffer, 0), 0);
  EXPECT_STREQ(buffer, "");
}

TEST_F(SettingsFile, valueMustFitTheBufferWithItsNul) {
  writeFile(path, "a=\"12345\"\n");
  EXPECT_EQ(get("a", 6), "12345");
  char buffer[6] = "old";
  EXPECT_LT(KLIBCFileGetKeyValue(path.c_str(), "a", buffer, 5, 0), 0);
  EXPECT_EQ(KLIBCErrGet(), KLIBC_ERR_TOO_LONG);
  EXPECT_STREQ(buffer, "");
}

TEST_F(SettingsFile, badParametersAreNegative) {
  writeFile(path, "a=\"1\"\n");
  Table table;
  KLIBCSzHash *raw = table.raw(), *none = nullptr;
  char buffer[16];
  const char *const file = path.c_str();
  EXPECT_LT(KLIBCFileGetPair(nullptr, &raw), 0);
  EXPECT_LT(KLIBCFileGetPair(file, nullptr), 0);
  EXPECT_LT(KLIBCFileGetPair(file, &none), 0);
  EXPECT_LT(KLIBCFileSetKeys(nullptr, raw, 0, nullptr), 0);
  EXPECT_LT(KLIBCFileSetKeys(file, nullptr, 0, nullptr), 0);
  EXPECT_LT(KLIBCFileGetKeyValue(nullptr, "a", buffer, 16, 0), 0);
  EXPECT_LT(KLIBCFileGetKeyValue(file, nullptr, buffer, 16, 0), 0);
  EXPECT_LT(KLIBCFileGetKeyValue(file, "", buffer, 16, 0), 0);
  EXPECT_LT(KLIBCFileGetKeyValue(file, "a", nullptr, 16, 0), 0);
  EXPECT_LT(KLIBCFileGetKeyValue(file, "a", buffer, 0, 0), 0);
  EXPECT_LT(KLIBCFileGetKeyValue(file, "a", buffer, -1, 0), 0);
  EXPECT_LT(KLIBCFileSetKeyValue(nullptr, "a", "1", nullptr), 0);
  EXPECT_LT(KLIBCFileSetKeyValue(file, nullptr, "1", nullptr), 0);
  EXPECT_LT(KLIBCFileSetKeyValue(file, "a", nullptr, nullptr), 0);
  EXPECT_EQ(KLIBCErrGet(), KLIBC_ERR_BAD_PARAMETERS);
  EXPECT_EQ(readFile(path), "a=\"1\"\n");
}

// ---- writing

TEST_F(SettingsFile, replacesWhereTheLineStandsAndAddsInTheTablesOrder) {
  writeFile(path, "a=\"1\"\nb=\"2\"\nc=\"3\"\n");
  Table table({{"z", "26"}, {"b", "new"}, {"d", "4"}});
  EXPECT_EQ(table.save(path), 0);
  EXPECT_EQ(readFile(path), "a=\"1\"\nb=\"new\"\nc=\"3\"\nz=\"26\"\nd=\"4\"\n");
}

TEST_F(SettingsFile, replacesEveryLineOfAKey) {
  writeFile(path, "a=\"1\"\nb=\"2\"\n a =\"3\" # note\n");
  EXPECT_EQ(set("a", "x"), 0);
  EXPECT_EQ(readFile(path), "a=\"x\"\nb=\"2\"\na=\"x\"\n");
}

TEST_F(SettingsFile, keepsAllOtherLinesToTheByte) {
  using namespace std::string_literals;
  const std::string before =
      "# comment a=\"0\"\r\n\r\n\tb = \"2\" ; x\r\n\0\0binary\0=\"\xff\"\n  \n[section]\n"s +
      "long=\"" + std::string(100000, 'l') + "\"\n" + std::string(70000, 'x') + "\n";
  writeFile(path, before + "a=\"1\"\n\n\nlast line without end");
  EXPECT_EQ(set("a", "2"), 0);
  EXPECT_EQ(readFile(path), before + "a=\"2\"\n\n\nlast line without end");
}

TEST_F(SettingsFile, endsAnOpenLastLineBeforeAddingAKey) {
  writeFile(path, "a=\"1\"");
  EXPECT_EQ(set("b", "2"), 0);
  EXPECT_EQ(readFile(path), "a=\"1\"\nb=\"2\"\n");
  writeFile(path, "a=\"1\"");
  EXPECT_EQ(set("a", "3"), 0);
  EXPECT_EQ(readFile(path), "a=\"3\"\n");
}

TEST_F(SettingsFile, keyThatIsAbsentByCaseOrPrefixIsAdded) {
  writeFile(path, "Key=\"1\"\nkeys=\"2\"\n#key=\"3\"\n");
  EXPECT_EQ(set("key", "4"), 0);
  EXPECT_EQ(readFile(path), "Key=\"1\"\nkeys=\"2\"\n#key=\"3\"\nkey=\"4\"\n");
}

TEST_F(SettingsFile, emptyTableChangesNothing) {
  writeFile(path, "a=\"1\"");
  EXPECT_EQ(Table().save(path), 0);
  EXPECT_EQ(readFile(path), "a=\"1\"");
}

TEST_F(SettingsFile, valuesRoundTripWhateverTheyHold) {
  std::string everyByte;
  for (int c = 1; c < 256; ++c)
    if (c != '\n') everyByte += static_cast<char>(c);
  const std::vector<std::string> values = {"",
                                           " ",
                                           "\"",
                                           "\"\"",
                                           "a\"b\"c",
                                           "=",
                                           "a=\"b\"",
                                           "%",
                                           "%s%n%d",
                                           "$HOME `id` $(id)",
                                           "\\",
                                           "\\n\\\"",
                                           "\r",
                                           "end\r",
                                           "\t tab \t",
                                           "#",
                                           "[x]",
                                           "J\xc3\xbcrgen \xe2\x82\xac",
                                           "\xff\xfe",
                                           everyByte,
                                           std::string(100000, '"'),
                                           std::string(100 * 1024, 'v')};
  for (const std::string &value : values) {
    ASSERT_EQ(set("before", "1"), 0);
    ASSERT_EQ(set("key", value), 0);
    ASSERT_EQ(set("after", "2"), 0);
    ASSERT_EQ(get("key"), value);
    Table table;
    ASSERT_EQ(table.load(path), 3);
    ASSERT_EQ(table.get("key"), value);
    ASSERT_EQ(table.save(path), 0);
    ASSERT_EQ(get("key"), value);
  }
}

TEST_F(SettingsFile, refusesAValueThatWouldForgeALine) {
  writeFile(path, "a=\"1\"\n");
  for (const char *value : {"\n", "x\ny=\"2\"", "x\n", "\nx", "x\r\n"}) {
    EXPECT_LT(set("a", value), 0);
    EXPECT_EQ(KLIBCErrGet(), KLIBC_ERR_VALUE_REFUSED);
    EXPECT_LT(Table({{"b", "fine"}, {"a", value}}).save(path), 0);
  }
  EXPECT_EQ(readFile(path), "a=\"1\"\n");
  EXPECT_EQ(folder.names(), std::vector<std::string>{"postwell.conf"});
}

TEST_F(SettingsFile, refusesAKeyThatWouldReadBackAsSomethingElse) {
  writeFile(path, "a=\"1\"\n");
  for (const char *key :
       {"", "a\nb", "a=b", "a\"b", " a", "a ", "\ta", "a\r", "#a", "[a", "["}) {
    EXPECT_LT(set(key, "x"), 0) << key;
    EXPECT_EQ(KLIBCErrGet(), KLIBC_ERR_VALUE_REFUSED);
  }
  EXPECT_LT(Table({{"b", "1"}, {"c=d", "2"}}).save(path), 0);
  EXPECT_EQ(readFile(path), "a=\"1\"\n");
}

TEST_F(SettingsFile, writesEachLineInTheGivenFormat) {
  writeFile(path, "dst=\"25/tcp\"\n");
  EXPECT_EQ(set("dst", "26", "%s=\"%s/tcp\"\n"), 0);
  EXPECT_EQ(set("rate", "5", " %s = \"%s%%\" # 100%%\n"), 0);
  EXPECT_EQ(readFile(path), "dst=\"26/tcp\"\n rate = \"5%\" # 100%\n");
  EXPECT_EQ(set("rate", "%s%s", nullptr), 0);
  EXPECT_EQ(readFile(path), "dst=\"26/tcp\"\nrate=\"%s%s\"\n");
}

TEST_F(SettingsFile, refusesWhatIsNoFormat) {
  writeFile(path, "a=\"1\"\n");
  for (const char *format :
       {"", "\n", "%s\n", "%s=\"%s\"", "%s=%s=%s\n", "%s=%d\n", "%s=%5s\n", "%n%s=%s\n",
        "%s=%s%\n", "%s=%1$s\n", "%s=\"%s\"\n\n", "%s\n%s\n", "%", "%s=\"%s\"\n%"}) {
    EXPECT_LT(set("a", "2", format), 0) << format;
    EXPECT_EQ(KLIBCErrGet(), KLIBC_ERR_BAD_PARAMETERS);
  }
  EXPECT_EQ(readFile(path), "a=\"1\"\n");
}

// ---- the file itself

TEST_F(SettingsFile, isCreatedWithMode0644WhateverTheUmask) {
  const mode_t before = umask(077);
  EXPECT_EQ(set("a", "1"), 0);
  umask(0);
  EXPECT_EQ(KLIBCFileSetKeyValue((folder / "second").c_str(), "a", "1", nullptr), 0);
  umask(before);
  EXPECT_EQ(readFile(path), "a=\"1\"\n");
  EXPECT_EQ(modeOf(path), 0644u);
  EXPECT_EQ(modeOf(folder / "second"), 0644u);
}

TEST_F(SettingsFile, keepsItsMode) {
  for (const mode_t mode : {0600u, 0640u, 0664u, 0400u, 0755u}) {
    writeFile(path, "a=\"1\"\n", mode);
    EXPECT_EQ(set("a", "2"), 0);
    EXPECT_EQ(modeOf(path), mode);
    EXPECT_EQ(chmod(path.c_str(), 0600), 0);
  }
}

TEST_F(SettingsFile, keepsItsOwnerAndGroup) {
  writeFile(path, "a=\"1\"\n");
  const bool root = geteuid() == 0;
  const uid_t user = root ? 1234 : geteuid();
  const gid_t group = root ? 4321 : getegid();
  ASSERT_EQ(chown(path.c_str(), user, group), 0);
  ASSERT_EQ(chmod(path.c_str(), 0646), 0);
  ASSERT_EQ(set("a", "2"), 0);
  struct stat st;
  ASSERT_EQ(stat(path.c_str(), &st), 0);
  EXPECT_EQ(st.st_uid, user);
  EXPECT_EQ(st.st_gid, group);
  EXPECT_EQ(st.st_mode & 07777, 0646u);
  EXPECT_EQ(readFile(path), "a=\"2\"\n");
}

TEST_F(SettingsFile, isReachedThroughASymbolicLinkThatStays) {
  ASSERT_EQ(mkdir((folder / "real").c_str(), 0755), 0);
  writeFile(folder / "real/file", "a=\"1\"\n", 0600);
  ASSERT_EQ(symlink("real/file", path.c_str()), 0);
  EXPECT_EQ(set("a", "2"), 0);
  struct stat st;
  ASSERT_EQ(lstat(path.c_str(), &st), 0);
  EXPECT_TRUE(S_ISLNK(st.st_mode));
  EXPECT_EQ(readFile(folder / "real/file"), "a=\"2\"\n");
  EXPECT_EQ(modeOf(folder / "real/file"), 0600u);
}

TEST_F(SettingsFile, isCreatedThroughALinkWhoseTargetIsMissing) {
  ASSERT_EQ(mkdir((folder / "real").c_str(), 0755), 0);
  ASSERT_EQ(symlink("second", path.c_str()), 0);
  ASSERT_EQ(symlink((folder / "real/file").c_str(), (folder / "second").c_str()), 0);
  EXPECT_EQ(set("a", "1"), 0);
  EXPECT_EQ(readFile(folder / "real/file"), "a=\"1\"\n");
  struct stat st;
  ASSERT_EQ(lstat(path.c_str(), &st), 0);
  EXPECT_TRUE(S_ISLNK(st.st_mode));
}

TEST_F(SettingsFile, linkThatGoesInCirclesIsNegative) {
  ASSERT_EQ(symlink("postwell.conf", path.c_str()), 0);
  EXPECT_LT(set("a", "1"), 0);
  EXPECT_EQ(KLIBCErrGet(), KLIBC_ERR_OPEN_FAILED);
}

TEST_F(SettingsFile, isFoundRelativeToTheWorkingFolder) {
  char before[PATH_MAX];
  ASSERT_NE(getcwd(before, sizeof before), nullptr);
  ASSERT_EQ(chdir(folder.path().c_str()), 0);
  EXPECT_EQ(KLIBCFileSetKeyValue("postwell.conf", "a", "1", nullptr), 0);
  EXPECT_EQ(KLIBCFileSetKeyValue("./postwell.conf", "b", "2", nullptr), 0);
  ASSERT_EQ(chdir(before), 0);
  EXPECT_EQ(readFile(path), "a=\"1\"\nb=\"2\"\n");
}

TEST_F(SettingsFile, leavesNothingBesideItButTheLock) {
  EXPECT_EQ(set("a", "1"), 0);
  EXPECT_EQ(set("a", "2"), 0);
  EXPECT_EQ(folder.names(), std::vector<std::string>{"postwell.conf"});
  EXPECT_EQ(modeOf(path + ".lock"), 0600u);
}

TEST_F(SettingsFile, overwritesWhatAKilledProcessLeft) {
  writeFile(path, "a=\"1\"\n", 0600);
  writeFile(path + ".new", "half a line and then some more than fits", 0666);
  EXPECT_EQ(set("a", "2"), 0);
  EXPECT_EQ(readFile(path), "a=\"2\"\n");
  EXPECT_EQ(modeOf(path), 0600u);
  EXPECT_EQ(folder.names(), std::vector<std::string>{"postwell.conf"});
}

TEST_F(SettingsFile, neverWritesThroughALinkPlantedBesideIt) {
  writeFile(path, "a=\"1\"\n");
  writeFile(folder / "victim", "precious\n");
  ASSERT_EQ(symlink("victim", (path + ".new").c_str()), 0);
  EXPECT_EQ(set("a", "2"), 0);
  EXPECT_EQ(readFile(folder / "victim"), "precious\n");
  ASSERT_EQ(unlink((path + ".lock").c_str()), 0);
  ASSERT_EQ(symlink("victim", (path + ".lock").c_str()), 0);
  EXPECT_LT(set("a", "3"), 0);
  EXPECT_EQ(readFile(folder / "victim"), "precious\n");
  EXPECT_EQ(readFile(path), "a=\"2\"\n");
}

TEST_F(SettingsFile, readOnlyFolderIsNegativeAndChangesNothing) {
  writeFile(path, "a=\"1\"\n");
  ASSERT_EQ(chmod(folder.path().c_str(), 0555), 0);
  EXPECT_LT(set("a", "2"), 0);
  EXPECT_EQ(KLIBCErrGet(), KLIBC_ERR_OPEN_FAILED);
  EXPECT_EQ(readFile(path), "a=\"1\"\n");
  ASSERT_EQ(chmod(folder.path().c_str(), 0755), 0);
  ASSERT_EQ(set("a", "3"), 0);  // the lock file is there from now on
  ASSERT_EQ(chmod(folder.path().c_str(), 0555), 0);
  EXPECT_LT(set("a", "4"), 0);
  EXPECT_EQ(readFile(path), "a=\"3\"\n");
}

// A new file would be the writer's own; only root may give one away.
TEST_F(SettingsFile, fileOfAnotherIsNotReplaced) {
  std::string theirs = path;
  if (geteuid() == 0) {
    writeFile(path, "a=\"1\"\n", 0666);
    ASSERT_EQ(chmod(folder.path().c_str(), 0777), 0);
  } else {
    theirs = "/etc/passwd";
    ASSERT_EQ(symlink("/etc/passwd", path.c_str()), 0);
  }
  const std::string before = readFile(theirs);
  const pid_t child = startChild([&] {
    if (geteuid() == 0 && (setgid(1234) != 0 || setuid(1234) != 0)) return 1;
    return set("a", "2") < 0 ? 0 : 2;
  });
  EXPECT_EQ(endOf(child), 0);
  EXPECT_EQ(readFile(theirs), before);
  EXPECT_EQ(folder.names(), std::vector<std::string>{"postwell.conf"});
}

TEST_F(SettingsFile, unreadableFileIsNotReplaced) {
  writeFile(path, "a=\"1\"\n", 0000);
  EXPECT_LT(set("a", "2"), 0);
  ASSERT_EQ(chmod(path.c_str(), 0600), 0);
  EXPECT_EQ(readFile(path), "a=\"1\"\n");
}

TEST_F(SettingsFile, missingFolderIsNegative) {
  EXPECT_LT(KLIBCFileSetKeyValue((folder / "no/file").c_str(), "a", "1", nullptr), 0);
  EXPECT_EQ(KLIBCErrGet(), KLIBC_ERR_OPEN_FAILED);
}

TEST_F(SettingsFile, folderInItsPlaceIsNegative) {
  ASSERT_EQ(mkdir(path.c_str(), 0755), 0);
  EXPECT_LT(set("a", "1"), 0);
  EXPECT_EQ(folder.names(), std::vector<std::string>{"postwell.conf"});
}

TEST_F(SettingsFile, limitOnTheFileSizeIsNegativeAndLeavesTheOldFile) {
  writeFile(path, "a=\"1\"\n");
  rlimit before;
  ASSERT_EQ(getrlimit(RLIMIT_FSIZE, &before), 0);
  const rlimit small = {1000, before.rlim_max};
  const auto handler = signal(SIGXFSZ, SIG_IGN);
  ASSERT_EQ(setrlimit(RLIMIT_FSIZE, &small), 0);
  const int result = set("a", std::string(5000, 'x'));
  const int error = KLIBCErrGet();
  ASSERT_EQ(setrlimit(RLIMIT_FSIZE, &before), 0);
  signal(SIGXFSZ, handler);
  EXPECT_LT(result, 0);
  EXPECT_EQ(error, KLIBC_ERR_WRITE_FAILED);
  EXPECT_EQ(readFile(path), "a=\"1\"\n");
  EXPECT_EQ(folder.names(), std::vector<std::string>{"postwell.conf"});
}

}  // namespace
