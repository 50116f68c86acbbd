// Platform events in the system log.

#include <gtest/gtest.h>
#include <syslog.h>

#include <string>
#include <vector>

#include "kestsdk.h"
#include "support/syslog_reader.h"

namespace {

TEST(Event, isOneLineOfTheSystemLogWithItsNumber) {
  SyslogReader log;
  EXPECT_EQ(KESTLogSet1(1, 1, 0x13600001, "", "", "", ""), 0);
  const std::vector<LogLine> lines = log.take();
  ASSERT_EQ(lines.size(), 1u);
  EXPECT_EQ(lines[0].priority, LOG_INFO);
  EXPECT_EQ(lines[0].text, "platform event 0x13600001 (source 1, level 1)");
}

TEST(Event, carriesItsTexts) {
  SyslogReader log;
  EXPECT_EQ(KESTLogSet1(1, 1, 0xabc, "one", "", "100%s", "four"), 0);
  const std::vector<LogLine> lines = log.take();
  ASSERT_EQ(lines.size(), 1u);
  EXPECT_EQ(lines[0].text,
            "platform event 0x00000ABC (source 1, level 1) one 100%s four");
}

TEST(Event, textsCannotMakeALineOfTheirOwn) {
  SyslogReader log;
  EXPECT_EQ(KESTLogSet1(1, 1, 1, "a\nb", "\x1b[0m", "", "\x7f"), 0);
  const std::vector<LogLine> lines = log.take();
  ASSERT_EQ(lines.size(), 1u);
  EXPECT_EQ(lines[0].text, "platform event 0x00000001 (source 1, level 1) a?b ?[0m ?");
}

TEST(Event, nullTextIsNegativeAndLogsNothing) {
  SyslogReader log;
  EXPECT_LT(KESTLogSet1(1, 1, 1, nullptr, "", "", ""), 0);
  EXPECT_LT(KESTLogSet1(1, 1, 1, "", nullptr, "", ""), 0);
  EXPECT_LT(KESTLogSet1(1, 1, 1, "", "", nullptr, ""), 0);
  EXPECT_LT(KESTLogSet1(1, 1, 1, "", "", "", nullptr), 0);
  EXPECT_TRUE(log.take().empty());
}

}  // namespace
