// A record as mail makes it, for the benchmarks of the mail log.

#ifndef POSTWELL_BENCHMARKS_MAIL_RECORD_H_
#define POSTWELL_BENCHMARKS_MAIL_RECORD_H_

#include <maillogger.h>

#include <cstdio>
#include <ctime>

// A Message-ID of some 50 bytes, addresses of some 25.
inline LogSocket recordOf(int number) {
  LogSocket record{};
  record.log_time = static_cast<int32_t>(time(nullptr));
  snprintf(record.szQueueID, sizeof record.szQueueID, "4XyZ%07dzSq", number);
  snprintf(record.szMessageID, sizeof record.szMessageID,
           "<20261121.%08d.4711abcdef@mail.example.org>", number);
  snprintf(record.szMailFrom, sizeof record.szMailFrom, "sender%d@mail.example.com",
           number % 1000);
  snprintf(record.szMailTo, sizeof record.szMailTo, "recipient%d@example.org",
           number % 1000);
  record.mail_size = 1000 + number;
  record.status = number % 4;
  return record;
}

#endif  // POSTWELL_BENCHMARKS_MAIL_RECORD_H_
