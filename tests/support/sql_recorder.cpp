#include "support/sql_recorder.h"

#include <dlfcn.h>
#include <sqlite3.h>

#include <utility>

namespace {

std::vector<std::string> statements;
bool inSQLite = false;  // which runs statements of its own by the same functions

// What SQLite calls while `function` runs is its own affair.
template <typename Function, typename... Arguments>
int forward(Function * /*declared*/, const char *name, sqlite3 *db, const char *text,
            Arguments... arguments) {
  if (!inSQLite) statements.emplace_back(text);
  if (!inSQLite && sql::onStatement) sql::onStatement(text);
  const bool nested = std::exchange(inSQLite, true);
  const auto function = reinterpret_cast<Function *>(dlsym(RTLD_NEXT, name));
  const int code = function(db, text, arguments...);
  inSQLite = nested;
  return code;
}

}  // namespace

std::function<void(const std::string &)> sql::onStatement;

std::vector<std::string> sql::takeStatements() { return std::exchange(statements, {}); }

#define REPLACED extern "C" __attribute__((visibility("default")))

REPLACED int sqlite3_exec(sqlite3 *db, const char *text,
                          int (*callback)(void *, int, char **, char **), void *argument,
                          char **message) {
  return forward(&sqlite3_exec, "sqlite3_exec", db, text, callback, argument, message);
}

REPLACED int sqlite3_prepare_v2(sqlite3 *db, const char *text, int size,
                                sqlite3_stmt **statement, const char **rest) {
  return forward(&sqlite3_prepare_v2, "sqlite3_prepare_v2", db, text, size, statement,
                 rest);
}
