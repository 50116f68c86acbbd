// DBHandler and SQLCmd: the one way in which the library touches database files.
//
// Owners keep a handle for their lifetime and connect it for one operation at a
// time; what a code means, corruption above all, is theirs to decide. Odd, and kept:
// creating a file leaves the connection that ran the schema open for the rest of the
// process, and a failed statement is not rolled back: disconnect() commits what
// succeeded before it.

#include "DBHandler.h"

#include <fcntl.h>
#include <sqlite3.h>
#include <unistd.h>

#include <cstdio>
#include <cstring>
#include <new>

#include "internal/log.h"
#include "internal/text.h"
#include "internal/write_ahead.h"
#include "kestcore.h"

#ifdef POSTWELL_SANITIZE
#include <sanitizer/lsan_interface.h>
#endif

namespace {

// Statements are formatted before the first connection is opened, and SQLite's
// formatting of a long text crashes while SQLite is not initialised.
__attribute__((constructor)) void initialiseSQLite() { sqlite3_initialize(); }

// Processes that fill the same new file wait so long for each other: if all of them
// gave up, it would stay empty.
constexpr int kCreationWaitMs = 10'000;

// Closes a connection that never came to use, so that the next connect() starts anew.
void discard(sqlite3 *&connection) {
  sqlite3_close(connection);
  connection = nullptr;
}

// True when this call made the file: whoever finds it afterwards did not.
bool makeFile(const std::string &path) {
  const int fd = open(path.c_str(), O_RDWR | O_CREAT | O_EXCL | O_CLOEXEC, 0644);
  if (fd < 0) return false;
  close(fd);  // before SQLite opens it: closing later would drop SQLite's locks
  // Those of a file that was moved or removed while others had it open, who keep them.
  internal::removeWriteAheadLog(path);
  return true;
}

// Whether the schema failed because another process has filled, or is still filling,
// the same new file.
bool filledByAnother(sqlite3 *connection) {
  const int code = sqlite3_errcode(connection) & 0xff;
  return code == SQLITE_BUSY ||
         strstr(sqlite3_errmsg(connection), "already exists") != nullptr;
}

}  // namespace

// ---- SQLCmd

SQLCmd &SQLCmd::operator+=(const char *statement) {
  cmd_list.emplace_back(statement);
  return *this;
}

void SQLCmd::dumpCmds() const noexcept {
  for (const std::string &statement : cmd_list)
    fprintf(stderr, "%s\n", statement.c_str());
}

// ---- DBHandler

DBHandler::DBHandler(const std::string &dbPath, const std::string &schema) noexcept
    : m_ErrCode(-1), m_BusyTimeout(0), db(nullptr), inTran(false) {
  try {
    strSchema = schema;
    strDBPath = dbPath;
  } catch (const std::bad_alloc &) {
    LOG_ERROR("Out of memory");
    strDBPath = "/";  // cannot be opened; an empty path or schema would work on nothing
  }
}

DBHandler::~DBHandler() { disconnect(); }

int DBHandler::connect() noexcept {
  if (db != nullptr) return 0;
  if (!KLIBCFileExist(strDBPath.c_str())) {
    LOG_ERROR("%s isn't exist, create DB", strDBPath.c_str());
    const int code = createDB();
    if (code != 0) {
      LOG_ERROR("Create DB fail;");
      return code;
    }
  }
  // After createDB() this opens the file a second time into the same place: the
  // creating connection stays open behind it, which is no leak to be told.
#ifdef POSTWELL_SANITIZE
  __lsan_ignore_object(db);
#endif
  m_ErrCode = sqlite3_open(strDBPath.c_str(), &db);
  if (m_ErrCode != 0) {
    LOG_ERROR("Open database fail. dbpath = [%s], err=[%d]", strDBPath.c_str(),
              m_ErrCode);
    discard(db);
    return m_ErrCode;
  }
  if (m_BusyTimeout >= 1) sqlite3_busy_timeout(db, m_BusyTimeout);
  return 0;
}

int DBHandler::createDB() noexcept {
  const bool made = makeFile(strDBPath);
  m_ErrCode = sqlite3_open(strDBPath.c_str(), &db);
  if (m_ErrCode != 0) {
    LOG_ERROR("Open database fail. dbpath = [%s]", strDBPath.c_str());
    discard(db);
    if (made) unlink(strDBPath.c_str());
    return m_ErrCode;
  }
  sqlite3_busy_timeout(db, kCreationWaitMs);
  m_ErrCode = sqlite3_exec(db, strSchema.c_str(), nullptr, nullptr, nullptr);
  if (m_ErrCode != 0) {
    LOG_ERROR("exec db schema fail, err=[%d], %s", m_ErrCode, sqlite3_errmsg(db));
    const bool useless = made && !filledByAnother(db);
    discard(db);
    // left behind it would look like a database and never be filled
    if (useless) unlink(strDBPath.c_str());
    return m_ErrCode;
  }
  sqlite3_busy_timeout(db, m_BusyTimeout);
  return 0;
}

int DBHandler::disconnect() noexcept {
  if (db == nullptr) return 0;
  if (inTran) {
    LOG_DEBUGGING("Still in transaction, try to commit");
    commitTransaction();  // a failure does not stop the close
  }
  m_ErrCode = sqlite3_close(db);
  if (m_ErrCode != 0) {
    LOG_ERROR("Failed to close sqlite3, ret = [%d]", m_ErrCode);
    return m_ErrCode;
  }
  db = nullptr;
  inTran = false;
  return 0;
}

bool DBHandler::isConnect() const noexcept { return db != nullptr; }
bool DBHandler::isInTran() const noexcept { return inTran; }
sqlite3 *DBHandler::getDB() const noexcept { return db; }
int DBHandler::getErrCode() const noexcept { return m_ErrCode; }

int DBHandler::execute(const char *statement) noexcept {
  m_ErrCode = sqlite3_exec(db, statement, nullptr, nullptr, nullptr);
  return m_ErrCode;
}

int DBHandler::beginTransaction() noexcept {
  if (execute("BEGIN TRANSACTION;") != 0) {
    LOG_ERROR("begin Transaction fail, err=[%d], %s", m_ErrCode, sqlite3_errmsg(db));
    return m_ErrCode;
  }
  inTran = true;
  return 0;
}

int DBHandler::commitTransaction() noexcept {
  if (execute("COMMIT TRANSACTION;") != 0) {
    LOG_ERROR("commitTransaction fail, err=[%d], %s", m_ErrCode, sqlite3_errmsg(db));
    return m_ErrCode;
  }
  inTran = false;
  return 0;
}

void DBHandler::rollback() noexcept {
  if (execute("ROLLBACK;") != 0) {
    LOG_ERROR("rollback fail, err=[%d], %s", m_ErrCode, sqlite3_errmsg(db));
    return;
  }
  inTran = false;
}

int DBHandler::exeCmds(const SQLCmd &cmds, bool useTransaction) noexcept {
  if (useTransaction && beginTransaction() != 0) return m_ErrCode;
  for (const std::string &statement : cmds.cmd_list) {
    if (execute(statement.c_str()) != 0) {
      LOG_ERROR("sqlite3_exec fail, err=[%d], %s", m_ErrCode, sqlite3_errmsg(db));
      return m_ErrCode;  // what succeeded stays in the open transaction
    }
  }
  return useTransaction ? commitTransaction() : m_ErrCode;
}

void DBHandler::setDBPath(const std::string &path) noexcept {
  ASSIGN_TEXT(strDBPath, path);
}
void DBHandler::setSchema(const std::string &schema) noexcept {
  ASSIGN_TEXT(strSchema, schema);
}

void DBHandler::setBusyTimeout(unsigned int ms) noexcept {
  m_BusyTimeout = static_cast<int>(ms);
}

int DBHandler::regenDB() noexcept {
  LOG_DEBUGGING("regen db : %s", strDBPath.c_str());
  const bool connected = isConnect();
  if (connected) disconnect();  // what cannot be closed is replaced all the same
  unlink(strDBPath.c_str());    // a missing file is what is wanted
  m_ErrCode = 0;
  if (connected) m_ErrCode = connect();
  return m_ErrCode;
}
