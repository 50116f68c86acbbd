#include "support/sql_recorder.h"

#include <dlfcn.h>
#include <sqlite3.h>

#include <utility>

namespace {

std::vector<std::string> statements;
bool inExec = false;  // which prepares its statements by the other function

template <typename Function>
Function *real(Function * /*declared*/, const char *name) {
  return reinterpret_cast<Function *>(dlsym(RTLD_NEXT, name));
}

}  // namespace

std::vector<std::string> sql::takeStatements() { return std::exchange(statements, {}); }

#define REPLACED extern "C" __attribute__((visibility("default")))

REPLACED int sqlite3_exec(sqlite3 *db, const char *text,
                          int (*callback)(void *, int, char **, char **), void *argument,
                          char **message) {
  statements.emplace_back(text);
  inExec = true;
  const int code =
      real(&sqlite3_exec, "sqlite3_exec")(db, text, callback, argument, message);
  inExec = false;
  return code;
}

REPLACED int sqlite3_prepare_v2(sqlite3 *db, const char *text, int size,
                                sqlite3_stmt **statement, const char **rest) {
  if (!inExec) statements.emplace_back(text);
  return real(&sqlite3_prepare_v2, "sqlite3_prepare_v2")(db, text, size, statement, rest);
}
