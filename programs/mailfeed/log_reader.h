// From lines to deliveries, with a count of what was read.

#ifndef POSTWELL_MAILFEED_LOG_READER_H_
#define POSTWELL_MAILFEED_LOG_READER_H_

#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

#include "messages.h"
#include "time_stamp.h"

// A line need not be kept longer than this; Postfix's are a tenth of it.
constexpr size_t kLongestLine = 65536;

struct Counters {
  uint64_t lines = 0;          // all that were read
  uint64_t notUnderstood = 0;  // of those that should have been
  uint64_t sent = 0;           // records that the collector has taken
  int64_t lastTime = 0;        // of the last line with a time stamp
  std::string lastNotUnderstood;
};

class LogReader {
 public:
  // Takes the line, and adds the deliveries that it tells of. Lines of other programs
  // and about other things are no mistake.
  void take(std::string_view line, std::vector<Delivery> *deliveries);

  StampReader &stamps() { return stamps_; }
  Messages &messages() { return messages_; }
  const Messages &messages() const { return messages_; }
  Counters &counters() { return counters_; }
  const Counters &counters() const { return counters_; }

 private:
  bool understand(std::string_view line, std::vector<Delivery> *deliveries);

  StampReader stamps_;
  Messages messages_;
  Counters counters_;
};

#endif  // POSTWELL_MAILFEED_LOG_READER_H_
