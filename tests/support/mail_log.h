// Records for the mail log's collector, and the rows that come out of it.

#ifndef POSTWELL_TESTS_MAIL_LOG_H_
#define POSTWELL_TESTS_MAIL_LOG_H_

#include <string>
#include <vector>

#include "maillogger.h"
#include "support/database.h"
#include "support/files.h"

namespace collector {

using Rows = std::vector<std::string>;

inline const std::string kFolder = "/var/packages/Postwell/target/etc/maillog/";
inline const std::string kLog = kFolder + "maillog.db";  // the live one
inline const std::string kStatistic = "/var/packages/Postwell/etc/log_statistic.db";
inline const std::string kSocket = "/var/run/maillog.sock";

// ---- records

struct Entry {
  std::string id = "<id@host>";
  std::string queue = "4XyZ";
  std::string from = "a@example.org";
  std::string to = "b@example.org";
  int32_t time = 1700000015;
  int32_t size = 1000;
  int32_t status = STATUS_RECEIVE;
};

// Fields longer than theirs lose their end, and their NUL.
LogSocket record(const Entry &entry);
LogSocket numbered(int number);  // with "<number>" as its Message-ID

// One connection that sends each of these by one write and closes; all of it has to fit
// the socket's buffer.
void send(const std::vector<std::string> &writes);
std::string bytesOf(const LogSocket &record);

// ---- what is stored

// The rows of a log in their order, "id|queue|date|from|to|size|status".
Rows logRows(const std::string &path = kLog);
Rows idsIn(const std::string &path);
long countIn(const std::string &path);

// The saved logs, by name; with what lies beside them they are all of the folder but the
// live log and what belongs to it.
std::vector<std::string> savedLogs();

// Of every row in saved and live logs the Message-ID, sorted; what integrity_check
// complains about stands among them.
Rows allIds();

}  // namespace collector

#endif  // POSTWELL_TESTS_MAIL_LOG_H_
