// Reads a table whole, past the library's classes: they ask for a page at a time and
// make a damaged file anew.

#ifndef POSTWELL_PROGRAMS_TABLE_READER_H_
#define POSTWELL_PROGRAMS_TABLE_READER_H_

#include <functional>
#include <string>

struct sqlite3_stmt;

// A row while it is being read.
class TableRow {
 public:
  explicit TableRow(sqlite3_stmt *statement) : statement_(statement) {}
  // Whatever it holds, a NUL too; empty for a null value.
  std::string text(int column) const;
  int integer(int column) const;

 private:
  sqlite3_stmt *statement_;
};

enum class TableRead { kDone, kMissing, kDamaged, kUnreadable };

// Gives each row of the query to `take`. The file is never made nor changed; rows were
// taken also when reading failed later on.
TableRead readTable(const std::string &file, const char *query,
                    const std::function<void(const TableRow &)> &take);

// What to do about a damaged file, as the end of a message.
std::string restoreAdvice(const std::string &file);

#endif  // POSTWELL_PROGRAMS_TABLE_READER_H_
