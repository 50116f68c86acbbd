// The state file: what is saved is what a restart finds, and damage is noticed.

#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include "state_file.h"
#include "support/files.h"

namespace {

const std::string kState = "/tmp/state";

LogReader readerOf(const std::vector<std::string> &lines) {
  LogReader reader;
  std::vector<Delivery> deliveries;
  for (const std::string &line : lines)
    reader.take("2026-11-21T02:16:49Z mail postfix/" + line, &deliveries);
  reader.counters().sent = deliveries.size();
  return reader;
}

LogReader someReader() {
  const std::string rest = ">, relay=none, delay=1, dsn=4.0.0, status=deferred (x)";
  return readerOf({"cleanup[1]: AAAAAA: message-id=<m 'one'\xc3\xbc@x>",
                   "qmgr[1]: AAAAAA: from=<a@x>, size=5, nrcpt=2 (queue active)",
                   "cleanup[1]: BBBBBB: message-id=<>",
                   "smtp[1]: AAAAAA: to=<\"tab\there\"@x" + rest,
                   "smtp[1]: AAAAAA: to=<c@x" + rest, "smtp[1]: CCCCCC: to=<" + rest,
                   "smtp[1]: CCCCCC: to=<broken"});
}

const Position kPosition = {1, 2, {UINT64_MAX, 4}, -5, {{6, 7}, {8, UINT64_MAX}}};

TEST(State, WhatIsSavedIsFound) {
  const LogReader saved = someReader();
  Position position;
  LogReader reader;
  ASSERT_TRUE(parseState(stateText(kPosition, saved), &position, &reader));
  EXPECT_EQ(position.device, 1u);
  EXPECT_EQ(position.inode, 2u);
  EXPECT_EQ(position.mark.offset, UINT64_MAX);
  EXPECT_EQ(position.mark.fingerprint, 4u);
  EXPECT_EQ(position.written, -5);
  EXPECT_EQ(reader.counters().lines, 7u);
  EXPECT_EQ(reader.counters().notUnderstood, 1u);
  EXPECT_EQ(reader.counters().sent, 3u);
  EXPECT_EQ(reader.counters().lastTime, 1795227409);
  ASSERT_EQ(reader.messages().all().size(), 3u);
  const Message &message = *reader.messages().all().at(1);
  EXPECT_EQ(message.queueId, "AAAAAA");
  EXPECT_EQ(message.messageId, "m 'one'\xc3\xbc@x");
  EXPECT_EQ(message.from, "a@x");
  EXPECT_EQ(message.size, 5);
  EXPECT_TRUE(message.active);
  EXPECT_EQ(message.deferred,
            (std::set<std::string, std::less<>>{"\"tab?here\"@x", "c@x"}));
  EXPECT_EQ(reader.messages().all().back()->deferred,
            (std::set<std::string, std::less<>>{""}));
  // saved again it is the same, to the last byte
  EXPECT_EQ(stateText(position, reader), stateText(kPosition, saved));
}

TEST(State, TheNextLinesGoOnFromIt) {
  Position position;
  LogReader reader;
  ASSERT_TRUE(parseState(stateText(kPosition, someReader()), &position, &reader));
  std::vector<Delivery> deliveries;
  reader.take(
      "2026-11-25T02:16:49Z mail postfix/qmgr[1]: AAAAAA: from=<a@x>, "
      "status=expired, returned to sender",
      &deliveries);
  ASSERT_EQ(deliveries.size(), 2u);
  EXPECT_EQ(deliveries[1].to, "c@x");
  EXPECT_EQ(deliveries[1].messageId, "m 'one'\xc3\xbc@x");
  EXPECT_EQ(deliveries[1].status, STATUS_BOUNCE);
}

TEST(State, AnEmptyOne) {
  Position position;
  LogReader reader;
  ASSERT_TRUE(parseState(stateText(Position(), LogReader()), &position, &reader));
  EXPECT_EQ(position.inode, 0u);
  EXPECT_TRUE(reader.messages().all().empty());
}

TEST(State, EveryCutAndEveryChangedByteIsNoticed) {
  const std::string text = stateText(kPosition, someReader());
  for (size_t i = 0; i < text.size(); ++i) {
    Position position;
    LogReader cut, changed;
    EXPECT_FALSE(parseState(text.substr(0, i), &position, &cut)) << i;
    std::string other = text;
    other[i] = static_cast<char>(other[i] ^ 1);
    EXPECT_FALSE(parseState(other, &position, &changed)) << i;
  }
}

TEST(State, ReplacedInOneStepWithItsMode) {
  unlink(kState.c_str());
  EXPECT_EQ(replaceFile(kState, "one", 0600, true), "");
  EXPECT_EQ(replaceFile(kState, "two", 0600, false), "");
  EXPECT_EQ(readFile(kState), "two");
  struct stat status;
  ASSERT_EQ(stat(kState.c_str(), &status), 0);
  EXPECT_EQ(status.st_mode & 07777, 0600u);
  EXPECT_FALSE(fileExists(kState + ".new"));
  std::string text;
  EXPECT_TRUE(readWhole(kState, &text));
  EXPECT_EQ(text, "two");
  EXPECT_FALSE(readWhole("/tmp/none", &text));
  EXPECT_EQ(errno, ENOENT);
}

TEST(State, AFailureLeavesTheOldOne) {
  writeFile(kState, "old");
  EXPECT_EQ(replaceFile("/tmp/none/state", "new", 0600, true),
            "cannot write /tmp/none/state.new: No such file or directory");
  ASSERT_EQ(mkdir((kState + ".new").c_str(), 0755), 0);
  EXPECT_EQ(replaceFile(kState, "new", 0600, true),
            "cannot write /tmp/state.new: Is a directory");
  ASSERT_EQ(rmdir((kState + ".new").c_str()), 0);
  EXPECT_EQ(readFile(kState), "old");
  ASSERT_EQ(mkdir("/tmp/folder", 0755), 0);
  EXPECT_EQ(replaceFile("/tmp/folder", "new", 0600, true),
            "cannot replace /tmp/folder: Is a directory");
  ASSERT_EQ(rmdir("/tmp/folder"), 0);
}

TEST(State, AFullDiskLeavesTheOldOne) {
  writeFile(kState, "old");
  ASSERT_EQ(symlink("/dev/full", (kState + ".new").c_str()), 0);
  EXPECT_EQ(replaceFile(kState, "new", 0600, true),
            "cannot write /tmp/state.new: No space left on device");
  EXPECT_EQ(readFile(kState), "old");
}

}  // namespace
