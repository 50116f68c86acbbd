// The mail log's collector: takes records from a socket, writes them in batches to
// rotating databases and keeps traffic counters.

#ifndef POSTWELL_MAILLOGGER_H_
#define POSTWELL_MAILLOGGER_H_

#include <cstdint>
#include <ctime>
#include <list>
#include <map>
#include <memory>
#include <string>

#include "maillog.h"
#include "postwell.h"

class DBHandler;
struct SQLCmd;

// One delivery event as it crosses /var/run/maillog.sock: 1292 bytes without gaps, in
// the byte order of the machine, written by one call. Texts end with a NUL.
struct LogSocket {
  int32_t log_time;  // seconds since the epoch
  char szQueueID[256];
  char szMessageID[512];
  char szMailFrom[256];
  char szMailTo[256];
  int32_t mail_size;  // bytes
  int32_t status;     // a MailStatus
};
static_assert(sizeof(LogSocket) == 1292, "the record is what senders write");

enum LOG_STATUS : int {
  STATUS_NEED_FLUSH = 0,
  STATUS_NO_NEED_FLUSH = 1,
  STATUS_NEED_ROTATE = 2,
  STATUS_NO_NEED_ROTATE = 3,
  STATUS_NEED_FLUSH_COUNTER = 4,
  STATUS_NO_NEED_FLUSH_COUNTER = 5
};

// Lengths of the counters' intervals in seconds.
enum CountInterval : int {
  COUNT_PER_30_SECOND = 30,
  COUNT_PER_HOUR = 3600,
  COUNT_PER_DAY = 86400
};

// The traffic of one interval; a missing status counts as 0. Both wrap at 2^32.
struct Count {
  std::map<MailStatus, uint32_t> quantity;   // entries
  std::map<MailStatus, uint32_t> bandwidth;  // bytes
};

// Construct one, check error(), then call run() in a loop; deleting it flushes what
// is still in memory. For one thread.
class POSTWELL_API MailLogger {
 public:
  // Listens on /var/run/maillog.sock, in place of whoever did before. Cached entries
  // wait at most logCacheTime seconds, or until there are more than 200, for the end of
  // the pass that writes them; with more than logRotateThreshold rows in "maillog.db"
  // the file is moved aside under a dated name, of which 20 are kept, as soon as nobody
  // reads an older state of it.
  MailLogger(int logCacheTime, int logRotateThreshold) noexcept;
  // Removes the socket, then writes the cached entries and the counters.
  ~MailLogger();
  MailLogger(const MailLogger &) = delete;
  MailLogger &operator=(const MailLogger &) = delete;

  // The error state, which reading sets back to 0: -1 failed; 1, 2 a failure of the
  // mail log or of the counters that was not handled. After construction anything but 0
  // forbids run(); 0 alone does not promise a usable object: a "maillog.db" that could
  // not be counted and has been made anew leaves it without its two limits.
  int error() noexcept;

  // One pass: takes what one sender has to say (waiting at most 3 seconds for one),
  // then writes and rotates where it is time.
  void run() noexcept;

  // The steps of a pass. A failure is logged and kept in error(); entries that could
  // not be written stay cached.
  void receiveLog() noexcept;
  void cacheLog(const LogSocket &record) noexcept;
  void flushLogToDB() noexcept;
  void rotateLog() noexcept;

  // Does nothing.
  void updateStatistic() noexcept;

 private:
  int initSocket() noexcept;
  void destroySocket() noexcept;

  int logCacheCheck() const noexcept;
  int logRotateCheck() const noexcept;
  int counterStatusCheck() const noexcept;

  int getLogNum() noexcept;
  bool moveAside(const std::string &savedName) noexcept;
  std::string getSavedLogDBName();
  int getSavedLogDBNum();
  void rotateSavedLogDB();

  time_t getRoundTime(time_t t, CountInterval interval) const noexcept;
  void statistic(const MailLogInfo &entry);
  int loadDate();
  int loadCounter(std::map<long, Count> &counter, CountInterval interval);
  void clearCounter();
  void flushCounterToDB() noexcept;

  bool store(const SQLCmd &statements, int which) noexcept;
  void disconnect(int which) noexcept;
  int HandleError() noexcept;
  int HandleDBError(DBHandler &db, int code) noexcept;

  int m_LogCacheTime;        // seconds
  int m_LogRotateThreshold;  // rows
  int m_TotalLogNum;         // rows believed to be in "maillog.db"
  time_t m_LastFlushTime;
  time_t m_LastCountTime;   // when an entry was counted last
  time_t m_LastUpdateTime;  // when the counters were written last
  int m_Err;
  int m_LogFd;  // the listening socket
  std::list<MailLogInfo> m_CachedLogList;
  std::unique_ptr<DBHandler> m_MailLogDB;
  std::unique_ptr<DBHandler> m_LogCountDB;
  std::map<long, Count> m_CounterSecond;  // by the interval's start
  std::map<long, Count> m_CounterHour;
  std::map<long, Count> m_CounterDay;
};

#endif  // POSTWELL_MAILLOGGER_H_
