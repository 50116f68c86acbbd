// Reads what the process under test writes to the system log.

#ifndef POSTWELL_TESTS_SYSLOG_READER_H_
#define POSTWELL_TESTS_SYSLOG_READER_H_

#include <string>
#include <thread>
#include <vector>

struct LogLine {
  int priority;      // LOG_ERR, LOG_DEBUG, …
  std::string text;  // without time stamp and program name
};

// Owns /dev/log of the private root while it lives. A thread of its own drains
// the socket, since the kernel queues only some ten lines before syslog() blocks.
class SyslogReader {
 public:
  SyslogReader();
  ~SyslogReader();
  SyslogReader(const SyslogReader &) = delete;
  SyslogReader &operator=(const SyslogReader &) = delete;

  // Everything logged since the last call, in order.
  std::vector<LogLine> take();

 private:
  void drain();
  int socket_;
  int stop_;
  std::vector<LogLine> lines_;
  std::thread thread_;
};

#endif  // POSTWELL_TESTS_SYSLOG_READER_H_
