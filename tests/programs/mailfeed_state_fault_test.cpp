// Replacing a file while the disk fails: the old one stays, nothing is left beside it,
// and what is to survive a power failure is on the disk before it takes the old one's
// place.
//
// The functions at the top stand in the place of the C library's.

#include <dlfcn.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <filesystem>
#include <utility>
#include <vector>

#include "state_file.h"
#include "support/files.h"

namespace {

std::string failing;             // the function that fails, once
std::vector<std::string> calls;  // of the functions below, in order
bool noting = false;
off_t synced = -1;  // so many bytes

// True, with errno set, when it is this function's turn to fail.
bool fails(const char *function) {
  if (!noting) return false;
  calls.emplace_back(function);
  if (failing != function) return false;
  errno = EIO;
  return true;
}

template <typename Function>
Function *real(Function * /*declared*/, const char *name) {
  return reinterpret_cast<Function *>(dlsym(RTLD_NEXT, name));
}

}  // namespace

#define REPLACED extern "C" __attribute__((visibility("default")))

REPLACED int fsync(int fd) {
  if (fails("fsync")) return -1;
  struct stat status;
  if (noting && fstat(fd, &status) == 0) synced = status.st_size;
  return real(&fsync, "fsync")(fd);
}

// The file is closed in any case. Where that succeeds, errno may be anything.
REPLACED int fclose(std::FILE *file) {
  const bool failed = fails("fclose");
  const int result = real(&fclose, "fclose")(file);
  if (noting) errno = failed ? EIO : 0;
  return failed ? EOF : result;
}

REPLACED int rename(const char *from, const char *to) noexcept {
  return fails("rename") ? -1 : real(&rename, "rename")(from, to);
}

namespace {

namespace fs = std::filesystem;

const std::string kFolder = "/tmp/state-folder";
const std::string kState = kFolder + "/state";

class StateFault : public testing::Test {
 protected:
  StateFault() {
    fs::remove_all(kFolder);
    fs::create_directories(kFolder);
    writeFile(kState, "old");
    failing.clear();
    calls.clear();
  }
  ~StateFault() override { fs::remove_all(kFolder); }

  // What replaceFile() answers.
  static std::string replace(bool sync) {
    noting = true;
    const std::string failure = replaceFile(kState, "new", 0600, sync);
    noting = false;
    return failure;
  }

  static void expectTheOldOneAlone() {
    EXPECT_EQ(readFile(kState), "old");
    EXPECT_EQ(std::distance(fs::directory_iterator(kFolder), {}), 1);
  }
};

using Calls = std::vector<std::string>;

TEST_F(StateFault, ASyncedFileIsOnTheDiskBeforeItTakesThePlace) {
  EXPECT_EQ(replace(true), "");
  EXPECT_EQ(calls, (Calls{"fsync", "fclose", "rename"}));
  EXPECT_EQ(synced, 3) << "all of it";
  EXPECT_EQ(readFile(kState), "new");
}

TEST_F(StateFault, WithoutSyncNobodyWaitsForTheDisk) {
  EXPECT_EQ(replace(false), "");
  EXPECT_EQ(calls, (Calls{"fclose", "rename"}));
}

TEST_F(StateFault, AFileThatCannotBeSyncedOrClosedLeavesTheOldOneAlone) {
  for (const char *function : {"fsync", "fclose"}) {
    failing = function;
    EXPECT_EQ(replace(true), "cannot write " + kState + ".new: Input/output error");
    expectTheOldOneAlone();
  }
}

TEST_F(StateFault, AFullDiskLeavesTheOldOneAlone) {
  ASSERT_EQ(symlink("/dev/full", (kState + ".new").c_str()), 0);
  EXPECT_EQ(replace(true), "cannot write " + kState + ".new: No space left on device");
  EXPECT_EQ(calls, Calls{"fclose"});
  expectTheOldOneAlone();
}

TEST_F(StateFault, WhatCannotBeReadIsNotTakenForAnEmptyOne) {
  std::string text;
  EXPECT_FALSE(readWhole(kFolder, &text));
  EXPECT_EQ(errno, EISDIR);
}

TEST_F(StateFault, ALongerOneThatWasLeftIsOverwrittenWhole) {
  writeFile(kState + ".new", "of a run that was killed");
  EXPECT_EQ(replace(true), "");
  EXPECT_EQ(readFile(kState), "new");
}

}  // namespace
