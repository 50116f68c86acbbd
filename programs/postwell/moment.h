// Moments as users write them, and as they are shown.

#ifndef POSTWELL_PROGRAMS_MOMENT_H_
#define POSTWELL_PROGRAMS_MOMENT_H_

#include <ctime>
#include <optional>
#include <string>

// Which end of a day that is named without a time of day.
enum class DayEnd { kFirst, kLast };

// The moment that the text names, seen from `now`; none when it names none:
//   2026-11-21, 2026-11-21 14:30[:05], with a "T" for the blank; local time unless Z,
//   +01:00 or +0100 stands behind it, as the two functions below write it;
//   now, today, yesterday;
//   "2 hours ago" and -2h with seconds, minutes, hours, days (24 hours) and weeks.
std::optional<time_t> parseMoment(const std::string &text, time_t now, DayEnd end);

std::string localTime(time_t moment);  // 2026-11-21 03:16:49 +0100
std::string utcTime(time_t moment);    // 2026-11-21T02:16:49Z

#endif  // POSTWELL_PROGRAMS_MOMENT_H_
