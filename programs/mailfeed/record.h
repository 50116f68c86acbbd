// From a delivery to the record that crosses the collector's socket.

#ifndef POSTWELL_MAILFEED_RECORD_H_
#define POSTWELL_MAILFEED_RECORD_H_

#include <maillogger.h>

#include <cstdint>
#include <string>
#include <string_view>

// One delivery event, as the log tells it.
struct Delivery {
  int64_t time = 0;  // seconds since the epoch
  std::string queueId;
  std::string messageId;  // without the <> around it
  std::string from;
  std::string to;
  int64_t size = 0;  // bytes
  MailStatus status = STATUS_SENT;
};

// The text as valid UTF-8 without control characters, each offending byte as "?"; cut
// between characters so that it has at most `limit` bytes, and at most `quotedLimit` with
// each single quote doubled.
std::string cleanText(std::string_view text, size_t limit, size_t quotedLimit);

// Any delivery makes a record with which the collector's INSERT statement fits its buffer
// of 2048 bytes. Numbers beyond 32 bits become the nearest that fits.
LogSocket makeRecord(const Delivery &delivery);

#endif  // POSTWELL_MAILFEED_RECORD_H_
