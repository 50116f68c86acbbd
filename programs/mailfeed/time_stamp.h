// The time stamps at the beginning of log lines, in both forms that Postfix's logs have.

#ifndef POSTWELL_MAILFEED_TIME_STAMP_H_
#define POSTWELL_MAILFEED_TIME_STAMP_H_

#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>

// "2026-11-21T02:16:49.826432+00:00" tells all; "Nov 21 02:04:20" is local time and lacks
// the year, which comes from when the line was written: the latest that fits.
class StampReader {
 public:
  // The lines that follow were written no later than this (seconds since the epoch); two
  // days more are allowed for clocks and time zones that disagree.
  void writtenBy(int64_t time);

  // The first line that follows is of this year, and each further one within half a year
  // of the one before it.
  void beginInYear(int year);

  // Reads the stamp that the line begins with. Its length, or 0 when there is none.
  size_t read(std::string_view line, int64_t *time);

 private:
  size_t readShort(std::string_view line, int64_t *time);
  bool resolveMinute(std::string_view stamp);

  int64_t latest_ = INT64_MAX;  // no stamp without a year is later
  bool follow_ = false;         // latest_ goes along with the lines
  std::string minute_;          // the last short stamp without its seconds ...
  int64_t minuteTime_ = 0;      // ... and when that was
};

#endif  // POSTWELL_MAILFEED_TIME_STAMP_H_
