// MailLog: the mail log's reader. Pages, searches, counts and empties one log, and sums
// up the traffic counters that the collector keeps.
//
// Works on two DBHandlers that stay connected as long as the object lives. The collector
// may move the log aside and begin a new one at any moment; the object goes on reading
// the file that it has opened. Odd, and kept: a filter becomes "...;;" for rows; "%" and
// "_" are wildcards in every text that is sought; a statistic that ends where an interval
// begins has one interval less.

#include "maillog.h"

#include <sqlite3.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstring>
#include <new>

#include "DBHandler.h"
#include "internal/log.h"
#include "internal/move_lock.h"
#include "internal/paths.h"
#include "internal/schemas.h"
#include "internal/statement.h"

using internal::FixedSQL;
using internal::FreeSQL;
using internal::Statement;

namespace {

constexpr unsigned int kBusyTimeoutMs = 60'000;
constexpr char kTable[] = "mail_log_table";

// What m_Error says while a failure is handled.
constexpr int kMailLogFailed = 1, kStatisticFailed = 2;

using SQLText = std::unique_ptr<char, FreeSQL>;

// ---- opening

constexpr int kMostTries = 100;
constexpr useconds_t kPauseMicroseconds = 10'000;

// What stands at the path; all zero when nothing does.
struct stat at(const char *path) {
  struct stat found {};
  if (stat(path, &found) != 0) found = {};
  return found;
}

// Whether the log has been moved aside by a collector that is at work: its next flush
// makes a new one. It takes a file that somebody else has half made for damaged.
bool isCollectorsToMake(const char *path) {
  return strcmp(path, paths::kMailLogDB) == 0 && access(paths::kMailLogSocket, F_OK) == 0;
}

// ---- queries

// Any text with `value` in it, for LIKE; at most 1023 bytes. A longer one is cut, but not
// between the two quotes of a doubled one: that would end the text early and make SQL of
// what follows.
std::string patternOf(const std::string &value) {
  constexpr size_t kLongest = 1023;
  const SQLText pattern(sqlite3_mprintf("%%%q%%", value.c_str()));
  if (pattern == nullptr) throw std::bad_alloc();
  std::string text = pattern.get();
  if (text.size() <= kLongest) return text;
  text.resize(kLongest);
  const size_t quotes = kLongest - 1 - text.find_last_not_of('\'');  // "%" is none
  if (quotes % 2 != 0) text.pop_back();
  return text;
}

// Parts joined by " and ", after " where " when there is one.
class Where {
 public:
  void add(const std::string &condition) {
    _text += (_text.empty() ? " where " : " and ") + condition;
  }
  const std::string &text() const { return _text; }

 private:
  std::string _text;
};

std::string number(long long value) { return std::to_string(value); }

std::string compose(const LogFilter &filter) {
  Where where;
  if (!filter.messageID.empty())
    where.add("message_id like '" + patternOf(filter.messageID) + "'");
  if (!filter.mailTo.empty())
    where.add("mail_to like '" + patternOf(filter.mailTo) + "'");
  if (!filter.mailFrom.empty())
    where.add("mail_from like'" + patternOf(filter.mailFrom) + "'");
  if (filter.sizeOpt != "any")
    where.add("size" + filter.sizeOpt + number(filter.mailSize));
  if (filter.status != -1) where.add("status=" + number(filter.status));
  if (filter.dateFrom != 0) where.add(number(filter.dateFrom) + " <= date");
  if (filter.dateTo != 0) where.add("date <= " + number(filter.dateTo));
  std::string text = "select " + filter.select + " from mail_log_table" + where.text();
  if (filter.select != "count(*)")
    text += " order by " + filter.orderType + ' ' + filter.orderDir + " limit " +
            number(filter.limit) + " offset " + number(filter.start) + ';';
  return text + ';';
}

void take(std::string &field, const char *value) {
  if (value != nullptr) field = value;
}

void fill(MailLogInfo &entry, const Statement &row) {
  take(entry.strMessageID, row.text(COLUMN_MESSAGE_ID));
  const auto date = static_cast<time_t>(row.integer64(COLUMN_DATE));
  // a year that no calendar has leaves all zero
  if (localtime_r(&date, &entry.date) == nullptr) entry.date = {};
  take(entry.strMailFrom, row.text(COLUMN_MAIL_FROM));
  take(entry.strMailTo, row.text(COLUMN_MAIL_TO));
  entry.mailSize = static_cast<long>(row.integer64(COLUMN_SIZE));
  entry.status = static_cast<MailStatus>(row.integer(COLUMN_STATUS));
}

// Makes room at once for as many rows as there may be: growing would touch memory twice,
// and what stays unused is never touched. Not behind other rows, where exact room for
// each page would move them all each time.
void makeRoom(std::vector<MailLogInfo> &log, int limit) {
  constexpr int kMost = 131'072;
  if (log.empty() && limit > 0 && limit <= kMost) log.reserve(static_cast<size_t>(limit));
}

// Appends the row, whole or not at all. It is filled where it stays: moving it there took
// a quarter of the time of a large load.
void append(const Statement &row, std::vector<MailLogInfo> &log) {
  log.emplace_back();
  try {
    fill(log.back(), row);
  } catch (const std::bad_alloc &) {
    log.pop_back();
    throw;
  }
}

// ---- statistics

struct Scale {
  const char *table;
  int64_t width;  // of an interval, in seconds
};

Scale scaleOf(TimeScale scale) {
  if (scale == DAY) return {"log_statistic_second", 3600};
  if (scale == WEEK || scale == MONTH) return {"log_statistic_hour", 86'400};
  return {"log_statistic_day", 2'592'000};
}

// While it lives all reads see one state of the file. The results are not looked at:
// without it each read sees its own.
class OneState {
 public:
  explicit OneState(const DBHandler &db) : _db(db) { run("BEGIN;"); }
  ~OneState() { run("COMMIT;"); }  // also on a file that was made anew, for nothing
  OneState(const OneState &) = delete;
  OneState &operator=(const OneState &) = delete;

 private:
  void run(const char *sql) const {
    sqlite3_exec(_db.getDB(), sql, nullptr, nullptr, nullptr);
  }
  const DBHandler &_db;
};

// Closes the log. What lies beside the live one is left to the collector: the last one to
// close a database removes its write-ahead log, by a name that is the next log's if this
// one is moved aside meanwhile. Beside a saved one nothing may stay: it would count.
void leave(DBHandler &log) noexcept {
  if (!log.isConnect()) return;
  const char *const path = sqlite3_db_filename(log.getDB(), "main");
  const char *const name = path == nullptr ? nullptr : strrchr(path, '/');
  if (name != nullptr && strcmp(name, strrchr(paths::kMailLogDB, '/')) == 0)
    sqlite3_db_config(log.getDB(), SQLITE_DBCONFIG_NO_CKPT_ON_CLOSE, 1, nullptr);
  log.disconnect();  // it says itself what fails
}

void logStep(const Statement &statement, DBHandler &db) {
  LOG_ERROR("sqlite3_step: [%d] %s\n", statement.code(), sqlite3_errmsg(db.getDB()));
}

}  // namespace

// ---- construction

MailLog::MailLog(const char *szDBPath) noexcept : m_Error(-1) {
  if (szDBPath == nullptr) {
    LOG_ERROR("Bad Parameter");
    return;
  }
  try {  // a constructor whose whole body were tried would throw on
    mkdir(paths::kMailLogFolder, 0755);  // without it the file below cannot be opened
    m_MailLogDB = std::make_unique<DBHandler>(szDBPath, schemas::kMailLog);
    m_StatisticDB = std::make_unique<DBHandler>(paths::kStatisticDB, schemas::kStatistic);
    m_MailLogDB->setBusyTimeout(kBusyTimeoutMs);
    m_StatisticDB->setBusyTimeout(kBusyTimeoutMs);
    if (!openLog(szDBPath)) return;
    if (m_StatisticDB->connect() != 0) return;
    m_Error = 0;
  } catch (const std::bad_alloc &) {
    LOG_ERROR("Out of memory");
  }
}

MailLog::~MailLog() {
  if (m_MailLogDB != nullptr) leave(*m_MailLogDB);  // without memory there is none
}

// Connects to the log and to its journal or write-ahead log. SQLite opens these by their
// names at the first read: had the collector moved the log aside since, they would be the
// next log's, whose pages would be taken for this one's, or rolled back in it.
bool MailLog::openLog(const char *path) noexcept {
  for (int tries = 1;; tries++) {
    const bool isLast = tries == kMostTries;
    if (tries > 1) usleep(kPauseMicroseconds);
    const internal::MoveLock staying(internal::MoveLock::kOpening);
    if (staying.isRefused() && !isLast) continue;
    const struct stat before = at(path);
    const bool wasMissing = before.st_ino == 0;
    if (wasMissing && !isLast && isCollectorsToMake(path)) continue;
    const bool opened = m_MailLogDB->connect() == 0;
    // a damaged file is met by the first query
    if (opened) Statement(m_MailLogDB->getDB(), "PRAGMA schema_version;").next();
    const struct stat after = at(path);
    const bool isSame = before.st_dev == after.st_dev && before.st_ino == after.st_ino;
    if (opened ? after.st_size > 0 && (isSame || wasMissing) : isSame || isLast)
      return opened;
    leave(*m_MailLogDB);
    if (isLast) return m_MailLogDB->createDB() == 0;  // whoever began it has given up
  }
}

int MailLog::error() const noexcept { return m_Error; }

// ---- counting

int MailLog::getLogNum() noexcept {
  const SQLText sql(sqlite3_mprintf("SELECT Count(*) FROM '%q'", kTable));
  return count(sql.get());
}

int MailLog::getLogNum(std::string &key) noexcept try {
  const std::string pattern = '%' + key + '%';
  const SQLText sql(sqlite3_mprintf(
      "SELECT Count(*) FROM '%q' WHERE message_id LIKE '%q' or mail_from LIKE '%q' or "
      "mail_to LIKE '%q';",
      kTable, pattern.c_str(), pattern.c_str(), pattern.c_str()));
  return count(sql.get());
} catch (const std::bad_alloc &) {
  LOG_ERROR("Out of memory");
  return -1;
}

int MailLog::getLogNum(const LogFilter &filter) noexcept try {
  return count(compose(filter).c_str());
} catch (const std::bad_alloc &) {
  LOG_ERROR("Out of memory");
  return -1;
}

int MailLog::count(const char *sql) noexcept {
  Statement row(m_MailLogDB->getDB(), sql);
  if (row.code() != SQLITE_OK)
    return HandleDBError(*m_MailLogDB, row.code()) == 0 ? 0 : -1;
  int num = -1;
  while (row.next()) num = row.integer(0);
  if (row.code() != SQLITE_DONE) logStep(row, *m_MailLogDB);
  return num;
}

// ---- loading

int MailLog::load(int limit, int offset, const std::string &strSortType,
                  const std::string &strDir, std::vector<MailLogInfo> &log) noexcept {
  const SQLText sql(
      sqlite3_mprintf("SELECT * FROM '%q' ORDER BY %s %s LIMIT '%d' OFFSET '%d'", kTable,
                      strSortType.c_str(), strDir.c_str(), limit, offset));
  return loadRows(sql.get(), limit, false, log);
}

int MailLog::search(int limit, int offset, const std::string &strSortType,
                    const std::string &strDir, const std::string &key,
                    std::vector<MailLogInfo> &log) noexcept try {
  const std::string pattern = '%' + key + '%';
  const SQLText sql(sqlite3_mprintf(
      "SELECT * FROM '%q' WHERE mail_from LIKE '%q' or mail_to LIKE '%q' or message_id "
      "LIKE '%q' ORDER BY %s %s LIMIT '%d' OFFSET '%d';",
      kTable, pattern.c_str(), pattern.c_str(), pattern.c_str(), strSortType.c_str(),
      strDir.c_str(), limit, offset));
  return loadRows(sql.get(), limit, false, log);
} catch (const std::bad_alloc &) {
  LOG_ERROR("Out of memory");
  return -1;
}

int MailLog::load(const LogFilter &filter, std::vector<MailLogInfo> &log) noexcept try {
  return loadRows(compose(filter).c_str(), filter.limit, true, log);
} catch (const std::bad_alloc &) {
  LOG_ERROR("Out of memory");
  return -1;
}

int MailLog::loadRows(const char *sql, int limit, bool isFilter,
                      std::vector<MailLogInfo> &log) noexcept try {
  Statement row(m_MailLogDB->getDB(), sql);
  if (row.code() != SQLITE_OK) {
    if (isFilter) LOG_ERROR("prepare error: [%d]", row.code());
    return HandleDBError(*m_MailLogDB, row.code()) == 0 ? 0 : -1;
  }
  makeRoom(log, limit);
  while (row.next()) append(row, log);
  if (row.code() == SQLITE_DONE) return 0;
  logStep(row, *m_MailLogDB);
  return -1;
} catch (const std::bad_alloc &) {
  LOG_ERROR("Out of memory");
  return -1;
}

std::string MailLog::composeCmd(const LogFilter &filter) noexcept try {
  return compose(filter);
} catch (const std::bad_alloc &) {
  LOG_ERROR("Out of memory");
  return {};
}

// ---- emptying

int MailLog::clear() noexcept try {
  SQLCmd statements;
  statements += FixedSQL<1024>("DROP TABLE %q;", kTable).c_str();
  statements += "VACUUM;";
  statements += schemas::kMailLogTable;
  if (m_MailLogDB->exeCmds(statements, false) == 0) return 0;
  // The last text begins a transaction of its own, which would keep the collector out.
  if (sqlite3_get_autocommit(m_MailLogDB->getDB()) == 0)
    sqlite3_exec(m_MailLogDB->getDB(), "ROLLBACK;", nullptr, nullptr, nullptr);
  m_Error = kMailLogFailed;
  return HandleError();
} catch (const std::bad_alloc &) {
  LOG_ERROR("Out of memory");
  return -1;
}

// ---- statistics

int MailLog::getQuantityStatistic(Statistic &statistic, time_t timeEnd,
                                  TimeScale scale) noexcept {
  return sumUp("SUM(inbound_quantity),SUM(outbound_quantity),SUM(bounce_quantity)", true,
               {&statistic.inbound, &statistic.outbound, &statistic.bounce}, timeEnd,
               scale);
}

int MailLog::getBandwidthStatistic(Statistic &statistic, time_t timeEnd,
                                   TimeScale scale) noexcept {
  return sumUp("SUM(inbound_bandwidth),SUM(outbound_bandwidth)", false,
               {&statistic.inbound, &statistic.outbound}, timeEnd, scale);
}

// Appends the sums of each interval, column by column, to the series. Sums of messages
// are read as an int, its sign kept; those of volumes lose their fraction.
int MailLog::sumUp(const char *sums, bool isInt,
                   std::initializer_list<std::vector<uint64_t> *> series, time_t timeEnd,
                   TimeScale scale) noexcept try {
  const auto [table, width] = scaleOf(scale);
  const int64_t end = timeEnd;
  const OneState state(*m_StatisticDB);  // and one lock, not one for each interval
  for (int64_t start = end - end % width - (int64_t{scale} - 1) * width; end > start;
       start += width) {
    const std::string sql = std::string("SELECT ") + sums + " FROM " + table +
                            " WHERE time >= " + number(start) + " and time < " +
                            number(start + width) + ';';
    Statement row(m_StatisticDB->getDB(), sql.c_str());
    if (row.code() != SQLITE_OK)
      return HandleDBError(*m_StatisticDB, row.code()) == 0 ? 0 : -1;
    int64_t values[3] = {};
    while (row.next())
      for (int i = 0; i < static_cast<int>(series.size()); i++)
        values[i] = isInt ? row.integer(i) : row.integer64(i);
    if (row.code() != SQLITE_DONE) {
      logStep(row, *m_StatisticDB);
      return -1;
    }
    const int64_t *value = values;
    for (std::vector<uint64_t> *const one : series)
      one->push_back(static_cast<uint64_t>(*value++));
  }
  return 0;
} catch (const std::bad_alloc &) {
  LOG_ERROR("Out of memory");
  return -1;
}

// ---- errors

int MailLog::HandleError() noexcept {
  if (m_Error != kMailLogFailed && m_Error != kStatisticFailed) return m_Error = -1;
  DBHandler &db = m_Error == kMailLogFailed ? *m_MailLogDB : *m_StatisticDB;
  m_Error = HandleDBError(db, db.getErrCode()) == 0 ? 0 : -1;
  return m_Error;
}

int MailLog::HandleDBError(DBHandler &db, int code) noexcept {
  if (code != SQLITE_CORRUPT) return code;
  LOG_ERROR("db corrupt, need regen");
  return db.regenDB();
}
