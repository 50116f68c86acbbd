// SQLite's file system calls the operating system through a table of its own, made to be
// replaced; only syncing and sleeping are called directly, so the dynamic linker binds
// them to this file. A wait for a lock that is never granted takes no time here.

#include "support/file_faults.h"

#include <dlfcn.h>
#include <fcntl.h>
#include <sqlite3.h>
#include <unistd.h>

#include <cerrno>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>

namespace file_faults {

namespace {

Fault plan{};
long counted = 0, failing = 0;  // failing 0: none
bool failed = false;

// Counts one operation; true, with errno set, when it has to fail.
bool fails(Operation operation) {
  if (failing == 0 || (plan.operations & operation) == 0) return false;
  ++counted;
  if (counted < failing || (counted > failing && !plan.all)) return false;
  failed = true;
  errno = plan.error;
  return true;
}

int openFile(const char *path, int flags, mode_t mode) {
  return fails(kOpen) ? -1 : open(path, flags, mode);
}

ssize_t readFile(int fd, void *buffer, size_t size, off64_t offset) {
  return fails(kRead) ? -1 : pread64(fd, buffer, size, offset);
}

ssize_t writeFile(int fd, const void *buffer, size_t size, off64_t offset) {
  // a single byte makes room for shared memory, which would be missed by a signal
  const bool isRoom = plan.lie && size == 1;
  if (isRoom || !fails(kWrite)) return pwrite64(fd, buffer, size, offset);
  return plan.lie ? static_cast<ssize_t>(size) : -1;
}

int truncateFile(int fd, off64_t size) {
  return fails(kTruncate) ? -1 : ftruncate64(fd, size);
}

int removeFile(const char *path) { return fails(kRemove) ? -1 : unlink(path); }

int lockFile(int fd, int command, ...) {
  va_list arguments;
  va_start(arguments, command);
  void *const argument = va_arg(arguments, void *);
  va_end(arguments);
  const bool takes = command == F_SETLK &&
                     static_cast<const struct flock *>(argument)->l_type != F_UNLCK;
  return takes && fails(kLock) ? -1 : fcntl(fd, command, argument);
}

template <typename Function>
void replace(const char *name, Function *function) {
  sqlite3_vfs *const files = sqlite3_vfs_find(nullptr);
  if (files->xSetSystemCall(
          files, name, reinterpret_cast<sqlite3_syscall_ptr>(function)) != SQLITE_OK) {
    fprintf(stderr, "SQLite knows no system call %s\n", name);
    abort();
  }
}

__attribute__((constructor)) void install() {
  sqlite3_initialize();
  replace("open", openFile);
  replace("pread64", readFile);
  replace("pwrite64", writeFile);
  replace("ftruncate", truncateFile);
  replace("unlink", removeFile);
  replace("fcntl", lockFile);
}

}  // namespace

void fail(const Fault &fault, long nth) {
  plan = fault;
  counted = 0;
  failing = nth;
  failed = false;
}

bool stopFailing() {
  failing = 0;
  return failed;
}

}  // namespace file_faults

extern "C" __attribute__((visibility("default"))) int fdatasync(int fd) {
  if (file_faults::fails(file_faults::kSync)) return -1;
  return reinterpret_cast<int (*)(int)>(dlsym(RTLD_NEXT, "fdatasync"))(fd);
}

extern "C" __attribute__((visibility("default"))) int usleep(useconds_t /*time*/) {
  return 0;
}
