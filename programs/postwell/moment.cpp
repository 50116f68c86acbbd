// Moments: times of day are the machine's local ones unless the text tells its zone. A
// local time that occurs twice is the one that the C library chooses; one that does not
// exist, in the hour that summer time leaves out, is moved by it.

#include "moment.h"

#include <limits>
#include <regex>

#include "common/text.h"

namespace {

constexpr int64_t kMinute = 60, kHour = 60 * kMinute, kDay = 24 * kHour;

std::optional<time_t> fitting(int64_t moment) {
  if (moment < std::numeric_limits<time_t>::min() ||
      moment > std::numeric_limits<time_t>::max())
    return std::nullopt;
  return static_cast<time_t>(moment);
}

// mktime() fails with -1, which is a second before 1970 as well, and then leaves the
// rest.
std::optional<time_t> fromLocal(tm fields) {
  fields.tm_isdst = -1;
  fields.tm_wday = -1;
  const time_t moment = mktime(&fields);
  if (fields.tm_wday == -1) return std::nullopt;
  return moment;
}

// When the local day that holds `fields` begins or, with its last second, ends.
std::optional<time_t> endOfDay(tm fields, DayEnd end) {
  fields.tm_hour = fields.tm_min = fields.tm_sec = 0;
  fields.tm_mday += end == DayEnd::kLast ? 1 : 0;
  const std::optional<time_t> start = fromLocal(fields);
  return start && end == DayEnd::kLast ? fitting(int64_t{*start} - 1) : start;
}

std::optional<time_t> namedDay(time_t now, int daysAgo, DayEnd end) {
  tm fields{};
  if (localtime_r(&now, &fields) == nullptr) return std::nullopt;
  fields.tm_mday -= daysAgo;
  return endOfDay(fields, end);
}

int64_t secondsIn(char unit) {
  switch (unit) {
    case 's':
      return 1;
    case 'm':
      return kMinute;
    case 'h':
      return kHour;
    case 'd':
      return kDay;
    default:
      return 7 * kDay;
  }
}

int numberIn(const std::smatch &match, size_t group) {
  return match[group].matched ? std::stoi(match[group].str()) : 0;
}

// No February 30th and no 25 o'clock.
bool isOnCalendar(const tm &fields) {
  tm normal = fields;
  timegm(&normal);
  return normal.tm_mday == fields.tm_mday && normal.tm_mon == fields.tm_mon &&
         normal.tm_hour == fields.tm_hour && normal.tm_min == fields.tm_min &&
         normal.tm_sec == fields.tm_sec;
}

// "Z", "+01:00" or "+0100" in seconds.
int64_t offsetOf(const std::string &zone) {
  if (zone == "z") return 0;
  const int64_t amount = std::stoi(zone.substr(1, 2)) * kHour +
                         std::stoi(zone.substr(zone.size() - 2)) * kMinute;
  return zone[0] == '-' ? -amount : amount;
}

std::optional<time_t> fromCalendar(const std::smatch &match, DayEnd end) {
  enum { kYear = 1, kMonth, kDayOfMonth, kTime, kHours, kMinutes, kSeconds, kZone };
  tm fields{};
  fields.tm_year = numberIn(match, kYear) - 1900;
  fields.tm_mon = numberIn(match, kMonth) - 1;
  fields.tm_mday = numberIn(match, kDayOfMonth);
  fields.tm_hour = numberIn(match, kHours);
  fields.tm_min = numberIn(match, kMinutes);
  fields.tm_sec = numberIn(match, kSeconds);
  if (!isOnCalendar(fields)) return std::nullopt;
  if (!match[kTime].matched) return endOfDay(fields, end);
  if (match[kZone].matched)
    return fitting(int64_t{timegm(&fields)} - offsetOf(match[kZone].str()));
  return fromLocal(fields);
}

std::string formatted(const char *format, const tm &fields) {
  char text[64];
  return {text, strftime(text, sizeof text, format, &fields)};
}

}  // namespace

std::optional<time_t> parseMoment(const std::string &text, time_t now, DayEnd end) {
  static const std::regex kCalendar(
      "([0-9]{4})-([0-9]{2})-([0-9]{2})"
      "([t ]([0-9]{2}):([0-9]{2})(?::([0-9]{2}))?(?: "
      "?(z|[-+]([01][0-9]|2[0-3]):?[0-5][0-9]))?)?");
  static const std::regex kAgo(
      "(-)?([0-9]{1,7}) ?(s|m|h|d|w|(?:second|minute|hour|day|week)s?)( ago)?");
  const std::string word = lowerCase(text);
  if (word == "now") return now;
  if (word == "today") return namedDay(now, 0, end);
  if (word == "yesterday") return namedDay(now, 1, end);
  std::smatch match;
  if (std::regex_match(word, match, kCalendar)) return fromCalendar(match, end);
  // one of the two says which way
  if (std::regex_match(word, match, kAgo) && match[1].matched != match[4].matched)
    return fitting(now - std::stoll(match[2].str()) * secondsIn(*match[3].first));
  return std::nullopt;
}

std::string localTime(time_t moment) {
  tm fields{};
  if (localtime_r(&moment, &fields) == nullptr) return std::to_string(moment);
  return formatted("%Y-%m-%d %H:%M:%S %z", fields);
}

std::string utcTime(time_t moment) {
  tm fields{};
  if (gmtime_r(&moment, &fields) == nullptr) return std::to_string(moment);
  return formatted("%Y-%m-%dT%H:%M:%SZ", fields);
}
