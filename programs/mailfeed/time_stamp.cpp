// Reading by hand, since strptime() and mktime() for each line would take longer than all
// else: a log has many lines in the same minute, so only a new minute is worked out.
//
// Times are 64-bit here. mktime() works in time_t, which ends in 2038 on the 32-bit
// machine; a year that it cannot represent is passed over.

#include "time_stamp.h"

#include <algorithm>
#include <ctime>
#include <limits>

namespace {

constexpr int64_t kMinute = 60;
constexpr int64_t kHour = 3600;
constexpr int64_t kDay = 86400;
constexpr int64_t kTolerance = 2 * kDay;
constexpr size_t kMinuteLength = 12;  // "Nov 21 02:04"
constexpr size_t kShortLength = 15;   // "Nov 21 02:04:20"
constexpr size_t kIsoLength = 19;     // "2026-11-21T02:16:49"
constexpr int kLeapYearsApart = 8;    // at most, around a year such as 2100

struct Civil {
  int year, month, day, hour, minute, second;  // the month from 1
};

bool isDigit(char c) { return c >= '0' && c <= '9'; }

// The number of `length` digits there; -1 when they are none.
int number(std::string_view text, size_t at, size_t length) {
  int value = 0;
  for (size_t i = at; i < at + length; ++i) {
    if (i >= text.size() || !isDigit(text[i])) return -1;
    value = value * 10 + (text[i] - '0');
  }
  return value;
}

bool isLeap(int year) { return (year % 4 == 0 && year % 100 != 0) || year % 400 == 0; }

int daysIn(int month, int year) {
  static constexpr int kDays[] = {31, 28, 31, 30, 31, 30, 31, 31, 30, 31, 30, 31};
  return month == 2 && isLeap(year) ? 29 : kDays[month - 1];
}

bool isTime(const Civil &t) {
  return t.month >= 1 && t.month <= 12 && t.day >= 1 &&
         t.day <= daysIn(t.month, t.year) && t.hour >= 0 && t.hour < 24 &&
         t.minute >= 0 && t.minute < 60 && t.second >= 0 && t.second <= 60;
}

// Seconds since the epoch of a time in UTC. A year is taken to begin in March, so that
// the leap day is its last.
int64_t utc(const Civil &t) {
  const int64_t year = t.month > 2 ? t.year : t.year - 1;
  const int64_t day = (153 * ((t.month + 9) % 12) + 2) / 5 + t.day - 1;
  const int64_t era = (year >= 0 ? year : year - 399) / 400;
  const int64_t ofEra = year - era * 400;
  const int64_t days =
      era * 146097 + ofEra * 365 + ofEra / 4 - ofEra / 100 + day - 719468;
  return days * kDay + t.hour * kHour + t.minute * kMinute + t.second;
}

bool local(const Civil &t, int64_t *time) {
  tm broken = {};
  broken.tm_year = t.year - 1900;
  broken.tm_mon = t.month - 1;
  broken.tm_mday = t.day;
  broken.tm_hour = t.hour;
  broken.tm_min = t.minute;
  broken.tm_sec = t.second;
  broken.tm_isdst = -1;
  const time_t result = mktime(&broken);
  *time = result;
  return result != -1;  // the second before the epoch is no loss
}

int yearOf(int64_t time) {
  constexpr int64_t kYear9999 = 253370764800;
  constexpr int64_t kEnd =
      std::min<int64_t>(std::numeric_limits<time_t>::max(), kYear9999);
  const auto limited = static_cast<time_t>(std::clamp<int64_t>(time, 0, kEnd));
  tm broken = {};
  localtime_r(&limited, &broken);
  return broken.tm_year + 1900;
}

int monthNamed(std::string_view name) {
  static constexpr std::string_view kNames = "JanFebMarAprMayJunJulAugSepOctNovDec";
  const size_t at = kNames.find(name);
  return at == std::string_view::npos || at % 3 != 0 ? 0 : static_cast<int>(at / 3) + 1;
}

size_t skipDigits(std::string_view text, size_t at) {
  while (at < text.size() && isDigit(text[at])) ++at;
  return at;
}

// Reads "Z", "+01:00" or "+0100" at `at`. Its length, or 0.
size_t readOffset(std::string_view line, size_t at, int64_t *seconds) {
  *seconds = 0;
  if (at >= line.size()) return 0;
  if (line[at] == 'Z') return 1;
  if (line[at] != '+' && line[at] != '-') return 0;
  const size_t colon = at + 3 < line.size() && line[at + 3] == ':' ? 1 : 0;
  const int hours = number(line, at + 1, 2);
  const int minutes = number(line, at + 3 + colon, 2);
  if (hours < 0 || minutes < 0) return 0;
  *seconds = (hours * kHour + minutes * kMinute) * (line[at] == '-' ? -1 : 1);
  return 5 + colon;
}

// Without an offset the time is a local one.
size_t readIso(std::string_view line, int64_t *time) {
  const Civil t = {number(line, 0, 4),  number(line, 5, 2),  number(line, 8, 2),
                   number(line, 11, 2), number(line, 14, 2), number(line, 17, 2)};
  if (t.year < 0 || line[4] != '-' || line[7] != '-' || line[10] != 'T' ||
      line[13] != ':' || line[16] != ':' || !isTime(t))
    return 0;
  size_t end = kIsoLength;
  if (end < line.size() && line[end] == '.') end = skipDigits(line, end + 1);
  int64_t offset = 0;
  const size_t length = readOffset(line, end, &offset);
  if (length == 0) return local(t, time) ? end : 0;
  *time = utc(t) - offset;
  return end + length;
}

}  // namespace

void StampReader::writtenBy(int64_t time) {
  if (follow_ || latest_ == time + kTolerance) return;
  latest_ = time + kTolerance;
  minute_.clear();
}

void StampReader::beginInYear(int year) {
  follow_ = true;
  const Civil end = {year, 12, 31, 23, 59, 59};
  if (!local(end, &latest_)) latest_ = utc(end);
  minute_.clear();
}

size_t StampReader::read(std::string_view line, int64_t *time) {
  if (line.size() < kShortLength) return 0;
  if (!isDigit(line[0])) return readShort(line, time);
  return line.size() < kIsoLength ? 0 : readIso(line, time);
}

size_t StampReader::readShort(std::string_view line, int64_t *time) {
  const int second = number(line, 13, 2);
  if (second < 0 || second > 60 || line[12] != ':') return 0;
  const std::string_view minute = line.substr(0, kMinuteLength);
  if (minute != minute_ && !resolveMinute(minute)) return 0;
  *time = minuteTime_ + second;
  return kShortLength;
}

// Finds the latest year in which the minute exists and is not too late; a 29th of
// February may have to go back several.
bool StampReader::resolveMinute(std::string_view stamp) {
  const int tens = stamp[4] == ' ' ? 0 : number(stamp, 4, 1) * 10;
  Civil t = {0,
             monthNamed(stamp.substr(0, 3)),
             number(stamp, 5, 1) < 0 ? -1 : tens + number(stamp, 5, 1),
             number(stamp, 7, 2),
             number(stamp, 10, 2),
             0};
  if (stamp[3] != ' ' || stamp[6] != ' ' || stamp[9] != ':') return false;
  const int last = yearOf(latest_);
  for (t.year = last; t.year > last - kLeapYearsApart - 2; --t.year) {
    if (!isTime(t) || !local(t, &minuteTime_) || minuteTime_ > latest_) continue;
    minute_ = stamp;
    if (follow_) latest_ = minuteTime_ + 183 * kDay;
    return true;
  }
  return false;
}
