// What the owners of the rule tables in "postwell.db" do alike: each keeps a connection
// of its own open for the life of the process, reads in pages, writes in transactions,
// and exports and imports its rules as lines of text.

#ifndef POSTWELL_INTERNAL_RULE_TABLE_H_
#define POSTWELL_INTERNAL_RULE_TABLE_H_

#include <functional>
#include <memory>
#include <string>

#include "DBHandler.h"
#include "internal/log.h"
#include "internal/statement.h"

// Log readers know the owner by the source file that a line names.
#define HERE \
  internal::Place { __FILE_NAME__, __LINE__ }

namespace internal {

struct Place {
  const char *file;
  int line;
};

// One rule's statement: 1024 bytes at most, with its semicolon.
using RuleSQL = FixedSQL<1024>;

// A handle on the file, not connected; null without memory.
std::unique_ptr<DBHandler> makeRulesDB() noexcept;

// Connects; when the file has been removed or replaced by another process, to the one
// that is there now. Gives SQLite's code.
int followFile(DBHandler &db) noexcept;

// Makes a damaged file (code 11) anew and gives the result of that; gives back any
// other code.
int rebuildIfCorrupt(DBHandler &db, int code, Place place) noexcept;

// Runs the statements as one transaction. After a failure the connection is closed and
// opened again, which commits what succeeded: left open, the transaction would block
// every later write, of other processes too. Gives SQLite's code.
int changeRules(DBHandler &db, const SQLCmd &statements) noexcept;

// The same, but after a failure it is rolled back first: nothing of it is kept.
int changeRulesWhole(DBHandler &db, const SQLCmd &statements) noexcept;

// How reading ended: SQLite's code, 0 when all rows were read, and whether the query
// could not even be prepared.
struct Reading {
  int code;
  bool refused;
};

// Hands each row of the query to `take`. Rows before a failing one were taken.
template <class Take>
Reading readRules(DBHandler &db, const char *sql, Place place, Take take) {
  const int connected = followFile(db);
  if (connected != SQLITE_OK) return {connected, true};
  Statement statement(db.getDB(), sql);
  if (statement.code() != SQLITE_OK) return {statement.code(), true};
  while (statement.next()) take(statement);
  if (statement.code() == SQLITE_DONE) return {SQLITE_OK, false};
  logLine(LOG_ERR, place.file, place.line, "sqlite3_step: [%d] %s\n", statement.code(),
          sqlite3_errmsg(db.getDB()));
  return {statement.code(), false};
}

// The text of a column; empty for a null value.
std::string textOf(const Statement &row, int column);

// Which page is the last one.
enum class PageEnd { kShort, kEmpty };

// Calls `load` with the offsets 0, size, 2 * size, … for a list of at most `size`
// elements, and `take` with each element, until the last page.
template <class Load, class Take>
void eachOfPages(int size, PageEnd end, Load load, Take take) {
  const size_t least = end == PageEnd::kShort ? static_cast<size_t>(size) : 1;
  for (int offset = 0;; offset += size) {
    const auto page = load(offset);
    for (const auto &element : page) take(element);
    if (page.size() < least) return;
  }
}

// The number that a query gives in its last row; 0 without one. A file found damaged is
// made anew.
int countRules(DBHandler &db, const char *sql, Place place);

// Gives `take` each line of the file with its newline, to change. 0, or -1 when the file
// cannot be opened, which is logged.
int eachLine(const std::string &path, Place place,
             const std::function<void(char *line)> &take);

// The same, each line cut at the blank that ends its first word: that word and all that
// follows the blank. A line of nothing but blanks is skipped, which is logged.
int eachRule(const std::string &path, Place place,
             const std::function<void(char *name, char *rest)> &take);

}  // namespace internal

#endif  // POSTWELL_INTERNAL_RULE_TABLE_H_
