// The mail log: one entry for each delivery event, and the traffic's statistics.

#ifndef POSTWELL_MAILLOG_H_
#define POSTWELL_MAILLOG_H_

#include <cstdint>
#include <ctime>
#include <initializer_list>
#include <memory>
#include <string>
#include <vector>

#include "postwell.h"

class DBHandler;

// What became of the message: handed on to another server, put into a local mailbox,
// given back to its sender, or put off to be tried again. Stored as these numbers.
enum MailStatus : int {
  STATUS_SENT = 0,
  STATUS_RECEIVE = 1,
  STATUS_BOUNCE = 2,
  STATUS_RESENT = 3
};

struct MailLogInfo {
  std::string strMessageID;
  std::string strQueueID;
  time_t log_time = 0;
  tm date = {};                     // log_time as local time; filled by the queries only
  long mailSize = 0;                // bytes
  MailStatus status = STATUS_SENT;  // may hold any number that a sender has written
  std::string strMailTo;
  std::string strMailFrom;
};

// The columns of "mail_log_table" by their position in a row.
enum LogColumnIndex : int {
  COLUMN_MESSAGE_ID = 0,
  COLUMN_QUEUE_ID = 1,
  COLUMN_DATE = 2,
  COLUMN_MAIL_FROM = 3,
  COLUMN_MAIL_TO = 4,
  COLUMN_SIZE = 5,
  COLUMN_STATUS = 6
};

// A query. Every field has to be set. The first five and `sizeOpt` become SQL as they
// stand: never fill them with what a user typed.
struct LogFilter {
  std::string select;     // "*" for rows, "count(*)" for their number
  int start;              // rows to leave out
  int limit;              // rows at most; -1: no limit
  std::string orderDir;   // "asc" or "desc"
  std::string orderType;  // a column
  std::string messageID;  // the texts are parts of what is sought, in which "%" and "_"
  std::string mailTo;     // stand for any text and any character; empty: no condition
  std::string mailFrom;
  std::string sizeOpt;  // "<", ">", ...; "any": no condition
  long mailSize;        // bytes
  int status;           // a MailStatus; -1: no condition
  time_t dateFrom;      // both inclusive; 0: no condition
  time_t dateTo;
};

// Traffic by intervals, oldest first: messages, or kibibytes without their fraction.
struct Statistic {
  std::vector<uint64_t> inbound;
  std::vector<uint64_t> outbound;
  std::vector<uint64_t> bounce;  // of messages only
};

// How far statistics reach back; the number is that of the intervals, which are an hour,
// a day, a day and 30 days long and begin at multiples of that since the epoch.
enum TimeScale : int { DAY = 24, WEEK = 7, MONTH = 30, HALF_YEAR = 6 };

// Reads one log, the live one or a saved one, and the statistics, also while the
// collector writes. Construct, check error(). For one thread.
//
// A damaged file is met when a query is prepared: it is made anew, empty, and the query
// succeeds as on an empty log. Times are the machine's local ones.
class POSTWELL_API MailLog {
 public:
  // Opens both files; a missing one is made. A null path is a failure.
  explicit MailLog(const char *szDBPath) noexcept;
  ~MailLog();
  MailLog(const MailLog &) = delete;
  MailLog &operator=(const MailLog &) = delete;

  // 0 when usable. -1 when a file could not be opened: nothing but the destructor may
  // then be called. -1 also after a clear() that failed.
  int error() const noexcept;

  // The number of rows: all, those with `key` in Message-ID, sender or recipient, and
  // those of a filter whose `select` is "count(*)". -1 on a failure; beyond an int the
  // number is worthless.
  int getLogNum() noexcept;
  int getLogNum(std::string &key) noexcept;  // does not change it
  int getLogNum(const LogFilter &filter) noexcept;

  // Append rows to `log`: a page of all, of those with `key`, and those of a filter
  // whose `select` is "*". `limit` -1 is no limit. The sort column and direction become
  // SQL as they stand. 0, or -1 with the rows that were read before the failure.
  // Entries have no queue id, and their time is in `date` alone.
  int load(int limit, int offset, const std::string &strSortType,
           const std::string &strDir, std::vector<MailLogInfo> &log) noexcept;
  int search(int limit, int offset, const std::string &strSortType,
             const std::string &strDir, const std::string &key,
             std::vector<MailLogInfo> &log) noexcept;
  int load(const LogFilter &filter, std::vector<MailLogInfo> &log) noexcept;

  // The filter as SQL; empty without memory.
  std::string composeCmd(const LogFilter &filter) noexcept;

  // Takes all rows out of the log; the statistics stay. 0 or -1.
  int clear() noexcept;

  // Append the traffic of the intervals up to the one that holds `timeEnd`: `scale` of
  // them, one less when `timeEnd` is where an interval begins. 0 or -1; a failure, and
  // a damaged file that was made anew, leave fewer.
  int getQuantityStatistic(Statistic &statistic, time_t timeEnd,
                           TimeScale scale) noexcept;
  int getBandwidthStatistic(Statistic &statistic, time_t timeEnd,
                            TimeScale scale) noexcept;

 private:
  bool openLog(const char *path) noexcept;
  int count(const char *sql) noexcept;
  int loadRows(const char *sql, int limit, bool isFilter,
               std::vector<MailLogInfo> &log) noexcept;
  int sumUp(const char *sums, bool isInt,
            std::initializer_list<std::vector<uint64_t> *> series, time_t timeEnd,
            TimeScale scale) noexcept;
  int HandleError() noexcept;
  int HandleDBError(DBHandler &db, int code) noexcept;

  std::unique_ptr<DBHandler> m_MailLogDB;
  std::unique_ptr<DBHandler> m_StatisticDB;
  int m_Error;
};

#endif  // POSTWELL_MAILLOG_H_
