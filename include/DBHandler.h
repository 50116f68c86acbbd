// One connection to one SQLite database file, and lists of statements to run on it.

#ifndef POSTWELL_DBHANDLER_H_
#define POSTWELL_DBHANDLER_H_

#include <list>
#include <string>

#include "postwell.h"

struct sqlite3;

// SQL statements in the order in which they were added.
struct POSTWELL_API SQLCmd {
  std::list<std::string> cmd_list;

  // Appends a copy. Throws std::bad_alloc, as the list itself does.
  SQLCmd &operator+=(const char *statement);

  // Writes the statements to standard error, one a line.
  void dumpCmds() const noexcept;
};

// Results are SQLite's codes, 0 for success; the last one is kept. Opened for the
// span of one operation: connect, work, disconnect.
class POSTWELL_API DBHandler {
 public:
  // Touches no file. `schema` is run once, when the file has to be created. Without
  // memory for the texts every connect() fails.
  DBHandler(const std::string &dbPath, const std::string &schema) noexcept;
  ~DBHandler();  // disconnects
  DBHandler(const DBHandler &) = delete;
  DBHandler &operator=(const DBHandler &) = delete;

  // Opens the file, creating it from the schema first when it is missing. 0 at once
  // when connected. A failure leaves the handle disconnected.
  int connect() noexcept;

  // Commits a pending transaction and closes. A failed close leaves the handle
  // connected. 0 when it was not connected.
  int disconnect() noexcept;

  bool isConnect() const noexcept;
  // Between a successful beginTransaction() and its end by commit, rollback or close.
  bool isInTran() const noexcept;

  int beginTransaction() noexcept;
  int commitTransaction() noexcept;
  void rollback() noexcept;

  // Runs the statements in order, as one transaction if asked to. The first that
  // fails ends the run; a transaction then stays open with what succeeded, which
  // disconnect() commits.
  int exeCmds(const SQLCmd &cmds, bool useTransaction) noexcept;

  void setDBPath(const std::string &path) noexcept;
  void setSchema(const std::string &schema) noexcept;

  // How long SQLite waits for another writer, in milliseconds; 0: not at all. Takes
  // effect at the next connect().
  void setBusyTimeout(unsigned int ms) noexcept;

  // Opens (creating) the file and runs the schema. A failure leaves the handle
  // disconnected and removes a file that this call has made.
  int createDB() noexcept;

  // The raw connection, null while disconnected; it stays the handle's.
  sqlite3 *getDB() const noexcept;

  // The code of the last SQLite call made through the handle; -1 before any.
  int getErrCode() const noexcept;

  // Throws the file away. A connected handle is connected again afterwards, to a new
  // file made from the schema; otherwise the next connect() makes it.
  int regenDB() noexcept;

 private:
  int execute(const char *statement) noexcept;

  int m_ErrCode;
  int m_BusyTimeout;  // milliseconds
  sqlite3 *db;
  bool inTran;
  std::string strSchema;
  std::string strDBPath;
};

#endif  // POSTWELL_DBHANDLER_H_
