// MailLogger: the mail log's collector. Records come in by a local socket, wait in a
// list, and are written in batches to "maillog.db", which is moved aside when it is full;
// counters of the traffic go to "log_statistic.db".
//
// Works on two DBHandlers, each connected for one operation. Odd, and kept: a generic SQL
// error (code 1) throws a file away as damage (code 11) does, so that a record whose
// statement does not fit its buffer costs the whole live log, again at each flush; saved
// logs are counted by the lines of a folder's listing, and what is removed is the oldest
// of its entries, whatever that is.

#include "maillogger.h"

#include <grp.h>
#include <pwd.h>
#include <sqlite3.h>
#include <sys/select.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <climits>
#include <cstddef>
#include <cstdio>
#include <cstring>
#include <new>
#include <utility>

#include "DBHandler.h"
#include "internal/folder.h"
#include "internal/log.h"
#include "internal/move_lock.h"
#include "internal/paths.h"
#include "internal/schemas.h"
#include "internal/statement.h"
#include "internal/write_ahead.h"
#include "kestcore.h"
#include "kestsdk.h"

using internal::FixedSQL;
using internal::Folder;
using internal::Statement;

namespace {

constexpr unsigned int kBusyTimeoutMs = 60'000;
constexpr int kBacklog = 20;
constexpr long kWaitSeconds = 3;
constexpr size_t kMostCached = 200;  // more are written without waiting
constexpr int kMostSavedLogs = 20;
constexpr unsigned int kEventRotated = 0x13600001;

constexpr char kMailLogTable[] = "mail_log_table";

// What m_Err says while a failure is handled.
constexpr int kMailLogFailed = 1, kCountFailed = 2;

// ---- the record

// Takes the text of a field: a sender may have left out its NUL, then the fields behind
// it belong to it, but nothing behind the record.
void take(const LogSocket &record, size_t offset, std::string &text) {
  const char *const field = reinterpret_cast<const char *>(&record) + offset;
  text.assign(field, strnlen(field, sizeof record - offset));
}

// ---- counters

struct CountTable {
  const char *name;
  CountInterval interval;
  long keptSeconds;
};
constexpr CountTable kSecondTable = {"log_statistic_second", COUNT_PER_30_SECOND, 86400};
constexpr CountTable kHourTable = {"log_statistic_hour", COUNT_PER_HOUR, 30L * 86400};
constexpr CountTable kDayTable = {"log_statistic_day", COUNT_PER_DAY, 180L * 86400};

const CountTable &tableOf(CountInterval interval) {
  if (interval == COUNT_PER_HOUR) return kHourTable;
  return interval == COUNT_PER_DAY ? kDayTable : kSecondTable;
}

uint32_t valueOf(const std::map<MailStatus, uint32_t> &values, MailStatus status) {
  const auto found = values.find(status);
  return found == values.end() ? 0 : found->second;
}

double kibibytes(const Count &count, MailStatus status) {
  return valueOf(count.bandwidth, status) * (1.0 / 1024);
}

// Truncates; what no counter can hold becomes the nearest that one can.
uint32_t bytes(double kibibytes) {
  const double value = kibibytes * 1024;
  if (!(value > 0)) return 0;
  return value >= UINT32_MAX ? UINT32_MAX : static_cast<uint32_t>(value);
}

void addRows(SQLCmd &statements, const std::map<long, Count> &counter,
             const CountTable &table) {
  for (const auto &[start, count] : counter)
    statements +=
        FixedSQL<1024>(
            "INSERT OR REPLACE INTO '%q'(time, inbound_quantity , "
            "outbound_quantity, bounce_quantity, inbound_bandwidth, "
            "outbound_bandwidth) VALUES('%ld', '%d', '%d', '%d', '%.2f', "
            "'%.2f');",
            table.name, start, static_cast<int>(valueOf(count.quantity, STATUS_RECEIVE)),
            static_cast<int>(valueOf(count.quantity, STATUS_SENT)),
            static_cast<int>(valueOf(count.quantity, STATUS_BOUNCE)),
            kibibytes(count, STATUS_RECEIVE), kibibytes(count, STATUS_SENT))
            .c_str();
}

// Leaves the one interval, without counts if it had none.
void keepOnly(std::map<long, Count> &counter, long start) {
  counter[start];  // may throw: before anything is gone
  auto kept = counter.extract(start);
  counter.clear();
  counter.insert(std::move(kept));
}

// ---- moving the log aside

// Moves all that stands in the write-ahead log into the file itself, without which its
// rows would not move along. False while someone still reads an older state of the file:
// waiting for him would keep the senders waiting.
bool makeWhole(DBHandler &db) {
  if (db.connect() != 0) return false;
  bool whole = false;
  {
    Statement checkpoint(db.getDB(), "PRAGMA wal_checkpoint(PASSIVE);");
    if (checkpoint.next())  // busy, pages in the log, pages that are in the file
      whole =
          checkpoint.integer(0) == 0 && checkpoint.integer(1) == checkpoint.integer(2);
  }
  return db.disconnect() == 0 && whole;
}

// ---- the folder of the logs, as ls lists it

// The next entry that is not hidden; null as Folder::next().
const char *nextListed(Folder &folder) noexcept {
  const char *name = folder.next();
  while (name != nullptr && *name == '.') name = folder.next();
  return name;
}

std::string pathOf(const std::string &name) { return paths::kMailLogFolder + name; }

// What "ls -l" writes of an entry as far as names may stand in it.
std::string listing(const std::string &name) {
  struct stat st;
  if (lstat(pathOf(name).c_str(), &st) != 0) return name;
  const passwd *owner = getpwuid(st.st_uid);
  const group *owners = getgrgid(st.st_gid);
  std::string text = owner == nullptr ? "" : owner->pw_name;
  text += std::string(" ") + (owners == nullptr ? "" : owners->gr_name) + " " + name;
  if (!S_ISLNK(st.st_mode)) return text;
  char target[PATH_MAX];
  const ssize_t length = readlink(pathOf(name).c_str(), target, sizeof target);
  if (length > 0) text += " -> " + std::string(target, static_cast<size_t>(length));
  return text;
}

// How many lines of the text "grep maillog_" finds: a name may hold a line feed.
int linesOfSavedLogs(const std::string &text) {
  int count = 0;
  for (size_t at = text.find("maillog_"); at != std::string::npos;) {
    count++;
    const size_t end = text.find('\n', at);
    at = end == std::string::npos ? end : text.find("maillog_", end);
  }
  return count;
}

// When the entry was modified; long ago when that cannot be told.
timespec modified(const std::string &name) {
  struct stat st;
  if (lstat(pathOf(name).c_str(), &st) != 0) return {};
  return st.st_mtim;
}

// The order of "ls -t" is newest first, then by name.
bool isListedBefore(const std::pair<timespec, std::string> &a,
                    const std::pair<timespec, std::string> &b) {
  if (a.first.tv_sec != b.first.tv_sec) return a.first.tv_sec > b.first.tv_sec;
  if (a.first.tv_nsec != b.first.tv_nsec) return a.first.tv_nsec > b.first.tv_nsec;
  return a.second < b.second;
}

}  // namespace

// ---- construction

MailLogger::MailLogger(int logCacheTime, int logRotateThreshold) noexcept
    : m_LogCacheTime(0),
      m_LogRotateThreshold(0),
      m_TotalLogNum(0),
      m_LastFlushTime(0),
      m_LastCountTime(0),
      m_LastUpdateTime(0),
      m_Err(-1),
      m_LogFd(-1) {
  try {  // a constructor whose whole body were tried would throw on
    mkdir(paths::kMailLogFolder, 0755);  // without it the file below cannot be opened
    m_MailLogDB = std::make_unique<DBHandler>(paths::kMailLogDB, schemas::kMailLog);
    m_LogCountDB = std::make_unique<DBHandler>(paths::kStatisticDB, schemas::kStatistic);
    m_MailLogDB->setBusyTimeout(kBusyTimeoutMs);
    m_LogCountDB->setBusyTimeout(kBusyTimeoutMs);
    if (initSocket() != 0) return;
    if (loadDate() != 0) return;
    m_TotalLogNum = getLogNum();
    if (m_TotalLogNum < 0) return;
    m_LogCacheTime = logCacheTime;
    m_LogRotateThreshold = logRotateThreshold;
    m_LastFlushTime = m_LastCountTime = time(nullptr);
    m_Err = 0;
    m_LastUpdateTime = time(nullptr);
  } catch (const std::bad_alloc &) {
    LOG_ERROR("Out of memory");
    m_Err = -1;
  }
}

MailLogger::~MailLogger() {
  destroySocket();
  if (m_MailLogDB == nullptr || m_LogCountDB == nullptr) return;  // no memory for them
  flushLogToDB();
  flushCounterToDB();
}

int MailLogger::error() noexcept { return std::exchange(m_Err, 0); }

void MailLogger::updateStatistic() noexcept {}

// ---- the socket

int MailLogger::initSocket() noexcept {
  sockaddr_un address{};
  address.sun_family = AF_UNIX;
  static_assert(sizeof paths::kMailLogSocket <= sizeof address.sun_path);
  memcpy(address.sun_path, paths::kMailLogSocket, sizeof paths::kMailLogSocket);
  constexpr socklen_t length =
      sizeof address.sun_family + sizeof paths::kMailLogSocket - 1;  // without its NUL
  const int on = 1;

  m_LogFd = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
  if (m_LogFd < 0 || m_LogFd >= FD_SETSIZE) {  // which select() could not watch
    LOG_ERROR("create socket fail");
  } else {
    unlink(paths::kMailLogSocket);  // there rarely is one
    // of no effect on a socket of this family
    setsockopt(m_LogFd, SOL_SOCKET, SO_REUSEADDR, &on, sizeof on);
    if (bind(m_LogFd, reinterpret_cast<const sockaddr *>(&address), length) != 0)
      LOG_ERROR("bind fail");
    else if (listen(m_LogFd, kBacklog) != 0)
      LOG_ERROR("listen fail");
    else
      return 0;
  }
  if (m_LogFd >= 0) close(m_LogFd);
  m_LogFd = -1;
  return -1;
}

void MailLogger::destroySocket() noexcept {
  if (m_LogFd >= 0) close(m_LogFd);
  m_LogFd = -1;
  unlink(paths::kMailLogSocket);  // also another collector's
}

// ---- a pass

void MailLogger::run() noexcept {
  receiveLog();
  if (logCacheCheck() == STATUS_NEED_FLUSH) {
    flushLogToDB();
    if (logRotateCheck() == STATUS_NEED_ROTATE) rotateLog();
  }
  if (counterStatusCheck() == STATUS_NEED_FLUSH_COUNTER) flushCounterToDB();
}

void MailLogger::receiveLog() noexcept {
  if (m_LogFd < 0) return;  // the construction failed
  fd_set waiting;
  FD_ZERO(&waiting);
  FD_SET(m_LogFd, &waiting);
  timeval patience = {kWaitSeconds, 0};
  if (select(m_LogFd + 1, &waiting, nullptr, nullptr, &patience) <= 0) return;
  const int sender = accept4(m_LogFd, nullptr, nullptr, SOCK_CLOEXEC);
  if (sender < 0) {
    LOG_ERROR("SocketAccept fail");
    return;
  }
  LogSocket record{};
  // A short record is taken as it comes, its end is that of the record before.
  while (recv(sender, &record, sizeof record, 0) > 0) cacheLog(record);
  close(sender);
  if (sender != 0) close(sender);  // again: kept, and without effect
}

void MailLogger::cacheLog(const LogSocket &record) noexcept try {
  std::list<MailLogInfo> one(1);  // whole before it joins the others
  MailLogInfo &entry = one.front();
  take(record, offsetof(LogSocket, szMessageID), entry.strMessageID);
  take(record, offsetof(LogSocket, szQueueID), entry.strQueueID);
  entry.log_time = record.log_time;
  take(record, offsetof(LogSocket, szMailTo), entry.strMailTo);
  take(record, offsetof(LogSocket, szMailFrom), entry.strMailFrom);
  entry.mailSize = record.mail_size;
  entry.status = static_cast<MailStatus>(record.status);
  m_CachedLogList.splice(m_CachedLogList.end(), one);
  statistic(entry);
} catch (const std::bad_alloc &) {
  LOG_ERROR("Out of memory");
  m_Err = -1;
}

int MailLogger::logCacheCheck() const noexcept {
  if (m_CachedLogList.empty()) return STATUS_NO_NEED_FLUSH;
  if (m_CachedLogList.size() > kMostCached) return STATUS_NEED_FLUSH;
  const bool waitedLong = time(nullptr) - m_LastFlushTime >= m_LogCacheTime;
  return waitedLong ? STATUS_NEED_FLUSH : STATUS_NO_NEED_FLUSH;
}

int MailLogger::logRotateCheck() const noexcept {
  return m_TotalLogNum > m_LogRotateThreshold ? STATUS_NEED_ROTATE
                                              : STATUS_NO_NEED_ROTATE;
}

// ---- writing the log

void MailLogger::flushLogToDB() noexcept try {
  SQLCmd statements;
  for (const MailLogInfo &entry : m_CachedLogList)
    statements += FixedSQL<2048>(
                      "INSERT INTO '%q' VALUES('%q', '%q', '%d', '%q', '%q', '%d', '%d')",
                      kMailLogTable, entry.strMessageID.c_str(), entry.strQueueID.c_str(),
                      static_cast<int>(entry.log_time), entry.strMailFrom.c_str(),
                      entry.strMailTo.c_str(), static_cast<int>(entry.mailSize),
                      static_cast<int>(entry.status))
                      .c_str();
  if (!store(statements, kMailLogFailed)) return;  // the entries wait for the next flush
  m_LastFlushTime = time(nullptr);
  m_TotalLogNum += static_cast<int>(m_CachedLogList.size());
  m_CachedLogList.clear();
} catch (const std::bad_alloc &) {
  LOG_ERROR("Out of memory");
  m_Err = -1;
}

// The rows of the live log, or -1: also when it had no table and has been made anew,
// whereas a damaged one that has been made anew counts as 0.
int MailLogger::getLogNum() noexcept {
  if (m_MailLogDB->connect() != 0) {
    m_Err = kMailLogFailed;
    HandleError();
    return -1;
  }
  int num = -1;
  {
    const FixedSQL<512> query("SELECT Count(*) FROM '%q'", kMailLogTable);
    Statement statement(m_MailLogDB->getDB(), query.c_str());
    const int prepared = statement.code();
    if (prepared != SQLITE_OK) {
      if (HandleDBError(*m_MailLogDB, prepared) == 0 && prepared == SQLITE_CORRUPT)
        num = 0;
    } else {
      while (statement.next()) num = statement.integer(0);
      if (statement.code() != SQLITE_DONE)
        LOG_ERROR("sqlite3_step: [%d] %s\n", statement.code(),
                  sqlite3_errmsg(m_MailLogDB->getDB()));
    }
  }  // finalised: it would keep the connection open
  disconnect(kMailLogFailed);
  return num;
}

// ---- moving it aside

void MailLogger::rotateLog() noexcept try {
  const int num = getLogNum();
  if (num < 0) {
    LOG_ERROR("Get Log Num fail");
    return;
  }
  if (num < m_LogRotateThreshold) {
    m_TotalLogNum = num;
    return;
  }
  if (!moveAside(getSavedLogDBName())) return;
  if (getSavedLogDBNum() > kMostSavedLogs) rotateSavedLogDB();
  m_TotalLogNum = 0;
  KESTLogSet1(1, 1, kEventRotated, "", "", "", "");  // of no consequence for the log
} catch (const std::bad_alloc &) {
  LOG_ERROR("Out of memory");
  m_Err = -1;
}

// False when the log stays where it is, to be moved after the next flush.
bool MailLogger::moveAside(const std::string &savedName) noexcept {
  const internal::MoveLock alone(internal::MoveLock::kMoving);
  if (alone.isRefused() || !makeWhole(*m_MailLogDB)) {
    LOG_DEBUGGING("%s is in use, rotate later", paths::kMailLogDB);
    return false;
  }
  internal::removeWriteAheadLog(savedName);
  if (rename(paths::kMailLogDB, savedName.c_str()) != 0) {
    LOG_ERROR("rename %s fail, %s", paths::kMailLogDB, strerror(errno));
    return false;
  }
  return true;
}

std::string MailLogger::getSavedLogDBName() {
  const time_t now = time(nullptr);
  tm date{};
  localtime_r(&now, &date);
  char name[128] = "";
  strftime(name, sizeof name, "maillog_%Y%m%d", &date);
  std::string path = pathOf(name);
  while (KLIBCFileExist((path + ".db").c_str())) path += "_1";
  return path + ".db";
}

// The lines of "ls -l" with "maillog_" in them, whatever puts it there.
int MailLogger::getSavedLogDBNum() {
  Folder folder(paths::kMailLogFolder);
  if (!folder.isOpen()) {
    LOG_ERROR("get save log db info fail");
    return -1;
  }
  int count = 0;
  while (const char *name = nextListed(folder)) count += linesOfSavedLogs(listing(name));
  if (errno != 0) {
    LOG_ERROR("read saved log db num fail");
    return -1;
  }
  return count;
}

// Removes what the last line of "ls -t" names.
void MailLogger::rotateSavedLogDB() {
  Folder folder(paths::kMailLogFolder);
  if (!folder.isOpen()) {
    LOG_ERROR("fail to get oldest saved mail log db, rotate saved log db fail");
    return;
  }
  std::pair<timespec, std::string> last;
  bool found = false;
  while (const char *name = nextListed(folder)) {
    std::pair<timespec, std::string> entry(modified(name), name);
    if (!found || isListedBefore(last, entry)) last = std::move(entry);
    found = true;
  }
  if (!found) {
    LOG_ERROR("read oldest saved log db info fail, rotate saved log db fail");
    return;
  }
  const size_t lineFeed = last.second.rfind('\n');
  if (lineFeed != std::string::npos) last.second.erase(0, lineFeed + 1);
  unlink(pathOf(last.second).c_str());  // a folder stays, and is the oldest ever after
}

// ---- counters

time_t MailLogger::getRoundTime(time_t t, CountInterval interval) const noexcept {
  return t - t % interval;
}

void MailLogger::statistic(const MailLogInfo &entry) {
  const auto add = [&](std::map<long, Count> &counter, CountInterval interval) {
    Count &count = counter[getRoundTime(entry.log_time, interval)];
    count.quantity[entry.status] += 1;
    count.bandwidth[entry.status] += static_cast<uint32_t>(entry.mailSize);
  };
  add(m_CounterSecond, COUNT_PER_30_SECOND);
  add(m_CounterHour, COUNT_PER_HOUR);
  add(m_CounterDay, COUNT_PER_DAY);
  m_LastCountTime = time(nullptr);
}

int MailLogger::counterStatusCheck() const noexcept {
  const time_t now = time(nullptr);
  if (now - m_LastUpdateTime < COUNT_PER_30_SECOND) return STATUS_NO_NEED_FLUSH_COUNTER;
  return now - m_LastCountTime <= COUNT_PER_30_SECOND ? STATUS_NEED_FLUSH_COUNTER
                                                      : STATUS_NO_NEED_FLUSH_COUNTER;
}

void MailLogger::flushCounterToDB() noexcept try {
  const time_t now = time(nullptr);
  SQLCmd statements;
  for (const CountTable &table : {kSecondTable, kHourTable, kDayTable})
    statements += FixedSQL<1024>("DELETE FROM %q WHERE time < '%ld';", table.name,
                                 static_cast<long>(now - table.keptSeconds))
                      .c_str();
  addRows(statements, m_CounterSecond, kSecondTable);
  addRows(statements, m_CounterHour, kHourTable);
  addRows(statements, m_CounterDay, kDayTable);
  if (!store(statements, kCountFailed)) return;  // the counters wait for the next time
  clearCounter();
  m_LastUpdateTime = time(nullptr);
} catch (const std::bad_alloc &) {
  LOG_ERROR("Out of memory");
  m_Err = -1;
}

void MailLogger::clearCounter() {
  const time_t now = time(nullptr);
  keepOnly(m_CounterSecond, getRoundTime(now, COUNT_PER_30_SECOND));
  keepOnly(m_CounterHour, getRoundTime(now, COUNT_PER_HOUR));
  keepOnly(m_CounterDay, getRoundTime(now, COUNT_PER_DAY));
}

int MailLogger::loadDate() {
  if (m_LogCountDB->connect() != 0) {
    m_Err = kCountFailed;
    return -1;
  }
  if (loadCounter(m_CounterSecond, COUNT_PER_30_SECOND) != 0) {
    LOG_ERROR("load counter second fail");
    return -1;
  }
  if (loadCounter(m_CounterHour, COUNT_PER_HOUR) != 0) {
    LOG_ERROR("load counter hour fail");
    return -1;
  }
  if (loadCounter(m_CounterDay, COUNT_PER_DAY) != 0) {
    LOG_ERROR("load counter day fail");
    return -1;
  }
  if (m_LogCountDB->disconnect() != 0) {
    m_Err = kCountFailed;
    return -1;
  }
  return 0;
}

int MailLogger::loadCounter(std::map<long, Count> &counter, CountInterval interval) {
  const long start = getRoundTime(time(nullptr), interval);
  const FixedSQL<512> query("SELECT * FROM '%q' WHERE time = '%ld';",
                            tableOf(interval).name, start);
  Statement row(m_LogCountDB->getDB(), query.c_str());
  if (row.code() != SQLITE_OK)
    return HandleDBError(*m_LogCountDB, row.code()) == 0 ? 0 : -1;
  while (row.next()) {
    Count &count = counter[start];
    count.quantity[STATUS_RECEIVE] = static_cast<uint32_t>(row.integer(1));
    count.quantity[STATUS_SENT] = static_cast<uint32_t>(row.integer(2));
    count.quantity[STATUS_BOUNCE] = static_cast<uint32_t>(row.integer(3));
    count.bandwidth[STATUS_RECEIVE] = bytes(row.real(4));
    count.bandwidth[STATUS_SENT] = bytes(row.real(5));
  }
  if (row.code() == SQLITE_DONE) return 0;
  // without file and line: log readers match it so
  syslog(LOG_ERR, "sqlite3_step: [%d] %s\n", row.code(),
         sqlite3_errmsg(m_LogCountDB->getDB()));
  return -1;
}

// ---- databases and errors

// Runs the statements as one transaction on the file that m_Err calls `which`. A failure
// has been handled when the result is false; what came before it is stored all the same.
bool MailLogger::store(const SQLCmd &statements, int which) noexcept {
  DBHandler &db = which == kMailLogFailed ? *m_MailLogDB : *m_LogCountDB;
  const bool stored = db.connect() == 0 && db.exeCmds(statements, true) == 0;
  if (!stored) {
    m_Err = which;
    HandleError();
  }
  disconnect(which);
  return stored;
}

void MailLogger::disconnect(int which) noexcept {
  DBHandler &db = which == kMailLogFailed ? *m_MailLogDB : *m_LogCountDB;
  if (db.disconnect() == 0) return;
  m_Err = which;
  HandleError();
}

int MailLogger::HandleError() noexcept {
  if (m_Err != kMailLogFailed && m_Err != kCountFailed) return m_Err = -1;
  DBHandler &db = m_Err == kMailLogFailed ? *m_MailLogDB : *m_LogCountDB;
  m_Err = HandleDBError(db, db.getErrCode()) == 0 ? 0 : -1;
  return m_Err;
}

int MailLogger::HandleDBError(DBHandler &db, int code) noexcept {
  if (code != SQLITE_ERROR && code != SQLITE_CORRUPT) return code;
  LOG_ERROR("db corrupt, need regent");
  return db.regenDB();
}
