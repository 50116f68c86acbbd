// The time stamps of log lines, with and without a year.

#include <gtest/gtest.h>

#include <cstdlib>
#include <ctime>
#include <utility>

#include "time_stamp.h"

namespace {

class Stamps : public testing::Test {
 protected:
  Stamps() { zone("UTC"); }
  ~Stamps() override { zone("UTC"); }

  static void zone(const char *name) {
    setenv("TZ", name, 1);
    tzset();
  }

  static int64_t utc(int year, int month, int day, int hour = 0, int minute = 0,
                     int second = 0) {
    tm broken = {};
    broken.tm_year = year - 1900;
    broken.tm_mon = month - 1;
    broken.tm_mday = day;
    broken.tm_hour = hour;
    broken.tm_min = minute;
    broken.tm_sec = second;
    return timegm(&broken);
  }

  // The time of the stamp in a line written at `written`; -1 when there is none.
  static int64_t read(const std::string &stamp, int64_t written) {
    StampReader reader;
    reader.writtenBy(written);
    int64_t time = 0;
    const size_t length = reader.read(stamp + " mail postfix", &time);
    EXPECT_EQ(length, length == 0 ? 0 : stamp.size()) << stamp;
    return length == 0 ? -1 : time;
  }
};

TEST_F(Stamps, IsoTellsAll) {
  const int64_t time = utc(2026, 11, 21, 2, 16, 49);
  for (const char *stamp :
       {"2026-11-21T02:16:49.826432+00:00", "2026-11-21T02:16:49Z",
        "2026-11-21T02:16:49.1+0000", "2026-11-21T03:46:49+01:30",
        "2026-11-20T18:16:49.999999-08:00", "2026-11-21T02:16:49-00:00"})
    EXPECT_EQ(read(stamp, 0), time) << stamp;
}

TEST_F(Stamps, IsoWithoutAnOffsetIsLocal) {
  zone("CET-1CEST,M3.5.0,M10.5.0/3");
  EXPECT_EQ(read("2026-11-21T03:16:49", 0), utc(2026, 11, 21, 2, 16, 49));
  EXPECT_EQ(read("2026-07-21T04:16:49.5", 0), utc(2026, 7, 21, 2, 16, 49));
}

TEST_F(Stamps, IsoFarAwayIsRead) {
  EXPECT_EQ(read("1969-12-31T23:59:59Z", 0), -1);
  EXPECT_EQ(read("1901-12-13T20:45:52Z", 0), INT32_MIN);
  EXPECT_EQ(read("2038-01-19T03:14:08Z", 0), int64_t{INT32_MAX} + 1);
  EXPECT_EQ(read("9999-12-31T23:59:59Z", 0), 253402300799);
  EXPECT_EQ(read("2000-02-29T00:00:00Z", 0), 951782400);
  EXPECT_EQ(read("0000-03-01T00:00:00Z", 0), -62162035200);
}

TEST_F(Stamps, ShortTakesTheYearFromWhenItWasWritten) {
  const int64_t written = utc(2026, 11, 21, 2, 5);
  EXPECT_EQ(read("Nov 21 02:04:20", written), utc(2026, 11, 21, 2, 4, 20));
  EXPECT_EQ(read("Jan  1 00:00:00", written), utc(2026, 1, 1));
  EXPECT_EQ(read("Jan 01 00:00:00", written), utc(2026, 1, 1));
  EXPECT_EQ(read("Nov 30 00:00:00", written), utc(2025, 11, 30));
}

TEST_F(Stamps, TurnOfTheYearInBothDirections) {
  const int64_t newYear = utc(2027, 1, 1);
  EXPECT_EQ(read("Dec 31 23:59:59", newYear + 5), newYear - 1);
  EXPECT_EQ(read("Jan  1 00:00:01", newYear + 5), newYear + 1);
  // a clock or a time zone of the writer that is ahead
  EXPECT_EQ(read("Jan  1 00:00:01", newYear - 5), newYear + 1);
  EXPECT_EQ(read("Jan  1 13:00:00", newYear - 12 * 3600), newYear + 13 * 3600);
  EXPECT_EQ(read("Dec 31 23:59:59", newYear - 5), newYear - 1);
}

TEST_F(Stamps, AStampMayBeTwoDaysLaterThanTheFileAndNoMore) {
  const int64_t written = utc(2026, 6, 10, 12);
  EXPECT_EQ(read("Jun 12 11:59:59", written), utc(2026, 6, 12, 11, 59, 59));
  EXPECT_EQ(read("Jun 12 12:00:00", written), utc(2026, 6, 12, 12));
  EXPECT_EQ(read("Jun 12 12:01:00", written), utc(2025, 6, 12, 12, 1));
}

TEST_F(Stamps, OneReaderAcrossTheTurn) {
  StampReader reader;
  int64_t time = 0;
  reader.writtenBy(utc(2026, 12, 31, 23, 59, 59));
  EXPECT_NE(reader.read("Dec 31 23:59:59", &time), 0u);
  EXPECT_EQ(time, utc(2026, 12, 31, 23, 59, 59));
  reader.writtenBy(utc(2027, 12, 31, 23, 59, 59));
  EXPECT_NE(reader.read("Dec 31 23:59:59", &time), 0u);
  EXPECT_EQ(time, utc(2027, 12, 31, 23, 59, 59));
}

TEST_F(Stamps, TheLeapDayIsInALeapYear) {
  EXPECT_EQ(read("Feb 29 12:00:00", utc(2028, 2, 29, 13)), utc(2028, 2, 29, 12));
  EXPECT_EQ(read("Feb 29 12:00:00", utc(2027, 3, 1)), utc(2024, 2, 29, 12));
  EXPECT_EQ(read("Mar  1 00:00:00", utc(2028, 3, 1)), utc(2028, 3, 1));
  EXPECT_EQ(read("Mar  1 00:00:00", utc(2027, 3, 1)), utc(2027, 3, 1));
}

TEST_F(Stamps, ShortIsLocalTimeAcrossTheClocksChange) {
  zone("CET-1CEST,M3.5.0,M10.5.0/3");
  const int64_t written = utc(2026, 12, 1);
  EXPECT_EQ(read("Mar 29 01:59:59", written), utc(2026, 3, 29, 0, 59, 59));
  EXPECT_EQ(read("Mar 29 03:00:00", written), utc(2026, 3, 29, 1, 0, 0));
  EXPECT_EQ(read("Oct 25 04:00:00", written), utc(2026, 10, 25, 3, 0, 0));
}

TEST_F(Stamps, YearsFromABeginning) {
  StampReader reader;
  reader.beginInYear(2019);
  reader.writtenBy(utc(2026, 1, 1));  // says nothing here
  const struct {
    const char *stamp;
    int64_t time;
  } lines[] = {{"Jan  1 00:00:00", utc(2019, 1, 1)},
               {"Jun 30 10:00:00", utc(2019, 6, 30, 10)},
               {"Oct 10 00:00:00", utc(2019, 10, 10)},
               {"Dec 31 23:59:59", utc(2019, 12, 31, 23, 59, 59)},
               {"Jan  1 00:00:00", utc(2020, 1, 1)},
               {"Dec 31 23:59:58", utc(2019, 12, 31, 23, 59, 58)},  // out of order
               {"Feb 29 00:00:00", utc(2020, 2, 29)},
               {"Aug  1 00:00:00", utc(2020, 8, 1)},
               {"Jan 20 00:00:00", utc(2021, 1, 20)}};
  for (const auto &line : lines) {
    int64_t time = 0;
    EXPECT_EQ(reader.read(line.stamp, &time), 15u);
    EXPECT_EQ(time, line.time) << line.stamp;
  }
}

TEST_F(Stamps, FromABeginningALineMayBeHalfAYearLaterAndNoMore) {
  const std::pair<const char *, int64_t> lines[] = {
      {"Jul  3 00:00:00", utc(2019, 7, 3)}, {"Jul  3 00:01:00", utc(2018, 7, 3, 0, 1)}};
  for (const auto &[stamp, expected] : lines) {
    StampReader reader;
    reader.beginInYear(2019);
    int64_t time = 0;
    EXPECT_EQ(reader.read("Jan  1 00:00:00", &time), 15u);
    EXPECT_EQ(reader.read(stamp, &time), 15u);
    EXPECT_EQ(time, expected) << stamp;
  }
}

TEST_F(Stamps, YearsFromABeginningAtTheEndOfAYear) {
  StampReader reader;
  reader.beginInYear(2025);
  int64_t time = 0;
  EXPECT_EQ(reader.read("Dec 31 23:00:00", &time), 15u);
  EXPECT_EQ(time, utc(2025, 12, 31, 23));
  EXPECT_EQ(reader.read("Jan  1 01:00:00", &time), 15u);
  EXPECT_EQ(time, utc(2026, 1, 1, 1));
}

TEST_F(Stamps, WhatIsNone) {
  const int64_t written = utc(2026, 11, 21);
  for (const char *stamp : {"",
                            "Nov 21 02:04:2",
                            "Nov 21 02:04",
                            "Nov 31 00:00:00",
                            "Feb 30 00:00:00",
                            "Foo 21 02:04:20",
                            "anF 21 02:04:20",
                            "Nov 21 24:00:00",
                            "Nov 21 02:60:00",
                            "Nov 21 02:04:61",
                            "Nov  0 02:04:20",
                            "Nov xx 02:04:20",
                            "Nov 21 xx:04:20",
                            "Nov 21 02:xx:20",
                            "Nov 21 02:04:xx",
                            "Nov 21-02:04:20",
                            "Nov 21 02.04.20",
                            "nov 21 02:04:20",
                            "2026-11-21",
                            "2026-13-21T02:16:49Z",
                            "2026-11-31T02:16:49Z",
                            "2026-02-29T02:16:49Z",
                            "2026-11-21T24:16:49Z",
                            "2026-11-21T02:16:4",
                            "2026-11-21 02:16:49Z",
                            "2026/11/21T02:16:49Z",
                            "20261121T021649Z__________",
                            "----------------------------"}) {
    StampReader reader;
    reader.writtenBy(written);
    int64_t time = 0;
    EXPECT_EQ(reader.read(stamp, &time), 0u) << stamp;
  }
}

TEST_F(Stamps, ALeapSecondIsTheNextMinute) {
  EXPECT_EQ(read("Dec 31 23:59:60", utc(2026, 12, 31)), utc(2027, 1, 1));
  EXPECT_EQ(read("2016-12-31T23:59:60Z", 0), utc(2017, 1, 1));
}

}  // namespace
