// Makes the program that links it fail to make its mail log, once, with the code of a
// generic error: what a collector takes for damage, and repairs by removing the file.

#include <dlfcn.h>
#include <sqlite3.h>

#include <cstring>
#include <utility>

extern "C" __attribute__((visibility("default"))) int sqlite3_exec(
    sqlite3 *db, const char *text, int (*callback)(void *, int, char **, char **),
    void *argument, char **message) {
  static bool failed = false;
  const char beginning[] = "BEGIN TRANSACTION;create table mail_log_table";
  if (strncmp(text, beginning, strlen(beginning)) == 0 && !std::exchange(failed, true))
    return SQLITE_ERROR;
  const auto real =
      reinterpret_cast<decltype(&sqlite3_exec)>(dlsym(RTLD_NEXT, "sqlite3_exec"));
  return real(db, text, callback, argument, message);
}
