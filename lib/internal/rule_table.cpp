// Works on a DBHandler, whose habit it is to be connected for one operation at a time;
// the rule tables' owners stay connected, so what a failed operation leaves behind and
// what happens to the file meanwhile is taken care of here.

#include "internal/rule_table.h"

#include <cerrno>
#include <cstring>
#include <new>

#include "internal/line_reader.h"
#include "internal/paths.h"
#include "internal/schemas.h"

namespace internal {

namespace {

constexpr unsigned int kBusyTimeoutMs = 300;

// Both steps log their failure, and the next operation tries again.
void reopen(DBHandler &db) noexcept {
  db.disconnect();
  db.connect();
}

}  // namespace

std::unique_ptr<DBHandler> makeRulesDB() noexcept try {
  auto db = std::make_unique<DBHandler>(paths::kRulesDB, schemas::kRules);
  db->setBusyTimeout(kBusyTimeoutMs);
  return db;
} catch (const std::bad_alloc &) {
  return nullptr;
}

int followFile(DBHandler &db) noexcept {
  int moved = 0;
  if (db.isConnect() &&
      sqlite3_file_control(db.getDB(), nullptr, SQLITE_FCNTL_HAS_MOVED, &moved) ==
          SQLITE_OK &&
      moved != 0)
    db.disconnect();  // if that fails, what follows works on the old file
  return db.connect();
}

int rebuildIfCorrupt(DBHandler &db, int code, Place place) noexcept {
  if (code != SQLITE_CORRUPT) return code;
  logLine(LOG_ERR, place.file, place.line, "db corrupt, need regen");
  return db.regenDB();
}

int changeRules(DBHandler &db, const SQLCmd &statements) noexcept {
  const int connected = followFile(db);
  if (connected != SQLITE_OK) return connected;
  const int code = db.exeCmds(statements, true);
  if (code != SQLITE_OK) reopen(db);
  return code;
}

int changeRulesWhole(DBHandler &db, const SQLCmd &statements) noexcept {
  const int connected = followFile(db);
  if (connected != SQLITE_OK) return connected;
  const int code = db.exeCmds(statements, true);
  if (code != SQLITE_OK) {
    if (db.isInTran()) db.rollback();
    reopen(db);  // one that could be opened for reading only would stay so
  }
  return code;
}

std::string textOf(const Statement &row, int column) {
  const char *text = row.text(column);
  return text == nullptr ? "" : text;
}

int countRules(DBHandler &db, const char *sql, Place place) {
  int count = 0;
  const Reading reading = readRules(
      db, sql, place, [&count](const Statement &row) { count = row.integer(0); });
  if (reading.refused) rebuildIfCorrupt(db, reading.code, place);  // nothing was counted
  return count;
}

int eachLine(const std::string &path, Place place,
             const std::function<void(char *line)> &take) {
  LineReader reader(path.c_str());
  if (!reader.isOpen()) {
    logLine(LOG_ERR, place.file, place.line, "open file error, %s", strerror(errno));
    return -1;
  }
  while (reader.next()) take(reader.line());
  return 0;
}

int eachRule(const std::string &path, Place place,
             const std::function<void(char *name, char *rest)> &take) {
  return eachLine(path, place, [place, &take](char *line) {
    char *rest = nullptr;
    char *const name = strtok_r(line, " ", &rest);
    if (name != nullptr)
      take(name, rest);
    else
      logLine(LOG_ERR, place.file, place.line, "parse fail, skip %s", line);
  });
}

}  // namespace internal
