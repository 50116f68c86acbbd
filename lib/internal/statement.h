// A prepared statement, finalised on every path, and SQL text formatted by SQLite.

#ifndef POSTWELL_INTERNAL_STATEMENT_H_
#define POSTWELL_INTERNAL_STATEMENT_H_

#include <sqlite3.h>

#include <cstdarg>
#include <cstdint>

namespace internal {

// A statement of at most Size - 1 bytes formatted by SQLite (`%q` doubles quotes). One
// that is longer by its last semicolon alone goes without, as SQLite needs none; any
// other becomes a text that fails with code 1 when it is run: merely cut, an UPDATE could
// lose its WHERE and still be valid. The compiler does not check the arguments: cast each
// to the type that its conversion names.
template <int Size>
class FixedSQL {
 public:
  explicit FixedSQL(const char *format, ...) noexcept {
    char &beyond = _text[Size - 1];
    beyond = '\0';
    va_list arguments;
    va_start(arguments, format);
    sqlite3_vsnprintf(sizeof _text, _text, format, arguments);
    va_end(arguments);
    if (beyond == ';' && _text[Size] == '\0') beyond = '\0';
    if (beyond != '\0') sqlite3_snprintf(Size, _text, "statement too long");
  }
  const char *c_str() const noexcept { return _text; }

 private:
  // Two more than may be used, to see what does not fit. Filling it would cost a tenth of
  // what formatting costs.
  char _text[Size + 2];
};

// Releases a text of sqlite3_mprintf().
struct FreeSQL {
  void operator()(char *text) const noexcept { sqlite3_free(text); }
};

class Statement {
 public:
  // code() tells whether preparing succeeded.
  Statement(sqlite3 *db, const char *sql) noexcept
      : _code(sql == nullptr ? SQLITE_NOMEM
                             : sqlite3_prepare_v2(db, sql, -1, &_statement, nullptr)) {}
  ~Statement() { sqlite3_finalize(_statement); }
  Statement(const Statement &) = delete;
  Statement &operator=(const Statement &) = delete;

  // The code of the last call: after next() SQLITE_ROW, SQLITE_DONE or an error.
  int code() const noexcept { return _code; }

  // Steps to the next row; false at the end and on an error.
  bool next() noexcept {
    if (_code != SQLITE_OK && _code != SQLITE_ROW) return false;
    _code = sqlite3_step(_statement);
    return _code == SQLITE_ROW;
  }

  // The column of the current row; null for a null value. Lives until next().
  const char *text(int column) const noexcept {
    return reinterpret_cast<const char *>(sqlite3_column_text(_statement, column));
  }
  int integer(int column) const noexcept {
    return sqlite3_column_int(_statement, column);
  }
  int64_t integer64(int column) const noexcept {
    return sqlite3_column_int64(_statement, column);
  }
  double real(int column) const noexcept {
    return sqlite3_column_double(_statement, column);
  }

 private:
  sqlite3_stmt *_statement = nullptr;
  int _code;
};

}  // namespace internal

#endif  // POSTWELL_INTERNAL_STATEMENT_H_
