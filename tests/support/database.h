// Looks into database files, and spoils them, behind the library's back.

#ifndef POSTWELL_TESTS_DATABASE_H_
#define POSTWELL_TESTS_DATABASE_H_

#include <memory>
#include <string>
#include <vector>

struct sqlite3;

namespace database {

// A connection of the test's own; what it holds open ends with it.
class Connection {
 public:
  explicit Connection(const std::string &path);

  // Runs the statements; SQLite's code.
  int run(const std::string &sql);

  // The rows, columns joined by "|" and a null value as "NULL"; on an error the last
  // row is "error 11: message".
  std::vector<std::string> rows(const std::string &sql);

 private:
  struct Close {
    void operator()(sqlite3 *connection) const;
  };
  std::unique_ptr<sqlite3, Close> connection_;
};

// The same with a connection for this one call. A missing file stays missing.
std::vector<std::string> rowsOf(const std::string &path, const std::string &sql);

// Makes the list of tables unreadable: every statement that needs it fails with 11
// when it is prepared.
void spoilSchema(const std::string &path);

// Makes all tables and indexes unreadable: statements can be prepared, and fail with
// 11 when they are run. Open connections notice, too.
void spoilTables(const std::string &path);

// How many descriptors of this process are open on the file, or on one of this name
// that has been removed.
int descriptorsOf(const std::string &path);

}  // namespace database

#endif  // POSTWELL_TESTS_DATABASE_H_
