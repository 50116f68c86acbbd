// Works on the library's DBHandler, which would make a missing file from its schema:
// without one it would make an empty file that nobody fills, so that case is told first.

#include "common/table_reader.h"

#include <DBHandler.h>
#include <sqlite3.h>
#include <unistd.h>

#include <memory>

namespace {
constexpr unsigned int kPatienceMs = 10000;  // with someone who is writing
}

std::string TableRow::text(int column) const {
  const unsigned char *const value = sqlite3_column_text(statement_, column);
  if (value == nullptr) return "";
  const int length = sqlite3_column_bytes(statement_, column);
  return {reinterpret_cast<const char *>(value), static_cast<size_t>(length)};
}

int TableRow::integer(int column) const { return sqlite3_column_int(statement_, column); }

TableRead readTable(const std::string &file, const char *query,
                    const std::function<void(const TableRow &)> &take) {
  if (access(file.c_str(), F_OK) != 0) return TableRead::kMissing;
  DBHandler database(file, "");
  database.setBusyTimeout(kPatienceMs);
  if (database.connect() != SQLITE_OK) return TableRead::kUnreadable;
  sqlite3_stmt *prepared = nullptr;
  int code = sqlite3_prepare_v2(database.getDB(), query, -1, &prepared, nullptr);
  const std::unique_ptr<sqlite3_stmt, int (*)(sqlite3_stmt *)> statement(
      prepared, sqlite3_finalize);
  if (code == SQLITE_OK)
    while ((code = sqlite3_step(prepared)) == SQLITE_ROW) take(TableRow(prepared));
  if (code == SQLITE_CORRUPT || code == SQLITE_NOTADB) return TableRead::kDamaged;
  return code == SQLITE_DONE ? TableRead::kDone : TableRead::kUnreadable;
}

std::string restoreAdvice(const std::string &file) {
  return "restore " + file + "\nfrom a backup, or remove it to begin anew";
}
