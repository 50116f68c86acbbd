// SQLite's file format, as far as it is needed here: 4096-byte pages; the first holds
// a header of 100 bytes, byte 27 of which changes with each transaction, and the list
// of tables.

#include "support/database.h"

#include <gtest/gtest.h>
#include <sqlite3.h>

#include <filesystem>

#include "support/files.h"

namespace database {

namespace {

namespace fs = std::filesystem;

constexpr size_t kHeaderSize = 100;
constexpr size_t kPageSize = 4096;
constexpr size_t kChangeCounter = 27;

// In place: connections have the file open.
void spoil(const std::string &path, size_t from, size_t end) {
  std::string content = readFile(path);
  ASSERT_GT(content.size(), from);
  for (size_t i = from; i < end && i < content.size(); i++) content[i] = '\xff';
  content[kChangeCounter]++;
  writeFile(path, content);
}

std::string textOf(sqlite3_stmt *statement, int column) {
  const unsigned char *text = sqlite3_column_text(statement, column);
  return text == nullptr ? "NULL" : reinterpret_cast<const char *>(text);
}

}  // namespace

void Connection::Close::operator()(sqlite3 *connection) const {
  EXPECT_EQ(sqlite3_close(connection), SQLITE_OK);
}

Connection::Connection(const std::string &path) {
  sqlite3 *connection = nullptr;
  EXPECT_EQ(sqlite3_open_v2(path.c_str(), &connection, SQLITE_OPEN_READWRITE, nullptr),
            SQLITE_OK)
      << path;
  connection_.reset(connection);
}

int Connection::run(const std::string &sql) {
  return sqlite3_exec(connection_.get(), sql.c_str(), nullptr, nullptr, nullptr);
}

std::vector<std::string> Connection::rows(const std::string &sql) {
  std::vector<std::string> found;
  sqlite3_stmt *statement = nullptr;
  int code = sqlite3_prepare_v2(connection_.get(), sql.c_str(), -1, &statement, nullptr);
  while (code == SQLITE_OK || code == SQLITE_ROW) {
    code = sqlite3_step(statement);
    if (code != SQLITE_ROW) break;
    std::string row = textOf(statement, 0);
    for (int i = 1; i < sqlite3_column_count(statement); i++)
      row += "|" + textOf(statement, i);
    found.push_back(row);
  }
  if (code != SQLITE_DONE)
    found.push_back("error " + std::to_string(code) + ": " +
                    sqlite3_errmsg(connection_.get()));
  sqlite3_finalize(statement);
  return found;
}

std::vector<std::string> rowsOf(const std::string &path, const std::string &sql) {
  if (!fileExists(path)) return {"no file"};
  return Connection(path).rows(sql);
}

void spoilSchema(const std::string &path) { spoil(path, kHeaderSize, kPageSize); }

void spoilTables(const std::string &path) { spoil(path, kPageSize, std::string::npos); }

int descriptorsOf(const std::string &path) {
  int count = 0;
  for (const auto &entry : fs::directory_iterator("/proc/self/fd")) {
    std::error_code gone;  // the folder's own descriptor is among them
    const std::string target = fs::read_symlink(entry.path(), gone);
    if (target == path || target == path + " (deleted)") count++;
  }
  return count;
}

}  // namespace database
