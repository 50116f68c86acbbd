// What is sought in the mail log, and how it is found.

#ifndef POSTWELL_PROGRAMS_LOG_QUERY_H_
#define POSTWELL_PROGRAMS_LOG_QUERY_H_

#include <maillog.h>

#include <memory>
#include <optional>
#include <set>
#include <string>
#include <vector>

#include "log_files.h"

// What an entry has to be; what is not set is no condition. Texts are sought as they
// stand, ASCII letters in either case.
struct Conditions {
  std::string key;  // part of the Message-ID, the sender or the recipient
  std::string messageID, from, to;
  bool wholeMessageID = false;
  std::optional<int> status;
  std::optional<time_t> since, until;   // both inclusive
  std::optional<long> larger, smaller;  // bytes, both exclusive
};

// How the entries come, and which of them.
struct Page {
  std::string column = "date";  // of the table
  bool descending = false;
  int limit = 50;  // -1: all
  int offset = 0;
};

time_t timeOf(const MailLogInfo &entry);

// The entries of the logs, which are in the order of time, or only their number. They
// are opened one after the other; damage is told. One that cannot be read is a failure;
// when all are asked for it is told, once, and the others are read.
class LogQuery {
 public:
  // The live log, one saved log (its name is checked), or all.
  enum Which { kLive, kSaved, kAll };
  LogQuery(Which which, const std::string &name) : which_(which), name_(name) {}

  std::vector<MailLogInfo> entries(const Conditions &conditions, const Page &page);
  long count(const Conditions &conditions);
  std::optional<time_t> lastTime();  // of the last entry that there is

  // Fails when a log was left out: the end of a command that has shown the others.
  void failIfIncomplete() const;

 private:
  template <class Visit>
  void forEachLog(bool newestFirst, Visit visit);
  template <class Work>
  void unlessBad(const std::string &name, Work work);
  std::unique_ptr<LogFile> opened(const std::string &name);

  Which which_;
  std::string name_;
  std::set<std::string> leftOut_;
};

// What one log holds.
struct LogSummary {
  long entries = 0;
  std::optional<time_t> first, last;
};
LogSummary summaryOf(LogFile &file);

#endif  // POSTWELL_PROGRAMS_LOG_QUERY_H_
