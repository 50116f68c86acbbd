// Nothing may leave the library but results: every allocation of an operation is
// made to fail in turn.

#include <gtest/gtest.h>
#include <sys/stat.h>
#include <syslog.h>

#include <algorithm>
#include <functional>
#include <regex>
#include <vector>

#include "DBHandler.h"
#include "access.h"
#include "alias.h"
#include "bcc.h"
#include "domain.h"
#include "maillog.h"
#include "personal.h"
#include "postwell.h"
#include "receive_protocol.h"
#include "security.h"
#include "smtp.h"
#include "spam.h"
#include "spam_filter.h"
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

  // What was logged since, each as "source.cpp: text".
  std::vector<std::string> logged() {
    std::vector<std::string> texts;
    for (const LogLine &line : log.take()) {
      EXPECT_EQ(line.priority, LOG_ERR) << line.text;
      texts.push_back(std::regex_replace(line.text, std::regex(":[0-9]+ "), ": ",
                                         std::regex_constants::format_first_only));
    }
    return texts;
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

// Stores three long rules in the table, and counts what is stored.
template <class Rules, class Rule>
void expectStoredWhole(Rules &rules, int (Rules::*set)(const std::list<Rule> &) noexcept,
                       const std::list<Rule> &three, const std::function<int()> &count) {
  for (long n = 0;; n++) {
    allocations::failAfter(n);
    const int result = (rules.*set)(three);
    if (!allocations::stopFailing()) break;
    EXPECT_NE(result, 0) << n;
    EXPECT_EQ(count(), 0) << n;  // of a list that has no room nothing is run
    ASSERT_LT(n, 2000);
  }
  EXPECT_EQ(count(), 3);
}

TEST_F(OutOfMemoryTest, RulesAreStoredAndReadOrFailAndNeverThrow) {
  const auto fail = [this](long n, const auto &make, std::vector<std::string> lines) {
    allocations::failAfter(n);
    EXPECT_EQ(make(), nullptr);
    EXPECT_TRUE(allocations::stopFailing());
    EXPECT_EQ(logged(), lines);
  };
  const std::string noAccess = "access.cpp: db init fail",
                    noBcc = "bcc.cpp: bcc init fail";
  fail(0, Access::getInstance, {noAccess});
  fail(1, Access::getInstance, {noAccess, noAccess});  // of its handle, then its own
  fail(0, BCC::getInstance, {noBcc});
  fail(1, BCC::getInstance, {"bcc.cpp: bcc db init fail", noBcc});
  Access *const access = Access::getInstance();
  BCC *const bcc = BCC::getInstance();
  ASSERT_TRUE(access != nullptr && bcc != nullptr);
  const Filter all = {0, 10, "all", ""};
  std::list<AccessInfo> accessRules;
  std::list<BccInfo> bccRules;
  for (const char *name : {"a", "b", "c"}) {
    accessRules.emplace_back(TYPE_SENDER, NAME_DOMAIN, name + kLong, ACCESS_REJECT);
    bccRules.emplace_back(BCC_SENDER, name + kLong, "x");
  }
  const auto countAccess = [&] { return access->getTotalAccessNum(all); };
  const auto countBcc = [&] { return bcc->getTotalBccNum(all); };
  EXPECT_EQ(countAccess() + countBcc(), 0);
  expectStoredWhole(*access, &Access::setAccess, accessRules, countAccess);
  expectStoredWhole(*bcc, &BCC::setBCC, bccRules, countBcc);
  const auto listed = [](size_t size) { return size == 3 ? 0 : -1; };
  const std::string file = "/var/packages/Postwell/etc/list.txt";
  const std::function<int()> operations[] = {
      [&] { return listed(access->getAllAccessList(all).size()); },
      [&] { return listed(access->getAccessList(TYPE_SENDER, 0, 9).size()); },
      [&] { return listed(bcc->getAllBCCList(all).size()); },
      [&] { return listed(bcc->getBCCList(BCC_SENDER, 0, 9).size()); },
      [&] { return access->importAccess(TYPE_SENDER, file); },
      [&] { return bcc->importBCC(BCC_SENDER, file); },
      [&] { return access->deleteAccess(accessRules); },
      [&] { return bcc->deleteBCC(bccRules); }};
  writeFile(file, "a" + kLong + " OK\n");
  for (const auto &operation : operations) {
    EXPECT_GT(sweep(operation), 1);
    log.take();
  }
  EXPECT_EQ(countAccess(), 0);
}

TEST_F(OutOfMemoryTest, SpamListsAreStoredAndReadOrFailAndNeverThrow) {
  Spam *spam = nullptr;
  const auto make = [&spam] { return (spam = Spam::getInstance()) != nullptr ? 0 : -1; };
  EXPECT_GT(sweep(make), 5);
  ASSERT_NE(spam, nullptr);
  const std::vector<std::string> tries = logged();
  EXPECT_EQ(tries.front(), "spam.cpp: out of memory");  // for the instance itself
  EXPECT_GT(std::count(tries.begin(), tries.end(), "spam.cpp: db init fail"), 0);
  std::list<BlackWhite> three;
  for (const char *name : {"a", "b", "c"})
    three.push_back({name + kLong, TYPE_BLACK, TYPE_SENDER, NAME_DOMAIN});
  const BlackWhiteFilter all = {0, 10, -1, -1, "*", ""};
  expectStoredWhole(*spam, &Spam::addBlackWhiteList, three,
                    [&] { return spam->countQueryData(all); });
  log.take();
  // this line, of a read that fails without a code of SQLite's
  allocations::failAfter(0);
  EXPECT_EQ(spam->getBlackWhiteList(all).size(), 0u);
  EXPECT_TRUE(allocations::stopFailing());
  EXPECT_EQ(logged(),
            (std::vector<std::string>{"spam.cpp: Out of memory",
                                      "spam.cpp: query black white data fail"}));
  const std::string file = "/var/packages/Postwell/etc/list.txt";
  writeFile(file, "From: d" + kLong + " yes\n");
  const std::function<int()> operations[] = {
      [&] { return spam->getBlackWhiteList(all).size() == 3 ? 0 : -1; },
      [&] { return spam->countQueryData(all) == 3 ? 0 : -1; },
      [&] { return spam->addBlackWhite(three.front()); },
      [&] { return spam->deleteBlackWhite(three.front()); },
      [&] { return spam->deleteBlackWhiteList(three); },
      [&] { return spam->importBlackWhite(TYPE_WHITE, file); },
      [&] { return spam->exportBlackWhite(TYPE_WHITE, file); }};
  for (const auto &operation : operations) {
    EXPECT_GT(sweep(operation), 1);
    log.take();
  }
  EXPECT_EQ(spam->countQueryData(all), 1);
}

TEST_F(OutOfMemoryTest, BlocklistsAreReadAndWrittenWholeOrFailAndNeverThrow) {
  const std::string file = "/var/packages/Postwell/etc/spamlist.conf";
  const auto textOf = [](const std::string &name) {
    return "[RBL server]\n" + name + kLong + "\n[RHSBL server]\n" + name + kLong + "\n";
  };
  writeFile(file, textOf("a"));
  EXPECT_GT(sweep([] { return DNSBL::getInstance() != nullptr ? 0 : -1; }), 5);
  DNSBL &dnsbl = *DNSBL::getInstance();
  EXPECT_GT(sweep([&] { return dnsbl.getDNSBList().size() == 2 ? 0 : -1; }), 3);
  const std::list<DNSBinfo> other = {{"b" + kLong, RBL}, {"b" + kLong, RHSBL}};
  const std::list<DNSBinfo> before = dnsbl.getDNSBList();
  for (long n = 0; n < 4; n++) {  // two elements, two texts
    allocations::failAfter(n);
    dnsbl.setDNSBList(other);
    dnsbl.addDNSBList(other);
    EXPECT_TRUE(allocations::stopFailing());
    EXPECT_TRUE(dnsbl.getDNSBList() == before) << n;
  }
  dnsbl.setDNSBList(other);
  int failures = 0;
  for (long n = 0;; n++, failures++) {
    allocations::failAfter(n);
    const int result = dnsbl.applySettings();
    if (!allocations::stopFailing()) break;
    EXPECT_LT(result, 0) << n;
    const std::string found = readFile(file);
    EXPECT_TRUE(found == textOf("a") || found == textOf("b")) << found;
    ASSERT_LT(n, 2000);
  }
  EXPECT_GT(failures, 10);
  EXPECT_EQ(readFile(file), textOf("b"));
  for (const LogLine &line : log.take()) EXPECT_EQ(line.priority, LOG_ERR);
}

TEST_F(OutOfMemoryTest, SpamSettingsAndRulesAreChangedOrLoggedAndNeverThrow) {
  Spam *const spam = Spam::getInstance();
  ASSERT_NE(spam, nullptr);
  spam->setRewriteSubject("old");
  log.take();
  allocations::failAfter(0);
  spam->setRewriteSubject(kLong);
  EXPECT_TRUE(allocations::stopFailing());
  EXPECT_EQ(spam->getRewriteSubject(), "old");
  EXPECT_EQ(log.take().size(), 1u);
  EXPECT_GT(sweep([&] { return spam->applySettings(); }), 10);
  const std::string imported = "/var/packages/Postwell/etc/rules/",
                    active = "/var/packages/Postwell/target/etc/spamassassin/",
                    rule = std::string(200, 'x');
  for (const std::string &folder : {imported, active}) {
    mkdir(folder.c_str(), 0755);
    ASSERT_EQ(chmod(folder.c_str(), 0755), 0);
  }
  writeFile(imported + rule, "rule");
  const std::function<int()> reads[] = {
      [&] { return Spam::GetImportRulePath(rule).empty() ? -1 : 0; },
      [&] { return spam->getSpamRules().size() == 1 ? 0 : -1; }};
  for (const auto &read : reads) EXPECT_GT(sweep(read), 0);
  log.take();
  const std::pair<void (Spam::*)(const std::string &) noexcept, std::string> changes[] = {
      {&Spam::enableRule, "+"}, {&Spam::disableRule, "-"}, {&Spam::deleteRule, ""}};
  const auto state = [&] {
    const std::list<SpamRule> rules = spam->getSpamRules();
    return rules.empty() ? "" : rules.front().isEnable ? "+" : "-";
  };
  for (const auto &[change, after] : changes) {
    const std::string before = state();
    allocations::failAfter(0);
    (spam->*change)(rule);
    EXPECT_TRUE(allocations::stopFailing());
    EXPECT_EQ(state(), before);
    EXPECT_EQ(log.take().size(), 1u);
    (spam->*change)(rule);
    EXPECT_EQ(state(), after);
  }
}

TEST_F(OutOfMemoryTest, SecurityIsMadeWholeAndLogsWhatItDoesNotReport) {
  writeFile("/var/packages/Postwell/etc/spamlist.conf", "");
  EXPECT_GT(sweep([] { return Security::getInstance() != nullptr ? 0 : -1; }), 2);
  Security *const security = Security::getInstance();
  log.take();
  for (long n = 0;; n++) {
    allocations::failAfter(n);
    EXPECT_EQ(security->applySettings(), 0);
    if (!allocations::stopFailing()) break;
    EXPECT_FALSE(log.take().empty()) << n;
    ASSERT_LT(n, 2000);
  }
}

TEST_F(OutOfMemoryTest, PersonalIsReadAndWrittenWholeOrFailsAndNeverThrows) {
  const std::string home = "/var/services/homes/alice", longer(1000, 'x'),
                    read = kLong + "\r\n";
  mkdir(home.c_str(), 0755);
  const std::string forward =
                        "\\alice\n\"|/var/packages/Postwell/target/bin/vacation "
                        "alice\"\n" +
                        kLong + "\n",
                    message = "From:\"alice\"\nSubject:" + kLong + "\n" + kLong + "\n";
  writeFile(home + "/.forward", forward);
  writeFile(home + "/.vacation.msg", message);
  EXPECT_GT(sweep([&read] {
              const Personal personal("alice");
              if (!personal.isValid()) return -1;
              EXPECT_TRUE(personal.isEnabledForward() && personal.isKeepCopy() &&
                          personal.isEnabledReply());
              return personal.getForwardAddr() == kLong &&
                             personal.getReplySubject() == kLong &&
                             personal.getReplyMessage() == read
                         ? 0
                         : -1;  // a text that is empty without memory
            }),
            8);
  for (const std::string &line : logged())
    EXPECT_TRUE(line == "smtp.cpp: Out of memory" ||
                line == "smtp.cpp: KLIBCFileGetPair fail" ||
                line == "personal.cpp: Out of memory")
        << line;

  Personal personal("alice");
  allocations::failAfter(0);
  const bool isEmpty = personal.getForwardAddr().empty();
  personal.setForwardAddr(longer);
  personal.setReplySubject(longer);
  personal.setReplyMessage(longer);
  EXPECT_TRUE(allocations::stopFailing());
  EXPECT_TRUE(isEmpty);
  EXPECT_EQ(logged(), std::vector<std::string>(4, "personal.cpp: Out of memory"));
  EXPECT_EQ(personal.getForwardAddr(), kLong);
  personal.setReplyMessage(kLong);
  EXPECT_GT(sweep([&] { return personal.save(); }), 4);
  EXPECT_EQ(logged().back(), "personal.cpp: Out of memory");
  EXPECT_EQ(readFile(home + "/.forward"), forward);
  EXPECT_EQ(readFile(home + "/.vacation.msg"), message);
}

TEST_F(OutOfMemoryTest, HelpersGiveEmptyResultsAndNeverThrow) {
  const char path[] = "/var/packages/Postwell/etc/sections";
  writeFile(path, "[wanted]\n" + kLong + "\n" + kLong + "\n");
  std::list<std::string> lines;
  EXPECT_GT(sweep([&] { return GetSectionContent(path, "wanted", lines); }), 2);
  EXPECT_GT(sweep([] { return GetValidMap().count("root") == 1 ? 0 : -1; }), 10);
}

}  // namespace
