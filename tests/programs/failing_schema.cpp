// Makes the program that links it fail to make its mail log, once, with the code of a
// generic error: what a collector takes for damage, and repairs by removing the file.
// And lets it pause when it has closed a pipe, so that whoever reads that has the time to
// act on it first.

#include <dlfcn.h>
#include <poll.h>
#include <sqlite3.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstring>
#include <utility>

#define REPLACED extern "C" __attribute__((visibility("default")))

REPLACED int close(int fd) {
  struct stat st;
  const bool isPipe = fstat(fd, &st) == 0 && S_ISFIFO(st.st_mode);
  const int result = reinterpret_cast<decltype(&close)>(dlsym(RTLD_NEXT, "close"))(fd);
  if (isPipe) poll(nullptr, 0, 100);
  return result;
}

REPLACED int sqlite3_exec(sqlite3 *db, const char *text,
                          int (*callback)(void *, int, char **, char **), void *argument,
                          char **message) {
  static bool failed = false;
  const char beginning[] = "BEGIN TRANSACTION;create table mail_log_table";
  if (strncmp(text, beginning, strlen(beginning)) == 0 && !std::exchange(failed, true))
    return SQLITE_ERROR;
  const auto real =
      reinterpret_cast<decltype(&sqlite3_exec)>(dlsym(RTLD_NEXT, "sqlite3_exec"));
  return real(db, text, callback, argument, message);
}
