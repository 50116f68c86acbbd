// A disk that fills up: run in a private root of a few megabytes.

#include <fcntl.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <cerrno>
#include <string>
#include <vector>

#include "kestcore.h"
#include "support/files.h"
#include "temp_folder.h"

namespace {

// Writes until nothing more fits, then frees about `pages` pages.
class Ballast {
 public:
  Ballast(const std::string &path, off_t pages) : path_(path) {
    const int fd = open(path.c_str(), O_WRONLY | O_CREAT | O_CLOEXEC, 0600);
    const std::string block(4096, 'b');
    off_t size = 0;
    ssize_t n;
    while ((n = write(fd, block.data(), block.size())) > 0) size += n;
    EXPECT_EQ(errno, ENOSPC);
    EXPECT_EQ(ftruncate(fd, size - pages * 4096), 0);
    close(fd);
  }
  Ballast(const Ballast &) = delete;
  Ballast &operator=(const Ballast &) = delete;
  ~Ballast() { unlink(path_.c_str()); }

 private:
  std::string path_;
};

TEST(DiskFull, leavesTheOldFileWhateverTheFreeSpace) {
  TempFolder folder;
  const std::string path = folder / "postwell.conf";
  const std::string oldText = "a=\"old\"\n", value(40000, 'n');
  writeFile(path, oldText);
  int refused = 0, done = 0;
  for (off_t pages = 0; pages <= 16; ++pages) {
    int result;
    {
      const Ballast ballast("/tmp/ballast", pages);
      result = KLIBCFileSetKeyValue(path.c_str(), "a", value.c_str(), nullptr);
    }
    if (result == 0) {
      ++done;
      EXPECT_EQ(readFile(path), "a=\"" + value + "\"\n");
      writeFile(path, oldText);
      continue;
    }
    ++refused;
    EXPECT_TRUE(KLIBCErrGet() == KLIBC_ERR_WRITE_FAILED ||
                KLIBCErrGet() == KLIBC_ERR_OPEN_FAILED);
    EXPECT_EQ(readFile(path), oldText);
    EXPECT_EQ(folder.names(), std::vector<std::string>{"postwell.conf"});
  }
  EXPECT_GE(refused, 8);  // 40,000 bytes need ten pages
  EXPECT_GE(done, 3);
}

TEST(DiskFull, keyIsNotMadeByHalves) {
  const char key[] = "/usr/kest/etc/secret.key";
  char text[345], plain[345];
  {
    const Ballast ballast("/tmp/ballast", 0);
    EXPECT_EQ(KLIBCryptSzEncrypt("secret", text, sizeof text), 0);
    EXPECT_STREQ(text, "");
  }
  EXPECT_FALSE(fileExists(key));
  ASSERT_EQ(KLIBCryptSzEncrypt("secret", text, sizeof text), 1);
  ASSERT_EQ(KLIBCryptSzDecrypt(text, plain, sizeof plain), 1);
  EXPECT_STREQ(plain, "secret");
}

TEST(DiskFull, pidFileHoldsNoHalfNumber) {
  const Ballast ballast("/tmp/ballast", 0);
  EXPECT_LT(KLIBCProcPidFileCreate("/var/run/maillogd.pid"), 0);
  EXPECT_EQ(KLIBCReadPidFile("/var/run/maillogd.pid"), 0);
}

}  // namespace
