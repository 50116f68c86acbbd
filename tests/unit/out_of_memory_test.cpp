// Nothing may leave the library but results: every allocation of an operation is
// made to fail in turn.

#include <gtest/gtest.h>
#include <syslog.h>

#include <functional>
#include <regex>
#include <vector>

#include "DBHandler.h"
#include "alias.h"
#include "domain.h"
#include "maillog.h"
#include "postwell.h"
#include "receive_protocol.h"
#include "smtp.h"
#include "support/allocation_faults.h"
#include "support/database.h"
#include "support/files.h"
#include "support/package_tree.h"
#include "support/syslog_reader.h"

namespace {

const std::string kLong(300, 'x');  // never fits inside a string object

// Runs the operation with the 1st, 2nd, … allocation and all after it failing until
// it gets by without any, and gives how many times it failed. An exception that
// escapes a noexcept operation ends the program.
int sweep(const std::function<int()> &operation) {
  int failures = 0;
  for (long n = 0;; n++) {
    allocations::failAfter(n);
    const int result = operation();
    if (!allocations::stopFailing()) {
      EXPECT_EQ(result, 0) << "without a failing allocation";
      return failures;
    }
    failures++;
    if (failures > 2000) return failures;
  }
}

class OutOfMemoryTest : public testing::Test {
 protected:
  OutOfMemoryTest() {
    writeFile(PackageTree::kSettings, "smtp_hostname=\"" + kLong +
                                          "\"\nsmtp_relay_server=\"" + kLong +
                                          "\"\nimap_enabled=\"yes\"\n");
  }
  PackageTree tree;
  SyslogReader log;
};

TEST_F(OutOfMemoryTest, LoadFailsOrSucceedsWhole) {
  EXPECT_GT(sweep([] {
              SMTP smtp;
              const int result = smtp.load();
              if (result == 0) {
                EXPECT_EQ(smtp.getHostName().size(), kLong.size());
                EXPECT_EQ(smtp.getRelayServer().size(), kLong.size());
              }
              return result;
            }),
            3);
}

TEST_F(OutOfMemoryTest, SaveNeverWritesAPartOfTheGroups) {
  const std::string before = readFile(PackageTree::kSettings);
  SMTP smtp;
  smtp.setHostName(kLong + "y");
  EXPECT_GT(sweep([&smtp] { return smtp.save(); }), 10);
  EXPECT_EQ(
      readFile(PackageTree::kSettings).find(before.substr(before.find("imap"))),
      std::string("smtp_hostname=\"" + kLong + "y\"\nsmtp_relay_server=\"\"\n").size());
}

TEST_F(OutOfMemoryTest, SettersLeaveTheFieldAsItWas) {
  SMTP smtp;
  smtp.setHostName("old");
  allocations::failAfter(0);
  smtp.setHostName(kLong);
  smtp.setAccountType(kLong);
  smtp.setAccDomainName(kLong);
  smtp.setRelayServerInfo(kLong, 25);
  smtp.setRelayAccount(kLong);
  smtp.setRelayPassword(kLong);
  EXPECT_TRUE(allocations::stopFailing());
  EXPECT_EQ(smtp.getHostName(), "old");
  EXPECT_EQ(smtp.getAccountType(), "local");
  EXPECT_EQ(smtp.getRelayServer(), "");
  EXPECT_EQ(smtp.getRelayServerPort(), 0);
  const std::vector<LogLine> lines = log.take();
  EXPECT_EQ(lines.size(), 6u);
  for (const LogLine &line : lines) {
    EXPECT_EQ(line.priority, LOG_ERR);
    EXPECT_TRUE(
        std::regex_match(line.text, std::regex("smtp\\.cpp:[0-9]+ Out of memory")))
        << line.text;
  }
}

// A single allocation that fails, with memory again afterwards: nothing may be lost
// without a failing result, and each failing result has its line.
TEST_F(OutOfMemoryTest, OneFailedAllocationLosesNothingSilently) {
  for (long n = 0;; n++) {
    allocations::failOnceAfter(n);
    SMTP smtp;
    const int result = smtp.load();
    if (!allocations::stopFailing()) break;
    const std::vector<LogLine> lines = log.take();
    if (result == 0) {
      EXPECT_EQ(smtp.getHostName(), kLong);
      EXPECT_EQ(smtp.getRelayServer(), kLong);
    } else {
      EXPECT_EQ(lines.size(), 1u) << n;
    }
  }
  for (long n = 0;; n++) {
    allocations::failOnceAfter(n);
    ReceiveProtocol object;
    const int result = object.load();
    if (!allocations::stopFailing()) break;
    EXPECT_TRUE(result < 0 || object.getProtocol(IMAP)) << n;
    EXPECT_TRUE(result == 0 || !log.take().empty()) << n;
  }
}

TEST_F(OutOfMemoryTest, ReceiveProtocolNeverThrows) {
  EXPECT_GT(sweep([] {
              ReceiveProtocol object;
              const int result = object.load();
              return result == 0 && !object.getProtocol(IMAP) ? -1 : result;
            }),
            4);
  EXPECT_GT(sweep([] {
              ReceiveProtocol object;
              return object.save();
            }),
            4);
}

TEST_F(OutOfMemoryTest, DomainKeepsItsListAndNeverThrows) {
  const std::list<std::string> two = {kLong + "a", kLong + "b"};
  Domain domains;
  domains.setDomain(two);
  EXPECT_GT(sweep([&domains] { return domains.save(); }), 3);
  EXPECT_GT(sweep([&domains] { return domains.load(); }), 3);
  EXPECT_EQ(domains.getDomain(), two);
  log.take();
  for (long n = 0; n < 2; n++) {
    allocations::failAfter(n);
    domains.setDomain(two);
    domains.addDomain(two.front());
    domains.addDomain(two);
    const bool empty = domains.getDomain().empty();
    EXPECT_TRUE(allocations::stopFailing());
    EXPECT_TRUE(empty);
    EXPECT_EQ(domains.getDomain(), two);
    EXPECT_EQ(log.take().size(), 4u);
  }
}

TEST_F(OutOfMemoryTest, ADatabaseHandleWithoutItsTextsOpensNothing) {
  const std::string path = "/var/packages/Postwell/etc/test.db",
                    schema = "create table t(x);" + std::string(100, ' ');
  for (long n = 0; n < 2; n++) {
    allocations::failAfter(n);
    DBHandler handle(path, schema);
    EXPECT_TRUE(allocations::stopFailing());
    EXPECT_EQ(handle.connect(), 14);
    EXPECT_FALSE(fileExists(path));
    log.take();
  }
}

// Loads, adds one member and gives the result; `added` counts what was acknowledged.
int addMember(const std::list<MemberInfo> &members, size_t &added) {
  Alias aliases;
  if (aliases.getError() != 0 || aliases.load() != 0) return -1;
  if (aliases.addMember("sales", members) != 0) return -1;
  added++;
  return aliases.save();
}

TEST_F(OutOfMemoryTest, AliasStoresWhatItAcknowledgesAndNeverThrows) {
  MemberInfo info;
  info.strName = kLong;
  const std::list<MemberInfo> one = {info};
  const std::list<std::string> name = {kLong}, shop = {"shop"};
  size_t added = 0;
  EXPECT_GT(sweep([&] { return addMember(one, added); }), 10);
  Alias aliases;
  ASSERT_EQ(aliases.load(), 0);
  std::list<MemberInfo> members;
  EXPECT_EQ(aliases.loadMember("sales", members), 0);
  EXPECT_EQ(members.size(), added);
  std::list<std::string> names;
  EXPECT_GT(sweep([&] { return aliases.loadMember("sales", members); }), 2);
  EXPECT_GT(sweep([&] { return aliases.enumMemberByType(names, USER); }), 2);
  const std::function<int()> changes[] = {
      [&] { return aliases.delMember("sales", one); },
      [&] { return aliases.delMemberByType(name, GROUP); },
      [&] { return aliases.changeAliasName("sales", "shop"); },
      [&] { return aliases.delAlias(shop); }};
  for (const auto &change : changes) EXPECT_GT(sweep(change), 1);
  EXPECT_EQ(aliases.loadMember("shop", members), 0);
  EXPECT_EQ(members.size(), 0u);
}

TEST_F(OutOfMemoryTest, MailLogLoadsWholeEntriesAndNeverThrows) {
  const std::string path = "/var/packages/Postwell/target/etc/maillog/maillog.db";
  ASSERT_EQ(MailLog(path.c_str()).error(), 0);  // makes the files
  EXPECT_GT(sweep([&path] { return MailLog(path.c_str()).error(); }), 3);
  MailLog reader(path.c_str());
  LogFilter filter;
  filter.select = "*";
  filter.start = 0;
  filter.limit = -1;
  filter.orderType = "date";
  filter.sizeOpt = "any";
  filter.messageID = filter.mailTo = filter.mailFrom = kLong;
  filter.status = -1;
  filter.dateFrom = filter.dateTo = 0;
  std::string key = kLong;
  ASSERT_EQ(database::Connection(path).run(
                "with recursive n(i) as (select 1 union select i + 1 from n where i < 9) "
                "insert into mail_log_table select '" +
                kLong + "', 'q', i, '" + kLong + "', '" + kLong + "', 7, 1 from n;"),
            0);
  const std::function<int(std::vector<MailLogInfo> &)> loads[] = {
      [&](auto &rows) { return reader.load(filter, rows); },
      [&](auto &rows) { return reader.load(-1, 0, "date", "", rows); },
      [&](auto &rows) { return reader.search(100, 0, "date", "", key, rows); }};
  for (const auto &load : loads)
    EXPECT_GT(sweep([&load] {
                std::vector<MailLogInfo> rows;
                const int result = load(rows);
                if (result == 0) {
                  EXPECT_EQ(rows.size(), 9u);
                }
                for (const MailLogInfo &entry : rows) {
                  EXPECT_EQ(entry.strMailTo.size(), kLong.size());
                  EXPECT_EQ(entry.mailSize, 7);
                }
                return result;
              }),
              20);
  EXPECT_GT(sweep([&] { return reader.getLogNum(key) == 9 ? 0 : -1; }), 0);
  EXPECT_GT(sweep([&] { return reader.composeCmd(filter).empty() ? -1 : 0; }), 3);
  filter.select = "count(*)";
  EXPECT_GT(sweep([&] { return reader.getLogNum(filter) == 9 ? 0 : -1; }), 3);
  Statistic traffic;
  EXPECT_GT(sweep([&] { return reader.getQuantityStatistic(traffic, 1400000000, DAY); }),
            3);
  EXPECT_GT(sweep([&] { return reader.clear(); }), 3);
  EXPECT_EQ(reader.getLogNum(), 0);
  for (const LogLine &line : log.take())
    EXPECT_TRUE(line.text.find("Out of memory") != std::string::npos ||
                line.text.find("isn't exist") != std::string::npos ||
                line.text.find("Open database fail") != std::string::npos ||
                line.text.find("Create DB fail") != std::string::npos)
        << line.text;
}

TEST_F(OutOfMemoryTest, HelpersGiveEmptyResultsAndNeverThrow) {
  const char path[] = "/var/packages/Postwell/etc/sections";
  writeFile(path, "[wanted]\n" + kLong + "\n" + kLong + "\n");
  std::list<std::string> lines;
  EXPECT_GT(sweep([&] { return GetSectionContent(path, "wanted", lines); }), 2);
  EXPECT_GT(sweep([] { return GetValidMap().count("root") == 1 ? 0 : -1; }), 10);
}

}  // namespace
