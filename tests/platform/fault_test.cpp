// Each system call and each allocation of the portable library failing in turn, and
// the process dying at each of the calls.
//
// The functions below stand before the C library's in the search order, so the
// library under test calls them. Each asks the switch whether it is its turn.

#include <dlfcn.h>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <csignal>
#include <cstdarg>
#include <cstdlib>
#include <new>
#include <string>
#include <vector>

#include "children.h"
#include "kestcore.h"
#include "support/files.h"
#include "temp_folder.h"

// ---- the switch

namespace {

enum class Mode { kOff, kFail, kDie, kShort };

struct Switch {
  Mode mode = Mode::kOff;
  int countdown = 0;  // the call at which it reaches zero is the one
  int error = 0;
  const char *hit = nullptr;  // the function that was hit
  int allocations = -1;       // allocations that still succeed; negative: all
  bool foreignOwner = false;  // files seem to belong to someone else
} theSwitch;

// True when this call is to fail; does not return when the process is to die.
bool failsNow(const char *function) {
  if (theSwitch.mode != Mode::kFail && theSwitch.mode != Mode::kDie) return false;
  if (--theSwitch.countdown != 0) return false;
  theSwitch.hit = function;
  if (theSwitch.mode == Mode::kDie) kill(getpid(), SIGKILL);
  errno = theSwitch.error;
  return true;
}

template <typename Function>
Function *real(const char *name) {
  return reinterpret_cast<Function *>(dlsym(RTLD_NEXT, name));
}

bool allocationFails() {
  if (theSwitch.allocations < 0) return false;
  if (theSwitch.allocations == 0) return true;
  --theSwitch.allocations;
  return false;
}

}  // namespace

// With 64-bit offsets the headers rename open() and fstat(), here as in the library.
#if defined(_FILE_OFFSET_BITS) && _FILE_OFFSET_BITS == 64
#define REAL(name) #name "64"
#else
#define REAL(name) #name
#endif
#define INTERPOSED extern "C" __attribute__((visibility("default")))

INTERPOSED int open(const char *path, int flags, ...) {
  va_list arguments;
  va_start(arguments, flags);
  const mode_t mode = (flags & O_CREAT) != 0 ? va_arg(arguments, mode_t) : 0;
  va_end(arguments);
  if (failsNow("open")) return -1;
  return real<int(const char *, int, ...)>(REAL(open))(path, flags, mode);
}

INTERPOSED int fstat(int fd, struct stat *st) noexcept {
  if (failsNow("fstat")) return -1;
  const int result = real<int(int, struct stat *)>(REAL(fstat))(fd, st);
  if (theSwitch.foreignOwner) ++st->st_uid;
  return result;
}

INTERPOSED int flock(int fd, int operation) noexcept {
  if (failsNow("flock")) return -1;
  return real<int(int, int)>("flock")(fd, operation);
}

INTERPOSED int fchown(int fd, uid_t owner, gid_t group) noexcept {
  if (failsNow("fchown")) return -1;
  return real<int(int, uid_t, gid_t)>("fchown")(fd, owner, group);
}

INTERPOSED int fchmod(int fd, mode_t mode) noexcept {
  if (failsNow("fchmod")) return -1;
  return real<int(int, mode_t)>("fchmod")(fd, mode);
}

INTERPOSED ssize_t read(int fd, void *buffer, size_t size) {
  if (failsNow("read")) return -1;
  if (theSwitch.mode == Mode::kShort) size = std::min<size_t>(size, 7);
  return real<ssize_t(int, void *, size_t)>("read")(fd, buffer, size);
}

INTERPOSED ssize_t write(int fd, const void *buffer, size_t size) {
  if (failsNow("write")) return -1;
  if (theSwitch.mode == Mode::kShort) size = std::min<size_t>(size, 5);
  return real<ssize_t(int, const void *, size_t)>("write")(fd, buffer, size);
}

INTERPOSED int fsync(int fd) {
  if (failsNow("fsync")) return -1;
  return real<int(int)>("fsync")(fd);
}

INTERPOSED int close(int fd) {
  const bool fails = failsNow("close");
  const int error = errno;
  const int result = real<int(int)>("close")(fd);  // the kernel closes in any case
  if (!fails) return result;
  errno = error;
  return -1;
}

INTERPOSED int rename(const char *from, const char *to) noexcept {
  if (failsNow("rename")) return -1;
  return real<int(const char *, const char *)>("rename")(from, to);
}

INTERPOSED int unlink(const char *path) noexcept {
  if (failsNow("unlink")) return -1;
  return real<int(const char *)>("unlink")(path);
}

INTERPOSED int link(const char *from, const char *to) noexcept {
  if (failsNow("link")) return -1;
  return real<int(const char *, const char *)>("link")(from, to);
}

// Not to be inlined: the compiler would see free() meet what "new" returned.
#define NOT_INLINE __attribute__((noinline))

NOT_INLINE void *operator new(size_t size) {
  void *memory = allocationFails() ? nullptr : malloc(size);
  if (memory == nullptr) throw std::bad_alloc();
  return memory;
}
NOT_INLINE void operator delete(void *memory) noexcept { free(memory); }
NOT_INLINE void operator delete(void *memory, size_t) noexcept { free(memory); }

// ---- the tests

namespace {

const char kOld[] = "# comment\na=\"old\"\n";
const char kNew[] = "# comment\na=\"new\"\n";

class Fault : public testing::Test {
 protected:
  void SetUp() override {
    unlink(path.c_str());
    writeFile(path, kOld);
    // With a foreign owner the change of ownership is one of root's steps.
    if (geteuid() == 0) {
      ASSERT_EQ(chown(path.c_str(), 1234, 4321), 0);
    }
  }

  int save() { return KLIBCFileSetKeyValue(path.c_str(), "a", "new", nullptr); }

  // Saves with the given call failing. Returns save()'s result; *hit is the function
  // that failed, empty when there are fewer calls.
  int saveFailing(int call, int error, std::string *hit) {
    theSwitch = {Mode::kFail, call, error, nullptr, -1, false};
    const int result = save();
    *hit = theSwitch.hit == nullptr ? "" : theSwitch.hit;
    theSwitch = {};
    return result;
  }

  TempFolder folder;
  std::string path = folder / "postwell.conf";
};

// The failing steps in order. Closing files that were only read (and the lock) is no
// step; a failed sync of the folder comes after the rename and is the one that
// leaves the new file.
TEST_F(Fault, everyFailingCallLeavesTheOldFile) {
  for (const int error : {EIO, ENOSPC, EACCES}) {
    std::vector<std::string> steps;
    bool done = false;
    for (int call = 1; !done; ++call) {
      std::string hit;
      const int result = saveFailing(call, error, &hit);
      done = hit.empty();
      const std::string content = readFile(path);
      if (result < 0) {
        steps.push_back(hit);
        const bool isFolderSync = hit == "fsync" && steps[steps.size() - 2] == "rename";
        EXPECT_EQ(content, isFolderSync ? kNew : kOld) << hit;
        EXPECT_NE(KLIBCErrGet(), KLIBC_ERR_NONE);
      } else {
        EXPECT_TRUE(hit == "close" || done) << hit;
        EXPECT_EQ(content, kNew);
      }
      EXPECT_EQ(folder.names(), std::vector<std::string>{"postwell.conf"}) << hit;
      SetUp();
    }
    std::vector<std::string> expected = {"open",   "flock",  "open",   "fstat", "read",
                                         "read",   "open",   "unlink", "open",  "fstat",
                                         "fchown", "fchmod", "write",  "fsync", "close",
                                         "rename", "fsync"};
    if (geteuid() != 0) expected.erase(expected.begin() + 10);
    EXPECT_EQ(steps, expected);
  }
}

TEST_F(Fault, deathAtEveryCallLeavesTheOldFileOrTheNewOneAndNoLock) {
  int deaths = 0;
  for (int call = 1;; ++call) {
    const pid_t child = startChild([&] {
      theSwitch = {Mode::kDie, call, 0, nullptr, -1, false};
      return save();
    });
    const int status = endOf(child);
    if (WIFEXITED(status)) {
      EXPECT_EQ(WEXITSTATUS(status), 0);
      break;
    }
    ++deaths;
    const std::string content = readFile(path);
    EXPECT_TRUE(content == kOld || content == kNew) << "call " << call << ": " << content;
    ASSERT_EQ(save(), 0) << "call " << call;
    EXPECT_EQ(readFile(path), kNew);
    EXPECT_EQ(folder.names(), std::vector<std::string>{"postwell.conf"});
    SetUp();
  }
  EXPECT_GE(deaths, 16);
}

TEST_F(Fault, shortReadsAndWritesAreCarriedOn) {
  theSwitch.mode = Mode::kShort;
  const int result = save();
  theSwitch = {};
  EXPECT_EQ(result, 0);
  EXPECT_EQ(readFile(path), kNew);
}

TEST_F(Fault, interruptedWaitForTheLockReadAndWriteAreRepeated) {
  std::vector<std::string> repeated;
  for (int call = 1; call < 30; ++call) {
    std::string hit;
    const int result = saveFailing(call, EINTR, &hit);
    if (hit == "flock" || hit == "read" || hit == "write") {
      EXPECT_EQ(result, 0) << hit;
      EXPECT_EQ(readFile(path), kNew);
      repeated.push_back(hit);
    }
    SetUp();
  }
  EXPECT_EQ(repeated, (std::vector<std::string>{"flock", "read", "read", "write"}));
}

TEST_F(Fault, keyFileIsWholeOrAbsentWhateverFails) {
  const char key[] = "/usr/kest/etc/secret.key";
  char text[345], plain[345];
  std::vector<std::string> failed;
  for (int call = 1;; ++call) {
    unlink(key);
    theSwitch = {Mode::kFail, call, EIO, nullptr, -1, false};
    const int result = KLIBCryptSzEncrypt("secret", text, sizeof text);
    const std::string hit = theSwitch.hit == nullptr ? "" : theSwitch.hit;
    theSwitch = {};
    if (hit.empty()) {
      EXPECT_EQ(result, 1);
      break;
    }
    if (result == 0) {
      failed.push_back(hit);
      EXPECT_STREQ(text, "") << hit;
    }
    // Whatever was left behind, the next use works.
    ASSERT_EQ(KLIBCryptSzEncrypt("secret", text, sizeof text), 1) << hit;
    ASSERT_EQ(KLIBCryptSzDecrypt(text, plain, sizeof plain), 1) << hit;
    EXPECT_STREQ(plain, "secret");
    EXPECT_EQ(readFile(key).size(), 32u);
  }
  for (const char *step : {"open", "write", "fsync", "link", "fstat", "read"})
    EXPECT_NE(std::find(failed.begin(), failed.end(), step), failed.end()) << step;
}

// Root can read what is private to others, who know it as well.
TEST_F(Fault, keyOfAnotherOwnerIsRefusedAlthoughItCanBeRead) {
  char text[345], plain[345];
  ASSERT_EQ(KLIBCryptSzEncrypt("secret", text, sizeof text), 1);
  theSwitch.foreignOwner = true;
  const int decrypted = KLIBCryptSzDecrypt(text, plain, sizeof plain);
  const int encrypted = KLIBCryptSzEncrypt("secret", plain, sizeof plain);
  theSwitch = {};
  EXPECT_EQ(decrypted, 0);
  EXPECT_EQ(encrypted, 0);
  EXPECT_EQ(KLIBCErrGet(), KLIBC_ERR_CRYPT_FAILED);
  EXPECT_EQ(KLIBCryptSzDecrypt(text, plain, sizeof plain), 1);
}

// Runs the call with ever more allocations succeeding until it has enough; every
// failure before must be told as such. Returns how many there were.
template <typename Call, typename Failed>
int failEveryAllocation(Call call, Failed failed) {
  for (int allowed = 0;; ++allowed) {
    theSwitch.allocations = allowed;
    const auto result = call();
    const bool ranOut = theSwitch.allocations == 0;
    theSwitch.allocations = -1;
    const int error = KLIBCErrGet();
    if (!failed(result)) return allowed;
    EXPECT_EQ(error, KLIBC_ERR_OUT_OF_MEMORY);
    EXPECT_TRUE(ranOut);
    if (!ranOut) return -1;
  }
}

TEST_F(Fault, memoryRunningOutIsNegativeAndNothingIsThrown) {
  const auto negative = [](int result) { return result < 0; };
  const std::string longText(100, 'x');
  EXPECT_GT(failEveryAllocation([&] { return save(); },
                                [&](int result) {
                                  EXPECT_EQ(readFile(path), result < 0 ? kOld : kNew);
                                  return result < 0;
                                }),
            3);
  char buffer[200];
  EXPECT_GT(failEveryAllocation(
                [&] {
                  return KLIBCFileSetSectionValue(path.c_str(), "section", "key",
                                                  longText.c_str(), nullptr);
                },
                negative),
            3);
  EXPECT_GT(failEveryAllocation(
                [&] { return KLIBCFileGetKeyValue(path.c_str(), "a", buffer, 200, 0); },
                negative),
            0);
  EXPECT_GT(failEveryAllocation(
                [&] {
                  return KLIBCFileGetSectionValue(path.c_str(), "section", "key", buffer,
                                                  200);
                },
                negative),
            0);
  EXPECT_GT(
      failEveryAllocation(
          [&] { return KLIBCFileGetLine(path.c_str(), "a", buffer, 200, 0); }, negative),
      0);
}

TEST_F(Fault, memoryRunningOutLeavesTablesAndListsAsTheyWere) {
  const auto isNull = [](const void *made) { return made == nullptr; };
  const std::string longText(100, 'x');
  KLIBCSzHash *table = nullptr;
  EXPECT_GT(failEveryAllocation([&] { return table = KLIBCSzHashAlloc(1024); }, isNull),
            1);
  EXPECT_GT(
      failEveryAllocation(
          [&] { return KLIBCSzHashSetValue(&table, longText.c_str(), longText.c_str()); },
          [&](int result) {
            EXPECT_EQ(KLIBCSzHashGetValue(table, longText.c_str()) == nullptr,
                      result < 0);
            return result < 0;
          }),
      2);
  // Each of the failures would show as a line more.
  const std::string saved = folder / "saved";
  EXPECT_EQ(KLIBCFileSetKeys(saved.c_str(), table, 0, nullptr), 0);
  EXPECT_EQ(readFile(saved), longText + "=\"" + longText + "\"\n");
  KLIBCSzHashFree(table);

  KLIBCSzList *list = nullptr;
  EXPECT_GT(failEveryAllocation([&] { return list = KLIBCSzListAlloc(1); }, isNull), 1);
  ASSERT_EQ(KLIBCSzListPush(&list, "first"), 1);
  EXPECT_GT(failEveryAllocation([&] { return KLIBCSzListPush(&list, longText.c_str()); },
                                [&](int result) {
                                  EXPECT_EQ(KLIBCSzListGet(list, 1) == nullptr,
                                            result < 0);
                                  return result < 0;
                                }),
            1);
  EXPECT_STREQ(KLIBCSzListGet(list, 0), "first");
  KLIBCSzListFree(list);
}

}  // namespace
