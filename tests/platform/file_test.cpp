// Existence, the first line with a text, and pid files.

#include <gtest/gtest.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <unistd.h>

#include <csignal>
#include <string>

#include "kestcore.h"
#include "support/files.h"
#include "temp_folder.h"

namespace {

class Files : public testing::Test {
 protected:
  // The line found with the result behind it.
  std::string lineWith(const char *text, int size = 1024) {
    char buffer[1024] = "unchanged";
    const int result = KLIBCFileGetLine(path.c_str(), text, buffer, size, 0);
    return std::string(buffer) + ":" + std::to_string(result);
  }

  pid_t pidOf(const std::string &text) {
    writeFile(path, text);
    return KLIBCReadPidFile(path.c_str());
  }

  TempFolder folder;
  std::string path = folder / "file";
};

TEST_F(Files, existWhenAccessFindsThem) {
  EXPECT_EQ(KLIBCFileExist(path.c_str()), 0);
  writeFile(path, "", 0000);
  EXPECT_EQ(KLIBCFileExist(path.c_str()), 1);
  EXPECT_EQ(KLIBCFileExist(folder.path().c_str()), 1);
  ASSERT_EQ(symlink("missing", (folder / "link").c_str()), 0);
  EXPECT_EQ(KLIBCFileExist((folder / "link").c_str()), 0);
  EXPECT_EQ(KLIBCFileExist(nullptr), 0);
}

TEST_F(Files, giveTheFirstLineThatHoldsAText) {
  writeFile(path, "\\anna\n\"|/bin/vacation anna\"\n/bin/vacation again");
  EXPECT_EQ(lineWith("/bin/vacation"), "\"|/bin/vacation anna\":21");
  EXPECT_EQ(lineWith("again"), "/bin/vacation again:19");
  EXPECT_EQ(lineWith("\\"), "\\anna:5");
  EXPECT_EQ(lineWith("bob"), ":0");
  EXPECT_EQ(lineWith("anna\n"), ":0");
}

TEST_F(Files, cutTheLineToFitTheBuffer) {
  writeFile(path, std::string(5000, 'x') + "needle\n");
  EXPECT_EQ(lineWith("needle", 4), "xxx:3");
  EXPECT_EQ(lineWith("needle", 2), "x:1");
  EXPECT_EQ(lineWith("needle"), std::string(1023, 'x') + ":1023");
}

TEST_F(Files, lineOfAnUnreadableFileOrForBadParametersIsNegative) {
  EXPECT_EQ(lineWith("x"), ":-1");
  EXPECT_EQ(KLIBCErrGet(), KLIBC_ERR_OPEN_FAILED);
  writeFile(path, "x\n");
  EXPECT_EQ(lineWith(""), ":-1");
  EXPECT_EQ(lineWith(nullptr), ":-1");
  EXPECT_EQ(lineWith("x", 1), ":-1");
  EXPECT_EQ(lineWith("x", 0), "unchanged:-1");
  EXPECT_EQ(KLIBCErrGet(), KLIBC_ERR_BAD_PARAMETERS);
  EXPECT_LT(KLIBCFileGetLine(path.c_str(), "x", nullptr, 10, 0), 0);
  char buffer[8];
  EXPECT_LT(KLIBCFileGetLine(nullptr, "x", buffer, 8, 0), 0);
}

TEST_F(Files, pidIsTheNumberInTheFirstLine) {
  EXPECT_EQ(pidOf("1234\n"), 1234);
  EXPECT_EQ(pidOf("1234"), 1234);
  EXPECT_EQ(pidOf("  1234 \r\nrest"), 1234);
  EXPECT_EQ(pidOf("2147483647\n"), 2147483647);
}

TEST_F(Files, pidIsZeroWhenThereIsNone) {
  EXPECT_EQ(KLIBCReadPidFile(path.c_str()), 0);
  EXPECT_EQ(KLIBCReadPidFile(nullptr), 0);
  for (const char *text :
       {"", "\n", "\n1234\n", "0\n", "-5\n", "+5\n", "12ab\n", "12 34\n", "0x10\n",
        "2147483648\n", "99999999999999999999\n", "pid\n"})
    EXPECT_EQ(pidOf(text), 0) << text;
  ASSERT_EQ(chmod(path.c_str(), 0000), 0);
  EXPECT_EQ(KLIBCReadPidFile(path.c_str()), 0);
}

TEST_F(Files, pidFileHoldsThisProcessAndANewline) {
  const mode_t before = umask(077);
  EXPECT_EQ(KLIBCProcPidFileCreate(path.c_str()), 0);
  umask(before);
  EXPECT_EQ(readFile(path), std::to_string(getpid()) + "\n");
  EXPECT_EQ(KLIBCReadPidFile(path.c_str()), getpid());
  struct stat st;
  ASSERT_EQ(stat(path.c_str(), &st), 0);
  EXPECT_EQ(st.st_mode & 07777, 0644u);
}

TEST_F(Files, pidFileReplacesWhatWasThere) {
  writeFile(path, "99999999\nmore\n", 0600);
  EXPECT_EQ(KLIBCProcPidFileCreate(path.c_str()), 0);
  EXPECT_EQ(readFile(path), std::to_string(getpid()) + "\n");
}

TEST_F(Files, pidFileThatCannotBeWrittenIsNegativeAndHoldsNoHalfNumber) {
  EXPECT_LT(KLIBCProcPidFileCreate(nullptr), 0);
  EXPECT_LT(KLIBCProcPidFileCreate((folder / "no/file").c_str()), 0);
  EXPECT_EQ(KLIBCErrGet(), KLIBC_ERR_OPEN_FAILED);
  rlimit before;
  ASSERT_EQ(getrlimit(RLIMIT_FSIZE, &before), 0);
  const rlimit one = {1, before.rlim_max};
  const auto handler = signal(SIGXFSZ, SIG_IGN);
  ASSERT_EQ(setrlimit(RLIMIT_FSIZE, &one), 0);
  const int result = KLIBCProcPidFileCreate(path.c_str());
  ASSERT_EQ(setrlimit(RLIMIT_FSIZE, &before), 0);
  signal(SIGXFSZ, handler);
  EXPECT_LT(result, 0);
  EXPECT_EQ(KLIBCErrGet(), KLIBC_ERR_WRITE_FAILED);
  EXPECT_EQ(KLIBCReadPidFile(path.c_str()), 0);
}

}  // namespace
